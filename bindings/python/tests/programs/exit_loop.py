"""Ends without a stop while tasks wait, the worker thread of one too, and the loop is closed under them."""

import asyncio

import zeb

app = zeb.App(302, "exit", versions=[1], peers=[100])
tasks = []


async def main() -> None:
    zeb.run(app)
    await app.wait_online(100, count=2, timeout=30)
    for wait in app.call(100, b"", version=3, timeout=None), app.wait_online(4000), anext(aiter(app.messages())):
        tasks.append(asyncio.ensure_future(wait))
    await app.call(100, b"x", timeout=30)
    print("leaving")


asyncio.run(main())
