"""Without an event loop, and what has a process of its own."""

import os
import subprocess
import sys
import threading

import pytest
from conftest import HERE, Apps, World

import zeb
from zeb.testing import Cluster

BOTH = [zeb.Instance(100, 2), zeb.Instance(100, 3)]


def test_messages_and_calls_of_one_thread(apps: Apps) -> None:
    apps.plain.send_blocking(100, b"plain")
    got = [message for _, message in zip(range(2), apps.plain.messages())]
    assert sorted((message.sender, message.data) for message in got) == [(peer, b"plain") for peer in BOTH]
    assert apps.plain.messages().get(timeout=0) is None
    events = apps.plain.events()
    # Of several applications that name one peer the library tells one, now this and now that; each is told of its own
    # instance.
    while (event := events.get(30)) != zeb.Event(zeb.EventType.JOIN, zeb.Instance(201, 1)):
        assert event is not None and event.joined and event.peer in BOTH
    while (event := events.get(timeout=0.01)) is not None:
        assert event.joined and event.peer in BOTH


def test_each_of_two_that_ask_for_it_gets_the_join_and_the_quit_of_one_peer(apps: Apps, here: Cluster) -> None:
    server = here.python(3, HERE / "programs/server.py", "112")
    peer = zeb.Instance(112, 3)
    streams = [app.events() for app in apps.each]
    for events in streams:
        assert events.get(30) == zeb.Event(zeb.EventType.JOIN, peer)
    server.kill()
    for events in streams:
        assert events.get(30) == zeb.Event(zeb.EventType.QUIT, peer)


def test_many_threads_share_the_queue(apps: Apps) -> None:
    answers: dict[int, list[bytes]] = {}

    def ask(number: int) -> None:
        for turn in range(25):
            outcomes = apps.plain.call_blocking(BOTH[number % 2], f"{number} {turn}".encode(), timeout=30)
            answers.setdefault(number, []).extend(outcome.data for outcome in outcomes)

    threads = [threading.Thread(target=ask, args=(number,)) for number in range(8)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(60)
    assert answers == {number: [f"{number} {turn}".encode() for turn in range(25)] for number in range(8)}


def test_a_thread_that_leaves_hands_the_queue_over(apps: Apps) -> None:
    outcomes: list[zeb.Outcome] = []
    first = threading.Thread(target=lambda: apps.plain.messages().get(timeout=0.3))
    second = threading.Thread(
        target=lambda: outcomes.extend(apps.plain.call_blocking(BOTH[1], b"later", version=4, timeout=None)),
        daemon=True,
    )
    first.start()
    while apps.plain._pumper is None:
        pass
    second.start()  # it waits beside the first, which has nothing to take before it leaves
    first.join()
    while second.is_alive():
        apps.handlers.send_blocking(BOTH[1], version=4)
        second.join(0.01)
    assert [outcome.data for outcome in outcomes] == [b"later"]


def test_handlers_run_in_the_thread_that_dispatches(apps: Apps) -> None:
    apps.handlers.send_blocking(100, b"handled")
    threads: set[int] = set()
    apps.handlers.on_event(lambda event: threads.add(threading.get_ident()))
    while sum(isinstance(item, zeb.Message) for item in apps.handled) < 2:
        assert apps.handlers.dispatch(timeout=30)
    told = [item.peer for item in apps.handled if isinstance(item, zeb.Event)]
    assert [peer for peer in told if peer not in BOTH] == [zeb.Instance(202, 1)]
    assert threads <= {threading.get_ident()}
    assert not apps.handlers.dispatch()
    with pytest.raises(RuntimeError, match="cannot take another version"):
        apps.handlers.on_message(9)(print)


def test_one_run_for_all_applications(apps: Apps) -> None:
    with pytest.raises(zeb.Error, match="already running") as second:
        zeb.run(zeb.App(210, "late"))
    assert second.value.result == -1
    assert len(apps.plain.call_blocking(100, timeout=30)) == 2


def test_an_application_that_does_not_run() -> None:
    app = zeb.App(211, "idle", versions=[1])
    with pytest.raises(zeb.NotOnline):
        app.call_blocking(100, timeout=1)
    with pytest.raises(zeb.NotOnline, match=r"zeb\.run"):
        next(app.messages())


def test_stop_and_start_again_in_one_process(world: World) -> None:
    assert world["restart"].wait() == 0, world["restart"].output
    expected = [
        "loop: [2, 3]",
        "messages StopAsyncIteration",
        "call Stopped",
        "plain: [2, 3]",
        "reader [[]]",
        "stopped: -2",
    ]
    assert world["restart"].lines == expected


def test_a_handler_and_another_thread_may_stop(world: World) -> None:
    assert world["stops"].wait() == 0, world["stops"].output
    assert world["stops"].lines == ["plain handler False", "loop handler [] False", "other thread False"]


@pytest.mark.parametrize("name", ["exit_plain", "exit_loop"])
def test_an_exit_without_stop_neither_crashes_nor_hangs(world: World, name: str) -> None:
    assert world[name].wait() == 0, world[name].output
    assert world[name].lines == ["leaving"]


def test_log_lines_go_to_logging_from_a_thread_that_may_call_the_library(world: World) -> None:
    process = world["log"]
    assert process.wait() == 0, process.output[-3000:]
    said = process.lines
    assert "levels ['DEBUG', 'ERROR', 'INFO', 'WARNING']" in said
    assert {"same text ['ERROR']", "places True", "none afterwards True"} <= set(said)


def test_a_forked_child_leaves_the_library_alone(world: World) -> None:
    assert world["fork"].wait() == 0, world["fork"].output
    said = [
        line for line in world["fork"].lines if not line.startswith("<zeb_")
    ]  # the library's own line on the output
    assert said == ["child: -1", "status 7", "parent: 2", "lines of the child: []"]


def test_without_tipc_the_error_says_why() -> None:
    environment = {name: value for name, value in os.environ.items() if not name.startswith("TIPCSIM_")}
    del environment["LD_PRELOAD"]
    script = """
import zeb
try:
    zeb.run(zeb.App(100, "nobody"))
except zeb.Error as error:
    print(error.result, error)
"""
    done = subprocess.run([sys.executable, "-c", script], env=environment, capture_output=True, text=True, check=True)
    assert done.stdout.startswith("-1 ZEB ") and len(done.stdout) > 20, done
