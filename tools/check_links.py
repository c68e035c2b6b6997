#!/usr/bin/env python3
"""Checks links of Markdown pages in the checkout: files and headings, none of which is looked up in a network."""

import re
import subprocess
import sys
from pathlib import Path

#: Pages that docs/site/prepare.py makes, and where they come from.
MADE = {"changelog.md": "CHANGELOG.md", "contributing.md": "CONTRIBUTING.md", "gallery/index.rst": "python/examples",
        "reference/cTessel.h.md": "recon/cTessel.h", "reference/ctessel.hpp.md": "recon/ctessel.hpp",
        "reference/command.md": "python/ctessel/cli.py", "reference/python.md": "python/ctessel",
        "reference/octave.md": "octave/inst", "examples.md": "examples"}  # fmt: skip
PICTURES = "docs/pictures"


def anchors(page):
    """Anchors of the headings of a page, as GitHub and MyST make them."""
    headings = re.findall(r"^#+ (.*)$", page.read_text(), re.MULTILINE)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


def faults(root, name):
    page = root / name
    text = re.sub(r"^```.*?^```", "", page.read_text(), flags=re.DOTALL | re.MULTILINE)
    for link in re.findall(r"\]\(([^)\s]+)\)", re.sub(r"`[^`\n]*`", "code", text)):
        path, _, anchor = link.partition("#")
        if re.match(r"\w+:", link):
            continue
        there = (page.parent / path).resolve() if path else page
        made = MADE.get(str(there.relative_to(root / "docs"))) if (root / "docs") in there.parents else None
        if (root / PICTURES) == there.parent or (made and (root / made).exists()):
            continue
        if not there.exists():
            yield f"{name}: no {link}"
        elif anchor and there.suffix == ".md" and anchor not in anchors(there):
            yield f"{name}: no heading {link}"


def main():
    root = Path(__file__).resolve().parents[1]
    pages = subprocess.run(["git", "ls-files", "*.md"], cwd=root, check=True, capture_output=True, text=True).stdout
    found = [fault for name in pages.split() for fault in faults(root, name)]
    lines = len((root / "README.md").read_text().splitlines())
    if lines > 120:
        found.append(f"README.md: {lines} lines, at most 120 are for a stranger")
    print(*found, sep="\n")
    return bool(found)


if __name__ == "__main__":
    sys.exit(main())
