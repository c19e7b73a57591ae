"""The recorder and its tool: what is recorded, what never is, and what a host notices of it."""

import glob
import json
import os
import re
import shutil
import subprocess
import zlib
from pathlib import Path

import pytest

build, sources = os.path.abspath(os.environ["TSM_BUILD"]), Path(__file__).resolve().parents[1] / "trace"
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


@pytest.fixture(autouse=True)
def folder(tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)


def host(what, status=0, **more):
    return run("tsmtrace", "run", "-o", "r", "--checksums", "--", os.path.join(build, "trace-api", "trace_host"), what,
               status=status, **more)


def scenarios(name, first=1, count=12):
    shutil.rmtree("store", ignore_errors=True)
    Path("a.opt").write_text("* PLANTED\nSTOREDIR store\nMGMTCLASS STANDARD\nMGMTCLASS LONG\n")
    run("tsmtrace", "run", "-o", name, "--", "trace_scenarios", "a.opt", str(first), str(count))


# A sanitizer replaces functions only of the libraries that are there at the start.
def replay(options, *more, status=0, file="a"):
    return run("tsmtrace", "replay", file, "--config", options, *more, status=status, LD_PRELOAD="libcrypt.so.1")


def check_calls(printed):
    assert printed == "42\n"
    calls = [line for line in lines("r") if "call" in line]
    assert [(line["call"], line["rc"], line["code"], line.get("depth"), line.get("missing")) for line in calls] == [
        ("dsmBeginQuery", 0, "DSM_RC_OK", None, None),
        ("dsmGetNextQObj", 2200, "DSM_RC_MORE_DATA", None, None),
        ("dsmEndQuery", 0, "DSM_RC_OK", 1, None),
        ("dsmBeginTxn", 0, "DSM_RC_OK", None, None),
        ("dsmSendData", 0, "DSM_RC_OK", None, None),
        ("dsmBeginGetData", 1, "DSM_RC_ABORT_SYSTEM_ERROR", None, 1)]
    assert [len(calls[0]["query"]["name"][part]) for part in ("fs", "hl", "ll")] == [1025, 1025, 257]
    assert "found" not in calls[1]  # in a room that is too short for an answer
    assert (calls[4]["bytes"], calls[4]["crc32"]) == (12, zlib.crc32(b"PLANTED-data"))
    assert [line["event"] for line in lines("r") if "event" in line] == ["start", "end"]
    assert "this API has no such function" in run("tsmtrace", "summary", "r")


def test_hands_calls_on():
    check_calls(host("calls"))


def test_in_the_place_of_the_api():
    os.mkdir("place")
    shutil.copy(os.path.join(build, "lib", "libtsmtrace.so"), "place/libApiTSM64.so")
    program = os.path.join(build, "trace-api", "trace_host")
    run(program, "calls", status=1, LD_LIBRARY_PATH="place")  # nobody said what it stands for
    for preloaded in ("", os.path.join(build, "lib", "libtsmtrace.so")):  # by itself, and behind another one
        check_calls(run(program, "calls", LD_LIBRARY_PATH="place", TSMTRACE_API=api, TSMTRACE_FILE="r",
                        TSMTRACE_CHECKSUMS="1", LD_PRELOAD=preloaded))
        os.remove("r")


@pytest.mark.parametrize("what, status, processes, calls, ended", (("fork", 0, 3, 10, 2), ("kill", -9, 1, 100, 0)))
def test_nothing_is_lost_by_ends_of_processes(what, status, processes, calls, ended):
    host(what, status=status)
    found = run("tsmtrace", "summary", "r")
    assert f"{calls} calls in" in found
    assert f"{processes - ended} of {processes} processes have not ended" in found
    assert "lines" not in found
    for held in glob.glob("r.held.*"):  # written, and killed before it was forgotten
        Path("r").write_bytes(Path("r").read_bytes() + Path(held).read_bytes().strip(b"\0"))
        assert f"{calls} calls in" in run("tsmtrace", "summary", "r")


def test_threads_and_rotation():
    host("threads", TSMTRACE_SIZE="1", TSMTRACE_KEEP="2")
    assert sorted(os.listdir(".")) == ["r", "r.1", "r.2"]
    assert max(map(os.path.getsize, ("r", "r.1", "r.2"))) < 1.3e6
    numbers = [line["n"] for line in lines("r.2", "r.1", "r") if "call" in line]
    assert numbers == list(range(20001 - len(numbers) + 1, 20002))
    assert f"{20001 - len(numbers)} lines are not in these files" in run("tsmtrace", "summary", "r")


# The host goes on. What finds room, also in the lines that wait, is all that there is; the rest is counted.
def test_full_disk():
    host("full")
    found = list(lines("r"))
    gaps = [line["lost"] for line in found if line.get("event") == "gap"]
    assert sum(gaps) > 1000
    assert sum("call" in line for line in found) + sum(gaps) == 9001
    assert f"{sum(gaps)} lines are lost" in run("tsmtrace", "summary", "r")
    os.mkfifo("pipe")
    Path("large").write_bytes(bytes(2 << 20))  # beyond what the host may write
    for file in ("/dev/full", "pipe", "large"):
        run("sh", "-c", f"ulimit -f 2048; LD_PRELOAD={build}/lib/libtsmtrace.so exec {build}/trace-api/trace_host calls",
            TSMTRACE_FILE=file)
    assert sum("call" in line for line in lines("large")) == 6


