#!/usr/bin/env python3
"""Measures every transport on every kind of work, in turn, inside the lab or a simulated cluster, and writes the results.

Usage: measure.py BENCH RESULT.json ROUNDS TRANSPORT…; the environment variable LAB names the lab's or the simulator's program.
Each round runs every transport once, and raw twice: the second raw run shows how much two equal runs differ. On two machines both
run this program: the second runs the servers, and the first measures.
"""
import json
import os
import re
import signal
import subprocess
import sys
import time

from figure import value

BENCH, RESULT, ROUNDS = sys.argv[1], sys.argv[2], int(sys.argv[3])
TRANSPORTS = sys.argv[4:]
BEGIN = time.monotonic()
MACHINE = int(os.environ.get("LAB_MACHINE", "0"))  # 1 or 2; 0: all nodes are on this machine
ONE_SERVER_ONLY = {"nng"}  # also one client only, on the same node
CPUS = [int(word) for word in os.environ.get("BENCH_CPUS", "1 2").split()]
SLOW = float(os.environ.get("BENCH_SLOW", "1"))  # how many times slower than a desktop machine; divides the counts


def count(number):
    return max(200, int(number / SLOW))


def stage(name, orders, where="nodes", servers=1, clients=1, work=0, transports=None, crowd=False):
    return {"name": name, "orders": orders, "where": where, "servers": servers, "clients": clients, "work": work,
            "transports": transports, "crowd": crowd}


SIZES = {64: 60000, 1024: 60000, 16384: 12000, 61440: 4000}
ONEWAY = [("oneway", size, number, 0) for size, number in SIZES.items()]
TRIPS = [("trip", 64, 6000, 0), ("trip", 1024, 6000, 0), ("rate", 64, 2000, 1000)]
STAGES = [
    stage("1 to 1, one node", ONEWAY + TRIPS, where="local"),
    stage("1 to 1, two nodes", ONEWAY + TRIPS),
    stage("1 to 1, two nodes, a little work", [("oneway", 1024, 30000, 0)], work=1),
    stage("4 to 1", [("oneway", 64, 20000, 0)], clients=4),
    stage("1 to 3", [("oneway", 64, 20000, 0), ("trip", 64, 3000, 0)], servers=3, transports=("zeb", "raw", "zmq")),
    stage("1 to 64", [("oneway", 64, 4500, 0), ("burst", 64, 1500, 0)], servers=64, transports=("zeb", "raw", "threads")),
    stage("1 to 1, two nodes, 1,000 known peers", ONEWAY[:2] + TRIPS[:1], transports=("zeb", "zeb-crowd", "raw"), crowd=True),
]
WIRE_STAGE = stage("1 to 1, two machines", ONEWAY + TRIPS)


class Process:
    """A program that runs on one node and one CPU."""

    def __init__(self, node, cpu, words, program=BENCH):
        place = [] if MACHINE else [os.environ["LAB"], "exec", str(node), "--"]
        command = place + ["taskset", "-c", str(cpu), program] + [str(w) for w in words]
        self.child = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                      text=True, start_new_session=True)
        self.words = words

    def line(self):
        while True:
            text = self.child.stdout.readline()
            if text == "":
                raise SystemExit(f"{self.words} ended")
            if text.startswith(("ready", "begun", "sent", "count=")):
                return text

    def order(self, words):
        self.child.stdin.write(" ".join(str(w) for w in words) + "\n")
        self.child.stdin.flush()

    def stop(self):
        if "TIPCSIM_CLUSTER" in os.environ:  # stall never stops a process that holds a lock which its senders need
            subprocess.run([os.environ["LAB"], "stall", "--pid", str(self.child.pid)], check=True)
        else:
            os.killpg(self.child.pid, signal.SIGSTOP)

    def go_on(self):
        os.killpg(self.child.pid, signal.SIGCONT)

    def end(self):
        os.killpg(self.child.pid, signal.SIGKILL)
        self.child.wait()


