"""Mixed load on the daemon of a simulated terminal; then everything has to agree, and to be as it was before.

Usage: soak.py SOURCE_DIR DAEMON SIMTERM LSCTL SECONDS

Clients of every kind ask at the same time, some die before their answer, the receiver is voted off and on, faults of
the line come and go. A request is answered once, or it fell into a time when the receiver was off, or its client was
dead. Behind a first part of the load, with the caches warm, and at the end the daemon is left alone and looked at:
threads, descriptors and the terminal's wake locks have to be the same, memory as large but for what each answer to a
dead client leaves (docs/limits.md). Prints a table; exit status 1 and a line for each thing that does not agree.
"""
import collections
import concurrent.futures
import os
import pathlib
import random
import re
import sys
import time

source = pathlib.Path(sys.argv[1])
programs = dict(zip(("daemon", "simterm", "lsctl"), sys.argv[2:5]))
sys.dont_write_bytecode = True
sys.path[:0] = [str(source / "tests/support"), str(source / "client/python")]

import location_client as lc  # noqa: E402
from simulated_terminal import Terminal  # noqa: E402

TIMEOUT_S, PATIENCE_S = 10, 60  # of a call; for its answer, behind eight others and a receiver that is silent
FAULTS = "silent", "checksum", "cut", "garbage-before", "garbage-after", "noise", "late", "no-fix", "empty-fields"
LEFT_BY_DEAD, SLACK_KIB = 64, 512  # bytes a dead client: a header of 20 and the heap's own
count, wrong, off_times, chance = collections.Counter(), [], [], random.Random(1)


class Client(lc.Client):
    """Counts what it asked and what came."""

    def __init__(self, serv_id=0):
        self.asked, self.answers = {}, collections.Counter()
        super().__init__(serv_id, timeout=TIMEOUT_S)

    def _ask(self, msg_id, payload=b""):
        waiter = super()._ask(msg_id, payload)
        self.asked[waiter.txn_id] = time.monotonic()
        return waiter

    def _take(self, message):
        self.answers[message.txn_id] += message.kind == lc._bus.RESPONSE
        super()._take(message)

    def close(self):
        super()._end_registration()
        missing = {txn for txn, at in self.asked.items() if any(a <= at <= b for a, b in off_times)}
        self._wait(lambda: all(self.answers[txn] or txn in missing for txn in self.asked), time.monotonic() + PATIENCE_S)
        self._wait(lambda: False, time.monotonic() + 0.2)
        for txn in self.asked | +self.answers:
            count[f"requests answered {self.answers[txn]} times"] += 1
            if self.answers[txn] != (txn in self.asked) and (self.answers[txn] or txn not in missing):
                wrong.append(f"service {self.serv_id}: {self.answers[txn]} answers, asked: {txn in self.asked}")
        super().close()

    def ask(self, name, *actions):
        try:
            chance.choice(actions)(self)
            count[f"{name}: good"] += 1
        except lc.LocationError as failure:
            count[f"{name}: {failure.error}"] += 1
            time.sleep(0.05)


def queries(client):
    client.ask("queries", Client.get_position, Client.get_time, Client.get_satellites, Client.get_speed,
               Client.get_power, Client.get_history_path, lambda c: c.exec_nmea("PUBX,00"),
               lambda c: c.exec_ubx(lc.ubx_frame(6, 8)))


def watch(client):
    client.ask("pairs of updates", lambda c: list(c.updates(4, 2)))


def lpp(client):
    client.ask("LPP", Client.get_lpp)


def die(_):
    victim = lc.Client(60)
    for msg_id in 1003, 1004, 1005:
        victim._ask(msg_id)
    victim._bus._drop()  # as its end would
    count["requests of dead clients"] += 3
    time.sleep(0.5)


