"""Runs the example hosts, one after the other, on a store of their own. Usage: examples.py FOLDER_OF_PROGRAMS"""

import os
import random
import re
import resource
import subprocess
import sys
import tempfile
import threading
import time

programs = os.path.abspath(sys.argv[1])
work = tempfile.TemporaryDirectory()
environment = dict(os.environ, TSM_CONFIG="dsm.opt", TSM_NODE="NODE", TSM_PASSWORD="secret", TSM_FILESPACE="vm01")
failures = []


def run(arguments, given=b"", changed=None, **options):
    """Standard input is bytes, or a file; changed is a change to the environment."""
    given = {"input": given} if isinstance(given, bytes) else {"stdin": given}
    program, *rest = arguments
    options = {"stdout": subprocess.PIPE, **given, **options}
    return subprocess.run([os.path.join(programs, program), *rest], stderr=subprocess.PIPE, cwd=work.name,
                          env={**environment, **(changed or {})}, **options)


def expect(arguments, status=0, out=b"", said="", **options):
    """said: a pattern that the whole of standard error matches; out: standard output, None where it does not matter."""
    done = run(arguments, **options)
    problems = []
    if done.returncode != status:
        problems.append(f"exit status {done.returncode}, not {status}")
    if out is not None and (done.stdout or b"") != out:
        problems.append(f"output {done.stdout[:200]!r}, not {out[:200]!r}")
    if not re.fullmatch(said, done.stderr.decode(), re.DOTALL):
        problems.append(f"said {done.stderr.decode()!r}, not {said!r}")
    failures.extend(f"{' '.join(arguments)}: {problem}" for problem in problems)


def versions(name):
    """The moments of the stored versions, oldest first. They are texts without leading zeros."""
    lines = [re.fullmatch(r"(\S+ \S+) +\d+ (.*)", line) for line in run(["list"]).stdout.decode().splitlines()]
    moments = [line[1] for line in lines if line[2] == name]
    return sorted(moments, key=lambda moment: time.strptime(moment, "%Y-%m-%d %H:%M:%S"))


def await_next_second():
    """The server's times are in seconds: a version stored in the same one would hide the older one."""
    now = int(time.time())
    while int(time.time()) == now:
        time.sleep(0.02)


def broken_input(length):
    """A file that gives some bytes and then fails."""
    ours, theirs = os.openpty()

    def feed():
        with open(theirs, "wb") as file:
            file.write(bytes(length))

    threading.Thread(target=feed, daemon=True).start()
    return ours


def expect_fault(arguments, call, nth, said="", rc=41, **result):
    """With the nth call of a function of the client API failing."""
    expect([f"faulty_{arguments[0]}", *arguments[1:]], said=said, given=bytes(600000),
           changed={"TSM_FAULT": f"{call} {nth} {rc}"}, **{"status": 1, "out": None, **result})


with open(os.path.join(work.name, "dsm.opt"), "w") as options:
    options.write("STOREDIR store\n")
first, second = random.Random(1).randbytes(700001), b"second\0version"
usage, not_found, no_name = "usage: .*\n", ".*nothing is stored under this name\\)?\n", ".*no name for one object.*\n"
code = " failed: -?\\d+\n"

expect(["first"], out=b"stored\n")
expect(["list"])

# Two versions, and the moment between them.
expect(["backup", "disks/today", "a.img", "700001"], given=first)
await_next_second()
expect(["backup", "/disks/today/", "a.img"], given=second)
moments = versions("/disks/today/a.img")
if len(moments) != 2:
    sys.exit(f"two backups, and these versions: {moments}")
expect(["restore", "disks/today", "a.img"], out=second)
expect(["restore", "disks/today", "a.img", moments[0]], out=first)
expect(["restore", "disks/today", "a.img", "2001-02-03 04:05:06"], status=1, said=not_found)
for name, *size in [("empty",), ("nothing", "0")]:
    expect(["backup", "", name, *size])
    expect(["restore", "/", name])
expect(["backup", "", "kinds"])
expect(["backup", "kinds", "inside"])
expect(["backup", "deep/kinds", "file"])
expect(["backup", "deep", "kinds"])
expect(["list", "/disks"], out=f"{versions('/disks/today/')[0]:19} {0:12} /disks/today/\n".encode())

