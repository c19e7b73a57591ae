"""The recorder and its tool: what is recorded, what never is, and what a host notices of it.

Usage: trace.py BUILD SOURCES
"""

import glob
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
import zlib

build, sources = (os.path.abspath(path) for path in sys.argv[1:3])
api = os.path.join(build, "trace-api", "libApiTSM64.so")
environment = {name: value for name, value in os.environ.items() if not name.startswith("TSM")}
environment.update(PATH=os.path.join(build, "bin") + ":" + os.environ["PATH"],
                   ASAN_OPTIONS="verify_asan_link_order=0:detect_leaks=0")


def run(*command, status=0, **more):
    done = subprocess.run(command, env={**environment, **more}, stdin=subprocess.DEVNULL, capture_output=True, text=True)
    assert done.returncode == status, (command, done.returncode, done.stdout, done.stderr)
    return done.stdout


def lines(*files):
    for file in files:
        with open(file, encoding="utf-8") as recording:
            yield from (json.loads(line) for line in recording.read().split("\0")[0].splitlines() if line)


class Trace(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        os.chdir(folder.name)
        self.addCleanup(os.chdir, "/")

    def host(self, what, status=0, **more):
        return run("tsmtrace", "run", "-o", "r", "--checksums", "--", os.path.join(build, "trace-api", "trace_host"), what,
                   status=status, **more)

    def scenarios(self, name, first=1, count=12):
        shutil.rmtree("store", ignore_errors=True)
        with open("a.opt", "w", encoding="utf-8") as options:
            options.write("* PLANTED\nSTOREDIR store\nMGMTCLASS STANDARD\nMGMTCLASS LONG\n")
        run("tsmtrace", "run", "-o", name, "--", "trace_scenarios", "a.opt", str(first), str(count))

    # A sanitizer replaces functions only of the libraries that are there at the start.
    def replay(self, options, *more, status=0, file="a"):
        return run("tsmtrace", "replay", file, "--config", options, *more, status=status, LD_PRELOAD="libcrypt.so.1")

    def check_calls(self, printed):
        self.assertEqual(printed, "42\n")
        calls = [line for line in lines("r") if "call" in line]
        self.assertEqual([(line["call"], line["rc"], line["code"], line.get("depth"), line.get("missing")) for line in calls], [
            ("dsmBeginQuery", 0, "DSM_RC_OK", None, None),
            ("dsmGetNextQObj", 2200, "DSM_RC_MORE_DATA", None, None),
            ("dsmEndQuery", 0, "DSM_RC_OK", 1, None),
            ("dsmBeginTxn", 0, "DSM_RC_OK", None, None),
            ("dsmSendData", 0, "DSM_RC_OK", None, None),
            ("dsmBeginGetData", 1, "DSM_RC_ABORT_SYSTEM_ERROR", None, 1)])
        self.assertEqual([len(calls[0]["query"]["name"][part]) for part in ("fs", "hl", "ll")], [1025, 1025, 257])
        self.assertNotIn("found", calls[1])  # in a room that is too short for an answer
        self.assertEqual((calls[4]["bytes"], calls[4]["crc32"]), (12, zlib.crc32(b"PLANTED-data")))
        self.assertEqual([line["event"] for line in lines("r") if "event" in line], ["start", "end"])
        self.assertIn("this API has no such function", run("tsmtrace", "summary", "r"))

    def test_hands_calls_on(self):
        self.check_calls(self.host("calls"))

    def test_in_the_place_of_the_api(self):
        os.mkdir("place")
        shutil.copy(os.path.join(build, "lib", "libtsmtrace.so"), "place/libApiTSM64.so")
        host = os.path.join(build, "trace-api", "trace_host")
        run(host, "calls", status=1, LD_LIBRARY_PATH="place")  # nobody said what it stands for
        for preloaded in ("", os.path.join(build, "lib", "libtsmtrace.so")):  # by itself, and behind another one
            self.check_calls(run(host, "calls", LD_LIBRARY_PATH="place", TSMTRACE_API=api, TSMTRACE_FILE="r",
                                 TSMTRACE_CHECKSUMS="1", LD_PRELOAD=preloaded))
            os.remove("r")

    def test_nothing_is_lost_by_ends_of_processes(self):
        for what, status, processes, calls, ended in (("fork", 0, 3, 10, 2), ("kill", -9, 1, 100, 0)):
            with self.subTest(what):
                self.host(what, status=status)
                found = run("tsmtrace", "summary", "r")
                self.assertIn(f"{calls} calls in", found)
                self.assertIn(f"{processes - ended} of {processes} processes have not ended", found)
                self.assertNotIn("lines", found)
                for held in glob.glob("r.held.*"):  # written, and killed before it was forgotten
                    pathlib.Path("r").write_bytes(pathlib.Path("r").read_bytes() + pathlib.Path(held).read_bytes().strip(b"\0"))
                    self.assertIn(f"{calls} calls in", run("tsmtrace", "summary", "r"))
                for name in os.listdir("."):
                    os.remove(name)

    def test_threads_and_rotation(self):
        self.host("threads", TSMTRACE_SIZE="1", TSMTRACE_KEEP="2")
        self.assertEqual(sorted(os.listdir(".")), ["r", "r.1", "r.2"])
        self.assertLess(max(map(os.path.getsize, ("r", "r.1", "r.2"))), 1.3e6)
        numbers = [line["n"] for line in lines("r.2", "r.1", "r") if "call" in line]
        self.assertEqual(numbers, list(range(20001 - len(numbers) + 1, 20002)))
        self.assertIn(f"{20001 - len(numbers)} lines are not in these files", run("tsmtrace", "summary", "r"))

    # The host goes on. What finds room, also in the lines that wait, is all that there is; the rest is counted.
    def test_full_disk(self):
        self.host("full")
        found = list(lines("r"))
        gaps = [line["lost"] for line in found if line.get("event") == "gap"]
        self.assertGreater(sum(gaps), 1000)
        self.assertEqual(sum("call" in line for line in found) + sum(gaps), 9001)
        self.assertIn(f"{sum(gaps)} lines are lost", run("tsmtrace", "summary", "r"))
        os.mkfifo("pipe")
        with open("large", "wb") as large:  # beyond what the host may write
            large.truncate(2 << 20)
        for file in ("/dev/full", "pipe", "large"):
            run("sh", "-c", f"ulimit -f 2048; LD_PRELOAD={build}/lib/libtsmtrace.so exec {build}/trace-api/trace_host calls",
                TSMTRACE_FILE=file)
        self.assertEqual(sum("call" in line for line in lines("large")), 6)

    def test_replay_and_secrets(self):
        self.scenarios("a", 60)
        self.assertLess({2, 121, 137, 2041, 2200, 2302}, {line.get("rc") for line in lines("a")})
        with open("b.opt", "w", encoding="utf-8") as options:
            options.write("STOREDIR store-b\nMGMTCLASS STANDARD\nMGMTCLASS LONG\nBACKDELETE YES\nSECRETOPTION PLANTED\n")
        self.replay("b.opt", "-o", "x", status=1)  # an option that there is not
        with open("b.opt", "r+", encoding="utf-8") as options:
            options.truncate(options.read().index("SECRET"))
        run("trace_scenarios", "b.opt", "1000", "5")  # so that identifiers differ
        self.assertRegex(self.replay("b.opt"), r"^\d{3,} calls compared, 0 differences\n$")
        with open("c.opt", "w", encoding="utf-8") as options:
            options.write("STOREDIR store-c\n")
        self.assertIn("no such management class", self.replay("c.opt", "-o", "c", status=1))
        with open("a", encoding="utf-8") as recording, open("later", "w", encoding="utf-8") as later:
            later.writelines(line for line in recording if "dsmSetUp" not in line)
        self.replay("b.opt", status=1, file="later")
        self.assertNotIn("dsmInitEx", pathlib.Path("later.replay").read_text(encoding="utf-8"))  # on whichever server
        with open("b.opt", "a", encoding="utf-8") as options:
            options.write("* PLANTED\nSECRETOPTION PLANTED\n")
        run("tsmtrace", "doctor", "a", "--config", "b.opt", "-o", "d")
        found = b"".join(pathlib.Path(name).read_bytes() for name in ("a", "a.replay", "c", *glob.glob("d/*")))
        self.assertGreater(len(found), 10000)
        self.assertIn(b"SECRETOPTION  (not shown)", found)
        self.assertEqual(pathlib.Path("d/recording").read_bytes(), pathlib.Path("a").read_bytes())
        self.assertIsNone(re.search(rb"PLANTED|UExBTlRFR|BMQU5URU|QTEFOVEVE|(?i:504c414e544544)|P\0L\0A\0N", found))

    def test_diff_show_and_export(self):
        self.scenarios("a", 3, 2)
        self.scenarios("b", 3, 2)
        self.assertIn(" 0 differences", run("tsmtrace", "diff", "a", "b"))
        self.scenarios("c", 3, 1)
        self.assertIn("nothing more", run("tsmtrace", "diff", "a", "c", status=1))
        calls = [line for line in lines("a") if "call" in line]
        answers = {"dsmGetNextQObj": {2200, 121, 2}, "dsmGetObj": {2200, 121}, "dsmGetData": {0, 2200, 121},
                   "dsmRegisterFS": {0, 2062}}
        for options, count in (([], len(calls)), (["--call", "BeginTxn"], sum(c["call"] == "dsmBeginTxn" for c in calls)),
                               (["--failed"], sum(c["rc"] not in answers.get(c["call"], {0}) for c in calls)),
                               (["--handle", "1"], sum(c.get("h", c.get("in", {}).get("h")) == 1 for c in calls)),
                               (["--object", "/fs3"], sum("/fs3" in json.dumps(c) for c in calls))):
            self.assertEqual(len(run("tsmtrace", "show", "a", *options).splitlines()), count, options)
        events = json.loads(run("tsmtrace", "export", "a"))["traceEvents"]
        self.assertEqual(sum(event["ph"] == "X" for event in events), len(calls))
        rows = {event["args"]["name"] for event in events if event["ph"] == "M"}
        self.assertIn("session 1 of node NODE3", rows)

    def test_says_what_is_wrong(self):
        for command in (["summary", "none"], ["run", "-o", sources, "--", "true"], ["run", "-o", "no/r", "--", "true"], ["doctor", "none"]):
            run("tsmtrace", *command, status=1)
        run("tsmtrace", "run", "-o", "r", "--", "/nowhere", status=127)
        run("tsmtrace", "replay", "none", status=2)
        with open("torn", "w", encoding="utf-8") as recording:
            recording.write('{"pid":1,"at":1,"call":"dsmNew","rc":-7}\n{"pid":1,"at"\n[]\n{"pid":"1","at":1}\n{"pid":1,"at":2,"call":"dsmSendObj","rc":5')
        found = run("tsmtrace", "summary", "torn")
        self.assertIn("1 calls in", found)
        self.assertIn("4 lines cannot be read", found)

    def test_manual_and_completion_agree(self):
        with open(os.path.join(sources, "trace", "tsmtrace.1.in"), encoding="utf-8") as file:
            page = file.read()
        commands = re.findall(r"^  (\w+) ", run("tsmtrace", "--help").split("Subcommands:")[1], re.M)
        self.assertEqual(re.findall(r"^\.Ss (\w+)", page, re.M), commands)
        with open(os.path.join(sources, "trace", "completion.bash"), encoding="utf-8") as file:
            completion = file.read()
        for command in commands:
            options = set(re.findall(r"(--[a-z-]+)", run("tsmtrace", command, "--help"))) - {"--help"}
            part = re.search(rf"\.Ss {command}\b(.*?)(?=^\.S[sh])", page, re.M | re.S)[1]
            self.assertEqual({"--" + name for name in re.findall(r"Fl -([\w-]+)", part)}, options, command)
            offered = re.search(rf"^ *{command}\) .*?'(.*)'", completion, re.M)
            self.assertEqual(set(offered[1].split()), options, command)
        done = subprocess.run(["groff", "-ww", "-z", "-mandoc", "-T", "utf8", os.path.join(sources, "trace/tsmtrace.1.in")],
                              capture_output=True, text=True)
        self.assertEqual(done.stdout + done.stderr, "")


unittest.main(argv=sys.argv[:1])
