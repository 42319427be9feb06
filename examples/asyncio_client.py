#!/usr/bin/env python3
"""A client of board_server or epoll_server with an event loop. It prints who joins and quits. Each line of its input is sent to
all servers, which send it back, and then all are asked. It ends with its input.

    tipcsim run --node 2 --node-files zeb -- python3 examples/asyncio_client.py
"""

import asyncio
import sys

import zeb

SERVER, CLIENT = 100, 200
app = zeb.App(CLIENT, "asyncio_client", versions=[1], peers=[SERVER])


async def watch() -> None:
    async for event in app.events():
        if event.peer.app == SERVER:
            print(f"[client] server {event.peer.node} {'joined' if event.joined else 'quit'}", flush=True)


async def echoes() -> None:
    async for message in app.messages():
        print(f"[client] node {message.sender.node} echoes {message.data!r}", flush=True)


async def ask(line: str) -> None:
    try:
        await app.send(SERVER, line.encode())
        for outcome in await app.call(SERVER, b"", timeout=1.5):
            said = repr(outcome.data.rstrip(b"\0")) if outcome.ok else outcome.status.text
            print(f"[client] server {outcome.peer.node}: {said}", flush=True)
    except zeb.Error as error:
        print(f"[client] {error}", flush=True)


async def main() -> None:
    async with app:
        others = asyncio.gather(watch(), echoes())
        while line := await asyncio.to_thread(sys.stdin.readline):
            await ask(line.rstrip("\n"))
    await others  # the end of the library has ended both


if __name__ == "__main__":
    asyncio.run(main())
