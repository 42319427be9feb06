"""The messages of the alarm application."""

import struct
from typing import NamedTuple

MANAGER, CARD, CONSOLE = 300, 301, 302
RAISE, CLEAR, LIST, STATUS = 1, 2, 3, 4  # versions
SEVERITIES = ("minor", "major", "critical")  # on the wire 1, 2, 3
MAX_TEXT = 200  # bytes

_RAISE = struct.Struct("!IB")
_CLEAR = struct.Struct("!I")


class Alarm(NamedTuple):
    id: int
    severity: str
    text: str

    def __str__(self) -> str:
        return f"{self.id} {self.severity} {self.text}"


def raise_body(alarm: Alarm) -> bytes:
    return _RAISE.pack(alarm.id, SEVERITIES.index(alarm.severity) + 1) + alarm.text.encode(errors="surrogateescape")


def raised(body: bytes) -> Alarm:
    """The alarm of a message. ValueError when it is no such message."""
    if not _RAISE.size <= len(body) <= _RAISE.size + MAX_TEXT or b"\0" in body[_RAISE.size :]:
        raise ValueError("no alarm")
    number, severity = _RAISE.unpack_from(body)
    if not 1 <= severity <= len(SEVERITIES):
        raise ValueError("no severity")
    return Alarm(number, SEVERITIES[severity - 1], body[_RAISE.size :].decode(errors="surrogateescape"))


def clear_body(number: int) -> bytes:
    return _CLEAR.pack(number)


def cleared(body: bytes) -> int:
    if len(body) != _CLEAR.size:
        raise ValueError("no alarm id")
    number: int = _CLEAR.unpack(body)[0]
    return number
