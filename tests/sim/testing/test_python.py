"""The fixture `tipc_cluster` and what it makes, with boards that know TIPC alone. BOARD in the environment names their
program. Tests of tests run pytest in pytest, with a file of their own."""

import os
import pathlib
import re
import subprocess

import pytest

from tipcsim_testing import Cluster, Failed, Process

pytest_plugins = ["pytester"]
BOARD = os.environ["BOARD"]


def boards(cluster: Cluster) -> list[Process]:
    """A board on each node, and each knows of all."""
    started = [cluster.start(node, BOARD) for node in cluster.nodes]
    for board in started:
        for _ in cluster.nodes:  # in any order
            board.expect("is there")
    return started


def test_without_a_mark_it_has_three_nodes(tipc_cluster: Cluster) -> None:
    assert tipc_cluster.nodes == (1, 2, 3)
    boards(tipc_cluster)


@pytest.mark.tipc_cluster(nodes=2)
def test_lines_are_waited_for(tipc_cluster: Cluster) -> None:
    one, two = boards(tipc_cluster)
    one.send("send 2 a")
    one.send("send 2 b")
    assert two.expect(re.compile("says [bc]")) == "board 1 says b"
    with pytest.raises(Failed, match="board on node 2 has not in 0.01 s and did not say: says a"):
        two.expect("says a", timeout=0.01)  # it is before what was found
    one.send("errors")
    one.expect("this is an error")
    one.end_input()
    assert one.wait() == 0 and one.lines[-1] == "end of input"
    with pytest.raises(Failed, match="has ended and did not say: more"):
        one.expect("more")
    with pytest.raises(Failed, match="has not ended in 0.01 s"):
        two.wait(timeout=0.01)
    two.expect("board 1 is gone")


def test_arguments_and_environment_are_handed_on(tipc_cluster: Cluster) -> None:
    tipc_cluster.start(1, BOARD, "with a blank").expect("board 1, with a blank")
    said = tipc_cluster.start(2, "sh", "-c", "echo $COLOUR on $TIPCSIM_NODE", env={"COLOUR": "red"})
    said.expect("red on 2")
    tipc_cluster.python(3, "import sys\nprint(sys.argv[1])", "text").expect("text")


@pytest.mark.tipc_cluster(nodes=2)
def test_a_process_is_killed_and_stalled(tipc_cluster: Cluster) -> None:
    one, two = boards(tipc_cluster)
    two.stall()
    one.send("send 2 hello")
    with pytest.raises(Failed):
        two.expect("hello", timeout=0.05)
    two.resume()
    two.expect("board 1 says hello")
    two.kill()
    assert two.wait() == -9
    one.expect("board 2 is gone")


def test_a_node_is_killed_stalled_and_without_power(tipc_cluster: Cluster) -> None:
    one, two, three = boards(tipc_cluster)
    tipc_cluster.stall(2)
    one.send("send 2 hello")
    with pytest.raises(Failed):
        two.expect("hello", timeout=0.05)
    tipc_cluster.resume(2)
    two.expect("board 1 says hello")
    tipc_cluster.kill(2)
    assert two.wait() == -9
    one.expect("board 2 is gone")
    tipc_cluster.node_down(3)
    assert three.wait() == -9
    one.expect("board 3 is gone")
    tipc_cluster.node_up(3)
    tipc_cluster.start(3, BOARD)
    one.expect("board 3 is there")


@pytest.mark.tipc_cluster(nodes=2, tolerance=0.05)
def test_a_link_is_cut_and_heals(tipc_cluster: Cluster) -> None:
    one, two = boards(tipc_cluster)
    tipc_cluster.cut(1, 2)
    one.expect("board 2 is gone")
    two.expect("board 1 is gone")
    tipc_cluster.heal(1, 2)
    one.expect("board 2 is there")
    tipc_cluster.cut(2)
    one.expect("board 2 is gone")
    tipc_cluster.heal(2)
    one.expect("board 2 is there")


@pytest.mark.tipc_cluster(nodes=2, tolerance=30)
def test_a_cut_is_one_way_when_asked_for(tipc_cluster: Cluster) -> None:
    one, two = boards(tipc_cluster)
    tipc_cluster.cut(1, 2, one_way=True)
    two.send("send 1 comes")
    one.expect("board 2 says comes")
    one.send("send 2 stays")
    with pytest.raises(Failed):
        two.expect("stays", timeout=0.05)


