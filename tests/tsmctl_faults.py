"""tsmctl on servers that misbehave: what it reports, and that nothing is lost, mixed up or stored twice."""

import functools
import json
import os
import pathlib
import re
import shutil
import subprocess

import pytest

tsmctl = os.path.abspath(os.path.join(os.environ["TSM_BUILD"], "bin/tsmctl"))
BACKUP, STREAM = "backup tree", "backup - --as tree/stream"
RESTORE, RENAME, DELETE = "restore tree --to out", "rename tree/a tree/z", "delete tree/a --all-versions"

# Rules, the command, its exit status, and words of what it says.
ROWS = [
    ("FAULT dsmSetUp DSM_RC_NO_MEMORY", BACKUP, 1, "(-102), no memory"),
    ("FAULT dsmSetUp 1 x", BACKUP, 1, "dsierror.log"),
    ("FAULT dsmInitEx 137", BACKUP, 1, "wrong password"),
    ("EXPIRE 1; CLOCK +2", BACKUP, 1, "the password has expired"),
    ("KEEP STANDARD EXISTING 2 LASTDAYS 1; CLOCK +9", BACKUP, 0, ""),
    ("FAULT dsmSendObj 157 10", BACKUP, 1, "larger than the server's limit"),
    ("FAULT dsmSendData 157 DSM_RC_ABORT_NO_REPOSIT_SPACE", BACKUP, 1, "out of storage space"),
    ("FAULT dsmSendData 2 DSM_RC_ABORT_SYSTEM_ERROR", BACKUP, 1, "cannot send"),
    ("FAULT dsmEndSendObj 3 157 15", BACKUP, 1, "tree/"),
    ("FAULT dsmEndSendObj 2 1", BACKUP, 1, "is not stored"),
    ("FAULT dsmEndSendObj 1", STREAM, 1, "is not stored"),
    ("FAULT dsmEndTxn 2302 12", BACKUP, 1, "no medium could be mounted"),
    ("FAULT dsmEndTxn 2 0 16", BACKUP, 1, "no room in the server's log"),
    ("FAULT dsmTerminate 1\nFAULT dsmCleanUp 1", BACKUP, 0, ""),
    ("PARTIALSEND 99; LATENCY dsmEndTxn 10", BACKUP, 0, ""),
    ("SESSIONS 1", BACKUP + " -j 3", 0, ""),
    ("STRICTSIZE", BACKUP, 0, ""),
    ("STRICTSIZE", STREAM, 0, ""),
    ("IDLE 500", STREAM, 1, "the session is gone"),
    ("FAULT dsmGetNextQObj 1", RESTORE, 1, "the server failed"),
    ("FAULT dsmGetNextQObj 3 1", "list", 1, "cannot list"),
    ("FAULT dsmBeginGetData 9", RESTORE, 1, "the data is offline"),
    ("FAULT dsmGetData 3 14", RESTORE, 1, "not available now"),
    ("SHORTREAD 77", RESTORE, 0, ""),
    ("SESSIONS 1; IDLE 86400000", RESTORE + " -j 3", 0, ""),
    ("FAULT dsmRenameObj 157 17", RENAME, 1, "no room in the server's database"),
    ("FAULT dsmRenameObj 32", RENAME, 1, "the new name has stored versions"),
    ("FAULT dsmDeleteObj 157 17", DELETE, 1, "giving the transaction up"),
    ("FAULT dsmEndTxn 2302 106", DELETE, 1, "permission may be missing"),
    ("FAULT dsmDeleteFS 106", "delete-filespace tsmctl --yes", 1, "no permission"),
    *((";".join(f"FAULT {call} 106" for call in ("dsmBeginTxn", "dsmDeleteFS", "dsmSetAccess")), command + dry, status, "")
      for command in (BACKUP, STREAM, RENAME, DELETE, "grant OTHER", "delete-filespace tsmctl --yes")
      for dry, status in (("", 1), (" --dry-run", 0))),
    ("", RESTORE + " --dry-run", 0, ""),
]


def write(tree, top="tree/"):
    for path, data in tree.items():
        os.makedirs(os.path.dirname(top + path), exist_ok=True)
        pathlib.Path(top, path).write_bytes(data)


def files(folder):
    return {str(path.relative_to(folder)): path.read_bytes() for path in pathlib.Path(folder).rglob("*") if path.is_file()}


