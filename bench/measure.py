#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Measures the player beside what a user would take instead, and writes the tables and the plot of docs/performance.md.

Nothing is measured inside the programs that run: their threads' processor time and context switches are read from /proc
before and after. The rows take turns, round after round, so that what disturbs the machine disturbs all.
"""
import argparse
import collections
import contextlib
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
    ("44.1 to 48 kHz, 60 frames/s", ["pcm", "60", "rate=44100"], "tone44.wav", ["-ar", "44100"]),
    ("AC-3 2.0, 60 frames/s", ["ac3", "60"], "tone.ac3", ["-ar", "48000", "-b:a", "192k"]),
    ("E-AC-3 2.0, 60 frames/s", ["eac3", "60"], "tone.eac3", ["-ar", "48000", "-b:a", "192k"]),
    ("48 kHz, sound only", ["pcm", "0"], "tone48.wav", ["-ar", "48000"]),
]
# The first row of WORK with every processor busy: (who, what its command begins with).
BUSY = [("at normal priority", []), ("with real-time permission", ["chrt", "-f", "5"])]
# What is varied: (what, values, how a value is asked for: the player's arguments, its environment)
GROWTH = [
    ("video queue, frames", [5, 16, 64, 128], lambda n: (["pcm", "60", f"queue={n}"], {})),
    ("frames/s", [24, 60, 120, 240], lambda n: (["pcm", str(n), "queue=128"], {})),
    ("display, Hz", [24, 60, 120, 240], lambda n: (["pcm", "24", f"display={n}"], {})),
    ("sample rate, Hz", [32000, 44100, 48000], lambda n: (["pcm", "60", f"rate={n}"], {})),
    ("variables in the environment", [1, 10, 100, 1000],
     lambda n: (["pcm", "60"], {f"VARIABLE_{i}": "of the usual length" for i in range(n)})),
    ("log level", [0, 2, 3, 4, 5], lambda n: (["pcm", "60"], {"debug_hdmiplayer_log_level": str(n)})),
]
# (what, the player's arguments, the floor of its first sound in ms). The first period shows that sound comes; the reset
# that follows begins with the second one.
STARTS = [
    ("PCM, 48 kHz", ["pcm", "60"], "116: two periods, 76 hold"),
    ("PCM, 44.1 kHz", ["pcm", "60", "rate=44100"], "116: two periods, 76 hold"),
    ("AC-3 2.0", ["ac3", "60"], "116 to 156: two periods, up to two more for a burst, 76 hold"),
    ("E-AC-3 2.0", ["eac3", "60"], "116 to 156: as above"),
]
MARKS = "<!-- {}: scripts/bench writes from here -->", "<!-- {}: to here -->"

Counts = collections.namedtuple("Counts", "name cpu_ms switches")
# {name: (ms/s, switches/s)}, (p50, p99, max) in us or None, most memory in MB
Run = collections.namedtuple("Run", "threads flips memory")


def thread_counts(pid):
    counts = {}
    for tid in os.listdir(f"/proc/{pid}/task"):
        folder = f"/proc/{pid}/task/{tid}/"
        with open(folder + "comm") as comm, open(folder + "schedstat") as stat, open(folder + "status") as status:
            switches = sum(int(n) for n in re.findall(r"ctxt_switches:\s*(\d+)", status.read()))
            counts[tid] = Counts(comm.read().strip(), int(stat.read().split()[0]) / 1e6, switches)
    return counts


def run_load(command, seconds, environment=None):
    """Runs a program that prints "running" and ends with its input."""
    with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, env=environment) as process:
        for line in process.stdout:
            if line.rstrip().endswith("running"):
                break
        else:
            sys.exit(f"{' '.join(command)}: ended early")
        time.sleep(SETTLE_S)
        begin, before = time.monotonic(), thread_counts(process.pid)
        time.sleep(seconds)
        after, end = thread_counts(process.pid), time.monotonic()
        with open(f"/proc/{process.pid}/status") as status:
            memory = int(re.search(r"VmHWM:\s*(\d+)", status.read()).group(1)) / 1024
        process.stdin.close()
        said = process.stdout.read()
    threads = collections.defaultdict(lambda: (0.0, 0.0))
    for tid in after.keys() & before.keys():
        cpu, switches = threads[after[tid].name]
        threads[after[tid].name] = (cpu + (after[tid].cpu_ms - before[tid].cpu_ms) / (end - begin),
                                    switches + (after[tid].switches - before[tid].switches) / (end - begin))
    flips = re.search(r"flips \d+ p50 (\d+) p99 (\d+) max (\d+)", said)
    return Run(dict(threads), tuple(int(n) for n in flips.groups()) if flips else None, memory)


@contextlib.contextmanager
def busy_processors():
    """Something computes on each of them, at normal priority; not longer than this program lives."""
    compute = ["setpriv", "--pdeathsig", "KILL", "sh", "-c", "while :; do :; done"]
    others = [subprocess.Popen(compute) for _ in range(os.cpu_count())]
    try:
        yield
    finally:
        for process in others:
            process.kill()
            process.wait()


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
        row("", "its wake-ups alone", runs[work, "wakeups"])
        row("", "its wake-ups and sound alone", runs[work, "sound"])
        row("", "of that its library's threads", runs[work, "sound"], OWN_THREADS)
        if runs[work, "gstreamer"]:
            row("", "GStreamer", runs[work, "gstreamer"])
    return lines


def busy_table(runs):
    lines = ["| every processor busy | player: p50, p99, max | GStreamer: p50, p99, max |", "|---|---|---|"]
    for how, _ in BUSY:
        cells = []
        for who in ("player", "gstreamer"):
            flips = [run.flips for run in runs[how, who]]
            cells.append(", ".join(f"{statistics.median(column):.0f}" for column in zip(*flips)))
        lines.append(f"| {how} | " + " | ".join(cells) + " |")
    return lines


def thread_table(runs):
    players = sum((runs[work, "player"] for work, *_ in WORK), [])
    names = sorted({name for run in players for name in run.threads if name in OWN_THREADS})
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
        name, who, median, low, high, ratio = line.split(";")
        rows.setdefault(name, []).append((who, median, low, high, ratio))
    lines = ["| path | player, ns | beside it, ns | ratio, round by round |", "|---|---|---|---|"]
    for name, (own, *others) in rows.items():
        beside = ", ".join(f"{who} {median} ({low} to {high})" for who, median, low, high, _ in others)
        ratios = ", ".join(ratio for *_, ratio in others)
        lines.append(f"| {name} | {own[1]} ({own[2]} to {own[3]}) | {beside} | {ratios} |")
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


def growth_table(runs):
    """What each value costs, and the cost of a further unit: where that grows, the growth is worse than linear."""
    lines = ["| grows | value | its library's threads, ms/s | switches/s | memory, MB | us/s for a further one |", "|---|---|---|---|---|---|"]
    for what, values, _ in GROWTH:
        before = None
        for value in values:
            chosen = runs[what, value]
            cpu = statistics.median(total(run, OWN_THREADS)[0] for run in chosen)
            switches = statistics.median(total(run, OWN_THREADS)[1] for run in chosen)
            memory = statistics.median(run.memory for run in chosen)
            counts = before and what != "log level"
            further = f"{1000 * (cpu - before[1]) / (value - before[0]):.2f}" if counts else ""
            lines.append(f"| {what if before is None else ''} | {value} | {cpu:.2f} | {switches:.0f} | {memory:.1f} | {further} |")
            before = (value, cpu)
    return lines


def start_table(runs):
    lines = ["| source | open, ms | first sound, ms | its floor, ms | first frame in sync, ms | close, ms |", "|---|---|---|---|---|---|"]
    for what, _, floor in STARTS:
        columns = [[us / 1000 for us in column] for column in zip(*runs[what])]
        opened, sound, picture, closed = (spread(column) for column in columns)
        lines.append(f"| {what} | {opened} | {sound} | {floor} | {picture} | {closed} |")
    return lines


def write_section(page, name, lines):
    """Replaces what stands between the section's marks."""
    begin, end = (mark.format(name) for mark in MARKS)
    with open(page) as file:
        before, rest = file.read().split(begin)
    with open(page, "w") as file:
        file.write(before + "\n".join([begin, "", *lines, "", end]) + rest.split(end)[1])