@pytest.mark.tipc_cluster(nodes=2)
def test_a_link_loses_delays_and_is_congested(tipc_cluster: Cluster, tmp_path: pathlib.Path) -> None:
    one, two = boards(tipc_cluster)
    recording = tipc_cluster.record(tmp_path / "all.pcapng", size=64)
    tipc_cluster.loss(1, 2, 100)
    one.send("send 2 lost")
    one.expect("sent")
    tipc_cluster.loss(1, 2, 0)
    tipc_cluster.delay(1, 2, 3600)
    one.send("send 2 late")
    one.expect("sent")
    with pytest.raises(Failed):
        two.expect("late", timeout=0.05)
    tipc_cluster.delay(1, 2, 0)
    two.expect("board 1 says late")
    tipc_cluster.congest(1, 2)
    one.send("send 2 held")
    one.expect("not sent: Resource temporarily unavailable")
    tipc_cluster.end_congestion(1, 2)
    one.send("send 2 last")
    two.expect("board 1 says last")
    shown = recording.stop()
    assert "lost on the link" in shown and len(shown.splitlines()) >= 2, shown
    assert (tmp_path / "all.pcapng").stat().st_size > 0
    assert "board 1 says lost" not in two.lines


def test_times_are_seconds(tipc_cluster: Cluster, monkeypatch: pytest.MonkeyPatch) -> None:
    ordered: list[tuple[str, ...]] = []
    monkeypatch.setattr(tipc_cluster, "order", lambda *words: ordered.append(words))
    tipc_cluster.delay(1, 2, 0.2, jitter=1.5)
    assert ordered == [("delay", "1", "2", "200", "--jitter", "1500")]


@pytest.mark.tipc_cluster(nodes=2)
def test_sends_fail_and_messages_come_back(tipc_cluster: Cluster) -> None:
    one, two = boards(tipc_cluster)
    tipc_cluster.fail(1, error="EHOSTUNREACH", after=1)
    for text in ("first", "second", "third"):
        one.send(f"send 2 {text}")
    one.expect("not sent: No route to host")
    one.expect("sent")
    two.expect("says first")
    two.expect("says third")
    assert "board 1 says second" not in two.lines
    other = tipc_cluster.start(2, BOARD)
    other.expect("board 1 is there")
    tipc_cluster.fail(two, returned=4)
    other.send("send 1 of another process")
    one.expect("of another process")
    two.send("send 1 back")
    two.expect("a message came back")
    with pytest.raises(TypeError, match="one of error, short and returned"):
        tipc_cluster.fail(1, error="EAGAIN", short=1)
    with pytest.raises(TypeError, match="one of error, short and returned"):
        tipc_cluster.fail(1)


@pytest.mark.tipc_cluster(nodes=2)
def test_the_topology_connection_is_lost(tipc_cluster: Cluster) -> None:
    one, two = boards(tipc_cluster)
    tipc_cluster.drop_topology(1)
    assert one.wait() == 3
    tipc_cluster.drop_topology()
    assert two.wait() == 3


@pytest.mark.tipc_cluster(nodes=2, tolerance=0)
def test_a_script_of_faults_runs_beside(tipc_cluster: Cluster, tmp_path: pathlib.Path) -> None:
    one, _ = boards(tipc_cluster)
    script = tmp_path / "faults"
    script.write_text("0s cut 1 2\n+1ms heal 1 2\n", encoding="utf-8")
    assert tipc_cluster.script(script).wait() == 0
    one.expect("board 2 is there")
    script.write_text("0s cut 1 0\n", encoding="utf-8")
    assert tipc_cluster.script(script).wait() == 125


def test_an_order_that_fails_fails_the_test(tipc_cluster: Cluster) -> None:
    with pytest.raises(Failed, match="tipcsim cut 0: status 125\ntipcsim: a node is '0'; it takes 1 to"):
        tipc_cluster.cut(0)


@pytest.mark.tipc_cluster(nodes=2, files={"/etc/board.conf": pathlib.Path(__file__)})
def test_nodes_have_files_of_their_own(tipc_cluster: Cluster) -> None:
    tipc_cluster.start(2, "cat", "/etc/board.conf").expect("tests of tests run pytest in pytest".capitalize())


@pytest.fixture
def preset(tmp_path: pathlib.Path) -> pathlib.Path:
    (tmp_path / "name.in").write_text("board @NODE@\n", encoding="utf-8")
    (tmp_path / "boards").write_text("/etc/board.name=name.in\n", encoding="utf-8")
    return tmp_path / "boards"


