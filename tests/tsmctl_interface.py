"""What tsmctl says of itself and shows on a terminal: its help, manual page and completion agree, the completion works
in bash, progress fits the terminal, and questions are asked there."""

import fcntl
import json
import os
import pty
import re
import select
import shutil
import struct
import subprocess
import termios
import time
from pathlib import Path

import pytest

tsmctl = os.path.abspath(os.path.join(os.environ["TSM_BUILD"], "bin/tsmctl"))
sources = Path(__file__).resolve().parents[1] / "tsmctl"


def run(*arguments):
    environment = {"PATH": os.environ["PATH"], "TSMCTL_CONFIG": "/nowhere"}
    done = subprocess.run([tsmctl, *arguments], env=environment, stdin=subprocess.DEVNULL, capture_output=True, text=True)
    assert (done.returncode, done.stderr) == (0, "")
    return done.stdout


def section(text, begin, end):
    found = re.search(begin + r"\n(.*?)(?=" + end + r"|\Z)", text, re.S)
    return found[1] if found else ""


page = (sources / "tsmctl.1.in").read_text(encoding="utf-8")
top = run("--help")
commands = re.findall(r"^  (\S+)", section(top, "Commands:", "\n\n"), re.M)
helps = {command: run(command, "--help") for command in commands}


def options_of(text):
    return set(re.findall(r"(?<!\S)--?[a-z-]+", " ".join(
        re.match(r"  (-\S+)", line)[1].replace(",", " ") for line in section(text, "Options:", "\n\n").split("\n")
        if line.startswith("  -"))))


def options_of_page(text):
    return {"-" + name for item in re.findall(r"^\.It (Fl .*)", text, re.M) for name in re.findall(r"Fl (\S+)", item)}


described = section(page, r"\.Sh COMMANDS", r"\n\.Sh")


def test_help():
    assert re.search(r"^tsmctl \d+\.\d+\.\d+\n$", run("--version"))
    assert run("help") == top
    assert [line for text in (top, *helps.values()) for line in text.split("\n") if len(line) > 100] == []


@pytest.mark.parametrize("command", commands)
def test_help_and_page_of(command):
    part = section("\n" + described, r"\n\.Ss " + command + r"(?: [^\n]*)?", r"\n\.Ss")
    assert options_of_page(part) == options_of(helps[command]) - {"-h", "--help"}
    arguments = re.search(r"^Usage: tsmctl \S+ \[OPTIONS\](.*)", helps[command], re.M)[1].replace("...", " ...").strip()
    headed = re.search(r"^\.Ss " + command + r"((?: .*)?)$", described, re.M)[1].split()
    wanted = " ".join(word for word in headed if word not in ("Op", "Ar"))
    assert (f"[{wanted}]" if headed[:1] == ["Op"] else wanted) == arguments
    assert run("help", command) == helps[command]


def test_page():
    assert re.findall(r"^\.Ss (\S+)", described, re.M) == commands
    assert options_of_page(section(page, r"\.Sh COMMON OPTIONS", r"\n\.Sh")) == options_of(top)
    assert set(re.findall(r"^\.It Ev (\S+)", page, re.M)) == set(re.findall(r"TSMCTL_[A-Z_]+", top))
    every = options_of(top).union(*map(options_of, helps.values()))
    assert {"-" + name for name in re.findall(r"\bFl ([\w-]+)", page)} <= every
    for checker in (["mandoc", "-T", "lint", "-W", "warning"], ["groff", "-ww", "-z", "-mandoc", "-T", "utf8"]):
        if shutil.which(checker[0]):
            done = subprocess.run([*checker, sources / "tsmctl.1.in"], capture_output=True, text=True)
            assert done.stdout + done.stderr == ""


