#!/usr/bin/env python3
"""named_tests.py SOURCE DOCUMENT - every row of the document's tables names tests in its last column,
and all of these tests exist."""
import pathlib
import re
import sys

source, document = pathlib.Path(sys.argv[1]), sys.argv[2]


def texts(pattern):
    return "".join(path.read_text(encoding="utf-8") for path in (source / "tests").rglob(pattern))


def existing_tests():
    found = re.findall(r"^TEST(?:_[FP])?\(\s*(\w+),\s*(\w+)", texts("*.cpp"), re.M)
    for body in re.split(r"^class ", texts("*.py"), flags=re.M):
        name = re.match(r"\w+", body)
        found += [(name[0], test) for test in re.findall(r"^    def (test\w+)", body, re.M) if name]
    return {f"{suite}.{name}" for suite, name in found}


tests = existing_tests()
rows = [line for line in (source / document).read_text(encoding="utf-8").splitlines()
        if re.match(r"\|(?!---)", line)]
rows = [line for line in rows if not re.search(r"\| (pinned|shown) by \|$", line)]  # the tables' heads
bad = 0
for row in rows:
    named = re.findall(r"`(\w+\.\w+)`", row.rsplit("|", 2)[1])
    missing = [name for name in named if name not in tests]
    if not named or missing:
        bad += 1
        print(f"no such test {missing}: {row}")
print(f"{document}: {len(rows)} rows, {bad} without a test")
sys.exit(1 if bad or not rows else 0)
