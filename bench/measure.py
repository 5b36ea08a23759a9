#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Measures the player beside what a user would take instead, and writes the tables and the plot of docs/performance.md.

Nothing is measured inside the programs that run: their threads' processor time and context switches are read from /proc
before and after. The rows take turns, round after round, so that what disturbs the machine disturbs all.
"""
import argparse
import collections
import datetime
import os
import platform
import re
import statistics
import subprocess
import sys
import tempfile
import time

SETTLE_S = 2.0  # after the first sound: queues grow, clocks settle
OWN_THREADS = {"audio_read", "audio_resample", "audio_write", "aysync_logic", "av_sync", "dolby_demux", "dolby_decode",
               "format_detect"}
# (what, the player's arguments, the peer's sound file, ffmpeg's options for it, frames a second)
WORK = [
    ("44.1 to 48 kHz, 60 frames/s", "pcm44", "tone44.wav", ["-ar", "44100"], 60),
    ("AC-3 2.0, 60 frames/s", "ac3", "tone.ac3", ["-ar", "48000", "-b:a", "192k"], 60),
    ("E-AC-3 2.0, 60 frames/s", "eac3", "tone.eac3", ["-ar", "48000", "-b:a", "192k"], 60),
    ("48 kHz, sound only", "pcm48", "tone48.wav", ["-ar", "48000"], 0),
]
BEGIN, END = "<!-- measured: scripts/bench writes from here -->", "<!-- to here -->"

Counts = collections.namedtuple("Counts", "name cpu_ms switches")
Run = collections.namedtuple("Run", "threads flips")  # {name: (ms/s, switches/s)}, (p50, p99, max) in us or None


def thread_counts(pid):
    counts = {}
    for tid in os.listdir(f"/proc/{pid}/task"):
        folder = f"/proc/{pid}/task/{tid}/"
        with open(folder + "comm") as comm, open(folder + "schedstat") as stat, open(folder + "status") as status:
            switches = sum(int(n) for n in re.findall(r"ctxt_switches:\s*(\d+)", status.read()))
            counts[tid] = Counts(comm.read().strip(), int(stat.read().split()[0]) / 1e6, switches)
    return counts


def run_load(command, seconds):
    """Runs a program that prints "running" and ends with its input."""
    with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as process:
        for line in process.stdout:
            if line.rstrip().endswith("running"):
                break
        else:
            sys.exit(f"{' '.join(command)}: ended early")
        time.sleep(SETTLE_S)
        begin, before = time.monotonic(), thread_counts(process.pid)
        time.sleep(seconds)
        after, end = thread_counts(process.pid), time.monotonic()
        process.stdin.close()
        said = process.stdout.read()
    threads = collections.defaultdict(lambda: (0.0, 0.0))
    for tid in after.keys() & before.keys():
        cpu, switches = threads[after[tid].name]
        threads[after[tid].name] = (cpu + (after[tid].cpu_ms - before[tid].cpu_ms) / (end - begin),
                                    switches + (after[tid].switches - before[tid].switches) / (end - begin))
    flips = re.search(r"flips \d+ p50 (\d+) p99 (\d+) max (\d+)", said)
    return Run(dict(threads), tuple(int(n) for n in flips.groups()) if flips else None)


def total(run, names=None):
    chosen = [rate for name, rate in run.threads.items() if names is None or name in names]
    return sum(cpu for cpu, _ in chosen), sum(switches for _, switches in chosen)


def spread(values, digits=1):
    """Median and range."""
    low, high = min(values), max(values)
    return f"{statistics.median(values):.{digits}f} ({low:.{digits}f} to {high:.{digits}f})"


def process_table(runs):
    lines = ["| work | who | CPU, ms/s | switches/s | flips or hand-offs, us off: p50, p99, max |", "|---|---|---|---|---|"]

    def row(work, who, chosen, names=None):
        totals = [total(run, names) for run in chosen]
        flips = [run.flips for run in chosen if run.flips]
        off = ", ".join(f"{statistics.median(column):.0f}" for column in zip(*flips)) if flips and names is None else ""
        lines.append(f"| {work} | {who} | {spread([t[0] for t in totals])} | {spread([t[1] for t in totals], 0)} | {off} |")

    for work, *_ in WORK:
        row(work, "player, whole process", runs[work, "player"])
        row("", "its library's threads", runs[work, "player"], OWN_THREADS)
        if runs[work, "gstreamer"]:
            row("", "GStreamer", runs[work, "gstreamer"])
    return lines


def thread_table(runs):
    names = sorted({name for run in sum(runs.values(), []) for name in run.threads if name in OWN_THREADS})
    lines = ["| thread | " + " | ".join(work for work, *_ in WORK) + " |", "|---" * (len(WORK) + 1) + "|"]
    for name in names:
        cells = []
        for work, *_ in WORK:
            rates = [run.threads.get(name, (0, 0)) for run in runs[work, "player"]]
            cells.append(f"{statistics.median(r[0] for r in rates):.1f} / {statistics.median(r[1] for r in rates):.0f}")
        lines.append(f"| {name} | " + " | ".join(cells) + " |")
    return lines


def floor_table(output):
    rows = collections.OrderedDict()
    for line in output.splitlines():
        name, who, median, low, high = line.split(";")
        rows.setdefault(name, []).append((who, float(median), low, high))
    lines = ["| path | player, ns | beside it, ns | ratio |", "|---|---|---|---|"]
    for name, (own, *others) in rows.items():
        beside = ", ".join(f"{who} {median:.0f} ({low} to {high})" for who, median, low, high in others)
        ratios = ", ".join(f"{own[1] / median:.2f}" for _, median, *_ in others if median)
        lines.append(f"| {name} | {own[1]:.0f} ({own[2]} to {own[3]}) | {beside} | {ratios} |")
    return lines


def plot(runs, path):
    """Stacked bars: processor time by thread."""
    palette = ["#4e79a7", "#f28e2b", "#e15759", "#76b7b2", "#59a14f", "#edc948", "#b07aa1", "#ff9da7", "#9c755f", "#bab0ac"]
    bars = []
    for work, *_ in WORK:
        for who in ("player", "gstreamer"):
            if runs[work, who]:
                names = {name for run in runs[work, who] for name in run.threads}
                means = {n: statistics.median(run.threads.get(n, (0, 0))[0] for run in runs[work, who]) for n in names}
                bars.append((f"{work}: {who}", sorted(means.items(), key=lambda item: -item[1])))
    scale = 420 / max(sum(value for _, value in bar) for _, bar in bars)
    svg = [f'<svg xmlns="http://www.w3.org/2000/svg" width="900" height="{40 * len(bars) + 40}" '
           'font-family="system-ui, sans-serif" font-size="12" fill="#333">',
           '<text x="300" y="16">ms of processor time per second, by thread</text>']
    for index, (label, bar) in enumerate(bars):
        y, x = 30 + 40 * index, 300.0
        svg.append(f'<text x="290" y="{y + 17}" text-anchor="end">{label}</text>')
        for number, (name, value) in enumerate(bar):
            svg.append(f'<rect x="{x:.1f}" y="{y}" width="{value * scale:.1f}" height="24" '
                       f'fill="{palette[number % len(palette)]}"><title>{name}: {value:.2f} ms/s</title></rect>')
            if value * scale > 7 * len(name):
                svg.append(f'<text x="{x + 3:.1f}" y="{y + 16}" fill="#fff">{name}</text>')
            x += value * scale
        svg.append(f'<text x="{x + 6:.1f}" y="{y + 17}">{sum(value for _, value in bar):.1f}</text>')
    with open(path, "w") as file:
        file.write("\n".join(svg + ["</svg>", ""]))


def machine():
    with open("/proc/cpuinfo") as file:
        model = re.search(r"model name\s*: (.*)", file.read())
    load = ", ".join(f"{value:.1f}" for value in os.getloadavg())
    return (f"{datetime.date.today()}, {os.cpu_count()} processors ({model.group(1) if model else platform.machine()}), "
            f"Linux {platform.release()}, load before the first round {load}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", required=True, help="folder of the programs to measure")
    parser.add_argument("--docs", required=True, help="folder of performance.md; it is written")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=float, default=10, help="of each run")
    options = parser.parse_args()

    where = machine()
    peer = f"{options.build}/bench/gst_load"
    runs = {(work, who): [] for work, *_ in WORK for who in ("player", "gstreamer")}
    with tempfile.TemporaryDirectory() as folder:
        if os.path.exists(peer):
            for _, _, file, flags, _ in WORK:
                subprocess.run(["ffmpeg", "-loglevel", "error", "-f", "lavfi", "-i", "sine=f=380:d=600", "-ac", "2", *flags,
                                f"{folder}/{file}"], check=True)
        for number in range(options.rounds):
            for work, signal, file, _, fps in WORK:
                print(f"round {number + 1} of {options.rounds}: {work}", file=sys.stderr)
                runs[work, "player"].append(
                    run_load([f"{options.build}/bench/player_load", signal, str(fps)], options.seconds))
                if os.path.exists(peer):
                    runs[work, "gstreamer"].append(run_load([peer, f"{folder}/{file}", str(fps)], options.seconds))
    floors = f"{options.build}/bench/floors"
    paths = subprocess.run([floors], stdout=subprocess.PIPE, text=True, check=True).stdout if os.path.exists(floors) else ""

    plot(runs, f"{options.docs}/performance.svg")
    page = f"{options.docs}/performance.md"
    with open(page) as file:
        before, rest = file.read().split(BEGIN)
    text = "\n".join([
        BEGIN, "", f"Measured {where}; {options.rounds} rounds of {options.seconds:.0f} s; median and range.", "",
        *process_table(runs), "", "The library's threads, CPU in ms/s / switches/s:", "", *thread_table(runs), "",
        "![Processor time by thread](performance.svg)", "", "What the paths of every block cost:", "", *floor_table(paths),
        "", END])
    with open(page, "w") as file:
        file.write(before + text + rest.split(END)[1])


if __name__ == "__main__":
    main()