class Bash:
    """An interactive bash on a terminal of its own, that writes the line under the cursor to a file at Ctrl-T."""

    def __init__(self, setup):
        pid, self.terminal = pty.fork()
        if pid == 0:
            os.environ.update(PATH=os.path.dirname(tsmctl) + ":" + os.environ["PATH"], TERM="dumb", INPUTRC="/dev/null")
            os.execvp("bash", ["bash", "--noprofile", "--norc", "-i"])
        self.send(setup + "\nbind -x '\"\\C-t\": printf \"%s|%s\\n\" \"${READLINE_LINE:0:READLINE_POINT}\" "
                  "\"${READLINE_LINE:READLINE_POINT}\" >new; mv new line; READLINE_LINE='; touch ready\n")
        self.wait("ready")

    def send(self, text):
        os.write(self.terminal, text.encode())

    def wait(self, path):
        end = time.monotonic() + 60
        while not os.path.exists(path):
            if time.monotonic() > end:
                pytest.fail(f"bash does not answer: {path}")
            if select.select([self.terminal], [], [], 0.005)[0]:
                os.read(self.terminal, 65536)  # what it shows, which nobody looks at
        text = Path(path).read_text(encoding="utf-8")
        os.remove(path)
        return text.rstrip("\n")

    def complete(self, typed):
        self.send(typed + "\x14")
        return self.wait("line")

    def close(self):
        self.send("\x15exit\n")
        os.close(self.terminal)


TAB, ALL, LEFT = "\t", "\x1b*", "\x1b[D"  # Alt-* puts in every completion


def options_with(command):
    names = options_of(top) | options_of(helps.get(command, ""))
    return " ".join(sorted(name for name in names if name.startswith("--")))


typed_and_wanted = [
    ("tsmctl " + ALL, "tsmctl " + " ".join(sorted(commands)) + " |"),
    ("tsmctl --" + ALL, f"tsmctl {options_with('')} |"),
    ("tsmctl li" + TAB, "tsmctl list |"),
    ("tsmctl --config 'my file' li" + TAB, "tsmctl --config 'my file' list |"),
    ("tsmctl --config=my\\ file -q li" + TAB, "tsmctl --config=my\\ file -q list |"),
    ("tsmctl lixx" + LEFT * 2 + TAB, "tsmctl list|xx"),
    ("tsmctl re list" + LEFT * 5 + ALL, "tsmctl rename restore | list"),
    ("true; tsmctl li" + TAB, "true; tsmctl list |"),
    ("tsmctl list --type " + ALL, "tsmctl list --type any dir file |"),
    ("tsmctl list --type=d" + TAB, "tsmctl list --type=dir |"),
    ("tsmctl list --type=" + ALL, "tsmctl list --type=any dir file |"),
    ("tsmctl list --type dir --al" + TAB, "tsmctl list --type dir --all-versions |"),
    ("tsmctl list --type=dir --al" + TAB, "tsmctl list --type=dir --all-versions |"),
    ("tsmctl list $(touch ran) --al" + TAB, "tsmctl list $(touch ran) --all-versions |"),
    ("tsmctl help li" + TAB, "tsmctl help list |"),
    ("tsmctl backup n" + ALL, "tsmctl backup notes.d notes.txt |"),
    ("tsmctl backup list n" + ALL, "tsmctl backup list notes.d notes.txt |"),
    ("tsmctl backup -j4 -- n" + ALL, "tsmctl backup -j4 -- notes.d notes.txt |"),
    ("tsmctl backup 'my d" + TAB, "tsmctl backup 'my docs'/|"),
    ("tsmctl backup my\\ docs/" + TAB, "tsmctl backup my\\ docs/in\\ side/|"),
    ("tsmctl restore x --to=my\\ d" + TAB, "tsmctl restore x --to=my\\ docs/|"),
    ("tsmctl --password-file n" + ALL, "tsmctl --password-file notes.d notes.txt |"),
    ("tsmctl list >n" + ALL, "tsmctl list >notes.d notes.txt |"),
    *((f"tsmctl {command} --" + ALL, f"tsmctl {command} {options_with(command)} |") for command in commands),
    ("tsmctl grant none" + TAB, "tsmctl grant none|"),
]


