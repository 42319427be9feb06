import os
import pathlib

import pytest

from tipcsim_testing import Cluster

PROGRAMS = pathlib.Path(os.environ["PROGRAMS"])  # the folder that they were built in


@pytest.mark.tipc_cluster(nodes=3, node_files="zeb")
def test_the_client_is_served_by_what_is_left(tipc_cluster: Cluster) -> None:
    for node in (1, 2):
        tipc_cluster.start(node, PROGRAMS / "board_server")
    client = tipc_cluster.start(3, PROGRAMS / "board_client")
    for _ in (1, 2):  # in any order
        client.expect("joined")
    client.send("ask 5")
    client.expect("[client] call done: ok, 2 outcomes")

    tipc_cluster.cut(2)
    client.expect("[client] server 2 quit")
    client.send("ask 5")
    client.expect("[client] call done: ok, 1 outcomes")
