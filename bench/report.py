#!/usr/bin/env python3
"""Makes Markdown tables and plots in bench/results from the measurements of bench/run. Usage: report.py FOLDER-OF-JSON"""
import json
import os
import statistics
import subprocess
import sys

from figure import value

SEEN, OUT = sys.argv[1], "bench/results"
PARTS = (("lab", "In the lab: Linux 6.1 in an emulated machine", "1 to 1, two nodes"),
         ("wire", "In the lab: two emulated machines on one wire", "1 to 1, two machines"),
         ("sim", "On the simulator, natively", "1 to 1, two nodes"))
CORES = "## Instances that start at once: the handshake's core alone, in virtual time"
PLOTTED = ("zeb", "zeb-nothread", "threads", "threads-nothread", "zmq", "nng")


def load(name):
    path = f"{SEEN}/{name}.json"
    if not os.path.exists(path):
        return None
    with open(path, encoding="utf-8") as seen:
        return json.load(seen)


def load_lines(name):
    path = f"{SEEN}/{name}.json"
    if not os.path.exists(path):
        return None
    with open(path, encoding="utf-8") as seen:
        return [json.loads(line) for line in seen]


def ratios(result, name, base="raw"):
    """The ratio in each round to the first run of `base` in that round."""
    pairs = zip(result["runs"][name], result["runs"][base])
    return [value(result["verb"], mine) / value(result["verb"], other) for mine, other in pairs]


def median(result, name, figure):
    return statistics.median(run[figure] for run in result["runs"][name])


def shown(numbers):
    return f"{statistics.median(numbers):.2f} ({min(numbers):.2f}–{max(numbers):.2f})"


def work(result):
    what = {"oneway": "one-way", "trip": "round trip", "rate": f"round trip, {result['rate']}/s",
            "burst": "sender's CPU time, receivers stopped,"}[result["verb"]]
    return f"{what} {result['size']:,} B"


def speed_tables(results):
    lines = []
    for stage, cpus in dict.fromkeys((r["stage"], r["cpus"]) for r in results):
        rows = [r for r in results if (r["stage"], r["cpus"]) == (stage, cpus)]
        names = [n for n in rows[0]["runs"] if n not in ("raw", "raw again")]
        lines += [f"\n### {stage}, {cpus} CPU{'s' if cpus > 1 else ''}\n",
                  "| work | raw | raw again / raw | " + " | ".join(f"{n} / raw" for n in names) + " |",
                  "|---|---|---|" + "---|" * len(names)]
        for row in rows:
            unit = "/s" if row["verb"] == "oneway" else " µs"
            raw = statistics.median(value(row["verb"], run) for run in row["runs"]["raw"])
            lines.append(f"| {work(row)} | {raw:,.0f}{unit} | {shown(ratios(row, 'raw again'))} | " +
                         " | ".join(shown(ratios(row, n)) for n in names) + " |")
    return lines


def crowd_table(results):
    rows = [r for r in results if "zeb-crowd" in r["runs"]]
    if not rows:
        return []
    lines = ["\n## 1,000 further known peers at both ends, against none\n", "| work | CPUs | zeb-crowd / zeb |", "|---|---|---|"]
    return lines + [f"| {work(r)} | {r['cpus']} | {shown(ratios(r, 'zeb-crowd', 'zeb'))} |" for r in rows]


def detail_tables(results):
    lines = ["\n## What one message or call costs (medians)\n",
             "| work | where | CPUs | transport | p50 µs | p99 | p99.9 | highest | client CPU µs | server CPU µs | switches | "
             "client kB | server kB |", "|---|---|---|---|" + "---|" * 9]
    for row in results:
        for name in row["runs"]:
            cells = [f"{median(row, name, f):.1f}" if f in row["runs"][name][0] else ""
                     for f in ("p50", "p99", "p999", "max", "client_cpu", "server_cpu", "switches")]
            cells += [f"{median(row, name, f):.0f}" for f in ("client_rss", "server_rss")]
            lines.append(f"| {work(row)} | {row['stage']} | {row['cpus']} | {name} | " + " | ".join(cells) + " |")
    return lines


def losses(results):
    runs = [run for row in results for kind in row["runs"].values() for run in kind]
    return (f"\n{len(runs)} runs, {sum(r['count'] for r in runs):,.0f} messages and calls; lost "
            f"{sum(max(0, r['lost']) for r in runs):.0f}, doubled {sum(max(0, -r['lost']) for r in runs):.0f}, "
            f"out of order {sum(r['disordered'] for r in runs):.0f}.\n")


