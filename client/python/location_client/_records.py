"""Records: what the requests answer. Attributes have the names and units of the keys of `lsctl --json`.

Byte layouts: docs/wire.md. Each decoder takes a whole payload of exactly its size.
"""

from __future__ import annotations

import dataclasses
import functools
import operator
import re
import struct
from datetime import datetime, timedelta, timezone
from enum import IntEnum
from typing import Any, Literal, Union

FixType = Literal["2D", "3D", "none"]

SLOTS = 12  # satellites that a reply has room for


class PowerMode(IntEnum):
    """Power modes of the receiver. The first two are both off; they differ in what is stored."""

    OFF = 0
    OFF_ALT = 1
    ON = 2


class Record:
    """Base of all records."""

    def as_dict(self) -> dict[str, Any]:
        """The keys and values of `lsctl --json`, such as `json.dumps` takes."""
        return {field.name: _plain(getattr(self, field.name)) for field in dataclasses.fields(self)}


@dataclasses.dataclass(frozen=True)
class Power(Record):
    receiver_on: bool
    power_mode: int  # 0 and 1 off, 2 on


@dataclasses.dataclass(frozen=True)
class Position(Record):
    time_utc: datetime | None  # None: the receiver does not know the time
    fix_type: FixType
    satellites_used: int
    latitude_deg: float  # south negative
    longitude_deg: float  # west negative
    altitude_m: float  # above mean sea level
    horizontal_accuracy_m: float
    vertical_accuracy_m: float


@dataclasses.dataclass(frozen=True)
class NoPosition(Record):
    """A periodic update without a position."""

    error: Literal["failed", "receiver_timeout"]
    text: str


Update = Union[Position, NoPosition]


@dataclasses.dataclass(frozen=True)
class Time(Record):
    time_utc: datetime | None
    time_of_week_s: int  # of UTC, since Sunday 00:00


@dataclasses.dataclass(frozen=True)
class Satellite(Record):
    prn: int
    cn0_dbhz: int | None  # None: not heard, or not told
    used: bool


@dataclasses.dataclass(frozen=True)
class Satellites(Record):
    time_utc: datetime | None
    satellites_in_view: int  # may be more than are listed
    satellites_used: int
    satellites: tuple[Satellite, ...]


@dataclasses.dataclass(frozen=True)
class Speed(Record):
    """As the receiver itself tells it."""

    time_utc: datetime | None
    speed_kmh: float
    speed_mps: float
    speed_knots: float
    course_deg: float | None  # from north; None without movement


@dataclasses.dataclass(frozen=True)
class SpeedRecord(Record):
    """What the service's record holds: both numbers are cut to 8 bits, so 300.826 km/h is 44 and 58."""

    time_utc: datetime | None
    speed_whole_kmh: int
    speed_fraction_digits: int  # 12.5 and 12.05 both have 5


@dataclasses.dataclass(frozen=True)
class Lpp(Record):
    latitude_deg: float
    longitude_deg: float
    latitude_coded: int
    longitude_coded: int
    vertical_accuracy_m: int  # truncated; the record has it in the field of the altitude
    uncertainty_semi_major_m: float
    uncertainty_semi_minor_m: float
    uncertainty_altitude_m: float
    major_axis_deg: int
    confidence_percent: int


@dataclasses.dataclass(frozen=True)
class HistoryExport(Record):
    path: str  # on the terminal; of a simulated one below its directory
    complete: bool  # False: lines could not be written


def _plain(value: Any) -> Any:
    if isinstance(value, datetime):
        return value.strftime("%Y-%m-%dT%H:%M:%SZ")
    if isinstance(value, tuple):
        return [_plain(each) for each in value]
    return value.as_dict() if isinstance(value, Record) else value


_TIME = "BBBxHBBH"


def _utc(hour: int, minute: int, second: int, _: int, day: int, month: int, year: int) -> datetime | None:
    try:  # a leap second becomes the first second of the next minute
        start = datetime(year, month, day, hour, minute, tzinfo=timezone.utc)
    except ValueError:
        return None
    return start + timedelta(seconds=second) if second <= 60 else None


def _signed(magnitude: float, hemisphere: bytes) -> float:
    return -magnitude if hemisphere in (b"S", b"W") else magnitude


def status_of(payload: bytes) -> int:
    return int.from_bytes(payload[:4], "little")


POWER_SIZE = 8


def power(payload: bytes) -> Power:
    mode = int.from_bytes(payload[4:8], "little")
    return Power(mode == PowerMode.ON, mode)


