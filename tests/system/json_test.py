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
    "history": ("",),
    "nmea": ("PUBX,04",),
    "ubx": ("06 08",),
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
    """The cells of the tables' rows, without their heads."""
    lines = [[cell.strip() for cell in line.strip("|").split(" | ")]
             for line in sections[section].splitlines() if line.startswith("|")]
    return [(cells[0].strip("|` "), *cells[1:]) for cells in lines if cells[0].lstrip("| ").startswith("`")]


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


def check_failure(command, run, status, failure):
    name = failure.get("error")
    known = name in errors and isinstance(failure.get("text"), str) and failure["text"]
    check(known, f"{run}: error unknown, or no text: {failure}")
    check(status in (0, errors.get(name)), f"{run}: exit status {status} with error {name!r}")
    check(set(failure) <= {"error", "text", "class"}, f"{run}: more than error and text: {failure}")


def check_command(terminal, command):
    table = {key: (set(re.findall(r"\w+", kind)), meaning) for key, kind, meaning in rows(command)}
    seen = set()
    for form in FORMS.get(command, ("",)):
        run = f"lsctl {command} {form}".strip()
        status, objects = terminal.lsctl(command, *form.split())
        check(status == 0 and objects, f"{run}: exit status {status}, {objects}")
        for found in objects:
            if "error" in found:
                check_failure(command, run, status, found)
                continue
            printed = list(keys_of(found))
            for key, value in printed:
                check(key in table, f"{run}: `{key}` is printed and not on the page")
                check(key not in table or is_of(value, table[key][0]), f"{run}: `{key}` is {value!r}")
            seen |= {key for key, _ in printed}
            for key in table if "class" not in found else ():
                absent = key not in found and not re.search(r"\.|\[", key) and not table[key][1].startswith("Only")
                check(not absent, f"{run}: `{key}` is on the page and not printed")
    for key in set(table) - seen:
        check(table[key][1].startswith("Only"), f"lsctl {command}: `{key}` is on the page and never printed")
    failures = [(form, error, {}) for form, error in FAILURES.get(command, ())]
    if command not in WITHOUT_BUS:
        form = FORMS.get(command, ("",))[0]
        failures.append((form, "no_bus", {"MQUTILS_DIR": str(terminal.dir / "nowhere")}))
    for form, error, environment in failures:
        run = f"lsctl {command} {form} ({error})"
        status, objects = terminal.lsctl(command, *form.split(), **environment)
        check(objects and objects[-1].get("error") == error and status != 0, f"{run}: {status}, {objects}")
        if objects:
            check_failure(command, run, status, objects[-1])
            check(("class" in table) == ("class" in objects[-1]), f"{run}: class in {objects[-1]}")
    print(f"lsctl {command}: {len(table)} keys")


errors = {name: int(status) for name, status, _ in rows("Errors")}
in_code = dict(re.findall(r'\{"(\w+)", LSCTL_(\w+)', (source / "client/lsctl/lsctl_output.cpp").read_text()))
statuses = {"OK": 0, "FAILED": 1, "USAGE": 2, "NO_ANSWER": 3}
told = {name: statuses[status] for name, status in in_code.items() if name != "answered"}
check(told and set(told.items()) <= set(errors.items()), f"errors: not on the page: {set(told.items()) - set(errors.items())}")

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
