"""A server with one behaviour for each version. Its id is the argument."""

import asyncio
import logging
import sys

import zeb

ECHO, RAISE, SILENT, LATER, COUNT, MEMORY = 1, 2, 3, 4, 5, 6
PEERS = (200, 201, 202, 203, 204, 300, 301, 302, 303, 304)

logging.basicConfig(format="%(levelname)s %(name)s %(message)s", level=logging.INFO)
app = zeb.App(int(sys.argv[1]), "test server", versions=[ECHO], peers=PEERS)
kept: list[zeb.Message] = []
echoed = 0


@app.on_message(RAISE)
def raise_it(message: zeb.Message) -> None:
    raise ValueError(f"a message from {message.sender}")


@app.on_call(RAISE)
async def refuse(message: zeb.Message) -> bytes:
    raise ValueError(f"a call from {message.sender}")


@app.on_call(SILENT)
def say_nothing(message: zeb.Message) -> None:
    kept.append(message)


@app.on_call(LATER)
async def keep(message: zeb.Message) -> None:
    kept.append(message)


@app.on_message(LATER)
def answer_all(message: zeb.Message) -> None:
    for call in kept:
        if call.version == LATER:
            call.reply(call.data)
    kept[:] = [call for call in kept if call.version != LATER]


@app.on_call(COUNT)
def count(message: zeb.Message) -> bytes:
    return f"{echoed} {len(kept)}".encode()


@app.on_call(MEMORY)
def memory(message: zeb.Message) -> bytes:
    with open("/proc/self/statm", encoding="ascii") as statm:
        return statm.read().split()[1].encode()


async def main() -> None:
    global echoed
    async with app:
        print("ready")
        async for message in app.messages():
            if message.is_call:
                message.reply(message.data)
            else:
                await app.send(message.sender, message.data, version=message.version)
                echoed += 1


asyncio.run(main())
