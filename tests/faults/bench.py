"""A simulated terminal whose daemon is made to suffer: what tests/faults/matrix.py brings up, and the switches of its
faults. The directory of the build is the program's first argument."""

import contextlib
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
import threading
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))

from simulated_terminal import LIMIT_S, Terminal, catches, wait_until  # noqa: E402

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


class Bench(Terminal):
    """A simulated terminal whose daemon is started here."""

    def __init__(self, options):
        alone = () if options else ("--no-services",)
        super().__init__(TOOLS, *options, *alone)
        self.requests = [name for name in REQUESTS if alone or name != "lpp"]  # SAL asks that, and is there else
        with open(self.dir / "user/gps_control_prm.txt", "a", encoding="utf-8") as parameters:
            parameters.write("RFFE_REQUEST_SEMAPHORE_WAIT_TIME 2\nGPS_GET_POS_BUFFER_TIME 0.0\n")
        line = b"2026-01-01 00:00:00,2D,70.132317N,11.516667E,+2.25m,08\n"
        (self.dir / "user/location/location_history").write_bytes(struct.pack("<II", 8, 8 + len(line)) + line)
        self.child, self.before, self.held, self.at_end = None, (), None, lambda: None
        self.preloaded = dict(self.environment)  # the daemon's
        if CALLS.exists():
            path = self.dir.parent / "calls"
            path.write_bytes(bytes(8 * 8 + 16 * 65536))
            self.preloaded.update(LD_PRELOAD=str(CALLS), FAILING_CALLS=str(path))
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
            self.ctl("power")
        wait_until(self.has_lines)
        (self.dir / "log/terminal.log").write_text("")
        begin = time.monotonic()
        with open(self.dir / "../stderr", "wb") as errors:
            self.child = subprocess.Popen([*self.before, DAEMON], cwd=self.dir, env=self.preloaded,
                                          stdin=subprocess.DEVNULL, stdout=errors, stderr=errors)
        wait_until(lambda: self.child.poll() is not None or self.is_ready())
        took = time.monotonic() - begin
        if self.child.returncode is None:
            self.ask("power")  # its main loop is still to begin
        got, words = how_it_ended(self.child.poll()), self.file("../stderr") + self.log()
        if got.startswith("SIG") and re.search("GLib.*(failed to|Cannot) allocate", words):
            got = "ended by GLib"
        elif got != "ready" and not re.search(r" error \w+:\d+: ", words):
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
        return catches(self.child.pid, signal.SIGRTMIN + 1)  # the last one that it installs a handler for

    def stop(self):
        self.child.terminate()
        return how_it_ended(self.child.wait(LIMIT_S))

    def ask(self, request, timeout=20):
        """What a request got: "ok", or the name of its error; and the seconds that took."""
        words = REQUESTS[request]
        begin = time.monotonic()
        status, objects = self.lsctl(*words, *(() if "--timeout" in words else ("--timeout", str(timeout))))
        took = time.monotonic() - begin
        return "ok" if status == 0 else objects[-1]["error"] if objects else how_it_ended(status), took

    def peer(self, serv_id):
        """A service on the bus that reads nothing."""
        self.held = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.held.bind(str(self.dir / f"bus/{serv_id}"))

    def fill(self, address):
        """Fills the queue of a socket that is not read."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender, contextlib.suppress(BlockingIOError):
            sender.setblocking(False)
            while sender.sendto(bytes(20), str(self.dir / address)):
                pass


def how_it_ended(status):
    return "ready" if status is None else f"exit status {status}" if status >= 0 else signal.Signals(-status).name


# Switches: switch(bench, on).

def simterm(*words):
    return lambda bench, on: bench.ctl("fault", *words, "on" if on else "off")


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
    bench.process.send_signal(signal.SIGSTOP if on else signal.SIGCONT)


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
    pid, used = bench.child.pid, {int(name) for name in os.listdir(f"/proc/{bench.child.pid}/fd")}
    hard = resource.prlimit(pid, resource.RLIMIT_NOFILE)[1]
    resource.prlimit(pid, resource.RLIMIT_NOFILE, (min(set(range(len(used) + 1)) - used) if on else hard, hard))


def descriptors_few(bench, on):
    bench.before = ("prlimit", "--nofile=6") if on else ()


def on_a_small_disk(bench):
    """All that the daemon writes gets a file system of its own, the log as well."""
    user = bench.dir / "user"
    kept = shutil.copytree(user, bench.dir / "kept")
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=512k", "tmpfs", user], check=True)
    bench.at_end = lambda: subprocess.run(["umount", user], check=True)
    shutil.copytree(kept, user, dirs_exist_ok=True)
    bench.log_to("file", "file", user / "terminal.log")


def disk_full(bench, on):
    filler = bench.dir / "user/filler"
    if not on:
        return filler.unlink()
    subprocess.run(["dd", "if=/dev/zero", f"of={filler}", "status=none"], stderr=subprocess.DEVNULL)


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
