"""A cluster on this machine for tests, with processes that are started, watched and harmed.

The simulator `tipcsim` makes the nodes and links; TIPCSIM names it when it is not in the PATH. With pytest, a test that
has an argument `cluster` gets a cluster of its own, which is gone after the test with all its processes:

    def test_it_answers(cluster):
        server = cluster.python(1, "server.py")
        client = cluster.python(2, "client.py")
        client.expect("server 1 joined")
        server.kill()
        client.expect("server 1 quit")
"""

from __future__ import annotations

import os
from collections.abc import Iterator, Mapping

from zeb import _cluster  # the simulator's own, which the package carries with it
from zeb._cluster import TIMEOUT, Command, Failed, Process, Recording, Word, tipcsim

__all__ = ["TIMEOUT", "Cluster", "Command", "Failed", "Process", "Recording", "Word", "tipcsim"]


class Cluster(_cluster.Cluster):
    """Nodes 1 to `nodes`, for as long as a `with` lasts. Each has the files that the library wants, or those of the preset
    that TIPCSIM_NODE_FILES in the environment names.

    files      files that each node has for its own: path and template, in which @NODE@ stands for the node
    tolerance  seconds from a cut to the loss of the link"""

    def __init__(
        self, nodes: int = 3, *, files: Mapping[str, Word] | None = None, tolerance: float | None = None
    ) -> None:
        preset = os.environ.get("TIPCSIM_NODE_FILES") or "zeb"
        super().__init__(nodes, node_files=preset, files=files, tolerance=tolerance)


try:
    import pytest
except ImportError:  # Cluster alone
    pass
else:

    @pytest.fixture
    def cluster() -> Iterator[Cluster]:
        """A cluster of three nodes. For another, use zeb.testing.Cluster in a fixture of your own."""
        with Cluster() as made:
            yield made
