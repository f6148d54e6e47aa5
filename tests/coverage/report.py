#!/usr/bin/env python3
"""report.py BUILD PROFILE - lines and branches of the library's sources that the tests reached.

Prints a table and compares what was not reached with uncovered.md. Each missing side of a condition and each
missing line must be named there with its reason. Exits with 1 if one is not.
"""
import collections
import json
import os
import pathlib
import re
import subprocess
import sys

SOURCE = pathlib.Path(__file__).resolve().parents[2]
FOLDERS = ("mailuser", "maildir", "mailsize", "quota", "userpref", "maillist", "base")
NAMED = SOURCE / "tests/coverage/uncovered.md"
LINES_WANTED, BRANCHES_WANTED = 100.0, 95.0  # the targets


def export(build, profile, *options):
    merged = profile / "merged.profdata"
    subprocess.run(["llvm-profdata", "merge", "-o", merged, *profile.glob("*.profraw")], check=True)
    libraries = [build / "libtsmail.so", "-object", build / "support/libtssupport.so"]
    return subprocess.run(["llvm-cov", "export", *libraries, f"-instr-profile={merged}", *options],
                          check=True, capture_output=True, text=True).stdout


def ours(filename):
    """The path below the source, or None for a file that does not belong to the library."""
    path = pathlib.Path(os.path.normpath(filename))
    if not path.is_relative_to(SOURCE):
        return None
    path = path.relative_to(SOURCE)
    return str(path) if path.parts[0] in FOLDERS else None


def branches(text):
    """file -> (line, column, end line, end column) -> [times true, times false]."""
    found = collections.defaultdict(lambda: collections.defaultdict(lambda: [0, 0]))
    for entry in json.loads(text)["data"][0]["files"]:
        path = ours(entry["filename"])
        for branch in entry["branches"] if path else ():
            counts = found[path][tuple(branch[:4])]
            counts[0] += branch[4]
            counts[1] += branch[5]
    return found


def lines(text):
    """file -> line -> times."""
    found = collections.defaultdict(lambda: collections.defaultdict(int))
    path = None
    for record in text.splitlines():
        if record.startswith("SF:"):
            path = ours(record[3:])
        elif record.startswith("DA:") and path:
            number, count = record[3:].split(",")[:2]
            found[path][int(number)] += int(count)
    return found


def functions_not_called(text):
    """(file, first line, last line) of each function that never ran, in any of its instances."""
    counted = collections.defaultdict(int)
    for function in json.loads(text)["data"][0]["functions"]:
        path, region = ours(function["filenames"][0]), function["regions"][0]
        if path:
            counted[path, region[0], region[2]] += function["count"]
    return sorted(place for place, count in counted.items() if count == 0)


def source_of(path):
    return (SOURCE / path).read_text(encoding="utf-8").splitlines()


def text_between(path, place):
    line, column, end_line, end_column = place
    part = source_of(path)[line - 1:end_line]
    part[-1] = part[-1][:end_column - 1]
    part[0] = part[0][column - 1:]
    return " ".join(" ".join(part).split())


def missing(all_lines, all_branches, functions):
    """What was not reached: (file, source text, what is missing) -> its place."""
    found, known = collections.defaultdict(list), collections.defaultdict(set)
    for path, first, last in functions:
        known[path].update(range(first, last + 1))
        found[path, source_of(path)[first - 1].strip(), "never called"].append(first)
    for path, counts in all_branches.items():
        for place, sides in sorted(counts.items()):
            for side, count in zip(("true", "false"), sides):
                if count == 0 and place[0] not in known[path]:
                    found[path, text_between(path, place), f"never {side}"].append(place[0])
    for path, counts in all_lines.items():
        for number, count in sorted(counts.items()):
            text = source_of(path)[number - 1].strip()
            if count == 0 and number not in known[path] and re.search(r"\w", text):
                found[path, text, "never run"].append(number)
    return found


def named():
    """The rows of uncovered.md, as missing() has them -> how often."""
    rows = collections.Counter()
    for line in NAMED.read_text(encoding="utf-8").splitlines():
        match = re.match(r"\| `([^`]+)` \| `(.+)` \| (never \w+)(?: \((\d+) times\))? \| (.+) \|$", line)
        if match:
            path, text, side, times, _ = match.groups()
            rows[path, text.replace("\\|", "|"), side] += int(times or 1)
    return rows


def leave_out(functions, all_lines, all_branches):
    """Drops what only the compiler runs: constexpr functions that are not called."""
    away = [place for place in functions
            if re.search(r"\bconst(expr|eval)\b", source_of(place[0])[place[1] - 1])]
    for path, first, last in away:
        all_lines[path] = {n: c for n, c in all_lines[path].items() if not first <= n <= last}
        all_branches[path] = {p: c for p, c in all_branches[path].items() if not first <= p[0] <= last}
    print(f"{len(away)} functions run in the compiler alone and are not counted")
    return [place for place in functions if place not in away]


def percent(part, whole):
    return 100.0 * part / whole if whole else 100.0


def print_table(all_lines, all_branches):
    totals = [0, 0, 0, 0]
    print(f"{'file':34} {'lines':>11} {'':>7} {'branches':>11}")
    for path in sorted(all_lines):
        counts = list(all_lines[path].values())
        sides = [count for pair in all_branches[path].values() for count in pair]
        row = [sum(map(bool, counts)), len(counts), sum(map(bool, sides)), len(sides)]
        totals = [a + b for a, b in zip(totals, row)]
        print_row(path, row)
    print_row("libtsmail", totals)
    return percent(*totals[:2]), percent(*totals[2:])


def print_row(name, row):
    print(f"{name:34} {row[0]:5}/{row[1]:<5} {percent(*row[:2]):6.1f}% {row[2]:5}/{row[3]:<5} "
          f"{percent(*row[2:]):6.1f}%")


def main(build, profile):
    details = export(build, profile)
    all_branches = branches(details)
    all_lines = lines(export(build, profile, "-format=lcov"))
    functions = leave_out(functions_not_called(details), all_lines, all_branches)
    line_share, branch_share = print_table(all_lines, all_branches)
    print(f"aimed at: {LINES_WANTED:.0f} % of lines, {BRANCHES_WANTED:.0f} % of branches")
    unreached, rows, new = missing(all_lines, all_branches, functions), named(), 0
    for (path, text, side), places in sorted(unreached.items()):
        if len(places) > rows[path, text, side]:
            new += 1
            where = ", ".join(map(str, places))
            print(f"not named in {NAMED.name}: {path}:{where}: `{text}` {side} ({len(places)} times)")
    for path, text, side in sorted(set(rows) - set(unreached)):
        print(f"reached by now: {path}: `{text}` {side}")
    return 1 if new or line_share == 0 or branch_share == 0 else 0


if __name__ == "__main__":
    sys.exit(main(pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])))
