#!/usr/bin/env python3
"""Follows a guide as a reader does: makes the files that it shows, runs its commands and compares what they print.

Usage: run_guide.py GUIDE PREFIX FOLDER     (PREFIX: where the project is installed; FOLDER: made anew)

What counts in a guide are its fenced blocks:

- A block behind a paragraph that ends in "`NAME`:" is the file NAME; behind "add to `NAME`:" it goes to the file's end.
- A block "console" holds commands, each after "$ ", and below each what it prints, standard error included. A command
  may go on behind a backslash. "..." stands for any text in its line; alone in a line, for any number of lines.
  A command must succeed unless "$ echo $?" follows it.
- All other blocks are for reading only.

The exit status is 77, which ctest counts as skipped, where this desk cannot make the guide's machine.
"""
import difflib
import os
import pathlib
import re
import shlex
import shutil
import signal
import subprocess
import sys
import threading

TIMEOUT_S = 60
SKIPPED = 77
NO_MACHINE = 126  # exit status of kvsim where a right is missing
END = "--- end of command, status "


def blocks(text):
    """Yields (line number, info string, paragraph in front, lines) of each fenced block."""
    lines = text.splitlines()
    start, front = None, ""
    for number, line in enumerate(lines, 1):
        if line.startswith("```"):
            if start is None:
                start = number
            else:
                yield start, lines[start - 1][3:].strip(), front, lines[start:number - 1]
                start, front = None, ""
        elif start is None and line:
            front = f"{front} {line}" if lines[number - 2] else line
    if start is not None:
        sys.exit(f"line {start}: this block has no end")


def commands(number, lines):
    """Yields (line number, command, lines that it prints) of a console block."""
    command, output, goes_on = None, [], False
    for number, line in enumerate(lines, number + 1):
        if goes_on:
            command += "\n" + line
        elif line.startswith("$ "):
            if command is not None:
                yield place, command, output
            place, command, output = number, line[2:], []
        elif command is None:
            sys.exit(f"line {number}: a console block begins with a command")
        else:
            output.append(line)
            continue
        goes_on = line.endswith("\\")
    yield place, command, output


def matches(expected, actual):
    pattern = "".join("(?:.*\n)*" if line == "..." else
                      ".*".join(re.escape(part) for part in line.split("...")) + "\n" for line in expected)
    return re.fullmatch(pattern, "".join(line + "\n" for line in actual))


def read_guide(guide):
    """The guide as a script for bash, and the commands in it."""
    script, steps = ["exec 2>&1"], []
    for number, kind, front, lines in blocks(guide.read_text()):
        file = re.search(r"(add to )?`([^`/]+)`:$", front, re.IGNORECASE)
        if kind == "console":
            for step in commands(number, lines):
                steps.append(step)
                script += [step[1], f"status=$?; echo; echo '{END}'$status; (exit $status)"]
        elif file:
            text = shlex.quote("".join(line + "\n" for line in lines))
            script.append(f"printf %s {text} {'>>' if file[1] else '>'} {shlex.quote(file[2])}")
    return "\n".join(script), steps


def main(guide, prefix, folder):
    script, steps = read_guide(guide)
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    libraries = next(prefix.glob("lib*/**/libkv.so")).parent
    environment = os.environ | {
        "PATH": f"{prefix}/bin:{os.environ['PATH']}",
        "LD_LIBRARY_PATH": str(libraries),
        "PKG_CONFIG_PATH": f"{libraries}/pkgconfig",
        "LC_ALL": "C.UTF-8",
    }
    with subprocess.Popen(["bash", "-c", script], cwd=folder, env=environment, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, text=True, start_new_session=True) as shell:
        watch = threading.Timer(TIMEOUT_S, os.killpg, (shell.pid, signal.SIGTERM))
        watch.start()
        printed, _ = shell.communicate()
        watch.cancel()
    ended = re.split(rf"\n{END}(\d+)\n", printed)
    outputs, statuses = ended[0::2], [int(status) for status in ended[1::2]]
    failures = 0
    for index, (number, command, expected) in enumerate(steps):
        if index == len(statuses):
            sys.exit(f"{guide}:{number}: $ {command}\ndid not end within {TIMEOUT_S} s, or ended the shell")
        actual = outputs[index].splitlines()
        status = statuses[index]
        if status == NO_MACHINE and "kvsim:" in outputs[index]:
            print(f"skipped at {guide}:{number}: {outputs[index]}")
            return 1 if failures else SKIPPED
        if not matches(expected, actual):
            failures += 1
            print(f"\n{guide}:{number}: $ {command}")
            print("\n".join(difflib.unified_diff(expected, actual, "the guide", "this run", lineterm="")))
        asked = index + 1 < len(steps) and steps[index + 1][1] == "echo $?"
        if status != 0 and not asked:
            failures += 1
            print(f"\n{guide}:{number}: $ {command}\nfailed with status {status} and printed:\n{outputs[index]}")
    print(f"{guide.name}: {len(steps)} commands, {failures} failures")
    return 1 if failures or not steps else 0


if __name__ == "__main__":
    sys.exit(main(*(pathlib.Path(argument).resolve() for argument in sys.argv[1:4])))
