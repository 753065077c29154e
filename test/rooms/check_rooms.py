#!/usr/bin/env python3
"""Compares what the sources include with the table of what they may include.

    check_rooms.py SOURCES TABLE      prints each include without permission, and each two folders that include each other
    check_rooms.py --self-test SOURCES TABLE
"""
import re
import sys
from fnmatch import fnmatchcase
from pathlib import Path

INCLUDE = re.compile(r'^\s*#\s*include\s*(?:"([^"]+)"|<([^>]+)>)')
SOURCE_SUFFIXES = {".c", ".cpp", ".h"}
NO_SOURCES = {"build", ".git"}


def fits(path, pattern):
    parts, wanted = path.split("/"), pattern.split("/")
    return len(parts) == len(wanted) and all(map(fnmatchcase, parts, wanted))


def folder_of(path):
    return path.rpartition("/")[0]


class Table:
    def __init__(self, text):
        self.rooms, self.libraries = {}, {}
        self.rows = {}  # found so far, by folder
        for line in text.splitlines():
            line = line.split("#")[0].strip()
            if line:
                name, _, permissions = line.partition(":")
                kind, _, prefix = name.partition(" ")
                rows, key = (self.libraries, prefix.strip()) if kind == "library" else (self.rooms, name)
                if key in rows:
                    raise ValueError(f"{name} has two rows")
                rows[key] = permissions.split()

    def permissions(self, folder):
        """Of the folder's row; None when there is none."""
        if folder not in self.rows:
            rows = [room for room in self.rooms if fits(folder, room)]
            self.rows[folder] = self.rooms[min(rows, key=lambda room: room.count("*"))] if rows else None
        return self.rows[folder]

    def permits(self, folder, header):
        wanted = [folder, *self.permissions(folder)]
        return any(fits(header if name.endswith(".h") else folder_of(header), name) for name in wanted)

    def rooms_of_library(self, header):
        """The rooms that may include the header of a library; None when it is the system's."""
        return next((rooms for prefix, rooms in self.libraries.items() if header.startswith(prefix)), None)


def sources_below(root):
    paths = (path.relative_to(root) for path in sorted(root.rglob("*")) if path.suffix in SOURCE_SUFFIXES)
    return {str(path): (root / path).read_text() for path in paths if path.parts[0] not in NO_SOURCES}


class Check:
    def __init__(self, sources, table):
        self.table = table
        self.headers = {}  # their paths by their file names
        for path in sources:
            if path.endswith(".h"):
                self.headers.setdefault(path.rpartition("/")[2], []).append(path)
        self.complaints = []
        self.first_include = {}  # where the first folder includes the second
        self.count = 0
        for folder in sorted({folder_of(path) for path in sources}):
            if table.permissions(folder) is None:
                self.complaints.append(f"{folder}: has no row in the table")
        for path, text in sources.items():
            if table.permissions(folder_of(path)) is not None:
                self.check_source(path, text)
        for (one, other), place in sorted(self.first_include.items()):
            if one < other and (other, one) in self.first_include:
                self.complaints.append(f"{one} and {other} include each other: {place} and "
                                       f"{self.first_include[other, one]}")

    def headers_named(self, name, folder):
        """What an include may mean: the header beside the source, else all of that name."""
        found = [path for path in self.headers.get(name.rpartition("/")[2], []) if f"/{path}".endswith(f"/{name}")]
        beside = f"{folder}/{name}"
        return [beside] if beside in found else found

    def check_source(self, path, text):
        for number, line in enumerate(text.splitlines(), 1):
            found = INCLUDE.match(line)
            if found:
                self.count += 1
                self.check_include(path, f"{path}:{number}", found[1] or found[2], found[1] is not None)

    def check_include(self, path, place, name, quoted):
        folder = folder_of(path)
        meant = self.headers_named(name, folder)
        if not meant:
            rooms = self.table.rooms_of_library(name)
            if rooms is not None and not any(fits(folder, room) for room in rooms):
                self.complaints.append(f"{place}: {folder} may not include the library's {name}")
            elif quoted and rooms is None:
                self.complaints.append(f"{place}: there is no {name}")
            return
        # Two folders may have a header of one name: the build gives the source the one that it may include.
        permitted = [header for header in meant if self.table.permits(folder, header)]
        if not permitted:
            self.complaints.append(f"{place}: {folder} may not include {' or '.join(meant)}")
        for header in permitted or meant:
            if folder_of(header) != folder:
                self.first_include.setdefault((folder, folder_of(header)), place)


