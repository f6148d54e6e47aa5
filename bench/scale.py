#!/usr/bin/env python3
"""scale.py - shows how the costs of a spool grow with its mailboxes, on generated ones.

usage: scale.py TSMAIL OUTPUT MAILBOXES...      (numbers that grow, as 100 1000 10000)

Runs inside the sandbox (scripts/bench.sh --scale). Mailboxes have the folders that `tsmail create`
makes and 100 messages with real names and empty files. From LINKED mailboxes on the messages of a mailbox are
links to one file, because a small disk does not have inodes for so many files. The measured operations do not
look at the files. Writes a table.
"""
import os
import resource
import statistics
import subprocess
import sys
import time

DOMAIN = "/var/spool/home/site.test"
FOLDERS = {"Inbox": 70, "Sent": 20, "Trash": 10, "Drafts": 0, "Bulk": 0, "SecureMail": 0}
EACH = sum(FOLDERS.values())
DELIVERIES = 40
LINKED = 20000


def make_mailbox(number):
    """With a file for each message, or one for all."""
    mail = f"{DOMAIN}/u{number:06}~site.test/mail"
    os.makedirs(mail)
    for folder, messages in FOLDERS.items():
        os.mkdir(f"{mail}/{folder}")
        for sub in ("cur", "new", "tmp"):
            os.mkdir(f"{mail}/{folder}/{sub}")
        for n in range(messages):
            name = (f"{mail}/{folder}/cur/17632752{n:02}.{number}_{n:06}_{n + 1}.mx1#Q#6B9Ha0q3{n:06}"
                    f",#F#S#{2048 + n * 31}#E:2,S")
            if number < LINKED or (folder, n) == ("Inbox", 0):
                os.close(os.open(name, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600))
                first = name
            else:
                os.link(first, name)


def timed(words, **options):
    """seconds, and the memory of the largest child so far in KiB"""
    begin = time.monotonic()
    done = subprocess.run(words, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, check=False,
                          **options)
    if done.returncode != 0:
        raise SystemExit(f"{words}: {done.stderr.decode()}")
    return time.monotonic() - begin, resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss


def deliver(tsmail, number):
    return timed([tsmail, "-q", "deliver", f"u{number:06}@site.test"],
                 input=b"Subject: x\n\n" + b"A line.\n" * 400)[0]


def used():
    """inodes and bytes on the disk, as du counts them"""
    def last(*words):
        out = subprocess.run(["du", "-s", *words, "/var/spool/home"], stdout=subprocess.PIPE,
                             check=True).stdout
        return int(out.split()[0])
    return last("--inodes"), last("-B1")


def measure(tsmail, before, count):
    begin = time.monotonic()
    for number in range(before, count):
        make_mailbox(number)
    made = (time.monotonic() - begin) / (count - before)
    first, _ = timed([tsmail, "-q", "recount", "--all"])
    again, memory = timed([tsmail, "-q", "recount", "--all"])
    usage, _ = timed([tsmail, "usage", "--json"])
    step = max(1, count // DELIVERIES)
    one = statistics.median(deliver(tsmail, n) for n in range(0, count, step))
    inodes, size = used()
    return [f"{count:,}", f"{count * EACH:,}", f"{inodes / count:.1f}", f"{size / count / 1024:.0f}",
            f"{made * 1e3:.1f}", f"{first / count * 1e3:.2f}", f"{again / count * 1e3:.2f}",
            f"{usage / count * 1e6:.0f}", f"{memory / 1024:.0f}", f"{one * 1e3:.1f}"]


HEAD = ["mailboxes", "messages", "inodes each", "KiB each", "made, ms each", "first recount, ms each",
        "recount again, ms each", "usage, µs each", "memory, MiB", "one delivery, ms"]


def main(tsmail, output, *counts):
    lines = ["| " + " | ".join(HEAD) + " |", "|" + "---:|" * len(HEAD)]
    before = 0
    for count in map(int, counts):
        row = measure(tsmail, before, count)
        lines.append("| " + " | ".join(row) + " |")
        print(lines[-1], flush=True)
        before = count
    with open(output, "w", encoding="utf-8") as file:
        file.write("\n".join(lines) + "\n")


if __name__ == "__main__":
    main(*sys.argv[1:])
