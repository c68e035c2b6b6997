#!/usr/bin/env python3
"""Checks a built site: links and anchors have a target, and no page loads anything from a network.

check.py FOLDER
"""

import re
import sys
from html.parser import HTMLParser
from pathlib import Path
from urllib.parse import unquote, urlsplit

LOADS = {"script": "src", "img": "src", "link": "href", "iframe": "src", "source": "src"}


class Page(HTMLParser):
    def __init__(self, path):
        super().__init__()
        self.anchors, self.links, self.loads = {""}, [], []
        self.feed(path.read_text())

    def handle_starttag(self, tag, attributes):
        given = dict(attributes)
        self.anchors.update(given[name] for name in ("id", "name") if given.get(name))
        if tag == "a" and given.get("href"):
            self.links.append(given["href"])
        if tag in LOADS and given.get(LOADS[tag]) and given.get("rel") not in ("canonical", "index", "search"):
            self.loads.append(given[LOADS[tag]])


def faults(folder):
    pages = {path.resolve(): Page(path) for path in folder.rglob("*.html")}
    if not pages:
        yield f"{folder}: no pages"
    for path, page in pages.items():
        for target in page.loads:
            if urlsplit(target).netloc:
                yield f"{path}: loads {target}"
        for target in [*page.links, *(t for t in page.loads if not urlsplit(t).netloc)]:
            parts = urlsplit(target)
            if parts.scheme or parts.netloc:
                continue
            there = (path.parent / unquote(parts.path)).resolve() if parts.path else path
            if not there.exists():
                yield f"{path}: no {target}"
            elif there in pages and unquote(parts.fragment) not in pages[there].anchors:
                yield f"{path}: no anchor {target}"
    for sheet in folder.rglob("*.css"):
        if re.search(r"""(url\(|@import)\s*["']?(https?:|/)""", sheet.read_text(errors="replace")):
            yield f"{sheet}: loads from a network"


if __name__ == "__main__":
    found = list(faults(Path(sys.argv[1])))
    print(*found, sep="\n", end="\n" if found else "", file=sys.stderr)
    sys.exit(bool(found))