# Self-test: each case is a small tree and the complaints that it has to raise.
SMALL_TABLE = """
include:
daemon:    include      # a remark
daemon/*:  include
service/*: service/* include
driver/*:  service/*/*_driver.h
lab:       service/* driver/* include
library json/: lab
"""
CASES = [
    ("what is permitted", {
        "include/a.h": "#include <cstdint>\n", "daemon/m.cpp": '#include "m.h"\n#include "a.h"\n', "daemon/m.h": "",
        "service/x/x_driver.h": "", "service/x/x.h": "", "service/y/y.cpp": '#include "x.h"\n',
        "driver/f/f.cpp": '#include "x_driver.h"\n', "lab/l.cpp": '#include <json/json.hpp>\n#include "x.h"\n'}, []),
    ("a service of the daemon's", {"daemon/m.cpp": '\n  #  include "x.h"\n', "service/x/x.h": ""},
     ["daemon/m.cpp:2: daemon may not include service/x/x.h"]),
    ("in angle brackets", {"daemon/m.cpp": "#include <x.h>\n", "service/x/x.h": ""},
     ["daemon/m.cpp:1: daemon may not include service/x/x.h"]),
    ("a service's other header in a driver", {"driver/f/f.h": '#include "x.h"\n', "service/x/x.h": ""},
     ["driver/f/f.h:1: driver/f may not include service/x/x.h"]),
    ("a driver in a service", {"service/x/x.cpp": '#include "f/f.h"\n', "driver/f/f.h": ""},
     ["service/x/x.cpp:1: service/x may not include driver/f/f.h"]),
    ("two folders that include each other", {
        "service/x/x.h": "", "service/y/y.h": "", "service/x/x.cpp": '#include "y.h"\n',
        "service/y/y.cpp": '#include "y.h"\n#include "x.h"\n'},
     ["service/x and service/y include each other: service/x/x.cpp:1 and service/y/y.cpp:2"]),
    ("one name in two folders", {
        "include/a.h": "", "driver/f/a.h": "", "daemon/m.cpp": '#include "a.h"\n', "driver/f/f.cpp": '#include "a.h"\n'},
     []),
    ("a library in the daemon", {"daemon/m.cpp": "#include <json/json.hpp>\n"},
     ["daemon/m.cpp:1: daemon may not include the library's json/json.hpp"]),
    ("a header that is nowhere", {"daemon/m.cpp": '#include "gone.h"\n'}, ["daemon/m.cpp:1: there is no gone.h"]),
    ("a folder without a row", {"attic/a.cpp": '#include "gone.h"\n'}, ["attic: has no row in the table"]),
]
PLANTED = [  # into the project's own sources
    ("sup/sup_bios_daemon/main.cpp", "endpoint_probe.h", "sup/sup_bios_daemon may not include"),
    ("common/common_bios_daemon/bios_log.cpp", "card_table.h", "common/common_bios_daemon may not include"),
    ("include/unique_fd.h", "bios_log.cpp", "there is no"),
    ("sup/sup_map_tbl_func/card_table.cpp", "running_version.h", "sup/sup_map_tbl_func include each other"),
    ("sup/child_sup_bios_daemon/flash_walk.cpp", "nlohmann/json.hpp", "may not include the library's"),
]


def self_test(sources, table):
    failures = 0
    small = Table(SMALL_TABLE)
    for name, tree, expected in CASES:
        raised = Check(tree, small).complaints
        if raised != expected:
            failures += 1
            print(f"{name}: raised {raised} instead of {expected}")
    for path, header, complaint in PLANTED:
        text = sources[path] + f'#include "{header}"\n'
        place = f"{path}:{len(text.splitlines())}"
        raised = Check({**sources, path: text}, table).complaints
        if not any(place in line and complaint in line for line in raised):
            failures += 1
            print(f"{header} planted at {place}: raised {raised}")
    print(f"{len(CASES)} cases, {len(PLANTED)} includes planted")
    return failures


def main():
    arguments = sys.argv[1:]
    testing = arguments[:1] == ["--self-test"]
    root, table_file = map(Path, arguments[testing:])
    sources, table = sources_below(root), Table(table_file.read_text())
    if testing:
        sys.exit(1 if self_test(sources, table) else 0)
    check = Check(sources, table)
    print(*check.complaints, f"{check.count} includes in {len(sources)} sources", sep="\n")
    sys.exit(1 if check.complaints or check.count == 0 else 0)


main()
