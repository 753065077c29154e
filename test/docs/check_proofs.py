#!/usr/bin/env python3
"""Checks doc/proofs.md: every opcode and every result code has a row, and every test that it names exists."""
import re
import sys
from pathlib import Path

NAMED_NUMBER = re.compile(r"^\s*(?:(MTS_OPC_\w+) = \d|(BIOS_\w+) = 0x40[57][13]|(BIOS_OK|BIOS_LOADER_FILE_\w+) =)", re.M)
TEST_DEFINED = re.compile(r"^TEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\)", re.M)
TEST_NAMED = re.compile(r"(unit|chassis) `(\w+)\.(\w+)`")
HEADERS = ("include/bios_opcodes.h", "include/bios_refusals.h", "include/bios_results.h", "platform/bios_flash.h")
NO_RESULTS = {"BIOS_RESULT_PREFIX"}


def defined_tests(root):
    return {(source.relative_to(root).parts[1], suite, name)
            for source in root.glob("test/**/*_test.cpp")
            for suite, name in TEST_DEFINED.findall(source.read_text())}


def main():
    root = Path(sys.argv[1])
    document = (root / "doc/proofs.md").read_text()
    rows = [line for line in document.splitlines() if line.startswith("|")]
    proven = {name for row in rows if TEST_NAMED.search(row) for name in re.findall(r"`(\w+)`", row)}
    promised = {"".join(found) for header in HEADERS for found in NAMED_NUMBER.findall((root / header).read_text())}
    complaints = [f"{name} has no row with a test" for name in sorted(promised - NO_RESULTS - proven)]
    tests = defined_tests(root)
    named = TEST_NAMED.findall(document)
    complaints += [f"there is no test {'/'.join(test[:2])}.{test[2]}" for test in named if test not in tests]
    print(*complaints, f"{len(named)} tests named, {len(promised)} numbers", sep="\n")
    sys.exit(1 if complaints else 0)


main()
