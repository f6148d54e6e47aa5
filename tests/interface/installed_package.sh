#!/usr/bin/env bash
# installed_package.sh CMAKE BUILD SOURCE CC CXX - installs the build into a fresh place, builds the
# examples against that copy alone, once through the CMake package and once through pkg-config, and
# runs them. Runs inside the sandbox.
set -euo pipefail

cmake=$1 build=$2 source=$3 cc=$4 cxx=$5
prefix=/tmp/installed
export LD_BIND_NOW=1 # a name that is missing shows at once

"$cmake" --install "$build" --prefix /tmp/first >/tmp/install.log
mv /tmp/first "$prefix" # an installed tree may be moved
cp -r "$source/examples" /tmp/examples

check() { # check HOW PROGRAM... - runs the examples and looks at what they say
    local how=$1 note=$2 where=$3
    "$note" "ann+work@site.test" "Ann's first note" | grep -qx "/var/spool/home/site.test/ann~site.test/mail/work/new/.*" ||
        { echo "$how: the C example did not file its note" >&2; exit 1; }
    "$where" "Ann@Site.Test" | grep -qx "home  */var/spool/home/site.test/ann~site.test" ||
        { echo "$how: the C++ example does not know the home" >&2; exit 1; }
    echo "$how: fine"
}

"$cmake" -S /tmp/examples -B /tmp/examples-build -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" >/tmp/configure.log
"$cmake" --build /tmp/examples-build >/tmp/build.log || { cat /tmp/build.log >&2; exit 1; }
check "CMake package" /tmp/examples-build/file_note /tmp/examples-build/where_is

PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name tsmail.pc)")
export PKG_CONFIG_PATH
read -ra cflags < <(pkg-config --cflags tsmail)
read -ra libs < <(pkg-config --libs tsmail)
rpath=-Wl,-rpath,$(pkg-config --variable=libdir tsmail)
"$cc" -std=c99 -D_POSIX_C_SOURCE=200809L "${cflags[@]}" /tmp/examples/file_note.c -o /tmp/note "${libs[@]}" "$rpath"
"$cxx" -std=c++11 "${cflags[@]}" /tmp/examples/where_is.cpp -o /tmp/where "${libs[@]}" "$rpath"
check "pkg-config" /tmp/note /tmp/where
