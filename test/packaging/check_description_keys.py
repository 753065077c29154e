#!/usr/bin/env python3
"""Compares the keys of a chassis description in the launcher, in doc/chassis.md and in chassis-description(5).

    check_description_keys.py SOURCE_FOLDER
"""
import re
import sys
from pathlib import Path

source = Path(sys.argv[1])
code = (source / "chassis/launcher/description.cpp").read_text()
accepted = set()
for keys in re.findall(r"allow_only\(\{(.*?)\}\)", code, re.S):
    accepted |= set(re.findall(r'"(\w+)"', keys))
accepted.discard("card")
accepted.discard("chassis")

document = (source / "doc/chassis.md").read_text()
tables = document[document.index("Keys of `[chassis]`"):document.index("\n## Images")]
documented = {key for row in re.findall(r"^\| (`.*?) \|", tables, re.M) for key in re.findall(r"`(\w+)`", row)}

manual = (source / "doc/man/chassis-description.5.scd").read_text()
keys = manual[manual.index("# KEYS OF [chassis]"):manual.index("# EXAMPLE")]
in_manual = {key for line in re.findall(r"^(\*.*)$", keys, re.M) for key in re.findall(r"\*(\w+)\*", line)}

print(f"{len(accepted)} keys: {' '.join(sorted(accepted))}")
if len(accepted) < 20 or not accepted == documented == in_manual:
    print(f"doc/chassis.md differs in {sorted(accepted ^ documented)}")
    print(f"chassis-description(5) differs in {sorted(accepted ^ in_manual)}")
    sys.exit(1)
