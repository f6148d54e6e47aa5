#!/usr/bin/env bash
# threads.sh - installs what is missing, builds the tests of threads under ThreadSanitizer and runs
# them.
set -euo pipefail
# shellcheck source=lib.sh
. "$(dirname "$0")/lib.sh"

ensure_packages build test
# The command's tests compare what it prints with its grammar and its schemas.
build_preset tsan concurrency_threads tools_units tsmail_tool tsmail_grammar tsmail_schema
cd "$top"
exec ctest --preset tsan -R '^(concurrency_threads|tools_units\.InOrder|tools_recount\.RecountTest)'
