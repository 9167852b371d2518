#!/usr/bin/env -S python3 -B
"""Plants small faults into location_service/src, one at a time, and says which of them no test notices.

    tests/mutation/mutants.py COUNT SEED

The first COUNT of all faults in the order that SEED gives them, without those that do not compile or come
to the same object code. Each goes through the daemon's unit tests; what survives them, then through the system
tests and those between foreign libraries; until one fails. A test that takes too long fails. Survivors that
change nothing that could be seen are in equivalent.txt, each with the reason; they do not count.

All is built in build/mutants, where results.json keeps what was caught: what was interrupted goes on, and only
survivors are tried again. Remove it to begin anew. Exit status: 1 when there are survivors.
"""
import ctypes
import json
import os
import pathlib
import random
import re
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import time

from faults import faults_of

TREE = pathlib.Path(__file__).resolve().parents[2]
SOURCES = TREE / "location_service/src"
BUILD = TREE / "build/mutants"
RESULTS = BUILD / "results.json"
JOBS = 2
UNIT_TESTS = ["tests/unit/daemon/*_test", "tests/system/history_clients_test"]
UNIT_LIMIT_S = 30  # of a program of unit tests; of one test of the others:
LIMIT_S = 120
NOT_RUN = re.compile("service_unit|recipes")  # they know nothing of what the daemon does
NO_FAULT, SURVIVED = "no fault", ("unit tests pass", "survived")  # the first: does not compile, or the same code


def run(*command, **options):
    return subprocess.run(command, cwd=BUILD, capture_output=True, text=True, **options)


def commands(target):
    return run("ninja", "-t", "commands", target, check=True).stdout.splitlines()


def kill_children():
    """All of them: what a test leaves behind comes to this process."""
    while children := pathlib.Path(f"/proc/self/task/{os.getpid()}/children").read_text().split():
        for child in map(int, children):
            try:
                os.kill(child, signal.SIGKILL)
                os.waitpid(child, 0)
            except (ProcessLookupError, ChildProcessError):
                pass


