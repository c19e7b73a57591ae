"""The example hosts, each test on a copy of a store that they filled."""

import os
import random
import re
import resource
import shlex
import shutil
import subprocess
import threading
import time
from pathlib import Path

import pytest

PROGRAMS = Path(os.environ["TSM_BUILD"], "examples").resolve()
FIRST, SECOND = random.Random(1).randbytes(700001), b"second\0version"
USAGE, NOT_FOUND, NO_NAME = "usage: .*\n", ".*nothing is stored under this name\\)?\n", ".*no name for one object.*\n"
CODE = " failed: -?\\d+\n"


def run(program, *arguments, given=b"", changed=None, **options):
    """Standard input is bytes, or a file; changed is a change to the environment."""
    environment = {**os.environ, "TSM_CONFIG": "dsm.opt", "TSM_NODE": "NODE", "TSM_PASSWORD": "secret",
                   "TSM_FILESPACE": "vm01", **(changed or {})}
    given = {"input": given} if isinstance(given, bytes) else {"stdin": given}
    options = {"stdout": subprocess.PIPE, **given, **options}
    return subprocess.run([PROGRAMS / program, *arguments], stderr=subprocess.PIPE, env=environment, **options)


def expect(*arguments, status=0, out=b"", said="", **options):
    """said: a pattern that the whole of standard error matches; out: standard output, None where it does not matter."""
    done = run(*arguments, **options)
    assert done.returncode == status, done.stderr
    assert out is None or (done.stdout or b"") == out
    assert re.fullmatch(said, done.stderr.decode(), re.DOTALL), done.stderr


def versions(name):
    """The moments of the stored versions, oldest first. They are texts without leading zeros."""
    lines = [re.fullmatch(r"(\S+ \S+) +\d+ (.*)", line) for line in run("list").stdout.decode().splitlines()]
    moments = [line[1] for line in lines if line[2] == name]
    return sorted(moments, key=lambda moment: time.strptime(moment, "%Y-%m-%d %H:%M:%S"))


def await_next_second():
    """The server's times are in seconds: a version stored in the same one would hide the older one."""
    time.sleep(1.01 - time.time() % 1)


@pytest.fixture(scope="module")
def filled(tmp_path_factory):
    folder = tmp_path_factory.mktemp("filled")
    with pytest.MonkeyPatch.context() as patch:
        patch.chdir(folder)
        Path("dsm.opt").write_text("STOREDIR store\n")
        expect("first", out=b"stored\n")
        expect("list")
        expect("backup", "disks/today", "a.img", "700001", given=FIRST)
        await_next_second()
        expect("backup", "/disks/today/", "a.img", given=SECOND)
        for path, name, *size in (("", "empty"), ("", "nothing", "0"), ("", "kinds"), ("kinds", "inside"),
                                  ("deep/kinds", "file"), ("deep", "kinds")):
            expect("backup", path, name, *size)
    return folder


@pytest.fixture(autouse=True)
def work(filled, tmp_path, monkeypatch):
    monkeypatch.chdir(shutil.copytree(filled, tmp_path / "work"))


@pytest.fixture
def unchanged(work):
    before = run("list").stdout
    yield
    assert run("list").stdout == before


@pytest.fixture
def first():
    """The moment of the first of two versions."""
    return versions("/disks/today/a.img")[0]


def test_backup_and_restore(first):
    expect("restore", "disks/today", "a.img", out=SECOND)
    expect("restore", "disks/today", "a.img", first, out=FIRST)
    expect("restore", "disks/today", "a.img", "2001-02-03 04:05:06", status=1, said=NOT_FOUND)
    for name in ("empty", "nothing"):
        expect("restore", "/", name)
    expect("list", "/disks", out=f"{versions('/disks/today/')[0]:19} {0:12} /disks/today/\n".encode())


def test_input_that_cannot_be_read(unchanged):
    folder = os.open(".", os.O_RDONLY)
    expect("backup", "new", "object", given=folder, status=1, said="standard input: .*\n")  # and no directory is made
    os.close(folder)
    for length in (11, 600000):  # and then it fails
        ours, theirs = os.openpty()
        threading.Thread(target=lambda: (os.write(theirs, bytes(length)), os.close(theirs)), daemon=True).start()
        expect("backup", "disks/today", "a.img", given=ours, status=1, said="standard input: .*\n")
        os.close(ours)


def test_output_that_cannot_be_written(first):
    with open("/dev/full", "wb") as full:
        for arguments in (["restore", "disks/today", "a.img", first], ["list"]):
            expect(*arguments, stdout=full, status=1, said="standard output: .*\n")


