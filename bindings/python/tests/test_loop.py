"""With an event loop."""

import asyncio
import threading

import pytest
from conftest import HERE, Apps, World, resident

import zeb
from zeb._native import ffi, lib
from zeb._types import outcome_of, outcomes_of
from zeb.testing import Cluster

ECHO, RAISE, SILENT, LATER, COUNT, MEMORY, UNKNOWN = 1, 2, 3, 4, 5, 6, 77
BOTH = [zeb.Instance(100, 2), zeb.Instance(100, 3)]


def peers(outcomes: list[zeb.Outcome]) -> list[zeb.Instance]:
    return sorted(outcome.peer for outcome in outcomes)


def statuses(outcomes: list[zeb.Outcome]) -> set[zeb.Status]:
    return {outcome.status for outcome in outcomes}


async def others(events: zeb.Stream[zeb.Event]) -> zeb.Event:
    """The next event of another application: a server joins itself too."""
    while (event := await anext(events)).peer.app == 200:
        pass
    return event


async def kept(app: zeb.App, node: int) -> int:
    [outcome] = await app.call(100, node=node, version=COUNT, timeout=30)
    return int(outcome.data.split()[1])


async def test_messages_go_both_ways(apps: Apps) -> None:
    messages = apps.loop.messages()
    await apps.loop.send(100, b"to all")
    got = sorted([await anext(messages), await anext(messages)], key=lambda message: message.sender)
    assert [(m.sender, m.data, m.version, m.is_call) for m in got] == [(peer, b"to all", 1, False) for peer in BOTH]
    for data in b"", bytearray(b"abc"), memoryview(bytes(range(256)) * 240):
        apps.loop.send_nowait(zeb.Instance(100, 2), data)
        message = await anext(messages)
        assert (message.sender, message.data) == (BOTH[0], bytes(data))
    with pytest.raises(ValueError, match="not a call"):
        message.reply()


async def test_a_message_that_is_too_long_is_refused_with_a_text(apps: Apps) -> None:
    with pytest.raises(zeb.Error, match="61440 bytes at most, not 61441"):
        await apps.loop.send(100, bytes(61441))


async def test_a_call_has_an_outcome_from_each_instance(apps: Apps) -> None:
    outcomes = await apps.loop.call(100, b"hello", timeout=30)
    assert peers(outcomes) == BOTH
    assert all(outcome.ok and outcome.data == b"hello" and outcome.version == ECHO for outcome in outcomes)
    assert peers(await apps.loop.call(100, node=3, timeout=30)) == [BOTH[1]]
    assert peers(await apps.loop.call(BOTH[0], timeout=30)) == [BOTH[0]]


async def test_a_call_times_out(apps: Apps) -> None:
    outcomes = await apps.loop.call(100, version=SILENT, timeout=0.02)
    assert peers(outcomes) == BOTH and statuses(outcomes) == {zeb.Status.TIMEOUT}
    assert outcomes[0].status.text == "RPC timeout"


async def test_a_mismatch_says_which_versions_there_are(apps: Apps) -> None:
    for _ in range(20):  # the library answers these itself: what is taken off the queue are the others alone
        mismatch, echo = await asyncio.gather(
            apps.loop.call(100, version=UNKNOWN, timeout=30), apps.loop.call(100, b"x", timeout=30)
        )
        assert statuses(mismatch) == {zeb.Status.APP_MISMATCH}
        assert [outcome.versions for outcome in mismatch] == [(ECHO, MEMORY)] * 2
        assert [outcome.data for outcome in echo] == [b"x"] * 2


async def test_an_exception_in_a_handler_refuses_the_call_and_is_logged(apps: Apps, world: World) -> None:
    assert statuses(await apps.loop.call(100, version=RAISE, timeout=30)) == {zeb.Status.SYSTEM_ERR}
    world["server 2"].expect("ERROR zeb.python a handler failed for <call from 200/1")
    world["server 2"].expect("ValueError: a call from 200/1")
    await apps.loop.send(100, version=RAISE)
    world["server 3"].expect("ValueError: a message from 200/1")
    assert statuses(await apps.loop.call(100, timeout=30)) == {zeb.Status.SUCCESS}


async def test_a_thousand_calls_are_in_flight_at_once(apps: Apps) -> None:
    before = await kept(apps.loop, 2)
    calls = [
        asyncio.ensure_future(apps.loop.call(BOTH[0], str(number).encode(), version=LATER, timeout=60))
        for number in range(1000)
    ]
    while await kept(apps.loop, 2) < before + 1000:
        pass
    await apps.loop.send(BOTH[0], version=LATER)
    answers = [outcome.data for outcomes in await asyncio.gather(*calls) for outcome in outcomes]
    assert answers == [str(number).encode() for number in range(1000)]


async def test_cancelling_a_task_cancels_its_call(apps: Apps, monkeypatch: pytest.MonkeyPatch) -> None:
    completed: list[int] = []
    take = apps.loop._take_outcomes

    def watched(token: int, outcomes: list[zeb.Outcome]) -> None:
        completed.append(token)
        take(token, outcomes)

    monkeypatch.setattr(apps.loop, "_take_outcomes", watched)
    before = await kept(apps.loop, 2)
    task = asyncio.ensure_future(apps.loop.call(BOTH[0], version=LATER, timeout=None))
    while await kept(apps.loop, 2) == before:
        pass
    [token] = apps.loop._calls
    task.cancel()
    with pytest.raises(asyncio.CancelledError):
        await task
    assert not apps.loop._calls
    await apps.loop.send(BOTH[0], version=LATER)
    await apps.loop.call(BOTH[0], timeout=30)  # its reply comes after the other would
    assert token not in completed and len(completed) > 0


