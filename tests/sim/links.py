"""Links that are impaired or cut, and brokers that are killed: links.py CASE, as a process of node 1."""
import errno
import os
import select
import socket
import struct
import subprocess
import sys
import threading

LAB = os.environ["LAB"]
TYPE = 40000
PUBLISHED, WITHDRAWN, TIMEOUT = 1, 2, 3
PORTS, SERVICE, CANCEL = 1, 2, 4
SWAPPED = ">" if sys.byteorder == "little" else "<"
WAIT = 20  # s: ample


def lab(*words):
    plain = {name: value for name, value in os.environ.items() if name != "LD_PRELOAD"}
    subprocess.run([LAB, *map(str, words)], check=True, env=plain)


def rdm(instance=None, kind=socket.SOCK_RDM):
    sock = socket.socket(socket.AF_TIPC, kind)
    sock.settimeout(WAIT)
    if instance is not None:
        sock.bind((socket.TIPC_ADDR_NAMESEQ, TYPE, instance, instance, socket.TIPC_CLUSTER_SCOPE))
    return sock


def name(instance):
    return (socket.TIPC_ADDR_NAME, TYPE, instance, 0)


def subscribe(lower, upper, kind=TYPE, kinds=PORTS, wait=0xFFFFFFFF, order="="):
    return struct.pack(order + "5I8s", kind, lower, upper, wait, kinds, b"handle")


def topology():
    sock = rdm(kind=socket.SOCK_SEQPACKET)
    sock.connect((socket.TIPC_ADDR_NAME, 1, 1, 0))
    return sock


def event(sock, order="="):
    return struct.unpack(order + "10I8s", sock.recv(100))


def quiet(sock):
    """No event waits: that of a subscription which times out at once is the next."""
    sock.send(subscribe(99999, 99999, wait=1))
    assert event(sock)[0:2] == (TIMEOUT, 99999)


class Peer:
    """A process of another node. It takes messages to 2, connections to 3, and sends what it is told to."""

    def __init__(self, node):
        command = [LAB, "exec", str(node), "--", sys.executable, __file__, "peer"]
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.bytes = b""
        assert self.line() == "up"

    def line(self):
        while b"\n" not in self.bytes:
            assert select.select([self.process.stdout], [], [], WAIT)[0], "the peer says nothing"
            self.bytes += os.read(self.process.stdout.fileno(), 1000)
        line, _, self.bytes = self.bytes.partition(b"\n")
        return line.decode()

    def ask(self, text):
        self.process.stdin.write(text.encode() + b"\n")
        self.process.stdin.flush()

    def end(self):
        self.process.stdin.close()
        self.process.wait()


def say(text):
    print(text, flush=True)


def serve():
    receiver, listener, ways = rdm(2), rdm(3, socket.SOCK_STREAM), []
    listener.listen(5)
    say("up")
    while True:
        for sock in select.select([receiver, listener, sys.stdin, *ways], [], [])[0]:
            if sock is sys.stdin:
                words = sys.stdin.readline().split()
                if not words:
                    return
                try:
                    say("sent %d" % receiver.sendto(words[1].encode(), name(int(words[0]))))
                except OSError as error:
                    say(errno.errorcode[error.errno])
            elif sock is receiver:
                say("got " + receiver.recv(100).decode())
            elif sock is listener:
                ways.append(listener.accept()[0])
                say("connected")
            else:
                try:
                    data = sock.recv(100).decode()
                except OSError as error:
                    data = errno.errorcode[error.errno]
                say("read " + data)
                if data in ("", "ECONNRESET"):
                    ways.remove(sock)
                    sock.close()


