#!/usr/bin/env python3
"""report.py - turns measured times and counts into tables and plots.

usage: report.py MEASURED_DIR OUTPUT_DIR [A WORD ABOUT THE MACHINE]

Reads MEASURED_DIR/times.json and counts.json. Each column's time is divided by the limit's time of the
same round; the tables show the median, the smallest and the largest of these ratios, and the system calls and
user-space instructions of one operation. Writes OUTPUT_DIR/results.md, and OUTPUT_DIR/<item>.svg for
every item with several sizes. Missed targets are listed with the reasons in bench/reasons.toml.
"""
import json
import pathlib
import statistics
import sys
import tomllib

import matplotlib
matplotlib.use("svg")
from matplotlib import pyplot, rcParams, ticker  # noqa: E402

# item: the largest ratio that the library should have (by size, if it depends on the size).
TARGETS = {
    "sum_names": 1.05, "sum_stat": 1.04, "fresh_cache": 1.2, "delete_tree": 1.05,
    "list_find": {2047: 0.85, 100000: 0.7}, "list_add": {2047: 1.0}, "list_names": 1.1,
    "list_sorted": {2047: 2.5, 100000: 4.2}, "pref_read": 1.55, "pref_parse": 2.3,
    "pref_store": 1.05, "message_name": 8, "size_append": 1.06, "walk": {11110: 1.9},
    "recount": {1000: 0.75}, ("recount", "one job"): {1000: 1.05},
}
# item: the most milliseconds of the library
MILLISECONDS = {"deliver": {1000: 1.3}, "start": 0.7}
# item: the peers that the library must be faster than, and the size from which this counts. In smaller ones a
# peer's work is smaller than the difference between two of its starts.
AHEAD_OF = {"delete_tree": (["rm -rf"], 10000), "deliver": (["dovecot-lda", "mdeliver"], 0),
            "recount": (["doveadm"], 1000)}
WHAT = {
    "sum_names": "messages in a folder; their names carry the size",
    "sum_stat": "messages in a folder, asked for their size",
    "fresh_cache": "messages in a folder with a fresh cache",
    "delete_tree": "files in a folder that is removed",
    "list_find": "lines; an address that is not there", "list_add": "lines; one that is there",
    "list_names": "lines, in the file's order", "list_sorted": "lines, sorted",
    "pref_read": "preference file", "pref_parse": "preference file's lines",
    "pref_store": "preference file", "message_name": "name",
    "size_append": "processes that append to one file; counts are those of one record",
    "walk": "nested folders", "deliver": "bytes of a message, from start to exit of the program",
    "start": "one start of a program that prints its version; the limit is one that does nothing",
    "recount": "mailboxes of 1,000 messages; time and counts are those of one mailbox. The limit is one "
               "thread's, the library works in one for each processor, with one job in a single one",
}
# Plots are text files that change only if the figures change.
rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "tsmail", "font.family": "sans-serif"})


def rounds(results):
    """{item: {size: {column: {round: seconds}}}}, in the order of measuring"""
    table = {}
    for run in results:
        by_size = table.setdefault(run["item"], {}).setdefault(run["size"], {})
        by_size.setdefault(run["column"], {})[run["round"]] = run["seconds"]
    return table


def ratios(columns, column):
    limit = columns["limit"]
    return [time / limit[n] for n, time in columns[column].items() if n in limit]


def target_of(targets, key, size):
    target = targets.get(key)
    return target.get(size) if isinstance(target, dict) else target


def verdicts(item, size, columns, column):
    """(the target, whether it was reached) for a column in this size"""
    target = target_of(TARGETS, item if column == "library" else (item, column), size)
    if target is not None:
        yield f"at most {target}", statistics.median(ratios(columns, column)) <= target
    if column != "library":
        return
    ours = columns["library"]
    milliseconds = target_of(MILLISECONDS, item, size)
    if milliseconds is not None:
        yield f"at most {milliseconds} ms", 1000 * statistics.median(ours.values()) <= milliseconds
    peers, least_size = AHEAD_OF.get(item, ([], 0))
    for peer in peers:
        if peer in columns and size >= least_size:
            theirs = columns[peer]
            ahead = statistics.median(ours[n] / theirs[n] for n in ours if n in theirs) < 1
            yield f"ahead of {peer}", ahead


def number(value, digits):
    return f"{value:,.{digits}f}"


def counted(counts, item, size, column):
    row = counts.get((item, size, column))
    if row is None:
        return "", ""
    calls = row["calls"]
    return number(calls, 0 if calls >= 100 or calls == int(calls) else 1), number(
        row["instructions"], 0)


def order(columns):
    known = ["limit", "library", "literal"]
    return [c for c in known if c in columns] + [c for c in columns if c not in known]


def table_of(item, sizes, counts):
    yield from (f"## {item}", "", f"Size: {WHAT.get(item, '')}.", "",
                "| size | column | median µs | ratio | smallest | largest | calls | instructions | |",
                "|---:|---|---:|---:|---:|---:|---:|---:|---|")
    for size, columns in sizes.items():
        for column in order(columns):
            values = ratios(columns, column)
            calls, instructions = counted(counts, item, size, column)
            verdict = ", ".join(f"{aim}: {'yes' if met else '**missed**'}"
                                for aim, met in verdicts(item, size, columns, column))
            time = statistics.median(columns[column].values()) * 1e6
            yield (f"| {size:,} | {column} | {number(time, 2 if time < 100 else 0)} | "
                   f"{statistics.median(values):.2f} | {min(values):.2f} | {max(values):.2f} | "
                   f"{calls} | {instructions} | {verdict} |")
    yield ""


