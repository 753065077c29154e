#!/usr/bin/env python3
"""Types the README's first command, script/run, and looks for what the README shows of its output."""
import subprocess
import sys
from pathlib import Path

from run_sessions import blocks_of, is_shown_output, lines_of

SECTION = "A first session"


def shown_parts(readme):
    """What is shown of each command: its line and its output."""
    for block, _ in blocks_of(lines_of(readme, SECTION)):
        part = []
        for _, text in block:
            if text.startswith("$ ") and part:
                yield part
                part = []
            part.append(text)
        yield part


def is_shown(part, output):
    return any(is_shown_output([*part, "..."], "\n".join(output[start:]))
               for start, line in enumerate(output) if line == part[0])


def main():
    root = Path(sys.argv[1])
    command, *parts = shown_parts(root / "README.md")
    if command != ["$ script/run"] or not parts:
        sys.exit("README.md: does not begin with script/run and what it shows")
    done = subprocess.run([root / "script/run"], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    print(done.stdout)
    missing = [part[0] for part in parts if not is_shown(part, done.stdout.splitlines())]
    for text in missing:
        print(f"README.md: shows another output of: {text}")
    sys.exit(1 if done.returncode != 0 or missing else 0)


main()
