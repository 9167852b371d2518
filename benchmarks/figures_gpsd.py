"""A gpsd of this machine as the daemon's peer, fed with sentences at 1 Hz by a datagram socket."""
import contextlib
import functools
import operator
import os
import socket
import subprocess
import threading
import time


def sentence(body):
    return f"${body}*{functools.reduce(operator.xor, body.encode()):02X}\r\n"


def epoch():
    """One moment's sentences: as many as the daemon polls for a position."""
    now = time.gmtime()
    clock = time.strftime("%H%M%S.00", now)
    return "".join(map(sentence, (
        f"GPGGA,{clock},5130.00000,N,00007.50000,W,1,08,1.01,35.9,M,47.0,M,,",
        "GPGSA,A,3,04,05,,09,12,,,24,,,,,2.5,1.3,2.1",
        f"GPRMC,{clock},A,5130.00000,N,00007.50000,W,0.1,0.0,{time.strftime('%d%m%y', now)},,,A"))).encode()


def free_port(kind):
    with socket.socket(socket.AF_INET, kind) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Gpsd:
    """Runs from the start of the object until stop(), or the end of its scope; `process`, `port`. `under` is a command
    to run it with, such as valgrind's."""

    def __init__(self, *options, under=()):
        self.port, self.fed = free_port(socket.SOCK_STREAM), free_port(socket.SOCK_DGRAM)
        # Without a message bus it says so; nobody misses it.
        self.process = subprocess.Popen(
            [*under, "gpsd", "-N", *options, "-S", str(self.port), f"udp://127.0.0.1:{self.fed}"],
            env=os.environ | {"PATH": os.environ["PATH"] + ":/usr/sbin"},
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.returncode is None:
            self.stop()

    def connect(self, patience_s=60):
        """A connection, the greeting read: gpsd answers."""
        deadline = time.monotonic() + patience_s
        while True:
            try:
                connection = socket.create_connection(("127.0.0.1", self.port), timeout=10)
            except ConnectionRefusedError:
                if time.monotonic() > deadline or self.process.poll() is not None:
                    raise
                time.sleep(0.0002)
                continue
            if not connection.recv(4096):
                raise ConnectionError("gpsd closed the connection")
            return connection

    def stop(self):
        """The resources that it used, of wait4()."""
        self.process.terminate()
        _, status, used = os.wait4(self.process.pid, 0)
        self.process.returncode = os.waitstatus_to_exitcode(status)
        return used


@contextlib.contextmanager
def feed(*ports):
    """Feeds the gpsds at these ports once a second."""
    over = threading.Event()

    def send():
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            while not over.wait(1):
                for port in ports:
                    sender.sendto(epoch(), ("127.0.0.1", port))

    thread = threading.Thread(target=send)
    thread.start()
    try:
        yield
    finally:
        over.set()
        thread.join()


def wait_for_position(gpsd):
    with gpsd.connect() as connection:
        connection.settimeout(60)
        connection.sendall(b'?WATCH={"enable":true,"json":true};\n')
        seen = b""
        while b'"mode":3' not in seen:
            part = connection.recv(4096)
            if not part:
                raise ConnectionError("gpsd has no position")
            seen = seen[-64:] + part


@contextlib.contextmanager
def polled(under=(), fed=True):
    """One that has a position to poll (option -n); `fed`: and is fed on, so that it stays a fresh one."""
    with Gpsd("-n", under=under) as gpsd, contextlib.ExitStack() as feeding:
        feeding.enter_context(feed(gpsd.fed))
        wait_for_position(gpsd)
        if not fed:
            feeding.close()
        yield gpsd
