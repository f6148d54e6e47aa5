#!/usr/bin/env bash
# pip_install.sh CMAKE BUILD SOURCE PYTHON - installs the library and its headers into a fresh place and the
# Python package beside it with pip, from a copy of the sources and without anything from elsewhere; then
# works with that package. Runs inside the sandbox.
set -euo pipefail
cmake=$1 build=$2 source=$3 python=$4

"$cmake" --install "$build" --prefix /tmp/installed >/tmp/install.log
rm -r /tmp/installed/lib/python3 # what is tried here is the one of pip
mkdir -p /tmp/checkout/docs
cp -r "$source/python" "$source/base" /tmp/checkout
cp -r "$source/docs/man" /tmp/checkout/docs
PKG_CONFIG_PATH=$(dirname "$(find /tmp/installed -name tsmail.pc)")
export PKG_CONFIG_PATH
LD_LIBRARY_PATH=$(pkg-config --variable=libdir tsmail)
export LD_LIBRARY_PATH

cd /tmp/checkout/python
# What is tried is that it is made, not how fast it is.
CFLAGS='-O0 -g0' "$python" -m pip install --no-index --no-build-isolation --no-deps --root-user-action ignore \
    --target /tmp/site . >/tmp/pip.log 2>&1 || { tail -n 30 /tmp/pip.log >&2; exit 1; }
cd /tmp
[ -e /tmp/site/tsmail/py.typed ] && [ -e /tmp/site/tsmail/_core.pyi ]
"$python" -m pip list --path /tmp/site 2>/dev/null | grep -x "tsmail *$(pkg-config --modversion tsmail)"
PYTHONPATH=/tmp/site "$python" -B - <<'END'
import tsmail
from tsmail.mailbox import Maildir
assert tsmail.__file__.startswith("/tmp/site/"), tsmail.__file__
box = tsmail.Mailbox("ann@site.test")
Maildir(box).add("Subject: x\n\nx\n")
assert [folder.name for folder in box.folders()] == ["Inbox"]
assert box.size() == (14, 1), box.size()
assert "From TSMailUserId::parse:" in tsmail.Mailbox.parsed.__doc__
print("pip: fine")
END
