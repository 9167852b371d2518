"""docs/json.md against what lsctl prints: runs every command of the page with --json on a simulated terminal.

Usage: json_test.py SOURCE_DIR DAEMON SIMTERM LSCTL
"""

import json
import pathlib
import re
import signal
import subprocess
import sys
import threading

source = pathlib.Path(sys.argv[1])
programs = dict(zip(("daemon", "simterm", "lsctl"), sys.argv[2:5]))
sys.dont_write_bytecode = True
sys.path[:0] = [str(source / "tests/support"), str(source / "client/python")]

from location_client import Client  # noqa: E402
from simulated_terminal import LIMIT_S, Terminal, wait_until  # noqa: E402

# How each command is run so that it succeeds, in all its forms: together they print every key of its table. Those
# without a row are run without arguments.
FORMS = {
    "power": ("", "on --as 6"),
    "watch": ("-n 1",),
    "history": ("", "--summary", "--follow"),
    "stream": ("", "--listen 0"),
    "nmea": ("PUBX,04",),
    "ubx": ("06 08",),
    "speed": ("", "--raw"),
    "static": ("show", "on 47.5 8.5", "off"),
    "settings": ("", "--history on --interval 1"),
}
# Those that a signal ends, when objects of these classes have come.
ENDLESS = {
    "history --follow": {"position"},
    "stream": {"position", "satellites"},
    "stream --listen 0": {"listening"},
}
# Runs that have to fail, with their `error`. Those without a row are run without a bus, which the last two errors mean.
FAILURES = {
    "power": (("off", "failed"), ("on --as 12", "id_taken"), ("", "no_bus")),
    "watch": (("--as 12", "id_taken"), ("", "no_bus")),
    "history": (("--input / ", "failed"), ("", "no_bus"), ("--follow", "no_bus")),
    "doctor": (("--bundle /nowhere/b", "failed"), ("", "no_bus")),
    "settings": (("--interval x", "usage"), ("--interval 1 --as 12", "id_taken")),
    "static": (("on", "bad_argument"),),
    "wait": (("--timeout 0.2", "timed_out"),),
    "nmea": (("PUBX,04", "no_bus"),),
    "ubx": (("06 08", "no_bus"),),
}

KINDS = {"string": str, "number": (int, float), "integer": int, "boolean": bool, "array": list, "object": dict}
page = (source / "docs/json.md").read_text(encoding="utf-8")
sections = {name.removeprefix("lsctl "): text for name, text in re.findall(r"(?m)^## (.+)\n((?:(?!## ).*\n?)*)", page)}
sections["doctor"] += sections["status"]  # it prints the same
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


def check_failure(command, run, status, failure):
    name = failure.get("error")
    check(name in errors and failure.get("text"), f"{run}: error unknown, or no text: {failure}")
    allowed = {3} if "findings" in failure and name not in findings else errors.get(name, set())
    check(status == 0 or status in allowed, f"{run}: exit status {status} with error {name!r}")


def check_keys(run, found, kinds, seen, filled):
    for key, value in keys_of({key: value for key, value in found.items() if key not in ("error", "text")}):
        row = row_of(key, kinds)
        inside = [name for name in kinds if name.startswith((f"{key}.", f"{key}[]."))]
        check(row or inside, f"{run}: `{key}` is printed and not on the page")
        nested = inside and isinstance(value, (list, dict))
        check(not row or nested or is_of(value, kinds[row]), f"{run}: `{key}` is {value!r}, not of its type")
        seen.add(row)
        filled |= set(inside) if value else set()


def until_classes(terminal, words, classes):
    """The objects of a command without an end, and whether it ended well."""
    objects = []
    with subprocess.Popen([programs["lsctl"], *words, "--json"], env=terminal.environment, stdout=subprocess.PIPE,
                          text=True) as process:
        limit = threading.Timer(LIMIT_S, process.kill)
        limit.start()
        for line in process.stdout:
            objects.append(json.loads(line))
            if classes <= {each.get("class") for each in objects}:
                process.terminate()
                break
        process.stdout.read()
        status = process.wait()
        limit.cancel()
    return 0 if status in (0, 128 + signal.SIGTERM) else status, objects


