"""Runs, stops and runs again in one process, once with a loop and once without."""

import asyncio
import threading

import zeb

app = zeb.App(300, "restart", versions=[1], peers=[100])


async def once() -> None:
    async with app:
        await app.wait_online(100, count=2, timeout=30)
        unread = asyncio.ensure_future(anext(aiter(app.messages())))
        waits = asyncio.ensure_future(app.call(100, b"", version=3, timeout=None))
        print("loop:", sorted(outcome.peer.node for outcome in await app.call(100, b"x", timeout=30)))
        zeb.stop()
        for name, task in ("messages", unread), ("call", waits):
            try:
                print(name, await task)
            except (zeb.Error, StopAsyncIteration) as error:
                print(name, type(error).__name__)


asyncio.run(once())
with zeb.run(app):
    app.wait_online_blocking(100, count=2, timeout=30)
    print("plain:", sorted(outcome.peer.node for outcome in app.call_blocking(100, b"x", timeout=30)))
    ended: list[object] = []
    reader = threading.Thread(target=lambda: ended.append(list(app.messages())))
    reader.start()
    zeb.stop()
    reader.join()
    print("reader", ended)
try:
    app.send_blocking(100, b"")
except zeb.NotOnline as error:
    print("stopped:", error.result)