async def test_events_begin_with_those_who_are_there_and_a_quit_ends_calls(apps: Apps, here: Cluster) -> None:
    await apps.loop.call(100, timeout=30)  # both have joined, and their joins were taken before these outcomes
    events = apps.loop.events()
    assert sorted([await others(events), await others(events)], key=lambda event: event.peer) == [
        zeb.Event(zeb.EventType.JOIN, peer) for peer in BOTH
    ]
    server = here.python(3, HERE / "programs/server.py", "110")
    await apps.loop.wait_online(110, node=3, timeout=30)
    assert await others(events) == zeb.Event(zeb.EventType.JOIN, zeb.Instance(110, 3))
    assert apps.loop.online_nodes(110) == [3]
    state = apps.loop.peer_state(110, 3)
    assert (state.phase, state.server) == (zeb.Phase.ONLINE, True) and state.since is not None
    call = asyncio.ensure_future(apps.loop.call(110, version=SILENT, timeout=None))
    while not apps.loop._calls:
        await asyncio.sleep(0)
    server.kill()
    [outcome] = await call
    assert outcome.status is zeb.Status.SYSTEM_ERR
    assert await others(events) == zeb.Event(zeb.EventType.QUIT, zeb.Instance(110, 3))
    assert apps.loop.peer_state(110, 3) == zeb.PeerState(zeb.Phase.UNKNOWN, False, apps.loop.peer_state(110, 3).since)


async def test_errors_have_the_result_and_the_text_of_the_library(apps: Apps) -> None:
    with pytest.raises(zeb.NotOnline, match="no server is online") as missing:
        await apps.loop.call(4000, timeout=1)
    assert (missing.value.result, missing.value.errno) == (-2, 2) and isinstance(missing.value, OSError)
    with pytest.raises(TimeoutError, match="wait for 1 servers of 111"):
        await apps.loop.wait_online(111, timeout=0.02)
    with pytest.raises(zeb.Error) as wrong:
        await apps.loop.send(100, node=70000)
    assert wrong.value.result == -22 and "70000" in str(wrong.value)


async def test_groups_stand_for_their_members(apps: Apps) -> None:
    with apps.loop.group([4000, 100]) as group, apps.loop.node_group([3, 9]) as nodes:
        with pytest.raises(ValueError, match="a group of nodes"):
            await apps.loop.call(group, timeout=30)
        assert peers(await apps.loop.call(100, node=nodes, timeout=30)) == [BOTH[1]]
        nodes.add(2)
        assert peers(await apps.loop.call(group, node=nodes, timeout=30)) == BOTH
        nodes.remove(3)
        assert peers(await apps.loop.call(100, node=nodes, timeout=30)) == [BOTH[0]]
        await apps.loop.send(100, b"group", node=nodes)
        assert (await anext(apps.loop.messages())).sender == BOTH[0]
    with pytest.raises(zeb.Error):
        await apps.loop.send(group)


async def test_a_loop_takes_no_more_than_the_backlog(apps: Apps) -> None:
    def echoed() -> int:
        [outcome] = apps.plain.call_blocking(BOTH[0], version=COUNT, timeout=30)
        return int(outcome.data.split()[0])

    until = await asyncio.to_thread(echoed) + 300
    for number in range(300):
        await apps.loop.send(BOTH[0], str(number).encode())
    while await asyncio.to_thread(echoed) < until:
        pass
    assert 0 < len(apps.loop._inbox) <= 8 + 16
    messages = apps.loop.messages()
    assert [(await anext(messages)).data for _ in range(300)] == [str(number).encode() for number in range(300)]


async def test_a_blocking_call_in_the_loops_thread_is_refused(apps: Apps) -> None:
    await apps.loop.call(100, timeout=30)
    with pytest.raises(RuntimeError, match="await"):
        apps.loop.call_blocking(100, timeout=30)
    outcomes = await asyncio.to_thread(apps.loop.call_blocking, 100, b"elsewhere", timeout=30)
    assert [outcome.data for outcome in outcomes] == [b"elsewhere"] * 2


async def test_no_message_leaks(apps: Apps) -> None:
    async def rounds(number: int) -> None:
        messages = apps.loop.messages()
        for _ in range(number):
            apps.loop.send_nowait(BOTH[0], bytes(60000))
            assert len((await anext(messages)).data) == 60000
            await apps.loop.call(BOTH[0], bytes(60000), timeout=30)

    async def theirs() -> int:
        [outcome] = await apps.loop.call(BOTH[0], version=MEMORY, timeout=30)
        return int(outcome.data) * 4096

    await rounds(100)
    before = resident(), await theirs()
    await rounds(600)  # 36 MB of each kind and direction
    assert resident() - before[0] < 15e6
    assert await theirs() - before[1] < 15e6


def test_another_thread_runs_while_one_is_in_the_library(apps: Apps, here: Cluster) -> None:
    results: list[int] = []
    nodes = lib.ZEB_NODE_ALL
    thread = threading.Thread(target=lambda: results.append(lib.zeb_wait_online(apps.loop.id, 111, nodes, 1, 0)))
    thread.start()  # it waits without limit for what only this thread can start
    server = here.python(2, HERE / "programs/server.py", "111")
    thread.join(30)
    assert results == [0]
    server.kill()


def test_a_status_that_is_not_known_is_an_error() -> None:
    item = ffi.new("zebpy_item_t *")
    msg = ffi.new("zeb_msg_t *")  # a peer may send any number
    msg.hdr.rpc_stat = 99
    item.replies.num = 0
    assert outcomes_of(item) == []
    assert outcome_of(msg).status is zeb.Status.SYSTEM_ERR