def delayed():
    far, near, sender = Peer(2), rdm(5), rdm()
    lab("delay", 1, 2, 3600000)
    sender.sendto(b"slow", name(2))
    far.ask("5 slow")
    assert far.line() == "sent 4"
    beside = rdm(6)
    beside.sendto(b"own node", name(5))
    assert near.recv(100) == b"own node"
    near.setblocking(False)
    assert select.select([near], [], [], 0)[0] == []
    near.settimeout(WAIT)
    lab("delay", 1, 2, 0)  # what is on its way arrives
    assert near.recv(100) == b"slow" and far.line() == "got slow"


def in_order():
    far, sender = Peer(2), rdm()
    for ms in (20, 1, 0):
        lab("delay", 1, 2, ms)
        for i in range(40):
            sender.sendto(b"%d" % i, name(2))
    assert [far.line() for _ in range(120)] == ["got %d" % i for i in range(40)] * 3


def jitter():
    far, sender, way = Peer(2), rdm(), rdm(kind=socket.SOCK_STREAM)
    lab("delay", 1, 2, 1, "--jitter", 100)
    sent = ["got %d" % i for i in range(50)]
    for i in range(50):
        sender.sendto(b"%d" % i, name(2))
    got = [far.line() for _ in range(50)]
    assert got != sent and sorted(got) == sorted(sent), got
    way.connect(name(3))
    for i in range(10, 60):
        way.send(b"%d" % i)
    way.close()
    assert far.line() == "connected"
    text = ""
    while not text.endswith("ECONNRESET"):
        text += far.line()[5:]
    assert text == "".join(map(str, range(10, 60))) + "ECONNRESET", text


def loss():
    far, sender = Peer(2), rdm()
    lab("loss", 1, 2, 50)
    for i in range(200):
        sender.sendto(b"%d" % i, name(2))
    lab("loss", 1, 2, 0)
    sender.sendto(b"end", name(2))
    got = []
    while (line := far.line()) != "got end":
        got.append(int(line[4:]))
    assert 0 < len(got) < 200 and got == sorted(got), got
    lab("loss", 1, 2, 100)
    sender.sendto(b"lost", name(2))
    lab("loss", 1, 2, 0)
    sender.sendto(b"end", name(2))
    assert far.line() == "got end"


def congested():
    far, sender, way = Peer(2), rdm(), rdm(kind=socket.SOCK_STREAM)
    way.connect(name(3))
    assert far.line() == "connected"
    lab("congest", 1, 2)
    for sock in (sender, way):
        sock.setblocking(False)
        try:
            sock.sendto(b"never", name(2))
            raise AssertionError("sent")
        except BlockingIOError:
            sock.settimeout(WAIT)
    threads = [threading.Thread(target=sock.sendto, args=(b"later", name(2))) for sock in (sender, way)]
    for thread in threads:
        thread.start()
    assert select.select([far.process.stdout], [], [], 0.1)[0] == []
    lab("congest", 1, 2, "--end")
    for thread in threads:
        thread.join()
    assert {far.line(), far.line()} == {"got later", "read later"}


def one_way():
    far, near, sender = Peer(2), rdm(5), rdm()
    lab("cut", 1, 2, "--one-way")
    sender.sendto(b"kept", name(2))
    far.ask("5 other")
    assert far.line() == "sent 5" and near.recv(100) == b"other"
    lab("heal", 1, 2)
    assert far.line() == "got kept"


def one_way_lost():
    far, sender, way = Peer(2), rdm(), rdm(kind=socket.SOCK_STREAM)
    near = rdm(5)
    way.connect(name(3))
    assert far.line() == "connected"
    lab("cut", 1, 2, "--one-way")
    try:
        sender.sendto(b"none", name(2))
        raise AssertionError("sent")
    except OSError as error:
        assert error.errno == errno.EHOSTUNREACH
    far.ask("5 none")
    assert {far.line(), far.line()} == {"EHOSTUNREACH", "read ECONNRESET"}
    try:
        way.recv(10)
        raise AssertionError("read")
    except ConnectionResetError:
        pass
    lab("heal", 1, 2)
    sender.sendto(b"again", name(2))
    assert far.line() == "got again"
    near.close()