@pytest.mark.parametrize("setup", ["source <(tsmctl completion)", f"set -u; source '{sources}/completion.bash'"],
                         ids=["printed", "installed"])
def test_completion(setup, tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    os.makedirs("my docs/in side")
    os.mkdir("notes.d")
    for name in ("notes.txt", "my file"):
        Path(name).touch()
    bash = Bash(setup)
    assert [bash.complete(typed) for typed, _ in typed_and_wanted] == [wanted for _, wanted in typed_and_wanted]
    bash.close()
    assert not os.path.exists("ran"), "the line was run"


def progress(columns, size, work):
    """The lines that a backup draws over each other, up to the end of its input."""
    shown, terminal = pty.openpty()
    fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("4H", 25, columns, 0, 0))
    environment = {"TSM_STANDIN_STORE": f"{work}/store", "HOME": str(work), "TSMCTL_PASSWORD": "secret"}
    with subprocess.Popen([tsmctl, "backup", "-", "--as", "x", "--size", str(size)], env=environment,
                          stdin=subprocess.PIPE, stderr=terminal) as child:
        os.close(terminal)
        drawn = ""
        while drawn.count("\r") < 3:
            child.stdin.write(bytes(1 << 20))
            child.stdin.flush()
            if select.select([shown], [], [], 0.15)[0]:
                drawn += os.read(shown, 65536).decode()
        child.stdin.close()
        while "tsmctl: backup:" not in drawn:
            drawn += os.read(shown, 65536).decode()
    os.close(shown)
    return drawn.split("tsmctl:")[0].split("\r")[1:]


@pytest.mark.parametrize("columns, form", [
    (8, r" +\d+%"), (30, r" +\d+%  00:\d\d:\d\d left"), (48, r" +\d+%  \S+ left  \S+ .iB of 95.4 MiB"),
    (80, r" +\d+%  \S+ left  \S+ .iB of 95.4 MiB  \S+ .iB/s")])
def test_progress(columns, form, tmp_path):
    lines = progress(columns, 10 ** 8, tmp_path)
    assert re.fullmatch(form, lines[0].rstrip())
    assert lines[-2:] == [" " * len(lines[-3].rstrip()), ""], "wiped"
    assert max(map(len, lines)) < columns


def test_no_time_left_that_means_nothing(tmp_path):
    assert "left" not in "".join(progress(100, 10 ** 18, tmp_path))


def on_terminal(environment, *arguments, typed=""):
    """The exit status, what was shown, and whether the terminal echoes: at the question, and at the end."""
    pid, terminal = pty.fork()
    if pid == 0:
        os.execve(tsmctl, [tsmctl, *arguments], environment)
    shown, echo = b"", []
    while True:
        try:
            shown += os.read(terminal, 65536)
        except OSError:
            break
        if typed and shown.endswith(b": "):
            echo.append(bool(termios.tcgetattr(terminal)[3] & termios.ECHO))
            os.write(terminal, typed.encode())
            typed = ""
    echo.append(bool(termios.tcgetattr(terminal)[3] & termios.ECHO))
    os.close(terminal)
    return os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]), shown.decode(errors="replace"), echo


@pytest.fixture
def asked(tmp_path):
    """An environment without what tsmctl then asks for."""
    (tmp_path / "dsm.opt").write_text(f"STOREDIR {tmp_path}/store\n", encoding="utf-8")
    return {"TSMCTL_CONFIG": str(tmp_path / "dsm.opt"), "TSMCTL_NODE": "node", "HOME": str(tmp_path)}


@pytest.fixture
def known(asked):
    environment = {**asked, "TSMCTL_PASSWORD": "secret"}
    assert on_terminal(environment, "filespaces") == (0, "", [True])
    return environment


@pytest.mark.parametrize("typed, status, answer", [
    ("secret\n", 0, "node: \r\n"), ("\n", 2, "password is empty"), ("se\x03", 130, "stopped"), ("sec\x1a\x1cret\n", 1, "AUTH_FAILURE"),
    ("wrong\n", 1, "AUTH_FAILURE")])