def test_a_preset_lists_files_of_nodes(preset: pathlib.Path, monkeypatch: pytest.MonkeyPatch) -> None:
    with Cluster(2, node_files=preset) as made:
        made.start(2, "cat", "/etc/board.name").expect("board 2")
    monkeypatch.chdir(preset.parent)
    with Cluster(1, node_files=pathlib.Path("boards")) as made:
        made.start(1, "cat", "/etc/board.name").expect("board 1")
    monkeypatch.setenv("TIPCSIM_NODE_FILES", str(preset))
    with Cluster(1) as made:
        made.start(1, "cat", "/etc/board.name").expect("board 1")


def test_a_cluster_leaves_nothing() -> None:
    with Cluster(2) as made:
        board = made.start(2, BOARD)
        started = made.start(1, "sh", "-c", "setsid sleep 3600 & echo $!")
        orphan = int(started.expect(re.compile(r"^\d+$")))
        board.expect("board 2, plain")
    assert board.wait() == -9
    assert not alive(orphan)
    with pytest.raises(Failed):
        made.order("links")


def test_a_cluster_of_somebody_else_goes_on(tipc_cluster: Cluster, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.delenv("TIPCSIM_CLUSTER", raising=False)
    with pytest.raises(Failed, match="does not run in a cluster"):
        Cluster.current()
    monkeypatch.setenv("TIPCSIM_CLUSTER", tipc_cluster.environment["TIPCSIM_CLUSTER"])
    one = tipc_cluster.start(1, BOARD)
    with Cluster.current() as same:
        two = same.start(2, BOARD)
        one.expect("board 2 is there")
    one.expect("board 2 is gone")
    assert two.wait() == -9
    assert "1-2: up" in tipc_cluster.order("links")


def alive(pid: int) -> bool:
    try:
        stat = pathlib.Path(f"/proc/{pid}/stat").read_text(encoding="ascii")
    except OSError:
        return False
    return stat.rpartition(")")[2].split()[0] not in "ZX"


def test_a_time_limit_ends_all_of_it() -> None:
    with pytest.raises(Failed, match="time limit"):
        with Cluster(1, timeout=1) as made:
            assert made.start(1, BOARD).wait() == -9


def test_a_cluster_that_cannot_be_made_says_so() -> None:
    with pytest.raises(Failed, match="makes no cluster: status 125"):
        with Cluster(0):
            pass


INNER = """
import pytest
pytestmark = pytest.mark.tipc_cluster(nodes=2, tolerance=0.25)
class TestInner:
    pytestmark = pytest.mark.tipc_cluster(nodes=1)
    def test_nearest(self, tipc_cluster):
        assert tipc_cluster.nodes == (1,)
        assert "250" in tipc_cluster._options
    @pytest.mark.tipc_cluster(nodes=4)
    def test_nearer(self, tipc_cluster):
        assert tipc_cluster.nodes == (1, 2, 3, 4)
        assert "250" in tipc_cluster._options
"""
WRONG = """
import pytest
@pytest.mark.tipc_cluster(node=2)
def test_unknown(tipc_cluster):
    pass
@pytest.mark.tipc_cluster(4)
def test_unnamed(tipc_cluster):
    pass
"""
FAILING = """
def test_failing(tipc_cluster):
    tipc_cluster.start(1, "echo", "the reason").wait()
    assert False
"""


def run(pytester: pytest.Pytester, text: str) -> "subprocess.CompletedProcess[str]":
    pytester.makepyfile(text)
    done = pytester.runpytest_subprocess("-p", "tipcsim_testing.plugin", "-p", "no:cacheprovider", "--strict-markers")
    return subprocess.CompletedProcess([], int(done.ret), done.stdout.str(), done.stderr.str())


def test_the_nearest_mark_counts(pytester: pytest.Pytester) -> None:
    assert "2 passed" in run(pytester, INNER).stdout


def test_a_wrong_mark_is_refused(pytester: pytest.Pytester) -> None:
    said = run(pytester, WRONG).stdout
    assert "2 errors" in said
    assert "takes nodes, node_files, files, tolerance, timeout, each by its name, and not: node" in said
    assert "each by its name, and not: 4" in said


def test_a_failed_test_shows_what_the_processes_printed(pytester: pytest.Pytester) -> None:
    said = run(pytester, FAILING).stdout
    assert re.search("-+ Printed by echo on node 1 -+\nthe reason\n", said), said
