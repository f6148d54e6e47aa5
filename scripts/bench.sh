#!/usr/bin/env bash
# bench.sh [--quick] [--only ITEM] [--most SIZE] [--rounds N] [--peers DIR]
# bench.sh --scale
# bench.sh --python [--quick]
# bench.sh --day [--quick]
# bench.sh --lmtp [--quick] [--rounds N] [--minutes N] [--messages N]
# bench.sh --cluster [--quick]
#
# Measures the library beside the limit of the machine, the plainest way and other programs, in a
# sandbox whose spool is on the disk, and counts system calls and instructions. Writes tables and plots
# into bench/results/, or below build/bench/ if only some items are measured. --only, --most and --rounds
# choose the items by name, the largest size and the number of rounds. Other mail programs are unpacked in DIR
# (default: build/neighbours). --quick is a smoke test (do all columns agree?): small sizes, times are not
# judged, and files are written only below build/bench/. --scale measures how a spool of generated mailboxes
# grows to 100,000 of them. It takes ten minutes, 13 GiB and six million inodes, which are freed at the end.
# --python measures the Python package beside C++ and the standard library. --day measures an administrator's daily
# jobs: removal of old messages beside find, import beside mdeliver and doveadm, usage and doctor over many mailboxes.
# --lmtp measures deliveries through `tsmail lmtp` beside bare writes, flushes and links and beside Dovecot's LMTP service:
# at most so many rounds (default: 5), and no new one after so many minutes (default: 5); then the memory with 100
# connections and its growth over so many messages (default: 20000).
# --cluster measures deliveries and recounts on a distributed file system, from one and from two machines, beside the
# local disk and beside Dovecot's delivery agent, and counts the operations on the servers. It needs root and /dev/fuse.
set -euo pipefail
# shellcheck source=lib.sh
. "$(dirname "$0")/lib.sh"

quick='' scale='' python='' day='' lmtp='' cluster='' only='' words=() deliveries=() choice=() peers=$top/build/neighbours
while [ $# -gt 0 ]; do
    case $1 in
    --quick) quick=1 choice+=(--quick) ;;
    --scale) scale=1 ;;
    --python) python=1 ;;
    --day) day=1 ;;
    --lmtp) lmtp=1 ;;
    --cluster) cluster=1 ;;
    --only) only=$2 choice+=(--only "$2") && shift ;;
    --rounds) words+=(--rounds "$2") && shift ;;
    --minutes | --messages) deliveries+=("$1" "$2") && shift ;;
    --most) choice+=(--most "$2") && shift ;;
    --peers) peers=$(realpath -m "$2") && shift ;;
    *) die "usage: bench.sh [--scale | --python | --day | --lmtp | --cluster] [--quick] [--only ITEM] [--most SIZE] [--rounds N] [--minutes N] [--messages N] [--peers DIR]" ;;
    esac
    shift
done

ensure_packages build python test bench
targets=(tsmail_bench tsmail_bench_calls tsmail_tool tsmail_python) packages=(dovecot-imapd mblaze)
[ -z "$lmtp" ] || { targets=(tsmail_bench_lmtp tsmail_tool) && packages=(dovecot-lmtpd); }
[ -z "$cluster" ] || { ensure_packages cluster && targets=(tsmail_tool) && packages=(dovecot-imapd); }
build_preset dev "${targets[@]}"
cd "$top"
mkdir -p build/bench
spool=$(mktemp -d build/bench/spool.XXXXXX)
trap 'rm -rf "$spool"' EXIT
out=build/bench
[ -n "$quick$only" ] || out=bench/results

# Peers that cannot be downloaded are left out. The table names those that were measured.
roots='' shown=()
for package in "${packages[@]}"; do
    [ "$(id -u)" = 0 ] || continue
    scripts/fetch-neighbour "$package" "$peers" || continue
    roots+=${roots:+:}$peers/$package
    shown+=(--ro "$peers/$package")
