#!/usr/bin/env bash
# lint.sh [--deep] - format and static checks: clang-format, shellcheck, clang-tidy. Changes nothing.
#   --deep  let clang-tidy also follow the paths through each function, which doubles its time
set -euo pipefail
. "$(dirname "$0")/lib.sh"

checks='-clang-analyzer-*'
case ${1-} in
'') ;;
--deep) checks='' ;;
*) die "usage: lint.sh [--deep]" ;;
esac

ensure_packages build python test lint
cd "$top"

say "clang-format"
git ls-files '*.cpp' '*.h' '*.c' | xargs clang-format --dry-run -Werror

say "shellcheck"
git ls-files | while read -r file; do
    if head -n 1 "$file" | grep -qE '^#!.*\b(ba)?sh\b'; then printf '%s\n' "$file"; fi
done | xargs shellcheck -x -P scripts

# clang-tidy needs the commands by which files are compiled and the headers that are made, not the compiled files,
# and cannot read another compiler's precompiled headers.
say "clang-tidy"
mkdir -p build
{ cmake --preset dev -B build/lint -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON &&
    cmake --build build/lint --target tsmail_python_comments; } >build/lint.log ||
    { cat build/lint.log >&2; die "cmake failed"; }
git ls-files '*.cpp' | grep -vE '^(tests|bench|examples)/' |
    xargs -P "$(nproc)" -n 4 clang-tidy -p build/lint --quiet --checks="$checks" --extra-arg=-Wno-unknown-warning-option 2>&1 |
    grep -vE '^[0-9]+ warnings? (generated|treated)' || [ "${PIPESTATUS[2]}" = 0 ] || die "clang-tidy found something"
