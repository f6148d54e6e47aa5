#!/usr/bin/env python3
"""named_tests.py SOURCE DOCUMENT [--files] - every row of the document's tables names tests in its last
column, and all of these tests exist. A test is named `Suite.Test` or, with its file below tests/,
`folder/file:Suite.Test`; --files: each has its file."""
import pathlib
import re
import sys

source, document = pathlib.Path(sys.argv[1]), sys.argv[2]
with_files = "--files" in sys.argv[3:]


def tests_in(path):
    text = path.read_text(encoding="utf-8")
    if path.suffix == ".cpp":
        return re.findall(r"^(?:TYPED_)?TEST(?:_[FP])?\(\s*(\w+),\s*(\w+)", text, re.M)
    found = []
    for body in re.split(r"^class ", text, flags=re.M):
        name = re.match(r"\w+", body)
        found += [(name[0], test) for test in re.findall(r"^    def (test\w+)", body, re.M) if name]
    return found


tests = set()
for file in (source / "tests").rglob("*"):
    if file.suffix in (".cpp", ".py"):
        place = file.relative_to(source / "tests")
        for suite, test in tests_in(file):
            tests |= {f"{suite}.{test}", f"{place}:{suite}.{test}"}

rows = [line for line in (source / document).read_text(encoding="utf-8").splitlines()
        if re.match(r"\|(?!---)", line)]
rows = [line for line in rows if not re.search(r"\| (pinned|shown) by \|$", line)]  # the tables' heads
bad = 0
for row in rows:
    named = re.findall(r"`((?:[\w./-]+:)?\w+\.\w+)`", row.rsplit("|", 2)[1])
    missing = [name for name in named if name not in tests or (with_files and ":" not in name)]
    if not named or missing:
        bad += 1
        print(f"no such test {missing}: {row}")
print(f"{document}: {len(rows)} rows, {bad} without a test")
sys.exit(1 if bad or not rows else 0)
