#!/usr/bin/env bash
# tutorial_installed.sh CMAKE BUILD SOURCE PYTHON - installs the build into a fresh place and goes
# through the tutorial with that copy. Runs inside the sandbox.
set -euo pipefail
"$1" --install "$2" --prefix /tmp/installed >/tmp/install.log
for paper in man/man1/tsmail.1 man/man3/tsl_get_dir_size.3 bash-completion/completions/tsmail; do
    [ -s "/tmp/installed/share/$paper" ] || { echo "$paper is missing" >&2; exit 1; }
done
"$4" -B "$3/tests/docs/tutorial.py" "$3" /tmp/installed
