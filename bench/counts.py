#!/usr/bin/env python3
"""counts.py - counts the system calls and the user-space instructions of one operation in each column.

usage: counts.py BENCH OUTPUT [the program's options: --quick, --only TEXT]

Runs inside the sandbox. strace counts calls, callgrind instructions; the start of a program, which a run on
an empty input shows, is subtracted. Writes a list of
{item, size, column, calls, instructions, by_name} to OUTPUT.
"""
import collections
import glob
import json
import os
import re
import subprocess
import sys

CALL = re.compile(r"^\d+ +(?:\d+\.\d+ )?([a-z_0-9]+)\(")
SUMMARY = re.compile(r"^(?:summary|totals): (\d+)", re.M)
LOG = "/tmp/counts"


def run(words, **options):
    done = subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False, **options)
    return done.stdout.decode(), done.stderr.decode(), done.returncode


def calls_in(log, is_marked):
    """{name: how often}, between the two marks if there are any."""
    counts = collections.Counter()
    counting = not is_marked
    with open(log, encoding="utf-8", errors="replace") as lines:
        for line in lines:
            if is_marked and '"/bench/begin"' in line:
                counting = True
            elif is_marked and '"/bench/end"' in line:
                counting = False
            elif counting and (found := CALL.match(line)):
                counts[found.group(1)] += 1
    return counts


def trace(words, is_marked=False, **options):
    _, error, code = run(["strace", "-f", "-qq", "-o", LOG, *words], **options)
    if code != 0 and is_marked:
        raise SystemExit(f"counts.py: {words}: {error}")
    return calls_in(LOG, is_marked)


def instructions(words, function=None, **options):
    for old in glob.glob("/tmp/callgrind.*"):
        os.remove(old)
    switches = [f"--toggle-collect={function}"] if function else []
    _, error, code = run(["valgrind", "--tool=callgrind", "--trace-children=yes",
                          "--callgrind-out-file=/tmp/callgrind.%p", *switches, *words], **options)
    total = 0
    files = glob.glob("/tmp/callgrind.*")
    for file in files:
        with open(file, encoding="utf-8", errors="replace") as profile:
            total += sum(int(n) for n in SUMMARY.findall(profile.read())[-1:])
    if not files or (code != 0 and function):
        raise SystemExit(f"counts.py: {words}: {error}")
    return total


def of_call(bench, item, size, column):
    words = [bench, "--count", item, str(size), column]
    return trace(words, is_marked=True), instructions(words, "bench_counted_call")


def of_program(bench, item, size, column):
    shown = [bench, "--show", item, str(size), column]

    def prepared():
        out, error, code = run(shown)
        if code != 0:
            raise SystemExit(f"counts.py: {shown}: {error}")
        return json.loads(out)

    def with_input(function, program, words):
        environment = {**os.environ, **dict(word.split("=", 1) for word in program["environment"])}
        with open(program["input"], "rb") as source:
            return function(words, stdin=source, env=environment)

    results = []
    for function in (trace, instructions):
        program = prepared()
        result = with_input(function, program, program["command"])
        if program["empty"]:
            result = result - with_input(function, program, program["empty"])
        results.append(result)
    return results


def main(bench, output, *options):
    listed, error, code = run([bench, "--list", *options])
    if code != 0:
        raise SystemExit(f"counts.py: {error}")
    rows = []
    for row in json.loads(listed):
        place = row["item"], row["size"], row["column"]
        print("counting", *place, file=sys.stderr, flush=True)
        calls, total = (of_program if row["program"] else of_call)(bench, *place)
        each = row["operations"]
        rows.append({"item": place[0], "size": place[1], "column": place[2],
                     "calls": sum(calls.values()) / each, "instructions": total / each,
                     "by_name": {name: n / each for name, n in calls.most_common()}})
    with open(output, "w", encoding="utf-8") as file:
        json.dump(rows, file, indent=1)


if __name__ == "__main__":
    main(*sys.argv[1:])
