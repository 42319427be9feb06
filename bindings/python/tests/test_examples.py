"""Programs that users copy, with servers in C."""

import os
import pathlib

from zeb.testing import Cluster

EXAMPLES = pathlib.Path(__file__).parents[3] / "examples"


def test_a_client_with_a_loop_and_a_server_in_c(cluster: Cluster) -> None:
    server = cluster.start(1, f"{os.environ['ZEB_BUILD']}/examples/epoll_server")
    client = cluster.python(2, EXAMPLES / "asyncio_client.py")
    client.expect("server 1 joined")
    for number, word in enumerate(["one", "two"], 1):
        client.send(word)
        client.expect(f"server 1: b'{number} messages so far'")
    assert f"[client] node 1 echoes {b'two'!r}" in client.lines or client.expect("echoes b'two'")
    server.end_input()
    client.expect("server 1 quit")
    client.send("three")
    client.expect("no server is online")
    client.end_input()
    assert client.wait() == 0, client.output
