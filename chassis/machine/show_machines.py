#!/usr/bin/env python3
"""Shows the daemon's main job on cards that are machines: two supervisors and a line card of another family, which boot
from the chips that are programmed. Versions across the chassis, a programming of each card, restarts that show what
each one boots; then a power cut while the end of a chip is written, the start from the other chip, the repair.

    show_machines.py [--keep] PROGRAMS PACKAGE

PROGRAMS is the folder with bios_image and machine_command, PACKAGE the Debian package of the cards. The end is a table,
and the exit status is 0 when everything was as it should be. --keep leaves the machines' folder.
"""
import argparse
import gzip
import hashlib
import json
import secrets
import shutil
import sys
import tempfile
import textwrap
import time
from pathlib import Path

from machine_lab import Failure, Lab, Machine, bios_text

OLD_FIRMWARE = "/usr/share/seabios/bios.bin"  # of another size: the chip's end changes
CHANGED_BYTES = 192 * 1024  # at a chip's end; a machine whose chip lacks some of them does not boot
POLL_S = 0.001
ERASED = b"\xff"
CLUSTER_LIMIT_S = 40
PROGRAM_LIMIT_S = 120
BIOSCTL = "env $(cat /run/bios-daemon/card) biosctl"
BOLD, PLAIN = ("\033[1m", "\033[0m") if sys.stdout.isatty() else ("", "")


class Card(Machine):
    """A machine with the package's services."""

    def __init__(self, lab, slot, kind, card_id, name, old, new):
        super().__init__(lab, slot)
        self.kind, self.card_id, self.name, self.old, self.new = kind, card_id, name, old, new
        lab.make_image(self.chip("primary"), old, OLD_FIRMWARE)
        lab.make_image(self.chip("alternate"), old, OLD_FIRMWARE)
        self.image = lab.folder / f"{name}.bin"

    def describe(self, key):
        """Says which card it is, as its administrator would, and starts the services, now and at each boot."""
        self.run(textwrap.dedent(f"""\
            set -e
            printf '%s\\n' 'slot {self.slot}' 'card_id {self.card_id}' 'kind {self.kind}' 'primary primary' \\
                'alternate alternate' >/etc/bios-daemon/card
            (umask 077 && echo {key} >/etc/bios-daemon/chassis.key)
            mkdir -p /bootflash /mnt/pss /vesk/bin
            systemctl --quiet enable --now bios-agent bios-daemon"""))

    def bring_image(self):
        """As an operator does: into the image tree, and where a card looks to which nobody brings an image."""
        self.put(f"/vesk/bin/{self.name}.bin.gz", gzip.compress(self.image.read_bytes()))
        self.run(f"gunzip -c /vesk/bin/{self.name}.bin.gz >/bootflash/.tmpbios.bin")

    def chip_is(self, image):
        """Whether the chip holds this, both in its file and read by a program that is not ours."""
        self.run(f"mtd_debug read {self.primary_node()} 0 {image.stat().st_size} /run/read >/dev/null")
        digest = self.run("sha256sum </run/read; rm /run/read").split()[0]
        contents = image.read_bytes()
        return self.chip("primary").read_bytes() == contents and digest == hashlib.sha256(contents).hexdigest()

    def primary_node(self):
        return f"/dev/mtd{self.mtd_names().index('primary')}"

    def biosctl(self, words):
        return self.run(f"{BIOSCTL} {words} 2>&1 || true")

    def begin_biosctl(self, words):
        self.run(f"rm -f /run/shown /run/status; ({BIOSCTL} {words}; "
                 "echo $? >/run/status) </dev/null >/run/shown 2>&1 &")

    def end_of_biosctl(self, limit_s):
        """Prints what it prints as it comes. The exit status; None when the time is up before."""
        began, shown = time.monotonic(), 0
        while time.monotonic() - began < limit_s:
            status = self.run("cat /run/status 2>/dev/null || true").strip()
            text = self.run("cat /run/shown")
            print(textwrap.indent(text[shown:], "    "), end="", flush=True)
            shown = len(text)
            if status:
                return int(status)
            time.sleep(0.3)
        return None


