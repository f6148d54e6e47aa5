#!/usr/bin/env python3
"""report.py - turns measured times and counts into tables and plots.

usage: report.py MEASURED_DIR OUTPUT_DIR [A WORD ABOUT THE MACHINE]

Reads MEASURED_DIR/times.json and counts.json. Each column's time is divided by the limit's time of the
same round; shown are median, smallest and largest of these ratios, beside them system calls and
user-space instructions of one operation. Writes OUTPUT_DIR/results.md, and OUTPUT_DIR/<item>.svg for
every item with several sizes. Targets that are missed are listed with what bench/reasons.toml says.
"""
import json
import math
import pathlib
import statistics
import sys
import tomllib

# item: the largest ratio of the library that is aimed at (by size where it depends on it).
TARGETS = {
    "sum_names": 1.05, "sum_stat": 1.04, "fresh_cache": 1.2, "delete_tree": 1.05,
    "list_find": {2047: 0.85, 100000: 0.7}, "list_add": {2047: 1.0}, "list_names": 1.1,
    "list_sorted": {2047: 2.5, 100000: 4.2}, "pref_read": 1.55, "pref_parse": 2.3,
    "pref_store": 1.05, "message_name": 8, "size_append": 1.06, "walk": {11110: 1.9},
    "recount": {1000: 1.1},
}
# item: the peers that the library has to be ahead of, and the sizes from which it counts: in smaller
# ones a peer's work is lost in the difference between two of its starts.
AHEAD_OF = {"delete_tree": (["rm -rf"], 10000), "deliver": (["dovecot-lda"], 0),
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
    "recount": "mailboxes of 1,000 messages; time and counts are those of one mailbox. The limit is one "
               "thread's, the library works in one for each processor, with one job in a single one",
}
COLOURS = ["#2c6fb0", "#b05a2c", "#3a8f4d", "#8f3a8a", "#8f7a2c", "#555555"]


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


def target_of(item, size):
    target = TARGETS.get(item)
    return target.get(size) if isinstance(target, dict) else target


def verdicts(item, size, columns):
    """(what was aimed at, whether it was reached) for the library in this size"""
    target = target_of(item, size)
    if target is not None:
        yield f"at most {target}", statistics.median(ratios(columns, "library")) <= target
    ours = columns["library"]
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
            verdict = ""
            if column == "library":
                verdict = ", ".join(f"{aim}: {'yes' if met else '**missed**'}"
                                    for aim, met in verdicts(item, size, columns))
            time = statistics.median(columns[column].values()) * 1e6
            yield (f"| {size:,} | {column} | {number(time, 2 if time < 100 else 0)} | "
                   f"{statistics.median(values):.2f} | {min(values):.2f} | {max(values):.2f} | "
                   f"{calls} | {instructions} | {verdict} |")
    yield ""


def nearest_counts(counts, item, size, column):
    """The counts of this size, or else of the largest one that was counted."""
    sizes = [s for i, s, c in counts if i == item and c == column and s <= size]
    return counts.get((item, max(sizes), column)) if sizes else None


def missed(table, counts, reasons):
    for item, sizes in table.items():
        for size, columns in sizes.items():
            for aim, met in verdicts(item, size, columns):
                if met:
                    continue
                median = statistics.median(ratios(columns, "library"))
                yield f"### {item}, {size:,}: {median:.2f}, aimed at: {aim}"
                yield ""
                for column in ("limit", "library"):
                    row = nearest_counts(counts, item, size, column)
                    if row:
                        calls = ", ".join(f"{name} {n:g}" for name, n in row["by_name"].items())
                        yield (f"- {column}, counted at {row['size']:,}: {row['calls']:g} system "
                               f"calls ({calls or 'none'}), {row['instructions']:,.0f} instructions")
                yield f"- {reasons.get(item, 'Not looked into yet.').strip()}"
                yield ""


