#!/usr/bin/env bash
# test.sh [PRESET] - installs what is missing, builds and runs all tests (preset: dev). The last lines are
# CTest's own. If a test failed, one more line says which, why, and what to do.
# test.sh --cluster - the same for the tests on a distributed file system, from two machines. They take some
# minutes, need root's rights and /dev/fuse, and are skipped where these are missing.
set -euo pipefail
. "$(dirname "$0")/lib.sh"

preset=${1:-dev} only=()
if [ "$preset" = --cluster ]; then
    preset=dev only=(-R '^cluster$')
    export TSMAIL_CLUSTER=1
    (ensure_packages cluster) || say "Without these packages the tests are skipped."
fi
ensure_packages build python test package
build_preset "$preset"
cd "$top"
junit=$top/build/$preset/tests.xml
rm -f "$junit"
# Many tests wait most of the time.
code=0
ctest --preset "$preset" --progress -j $((2 * $(nproc))) --output-junit "$junit" "${only[@]}" || code=$?
[ "$code" = 0 ] && exit
[ -e "$junit" ] || die "no test was run; what ctest says about it stands above"
die "$(scripts/failed.py "$junit" "build/$preset/Testing/Temporary/LastTest.log" \
    "ctest --preset $preset --rerun-failed --output-on-failure")"
