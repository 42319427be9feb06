"""The pytest plugin: the fixture `tipc_cluster`, the mark of that name, and what the processes printed when a test
fails."""

from __future__ import annotations

import inspect
from collections.abc import Generator, Iterator
from typing import Any

import pytest

from tipcsim_testing import Cluster

_MARK = "tipc_cluster"
_KNOWN = tuple(inspect.signature(Cluster).parameters)


def pytest_configure(config: pytest.Config) -> None:
    config.addinivalue_line(
        "markers",
        f"{_MARK}(nodes=3, node_files=PRESET, files={{PATH: TEMPLATE}}, tolerance=SECONDS, timeout=SECONDS): the "
        "cluster that the fixture of this name makes",
    )


@pytest.fixture
def tipc_cluster(request: pytest.FixtureRequest) -> Iterator[Cluster]:
    """A cluster of the test's own, of three nodes unless a mark of this name says more."""
    with Cluster(**_options(request.node)) as made:
        yield made


def _options(node: pytest.Item) -> dict[str, Any]:
    """What the marks of the test, its class and its module say, the nearest first."""
    options: dict[str, Any] = {}
    for mark in reversed(list(node.iter_markers(_MARK))):
        unknown = sorted(set(mark.kwargs) - set(_KNOWN))
        if unknown or mark.args:
            wrong = ", ".join([*(repr(value) for value in mark.args), *unknown])
            raise pytest.UsageError(f"the mark {_MARK} takes {', '.join(_KNOWN)}, each by its name, and not: {wrong}")
        options.update(mark.kwargs)
    return options


@pytest.hookimpl(hookwrapper=True)  # type: ignore[misc]
def pytest_runtest_makereport(item: pytest.Item) -> Generator[None, Any, None]:
    """Adds to the report of a test that failed what each process has printed."""
    outcome = yield
    report = outcome.get_result()
    made = getattr(item, "funcargs", {}).get(_MARK)
    if report.when == "call" and report.failed and isinstance(made, Cluster):
        for process in made.processes:
            report.sections.append((f"Printed by {process.name}", process.output))
