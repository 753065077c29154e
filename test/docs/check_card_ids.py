#!/usr/bin/env python3
"""Compares the table of card ids in doc/integrating.md with the daemon's: image and flash layout of each card id."""
import re
import sys
from pathlib import Path

LAYOUTS = {"X86N": "plain", "IBEXPEAK": "ibexpeak", "IBEXPEAK_QEL": "qel", "TARVIK_A": "tarvik-a"}
FAMILY_OF_CARD = re.compile(r"\{(\d+), (\d+)\}")
FAMILY_OF_VARIANT = re.compile(r"FAMILY_\w+ = (\d+);")
VARIANT_CARD = re.compile(r"VARIANT_CARD_ID = (\d+);")
TABLE_ROW = re.compile(r'row\((\d+), "/vesk/bin/([^"]+)", (\w+)\)')
SHOWN_ROW = re.compile(r"^\| (\d[^|]*) \| `([^`]+\.bin\.gz)` \| ([\w-]+) \|$", re.M)


def cards_of_daemon(root):
    """Triples of card id, image and layout."""
    families = (root / "common/common_bios_daemon/card_identification.cpp").read_text()
    rows = (root / "sup/sup_map_tbl_func/bios_flash_entry_tbl.cpp").read_text()
    family_of = FAMILY_OF_CARD.findall(families)
    variant_card = VARIANT_CARD.search(families)[1]
    family_of += [(variant_card, family) for family in FAMILY_OF_VARIANT.findall(families)]
    table = {family: (image, LAYOUTS[board]) for family, image, board in TABLE_ROW.findall(rows)}
    return {(card, *table[family]) for card, family in family_of}


def cards_of_document(root):
    document = (root / "doc/integrating.md").read_text()
    return {(card, image, layout)
            for cards, image, layout in SHOWN_ROW.findall(document)
            for card in re.findall(r"\d+", re.sub(r"hw\.change\.bit.*", "", cards))}


def main():
    root = Path(sys.argv[1])
    daemon, document = cards_of_daemon(root), cards_of_document(root)
    complaints = [f"not in the document: {' '.join(card)}" for card in sorted(daemon - document)]
    complaints += [f"not in the daemon: {' '.join(card)}" for card in sorted(document - daemon)]
    print(*complaints, f"{len(daemon)} cards and their images", sep="\n")
    sys.exit(1 if complaints or not daemon else 0)


main()
