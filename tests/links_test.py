#!/usr/bin/env python3
"""Follows the links of every document: a file that it names is there, and so is a heading.

usage: links_test.py REPOSITORY"""
import os
import re
import sys
from pathlib import Path

LINK = re.compile(r"\[[^]]*\]\(([^)\s]+)\)|<img[^>]*\ssrc=\"([^\"]+)\"|<a[^>]*\shref=\"([^\"]+)\"")


def documents(repository):
    for folder, folders, files in os.walk(repository):
        folders[:] = [name for name in folders if not name.startswith((".", "build"))]
        yield from (Path(folder, name) for name in files if name.endswith(".md"))


def prose(text):
    """Its lines, those of code blocks empty."""
    fenced = False
    for line in text.splitlines():
        fenced ^= line.lstrip().startswith("```")
        yield "" if fenced or line.startswith("    ") else line


def headings(path):
    """As a page's anchors are made of them: lower case, no punctuation, hyphens for blanks; -1, -2 for repeats."""
    anchors = []
    for line in prose(path.read_text(encoding="utf-8")):
        if match := re.match(r"#+ +(.*)", line):
            anchor = re.sub(r"[^\w\- ]", "", match[1].strip().lower()).replace(" ", "-")
            repeats = sum(re.sub(r"-\d+$", "", other) == anchor for other in anchors)
            anchors.append(f"{anchor}-{repeats}" if repeats else anchor)
    return anchors


def complaints(path):
    for number, line in enumerate(prose(path.read_text(encoding="utf-8")), 1):
        for link in LINK.finditer(re.sub(r"`[^`]*`", "", line)):
            target = next(filter(None, link.groups()))
            if re.match(r"[a-z]+:", target):
                continue
            name, _, anchor = target.partition("#")
            file = path.parent / name if name else path
            if not file.exists():
                yield f"{path}:{number}: {target}: there is no such file"
            elif anchor and (file.suffix != ".md" or anchor not in headings(file)):
                yield f"{path}:{number}: {target}: there is no such heading"


def main():
    repository = Path(sys.argv[1])
    found = [complaint for path in sorted(documents(repository)) for complaint in complaints(path)]
    links = sum(len(LINK.findall(line)) for path in documents(repository)
                for line in prose(path.read_text(encoding="utf-8")))
    print("\n".join(found) or f"{links} links lead somewhere")
    return bool(found) or not links


if __name__ == "__main__":
    sys.exit(main())