def run(store, command, rules="", retries="0"):
    environment = {"HOME": os.getcwd(), "TSM_STANDIN_STORE": os.path.abspath(store), "TSM_STANDIN_FAULTS": rules,
                   "TSMCTL_FILESPACE": "tsmctl", "TSMCTL_PASSWORD": "secret", "TSMCTL_RETRIES": retries}
    shutil.rmtree("out", ignore_errors=True)
    slow = "sleep 1" if "IDLE 500" in rules else ":"
    return subprocess.run(["sh", "-c", f"({slow}; echo hello) | exec '{tsmctl}' {command}"], env=environment,
                          capture_output=True, text=True)


def state(store):
    """How many versions each object has, and the bytes and the mode of the active one."""
    versions = [json.loads(line)["path"] for line in run(store, "list --all-versions --json -q").stdout.splitlines()]
    listed = [json.loads(line) for line in run(store, "list --json -q").stdout.splitlines()]
    modes = {each["path"]: each.get("mode") for each in listed}
    done = run(store, "restore / --to out")
    assert done.returncode == 0, done.stderr
    active = files("out")
    return {path: (versions.count(path), active.get(path), modes.get(path)) for path in versions}


@pytest.fixture(scope="module", autouse=True)
def base(tmp_path_factory):
    """A store with the tree, which then changes, and what there is in it."""
    os.chdir(tmp_path_factory.mktemp("faults"))
    write({"a": b"1", "b": b"22", "empty": b"", "sub/big": os.urandom(200_000)})
    assert run("base", BACKUP).returncode == 0
    yield state("base"), files("tree")
    os.chdir("/")


@functools.lru_cache(None)
def after(command):
    shutil.copytree("base", "twin")
    assert run("twin", command).returncode == 0
    done = state("twin")
    shutil.rmtree("twin")
    return done


def attempt(base, rules, command, status, words, retries="0"):
    before, tree = base
    write({"a": b"4444", "b": b"333", "empty": b"2"})
    shutil.rmtree("store", ignore_errors=True)
    shutil.copytree("base", "store")
    done = run("store", command, rules, retries)
    assert done.returncode in ((0, 1) if status is None else (status,)), done
    assert words in done.stderr
    assert done.returncode == 0 or done.stderr
    if command.startswith("restore"):
        there = files("out/tree") if os.path.exists("out/tree") else {}
        assert there.items() <= tree.items()
        assert there == ({} if "--dry-run" in command else tree) or done.returncode == 1
    found = state("store")
    complete = after(command) if command != "delete-filespace tsmctl --yes" else {}
    if done.returncode == 0:
        assert found == complete
    elif command.startswith("backup"):  # each object for itself
        for path in before.keys() | found.keys():
            assert found.get(path) in (before.get(path), complete.get(path)), path
    else:
        assert found in (before, complete)
    return done.returncode, done.stderr.splitlines()[:-1]  # the last line has a time


@pytest.mark.parametrize("rules, command, status, words", ROWS)
def test_rules(base, rules, command, status, words):
    attempt(base, rules, command, status, words)


@pytest.mark.parametrize("command", (BACKUP, STREAM, RESTORE, RENAME, DELETE))
def test_tries_again(base, command):
    setbacks = """dsmGetNextQObj 2 2041; FAULT dsmSendData 1 157 15; FAULT dsmEndSendObj 4 1;
        FAULT dsmEndTxn 2 2302 12; FAULT dsmGetData 2 14; FAULT dsmDeleteObj 1 157 17; FAULT dsmRenameObj 1 157 16"""
    attempt(base, "FAULT " + setbacks, command, 0, "", "3")


def test_one_call_in_a_hundred(base):
    tree = {f"{n // 20}/{n}": b"%d" % n for n in range(200)}
    write(tree, "lots/")
    done = None
    for seed in range(9):
        done = done if done and done.returncode == 0 else run("many", "backup lots -j 3", f"FAULT 1 {seed}", "9")
        assert not re.search(r"\(-(1|12|15|16|17|18|51|2041|2302)\)", done.stderr)  # these pass
    found = state("many")
    assert {path: found.get("lots/" + path) for path in tree} == {path: (1, data, "0644") for path, data in tree.items()}


def test_bad_days(base):
    commands = BACKUP + " -j 1", RESTORE + " -j 1", RENAME, DELETE, STREAM
    days = [(base, f"FAULT 4 {seed}", commands[seed % 5], None, "") for seed in range(40)]
    ends = [attempt(*day) for day in days]
    assert {status for status, _ in ends} == {0, 1}
    assert [attempt(*day) for day in days[:5]] == ends[:5]