def serve(name, plan, cpus):
    servers = plan["servers"]
    processes = servers if servers <= 4 else 4
    first = 1 if plan["where"] == "local" or servers == 4 or processes == 4 else 2
    return [Process(first + i, cpus - 1, [name, "serve", i, servers // processes, plan["work"]]) for i in range(processes)]


def start(name, plan, cpus):
    """Starts the processes of one transport. Returns the servers and the clients."""
    started = [] if MACHINE else serve(name, plan, cpus)
    for process in started:
        process.line()
    clients = [Process(1, 0, [name, "client", i, plan["servers"]]) for i in range(plan["clients"])]
    for process in clients:
        process.line()
    return started, clients


def start_crowd():
    crowd = Process(3, 0, [1000, 2001, 1000], os.path.join(os.path.dirname(BENCH), "crowd"))
    crowd.line()
    return crowd


def barrier(name):
    subprocess.run([os.environ["LAB"], "barrier", name], check=True)


def serve_machine():
    """Runs the servers of all transports on the second machine until the first has measured."""
    started = [process for name in TRANSPORTS if usable(name, WIRE_STAGE) for process in serve(name, WIRE_STAGE, 1)]
    for process in started:
        process.line()
    barrier("served")
    barrier("measured")
    for process in started:
        process.end()


def ask(servers, clients, words):
    """Makes one run. Returns the figures of all clients together."""
    for client in clients:
        client.order(words)
    if words[0] == "burst":
        for change in (Process.stop, Process.go_on):
            for client in clients:
                client.line()
            for server in servers:
                change(server)
            for client in clients:
                client.order(["go"])
    answers = [{k: float(v) for k, v in re.findall(r"(\w+)=(\S+)", c.line())} for c in clients]
    total = dict(answers[0])
    span = max(a["end"] for a in answers) - min(a["begin"] for a in answers)
    total["per_second"] = sum(a["count"] for a in answers) / span * 1e6
    total["lost"] = sum(a["lost"] for a in answers)
    total["disordered"] = sum(a["disordered"] for a in answers)
    return total


def usable(name, plan):
    if name not in TRANSPORTS or (plan["transports"] and name not in plan["transports"]):
        return False
    if name == "zeb-crowd" and not plan["crowd"]:
        return False
    return name not in ONE_SERVER_ONLY or (plan["servers"] == 1 and plan["clients"] == 1 and plan["where"] == "local")


def run_stage(plan, cpus, results):
    names = [n for n in TRANSPORTS if usable(n, plan)]
    everyone, servers, clients = [start_crowd()] if plan["crowd"] else [], {}, {}
    try:
        for name in names:
            servers[name], clients[name] = start(name, plan, cpus)
            everyone += servers[name] + clients[name]
        for verb, size, number, rate in plan["orders"]:
            words = [verb, size, count(number)] + ([rate] if rate else [])
            runs = {name: [] for name in names + ["raw again"]}
            for turn in range(ROUNDS):
                shift = turn % len(names)
                for name in names[shift:] + names[:shift]:
                    runs[name].append(ask(servers[name], clients[name], words))
                    if name == "raw":
                        runs["raw again"].append(ask(servers[name], clients[name], words))
            results.append({"stage": plan["name"], "cpus": cpus, "verb": verb, "size": size, "rate": rate, "runs": runs})
            print(f"{time.monotonic() - BEGIN:6.1f} s", plan["name"], cpus, "CPU", verb, size, {n: round(sorted(value(verb, r) for r in v)[len(v) // 2], 1)
                                                         for n, v in runs.items()}, flush=True)
    finally:
        for process in everyone:
            process.end()


def write(results):
    with open(RESULT, "w", encoding="utf-8") as out:
        json.dump(results, out)


def measure_machines():
    if MACHINE == 2:
        serve_machine()
        return
    results = []
    barrier("served")
    run_stage(WIRE_STAGE, 2, results)
    write(results)
    barrier("measured")


def measure_nodes():
    results = []
    only = os.environ.get("BENCH_ONLY", "")
    for cpus in CPUS:
        for plan in STAGES:
            if only in plan["name"] and (not plan["crowd"] or "zeb-crowd" in TRANSPORTS):
                run_stage(plan, cpus, results)
    write(results)


if MACHINE:
    measure_machines()
else:
    measure_nodes()
