#!/usr/bin/env -S python3 -B
"""Every fault against every request: what lsctl gets, how long that takes, and whether the next request succeeds once
the fault is gone. Prints it as a Markdown table. Exit status 1: something is not as it has to be (told on stderr).

Usage: matrix.py BUILD_DIR [FAULT...]

What needs the preloaded library, failing_calls, is left out in a build that has none (one with sanitizers), and the
full disk where the kernel gives users no file system of their own.
"""

import atexit
import concurrent.futures
import dataclasses
import itertools
import mmap
import os
import pathlib
import re
import resource
import shutil
import signal
import socket
import sqlite3
import struct
import subprocess
import sys
import tempfile
import threading
import time
import typing

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))

from simulated_terminal import LIMIT_S, Terminal, wait_until  # noqa: E402

BUILD = pathlib.Path(sys.argv[1]).resolve()
DAEMON = BUILD / "location_service/location_service"
TOOLS = {"simterm": BUILD / "simulator/simterm", "lsctl": BUILD / "client/lsctl"}
CALLS = BUILD / "tests/faults/libfailing_calls.so"
# Under a sanitizer lsctl does not look for what it loads by name where the program does.
os.environ["LD_LIBRARY_PATH"] = str(BUILD / "platform/dbhandler")
# Words of the record in failing_calls.cpp.
CLOCK, THREADS, RECORD, FAIL_OWN, FAIL_CALLER, FAIL_TIMES, FAILED, SITES, FIRST_SITE = range(9)

REQUESTS = {name: name.split() for name in ("position", "time", "speed", "satellites", "power", "history", "status")}
REQUESTS |= {name: words.split() for name, words in {
    "lpp": "lpp --timeout 4", "nmea": "nmea PUBX,04", "ubx": "ubx 06 08", "watch": "watch -n 2 -i 4",
    "power off": "power off --as 9", "power on": "power on --as 9"}.items()}
WATCH_S = 4  # between its two updates
# Beyond the waits that a request may have by the rules: the machine is busy, and sanitizers are slow.
SLACK_S = 10 if CALLS.exists() else 30


