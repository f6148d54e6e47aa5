#!/usr/bin/env bash
# fuzz.sh [--seconds N] [TARGET...] - installs what is missing, builds the fuzz targets and runs each (or
# those that are named) for N seconds (60) in a sandbox of its own. Prints the coverage. Ends at the first
# target that finds something; its input is in build/fuzz/found then. Inputs that reached new code stay in
# build/fuzz/corpus for the next run.
set -euo pipefail
# shellcheck source=lib.sh
. "$(dirname "$0")/lib.sh"

seconds=60 targets=()
while [ $# -gt 0 ]; do
    case $1 in
    --seconds) seconds=$2 && shift ;;
    -*) die "usage: fuzz.sh [--seconds N] [TARGET...]" ;;
    *) targets+=("$1") ;;
    esac
    shift
done
[ ${#targets[@]} -gt 0 ] || mapfile -t targets < <(ls "$top/tests/fuzz/corpus")

ensure_packages build test fuzz
build_preset fuzz "${targets[@]/#/fuzz_}"
cd "$top"

# The last number that follows a word in a log.
last() { grep -oE "$2 *[0-9]+" "$1" | tail -n 1 | grep -oE '[0-9]+$'; }

fuzz() { # fuzz TARGET
    local target=$1 log="build/fuzz/$1.log" own="build/fuzz/corpus/$1"
    mkdir -p "$own" build/fuzz/found
    scripts/sandbox --rw "$top/build/fuzz" -- "build/fuzz/tests/fuzz/fuzz_$target" \
        -max_total_time="$seconds" -max_len=2500 -timeout=10 -print_final_stats=1 \
        -artifact_prefix="$top/build/fuzz/found/$target-" \
        "$own" "tests/fuzz/corpus/$target" >"$log" 2>&1 || {
        tail -n 40 "$log" >&2
        die "$target found something; the log is $log"
    }
    printf '%-14s %10d %8d %6d %6d\n' "$target" "$(last "$log" number_of_executed_units:)" \
        "$(last "$log" average_exec_per_sec:)" "$(last "$log" cov:)" "$(last "$log" ft:)"
}

printf '%-14s %10s %8s %6s %6s\n' target executions exec/s cov ft
for target in "${targets[@]}"; do fuzz "$target"; done
