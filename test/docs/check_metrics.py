#!/usr/bin/env python3
"""Has the parser of Prometheus' own client read what "biosctl metrics" prints.

Before the chassis is started, events are written as the flash service writes them, some of them in totals already.
"""
import os
import subprocess
import sys
import tempfile
from pathlib import Path

from prometheus_client.parser import text_string_to_metric_families

DESCRIPTION = """
[[card]]
slot = 1
card_id = 90
kind = "supervisor"
role = "active"
flash_mib = 1

[[card]]
slot = 3
card_id = 106
kind = "linecard"
flash_mib = 1
"""

TOTALS = """sequence 100
begun 20
verified 19
sectors_erased 300
bytes_written 20000000000
duration_ms 90500
took 5000 19
took inf 1
ended 0x00000000 19
ended 0x4071000c 1
failed 0x4071000c 4
"""

EVENTS = [
    (100, '"event":"begun"'),  # in the totals already
    (101, '"event":"begun","image_bytes":1048576,"version":"v3.5.0(09/17/12)"'),
    (102, '"event":"attempt","attempt":1,"image_bytes":1048576,"version":"v3.5.0(09/17/12)"'),
    (103, '"event":"failed","attempt":1,"sectors_erased":0,"bytes_written":0,"result":"0x40710021","duration_ms":4'),
    (104, '"event":"failed","attempt":1,"sectors_erased":1,"bytes_written":512,"result":"0x40710021","duration_ms":4'),
    (105, '"event":"ended","result":"0x40710021","duration_ms":4500'),
]
CUT_SHORT = 103


def write_flash(folder):
    (folder / "event_totals").write_text(TOTALS)
    lines = []
    for sequence, rest in EVENTS:
        end = "" if sequence == CUT_SHORT else "}"
        lines.append('{"time":"2026-01-31T12:00:00.000Z","slot":1,"flash":"primary",'
                     f'"sequence":{sequence},"pid":9,{rest}{end}\n')
    (folder / "events").write_text("".join(lines))


def metrics_of(programs, work):
    (work / "lab.toml").write_text(DESCRIPTION)
    environment = {name: value for name, value in os.environ.items() if not name.startswith("CHASSIS_")}
    environment["CHASSIS_DIR"] = str(work / "chassis.d")
    subprocess.run([programs / "chassis", "init", work / "lab.toml"], check=True, cwd=work, env=environment,
                   stdout=subprocess.DEVNULL)
    write_flash(work / "chassis.d/slots/1/flash/primary")
    quietly = {"check": True, "env": environment, "stdout": subprocess.DEVNULL}
    subprocess.run([programs / "chassis", "up"], **quietly)
    try:
        return subprocess.run([programs / "biosctl", "metrics"], check=True, env=environment, text=True,
                              stdout=subprocess.PIPE).stdout
    finally:
        subprocess.run([programs / "chassis", "down"], **quietly)


def check(condition, what):
    if not condition:
        sys.exit(f"biosctl metrics: {what}")


def check_families(families):
    """What the parser takes and Prometheus' conventions do not."""
    for family in families.values():
        check(family.documentation and family.type in ("counter", "gauge", "histogram"),
              f"{family.name} lacks HELP or TYPE")
        check(family.samples, f"{family.name} has no samples")
        seen = set()
        for sample in family.samples:
            key = (sample.name, tuple(sorted(sample.labels.items())))
            check(key not in seen, f"{key} is there twice")
            seen.add(key)
            check(sample.value >= 0, f"{key} is negative")
            check(family.type != "counter" or sample.name.endswith("_total"), f"{sample.name}: a counter")


def check_histogram(family):
    rows = {}
    for sample in family.samples:
        flash = (sample.labels["slot"], sample.labels["flash"])
        rows.setdefault(flash, {"buckets": []})
        if sample.name.endswith("_bucket"):
            rows[flash]["buckets"].append((float(sample.labels["le"]), sample.value))
        else:
            rows[flash][sample.name.rsplit("_", 1)[1]] = sample.value
    for flash, row in rows.items():
        check(row["buckets"] == sorted(row["buckets"]), f"the buckets of {flash} are not in order")
        counts = [count for _, count in row["buckets"]]
        check(counts == sorted(counts), f"the buckets of {flash} do not add up")
        check(row["buckets"][-1] == (float("inf"), row["count"]), f"the last bucket of {flash} is not its count")
    check(rows["1", "primary"]["count"] == 21 and rows["1", "primary"]["sum"] == 95.0, f"durations are {rows}")


def value_of(families, name, labels):
    family = families[name.removesuffix("_total")]
    found = [sample.value for sample in family.samples if sample.name == name and sample.labels == labels]
    check(len(found) == 1, f"{name} {labels} is there {len(found)} times")
    return found[0]


def main():
    programs = Path(sys.argv[1]).resolve()
    with tempfile.TemporaryDirectory(prefix="metrics.") as folder:
        text = metrics_of(programs, Path(folder))
    check(text.endswith("\n"), "the last line does not end")
    families = {family.name: family for family in text_string_to_metric_families(text)}
    check_families(families)
    check_histogram(families["bios_programming_duration_seconds"])
    flash = {"slot": "1", "flash": "primary"}
    protected = {"code": "0x40710021", "name": "write_protected"}
    for name, labels, expected in [
            ("bios_programmings_begun_total", {}, 21),
            ("bios_programmings_ended_total", {"code": "0x00000000", "name": "ok"}, 19),
            ("bios_programmings_ended_total", protected, 1),
            ("bios_programming_attempts_failed_total", protected, 1),
            ("bios_flash_bytes_written_total", {}, 20000000512),
            ("bios_flash_sectors_erased_total", {}, 301),
            ("bios_flash_wear_erases_total", {}, 0),
            ("bios_flash_marked", {}, 0)]:
        value = value_of(families, name, flash | labels)
        check(value == expected, f"{name} {labels} is {value}, not {expected}")
    check(value_of(families, "bios_card_up", {"slot": "3"}) == 1, "a card that serves is not up")
    print(f"{len(families)} metrics with {sum(len(family.samples) for family in families.values())} samples")


main()
