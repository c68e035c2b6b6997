#!/usr/bin/env python3
"""The sources of the site: the pages of docs/, and pages made from headers, help texts and the command.

prepare.py FOLDER
"""

import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(Path(__file__).parent))

#: Modules of the Python reference, in reading order.
MODULES = [
    "ctessel", "ctessel.homodyne", "ctessel.pipeline", "ctessel.raw", "ctessel.nifti", "ctessel.gradients",
    "ctessel.warp", "ctessel.noise", "ctessel.phantom", "ctessel.workers", "ctessel.dask",
]  # fmt: skip


def main():
    folder = Path(sys.argv[1])
    shutil.copytree(ROOT / "docs", folder, ignore=shutil.ignore_patterns("site", "*.sh", "packages.txt"))
    (folder / "reference").mkdir(exist_ok=True)
    take_linked_files(folder)
    for name in ("CHANGELOG.md", "CONTRIBUTING.md"):  # pages of docs/ are beside them on the site
        (folder / name.lower()).write_text((ROOT / name).read_text().replace("](docs/", "]("))
    (folder / "reference" / "python.md").write_text(python())
    (folder / "reference" / "command.md").write_text(command())
    (folder / "reference" / "octave.md").write_text(octave())
    for header, title in (("ctessel.hpp", "C++20"), ("cTessel.h", "C++17")):
        (folder / "reference" / f"{header}.md").write_text(header_page(header, title))
    import concepts

    concepts.draw(folder / "pictures")
    (folder / "examples.md").write_text(examples(folder))
    list_pages(folder)


def list_pages(folder):
    """Puts pages that the index does not name at the end of its how-to pages."""
    index = (folder / "index.md").read_text()
    listed = set(re.findall(r"^\S+$", index, re.MULTILINE))
    more = sorted(p.stem for p in folder.glob("*.md") if p.stem not in listed and p.stem != "index")
    (folder / "index.md").write_text(index.replace("\nscaling\n", "\n".join(["\nscaling", *more, ""])))


def take_linked_files(folder):
    """Copies files of the checkout that pages link to, and links to the copies."""
    for page in folder.rglob("*.md"):
        text = page.read_text()
        for link in set(re.findall(r"\]\((\.\./[^)#]+)\)", text)):
            there = (ROOT / "docs" / page.relative_to(folder)).parent / link
            if (ROOT / "docs") in there.resolve().parents:
                continue
            shutil.copy(there, folder / there.name)
            text = text.replace(f"]({link})", f"]({os.path.relpath(folder, page.parent)}/{there.name})")
        page.write_text(text)


def python():
    """A section for each module, filled from its docstrings."""
    text = "# Python\n\nArrays are indexed `[x, y, z, coil, ...]` in any memory order.\n\n"
    for module in MODULES:
        text += f"## {module}\n\n```{{eval-rst}}\n.. automodule:: {module}\n   :members:\n"
        if module == "ctessel.pipeline":
            text += "   :exclude-members: Coefficients, geometry, read_coefficients, ringing_filter\n"
        text += "```\n\n"
    return text


def command():
    """The help of the command and of each of its own commands."""
    from ctessel import cli

    os.environ["COLUMNS"] = "88"
    parser = cli._parser()
    text = f"# The command\n\n{fenced(parser.format_help())}"
    for name, each in subcommands(parser).items():
        text += f"## ctessel {name}\n\n{fenced(each.format_help())}"
    return text


def subcommands(parser):
    import argparse

    return next(a.choices for a in parser._actions if isinstance(a, argparse._SubParsersAction))


def fenced(text, language="none"):
    return f"```{language}\n{text.rstrip()}\n```\n\n"


def octave():
    """The help text of each function of the Octave package, in the order of its index."""
    text = "# Octave and MATLAB\n\n`homodyne` is the module for both hosts; the others are the Octave package.\n\n"
    for name in re.findall(r"^ (\w+)$", (ROOT / "octave" / "INDEX").read_text(), re.MULTILINE):
        source = ROOT / "octave" / "inst" / f"{name}.m"
        if not source.exists():
            source = ROOT / "gateway" / f"{name}.m"
        lines = source.read_text().splitlines()
        end = next(i for i, line in enumerate(lines + [""]) if not line.startswith("%"))
        text += f"## {name}\n\n" + fenced("\n".join(line[2:] for line in lines[:end]))
    return text