def test_password(known, asked, typed, status, answer):
    found, shown, echo = on_terminal(asked, "filespaces", typed=typed)
    assert (found, answer in shown, "secret" in shown, echo) == (status, True, False, [False, True])


@pytest.mark.parametrize("answer, status, said", [("a\n", 1, "not confirmed"), ("two\n", 0, "deleted filespace two")])
def test_confirmation(known, answer, status, said):
    on_terminal(known, "--filespace", "two", "list")
    found, shown, _ = on_terminal(known, "delete-filespace", "two", typed=answer)
    assert (found, said in shown) == (status, True)


def test_names_that_would_steer_the_terminal(known):
    forged = "a\nb\x9bé\x1b"
    assert on_terminal(known, "--filespace", forged, "list")[0] == 0
    assert on_terminal(known, "filespaces")[1] == "a?b?é?\r\n"
    assert on_terminal(known, "filespaces", "--json", "-q")[1] == f'{{"filespace":{json.dumps(forged)}}}\r\n'


@pytest.mark.parametrize("slow, command", [
    ("dsmBeginGetData", "check"), ("dsmEndTxn", "delete tree --recursive --yes"), ("dsmEndTxn", "rename tree new"),
    ("dsmBeginQuery", "find none")])
def test_progress_counts_objects(slow, command, known, tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    os.mkdir("tree")
    for name in "abc":
        Path("tree", name).write_text(name, encoding="utf-8")
    on_terminal(known, "backup", "tree")
    shown = on_terminal({**known, "TSM_STANDIN_FAULTS": f"LATENCY {slow} 120"}, *command.split())[1]
    assert re.search(r"(\d%  .*[123] of [34]|[123]) objects", shown)


# What each command needs, in the order of the help, and a line of it as JSON, or some of that.
told = {
    "backup": (["tree"], {"action": "stored", "path": "tree", "detail": "new"}),
    "verify": (["tree"], {"action": "compared", "path": "tree"}),
    "check": (["tree/f", "--sums"], {"path": "tree/f", "sha256": "5891b5b522d5df086d0ff0b110fbd9d21bb4fc7163af34d08286a2e846f6be03"}),
    "restore": (["tree/f", "--to", "out"], {"action": "restored", "path": "tree/f"}),
    "list": (["tree"], {"path": "tree", "kind": "directory"}),
    "status": (["--critical", "1"], {"path": "tree", "state": "complete", "level": "OK", "failures": 0}),
    "find": (["g"], {"path": "tree/g", "active": True}),
    "diff": (["tree", "--local", "tree"], {}),
    "delete": (["tree/g"], {"action": "removed", "path": "tree/g"}),
    "rename": (["tree/f", "tree/h"], {"action": "renamed", "path": "tree/f", "detail": "to tree/h"}),
    "filespaces": ([], {"filespace": "tsmctl"}),
    "classes": ([], {"class": "STANDARD"}),
    "delete-filespace": (["none", "--yes"], {"failed": ""}),
    "grant": (["OTHER"], {"text": "granted OTHER access to filespace tsmctl"}),
    "completion": ([], {}),
    "help": ([], {"text": top[:-1]})}


def test_json(known, tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    os.mkdir("tree")
    for name in ("f", "g"):
        Path("tree", name).write_text("hello\n", encoding="utf-8")
    assert list(told) == commands
    for command, (arguments, first) in told.items():
        done = subprocess.run([tsmctl, command, *arguments, "-v", "--json"], env=known, capture_output=True, text=True)
        lines = [json.loads(line) for line in done.stdout.splitlines()]
        assert any(first.items() <= line.items() for line in lines), command  # sessions end in any order
        summary = lines[-1]["summary"]
        assert (summary["command"], summary["succeeded"]) == (command, done.returncode == 0)
        assert summary["succeeded"] == (not done.stderr) == ("failed" not in first), done.stderr
