"""The client: one connection to the bus, and one method for each request."""

from __future__ import annotations

import contextlib
import threading
import time
import weakref
from collections import deque
from collections.abc import Callable, Iterator

from . import _bus as bus
from . import _errors as errors
from . import _records as records

DEFAULT_TIMEOUT_S = 20.0  # three receiver exchanges of one query, each slow, and some to spare
MIN_INTERVAL_S = 4
TOOL_IDS = range(32, 64)

_TOOL_ID_SEARCH_S = 5.0
_SAL, _VOIP, _CLIENT_9 = 2, 3, 9
_PROBE_AFTER_S = 2.0  # by then a query has its answer, unless it waits for others or for the receiver
_PROBE_GRACE_S = 0.4  # after the word that the receiver is off: a reply already under way may still come
_UNREGISTER_S = 2.0
_REGISTRATION_S = 3600  # of an endless iterator: a killed program does not hold its place for longer
_UPDATES_KEPT = 64

_LPP_ANSWER = 19
_NOTIFY_LPP, _NOTIFY_SETTINGS = 208, 808
_GET_POWER, _SET_POWER, _POSITION, _TIME, _SATELLITES, _SPEED = range(1001, 1007)
_REGISTER, _UNREGISTER, _UPDATE, _NMEA, _UBX, _HISTORY = 1007, 1009, 1010, 1011, 1012, 1013

_REFUSED = bytes(8)  # the answer to any request while the gate is closed
_PERIODIC_SIZE = 4


class _Waiter:
    """A reply that somebody waits for."""

    def __init__(self, msg_id: int, txn_id: int, payload: bytes) -> None:
        self.msg_id = msg_id
        self.txn_id = txn_id
        self.reply: bytes | None = None
        # A response to a command repeats it: one to another command, of a process that had this id before, does not.
        self.command = records.command_of(payload) if msg_id in (_NMEA, _UBX) else None

    def take(self, message: bus.Message) -> bool:
        other_command = (self.command is not None and len(message.payload) == records.COMMAND_SIZE
                         and records.command_of(message.payload) != self.command)
        if (self.msg_id, self.txn_id) != (message.msg_id, message.txn_id) or self.reply is not None or other_command:
            return False
        self.reply = message.payload
        return True

    def done(self) -> bool:
        return self.reply is not None


def _check_status(status: int) -> None:
    if status == 0:
        raise errors.FailedError()
    if status == 2:
        raise errors.ReceiverTimeoutError()
    if status != 1:
        raise errors.BadReplyError()


