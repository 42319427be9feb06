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
import pathlib
import re
import shutil
import subprocess
import sys
import threading
import time
from collections.abc import Iterator, Mapping, Sequence
from types import TracebackType
from typing import Union

Word = Union[str, "os.PathLike[str]"]

TIMEOUT = 30.0  # seconds that a wait may take before the test fails; a slow machine only makes the test slower


class Failed(AssertionError):
    """What was waited for has not come."""


class Process:
    """A process on a node. What it prints, on both outputs, is kept in `lines`."""

    def __init__(self, cluster: Cluster, node: int, command: Sequence[str], environment: Mapping[str, str]) -> None:
        self.node = node
        self.name = f"{pathlib.Path(command[0]).name} on node {node}"
        self.lines: list[str] = []
        self._cluster = cluster
        self._next = 0  # the first line that expect has not passed
        self._ended = False
        self._changed = threading.Condition()
        self._popen = subprocess.Popen(
            [cluster.tipcsim, "exec", str(node), "--", *command],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            errors="replace",
            env={**cluster.environment, **environment},
        )
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    @property
    def pid(self) -> int:
        return self._popen.pid

    @property
    def output(self) -> str:
        return "\n".join(self.lines)

    def send(self, line: str) -> None:
        """Gives it a line of input."""
        assert self._popen.stdin is not None
        self._popen.stdin.write(line + "\n")
        self._popen.stdin.flush()

    def expect(self, what: str | re.Pattern[str], timeout: float = TIMEOUT) -> str:
        """Waits for a line that has this text, or matches the pattern, after the one that was found before. Returns the
        line."""
        deadline = time.monotonic() + timeout
        with self._changed:
            while True:
                for at in range(self._next, len(self.lines)):
                    if _found(what, self.lines[at]):
                        self._next = at + 1
                        return self.lines[at]
                left = deadline - time.monotonic()
                if self._ended or left <= 0:
                    why = "has ended" if self._ended else f"has not in {timeout} s"
                    wanted = what if isinstance(what, str) else what.pattern
                    raise Failed(f"{self.name} {why} and did not say: {wanted}\n{self.output}")
                self._changed.wait(left)

    def end_input(self) -> None:
        """Ends its input; for many programs that is the order to end."""
        assert self._popen.stdin is not None
        self._popen.stdin.close()

    def wait(self, timeout: float = TIMEOUT) -> int:
        """Waits for its end and returns its status; a signal is negative."""
        try:
            status = self._popen.wait(timeout)
        except subprocess.TimeoutExpired:
            raise Failed(f"{self.name} has not ended in {timeout} s\n{self.output}") from None
        self._reader.join(timeout)
        return status

    def kill(self) -> None:
        """Kills it as a crash would, and waits for its end."""
        self._popen.kill()
        self.wait()

    def stall(self) -> None:
        """Stops it, never where another process would be held up by the simulator."""
        self._cluster.order("stall", "--pid", str(self.pid))

    def resume(self) -> None:
        self._cluster.order("resume", "--pid", str(self.pid))

    def _read(self) -> None:
        assert self._popen.stdout is not None
        with self._popen.stdout as lines:
            for line in lines:
                with self._changed:
                    self.lines.append(line.rstrip("\n"))
                    self._changed.notify_all()
        with self._changed:
            self._ended = True
            self._changed.notify_all()

    def _close(self) -> None:
        if self._popen.poll() is None:
            self._popen.kill()
        self._popen.wait()
        self._reader.join()
        if self._popen.stdin is not None:
            try:
                self._popen.stdin.close()
            except OSError:
                pass


