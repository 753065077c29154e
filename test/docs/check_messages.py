#!/usr/bin/env python3
"""Compares the documents of messages with the headers: opcodes, result codes, records.

A record's table stands under a heading "### `RECORD`, N bytes"; its rows begin with offset and size. The rows have to
follow each other without a gap up to N, and N has to be the size that the header promises.
"""
import re
import sys
from pathlib import Path

OPCODE = re.compile(r"^\s*((?:MTS|AGENT)_OPC_\w+) = (\d+)", re.M)
RESULT = re.compile(r"^\s*((?:BIOS|AGENT)_\w+) = (0x40[57][123][0-9a-f]{4})", re.M)
RECORD_SIZE = re.compile(r"static_assert\(sizeof\((\w+)\) == (\d+)")
OFFSET = re.compile(r"static_assert\(offsetof\((\w+), (\w+)\) == (\d+)")
RECORD_HEADING = re.compile(r"^#+ `(\w+)`, (\d+) bytes$")
RECORD_ROW = re.compile(r"^\| (\d+) \| (\d+) \| `?(\w+)`? \|")

NO_RESULTS = {"BIOS_RESULT_PREFIX"}
PAIRS = (
    (("messages.md", "version-messages.md"),
     ("include/bios_messages.h", "include/bios_opcodes.h", "include/bios_results.h", "include/bios_refusals.h",
      "platform/bios_flash.h")),
    (("agent-messages.md",), ("include/agent_messages.h",)),
    (("images.md",), ("services/images/image_manifest.h",)),
)


def numbers_in_table(document, pattern):
    return {(name, number) for number, name in re.findall(pattern, document)}


def compare(what, promised, shown):
    complaints = [f"{what} {' = '.join(pair)} is not in the document" for pair in sorted(promised - shown)]
    return complaints + [f"{what} {' = '.join(pair)} is in no header" for pair in sorted(shown - promised)]


def compare_opcodes(headers, document):
    promised = set(OPCODE.findall(headers))
    return compare("opcode", promised, numbers_in_table(document, r"\| (\d{4}) \| `((?:MTS|AGENT)_OPC_\w+)` \|"))


def compare_results(headers, document):
    promised = {(name, code) for name, code in RESULT.findall(headers) if name not in NO_RESULTS}
    shown = numbers_in_table(document, r"\| `(0x40[57][123][0-9a-f]{4})` \| `(\w+)` \|")
    return compare("result", promised, shown)


def records_of(document):
    """Name, stated size, and the rows (offset, size, field) of each record."""
    records, name = {}, None
    for line in document.splitlines():
        heading = RECORD_HEADING.match(line)
        row = RECORD_ROW.match(line)
        if heading:
            name = heading[1]
            records[name] = (int(heading[2]), [])
        elif line.startswith("#"):
            name = None
        elif row and name:
            records[name][1].append((int(row[1]), int(row[2]), row[3]))
    return records


def compare_records(headers, document):
    promised = {name: int(size) for name, size in RECORD_SIZE.findall(headers)}
    records = records_of(document)
    complaints = [f"record {name} is not in the document" for name in promised if name not in records]
    for name, (size, rows) in records.items():
        if promised.get(name, size) != size:
            complaints.append(f"record {name} has {promised[name]} bytes, not {size}")
        end = 0
        for offset, length, field in rows:
            if offset != end:
                complaints.append(f"record {name}: {field} begins at {offset}, the field before it ends at {end}")
            end = offset + length
        if end != size:
            complaints.append(f"record {name}: its fields end at {end}, not {size}")
    for name, field, offset in OFFSET.findall(headers):
        if name in records and (field, int(offset)) not in [(row[2], row[0]) for row in records[name][1]]:
            complaints.append(f"record {name}: {field} stands at {offset}")
    return complaints


def main():
    root = Path(sys.argv[1])
    complaints, count = [], 0
    for documents, headers in PAIRS:
        document = "".join((root / "doc" / name).read_text() for name in documents)
        header = "".join((root / name).read_text() for name in headers)
        complaints += compare_opcodes(header, document) + compare_results(header, document)
        complaints += compare_records(header, document)
        count += len(records_of(document))
    print(*complaints, f"{count} records", sep="\n")
    sys.exit(1 if complaints else 0)


main()
