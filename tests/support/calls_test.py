"""The support library under strace: failing system calls, and the order of the calls that matter. Every
case runs the program support_call, whose answer is "ok" or the name of an error."""
import os
import re
import shutil
import subprocess
import tempfile
import time
import unittest

from testing.system_calls import FSTAT

PROGRAM = os.path.join(os.environ["TSMAIL_BUILD"], "tests/support/support_call")
# Leaks cannot be looked for by a process that is traced.
ENVIRONMENT = dict(os.environ, ASAN_OPTIONS="detect_leaks=0")


class Traced(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp()

    def tearDown(self):
        shutil.rmtree(self.dir, ignore_errors=True)

    def path(self, name, content=None):
        path = os.path.join(self.dir, name)
        if content is not None:
            with open(path, "wb") as file:
                file.write(content)
        return path

    def call(self, *words, inject=None, environment=None, about=None):
        """Runs the program. Returns its answer and the calls on paths and descriptors as text. It must not
        leave a descriptor open."""
        log = os.path.join(self.dir, "log")
        trace = "open,openat,flock,ftruncate,stat,fstat,newfstatat,read,pread64,write,fsync,rename," \
                "renameat,renameat2,unlink,fchmod,fchown,utimensat,close,mkdir,fcntl"
        command = ["strace", "-y", "-o", log, "-e", "trace=" + trace]
        if inject:
            command += ["-e", "inject=" + inject]
        done = subprocess.run(command + [PROGRAM, *words], stdout=subprocess.PIPE, check=True,
                              env=dict(ENVIRONMENT, **(environment or {})))
        with open(log, encoding="latin-1") as lines:
            calls = [line for line in lines if (self.dir if about is None else about) in line
                     or "INJECTED" in line]
        answer, left = done.stdout.decode().splitlines()
        self.assertEqual(left, "0", calls)
        return answer, calls


def content(path):
    with open(path, "rb") as file:
        return file.read()


def first(calls, *patterns):
    """The index of the first call that all patterns match."""
    for index, line in enumerate(calls):
        if all(re.search(pattern, line) for pattern in patterns):
            return index
    raise AssertionError(f"no {patterns} in {calls}")


class LockCallsTest(Traced):
    def test_failures_are_answered(self):
        for mode, rule, error in (
                ("r", "flock:error=ENOLCK", "ENOLCK"),
                ("w", "flock:error=ENOLCK", "ENOLCK"),
                ("a+", "flock:error=EBADF", "EBADF"),
                ("w", "ftruncate:error=EIO", "EIO"),
                ("w", "write:error=ENOSPC", "ENOSPC"),
                ("a+", "write:error=EIO", "EIO")):
            with self.subTest(mode=mode, rule=rule):
                path = self.path("f", b"old\n")
                if rule.startswith("write"):  # the one of the line
                    _, calls = self.call("lock", path, mode, about="")
                    writes = [line for line in calls if line.startswith("write(")]
                    rule += f":when={first(writes, path) + 1}"
                    self.path("f", b"old\n")
                answer, calls = self.call("lock", path, mode, inject=rule)
                self.assertEqual(answer, error)
                first(calls, "INJECTED")
                if not rule.startswith("write"):
                    self.assertEqual(content(path), b"old\n")

    def test_interruptions_are_retried(self):
        path = self.path("f", b"old\n")
        for call in ("flock", "ftruncate"):
            answer, calls = self.call("lock", path, "w", inject=f"{call}:error=EINTR:when=1..3")
            self.assertEqual(answer, "ok")
            self.assertEqual(sum("INJECTED" in line for line in calls), 3)
            self.assertEqual(content(path), b"line\n")

    def test_the_file_is_emptied_under_the_lock_and_closed_after_the_last_byte(self):
        _, calls = self.call("lock", self.path("f", b"old\n"), "w")
        order = [first(calls, "^openat"), first(calls, "^flock", "LOCK_EX"),
                 first(calls, "^ftruncate"), first(calls, "^write"), first(calls, "^close")]
        self.assertEqual(order, sorted(order))
        self.assertNotIn("O_TRUNC", calls[order[0]])
        self.assertFalse([line for line in calls if "LOCK_UN" in line])


class MoveCallsTest(Traced):
    """From /tmp to /var/spool, which are two file systems."""

    def setUp(self):
        super().setUp()
        self.to_dir = tempfile.mkdtemp(dir="/var/spool")
        self.to = os.path.join(self.to_dir, "to")
        self.make()

    def tearDown(self):
        super().tearDown()
        shutil.rmtree(self.to_dir, ignore_errors=True)

    def make(self):
        self.source = self.path("from", b"new" * 20000)
        with open(self.to, "wb") as file:
            file.write(b"old")

    def test_the_bytes_are_on_the_disk_before_the_original_goes(self):
        answer, calls = self.again(None)
        self.assertEqual(answer, "ok")
        order = [first(calls, "^rename", "EXDEV"), first(calls, "^openat", "tsm_movefile", "O_EXCL"),
                 first(calls, "^write", "tsm_movefile"), first(calls, "^utimensat"),
                 first(calls, "^fsync", "tsm_movefile"), first(calls, "^rename", "= 0"),
                 first(calls, "^fsync", self.to_dir + ">"), first(calls, "^unlink", "/from")]
        self.assertEqual(order, sorted(order))

    def again(self, inject):
        self.make()
        return self.call("move", self.source, self.to, inject=inject, about="")

    def numbers(self, call):
        """The numbers of the calls that belong to the move, among all calls of a kind."""
        _, calls = self.again(None)
        begin, end = first(calls, "^rename", "EXDEV"), first(calls, "^unlink", "/from")
        same = [i for i, line in enumerate(calls) if line.startswith(call + "(")]
        return [n for n, i in enumerate(same, 1) if begin <= i <= end]

    def test_any_failure_is_undone_or_leaves_the_bytes_at_both_places(self):
        for call, error, count in (
                ("openat", "EMFILE", 3), (FSTAT, "EIO", 1), ("read", "EIO", 3),
                ("write", "ENOSPC", 2), ("fchmod", "EPERM", 1), ("utimensat", "EPERM", 1),
                ("fsync", "EIO", 2), ("rename", "EACCES", 2), ("unlink", "EACCES", 1)):
            numbers = self.numbers(call)
            self.assertEqual(len(numbers), count, call)
            for number in numbers:
                with self.subTest(call=call, number=number):
                    answer, calls = self.again(f"{call}:error={error}:when={number}")
                    self.assertEqual(answer, error)
                    self.assertEqual(os.listdir(self.to_dir), ["to"])
                    self.assertEqual(content(self.source), b"new" * 20000)
                    renamed = any(re.match(r"rename\(.*tsm_movefile.* = 0", c) for c in calls)
                    self.assertEqual(content(self.to), b"new" * 20000 if renamed else b"old")

    def test_interruptions_are_retried(self):
        for call in ("read", "write", "fsync", "rename"):
            number = self.numbers(call)[0]
            answer, calls = self.again(f"{call}:error=EINTR:when={number}..{number + 1}")
            self.assertEqual(answer, "ok")
            first(calls, "INJECTED")
            self.assertEqual(content(self.to), b"new" * 20000)
            self.assertFalse(os.path.exists(self.source))

    def test_on_one_file_system_it_is_a_rename_and_nothing_else(self):
        answer, calls = self.call("move", self.source, self.path("to"))
        self.assertEqual(answer, "ok")
        self.assertEqual(len(calls), 1, calls)
        self.assertTrue(calls[0].startswith("rename("))


class ConfigCallsTest(Traced):
    def opens(self, calls):
        return sum(line.startswith("openat") and "tsmail.toml" in line for line in calls)

    def test_a_settled_file_is_read_once(self):
        path = self.path("tsmail.toml", b"timezone = 5\n")
        environment = {"TSMAIL_CONFIG": path}
        answer, calls = self.call("zone", "10", environment=environment)
        self.assertEqual(answer.split(), ["5"] * 10)
        self.assertEqual(self.opens(calls), 10)  # a change at this moment might not change its times
        time.sleep(5)
        answer, calls = self.call("zone", "10", environment=environment)
        self.assertEqual(answer.split(), ["5"] * 10)
        self.assertEqual(self.opens(calls), 1)

    def test_what_cannot_be_read_is_tried_again_by_the_next_call(self):
        path = self.path("tsmail.toml", b"timezone = 5\n")
        environment = {"TSMAIL_CONFIG": path}
        _, calls = self.call("zone", "1", environment=environment, about="/")
        for call, error in (("openat", "EMFILE"), ("pread64", "EIO"), (FSTAT, "EIO")):
            with self.subTest(call=call):
                name = "tsmail.toml"
                index = first(calls, "^" + call, name)
                if call == FSTAT:  # the one on the descriptor
                    index = first(calls, rf"^{FSTAT}\(\d+<.*" + name)
                when = sum(line.startswith(call + "(") for line in calls[:index]) + 1
                answer, _ = self.call("zone", "3", environment=environment,
                                      inject=f"{call}:error={error}:when={when}")
                self.assertEqual(answer.split(), ["0", "5", "5"])


class PathCallsTest(Traced):
    def test_an_existing_path_costs_two_calls(self):
        os.makedirs(self.path("a/b/c"))
        answer, calls = self.call("path", self.path("a/b/c"))
        self.assertEqual(answer, "ok")
        self.assertEqual([line.split("(")[0] for line in calls], ["mkdir", "newfstatat"])

    def test_a_failure_in_the_middle_is_answered(self):
        _, calls = self.call("path", self.path("a/b/c"), about="/")
        made = [line for line in calls if line.startswith("mkdir(")]
        when = first(made, re.escape(self.path('a"'))) + 1
        shutil.rmtree(self.path("a"))
        answer, _ = self.call("path", self.path("a/b/c"), inject=f"mkdir:error=ENOSPC:when={when}")
        self.assertEqual(answer, "ENOSPC")


if __name__ == "__main__":
    unittest.main()