class Show(Lab):
    def __init__(self, programs, folder):
        super().__init__(programs, folder)
        self.rows = []

    def say(self, text):
        print(f"\n{BOLD}== {text}{PLAIN}", flush=True)

    def finding(self, began, card, text, good):
        self.report.line(began, f"card {card.slot}: {text}", good)
        self.rows.append((str(card.slot), text, f"{time.monotonic() - began:.1f} s", "ok" if good else "WRONG"))

    def failed(self, began, failure):
        self.report.line(began, str(failure), False)
        self.rows.append(("", "stopped here: see above", f"{time.monotonic() - began:.1f} s", "WRONG"))

    def start(self, key):
        self.machines += [Card(self, 1, "supervisor", 90, "bios-x86n", "3.1", "3.5"),
                          Card(self, 2, "supervisor", 90, "bios-x86n", "3.1", "3.5"),
                          Card(self, 3, "linecard", 106, "bios-x86n-o2", "2.8", "2.9")]
        for card in self.machines:
            self.make_image(card.image, card.new)
            card.start("primary", "alternate")
        for card in self.machines:
            self.wait_for_boot(card, "primary", card.old)
        for card in self.machines:
            card.describe(key)
            card.bring_image()

    def wait_for_boot(self, card, chip, version):
        line = card.wait_until_up()
        text = bios_text(version)
        print(f"    {line}")
        self.finding(card.began, card, f"boots {text} from its {chip} chip",
                     f"from the {chip} chip with BIOS {text}" in line and card.bios_version() == text)

    def versions_seen(self, slot):
        """What biosctl on card 1 says of a card's primary flash: image, flash, running, verdict."""
        try:
            shown = json.loads(self.machines[0].biosctl("--json show --timeout 5"))
        except json.JSONDecodeError:
            return None
        for card in shown.get("cards", []):
            if card["module"] == slot and card["flashes"]:
                flash = card["flashes"][0]
                return flash["source"], flash["flash"], flash["running"], flash["verdict"]
        return None

    def wait_for_versions(self, card, wanted, text):
        began = time.monotonic()
        seen = self.versions_seen(card.slot)
        while (seen is None or not wanted(*seen)) and time.monotonic() - began < CLUSTER_LIMIT_S:
            time.sleep(0.5)
            seen = self.versions_seen(card.slot)
        self.finding(began, card, text, seen is not None and wanted(*seen))

    def show_versions(self):
        print(textwrap.indent(self.machines[0].biosctl("show"), "    "), flush=True)

    # What is shown, in this order.

    def show_what_is_old(self):
        for card in self.machines:
            texts = bios_text(card.new), bios_text(card.old), bios_text(card.old), "update available"
            self.wait_for_versions(card, lambda *seen, texts=texts: seen == texts,
                                   f"{texts[1]} in its flash and image {texts[0]}, seen from card 1")
        self.show_versions()

    def program(self, card, text):
        began = time.monotonic()
        self.machines[0].begin_biosctl(f"program {card.slot}")
        status = self.machines[0].end_of_biosctl(PROGRAM_LIMIT_S)
        self.finding(began, card, text, status == 0 and card.chip_is(card.image))

    def restart(self, *cards):
        for card in cards:
            card.power_off()
        for card in cards:
            card.start("primary", "alternate")
        for card in cards:
            self.wait_for_boot(card, "primary", card.new)

    def show_in_step(self):
        for card in self.machines:
            text = bios_text(card.new)
            self.wait_for_versions(card, lambda *seen, text=text: seen[1:3] == (text, text),
                                   f"{text} in its flash and running, seen from card 1")
        self.show_versions()

    def cut_in_programming(self, card, version):
        """The power goes when the kernel has erased the last bytes of the chip, with which a machine begins."""
        card.new = version
        self.make_image(card.image, version, OLD_FIRMWARE)
        card.bring_image()
        began = time.monotonic()
        self.machines[0].begin_biosctl(f"program {card.slot}")
        with open(card.chip("primary"), "rb", buffering=0) as chip:
            size = chip.seek(0, 2)
            while chip.seek(size - 1) and chip.read(1) != ERASED and time.monotonic() - began < PROGRAM_LIMIT_S:
                time.sleep(POLL_S)
        card.cut_power()
        now, image = card.chip("primary").read_bytes(), card.image.read_bytes()
        missing = sum(now[at] != image[at] for at in range(size - CHANGED_BYTES, size))
        status = self.machines[0].end_of_biosctl(PROGRAM_LIMIT_S)
        self.finding(began, card, f"power cut, {missing} bytes of the last {CHANGED_BYTES // 1024} KiB missing",
                     missing > 0 and status not in (0, None))

    def start_from_alternate(self, card):
        card.start("primary", "alternate")
        booted = card.boots()
        self.finding(card.began, card, "does not boot from its primary chip", not booted)
        card.cut_power()
        card.start("alternate", "primary")
        self.wait_for_boot(card, "alternate", card.old)
        self.wait_for_versions(card, lambda *seen: "not verified" in seen[3], "not verified, seen from card 1")
        self.show_versions()

    def repair(self, card):
        alternate = card.chip("alternate").read_bytes()
        card.bring_image()
        self.program(card, f"repaired: {bios_text(card.new)} programmed and read back")
        self.finding(time.monotonic(), card, "its alternate chip is untouched",
                     card.chip("alternate").read_bytes() == alternate)

    def run(self, package):
        self.say("Preparing the machines' system, with the card's package installed in it")
        self.prepare(package)
        self.say("Starting two supervisors and a line card")
        self.start(secrets.token_hex(32))
        self.say("Versions across the chassis")
        self.show_what_is_old()
        for card in self.machines:
            self.say(f"Programming card {card.slot} through card 1")
            self.program(card, f"{bios_text(card.new)} programmed and read back")
        self.say("Restarting the cards, so that the new BIOS runs")
        self.restart(*self.machines)
        self.show_in_step()
        victim = self.machines[-1]
        self.say(f"Cutting the power of card {victim.slot} while the end of its chip is written")
        self.cut_in_programming(victim, "3.0")
        self.say("Starting it from its alternate chip, as a board does whose primary one does not boot")
        self.start_from_alternate(victim)
        self.say("Repairing it")
        self.repair(victim)
        self.restart(victim)
        self.show_in_step()

    def table(self):
        widths = [max(map(len, column)) for column in zip(*self.rows)]
        for row in [("CARD", "WHAT", "TIME", "RESULT"), *self.rows]:
            print("  ".join(cell.ljust(max(width, 4)) for cell, width in zip(row, widths)).rstrip())


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--keep", action="store_true")
    parser.add_argument("programs", type=Path)
    parser.add_argument("package", type=Path)
    arguments = parser.parse_args()
    folder = Path(tempfile.mkdtemp(prefix="machines."))
    show = Show(arguments.programs.resolve(), folder)
    began = time.monotonic()
    try:
        show.run(arguments.package.resolve())
    except Failure as failure:
        show.failed(began, failure)
    finally:
        show.end()
        show.say(f"After {time.monotonic() - began:.0f} s")
        show.table()
        if arguments.keep or show.report.wrong:
            print(f"The machines' folder: {folder}")
        else:
            shutil.rmtree(folder)
    return 1 if show.report.wrong else 0


if __name__ == "__main__":
    sys.exit(main())
