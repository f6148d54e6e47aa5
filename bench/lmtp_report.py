#!/usr/bin/env python3
"""lmtp_report.py - the page and the plot of what bench/lmtp.py measured.

usage: lmtp_report.py FOUND DIRECTORY NOTE     writes lmtp.md and lmtp.svg into the directory
"""
import json
import pathlib
import statistics
import sys
import tomllib

import matplotlib
matplotlib.use("svg")
from matplotlib import pyplot, rcParams  # noqa: E402

LIMIT, OURS, PEER = "limit", "tsmail lmtp", "Dovecot"
TARGETS = {1: 1.3, 4: 1.5, 16: 1.5}  # times the limit, by connections
AHEAD = 1.5                          # times as fast as the peer
MOST_KIB = 20 * 1024

rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "tsmail", "font.family": "sans-serif"})


def rate(row, way):
    return row["count"] / statistics.median(row["seconds"][way])


def ratio(row, way, other):
    """The median of the rounds' ratios of the times."""
    return statistics.median(a / b for a, b in zip(row["seconds"][way], row["seconds"][other]))


def yes(kept):
    return "yes" if kept else "no"


def table(rows, ways):
    heads = ["mailboxes", "bytes", "connections", "rounds", *(f"{way}, messages a second" for way in ways),
             "time beside the limit", "at most", "kept"]
    if PEER in ways:
        heads += [f"times as fast as {PEER}", "kept"]
    lines = ["| " + " | ".join(heads) + " |", "|" + "---:|" * len(heads)]
    for row in rows:
        beside, most = ratio(row, OURS, LIMIT), TARGETS[row["connections"]]
        cells = [f"{row[name]:,}" for name in ("mailboxes", "size", "connections")]
        cells += [str(len(row["seconds"][OURS])), *(f"{rate(row, way):,.0f}" for way in ways)]
        cells += [f"{beside:.2f}", f"{most}", yes(beside <= most)]
        if PEER in ways:
            ahead = ratio(row, PEER, OURS)
            cells += [f"{ahead:.2f}", yes(ahead >= AHEAD)]
        lines.append("| " + " | ".join(cells) + " |")
    return "\n".join(lines)


def memory_table(memory):
    lines = ["| bytes of the messages | KiB at most while 200 are delivered | KiB afterwards | below 20 MiB |",
             "|---:|---:|---:|---:|"]
    for size, (most, afterwards) in ((size, row) for size, row in memory.items() if size != "idle"):
        lines.append(f"| {int(size):,} | {most:,} | {afterwards:,} | {yes(most < MOST_KIB)} |")
    return "\n".join(lines)


def growth_table(growth):
    return "\n".join(["| messages | KiB |", "|---:|---:|", *(f"| {count:,} | {kib:,} |" for count, kib in growth)])


def plot(rows, ways, path):
    """Messages a second over connections, a panel for each size; one mailbox."""
    mailboxes = min(row["mailboxes"] for row in rows)
    rows = [row for row in rows if row["mailboxes"] == mailboxes]
    sizes = sorted({row["size"] for row in rows})
    figure, panels = pyplot.subplots(1, len(sizes), figsize=(9.6, 3.6), layout="constrained")
    for axes, size in zip(panels, sizes):
        for way in ways:
            points = [(row["connections"], rate(row, way)) for row in rows if row["size"] == size]
            axes.plot(*zip(*points), marker="o", markersize=4, label=way, color="black" if way == LIMIT else None,
                      linestyle="--" if way == LIMIT else "-")
        axes.set_xscale("log", base=2)
        axes.set_xticks([row["connections"] for row in rows if row["size"] == size], minor=False)
        axes.xaxis.set_major_formatter("{x:g}")
        axes.set_ylim(bottom=0)
        axes.set_title(f"{size // 1000:,} KB", fontsize="medium")
        axes.set_xlabel("connections")
    panels[0].set_ylabel("messages a second")
    panels[0].legend(frameon=False, fontsize="small")
    figure.savefig(path, metadata={"Date": None})
    pyplot.close(figure)


PAGE = """# Deliveries over LMTP, measured

Made by `scripts/bench.sh --lmtp`: {note}.

## Messages a second

Each round delivers the same messages by each program, with as many threads as connections, to a file system on the disk.
The limit writes, flushes and links each message and flushes the directory, and does nothing else. {peer}
The rates are medians; the comparisons are medians of the comparisons within a round.

{rates}

![Messages a second over connections, one mailbox](lmtp.svg)

## Memory

All processes of the service, with shared pages in equal shares, and the messages that they hold in memory:
{idle:,} KiB before the first connection. With 100 connections:

{memory}

What {count:,} messages leave, in one service, after those above:

{growth}
{missed}"""


def missed(rates):
    """What was aimed at and missed, with the reason."""
    if "| no |" not in rates:
        return ""
    with open(pathlib.Path(__file__).with_name("reasons.toml"), "rb") as file:
        return "\n## Missed\n\n" + " ".join(tomllib.load(file)["lmtp"].split()) + "\n"


def main(found, directory, note):
    with open(found, encoding="utf-8") as file:
        results = json.load(file)
    rows = results["rows"]
    ways = list(rows[0]["seconds"])
    peer = (f"{PEER}'s LMTP service flushes as it does by default." if PEER in ways else
            f"{PEER} could not be had on this machine.")
    rates = table(rows, ways)
    page = PAGE.format(note=note, peer=peer, rates=rates, missed=missed(rates), idle=results["memory"]["idle"],
                       memory=memory_table(results["memory"]), count=results["growth"][-1][0],
                       growth=growth_table(results["growth"]))
    with open(f"{directory}/lmtp.md", "w", encoding="utf-8") as file:
        file.write(page)
    plot(rows, ways, f"{directory}/lmtp.svg")


if __name__ == "__main__":
    main(*sys.argv[1:])
