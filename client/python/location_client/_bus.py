"""One service id on the terminal's bus: a Unix datagram socket in the bus directory.

What every peer on the bus owes the others, docs/bus.md: it takes a free name with bind(), replaces the socket of
a dead owner of its own under the lock of the place, proves with its user who it is, believes nobody else without
proof, and does not leave before its last words have been read. It only ever speaks to the location service, and
takes the messages of that service alone: narrower than any policy of the bus.
"""

from __future__ import annotations

import contextlib
import errno
import fcntl
import logging
import math
import os
import random
import select
import socket
import stat
import struct
import termios
import time
from collections.abc import Iterator
from typing import NamedTuple

from . import _errors as errors

DEFAULT_DIRECTORY = "/run/terminal-bus"
SERVICE = 8  # the location service
REQUEST, RESPONSE, NOTIFICATION = 0, 1, 2

SEND_LIMIT_S = 1.0  # a full queue of the service holds a sender up
LINGER_S = 1.0
LOCK_LIMIT_S = 0.2
RETRY_S = 0.002

_HEADER = struct.Struct("<BBBBIIII")  # type, -, from, to, message, transaction, bytes of payload, -
_MAX_DATAGRAM = _HEADER.size + 65536
_CREDENTIALS = struct.Struct("=iII")  # process, user, group
_MAX_ADDRESS = 107  # bytes of a socket's path
_SOCKET_MODE, _NEWBORN_MODE = 0o660, 0o600
_LONGEST_BIRTH_S = 1

_log = logging.getLogger("location_client")

_JOIN_ERRORS: dict[int, type[errors.LocationError]] = {
    errno.ENOENT: errors.NoBusError,
    errno.ENOTDIR: errors.NoBusError,
    errno.EADDRINUSE: errors.IdTakenError,
    errno.EACCES: errors.BusDeniedError,
    errno.EPERM: errors.BusDeniedError,
    errno.EBUSY: errors.BusLockedError,
}
_SEND_ERRORS: dict[int, type[errors.LocationError]] = {
    errno.ENOENT: errors.NoDaemonError,
    errno.ECONNREFUSED: errors.NoDaemonError,
    errno.ENOBUFS: errors.BusFullError,
    errno.EACCES: errors.BusDeniedError,
    errno.EPERM: errors.BusDeniedError,
}


class Message(NamedTuple):
    kind: int  # REQUEST, RESPONSE or NOTIFICATION
    msg_id: int
    txn_id: int
    payload: bytes


def _error_of(table: dict[int, type[errors.LocationError]], error: OSError) -> errors.LocationError:
    found = table.get(error.errno or 0)
    return found() if found else errors.BusError(f"the bus failed: {error}")


@contextlib.contextmanager
def _opened(path: str, flags: int, dir_fd: int | None = None) -> Iterator[int]:
    descriptor = os.open(path, flags, dir_fd=dir_fd)
    try:
        yield descriptor
    finally:
        os.close(descriptor)


