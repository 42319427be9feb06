"""ZEB: messages between the processes of a multi-node device, over TIPC.

    import asyncio
    import zeb

    async def main():
        async with zeb.App(200, "client", peers=[100]) as app:
            await app.wait_online(100)
            for outcome in await app.call(100, b"how are you?", timeout=1.5):
                print(outcome.peer, outcome.status.text, outcome.data)

    asyncio.run(main())
"""

from ._app import App
from ._group import AppGroup, NodeGroup
from ._library import Running, my_node, run, stop
from ._log import log_to
from ._stream import Stream
from ._types import (
    Error,
    Event,
    EventType,
    Instance,
    Message,
    NotOnline,
    Outcome,
    PeerState,
    Phase,
    Status,
    Stopped,
    TimedOut,
    WouldBlock,
)

__all__ = [
    "App",
    "AppGroup",
    "Error",
    "Event",
    "EventType",
    "Instance",
    "Message",
    "NodeGroup",
    "NotOnline",
    "Outcome",
    "PeerState",
    "Phase",
    "Running",
    "Status",
    "Stopped",
    "Stream",
    "TimedOut",
    "WouldBlock",
    "log_to",
    "my_node",
    "run",
    "stop",
]
__version__ = "0.1.0"
