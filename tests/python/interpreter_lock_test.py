"""No call that touches a file holds the interpreter's lock: the other cases are run, and each system call
that the mail libraries make meanwhile is looked at (held_lock.c)."""

import os
import subprocess
import sys
import unittest

from package import BUILD

CASES = ("identity", "folders", "messages", "preferences", "quota", "addresses", "maildir")
LOG = "/tmp/held"


def watched(*words):
    """Runs Python under the watch: its exit code, the calls that held the lock, how many were seen."""
    if os.path.exists(LOG):
        os.unlink(LOG)
    env = {**os.environ, "LD_PRELOAD": "libheld_lock.so", "LD_LIBRARY_PATH": f"{BUILD}/tests/python",
           "HELD_LOCK_LOG": LOG}
    code = subprocess.run([sys.executable, "-B", *words], env=env, check=False, stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL).returncode
    with open(LOG, encoding="utf-8") as file:
        rows = [line.split() for line in file]
    return (code, {name for kind, name in rows if kind == "held"},
            sum(int(count) for kind, count in rows if kind == "seen"))


class InterpreterLockTest(unittest.TestCase):
    def test_it_is_released(self):
        for case in CASES:
            with self.subTest(case):
                file = os.path.join(os.path.dirname(os.path.abspath(__file__)), f"{case}_test.py")
                code, held, seen = watched(file)
                self.assertEqual((code, held), (0, set()))
                if case not in ("messages",):
                    self.assertGreater(seen, 10)

    def test_the_watch_sees_a_call_that_holds_it(self):
        """ctypes.PyDLL keeps the lock, ctypes.CDLL does not."""
        for kind, expected in (("PyDLL", {"access", "stat64", "faccessat", "fstatat64"}), ("CDLL", set())):
            code, held, seen = watched("-c", "import ctypes; assert ctypes." + kind + "(\"/tmp/installed/lib/"
                                       "libtsmail.so.1\").tsl_is_mail_folder(b\"/etc\", None) == 0")
            self.assertEqual(code, 0)
            self.assertGreater(seen, 0)
            self.assertEqual(held & expected != set(), kind == "PyDLL", held)


if __name__ == "__main__":
    unittest.main()
