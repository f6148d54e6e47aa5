#!/usr/bin/env bash
# types.sh CMAKE BUILD SOURCE PYTHON - the types of the installed package: mypy finds nothing in strict mode
# in it and in the examples, which it knows from py.typed; what is wrong is found; the extension module is
# what _core.pyi says. Runs inside the sandbox.
set -euo pipefail
cmake=$1 build=$2 source=$3 python=$4
for component in runtime python; do
    "$cmake" --install "$build" --prefix /tmp/installed --component "$component" >/tmp/install.log
done
site=/tmp/installed/lib/python3/dist-packages
export MYPYPATH=$site PYTHONPATH=$site MYPY_CACHE_DIR=/tmp/mypy
mypy() { command mypy --strict --python-executable "$python" "$@"; }

cd /tmp
mypy "$site/tsmail"
for example in "$source"/examples/python/*.py; do mypy "$example"; done
cat >wrong.py <<'END'
import tsmail
tsmail.Mailbox(5)
tsmail.Preferences()["npage"] = [1]
tsmail.MessageName.parse("x").size + 1
for folder in tsmail.walk("/"): folder.nothing
END
if mypy wrong.py >wrong.log; then echo "mypy finds nothing wrong" >&2; exit 1; fi
for line in 2 3 4 5; do
    grep -q "^wrong.py:$line: error" wrong.log || { echo "line $line of:" >&2; cat wrong.log >&2; exit 1; }
done

# The metaclass is the binding library's, and so is the constructor of a class that has none.
printf '%s\n' tsmail._core.Identity tsmail._core.List tsmail._core.PreferenceRecord \
    tsmail._core.PreferenceRecord.__init__ >allowed
stubtest tsmail._core --concise --allowlist allowed