class Plot:
    """Ratio (logarithmic) over size (logarithmic), a line a column, the limit at 1."""

    WIDTH, HEIGHT, LEFT, RIGHT, TOP, BOTTOM = 640, 360, 60, 130, 40, 50

    def __init__(self, item, sizes):
        self.item = item
        self.medians = {size: {c: statistics.median(ratios(columns, c))
                               for c in columns if c != "limit"}
                        for size, columns in sizes.items()}
        values = [r for row in self.medians.values() for r in row.values()] + [1.0]
        self.low, self.high = math.log(min(values) * 0.85), math.log(max(values) * 1.2)
        self.first, self.last = math.log(min(sizes)), math.log(max(sizes))

    def x(self, size):
        share = (math.log(size) - self.first) / (self.last - self.first)
        return self.LEFT + share * (self.WIDTH - self.LEFT - self.RIGHT)

    def y(self, ratio):
        share = (math.log(ratio) - self.low) / (self.high - self.low)
        return self.HEIGHT - self.BOTTOM - share * (self.HEIGHT - self.TOP - self.BOTTOM)

    def frame(self):
        right = self.WIDTH - self.RIGHT
        yield (f'<svg xmlns="http://www.w3.org/2000/svg" width="{self.WIDTH}" height="{self.HEIGHT}" '
               'font-family="sans-serif" font-size="12">')
        yield f'<rect width="{self.WIDTH}" height="{self.HEIGHT}" fill="white"/>'
        yield (f'<text x="{self.LEFT}" y="22" font-size="14">{self.item}: time as a multiple of the '
               'limit</text>')
        yield (f'<line x1="{self.LEFT}" x2="{right}" y1="{self.y(1):.1f}" y2="{self.y(1):.1f}" '
               'stroke="gray" stroke-dasharray="4"/>')
        yield f'<text x="{right + 8}" y="{self.y(1) + 4:.1f}" fill="gray">limit</text>'
        for size in self.medians:
            yield (f'<text x="{self.x(size):.1f}" y="{self.HEIGHT - self.BOTTOM + 20}" '
                   f'text-anchor="middle">{size:,}</text>')
        yield (f'<text x="{(self.LEFT + right) / 2}" y="{self.HEIGHT - 8}" text-anchor="middle">'
               f'{WHAT.get(self.item, "").split(";")[0]}</text>')

    def curve(self, column, colour, label):
        points = [(self.x(s), self.y(row[column]), row[column])
                  for s, row in sorted(self.medians.items()) if column in row]
        path = " ".join(f"{a:.1f},{b:.1f}" for a, b, _ in points)
        yield f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="2"/>'
        for a, b, ratio in points:
            yield f'<circle cx="{a:.1f}" cy="{b:.1f}" r="3" fill="{colour}"/>'
            yield f'<text x="{a + 4:.1f}" y="{b - 6:.1f}" fill="{colour}">{ratio:.2f}</text>'
        yield (f'<text x="{self.WIDTH - self.RIGHT + 8}" y="{label:.1f}" fill="{colour}">{column}'
               '</text>')

    def labels(self, columns):
        """Where the columns' names stand: beside their last points, but not on each other."""
        last = {c: [row[c] for _, row in sorted(self.medians.items()) if c in row][-1] for c in columns}
        places, taken = {}, [self.y(1) + 4]
        for column in sorted(columns, key=lambda c: self.y(last[c])):
            place = self.y(last[column]) + 4
            while any(abs(place - other) < 14 for other in taken):
                place += 1
            taken.append(place)
            places[column] = place
        return places

    def text(self):
        names = list(dict.fromkeys(c for row in self.medians.values() for c in order(row)))
        places = self.labels(names)
        parts = list(self.frame())
        for column, colour in zip(names, COLOURS):
            parts += self.curve(column, colour, places[column])
        return "\n".join(parts) + "\n</svg>\n"


HEAD = """# Measured

Time of the library as a multiple of the *limit*: the bare system calls and memory traffic that no
implementation can do without. *literal* is the operation done the plainest way; the other columns are
other programs, from spawn to exit less the same program on an empty input, or the C library's own
walks. Ratios are those of single rounds, in which all columns are measured one after the other in an
order drawn anew: median, smallest, largest. Warm cache. System calls are counted by strace,
instructions in user space by callgrind; they carry no noise and stand there for the smaller sizes.
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
            (out / f"{item}.svg").write_text(Plot(item, sizes).text(), encoding="utf-8")
            lines += [f"![{item}]({item}.svg)", ""]
    lines += ["## Missed", "", *(lists or ["Nothing.", ""])]
    text = "\n".join(lines)
    (out / "results.md").write_text(text, encoding="utf-8")
    print(f"{out}/results.md")


if __name__ == "__main__":
    main(*sys.argv[1:])
