#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Prints what scripts/transitions measured as tables in Markdown: the worst of all outputs for each pair of formats."""
import collections
import csv
import glob
import os
import sys

NAMES = ["none", "pcm32", "pcm44", "pcm48", "ac3", "eac3", "dts", "wrong"]


def seconds(text):
    return float("inf") if text == "never" else float(text)


def cell(rows):
    if not rows:
        return ""
    sync = max(seconds(row["sync_s"]) for row in rows)
    if rows[0]["expected"] == "pictures":
        return f"({sync:.2f})"
    sound = max(seconds(row["sound_s"]) for row in rows)
    return f"{sound:.2f} / {sync:.2f}" if rows[0]["expected"] == "sound" else f"{sound:.2f} / ({sync:.2f})"


def table(rows, title):
    found = collections.defaultdict(list)
    for row in rows:
        found[row["from"], row["to"]].append(row)
    lines = ["", f"{title}:", "", "| from | " + " | ".join(f"to {name}" for name in NAMES) + " |", "|---" * 9 + "|"]
    for source in NAMES:
        lines.append(f"| {source} | " + " | ".join(cell(found[source, to]) for to in NAMES) + " |")
    return lines


def main():
    rows = []
    for path in glob.glob(os.path.join(sys.argv[1], "*.csv")):
        with open(path, newline="", encoding="utf-8") as file:
            rows += list(csv.DictReader(file))
    lines = []
    for cable, way in (("0", "the source changes what it sends"), ("1", "the cable out for half a second in between")):
        some = [row for row in rows if row["cable"] == cable]
        lines += table([row for row in some if row["raw"] == "0" or row["output"] == "speaker"], f"Decoded, {way}")
        lines += table([row for row in some if row["raw"] == "1" and row["output"] != "speaker"], f"RAW, {way}")
    passed = sum(row["passed"] == "1" for row in rows)
    worst = {key: max((seconds(row[key]) for row in rows if row[key] != "never" and row["expected"] == "sound"), default=0)
             for key in ("sound_s", "sync_s", "silence_s", "freeze_s")}
    lines += ["", f"{len(rows)} transitions, {passed} inside the limits. Longest: sound after {worst['sound_s']:.2f} s, "
              f"in sync after {worst['sync_s']:.2f} s, silence of {worst['silence_s']:.2f} s, "
              f"no new picture for {worst['freeze_s']:.2f} s."]
    for row in rows:
        if row["passed"] != "1":
            lines.append("- " + ", ".join(f"{key} {value}" for key, value in row.items()))
    print("\n".join(lines))


if __name__ == "__main__":
    main()
