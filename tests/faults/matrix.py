#!/usr/bin/env -S python3 -B
"""Every fault against every request: what lsctl gets, how long that takes, and whether the next request succeeds once
the fault is gone. Prints it as a Markdown table. Exit status 1: something is not as it has to be (told on stderr).

Usage: matrix.py BUILD_DIR [FAULT...]

What needs the preloaded library, failing_calls, is left out in a build that has none (one with sanitizers), and the
full disk where the kernel gives users no file system of their own.
"""

import concurrent.futures
import dataclasses
import itertools
import os
import re
import subprocess
import sys
import tempfile

from bench import *  # its switches are the words of the table

WATCH_S = 4  # between its two updates
# Beyond the waits that a request may have by the rules: the machine is busy, and sanitizers are slow.
SLACK_S = 10 if CALLS.exists() else 30


@dataclasses.dataclass
class Fault:
    name: str
    switch: callable
    expected: dict = dataclasses.field(default_factory=dict)  # what requests get; those without a row "ok"
    _: dataclasses.KW_ONLY
    options: tuple = ()
    wait: float = 0  # seconds for which the longest request may wait, by the rules
    timeout: float = 10  # of lsctl, where no answer comes
    requests: tuple = ()  # that are asked, in place of all, and of "start" when something is expected of that
    restart: bool = False  # the daemon has to be started anew behind it
    again: int = 1  # requests behind it, of which one has to succeed
    prepare: callable = None
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
    if bench.child.poll() is not None and not starts:
        got = f"{got}; the daemon: {how_it_ended(bench.child.returncode)}"
    fault.switch(bench, False)
    if starts or fault.restart or bench.child.returncode is not None:
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
    return [site for site in dict.fromkeys(zip(words[::2], words[1::2])) if site[0]]


def run(fault):
    """The rows of a fault, and complaints."""
    bench, rows, wrong = Bench(fault.options), [], []
    with bench:
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
            bench.child.kill()
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
    if "FAULTS_INSIDE" not in os.environ and not subprocess.run([*own, "true"], stderr=subprocess.DEVNULL).returncode:
        os.execvpe(own[0], [*own, sys.executable, "-B", *sys.argv], {**os.environ, "FAULTS_INSIDE": "1"})
    inside, scratch = "FAULTS_INSIDE" in os.environ, tempfile.gettempdir()
    if inside and not BUILD.is_relative_to(scratch):
        subprocess.run(["mount", "-t", "tmpfs", "tmpfs", scratch], check=True)
    return inside


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
