"""The fixture `cluster`."""

import re

import pytest

from zeb.testing import Cluster, Failed, Process

TICK = """
import sys
print("up")
for line in sys.stdin:
    print("got", line.strip())
print("end of input")
"""


def ticking(cluster: Cluster, node: int) -> Process:
    process = cluster.python(node, TICK)
    process.expect("up")
    return process


def test_processes_are_watched_and_harmed(cluster: Cluster) -> None:
    one, two, three = (ticking(cluster, node) for node in cluster.nodes)
    one.send("a")
    one.send("b")
    assert one.expect(re.compile("got [bc]")) == "got b"
    with pytest.raises(Failed, match="has not in 0.01 s"):
        one.expect("got a", timeout=0.01)  # it is before what was found
    one.stall()
    one.send("while stalled")
    with pytest.raises(Failed):
        one.expect("while stalled", timeout=0.05)
    one.resume()
    one.expect("while stalled")
    one.end_input()
    assert one.wait() == 0 and one.lines[-1] == "end of input"
    with pytest.raises(Failed, match="has ended and did not say: more"):
        one.expect("more")
    two.kill()
    assert two.wait() == -9
    cluster.node_down(3)
    assert three.wait() == -9
    cluster.node_up(3)
    cluster.cut(1, 2)
    assert "1-2: cut" in cluster.order("links") or "1-2: down" in cluster.order("links")
    cluster.heal(1, 2)
    assert "1-2: up" in cluster.order("links")
    with pytest.raises(Failed, match="takes 1 to 4294967294"):
        cluster.cut(0)


def test_a_cluster_leaves_nothing() -> None:
    with Cluster(2, tolerance=0.1) as made:
        process = ticking(made, 2)
    assert process.wait() == -9
    with pytest.raises(Failed):
        made.order("links")
