"""The binding, with the stand-in. TSMCONNECTOR_LIBRARY is the path of the library."""

import contextlib
import copy
import ctypes
import dis
import functools
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
import time
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
STANDIN = ctypes.CDLL(os.environ["TSMCONNECTOR_LIBRARY"])  # and the API that it is linked with
STANDIN.standinCalls.restype = ctypes.c_ulong


def fail(function: str, nth: int = 1, code: int = 12, reason: int = 0) -> None:
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
        self.assertEqual([(field[0], getattr(TsmObject, field[0]).offset) for field in TsmObject._fields_], layout)

    def test_round_trips(self) -> None:
        data = os.urandom(5_000_001)
        for size in (0, 1, 32767, 32768, 32769, 1 << 20, len(data)):
            self.store("a/b", str(size), data[:size])
            with self.session.restore("/a/b/", str(size)) as file:
                got, step = b"", 1
                while part := file.read(step):  # odd sizes, none of which is cut short before the end
                    got, step = got + part, step * 3 + 1
                self.assertEqual((got == data[:size], file.tell(), file.size), (True, size, tsmconnector.UNKNOWN_SIZE))
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
        self.code(-12, self.store, "d", "f", b"half")
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
                print(use(), flush=True)
            except RuntimeError:
                session.close()
    print(end="hung" if os.wait()[1] else "")
thread = threading.Thread(target=fork)
with session._handle._lock, tsmconnector._api._life:
    thread.start()
    thread.join()
