"""One process of the command under tests/fault/inject.cpp: its worker, or the command without its workers."""

import errno
import os
import re
import subprocess

from testing.toolkit import BUILD, SANITIZED, Result, environment

INJECT = os.path.join(BUILD, "tests", "fault", "inject")
LOG = "/tmp/calls.log"
# A sanitizer makes each run ten times as long, so tests of long commands try every fifth call only.
STEP = 5 if SANITIZED else 1


def fault(effect, name, first=1, last=None):
    """The words for inject: from the first to the last call of this name."""
    return ["--fault", name, str(first), str(last or first), str(effect)]


def killed(name, n):
    """The process is killed before its n-th call of this name."""
    return fault("kill", name, n)


def all_killed(name, n):
    """The command and all its workers are killed then."""
    return fault("kill-all", name, n)


def failing(error, name, first=1, last=None):
    return fault(getattr(errno, error), name, first, last)


def traced(options, words, stdin):
    # The leak check does not work under a tracer.
    done = subprocess.run([INJECT, "--log", LOG, *options, "--", *words], env=environment(ASAN_OPTIONS="detect_leaks=0"),
                          input=stdin, capture_output=True, timeout=120, check=False)
    if done.returncode == 125:
        raise AssertionError(done.stderr)
    with open(LOG, encoding="utf-8", errors="replace") as file:
        return Result(done), file.read().splitlines()


def traced_worker(faults, words, stdin=b"", number=1):
    """Runs words. Returns the result and the calls of the first worker, or of the one with this number."""
    return traced(["--worker", str(number), *faults], words, stdin)


def traced_parent(faults, words, stdin=b""):
    """The same for the command itself, without its workers."""
    return traced(faults, words, stdin)


def numbered(calls):
    """(name, n, line) of each system call, which is the n-th of its name."""
    counts, result = {}, []
    for line in calls:
        name = re.match(r"(\w+)\(", line)[1]
        counts[name] = counts.get(name, 0) + 1
        result.append((name, counts[name], line))
    return result


def from_the_first_in_the_spool(calls):
    """The same without the calls before the command's first look at the spool."""
    rows = numbered(calls)
    return rows[next(place for place, row in enumerate(rows) if "/var/spool" in row[2]):]
