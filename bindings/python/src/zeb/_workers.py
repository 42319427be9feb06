"""Threads for the calls that block, so that an event loop does not.

concurrent.futures will not do: the interpreter waits for its threads at exit, and a send that waits for a peer would
keep it there. These are daemon threads. What they wait for ends with zeb_stop, which runs at exit too."""

from __future__ import annotations

import asyncio
import queue
import threading
from collections.abc import Callable
from typing import Any, TypeVar

T = TypeVar("T")

_work: queue.SimpleQueue[Callable[[], None]] = queue.SimpleQueue()
_lock = threading.Lock()
_free = 0  # threads that wait for work and have none coming
MOST_IDLE = 8


async def in_thread(function: Callable[..., T], *arguments: Any) -> T:
    """Runs function(*arguments) in a thread, and gives its result. When the task is cancelled the thread goes on."""
    loop = asyncio.get_running_loop()
    future: asyncio.Future[T] = loop.create_future()

    def finish(result: T | None, error: BaseException | None) -> None:
        if future.done():
            return
        if error is not None:
            future.set_exception(error)
        else:
            future.set_result(result)  # type: ignore[arg-type]

    def work() -> None:
        result, error = None, None
        try:
            result = function(*arguments)
        except BaseException as raised:
            error = raised
        try:
            loop.call_soon_threadsafe(finish, result, error)
        except RuntimeError:  # the loop is closed: nobody waits
            pass

    _start(work)
    return await future


def _start(work: Callable[[], None]) -> None:
    global _free
    with _lock:
        waits = _free > 0
        if waits:
            _free -= 1
    if waits:
        _work.put(work)
    else:
        threading.Thread(target=_run, args=(work,), name="zeb-worker", daemon=True).start()


def _run(work: Callable[[], None]) -> None:
    global _free
    while True:
        work()
        with _lock:
            if _free >= MOST_IDLE:
                return
            _free += 1
        work = _work.get()
