"""Clusters and the processes on their nodes. Nothing here knows a test framework."""

from __future__ import annotations

import os
import pathlib
import re
import shutil
import subprocess
import sys
import threading
import time
from collections.abc import Mapping, Sequence
from types import TracebackType
from typing import TypeVar, Union

Word = Union[str, "os.PathLike[str]"]

TIMEOUT = 30.0  # seconds that a wait may take before the test fails; a slow machine only makes the test slower

_LAST_LINES = 1.0  # seconds for what an ended process printed; a process that it started may hold its outputs open
_LATE = 124  # the status of `tipcsim cluster` after its time limit
_Some = TypeVar("_Some", bound="Cluster")


class Failed(AssertionError):
    """What was waited for has not come."""


class Command:
    """A command that runs beside the test. What it prints, on both outputs, is kept in `lines`."""

    def __init__(self, name: str, words: Sequence[str], environment: Mapping[str, str]) -> None:
        self.name = name
        self.lines: list[str] = []
        self._next = 0  # the first line that expect has not passed
        self._ended = False
        self._changed = threading.Condition()
        self._popen = subprocess.Popen(
            words,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            errors="replace",
            env=environment,
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
        self._reader.join(_LAST_LINES)
        return status

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

    def _kill(self) -> None:
        if self._popen.poll() is None:
            self._popen.kill()
        self._popen.wait()
        if self._popen.stdin is not None:
            try:
                self._popen.stdin.close()
            except OSError:
                pass


class Process(Command):
    """A process on a node."""

    def __init__(self, cluster: Cluster, node: int, command: Sequence[str], environment: Mapping[str, str]) -> None:
        self.node = node
        self._cluster = cluster
        super().__init__(
            f"{pathlib.Path(command[0]).name} on node {node}",
            [cluster.tipcsim, "exec", str(node), "--", *command],
            {**cluster.environment, **environment},
        )

    def kill(self) -> None:
        """Kills it as a crash would, and waits for its end."""
        self._popen.kill()
        self.wait()

    def stall(self) -> None:
        """Stops it, never where another process would be held up by the simulator."""
        self._cluster.order("stall", "--pid", str(self.pid))

    def resume(self) -> None:
        self._cluster.order("resume", "--pid", str(self.pid))


class Recording(Command):
    """What passes in a cluster, on its way into a file for Wireshark."""

    def __init__(self, cluster: Cluster, path: Word, size: int | None) -> None:
        self.path = os.fspath(path)
        self._cluster = cluster
        words = [] if size is None else ["--bytes", str(size)]
        super().__init__(
            f"the recording of {self.path}", [cluster.tipcsim, "record", self.path, *words], cluster.environment
        )
        self.expect("recording")

    def stop(self) -> str:
        """Ends it, with all that has passed in the file, and returns what `tipcsim show` prints of that: a line for each
        message."""
        self._popen.terminate()
        if self.wait() != 0:
            raise Failed(f"{self.name} failed\n{self.output}")
        return self._cluster.order("show", self.path)


class Cluster:
    """Nodes 1 to `nodes`, for as long as a `with` lasts. Then all of it is gone, also what its processes started.

    node_files  a preset of files that each node has for its own: a name that is installed, or a path with a slash;
                without it what TIPCSIM_NODE_FILES in the environment names
    files       more of them: path and template, in which @NODE@ stands for the node
    tolerance   seconds from a cut to the loss of the link, at most 30; without it 1.5
    timeout     seconds after which all of it is ended, and the test fails; without it never"""

    def __init__(
        self,
        nodes: int = 3,
        *,
        node_files: Word | None = None,
        files: Mapping[str, Word] | None = None,
        tolerance: float | None = None,
        timeout: int | None = None,
    ) -> None:
        self.tipcsim = tipcsim()
        self.nodes = tuple(range(1, nodes + 1))
        self.processes: list[Process] = []
        self.environment = {name: value for name, value in os.environ.items() if not _of_a_cluster(name)}
        self._others: list[Command] = []
        self._options = ["--nodes", str(nodes)]
        preset = node_files or os.environ.get("TIPCSIM_NODE_FILES")
        if preset:
            self._options += ["--node-files", preset if isinstance(preset, str) else os.path.abspath(preset)]
        for path, template in (files or {}).items():
            self._options += ["--file", f"{path}={os.fspath(template)}"]
        if tolerance is not None:
            self._options += ["--tolerance", str(round(tolerance * 1000))]
        if timeout is not None:
            self._options += ["--timeout", str(timeout)]
        self._holder: subprocess.Popen[str] | None = None

    @classmethod
    def current(cls: type[_Some]) -> _Some:
        """The cluster in which this process runs itself (tipcsim exec), for tests that are a process of it."""
        place = os.environ.get("TIPCSIM_CLUSTER")
        if not place:
            raise Failed("this process does not run in a cluster")
        made = cls()
        made.environment["TIPCSIM_CLUSTER"] = place
        return made

    def __enter__(self: _Some) -> _Some:
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
        commands = [*self.processes, *self._others]
        for command in commands:
            command._kill()
        holder, self._holder = self._holder, None
        if holder is None:
            return
        holder.communicate()  # ends its input, and with it whatever the processes started
        for command in commands:
            command._reader.join()
        if holder.returncode == _LATE and value is None:
            raise Failed("the cluster's time limit has passed")

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

    def cut(self, a: int, b: int | None = None, *, one_way: bool = False) -> None:
        """Cuts the link between two nodes, or all links of one. One way: messages from `a` to `b` alone."""
        self.order("cut", *_words(a, b), *(["--one-way"] if one_way else []))

    def heal(self, a: int, b: int | None = None) -> None:
        self.order("heal", *_words(a, b))

    def node_down(self, node: int) -> None:
        """A board loses its power: its links are lost at once, and its processes are killed."""
        self.order("node-down", str(node))

    def node_up(self, node: int) -> None:
        self.order("node-up", str(node))

    def kill(self, node: int) -> None:
        """Kills the processes of a node, and all that they started. Its links stay."""
        self.order("kill", str(node))

    def stall(self, node: int) -> None:
        """Stops the processes of a node."""
        self.order("stall", str(node))

    def resume(self, node: int) -> None:
        self.order("resume", str(node))

    def delay(self, a: int, b: int, seconds: float, jitter: float = 0) -> None:
        """Delays messages between two nodes, both ways; 0 ends it. With jitter by up to as many seconds more, so that they
        overtake each other."""
        self.order("delay", str(a), str(b), _milliseconds(seconds), "--jitter", _milliseconds(jitter))

    def loss(self, a: int, b: int, percent: float) -> None:
        """Loses as many of the messages between two nodes; 0 ends it."""
        self.order("loss", str(a), str(b), str(percent))

    def congest(self, a: int, b: int) -> None:
        """The link takes no messages until end_congestion: senders wait, or get EAGAIN."""
        self.order("congest", str(a), str(b))

    def end_congestion(self, a: int, b: int) -> None:
        self.order("congest", str(a), str(b), "--end")

    def fail(
        self,
        where: int | Process,
        *,
        error: str | None = None,
        short: int | None = None,
        returned: int | None = None,
        sends: int = 1,
        after: int = 0,
    ) -> None:
        """Makes sends of a node's processes, or of one process, fail: the next `sends` after the next `after`. They fail
        with `error`, the name of an errno; or write only `short` bytes; or the message comes back with the code
        `returned`, 1 to 15."""
        chosen = {"--errno": error, "--short": short, "--return": returned}
        kinds = [[name, str(value)] for name, value in chosen.items() if value is not None]
        if len(kinds) != 1:
            raise TypeError("fail takes one of error, short and returned")
        place = ["--node", str(where)] if isinstance(where, int) else ["--pid", str(where.pid)]
        self.order("fail", *place, *kinds[0], "--sends", str(sends), "--after", str(after))

    def drop_topology(self, node: int | None = None) -> None:
        """Closes the topology connections of a node, or all of them."""
        self.order("drop-topology", *([] if node is None else [str(node)]))

    def record(self, path: Word, size: int | None = None) -> Recording:
        """Writes what passes from now on into a file for Wireshark, with `size` bytes of each message's data, or 128. The
        recording ends with its stop(), or with the cluster."""
        return self._beside(Recording(self, path, size))

    def script(self, path: Word) -> Command:
        """Orders the faults of a file at their times, beside the test. Its wait() gives 0 when all were ordered."""
        words = [self.tipcsim, "script", os.fspath(path)]
        return self._beside(Command(f"the script {os.fspath(path)}", words, self.environment))

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

    def _beside(self, command: _Beside) -> _Beside:
        self._others.append(command)
        return command


_Beside = TypeVar("_Beside", bound=Command)


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


def _milliseconds(seconds: float) -> str:
    return str(round(seconds * 1000))