def test_store_that_may_not_grow(unchanged):
    expect("backup", "disks/today", "a.img", given=bytes(3 << 20), status=1, said="TsmSendData" + CODE,
           restore_signals=False, preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 20, 1 << 20)))


A = "disks/today a.img"


@pytest.mark.parametrize("arguments, fault, said", [
    *((f"backup {A}", fault, "Tsm\\w+" + CODE) for fault in (
        "dsmInitEx 1 41", "dsmRegisterFS 1 41", "dsmSendObj 1 41", "dsmSendData 2 41", "dsmEndTxn 1 41")),
    # A commit that answers 0 and still gives a reason has failed.
    (f"backup {A}", "dsmEndTxn 1 0 9", "TsmEndBackup failed: -9\n"),
    (f"delete {A}", "dsmEndTxn 1 0 9", "TsmDelete failed: -9\n"),
    (f"delete {A}", "dsmDeleteObj 1 41", "TsmDelete" + CODE),
    ("delete / empty", "dsmGetNextQObj 5 41", ".*is still there\n"),
    (f"restore {A} MOMENT", "dsmGetData 2 41", "TsmGetData" + CODE),
    *((f"restore {A} MOMENT", f"dsmGetData {nth} 2200", "") for nth in (1, 2)),  # an empty piece
    (f"rename {A} / b", "dsmRenameObj 1 41", "TsmRenameBackup" + CODE),
    # The server gives up without a reason, which the library takes for a success.
    (f"rename {A} / b", "dsmRenameObj 1 157", ".*did not rename\n"),
])
def test_call_that_fails(unchanged, first, arguments, fault, said):
    arguments = [first if word == "MOMENT" else word for word in f"faulty_{arguments}".split()]
    expect(*arguments, given=bytes(600000), changed={"TSM_FAULT": fault}, status=1 if said else 0,
           out=None if said else FIRST, said=said)


REFUSED = [
    (1, NOT_FOUND, "restore disks/today b.img; delete disks/today b.*; rename disks/today b.img disks/today c.img"),
    (1, ".*is taken\n", f"rename {A} '' empty"),
    (1, ".*is a directory\n", "rename disks today disks tomorrow"),
    (1, ".*kinds: is a directory\n", "delete '' kinds"),
    (1, ".*kinds: is a file\n", "rename /kinds/ inside '' new"),
    (1, "/deep kinds: is a file\n", "rename /deep/kinds file '' new; delete deep/kinds file"),
    (2, USAGE, "backup disks; backup disks x -1; backup disks x '12 bytes'; delete disks/today; list a b c"),
    (2, USAGE, f"restore {A} yesterday; restore {A} '2001-02-03 04:05:06 or so'; restore {A} '2001-13-03 04:05:06'"),
    (2, NO_NAME, "backup disks x/y; backup di*ks x; backup disks ''; restore disks/today a.*"),
    (2, NO_NAME, f"rename disks//today a.img '' x; rename {A} 'disks\\today' a.img"),
    (2, "both names are the same\n", f"rename {A} /disks/today/ a.img; rename / empty '' empty"),
]


@pytest.mark.parametrize("status, said, command", [
    (*case, command) for *case, commands in REFUSED for command in commands.split("; ")])
def test_refused(unchanged, status, said, command):
    expect(*shlex.split(command), status=status, said=said)


def test_rename_takes_all_versions_and_deletion_leaves_earlier_moments(first):
    expect("rename", "disks/today", "a.img", "archive", "b.img")
    expect("restore", "archive", "b.img", first, out=FIRST)
    expect("restore", "disks/today", "a.img", status=1, said=NOT_FOUND)
    await_next_second()
    expect("delete", "*", "b*", out=b"deleted /archive/b.img\n")
    expect("restore", "archive", "b.img", status=1, said=NOT_FOUND)
    expect("restore", "archive", "b.img", first, out=FIRST)
    expect("restore", "", "empty")


def test_two_threads():
    expect("two_threads", out=b"one: 1000000 bytes stored and read back\ntwo: 1000000 bytes stored and read back\n")


def test_sign_on_and_set_up_that_fail():
    for program in ("list", "two_threads"):
        expect(program, status=1, said="(\\w+ failed: -137\n(no session\n)?)+", changed={"TSM_PASSWORD": "wrong"})
        expect(program, status=1, said="TsmInitApi.*", changed={"TSM_CONFIG": "missing.opt"})
