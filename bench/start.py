#!/usr/bin/env python3
"""Starts instances of one application at the same time, each on a node of its own, on the simulator. Measures how long it takes
until every pair is online on both sides, how many messages that takes, and the memory. Usage: start.py TIPCSIM PROGRAM RESULT.json
NUMBER…"""
import json
import os
import subprocess
import sys
import time

TIPCSIM, PROGRAM, RESULT = sys.argv[1:4]


def measure(number):
    children = [subprocess.Popen([TIPCSIM, "run", "--node", str(node), "--node-files", "zeb", "--file",
                                  "/etc/zeb.conf=tests/integration/zeb.conf.in", "--", PROGRAM, str(number)],
                                 stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
                for node in range(1, number + 1)]
    try:
        for child in children:
            while child.stdout.readline() != "registered\n":
                if child.poll() is not None:
                    raise SystemExit("an instance did not start")
        begin = time.monotonic()
        for child in children:
            child.stdin.write("go\n")
            child.stdin.flush()
        seen = []
        for child in children:
            line = child.stdout.readline()
            while not line.startswith("online"):
                line = child.stdout.readline()
            seen.append([float(word) for word in line.split()[1::2]])
        times = sorted(online - begin for online, _, _ in seen)
        return {"instances": number, "seconds": times[-1], "median": times[len(times) // 2],
                "sent": sum(sent for _, sent, _ in seen), "rss_kb": max(rss for _, _, rss in seen)}
    finally:
        for child in children:
            child.kill()
            child.wait()


results = []
for word in sys.argv[4:]:
    results.append(measure(int(word)))
    print(results[-1], flush=True)
with open(RESULT, "w", encoding="utf-8") as out:
    json.dump(results, out)
