#!/usr/bin/env bash
# own_support.sh CMAKE SUPPORT KQFQUERY SOURCE CC CXX - builds the library with an appliance's own support
# libraries (here: copies of the bundled ones in another place), as a packager there does, and builds the
# examples with it. Runs inside the sandbox.
set -euo pipefail

cmake=$1 support=$2 kqfquery=$3 source=$4 cc=$5 cxx=$6
mkdir /tmp/appliance
cp -a "${support%/*}"/libtssupport.so* "${kqfquery%/*}"/libkqfquery.so* /tmp/appliance
export LD_LIBRARY_PATH=/tmp/appliance CCACHE_DISABLE=1

"$cmake" -S "$source" -B /tmp/build -G Ninja -DCMAKE_BUILD_TYPE=None -DBUILD_TESTING=OFF \
    -DTSMAIL_BUNDLED_SUPPORT=OFF -DTSMAIL_BUILD_TOOL=OFF -DCMAKE_LIBRARY_PATH=/tmp/appliance \
    -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" >/tmp/configure-own.log
"$cmake" --build /tmp/build >/tmp/build-own.log || { cat /tmp/build-own.log >&2; exit 1; }
[ -z "$(find /tmp/build -name 'libtssupport*' -o -name 'libkqfquery*')" ] ||
    { echo "the bundled libraries were built all the same" >&2; exit 1; }
"${0%/*}/installed_package.sh" "$cmake" /tmp/build "$source" "$cc" "$cxx"
[ -z "$(find /tmp/installed -name 'libtssupport*' -o -name 'libkqfquery*')" ] ||
    { echo "the appliance's libraries were installed" >&2; exit 1; }