class Cluster:
    """Nodes 1 to `nodes`, for as long as a `with` lasts.

    files      files that each node has for its own: path and template, in which @NODE@ stands for the node
    tolerance  seconds from a cut to the loss of the link"""

    def __init__(
        self, nodes: int = 3, *, files: Mapping[str, Word] | None = None, tolerance: float | None = None
    ) -> None:
        self.tipcsim = tipcsim()
        self.nodes = tuple(range(1, nodes + 1))
        self.processes: list[Process] = []
        self.environment = {name: value for name, value in os.environ.items() if not _of_a_cluster(name)}
        self._options = ["--nodes", str(nodes), "--node-files", os.environ.get("TIPCSIM_NODE_FILES") or "zeb"]
        for path, template in (files or {}).items():
            self._options += ["--file", f"{path}={os.fspath(template)}"]
        if tolerance is not None:
            self._options += ["--tolerance", str(round(tolerance * 1000))]
        self._holder: subprocess.Popen[str] | None = None

    @classmethod
    def current(cls) -> Cluster:
        """The cluster in which this process runs itself (tipcsim exec), for tests that are a process of it."""
        place = os.environ.get("TIPCSIM_CLUSTER")
        if not place:
            raise Failed("this process does not run in a cluster")
        made = cls()
        made.environment["TIPCSIM_CLUSTER"] = place
        return made

    def __enter__(self) -> Cluster:
        if "TIPCSIM_CLUSTER" in self.environment:
            return self
        # The cluster is there as long as this shell, which ends with its input, thus at the latest with this process.
        holder = 'echo "$TIPCSIM_CLUSTER"; read -r _'
        self._holder = subprocess.Popen(
            [self.tipcsim, "cluster", *self._options, "--", "sh", "-c", holder],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
            env=self.environment,
        )
        assert self._holder.stdout is not None
        place = self._holder.stdout.readline().strip()
        if not place:
            raise Failed(f"{self.tipcsim} makes no cluster: status {self._holder.wait()}")
        self.environment["TIPCSIM_CLUSTER"] = place
        return self

    def __exit__(
        self, kind: type[BaseException] | None, value: BaseException | None, trace: TracebackType | None
    ) -> None:
        for process in self.processes:
            process._close()
        holder, self._holder = self._holder, None
        if holder is not None:
            holder.communicate()  # ends its input

    def start(self, node: int, *command: Word, env: Mapping[str, str] | None = None) -> Process:
        """Starts a command on a node."""
        process = Process(self, node, [os.fspath(word) for word in command], env or {})
        self.processes.append(process)
        return process

    def python(self, node: int, script: Word, *arguments: Word, env: Mapping[str, str] | None = None) -> Process:
        """Starts a script with this interpreter: a file, or, when there is a line end in it, its text."""
        text = os.fspath(script)
        source = ["-c", text] if "\n" in text else [text]
        return self.start(node, sys.executable, "-u", *source, *arguments, env=env)

    def cut(self, a: int, b: int | None = None) -> None:
        """Cuts the link between two nodes, or all links of one."""
        self.order("cut", *_words(a, b))

    def heal(self, a: int, b: int | None = None) -> None:
        self.order("heal", *_words(a, b))

    def node_down(self, node: int) -> None:
        """A board loses its power: its links are lost at once, and its processes are killed."""
        self.order("node-down", str(node))

    def node_up(self, node: int) -> None:
        self.order("node-up", str(node))

    def stall(self, node: int) -> None:
        """Stops the processes of a node."""
        self.order("stall", str(node))

    def resume(self, node: int) -> None:
        self.order("resume", str(node))

    def delay(self, a: int, b: int, seconds: float) -> None:
        """Delays messages between two nodes, both ways; 0 ends it."""
        self.order("delay", str(a), str(b), str(round(seconds * 1000)))

    def order(self, *words: str) -> str:
        """Runs another command of tipcsim in this cluster, and returns what it printed."""
        done = subprocess.run(
            [self.tipcsim, *words],
            env=self.environment,
            check=False,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
        )
        if done.returncode != 0:
            raise Failed(f"tipcsim {' '.join(words)}: status {done.returncode}\n{done.stdout}")
        return done.stdout


def tipcsim() -> str:
    """The simulator's program: TIPCSIM in the environment, or in the PATH."""
    found = os.environ.get("TIPCSIM") or shutil.which("tipcsim")
    if not found:
        raise Failed("tipcsim is not in the PATH; the environment's TIPCSIM may name it")
    return found


def _of_a_cluster(name: str) -> bool:
    """Whether a variable is of the cluster in which these tests run themselves."""
    return name == "LD_PRELOAD" or (name.startswith("TIPCSIM_") and name != "TIPCSIM_DIR")


def _found(what: str | re.Pattern[str], line: str) -> bool:
    return what in line if isinstance(what, str) else what.search(line) is not None


def _words(a: int, b: int | None) -> list[str]:
    return [str(a)] if b is None else [str(a), str(b)]


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
