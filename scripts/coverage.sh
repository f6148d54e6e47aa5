#!/usr/bin/env bash
# coverage.sh - installs what is missing, builds the preset coverage, runs all tests and prints which
# lines and branches of the library's own sources they reached. Fails if a test fails, and if
# tests/coverage/uncovered.md does not name an unreached line or branch with its reason.
#
# The conditions of the source are counted (clang's source-based coverage), so the paths of exceptions are not
# branches. The counters lie in a mapped file, so the work of a process before it was killed counts, too.
set -euo pipefail
# shellcheck source=lib.sh
. "$(dirname "$0")/lib.sh"

ensure_packages build test coverage
build_preset coverage
cd "$top"
build=build/coverage profile=build/coverage/profile

# The files are made first, writable for all: some tests run as another user.
rm -rf "$profile"
(umask 0 && mkdir "$profile" &&
    LLVM_PROFILE_FILE="$profile/%c%m.profraw" "$build/tools/tsmail" --version >/dev/null)

ctest --preset coverage --progress -j "$(nproc)" >"$build/ctest.log" 2>&1 || {
    tail -n 40 "$build/ctest.log" >&2
    die "tests failed; the log is $build/ctest.log"
}
tail -n 4 "$build/ctest.log"
python3 -B tests/coverage/report.py "$build" "$profile"
