#!/usr/bin/env python3
"""Tries the machines that cards are, without any of the daemon's programs in them: what each shows of its chips, its
BIOS and its neighbours, and what happens when it is programmed, broken and cut off. Prints a line and a time for each
finding and ends with 1 when one is not as it should be.

    machine_trial.py [--machines COUNT] [--keep] PROGRAMS

PROGRAMS is the folder with bios_image and machine_command. COUNT is 1 to 3. Every wait has an end, and no emulator
outlives the trial. --keep leaves the machines' folder.
"""
import argparse
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "chassis/machine"))
from machine_lab import Failure, Lab, Machine  # noqa: E402

FIRMWARE_BYTES = 256 * 1024
CLUSTER_LIMIT_S = 15


class Trial(Lab):
    """What is tried, in this order."""

    def start_all(self, count):
        self.machines += [Machine(self, slot) for slot in range(1, count + 1)]
        for machine in self.machines:
            self.make_image(machine.chip("primary"), f"3.{machine.slot}")
            self.make_image(machine.chip("alternate"), f"3.{50 + machine.slot}")
            machine.start("primary", "alternate")
        for machine in self.machines:
            line = machine.wait_until_up()
            self.report.line(machine.began, f"machine {machine.slot}: {line}",
                             f"from the primary chip with BIOS v3.{machine.slot}.0(09/17/12)" in line)

    def show(self, machine):
        began = time.monotonic()
        names = machine.mtd_names()
        self.report.line(began, f"machine {machine.slot}: MTDs {', '.join(names)}", names == ["primary", "alternate"])
        began = time.monotonic()
        version = machine.bios_version()
        self.report.line(began, f"machine {machine.slot}: DMI says BIOS {version}",
                         version == f"v3.{machine.slot}.0(09/17/12)")
        began = time.monotonic()
        machine.run("mtd_debug read /dev/mtd0 0 8388608 /run/read")
        read = machine.run("sha256sum </run/read; rm /run/read").split()[0]
        file = subprocess.run(["sha256sum", machine.chip("primary")], check=True, capture_output=True,
                              text=True).stdout.split()[0]
        self.report.line(began, f"machine {machine.slot}: primary chip read by the kernel equals the file",
                         read == file)

    def show_cluster(self):
        wanted = {f"slot{machine.slot}" for machine in self.machines}
        for machine in self.machines:
            began = time.monotonic()
            nodes = machine.nodes()
            while nodes != wanted and time.monotonic() - began < CLUSTER_LIMIT_S:
                nodes = machine.nodes()
            self.report.line(began, f"machine {machine.slot}: TIPC's name table has {', '.join(sorted(nodes))}",
                             nodes == wanted)

    def fail_on_demand(self, machine):
        began = time.monotonic()
        machine.run("modprobe faulty_chip chip=alternate name=faulty")
        found = machine.run("""cd /sys/module/faulty_chip/parameters
            head -c 4096 /dev/urandom >/run/bytes
            attempt() { "$@" 2>&1 >/dev/null | grep -o 'Input/output error\\|Read-only file system' || echo done; }
            for place in erase write read; do
                echo 0x7123 >${place}_fails_at
                attempt mtd_debug erase /dev/mtd2 0x7000 4096
                attempt mtd_debug write /dev/mtd2 0x7000 4096 /run/bytes
                attempt mtd_debug read /dev/mtd2 0x7000 4096 /run/read
                echo -1 >${place}_fails_at
            done
            echo 0x7123 >locked_at
            attempt mtd_debug erase /dev/mtd2 0x7000 4096
            echo -1 >locked_at
            attempt mtd_debug erase /dev/mtd2 0x7000 4096
            cd /; rmmod faulty_chip""").splitlines()
        error = "Input/output error"
        expected = [error, "done", "done", "done", error, "done", "done", "done", error,
                    "Read-only file system", "done"]
        self.report.line(began, f"machine {machine.slot}: a chip that fails at each operation, and a locked sector: "
                         f"{', '.join(found)}", found == expected)

    def program(self, machine):
        image = self.folder / "new.bin"
        self.make_image(image, "3.70")
        machine.put("/run/new.bin", image.read_bytes())
        began = time.monotonic()
        machine.run("flashcp /run/new.bin /dev/mtd0")
        self.report.line(began, f"machine {machine.slot}: flashcp has written 8 MiB into the primary chip")
        machine.cut_power()
        self.report.line(began, f"machine {machine.slot}: the power is cut; the file has all that was written",
                         machine.chip("primary").read_bytes() == image.read_bytes())
        machine.start("primary", "alternate")
        line = machine.wait_until_up()
        self.report.line(machine.began, f"machine {machine.slot}: {line}", "v3.70.0(09/17/12)" in line)

    def break_and_repair(self, machine):
        """The power goes while the end of the chip is erased, from which the machine boots."""
        alternate = machine.chip("alternate").read_bytes()
        size = len(alternate)
        machine.run(f"mtd_debug erase /dev/mtd0 {size - FIRMWARE_BYTES} {FIRMWARE_BYTES}")
        machine.cut_power()
        machine.start("primary", "alternate")
        booted = machine.boots()
        self.report.line(machine.began, f"machine {machine.slot}: does not boot from an erased chip", not booted)
        machine.cut_power()

        machine.start("alternate", "primary")
        line = machine.wait_until_up()
        self.report.line(machine.began, f"machine {machine.slot}: {line}",
                         f"from the alternate chip with BIOS v3.{50 + machine.slot}.0(09/17/12)" in line)
        began = time.monotonic()
        names = machine.mtd_names()
        self.report.line(began, f"machine {machine.slot}: names follow the chips: {', '.join(names)}",
                         names == ["alternate", "primary"])
        image = self.folder / "repair.bin"
        self.make_image(image, "3.80")
        machine.put("/run/new.bin", image.read_bytes())
        began = time.monotonic()
        machine.run("flashcp /run/new.bin /dev/mtd1")
        machine.cut_power()
        self.report.line(began, f"machine {machine.slot}: the primary chip is repaired, the alternate one untouched",
                         machine.chip("primary").read_bytes() == image.read_bytes() and
                         machine.chip("alternate").read_bytes() == alternate)
        machine.start("primary", "alternate")
        line = machine.wait_until_up()
        self.report.line(machine.began, f"machine {machine.slot}: {line}",
                         "from the primary chip with BIOS v3.80.0(09/17/12)" in line)

    def lose(self, lost):
        watcher = self.machines[0]
        began = time.monotonic()
        lost.cut_power()
        gone = False
        while not gone and time.monotonic() - began < CLUSTER_LIMIT_S:
            gone = f"slot{lost.slot}" not in watcher.nodes()
        self.report.line(began, f"machine {watcher.slot}: machine {lost.slot} has gone, says TIPC", gone)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--machines", type=int, choices=(1, 2, 3), default=1)
    parser.add_argument("--keep", action="store_true")
    parser.add_argument("programs", type=Path)
    arguments = parser.parse_args()
    folder = Path(tempfile.mkdtemp(prefix="machines."))
    trial = Trial(arguments.programs.resolve(), folder)
    began = time.monotonic()
    try:
        trial.prepare()
        trial.start_all(arguments.machines)
        for machine in trial.machines:
            trial.show(machine)
        trial.show_cluster()
        trial.fail_on_demand(trial.machines[0])
        trial.program(trial.machines[0])
        trial.break_and_repair(trial.machines[0])
        if arguments.machines > 1:
            trial.show_cluster()
            trial.lose(trial.machines[-1])
        trial.report.line(began, "the whole trial")
    except Failure as failure:
        trial.report.line(began, str(failure), False)
    finally:
        trial.end()
        if arguments.keep or trial.report.wrong:
            print(f"The machines' folder: {folder}")
        else:
            shutil.rmtree(folder)
    return 1 if trial.report.wrong else 0


if __name__ == "__main__":
    sys.exit(main())