def test_replay_and_secrets():
    scenarios("a", 60)
    assert {2, 121, 137, 2041, 2200, 2302} < {line.get("rc") for line in lines("a")}
    options = "STOREDIR store-b\nMGMTCLASS STANDARD\nMGMTCLASS LONG\nBACKDELETE YES\n"
    Path("b.opt").write_text(options + "SECRETOPTION PLANTED\n")
    replay("b.opt", "-o", "x", status=1)  # an option that does not exist
    Path("b.opt").write_text(options)
    run("trace_scenarios", "b.opt", "1000", "5")  # so that identifiers differ
    assert re.search(r"^\d{3,} calls compared, 0 differences\n$", replay("b.opt"))
    Path("c.opt").write_text("STOREDIR store-c\n")
    assert "no such management class" in replay("c.opt", "-o", "c", status=1)
    Path("later").write_text(re.sub(".*dsmSetUp.*\n", "", Path("a").read_text()))
    replay("b.opt", status=1, file="later")
    assert "dsmInitEx" not in Path("later.replay").read_text()  # on whichever server
    Path("b.opt").write_text(options + "* PLANTED\nSECRETOPTION PLANTED\n")
    run("tsmtrace", "doctor", "a", "--config", "b.opt", "-o", "d")
    found = b"".join(Path(name).read_bytes() for name in ("a", "a.replay", "c", *glob.glob("d/*")))
    assert len(found) > 10000
    assert b"SECRETOPTION  (not shown)" in found
    assert Path("d/recording").read_bytes() == Path("a").read_bytes()
    assert re.search(rb"PLANTED|UExBTlRFR|BMQU5URU|QTEFOVEVE|(?i:504c414e544544)|P\0L\0A\0N", found) is None


def test_diff_show_and_export():
    scenarios("a", 3, 2)
    scenarios("b", 3, 2)
    assert " 0 differences" in run("tsmtrace", "diff", "a", "b")
    scenarios("c", 3, 1)
    assert "nothing more" in run("tsmtrace", "diff", "a", "c", status=1)
    calls = [line for line in lines("a") if "call" in line]
    answers = {"dsmGetNextQObj": {2200, 121, 2}, "dsmGetObj": {2200, 121}, "dsmGetData": {0, 2200, 121},
               "dsmRegisterFS": {0, 2062}}
    for options, count in (([], len(calls)), (["--call", "BeginTxn"], sum(c["call"] == "dsmBeginTxn" for c in calls)),
                           (["--failed"], sum(c["rc"] not in answers.get(c["call"], {0}) for c in calls)),
                           (["--handle", "1"], sum(c.get("h", c.get("in", {}).get("h")) == 1 for c in calls)),
                           (["--object", "/fs3"], sum("/fs3" in json.dumps(c) for c in calls))):
        assert len(run("tsmtrace", "show", "a", *options).splitlines()) == count, options
    events = json.loads(run("tsmtrace", "export", "a"))["traceEvents"]
    assert sum(event["ph"] == "X" for event in events) == len(calls)
    rows = {event["args"]["name"] for event in events if event["ph"] == "M"}
    assert "session 1 of node NODE3" in rows


def test_says_what_is_wrong():
    for command in ("summary none", "run -o . -- true", "run -o no/r -- true", "doctor none"):
        run("tsmtrace", *command.split(), status=1)
    run("tsmtrace", "run", "-o", "r", "--", "/nowhere", status=127)
    run("tsmtrace", "replay", "none", status=2)
    Path("torn").write_text('{"pid":1,"at":1,"call":"dsmNew","rc":-7}\n{"pid":1,"at"\n[]\n{"pid":"1","at":1}\n'
                            '{"pid":1,"at":2,"call":"dsmSendObj","rc":5')
    found = run("tsmtrace", "summary", "torn")
    assert "1 calls in" in found
    assert "4 lines cannot be read" in found


def test_manual_and_completion_agree():
    page = (sources / "tsmtrace.1.in").read_text()
    commands = re.findall(r"^  (\w+) ", run("tsmtrace", "--help").split("Subcommands:")[1], re.M)
    assert re.findall(r"^\.Ss (\w+)", page, re.M) == commands
    completion = (sources / "completion.bash").read_text()
    for command in commands:
        options = set(re.findall(r"(--[a-z-]+)", run("tsmtrace", command, "--help"))) - {"--help"}
        part = re.search(rf"\.Ss {command}\b(.*?)(?=^\.S[sh])", page, re.M | re.S)[1]
        assert {"--" + name for name in re.findall(r"Fl -([\w-]+)", part)} == options, command
        offered = re.search(rf"^ *{command}\) .*?'(.*)'", completion, re.M)
        assert set(offered[1].split()) == options, command
    done = subprocess.run(["groff", "-ww", "-z", "-mandoc", "-T", "utf8", sources / "tsmtrace.1.in"],
                          capture_output=True, text=True)
    assert done.stdout + done.stderr == ""
