"""The terminal's location service from Python: positions, time, satellites, power, periodic updates, history.

    import location_client

    with location_client.Client() as client:
        here = client.get_position()
        print(here.latitude_deg, here.longitude_deg, here.horizontal_accuracy_m)
        for update in client.updates(interval_s=5, count=3):
            print(update.as_dict())

Attributes have the names and units of the keys of `lsctl --json` (docs/json.md); times are datetime in UTC, and
`as_dict()` gives an object with the same keys. What goes wrong is a LocationError, whose `error` is the name that
lsctl prints: an AnsweredError where the service answered with a failure, a NoAnswerError where nobody did. Its users
are members of the groups terminal-bus and terminal-tools. For a simulated terminal set MQUTILS_DIR, as its
`simterm run DIR -- COMMAND` does. Datagrams that are not taken are logged to the logger "location_client".

Pure Python, the standard library alone: it speaks to the bus itself.
"""

from ._client import DEFAULT_TIMEOUT_S, MIN_INTERVAL_S, TOOL_IDS, Client
from ._errors import (
    AnsweredError, BadArgumentError, BadReplyError, BusDeniedError, BusError, BusFullError, BusLockedError,
    FailedError, GateClosedError, IdsExhaustedError, IdTakenError, LocationError, LppEmptyError, NoAnswerError,
    NoBusError, NoDaemonError, NoReplyError, ReceiverBusyError, ReceiverOffError, ReceiverTimeoutError,
    SpeedAmbiguousError)
from ._records import (
    HistoryExport, Lpp, NoPosition, Position, Power, PowerMode, Record, Satellite, Satellites, Speed,
    SpeedRecord, Time, Update)

__all__ = [
    "AnsweredError", "BadArgumentError", "BadReplyError", "BusDeniedError", "BusError", "BusFullError",
    "BusLockedError", "Client", "DEFAULT_TIMEOUT_S", "FailedError", "GateClosedError", "HistoryExport",
    "IdsExhaustedError", "IdTakenError", "LocationError", "Lpp", "LppEmptyError", "MIN_INTERVAL_S", "NoAnswerError",
    "NoBusError", "NoDaemonError", "NoPosition", "NoReplyError", "Position", "Power", "PowerMode",
    "ReceiverBusyError", "ReceiverOffError", "ReceiverTimeoutError", "Record", "Satellite", "Satellites", "Speed",
    "SpeedAmbiguousError", "SpeedRecord", "Time", "TOOL_IDS", "ubx_frame", "Update",
]


def ubx_frame(msg_class: int, msg_id: int, payload: bytes = b"") -> bytes:
    """A whole UBX frame for Client.exec_ubx, with its length and checksum."""
    body = bytes((msg_class, msg_id)) + len(payload).to_bytes(2, "little") + payload
    first = second = 0
    for byte in body:
        first = (first + byte) & 0xFF
        second = (second + first) & 0xFF
    return b"\xb5\x62" + body + bytes((first, second))