class Bench:
    """A simulated terminal whose daemon is started here."""

    def __init__(self, options):
        alone = () if options else ("--no-services",)
        self.terminal = Terminal(TOOLS, *options, *alone)
        self.dir = self.terminal.dir
        self.requests = [name for name in REQUESTS if alone or name != "lpp"]  # SAL asks that, and is there else
        with open(self.dir / "user/gps_control_prm.txt", "a", encoding="utf-8") as parameters:
            parameters.write("RFFE_REQUEST_SEMAPHORE_WAIT_TIME 2\nGPS_GET_POS_BUFFER_TIME 0.0\n")
        line = b"2026-01-01 00:00:00,2D,70.132317N,11.516667E,+2.25m,08\n"
        (self.dir / "user/location/location_history").write_bytes(struct.pack("<II", 8, 8 + len(line)) + line)
        self.environment = dict(self.terminal.environment)
        self.logs = self.dir.parent / "stderr", self.dir / "log/terminal.log"
        self.daemon, self.before, self.held, self.at_end = None, (), None, lambda: None
        if CALLS.exists():
            path = self.dir.parent / "calls"
            path.write_bytes(bytes(8 * 8 + 16 * 1024))
            self.environment.update(LD_PRELOAD=str(CALLS), FAILING_CALLS=str(path))
            with open(path, "r+b") as file:
                self.calls = memoryview(mmap.mmap(file.fileno(), 0)).cast("Q")

    def log_to(self, target, key, path):
        """Where the daemon logs from its next start on."""
        conf = self.dir / "etc/terminal.conf"
        text = re.sub("(?m)^(target|file)=.*\n", "", conf.read_text(encoding="utf-8"))
        conf.write_text(text.replace("[log]", f"[log]\ntarget={target}\n{key}={path}"), encoding="utf-8")

    def start(self):
        """How it went: "ready", or how the daemon ended; and the seconds that took."""
        for _ in range(2):  # what the daemon before left to do on the lines has been done then
            self.terminal.ctl("power")
        wait_until(self.has_lines)
        said = [path.stat().st_size if path.exists() else 0 for path in self.logs]
        begin = time.monotonic()
        with open(self.logs[0], "ab") as errors:
            self.daemon = subprocess.Popen([*self.before, DAEMON], cwd=self.dir, env=self.environment,
                                           stdin=subprocess.DEVNULL, stdout=errors, stderr=errors)
        wait_until(lambda: self.daemon.poll() is not None or self.is_ready())
        took = time.monotonic() - begin
        if self.daemon.returncode is None:
            self.ask("power")  # its main loop is still to begin
        got = how_it_ended(self.daemon.poll())
        words = b"".join(path.read_bytes()[size:] for path, size in zip(self.logs, said) if path.exists())
        if got.startswith("SIG") and re.search(b"GLib.*(failed to|Cannot) allocate", words):
            got = "ended by GLib"
        elif got != "ready" and not re.search(rb" error \w+:\d+: ", words):
            got += " without a word"
        return got, took

    def has_lines(self):
        """Whether the receiver's power lines are exported, as at boot."""
        gpio = self.dir / "sys/class/gpio"
        missing = [line for line in ("102", "37") if not (gpio / f"gpio{line}/direction").exists()]
        if missing:
            (gpio / "export").write_text(missing[0], encoding="ascii")
        return not missing

    def is_ready(self):
        """Whether it catches the last signal that it installs a handler for."""
        status = pathlib.Path(f"/proc/{self.daemon.pid}/status").read_text(encoding="ascii")
        return int(re.search(r"SigCgt:\s*(\w+)", status)[1], 16) >> (signal.SIGRTMIN + 1 - 1) & 1

    def stop(self):
        self.daemon.terminate()
        return how_it_ended(self.daemon.wait(LIMIT_S))

    def ask(self, request, timeout=20):
        """What a request got: "ok", or the name of its error; and the seconds that took."""
        words = REQUESTS[request]
        begin = time.monotonic()
        status, objects = self.terminal.lsctl(*words, *(() if "--timeout" in words else ("--timeout", str(timeout))))
        took = time.monotonic() - begin
        return "ok" if status == 0 else objects[-1]["error"] if objects else how_it_ended(status), took

    def peer(self, serv_id):
        """A service on the bus that reads nothing."""
        self.held = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.held.bind(str(self.dir / f"bus/{serv_id}"))

    def fill(self, address):
        """Fills the queue of a socket that is not read."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.setblocking(False)
            try:
                while sender.sendto(bytes(20), str(self.dir / address)):
                    pass
            except BlockingIOError:
                pass


def how_it_ended(status):
    return "ready" if status is None else f"exit status {status}" if status >= 0 else signal.Signals(-status).name


# Switches: switch(bench, on).

def simterm(*words):
    return lambda bench, on: bench.terminal.ctl("fault", *words, "on" if on else "off")


def unplugged(bench, on):
    simterm("unplugged")(bench, on)
    wait_until(lambda: os.path.lexists(bench.dir / "dev/ttymxc2") != on)


def after(switch, request=None):
    """What a fault leaves behind that is over."""
    def both(bench, on):
        if on:
            switch(bench, True)
            if request:
                bench.ask(request)
            switch(bench, False)
    return both


def word(index, value):
    def switch(bench, on):
        bench.calls[index] = value & (1 << 64) - 1 if on else 0
    return switch


def starve(times):
    """No memory at `bench`.site, so many times."""
    def switch(bench, on):
        bench.calls[FAIL_TIMES] = 0
        if on:
            bench.calls[FAILED], bench.calls[FAIL_OWN], bench.calls[FAIL_CALLER] = 0, *bench.site
            bench.calls[FAIL_TIMES] = times
    return switch


def stopped(bench, on):
    bench.terminal.process.send_signal(signal.SIGSTOP if on else signal.SIGCONT)


def ta_gone(bench, on):
    names = [bench.dir / "bus/12", bench.dir / "bus/12.gone"]
    os.rename(*(names if on else names[::-1]))


def peer_full(serv_id, before=lambda bench, on: None):
    def switch(bench, on):
        before(bench, on)
        if on:
            bench.peer(serv_id)
            return bench.fill(f"bus/{serv_id}")
        bench.held.close()
        (bench.dir / f"bus/{serv_id}").unlink()
    return switch


def client_that(reads_nothing):
    def switch(bench, on):
        if on:
            bench.peer(40)
            for transaction in range(100):
                bench.held.sendto(struct.pack("<BBBBIIII", 0, 0, 40, 8, 1003, transaction, 0, 0),
                                  str(bench.dir / "bus/8"))
        if not on or not reads_nothing:
            bench.held.close()
        if not on:
            (bench.dir / "bus/40").unlink()
    return switch


def settings_locked(mode):
    def switch(bench, on):
        if not on:
            return bench.held.close()
        bench.held = sqlite3.connect(bench.dir / "user/settings.db", isolation_level=None, check_same_thread=False)
        bench.held.execute(f"PRAGMA locking_mode={mode}")
        bench.held.execute("BEGIN EXCLUSIVE")
    return switch


def descriptors_used_up(bench, on):
    pid, used = bench.daemon.pid, {int(name) for name in os.listdir(f"/proc/{bench.daemon.pid}/fd")}
    hard = resource.prlimit(pid, resource.RLIMIT_NOFILE)[1]
    resource.prlimit(pid, resource.RLIMIT_NOFILE, (min(set(range(len(used) + 1)) - used) if on else hard, hard))


def descriptors_few(bench, on):
    bench.before = ("prlimit", "--nofile=6") if on else ()


def on_a_small_disk(bench):
    """All that the daemon writes gets a file system of its own, the log as well."""
    user, kept = bench.dir / "user", bench.dir / "kept"
    user.rename(kept)
    user.mkdir()
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=512k", "tmpfs", user], check=True)
    bench.at_end = lambda: subprocess.run(["umount", user], check=True)
    shutil.copytree(kept, user, dirs_exist_ok=True)
    bench.log_to("file", "file", user / "terminal.log")


def disk_full(bench, on):
    filler = bench.dir / "user/filler"
    if not on:
        return filler.unlink()
    for size in (4096, 1):
        with open(filler, "ab", buffering=0) as file:
            try:
                while file.write(b"x" * size):
                    pass
            except OSError:
                pass


def logging_to_a_socket(bench):
    """A log daemon that reads while `reading` is set."""
    held, bench.reading = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM), threading.Event()
    held.bind(str(bench.dir / "log/socket"))
    bench.log_to("syslog", "socket", bench.dir / "log/socket")
    bench.reading.set()

    def read():
        while bench.reading.wait():
            held.recv(4096)

    threading.Thread(target=read, daemon=True).start()


def log_hangs(bench, on):
    if not on:
        return bench.reading.set()
    bench.reading.clear()
    bench.fill("log/socket")


@dataclasses.dataclass
class Fault:
    name: str
    switch: typing.Callable
    expected: dict = dataclasses.field(default_factory=dict)  # what requests get; those without a row "ok"
    _: dataclasses.KW_ONLY
    options: tuple = ()
    wait: float = 0  # seconds for which the longest request may wait, by the rules
    timeout: float = 10  # of lsctl, where no answer comes
    requests: tuple = ()  # that are asked, in place of all, and of "start" when something is expected of that
    restart: bool = False  # the daemon has to be started anew behind it
    again: int = 1  # requests behind it, of which one has to succeed
    prepare: typing.Callable = None
    part: slice = None  # of the call sites of allocations

    def expects(self, request):
        return next((got for names, got in self.expected.items() if request in names.split(", ")), "")


BOARD_2 = ("--board", "2")
ASKED = "position, time, speed, satellites, status"
ALL = ", ".join(REQUESTS)
UNPOWERED = tuple(name for name in REQUESTS if name not in ("power off", "power on"))
LINE_GONE = {ASKED: "line_gone", "lpp": "no_reply", "nmea, ubx, watch": "failed", "start": "exit status 255"}
# A request through the TA is answered by nothing, or by the late answer to another one. What is lost for good
# leaves the service out of step with the TA until it is started anew.
TA_LOST = {ASKED: "ta_silent", "nmea, ubx, watch": "failed"}
TA_OUT = {ASKED: "ta_out_of_step", "nmea, ubx, watch": "failed"}
TA_LATE = {ASKED: "ok|ta_silent|ta_out_of_step|late_answers", "nmea": "ok|failed|other", "ubx": "ok|failed|noise",
           "watch": "failed"}
# By the rules a request without a worker, or whose reply has no header, gets no answer; without a header for the TA a
# command is answered by nothing. GLib ends a program that has no memory, by its design: a start may end so while the
# HAL reads its configuration, and where the main loop is made.
MEMORY = {"nmea": "ok|no_reply|receiver_timeout", ALL: "ok|no_reply",
          "start": "ready|exit status (1|255)|ended by GLib"}
FAULTS = [
    Fault("none", lambda bench, on: None, {"start": "ready"}),
    Fault("silent", simterm("silent"), {ASKED: "receiver_silent", "lpp": "lpp_empty",
                                        "nmea, ubx, watch": "receiver_timeout"}, wait=9),
    Fault("cut", simterm("cut"), {ASKED: "cut_answers", "lpp": "no_reply", "nmea, ubx": "cut", "watch": "failed"}),
    Fault("checksum", simterm("checksum"), {ASKED: "wrong_checksums", "lpp": "no_reply", "nmea, ubx": "wrong_checksum",
                                            "watch": "failed"}),
    Fault("garbage-before", simterm("garbage-before"), {ASKED: "noise", "lpp": "no_reply", "watch": "failed"}),
    Fault("garbage-after", simterm("garbage-after"), {"status": "noise"}),
    # A bit or two of every answer, and of the question: whatever comes of that.
    Fault("noise", simterm("noise"), {
        ASKED: "ok|wrong_checksums|cut_answers|noise|receiver_silent|late_answers",
        "lpp": "ok|lpp_empty|no_reply", "nmea, ubx": "ok|wrong_checksum|noise|cut|other|receiver_timeout",
        "watch": "ok|failed|receiver_timeout"}, wait=9),
    Fault("late", simterm("late"), {ASKED: "late_answers|receiver_silent", "lpp": "lpp_empty",
                                    "nmea, ubx, watch": "receiver_timeout"}, wait=9, again=4),
    Fault("unplugged", unplugged, LINE_GONE, restart=True),
    Fault("unplugged, and in again", after(unplugged), {**LINE_GONE, ASKED: "line_lost", "start": "ready"},
          restart=True),
    Fault("unplugged, and WS reads nothing", peer_full(6, unplugged), LINE_GONE, wait=3, restart=True),
    Fault("nak=0608", simterm("nak", "0608"), {"ubx": "refused"}),
    Fault("ignore=0608", simterm("ignore", "0608"), {"ubx": "receiver_timeout"}, wait=3),
    Fault("no-fix", simterm("no-fix"), {"position, speed, status": "no_fix", "lpp": "no_reply", "watch": "failed"}),
    Fault("empty-fields", simterm("empty-fields"), {ASKED: "empty_answers", "lpp": "no_reply", "watch": "failed"}),
    Fault("week-rollover", simterm("week-rollover"), {"status": "wrong_date"}),
    Fault("none, board 2", lambda bench, on: None, {"start": "ready"}, options=BOARD_2),
    Fault("silent, board 2", simterm("silent"), TA_LATE, options=BOARD_2, wait=6, restart=True),
    Fault("ta-silent", simterm("ta-silent"), TA_LOST, options=BOARD_2, wait=6, restart=True),
    Fault("ta-silent=once", simterm("ta-silent", "once"), TA_LOST, options=BOARD_2, wait=6, restart=True),
    Fault("an answer of the TA was lost", after(simterm("ta-silent", "once"), "nmea"), TA_OUT,
          options=(*BOARD_2, "--baud", "9600"), wait=6, restart=True),
    Fault("ta-late=4000", simterm("ta-late", "4000"), TA_LATE, options=BOARD_2, wait=6, again=3),
    Fault("ta-overlong", simterm("ta-overlong"), {ASKED: "ta_bad_answer", "nmea, ubx, watch": "failed"},
          options=BOARD_2),
    Fault("the TA is stopped", stopped, TA_LOST, options=BOARD_2, wait=6, again=3),
    Fault("the TA is gone", ta_gone, {ASKED: "ta_absent", "nmea, ubx, watch": "failed"}, options=BOARD_2),
    # No power change: each query that is in line then would wait 3 s for a receiver that is off.
    Fault("a client asked 100 times and is gone", client_that(reads_nothing=False), wait=3, requests=UNPOWERED),
    Fault("a client asked 100 times and reads nothing", client_that(reads_nothing=True), wait=3, requests=UNPOWERED),
    Fault("VoIP reads nothing", peer_full(3), {"start": "ready"}, wait=1, requests=("start", "power")),
    Fault("settings locked", settings_locked("NORMAL"), {"start": "ready"}, wait=2),
    Fault("settings locked, for readers too", settings_locked("EXCLUSIVE"), {"start": "exit status 255"}, wait=3,
          requests=("start",)),
    Fault("disk full", disk_full, {"start": "ready", "history": "incomplete"}, wait=1, prepare=on_a_small_disk),
    Fault("log daemon hangs", log_hangs, {"start": "ready"}, wait=1, prepare=logging_to_a_socket),
    Fault("no descriptor left", descriptors_used_up, {"history": "failed"}),
    Fault("six descriptors at the start", descriptors_few, {"start": "exit status (1|255)"}, requests=("start",)),
]
# With the preloaded library. Parts run side by side.
PRELOADED = [
    Fault("clock a year ahead", word(CLOCK, 365 * 86400), {"start": "ready"}),
    Fault("clock a year back", word(CLOCK, -365 * 86400), {"start": "ready"}),
    Fault("no thread can be made", word(THREADS, 1), {ALL: "no_reply", "start": "exit status 1"}, timeout=3),
    *(Fault(f"no memory at one call site, {name}", starve(times), MEMORY, options=options, timeout=2, part=part,
            requests=requests)
      for name, times in (("once", 1), ("for good", 1 << 32))
      for options, part, requests in (
          *(((), slice(first, None, 3), ("start",)) for first in range(3)),
          ((), slice(None), tuple(REQUESTS)[:7]), ((), slice(None), tuple(REQUESTS)[7:]),
          (BOARD_2, slice(None), ("position", "nmea")))),
]


def measure(bench, fault, request):
    """One request under the fault, and those behind it: (request, got, seconds, which one behind it succeeded)."""
    starts = request == "start"
    if starts:
        bench.stop()
    fault.switch(bench, True)
    got, took = bench.start() if starts else bench.ask(request, fault.timeout)
    if bench.daemon.poll() is not None and not starts:
        got = f"{got}; the daemon: {how_it_ended(bench.daemon.returncode)}"
    fault.switch(bench, False)
    if starts or fault.restart or bench.daemon.returncode is not None:
        bench.stop()
        bench.start()
    following = {"power off": "power on", "start": "position"}.get(request, request)
    succeeded = next((n for n in range(1, fault.again + 1) if bench.ask(following)[0] == "ok"), 0)
    return request, got, took, succeeded


def call_sites(bench, request):
    """The call sites of allocations, in the daemon and its libraries, on the way of a request."""
    starts = request == "start"
    if starts:
        bench.stop()
    bench.calls[SITES], bench.calls[RECORD] = 0, 1
    for name in (request, "power on") * (not starts):
        bench.ask(name)
    if starts:
        bench.start()
    bench.calls[RECORD] = 0
    words = bench.calls[FIRST_SITE:FIRST_SITE + 2 * bench.calls[SITES]]
    return list(zip(words[::2], words[1::2]))


def run(fault):
    """The rows of a fault, and complaints."""
    bench, rows, wrong = Bench(fault.options), [], []
    with bench.terminal:
        try:
            if fault.prepare:
                fault.prepare(bench)
            bench.start()
            for request in fault.requests or bench.requests + ["start"] * ("start" in fault.expected):
                for bench.site in call_sites(bench, request)[fault.part] if fault.part else (None,):
                    row = measure(bench, fault, request)
                    if not fault.part or bench.calls[FAILED]:
                        rows.append(row)
            if (end := bench.stop()) != "exit status 0":
                wrong.append(f"the daemon ended with {end}")
        finally:
            bench.daemon.kill()
            bench.at_end()
    for request, got, took, succeeded in rows:
        if not re.fullmatch(fault.expects(request) or "ok", got):
            wrong.append(f"{request} got {got}")
        if took > fault.wait + SLACK_S + WATCH_S * (request == "watch"):
            wrong.append(f"{request} took {took:.1f} s")
        if not succeeded:
            wrong.append(f"{request} did not succeed behind it")
    return rows, [f"{fault.name}: {text}" for text in wrong]


def print_rows(fault, rows):
    """One row of the table for all requests of a fault that got the same."""
    groups = {}
    for request, got, took, succeeded in rows:
        groups.setdefault(got, {}).setdefault(request, []).append((took, succeeded or 1000))
    for got, asked in groups.items():
        cells = [f"{request} {min(each)[0]:.2f}" + f" to {max(each)[0]:.2f} ({len(each)} sites)" * (len(each) > 1)
                 for request, each in asked.items()]
        worst = max(succeeded for each in asked.values() for _, succeeded in each)
        behind = "ok" if worst == 1 else f"ok, number {worst} at the latest" if worst < 1000 else "**fails**"
        behind += " after a restart" * fault.restart
        print(f"| {fault.name} | {got} | {', '.join(cells)} | {behind} |", flush=True)


def may_mount():
    """Whether this program is in a namespace of its own, where file systems may be mounted; gets it into one. All is
    then in memory, so that a slow disk is not taken for a fault."""
    own = ["unshare", "--map-root-user", "--mount"]
    if "FAULTS_INSIDE" not in os.environ:
        if subprocess.run([*own, "true"], stderr=subprocess.DEVNULL).returncode:
            return False
        os.execvpe(own[0], [*own, sys.executable, "-B", *sys.argv], {**os.environ, "FAULTS_INSIDE": "1"})
    tempfile.tempdir = tempfile.mkdtemp()
    subprocess.run(["mount", "-t", "tmpfs", "tmpfs", tempfile.tempdir], check=True)
    atexit.register(lambda: (subprocess.run(["umount", "-l", tempfile.tempdir]), os.rmdir(tempfile.tempdir)))
    return True


def main():
    mounting, complaints = may_mount(), []
    chosen = FAULTS + PRELOADED * CALLS.exists()
    chosen = [fault for fault in chosen if (not sys.argv[2:] or fault.name in sys.argv[2:])
              and (mounting or fault.prepare != on_a_small_disk)]
    print("| Fault | Gets | Requests, seconds | Next request |\n|---|---|---|---|")
    with concurrent.futures.ThreadPoolExecutor(10) as pool:
        done = zip(chosen, pool.map(run, chosen))
        for _, parts in itertools.groupby(done, lambda each: each[0].name):
            parts = list(parts)
            print_rows(parts[0][0], [row for _, (rows, _) in parts for row in rows])
            complaints += [text for _, (_, wrong) in parts for text in wrong]
    with Terminal(TOOLS, "--no-services") as terminal:
        names = re.findall(r"(?m)^[\w-]+", terminal.run(TOOLS["simterm"], "ctl", terminal.dir, "faults").stdout)
    rows = {re.split("[=,]", fault.name)[0] for fault in FAULTS}
    complaints += [f"no row for {name}" for name in names or ("any fault",) if name not in rows]
    if complaints:
        sys.exit("\n".join(complaints))


if __name__ == "__main__":
    main()