def machine():
    with open("/proc/cpuinfo") as file:
        model = re.search(r"model name\s*: (.*)", file.read())
    load = ", ".join(f"{value:.1f}" for value in os.getloadavg())
    return (f"{datetime.date.today()}, {os.cpu_count()} processors ({model.group(1) if model else platform.machine()}), "
            f"Linux {platform.release()}, load before the first round {load}")


def frames_queued(run, fps):
    """Whether frames come while others wait is drawn at each start. Only the others wake the pacing when they come: the bare
    threads do as the player did."""
    return ["queued"] if run.threads["aysync_logic"][1] < 1.5 * fps else []


def measure_work(options):
    """The whole process beside the peer and the bare threads, in turns."""
    where = machine()
    peer = f"{options.build}/bench/gst_load"
    player, wakeups = f"{options.build}/bench/player_load", f"{options.build}/bench/bare_wakeups"
    busy = {(how, who): [] for how, _ in BUSY for who in ("player", "gstreamer")}
    runs = {(work, who): [] for work, *_ in WORK for who in ("player", "wakeups", "sound", "gstreamer")}
    with tempfile.TemporaryDirectory() as folder:
        if os.path.exists(peer):
            for _, _, file, flags in WORK:
                subprocess.run(["ffmpeg", "-loglevel", "error", "-f", "lavfi", "-i", "sine=f=380:d=600", "-ac", "2", *flags,
                                f"{folder}/{file}"], check=True)
        for number in range(options.rounds):
            for work, arguments, file, _ in WORK:
                say(options, number, work)
                run = run_load([player, *arguments], options.seconds)
                runs[work, "player"].append(run)
                bare = [wakeups, *arguments, *frames_queued(run, int(arguments[1]))]
                runs[work, "wakeups"].append(run_load(bare, options.seconds))
                runs[work, "sound"].append(run_load([*bare, "sound"], options.seconds))
                if os.path.exists(peer):
                    runs[work, "gstreamer"].append(run_load([peer, f"{folder}/{file}", arguments[1]], options.seconds))
            _, arguments, file, _ = WORK[0]
            for how, prefix in BUSY:
                say(options, number, f"every processor busy, {how}")
                with busy_processors():
                    busy[how, "player"].append(run_load([*prefix, player, *arguments], options.seconds))
                    if os.path.exists(peer):
                        peer_command = [*prefix, peer, f"{folder}/{file}", arguments[1]]
                        busy[how, "gstreamer"].append(run_load(peer_command, options.seconds))
    plot(runs, f"{options.docs}/performance.svg")
    write_section(f"{options.docs}/performance.md", "work", [
        f"Measured {where}; {options.rounds} rounds of {options.seconds:.0f} s; median and range.", "",
        *process_table(runs), "",
        "Flips and hand-offs of the first row, us off, while something else computes on every processor:", "",
        *busy_table(busy), "", "The library's threads, CPU in ms/s / switches/s:", "", *thread_table(runs), "",
        "![Processor time by thread](performance.svg)"])


