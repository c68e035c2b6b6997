#!/usr/bin/env python3
"""The manual page and the shells' completions of the command, from its parser.

command_files.py man|bash|zsh|fish      prints one of them
"""

import argparse
import re
import sys

from ctessel import __version__, cli


def main(kind):
    parser = cli._parser()
    print({"man": manual, "bash": bash, "zsh": zsh, "fish": fish}[kind](parser), end="")


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
                lines += [
                    ".TP",
                    f"\\fB{roff(title(action))}\\fR",
                    roff(sentence(action.help)) if action.help else r"\&",
                ]
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


# ---- Completions ---------------------------------------------------------------------------------


def bash(parser):
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


def texts(parser):
    """Each command with what it does."""
    return {a.dest: a.help.replace("%%", "%") for a in commands(parser)._choices_actions}


def values(action):
    """What may follow an option: known words, or None where it takes no value."""
    return None if action.nargs == 0 else [str(c) for c in action.choices or ()]


def quoted(text):
    return "'" + text.replace("'", r"'\''") + "'"


def zsh(parser):
    """A function of zsh: commands, options of each with their help, files else."""

    def plain(text):
        return re.sub(r"([\[\]:\\])", r"\\\1", text.replace("%%", "%"))

    def completion_of(action):
        name = f"{{{','.join(action.option_strings)}}}" if len(action.option_strings) > 1 else action.option_strings[0]
        known = values(action)
        value = (
            ""
            if known is None
            else f":{plain(title(action).split()[-1])}:" + (f"({' '.join(known)})" if known else "_files")
        )
        return name + quoted(f"[{plain(action.help or '')}]{value}")

    said = "".join(f" {quoted(f'{name}:{plain(text)}')}" for name, text in texts(parser).items())
    kinds = "".join(
        f" {quoted(f'{name}:{plain(text)}')}" for name, text in {"list": "these kinds", **cli.PHANTOM_KINDS}.items()
    )
    cases = ""
    for name, each in commands(parser).choices.items():
        first = " '1:kind:{_describe kind phantoms}'" if name == "phantom" else ""
        given = "".join(f" \\\n        {completion_of(a)}" for a in options(each))
        cases += f"    {name})\n      _arguments{first}{given} \\\n        '*:file:_files' ;;\n"
    return f"""#compdef ctessel
_ctessel() {{
  local -a commands phantoms line
  local state
  commands=({said[1:]})
  phantoms=({kinds[1:]})
  _arguments -C '(- *)'{{-h,--help}}'[help]' '(- *)--version[version]' \\
    '1:command:{{_describe command commands}}' '*::argument:->rest'
  [[ $state = rest ]] || return
  case $line[1] in
{cases}  esac
}}
_ctessel "$@"
"""


def fish(parser):
    """Lines of fish: commands, options of each with their help, files else."""
    lines = ["# fish completion of ctessel"]
    for name, text in texts(parser).items():
        lines.append(f"complete -c ctessel -f -n __fish_use_subcommand -a {name} -d {quoted(text)}")
    for name, text in {"list": "these kinds", **cli.PHANTOM_KINDS}.items():
        lines.append(f"complete -c ctessel -n '__fish_seen_subcommand_from phantom' -a {name} -d {quoted(text)}")
    for name, each in commands(parser).choices.items():
        for action in options(each):
            words = [f"complete -c ctessel -n '__fish_seen_subcommand_from {name}'"]
            words += [f"-{'l' if s.startswith('--') else 's'} {s.lstrip('-')}" for s in action.option_strings]
            known = values(action)
            words += [] if known is None else [f"-x -a {quoted(' '.join(known))}"] if known else ["-r"]
            words += [f"-d {quoted(action.help.replace('%%', '%'))}"] if action.help else []
            lines.append(" ".join(words))
    return "\n".join(lines) + "\n"


if __name__ == "__main__":
    main(sys.argv[1])
