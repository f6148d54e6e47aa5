#!/usr/bin/env python3
"""failed.py JUNIT LOG AGAIN - prints one line with the failed tests of a CTest run, the reason that most of
them share, and what to do: look into LOG, run them AGAIN. For scripts/test.sh.
"""
import collections
import re
import sys
import xml.etree.ElementTree

NAMES = 12  # as many as a person would read
# What a failing test prints, the most helpful first.
REASONS = [
    r"^(?:\w+\.)*\w*(?:Error|Exception)\b: *.+",  # Python
    r"^(?:bwrap|sandbox|fetch-neighbour|skipped): .+",
    r"^.*(?:[Pp]ermission denied|No such file or directory|[Nn]ot found).*",
    r"^.*==ERROR: .+|^.*runtime error: .+",  # sanitizers
    r"^.*: Failure\n.+",  # GoogleTest: the line, and what it expected
    r"^.*\b[Ee]rror: .+",
]


def reason(output):
    for pattern in REASONS:
        found = re.findall(pattern, output, re.M)
        if found:
            return " ".join(found[-1].split())
    lines = output.split("\n")
    return next((line.strip() for line in reversed(lines) if line.strip()), "")


def likeness(text):
    """A reason without the parts that differ from test to test."""
    return re.sub(r"\d+|/tmp/\S+", "#", text)


def failed_tests(junit):
    """All tests and the failed ones, as (name, reason). One that could not be started failed, too."""
    cases = list(xml.etree.ElementTree.parse(junit).getroot().iter("testcase"))
    failed = []
    for case in cases:
        left_out = case.find("skipped")
        if case.find("failure") is not None:
            said = reason(case.findtext("system-out") or "")
            failed.append((case.get("name"), said or f"nothing, for {float(case.get('time')):.0f} seconds"))
        elif left_out is not None and not re.match("SKIP_|Disabled", left_out.get("message")):
            failed.append((case.get("name"), left_out.get("message")))
    return cases, sorted(failed)


def main(junit, log, again):
    cases, failed = failed_tests(junit)
    names = [name for name, _ in failed]
    more = f" and {len(names) - NAMES} more" if len(names) > NAMES else ""
    groups = collections.defaultdict(list)
    for _, text in failed:
        groups[likeness(text)].append(text)
    shared = max(groups.values(), key=len, default=["none failed"])
    print(f"{len(failed)} of {len(cases)} tests failed: {', '.join(names[:NAMES])}{more}. "
          f"{'All' if len(shared) == len(failed) else len(shared)} say: {shared[0][:200]}. "
          f"The log is {log}; to run them again: {again}")


if __name__ == "__main__":
    main(*sys.argv[1:])