def measure_paths(options):
    """The paths of every block beside their floors; the program takes its own rounds."""
    floors = f"{options.build}/bench/floors"
    if not os.path.exists(floors):
        return
    where = machine()
    print("the paths of every block", file=sys.stderr)
    said = subprocess.run([floors], stdout=subprocess.PIPE, text=True, check=True).stdout
    write_section(f"{options.docs}/performance.md", "paths", [f"Measured {where}; median and range.", "", *floor_table(said)])


def measure_growth(options):
    where = machine()
    runs = {(what, value): [] for what, values, _ in GROWTH for value in values}
    for number in range(options.rounds):
        for what, values, ask in GROWTH:
            say(options, number, what)
            for value in values:
                arguments, environment = ask(value)
                command = [f"{options.build}/bench/player_load", *arguments]
                runs[what, value].append(run_load(command, options.seconds, environment))
    write_section(f"{options.docs}/performance.md", "growth", [
        f"Measured {where}; {options.rounds} rounds of {options.seconds:.0f} s; medians.", "", *growth_table(runs)])


def measure_starts(options):
    where = machine()
    runs = {what: [] for what, *_ in STARTS}
    times = 8
    for number in range(options.rounds):
        for what, arguments, _ in STARTS:
            say(options, number, what)
            command = [f"{options.build}/bench/player_load", *arguments, f"starts={times}"]
            said = subprocess.run(command, stdout=subprocess.PIPE, text=True, check=True).stdout
            runs[what] += [[int(us) for us in line.split()[1:]] for line in said.splitlines() if line.startswith("start ")]
    write_section(f"{options.docs}/performance.md", "starts", [
        f"Measured {where}; {options.rounds * times} starts each; median and range.", "", *start_table(runs)])


def say(options, number, what):
    print(f"round {number + 1} of {options.rounds}: {what}", file=sys.stderr)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", required=True, help="folder of the programs to measure")
    parser.add_argument("--docs", required=True, help="folder of performance.md; it is written")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=float, default=6, help="of each run")
    parser.add_argument("--growth", action="store_true", help="only how the cost grows")
    parser.add_argument("--paths", action="store_true", help="only what the paths of every block cost")
    parser.add_argument("--starts", action="store_true", help="only how long a start takes")
    parser.add_argument("--quick", action="store_true", help="one round of two seconds: whether everything runs")
    options = parser.parse_args()
    if options.quick:
        options.rounds, options.seconds = 1, 2
    everything = not options.growth and not options.starts and not options.paths
    if everything:
        measure_work(options)
    if everything or options.paths:
        measure_paths(options)
    if everything or options.starts:
        measure_starts(options)
    if everything or options.growth:
        if everything:
            options.rounds, options.seconds = 1, min(options.seconds, 3)
        measure_growth(options)


if __name__ == "__main__":
    main()
