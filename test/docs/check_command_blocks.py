#!/usr/bin/env python3
"""Every block of commands in README.md and doc/ is typed by a test: fails for a page with one that no test names."""
import sys
from pathlib import Path

from run_sessions import blocks_of, lines_of


def has_commands(page):
    return any(block[0][1].startswith("$ ") for block, _ in blocks_of(lines_of(page, None)))


def main():
    root = Path(sys.argv[1])
    tests = "".join((root / name).read_text() for name in
                    ("test/docs/CMakeLists.txt", "test/docs/follow_card_type.py", "test/docs/follow_script_run.py"))
    pages = [page for page in [root / "README.md", *sorted((root / "doc").glob("*.md"))] if has_commands(page)]
    untyped = [page.name for page in pages if page.name not in tests]
    for name in untyped:
        print(f"{name}: has commands that no test types")
    print(f"{len(pages)} pages with commands")
    sys.exit(1 if untyped or not pages else 0)


main()
