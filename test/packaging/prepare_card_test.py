#!/usr/bin/env python3
"""What prepare_card makes of the file that describes a card."""
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

PREPARE_CARD = Path(__file__).resolve().parents[2] / "packaging/card/prepare_card"
CONFIG_ERROR = 78
GOOD = "slot 3\ncard_id 90\nkind supervisor\nprimary bios\nalternate bios-alt\n"


class PrepareCard(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.etc = self.folder / "etc"
        self.etc.mkdir()
        self.place = self.folder / "state"
        self.environment = self.folder / "run/card"

    def prepare(self, text):
        (self.etc / "card").write_text(text)
        return subprocess.run([PREPARE_CARD, self.etc / "card", self.place, self.environment],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False)

    def assert_prepared(self, text):
        done = self.prepare(text)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))

    def assert_refused(self, text, why):
        before = self.contents()
        done = self.prepare(text)
        self.assertEqual((done.returncode, done.stdout), (CONFIG_ERROR, ""))
        self.assertIn(f"card: {why}", done.stderr)
        self.assertEqual(self.contents(), before)

    def contents(self):
        files = [path for path in sorted(self.folder.rglob("*")) if path.is_file() and self.etc not in path.parents]
        return {str(path.relative_to(self.folder)): path.read_text() for path in files}

    def test_a_supervisor(self):
        self.assert_prepared("# a comment\n\n" + GOOD)
        self.assertEqual(self.contents(), {
            "run/card": f"CHASSIS_DIR={self.place}\nCHASSIS_SLOT=3\n",
            "state/inventory/3/card_id": "90\n",
            "state/inventory/3/kind": "1\n",
            "state/slots/3/flash_names/alternate": "bios-alt\n",
            "state/slots/3/flash_names/primary": "bios\n",
        })
        self.assertEqual(self.place.stat().st_mode & 0o777, 0o700)

    def test_a_line_card_with_one_flash(self):
        self.assert_prepared("slot 232\ncard_id 0x40\nkind linecard\nprimary the flash\n")
        self.assertEqual((self.place / "inventory/232/kind").read_text(), "2\n")
        self.assertEqual((self.place / "inventory/232/card_id").read_text(), "64\n")
        self.assertEqual((self.place / "slots/232/flash_names/primary").read_text(), "the flash\n")
        self.assertFalse((self.place / "slots/232/flash_names/alternate").exists())

    def test_numbers_of_other_files(self):
        (self.folder / "slot").write_text("7\n")
        self.assert_prepared(GOOD.replace("slot 3", f"slot @{self.folder}/slot"))
        self.assertTrue(self.environment.read_text().endswith("CHASSIS_SLOT=7\n"))
        (self.folder / "slot").write_text("seven\n")
        self.assert_refused(GOOD.replace("slot 3", f"slot @{self.folder}/slot"), "slot has to be a number")
        self.assert_refused(GOOD.replace("slot 3", "slot @/nowhere/slot"), "slot: /nowhere/slot cannot be read")

    def test_the_state_is_that_of_the_redundancy_manager(self):
        manager = self.folder / "manager"
        manager.write_text("2\n")
        self.assert_prepared(GOOD + f"supervisor_state {manager}\n")
        state = self.place / "inventory/3/sup_state"
        self.assertTrue(state.is_symlink())
        self.assertEqual(state.read_text(), "2\n")
        self.assert_prepared(GOOD)
        self.assertFalse(state.is_symlink())

    def test_other_cards_are_forgotten_and_the_own_state_is_kept(self):
        self.assert_prepared(GOOD)
        (self.place / "inventory/5").mkdir()
        marker = self.place / "slots/3/flash/primary/programming"
        marker.parent.mkdir(parents=True)
        marker.write_text("")
        self.assert_prepared(GOOD.replace("alternate bios-alt\n", ""))
        self.assertFalse((self.place / "inventory/5").exists())
        self.assertFalse((self.place / "slots/3/flash_names/alternate").exists())
        self.assertTrue(marker.exists())

    def test_policy_and_keys_are_those_beside_the_file(self):
        (self.etc / "policy").write_text("signed required\n")
        (self.etc / "keys").mkdir()
        (self.etc / "keys/maker.pub").write_text("a key\n")
        self.assert_prepared(GOOD)
        own = self.place / "slots/3"
        self.assertEqual((own / "policy").read_text(), "signed required\n")
        self.assertEqual((own / "keys/maker.pub").read_text(), "a key\n")
        (self.etc / "keys/maker.pub").unlink()
        (self.etc / "policy").unlink()
        self.assert_prepared(GOOD)
        self.assertFalse((own / "policy").exists())
        self.assertFalse((own / "keys/maker.pub").exists())

    def test_what_is_refused(self):
        self.assert_prepared(GOOD)
        for wrong, why in (
                (GOOD.replace("slot 3", "slot 0"), "slot has to be 1 to 232"),
                (GOOD.replace("slot 3", "slot 233"), "slot has to be 1 to 232"),
                (GOOD.replace("slot 3", "slot -1"), "slot has to be a number"),
                (GOOD.replace("slot 3", "slot 99999999999999999999999"), "slot has to be a number"),
                (GOOD.replace("slot 3", "slot 08"), "slot has to be a number"),
                (GOOD.replace("slot 3", "slot 1 2"), "slot has to be a number"),
                (GOOD.replace("slot 3\n", ""), "slot has to be a number"),
                (GOOD.replace("slot 3", "slot $(id)"), "slot has to be a number"),
                (GOOD.replace("90", "0x"), "card_id has to be a number"),
                (GOOD.replace("90", "65536"), "card_id has to be 1 to 65535"),
                (GOOD.replace("supervisor", "Supervisor"), "kind has to be supervisor or linecard"),
                (GOOD + "slot 4\n", "slot is there more than once"),
                (GOOD + "secondary x\n", "unknown key: secondary"),
        ):
            with self.subTest(wrong=wrong):
                self.assert_refused(wrong, why)
        (self.etc / "card").unlink()
        done = subprocess.run([PREPARE_CARD, self.etc / "card", self.place, self.environment],
                              stderr=subprocess.PIPE, text=True, check=False)
        self.assertEqual(done.returncode, CONFIG_ERROR)
        self.assertIn("cannot be read", done.stderr)


if __name__ == "__main__":
    unittest.main(argv=sys.argv)
