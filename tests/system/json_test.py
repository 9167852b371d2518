"""docs/json.md against what lsctl prints: runs every command of the page with --json on a simulated terminal. Then
what it says to people where the state of the terminal matters, and what it does when nobody takes its output.

Usage: json_test.py SOURCE_DIR DAEMON SIMTERM LSCTL
"""

import json
import pathlib
import re
import signal
import subprocess
import sys

source = pathlib.Path(sys.argv[1])
programs = dict(zip(("daemon", "simterm", "lsctl"), sys.argv[2:5]))
sys.dont_write_bytecode = True
sys.path[:0] = [str(source / "tests/support"), str(source / "client/python")]

from location_client import Client  # noqa: E402
from simulated_terminal import LIMIT_S, Terminal, wait_until  # noqa: E402

# How each command is run so that it succeeds, in all its forms: together they print every key of its table. Those
# without a row are run without arguments.
FORMS = {
    "power": ("", "on --as ws"),
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
ENDLESS = {"history --follow": {"position"}, "stream": {"position", "satellites"}, "stream --listen 0": {"listening"}}
# Runs that have to fail, with their `error`. Commands without a row are run in their first form without a bus, which
# is what the last two errors need.
FAILURES = {
    "power": (("off", "failed"), ("on --as 12", "id_taken"), ("", "no_bus")),
    "watch": (("--as 12", "id_taken"), ("", "no_bus")),
    "history": (("--input / ", "failed"), ("", "no_bus"), ("--follow", "no_bus")),
    "doctor": (("--bundle /nowhere/b", "failed"), ("", "no_bus")),
    "settings": (("--interval x", "usage"), ("--interval 1 --as 12", "id_taken")),
    "static": (("on", "bad_argument"),),
    "wait": (("--timeout 0.2", "timed_out"),),
}

TYPES = {str: {"string"}, int: {"integer", "number"}, float: {"number"}, bool: {"boolean"}, list: {"array"},
         dict: {"object"}, type(None): {"null"}}
is_nested = re.compile(r"[.[]").search
page = (source / "docs/json.md").read_text(encoding="utf-8")
sections = {name.removeprefix("lsctl "): text for name, text in re.findall(r"(?m)^## (.+)\n((?:(?!## ).*\n?)*)", page)}
sections["doctor"] += sections["status"]  # it prints the same
wrong = set()


def check(right, complaint):
    if not right and complaint not in wrong:
        wrong.add(complaint)
        print(complaint)


def rows(text):
    """The rows of all its tables, without their heads: names, and the other two cells."""
    for line in re.findall(r"(?m)^\| `.+", text):
        names, *cells = re.split(r" *\| *", line.strip("|"))
        yield re.findall(r"`([^`]+)`", names), *cells[:2]


def tables_of(section):
    """Of each table the types of its keys, and those keys that are there in some circumstances only. A table behind a
    sentence that begins "`key`, by" has what is in that key, which differs from one object to the next."""
    tables, known = [], []
    for before, text in re.findall(r"(?m)((?:^(?!\|).*\n)*)((?:^\|.*\n?)+)", sections[section]):
        inside = re.match(r"`(.+?)`, by ", before.strip().split("\n\n")[-1])
        prefix = next((key + "." for key in known if inside and f".{key}".endswith(f".{inside[1]}")), "")
        types, optional = {}, set()
        for names, kinds, meaning in rows(text):
            keys = [prefix + name.removesuffix("[]") for name in names]
            kinds = {kind.rstrip("s") for kind in re.findall(r"\w+", re.sub(r" of \w+", "", kinds))}
            types |= dict.fromkeys(keys, kinds)
            optional |= set(keys) if prefix or meaning.lower().startswith("only ") else set()
        tables.append((types, optional))
        known += types
    return tables


def keys_of(value, path=""):
    """Every key in an object with its value: a, a.b, a[].b."""
    for key, inner in value.items():
        yield path + key, inner
        for each in inner if isinstance(inner, list) else [inner]:
            if isinstance(each, dict):
                yield from keys_of(each, f"{path}{key}[]." if isinstance(inner, list) else f"{path}{key}.")


def check_keys(run, found, types, seen, filled):
    for key, value in keys_of(found):
        # An upper-case word in a row stands for any name.
        row = next((row for row in types if re.fullmatch(re.sub(r"[A-Z]+", r"\\w+", re.escape(row)), key)), None)
        inside = {name for name in types if name.startswith((f"{key}.", f"{key}[]."))}
        check(row or inside, f"{run}: `{key}` is printed and not on the page")
        nested = inside and isinstance(value, (list, dict))
        check(not row or nested or TYPES[type(value)] & types[row], f"{run}: `{key}` is {value!r}, not of its type")
        seen.add(row)
        filled |= inside if value else set()


def check_failure(run, status, failure):
    name = failure.get("error")
    check(name in errors and failure.get("text"), f"{run}: error unknown, or no text: {failure}")
    allowed = {3} if "findings" in failure and name not in findings else errors.get(name, set())
    check(status == 0 or status in allowed, f"{run}: exit status {status} with error {name!r}")


def until_classes(terminal, words, classes):
    """The objects of a command without an end, and whether it ended well."""
    objects = []
    with terminal.background(programs["lsctl"], *words, "--json") as process:
        while not classes <= {each.get("class") for each in objects}:
            objects.append(json.loads(process.stdout.readline()))
        process.terminate()
        process.stdout.read()
        return process.wait(LIMIT_S) not in (0, 128 + signal.SIGTERM), objects


def check_command(terminal, command):
    tables = tables_of(command)
    types = {key: kinds for table, _ in tables for key, kinds in table.items()}
    needed = [{*table} - optional - {*filter(is_nested, table)} for table, optional in tables]
    seen, filled = set(), set()
    forms = FORMS.get(command, ("",))
    for form, error in (*((form, None) for form in forms), *FAILURES.get(command, ((forms[0], "no_bus"),))):
        words = [command, *form.split()]
        run = f"lsctl {' '.join(words)} ({error or 'succeeds'})"
        endless = not error and ENDLESS.get(" ".join(words))
        lost = {"MQUTILS_DIR": str(terminal.dir / "nowhere")} if error in ("no_bus", "timed_out") else {}
        status, objects = until_classes(terminal, words, endless) if endless else terminal.lsctl(*words, **lost)
        check(objects and (objects[-1].get("error") == error if error else status == 0), f"{run}: {status}, {objects}")
        check(not error or status != 0, f"{run}: exit status 0")
        for found in objects:
            streams = command in ("watch", "stream") or "--follow" in form
            failure = {key: found.pop(key) for key in ("error", "text") if key in found}
            if failure:
                check_failure(run, status, {**found, **failure})
            if error:
                check(found.get("class") == ("error" if streams else None), f"{run}: class in {found}")
            check_keys(run, found, {**types, "class": {"string"}} if failure else types, seen, filled)
            absent = min((keys - {*found} for keys in needed), key=len)
            check(failure or not absent, f"{run}: on the page and not printed: {absent}")
    for key in {key for table, optional in tables for key in {*table} - optional - seen}:
        check(is_nested(key) and key not in filled, f"lsctl {command}: `{key}` is on the page and never printed")
    print(f"lsctl {command}: {len(types)} keys")


def statuses_of(section):
    return {name: set(map(int, re.findall(r"\d", status))) for names, status, _ in rows(sections[section])
            for name in names}


findings = statuses_of("Findings")
errors = statuses_of("Errors")
code, judged = ("".join(path.read_text(encoding="utf-8") for path in source.glob(f"client/lsctl/**/{name}.cpp"))
                for name in ("*", "findings*"))
in_code = dict(re.findall(r'"(\w+)", LSCTL_(\w+)', code))
statuses = {"OK": 0, "FAILED": 1, "USAGE": 2, "NO_ANSWER": 3}
missing = {name for name, status in in_code.items() if name != "answered"
           if statuses[status] not in errors.get(name, ())}
missing |= set(re.findall(r'lsctl_fail_with\(\s*\w+,\s*"(\w+)"', code)) - set(errors)
check(len(in_code) > 1 and not missing, f"errors: not on the page: {missing}")
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
    with Client(6, directory=str(terminal.dir / "bus")) as ws:
        ws.set_power(0)
        said = terminal.run(programs["lsctl"], "power", "on").stderr
        check("service 32 may not switch on a receiver that is off; lsctl power on --as 9 " in said, said)  # 6 is taken
        ws.set_power(2)
    for line, status, said in (
            ("power --json >/dev/full", 1, "lsctl: cannot write to the standard output: No space left on device\n"),
            ("watch --json -i 4 | true", 128 + signal.SIGPIPE, ""),
            ("watch --json -n 1", 0, "")):  # the one before is not registered any more
        done = terminal.run("bash", "-c", f"{programs['lsctl']} {line}; exit ${{PIPESTATUS[0]}}")
        check((done.returncode, done.stderr) == (status, said), f"lsctl {line}: {done}")
print(f"{len(commands)} commands, {len(errors)} errors, {len(wrong)} wrong")
sys.exit(bool(wrong))
