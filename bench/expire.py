#!/usr/bin/env python3
"""expire.py - removes old messages with tsmail and with find, each round on the same tree made anew.

usage: expire.py TSMAIL OUTPUT MESSAGES ROUNDS

Runs inside the sandbox (scripts/bench.sh --expire). Writes a table. Fails if a median ratio to find is above LIMIT.
"""
import os
import statistics
import subprocess
import sys
import time

LIMIT = 1.3
OLD = time.time() - 40 * 86400
TRASH = "/var/spool/home/site.test/ann~site.test/mail/Trash"
EXPIRE = ["-q", "expire", "ann@site.test", "--folder", "Trash"]
COLUMNS = {
    "find": ["find", TRASH, "-type", "f", "-mtime", "+30", "-delete"],
    # The change time cannot be set, so the age is small.
    "by saved": [*EXPIRE, "--older", "1s"],
    "by received": [*EXPIRE, "--older", "30d", "--by", "received"],
}


def fill(tsmail, messages):
    subprocess.run([tsmail, "-q", "create", "ann@site.test"], check=True)
    for n in range(messages):
        sub, flags = (("new", ""), ("cur", ":2,S"))[n % 4 != 0]
        name = f"{TRASH}/{sub}/{int(OLD)}.{n}_{n:06}_{n + 1}.mx1,#F#S#1000#E{flags}"
        with open(name, "wb") as file:
            file.write(b"x" * 1000)
        os.utime(name, (OLD, OLD))
    for marker in (".maildirfolder", ".ts_folder_size"):
        if os.path.exists(f"{TRASH}/{marker}"):
            os.utime(f"{TRASH}/{marker}")
    subprocess.run(["sync", "-f", TRASH], check=True)
    time.sleep(2.1)


def left():
    return sum(len(os.listdir(f"{TRASH}/{sub}")) for sub in ("new", "cur"))


def seconds(tsmail, column, messages):
    fill(tsmail, messages)
    words = COLUMNS[column]
    begin = time.monotonic()
    subprocess.run(words if column == "find" else [tsmail, *words], check=True)
    taken = time.monotonic() - begin
    if left() != 0:
        raise SystemExit(f"expire.py: {column} left {left()} messages")
    return taken


def main():
    tsmail, output, messages, rounds = sys.argv[1], sys.argv[2], int(sys.argv[3]), int(sys.argv[4])
    times = {column: [] for column in COLUMNS}
    for turn in range(rounds):
        columns = list(COLUMNS)
        for column in columns[turn % 3:] + columns[:turn % 3]:  # none is always the first
            times[column].append(seconds(tsmail, column, messages))
    rows, worst = [], 0.0
    for column, taken in times.items():
        ratio = statistics.median(mine / find for mine, find in zip(taken, times["find"]))
        worst = max(worst, ratio)
        rows.append(f"| {column} | {statistics.median(taken) * 1e6 / messages:.2f} | {ratio:.2f} |")
    with open(output, "w", encoding="utf-8") as file:
        file.write(f"Removing {messages:,} messages, {rounds} rounds:\n\n"
                   "| command | microseconds a message (median) | beside find in the same round (median) |\n"
                   "|---|---|---|\n" + "\n".join(rows) + "\n")
    if worst > LIMIT and messages >= 100000:
        raise SystemExit(f"expire.py: {worst:.2f} times find, the limit is {LIMIT}")


if __name__ == "__main__":
    main()
