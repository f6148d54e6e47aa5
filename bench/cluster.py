#!/usr/bin/env python3
"""cluster.py - deliveries and recounts on a distributed file system, from one and from two machines, beside the
local disk. The machines are two clients of three servers, all on this one (scripts/cluster).

usage: cluster.py SOURCE ROOTS DIRECTORY OUTPUT [--quick]
       cluster.py --work WHAT AMOUNT USER      (in the sandbox, see works())

DIRECTORY is an empty one on the local disk. ROOTS: see inside.py. Needs root. Writes tables. Fails if a delivery
or a recount fails.
"""
import fcntl
import json
import os
import re
import subprocess
import sys
import time

SOURCE = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
TSMAIL = SOURCE + "/build/dev/tools/tsmail"
LDA = "/usr/lib/dovecot/dovecot-lda"
MESSAGE = "Subject: x\n\n" + "x" * 988
RECOUNTED = 1000
COUNTED = 20  # deliveries whose operations are counted
DOVECOT = """mail_location = maildir:~/Maildir:INDEX=MEMORY
postmaster_address = ann@site.test
log_path = /tmp/dovecot.log
stats_writer_socket_path =
base_dir = /tmp/dovecot-run
"""


# ---- in the sandbox, on one machine

def run(words, **more):
    subprocess.run(words, check=True, stdout=subprocess.DEVNULL, **more)


def message():
    with open("/tmp/message", "w", encoding="ascii") as file:
        file.write(MESSAGE)
    return "/tmp/message"


def with_tsmail(user):
    if not os.path.isdir(f"/var/spool/home/site.test/{user}~site.test"):
        run([TSMAIL, "create", f"{user}@site.test"])
    path = message()
    return lambda: run([TSMAIL, "deliver", f"{user}@site.test", path])


def with_lda(user):
    with open("/tmp/dovecot.conf", "w", encoding="ascii") as file:
        file.write(DOVECOT)
    home = f"/var/spool/lda/{user}"
    os.makedirs(home, exist_ok=True)
    env = {**os.environ, "HOME": home, "USER": f"{user}@site.test", "LOGNAME": f"{user}@site.test"}
    path = message()

    def deliver():
        with open(path, encoding="ascii") as file:
            run([LDA, "-c", "/tmp/dovecot.conf"], stdin=file, env=env)
    return deliver


def plain(user):
    """The calls that a delivery needs where files have names and locks are on files, without a program's start. The
    paths are as deep as the store's, as each directory on the way is looked up."""
    mailbox = f"/var/spool/plain/site.test/{user}~site.test/mail/"
    top = mailbox + "Inbox/"
    for name in ("new", "tmp"):
        os.makedirs(top + name, exist_ok=True)
    numbers = iter(range(10**9))

    def append(path, text):
        fd = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_APPEND, 0o600)
        fcntl.flock(fd, fcntl.LOCK_EX)
        os.write(fd, text)
        os.close(fd)

    def deliver():
        name = f"{time.time_ns()}.{next(numbers)}"
        lock = os.open(top + "lock", os.O_RDWR | os.O_CREAT, 0o600)
        fcntl.flock(lock, fcntl.LOCK_SH)
        fd = os.open(top + "tmp/" + name, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600)
        os.write(fd, MESSAGE.encode())
        os.fsync(fd)
        os.close(fd)
        os.link(top + "tmp/" + name, top + "new/" + name)
        os.unlink(top + "tmp/" + name)
        directory = os.open(top + "new", os.O_RDONLY | os.O_DIRECTORY)
        os.fsync(directory)
        os.close(directory)
        append(top + "size", b"1000 1\n")
        append(mailbox + "size", b"1000 1\n")
        os.close(lock)
    return deliver


def recounting(user):
    run([TSMAIL, "create", f"{user}@site.test"])
    mail = f"/var/spool/home/site.test/{user}~site.test/mail"
    for number in range(RECOUNTED):
        os.close(os.open(f"{mail}/Inbox/cur/{1763275200 + number}.1_{number}.mx1#Q#,#F#S#1000#E:2,S",
                         os.O_CREAT | os.O_WRONLY, 0o600))

    def recount():
        for name in ("/.maildirsize", "/Inbox/.ts_folder_size"):
            with open(mail + name, "w", encoding="ascii") as file:
                file.write("1 1\n")
        run([TSMAIL, "recount", f"{user}@site.test"])
    return recount


WORKS = {"tsmail deliver": with_tsmail, "dovecot-lda": with_lda, "plain calls": plain, "recount": recounting}


def work(what, amount, user):
    """Works for so many seconds ("10s") or so many times ("20"), and prints how often and how long."""
    act = WORKS[what](user)
    act()
    print("ready", flush=True)
    sys.stdin.readline()
    begin, done = time.monotonic(), 0
    limit, seconds = (float(amount[:-1]), True) if amount.endswith("s") else (int(amount), False)
    while (time.monotonic() - begin if seconds else done) < limit:
        act()
        done += 1
    print(json.dumps([done, time.monotonic() - begin]), flush=True)


# ---- outside

