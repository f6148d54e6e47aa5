#!/usr/bin/env python3
"""lmtp.py - delivers messages through `tsmail lmtp` and by bare writes, flushes and links, in turn.

usage: lmtp.py TSMAIL LMTP OUTPUT ROUNDS [MAILBOXES...]

LMTP is the program of bench/lmtp.cpp. Runs inside the sandbox, on a spool that is on the disk, as the owner of the
mail. Each round delivers the same number of messages both ways with as many threads as connections. Writes a table.
"""
import os
import shutil
import statistics
import subprocess
import sys
import time

DOMAIN = "/var/spool/home/site.test"
BARE = "/var/spool/bare"
SOCKET = "/var/spool/lmtp"
ROWS = [(size, connections) for size in (1000, 30000, 1000000) for connections in (1, 4, 16)]


def messages(size, connections):
    return {1000: 200, 30000: 150, 1000000: 30}[size] * min(connections, 4)


def seconds(lmtp, *words):
    done = subprocess.run([lmtp, *map(str, words)], stdout=subprocess.PIPE, check=True)
    return float(done.stdout)


def emptied(folder):
    for sub in ("cur", "new", "tmp"):
        shutil.rmtree(f"{folder}/{sub}", ignore_errors=True)
        os.makedirs(f"{folder}/{sub}")


def delivered(mailboxes):
    return sum(len(os.listdir(f"{DOMAIN}/u{n}~site.test/mail/Inbox/new")) for n in range(mailboxes))


def measure(tsmail, lmtp, rounds, mailboxes):
    users = [f"u{n}@site.test" for n in range(mailboxes)]
    for user in users:
        subprocess.run([tsmail, "-q", "create", user], check=True)
    bare = [f"{BARE}/{n}" for n in range(mailboxes)]
    service = subprocess.Popen([tsmail, "lmtp", "--listen", f"unix:{SOCKET}"])
    while not os.path.exists(SOCKET):
        time.sleep(0.05)
    time.sleep(0.2)
    rows = []
    for size, connections in ROWS:
        count, limits, times = messages(size, connections), [], []
        for turn in range(rounds):
            for n in range(mailboxes):
                emptied(bare[n])
                emptied(f"{DOMAIN}/u{n}~site.test/mail/Inbox")
            runs = [(limits, ("limit", *bare)), (times, ("socket", SOCKET, *users))]
            for taken, words in runs[::1 if turn % 2 else -1]:
                taken.append(seconds(lmtp, *words, "--", size, connections, count))
            if delivered(mailboxes) != count:
                raise SystemExit(f"lmtp.py: {delivered(mailboxes)} messages instead of {count}")
        ratio = statistics.median(mine / limit for mine, limit in zip(times, limits))
        rows.append(f"| {mailboxes:,} | {size:,} | {connections} | {count / statistics.median(limits):,.0f} | "
                    f"{count / statistics.median(times):,.0f} | {ratio:.2f} |")
        print(rows[-1], flush=True)
    service.terminate()
    service.wait()
    return rows


def main():
    tsmail, lmtp, output, rounds = sys.argv[1:4] + [int(sys.argv[4])]
    rows = []
    for mailboxes in map(int, sys.argv[5:] or ["1"]):
        rows += measure(tsmail, lmtp, rounds, mailboxes)
    with open(output, "w", encoding="utf-8") as file:
        file.write("| mailboxes | bytes | connections | limit, messages a second | tsmail lmtp, messages a second | "
                   "time beside the limit in the same round (median) |\n" + "|---:" * 6 + "|\n" +
                   "\n".join(rows) + "\n")


if __name__ == "__main__":
    main()
