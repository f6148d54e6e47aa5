#!/usr/bin/env python3
"""day.py - an administrator's daily jobs over many messages and many mailboxes, beside other programs where these
do the same.

usage: day.py TSMAIL OUTPUT [--quick]

Runs inside the sandbox (scripts/bench.sh --day). Writes tables, which say of each figure whether it is within its
limit. Fails if a job fails.
"""
import os
import shutil
import statistics
import subprocess
import sys
import time

OLD = int(time.time() - 40 * 86400)
HOME = "/var/spool/home/site.test/ann~site.test"
TRASH, MBOX, ARRIVED = HOME + "/mail/Trash", "/var/spool/source.mbox", "/var/spool/arrived"
CONF = "/var/spool/dovecot.conf"
# With the flush of each message that the others do.
DOVECOT = f"""mail_location = maildir:{ARRIVED}:INDEX=MEMORY
mail_fsync = always
log_path = /tmp/dovecot.log
stats_writer_socket_path =
base_dir = /tmp/dovecot-run
"""


def run(words, **more):
    done = subprocess.run(words, check=False, capture_output=True, text=True, **more)
    if done.returncode != 0:
        raise SystemExit(f"day.py: {words}: {done.returncode} {done.stderr[-500:]}")


def seconds(words, **more):
    begin = time.monotonic()
    run(words, **more)
    return time.monotonic() - begin


def settle(path):
    subprocess.run(["sync", "-f", path], check=True)


def in_turns(columns, rounds, prepare, check):
    """{column: its seconds in each round}; no column is always the first."""
    times = {name: [] for name in columns}
    for turn in range(rounds):
        names = list(columns)
        for name in names[turn % len(names):] + names[:turn % len(names)]:
            prepare()
            times[name].append(columns[name]())
            check(name)
    return times


def table(head, rows):
    lines = [head, ["---"] * len(head), *rows]
    return "".join("| " + " | ".join(map(str, line)) + " |\n" for line in lines)


def ratios(times, to):
    return {name: statistics.median(a / b for a, b in zip(taken, times[to])) for name, taken in times.items()}


def judge(figure, limit):
    return "yes" if figure <= limit else "no"


