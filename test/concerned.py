#!/usr/bin/env python3
"""Which tests a change concerns: those whose programs and files are not the ones with which they passed last.

  concerned.py select RECORD LIST   writes ctest's numbers of the tests that a change concerns to LIST, for ctest -I
  concerned.py record RECORD RESULTS...  notes with what the tests passed that RESULTS, ctest's JUnit files, tell of

A test concerns its program and the files that its command names. A test of whole cards concerns the card's programs, too.
Programs are compared by content: one that was linked again from the same objects has not changed. What takes minutes,
and what the documents and packages show, is left to a whole run.
"""
import argparse
import collections
import hashlib
import json
import subprocess
import sys
import xml.etree.ElementTree
from pathlib import Path

BUILD = Path("build")
CARD_PROGRAMS = ("bios_daemon", "../test/chassis/bios_daemon_without_pauses", "biosctl", "chassis", "bios_image",
                 "fstab_mount", "init-system", "module_standin", "nbitool", "veskadd")
CARD_LABELS = {"chassis", "chassis-slow", "timed", "crash", "docs", "packaging"}
LEFT_TO_A_WHOLE_RUN = {"chassis-slow", "timed", "crash", "docs", "packaging"}
ALWAYS_CONCERNED = {"rooms"}  # looks at all sources, in a second


class Digests:
    """Digests of files and folders, each read once."""

    def __init__(self):
        self.known = {}

    def of(self, path):
        if path not in self.known:
            digest = hashlib.blake2b(digest_size=16)
            for file in sorted(path.rglob("*")) if path.is_dir() else [path]:
                if file.is_file():
                    digest.update(file.name.encode())
                    digest.update(file.read_bytes())
            self.known[path] = digest.hexdigest()
        return self.known[path]


def known_tests():
    told = subprocess.run(["ctest", "--test-dir", BUILD, "--show-only=json-v1"], check=True, stdout=subprocess.PIPE)
    return json.loads(told.stdout)["tests"]


def labels_of(test):
    for one in test.get("properties", []):
        if one["name"] == "LABELS":
            return set(one["value"])
    return set()


def state_of(test, digests):
    words = test.get("command", [])
    files = [Path(word) for word in words if word.startswith("/")]
    # The source folder as an argument stands for all of it; what takes it is left to a whole run.
    concerned = [file for file in files if file.is_file() or (file.is_dir() and "corpus" in file.parts)]
    if labels_of(test) & CARD_LABELS:
        concerned += [BUILD / "i686/bin" / name for name in CARD_PROGRAMS]
    digest = hashlib.blake2b("\0".join(words).encode(), digest_size=16)
    for file in concerned:
        digest.update(digests.of(file).encode())
    return digest.hexdigest()


def select(record, output):
    passed = json.loads(record.read_text()) if record.exists() else {}
    digests = Digests()
    numbers, left = [], collections.Counter()
    tests = known_tests()
    for number, test in enumerate(tests, 1):
        labels = labels_of(test)
        if passed.get(test["name"]) == state_of(test, digests) and not labels & ALWAYS_CONCERNED:
            continue
        leaving = labels & LEFT_TO_A_WHOLE_RUN
        if leaving:
            left[leaving.pop()] += 1
        else:
            numbers.append(number)
    output.write_text("0,0,0," + ",".join(map(str, numbers)) + "\n")
    print(f"== {len(numbers)} of {len(tests)} tests are concerned")
    if left:
        print("   left to script/test: " + ", ".join(f"{count} {label}" for label, count in left.items()))
    sys.exit(0 if numbers else 3)


def note(record, results):
    passed = json.loads(record.read_text()) if record.exists() else {}
    ran = {}
    for path in filter(Path.exists, results):
        for case in xml.etree.ElementTree.parse(path).getroot().iter("testcase"):
            ran[case.get("name")] = case.get("status") == "run"
    digests = Digests()
    for test in known_tests():
        name = test["name"]
        if ran.get(name):
            passed[name] = state_of(test, digests)
        elif name in ran:
            passed.pop(name, None)
    record.write_text(json.dumps(passed))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("verb", choices=("select", "record"))
    parser.add_argument("record", type=Path)
    parser.add_argument("files", type=Path, nargs="+")
    given = parser.parse_args()
    if given.verb == "select":
        select(given.record, given.files[0])
    else:
        note(given.record, given.files)


if __name__ == "__main__":
    main()
