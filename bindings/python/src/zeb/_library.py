"""The library of this process: its start and its end."""

from __future__ import annotations

import atexit
import os
import threading
from types import TracebackType
from typing import TYPE_CHECKING

from . import _log, _types
from ._native import lib
from ._types import check

if TYPE_CHECKING:
    from ._app import App

_lock = threading.Lock()
_apps: list[App] = []  # that run
_pid = 0  # of the process that they run in


class Running:
    """What zeb.run gives: the end of its `with` or `async with` stops the library."""

    def __enter__(self) -> Running:
        return self

    def __exit__(
        self, kind: type[BaseException] | None, value: BaseException | None, trace: TracebackType | None
    ) -> None:
        stop()

    async def __aenter__(self) -> Running:
        for app in _apps:
            app._attach()
        return self

    async def __aexit__(
        self, kind: type[BaseException] | None, value: BaseException | None, trace: TracebackType | None
    ) -> None:
        stop()


def run(*apps: App) -> Running:
    """Registers the applications and starts the library. Peers see them about a second later. All applications of a
    process start together: there is no other run before stop()."""
    global _pid
    with _lock:
        _log.log_by_default()
        first = not _apps
        _pid = os.getpid()
        try:
            for app in apps:
                app._register()
                _apps.append(app)
                app._start()
            lib.zeb_run()
        except BaseException:
            if first:
                _stop()
            raise
    return Running()


def stop() -> None:
    """Ends the library in this process: peers see the quits. Calls and waits in progress fail with Stopped, and streams
    end. Without effect when it does not run. A program that ends without it is stopped by the interpreter's exit."""
    with _lock:
        _stop()


def _stop() -> None:
    if _apps and _pid != os.getpid():
        return  # a forked child: the library is its parent's
    check(lib.zeb_stop())
    apps, _apps[:] = list(_apps), []
    for app in apps:
        app._end()


def my_node() -> int | None:
    """This node's id; None as long as the platform has not said it."""
    node = lib.zeb_get_my_node_id()
    return node if node >= 0 else None


@atexit.register
def _at_exit() -> None:
    """Threads of the program may still be inside calls: the stop ends these, and the threads."""
    _types.exiting = True
    stop()
    _log.end()
