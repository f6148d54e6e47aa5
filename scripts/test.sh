#!/usr/bin/env bash
# test.sh [PRESET] - installs what is missing, builds and runs all tests (preset: release). The last
# lines are CTest's own.
set -euo pipefail
. "$(dirname "$0")/lib.sh"

preset=${1:-release}
ensure_packages build test package
build_preset "$preset"
cd "$top"
# Many tests wait more than they work.
exec ctest --preset "$preset" --progress -j $((2 * $(nproc)))