class Client:
    """A connection to the location service.

    `serv_id`: the service to act as; 0 takes the first free one of 32 to 63, which are kept for tools. `timeout`:
    seconds that each call waits for its answer unless it is told otherwise, 0.001 to 86400; a call may take one
    second more where the service's queue is full. `directory`: that of the bus, instead of MQUTILS_DIR or
    /run/terminal-bus.

    One thread at a time: a call while another thread waits raises RuntimeError. Open a client for each thread; a
    program may have as many as there are ids. Calls raise a LocationError when there is no good answer.

    To be closed, or used in a `with` statement: that gives the service id and a registration back.
    """

    def __init__(self, serv_id: int = 0, *, timeout: float = DEFAULT_TIMEOUT_S, directory: str = "") -> None:
        if not 0 <= serv_id <= 255 or serv_id == bus.SERVICE:
            raise errors.BadArgumentError("the service id is 1 to 255, not 8, or 0 for the first free one")
        self.timeout = timeout
        self.lost_updates = 0  # pushed out of the queue, or of the wrong size
        self._seconds(None)
        self._bus = bus.join(serv_id, directory, TOOL_IDS, _TOOL_ID_SEARCH_S)
        self._left = weakref.finalize(self, self._bus.close)  # also when nobody closes it
        self._reading = threading.Lock()
        self._waiters: list[_Waiter] = []
        self._updates: deque[records.Update] = deque(maxlen=_UPDATES_KEPT)
        self._owed = 0  # updates that a registration is still good for
        self._lpp_answers: deque[bytes] = deque(maxlen=1)

    def __enter__(self) -> Client:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        """Ends a registration (at most 2 s) and leaves the bus. May be called twice."""
        if self._left.alive:
            try:
                self._end_registration()
            finally:
                self._left()

    @property
    def serv_id(self) -> int:
        return self._bus.serv_id

    def fileno(self) -> int:
        """Readable when something has come: for select, poll and event loops. Then call poll_updates()."""
        return self._bus.fileno()

    # --- requests ---

    def get_power(self, timeout: float | None = None) -> records.Power:
        reply = self._request(_GET_POWER, size=records.POWER_SIZE, timeout=timeout, probing=False)
        _check_status(records.status_of(reply))
        return records.power(reply)

    def set_power(self, mode: int, timeout: float | None = None) -> records.Power:
        """Changes the power mode, a PowerMode. FailedError.power_mode is the one in force after a refusal: services
        other than 3, 6, 8 and 9 may not switch on a receiver that is off."""
        if mode not in tuple(records.PowerMode):
            raise errors.BadArgumentError("a power mode is 0 or 1 (off), or 2 (on)")
        start = time.monotonic()
        reply = self._request(_SET_POWER, int(mode).to_bytes(4, "little"), size=records.POWER_SIZE,
                              timeout=timeout, probing=False)
        try:
            _check_status(records.status_of(reply))
        except errors.FailedError:
            # A refusal and the closed gate look the same; the mode tells them apart.
            left = self._seconds(timeout) - (time.monotonic() - start)
            if left < 0.001:
                raise errors.NoReplyError() from None
            in_force = self.get_power(left).power_mode
            raise errors.FailedError(f"power mode {int(mode)} was refused to service {self.serv_id}, "
                                     f"{in_force} is in force", power_mode=in_force) from None
        return records.power(reply)

    def get_position(self, timeout: float | None = None) -> records.Position:
        return records.position(self._query(_POSITION, records.POSITION_SIZE, timeout))

    def get_time(self, timeout: float | None = None) -> records.Time:
        return records.time(self._query(_TIME, records.TIME_SIZE, timeout))

    def get_satellites(self, timeout: float | None = None) -> records.Satellites:
        return records.satellites(self._query(_SATELLITES, records.SATELLITES_SIZE, timeout))

    def get_speed(self, timeout: float | None = None) -> records.Speed:
        """Asks the service, whose record gives the time, and then the receiver itself; each with the time-out."""
        record = self.get_speed_record(timeout)
        try:
            speed = records.speed(self.exec_nmea("GPGPQ,VTG", timeout), record.time_utc)
        except errors.LocationError as failure:
            raise errors.SpeedAmbiguousError(record, failure.text) from None
        if speed is None:
            raise errors.SpeedAmbiguousError(record, "its answer is damaged, or holds no speed")
        return speed

    def get_speed_record(self, timeout: float | None = None) -> records.SpeedRecord:
        return records.speed_record(self._query(_SPEED, records.SPEED_SIZE, timeout))

    def exec_nmea(self, body: str, timeout: float | None = None) -> bytes:
        """The receiver's bytes in answer to a sentence without $, * and checksum, such as "PUBX,00". Empty: the
        receiver said nothing, which the service reports as success."""
        if not 0 < len(body) <= records.COMMAND_TEXT_MAX or not all(" " <= c <= "~" and c not in "$*" for c in body):
            raise errors.BadArgumentError(
                f"the sentence is 1 to {records.COMMAND_TEXT_MAX} printable ASCII characters without $ and *")
        return self._execute(_NMEA, body, timeout).rstrip(b"\0")

    def exec_ubx(self, frame: bytes, timeout: float | None = None) -> bytes:
        """The first 80 of the receiver's bytes in answer to a whole frame, see ubx_frame. Empty: it said nothing."""
        if frame[:2] != b"\xb5\x62" or len(frame) < 8 or int.from_bytes(frame[4:6], "little") != len(frame) - 8:
            raise errors.BadArgumentError("not a whole UBX frame")
        text = ",".join(f"{byte:02X}" for byte in frame)
        if len(text) > records.COMMAND_TEXT_MAX:
            text = ",".join(f"{byte:X}" for byte in frame)
        if len(text) > records.COMMAND_TEXT_MAX:
            raise errors.BadArgumentError("the frame is too long for the request")
        answer = self._execute(_UBX, text, timeout)[:records.UBX_ANSWER_MAX]
        end = 0  # zeros behind it are filling, zeros in a frame are its own
        while answer[end:end + 2] == b"\xb5\x62":
            end += 8 + int.from_bytes(answer[end + 4:end + 6], "little")
        return answer[:max(end, len(answer.rstrip(b"\0")))]

    def get_history_path(self, timeout: float | None = None) -> records.HistoryExport:
        """Has the location history exported; lines of the file: location_service_history(5)."""
        reply = self._request(_HISTORY, size=records.EXPORT_SIZE, timeout=timeout)
        if records.status_of(reply) not in (0, 255):
            raise errors.FailedError("the location service could not export its history; its log says why")
        return records.export(reply)

    def notify_history_settings(self) -> None:
        """Tells the service that the history settings in the settings database have changed. It answers nothing."""
        self._alive().send(bus.NOTIFICATION, _NOTIFY_SETTINGS, b"")

    def get_lpp(self, timeout: float | None = None) -> records.Lpp:
        """The LPP location parameters, which only SAL can ask for: Client(2). The service tries three times and says
        nothing when it fails."""
        if self.serv_id != _SAL:
            raise errors.BadArgumentError("LPP parameters go to service 2 (SAL) only")
        seconds, start = self._seconds(timeout), time.monotonic()
        self._lpp_answers.clear()
        self._alive().send(bus.NOTIFICATION, _NOTIFY_LPP, bytes(records.LPP_SIZE))
        self._wait_or_diagnose(lambda: bool(self._lpp_answers), start, seconds)
        answer = self._lpp_answers.pop()
        if not any(answer):  # the confidence of a real one is 70
            raise errors.LppEmptyError()
        return records.lpp(answer)

    # --- periodic updates ---

    def updates(self, interval_s: int = 5, count: int | None = None) -> Iterator[records.Update]:
        """Position updates as they come, one at once and then one every `interval_s` seconds, 4 or more; ends after
        `count`. Registers when it is first asked, also again after a restart of the service that it notices by two
        intervals without an update; unregisters when it ends. Raises when there is no service or no place."""
        remaining, due, first = count, time.monotonic(), True
        try:
            while remaining is None or remaining > 0:
                if self._owed == 0 and not self._updates:
                    # A place is free again only after the last update has gone: hence one interval later.
                    self._wait(lambda: False, due)
                    hour = max(_REGISTRATION_S // max(interval_s, 1), 2)
                    self._register(hour if remaining is None else min(hour, remaining), interval_s, first)
                    first = False
                if not self._wait(lambda: bool(self._updates), time.monotonic() + 2 * interval_s):
                    self._look_after(interval_s)
                    continue
                due = time.monotonic() + interval_s
                remaining = None if remaining is None else remaining - 1
                yield self._updates.popleft()
        finally:
            self._end_registration()

    def register_periodic(self, num_updates: int, interval_s: int, timeout: float | None = None) -> None:
        """Registers for `num_updates` updates; next_update and poll_updates take them. FailedError: this service id
        is registered already, or three others are. Take them as they come: the kernel keeps some ten messages,
        and the service has to wait a second for each one that finds no room."""
        if not 0 < num_updates < 2**32 or not MIN_INTERVAL_S <= interval_s < 2**32:
            raise errors.BadArgumentError(f"one update or more, every {MIN_INTERVAL_S} s or more")
        payload = num_updates.to_bytes(4, "little") + interval_s.to_bytes(4, "little")
        before, self._owed = self._owed, max(self._owed, 1)  # it may be taken though the answer is lost
        try:
            _check_status(records.status_of(self._request(_REGISTER, payload, size=_PERIODIC_SIZE, timeout=timeout)))
        except (errors.AnsweredError, errors.NoDaemonError):
            self._owed = before
            raise
        self._owed = num_updates

    def unregister_periodic(self, timeout: float | None = None) -> None:
        """Ends the registration, also while the receiver is off. FailedError: there was none."""
        reply = self._request(_UNREGISTER, size=_PERIODIC_SIZE, timeout=timeout, probing=False)
        self._owed = 0
        _check_status(records.status_of(reply))

    def next_update(self, timeout: float | None = None) -> records.Update:
        """The next update; a NoPosition where the receiver had none. NoReplyError: none came."""
        if not self._wait(lambda: bool(self._updates), time.monotonic() + self._seconds(timeout)):
            raise errors.NoReplyError("no update came in time")
        return self._updates.popleft()

    def poll_updates(self) -> list[records.Update]:
        """The updates that have come, without waiting. Some may have come during another request."""
        self._wait(lambda: False, time.monotonic())
        taken = list(self._updates)
        self._updates.clear()
        return taken

    # --- inside ---

    def _alive(self) -> bus.Bus:
        if not self._left.alive:
            raise errors.BadArgumentError("the client is closed")
        return self._bus

    def _seconds(self, timeout: float | None) -> float:
        seconds = self.timeout if timeout is None else timeout
        if not 0.001 <= seconds <= 86400:
            raise errors.BadArgumentError("a time-out is 0.001 to 86400 seconds")
        return seconds

    def _wait(self, done: Callable[[], bool], deadline: float) -> bool:
        """Takes what comes until `done`; False at the deadline. The only place that reads from the bus."""
        connection = self._alive()
        if not self._reading.acquire(blocking=False):
            raise RuntimeError("another thread waits on this client: open one for each thread")
        try:
            while not done():
                message = connection.receive(deadline)
                if message is None:
                    return False
                self._take(message)
            return True
        finally:
            self._reading.release()

    def _take(self, message: bus.Message) -> None:
        if message.kind == bus.RESPONSE:
            any(waiter.take(message) for waiter in self._waiters)
        elif (message.kind, message.msg_id) == (bus.NOTIFICATION, _UPDATE):
            self._take_update(message.payload)
        elif (message.kind, message.msg_id, len(message.payload)) == (bus.REQUEST, _LPP_ANSWER, records.LPP_SIZE):
            self._lpp_answers.append(message.payload)

    def _take_update(self, payload: bytes) -> None:
        self._owed = max(self._owed - 1, 0)
        whole = len(payload) == records.POSITION_SIZE
        if not whole or len(self._updates) == _UPDATES_KEPT:
            self.lost_updates += 1
        if whole:
            status = records.status_of(payload)
            self._updates.append(
                records.position(payload) if status == 1 else
                records.NoPosition("receiver_timeout", "the receiver did not answer in time") if status == 2 else
                records.NoPosition("failed", "the receiver has no fix, or its answer was not valid"))

    def _ask(self, msg_id: int, payload: bytes = b"") -> _Waiter:
        waiter = _Waiter(msg_id, self._alive().send(bus.REQUEST, msg_id, payload), payload)
        self._waiters.append(waiter)
        return waiter

    def _request(self, msg_id: int, payload: bytes = b"", *, size: int, timeout: float | None,
                 probing: bool = True) -> bytes:
        seconds, start = self._seconds(timeout), time.monotonic()
        waiter = self._ask(msg_id, payload)
        try:
            if probing:
                self._wait_or_diagnose(waiter.done, start, seconds)
            elif not self._wait(waiter.done, start + seconds):
                raise errors.NoReplyError()
        finally:
            self._waiters.remove(waiter)
        reply = waiter.reply or b""
        if reply == _REFUSED and msg_id != _SET_POWER:
            raise errors.GateClosedError()
        if len(reply) != size:
            raise errors.BadReplyError()
        return reply

    def _query(self, msg_id: int, size: int, timeout: float | None) -> bytes:
        reply = self._request(msg_id, size=size, timeout=timeout)
        _check_status(records.status_of(reply))
        return reply

    def _execute(self, msg_id: int, text: str, timeout: float | None) -> bytes:
        reply = self._request(msg_id, records.command(text), size=records.COMMAND_SIZE, timeout=timeout)
        _check_status(records.status_of(reply))
        return records.answer(reply)

    def _wait_or_diagnose(self, done: Callable[[], bool], start: float, seconds: float) -> None:
        """Waits for what was asked for at `start`. When it does not come soon, finds out whether it can at all: the
        power mode is answered whatever state the receiver is in. Not as SAL and VoIP, behind whose answers the
        service may switch the receiver off, nor as service 9, for which it is always on."""
        deadline = start + seconds
        may_probe = self.serv_id not in (_SAL, _VOIP, _CLIENT_9)
        if self._wait(done, min(deadline, start + _PROBE_AFTER_S) if may_probe else deadline):
            return
        if time.monotonic() >= deadline:
            raise errors.NoReplyError()
        probe = _Waiter(_GET_POWER, -1, b"")  # of a question that could not be sent: nothing answers it
        try:
            probe = self._ask(_GET_POWER)
        except errors.NoDaemonError:
            raise
        except errors.LocationError:
            pass  # the answer may come all the same
        try:
            self._wait(lambda: done() or probe.done(), deadline)
            if done():
                return
            if probe.reply is None:
                raise errors.NoReplyError()
            why = self._meaning_of(probe.reply)
            grace = deadline if isinstance(why, errors.ReceiverBusyError) else time.monotonic() + _PROBE_GRACE_S
            if not self._wait(done, min(deadline, grace)):
                raise why
        finally:
            with contextlib.suppress(ValueError):
                self._waiters.remove(probe)

    @staticmethod
    def _meaning_of(probe: bytes) -> errors.LocationError:
        """What an answer to the question for the power mode says about a request without one."""
        if probe == _REFUSED:
            return errors.GateClosedError()
        if len(probe) != records.POWER_SIZE or records.power(probe).receiver_on:
            return errors.ReceiverBusyError()
        return errors.ReceiverOffError(records.power(probe).power_mode)

    def _register(self, num_updates: int, interval_s: int, first: bool) -> None:
        """A program that was killed leaves its registration behind; who gets its id next clears it away."""
        try:
            self.register_periodic(num_updates, interval_s)
        except errors.FailedError:
            if not first or self.serv_id not in TOOL_IDS:
                raise
            with contextlib.suppress(errors.FailedError):
                self.unregister_periodic()
            self._updates.clear()  # those of the one before
            try:
                self.register_periodic(num_updates, interval_s)
            except errors.FailedError:
                raise errors.FailedError(
                    "the registration was refused: three other services are registered already") from None

    def _look_after(self, interval_s: int) -> None:
        """No update for two intervals. A restarted service has forgotten the registration; the only question that
        tells is another one, which is refused while the first stands."""
        try:
            self.register_periodic(self._owed, interval_s)
        except errors.FailedError:
            raise errors.NoReplyError(f"no update for {2 * interval_s} s") from None

    def _end_registration(self) -> None:
        if self._owed > 0 and self._left.alive:
            with contextlib.suppress(errors.LocationError):
                self.unregister_periodic(_UNREGISTER_S)
            self._owed = 0