done

# inside NAME COMMAND... - runs the command in the sandbox; the log is build/bench/NAME.log.
inside() {
    local log=build/bench/$1.log
    shift
    scripts/sandbox --rw "$top/build/bench" --spool-dir "$top/$spool" "${shown[@]}" -- \
        python3 -B bench/inside.py "$top" "$roots" "$@" >"$log" 2>&1 ||
        { tail -n 20 "$log" >&2; die "failed; the log is $log"; }
}

# A directory that they may write to as another user.
chmod 777 "$spool"
install -d -m 1777 build/bench/new
rm -f build/bench/new/*
if [ -n "$scale" ]; then
    say "Measuring a growing spool; this takes minutes"
    inside scale python3 -B bench/scale.py build/dev/tools/tsmail build/bench/new/scale.md \
        100 1000 10000 100000
    cat build/bench/new/scale.md
    exit
fi
if [ -n "$lmtp" ]; then
    say "Measuring deliveries over LMTP"
    load=$(cut -d ' ' -f 1-3 /proc/loadavg)
    [ -z "$quick" ] || deliveries+=(--share 20 --messages 200 --rounds 1 --mailboxes 1 --mailboxes 3)
    inside lmtp python3 -B bench/lmtp.py build/dev/tools/tsmail build/dev/bench/lmtp \
        build/bench/new/lmtp.json "${words[@]}" "${deliveries[@]}"
    /usr/bin/python3 -B bench/lmtp_report.py build/bench/new/lmtp.json "$out" \
        "load $load before, $(cut -d ' ' -f 1-3 /proc/loadavg) after, on $(nproc) processors"
    cat "$out/lmtp.md"
    exit
fi
if [ -n "$cluster" ]; then
    say "Measuring on a distributed file system; this takes minutes"
    python3 -B bench/cluster.py "$top" "$roots" "$top/$spool" build/bench/new/cluster.md ${quick:+--quick} \
        >build/bench/cluster.log 2>&1 || { tail -n 20 build/bench/cluster.log >&2; die "failed; the log is build/bench/cluster.log"; }
    [ -n "$quick" ] || cp build/bench/new/cluster.md "$out/cluster.md"
    cat build/bench/new/cluster.md
    exit
fi
if [ -n "$python$quick" ] && [ -z "$only" ]; then
    say "Measuring the Python package"
    inside python /usr/bin/python3 -B bench/python.py build/dev/bench/calls build/dev/python \
        build/bench/new/python.md ${quick:+--quick}
    [ -n "$quick" ] || cp build/bench/new/python.md "$out/python.md"
fi
if [ -n "$python" ]; then
    cat build/bench/new/python.md
    exit
fi
if [ -n "$day$quick" ] && [ -z "$only" ]; then
    say "Measuring daily jobs"
    inside day python3 -B bench/day.py build/dev/tools/tsmail build/bench/new/day.md ${quick:+--quick}
fi
if [ -n "$day" ]; then
    [ -n "$quick" ] || cp build/bench/new/day.md "$out/day.md"
    cat build/bench/new/day.md
    exit
fi
load=$(cut -d ' ' -f 1-3 /proc/loadavg)
say "Measuring; the log is build/bench/times.log"
inside times build/dev/bench/bench "${choice[@]}" "${words[@]}" --out build/bench/new/times.json
# Counting takes the most time. The smoke test tries it with one item.
[ -z "$quick" ] || [ -n "$only" ] || choice+=(--only list_find)
say "Counting system calls and instructions; the log is build/bench/counts.log"
inside counts python3 -B bench/counts.py build/dev/bench/bench build/bench/new/counts.json \
    "${choice[@]}"
# The system's Python: the plotting library is a package of the system.
/usr/bin/python3 -B bench/report.py build/bench/new "$out" \
    "load $load before, $(cut -d ' ' -f 1-3 /proc/loadavg) after, on $(nproc) processors"