def nearest_counts(counts, item, size, column):
    """The counts of this size, or else of the largest one that was counted."""
    sizes = [s for i, s, c in counts if i == item and c == column and s <= size]
    return counts.get((item, max(sizes), column)) if sizes else None


def misses(item, sizes):
    """(size, column, the targets that it missed)"""
    for size, columns in sizes.items():
        for column in order(columns):
            aims = [aim for aim, met in verdicts(item, size, columns, column) if not met]
            if aims:
                yield size, column, aims


def missed(table, counts, reasons):
    for item, sizes in table.items():
        found = list(misses(item, sizes))
        if not found:
            continue
        yield from (f"### {item}", "")
        for size, column, aims in found:
            median = statistics.median(ratios(sizes[size], column))
            yield f"- {column}, {size:,}: {median:.2f} of the limit; aimed at: {', '.join(aims)}"
        for column in ("limit", "library"):
            row = nearest_counts(counts, item, found[-1][0], column)
            if row:
                calls = ", ".join(f"{name} {n:g}" for name, n in row["by_name"].items())
                yield (f"- {column}, counted at {row['size']:,}: {row['calls']:g} system "
                       f"calls ({calls or 'none'}), {row['instructions']:,.0f} instructions")
        yield from (f"- {reasons.get(item, 'Not looked into yet.').strip()}", "")


def medians(sizes):
    """{size: {column: ratio}} without the limit's own."""
    return {size: {c: statistics.median(ratios(columns, c)) for c in order(columns) if c != "limit"}
            for size, columns in sizes.items()}


def plot(item, rows, path):
    """Ratio (logarithmic) over size (logarithmic), a line a column, the limit at 1. rows: medians()."""
    figure, axes = pyplot.subplots(figsize=(6.4, 3.6), layout="constrained")
    for column in dict.fromkeys(c for row in rows.values() for c in row):
        points = [(size, row[column]) for size, row in sorted(rows.items()) if column in row]
        [line] = axes.loglog(*zip(*points), marker="o", markersize=4, label=column)
        for point in points:
            axes.annotate(f"{point[1]:.2f}", point, xytext=(3, 4), textcoords="offset points",
                          fontsize="x-small", color=line.get_color())
    axes.axhline(1, color="gray", linestyle="--", label="limit")
    axes.set_title(f"{item}: time as a multiple of the limit", fontsize="medium")
    axes.set_xlabel(WHAT.get(item, "").split(";")[0])
    axes.set_xticks(sorted(rows), [f"{size:,}" for size in sorted(rows)])
    axes.margins(x=0.09, y=0.12)
    axes.minorticks_off()
    axes.yaxis.set_major_locator(ticker.LogLocator(subs=(1, 2, 5)))
    axes.yaxis.set_major_formatter("{x:g}")
    axes.legend(loc="upper left", bbox_to_anchor=(1, 1), frameon=False, fontsize="small")
    figure.savefig(path, metadata={"Date": None})
    pyplot.close(figure)


HEAD = """# Measured

Time of the library as a multiple of the *limit*: the bare system calls and memory traffic that no
implementation can do without. *literal* is the operation done the plainest way; the other columns are
other programs, from spawn to exit less the same program on an empty input, or the C library's own
walks. Ratios are those of single rounds, in which all columns are measured one after the other in an
order drawn anew: median, smallest, largest. Warm cache. System calls are counted by strace,
instructions in user space by callgrind; they carry no noise and stand there for the smaller sizes. What a
program does before it starts a process is counted for both.
Made by `scripts/bench.sh`.
"""


def main(measured, output, machine=""):
    source, out = pathlib.Path(measured), pathlib.Path(output)
    out.mkdir(parents=True, exist_ok=True)
    times = json.loads((source / "times.json").read_text(encoding="utf-8"))
    counts = {(row["item"], row["size"], row["column"]): row
              for row in json.loads((source / "counts.json").read_text(encoding="utf-8"))}
    reasons = tomllib.loads((pathlib.Path(__file__).parent / "reasons.toml").read_text(encoding="utf-8"))
    table = rounds(times["results"])
    lines = [HEAD, f"Machine: {machine}." if machine else "", ""]
    lines += ["Peers: " + "; ".join(f"{c}: {v or 'version unknown'}" for c, v in times["versions"].items()) + ".", ""]
    lists = list(missed(table, counts, reasons))
    for item, sizes in table.items():
        lines += table_of(item, sizes, counts)
        if len(sizes) > 1:
            plot(item, medians(sizes), out / f"{item}.svg")
            lines += [f"![{item}]({item}.svg)", ""]
    lines += ["## Missed", "", *(lists or ["Nothing.", ""])]
    text = "\n".join(lines)
    (out / "results.md").write_text(text, encoding="utf-8")
    print(f"{out}/results.md")


if __name__ == "__main__":
    main(*sys.argv[1:])
