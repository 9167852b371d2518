"""What can go wrong, under the names that `lsctl --json` prints as `error`."""

from __future__ import annotations

from typing import ClassVar

from ._records import SpeedRecord


class LocationError(Exception):
    """A request without the answer that was wanted. `error` is a stable name, `text` is for people."""

    error: ClassVar[str] = "bus_error"
    default_text: ClassVar[str] = "the bus failed"

    def __init__(self, text: str = "") -> None:
        self.text = text or self.default_text
        super().__init__(self.text)


class AnsweredError(LocationError):
    """The service answered, with a failure; lsctl ends with 1."""


class NoAnswerError(LocationError):
    """There was no answer, or nobody to ask; lsctl ends with 3."""


class FailedError(AnsweredError):
    """Failed or refused. `power_mode`: the one in force after a change was refused."""

    error = "failed"
    default_text = "the location service answered that the request failed"

    def __init__(self, text: str = "", power_mode: int | None = None) -> None:
        self.power_mode = power_mode
        super().__init__(text)


class LppEmptyError(FailedError):
    error = "lpp_empty"
    default_text = (
        "the location service sent an empty record: the receiver does not answer it, or is switched off"
    )


class SpeedAmbiguousError(FailedError):
    """The receiver itself could not be asked. `record`: what the service says, modulo 256."""

    error = "speed_ambiguous"

    def __init__(self, record: SpeedRecord, why: str) -> None:
        self.record = record
        super().__init__(
            f"the service tells the speed modulo 256 only, and the receiver itself could not be asked: {why}")


class ReceiverTimeoutError(AnsweredError):
    error = "receiver_timeout"
    default_text = "the location service answered that the receiver did not answer it in time"


class GateClosedError(AnsweredError):
    error = "gate_closed"
    default_text = (
        "the location service refuses all requests: this terminal has no GNSS antenna and no static location"
    )


class BadReplyError(AnsweredError):
    error = "bad_reply"
    default_text = "the location service sent a reply of the wrong size or with an unknown status"


class ReceiverOffError(NoAnswerError):
    """`power_mode`: the mode that says so, 0 or 1."""

    error = "receiver_off"

    def __init__(self, power_mode: int) -> None:
        self.power_mode = power_mode
        super().__init__(f"the receiver is switched off (power mode {power_mode})")


class ReceiverBusyError(NoAnswerError):
    error = "receiver_busy"
    default_text = "the receiver is on, but the location service did not answer this request in time"


class NoReplyError(NoAnswerError):
    error = "no_reply"
    default_text = "the location service did not answer in time"


class NoBusError(NoAnswerError):
    error = "no_bus"
    default_text = "the bus directory does not exist"


class BusDeniedError(NoAnswerError):
    error = "bus_denied"
    default_text = (
        "the bus does not permit this user to do that: on a terminal its users are in the group terminal-bus, "
        "those of tools in terminal-tools, too"
    )


class BusLockedError(NoAnswerError):
    error = "bus_locked"
    default_text = "another process holds the lock of the bus directory"


class IdTakenError(NoAnswerError):
    error = "id_taken"
    default_text = "another process already uses this service id"


class IdsExhaustedError(NoAnswerError):
    error = "ids_exhausted"
    default_text = "all service ids for tools (32 to 63) are in use"


class NoDaemonError(NoAnswerError):
    error = "no_daemon"
    default_text = "the location service is not running"


class BusFullError(NoAnswerError):
    error = "bus_full"
    default_text = "the location service does not take messages from its queue"


class BusError(NoAnswerError):
    error = "bus_error"


class BadArgumentError(LocationError, ValueError):
    """Nothing was sent; lsctl ends with 2."""

    error = "bad_argument"
    default_text = "the argument is not valid"
