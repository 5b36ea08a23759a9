#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Writes report.md and soak.svg of the runs that scripts/soak kept in a folder: seed-1, seed-2 and so on."""
import collections
import csv
import glob
import html
import os
import sys

WIDTH, LEFT, RIGHT = 960, 70, 12
OFFSET_PX, MEMORY_PX, GAP_PX = 150, 50, 46
# The colours of the play program's page.
STYLE = """
text { font: 12px system-ui, sans-serif; fill: #1c2430; } .quiet { fill: #5b6675; } .end { text-anchor: end; }
.middle { text-anchor: middle; } .grid { stroke: #e3e7ec; } .good { fill: #e4f2e7; } .title { font-weight: 600; }
.range { fill: #2f6fb5; } .troubled { fill: #c9d2dc; } .memory { fill: none; stroke: #0f7c7c; stroke-width: 1.6; }
.trouble { stroke: #d8802a; stroke-opacity: .55; } .failed { stroke: #c0392b; stroke-width: 2; }
"""
LEAST_MS, MOST_MS = -120, 100


def rows(folder, name):
    with open(os.path.join(folder, name), newline="", encoding="utf-8") as file:
        return list(csv.DictReader(file))


class Run:
    def __init__(self, folder):
        self.name = os.path.basename(folder).replace("-", " ")
        self.minutes = rows(folder, "minutes.csv")
        self.events = rows(folder, "events.csv")
        self.offsets = rows(folder, "offsets.csv")
        with open(os.path.join(folder, "verdict.txt"), encoding="utf-8") as file:
            self.verdict = file.read().splitlines()
        self.seconds = max([float(row["at_s"]) for row in self.offsets], default=0)


def offset_columns(run, x):
    """One column for each pixel: the range of the offsets in quiet, and behind it that of all."""
    columns = collections.defaultdict(lambda: ([], []))
    for row in run.offsets:
        ms = float(row["picture_ms"]) - float(row["sound_ms"])
        at = columns[int(x(float(row["at_s"])))]
        at[0].append(ms)
        if row["quiet"] == "1":
            at[1].append(ms)
    return columns


def draw(run, top):
    def x(seconds):
        return LEFT + (WIDTH - LEFT - RIGHT) * seconds / max(run.seconds, 1)

    def y(ms):
        share = (MOST_MS - min(max(ms, LEAST_MS), MOST_MS)) / (MOST_MS - LEAST_MS)
        return top + 22 + OFFSET_PX * share

    out = [f'<text x="{LEFT}" y="{top + 12}" class="title">{run.name}: {run.verdict[0]}, {html.escape(run.verdict[1])}</text>',
           f'<rect x="{LEFT}" width="{WIDTH - LEFT - RIGHT}" y="{y(40):.1f}" height="{y(-60) - y(40):.1f}" class="good"/>']
    for ms in (-100, -60, 0, 40, 100):
        out.append(f'<line x1="{LEFT}" x2="{WIDTH - RIGHT}" y1="{y(ms):.1f}" y2="{y(ms):.1f}" class="grid"/>'
                   f'<text x="{LEFT - 6}" y="{y(ms) + 4:.1f}" class="end quiet">{ms:+d} ms</text>')
    for row in run.events:
        late = row["recovered_s"] == "never" or float(row["recovered_s"]) > 3
        at = x(float(row["at_s"]))
        words = html.escape(f'{float(row["at_s"]):.0f} s: {row["what"]}; in sync after {row["recovered_s"]} s')
        out.append(f'<line x1="{at:.1f}" x2="{at:.1f}" y1="{top + 22}" y2="{top + 28}" '
                   f'class="{"failed" if late else "trouble"}"><title>{words}</title></line>')
    for at, (every, quiet) in sorted(offset_columns(run, x).items()):
        for values, css in ((every, "troubled"), (quiet, "range")):
            if values:
                height = max(y(min(values)) - y(max(values)), 1.5)
                out.append(f'<rect x="{at}" y="{y(max(values)):.1f}" width="1" height="{height:.1f}" class="{css}"/>')
    base = top + 22 + OFFSET_PX + 14
    memory = [int(row["resident_kb"]) / 1024 for row in run.minutes]
    ceiling = 10 * (int(max(memory, default=1) / 10) + 1)
    points = " ".join(f"{x(60 * (i + 1)):.1f},{base + MEMORY_PX * (1 - mb / ceiling):.1f}" for i, mb in enumerate(memory))
    out.append(f'<polyline points="{points}" class="memory"/>'
               f'<line x1="{LEFT}" x2="{WIDTH - RIGHT}" y1="{base + MEMORY_PX}" y2="{base + MEMORY_PX}" class="grid"/>'
               f'<text x="{LEFT - 6}" y="{base + 10}" class="end quiet">{ceiling} MB</text>')
    step = next(s for s in (60, 300, 600, 1800, 3600, 7200, 14400) if run.seconds / s <= 12)
    for at in range(0, int(run.seconds) + 1, step):
        out.append(f'<text x="{x(at):.1f}" y="{base + MEMORY_PX + 16}" class="middle quiet">{at // 60} min</text>')
    return out, base + MEMORY_PX + GAP_PX


