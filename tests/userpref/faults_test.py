"""Failing, short and interrupted system calls under the preference file, injected with strace."""
import os
import pathlib
import re
import signal
import subprocess
import tempfile
import unittest

DRIVER = pathlib.Path(os.environ["TSMAIL_BUILD"], "tests/userpref/userpref_driver")
USER = "ann@site.test"
FILE = pathlib.Path("/var/spool/home/site.test/ann~site.test/pref/ann~site.test.pref")

# Names of one call on different machines.
CALLS = {
    "access": "?access,?faccessat,?faccessat2",
    "mkdir": "?mkdir,?mkdirat",
}


def run(*args, inject=None, path=FILE, killed=False):
    """What the driver prints; inject is (call, fault), for calls on this path only."""
    command = [str(DRIVER), *args]
    with tempfile.NamedTemporaryFile("r") as log:
        if inject:
            call, fault = inject
            names = CALLS.get(call, call)
            command = ["strace", "-qq", "-o", log.name, "-P", str(path),
                       "-e", f"trace={names}", "-e", f"inject={names}:{fault}", *command]
        # The leak checker does not work under strace.
        environment = dict(os.environ, ASAN_OPTIONS="detect_leaks=0")
        done = subprocess.run(command, stdout=subprocess.PIPE, text=True, timeout=20, check=False,
                              env=environment)
        trace = log.read()
    if killed:
        assert done.returncode == -signal.SIGKILL, done.returncode
    else:
        assert done.returncode == 0, done.returncode
        assert not inject or "(INJECTED)" in trace, "the fault was not injected"
    return done.stdout.strip()


def calls(*args, names):
    """The system calls of these names that the driver makes on the file, in order."""
    with tempfile.NamedTemporaryFile("r") as log:
        subprocess.run(["strace", "-qq", "-o", log.name, "-P", str(FILE), "-e", f"trace={names}",
                        str(DRIVER), *args], stdout=subprocess.DEVNULL, timeout=20, check=True,
                       env=dict(os.environ, ASAN_OPTIONS="detect_leaks=0"))
        return re.findall(r"^(\w+)\(", log.read(), re.M)


class ReadFaultsTest(unittest.TestCase):
    WHOLE = "0 3 de"
    REFUSED = "-1 0 en"  # the record as it was

    def setUp(self):
        FILE.parent.mkdir(parents=True, exist_ok=True)
        FILE.write_text("theme=3\ntimezone=7\nlang=de\n")

    def test_an_interrupted_call_is_made_again(self):
        for call in ("access", "openat", "flock", "pread64"):
            with self.subTest(call):
                self.assertEqual(run("read", USER, inject=(call, "error=EINTR:when=1")), self.WHOLE)

    def test_a_file_that_cannot_be_reached_or_locked(self):
        for call, error in (("access", "EACCES"), ("access", "EIO"), ("openat", "EMFILE"),
                            ("openat", "EACCES"), ("openat", "EIO"), ("openat", "ENOMEM"),
                            ("flock", "ENOLCK"), ("flock", "EIO")):
            with self.subTest(call=call, error=error):
                self.assertEqual(run("read", USER, inject=(call, f"error={error}")), self.REFUSED)
                self.assertEqual(run("timezone", USER, inject=(call, f"error={error}")), "12")

    def test_a_read_error_is_not_the_end_of_the_file(self):
        for nth in (1, 2):
            with self.subTest(nth=nth):
                inject = ("pread64", f"error=EIO:when={nth}")
                self.assertEqual(run("read", USER, inject=inject), self.REFUSED)
                self.assertEqual(run("timezone", USER, inject=inject), "12")

    def test_a_read_error_in_a_long_file(self):
        FILE.write_text("theme=3\n" + "#" * 100000 + "\nlang=de\n")
        self.assertEqual(run("read", USER), self.WHOLE)
        reads = calls("read", USER, names="pread64").count("pread64")
        self.assertGreater(reads, 3)
        for nth in range(1, reads + 1):
            with self.subTest(nth=nth):
                self.assertEqual(run("read", USER, inject=("pread64", f"error=EIO:when={nth}")),
                                 self.REFUSED)

    def test_what_was_read_stands_although_the_close_fails(self):
        self.assertEqual(run("read", USER, inject=("close", "error=EIO")), self.WHOLE)


class StoreFaultsTest(unittest.TestCase):
    OLD = "theme=9\n"

    @classmethod
    def setUpClass(cls):
        assert run("store", USER, "3") == "0"
        cls.text = FILE.read_text()
        assert "\ntheme=3\n" in cls.text

    def setUp(self):
        FILE.write_text(self.OLD)

    def test_one_write_is_enough(self):
        self.assertEqual(calls("store", USER, "3", names="write"), ["write"])

    def test_an_interrupted_call_is_made_again(self):
        for call in ("openat", "flock", "ftruncate", "write"):
            with self.subTest(call):
                self.assertEqual(run("store", USER, "3", inject=(call, "error=EINTR:when=1")), "0")
                self.assertEqual(FILE.read_text(), self.text)

    def test_a_short_write_goes_on(self):
        # The injector claims a count and writes nothing. The next write must be the rest.
        self.assertEqual(run("store", USER, "3", inject=("write", "retval=100:when=1")), "0")
        self.assertEqual(FILE.read_text(), self.text[100:])

    def test_before_the_file_is_emptied_it_stays(self):
        for call, error in (("openat", "EMFILE"), ("openat", "ENOSPC"), ("openat", "EROFS"),
                            ("flock", "ENOLCK"), ("ftruncate", "EIO"), ("ftruncate", "ENOSPC")):
            with self.subTest(call=call, error=error):
                self.assertEqual(run("store", USER, "3", inject=(call, f"error={error}")), "-1")
                self.assertEqual(FILE.read_text(), self.OLD)

    def test_a_failed_write_is_reported(self):
        for error in ("ENOSPC", "EIO", "EDQUOT"):
            with self.subTest(error):
                self.assertEqual(run("store", USER, "3", inject=("write", f"error={error}")), "-1")
                self.assertEqual(FILE.read_text(), "")

    def test_a_failed_close_is_not_reported(self):
        for error in ("EIO", "ENOSPC", "EDQUOT"):
            with self.subTest(error):
                self.assertEqual(run("store", USER, "3", inject=("close", f"error={error}")), "0")
                self.assertEqual(FILE.read_text(), self.text)

    def test_a_directory_that_cannot_be_made(self):
        missing = "bob@site.test"
        directory = "/var/spool/home/site.test/bob~site.test/pref"
        for error in ("ENOSPC", "EACCES", "EROFS"):
            with self.subTest(error):
                self.assertEqual(run("store", missing, "3", inject=("mkdir", f"error={error}"),
                                     path=directory), "-1")

    def test_killed_at_every_call(self):
        for call, left in (("openat", self.OLD), ("flock", self.OLD), ("ftruncate", self.OLD),
                           ("write", ""), ("close", self.text)):
            with self.subTest(call):
                FILE.write_text(self.OLD)
                run("store", USER, "3", inject=(call, "error=EIO:signal=KILL"), killed=True)
                self.assertEqual(FILE.read_text(), left)
                self.assertEqual(run("store", USER, "3"), "0", "the lock has gone with its holder")


if __name__ == "__main__":
    unittest.main()
