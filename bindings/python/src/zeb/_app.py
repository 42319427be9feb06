"""An application: what it takes, sends and asks, for programs with an event loop and for those without.

Every application is a polled one: the library queues what arrives, and somebody takes it off the queue, here called
pumping. With an event loop that is the loop's thread, told by the descriptor. Without one it is whichever thread waits
for something: one of those that wait pumps for all of them, and hands over when it has what it came for.

What is not pumped stays in the library's queue, and holds its senders back after a while. So a loop stops pumping while
`backlog` messages wait for the program; but never while a call of its own is in progress, whose end comes through the
same queue.

`_cond` guards what threads share. It is never held during a call of the library, nor while a handler runs."""

from __future__ import annotations

import asyncio
import collections
import errno
import functools
import inspect
import itertools
import logging
import math
import os
import select
import threading
import time
import weakref
from collections.abc import Awaitable, Callable, Iterable
from types import TracebackType
from typing import Any, Optional, TypeVar, Union

from . import _library
from ._group import AppGroup, NodeGroup
from ._native import ffi, lib
from ._stream import EventQueue, Stream, deadline_of
from ._types import (
    Data,
    Error,
    Event,
    EventType,
    Instance,
    Message,
    Outcome,
    PeerState,
    Phase,
    TimedOut,
    check,
    error,
    fail,
    outcomes_of,
    view_of,
)
from ._workers import in_thread

MessageHandler = Callable[[Message], Union[None, Awaitable[None]]]
CallHandler = Callable[[Message], Union[Optional[Data], Awaitable[Optional[Data]]]]
EventHandler = Callable[[Event], Union[None, Awaitable[None]]]
To = Union[int, Instance, AppGroup]
Node = Union[int, NodeGroup, None]
H = TypeVar("H", MessageHandler, CallHandler, EventHandler)

ITEMS_PER_TURN = 16  # of the library's queue in one turn of a loop
LEAVE_LIMIT = 10  # seconds, for a loop in another thread to leave the run that has ended
WAIT_SLICE = 0.5  # seconds after which a wait in a thread looks whether its task was cancelled

_logger = logging.getLogger("zeb.python")
_tokens = itertools.count(1)


class _Call:
    """A call in progress. `finish` is called once, with its outcomes or an error's result, by the thread that pumps or
    stops."""

    __slots__ = ("finish", "number")

    def __init__(self, finish: Callable[[list[Outcome] | None, int], None]) -> None:
        self.finish = finish
        self.number = ffi.new("uint32_t *")