def both(watch):
    """Event, instance and type of the next two events."""
    return {(found[0], found[1], found[5]) for found in (event(watch), event(watch))}


def states():
    watch = topology()
    watch.send(subscribe(0, 0xFFFFFFFF, kind=0))
    assert [event(watch)[1:5] for _ in range(3)] == [(1, 1, 0, 1), (2, 2, 0, 2), (3, 3, 0, 3)]
    watch.send(subscribe(0, 0xFFFFFFFF, kind=2))
    assert [event(watch)[1:5] for _ in range(2)] == [(2, 2, 0, 1), (3, 3, 0, 1)]
    lab("cut", 1, 2)
    assert both(watch) == {(WITHDRAWN, 2, 0), (WITHDRAWN, 2, 2)}
    quiet(watch)
    lab("heal", 1, 2)
    assert both(watch) == {(PUBLISHED, 2, 0), (PUBLISHED, 2, 2)}
    quiet(watch)
    lab("exec", 77, "--", "true")
    assert both(watch) == {(PUBLISHED, 77, 0), (PUBLISHED, 77, 2)}
    quiet(watch)


def other_order():
    watch, request = topology(), subscribe(5, 6, order=SWAPPED)
    watch.send(request)
    one = rdm(5)
    data = watch.recv(100)
    assert data[20:] == request and struct.unpack(SWAPPED + "5I", data[:20])[:3] == (PUBLISHED, 5, 5)
    one.close()
    assert event(watch, SWAPPED)[0:2] == (WITHDRAWN, 5)
    watch.send(subscribe(5, 6, kinds=PORTS | CANCEL, order=SWAPPED))
    two = rdm(6)
    quiet(watch)
    two.close()


def bad_requests():
    for bad in (b"x" * 27, subscribe(9, 8), subscribe(1, 2, kinds=PORTS | SERVICE)):
        watch = topology()
        watch.send(bad)
        assert watch.recv(100) == b"", bad


def slow_watcher():
    watch, sock = topology(), rdm(7)
    watch.send(subscribe(8, 8))
    for _ in range(2000):  # more than the window and the queue hold
        for scope in (socket.TIPC_CLUSTER_SCOPE, -socket.TIPC_CLUSTER_SCOPE):
            sock.bind((socket.TIPC_ADDR_NAMESEQ, TYPE, 8, 8, scope))
    assert [event(watch)[0] for _ in range(4000)] == [PUBLISHED, WITHDRAWN] * 2000
    quiet(watch)


def next_broker():
    """What a killed broker leaves: names, cuts, and messages that it had not read yet."""
    far, near, sender = Peer(2), rdm(5), rdm()
    watch = topology()
    watch.send(subscribe(2, 5))
    assert [event(watch)[1] for _ in range(3)] == [2, 3, 5]
    lab("cut", 1, 2)
    lab("broker-stop")
    assert watch.recv(100) == b""
    sender.sendto(b"own node", name(5))
    assert near.recv(100) == b"own node"
    sender.sendto(b"kept", name(2))
    lab("broker-start")
    watch = topology()
    watch.send(subscribe(2, 5))
    assert [event(watch)[1] for _ in range(3)] == [2, 3, 5]
    lab("heal", 1, 2)
    assert far.line() == "got kept"
    near.close()
    assert event(watch)[0:2] == (WITHDRAWN, 5)
    far.end()
    assert [event(watch)[0] for _ in range(2)] == [WITHDRAWN] * 2
    quiet(watch)


def killed_meanwhile():
    """Sockets of processes that end while there is no broker."""
    far, watch = Peer(2), None
    lab("broker-stop")
    far.process.kill()
    far.process.wait()
    lab("broker-start")
    watch = topology()
    watch.send(subscribe(2, 5))
    quiet(watch)


if sys.argv[1] == "peer":
    serve()
else:
    globals()[sys.argv[1]]()
