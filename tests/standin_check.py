"""The checker's command line: what it finds in stores that were damaged in one way each, what --repair leaves, its exit
status and its JSON. Usage: standin_check.py TSMCTL TSM-STANDIN-CHECK"""
import json
import os
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

TSMCTL, CHECK = sys.argv[1:]
HEX = "0123456789abcdef"


def flip(path, at):
    content = bytearray(path.read_bytes())
    content[at] ^= 16
    path.write_bytes(content)


def large(store):
    return max((path for path in (store / "data").rglob("*") if path.is_file()), key=lambda path: path.stat().st_size)


def orphans(store):
    for name in (f"data/0/999-{HEX}", f"incoming/{HEX}"):
        (store / name).write_bytes(b"x")
        (store / name).chmod(0o600)


def strangers(store):
    for name in ("thesis", "data/0/notes", "data/9/999-" + HEX, "incoming/upload"):
        (store / name).parent.mkdir(exist_ok=True)
        (store / name).write_bytes(b"x")


# The damage; kinds of findings, the same when it is repaired, and the same afterwards; whether all is restored then.
CASES = {
    "none": (lambda store: None, "", "", "", True),
    "orphans": (orphans, "orphan", "orphan", "", True),
    "strangers": (strangers, "files", "files", "files", True),
    "permissions": (lambda store: large(store).chmod(0o640), "files", "files", "files", True),
    "link": (lambda store: (store / "reserve").unlink() or (store / "reserve").symlink_to("mark"), "files", "files",
             "files", False),
    "data": (lambda store: flip(large(store), 70000), "version", "version", "version", False),
    "cut off": (lambda store: os.truncate(large(store), 70000), "version", "version", "version", False),
    "page": (lambda store: flip(store / "catalogue.db", os.path.getsize(store / "catalogue.db") - 300), "catalogue version",
             "catalogue version", "version", False),
    "mark": (lambda store: flip(store / "mark", 60), "mark", "mark", "", True),
    "no mark": (lambda store: (store / "mark").unlink(), "mark", "mark", "", True),
    "no catalogue": (lambda store: (store / "catalogue.db").unlink(), "catalogue", "catalogue", "catalogue", False),
    "broken off": (lambda store: (store / "mark").rename(store / "mark.repairing"), "mark", "mark", "", True),
}


def check(store, *options):
    process = subprocess.run([CHECK, store, "--json", *options], capture_output=True, text=True)
    *findings, summary = map(json.loads, process.stdout.splitlines())
    assert summary["findings"] == len(findings), process
    assert process.returncode == (2 if "failure" in summary else 1 if findings else 0), process
    return process.returncode, " ".join(sorted({finding["finding"] for finding in findings})), summary


def content(store):
    return {path: path.is_file() and path.read_bytes() for path in store.rglob("*")}


def main(work):
    environment = dict(os.environ, TSM_STANDIN_STORE=str(work / "store"), TSMCTL_NODE="N", TSMCTL_PASSWORD="p")
    environment.pop("TSMCTL_CONFIG", None)

    def tsmctl(*arguments, **options):
        return subprocess.run([TSMCTL, *arguments], env=environment, capture_output=True, **options)

    tree = work / "tree"
    tree.mkdir()
    for i in range(60):
        (tree / f"f{i}").write_bytes(os.urandom(200 * i))
    (tree / "large").write_bytes(os.urandom(200000))
    assert tsmctl("backup", tree).returncode == 0
    store, sound = work / "store", work / "sound"
    store.rename(sound)
    for name, (damage, found, repaired, left, restores) in CASES.items():
        shutil.rmtree(store, ignore_errors=True)
        shutil.copytree(sound, store)
        damage(store)
        before = content(store)
        assert check(store)[:2] == (1 if found else 0, found), (name, check(store))
        assert content(store) == before, f"{name}: a check has changed something"
        result = check(store, "--repair")
        assert result[1] == repaired, (name, result)
        after = content(store).values()
        assert all(bytes_ in after for bytes_ in before.values() if bytes_), f"{name}: a repair has deleted something"
        assert check(store)[1] == left, (name, check(store))
        done = tsmctl("restore", "/", "--to", work / "back").returncode
        same = subprocess.run(["diff", "-r", tree, work / "back/tree"], capture_output=True).returncode
        assert (done == 0) == (same == 0) == restores, (name, done, same)
        shutil.rmtree(work / "back", ignore_errors=True)

    # A host at work is no finding, but it keeps a repair of the catalogue out.
    shutil.rmtree(store)
    shutil.copytree(sound, store)
    host = subprocess.Popen([TSMCTL, "backup", "-", "--as", "a/b"], env=environment, stdin=subprocess.PIPE)
    while not list((store / "incoming").iterdir()):
        host.stdin.write(b"x" * 1000000)
    assert check(store)[:2] == (0, ""), check(store)
    assert check(store, "--repair")[:2] == (0, ""), check(store)
    flip(store / "catalogue.db", os.path.getsize(store / "catalogue.db") - 300)
    status, _, summary = check(store, "--repair")
    assert status == 2 and "host" in summary["failure"], summary
    host.communicate()
    for folder in (tree, work / "none"):
        assert check(folder)[0] == 2
    print(f"{len(CASES)} damages found and repaired")


with tempfile.TemporaryDirectory() as folder:
    main(Path(folder))
