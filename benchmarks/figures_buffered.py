"""The buffered reply beside a bare server and gpsd: time, throughput, instructions."""
import collections
import contextlib
import json
import pathlib
import statistics
import subprocess
import tempfile

import figures_gpsd
from figures_table import number, ratio, ratio_of_turns, table

ROOT = pathlib.Path(__file__).resolve().parents[1]
BUILD = ROOT / "build/sim"
PROGRAM = BUILD / "benchmarks/position_benchmark"
SYSROOT = ROOT / "build/armhf-sysroot"

SERVERS = {"bare": "bare server", "logging": "with five lines", "gpsd": "gpsd"}
FIGURES = (("median, us", "p50_us"), ("p99, us", "p99_us"), ("answers/s", "per_second"))
LEVELS = {"syslog": "At the default log level, info, to syslog", "file": "At level info, to a file",
          "error": "At log level error"}


def run_turns(log, turns, seconds, port):
    """Per number of clients, server and figure the values of the turns."""
    output = subprocess.run([PROGRAM, "buffered", log, str(turns), str(seconds), str(port)],
                            check=True, stdout=subprocess.PIPE, text=True).stdout
    found = collections.defaultdict(lambda: collections.defaultdict(list))
    for line in output.splitlines():
        taken = json.loads(line)
        for _, key in FIGURES:
            found[taken["clients"], key][taken["server"]].append(taken[key])
    return found


def buffered_table(log, found):
    others = [server for server in SERVERS if server in next(iter(found.values()))]
    head = ["clients, figure", "here", *(SERVERS[other] for other in others),
            *(f"over {SERVERS[other]}" for other in others)]
    rows = []
    for clients in dict.fromkeys(clients for clients, _ in found):
        for title, key in FIGURES:
            values = found[clients, key]
            middle = [number(statistics.median(values[server])) for server in ("daemon", *others)]
            over = [ratio_of_turns(values["daemon"], values[other]) for other in others]
            rows.append([f"{clients}, {title}", *middle, *over])
    return f"{LEVELS[log]}:\n\n{table(head, rows)}"


def buffered(brief):
    turns, seconds = (1, 0.05) if brief else (9, 0.2)
    with figures_gpsd.polled() as gpsd:
        tables = [buffered_table(log, run_turns(log, turns, seconds, gpsd.port)) for log in LEVELS]
    return f"""
        Buffered reply: clients that each ask for the position without a pause, the servers in turns. Bare
        server: a datagram in, a detached thread started, 100 bytes out from it; with five lines: it also
        sends as many lines to the log as the daemon has for each such request. gpsd: `?POLL;` over TCP, fed
        at 1 Hz. The log daemon is a thread of the clients' program. Medians of {turns} turns; ratios: the
        median of the turns' own.""", "\n\n".join(tables)


# --- instructions

def asked(server, count, *command):
    subprocess.run([PROGRAM, "ask", server, str(count), *map(str, command)], check=True, stdout=subprocess.DEVNULL)


def each(count_for, counts):
    """Instructions of one answer: what so many more of them took, start and end left out."""
    few, many = counts
    return (count_for(many) - count_for(few)) / (many - few)


def callgrind_total(path):
    for line in path.read_text().splitlines():
        if line.startswith(("summary:", "totals:")):
            return int(line.split()[1])
    raise ValueError(f"{path.name} has no total")


def callgrind(server, log="", *program):
    def count_for(count):
        with tempfile.TemporaryDirectory() as place:
            out = pathlib.Path(place) / "callgrind.out"
            out.touch()
            out.chmod(0o666)  # gpsd, which root started, is somebody else when it ends
            pathlib.Path(place).chmod(0o755)
            under = ["valgrind", "-q", "--tool=callgrind", f"--callgrind-out-file={out}"]
            if server == "gpsd":
                with figures_gpsd.polled(under, fed=False) as gpsd:
                    asked(server, count, gpsd.port)
            else:
                asked(server, log, count, *under, *program)
            return callgrind_total(out)
    return count_for


def emulated(server, log, *program):
    def count_for(count):
        with tempfile.TemporaryDirectory() as place:
            out = pathlib.Path(place) / "count"
            plugin = f"{BUILD}/benchmarks/libcount_instructions.so,out={out}"
            asked(server, log, count, "qemu-arm", "-cpu", "cortex-a9", "-L", SYSROOT, "-plugin", plugin, *program)
            return int(out.read_text())
    return count_for


@contextlib.contextmanager
def bare_server_for_arm():
    with tempfile.TemporaryDirectory() as place:
        program = f"{place}/bare_server"
        subprocess.run(["arm-linux-gnueabihf-g++", f"--sysroot={SYSROOT}", "-std=c++20", "-O2", "-pthread",
                        ROOT / "benchmarks/bare_server.cpp", "-o", program], check=True)
        yield program


def instructions(brief):
    counts = (5, 25) if brief else (100, 1100)
    rows = []
    gpsd = each(callgrind("gpsd"), counts)

    def add(machine, count, daemon, bare, peer):
        for title, log, sockets in (("error", "error", ["%bare"]), ("info, to syslog", "syslog", ["%bare", "%log"])):
            here = each(count("daemon", log, daemon), counts)
            least = each(count("bare", log, bare, *sockets), counts)
            rows.append([f"{machine}, log level {title}", number(here), number(least), number(peer),
                         ratio(here, least), ratio(here, peer)])

    add("x86-64", callgrind, BUILD / "location_service/location_service", BUILD / "benchmarks/bare_server", gpsd)
    with bare_server_for_arm() as bare:
        add("ARMv7", emulated, ROOT / "build/armhf-sim/location_service/location_service", bare, None)
    return f"""
        Instructions of a buffered reply outside the kernel: the difference between {counts[0]} and
        {counts[1]} of them. Bare server: at level info it sends five lines that are ready-made. x86-64:
        valgrind's callgrind. ARMv7: the emulator qemu-arm with a plugin that counts.""", table(
        ["machine", "here", "bare server", "gpsd", "over bare", "over gpsd"], rows)
