"""Tests of programs that use TIPC, on a simulated cluster on this machine: processes on nodes are started, watched and
harmed, links cut and slowed.

The simulator `tipcsim` makes the nodes and links; TIPCSIM names it when it is not in the PATH. With pytest, a test that
has an argument `tipc_cluster` gets a cluster of its own, which is gone after the test with all its processes:

    @pytest.mark.tipc_cluster(nodes=2, tolerance=0.5)
    def test_it_answers(tipc_cluster):
        server = tipc_cluster.start(1, "./server")
        client = tipc_cluster.start(2, "./client", "--fast")
        client.expect("the server is there")
        tipc_cluster.cut(1, 2)
        client.expect("the server is gone")

What the mark takes is what Cluster takes. Without pytest, a Cluster is for a `with`."""

from tipcsim_testing._cluster import TIMEOUT, Cluster, Command, Failed, Process, Recording, Word, tipcsim

__all__ = ["TIMEOUT", "Cluster", "Command", "Failed", "Process", "Recording", "Word", "tipcsim"]