def header_page(header, title):
    """The documented declarations of a header, section by section."""
    lines = (ROOT / "recon" / header).read_text().splitlines()
    text = f"# {title}: {header}\n\n" + described([line[3:] for line in lines[: lines.index("#pragma once")]])
    for line, comment, code in declarations(lines):
        if line:
            text += f"## {line}\n\n"
        else:
            text += fenced("\n".join(code), "cpp") + described(comment)
    return text


def declarations(lines):
    """(title, [], []) of each section and ("", comment, code) of what has a comment outside of braces."""
    comment, code = [], []
    for line in [*lines, ""]:
        section = re.match(r"// ---- (.*?) -+$", line)
        if section or (not line.strip() and code and balanced(code)):
            if comment and code:
                yield "", comment, code
            comment, code = [], []
            if section:
                yield section[1], [], []
        elif line.startswith("///") and (not code or balanced(code)):
            if code:
                yield "", comment, code
                comment, code = [], []
            comment.append(line[4:])
        elif comment and (line.strip() or code):
            code.append(line)


def balanced(code):
    text = "\n".join(code)
    return text.count("{") == text.count("}") and text.count("(") == text.count(")")


def described(comment):
    """A comment as Markdown: paragraphs, and tables of arguments as they stand."""
    text, table = [], False
    for line in comment:
        if line.startswith("   ") != table and line.strip():
            text.append("```" if table else "```none")
            table = not table
        text.append(line if table else line.replace("*", r"\*").replace("_", r"\_").replace("<", r"\<"))
    return "\n".join(text + ["```"] * table) + "\n\n"


EXAMPLES = {  # and their arguments
    "sense": ("SENSE", ["."]),
    "coil_combination": ("Coil combination", ["."]),
    "geometry": ("Gradient non-linearity", []),
}


def examples(folder):
    """The C++ examples and the Octave tour, with pictures if they are built."""
    text = "# Examples in C++ and Octave\n\nPython's are in the [gallery](gallery/index.rst).\n\n"
    for name, (title, arguments) in EXAMPLES.items():
        program = ROOT / "build" / "default" / "examples" / f"example_{name}"
        text += f"## {title} in C++\n\n" + made(folder, name, [program, *arguments], program.exists())
        text += fenced((ROOT / "examples" / f"{name}.cpp").read_text(), "cpp")
    installed = ROOT / "build" / "octave-package" / "installed"
    lists = "".join(f"pkg('{name}', '{installed}/{name}'); " for name in ("local_list", "global_list"))
    load = f"{lists}pkg('load', 'ctessel'); tour('.')"
    paths = ["--path", ROOT / "octave", "--path", ROOT / "demo"]
    tour = ["octave-cli", "--norc", "--no-history", "--quiet", *paths, "--eval", load]
    text += "## A tour in Octave\n\n" + made(folder, "tour", tour, any(installed.glob("ctessel-*")))
    return text + fenced((ROOT / "octave" / "tour.m").read_text())


def made(folder, name, command, built):
    """Markdown of what a command says and of the pictures that it writes where it runs."""
    if not built:
        print(f"SKIPPED: pictures of {name}, which is not built", file=sys.stderr)
        return "*This copy of the site was built without the pictures.*\n\n"
    (folder / "pictures" / name).mkdir()
    run = subprocess.run(command, cwd=folder / "pictures" / name, capture_output=True, text=True)
    if run.returncode:
        sys.exit(f"{name}: {run.stderr}")
    text = fenced(run.stdout) if run.stdout else ""
    for picture in sorted((folder / "pictures" / name).glob("*.png")):
        text += f"![{picture.stem}](pictures/{name}/{picture.name})\n\n"
    return text


if __name__ == "__main__":
    main()