class App:
    """An application of this process. It is registered by zeb.run(app, ...), or by `with app:` or `async with app:`,
    which run the library with this one application and stop it.

    app       its id: 1..8191 or 16384..20479
    name      for listings; cut to 31 bytes
    versions  the message versions that come through messages(). Those with a handler are added. An application without
              any is a client: it can send and call, but is never a destination
    peers     the applications that it talks to. They must name it too
    backlog   with an event loop: no more is taken off the library's queue while so many messages wait for the program
    queue_notice  more items than this in the library's queue give a line in the log; 0: none
    every_subscriber  the application gets each join and each quit of its peers, and a quit ends its calls. Without it, of
                      several applications of a process that name one peer only one does
    """

    def __init__(
        self,
        app: int,
        name: str,
        *,
        versions: Iterable[int] = (),
        peers: Iterable[int] = (),
        backlog: int = 64,
        queue_notice: int = 0,
        every_subscriber: bool = False,
    ) -> None:
        self.id = app
        self.name = name
        self.peers = tuple(peers)
        self.backlog = max(1, backlog)
        self.queue_notice = queue_notice
        self.every_subscriber = every_subscriber
        self._versions = set(versions)
        self._message_handlers: dict[int, MessageHandler] = {}
        self._call_handlers: dict[int, CallHandler] = {}
        self._event_handlers: list[EventHandler] = []
        self._tasks: set[asyncio.Task[None]] = set()
        self._cond = threading.Condition()
        self._running = False
        self._ran = False  # at any time
        self._pumper: int | None = None  # the thread that pumps without a loop
        self._loop: asyncio.AbstractEventLoop | None = None
        self._loop_thread = 0
        self._reading = False  # the loop looks at the descriptor
        self._fd = -1
        self._wake_fd = self._wake = -1  # a pipe: a byte ends the wait of the thread that pumps
        self._waiters: set[asyncio.Future[None]] = set()
        self._calls: dict[int, _Call] = {}
        self._inbox: collections.deque[Message] = collections.deque()
        self._online: dict[Instance, None] = {}
        self._event_queues: weakref.WeakSet[EventQueue] = weakref.WeakSet()
        self._taking = threading.Lock()  # guards _items
        self._items = ffi.new("zebpy_item_t[]", ITEMS_PER_TURN)
        self._taken_off: collections.deque[Callable[[], None]] = collections.deque()  # in the order of arrival

    def __repr__(self) -> str:
        return f"<zeb.App {self.id} {self.name!r}{'' if self._running else ', not running'}>"

    @property
    def running(self) -> bool:
        return self._running

    # Running. `with app` is for a program with one application; for several there is `with zeb.run(a, b)`.

    def __enter__(self) -> App:
        _library.run(self)
        return self

    def __exit__(
        self, kind: type[BaseException] | None, value: BaseException | None, trace: TracebackType | None
    ) -> None:
        _library.stop()

    async def __aenter__(self) -> App:
        _library.run(self)
        self._attach()
        return self

    async def __aexit__(
        self, kind: type[BaseException] | None, value: BaseException | None, trace: TracebackType | None
    ) -> None:
        _library.stop()

    # Handlers. They run where the application is pumped, one after the other; one that is a coroutine function runs as
    # a task. An exception goes to the logger "zeb.python", and a call is then refused.

    def on_message(self, version: int) -> Callable[[MessageHandler], MessageHandler]:
        """Decorator: the function gets the one-way messages of a version. Before the application runs."""
        return self._handler(self._message_handlers, version)

    def on_call(self, version: int) -> Callable[[CallHandler], CallHandler]:
        """Decorator: the function gets the calls of a version, and returns the body of the reply. When it returns None,
        it has replied, or will."""
        return self._handler(self._call_handlers, version)

    def on_event(self, function: EventHandler) -> EventHandler:
        """Decorator: the function gets the events."""
        self._event_handlers.append(function)
        return function

    def _handler(self, handlers: dict[int, H], version: int) -> Callable[[H], H]:
        def take(function: H) -> H:
            if self._running:
                raise RuntimeError("a running application cannot take another version")
            handlers[version] = function
            return function

        return take

    # What arrives.

    def messages(self) -> Stream[Message]:
        """The messages and calls of the versions without a handler, each given once, whoever iterates."""
        return Stream(self, self._inbox)

    def events(self) -> Stream[Event]:
        """The joins and quits of peers, from now on; first, a join of each that is online already. Of several
        applications of this process that name one peer, the library tells one. An application with versions is its own
        peer, too."""
        with self._cond:
            queue = EventQueue(Event(EventType.JOIN, peer) for peer in self._online)
            self._event_queues.add(queue)
        return Stream(self, queue)

    def dispatch(self, timeout: float | None = 0) -> bool:
        """For a program without a loop that has handlers: waits until something has arrived, and runs the handlers.
        False when the time has passed, or the library has stopped."""
        before = self._turns
        return self._wait(lambda: self._turns != before, deadline_of(timeout))

    _turns = 0  # how often something was taken off the queue

    # Sending. A message reaches every server instance of `to`, or those on `node`.

    async def send(
        self, to: To, data: Data = b"", *, version: int = 1, node: Node = None, exclude_self: bool = False
    ) -> None:
        """Sends a message. Waits, in a thread of its own, while a destination has too many that it has not
        processed."""
        self._attach()
        await in_thread(self._send, to, data, version, node, lib.ZEB_SEND_EXCLUDE_SELF if exclude_self else 0)

    def send_blocking(
        self, to: To, data: Data = b"", *, version: int = 1, node: Node = None, exclude_self: bool = False
    ) -> None:
        """The same for a program without a loop, or another thread than the loop's: the thread waits."""
        self._may_block()
        self._send(to, data, version, node, lib.ZEB_SEND_EXCLUDE_SELF if exclude_self else 0)

    def send_nowait(
        self, to: To, data: Data = b"", *, version: int = 1, node: Node = None, exclude_self: bool = False
    ) -> None:
        """The same without any wait. WouldBlock: nothing was sent. Another Error with result -1: not all instances got
        it."""
        flags = lib.ZEB_SEND_NOWAIT | (lib.ZEB_SEND_EXCLUDE_SELF if exclude_self else 0)
        self._send(to, data, version, node, flags)

    def _send(self, to: To, data: Data, version: int, node: Node, flags: int) -> None:
        app, where = _address(to, node)
        check(lib.zebpy_send(self.id, where, app, version, *view_of(data), flags))

    # Calls. The request goes to the same instances as a message would, and each has an outcome. A group of applications
    # needs a node, or a group of nodes.

    async def call(
        self,
        to: To,
        data: Data = b"",
        *,
        timeout: float | None,
        version: int = 1,
        node: Node = None,
        exclude_self: bool = False,
    ) -> list[Outcome]:
        """Asks, and gives the outcomes when the last has come or `timeout` seconds have passed (None: no limit).
        Cancelling the task cancels the call. Writing the request waits while TIPC is congested."""
        future: asyncio.Future[list[Outcome]] = self._attach().create_future()

        def finish(outcomes: list[Outcome] | None, failure: int) -> None:
            self._in_loop(_resolve, future, outcomes, failure)

        token = self._begin(finish, to, data, timeout, version, node, exclude_self)
        try:
            return await future
        except asyncio.CancelledError:
            self._cancel(token)
            raise

    def call_blocking(
        self,
        to: To,
        data: Data = b"",
        *,
        timeout: float | None,
        version: int = 1,
        node: Node = None,
        exclude_self: bool = False,
    ) -> list[Outcome]:
        """The same for a program without a loop, or for another thread than the loop's: the thread waits."""
        self._may_block()
        ended: list[tuple[list[Outcome] | None, int]] = []

        def finish(outcomes: list[Outcome] | None, failure: int) -> None:
            ended.append((outcomes, failure))

        token = self._begin(finish, to, data, timeout, version, node, exclude_self)
        try:
            self._wait(lambda: bool(ended), math.inf)
        except BaseException:
            self._cancel(token)
            raise
        outcomes, failure = ended[0] if ended else (None, _STOPPED)
        if outcomes is None:
            raise error(failure, "the library was stopped")
        return outcomes

    def _begin(
        self,
        finish: Callable[[list[Outcome] | None, int], None],
        to: To,
        data: Data,
        timeout: float | None,
        version: int,
        node: Node,
        exclude_self: bool,
    ) -> int:
        app, where = _address(to, node)
        if (
            isinstance(to, AppGroup) and where == lib.ZEB_NODE_ALL
        ):  # the library would take its number for an application
            raise ValueError("a call to a group of applications needs a node or a group of nodes")
        flags = lib.ZEB_SEND_EXCLUDE_SELF if exclude_self else 0
        token = next(_tokens)
        call = _Call(finish)
        with self._cond:
            self._calls[token] = call
        result = lib.zebpy_call(
            self.id, where, app, version, *view_of(data), flags, _milliseconds(timeout), token, call.number
        )
        if result < 0:
            self._calls.pop(token, None)
            fail(result)
        self._look()
        return token

    def _cancel(self, token: int) -> None:
        call = self._calls.pop(token, None)
        if call is not None:
            lib.zeb_rpc_cancel(self.id, call.number[0])
            self._look()

    # Peers.

    async def wait_online(
        self, peer: int, *, node: int | None = None, count: int = 1, timeout: float | None = None
    ) -> None:
        """Waits until servers of `peer` are online: on `node`, or on `count` nodes at least. TimedOut when they are not
        in time."""
        self._attach()
        cancelled = threading.Event()
        try:
            await in_thread(self._wait_online, peer, node, count, deadline_of(timeout), cancelled)
        finally:
            cancelled.set()

    def wait_online_blocking(
        self, peer: int, *, node: int | None = None, count: int = 1, timeout: float | None = None
    ) -> None:
        """The same for a program without a loop, or another thread than the loop's: the thread waits."""
        self._may_block()
        self._wait_online(peer, node, count, deadline_of(timeout), threading.Event())

    def _wait_online(
        self, peer: int, node: int | None, count: int, deadline: float, cancelled: threading.Event
    ) -> None:
        where = lib.ZEB_NODE_ALL if node is None else node
        while not cancelled.is_set():
            left = min(max(deadline - time.monotonic(), 0.001), WAIT_SLICE)
            try:
                check(lib.zeb_wait_online(self.id, peer, where, count, _milliseconds(left)))
                return
            except TimedOut:
                if time.monotonic() >= deadline:
                    raise

    def online_nodes(self, peer: int) -> list[int]:
        """The nodes on which a server of `peer` is online, ascending."""
        room = 64
        while True:
            nodes = ffi.new("uint32_t[]", room)
            found = check(lib.zeb_online_nodes(self.id, peer, nodes, room))
            if found <= room:
                return list(nodes[0:found])
            room = found + 16

    def peer_state(self, peer: int, node: int) -> PeerState:
        """How far the instance of `peer` on `node` is."""
        state = ffi.new("zeb_peer_state_t *")
        check(lib.zeb_peer_state(self.id, peer, node, state))
        return PeerState(Phase(state.phase), bool(state.server), state.since / 1000 if state.since else None)

    # Groups.

    def group(self, apps: Iterable[int] = ()) -> AppGroup:
        """A group of applications, up to 16, to send to and call. It lasts until its `destroy` or the end of its
        `with`."""
        return AppGroup(self.id, apps)

    def node_group(self, nodes: Iterable[int] = ()) -> NodeGroup:
        """A group of nodes, up to 64."""
        return NodeGroup(self.id, nodes)

    # Pumping.

    def _register(self) -> None:
        versions = sorted(self._versions | self._message_handlers.keys() | self._call_handlers.keys())
        name, each = self.name.encode(), int(bool(self.every_subscriber))
        check(lib.zebpy_register(self.id, name, versions, len(versions), self.queue_notice, each))

    def _start(self) -> None:
        """After the registration. The copy of the descriptor stays valid when the library closes its own, so a loop or
        a thread may look at it until it learns of the stop."""
        for peer in self.peers:
            check(lib.zeb_comm_with(self.id, peer))
        with self._cond:
            if not self._cond.wait_for(lambda: self._fd < 0, LEAVE_LIMIT):
                raise RuntimeError(f"{self!r}: the event loop of the former run does not turn, and is not closed")
        self._fd = os.dup(check(lib.zeb_app_fd(self.id)))
        self._wake_fd, self._wake = os.pipe2(os.O_CLOEXEC | os.O_NONBLOCK)
        self._inbox.clear()
        self._online.clear()
        self._running = self._ran = True

    def _end(self) -> None:
        """The library has stopped: all who wait go on."""
        with self._cond:
            if not self._running:
                return
            self._running = False
            calls, self._calls = self._calls, {}
            loop = self._loop
            os.write(self._wake, b"!")
            self._cond.notify_all()
        for call in calls.values():
            call.finish(None, _STOPPED)
        if loop is None or loop.is_closed() or not self._in_loop(self._detach):
            self._close()

    def _detach(self) -> None:
        if self._reading and self._loop is not None:
            self._loop.remove_reader(self._fd)
        self._reading = False
        self._loop = None
        self._wake_waiters()
        self._close()

    def _close(self) -> None:
        with self._cond:
            if self._pumper is not None or self._fd < 0:  # the thread that pumps closes them
                return
            for descriptor in self._fd, self._wake_fd, self._wake:
                os.close(descriptor)
            self._fd = self._wake_fd = self._wake = -1
            self._cond.notify_all()

    def _attach(self) -> asyncio.AbstractEventLoop:
        """The running loop, which pumps from now on."""
        loop = asyncio.get_running_loop()
        if self._loop is loop:
            return loop
        with self._cond:
            if not self._running:
                raise error(*_NOT_RUNNING)
            if self._has_loop():
                raise RuntimeError(f"{self!r} belongs to another event loop")
            self._loop = loop
            self._loop_thread = threading.get_ident()
            self._reading = False
            self._waiters.clear()
            self._tasks.clear()
            os.write(self._wake, b"!")
        self._look()
        return loop

    def _has_loop(self) -> bool:
        if self._loop is not None and self._loop.is_closed():  # it took the descriptor out of its set
            self._loop = None
            self._waiters.clear()
        return self._loop is not None

    def _in_loop(self, function: Callable[..., object], *arguments: Any) -> bool:
        """Runs a function in the loop's thread: at once when this is it. False when the loop is closed."""
        loop = self._loop
        if loop is None:
            return False
        if threading.get_ident() == self._loop_thread:
            function(*arguments)
            return True
        try:
            loop.call_soon_threadsafe(function, *arguments)
        except RuntimeError:
            return False
        return True

    def _look(self) -> None:
        """Lets the loop look at the descriptor, or not: see above."""
        if self._has_loop():
            self._in_loop(self._look_now)

    def _look_now(self) -> None:
        loop = self._loop
        if loop is None or not self._running:
            return
        wanted = bool(self._calls) or len(self._inbox) + len(self._tasks) < self.backlog
        if wanted and not self._reading:
            loop.add_reader(self._fd, self._pump)
        elif self._reading and not wanted:
            loop.remove_reader(self._fd)
        self._reading = wanted

    def _taken(self) -> None:
        if not self._reading:
            self._look()

    def _pump(self) -> int:
        """Takes what is there, up to ITEMS_PER_TURN, and hands it on. A handler that waits for something may come here
        again."""
        if not self._taking.acquire(blocking=False):
            return 0  # a loop has just begun to pump, and a thread has not yet ended
        try:
            number = lib.zebpy_take(self.id, self._items, ITEMS_PER_TURN)
            for index in range(number):
                self._taken_off.append(self._action_of(self._items[index]))
        finally:
            self._taking.release()
        while self._taken_off:
            self._taken_off.popleft()()
        if number > 0:
            self._turns += 1
            self._look()
            self._in_loop(self._wake_waiters)
            with self._cond:
                self._cond.notify_all()
        return number

    def _action_of(self, item: Any) -> Callable[[], None]:
        if item.kind == lib.ZEBPY_MESSAGE:
            return functools.partial(self._take_message, Message(item.msg))
        if item.kind == lib.ZEBPY_EVENT:
            event = Event(EventType(item.event), Instance(item.event_app, item.event_node))
            return functools.partial(self._take_event, event)
        return functools.partial(self._take_outcomes, item.token, outcomes_of(item))

    def _take_outcomes(self, token: int, outcomes: list[Outcome]) -> None:
        call = self._calls.pop(token, None)
        if call is not None:  # not cancelled
            call.finish(outcomes, 0)

    def _take_message(self, message: Message) -> None:
        handler: Callable[[Message], Any] | None
        if message.is_call:
            handler = self._call_handlers.get(message.version)
        else:
            handler = self._message_handlers.get(message.version)
        if handler is not None:
            self._handle(handler, message, message)
        elif message.version in self._versions:
            self._inbox.append(message)
        else:
            _logger.warning("%r: nobody takes this", message)
            if message.is_call:
                message.refuse()

    def _take_event(self, event: Event) -> None:
        with self._cond:
            if event.joined:
                self._online[event.peer] = None
            else:
                self._online.pop(event.peer, None)
            for queue in self._event_queues:
                queue.append(event)
        for handler in self._event_handlers:
            self._handle(handler, event, None)

    def _handle(self, handler: Callable[[Any], Any], argument: Message | Event, message: Message | None) -> None:
        try:
            result = handler(argument)
            if not inspect.isawaitable(result):
                _answer(message, result)
                return
            if self._loop is None:
                if inspect.iscoroutine(result):
                    result.close()
                raise RuntimeError("a handler that is a coroutine function needs an event loop")
            task = self._loop.create_task(_finish(result, message))
            self._tasks.add(task)
            task.add_done_callback(self._handled)
        except Exception:
            _failed(message)

    def _handled(self, task: asyncio.Task[None]) -> None:
        self._tasks.discard(task)
        self._taken()

    # Waiting.

    async def _change(self) -> None:
        """Until something has been taken off the queue, or the library has stopped."""
        waiter = asyncio.get_running_loop().create_future()
        self._waiters.add(waiter)
        try:
            await waiter
        finally:
            self._waiters.discard(waiter)

    def _wake_waiters(self) -> None:
        for waiter in list(self._waiters):
            if not waiter.done():
                waiter.set_result(None)

    def _may_block(self) -> None:
        if self._has_loop() and threading.get_ident() == self._loop_thread:
            raise RuntimeError("this would block the event loop: await the call without _blocking")

    def _wait(self, ready: Callable[[], bool], deadline: float) -> bool:
        """Blocks until ready(), and pumps when nobody else does. False when the time has passed or the library has
        stopped."""
        self._may_block()
        if not self._ran:
            raise error(*_NOT_RUNNING)
        looked = False
        with self._cond:
            while not ready():
                left = max(0.0, deadline - time.monotonic())
                if not self._running or (left == 0 and looked):
                    return False
                looked = True
                if self._has_loop() or (self._pumper is not None and self._pumper != threading.get_ident()):
                    self._cond.wait(min(left, threading.TIMEOUT_MAX))
                else:
                    self._pump_blocking(left)
            return True

    def _pump_blocking(self, left: float) -> None:
        """With _cond held, which it releases meanwhile. A handler may come here again."""
        former, self._pumper = self._pumper, threading.get_ident()
        self._cond.release()
        try:
            poll = select.poll()
            poll.register(self._fd, select.POLLIN)
            poll.register(self._wake_fd, select.POLLIN)
            poll.poll(None if left == math.inf else math.ceil(left * 1000))
            self._drain_wake()
            if self._running and not self._has_loop():
                self._pump()
        finally:
            self._cond.acquire()
            self._pumper = former
            self._cond.notify_all()
            if not self._running:
                self._close()

    def _drain_wake(self) -> None:
        try:
            os.read(self._wake_fd, 64)
        except BlockingIOError:
            pass


