#!/usr/bin/env python3
"""python.py CALLS PACKAGE OUT [--quick] - what the Python package costs over C++, and how fast it lists a
folder beside the standard library. CALLS is the program of bench/calls.cpp, PACKAGE the folder that
holds the package, OUT the table that is written. Exit code 1 if a limit is not kept; --quick looks
whether everything runs and judges no time.

Works below /var/spool, which the caller makes a place of its own (scripts/bench.sh does).
"""

import mailbox
import os
import statistics
import subprocess
import sys
import time

LIMIT_OVER_C = 1000  # nanoseconds
LEAST_FACTOR = 5
CALLS = 500
USER = "ann@site.test"
TOTALS = "/var/spool/home/site.test/ann~site.test/mail/.maildirsize"
NAME = "1763275200.4242_123456_98765.mx1#Q#6B9Ha0q3004242,#F#S#2048#E"


def rows(tsmail):
    """{row: the call}, named as in calls.cpp."""
    box = tsmail.Mailbox(USER)
    inbox, quota, people = box.folder(), box.quota, box.list("whitelist")
    core = tsmail.folders._core
    return {
        "system_folder_number": lambda: tsmail.folders.system_folder_number("Work"),
        "name_verdict": lambda: core.name_verdict("Work/2024", 1),
        "size_in_name": lambda: core.size_in_name(NAME),
        "received_time": lambda: core.received_time(NAME),
        "unique_name": lambda: core.unique_name(2048, "6B9Ha0q3004242"),
        "user_file": lambda: tsmail.identity.user_file(15, USER),
        "Mailbox()": lambda: tsmail.Mailbox(USER),
        "Mailbox.tag": lambda: box.tag,
        "Mailbox.address": lambda: box.address,
        "Mailbox.mail": lambda: box.mail,
        "Mailbox.folder_path": lambda: box.folder_path("Inbox"),
        "Mailbox == Mailbox": lambda: box == box,  # pylint: disable=comparison-with-itself
        "Mailbox.append_size": lambda: box.append_size(0, 0),
        "Mailbox.size": box.size,
        "Folder.exists": inbox.exists,
        "Folder.size": inbox.size,
        "QuotaFlags.exceeded": lambda: quota.exceeded,
        "address in AddressList": lambda: "x@site.test" in people,
        "user_timezone": lambda: tsmail.preferences.user_timezone(USER),
    }


def prepare(tsmail):
    box = tsmail.Mailbox(USER)
    box.make_pref_directory()
    box.folder().make()
    box.folder().write_size(2048, 1)
    box.quota.exceeded = 1
    box.list("whitelist").add("bob@site.test")
    tsmail.Preferences().store(USER)


def nanoseconds(call):
    if os.path.exists(TOTALS):  # grows with each append, and is compacted
        os.truncate(TOTALS, 0)
    begin = time.perf_counter_ns()
    for _ in range(CALLS):
        call()
    return (time.perf_counter_ns() - begin) / CALLS


def empty():
    """What the loop and an empty call cost."""


def in_cpp(program, name):
    """What a row costs in C++, in the program that runs beside."""
    if os.path.exists(TOTALS):
        os.truncate(TOTALS, 0)
    program.stdin.write(name + "\n")
    return float(program.stdout.readline())


def measure_calls(tsmail, program, rounds):
    """(row, C++, Python, over) in nanoseconds: medians of the rounds, in which the two take turns. The
    difference is that of a round: what the machine does meanwhile is then in both."""
    prepare(tsmail)
    # One processor for both, as one may be slower than the other at the moment.
    os.sched_setaffinity(0, {max(os.sched_getaffinity(0))})
    found = []
    with subprocess.Popen([program], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                          bufsize=1) as beside:
        for name, call in rows(tsmail).items():
            times = []
            for number in range(rounds):
                cpp = in_cpp(beside, name) if number % 2 else None
                python = nanoseconds(call) - nanoseconds(empty)
                cpp = cpp or in_cpp(beside, name)
                times.append((cpp, python, python - cpp))
            found.append((name, *(statistics.median(column) for column in zip(*times))))
        beside.stdin.close()
    return found