def growth_tables(growth, start):
    lines = ["\nUser-space instructions of one step, at so many peers, applications, groups or calls.\n"]
    for name, points in (growth or {}).items():
        lines.append(f"- {name}: " + ", ".join(f"{n:,}: {cost:,}" for n, cost in points))
    if start:
        lines += ["\nInstances of one application that start at once (simulator):\n",
                  "| instances | all pairs online after | half of the instances | messages | highest anonymous memory of one |",
                  "|---|---|---|---|---|"]
        lines += [f"| {s['instances']} | {s['seconds']:.1f} s | {s['median']:.1f} s | {s['sent']:,.0f} | {s['rss_kb']:,.0f} kB |"
                  for s in start]
    return lines


def core_table(starts):
    rows = [(f"{s['instances']:,}", f"{s['work']:,} µs", f"{s['messages']:,}", f"{s['sync']:.2f}", f"{s['again']:.2f}", f"{s['ack']:.2f}",
             f"{s['half']:.2f} s", f"{s['most']:.2f} s", f"{s['last']:.2f} s", f"{s['quiet']:.2f} s", f"{s['longest']:,}",
             f"{s['end']:.1f} s", f"{s['cpu']:,.1f} s", f"{s['rss_mb']:,.0f} MB") for s in starts]
    return [f"\n{CORES}\n",
            "As above, without CPUs and processes: all instances name each other and bind at 0 s, a name is reported to each within "
            f"{starts[0]['skew']} ms, a message takes {starts[0]['delay']} ms, and *work* is what an instance needs for each message or "
            "event that it reads. A pair is ordered, and an instance is a peer of its own. Made by `bench/run cores` and "
            "`bench/run report`, a row by\n`build/release/tests/explore/zeb_explore_growth --instances N --work US`. In every row all "
            "pairs are online in the end, and nothing is left that could send again.\n",
            "| instances | work | messages | a pair: SYNC_INST | sent again | acknowledgements | half online after | 99 % | all | "
            "last message sent | most waiting in a socket | virtual time | CPU time | memory |",
            "|---|---|---|---|---|---|---|---|---|---|---|---|---|---|"] + [f"| {' | '.join(row)} |" for row in rows]


def write_growth(growth, start, cores):
    """Writes growth.md. A part that was not measured again stays as it is."""
    path = f"{OUT}/growth.md"
    text = ""
    if os.path.exists(path):
        with open(path, encoding="utf-8") as old:
            text = old.read()
    head, _, tail = text.partition(CORES)
    parts = ["# How the cost grows"] + growth_tables(growth, start) if growth or start else [head.rstrip()]
    if cores:
        parts += core_table(cores)
    elif tail:
        parts += ["\n" + CORES + tail.rstrip()]
    with open(path, "w", encoding="utf-8") as out:
        out.write("\n".join(parts) + "\n")


def plot(results, name, stage):
    rows = [r for r in results if r["cpus"] == 2 and r["stage"] == stage and r["verb"] in ("oneway", "trip")]
    if not rows:
        return
    names = [n for n in PLOTTED if n in rows[0]["runs"]]
    data = "\n".join(f'"{work(r)}" ' + " ".join(f"{statistics.median(ratios(r, n)):.3f}" for n in names) for r in rows)
    columns = ", ".join(f"$data using {i + 2}:xtic(1) title '{n}'" for i, n in enumerate(names))
    script = f"""$data << EOD
{data}
EOD
set terminal svg size 1000,420 background 'white' font 'sans,11'
set output '{OUT}/{name}.svg'
set title 'against raw TIPC = 1, {stage[8:]}, two CPUs ({name}); one-way: higher is better, round trip: lower is better' noenhanced
set style data histogram
set style histogram cluster gap 1
set style fill solid 0.8 border -1
set yrange [0:*]
set grid ytics
set arrow from graph 0, first 1 to graph 1, first 1 nohead lw 2
set key outside right noenhanced
plot {columns}
"""
    subprocess.run(["gnuplot"], input=script, text=True, check=True)


def main():
    os.makedirs(OUT, exist_ok=True)
    for name, title, plotted in PARTS:
        results = load(name)
        if not results:
            continue
        rounds = len(results[0]["runs"]["raw"])
        lines = [f"# {title}\n", f"Medians of {rounds} rounds in which the transports took turns; in brackets the lowest and "
                 "the highest ratio of a round. Made by `make bench`; docs/performance.md explains it.",
                 losses(results)] + speed_tables(results) + crowd_table(results) + detail_tables(results)
        with open(f"{OUT}/{name}.md", "w", encoding="utf-8") as out:
            out.write("\n".join(lines) + "\n")
        plot(results, name, plotted)
    growth, start, cores = load("growth"), load("start"), load_lines("cores")
    if growth or start or cores:
        write_growth(growth, start, cores)
    print(f"{OUT}: {', '.join(sorted(os.listdir(OUT)))}")


main()
