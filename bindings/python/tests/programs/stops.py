"""The library is stopped from where it is not usual: by a handler, with and without a loop, and by another thread."""

import asyncio
import threading

import zeb

app = zeb.App(305, "stops", versions=[1])  # its own peer


@app.on_message(2)
def stop(message: zeb.Message) -> None:
    zeb.stop()


zeb.run(app)
app.wait_online_blocking(305, timeout=30)
app.send_blocking(305, version=2)
while app.running:
    app.dispatch(timeout=30)
print("plain handler", app.running)


async def by_handler() -> None:
    zeb.run(app)
    await app.wait_online(305, timeout=30)
    await app.send(305, version=2)
    print("loop handler", [message async for message in app.messages()], app.running)


async def by_thread() -> None:
    zeb.run(app)
    await app.wait_online(305, timeout=30)
    async for event in app.events():
        threading.Thread(target=zeb.stop).start()
    print("other thread", app.running)


asyncio.run(by_handler())
asyncio.run(by_thread())