# ---- Listing ---------------------------------------------------------------------------------------

def make_messages(folder, count):
    for number in range(count):
        sub = "new" if number % 4 == 0 else "cur"
        name = f"17632752{number % 100:02}.{1000 + number % 7000}_{number:06}_1.mx1#Q#6B9Ha0q3{number:06},#F#S#2048#E"
        os.close(os.open(f"{folder}/{sub}/{name}{':2,S' if sub == 'cur' else ''}",
                         os.O_CREAT | os.O_WRONLY))


def seconds_of(call):
    begin = time.perf_counter()
    value = call()
    return time.perf_counter() - begin, value


def measure_listing(tsmail, count, rounds):
    """(what, standard library, package, factor): median seconds of rounds that take turns, and the
    median of the rounds' factors."""
    box = tsmail.Mailbox("many@site.test")
    box.folder().make()
    make_messages(box.folder().path, count)
    from tsmail.mailbox import Maildir
    found = []
    for what, use in (("keys()", lambda each: len(each.keys())),
                      ("len()", len)):
        times = []
        for _ in range(rounds):
            theirs, a = seconds_of(lambda: use(mailbox.Maildir(box.folder().path)))
            ours, b = seconds_of(lambda: use(Maildir(box)))
            if not a == b == count:
                sys.exit(f"{what}: {a} and {b} messages of {count}")
            times.append((theirs, ours, theirs / ours))
        found.append((what, *(statistics.median(column) for column in zip(*times))))
    return found


# ---- What is said ----------------------------------------------------------------------------------

def yes(good):
    return "yes" if good else "NO"


def report(calls, listing, rounds, count, loads):
    out = ["# The Python package, measured", "",
           f"Made by `scripts/bench.sh --python`: load {loads[0]:.2f} before, {loads[1]:.2f} after, on "
           f"{os.cpu_count()} processors.", "",
           "## Calls", "",
           f"Nanoseconds a call: medians of {rounds} rounds of {CALLS} calls, in which the program in C++ and "
           "Python take turns; the difference is the median of the rounds' differences. A call in Python may "
           f"cost {LIMIT_OVER_C} more than in C++.", "",
           "| call | C++ | Python | over C++ | kept |", "|---|---:|---:|---:|---|"]
    out += [f"| `{name}` | {c:,.0f} | {python:,.0f} | {over:,.0f} | {yes(over <= LIMIT_OVER_C)} |"
            for name, c, python, over in calls]
    out += ["", "## Listing a folder", "",
            f"A folder of {count:,} messages in a new `Maildir`: median milliseconds, and the median of how "
            f"many times faster than `mailbox.Maildir` of Python {sys.version.split()[0]} it is; `keys()` at "
            f"least {LEAST_FACTOR} times.", "",
            "| what | standard library | package | factor | kept |", "|---|---:|---:|---:|---|"]
    out += [f"| `{what}` | {1e3 * theirs:,.0f} | {1e3 * ours:,.0f} | {factor:.1f} | {yes(factor >= LEAST_FACTOR) if what == 'keys()' else ''} |"
            for what, theirs, ours, factor in listing]
    return "\n".join(out) + "\n"


def main(program, package, out, quick):
    sys.path.insert(0, package)
    import tsmail
    import tsmail.folders
    import tsmail.identity
    import tsmail.preferences
    count = 1000 if quick else 100_000
    rounds = 2 if quick else 101
    before = os.getloadavg()[0]
    calls = measure_calls(tsmail, program, rounds)
    listing = measure_listing(tsmail, count, 2 if quick else 9)
    text = report(calls, listing, rounds, count, (before, os.getloadavg()[0]))
    with open(out, "w", encoding="utf-8") as file:
        file.write(text)
    print(text, end="")
    kept = all(row[3] <= LIMIT_OVER_C for row in calls) and listing[0][3] >= LEAST_FACTOR
    return 0 if quick or kept else 1


if __name__ == "__main__":
    words = [word for word in sys.argv[1:] if word != "--quick"]
    if len(words) != 3:
        sys.exit(__doc__)
    sys.exit(main(*words, "--quick" in sys.argv))