_POSITION = struct.Struct(f"<I4x{_TIME}6xdc7xdc3xIf4xdfB3x")
POSITION_SIZE = _POSITION.size


def position(payload: bytes) -> Position:
    _, *time, lat, lat_dir, lon, lon_dir, fix, horizontal, altitude, vertical, used = _POSITION.unpack(payload)
    fix_type: FixType = "2D" if fix == 0 else "3D" if fix == 1 else "none"
    # Four digits behind the point are all that the floats hold.
    return Position(_utc(*time), fix_type, used, _signed(lat, lat_dir), _signed(lon, lon_dir), altitude,
                    round(horizontal, 4), round(vertical, 4))


_TIME_REPLY = struct.Struct(f"<I{_TIME}2xI")
TIME_SIZE = _TIME_REPLY.size


def time(payload: bytes) -> Time:
    _, *utc, time_of_week = _TIME_REPLY.unpack(payload)
    return Time(_utc(*utc), time_of_week)


_SATELLITES = struct.Struct(f"<I{_TIME}BB{SLOTS}s{SLOTS}s{SLOTS}s")
SATELLITES_SIZE = _SATELLITES.size


def satellites(payload: bytes) -> Satellites:
    _, *utc, in_view, num_used, prns, cn0s, used = _SATELLITES.unpack(payload)
    prns = prns[:in_view]
    listed = [Satellite(prn, cn0 or None, prn != 0 and prn in used) for prn, cn0 in zip(prns, cn0s)]
    listed += [Satellite(prn, None, True) for prn in used if prn != 0 and prn not in prns]
    return Satellites(_utc(*utc), in_view, num_used, tuple(listed))


_SPEED = struct.Struct(f"<I{_TIME}BB")
SPEED_SIZE = _SPEED.size


def speed_record(payload: bytes) -> SpeedRecord:
    _, *utc, whole, digits = _SPEED.unpack(payload)
    return SpeedRecord(_utc(*utc), whole, digits)


_SENTENCE = re.compile(rb"\$(..VTG,[ -)+-~]*)\*([0-9A-Fa-f]{2})\r\n")


def speed(answer: bytes, time_utc: datetime | None) -> Speed | None:
    """The speed in the receiver's sentence VTG; None where there is no undamaged one, or it holds no speed."""
    for body, checksum in _SENTENCE.findall(answer):
        if functools.reduce(operator.xor, body) == int(checksum, 16):
            fields = [_number(field) for field in body.split(b",")] + 8 * [None]
            course, knots, kmh = fields[1], fields[5], fields[7]
            if knots is not None and kmh is not None:
                return Speed(time_utc, kmh, round(kmh / 3.6, 3), knots, course)
    return None


def _number(field: bytes) -> float | None:
    try:
        return float(field)
    except ValueError:
        return None


_LPP = struct.Struct("<IIBBBBHHII")
LPP_SIZE = _LPP.size


def lpp(payload: bytes) -> Lpp:
    south, _, major, minor, altitude_code, confidence, accuracy, axis, lat, lon = _LPP.unpack(payload)
    lon_signed = (lon & 0x7FFFFF) - (lon & 0x800000)
    return Lpp(
        latitude_deg=_signed(lat * 90 / 2**23, b"S" if south == 1 else b"N"),
        longitude_deg=lon_signed * 360 / 2**24,
        latitude_coded=lat,
        longitude_coded=lon,
        vertical_accuracy_m=accuracy,
        uncertainty_semi_major_m=10 * (1.1**major - 1),
        uncertainty_semi_minor_m=10 * (1.1**minor - 1),
        uncertainty_altitude_m=45 * (1.025**altitude_code - 1),
        major_axis_deg=2 * axis,  # travels halved
        confidence_percent=confidence,
    )


_COMMAND = struct.Struct("<I80s200s")
COMMAND_SIZE = _COMMAND.size
COMMAND_TEXT_MAX = 79
UBX_ANSWER_MAX = 80  # of an answer to a frame; what is behind is lost


def command(text: str) -> bytes:
    return _COMMAND.pack(0, text.encode("ascii"), b"")


def command_of(payload: bytes) -> bytes:
    """What a response to a command repeats of it."""
    return payload[4:84]


def answer(payload: bytes) -> bytes:
    return payload[84:]


_EXPORT = struct.Struct("<I100s")
EXPORT_SIZE = _EXPORT.size


def export(payload: bytes) -> HistoryExport:
    status, path = _EXPORT.unpack(payload)
    return HistoryExport(path.split(b"\0")[0].decode("utf-8", "surrogateescape"), status == 0)
