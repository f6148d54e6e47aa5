# lib.sh - what the scripts share. Sourced by bash scripts; defines functions only.
# shellcheck shell=bash

say() { printf '%s\n' "$*"; }
die() { printf '%s: %s\n' "${0##*/}" "$*" >&2; exit 1; }

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# The build is readable for every user of the sandbox, whatever the caller's umask.
umask 022

# Runs a command as root: directly, or through sudo.
as_root() {
    if [ "$(id -u)" = 0 ]; then
        "$@"
    elif command -v sudo >/dev/null; then
        sudo "$@"
    else
        die "root or sudo is needed for: $*"
    fi
}

# The packages of a section of scripts/packages, one a line.
packages_of() { sed -n "/^\[$1\]/,/^\[/{/^[a-z0-9]/{s/[[:space:]]*#.*//;p}}" "$top/scripts/packages"; }

# The alternatives of an entry, one a line.
alternatives() { tr -d ' ' <<<"$1" | tr '|' '\n'; }

is_installed() {
    local package
    for package in $(alternatives "$1"); do
        dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed && return
    done
    return 1
}

# The first alternative that apt knows; if it knows none, the first, which apt will complain about.
known_package() {
    local package
    for package in $(alternatives "$1"); do
        apt-cache show "$package" >/dev/null 2>&1 && echo "$package" && return
    done
    alternatives "$1" | sed -n 1p
}

# ensure_packages SECTION... - installs the Debian packages of these sections that are missing.
ensure_packages() {
    local section entry entries=() missing=()
    for section; do
        while read -r entry; do
            is_installed "$entry" || entries+=("$entry")
        done < <(packages_of "$section")
    done
    [ ${#entries[@]} -gt 0 ] || return 0
    as_root apt-get update -qq || die "apt-get update failed"
    for entry in "${entries[@]}"; do missing+=("$(known_package "$entry")"); done
    say "Installing what is missing: ${missing[*]}"
    as_root env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null ||
        die "could not install ${missing[*]}"
}

# build_preset PRESET [TARGET...] - configures and builds a preset of CMakePresets.json, all of it unless
# targets are named. Quiet unless it fails.
build_preset() {
    local preset=$1 log="$top/build/$1.log"
    shift
    mkdir -p "$top/build"
    say "Building ($preset); the log is build/$preset.log"
    (cd "$top" && cmake --preset "$preset" &&
        cmake --build --preset "$preset" ${1:+--target "$@"}) >"$log" 2>&1 || {
        tail -n 60 "$log" >&2
        die "the $preset build failed"
    }
    "$top/scripts/sandbox" --prepare --rw "$top/build/$preset"
}
