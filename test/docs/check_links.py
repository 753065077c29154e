#!/usr/bin/env python3
"""Looks where the documents of the root and of doc/ point to.

Every relative link has to lead to a file, and to a heading of it when it names one. Every name in a code span that
begins with a folder of the sources has to be there, too.
"""
import re
import sys
from pathlib import Path

LINK = re.compile(r"\[[^\]]*\]\(([^)\s]+)\)")
CODE_SPAN = re.compile(r"`([^`]+)`")
HEADING = re.compile(r"^#+ +(.*?) *$")
SOURCE_NAME = re.compile(r"(?:biosctl|chassis|cmake|common|doc|include|packaging|platform|script|sup|test)/[\w./-]*")


def text_lines(document):
    """Numbered lines outside of blocks of code."""
    fenced = False
    for number, line in enumerate(document.read_text().splitlines(), 1):
        if line.startswith("```"):
            fenced = not fenced
        elif not fenced and not line.startswith("    "):
            yield number, line


def anchors_of(document):
    anchors = set()
    for _, line in text_lines(document):
        heading = HEADING.match(line)
        if heading:
            words = re.sub(r"[^\w\- ]", "", heading[1].lower())
            anchors.add(words.replace(" ", "-"))
    return anchors


def complaint_about_link(document, target):
    if re.match(r"[a-z]+:", target):
        return None
    name, _, anchor = target.partition("#")
    place = document.parent / name if name else document
    if not place.exists():
        return f"link to {target}: there is no {place}"
    if anchor and anchor not in anchors_of(place):
        return f"link to {target}: there is no such heading"
    return None


def check(root, document):
    """Complaints, and how many links and names were looked at."""
    complaints, looked_at = [], 0
    for number, line in text_lines(document):
        found = [complaint_about_link(document, target) for target in LINK.findall(CODE_SPAN.sub("", line))]
        for span in CODE_SPAN.findall(line):
            if SOURCE_NAME.fullmatch(span):
                found.append(None if (root / span).exists() else f"there is no {span}")
        looked_at += len(found)
        complaints += [f"{document.relative_to(root)}:{number}: {text}" for text in found if text]
    return complaints, looked_at


def main():
    root = Path(sys.argv[1])
    complaints, looked_at = [], 0
    for document in [*sorted(root.glob("*.md")), *sorted((root / "doc").glob("*.md"))]:
        new, count = check(root, document)
        complaints += new
        looked_at += count
    print(*complaints, f"{looked_at} links and names", sep="\n")
    sys.exit(1 if complaints or looked_at == 0 else 0)


main()
