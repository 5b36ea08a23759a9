# SPDX-License-Identifier: MIT
"""report.py ROOT BUILD: what the tests reached of ROOT's product code, as gcov knows it from BUILD.

Lines that no test reaches have their reason in tests/coverage/unreached: "FILES: TEXT: REASON", where FILES is a pattern
and TEXT a part of the line; braces are the whole line. They count as not reached, and are left out of the list.
"""
import collections
import concurrent.futures
import fnmatch
import gzip
import json
import pathlib
import subprocess
import sys
import tempfile

# Share of lines and of branches that must be reached.
GOALS = {"source": (97, 85), "include/internal": (97, 0), "platform/linux": (93, 0)}
# Where the product is compiled; headers count as the product's own files include them.
BUILT = ("source", "platform")


def is_newer(path, note):
    return path.exists() and path.stat().st_mtime > note.stat().st_mtime


def read_notes(note, root):
    """What gcov says of one object file, whether it ran or not; None: file or object have changed since it ran."""
    with tempfile.TemporaryDirectory() as work:
        # gcov refuses counts of an object that was compiled again, and counts that were not written to the end.
        gcov = subprocess.run(["gcov", "--json-format", "--branch-probabilities", str(note)], cwd=work, check=False,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        files = [file for result in pathlib.Path(work).glob("*.gz") for file in json.load(gzip.open(result))["files"]]
    own = (pathlib.Path(file["file"]) for file in files if file["file"].startswith(f"{root}/"))
    return None if gcov.returncode != 0 or any(is_newer(path, note) for path in own) else files


def read_gcov(root, build):
    """The counts of every source file: {path: {line: count}}, {path: {(line, branch): count}}."""
    lines = collections.defaultdict(collections.Counter)
    branches = collections.defaultdict(collections.Counter)
    notes = [note for folder in BUILT for note in (build / folder).rglob("*.gcno")]
    with concurrent.futures.ThreadPoolExecutor() as pool:
        read = list(pool.map(lambda note: read_notes(note, root), notes))
    stale = [str(note.relative_to(build)) for note, files in zip(notes, read) if files is None]
    if not notes:
        sys.exit(f"{build}: nothing is built here")
    if stale:
        sys.exit("Changed since the tests ran, so run scripts/coverage without quick: " + ", ".join(sorted(stale)))
    for files in read:
        for file in files:
            for line in file["lines"]:
                number = line["line_number"]
                lines[file["file"]][number] += line["count"]
                taken = [branch["count"] for branch in line["branches"] if not branch["throw"]]
                for at, count in enumerate(taken if len(taken) > 1 else []):
                    branches[file["file"]][number, at] += count
    return lines, branches


def share(counts):
    return 100 * sum(1 for count in counts if count > 0) / max(1, len(counts))


def names(text, line):
    """Whether a reason's TEXT names the line."""
    return text == line.strip() if text and not text.strip("{};") else text in line


def main(root, build):
    lines, branches = read_gcov(root, build)
    reasons = [entry.split(": ", 2) for entry in (root / "tests/coverage/unreached").read_text().splitlines()
               if not entry.startswith("#")]
    used = set()
    missed = 0
    for folder, (line_goal, branch_goal) in GOALS.items():
        all_lines, all_branches = [], []
        for path in sorted((root / folder).rglob("*.*")):
            name, counts = str(path.relative_to(root)), lines.get(str(path), {})
            if not counts:
                continue
            all_lines += counts.values()
            all_branches += branches[str(path)].values()
            print(f"{name}: lines {share(counts.values()):.1f} %, branches {share(branches[str(path)].values()):.1f} %")
            text = path.read_text().splitlines()
            for number in sorted(number for number, count in counts.items() if count == 0):
                named = [tuple(entry) for entry in reasons
                         if fnmatch.fnmatch(name, entry[0]) and names(entry[1], text[number - 1])]
                used.update(named)
                if not named:
                    missed += 1
                    print(f"    {number}: {text[number - 1].strip()}")
        reached = share(all_lines), share(all_branches)
        missed += reached[0] < line_goal or reached[1] < branch_goal
        print(f"== {folder}: lines {reached[0]:.1f} % (at least {line_goal}), branches {reached[1]:.1f} % "
              f"(at least {branch_goal})")
    for name, text, _ in reasons:
        if not any(entry[:2] == (name, text) for entry in used):
            print(f"reached, although named as not: {name}: {text}")
    return 1 if missed else 0


sys.exit(main(pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])))