class Store:
    """A directory that stands for the spool, as one or two machines see it."""

    def __init__(self, places, roots):
        self.places, self.roots = places, roots
        for place in places[:1]:
            os.makedirs(place, exist_ok=True)

    def start(self, number, what, amount):
        user = f"{what.replace(' ', '')}{number}{len(self.places)}{amount}"
        shown = [word for root in filter(None, self.roots.split(":")) for word in ("--ro", root)]
        return subprocess.Popen(
            [f"{SOURCE}/scripts/sandbox", *shown, "--spool-dir", self.places[number], "--hostname",
             f"machine-{number}", "--", "python3", "-B", f"{SOURCE}/bench/inside.py", SOURCE, self.roots,
             "python3", "-B", f"{SOURCE}/bench/cluster.py", "--work", what, amount, user],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

    def rate(self, what, amount, begun=lambda: None):
        """How often in a second, of all machines together."""
        workers = [self.start(number, what, amount) for number in range(len(self.places))]
        for worker in workers:
            if worker.stdout.readline() != "ready\n":
                raise SystemExit(f"cluster.py: {what} fails")
        begun()
        for worker in workers:
            worker.stdin.write("\n")
            worker.stdin.flush()
        rates = []
        for worker in workers:
            line = worker.stdout.readline()
            if worker.wait() != 0:
                raise SystemExit(f"cluster.py: {what} fails")
            done, seconds = json.loads(line)
            rates.append(done / seconds)
        return sum(rates)


class Cluster:
    def __init__(self, directory, options):
        self.directory = directory
        self.env = {**os.environ, **({"CLUSTER_OPTIONS": options} if options else {})}

    def do(self, *words):
        return subprocess.run([f"{SOURCE}/scripts/cluster", words[0], self.directory, *words[1:]], check=True,
                              env=self.env, stdout=subprocess.PIPE, text=True).stdout

    def __enter__(self):
        self.do("up")
        return self

    def __exit__(self, *_):
        self.do("down")

    def store(self, machines, roots):
        return Store([f"{self.directory}/{name}/spool" for name in machines], roots)

    def operations(self, store, what):
        """What the servers were asked for, {name: times}, in COUNTED deliveries."""
        self.do("cli", "volume", "profile", "spool", "start")
        store.rate(what, str(COUNTED), lambda: self.do("cli", "volume", "profile", "spool", "info", "clear"))
        text = self.do("cli", "volume", "profile", "spool", "info", "cumulative")
        self.do("cli", "volume", "profile", "spool", "stop")
        counts = {}
        for times, name in re.findall(r"^ +[\d.]+(?: +[\d.]+ [un]s){3} +(\d+) +(\w+)$", text, re.M):
            if name not in ("FORGET", "RELEASE", "RELEASEDIR"):  # within the servers
                counts[name] = counts.get(name, 0) + int(times)
        return counts


def table(head, rows):
    lines = [head, ["---"] * len(head), *rows]
    return "".join("| " + " | ".join(map(str, line)) + " |\n" for line in lines)


def with_ratio(rate, base, unit):
    value = f"{1000 / rate:.0f} ms" if unit == "ms" else f"{rate:.1f}"
    return f"{value} ({rate / base:.2f})" if base else value


def rates(works, stores, amount):
    rows = []
    for what in works:
        unit = "ms" if what == "recount" else ""
        found = [store.rate(what, amount) for store in stores]
        rows.append([what] + [with_ratio(rate, found[0] if n else None, unit) for n, rate in enumerate(found)])
        print(rows[-1], flush=True)
    return rows


def version():
    lines = subprocess.run(["glusterfs", "--version"], check=True, stdout=subprocess.PIPE, text=True).stdout
    return lines.splitlines()[0].strip()


def table_of_operations(counts):
    names = sorted({name for count in counts.values() for name in count})
    rows = [[name] + [f"{count.get(name, 0) / COUNTED:.1f}" for count in counts.values()] for name in names]
    sums = {what: sum(count.values()) for what, count in counts.items()}
    rows.append(["sum"] + [f"{total / COUNTED:.1f} ({total / sums['plain calls']:.2f})" for total in sums.values()])
    return table(["", *counts], rows)


def measure(roots, directory, quick):
    amount = "2s" if quick else "10s"
    works = [what for what in WORKS if what != "dovecot-lda" or roots]
    local = Store([directory + "/local"], roots)
    head = ["", "local disk", "one machine", "two machines"]
    text = f"# On a distributed file system\n\n{version()}. {INTRODUCTION}"
    for options, title in ((None, "Without caches"), ("default", "With the volume's default caches")):
        with Cluster(directory + "/cluster", options) as cluster:
            stores = [local, cluster.store("a", roots), cluster.store("ab", roots)]
            text += f"\n## {title}\n\n" + table(head, rates(works, stores, amount))
            if not options:
                counts = {what: cluster.operations(stores[1], what) for what in works if what != "recount"}
        subprocess.run(["rm", "-rf", directory + "/local"], check=True)
        os.makedirs(directory + "/local")
    text += "\n## Operations on the servers for one delivery\n\nOf all three servers together, without caches. "
    return text + "In brackets: the sum beside that of the plain calls.\n\n" + table_of_operations(counts)


INTRODUCTION = """Three servers with three copies and two clients, which stand for two machines,
all on this one (`scripts/cluster`): the processors are shared, and the network is the loopback. So the columns show
what a call over the network costs beside a call to a disk, not what a cluster of real machines does.

Deliveries of 1,000 bytes in a second, each program started anew; "plain calls" are the calls that a delivery
needs, without a program's start. A recount is one of 1,000 messages. With two machines each works on a mailbox of
its own, and the rate is that of both together. In brackets: the rate beside that of the local disk, measured at the
same time.
"""


def main(words):
    if words[0] == "--work":
        return work(*words[1:])
    _, roots, directory, output = words[:4]
    text = measure(roots, directory, "--quick" in words)
    with open(output, "w", encoding="utf-8") as file:
        file.write(text)


if __name__ == "__main__":
    main(sys.argv[1:])
