"""The tree remover under strace: the number of its system calls, and its work when some of them fail or give
wrong results. Every case runs the program remove_tree on a tree of its own."""
import collections
import errno
import os
import re
import shutil
import subprocess
import tempfile
import threading
import time
import unittest

from testing.system_calls import FSTAT

PROGRAM = os.path.join(os.environ["TSMAIL_BUILD"], "tests/base/remove_tree")
# The leak checker does not work in a process that is traced.
ENVIRONMENT = dict(os.environ, ASAN_OPTIONS="detect_leaks=0")


class TreeCallsTest(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp()
        self.top = os.path.join(self.dir, "top")
        os.mkdir(self.top)

    def tearDown(self):
        shutil.rmtree(self.dir, ignore_errors=True)

    def opens_before(self):
        """The number of files that the start of the program opens."""
        _, calls = self.run_traced(self.top, everything=True)
        return len(calls["openat"]) - 1

    def make_tree(self, dirs, files):
        for d in range(dirs):
            os.mkdir(f"{self.top}/{d}")
            for f in range(files):
                open(f"{self.top}/{d}/{f}", "w").close()

    def run_traced(self, *words, inject=(), everything=False):
        """Runs the program; returns its answer and its calls on trees: {name: [(result, error)]}."""
        log = os.path.join(self.dir, "log")
        command = ["strace", "-o", log, "-e", "trace=openat,getdents64,unlinkat,newfstatat,fstat,close"]
        for rule in inject:
            command += ["-e", "inject=" + rule]
        done = subprocess.run(command + [PROGRAM, *words], stdout=subprocess.PIPE, check=True,
                              env=ENVIRONMENT)
        calls = collections.defaultdict(list)
        started = everything
        with open(log, encoding="latin-1") as lines:
            for line in lines:
                started = started or self.top in line
                found = re.match(r"(\w+)\(.*\) += (-?\d+)(?: (E\w+))?", line)
                if started and found:
                    calls[found[1]].append((int(found[2]), found[3]))
        return int(done.stdout), calls

    def test_a_tree_costs_what_it_must(self):
        self.make_tree(dirs=20, files=10)
        answer, calls = self.run_traced("-r", self.top)
        self.assertEqual(answer, 0)
        # A first rmdir for each directory, and an unlinkat before it for the top, find out that it is a
        # directory with entries that may be removed.
        self.assertEqual(len(calls["unlinkat"]), 20 * 10 + 2 * 20 + 1 + 2)
        self.assertEqual(len(calls["openat"]), 21)
        self.assertEqual(len(calls["getdents64"]), 2 * 21)
        self.assertEqual(len(calls["newfstatat"]) + len(calls["fstat"]), 0)

    def test_an_empty_directory_costs_one_call(self):
        self.make_tree(dirs=20, files=0)
        answer, calls = self.run_traced(self.top)
        self.assertEqual(answer, 0)
        self.assertEqual(len(calls["unlinkat"]), 20)
        self.assertEqual(len(calls["openat"]), 1)

    def test_a_deep_chain_that_cannot_go_is_walked_once(self):
        depth = 400
        path = self.top
        for _ in range(depth):
            path += "/d"
            os.mkdir(path)
            open(path + "/f", "w").close()
        # The file at the bottom is the first to be removed after the last directory was opened; on
        # the way down each level takes a rmdir and the unlink of its file.
        answer, calls = self.run_traced(
            self.top, inject=[f"unlinkat:error=EPERM:when={2 * depth}"])
        self.assertEqual(answer, errno.EPERM)
        self.assertLess(len(calls["unlinkat"]), 5 * depth)
        self.assertLess(len(calls["openat"]), 4 * depth)

    def test_entries_that_a_reading_leaves_out_are_seen_by_the_next(self):
        self.make_tree(dirs=1, files=3000)
        reads = 3000 * 24 // 32768
        self.assertGreater(reads, 1)
        # The second read of the subdirectory, the fourth in all, says "end" too early.
        answer, calls = self.run_traced(self.top, inject=["getdents64:retval=0:when=4"])
        self.assertEqual(answer, 0)
        self.assertEqual(os.listdir(self.top), [])
        self.assertIn((-1, "ENOTEMPTY"), calls["unlinkat"])

    def test_this_holds_at_the_top_too(self):
        for f in range(3000):
            open(f"{self.top}/{f}", "w").close()
        answer, _ = self.run_traced(self.top, inject=["getdents64:retval=0:when=2"])
        self.assertEqual(answer, 0)
        self.assertEqual(os.listdir(self.top), [])

    def test_a_link_in_the_place_of_a_directory_is_not_entered(self):
        """The directory is exchanged after it was read and before it is opened."""
        opens = self.opens_before()
        victim = os.path.join(self.dir, "victim")
        os.mkdir(victim)
        open(victim + "/kept", "w").close()
        self.make_tree(dirs=1, files=1)
        marker = self.top + "/marker"
        open(marker, "w").close()

        def exchange():
            while os.path.exists(marker):
                time.sleep(0.001)
            os.rename(self.top + "/0", self.dir + "/elsewhere")
            os.symlink(victim, self.top + "/0")

        thread = threading.Thread(target=exchange)
        thread.start()
        answer, calls = self.run_traced(
            self.top, inject=[f"openat:delay_enter=300000:when={opens + 2}"])
        thread.join()
        self.assertEqual(answer, 0)
        self.assertIn((-1, "ENOTDIR"), calls["openat"])
        self.assertEqual(os.listdir(victim), ["kept"])
        self.assertEqual(os.listdir(self.dir + "/elsewhere"), ["0"])
        self.assertEqual(os.listdir(self.top), [])

    def test_an_empty_reading_gets_a_second_one(self):
        self.make_tree(dirs=1, files=5)
        answer, _ = self.run_traced(self.top, inject=["getdents64:retval=0:when=3"])
        self.assertEqual(answer, 0)
        self.assertEqual(os.listdir(self.top), [])

    def test_a_directory_that_hides_entries_is_given_up(self):
        self.make_tree(dirs=1, files=5)
        answer, calls = self.run_traced(self.top, inject=["getdents64:retval=0:when=3+"])
        self.assertEqual(answer, errno.ENOTEMPTY)
        self.assertEqual(os.listdir(self.top), ["0"])
        self.assertLess(len(calls["getdents64"]), 10)

    def test_interruptions_are_retried(self):
        first = {"openat": self.opens_before() + 2, "unlinkat": 2, "getdents64": 2}
        self.make_tree(dirs=5, files=5)
        answer, calls = self.run_traced(
            self.top, inject=[f"{call}:error=EINTR:when={first[call]}+2" for call in first])
        self.assertEqual(answer, 0)
        self.assertEqual(os.listdir(self.top), [])
        for call in first:
            self.assertIn((-1, "EINTR"), calls[call])

    def test_a_read_error_keeps_its_directory_and_nothing_else(self):
        self.make_tree(dirs=3, files=5)
        answer, _ = self.run_traced(self.top, inject=["getdents64:error=EIO:when=3+100"])
        self.assertEqual(answer, errno.EIO)
        left = os.listdir(self.top)
        self.assertEqual(len(left), 1)
        self.assertEqual(len(os.listdir(f"{self.top}/{left[0]}")), 5)

    def test_an_error_that_passes_is_answered_all_the_same(self):
        self.make_tree(dirs=1, files=5)
        answer, _ = self.run_traced(self.top, inject=["unlinkat:error=EBUSY:when=2"])
        self.assertEqual(answer, errno.EBUSY)
        self.assertEqual(os.listdir(self.top), [])

    def test_running_out_of_descriptors_closes_upper_levels(self):
        first = self.opens_before() + 5
        for error in ("EMFILE", "ENFILE"):
            self.make_chain(40)
            answer, calls = self.run_traced(
                self.top, inject=[f"openat:error={error}:when={first}..{first + 24}+3"])
            self.assertEqual(answer, 0)
            self.assertEqual(os.listdir(self.top), [])
            self.assertEqual(calls["openat"].count((-1, error)), 9)

    def make_chain(self, depth):
        path = self.top
        for _ in range(depth):
            path += "/d"
            os.mkdir(path)

    def test_a_way_back_that_is_barred_ends_the_removal(self):
        """The upper levels of a deep tree are closed meanwhile and recognised by their fstat."""
        def stats_before(*words):
            return len(self.run_traced(*words, everything=True)[1][FSTAT])

        start = stats_before(self.top)
        opens = self.opens_before()
        self.make_chain(40)
        stats = stats_before(self.top) - start
        self.assertGreater(stats, 2)
        # The first that closes a level, the first on the way back, and the opening of "..".
        for rule, wanted in ((f"{FSTAT}:error=EIO:when={start + 1}", errno.ESTALE),
                             (f"{FSTAT}:error=EIO:when={start + stats // 2 + 1}", errno.EIO),
                             (f"openat:error=EACCES:when={opens + 42}", errno.EACCES)):
            with self.subTest(rule):
                self.make_chain(40)
                answer, _ = self.run_traced(self.top, inject=[rule])
                self.assertEqual(answer, wanted)
                answer, _ = self.run_traced(self.top)
                self.assertEqual(answer, 0)
                self.assertEqual(os.listdir(self.top), [])


if __name__ == "__main__":
    unittest.main()
