#!/usr/bin/env python3
"""Types the sessions of a document into a shell and compares what comes out with what the document shows.

A session is an indented block whose commands begin with "$ "; the lines behind a command are its output. All sessions
of a document run one after the other in one shell, in a new folder. In a document's text

  - a block behind a line that ends with "`NAME.toml`:" or "`NAME.cmake`:" is a file, which is there before the
    first command;
  - a command has to succeed, unless the next one is "echo $?";
  - output is compared when the document shows any. A line "..." stands for any lines, and times, durations, process
    numbers, percentages, line numbers, ids of keys, and users with their hosts for any others;
  - /tmp/lab stands for a folder of the test's own.
"""
import argparse
import os
import re
import secrets
import shutil
import signal
import subprocess
import sys
import tempfile
from pathlib import Path

INDENT = "    "
FILE_BEFORE_BLOCK = re.compile(r"`([\w.-]+\.(?:toml|cmake))`:$")
DOCUMENT_FOLDER = "/tmp/lab"

VARIABLE_PARTS = [
    (re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(\.\d+)?(Z|[+-]\d{4})"), "TIME"),
    (re.compile(r"\b\d\d:\d\d\b"), "MM:SS"),
    (re.compile(r"process \d+"), "process PID"),
    (re.compile(r"\[\d+\]"), "[PID]"),
    (re.compile(r"\b\d+%"), "N%"),
    (re.compile(r"\.cpp:\d+"), ".cpp:LINE"),
    (re.compile(r"\b\d+\.\d+s\b"), "SECONDS"),
    (re.compile(r'"(pid|duration_ms)":\d+'), r'"\1":N'),
    (re.compile(r"\b[0-9a-f]{16}\b"), "KEY"),
    (re.compile(r"\b(by|for) [\w.-]+@[\w.-]+"), r"\1 USER@HOST"),
]


class Command:
    def __init__(self, text, line):
        self.text, self.line, self.shown = text, line, []
        self.output, self.status = None, None


def lines_of(document, section):
    """Numbered lines of the document, or of one section of it."""
    lines = list(enumerate(document.read_text().splitlines(), 1))
    if section is None:
        return lines
    start = next((i for i, (_, text) in enumerate(lines) if text == f"## {section}"), None)
    if start is None:
        sys.exit(f"{document}: there is no section '{section}'")
    end = next((i for i in range(start + 1, len(lines)) if lines[i][1].startswith("## ")), len(lines))
    return lines[start:end]


def blocks_of(lines):
    """Pairs of an indented block and the line of text before it."""
    block, before, blank = [], "", []
    for number, text in lines:
        if text.startswith(INDENT):
            block += blank + [(number, text[len(INDENT):])]
            blank = []
        elif not text.strip():
            blank = blank + [(number, "")] if block else []
        else:
            if block:
                yield block, before
            block, blank, before = [], [], text
    if block:
        yield block, before


def read_document(document, section):
    files, commands = {}, []
    for block, before in blocks_of(lines_of(document, section)):
        named = FILE_BEFORE_BLOCK.search(before)
        if named:
            if named[1] in files:
                sys.exit(f"{document}:{block[0][0]}: {named[1]} stands there twice")
            files[named[1]] = "".join(text + "\n" for _, text in block)
            continue
        if not block[0][1].startswith("$ "):
            continue
        for number, text in block:
            if text.startswith("$ "):
                commands.append(Command(text[2:], number))
            else:
                commands[-1].shown.append(text)
    return files, commands


def script_of(commands, folder, token):
    """The status of a command is what the next one finds in $?."""
    script = ["docs_status=0"]
    for command in commands:
        script += ["(exit $docs_status)", command.text.replace(DOCUMENT_FOLDER, folder), "docs_status=$?",
                   f"printf '\\n{token} %d\\n' $docs_status"]
    return "\n".join(script) + "\n"


def run(commands, work, programs, time_limit_s):
    token = secrets.token_hex(8)
    folder = str(work / "lab")
    (work / "session.sh").write_text(script_of(commands, folder, token))
    environment = {name: value for name, value in os.environ.items() if not name.startswith("CHASSIS_")}
    environment["PATH"] = f"{programs}:{environment['PATH']}"
    shell = subprocess.Popen(["bash", str(work / "session.sh")], cwd=work, env=environment, text=True,
                             stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                             start_new_session=True)
    try:
        output = shell.communicate(timeout=time_limit_s)[0]
    except subprocess.TimeoutExpired:
        os.killpg(shell.pid, signal.SIGKILL)
        output = shell.communicate()[0]
        print(f"The session did not end within {time_limit_s} seconds.")
    pieces = re.split(rf"\n{token} (\d+)\n", output)
    for command, text, status in zip(commands, pieces[0::2], pieces[1::2]):
        command.output, command.status = text.replace(folder, DOCUMENT_FOLDER), int(status)


def stop_chassis(work, programs):
    for inventory in work.glob("*/inventory"):
        if inventory.parent.is_symlink():  # a folder of the sources
            continue
        subprocess.run([programs / "chassis", "--dir", inventory.parent, "down"], check=False)


def normalised(text):
    for pattern, name in VARIABLE_PARTS:
        text = pattern.sub(name, text)
    return text


def is_shown_output(shown, output):
    pattern = "".join(r"(?:.*\n)*?" if line == "..." else re.escape(normalised(line)) + r"\n" for line in shown)
    lines = output.rstrip("\n") + "\n" if output.strip() else ""
    return re.fullmatch(pattern, normalised(lines)) is not None


def complaint_about(command, following):
    if command.status is None:
        return "was not run to its end"
    may_fail = following is not None and following.text == "echo $?"
    if command.status != 0 and not may_fail:
        return f"failed with {command.status}"
    while command.shown and not command.shown[-1]:
        command.shown.pop()
    if command.shown and not is_shown_output(command.shown, command.output):
        return "has another output"
    return None


def report(document, commands):
    failed = False
    for command, following in zip(commands, commands[1:] + [None]):
        complaint = complaint_about(command, following)
        if complaint is None:
            continue
        failed = True
        print(f"{document}:{command.line}: {complaint}: {command.text}")
        if command.shown:
            print("  shown:\n" + "".join(f"    {line}\n" for line in command.shown), end="")
        if command.output is not None:
            print("  is:\n" + "".join(f"    {line}\n" for line in command.output.splitlines()), end="")
    return failed


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("programs", type=Path, help="folder with the built programs")
    parser.add_argument("document", type=Path)
    parser.add_argument("--section", help="only the section with this title")
    parser.add_argument("--sources", type=Path, help="folder of the sources: the sessions begin in one like it")
    parser.add_argument("--time-limit", type=int, default=270, help="seconds for all sessions")
    given = parser.parse_args()

    files, commands = read_document(given.document, given.section)
    if not commands:
        sys.exit(f"{given.document}: has no commands")
    work = Path(tempfile.mkdtemp(prefix="docs-session."))
    try:
        # The documents put the programs into PATH as they lie in the source folder.
        (work / "build/i686").mkdir(parents=True)
        (work / "build/i686/bin").symlink_to(given.programs.resolve())
        for entry in given.sources.resolve().iterdir() if given.sources else []:
            if entry.name != "build" and not entry.name.startswith("."):
                (work / entry.name).symlink_to(entry)
        if given.sources and (given.sources / "build/libsodium").exists():  # else it would be fetched again
            (work / "build/libsodium").symlink_to((given.sources / "build/libsodium").resolve())
        for name, content in files.items():
            (work / name).write_text(content)
        run(commands, work, given.programs.resolve(), given.time_limit)
    finally:
        stop_chassis(work, given.programs.resolve())
        shutil.rmtree(work)
    shown = sum(1 for command in commands if command.shown)
    print(f"{given.document}: {len(commands)} commands, the output of {shown} compared")
    sys.exit(1 if report(given.document, commands) else 0)


if __name__ == "__main__":
    main()
