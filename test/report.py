#!/usr/bin/env python3
"""Prints what a run of script/test did: what was skipped and why, where the time went, and how many tests passed, failed
and were skipped. A test of ctest may be a whole program; what counts are the tests in it.
"""
import argparse
import collections
import json
import re
import subprocess
import sys
import xml.etree.ElementTree
from pathlib import Path

RAN = re.compile(r"^\[==========\] (\d+) tests? from \d+ test suites? ran\.", re.MULTILINE)
PASSED = re.compile(r"^\[  PASSED  \] (\d+) tests?\.", re.MULTILINE)
SKIPPED = re.compile(r"^\[  SKIPPED \] (\d+) tests?[.,]", re.MULTILINE)
# What GTEST_SKIP() says, and what a script says that ends with ctest's code for a skipped test.
REASON = re.compile(r"(?:: Skipped\n(.*)|^skipped: (.*)$)", re.MULTILINE)
SLOWEST = 15


class Test:
    """One test of ctest, with the counts of the tests in it."""

    def __init__(self, case, labels):
        self.name = case.get("name")
        self.label = labels.get(self.name, "other")
        self.seconds = float(case.get("time") or 0)
        output = case.findtext("system-out") or ""
        self.reasons = [said or told for said, told in REASON.findall(output)]
        status = case.get("status")
        ran = RAN.search(output)
        if ran is None or status == "disabled":
            self.passed = int(status == "run")
            # Other tests that were not run, for example because their program is missing, have failed.
            why = case.find("skipped")
            self.skipped = int(why is not None and why.get("message", "").startswith(("SKIP_", "Disabled")))
            self.failed = 1 - self.passed - self.skipped
        else:
            self.skipped = sum(map(int, SKIPPED.findall(output)))
            self.passed = sum(map(int, PASSED.findall(output)))
            self.failed = int(ran[1]) - self.passed - self.skipped
            if status == "fail":
                self.failed = max(self.failed, 1)


def labels_by_test():
    told = subprocess.run(["ctest", "--test-dir", "build", "--show-only=json-v1"], check=True, stdout=subprocess.PIPE)
    return {test["name"]: one["value"][0] for test in json.loads(told.stdout)["tests"]
            for one in test.get("properties", []) if one["name"] == "LABELS"}


def tests_of(path, labels):
    return [Test(case, labels) for case in xml.etree.ElementTree.parse(path).getroot().iter("testcase")]


def part_of(output):
    """The folder of the sources that an output of the build belongs to, or what else it is."""
    if not output.endswith((".o", ".gch")):
        return "linking, generated files"
    folder = output.split("/CMakeFiles/")[0] if "/CMakeFiles/" in output else "."
    return "/".join(folder.split("/")[:2])


def build_seconds(log, begin):
    """Seconds of each part of a build, from the lines of Ninja's log behind the byte that it had at the start."""
    seconds, counted = collections.Counter(), set()
    with open(log, encoding="utf-8") as lines:
        lines.seek(begin)
        for line in lines:
            field = line.rstrip("\n").split("\t")
            if len(field) != 5 or (field[0], field[1], field[4]) in counted:
                continue  # a step with several outputs has a line for each
            counted.add((field[0], field[1], field[4]))
            seconds[part_of(field[3])] += (int(field[1]) - int(field[0])) / 1000
    return seconds


def table(title, rows):
    print(f"\n{title}")
    for seconds, count, what in rows:
        print(f"{seconds:9.1f} s {count:>6}  {what}")


def print_times(phases, builds, tests):
    table("Elapsed, by phase", [(float(seconds), "", name) for name, seconds in phases])
    for name, log, begin in builds:
        if not Path(log).exists():
            continue
        parts = build_seconds(log, int(begin))
        table(f"Build of {name}: seconds of its steps, of which several run at a time",
              [(seconds, "", part) for part, seconds in parts.most_common()])
    by_label = collections.defaultdict(list)
    for test in tests:
        by_label[test.label].append(test)
    rows = [(sum(test.seconds for test in of), sum(test.passed + test.failed + test.skipped for test in of), label)
            for label, of in by_label.items()]
    table("Tests by label: seconds of their processes, of which several run at a time, and how many tests",
          sorted(rows, reverse=True))
    slowest = sorted(tests, key=lambda test: -test.seconds)[:SLOWEST]
    table("The slowest", [(test.seconds, test.passed + test.failed + test.skipped, test.name) for test in slowest])


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("results", type=Path, nargs="+", help="what ctest has written with --output-junit")
    parser.add_argument("--times", action="store_true", help="print where the time went")
    parser.add_argument("--phase", nargs=2, action="append", default=[], metavar=("NAME", "SECONDS"))
    parser.add_argument("--build", nargs=3, action="append", default=[], metavar=("NAME", "LOG", "BYTE"),
                        help="a build, its log, and the log's size before it")
    given = parser.parse_args()

    labels = labels_by_test() if given.times else {}
    missing = [path for path in given.results if not path.exists()]
    tests = [test for path in given.results if path not in missing for test in tests_of(path, labels)]
    if given.times:
        print_times(given.phase, given.build, tests)
    why = collections.Counter()
    for test in tests:
        for reason in test.reasons or ["no reason given"] * (test.skipped > 0):
            why[reason] += 1
    if why:
        print("\nSkipped:")
        for reason, count in why.most_common():
            print(f"{count:6}  {reason}")
    failed = [test for test in tests if test.failed]
    if failed:
        print("\nFailed:")
        for test in failed:
            print(f"{test.failed:6}  {test.name}")
    for path in missing:
        print(f"\nctest has written no results: {path}")
    passed, skipped = sum(test.passed for test in tests), sum(test.skipped for test in tests)
    print(f"\n{passed} passed, {sum(test.failed for test in failed)} failed, {skipped} skipped")
    sys.exit(1 if failed or missing or passed == 0 else 0)


if __name__ == "__main__":
    main()
