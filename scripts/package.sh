#!/usr/bin/env bash
# package.sh - installs what is missing, builds the Debian packages and their source from a copy of the
# present tree (committed or not) and runs lintian on them: a tag of any level is a failure. The
# packages are left in build/debs, the log in build/package.log.
set -euo pipefail
. "$(dirname "$0")/lib.sh"

ensure_packages build python package
cd "$top"
work=$top/build/package
log=$top/build/package.log
rm -rf "$work" "$top/build/debs"
mkdir -p "$work/tree" "$top/build/debs"

# The files under version control, and new ones that are not ignored.
git ls-files -z --cached --others --exclude-standard |
    while IFS= read -r -d '' file; do [ ! -e "$file" ] || printf '%s\0' "$file"; done |
    tar -cf - --null -T - | tar -xf - -C "$work/tree"

say "Building the packages; the log is build/package.log"
# A package build has its own home, so the path of the compiler cache is set.
export CCACHE_DIR=${CCACHE_DIR:-${HOME:-$work}/.cache/ccache}
export DEB_BUILD_OPTIONS=${DEB_BUILD_OPTIONS:-parallel=$(nproc)}
(cd "$work/tree" && dpkg-buildpackage -us -uc) >"$log" 2>&1 || {
    tail -n 60 "$log" >&2
    die "the packages could not be built"
}
mv "$work"/*.deb "$work"/*.dsc "$work"/*.tar.* "$work"/*.changes "$work"/*.buildinfo "$top/build/debs/"

say "lintian"
# It does not find files below a path with letters beyond ASCII.
plain=$(mktemp -d)
trap 'rm -rf "$plain"' EXIT
cp "$top"/build/debs/* "$plain/"
# The packages are made for Debian 12, too: they follow the policy that was the newest there, and their overrides
# name tags that a newer lintian no longer knows.
lintian --no-cfg --pedantic --display-info --fail-on error,warning,info,pedantic --tag-display-limit 0 \
    --suppress-tags alien-tag,out-of-date-standards-version \
    "$plain"/*.changes ||
    die "lintian found something"
say "In build/debs: $(cd "$top/build/debs" && echo *.deb)"
