#!/usr/bin/env bash
# unpacked.sh SOURCE BUILD PYTHON - unpacks the packages of build/debs into an empty root, mounts that over
# the sandbox's root, and runs the packages' own smoke test and the tutorial there: compiler, loader, man and
# shells find everything in Debian's places.
set -euo pipefail
source=$1 build=$2 python=$3
root=$(mktemp -d "$source/build/package/root.XXXXXX")
trap 'rm -rf "$root"' EXIT

count=0
for deb in "$source"/build/debs/*.deb; do
    dpkg -x "$deb" "$root"
    count=$((count + 1))
done
[ "$count" -ge 5 ] || { echo "only $count packages" >&2; exit 1; }
# /lib is a link to /usr/lib where packages are installed.
cp -a "$root/lib/." "$root/usr/lib/" && rm -r "${root:?}/lib"

# The mail user and its directories are made at installation. Timers are enabled only where they were, and
# nothing is started.
for deb in "$source"/build/debs/tsmail_*.deb; do
    dpkg -e "$deb" "$root/DEBIAN"
    grep -q systemd-sysusers "$root/DEBIAN/postinst" && grep -q systemd-tmpfiles "$root/DEBIAN/postinst"
    [ "$(grep -c "deb-systemd-helper enable" "$root/DEBIAN/postinst")" = \
        "$(grep -c "deb-systemd-helper --quiet was-enabled" "$root/DEBIAN/postinst")" ]
    if grep "deb-systemd-invoke.*start" "$root/DEBIAN/postinst"; then exit 1; fi
    rm -r "$root/DEBIAN"
done

# shellcheck disable=SC2016
"$source/scripts/sandbox" --over "$root" --rw "$build" -- bash -euc '
    root=$1 source=$2 python=$3
    [ "$(command -v tsmail)" = /usr/bin/tsmail ]
    ldd /usr/bin/tsmail | grep "libtssupport.so.1 => /lib/"
    # Libraries are found only where the loader looks by itself.
    if readelf -d /usr/bin/tsmail /usr/lib/*/libtsmail.so.1 \
        /usr/lib/python3/dist-packages/tsmail/_core.*.so | grep -E "RPATH|RUNPATH"; then exit 1; fi
    # Hardened: random addresses, read-only tables, checked buffers.
    readelf -h /usr/bin/tsmail | grep -q "DYN (Position-Independent"
    for binary in /usr/bin/tsmail /usr/lib/*/libtsmail.so.1 /usr/lib/*/libtssupport.so.1; do
        readelf -dW "$binary" | grep -q "BIND_NOW"
        readelf -lW "$binary" | grep -q GNU_RELRO
        readelf -sW --dyn-syms "$binary" | grep -q __stack_chk_fail
        readelf -sW --dyn-syms "$binary" | grep -qE "__(read|memcpy|snprintf|open[a-z0-9_]*)_(chk|2)@"
    done
    for name in tsmail.1 libtsmail.3 tsl_get_dir_size.3 tsmail.toml.5; do
        [ -n "$(find /usr/share/man -name "$name.gz")" ] || { echo "no page $name" >&2; exit 1; }
    done
    LC_ALL=C.UTF-8 man tsl_get_dir_size | grep -q tsl_get_dir_size
    [ -e /usr/share/bash-completion/completions/tsmail ]
    [ -e /usr/share/zsh/vendor-completions/_tsmail ]
    [ -e /usr/share/fish/vendor_completions.d/tsmail.fish ]
    TSMAIL_UNPACKED=1 "$source/debian/tests/smoke"
    "$python" -B "$source/tests/docs/tutorial.py" "$source"' bash "$root" "$source" "$python"
