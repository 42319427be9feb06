"""The library's log lines, as records of `logging`.

The library hands a line to its handler in any of its threads, with its locks held. Python must not run there. It would
wait for the interpreter's lock, or for one of `logging`, whose owner may wait for a lock of the library, and neither
would go on. So the handler is C, puts the line into a pipe and never waits (native/zeb_python.c). The thread here reads
the pipe, holds no lock of the library and may wait as it likes. A handler of `logging` may even call the library."""

from __future__ import annotations

import logging
import os
import struct
import threading

from ._native import lib
from ._types import error

_HEAD = struct.Struct("=iiqqIIII")  # zebpy_line_t
_LEVELS = (logging.DEBUG, logging.INFO, logging.WARNING, logging.ERROR)
_PIPE_SIZE = 1 << 20  # some 5,000 lines; as much as any user may have

_lock = threading.Lock()
_bridge: _Bridge | None = None
_chosen = False  # whether the program has said where lines go, or that they go nowhere


class _Bridge:
    def __init__(self, logger: logging.Logger) -> None:
        self.logger = logger
        self.pid = os.getpid()
        self._input, self._output = os.pipe2(os.O_CLOEXEC)
        os.set_blocking(self._output, False)
        _widen(self._output)
        self._thread = threading.Thread(target=self._read, name="zeb-log", daemon=True)
        self._thread.start()
        result = lib.zebpy_log_start(self._output)
        if result < 0:
            os.close(self._output)
            raise error(result)

    def stop(self) -> None:
        lib.zebpy_log_stop()
        os.close(self._output)
        if threading.current_thread() is not self._thread:
            self._thread.join()

    def _read(self) -> None:
        rest = b""
        with os.fdopen(self._input, "rb", buffering=0) as lines:
            while chunk := lines.read(65536):
                rest = self._records(rest + chunk)

    def _records(self, text: bytes) -> bytes:
        """Logs the complete records, and returns what is left of the last."""
        at = 0
        while at + _HEAD.size <= len(text):
            level, line, seconds, nanoseconds, lost, file_len, text_len, _ = _HEAD.unpack_from(text, at)
            body = at + _HEAD.size
            end = body + file_len + text_len
            if end > len(text):
                break
            file = text[body : body + file_len].decode("utf-8", "replace")
            said = text[body + file_len : end].decode("utf-8", "replace")
            if lost:
                self._log(
                    logging.WARNING, f"{lost} lines of the log were lost", __file__, 0, seconds + nanoseconds / 1e9
                )
            self._log(
                _LEVELS[level] if 0 <= level < 4 else logging.ERROR, said, file, line, seconds + nanoseconds / 1e9
            )
            at = end
        return text[at:]

    def _log(self, level: int, text: str, file: str, line: int, when: float) -> None:
        if not self.logger.isEnabledFor(level):
            return
        record = self.logger.makeRecord(self.logger.name, level, file, line, "%s", (text,), None)
        record.created = when
        record.msecs = when % 1 * 1000
        try:
            self.logger.handle(record)
        except Exception:  # a handler of the program; the next line is another
            logging.getLogger("zeb.python").exception("a log handler failed")


def _widen(descriptor: int) -> None:
    import fcntl

    try:
        fcntl.fcntl(descriptor, fcntl.F_SETPIPE_SZ, _PIPE_SIZE)
    except OSError:  # the user has too many large pipes; this one is smaller
        pass


def log_to(logger: logging.Logger | None) -> None:
    """From now on the library's log lines go to `logger` too; None: to no logger. Without a call, they go to the logger
    "zeb" from the first run on. Which lines there are is said by the library's masks: the configuration file, or
    ZEB_DEBUG=error,warn,info in the environment. When this returns, lines that came before are logged."""
    global _bridge, _chosen
    with _lock:
        _chosen = True
        former, _bridge = _bridge, None
        if former is not None:
            former.stop()
        if logger is not None:
            _bridge = _Bridge(logger)


def end() -> None:
    """At the interpreter's exit. A forked child has neither the thread nor, in the library, a handler that writes."""
    if _bridge is not None and _bridge.pid == os.getpid():
        log_to(None)


def log_by_default() -> None:
    if not _chosen:
        log_to(logging.getLogger("zeb"))
