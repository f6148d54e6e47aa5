#!/usr/bin/env bash
# bare.sh [--suite SUITE] [--as root|user] [COMMAND]
#
# Tries COMMAND (default: the demo, then all tests) as a newcomer would: in a bare Debian that debootstrap
# makes, from a fresh clone of what is committed here. It runs first as root in /root, then, in another bare
# Debian, as a user with sudo whose home is closed to others. --as chooses one of them. SUITE is
# bookworm (default), trixie or another that the mirror has from which this machine installs packages.
# Ends at the first failure; logs and downloads stay in build/bare. Needs root or sudo.
set -euo pipefail
# shellcheck source=lib.sh
. "$(dirname "$0")/lib.sh"

usage() { die "usage: bare.sh [--suite SUITE] [--as root|user] [COMMAND]"; }

given=("$@") suite=bookworm as=(root user)
while [ $# -gt 0 ]; do
    case $1 in
    --suite) suite=${2-} && shift ;;
    --as) as=("${2-}") && shift ;;
    -*) usage ;;
    *) break ;;
    esac
    shift || usage
done
command=${*:-scripts/demo.sh && scripts/test.sh}
[ "$(id -u)" = 0 ] || exec sudo "$top/scripts/bare.sh" "${given[@]}"

ensure_packages bare
cd "$top"
work=$top/build/bare
base=$work/$suite.base
mkdir -p "$work/$suite.archives/partial"

# The mirror and the proxy that apt uses on this machine.
mirror=$(apt-get indextargets --format "\$(REPO_URI)" "Created-By: Packages" "Label: Debian" \
    "Component: main" | sed -n 1p)
[ -n "$mirror" ] || die "apt knows no Debian mirror (apt-get update?)"
proxy=''
eval "$(apt-config shell proxy Acquire::http::Proxy)"

make_base() {
    local include=sudo
    [[ $mirror != https:* ]] || include+=,ca-certificates
    say "Making a bare $suite; the log is build/bare/$suite.base.log"
    rm -rf --one-file-system "$base.part"
    env ${proxy:+"http_proxy=$proxy" "https_proxy=$proxy"} debootstrap --variant=minbase \
        "--include=$include" "$suite" "$base.part" "$mirror" >"$base.log" 2>&1 || {
        tail -n 20 "$base.log" >&2
        die "no $suite could be made; the log is $base.log"
    }
    rm -rf "$base.part/var/cache/apt/archives"/*.deb
    # No package starts a service.
    printf '#!/bin/sh\nexit 101\n' >"$base.part/usr/sbin/policy-rc.d"
    chmod 755 "$base.part/usr/sbin/policy-rc.d"
    [ -z "$proxy" ] || printf 'Acquire::http::Proxy "%s";\n' "$proxy" >"$base.part/etc/apt/apt.conf.d/90proxy"
    mv "$base.part" "$base"
}

# make_root ROOT WHO - makes a copy of the base with the user and the clone, and prints the path of the clone in it.
make_root() {
    local root=$1 home=/root
    cp -a "$base" "$root"
    cp /etc/resolv.conf "$root/etc/resolv.conf"
    echo '127.0.0.1 localhost bare' >"$root/etc/hosts"
    if [ "$2" = user ]; then
        home=/home/ann
        chroot "$root" useradd --create-home --shell /bin/bash ann
        echo 'ann ALL=(ALL) NOPASSWD: ALL' >"$root/etc/sudoers.d/ann"
    fi
    chmod 700 "$root$home"
    # The checkout may belong to another user than root.
    printf '[safe]\n\tdirectory = *\n' >"$work/gitconfig"
    GIT_CONFIG_GLOBAL=$work/gitconfig git clone -q "$top" "$root$home/libtsmail"
    [ "$2" = root ] || chroot "$root" chown -R ann: "$home/libtsmail"
    printf '%s\n' "$home/libtsmail"
}

# enter ROOT COMMAND... - runs the command with ROOT as the whole file system, as on a machine of its own:
# user name spaces are refused below a plain chroot.
enter() {
    local root=$1
    shift
    # shellcheck disable=SC2016
    unshare --mount --pid --ipc --uts --fork --kill-child --propagation private bash -euc '
        root=$1 archives=$2
        shift 2
        hostname bare
        mount --bind "$root" "$root"
        mount -t proc proc "$root/proc"
        mount --rbind /sys "$root/sys"
        mount --rbind /dev "$root/dev"
        mount --bind "$archives" "$root/var/cache/apt/archives"
        cd "$root"
        pivot_root . mnt
        umount -l /mnt
        exec "$@"' bash "$root" "$work/$suite.archives" "$@"
}

# try WHO - runs the command as that user, in a root of its own, and removes that at the end.
try() {
    local who=$1 name=root log="$work/$suite.$1.log" root clone code=0
    root=$(mktemp -d "$work/$suite.$who.XXXXXX")/root
    # shellcheck disable=SC2064
    trap "rm -rf --one-file-system '${root%/root}'" EXIT
    clone=$(make_root "$root" "$who")
    [ "$who" = root ] || name=ann
    say "== $suite, as $name in $clone: $command; the log is ${log#"$top/"}"
    enter "$root" /usr/bin/env -i TERM=dumb LANG=C.UTF-8 PATH=/usr/sbin:/usr/bin:/sbin:/bin \
        ${proxy:+"http_proxy=$proxy" "https_proxy=$proxy"} \
        /sbin/runuser --login --whitelist-environment=http_proxy,https_proxy "$name" \
        -c "cd libtsmail && $command" </dev/null 2>&1 | tee "$log" || code=$?
    rm -rf --one-file-system "${root%/root}"
    trap - EXIT
    [ "$code" = 0 ] || die "failed in a bare $suite as $who; the log is $log"
}

[ -d "$base" ] || make_base
for who in "${as[@]}"; do
    case $who in root | user) try "$who" ;; *) usage ;; esac
done
say "Done in a bare $suite as ${as[*]}"
