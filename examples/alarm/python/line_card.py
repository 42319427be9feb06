#!/usr/bin/env python3
"""Raises and clears alarms: `raise ID SEVERITY TEXT…` and `clear ID`. It ends with its input."""

import asyncio
import sys

import alarm
import zeb

card = zeb.App(alarm.CARD, "line_card", peers=[alarm.MANAGER, alarm.CONSOLE])
active: dict[int, alarm.Alarm] = {}


@card.on_call(alarm.STATUS)
def on_status(call: zeb.Message) -> bytes:
    return f"ports 48, alarms {len(active)}".encode()


@card.on_event
async def on_event(event: zeb.Event) -> None:
    """A manager that has restarted learns the alarms again."""
    if not event.joined or event.peer.app != alarm.MANAGER:
        return
    for raised in list(active.values()):
        try:
            await card.send(event.peer, alarm.raise_body(raised), version=alarm.RAISE)
        except zeb.Error:
            return  # it is gone; the next join comes


async def send(version: int, body: bytes) -> None:
    try:
        await card.send(alarm.MANAGER, body, version=version)
        print("sent", flush=True)
    except zeb.Error as error:
        print(f"not sent: {error}", flush=True)


async def obey(line: str) -> None:
    match line.split(maxsplit=3):
        case ["raise", number, severity, *text] if severity in alarm.SEVERITIES and is_id(number):
            raised = alarm.Alarm(int(number), severity, "".join(text))
            active[raised.id] = raised
            await send(alarm.RAISE, alarm.raise_body(raised))
        case ["clear", number] if is_id(number):
            active.pop(int(number), None)
            await send(alarm.CLEAR, alarm.clear_body(int(number)))
        case words if words:
            print("raise ID minor|major|critical TEXT, or clear ID", flush=True)


def is_id(word: str) -> bool:
    return word.isdecimal() and int(word) < 2**32


async def main() -> None:
    async with card:
        print("ready", flush=True)
        while line := await asyncio.to_thread(sys.stdin.readline):
            await obey(line.rstrip("\n"))


if __name__ == "__main__":
    sys.stdin.reconfigure(errors="surrogateescape")  # type: ignore[attr-defined]
    asyncio.run(main())
