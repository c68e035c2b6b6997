#!/usr/bin/env python3
"""The manual page and the shell completion of the command, from its parser.

command_files.py man|bash      prints one of them
"""

import argparse
import re
import sys

from ctessel import __version__, cli


def main(kind):
    parser = cli._parser()
    print({"man": manual, "bash": completion}[kind](parser), end="")


def commands(parser):
    return next(a for a in parser._actions if isinstance(a, argparse._SubParsersAction))


def options(parser):
    return [a for a in parser._actions if a.option_strings and a.help != argparse.SUPPRESS]


# ---- Manual page ---------------------------------------------------------------------------------


def manual(parser):
    chosen = commands(parser)
    texts = {a.dest: a.help for a in chosen._choices_actions}
    lines = [f'.TH CTESSEL 1 "" "cTessel {__version__}" "User Commands"', ".SH NAME",
             r"ctessel \- images from MRI raw data", ".SH SYNOPSIS"]  # fmt: skip
    for name, each in chosen.choices.items():
        lines += [".PP", roff(usage(each))]
    lines += [".SH DESCRIPTION", roff(parser.description), ".SH COMMANDS"]
    for name, each in chosen.choices.items():
        lines += [f".SS ctessel {name}", roff(sentence(texts[name]))]
        for action in each._actions:
            if action.help != argparse.SUPPRESS and "-h" not in action.option_strings:
                lines += [".TP", f"\\fB{roff(title(action))}\\fR", roff(sentence(action.help)) if action.help else r"\&"]
        lines += verbatim(each.epilog.split("exit codes:")[0])
    lines += [".SH EXIT STATUS", *verbatim(cli.EXIT_CODES.partition("\n")[2])]
    return "\n".join(lines) + "\n"


def usage(parser):
    """The arguments that have to be there; options are a word."""
    needed = [a for a in parser._actions if a.required]
    words = [word for a in needed for word in (*a.option_strings[:1], a.metavar or a.dest.upper())]
    return " ".join([parser.prog, "[OPTIONS]", *words])


def title(action):
    name = ", ".join(action.option_strings)
    value = action.metavar or (action.dest.upper() if action.nargs != 0 else "")
    value = " ".join(value) if isinstance(value, tuple) else value if action.nargs != 0 else ""
    return " ".join(word for word in (name, value) if word)


def sentence(text):
    return text[0].upper() + text[1:] + "." * (text[-1] != ".")


def verbatim(text):
    return [".PP", ".nf", *map(roff, text.strip("\n").splitlines()), ".fi"] if text.strip() else []


def roff(text):
    """Text with its dashes and backslashes as they are, and no line that begins with a request."""
    text = text.replace("\\", r"\(rs").replace("-", r"\-").replace("%%", "%")
    return re.sub(r"^(?=[.'])", r"\\&", text, flags=re.MULTILINE)


# ---- Completion ----------------------------------------------------------------------------------


def completion(parser):
    """A function of bash: commands, options of each, files else."""
    chosen = commands(parser).choices
    cases = "".join(
        f'    {name}) words="{" ".join(s for a in options(each) for s in a.option_strings if s.startswith("--"))}" ;;\n'
        for name, each in chosen.items()
    )
    kinds = " ".join(["list", *cli.PHANTOM_KINDS])
    return f"""# bash completion of ctessel
_ctessel() {{
  local words word=${{COMP_WORDS[COMP_CWORD]}}
  COMPREPLY=()
  if [ "$COMP_CWORD" -eq 1 ]; then
    words="{" ".join(chosen)} --help --version"
  elif [ "${{COMP_WORDS[1]}}" = phantom ] && [ "$COMP_CWORD" -eq 2 ]; then
    words="{kinds}"
  elif [[ $word == -* ]]; then
    case ${{COMP_WORDS[1]}} in
{cases}    esac
  else
    return
  fi
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
}}
complete -o default -F _ctessel ctessel
"""


if __name__ == "__main__":
    main(sys.argv[1])
