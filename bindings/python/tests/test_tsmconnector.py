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
import subprocess
import sys
import tarfile
import tempfile
import threading
import unittest
import unittest.mock
import warnings
from datetime import datetime, timezone
from pathlib import Path
from typing import Any, BinaryIO, Callable, Generator, List, Optional, cast
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

    # ------------------------------------------------------------------ what the package says of the library

    def test_tables(self) -> None:
        header = (ROOT / "standin/include/dsmrc.h").read_text()
        names = {int(code): name for name, code in re.findall(r"#define (DSM_RC_\w+) (\d+)", header) if code != "0"}
        self.assertEqual({code: name for code, (name, _) in CODES.items()}, names)
        (record,) = ElementTree.parse(ROOT / "api/abi.xml").iterfind(".//class-decl[@name='TsmObject']")
        self.assertEqual(ctypes.sizeof(TsmObject), int(record.attrib["size-in-bits"]) // 8)
        layout = [(m[0].attrib["name"], int(m.attrib["layout-offset-in-bits"]) // 8) for m in record.iter("data-member")]
        self.assertEqual([(name, getattr(TsmObject, name).offset) for name, _ in TsmObject._fields_], layout)

    # ------------------------------------------------------------------ storing and reading

    def test_round_trips(self) -> None:
        data = os.urandom(5_000_001)
        for size in (0, 1, 32767, 32768, 32769, 1 << 20, len(data)):
            self.store("a/b", str(size), data[:size])
            with self.session.restore("/a\\b/", str(size)) as file:
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
        with self.session.backup("", "tar") as to, tarfile.open(fileobj=cast(BinaryIO, to), mode="w|gz") as tar:
            tar.add(self.config, "member")
        with io.BufferedReader(self.session.restore("", "copy")) as again:
            self.assertEqual((again.peek(10)[:10], again.read()), (data[:10], data))
        self.assertEqual(self.fetch("", "buffered"), data[:100_000])
        with self.session.restore("", "tar") as file, tarfile.open(fileobj=cast(BinaryIO, file), mode="r|gz") as tar:
            self.assertEqual(tar.getnames(), ["member"])
        with self.session.restore("", "copy") as file:
            self.assertEqual((file.size, file.read(10)), (5 << 30, data[:10]))  # and no further
        self.assertEqual(len(self.names()), 10)

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
        self.store("a", "f", b"1")
        self.session.rename("a", "f", "c", "g")
        self.assertEqual(self.names(), ["/c/g"])
        for path, name in (("c", "g"), ("/c/", "g"), ("\\c", "/g"), ("c\\", "g/")):
            self.assertRaises(ValueError, self.session.rename, path, name, "c", "g")
        for bad in ("", "x/y", "x\\y", "x*", "?", "x\0"):
            self.assertRaises(ValueError, self.session.backup, "c", bad)
            self.assertRaises(ValueError, self.session.rename, "c", "g", "d", bad)
        for size in (0, -1, 1 << 63):
            self.assertRaises(ValueError, self.session.backup, "c", "g", size)
        self.assertRaises(ValueError, self.session.restore, "*", "g")
        self.code(-2, self.session.rename, "a", "none", "a", "x")
        fail("dsmRenameObj", code=157)  # given up without a reason, of which the library knows nothing
        fail("dsmEndTxn", code=0)
        self.code(-1, self.session.rename, "c", "g", "a", "x")
        self.session.delete("c", "g")
        self.assertEqual((self.names(), self.names(versions=True)), ([], ["/c/g"]))
        self.session.connect("other")
        self.assertEqual(self.session.list(), [])
        self.session.delete_filespace("other")
        self.code(-2061, self.store, "", "f", b"")
        self.code(-2061, self.store, "", "f", b"")
        self.assertEqual(self.session.filespaces(), ["vm"])

    # ------------------------------------------------------------------ what must not be stored

    def test_exceptions_store_nothing(self) -> None:
        self.store("d", "f", b"first")

        def raising(error: BaseException) -> None:
            with self.session.backup("d", "f") as file, io.BufferedWriter(file) as wrapper:
                wrapper.write(b"half" * 100_000)
                raise error

        def failing(function: str, code: int = 11, reason: int = 0, swallow: bool = False) -> None:
            fail(function, code=code, reason=reason)
            with self.session.backup("d", "f") as file:
                file.write(b"ha")
                try:
                    fail(function, code=code, reason=reason)
                    file.write(b"lf")
                except TsmError:
                    if not swallow:
                        raise

        def generator() -> Generator[None, None, None]:
            with self.session.backup("d", "f") as file:
                file.write(b"half")
                yield

        for error in (ValueError(), KeyboardInterrupt(), SystemExit(), GeneratorExit()):
            commits = STANDIN.standinCalls(b"dsmEndTxn")
            self.assertRaises(type(error), raising, error)
            self.assertEqual((STANDIN.standinCalls(b"dsmEndTxn"), self.fetch("d", "f")), (commits, b"first"))
        for swallow in (False, True):
            for result, failure in ((-11, ("dsmSendData", 11, 0)), (-12, ("dsmSendData", 157, 12)),
                                    (-11, ("dsmSendObj", 11, 0)), (-9, ("dsmEndTxn", 0, 9))):  # fmt: skip
                self.code(result, failing, *failure, swallow=swallow)
                STANDIN.standinReset()
                self.assertEqual(self.fetch("d", "f"), b"first", failure)
        unfinished = generator()
        next(unfinished)
        unfinished.close()
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
        commits = STANDIN.standinCalls(b"dsmEndTxn")
        with self.session.backup("d", "f") as file:
            file.write(b"second")
            file.close()
        self.assertEqual((STANDIN.standinCalls(b"dsmEndTxn"), self.fetch("d", "f")), (commits + 1, b"second"))
        self.assertRaises(ValueError, file.write, b"more")
        self.assertRaises(ValueError, file.__enter__)

    def test_interrupts_and_ends_of_the_process(self) -> None:
        source = f"""
import os, signal, sys, threading, time, tsmconnector
api = tsmconnector.Api({str(self.config)!r})
session = api.session("NODE", password="secret", filespace="vm")
writer = session.backup("", sys.argv[1]).__enter__()
writer.write(b"half")
print("half", flush=True)
"""
        self.api.close()
        fork = """
if os.fork() == 0:
    try:
        session.list()
    except RuntimeError:
        sys.exit()
os.wait()
writer.__exit__(None, None, None)
"""
        ends = ("", "sys.exit(3)", "os._exit(0)", "os.kill(os.getpid(), 9)", "raise ValueError", fork)
        for end in ends:
            command = [sys.executable, "-c", source + end, "whole" if end == fork else "f"]
            self.assertEqual(subprocess.run(command, stdout=subprocess.PIPE, stderr=-3).stdout, b"half\n", end)
        interrupted = """
writer.__exit__(ValueError, None, None)
threading.Timer(0.2, os.kill, (os.getpid(), signal.SIGINT)).start()
with session.backup("", "f") as file:
    try:
        while True:
            file.write(bytes(3_000_000))
    except KeyboardInterrupt:
        pass  # but the block's end tells
"""
        done = subprocess.run([sys.executable, "-c", source + interrupted, "g"], capture_output=True, text=True)
        self.assertIn("KeyboardInterrupt", done.stderr)
        self.api = tsmconnector.Api(config=self.config)
        self.session = self.open()
        self.assertEqual(self.names(versions=True), ["/whole"])

    # ------------------------------------------------------------------ failures, closing, threads

    def test_failures(self) -> None:
        self.store("d", "f", os.urandom(3_000_000))
        error = self.code(-137, self.open, password="wrong")
        self.assertEqual((error.name, error.operation), ("DSM_RC_AUTH_FAILURE", "TsmOpenSession"))
        self.assertIn("wrong password (DSM_RC_AUTH_FAILURE, -137)", str(pickle.loads(pickle.dumps(error))))
        fail("dsmInitEx")
        self.assertEqual(self.code(-11, self.open).name, "unknown")
        sign_ons = STANDIN.standinCalls(b"dsmInitEx")
        self.assertRaises(NotFoundError, self.session.restore, "d", "none")
        self.assertEqual((len(self.names()), STANDIN.standinCalls(b"dsmInitEx")), (1, sign_ons))
        self.code(-2025, self.store, "d", "g", b"", mgmt_class="NONE")
        self.code(-2120, self.store, "d", "n" * 256, b"")
        with self.session.restore("d", "f") as file:
            file.read(2_000_000)
            fail("dsmGetData")
            for _ in range(2):
                self.code(-11, file.read)
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
        with self.assertRaisesRegex(ImportError, "TSMCONNECTOR_LIBRARY"), unittest.mock.patch.dict(
            os.environ, TSMCONNECTOR_LIBRARY="/none.so"
        ):
            tsmconnector.Api()
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

        def sweep(action: Callable[[], None], operation: Callable[[], None], check: Callable[[int], None]) -> None:
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
                            action()
                    return trace

                sys.settrace(trace)
                try:
                    operation()
                except (KeyboardInterrupt, RuntimeError, ValueError):
                    pass
                sys.settrace(None)
                check(stop)
                if lines < stop:
                    self.assertGreater(stop, 30)
                    return

        def interrupt() -> None:
            raise KeyboardInterrupt

        def backup() -> None:
            with self.session.backup("", "f") as file:
                file.write(b"whole")

        def whole_or_none(stop: int) -> None:
            with warnings.catch_warnings():
                warnings.simplefilter("ignore")
                gc.collect()
            if self.names():
                self.assertEqual(self.fetch("", "f"), b"whole")
            self.session.delete("", "f", all_versions=True)
            self.assertEqual(self.names(), [], stop)

        def use() -> None:
            with contextlib.suppress(RuntimeError, ValueError):
                self.session.list()

        def use_and_close() -> None:
            use()
            self.session.close()

        def all_signed_off(stop: int) -> None:
            if not self.session._closed:
                self.session.close()
            self.assertEqual(STANDIN.standinCalls(b"dsmInitEx"), STANDIN.standinCalls(b"dsmTerminate"), stop)
            self.session = self.open()

        with unittest.mock.patch("sys.unraisablehook"):  # of finalisers that are broken into
            sweep(interrupt, backup, whole_or_none)
        self.store("", "g", b"1")
        stored = self.session.list(name="g")
        for action in (use, use_and_close):
            sweep(action, lambda: self.assertEqual(self.session.list(name="g"), stored), all_signed_off)
        sweep(use_and_close, backup, all_signed_off)

    def test_threads(self) -> None:
        failures: List[BaseException] = []

        def run(work: Callable[[int], None]) -> None:
            def guarded(number: int) -> None:
                try:
                    work(number)
                except BaseException as error:
                    failures.append(error)

            threads = [threading.Thread(target=guarded, args=(number,)) for number in range(4)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()

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

        run(own)
        run(shared)
        self.assertEqual(failures, [])
        with self.session.backup("", "f") as file:
            run(shared)
            self.assertRaises(RuntimeError, self.session.backup("", "g").__enter__)
            self.assertEqual([type(error) for error in failures], [RuntimeError] * 4)
            file.write(b"whole")
        self.assertEqual(self.fetch("", "f"), b"whole")


if __name__ == "__main__":
    unittest.main()
