"""docs/json.md against what lsctl prints: runs every command of the page with --json on a simulated terminal.

Usage: json_test.py SOURCE_DIR DAEMON SIMTERM LSCTL
"""

import pathlib
import re
import subprocess
import sys

source = pathlib.Path(sys.argv[1])
programs = dict(zip(("daemon", "simterm", "lsctl"), sys.argv[2:5]))
sys.dont_write_bytecode = True
sys.path[:0] = [str(source / "tests/support"), str(source / "client/python")]

from location_client import Client  # noqa: E402
from simulated_terminal import Terminal, wait_until  # noqa: E402

# Sections that are still empty. Whoever fills one in takes it out of here.
EMPTY = {"history", "lpp", "nmea", "settings", "speed", "static", "status", "doctor", "stream", "time", "ubx", "wait"}

# How each command is run so that it succeeds, in all its forms: together they print every key of its table. Those
# without a row are run without arguments.
FORMS = {
    "power": ("", "on --as 6"),
    "watch": ("-n 1",),
    "history": ("", "--summary"),
    "nmea": ("PUBX,04",),
    "ubx": ("06 08",),
    "speed": ("", "--raw"),
    "static": ("show", "on 47.5 8.5", "off"),
    "settings": ("", "--history on --interval 1"),
}
# Further runs that have to fail, with their `error`.
FAILURES = {
    "power": (("off", "failed"), ("on --as 12", "id_taken")),
    "watch": (("--as 12", "id_taken"),),
}
# Commands that do not ask the service, and so do not fail without a bus.
WITHOUT_BUS = {"settings", "static"}

KINDS = {"string": str, "number": (int, float), "integer": int, "boolean": bool, "array": list, "object": dict}
page = (source / "docs/json.md").read_text(encoding="utf-8")
sections = {name.removeprefix("lsctl "): text for name, text in re.findall(r"(?m)^## (.+)\n((?:(?!## ).*\n?)*)", page)}
wrong = set()


def check(right, complaint):
    if not right and complaint not in wrong:
        wrong.add(complaint)
        print(complaint)


def rows(section):
    """The cells of the rows of all its tables, without their heads."""
    lines = [re.split(r" *\| *", line.strip("| ")) for line in sections[section].splitlines() if line.startswith("| `")]
    return [(re.findall(r"`([^`]+)`", cells[0]), *cells[1:]) for cells in lines]


class Table:
    """The keys of one table: their types, and whether they are there in some circumstances only. A table behind a
    sentence that begins "`key`, by" has what is in that key, which differs from one object to the next."""

    def __init__(self, before, text, known):
        self.kinds, self.optional = {}, set()
        inside = re.match(r"`(.+?)`, by ", before)
        prefix = next((key + "." for key in known if inside and f".{key}".endswith(f".{inside[1]}")), "")
        for line in text.splitlines():
            names, kinds, meaning = (re.split(r" *\| *", line.strip("| ")) + [""])[:3]
            for name in re.findall(r"`([^`]+)`", names) if line.startswith("| `") else ():
                key = prefix + name.removesuffix("[]")
                self.kinds[key] = {kind.rstrip("s") for kind in re.findall(r"\w+", re.sub(r" of \w+", "", kinds))}
                if prefix or meaning.lower().startswith("only "):
                    self.optional.add(key)

    def needed(self):
        return {key for key in self.kinds if key not in self.optional and not re.search(r"[.\[]", key)}


def tables_of(section):
    found, known = [], []
    for before, text in re.findall(r"(?m)((?:^(?!\|).*\n)*)((?:^\|.*\n?)+)", sections[section]):
        found.append(Table(before.strip().split("\n\n")[-1], text, known))
        known += found[-1].kinds
    return found


def row_of(key, kinds):
    """The row for a printed key; an upper-case word in it stands for any name."""
    return next((row for row in kinds if re.fullmatch(re.sub(r"[A-Z]+", r"\\w+", re.escape(row)), key)), None)


def keys_of(value, path=""):
    """Every key in an object with its value: a, a.b, a[].b."""
    for key, inner in value.items():
        yield path + key, inner
        for each in inner if isinstance(inner, list) else [inner]:
            if isinstance(each, dict):
                yield from keys_of(each, f"{path}{key}[]." if isinstance(inner, list) else f"{path}{key}.")


