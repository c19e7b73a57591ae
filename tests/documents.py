"""Compiles and runs the examples of one document, from the document itself.

What a document's fenced blocks mean:
  c, cpp, python  all blocks of a language, in their order, are one program
  sh              run in their order in one shell, with -euo pipefail
  ini             the options file dsm.opt that the examples find; without one, "STOREDIR store"
  text            right behind an example, or after a line of prose that says what it "prints": its standard output,
                  that of a program being all such blocks together. Anywhere else a text block is only shown.
  console         commands that are only shown: what installs packages or builds the project itself
Any other kind fails, and so does a block that is indented instead of fenced.

Everything runs in a copy of the project, whose build/demo leads to the build under test. The copy is the home folder,
too, and its path has a blank. The tools are found, and none of the project's variables are set, except that Python
programs find the binding and the library.
"""

import argparse
import os
import re
import subprocess
import sys
import tempfile

root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
skipped = 77  # to CTest
strict = ["-Wall", "-Wextra", "-Werror", "-pthread"]
compilers = {"c": ["cc", "-std=c11", *strict], "cpp": ["c++", "-std=c++17", *strict]}


class Block:
    def __init__(self, kind, line):
        self.kind, self.line, self.lines = kind, line, []
        self.expects = None  # the text block with its output


def fail(message):
    sys.exit(f"{arguments.document}:{message}")


def read_blocks(text):
    """The fenced blocks. line is that of the opening fence, counted from 1."""
    blocks, fence, indent = [], None, 0
    prose = [""]  # since the last block
    for number, line in enumerate(text.split("\n"), 1):
        mark = re.match(r"( *)(`{3,}|~{3,})(.*)", line)
        if fence is None and mark:
            indent, fence, kind = len(mark[1]), mark[2], mark[3].strip()
            if kind not in (*runners, "ini", "text", "console"):
                fail(f"{number}: nobody tests blocks of the kind {kind!r}")
            block = Block(kind, number)
            between = [passage for passage in prose if passage.strip()]
            behind = not between or (len(between) == 1 and "print" in between[0])
            if kind == "text" and blocks and blocks[-1].kind in runners and behind:
                blocks[-1].expects = block
            blocks.append(block)
        elif fence is None:
            if re.match(r" {4}|\t", line) and not prose[-1].strip() and not any(map(in_list, prose)):
                fail(f"{number}: an indented block; fence it, so that it is tested")
            prose.append(line)
        elif mark and mark[2].startswith(fence) and not mark[3].strip():
            fence, prose = None, [""]
        else:
            blocks[-1].lines.append(line[min(indent, len(line) - len(line.lstrip())):])
    if fence is not None:
        fail(f"{blocks[-1].line}: the block does not end")
    return blocks


def in_list(line):
    return re.match(r" *([-*+]|\d+[.)]) ", line)


def text_of(blocks):
    return "".join(line + "\n" for block in blocks for line in block.lines)


def in_place(blocks, opening=lambda block: ""):
    """The blocks' lines under the numbers that they have in the document, so that messages name those."""
    lines = []
    for block in blocks:
        lines += [""] * (block.line - 1 - len(lines)) + [opening(block)] + block.lines
    return "\n".join(lines) + "\n"


def write(path, text, mode=0o644):
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)
    os.chmod(path, mode)
    return path


