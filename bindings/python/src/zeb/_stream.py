"""What arrives at an application, one after the other."""

from __future__ import annotations

import collections
import math
import time
from collections.abc import AsyncIterator, Iterator
from typing import TYPE_CHECKING, Generic, TypeVar

from ._types import Event

if TYPE_CHECKING:
    from ._app import App

T = TypeVar("T")


class EventQueue(collections.deque[Event]):
    """Of one stream. Two are the same only when they are one."""

    __hash__ = object.__hash__


class Stream(Generic[T]):
    """What arrives, one after the other: for `async for` in a coroutine, and for `for` or get() in a program without a
    loop. It ends when the library stops."""

    def __init__(self, app: App, items: collections.deque[T]) -> None:
        self._app = app
        self._items = items

    def __aiter__(self) -> AsyncIterator[T]:
        return self

    async def __anext__(self) -> T:
        while True:
            try:
                return self._pop()
            except IndexError:
                if self._ended():
                    raise StopAsyncIteration from None
                self._app._attach()
                await self._app._change()

    def __iter__(self) -> Iterator[T]:
        return self

    def __next__(self) -> T:
        item = self.get()
        if item is None:
            raise StopIteration
        return item

    def get(self, timeout: float | None = None) -> T | None:
        """The next one; blocks until there is one. None when the time has passed, or when the library has stopped."""
        deadline = deadline_of(timeout)
        while True:
            try:
                return self._pop()
            except IndexError:
                if self._ended() or not self._app._wait(lambda: bool(self._items), deadline):
                    return None

    def _ended(self) -> bool:
        """Whether there was a run, and it is over. Before the first there is nothing to wait for: an error."""
        return self._app._ran and not self._app.running

    def _pop(self) -> T:
        item = self._items.popleft()
        self._app._taken()
        return item


def deadline_of(timeout: float | None) -> float:
    """When a wait that begins now ends, by time.monotonic()."""
    return math.inf if timeout is None else time.monotonic() + timeout
