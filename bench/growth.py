#!/usr/bin/env python3
"""Measures how the library's own work grows with the number of peers, applications, groups and calls: the user-space instructions
of one send, call, receive and handshake. callgrind counts two runs of different length, and their difference is divided. Usage, on
a node of its own: growth.py BENCH-FOLDER RESULT.json"""
import json
import re
import subprocess
import sys
import tempfile

FOLDER, RESULT = sys.argv[1], sys.argv[2]
SIZES = (1, 10, 64, 100, 1000)


def instructions(program, words):
    with tempfile.NamedTemporaryFile() as out:
        done = subprocess.run(["valgrind", "--tool=callgrind", f"--callgrind-out-file={out.name}", f"{FOLDER}/{program}"] +
                              [str(w) for w in words], stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
    found = re.search(r"Collected : (\d+)", done.stderr)
    if done.returncode != 0 or not found:
        raise SystemExit(f"{program} {words}: {done.stdout} {done.stderr[-500:]}")
    return int(found.group(1))


def each(program, words):
    """Instructions of one step. `words` has None in the place of the number of steps. Messages are received in batches whose sizes
    differ from run to run, so a receive is averaged over more steps."""
    base, more = (10000, 30000) if program == "recv_cost" else (1000, 2000)
    few, many = ([n if w is None else w for w in words] for n in (base, base + more))
    return (instructions(program, many) - instructions(program, few)) / more


CURVES = {
    "zeb_sendto, peers": [(n, "send_cost", ["send", None, n]) for n in SIZES],
    "zeb_sendto, applications": [(n, "send_cost", ["send", None, 10, n]) for n in SIZES],
    "zeb_sendto to a group, groups": [(n, "send_cost", ["group", None, 10, 0, n]) for n in (1, 10, 64, 128)],
    "zeb_send to all, for each of so many peers": [(n, "send_cost", ["all", None, n]) for n in SIZES],
    "zeb_rpcto, peers": [(n, "send_cost", ["call", None, n]) for n in SIZES],
    "zeb_rpcto, calls in progress": [(n, "send_cost", ["call", None, 10, 0, 1, n]) for n in (0, 1, 10, 100, 1000)],
    "receive and dispatch, peers": [(n, "recv_cost", [None, n]) for n in SIZES],
    "receive and dispatch, applications": [(n, "recv_cost", [None, 10, n]) for n in SIZES],
    "handshake, peers": [(n, "handshake_cost", [n, None]) for n in SIZES],
}


def main():
    result = {}
    for name, points in CURVES.items():
        result[name] = [(n, round(each(program, words) / (n if "for each" in name else 1))) for n, program, words in points]
        print(name, result[name], flush=True)
    with open(RESULT, "w", encoding="utf-8") as out:
        json.dump(result, out)


main()