# What cannot be read, sent or written. Nothing comes of it, not even a directory when the very first byte is missing.
before = run(["list"]).stdout
with open("/dev/full", "wb") as full:
    folder = os.open(work.name, os.O_RDONLY)
    expect(["backup", "new", "object"], given=folder, status=1, said="standard input: .*\n")
    os.close(folder)
    for length in (11, 600000):
        broken = broken_input(length)
        expect(["backup", "disks/today", "a.img"], given=broken, status=1, said="standard input: .*\n")
        os.close(broken)
    for call, nth in [("dsmInitEx", 1), ("dsmRegisterFS", 1), ("dsmSendObj", 1), ("dsmSendData", 2), ("dsmEndTxn", 1)]:
        expect_fault(["backup", "disks/today", "a.img"], call, nth, "Tsm\\w+" + code)
    # A commit that answers 0 and still gives a reason has failed.
    expect_fault(["backup", "disks/today", "a.img"], "dsmEndTxn", 1, "TsmEndBackup failed: -9\n", rc="0 9")
    expect_fault(["delete", "disks/today", "a.img"], "dsmEndTxn", 1, "TsmDelete failed: -9\n", rc="0 9")
    expect_fault(["delete", "disks/today", "a.img"], "dsmDeleteObj", 1, "TsmDelete" + code)
    expect_fault(["delete", "", "empty"], "dsmGetNextQObj", 5, ".*is still there\n")
    expect_fault(["restore", "disks/today", "a.img", moments[0]], "dsmGetData", 2, "TsmGetData" + code)
    for nth in (1, 2):  # an empty piece
        expect_fault(["restore", "disks/today", "a.img", moments[0]], "dsmGetData", nth, rc=2200, status=0, out=first)
    expect_fault(["rename", "disks/today", "a.img", "", "b"], "dsmRenameObj", 1, "TsmRenameBackup" + code)
    # The server gives up without a reason, which the library takes for a success.
    expect_fault(["rename", "disks/today", "a.img", "", "b"], "dsmRenameObj", 1, ".*did not rename\n", rc=157)
    expect(["backup", "disks/today", "a.img"], given=bytes(3 << 20), status=1, said="TsmSendData" + code,
           restore_signals=False, preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 20, 1 << 20)))
    for arguments in (["restore", "disks/today", "a.img", moments[0]], ["list"]):
        expect(arguments, stdout=full, status=1, said="standard output: .*\n")
if run(["list"]).stdout != before:
    failures.append("a backup that failed left something stored")

# Names and command lines that are refused. The object is still there afterwards.
for arguments, said in [
    (["restore", "disks/today", "b.img"], not_found),
    (["delete", "disks/today", "b.*"], not_found),
    (["rename", "disks/today", "b.img", "disks/today", "c.img"], not_found),
    (["rename", "disks/today", "a.img", "", "empty"], ".*is taken\n"),
    (["rename", "disks", "today", "disks", "tomorrow"], ".*is a directory\n"),
    (["delete", "", "kinds"], ".*kinds: is a directory\n"),
    (["rename", "/kinds/", "inside", "", "new"], ".*kinds: is a file\n"),
    (["rename", "/deep/kinds", "file", "", "new"], "/deep kinds: is a file\n"),
    (["delete", "deep/kinds", "file"], "/deep kinds: is a file\n"),
]:
    expect(arguments, status=1, said=said)
for arguments, said in [
    (["backup", "disks"], usage),
    (["backup", "disks", "x", "-1"], usage),
    (["backup", "disks", "x", "12 bytes"], usage),
    (["backup", "disks", "x/y"], no_name),
    (["backup", "di*ks", "x"], no_name),
    (["rename", "disks//today", "a.img", "", "x"], no_name),
    (["backup", "disks", ""], no_name),
    (["restore", "disks/today", "a.*"], no_name),
    (["restore", "disks/today", "a.img", "yesterday"], usage),
    (["restore", "disks/today", "a.img", "2001-02-03 04:05:06 or so"], usage),
    (["restore", "disks/today", "a.img", "2001-13-03 04:05:06"], usage),
    (["delete", "disks/today"], usage),
    (["list", "a", "b", "c"], usage),
    (["rename", "disks/today", "a.img", "/disks/today/", "a.img"], "both names are the same\n"),
    (["rename", "/", "empty", "", "empty"], "both names are the same\n"),
    (["rename", "disks/today", "a.img", "disks\\today", "a.img"], no_name),
]:
    expect(arguments, status=2, said=said)
if run(["list"]).stdout != before:
    failures.append("a call that was refused changed what is stored")

# Renaming takes all versions along; deleting leaves earlier moments, and takes exactly what matches.
expect(["rename", "disks/today", "a.img", "archive", "b.img"])
expect(["restore", "archive", "b.img", moments[0]], out=first)
expect(["restore", "disks/today", "a.img"], status=1, said=not_found)
await_next_second()
expect(["delete", "*", "b*"], out=b"deleted /archive/b.img\n")
expect(["restore", "archive", "b.img"], status=1, said=not_found)
expect(["restore", "archive", "b.img", moments[0]], out=first)
expect(["restore", "", "empty"])

expect(["two_threads"], out=b"one: 1000000 bytes stored and read back\ntwo: 1000000 bytes stored and read back\n")
for program in (["list"], ["two_threads"]):
    expect(program, status=1, said="(TsmOpenSession failed: -137\n(no session\n)?)+", changed={"TSM_PASSWORD": "wrong"})
    expect(program, status=1, said="TsmInitApi.*", changed={"TSM_CONFIG": "missing.opt"})

sys.exit("\n".join(failures) or 0)