def _address(to: To, node: Node) -> tuple[int, int]:
    if isinstance(to, tuple):
        if node is not None:
            raise TypeError("an instance has a node already")
        return to.app, to.node
    where = lib.ZEB_NODE_ALL if node is None else node.id if isinstance(node, NodeGroup) else node
    return (to.id if isinstance(to, AppGroup) else to), where


def _milliseconds(timeout: float | None) -> int:
    """The library's 0 is no limit, so what is shorter than a millisecond is one."""
    return 0 if timeout is None or timeout == math.inf else min(max(1, math.ceil(timeout * 1000)), 0xFFFFFFFF)


def _resolve(future: asyncio.Future[list[Outcome]], outcomes: list[Outcome] | None, failure: int) -> None:
    if future.done():
        return
    if outcomes is None:
        future.set_exception(error(failure, "the library was stopped"))
    else:
        future.set_result(outcomes)


async def _finish(result: Awaitable[Any], message: Message | None) -> None:
    try:
        _answer(message, await result)
    except Exception:
        _failed(message)


def _answer(message: Message | None, result: Data | None) -> None:
    if message is not None and message.is_call and result is not None:
        message.reply(result)


def _failed(message: Message | None) -> None:
    _logger.exception("a handler failed" + (f" for {message!r}" if message is not None else ""))
    if message is not None and message.is_call and not message.answered:
        try:
            message.refuse()
        except Error as failure:
            _logger.warning("%r cannot be refused: %s", message, failure)


_NOT_RUNNING = (-errno.ENOENT, "the application is not running: zeb.run(app) first")
_STOPPED = -errno.ESHUTDOWN