def vote(ws):
    """WS switches the receiver off; service 9 is served all the same; WS or VoIP switch it on."""
    time.sleep(chance.uniform(4, 8))
    off_times.append((time.monotonic() - 1, float("inf")))
    off = ws.set_power(0)
    with Client(9) as waker, Client(3) as voip:
        waker.ask("service 9", Client.get_time)
        on = chance.choice((ws, voip)).set_power(2)
        off_times[-1] = off_times[-1][0], time.monotonic()
    if off.receiver_on or not on.receiver_on:
        wrong.append(f"voted off and on: receiver {off.receiver_on}, {on.receiver_on}")
    count["votes: good"] += 1


def load(terminal, seconds):
    until = time.monotonic() + seconds

    def faults(_):
        fault = chance.choice(FAULTS)
        for state, pause in ("on", 2), ("off", 3):
            terminal.ctl("fault", fault, state)
            time.sleep(pause)
        count["faults: good"] += 1

    def work(task, serv_id):
        with Client(serv_id) as client:
            while time.monotonic() < until:
                task(client)

    # The same ids in each part: the daemon keeps a socket for each service that it has answered.
    tasks = [(queries, serv_id) for serv_id in range(40, 46)]
    tasks += [(watch, 46), (watch, 47), (die, 48), (faults, 49), (lpp, 2), (vote, 6)]
    with concurrent.futures.ThreadPoolExecutor(len(tasks)) as pool:
        works = [pool.submit(work, *each) for each in tasks]
    wrong.extend(f"{task.__name__}: {each.exception()!r}" for (task, _), each in zip(tasks, works) if each.exception())


def look(terminal, pid):
    """The daemon at rest: the least of 40 looks, since the history goes on, and some of the load may."""
    proc, looks = pathlib.Path(f"/proc/{pid}"), []
    for _ in range(40):
        time.sleep(chance.uniform(0.2, 0.6))
        memory = re.findall(r"^(Rss|Pss): +(\d+) kB", (proc / "smaps_rollup").read_text(), re.M)
        locks, unlocks = (terminal.file(f"sys/power/wake_{name}").count("\n") for name in ("lock", "unlock"))
        looks.append({"threads": len(os.listdir(proc / "task")), "descriptors": len(os.listdir(proc / "fd")),
                      "wake locks": locks - unlocks} | {f"{name.upper()}, KiB": int(size) for name, size in memory})
    return {name: min(look[name] for look in looks) for name in looks[0]}


def main(seconds):
    with Terminal(programs, "--no-services", "--history", "on", "--history-interval", "1") as terminal:
        os.environ.update(terminal.environment)
        pid, first = terminal.daemon(), min(300, seconds // 3)
        load(terminal, first)
        warm, dead = look(terminal, pid), count["requests of dead clients"]
        load(terminal, seconds - first)
        end = look(terminal, pid)
        with lc.Client(6) as ws:
            if ws.set_power(0).receiver_on or terminal.file("sys/class/gpio/gpio102/value")[0] != "0":
                wrong.append("voted off at the end, and on")
        spare = SLACK_KIB + (count["requests of dead clients"] - dead) * LEFT_BY_DEAD // 1024
        if "libasan" in pathlib.Path(f"/proc/{pid}/maps").read_text():
            spare = float("inf")  # it keeps what was freed
    print(f"| {seconds} s of mixed load | |\n|---|---:|")
    for name, number in sorted(count.items()):
        print(f"| {name} | {number} |")
    for name, before in warm.items():
        print(f"| {name}: warm, at the end | {before}, {end[name]} |")
        wanted = 0 if name == "wake locks" else before
        if end[name] - wanted > spare if "KiB" in name else end[name] != wanted:
            wrong.append(f"{name}: {wanted} wanted, {end[name]} at the end")
    for name in "queries", "pairs of updates", "LPP", "service 9", "votes", "faults":
        wrong.extend([f"{name}: not one was good"] * (not count[f"{name}: good"]))
    sys.exit("\n".join(wrong[:20]) or None)


main(int(sys.argv[5]))
