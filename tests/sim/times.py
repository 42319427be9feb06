"""Messages and links in a cluster with virtual time: times.py CASE, as a process of node 1 unless the case says otherwise."""
import asyncio
import os
import queue
import socket
import struct
import subprocess
import sys
import threading
import time

LAB = os.environ.get("LAB")
TYPE = 40000
HOUR = 3600
PUBLISHED, WITHDRAWN, TIMEOUT = 1, 2, 3


def lab(*words):
    subprocess.run([LAB, *map(str, words)], check=True)


def passed(since, seconds):
    """The virtual clock goes on as the kernel's while somebody works; half an hour is ample."""
    ms = round((time.monotonic() - since) * 1000)
    assert seconds * 1000 - 2 <= ms < (seconds + 1800) * 1000, "%d ms, not %d s" % (ms, seconds)


def python():
    for wait in (
        lambda: time.sleep(HOUR),
        lambda: asyncio.run(asyncio.sleep(HOUR)),
        lambda: threading.Event().wait(HOUR),
        lambda: queue_is_empty(),
    ):
        began, wall = time.monotonic(), time.time()
        wait()
        passed(began, HOUR)
        assert time.time() - wall >= HOUR - 1


def queue_is_empty():
    try:
        queue.Queue().get(timeout=HOUR)
        raise AssertionError("there is something")
    except queue.Empty:
        pass


def rdm(instance=None):
    sock = socket.socket(socket.AF_TIPC, socket.SOCK_RDM)
    if instance is not None:
        sock.bind((socket.TIPC_ADDR_NAMESEQ, TYPE, instance, instance, socket.TIPC_CLUSTER_SCOPE))
    return sock


def receiver():
    """On node 2: prints how long each message was on its way."""
    sock = rdm(2)
    print("up", flush=True)
    while True:
        data = sock.recv(100)
        print("%.6f" % (time.monotonic() - float(data)), flush=True)


def delay():
    """A delay of 200 ms, and one of an hour."""
    other = subprocess.Popen(
        [LAB, "exec", "2", "--", sys.executable, __file__, "receiver"], stdout=subprocess.PIPE, text=True
    )
    assert other.stdout.readline() == "up\n"
    sock = rdm()
    for ms in (200, HOUR * 1000):
        lab("delay", 1, 2, ms)
        sock.sendto(b"%.6f" % time.monotonic(), (socket.TIPC_ADDR_NAME, TYPE, 2, 0))
        took = float(other.stdout.readline()) * 1000
        assert ms - 2 <= took < ms + 1800000, took
    other.kill()


def topology(kind, wait):
    sock = socket.socket(socket.AF_TIPC, socket.SOCK_SEQPACKET)
    sock.connect((socket.TIPC_ADDR_NAME, 1, 1, 0))
    sock.send(struct.pack("=5I8s", kind, 0, 0xFFFFFFFF, wait, 1, b"handle"))
    return sock


def event(sock):
    return struct.unpack("=10I8s", sock.recv(100))[0:2]


def tolerance():
    """The cut link is lost 30 s later."""
    watch = topology(0, 0xFFFFFFFF)
    lab("exec", 2, "--", "true")
    assert {event(watch), event(watch)} == {(PUBLISHED, 1), (PUBLISHED, 2)}
    began = time.monotonic()
    lab("cut", 1, 2)
    assert event(watch) == (WITHDRAWN, 2)
    passed(began, 30)


def subscription():
    watch = topology(99999, HOUR * 1000)
    began = time.monotonic()
    assert event(watch)[0] == TIMEOUT
    passed(began, HOUR)


def script():
    """Its first line cuts the link after an hour."""
    began = time.monotonic()
    watch = topology(0, 0xFFFFFFFF)
    lab("exec", 2, "--", "true")
    assert {event(watch), event(watch)} == {(PUBLISHED, 1), (PUBLISHED, 2)}
    assert event(watch) == (WITHDRAWN, 2)
    assert HOUR - 600 < time.monotonic() - began < HOUR + 1800, time.monotonic() - began


def two_messages():
    here, sock = rdm(2), rdm()
    for _ in range(2):
        sock.sendto(b"x", (socket.TIPC_ADDR_NAME, TYPE, 2, 0))
        here.recv(10)
        time.sleep(HOUR)


globals()[sys.argv[1]]()