def is_of(value, types):
    if value is None or isinstance(value, bool):
        return ("null" if value is None else "boolean") in types
    return any(isinstance(value, KINDS[kind]) for kind in types if kind in KINDS and kind != "boolean")


def check_failure(command, run, status, failure, kinds):
    name = failure.get("error")
    known = name in errors and isinstance(failure.get("text"), str) and failure["text"]
    check(known, f"{run}: error unknown, or no text: {failure}")
    check(status in (0, errors.get(name)), f"{run}: exit status {status} with error {name!r}")
    rest = set(failure) - {"error", "text", "class"} - set(kinds)
    check(not rest, f"{run}: printed with a failure and not on the page: {rest}")


def check_command(terminal, command):
    tables = tables_of(command)
    kinds = {key: kind for table in tables for key, kind in table.kinds.items()}
    seen, filled = set(), set()
    for form in FORMS.get(command, ("",)):
        run = f"lsctl {command} {form}".strip()
        status, objects = terminal.lsctl(command, *form.split())
        check(status == 0 and objects, f"{run}: exit status {status}, {objects}")
        for found in objects:
            if "error" in found:
                check_failure(command, run, status, found, kinds)
                continue
            for key, value in keys_of(found):
                row = row_of(key, kinds)
                inside = [name for name in kinds if name.startswith((f"{key}.", f"{key}[]."))]
                check(row or inside, f"{run}: `{key}` is printed and not on the page")
                nested = inside and isinstance(value, (list, dict))
                check(not row or nested or is_of(value, kinds[row]), f"{run}: `{key}` is {value!r}, not of its type")
                seen.add(row)
                filled |= set(inside) if value else set()
            absent = min((table.needed() - set(found) for table in tables), key=len)
            check(not absent, f"{run}: on the page and not printed: {absent}")
    for table in tables:
        for key in set(table.kinds) - seen - table.optional:
            if "[" not in key and "." not in key or key in filled:
                check(False, f"lsctl {command}: `{key}` is on the page and never printed")
    failures = [(form, error, {}) for form, error in FAILURES.get(command, ())]
    if command not in WITHOUT_BUS:
        form = FORMS.get(command, ("",))[0]
        failures.append((form, "no_bus", {"MQUTILS_DIR": str(terminal.dir / "nowhere")}))
    for form, error, environment in failures:
        run = f"lsctl {command} {form} ({error})"
        status, objects = terminal.lsctl(command, *form.split(), **environment)
        check(objects and objects[-1].get("error") == error and status != 0, f"{run}: {status}, {objects}")
        if objects:
            check_failure(command, run, status, objects[-1], kinds)
            check(("class" in kinds) == ("class" in objects[-1]), f"{run}: class in {objects[-1]}")
    print(f"lsctl {command}: {len(kinds)} keys")


errors = {name: int(status) for names, status, _ in rows("Errors") for name in names}
in_code = dict(re.findall(r'\{"(\w+)", LSCTL_(\w+)', (source / "client/lsctl/lsctl_output.cpp").read_text()))
statuses = {"OK": 0, "FAILED": 1, "USAGE": 2, "NO_ANSWER": 3}
told = {name: statuses[status] for name, status in in_code.items() if name != "answered"}
missing = set(told.items()) - set(errors.items())
check(told and not missing, f"errors: not on the page: {missing}")

commands = [name for name in sections if name != "Errors"]
helped = subprocess.run([programs["lsctl"], "--help"], stdout=subprocess.PIPE, text=True, check=True, timeout=60).stdout
offered = re.findall(r"^  (\w+)", helped.partition("Subcommands:\n")[2], re.M)
check(set(offered) - {"monitor"} <= set(commands), f"commands without a section: {set(offered) - set(commands)}")
with Terminal(programs, "--no-services", "--history", "on", "--history-interval", "1") as terminal:
    wait_until(lambda: terminal.run(programs["lsctl"], "history").stdout)
    with Client(12, directory=str(terminal.dir / "bus")):
        for command in commands:
            is_empty = not rows(command)
            check(is_empty == (command in EMPTY), f"lsctl {command}: its section is {'' if is_empty else 'not '}empty")
            if not is_empty:
                check_command(terminal, command)
print(f"{len(commands) - len(EMPTY)} commands, {len(errors)} errors, {len(wrong)} wrong")
sys.exit(bool(wrong))
