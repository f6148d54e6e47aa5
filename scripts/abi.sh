#!/usr/bin/env bash
# abi.sh [--update] BUILD - compares the interface of the libraries in the build folder BUILD with the dumps
# in abi/: names, arguments, layouts, enumerators. Any difference is a failure, also an addition, except
# those of compilers and C libraries that abi/environment.ini names. --update makes the dumps anew, for an
# intended change.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
update=false
[ "${1-}" != --update ] || { update=true; shift; }
if [ $# != 1 ] || [ ! -d "$1" ]; then
    echo "usage: abi.sh [--update] BUILD" >&2
    exit 64
fi
for program in abidw abidiff; do
    command -v "$program" >/dev/null || {
        echo "abi.sh: $program is missing: apt-get install abigail-tools" >&2
        exit 69
    }
done

# Types of other libraries (the C++ runtime's strings, the C library's records) are left out.
dump() { # dump LIBRARY FILE
    abidw --headers-dir "$top/include/tessaly" --exported-interfaces-only --drop-private-types \
        --drop-undefined-syms --no-corpus-path --no-comp-dir-path --no-show-locs --no-elf-needed \
        --out-file "$2" "$1"
}

now=$(mktemp -d)
trap 'rm -rf "$now"' EXIT
changed=0
for library in libtsmail.so.1 support/libtssupport.so.1 support/libkqfquery.so.1 \
    tests/interface/libinterface_constants.so; do
    kept=$top/abi/${library##*/}.abi
    if $update; then
        dump "$1/$library" "$kept"
        continue
    fi
    dump "$1/$library" "$now/now.abi"
    # An empty dump would agree with anything.
    grep -q "<elf-symbol " "$now/now.abi" || { echo "${library##*/}: no symbols" >&2; exit 1; }
    if abidiff --no-default-suppression --suppressions "$top/abi/environment.ini" "$kept" "$now/now.abi"; then
        echo "${library##*/}: as kept"
    else
        echo "${library##*/}: the interface is not the one in ${kept#"$top/"}" >&2
        changed=1
    fi
done
[ $changed = 0 ] || echo "If the change is meant: scripts/abi.sh --update BUILD, and say so in CHANGELOG.md" >&2
exit $changed