class Day:
    def __init__(self, tsmail, quick):
        self.tsmail, self.quick, self.text = tsmail, quick, []


    def clear(self):
        for path in ("/var/spool/home", ARRIVED):
            shutil.rmtree(path, ignore_errors=True)

    # ---- expire

    def fill_trash(self, messages):
        self.clear()
        run([self.tsmail, "-q", "create", "ann@site.test"])
        for n in range(messages):
            sub, flags = (("new", ""), ("cur", ":2,S"))[n % 4 != 0]
            name = f"{TRASH}/{sub}/{OLD}.{n}_{n:06}_{n + 1}.mx1,#F#S#1000#E{flags}"
            with open(name, "wb") as file:
                file.write(b"x" * 1000)
            os.utime(name, (OLD, OLD))
        settle(TRASH)
        time.sleep(2.1)  # until each change time is old enough

    @staticmethod
    def trash_is_empty(name):
        if any(os.listdir(f"{TRASH}/{sub}") for sub in ("new", "cur")):
            raise SystemExit(f"day.py: {name} left messages")

    def expire(self):
        messages, rounds = (500, 1) if self.quick else (100000, 3)
        words = [self.tsmail, "-q", "expire", "ann@site.test", "--folder", "Trash"]
        columns = {
            "`find -type f -mtime +30 -delete`":
                lambda: seconds(["find", TRASH, "-type", "f", "-mtime", "+30", "-delete"]),
            # The change time cannot be set, so the age is small.
            "`expire --older 1s`": lambda: seconds([*words, "--older", "1s"]),
            "`expire --older 30d --by received`":
                lambda: seconds([*words, "--older", "30d", "--by", "received"]),
        }
        times = in_turns(columns, rounds, lambda: self.fill_trash(messages), self.trash_is_empty)
        beside = ratios(times, next(iter(columns)))
        self.text.append(f"## Removing {messages:,} old messages\n\nMedians of {rounds} rounds.\n\n" + table(
            ["command", "µs a message", "beside find", "at most 1.3"],
            [[name, f"{statistics.median(taken) * 1e6 / messages:.1f}", f"{beside[name]:.2f}",
              judge(beside[name], 1.3)] for name, taken in times.items()]))

    # ---- import

    def write_mbox(self, messages):
        with open(MBOX, "w", encoding="ascii") as file:
            for n in range(messages):
                file.write(f"From a@b Sat Nov 15 12:00:00 2025\nSubject: {n}\n\n" + f"{n:064}\n" * 45 + "\n")

    def arrived(self, messages, name):
        # What mdeliver and doveadm deliver, or what tsmail does.
        found = sum(len(os.listdir(f"{top}/{sub}")) for top in (ARRIVED, HOME + "/mail/Inbox")
                    for sub in ("new", "cur") if os.path.isdir(f"{top}/{sub}"))
        if found != messages:
            raise SystemExit(f"day.py: {name} delivered {found} of {messages}")

    def prepare_import(self):
        self.clear()
        run([self.tsmail, "-q", "create", "ann@site.test"])
        for sub in ("cur", "new", "tmp"):
            os.makedirs(f"{ARRIVED}/{sub}")
        settle("/var/spool")

    def mdeliver(self):
        with open(MBOX, "rb") as file:
            return seconds(["mdeliver", "-M", ARRIVED], stdin=file)

    def doveadm(self):
        return seconds(["doveadm", "-c", CONF, "import", f"mbox:/tmp/none:INBOX={MBOX}", "", "all"],
                       env={**os.environ, "HOME": "/var/spool", "USER": "ann", "LOGNAME": "ann"})

    def take_in(self):
        messages, rounds = (200, 1) if self.quick else (10000, 3)
        self.write_mbox(messages)
        with open(CONF, "w", encoding="ascii") as file:
            file.write(DOVECOT)
        columns = {"`tsmail import`": lambda: seconds([self.tsmail, "-q", "import", "ann@site.test", MBOX])}
        for name, program, column in (("`mdeliver -M`", "mdeliver", self.mdeliver),
                                      ("`doveadm import`", "doveadm", self.doveadm)):
            if shutil.which(program):
                columns[name] = column
        times = in_turns(columns, rounds, self.prepare_import, lambda name: self.arrived(messages, name))
        mine = times["`tsmail import`"]
        rows = []
        for name, taken in times.items():
            ratio = statistics.median(a / b for a, b in zip(mine, taken))
            verdict = "" if taken is mine else judge(ratio, 1)
            rows.append([name, f"{statistics.median(taken) * 1e6 / messages:.0f}", f"{ratio:.2f}", verdict])
        self.text.append(f"## Bringing in {messages:,} messages of 3 KB from an mbox file\n\n"
                         f"Each flushes each message. Medians of {rounds} rounds.\n\n" + table(
                             ["command", "µs a message", "`tsmail` takes of its time", "at most 1"], rows))

    # ---- usage and doctor

    def make_mailboxes(self, mailboxes, messages):
        self.clear()
        name = "{}.1000_{:06}_1.mx1,#F#S#0#E:2,S"
        for n in range(mailboxes):
            home = f"/var/spool/home/site{n % 10}.test/user{n}~site{n % 10}.test"
            os.makedirs(home + "/mail", 0o700)
            os.mkdir(home + "/pref", 0o700)
            for sub in ("cur", "new", "tmp") if messages else ():
                os.makedirs(f"{home}/mail/Inbox/{sub}", 0o700)
            for number in range(messages):
                os.close(os.open(f"{home}/mail/Inbox/cur/" + name.format(OLD, number), os.O_CREAT | os.O_WRONLY))
            with open(home + "/mail/.maildirsize", "w", encoding="ascii") as file:
                file.write(f"0 {messages}\n")
        settle("/var/spool")

    def usage(self):
        mailboxes, rounds = (100, 1) if self.quick else (100000, 5)
        self.make_mailboxes(mailboxes, 0)
        times = [seconds([self.tsmail, "usage"]) for _ in range(rounds)]
        each = statistics.median(times) * 1e6 / mailboxes
        self.text.append(f"## `usage` over {mailboxes:,} mailboxes\n\n{each:.1f} µs each (median of {rounds} rounds; "
                         f"at most 25: {judge(each, 25)}).\n")

    def doctor(self):
        mailboxes, rounds = (3, 1) if self.quick else (100, 5)
        self.make_mailboxes(mailboxes, 1000)
        run([self.tsmail, "-q", "recount", "--all"])
        # The domains lack nothing, so a finding would be an error of the command or of this file.
        times = [seconds([self.tsmail, "doctor", "--all", "--jobs", "2"]) for _ in range(rounds)]
        each = statistics.median(times) * 1e3 / mailboxes
        self.text.append(f"## `doctor --all --jobs 2` over {mailboxes:,} mailboxes of 1,000 messages\n\n{each:.2f} ms "
                         f"each (median of {rounds} rounds; at most 1.5: {judge(each, 1.5)}).\n")


def main():
    tsmail, output, quick = os.path.abspath(sys.argv[1]), sys.argv[2], sys.argv[3:] == ["--quick"]
    day = Day(tsmail, quick)
    before = os.getloadavg()[0]
    for job in (day.usage, day.doctor, day.expire, day.take_in):
        job()
    head = ("# An administrator's daily jobs, measured\n\nMade by `scripts/bench.sh --day`: "
            f"load {before:.2f} before, {os.getloadavg()[0]:.2f} after, on {os.cpu_count()} processors.\n\n")
    with open(output, "w", encoding="utf-8") as file:
        file.write(head + "\n".join(day.text))


if __name__ == "__main__":
    main()
