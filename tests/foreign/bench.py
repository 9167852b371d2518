"""The production daemon as a process on the foreign platform: what it does is an ordered list of events, what it is
sent comes straight from the test. The program's first arguments are the daemon and the directory of the libraries."""

import collections
import contextlib
import ctypes
import functools
import itertools
import mmap
import os
import pathlib
import re
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time

source = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(source / "tests/support"), str(source / "client/python")]

from simulated_terminal import LIMIT_S  # noqa: E402

DAEMON, LIBRARIES = map(os.path.abspath, sys.argv[1:3])
REQUEST, RESPONSE, NOTIFICATION = range(3)
WS, SERVICE, TA, CLIENT = 6, 8, 12, 40
HISTORY_CHANGED, GET_POWER, SET_POWER, NMEA_COMMAND, TA_DATA = 808, 1001, 1002, 1011, 1416
HEADER = struct.Struct("<BBBBIIII")  # type, -, from, to, message, transaction, bytes of payload, -
FIELDS = {"int": ctypes.c_int, "uint64_t": ctypes.c_uint64}


class State(ctypes.Structure):
    """foreign_state, read from where it is declared; the library does not take one of another size."""
    _fields_ = [(name, FIELDS[kind] * int(count) if count else FIELDS[kind]) for kind, names in
                re.findall(r"std::atomic<(\w+)> ([^;]+);", (source / "tests/foreign/foreign.h").read_text("utf-8"))
                for name, count in re.findall(r"(\w+)(?:\[(\d+)\])?", names)]


# thread: its id; line: "call FUNCTION", "log LEVEL TEXT" or "send TYPE MESSAGE to SERVICE in TRANSACTION"; sent: the
# message of a send.
Event = collections.namedtuple("Event", "thread line sent")


def nmea(body):
    """A sentence with its checksum and line end."""
    return f"${body}*{functools.reduce(int.__xor__, body.encode()):02X}\r\n".encode()


# What the receiver behind the TA answers to polls for the position; it repeats all others.
ANSWERS = {nmea(f"GPGPQ,{body[2:5]}"): nmea(body) for body in (
    "GPGGA,123318.00,5130.000,N,00007.500,W,1,08,0.9,545.4,M,46.9,M,,",
    "GPGSA,A,3,04,05,,09,12,,,24,,,,,2.5,1.3,2.1", "GPZDA,123318.00,31,12,2019,00,00")}