def check_command(terminal, command):
    tables = tables_of(command)
    kinds = {key: kind for table in tables for key, kind in table.kinds.items()}
    seen, filled = set(), set()
    for form in FORMS.get(command, ("",)):
        run = f"lsctl {command} {form}".strip()
        endless = ENDLESS.get(f"{command} {form}".strip())
        words = (command, *form.split())
        status, objects = until_classes(terminal, words, endless) if endless else terminal.lsctl(*words)
        check(status == 0 and objects, f"{run}: exit status {status}, {objects}")
        for found in objects:
            check_keys(run, found, kinds if "class" not in found or found["class"] != "error" else {"class": {"string"}},
                       seen, filled)
            if "error" in found:
                check_failure(command, run, status, found)
                continue
            absent = min((table.needed() - set(found) for table in tables), key=len)
            check(not absent, f"{run}: on the page and not printed: {absent}")
    for form, error in FAILURES.get(command, (("", "no_bus"),)):
        run = f"lsctl {command} {form} ({error})"
        lost = {"MQUTILS_DIR": str(terminal.dir / "nowhere")} if error in ("no_bus", "timed_out") else {}
        status, objects = terminal.lsctl(command, *form.split(), **lost)
        check(objects and objects[-1].get("error") == error and status != 0, f"{run}: {status}, {objects}")
        for found in objects:
            check_failure(command, run, status, found)
            check_keys(run, found, {**kinds, "class": {"string"}}, seen, filled)
            streams = command in ("watch", "stream") or "--follow" in form
            check(found.get("class") == ("error" if streams else None), f"{run}: class in {found}")
    for table in tables:
        for key in set(table.kinds) - seen - table.optional:
            if "[" not in key and "." not in key or key in filled:
                check(False, f"lsctl {command}: `{key}` is on the page and never printed")
    print(f"lsctl {command}: {len(kinds)} keys")


def statuses_of(section):
    found = [(name, set(map(int, re.findall(r"\d", status)))) for names, status, _ in rows(section) for name in names]
    check(len(found) == len(dict(found)), f"{section}: a name has two rows")
    return dict(found)


findings = statuses_of("Findings")
errors = statuses_of("Errors")
files = {path: path.read_text(encoding="utf-8") for path in source.glob("client/lsctl/**/*.cpp")}
code = "".join(files.values())
in_code = dict(re.findall(r'"(\w+)", LSCTL_(\w+)', code))
statuses = {"OK": 0, "FAILED": 1, "USAGE": 2, "NO_ANSWER": 3}
missing = {name for name, status in in_code.items() if name != "answered"
           if statuses[status] not in errors.get(name, ())}
missing |= set(re.findall(r'lsctl_fail_with\(\s*\w+,\s*"(\w+)"', code)) - set(errors)
check(len(in_code) > 1 and not missing, f"errors: not on the page: {missing}")
judged = "".join(text for path, text in files.items() if path.name.startswith("findings"))
severities = {"healthy": 0, "degraded": 1, "restart": 4}
for name, levels in re.findall(r'"(\w+)",\s*([^"{};]*severity::\w+)', judged):
    levels = {severities[level] for level in re.findall(r"severity::(\w+)", levels)}
    check(findings.get(name) == levels, f"findings: {name} is {levels}, on the page {findings.get(name)}")
unused = {name for name in findings if f'"{name}"' not in judged}
check(not unused, f"findings: on the page only: {unused}")
errors = {name: errors.get(name, set()) | findings.get(name, set()) for name in {**errors, **findings}}

commands = [name for name in sections if name not in ("Errors", "Findings")]
helped = subprocess.run([programs["lsctl"], "--help"], stdout=subprocess.PIPE, text=True, check=True, timeout=60).stdout
offered = re.findall(r"^  (\w+)", helped.partition("Subcommands:\n")[2], re.M)
check(set(offered) - {"monitor"} <= set(commands), f"commands without a section: {set(offered) - set(commands)}")
with Terminal(programs, "--no-services", "--history", "on", "--history-interval", "1") as terminal:
    wait_until(lambda: terminal.run(programs["lsctl"], "history").stdout)
    with Client(12, directory=str(terminal.dir / "bus")):
        for command in commands:
            check_command(terminal, command)
print(f"{len(commands)} commands, {len(errors)} errors, {len(wrong)} wrong")
sys.exit(bool(wrong))
