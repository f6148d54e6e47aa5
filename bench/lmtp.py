#!/usr/bin/env python3
"""lmtp.py - delivers messages through `tsmail lmtp`, through Dovecot's LMTP service, and by bare writes, flushes and
links, in turn.

usage: lmtp.py TSMAIL LMTP OUTPUT [--rounds N] [--minutes N] [--mailboxes N]... [--share N] [--messages N]

LMTP is the program of bench/lmtp.cpp. Runs inside the sandbox, on a spool that is on the disk, as the owner of the
mail. Each round delivers the same number of messages in each way with as many threads as connections, for each size,
number of connections and number of mailboxes; rounds end early when the minutes are over. --share divides the numbers
of messages. --messages is the number over which the growth is measured. Writes what it measured as JSON.
"""
import argparse
import json
import os
import subprocess
import threading
import time

from lmtp_services import Dovecot, Tsmail

BARE = "/var/spool/bare"
SIZES = {1000: 100, 30000: 80, 1000000: 24}  # and the messages of a round with one connection
CONNECTIONS = (1, 4, 16)
HUNDRED = 100
SAMPLES = 10


class Limit:
    """The same writes, flushes and links, by a program that does nothing else."""
    name = "limit"

    def __init__(self, mailboxes):
        for n in range(mailboxes):
            for sub in ("tmp", "new"):
                os.makedirs(f"{BARE}/{n}/{sub}")

    def words(self, mailboxes):
        return ["limit", *(f"{BARE}/{n}" for n in range(mailboxes))]

    @staticmethod
    def folders(mailboxes):
        return [f"{BARE}/{n}/new" for n in range(mailboxes)]


def emptied(folders):
    """How many messages were there."""
    count = 0
    for folder in folders:
        with os.scandir(folder) as entries:
            for entry in list(entries):
                os.unlink(entry.path)
                count += 1
    return count


def seconds(lmtp, words, size, connections, count):
    done = subprocess.run([lmtp, *words, "--", str(size), str(connections), str(count)], stdout=subprocess.PIPE,
                          check=True)
    return float(done.stdout)


def measure(lmtp, way, mailboxes, size, connections, count):
    """The seconds for the messages, all of which must have arrived."""
    taken = seconds(lmtp, way.words(mailboxes), size, connections, count)
    found = emptied(way.folders(mailboxes))
    if found != count:
        raise SystemExit(f"lmtp.py: {way.name}: {found} messages instead of {count}")
    return taken


def rates(options, ways):
    """{mailboxes, size, connections, count, seconds: {way: [of each round]}} of each row."""
    rows = [{"mailboxes": mailboxes, "size": size, "connections": connections,
             "count": max(count * min(connections, 4) // options.share, 1), "seconds": {way.name: [] for way in ways}}
            for mailboxes in options.mailboxes for size, count in SIZES.items() for connections in CONNECTIONS]
    end = time.monotonic() + 60 * options.minutes
    for turn in range(options.rounds):
        for row in rows:
            if turn and time.monotonic() > end:
                return rows
            for way in ways[::1 if turn % 2 else -1]:
                row["seconds"][way.name].append(
                    measure(options.lmtp, way, row["mailboxes"], row["size"], row["connections"], row["count"]))
            print(turn, row, flush=True)
    return rows


def hundred_connections(options, service):
    """KiB of the idle service, and with 100 connections: at most while they deliver, and afterwards."""
    found = {"idle": service.kibibytes()}
    for size in SIZES:
        most, done = [0], threading.Event()

        def watch(most=most, done=done):
            while not done.wait(0.02):
                most[0] = max(most[0], service.kibibytes())
        watcher = threading.Thread(target=watch)
        watcher.start()
        seconds(options.lmtp, service.words(1), size, HUNDRED, 2 * HUNDRED)
        done.set()
        watcher.join()
        emptied(service.folders(1))
        found[str(size)] = [most[0], service.kibibytes()]
    return found


def growth(options, service):
    """[[messages so far, KiB]]"""
    found, step = [[0, service.kibibytes()]], max(options.messages // SAMPLES, 1)
    for n in range(SAMPLES):
        seconds(options.lmtp, service.words(1), 1000, 4, step)
        emptied(service.folders(1))
        found.append([(n + 1) * step, service.kibibytes()])
    return found


def arguments():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    for name in ("tsmail", "lmtp", "output"):
        parser.add_argument(name)
    for name, default in (("rounds", 5), ("minutes", 5), ("share", 1), ("messages", 20000)):
        parser.add_argument(f"--{name}", type=int, default=default)
    parser.add_argument("--mailboxes", type=int, action="append")
    options = parser.parse_args()
    options.mailboxes = options.mailboxes or [1, 1000]
    return options


def main():
    options = arguments()
    most = max(options.mailboxes)
    os.makedirs("/var/spool/tmp", exist_ok=True)
    os.environ["TMPDIR"] = "/var/spool/tmp"  # on the disk, as it is outside
    with Tsmail(options.tsmail, most) as tsmail, Dovecot(most) as dovecot:
        ways = [Limit(most), tsmail, *([dovecot] if dovecot.runs else [])]
        for way in ways[2:]:  # it makes its folders at the first delivery
            seconds(options.lmtp, way.words(most), 1000, 16, most)
            emptied(way.folders(most))
        found = {"rows": rates(options, ways)}
    with Tsmail(options.tsmail, 1) as tsmail:
        found["memory"] = hundred_connections(options, tsmail)
        found["growth"] = growth(options, tsmail)
    with open(options.output, "w", encoding="utf-8") as file:
        json.dump(found, file)


if __name__ == "__main__":
    main()
