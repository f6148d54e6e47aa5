#!/usr/bin/env bash
# test.sh [PRESET] - installs what is missing, builds and runs all tests (preset: dev). The last lines are
# CTest's own. If a test failed, one more line says which, why, and what to do.
set -euo pipefail
. "$(dirname "$0")/lib.sh"

preset=${1:-dev}
ensure_packages build python test package
build_preset "$preset"
cd "$top"
junit=$top/build/$preset/tests.xml
rm -f "$junit"
# Many tests wait most of the time.
code=0
ctest --preset "$preset" --progress -j $((2 * $(nproc))) --output-junit "$junit" || code=$?
[ "$code" = 0 ] && exit
[ -e "$junit" ] || die "no test was run; what ctest says about it stands above"
die "$(scripts/failed.py "$junit" "build/$preset/Testing/Temporary/LastTest.log" \
    "ctest --preset $preset --rerun-failed --output-on-failure")"
