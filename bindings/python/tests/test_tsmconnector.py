"""The binding with the library and the stand-in, which TSMCONNECTOR_LIBRARY names."""

import contextlib
import ctypes
import gc
import io
import linecache
import os
import pickle
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest
import unittest.mock
from concurrent.futures import ThreadPoolExecutor
from datetime import datetime, timezone
from pathlib import Path
from typing import Any, Callable, List, Optional
from xml.etree import ElementTree

import tsmconnector
from tsmconnector import NotFoundError, TsmError
from tsmconnector._errors import CODES
from tsmconnector._library import TsmObject

ROOT = Path(__file__).resolve().parents[3]
STANDIN = ctypes.CDLL(os.environ["TSMCONNECTOR_LIBRARY"])  # with what it is linked with
STANDIN.standinCalls.restype = ctypes.c_ulong


def fail(function: str, nth: int = 1, code: int = 11, reason: int = 0) -> None:
    assert STANDIN.standinFail(function.encode(), nth, code, reason) == 0


def calls(function: str) -> int:
    return int(STANDIN.standinCalls(function.encode()))


class Binding(unittest.TestCase):
    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.config = self.folder / "dsm.opt"
        self.config.write_text("STOREDIR store\n")
        STANDIN.standinReset()
        self.addCleanup(STANDIN.standinReset)
        self.api = tsmconnector.Api(config=self.config)
        self.addCleanup(lambda: self.api.close())
        self.session = self.open()

    def open(self, **changes: Any) -> tsmconnector.Session:
        return self.api.session("NODE", **{"password": "secret", "filespace": "vm", **changes})

    def store(self, path: str, name: str, data: bytes, **more: Any) -> None:
        with self.session.backup(path, name, **more) as file:
            file.write(data)

    def fetch(self, path: str, name: str, at: Any = None) -> Optional[bytes]:
        with self.session.restore(path, name, at) as file:
            return file.read()

    def names(self, **how: Any) -> List[str]:
        return sorted(f"{o.path}/{o.name}" for o in self.session.list(kind="files", **how))

    def code(self, code: int, call: Callable[..., Any], *arguments: Any, **more: Any) -> TsmError:
        with self.assertRaises(TsmError) as caught:
            call(*arguments, **more)
        self.assertEqual(caught.exception.code, code)
        return caught.exception

    def test_tables(self) -> None:
        header = (ROOT / "standin/include/dsmrc.h").read_text()
        names = {int(code): name for name, code in re.findall(r"#define (DSM_RC_\w+) (\d+)", header) if code != "0"}
        self.assertEqual({code: name for code, (name, _) in CODES.items()}, names)
        (record,) = ElementTree.parse(ROOT / "api/abi.xml").iterfind(".//class-decl[@name='TsmObject']")
        self.assertEqual(ctypes.sizeof(TsmObject), int(record.attrib["size-in-bits"]) // 8)
        layout = [(m[0].attrib["name"], int(m.attrib["layout-offset-in-bits"]) // 8) for m in record.iter("data-member")]
        self.assertEqual([(name, getattr(TsmObject, name).offset) for name, _ in TsmObject._fields_], layout)

    def test_round_trips(self) -> None:
        data = os.urandom(5_000_001)
        for size in (0, 1, 32767, 32768, 32769, 1 << 20, len(data)):
            self.store("a/b", str(size), data[:size])
            with self.session.restore("/a/b/", str(size)) as file:
                got, step = b"", 1
                while part := file.read(step):  # odd sizes, none of which is cut short before the end
                    got, step = got + part, step * 3 + 1
                self.assertEqual((got == data[:size], file.tell(), file.size), (True, size, 1))
        with self.session.backup("", "copy", size=5 << 30) as to, io.BytesIO(data) as source:
            shutil.copyfileobj(source, to, 77_777)
        STANDIN.standinTakeAtMost(1000)
        with self.session.backup("", "buffered") as to, io.BufferedWriter(to, 333) as wrapper:
            for at in range(0, 100_000, 101):
                wrapper.write(memoryview(data)[at : min(at + 101, 100_000)])
        with io.BufferedReader(self.session.restore("", "copy")) as again:
            self.assertEqual((again.peek(10)[:10], again.read()), (data[:10], data))
        self.assertEqual(self.fetch("", "buffered"), data[:100_000])
        with self.session.restore("", "copy") as file:
            self.assertEqual((file.size, file.read(10)), (5 << 30, data[:10]))  # and no further
        self.assertEqual((len(self.names()), calls("dsmInitEx")), (9, 1), "all on one handle")

    def test_records_and_moments(self) -> None:
        name, info = os.fsdecode(b"n\xc3\xa4me\xff"), "i" * 300
        for second in (1, 2):
            STANDIN.standinSetClock(b"2021-03-07 09:05:0%d" % second)
            self.store("d", name, b"%d" % second, size=7, info=info)
        now = self.session.list("d", name)
        self.assertEqual(now, [("/d", name, 7, "2021-3-7 9:5:2", info[:254], "vm", True)])
        self.assertEqual(now[0].stored_at, datetime(2021, 3, 7, 9, 5, 2))
        old = datetime(2021, 3, 7, 9, 5, 1, 999999)
        at: Any
        for at in (old, "2021-3-7 9:5:1", "2021-03-07T09:05:01"):
            self.assertEqual([self.fetch("d", name, at), len(self.session.list(at=at, kind="files"))], [b"1", 1])
        self.assertEqual(len(self.session.list("d", versions=True)), 2)
        self.assertEqual([o.name for o in self.session.list(kind="directories")], ["d"])
        for at in ("", "yesterday", "2021-02-30", "2021-3-7 9:5:1 ", "0-0-0", "2021", old.replace(tzinfo=timezone.utc)):
            self.assertRaises(ValueError, self.session.restore, "d", name, at)
            self.assertRaises(ValueError, self.session.list, "d", name, at=at)

    def test_names_classes_and_filespaces(self) -> None:
        self.assertEqual(self.session.management_classes(), ["STANDARD"])
        self.session.make_directory("a", "b", info="mode")
        self.assertEqual([(o.path, o.name, o.info, o.is_file) for o in self.session.list("a")],
                         [("/a", "b", "mode", False)])  # fmt: skip
        self.code(-2025, self.session.make_directory, "a", "c", mgmt_class="NONE")
        uses: List[Any] = [
            self.session.backup, self.session.make_directory, self.session.delete, lambda *old: self.session.rename(
                old[0], old[1], "d", "g"), lambda *new: self.session.rename("d", "h", new[0], new[1])]  # fmt: skip
        for path in ("a//", "//a", "a//b", "a\\b", "\\", "*", "a?", "\0"):
            for use in (*uses, self.session.restore):
                self.assertRaises(ValueError, use, path, "g")
        for name in ("", "/g", "g/", "x\\y", "x*", "?", "x\0"):
            for use in uses:
                self.assertRaises(ValueError, use, "c", name)
        self.assertRaises(TypeError, self.session.backup, self.folder, "g")
        for size in (0, -1, 1 << 63, 1.5):
            self.assertRaises((TypeError, ValueError), self.session.backup, "c", "g", size)
        self.session.connect("other")
        self.assertEqual(self.session.list(), [])
        self.session.delete_filespace("other")
        self.code(-2061, self.store, "", "f", b"")
        self.assertEqual(self.session.filespaces(), ["vm"])
        self.session.delete_filespace("vm")
        self.assertEqual(self.session.filespaces(), [])

    def test_only_what_is_named_goes(self) -> None:
        delete, rename = self.session.delete, self.session.rename

        def refused(call: Callable[..., None], *names: str, **how: Any) -> None:
            before = self.session.list(versions=True)
            self.assertRaises(ValueError, call, *names, **how)
            self.assertEqual(self.session.list(versions=True), before)

        self.store("a/b", "f", b"1")
        self.store("c", "g", b"2")
        for path, name in (("", "a"), ("a", "b"), ("a/b", "f"), ("/a/b/", "f"), ("a/b/f", "g")):
            refused(rename, "a/b", "f", path, name)
        delete("", "c", kind="directories", all_versions=True)
        refused(rename, "c", "g", "", "c")
        refused(delete, "a", "b")
        self.store("", "a", b"3")  # where there is a directory a
        for old in (False, True):
            refused(delete, "a/b", "f", all_versions=old)
            for kind in ("files", "directories"):
                refused(delete, "", "a", kind=kind, all_versions=old)
        for four in (("a/b", "f", "x", "y"), ("c", "g", "a", "y"), ("", "a", "", "y"), ("c", "g", "", "a")):
            refused(rename, *four)
        delete("", "a", kind="any")
        refused(delete, "a/b", "f", all_versions=True)  # an older version of the file a would go
        delete("a/b", "f")
        self.assertEqual((self.names(), self.names(versions=True)), (["/c/g"], ["/a", "/a/b/f", "/c/g"]))
        self.store("c", "x", b"6")
        refused(rename, "a/b", "f", "c", "x")  # only inactive versions, over an active one
        fail("dsmBeginQuery", 6)  # the library's own look at the old name
        self.code(-2, rename, "c", "none", "c", "x")
        STANDIN.standinReset()
        delete("c", "x", all_versions=True)
        fail("dsmRenameObj", code=157)  # given up without a reason, of which the library knows nothing
        fail("dsmEndTxn", code=0)
        self.code(-1, rename, "c", "g", "d", "h")
        self.store("d", "h", b"4")
        for new, lost in ("g", lambda *_: 0), ("x", lambda at, *_: STANDIN.TsmDelete(at, b"d", b"h", 1, None)):
            with unittest.mock.patch.object(self.api._library, "TsmRenameBackup", lost):
                self.code(-1, rename, "d", "h", "c", new)
        for nth in range(1, 12):  # whichever of its queries breaks off
            with contextlib.suppress(TsmError):
                fail("dsmGetNextQObj", nth)
                delete("c", "g")
                STANDIN.standinReset()
                self.assertNotIn("/c/g", self.names())
        self.assertEqual(self.names(), [])

    def test_exceptions_store_nothing(self) -> None:
        self.store("d", "f", b"first")

        def raising(error: BaseException) -> None:
            with self.session.backup("d", "f") as file, io.BufferedWriter(file) as wrapper:
                wrapper.write(b"half" * 100_000)
                raise error

        def failing(spoil: Callable[[Any], Any], swallow: bool = True) -> None:
            with self.session.backup("d", "f") as file:
                self.assertRaises(ValueError, file.__enter__)
                file.write(b"h")
                with contextlib.suppress(*[TsmError, TypeError, ValueError] * swallow):
                    spoil(file)
                    file.write(b"a")
                with contextlib.suppress(TsmError, TypeError, ValueError):
                    file.write(b"lf")

        for spoil in (lambda file: file.write("l"), lambda file: (file.close(), file.write(b"l"))):
            self.assertRaises((TypeError, ValueError), failing, spoil)
        for error in (ValueError(), KeyboardInterrupt(), SystemExit(), GeneratorExit()):
            commits = calls("dsmEndTxn")
            self.assertRaises(type(error), raising, error)
            self.assertEqual(calls("dsmTerminate"), calls("dsmInitEx"), "signed off at once")
            self.assertEqual((calls("dsmEndTxn"), self.fetch("d", "f")), (commits, b"first"))
        for swallow in (False, True):
            for result, of in (-11, ("dsmSendData", 11, 0)), (-12, ("dsmSendData", 157, 12)), (-9, ("dsmEndTxn", 0, 9)):
                self.code(result, failing, lambda _, of=of: fail(of[0], 1, *of[1:]), swallow)
                STANDIN.standinReset()
                self.assertEqual(self.fetch("d", "f"), b"first", of)
        fail("dsmSendObj")
        self.code(-11, self.store, "d", "f", b"half")
        never = self.session.backup("d", "f")
        self.assertRaises(io.UnsupportedOperation, never.write, b"half")
        self.assertRaises(OSError, io.BufferedWriter, never)
        never.close()
        with self.assertWarns(ResourceWarning):
            wrapper = io.BufferedWriter(self.session.backup("d", "f").__enter__())
            wrapper.write(b"half")
            del wrapper
            gc.collect()
        with self.assertRaisesRegex(ValueError, "given up"), self.session.backup("d", "f") as file:
            file.write(b"half")
            self.session.close()
        self.session = self.open()
        self.assertEqual((self.fetch("d", "f"), len(self.names(versions=True))), (b"first", 1))
        commits = calls("dsmEndTxn")
        with self.session.backup("d", "f") as file:
            file.write(b"second")
            file.close()
        self.assertEqual((calls("dsmEndTxn"), self.fetch("d", "f")), (commits + 1, b"second"))
        self.assertRaises(ValueError, file.write, b"more")
        self.assertRaises(ValueError, file.__enter__)

    def test_interrupts_and_ends_of_the_process(self) -> None:
        source = f"""
import os, signal, sys, threading, tsmconnector
signal.alarm(60)
signal.signal(signal.SIGINT, signal.default_int_handler)
api = tsmconnector.Api({str(self.config)!r})
session = api.session("NODE", password="secret", filespace="vm")
writer = session.backup("", sys.argv[1]).__enter__()
writer.write(b"half")
print("half", flush=True)
"""
        self.api.close()
        fork = """
def fork():
    if os.fork() == 0:
        for use in (session.list, session.__enter__, lambda: writer.write(b"x"), tsmconnector.Api, lambda: os._exit(0)):
            try:
                signal.alarm(10)
                print(use(), flush=True)
            except RuntimeError:
                session.close()
    print(end="hung" if os.wait()[1] else "")
thread = threading.Thread(target=fork)
with session._lock, tsmconnector._session._life:
    thread.start()
    thread.join()
writer.__exit__(None, None, None)
"""
        ends = ("", "sys.exit(3)", "os._exit(0)", "os.kill(os.getpid(), 2)", "os.kill(os.getpid(), 9)", "1 / 0", fork)
        for end in ends:
            command = [sys.executable, "-c", source + end, "whole" if end == fork else "f"]
            self.assertEqual(subprocess.run(command, stdout=subprocess.PIPE, stderr=-3).stdout, b"half\n", end)
        self.api = tsmconnector.Api(config=self.config)
        self.session = self.open()
        self.assertEqual(self.names(versions=True), ["/whole"])

    def test_failures(self) -> None:
        self.store("d", "f", os.urandom(3_000_000))
        error = self.code(-137, self.open, password="wrong")
        self.assertEqual((error.name, error.operation), ("DSM_RC_AUTH_FAILURE", "TsmOpenSession"))
        self.assertIn("wrong password (DSM_RC_AUTH_FAILURE, -137)", str(pickle.loads(pickle.dumps(error))))
        fail("dsmRegisterFS")
        self.code(-11, self.open)
        fail("dsmInitEx", code=12)
        self.assertEqual(self.code(-12, self.open).name, "unknown")
        sign_ons = calls("dsmInitEx")
        self.assertRaises(NotFoundError, self.session.restore, "d", "none")
        self.assertEqual((len(self.names()), calls("dsmInitEx")), (1, sign_ons))
        self.code(-2025, self.store, "d", "g", b"", mgmt_class="NONE")
        self.code(-2120, self.store, "d", "n" * 256, b"")
        with self.session.restore("d", "f") as file:
            file.read(2_000_000)
            fail("dsmGetData")
            for _ in range(2):
                self.code(-11, file.read)
        with self.session.restore("d", "f") as file:
            fail("dsmGetData", code=2200)  # a piece without bytes
            self.assertEqual(len(file.read() or b""), 3_000_000)
        fail("dsmGetNextQObj")
        self.code(-11, self.session.list)
        fail("dsmDeleteObj")
        self.code(-11, self.session.delete, "d", "f")
        fail("dsmDeleteObj", 2)  # in the tidying: the result is 0, and a transaction stays open
        self.session.delete("d", "f")
        self.assertEqual(self.names(), [])
        fail("dsmRegisterFS")
        self.code(-11, self.session.connect, "other")
        self.assertEqual(self.names(versions=True), ["/d/f"], "still in the old filespace")

    def test_closing(self) -> None:
        self.code(-2041, tsmconnector.Api, self.config)
        other = self.open()
        file = other.backup("", "f").__enter__()
        self.store("", "g", b"1")
        reader = self.session.restore("", "g")
        for _ in range(2):
            self.api.close()
            self.session.close()
        uses: List[Callable[[], Any]] = [
            self.session.list, other.filespaces, self.open, self.api.__enter__, self.session.__enter__, reader.read,
            lambda: file.write(b"1"), lambda: file.__exit__(None, None, None)]  # fmt: skip
        for use in uses:
            self.assertRaises(ValueError, use)
        reader.close()
        self.code(-109, tsmconnector.Api, self.folder / "missing.opt")
        with unittest.mock.patch.dict(os.environ, TSMCONNECTOR_LIBRARY="/none.so"):
            self.assertRaisesRegex(ImportError, "TSMCONNECTOR_LIBRARY", tsmconnector.Api)
        self.assertEqual(STANDIN.TsmInitApi(os.fsencode(self.config), None, None, None), 0)  # another host's
        self.code(-2041, tsmconnector.Api, self.config)
        self.assertEqual(STANDIN.TsmReleaseApi(), 0)
        forgotten = tsmconnector.Api(self.config)
        with self.assertWarns(ResourceWarning):
            del forgotten
            gc.collect()
        self.api = tsmconnector.Api(self.config)
        self.assertEqual([o.name for o in self.open().list()], ["g"])

    def test_break_ins(self) -> None:
        """At every line of the binding that an operation runs through, a handler breaks in."""

        def sweep(action: Callable[[], Any], operation: Callable[[], None], check: Callable[[int], None]) -> None:
            for stop in range(1, 10_000):
                lines = 0

                def trace(frame: Any, event: str, _: object) -> Any:
                    nonlocal lines
                    if "/tsmconnector/_s" not in frame.f_code.co_filename:
                        return None
                    code = linecache.getline(frame.f_code.co_filename, frame.f_lineno).split()
                    # Python itself lets nothing in where a `with` is left (its line comes again), nor at a `try`.
                    if event == "line" and code[0] not in ("with", "try:"):
                        lines += 1
                        if lines == stop:
                            with contextlib.suppress(RuntimeError, ValueError):
                                action()
                    return trace

                sys.settrace(trace)
                try:
                    operation()
                except (KeyboardInterrupt, RuntimeError, ValueError):
                    self.assertFalse(self.session._mine())
                sys.settrace(None)
                check(stop)
                if lines < stop:
                    self.assertGreater(stop, 30)
                    return

        def backup() -> None:
            with self.session.backup("", "f") as file:
                for part in (b"wh", b"ole"):
                    with contextlib.suppress(KeyboardInterrupt):  # but the block's end tells
                        file.write(part)

        def whole_or_none(stop: int) -> None:
            with unittest.mock.patch("warnings.warn"):
                gc.collect()
            if self.names():
                self.assertEqual(self.fetch("", "f"), b"whole")
            self.session.delete("", "f", all_versions=True)
            self.assertEqual(self.names(), [], stop)

        def use_and_close() -> None:
            try:
                self.session.list()
            finally:
                self.session.close()

        def all_signed_off(stop: int) -> None:
            self.session.close()
            self.assertEqual(calls("dsmInitEx"), calls("dsmTerminate"), stop)
            self.session = self.open()

        with unittest.mock.patch("sys.unraisablehook"):  # of finalisers that are broken into
            sweep(lambda: signal.default_int_handler(2, None), backup, whole_or_none)
        self.store("", "g", b"1")
        stored = self.session.list(name="g")
        for action in (lambda: self.session.list(), use_and_close):
            sweep(action, lambda: self.assertEqual(self.session.list(name="g"), stored), all_signed_off)
        sweep(use_and_close, backup, all_signed_off)

    def test_threads(self) -> None:
        def run(work: Callable[[int], None]) -> List[Any]:
            with ThreadPoolExecutor(4) as pool:
                return [type(future.exception()) for future in [pool.submit(work, number) for number in range(4)]]

        def own(number: int) -> None:
            data = os.urandom(300_000)
            with self.open() as session:
                with session.backup(f"t/{number}", "f") as file:
                    file.write(data)
                with session.restore(f"t/{number}", "f") as back:
                    assert back.read() == data

        def shared(number: int) -> None:
            for _ in range(20):
                assert len(self.session.list("t/*", "f")) == 4

        self.assertEqual((run(own), run(shared)), ([type(None)] * 4, [type(None)] * 4))
        with self.session.backup("", "f") as file:
            self.assertEqual(run(shared), [RuntimeError] * 4)
            self.assertRaises(RuntimeError, self.session.backup("", "g").__enter__)
            file.write(b"whole")
        self.assertEqual(self.fetch("", "f"), b"whole")
