"""The checker's command line, with stores that are damaged in one way each: what it finds, what --repair leaves, its
exit status and its JSON."""

import json
import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest

BIN = Path(os.environ["TSM_BUILD"], "bin").resolve()
HEX = "0123456789abcdef"


def flip(path, at):
    content = bytearray(path.read_bytes())
    content[at] ^= 16
    path.write_bytes(content)


def flip_catalogue(store):
    flip(store / "catalogue.db", os.path.getsize(store / "catalogue.db") - 300)


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
    "first page": (lambda store: flip(store / "catalogue.db", 50), "catalogue", "catalogue", "", True),
    "last page": (lambda store: os.truncate(store / "catalogue.db", os.path.getsize(store / "catalogue.db") - 4096),
                  "catalogue", "catalogue version", "version", False),
    "other mark": (lambda store: (store / "mark").write_text(re.sub("identity ................", "identity " + HEX,
                   (store / "mark").read_text())), "catalogue", "catalogue", "catalogue", False),
    "page": (flip_catalogue, "catalogue version", "catalogue version", "version", False),
    "mark": (lambda store: flip(store / "mark", 60), "mark", "mark", "", True),
    "no mark": (lambda store: (store / "mark").unlink(), "mark", "mark", "", True),
    "no catalogue": (lambda store: (store / "catalogue.db").unlink(), "catalogue", "catalogue", "catalogue", False),
    "broken off": (lambda store: (store / "mark").rename(store / "mark.repairing"), "mark", "mark", "", True),
}


def tsmctl(store, *arguments, start=subprocess.run, **options):
    environment = {name: value for name, value in os.environ.items() if name != "TSMCTL_CONFIG"}
    environment.update(TSM_STANDIN_STORE=str(store), TSMCTL_NODE="N", TSMCTL_PASSWORD="p")
    return start([BIN / "tsmctl", *arguments], env=environment, **options)


def check(store, *options):
    process = subprocess.run([BIN / "tsm-standin-check", store, "--json", *options], capture_output=True, text=True)
    *findings, summary = map(json.loads, process.stdout.splitlines())
    assert summary["findings"] == len(findings)
    assert process.returncode == (2 if "failure" in summary else 1 if findings else 0)
    return process.returncode, " ".join(sorted({finding["finding"] for finding in findings})), summary


def content(store):
    return {path: path.is_file() and path.read_bytes() for path in store.rglob("*")}


@pytest.fixture(scope="module")
def sound(tmp_path_factory):
    """A folder with a tree, and with the store that it was backed up to."""
    folder = tmp_path_factory.mktemp("sound")
    (folder / "tree").mkdir()
    for i in range(60):
        (folder / "tree" / f"f{i}").write_bytes(os.urandom(200 * i))
    (folder / "tree/large").write_bytes(os.urandom(200000))
    assert tsmctl(folder / "store", "backup", folder / "tree").returncode == 0
    return folder


@pytest.fixture
def store(sound, tmp_path):
    return shutil.copytree(sound / "store", tmp_path / "store")


@pytest.mark.parametrize("damage, found, repaired, left, restores", CASES.values(), ids=CASES)
def test_damage(sound, store, tmp_path, damage, found, repaired, left, restores):
    damage(store)
    before = content(store)
    assert check(store)[:2] == (1 if found else 0, found)
    assert content(store) == before, "a check has changed something"
    assert check(store, "--repair")[1] == repaired
    after = content(store).values()
    assert all(data in after for data in before.values() if data), "a repair has deleted something"
    assert check(store)[1] == left
    done = tsmctl(store, "restore", "/", "--to", tmp_path / "back").returncode
    same = subprocess.run(["diff", "-r", sound / "tree", tmp_path / "back/tree"]).returncode
    assert (done == 0) == (same == 0) == restores


def test_host_at_work_is_no_finding_but_keeps_out_a_repair_of_the_catalogue(store):
    with tsmctl(store, "backup", "-", "--as", "a/b", start=subprocess.Popen, stdin=subprocess.PIPE) as host:
        while not list((store / "incoming").iterdir()):
            host.stdin.write(b"x" * 1000000)
        assert check(store)[:2] == (0, "")
        assert check(store, "--repair")[:2] == (0, "")
        flip_catalogue(store)
        assert "host" in check(store, "--repair")[2]["failure"]


def test_help_and_manual_agree():
    help = subprocess.run([BIN / "tsm-standin-check", "--help"], capture_output=True, text=True).stdout
    page = Path(__file__).parents[1] / "standin/check/tsm-standin-check.1.in"
    items = " ".join(re.findall(r"^\.It (Fl .*)", page.read_text(), re.M))
    assert set(re.findall(r"Fl (-[\w-]+)", items)) == set(re.findall(r"^ .*?-(-\w+)", help, re.M))
    done = subprocess.run(["groff", "-ww", "-z", "-mandoc", "-T", "utf8", page], capture_output=True, text=True)
    assert done.stdout + done.stderr == ""


def test_folders_that_are_no_stores(tmp_path):
    assert (check(tmp_path)[0], check(tmp_path / "none")[0]) == (2, 2)
