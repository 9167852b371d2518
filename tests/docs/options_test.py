"""Completion and man pages of lsctl and simterm against what the programs themselves say.

Usage: options_test.py SOURCE_DIR LSCTL SIMTERM. Runs every --help and the lists of a simulated
terminal, asks bash (and zsh, in a pseudo-terminal) what they offer, and reads the pages' sources.
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

source, lsctl, simterm = pathlib.Path(sys.argv[1]).resolve(), *sys.argv[2:4]
zsh = shutil.which("zsh")
wrong = []


def expect_equal(what, found, wanted):
    missing, unknown = sorted({*wanted} - {*found}), sorted({*found} - {*wanted})
    if missing or unknown:
        wrong.append(f"{what}: missing {missing}, unknown {unknown}")


def run(*command):
    return subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True, check=True, timeout=60).stdout


class Help:
    """What --help of one command tells: its sub-commands, options, and the values of those with a fixed set."""

    def __init__(self, *command):
        text = run(*command, "--help")
        self.commands = re.findall(r"^  (\w+)", text.partition("Subcommands:\n")[2].partition("\n\n")[0], re.M)
        self.options, self.values = [], {}
        for names, rest in re.findall(r"^ +(-[\w,{}-]+) ?(.*)$", text, re.M):
            options = re.sub(r"\{\w+\}", "", names).split(",")
            self.options += options
            fixed = re.match(r"(?:\S*:)?\{([\w,]+)\}|(\w+(?:\|\w+)+)", rest)
            for option in options if fixed else []:
                self.values[option] = re.split(r"[,|]", fixed[1] or fixed[2])
        self.positional = re.findall(r"^  \w+ \[(\w+(?:\|\w+)+)\]", text, re.M)


def bash_offers(line):
    words = line.split(" ")
    script = 'source "$0"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _$1; printf "%s\\n" "${COMPREPLY[@]}"'
    return run("bash", "-c", script, f"{source}/packaging/completion/bash/{words[0]}", *words).split()


def zsh_offers(lines):
    with tempfile.TemporaryDirectory() as scratch:
        given, out = pathlib.Path(scratch, "lines"), pathlib.Path(scratch, "out")
        given.write_text("\n".join(lines) + "\n", encoding="ascii")
        os.symlink(f"{source}/tests/docs/completions.zsh", f"{scratch}/.zshrc")
        os.environ.update(COMPLETIONS=f"{source}/packaging/completion/zsh", TERM="xterm", LANG="C",
                          LINES_FILE=str(given), OUT_FILE=str(out), ZDOTDIR=scratch)
        run("script", "-qec", f"{zsh} -d -i", "/dev/null")  # in a pseudo-terminal
        offers = {line: [] for line in lines}
        for line, offered in re.findall("(.*)\t(.*)", out.read_text(encoding="ascii")):
            offers[line].append(offered)
        return offers


def section(text, title):
    found = re.search(rf"^==+ {title}\b.*\n((?:(?!==).*\n)*)", text + "\n", re.M)
    expect_equal(f"section '{title}'", [title] if found else [], [title])
    return found[1] if found else ""


def options_in(text):
    return re.findall(r"\*(--?[\w-]+)\*", " ".join(re.findall(r"^\*-.*?::", text, re.M)))


def entries_in(text):
    return [name for row in re.findall(r"^\*[a-z].*?::", text, re.M) for name in re.findall(r"(?:^|, )\*([a-z-]+)", row)]


with tempfile.TemporaryDirectory() as root:
    command = f"{simterm} run {root}/t --no-services -- {simterm} ctl {root}/t".split(" ")
    verbs, faults = (re.findall(r"^([a-z-]+)", run(*command, what), re.M) for what in ("help", "faults"))

# What has to be offered for which command line.
wanted = {}
for name, program in (("lsctl", lsctl), ("simterm", simterm)):
    top = Help(program)
    wanted[f"{name} "] = top.commands
    wanted[f"{name} -"] = top.options
    text = (source / f"packaging/man/{name}.1.adoc").read_text(encoding="utf-8")
    shared = options_in(section(text, "OPTIONS"))
    for command in top.commands:
        sub = Help(program, command)
        wanted[f"{name} {command} -"] = sub.options
        for option, values in sub.values.items():
            wanted[f"{name} {command} {option} "] = values
        for values in sub.positional:
            wanted[f"{name} {command} "] = values.split("|")
        told = options_in(section(text, command if name == "lsctl" else f"simterm {command}"))
        expect_equal(f"{name}(1), {command}", {*told, *shared, *top.options}, {*sub.options, *top.options})
    expect_equal(f"{name}(1)", {*top.options} & {*options_in(text)}, top.options)
expect_equal("simterm(1), requests", entries_in(section(text, "simterm ctl")), verbs)
expect_equal("simterm(1), faults", entries_in(section(text, "FAULTS")), faults)
wanted |= {"simterm ctl . ": verbs, "simterm ctl . fault ": faults, "simterm run --fault ": faults,
           "simterm ctl . fault silent ": ["on", "off"]}

shells = {"bash": {line: bash_offers(line) for line in wanted}} | ({"zsh": zsh_offers(list(wanted))} if zsh else {})
for shell, offered in shells.items():
    for line, offers in wanted.items():
        expect_equal(f"{shell}, '{line}'", offered[line], offers)
print(*wrong, f"{len(wanted)} command lines in {' and '.join(shells)}, {len(wrong)} wrong", sep="\n")
sys.exit(1 if wrong or len(wanted) < 25 else 0)