class Bench:
    """The daemon runs inside a with statement, in a directory of its own; it may be sent messages before. `state`: what
    is not zero in foreign_state. Patterns are regular expressions that are looked for in an event's line."""

    def __init__(self, ta_silent=False, ta_delay_s=0, **state):
        self.scratch = tempfile.TemporaryDirectory()
        self.dir = pathlib.Path(self.scratch.name)
        for name in ("user/location", "user/stub_location", "sys/class/gpio/gpio102", "sys/class/gpio/gpio37", "dev"):
            (self.dir / name).mkdir(parents=True)
        for name in ("export", "unexport", "gpio102/direction", "gpio102/value", "gpio37/direction", "gpio37/value"):
            (self.dir / "sys/class/gpio" / name).touch()
        (self.dir / "user/gps_control_prm.txt").write_text(
            "RFFE_REQUEST_SEMAPHORE_WAIT_TIME 2\nGPS_GET_POS_BUFFER_TIME 0\nLOCATION_HISTORY_BOOT_TIME_OFFSET 0\n")
        self.write_static_location("OF")
        self.memory = os.memfd_create("foreign")
        os.truncate(self.memory, ctypes.sizeof(State))
        self.state = State.from_buffer(mmap.mmap(self.memory, 0))
        for name, value in {"board": 2, "callback_threads": 1, **state}.items():
            setattr(self.state, name, value)
        self.ours, self.theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.transactions = itertools.count(1001)
        self.ta_silent, self.ta_delay_s = ta_silent, ta_delay_s  # read when a command comes
        self.events = []  # the reader appends
        self.reader = threading.Thread(target=self.read_events)  # ends with the daemon

    def __enter__(self):
        os.dup2(self.theirs.fileno(), 98)  # FOREIGN_SOCKET
        os.dup2(self.memory, 99)  # FOREIGN_MEMORY
        self.daemon = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", DAEMON], cwd=self.dir, pass_fds=(98, 99), stdin=subprocess.DEVNULL,
            env={**os.environ, "LD_LIBRARY_PATH": LIBRARIES})
        for descriptor in (98, 99, self.memory, self.theirs.detach()):
            os.close(descriptor)
        self.reader.start()
        return self

    def __exit__(self, *failure):
        self.daemon.kill()
        self.daemon.wait()
        self.reader.join()
        self.ours.close()
        if failure[0]:
            for place, event in list(enumerate(self.events))[-60:]:
                print(f"{place}, thread {event.thread}: {event.line.rstrip()}", file=sys.stderr)
        self.scratch.cleanup()

    def end(self):
        """SIGTERM; exit status, -N after signal N. All events are there then."""
        self.daemon.terminate()
        status = self.daemon.wait(LIMIT_S)
        self.reader.join()
        return status

    def write_static_location(self, switch):
        (self.dir / "user/stub_location/stub_loc.gps").write_text(
            f"STATIC_LOCATION = {switch}\n7007.939,N,01131.000,E\n")

    def deliver(self, message, sender=CLIENT, payload=b"", kind=REQUEST):
        """Sends one message to the daemon; its transaction id."""
        transaction = next(self.transactions)
        with contextlib.suppress(OSError):  # it has ended, as whoever waits for an event is told
            self.ours.send(HEADER.pack(kind, 0, sender, SERVICE, message, transaction, len(payload), 0) + payload)
        return transaction

    def deliver_command(self, body, sender=CLIENT):
        return self.deliver(NMEA_COMMAND, sender, struct.pack("<4x80s200x", body.encode()))

    def answer_ta(self, poll):
        """As the TA."""
        text = ANSWERS.get(poll, poll)
        self.deliver(TA_DATA, TA, struct.pack("<B200x200s3xI4x", 1, text, len(text)), RESPONSE)

    def receive(self):
        try:
            return self.ours.recv(128 * 1024)  # FOREIGN_PACKET_SIZE
        except ConnectionResetError:  # told once, of messages that it left unread: its last events are still to come
            return self.ours.recv(128 * 1024)

    def read_events(self):
        for packet in iter(self.receive, b""):
            line, sent = packet[4:].split(b"\0", 1)
            self.events.append(Event(int.from_bytes(packet[:4], "little"), line.decode(errors="replace"), sent))
            if line.startswith(b"send 0 1416 to 12 ") and not self.ta_silent:
                command, size = struct.unpack_from("<x200s203xI", sent, HEADER.size)
                threading.Timer(self.ta_delay_s, self.answer_ta, [command[:size]]).start()

    def see(self, pattern, since=0):
        """The place of the first event of this pattern from place `since` on, waited for."""
        limit = time.monotonic() + LIMIT_S
        for place in itertools.count(since):
            while place >= len(self.events) and self.reader.is_alive() and time.monotonic() < limit:
                time.sleep(0.005)
            assert place < len(self.events), f"not seen: {pattern}; exit status {self.daemon.poll()}"
            if re.search(pattern, self.events[place].line):
                return place

    def count(self, pattern, since=0):
        return sum(1 for event in self.events[since:] if re.search(pattern, event.line))

    def reply(self, transaction):
        """The reply's payload."""
        return self.events[self.see(f"^send 1 .* in {transaction}$")].sent[HEADER.size:]

    def answer(self, transaction):
        """The receiver's answer in the reply to a command; nothing = it failed."""
        status, text = struct.unpack("<I80x200s", self.reply(transaction))
        return text.partition(b"\0")[0] if status == 1 else b""

    def ask(self, body):
        return self.answer(self.deliver_command(body))


@contextlib.contextmanager
def running(**state):
    """A bench whose daemon runs its main loop, and ends as it should."""
    with Bench(**state) as bench:
        bench.see("call rtc_reinit")
        yield bench
        assert bench.end() == 0, f"exit status {bench.end()}"
        assert bench.count("stray connection") == 0, "a connection was used that is none, or none any more"