writer.__exit__(None, None, None)
"""
        for end in ("", "os._exit(0)", "os.kill(os.getpid(), 2)", "1 / 0", fork):
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
        sign_ons = calls("dsmInitEx")
        self.assertRaises(NotFoundError, self.session.restore, "d", "none")
        self.assertEqual((len(self.names()), calls("dsmInitEx")), (1, sign_ons))
        self.code(-2025, self.store, "d", "g", b"", mgmt_class="NONE")
        self.code(-2120, self.store, "d", "n" * 256, b"")
        with self.session.restore("d", "f") as file:
            file.read(2_000_000)
            fail("dsmGetData")
            for _ in range(2):
                self.code(-12, file.read)
        with self.session.restore("d", "f") as file:
            fail("dsmGetData", code=2200)  # a piece without bytes
            self.assertEqual(len(file.read() or b""), 3_000_000)
        failures: List[Any] = [
            ("dsmRegisterFS", self.open), ("dsmInitEx", self.open), ("dsmGetNextQObj", self.session.list),
            ("dsmDeleteObj", self.session.delete, "d", "f"), ("dsmRegisterFS", self.session.connect, "other")]  # fmt: skip
        for function, *call in failures:
            fail(function)
            self.assertEqual(self.code(-12, *call).name, "unknown")
        self.assertEqual(self.names(versions=True), ["/d/f"], "still in the old filespace")
        fail("dsmDeleteObj", 2)  # in the tidying: the result is 0, and a transaction stays open
        self.session.delete("d", "f")
        self.assertEqual(self.names(), [])

    def test_servers_that_misbehave(self) -> None:
        def second(**how: Any) -> None:
            self.store("", "f", b"second", **how)

        def slowly() -> None:
            with self.session.backup("", "f") as file:
                file.write(b"sec")
                time.sleep(0.7)
                file.write(b"ond")

        def under(rule: str, filespace: str, use: Callable[[], Any]) -> None:
            self.api.close()
            with unittest.mock.patch.dict(os.environ, TSM_STANDIN_FAULTS=rule), tsmconnector.Api(self.config) as self.api:
                self.session = self.open(filespace=filespace)
                use()

        rows: List[Any] = [
            ("FAULT dsmSetUp 102", second, -102), ("FAULT dsmInitEx 137", second, -137), ("SESSIONS 1", self.open, -51),
            ("FAULT dsmSendData 157 11", second, -11), ("FAULT dsmEndTxn 2302 12", second, -12),
            ("FAULT dsmEndTxn 0 15", second, -15), ("STRICTSIZE", lambda: second(size=1), -13), ("IDLE 500", slowly, -2041),
            ("FAULT dsmBeginGetData 9", lambda: self.fetch("", "f"), -9), ("FAULT dsmGetNextQObj 1", self.names, -1),
            ("FAULT dsmRenameObj 32", lambda: self.session.rename("", "f", "", "g"), -32),
            ("FAULT dsmDeleteObj 106", lambda: self.session.delete("", "f", all_versions=True), -106),
            ("PARTIALSEND 4; LATENCY * 1", second, 0), ("STRICTSIZE", second, 0),
            *((f"FAULT 8 {seed}", second, None) for seed in range(20)),
        ]  # fmt: skip
        for number, (rule, use, code) in enumerate(rows):
            before, after = (b"first", 1), (b"second", 2)
            under("", str(number), lambda: self.store("", "f", b"first"))
            try:
                under(rule, str(number), use)
                found = 0
            except TsmError as error:
                found = error.code
            self.assertEqual(found, found if code is None else code, rule)
            stored: List[Any] = []
            under("SHORTREAD 1", str(number), lambda: stored.extend([self.fetch("", "f"), len(self.names(versions=True))]))
            wanted = (after,) if found == 0 else (before, after) if code is None else (before,)
            self.assertIn(tuple(stored), wanted, rule)

    def test_closing(self) -> None:
        self.code(-2041, tsmconnector.Api, self.config)
        other = self.open()
        file = other.backup("", "f").__enter__()
        self.store("", "g", b"1")
        reader = self.session.restore("", "g")
        for owner in (self.api, other, file, reader):
            duplicate: Any
            for duplicate in (copy.copy, copy.deepcopy, pickle.dumps):
                self.assertRaises(TypeError, duplicate, owner)
        for _ in range(2):
            self.api.close()
            self.session.close()
        uses: List[Callable[[], Any]] = [
            self.session.list, other.filespaces, self.open, self.api.__enter__, self.session.__enter__, reader.read,
            lambda: file.write(b"1"), lambda: file.__exit__(None, None, None)]  # fmt: skip
        for use in uses:
            self.assertRaises(ValueError, use)
        reader.close()
        error = self.code(-109, tsmconnector.Api, self.folder / "missing.opt", self.folder)
        self.assertRegex(str(error), f"missing.opt; error log: in {self.folder}$")
        for missing, advice in ("/none.so", "TSMCONNECTOR_LIBRARY"), ("libApiTSM64.so", "LD_LIBRARY_PATH"):
            with unittest.mock.patch("ctypes.CDLL", side_effect=OSError(f"{missing}: cannot open shared object file")):
                self.assertRaisesRegex(ImportError, advice, tsmconnector.Api)
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
        """A signal handler interrupts once at each place where Python lets one in: after calls, at function starts."""

        @functools.lru_cache(None)
        def gaps(code: Any) -> List[int]:
            steps = list(dis.get_instructions(code)) if "/tsmconnector/_" in code.co_filename else []
            return [new.offset for old, new in zip(steps, steps[1:]) if re.match("CALL|RESUME", old.opname)]

        def sweep(action: Callable[[], Any], operation: Callable[[], None], check: Callable[[int], None]) -> None:
            for stop in range(1, 10_000):
                passed = 0

                def trace(frame: Any, event: str, _: object) -> Any:
                    nonlocal passed
                    frame.f_trace_opcodes = True
                    if event == "opcode" and frame.f_lasti in gaps(frame.f_code):
                        code = linecache.getline(frame.f_code.co_filename, frame.f_lineno or 1).split()
                        # Not where a `with` is left (its line comes again), nor before a `try`: the caller's.
                        passed += code[0] not in ("with", "try:")
                        if passed == stop:
                            passed += 1
                            with contextlib.suppress(RuntimeError, ValueError):
                                action()
                    return trace if gaps(frame.f_code) else None

                sys.settrace(trace)
                try:
                    operation()
                except (KeyboardInterrupt, RuntimeError, ValueError) as error:
                    self.broken: Any = error  # keeps the frames that it left
                    self.assertFalse(self.session._handle.used_by_this_thread())
                sys.settrace(None)
                check(stop)
                if passed < stop:
                    self.assertGreater(stop, 30)
                    return

        def backup() -> None:
            with contextlib.suppress(KeyError), self.session.backup("", "f"):
                raise KeyError  # signs off
            with self.session.backup("", "f") as file:
                for part in (b"wh", b"ole"):
                    with contextlib.suppress(KeyboardInterrupt):  # but the block's end tells
                        file.write(part)

        def whole_or_none(stop: int) -> None:
            self.broken = None  # the writer goes with its frames
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

        def set_up() -> None:
            tsmconnector.Api(self.config)  # and forgotten
            self.api = tsmconnector.Api(self.config)
            self.open()
            self.api.close()

        def again(stop: int) -> None:
            if not self.api._closed:  # before the first step of close()
                self.api.close()
            tsmconnector.Api(self.config).close()
            for begin, end in ("dsmSetUp", "dsmCleanUp"), ("dsmInitEx", "dsmTerminate"):
                self.assertEqual(calls(begin), calls(end), stop)

        self.api.close()
        with unittest.mock.patch("sys.unraisablehook", lambda _: None), unittest.mock.patch("warnings.warn"):
            sweep(lambda: signal.default_int_handler(2, None), set_up, again)
            self.api = tsmconnector.Api(self.config)
            self.session = self.open()
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

        def shared(_: int) -> None:
            for _ in range(20):
                assert len(self.session.list("t")) == 1

        self.store("t", "f", b"1")
        self.assertEqual(run(shared), [type(None)] * 4)
        with self.session.backup("", "f") as file:
            self.assertEqual(run(shared), [RuntimeError] * 4)
            self.assertRaises(RuntimeError, self.session.backup("", "g").__enter__)
