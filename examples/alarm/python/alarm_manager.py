#!/usr/bin/env python3
"""Keeps the active alarms of all cards. It ends with its input."""

import asyncio
import sys

import alarm
import zeb

manager = zeb.App(alarm.MANAGER, "alarm_manager", peers=[alarm.CARD, alarm.CONSOLE])
active: dict[tuple[int, int], alarm.Alarm] = {}  # by node and alarm id


@manager.on_message(alarm.RAISE)
def on_raise(message: zeb.Message) -> None:
    node = message.sender.node
    try:
        raised = alarm.raised(message.data)
    except ValueError:
        say(f"bad message from {node}")
        return
    active[node, raised.id] = raised
    say(f"raised {node}/{raised}")


@manager.on_message(alarm.CLEAR)
def on_clear(message: zeb.Message) -> None:
    node = message.sender.node
    try:
        number = alarm.cleared(message.data)
    except ValueError:
        say(f"bad message from {node}")
        return
    active.pop((node, number), None)
    say(f"cleared {node}/{number}")


@manager.on_call(alarm.LIST)
def on_list(call: zeb.Message) -> bytes:
    lines = [f"{node}/{raised}\n" for (node, _), raised in sorted(active.items())]
    return "".join(lines).encode(errors="surrogateescape")


@manager.on_event
def on_event(event: zeb.Event) -> None:
    if event.peer.app != alarm.CARD:
        return
    node = event.peer.node
    if not event.joined:
        for key in [key for key in active if key[0] == node]:
            del active[key]
    say(f"card {node} is {'here' if event.joined else 'gone'}")


def say(line: str) -> None:
    print(line, flush=True)


async def main() -> None:
    async with manager:
        say("ready")
        await asyncio.to_thread(sys.stdin.read)


if __name__ == "__main__":
    sys.stdout.reconfigure(errors="surrogateescape")  # type: ignore[attr-defined]
    asyncio.run(main())