def plot(runs, path):
    body, top = [], 34
    for run in runs:
        part, top = draw(run, top)
        body += part
    with open(path, "w", encoding="utf-8") as file:
        file.write(f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{top}" '
                   f'viewBox="0 0 {WIDTH} {top}">\n<style>{STYLE}</style>\n'
                   f'<rect width="100%" height="100%" fill="#fff"/>\n<text x="{LEFT}" y="18" class="quiet">'
                   'Offset of sound and picture (+: sound early), blue without trouble, grey all; green: EBU R37; ticks: '
                   'troubles, red: not in sync again within 3 s; line: memory</text>\n' + "\n".join(body) + "\n</svg>\n")


def kinds_table(runs):
    found = collections.defaultdict(list)
    for run in runs:
        for row in run.events:
            found[row["kind"]].append(float("inf") if row["recovered_s"] == "never" else float(row["recovered_s"]))
    lines = ["| trouble | times | in sync again after, median | longest | never |", "|---|---|---|---|---|"]
    for kind, took in sorted(found.items()):
        back = sorted(value for value in took if value != float("inf"))
        middle = f"{back[len(back) // 2]:.2f} s" if back else "-"
        longest = f"{back[-1]:.2f} s" if back else "-"
        lines.append(f"| {kind} | {len(took)} | {middle} | {longest} | {len(took) - len(back)} |")
    return lines


def runs_table(runs):
    lines = ["| run | length | troubles | longest recovery | offset without trouble | outside of EBU R37 | breaks "
             "| memory, first and last minute | allocated, first and last | descriptors | threads | resets | verdict |",
             "|---|---|---|---|---|---|---|---|---|---|---|---|---|"]
    for run in runs:
        first, last = run.minutes[0], run.minutes[-1]
        marked = [row for row in run.minutes if int(row["marks"]) > 0]
        least = min(float(row["least_ms"]) for row in marked)
        most = max(float(row["most_ms"]) for row in marked)
        worst = max(float(row["worst_s"]) for row in run.minutes)
        total = {key: sum(int(row[key]) for row in run.minutes) for key in ("troubles", "astray", "breaks", "marks")}
        lines.append(f'| {run.name} | {run.seconds / 60:.0f} min | {total["troubles"]} | {worst:.2f} s '
                     f'| {least:+.1f} to {most:+.1f} ms | {total["astray"]} of {total["marks"]} | {total["breaks"]} '
                     f'| {int(first["resident_kb"]) / 1024:.1f} to {int(last["resident_kb"]) / 1024:.1f} MB '
                     f'| {int(first["heap_kb"]) / 1024:.1f} to {int(last["heap_kb"]) / 1024:.1f} MB '
                     f'| {first["descriptors"]} to {last["descriptors"]} | {first["threads"]} to {last["threads"]} '
                     f'| {last["resets"]} | {run.verdict[0]} |')
    return lines


def main():
    folder = sys.argv[1]
    runs = [Run(path) for path in sorted(glob.glob(os.path.join(folder, "seed-*")))
            if os.path.exists(os.path.join(path, "verdict.txt"))]
    if not runs:
        sys.exit(f"{folder}: no run has come to its end")
    plot(runs, os.path.join(folder, "soak.svg"))
    lines = runs_table(runs) + [""] + kinds_table(runs)
    storm = os.path.join(folder, "storm.txt")
    if os.path.exists(storm):
        with open(storm, encoding="utf-8") as file:
            lines += ["", "Every function from ten threads: " + file.read().splitlines()[-1]]
    text = "\n".join(lines) + "\n"
    with open(os.path.join(folder, "report.md"), "w", encoding="utf-8") as file:
        file.write(text)
    print(text, end="")


if __name__ == "__main__":
    main()
