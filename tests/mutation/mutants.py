#!/usr/bin/env -S python3 -B
"""Plants small faults into location_service/src, one at a time, and says which of them no test notices.

    tests/mutation/mutants.py COUNT SEED

The first COUNT of all faults in the order that SEED gives them, without those that do not compile or come
to the same object code. Each goes through the daemon's unit tests; what survives them, then through the system
tests and those between foreign libraries; until one fails. A test that takes too long fails. Survivors that
change nothing that could be seen are in equivalent.txt, each with the reason; they do not count.

All is done in build/mutants, on a copy of the tree. results.json there keeps what was caught: what was interrupted
goes on, and only survivors are tried again. Remove it to begin anew. Exit status: 1 when there are survivors.
"""
import contextlib
import ctypes
import filecmp
import json
import os
import pathlib
import random
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

from faults import faults_of

TREE = pathlib.Path(__file__).resolve().parents[2]
BUILD = TREE / "build/mutants"
COPY = BUILD / "tree"
RESULTS = BUILD / "results.json"
JOBS = 2
UNIT_TESTS = ["tests/unit/daemon/daemon_tests", "tests/system/history_clients_test"]
PROGRAMS = ["location_service", *UNIT_TESTS]
UNIT_LIMIT_S = 30  # of a suite of unit tests; of one test of the others:
LIMIT_S = 120
NOT_RUN = "service_unit|recipes"  # they know nothing of what the daemon does
NO_FAULT, SURVIVED = "no fault", ("unit tests pass", "survived")  # the first: does not compile, or the same code


def run(*command):
    return subprocess.run(command, cwd=BUILD, capture_output=True, text=True)


def kill_children():
    """All of them: what a test leaves behind comes to this process."""
    while children := pathlib.Path(f"/proc/self/task/{os.getpid()}/children").read_text().split():
        for child in map(int, children):
            with contextlib.suppress(ProcessLookupError, ChildProcessError):
                os.kill(child, signal.SIGKILL)
                os.waitpid(child, 0)


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


def build(*targets):
    print("Building", flush=True)
    if (built := run("ninja", f"-j{JOBS}", *targets)).returncode != 0:
        sys.exit(built.stdout)


def prepare():
    """The copy made like the tree, ready to be built."""
    os.makedirs(COPY, exist_ok=True)
    names = run("git", "-C", TREE, "ls-files", "-co", "--exclude-standard").stdout.splitlines()
    for copy in {COPY / name for name in names} | {path for path in COPY.rglob("*") if path.is_file()}:
        source = TREE / copy.relative_to(COPY)
        if not source.is_file():
            copy.unlink(missing_ok=True)
        elif not (copy.is_file() and filecmp.cmp(source, copy, shallow=False)):
            copy.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(source, copy)
    # An index behind the end would be found with the sanitizers only.
    run("cmake", "--preset", "sim", "-S", COPY, "-B", BUILD, "-DCMAKE_CXX_FLAGS=-w -D_GLIBCXX_ASSERTIONS",
        "-DLS_BENCHMARKS=OFF")


def unit_tests():
    for program in UNIT_TESTS:
        for suite in re.findall(r"^(\S+\.)", run(BUILD / program, "--gtest_list_tests").stdout, re.M):
            yield suite, [BUILD / program, "--gtest_fail_fast", f"--gtest_filter={suite}*"], {}, UNIT_LIMIT_S


def system_tests():
    listed = run("ctest", "--show-only=json-v1", "-L", "system|foreign", "-LE", "long", "-E", NOT_RUN).stdout
    for test in json.loads(listed)["tests"]:
        environment = [p["value"] for p in test["properties"] if p["name"] == "ENVIRONMENT"]
        yield test["name"], test["command"], dict(e.split("=", 1) for e in sum(environment, []) if e), LIMIT_S


def measured(tests):
    """The tests, the quickest first. All pass, or this is the end."""
    def seconds(test):
        begun = time.monotonic()
        if first_failure([test]) is not None:
            sys.exit(f"{test[0]} fails without any fault")
        return time.monotonic() - begun

    return sorted(tests, key=seconds)


def verdict(fault, text, clean, tests):
    """What became of a fault: NO_FAULT, who caught it, or None. `clean`: object code without faults, by file."""
    source = COPY / "location_service/src" / fault.name
    kind = "location_service" if fault.name == "gps_main.cpp" else "location_service_modules"
    made = BUILD / f"location_service/CMakeFiles/{kind}.dir/src/{fault.name}.o"
    clean.setdefault(fault.name, made.exists() and made.read_bytes())
    source.write_text(fault.planted(text))
    built = run("ninja", f"-j{JOBS}", *PROGRAMS)
    source.write_text(text)
    if not made.exists() or made.read_bytes() == clean[fault.name]:
        return NO_FAULT
    return "link" if built.returncode != 0 else first_failure(tests)


def equivalent_faults(all_faults):
    entries = (pathlib.Path(__file__).parent / "equivalent.txt").read_text().split("\n\n")
    listed = {"\n".join(entry.strip().splitlines()[:3]) for entry in entries if not entry.startswith("#")}
    for key in listed - {fault.key() for fault in all_faults}:
        print(f"equivalent.txt: there is no such fault any more:\n{key}\n")
    return listed


def main(count, seed):
    ctypes.CDLL(None).prctl(36, 1, 0, 0, 0)  # PR_SET_CHILD_SUBREAPER
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    os.nice(15)
    prepare()
    texts = {path.name: path.read_text() for path in sorted(COPY.glob("location_service/src/*.cpp"))}
    sample = [fault for name, text in texts.items() for fault in faults_of(name, text)]
    equivalent = equivalent_faults(sample)
    print(len(sample), "faults can be planted")
    random.Random(seed).shuffle(sample)
    results = json.loads(RESULTS.read_text()) if RESULTS.exists() else {}
    clean = {}

    def attempt(fault, stage, tests):
        begun, key = time.monotonic(), fault.key()
        results[key] = verdict(fault, texts[fault.name], clean, tests) or SURVIVED[stage]
        RESULTS.write_text(json.dumps(results, indent=0))
        print(f"{fault.name}:{fault.line} {results[key]} {time.monotonic() - begun:.0f} s", flush=True)

    build(*PROGRAMS)
    planted, tests = [], measured(unit_tests())
    for fault in sample:
        if len(planted) < count:
            if fault.key() not in equivalent and results.get(fault.key(), SURVIVED[1]) == SURVIVED[1]:
                attempt(fault, 0, tests)
            if results.get(fault.key()) != NO_FAULT:
                planted.append(fault)
    if left := [fault for fault in planted if results.get(fault.key()) == SURVIVED[0]]:
        build("all")
        tests = measured(system_tests())
        for fault in left:
            attempt(fault, 1, tests)
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
        os.chmod(os.environ["TMPDIR"], 0o755)  # a test asks as another user
        try:
            sys.exit(main(int(sys.argv[1]), int(sys.argv[2])))
        finally:
            kill_children()