class Bus:
    """Joins as service `serv_id`; raises a LocationError where that cannot be had."""

    def __init__(self, serv_id: int, directory: str = "") -> None:
        self.serv_id = serv_id
        self._path = os.path.abspath(directory or os.environ.get("MQUTILS_DIR") or DEFAULT_DIRECTORY)
        self._process = os.getpid()
        self._identity = (0, 0)  # device and inode of the socket's file
        self._next_txn = random.getrandbits(32)  # so that answers to an earlier owner of the id are not taken
        self._directory = -1
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        try:
            if os.getuid() != os.geteuid():  # receivers are told the one, the file belongs to the other
                raise PermissionError(errno.EPERM, "user and effective user differ")
            self._directory = os.open(self._path, os.O_PATH | os.O_DIRECTORY)
            self._owner = os.fstat(self._directory).st_uid
            self._socket.setblocking(False)
            self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_PASSCRED, 1)
            self._claim()
        except OSError as error:
            self._drop()
            found = _error_of(_JOIN_ERRORS, error)
            if isinstance(found, errors.NoBusError):
                found = errors.NoBusError(f"{found.text}: {self._path} (MQUTILS_DIR names another one)")
            raise found from None
        self._readable = select.poll()
        self._readable.register(self._socket, select.POLLIN)

    def fileno(self) -> int:
        return self._socket.fileno()

    def close(self) -> None:
        """Leaves the bus; waits until what was sent has been read, at most LINGER_S."""
        if self._socket.fileno() < 0:
            return
        # A forked child only drops its copies. A socket file with unread messages stays: by it they are believed.
        if os.getpid() == self._process and self._all_read():
            with contextlib.suppress(OSError), self._place() as (place, name, _):
                found = os.stat(name, dir_fd=place, follow_symlinks=False)
                if (found.st_dev, found.st_ino) == self._identity:
                    os.unlink(name, dir_fd=place)
        self._drop()

    def send(self, kind: int, msg_id: int, payload: bytes) -> int:
        """Sends to the location service; returns the transaction id. Waits for room at most SEND_LIMIT_S."""
        txn_id = self._next_txn
        self._next_txn = (txn_id + 1) & 0xFFFFFFFF
        datagram = _HEADER.pack(kind, 0, self.serv_id, SERVICE, msg_id, txn_id, len(payload), 0) + payload
        address = self._address(f"{self._path}/{SERVICE}", self._directory, str(SERVICE))
        limit = time.monotonic() + SEND_LIMIT_S
        while True:
            try:
                self._socket.sendto(datagram, address)
                return txn_id
            except BlockingIOError:  # poll() tells nothing of the queue of a peer
                if time.monotonic() >= limit:
                    raise errors.BusFullError() from None
                time.sleep(RETRY_S)
            except OSError as error:
                raise _error_of(_SEND_ERRORS, error) from None

    def receive(self, deadline: float) -> Message | None:
        """The next message of the location service; None when there is none at `deadline` (time.monotonic)."""
        while True:
            try:
                # Looked at, judged, and only then taken: until then its sender keeps the file that proves it.
                data, control, flags, _ = self._socket.recvmsg(
                    _MAX_DATAGRAM, socket.CMSG_SPACE(_CREDENTIALS.size), socket.MSG_PEEK)
            except BlockingIOError:
                left = deadline - time.monotonic()
                if left <= 0:
                    return None
                self._readable.poll(math.ceil(left * 1000))
                continue
            except OSError as error:
                raise errors.BusError(f"the bus failed: {error}") from None
            reason = self._reason_to_drop(data, control, flags)
            self._socket.recv(1)
            if reason is None:
                kind, _, _, _, msg_id, txn_id, _, _ = _HEADER.unpack_from(data)
                return Message(kind, msg_id, txn_id, data[_HEADER.size:])
            _log.warning("service %d dropped a datagram of %d bytes: %s", self.serv_id, len(data), reason)
            if time.monotonic() >= deadline:
                return None

    def _reason_to_drop(self, data: bytes, control: list[tuple[int, int, bytes]], flags: int) -> str | None:
        if len(data) < _HEADER.size:
            return "shorter than a header"
        if flags & (socket.MSG_TRUNC | socket.MSG_CTRUNC):
            return "longer than a message, or carries more than data"
        _, _, sender, receiver, _, _, size, _ = _HEADER.unpack_from(data)
        if size != len(data) - _HEADER.size:
            return "payload length is not that of the header"
        if receiver != self.serv_id:
            return "addressed to another service"
        if sender != SERVICE:
            return f"not from the location service, but from {sender}"
        users = [_CREDENTIALS.unpack(value)[1] for level, kind, value in control
                 if (level, kind) == (socket.SOL_SOCKET, socket.SCM_CREDENTIALS)]
        if not users or users[0] != self._user_of_service():
            return "the location service belongs to another user"
        return None

    def _user_of_service(self) -> int | None:
        """Who owns the socket of the location service; looked up anew for each message: it may have changed."""
        with contextlib.suppress(OSError):
            status = os.stat(str(SERVICE), dir_fd=self._directory, follow_symlinks=False)
            if stat.S_ISLNK(status.st_mode) and status.st_uid == self._owner:
                status = os.stat(str(SERVICE), dir_fd=self._directory)
            if stat.S_ISSOCK(status.st_mode):
                return status.st_uid
        return None

    @staticmethod
    def _address(path: str, directory: int, name: str) -> str:
        fits = len(os.fsencode(path)) <= _MAX_ADDRESS
        return path if fits else f"/proc/self/fd/{directory}/{name}"

    @contextlib.contextmanager
    def _place(self) -> Iterator[tuple[int, str, str]]:
        """Where the own socket is: a directory, the name in it, both as an address. Only the links of the bus
        directory's owner lead elsewhere."""
        text = str(self.serv_id)
        with contextlib.suppress(FileNotFoundError):
            status = os.stat(text, dir_fd=self._directory, follow_symlinks=False)
            if stat.S_ISLNK(status.st_mode) and status.st_uid == self._owner:
                text = os.readlink(text, dir_fd=self._directory)
        parent, name = os.path.split(text)
        with _opened(parent or ".", os.O_RDONLY | os.O_DIRECTORY, self._directory) as place:
            yield place, name, self._address(os.path.join(self._path, text), place, name)

    def _claim(self) -> None:
        with self._place() as (place, name, address):
            try:
                self._bind(address)
            except OSError as error:
                if error.errno != errno.EADDRINUSE:
                    raise
                self._replace_dead(place, name, address)
            try:
                self._adopt(place, name)
            except OSError as error:
                if error.errno != errno.EADDRINUSE:
                    os.unlink(name, dir_fd=place)
                raise

    def _bind(self, address: str) -> None:
        # The file is born with the mode of the socket: as long as it has this one nobody takes it for a dead one.
        os.fchmod(self._socket.fileno(), _NEWBORN_MODE)
        self._socket.bind(address)

    def _replace_dead(self, place: int, name: str, address: str) -> None:
        """Proof of death and removal have to be one step: of two starters the second would remove the first one's
        new socket. The place's lock is asked for only where a dead owner seems to be in it."""
        if not self._is_free(place, name, address):
            limit = time.monotonic() + LOCK_LIMIT_S
            while True:
                try:
                    fcntl.flock(place, fcntl.LOCK_EX | fcntl.LOCK_NB)
                    break
                except BlockingIOError:
                    if time.monotonic() >= limit:
                        raise OSError(errno.EBUSY, "the place stays locked") from None
                    time.sleep(RETRY_S)
        try:
            if not self._is_free(place, name, address):
                os.unlink(name, dir_fd=place)
            self._bind(address)
        finally:
            fcntl.flock(place, fcntl.LOCK_UN)  # not left to close(): a forked child shares the lock

    def _is_free(self, place: int, name: str, address: str) -> bool:
        """False: a dead owner's socket is in the way, which may be removed. Raises for anything else."""
        try:
            status = os.stat(name, dir_fd=place, follow_symlinks=False)
        except FileNotFoundError:
            return True
        if not stat.S_ISSOCK(status.st_mode):
            raise OSError(errno.ENOTSOCK, "something that is no socket is in the way")
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as probe:
            try:
                probe.connect(address)  # as long as any process has the socket
            except FileNotFoundError:
                return True
            except ConnectionRefusedError:
                pass
            else:
                raise OSError(errno.EADDRINUSE, "the id is in use")
        parent = os.fstat(place)
        if parent.st_mode & stat.S_ISVTX and os.geteuid() not in (0, status.st_uid, parent.st_uid):
            raise PermissionError(errno.EPERM, "a dead owner's socket, which this user may not remove")
        if not status.st_mode & stat.S_IWGRP and 0 <= time.time() - status.st_ctime <= _LONGEST_BIRTH_S:
            raise OSError(errno.EADDRINUSE, "the id is about to be taken")
        return False

    def _adopt(self, place: int, name: str) -> None:
        """Sets mode and learns identity of the file just bound, by a descriptor: where others may write, the name
        may be something else already."""
        with _opened(name, os.O_PATH | os.O_NOFOLLOW, place) as file:
            status = os.fstat(file)
            if not stat.S_ISSOCK(status.st_mode) or status.st_uid != os.geteuid():
                raise OSError(errno.EADDRINUSE, "somebody replaced the socket")
            self._identity = (status.st_dev, status.st_ino)
            os.chmod(f"/proc/self/fd/{file}", _SOCKET_MODE)

    def _all_read(self) -> bool:
        limit = time.monotonic() + LINGER_S
        while struct.unpack("i", fcntl.ioctl(self._socket, termios.TIOCOUTQ, bytes(4)))[0] > 0:
            if time.monotonic() >= limit:
                return False
            time.sleep(RETRY_S)
        return True

    def _drop(self) -> None:
        self._socket.close()
        if self._directory >= 0:
            os.close(self._directory)
            self._directory = -1


def join(serv_id: int, directory: str, tool_ids: range, search_s: float) -> Bus:
    """As `serv_id`, or with 0 as the first of `tool_ids` that can be had."""
    if serv_id != 0:
        return Bus(serv_id, directory)
    last_try = time.monotonic() + search_s
    last: errors.LocationError = errors.IdsExhaustedError()
    taken = False
    for tool_id in tool_ids:
        try:
            return Bus(tool_id, directory)
        except errors.LocationError as error:
            last, taken = error, taken or isinstance(error, errors.IdTakenError)
        if time.monotonic() >= last_try:
            break
    raise errors.IdsExhaustedError() if taken else last
