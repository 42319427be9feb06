"""Values and errors: what calls give and take."""

from __future__ import annotations

import dataclasses
import enum
import errno
import struct
import threading
from typing import Any, NamedTuple, NoReturn, Union

from ._native import ffi, lib

Data = Union[bytes, bytearray, memoryview]

_MISMATCH = struct.Struct("=II")  # the lowest and the highest version, in the server's byte order


class Error(OSError):
    """A call of the library failed. `str()` says why, in the words of the library's log.

    `result` is the library's own: a negative errno, or -1 where a socket or a system call failed. `errno` is the same
    without its sign."""

    def __init__(self, result: int, text: str) -> None:
        super().__init__(-result, text)
        self.result = result
        self.text = text

    def __str__(self) -> str:
        return self.text

    def __reduce__(self) -> tuple[Any, ...]:
        return type(self), (self.result, self.text)


class NotOnline(Error):
    """No server of the destination is online, or the application is not running (-ENOENT)."""


class WouldBlock(Error, BlockingIOError):
    """A destination has too many messages that it has not processed yet; nothing was sent (-EAGAIN)."""


class TimedOut(Error, TimeoutError):
    """The limit of a wait has passed (-ETIMEDOUT)."""


class Stopped(Error):
    """The library was stopped meanwhile (-ESHUTDOWN)."""


_ERRORS: dict[int, type[Error]] = {
    -errno.ENOENT: NotOnline,
    -errno.EAGAIN: WouldBlock,
    -errno.ETIMEDOUT: TimedOut,
    -errno.ESHUTDOWN: Stopped,
}


def text_of(cdata: Any) -> str:
    return ffi.string(cdata).decode("utf-8", "replace")


exiting = False  # the interpreter is ending


def error(result: int, text: str = "") -> Error:
    """The exception for a result. When the interpreter ends, a daemon thread that is in a call ends without a word
    instead."""
    if exiting and result == -errno.ESHUTDOWN and threading.current_thread() is not threading.main_thread():
        raise SystemExit
    return _ERRORS.get(result, Error)(result, text or text_of(lib.zeb_strerror(result)))


def fail(result: int) -> NoReturn:
    """Raises the error of the call that this thread has just made."""
    raise error(result, text_of(lib.zeb_last_error()))


def check(result: int) -> int:
    if result < 0:
        fail(result)
    return result


class Instance(NamedTuple):
    """An application on a node."""

    app: int
    node: int

    def __str__(self) -> str:
        return f"{self.app}/{self.node}"


class EventType(enum.IntEnum):
    JOIN = 0
    QUIT = 1


@dataclasses.dataclass(frozen=True)
class Event:
    """A server instance of a peer application is online (JOIN), or no longer (QUIT)."""

    type: EventType
    peer: Instance

    @property
    def joined(self) -> bool:
        return self.type is EventType.JOIN


class Status(enum.IntEnum):
    """What became of a call at one instance."""

    SUCCESS = 0
    MISMATCH = 1
    APP_UNAVAIL = 2
    APP_MISMATCH = 3
    SYSTEM_ERR = 4
    TIMEOUT = 5

    @property
    def text(self) -> str:
        return text_of(lib.zeb_reply_status_text(self.value))


_STATUSES = frozenset(status.value for status in Status)


@dataclasses.dataclass(frozen=True)
class Outcome:
    """The outcome of a call at one instance. `data` is the server's body when `ok`."""

    peer: Instance
    status: Status
    data: bytes
    version: int

    @property
    def ok(self) -> bool:
        return self.status is Status.SUCCESS

    @property
    def versions(self) -> tuple[int, int] | None:
        """With APP_MISMATCH: the lowest and the highest version that the server takes."""
        if self.status is not Status.APP_MISMATCH or len(self.data) < _MISMATCH.size:
            return None
        low, high = _MISMATCH.unpack_from(self.data)
        return low, high


class Phase(enum.IntEnum):
    UNKNOWN = 0
    HANDSHAKING = 1
    ONLINE = 2
    BLOCKED = 3


@dataclasses.dataclass(frozen=True)
class PeerState:
    """How far an instance is. `server`: sends and calls reach it. `since`: seconds of time.monotonic(), None when
    unknown."""

    phase: Phase
    server: bool
    since: float | None


class Message:
    """A message, or the request of a call, which waits for a reply."""

    __slots__ = ("sender", "version", "data", "is_call", "_request")

    def __init__(self, msg: Any) -> None:
        header = msg.hdr
        self.sender = Instance(header.src_app, header.src_node)
        self.version: int = header.app_ver
        self.data = data_of(msg)
        self.is_call = bool(header.flag & lib.ZEB_MSG_FLAG_REQUEST)
        self._request: Any = None
        if self.is_call:  # the reply needs it
            self._request = ffi.gc(msg, lib.zeb_msg_free, lib.zeb_msg_size(msg))
        else:
            lib.zeb_msg_free(msg)

    def __repr__(self) -> str:
        what = "call" if self.is_call else "message"
        return f"<{what} from {self.sender}, version {self.version}, {len(self.data)} bytes>"

    def reply(self, data: Data = b"") -> None:
        """Answers a call, from any thread and at any later time, once. Waits while TIPC is congested."""
        self._reply(*view_of(data))

    def refuse(self) -> None:
        """Answers a call with SYSTEM_ERR."""
        self._reply(ffi.NULL, 0)

    @property
    def answered(self) -> bool:
        return self.is_call and self._request is None

    def _reply(self, data: Any, size: int) -> None:
        request, self._request = self._request, None
        if request is None:
            raise ValueError("this call is already answered" if self.is_call else "this message is not a call")
        result = lib.zebpy_reply(request, data, size)
        text = text_of(lib.zeb_last_error()) if result < 0 else ""
        ffi.release(request)
        if result < 0:
            raise error(result, text)


def view_of(data: Data) -> tuple[Any, int]:
    """A pointer to the bytes, never null, and their number."""
    size = memoryview(data).nbytes
    if size > lib.ZEB_MSG_MAX_DATA:
        raise Error(-errno.EMSGSIZE, f"a message has {lib.ZEB_MSG_MAX_DATA} bytes at most, not {size}")
    return ffi.from_buffer(data if size else b"\0"), size


def data_of(msg: Any) -> bytes:
    return bytes(ffi.buffer(lib.zeb_msg_data(msg), lib.zeb_msg_size(msg)))


def outcomes_of(item: Any) -> list[Outcome]:
    """The outcomes of a complete call. Frees its messages."""
    replies = ffi.addressof(item, "replies")
    found = [outcome_of(replies.msg[index]) for index in range(replies.num)]
    lib.zeb_reply_free(replies)
    return found


def outcome_of(msg: Any) -> Outcome:
    header = msg.hdr
    return Outcome(Instance(header.src_app, header.src_node), _status_of(header.rpc_stat), data_of(msg), header.app_ver)


def _status_of(value: int) -> Status:
    """A peer may send any number."""
    return Status(value) if value in _STATUSES else Status.SYSTEM_ERR