def run(command, what, **more):
    done = subprocess.run(command, cwd=project, env={**environment, **more}, encoding="utf-8",
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
    if done.returncode != 0:
        print(done.stdout, end="")
        fail(f" {what}: exit status {done.returncode}")
    return done.stdout


def compare(blocks, output, what):
    expected = [block.expects for block in blocks if block.expects]
    if expected and output != text_of(expected):
        fail(f"{expected[0].line}: {what} printed {output!r}, not {text_of(expected)!r}")


def run_program(kind, blocks):
    source = write(os.path.join(scratch, f"{os.path.basename(arguments.document)}.{kind}"), in_place(blocks))
    library, binding = os.path.join(arguments.build, "lib"), os.path.join(project, "bindings/python")
    command, found_by = [os.path.join(scratch, f"{kind}-program")], {}
    if kind == "python":
        command = ["python3", source]
        found_by = {"PYTHONPATH": binding, "TSMCONNECTOR_LIBRARY": os.path.join(library, "libtsmconnector.so")}
    else:
        run([*compilers[kind], source, "-o", *command, "-I", os.path.join(root, "api"), "-L", library, "-ltsmconnector",
             "-lApiTSM64", "-I", os.path.join(root, "standin/include"), f"-Wl,-rpath,{library}"],
            f"compiling the {kind} program")
    compare(blocks, run(command, f"the {kind} program", **found_by), f"the {kind} program")


def run_shell(kind, blocks):
    if "&&" in text_of(blocks):
        fail(f"{blocks[0].line}: what fails before && does not stop the shell; give each command a line of its own")
    if re.search(r"(?<![\w./}])/tmp\b", text_of(blocks)):
        fail(f"{blocks[0].line}: commands that write to /tmp itself would find it there the next time")
    outputs = {block: os.path.join(scratch, f"output-{block.line}") for block in blocks}
    end = os.path.join(scratch, "end")
    script = write(os.path.join(scratch, f"{os.path.basename(arguments.document)}.{kind}"),
                   in_place(blocks, lambda block: f"exec >'{outputs[block]}'") + f"exec >'{end}'\n")
    done = subprocess.run(["bash", "-euo", "pipefail", script], cwd=project, env=environment, stdin=subprocess.DEVNULL)
    for block, following in zip(blocks, [*list(outputs.values())[1:], end]):
        output = open(outputs[block], encoding="utf-8").read() if os.path.exists(outputs[block]) else ""
        if not os.path.exists(following):
            print(output, end="")
            fail(f"{block.line}: the shell ended in this block, exit status {done.returncode}")
        compare([block], output, "the block")


def make_tools(folder):
    """The build's compilers and this Python, under the names that documents use."""
    os.mkdir(folder)
    flags = f"-fsanitize={arguments.sanitize} -fno-sanitize-recover=all" if arguments.sanitize else ""
    # The library needs the sanitizer's functions for C++, which clang does not link with C unasked.
    with_library = "-fsanitize-link-c++-runtime -Wl,--push-state,--no-as-needed,-lstdc++,--pop-state"
    for name, tool in {"cc": arguments.cc, "c++": arguments.cxx}.items():
        more = with_library if flags and name == "cc" and "clang" in tool else ""
        write(os.path.join(folder, name), f"#!/bin/sh\nexec '{tool}' {flags} {more} \"$@\"\n", 0o755)
    write(os.path.join(folder, "python3"), f'#!/bin/sh\nexec \'{sys.executable}\' "$@"\n', 0o755)
    return folder


def main():
    blocks = read_blocks(open(os.path.join(root, arguments.document), encoding="utf-8").read())
    subprocess.run(["bash", "-euo", "pipefail", "-c", 'cd "$0"; . ./scripts/common.sh; copy_sources "$1"', root, project],
                   check=True)
    os.makedirs(os.path.join(project, "build/demo"))
    for folder in ("bin", "lib"):
        os.symlink(os.path.join(arguments.build, folder), os.path.join(project, "build/demo", folder))

    options = [block for block in blocks if block.kind == "ini"]
    if len(options) > 1:
        fail(f"{options[1].line}: a second options file")
    write(os.path.join(project, "dsm.opt"), text_of(options) or "STOREDIR store\n")
    if options:
        run(["env", "TSMCTL_PASSWORD=secret", "tsmctl", "--config", "dsm.opt", "filespaces"], "the options file")

    done, compared, left_out = len(options), 0, 0
    for kind in dict.fromkeys(block.kind for block in blocks):
        same = [block for block in blocks if block.kind == kind]
        # A sanitized library cannot be loaded into an ordinary interpreter.
        python = kind == "python" or (kind == "sh" and "python3" in text_of(same))
        if kind not in runners:
            continue
        if arguments.sanitize and python:
            print(f"{arguments.document}: {kind} blocks left out: no Python with a sanitized library")
            left_out += len(same)
            continue
        runners[kind](kind, same)
        done += len(same)
        compared += sum(block.expects is not None for block in same)
    print(f"{arguments.document}: {done} blocks run, the output of {compared} compared, {left_out} left out")
    sys.exit(skipped if left_out and not done else 0)


runners = {"c": run_program, "cpp": run_program, "python": run_program, "sh": run_shell}
parser = argparse.ArgumentParser()
parser.add_argument("document", help="from the project's folder on")
for option in ("--build", "--cc", "--cxx"):
    parser.add_argument(option, required=True)
parser.add_argument("--sanitize", default="")
arguments = parser.parse_args()
with tempfile.TemporaryDirectory() as scratch:
    project = os.path.join(scratch, "the project")
    keep = {name: value for name, value in os.environ.items() if re.match("LANG|LC_|TZ$|[A-Z]+SAN_OPTIONS", name)}
    tools = [make_tools(os.path.join(scratch, "tools")), os.path.join(arguments.build, "bin"), os.environ["PATH"]]
    environment = {**keep, "HOME": project, "PATH": os.pathsep.join(tools)}
    main()
