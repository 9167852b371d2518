"""What a simulated terminal shows: exchanges with the receiver, start-up, memory, threads, wake-ups."""
import concurrent.futures
import contextlib
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import threading
import time

import figures_gpsd
from figures_table import row, table

ROOT = pathlib.Path(__file__).resolve().parents[1]
BUILD = ROOT / "build/sim"
SIMTERM = BUILD / "simulator/simterm"
sys.path.insert(0, str(ROOT / "client/python"))
import location_client  # noqa: E402

LocationError = location_client.LocationError

BAUD, BITS_PER_BYTE = 9600, 10

# What the receiver's configuration asks for (gps_power_receiver.cpp): pauses of 2 x 100, 8 x 50, 6 x 50 and 50 ms,
# and six frames that are answered; those without an answer cross the line during a pause.
CONFIGURATION_PAUSES_S = 0.95
CONFIGURATION_BYTES = 151 + 6 * 10
SETTLED_S = 3  # after its start it has configured the receiver and is at rest


class Terminal:
    """A terminal of board type 1 with a fix; `daemon` once it was started."""

    def __init__(self, place):
        self.place = str(place)
        self.simterm = subprocess.Popen([SIMTERM, "run", self.place, "--instant-fix"],
                                        stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
        self.daemon = None
        deadline = time.monotonic() + 30
        while self.control("status", check=False).returncode != 0:
            if time.monotonic() > deadline or self.simterm.poll() is not None:
                self.simterm.terminate()
                raise TimeoutError("the simulated terminal did not start")
            time.sleep(0.02)
        text = subprocess.run([SIMTERM, "env", self.place], check=True, capture_output=True, text=True).stdout
        self.environment = os.environ | dict(
            re.findall(r"^(?:export )?(\w+)='?([^'\n;]*)", text, re.MULTILINE))
        self.bus = self.environment["MQUTILS_DIR"]

    def control(self, *words, check=True):
        return subprocess.run([SIMTERM, "ctl", self.place, *words], check=check, capture_output=True, text=True)

    def start_daemon(self):
        self.daemon = subprocess.Popen([BUILD / "location_service/location_service"], cwd=self.place,
                                       env=self.environment, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)

    def stop_daemon(self):
        """The resources that it used, of wait4(): of all its threads, those that have ended too."""
        self.daemon.terminate()
        _, status, used = os.wait4(self.daemon.pid, 0)
        self.daemon.returncode = os.waitstatus_to_exitcode(status)
        self.daemon = None
        return used

    def line_bytes(self):
        to, back = re.search(r"(\d+) bytes to the receiver, (\d+) from it", self.control("status").stdout).groups()
        return int(to) + int(back)

    def first_answer(self, client, ask, pause_s=0.0002):
        """Asks until there is an answer; a busy machine is given another chance, too."""
        deadline = time.monotonic() + 30
        while True:
            try:
                return ask(client)
            except LocationError:
                if time.monotonic() > deadline or self.daemon.poll() is not None:
                    raise
                time.sleep(pause_s)

    def stop(self):
        try:
            if self.daemon is not None and self.daemon.returncode is None:
                self.stop_daemon()
        finally:
            self.simterm.terminate()
            self.simterm.wait()


@contextlib.contextmanager
def terminal():
    # Sockets lie in it: a short name.
    with tempfile.TemporaryDirectory(prefix="ls-bench-") as place:
        made = Terminal(pathlib.Path(place) / "t")
        try:
            yield made
        finally:
            made.stop()


def client_of(made):
    return location_client.Client(directory=made.bus, timeout=20)


def power(client):
    return client.get_power()


def position(client):
    return client.get_position()


def satellites(client):
    return client.get_satellites()


# --- exchanges with the receiver

def wire_s(size):
    return size * BITS_PER_BYTE / BAUD


def timed(made, client, ask):
    """Seconds that an exchange took, and its bytes on the line."""
    before, start = made.line_bytes(), time.monotonic()
    ask(client)
    took = time.monotonic() - start
    return took, made.line_bytes() - before


def exchange(brief):
    rounds = 1 if brief else 15
    rows = []
    with terminal() as made, client_of(made) as client:
        made.start_daemon()
        made.first_answer(client, position)
        for name, ask in (("1003 position", position), ("1005 satellites", satellites)):
            walls, wires = [], []
            for _ in range(rounds):
                wall_s, size = made.first_answer(client, lambda asked, ask=ask: timed(made, asked, ask))
                walls.append(wall_s * 1e3)
                wires.append(wire_s(size) * 1e3)
            rows.append(row(f"{name}, {size} bytes", "ms", walls, wires, "wire time"))
    return f"""
        Exchange with the receiver: a request over the simulated line at {BAUD} baud beside the time that its
        bytes take there, ten bits each. Medians of {rounds}.""", table(["figure", "here", "reference", "ratio"], rows)


# --- from the start of the program

def start_up(brief):
    answers, gpsd_answers, fixes, wires = [], [], [], []
    for _ in range(1 if brief else 7):
        # A new terminal each time: it has the power lines as after its boot.
        with terminal() as made, client_of(made) as client:
            start = time.monotonic()
            made.start_daemon()
            made.first_answer(client, power)
            answers.append((time.monotonic() - start) * 1e3)
            made.first_answer(client, position)
            fixes.append(time.monotonic() - start)
            _, size = made.first_answer(client, lambda asked, made=made: timed(made, asked, position))
            wires.append(CONFIGURATION_PAUSES_S + wire_s(CONFIGURATION_BYTES + size))
        start = time.monotonic()
        with figures_gpsd.Gpsd() as gpsd:
            gpsd.connect().close()
            gpsd_answers.append((time.monotonic() - start) * 1e3)
    return f"""
        Start-up: from the start of the program to the answer to a first request (1001; gpsd: its greeting),
        and to the first position from a receiver that was off: beside the pauses and the bytes of its
        configuration and of that position. Medians of {len(answers)}.""", table(
            ["figure", "here", "reference", "ratio"], [
                row("first answer", "ms", answers, gpsd_answers, "gpsd"),
                row("first position", "s", fixes, wires, "pauses and wire time")])


# --- at rest, and with one watcher

def proc_value(pid, name, key):
    text = pathlib.Path(f"/proc/{pid}/{name}").read_text()
    return int(re.search(rf"^{key}:\s+(\d+)", text, re.MULTILINE).group(1))


def daemon_wake_ups(seconds, watched):
    """Times that the daemon's threads went to sleep, from start to end, with so many seconds at rest."""
    with terminal() as made, client_of(made) as client:
        made.start_daemon()
        time.sleep(SETTLED_S)  # asking meanwhile would wake it
        made.first_answer(client, position, pause_s=0.5)
        if watched:
            client.register_periodic(1000, location_client.MIN_INTERVAL_S)
        time.sleep(seconds)
        if watched:
            client.unregister_periodic()
        return made.stop_daemon().ru_nvcsw


def gpsd_wake_ups(seconds, watched):
    with figures_gpsd.Gpsd() as gpsd, figures_gpsd.feed(gpsd.fed), gpsd.connect() as connection:
        if not watched:
            connection.close()
            time.sleep(seconds)
            return gpsd.stop().ru_nvcsw
        connection.sendall(b'?WATCH={"enable":true,"json":true};\n')
        reader = threading.Thread(target=read_all, args=(connection,))
        reader.start()
        time.sleep(seconds)
        used = gpsd.stop()
        reader.join()
        return used.ru_nvcsw


def read_all(connection):
    connection.settimeout(60)
    with contextlib.suppress(OSError):
        while connection.recv(4096):
            pass


def wake_ups_a_second(count, watched, few, many, pool):
    """A pair of runs side by side; the difference leaves start and end out."""
    counted = [pool.submit(count, seconds, watched) for seconds in (few, many)]
    return lambda: (counted[1].result() - counted[0].result()) / (many - few)


def at_rest(brief):
    few, many, rounds = (1, 5, 1) if brief else (2, 14, 3)
    values = {}
    with concurrent.futures.ThreadPoolExecutor(8) as pool:
        for _ in range(rounds):
            pairs = {(count, watched): wake_ups_a_second(count, watched, few, many, pool)
                     for count in (daemon_wake_ups, gpsd_wake_ups) for watched in (False, True)}
            for which, result in pairs.items():
                values.setdefault(which, []).append(result())
    memory = []
    with terminal() as made, client_of(made) as client, figures_gpsd.Gpsd() as gpsd:
        made.start_daemon()
        with figures_gpsd.feed(gpsd.fed), gpsd.connect() as connection:
            connection.sendall(b'?WATCH={"enable":true,"json":true};\n')
            made.first_answer(client, position)
            made.first_answer(client, satellites)
            time.sleep(0 if brief else 2)
            for title, name, key, unit in (
                    ("memory, its share (PSS)", "smaps_rollup", "Pss", "KiB"),
                    ("memory of its own (dirty)", "smaps_rollup", "Private_Dirty", "KiB"),
                    ("threads", "status", "Threads", "")):
                memory.append(row(title, unit, [proc_value(made.daemon.pid, name, key)],
                                  [proc_value(gpsd.process.pid, name, key)]))
    interval = location_client.MIN_INTERVAL_S
    idle, watched = values[daemon_wake_ups, False], values[daemon_wake_ups, True]
    gpsd_idle, gpsd_watched = values[gpsd_wake_ups, False], values[gpsd_wake_ups, True]
    return f"""
        At rest, and with one client that watches: the daemon at its shortest interval, {interval} s, on the
        simulated line; gpsd fed at 1 Hz. Wake-ups: how often threads went to sleep of themselves (wait4),
        those that have ended included, in {many - few} s; medians of {rounds}. Memory behind the first
        answers.""", table(
        ["figure", "here", "gpsd", "ratio"], memory + [
            row("wake-ups a second, nobody watches", "", idle, gpsd_idle),
            row("wake-ups a second, one watcher", "", watched, gpsd_watched),
            row("wake-ups an update", "", [value * interval for value in watched], gpsd_watched)])
