#!/usr/bin/env python3
"""How long `zebctl list` takes on a node of the simulator: 25 applications a process, a process a node. With "peers" the processes
have the same applications, so that each instance has one on every other node; with "alone" no two are the same. Usage:
list.py BUILD peers|alone NUMBER…, with the release build and numbers of instances, as 100 1000."""
import json
import pathlib
import resource
import statistics
import subprocess
import sys
import time

BUILD = pathlib.Path(sys.argv[1])
TIPCSIM, ZEBCTL, PEER = (str(BUILD / name) for name in ("sim/tipcsim", "tools/zebctl", "tests/tools/tools_peer"))
EACH = 25
LOOKS = 9
SETTLED = 20  # seconds from the last publication, in which handshakes come to their end


def on_node(node, *command):
    return [TIPCSIM, "run", "--node", str(node), "--node-files", "zeb", "--file", "/etc/zeb.conf=tests/integration/zeb.conf.in",
            "--", *command]


def spent():
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def look(node):
    """A listing: its instances, how many answered, how many texts were cut; the seconds and the CPU seconds that it took."""
    begin, cpu = time.monotonic(), spent()
    done = subprocess.run(on_node(node, ZEBCTL, "--json", "list"), stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, check=False)
    took, cpu = time.monotonic() - begin, spent() - cpu
    rows = json.loads(done.stdout)["instances"] if done.stdout else []
    return len(rows), sum("pid" in row for row in rows), sum("cut" in row.get("missing", "") for row in rows), took, cpu


def measure(shape, number):
    nodes = range(1, number // EACH + 1)
    first = {node: 200 + (node * EACH if shape == "alone" else 0) for node in nodes}
    peers = [subprocess.Popen(on_node(node, PEER, "real", str(first[node]), str(EACH)), stdout=subprocess.DEVNULL) for node in nodes]
    try:
        begin = time.monotonic()
        while look(len(nodes) + 1)[0] != number:
            if time.monotonic() - begin > 120:
                raise SystemExit(f"after 120 s there are not {number} instances")
            time.sleep(1)
        time.sleep(SETTLED if shape == "peers" else 0)
        _, answered, cut, took, cpu = zip(*(look(len(nodes) + 1) for _ in range(LOOKS)))
        return {"shape": shape, "instances": number, "answered": min(answered), "cut": max(cut), "median_s": round(statistics.median(took), 3),
                "longest_s": round(max(took), 3), "cpu_s": round(statistics.median(cpu), 3)}
    finally:
        for peer in peers:
            peer.kill()
            peer.wait()


for word in sys.argv[3:]:
    print(measure(sys.argv[2], int(word)), flush=True)
