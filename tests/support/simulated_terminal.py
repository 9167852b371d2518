"""A simulated terminal with the daemon in it, for tests in Python."""

import contextlib
import json
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import time

LIMIT_S = 60  # far above what anything takes on a busy machine


class Terminal:
    """Ready when made; `options` are those of simterm run. To be used in a with statement."""

    def __init__(self, programs, *options, name="t"):
        self.programs = programs  # "simterm", "lsctl" and, unless the test starts it, "daemon": their paths
        self.scratch = tempfile.TemporaryDirectory()
        self.dir = pathlib.Path(self.scratch.name, name)
        self.environment = {**os.environ, "PYTHONDONTWRITEBYTECODE": "1"}
        self.ended = None  # how the daemon did, when the test has waited for that
        self.said = open(pathlib.Path(self.scratch.name, "said"), "a", encoding="utf-8")
        options = options if "--baud" in options else ("--baud", "0", *options)
        # The command begins when the daemon serves requests, tells what simterm set for it, and ends with its input.
        self.process = subprocess.Popen(
            [programs["simterm"], "run", self.dir, *(("--daemon", programs["daemon"]) if "daemon" in programs else ()),
             "--instant-fix", *options, "--", "sh", "-c", "env; echo up; exec cat"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self.said, text=True)
        for line in iter(self.process.stdout.readline, "up\n"):
            if not line:
                sys.exit(f"no terminal: {self.what_it_said()}")
            name, _, value = line.rstrip("\n").partition("=")
            if str(self.dir) in value:
                self.environment[name] = value

    def __enter__(self):
        return self

    def __exit__(self, *failure):
        self.process.stdin.close()
        status = self.process.wait(LIMIT_S)
        if failure[0] or status and not self.ended:
            print(self.what_it_said()[-4000:], self.log()[-4000:])
        assert status == 0 or self.ended, f"simterm ended with {status}"
        self.process.stdout.close()
        self.said.close()
        self.scratch.cleanup()

    def what_it_said(self):
        return pathlib.Path(self.said.name).read_text(encoding="utf-8", errors="replace")

    def file(self, name):
        return (self.dir / name).read_text(errors="replace")

    def log(self):
        return self.file("log/terminal.log")

    def daemon(self):
        """The process id of the one that was started last."""
        return int(re.findall(r"daemon started, process (\d+)", self.what_it_said())[-1])

    def until_ready(self):
        """Waits for the end of the daemon's start: until it catches the last signal that it installs a handler for; in
        an emulator, which itself catches most signals, the first. Returns the terminal."""
        witness = signal.SIGTSTP if "/emulated/" in str(self.programs["daemon"]) else signal.SIGRTMIN + 1
        wait_until(lambda: catches(self.daemon(), witness))
        return self

    def end_of_daemon(self):
        """Waits for one that was told to end, and simterm with it: "exit status 0", "signal 15 (Terminated)"."""
        self.process.wait(LIMIT_S)
        self.ended = re.findall(r"(?:daemon stopped|the daemon died): (.*)", self.what_it_said())[-1]
        return self.ended

    @contextlib.contextmanager
    def background(self, *command):
        """A process with its output in a pipe, killed at the end of the with statement if it is there then."""
        with subprocess.Popen([str(word) for word in command], env=self.environment, text=True,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE) as process:
            try:
                yield process
            finally:
                process.kill()

    def run(self, *command, **more):
        return subprocess.run([str(word) for word in command], env={**self.environment, **more}, timeout=LIMIT_S,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

    def ctl(self, *words):
        done = self.run(self.programs["simterm"], "ctl", self.dir, *words)
        assert done.returncode == 0, done.stderr

    def lsctl(self, *arguments, **more):
        """Exit status, and the objects that it printed with --json."""
        done = self.run(self.programs["lsctl"], *arguments, "--json", **more)
        objects, rest = [], done.stdout.strip()
        while rest:
            found, end = json.JSONDecoder().raw_decode(rest)
            objects, rest = [*objects, found], rest[end:].lstrip()
        return done.returncode, objects


def catches(pid, number):
    """Whether a process has a handler for this signal."""
    status = pathlib.Path(f"/proc/{pid}/status").read_text(encoding="ascii")
    return int(re.search(r"SigCgt:\s*(\w+)", status)[1], 16) >> (number - 1) & 1


def wait_until(done):
    """Asks until it is so, and returns what `done` returned."""
    limit = time.monotonic() + LIMIT_S
    while not (result := done()):
        assert time.monotonic() < limit, "not in time"
        time.sleep(0.02)
    return result
