"""This process is node 1 of a cluster (tests/run), with applications for all tests. Servers run on nodes 2 and 3. What
needs a process of its own is started with the first test, so that all their joins pass at the same time, and looked at
later."""

import os
import pathlib
from collections.abc import Iterator

import pytest

import zeb
from zeb.testing import Cluster, Process

HERE = pathlib.Path(__file__).parent
PROGRAMS: dict[str, dict[str, str]] = {
    "restart": {},
    "stops": {},
    "exit_plain": {},
    "exit_loop": {},
    "log": {"ZEB_DEBUG": "error,warn,info,verbose"},
    "fork": {"ZEB_DEBUG": "error"},
}
World = dict[str, Process]


class Apps:
    def __init__(self) -> None:
        # Three of them name 100, and which of them is told of its joins differs from run to run: the first wants all.
        self.loop = zeb.App(200, "loop", versions=[1], peers=[100, 110, 111], backlog=8, every_subscriber=True)
        self.plain = zeb.App(201, "plain", versions=[1], peers=[100])
        self.handlers = zeb.App(202, "handlers", peers=[100])
        self.each = [zeb.App(app, "each", peers=[112], every_subscriber=True) for app in (203, 204)]
        self.handled: list[object] = []
        self.handlers.on_message(1)(self.handled.append)
        self.handlers.on_event(self.handled.append)


@pytest.fixture(scope="session")
def here() -> Iterator[Cluster]:
    with Cluster.current() as made:
        yield made


@pytest.fixture(scope="session")
def world(here: Cluster) -> World:
    started = {f"server {node}": here.python(node, HERE / "programs/server.py", "100") for node in (2, 3)}
    for name, variables in PROGRAMS.items():
        started[name] = here.python(1, HERE / f"programs/{name}.py", env=variables)
    return started


@pytest.fixture(scope="session")
def apps(world: World) -> Iterator[Apps]:
    made = Apps()
    with zeb.run(made.loop, made.plain, made.handlers, *made.each):
        made.plain.wait_online_blocking(100, count=2, timeout=30)
        yield made


def resident() -> int:
    """Bytes of memory of this process."""
    with open("/proc/self/statm", encoding="ascii") as statm:
        return int(statm.read().split()[1]) * os.sysconf("SC_PAGESIZE")
