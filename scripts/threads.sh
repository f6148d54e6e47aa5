#!/usr/bin/env bash
# threads.sh - installs what is missing, builds the tests of the library's threads under
# ThreadSanitizer and runs them. (The command has no threads: it works in processes.)
set -euo pipefail
# shellcheck source=lib.sh
. "$(dirname "$0")/lib.sh"

ensure_packages build test
build_preset tsan concurrency_threads
cd "$top"
exec ctest --preset tsan -R '^concurrency_threads'