def first_failure(tests):
    """Runs tests (name, command, environment, limit), JOBS at a time; the name of one that failed, or None."""
    waiting, running, failed = list(tests), {}, None
    while (waiting or running) and failed is None:
        while waiting and len(running) < JOBS:
            name, command, environment, limit_s = waiting.pop(0)
            started = subprocess.Popen(
                command, cwd=BUILD, env=os.environ | environment, start_new_session=True,
                stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            running[started] = (name, time.monotonic() + limit_s)
        time.sleep(0.02)
        for process, (name, deadline) in list(running.items()):
            if process.poll() is not None:
                del running[process]
                if process.returncode != 0:
                    failed = name
            elif time.monotonic() > deadline:
                failed = f"{name} (time)"
    kill_children()
    return failed


class Bench:
    """A build of the project in which one object at a time is another."""

    def __init__(self):
        os.makedirs(BUILD, exist_ok=True)
        run("cmake", "--preset", "sim", "-S", TREE, "-B", BUILD, check=True)
        print("Building", flush=True)
        built = run("ninja", f"-j{JOBS}")
        if built.returncode != 0:
            sys.exit(built.stdout)
        self.planted, self.object = BUILD / "planted", BUILD / "planted/fault.o"
        shutil.rmtree(self.planted, ignore_errors=True)
        self.planted.mkdir()
        self.program = self.planted / "unit_tests"
        self.programs = sorted(str(p.relative_to(BUILD)) for t in UNIT_TESTS for p in BUILD.glob(t))
        self.links = [self.unit_link(), shlex.split(self.last_link("location_service"))]
        self.clean = {}  # object code of the sources as they are
        self.link(None)
        self.tests = [self.measured(self.unit_tests()), None]

    @staticmethod
    def last_link(target):
        return commands(target)[-1].split("&&")[1].strip()

    def unit_link(self):
        """All the daemon's unit tests as one program: linked once, where each has a link of its own."""
        arguments, output = {}, None
        for program in self.programs:
            for argument in shlex.split(self.last_link(program)):
                arguments[argument] = argument.endswith(".o")
                if output == "-o":
                    del arguments[argument]
                output = argument
        del arguments["-o"]
        objects = [a for a, is_object in arguments.items() if is_object]
        others = [a for a, is_object in arguments.items() if not is_object]
        return others[:1] + objects + others[1:] + ["-o", str(self.program)]

    def compile(self, name, text):
        """Whether it compiles; the object is there then."""
        source = self.planted / name
        source.write_text(text)
        kind = "location_service" if name == "gps_main.cpp" else "location_service_modules"
        self.replaced = f"location_service/CMakeFiles/{kind}.dir/src/{name}.o"
        command = [str(source) if a == str(SOURCES / name) else a for a in shlex.split(commands(self.replaced)[-1])
                   if a != "-Werror"]
        command[command.index("-o") + 1] = str(self.object)
        for option in ("-MD", "-MT", "-MF"):
            at = command.index(option)
            del command[at : at + (1 if option == "-MD" else 2)]
        self.object.unlink(missing_ok=True)
        # An index behind the end would be found with the sanitizers only.
        return run(*command, "-w", "-D_GLIBCXX_ASSERTIONS").returncode == 0

    def link(self, replaced):
        for command in self.links:
            if run(*[str(self.object) if a == replaced else a for a in command]).returncode != 0:
                return "link"
        return None

    def unit_tests(self):
        """One process for each of the test programs, as they expect it."""
        tests = []
        for program in self.programs:
            listed = run(str(BUILD / program), "--gtest_list_tests").stdout
            suites = ":".join(re.findall(r"^(\S+\.)", listed, re.M)).replace(".", ".*")
            tests.append((program, [self.program, "--gtest_fail_fast", f"--gtest_filter={suites}"], {}, UNIT_LIMIT_S))
        return tests

    @staticmethod
    def system_tests():
        tests = []
        for label in ("system", "foreign"):
            listed = json.loads(run("ctest", "--show-only=json-v1", "-L", label, "-LE", "long").stdout)
            for test in listed["tests"]:
                properties = {p["name"]: p["value"] for p in test["properties"]}
                environment = dict(e.split("=", 1) for e in properties.get("ENVIRONMENT", []) if e)
                if not NOT_RUN.search(test["name"]):
                    tests.append((test["name"], test["command"], environment, LIMIT_S))
        return tests

    def measured(self, tests):
        """The tests, the quickest first. All pass, or this is the end."""
        times = {}
        for test in tests:
            begun = time.monotonic()
            if first_failure([test]) is not None:
                sys.exit(f"{test[0]} fails without any fault")
            times[test[0]] = time.monotonic() - begun
        return sorted(tests, key=lambda test: times[test[0]])

    def verdict(self, fault, text, stage):
        """What became of a fault in a stage: NO_FAULT, SURVIVED[stage] or who caught it."""
        name = fault.name
        if self.tests[stage] is None:
            self.link(None)
            self.tests[stage] = self.measured(self.system_tests())
        if name not in self.clean:
            self.compile(name, text)
            self.clean[name] = self.object.read_bytes()
        if not self.compile(name, fault.planted(text)) or self.object.read_bytes() == self.clean[name]:
            return NO_FAULT
        return self.link(self.replaced) or first_failure(self.tests[stage]) or SURVIVED[stage]


def equivalent_faults(all_faults):
    listed = set()
    for entry in (pathlib.Path(__file__).parent / "equivalent.txt").read_text().split("\n\n"):
        if not entry.startswith("#"):
            listed.add("\n".join(entry.strip().splitlines()[:3]))
    for key in listed - {fault.key() for fault in all_faults}:
        print(f"equivalent.txt: there is no such fault any more:\n{key}\n")
    return listed


def main(count, seed):
    ctypes.CDLL(None).prctl(36, 1, 0, 0, 0)  # PR_SET_CHILD_SUBREAPER
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    os.nice(15)
    texts = {path.name: path.read_text() for path in sorted(SOURCES.glob("*.cpp"))}
    sample = [fault for name, text in texts.items() for fault in faults_of(name, text)]
    equivalent = equivalent_faults(sample)
    print(len(sample), "faults can be planted")
    random.Random(seed).shuffle(sample)
    bench = Bench()
    results = json.loads(RESULTS.read_text()) if RESULTS.exists() else {}

    def attempt(fault, stage):
        begun, key = time.monotonic(), fault.key()
        results[key] = bench.verdict(fault, texts[fault.name], stage)
        RESULTS.write_text(json.dumps(results, indent=0))
        print(f"{fault.name}:{fault.line} {results[key]} {time.monotonic() - begun:.0f} s", flush=True)

    planted = []
    for fault in sample:
        if len(planted) < count:
            if fault.key() not in equivalent and results.get(fault.key(), SURVIVED[1]) == SURVIVED[1]:
                attempt(fault, 0)
            if results.get(fault.key()) != NO_FAULT:
                planted.append(fault)
    for fault in planted:
        if results.get(fault.key()) == SURVIVED[0]:
            attempt(fault, 1)
    others = [fault for fault in planted if fault.key() not in equivalent]
    survivors = [fault for fault in others if results[fault.key()] == SURVIVED[1]]
    for fault in survivors:
        print(f"\nsurvived: {fault.name}:{fault.line}\n{fault.key()}")
    print(f"\nseed {seed}: {len(planted)} planted, {len(planted) - len(others)} equivalent; of {len(others)} others "
          f"{len(others) - len(survivors)} caught, {len(survivors)} survived")
    return 1 if survivors else 0


if __name__ == "__main__":
    if len(sys.argv) != 3 or not all(argument.isdigit() for argument in sys.argv[1:]):
        sys.exit("usage: mutants.py COUNT SEED")
    # A test that is killed leaves its directory there.
    with tempfile.TemporaryDirectory(prefix="mutants-") as os.environ["TMPDIR"]:
        try:
            sys.exit(main(int(sys.argv[1]), int(sys.argv[2])))
        finally:
            kill_children()
