"""deliver, killed or failing at every one of its system calls; and many deliveries at once."""

import re
import subprocess
import threading
import time
import unittest

from testing import toolkit
from testing.toolkit import (SANITIZED, TSMAIL, Kept, SpoolCase, environment, folder_record, is_marked,
                             left_in_tmp, mail, mailbox_record, messages)
from testing.tracing import STEP, failing, from_the_first_in_the_spool, killed, numbered, traced_parent, traced_worker

ANN = "ann@site.test"
DELIVER = [TSMAIL, "deliver", ANN]
ALWAYS = 1000000
BODY = b"Subject: x\n\n" + b"0123456789" * 20


class FaultCase(SpoolCase):
    """Walks over the system calls of a delivery: all of the worker's, and the command's own from its first
    look at the mailbox on."""

    def setUp(self):
        super().setUp()
        self.succeed("create", ANN)
        self.kept = Kept()

    def deliver(self, *options, named=False, trace=traced_worker):
        if named:
            options = [*options, *self.hide_proc]
        return trace(options, DELIVER, stdin=BODY)

    def calls_of_a_delivery(self, named, trace):
        if named:
            _, calls = self.deliver()
            [probe] = [n for name, n, line in numbered(calls)
                       if name == "access" and "/proc/self/fd" in line]
            self.hide_proc = failing("ENOENT", "access", probe)  # as if it could not name an unnamed file
        done, calls = self.deliver(named=named, trace=trace)
        self.assertEqual(done.code, 0, done)
        if trace is traced_worker:
            rows = numbered(calls)
            self.assertEqual(any("O_TMPFILE" in line for line in calls), not named)
        else:
            rows = from_the_first_in_the_spool(calls)
        left_out = {"exit_group", "getpid", "geteuid", "getegid", "getppid", "umask"}
        left_out.add("brk")  # it fails by returning the old end and no errno; the C library dies of one
        if named:
            left_out.add("access")
        if SANITIZED:  # the sanitizer makes these calls and does not survive their failure
            left_out |= {"mmap", "munmap", "madvise"}
        return [(name, n) for name, n, _ in rows if name not in left_out]


class KilledCase(FaultCase):
    def kill_everywhere(self, named, leftovers, trace, codes):
        ended = 0
        for name, n in self.calls_of_a_delivery(named, trace)[::STEP]:
            with self.subTest(call=name, n=n):
                self.kept.put_back()
                done, _ = self.deliver(*killed(name, n), named=named, trace=trace)
                self.assertIn(done.code, (0, *codes), done)
                ended += done.code != 0
                self.check(done, leftovers)
        self.assertGreater(ended, 20 // STEP)

    def check(self, done, leftovers):
        found = messages(ANN)
        self.assertLessEqual(len(found), 1)
        for path in found:
            self.assertEqual(toolkit.content(path), BODY)
            self.assertTrue(path.endswith(f"#S#{len(BODY)}#E"))
        self.assertLessEqual(len(left_in_tmp(ANN)), leftovers)
        for path in left_in_tmp(ANN):
            self.assertRegex(path, r",#F#S#0#E$")
        # Only what is there is counted. If it is not counted, the mailbox is marked, unless the command was killed.
        self.assertLessEqual(folder_record(ANN)[1], len(found))
        self.assertLessEqual(mailbox_record(ANN)[1], folder_record(ANN)[1])
        if done.code == 0:
            self.assertEqual(len(found), 1)
        if done.code >= 0:
            self.assertTrue(is_marked(ANN) or mailbox_record(ANN)[1] == len(found), done)


class KilledWorkerTest(KilledCase):
    def test_without_a_name_nothing_is_left(self):
        self.kill_everywhere(False, 0, traced_worker, [75])

    def test_with_a_name_what_is_left_is_in_tmp(self):
        self.kill_everywhere(True, 1, traced_worker, [75])


class KilledParentTest(KilledCase):
    """The worker gives up, or finishes a delivered message: so nothing is left behind and all is counted."""

    def check(self, done, leftovers):
        super().check(done, leftovers)
        self.assertEqual(mailbox_record(ANN)[1], len(messages(ANN)), done)
        self.assertEqual(folder_record(ANN)[1], len(messages(ANN)), done)

    def test_nothing_is_left(self):
        self.kill_everywhere(False, 0, traced_parent, [-9])


class FailingCase(FaultCase):
    def fail_everywhere(self, named, errors, trace):
        refused = 0
        for name, n in self.calls_of_a_delivery(named, trace):
            for error in errors:
                with self.subTest(call=name, n=n, error=error):
                    self.kept.put_back()
                    done, _ = self.deliver(*failing(error, name, n), named=named, trace=trace)
                    refused += done.code != 0
                    self.check(done)
        self.assertGreater(refused, 5)

    def check(self, done):
        found = messages(ANN)
        # The failing call may be the one that removes the name in tmp.
        self.assertLessEqual(len(left_in_tmp(ANN)), 1 if "unlink" in str(done) else 0)
        if done.code == 0:
            self.assertEqual([toolkit.content(path) for path in found], [BODY])
            whole = (len(BODY), 1)
            counted = folder_record(ANN) == whole and mailbox_record(ANN) == whole
            if not counted:
                self.assertRegex(done.err, "warning: .*(size record|recount)", done)
        else:
            self.assertIn(done.code, (66, 67, 73, 74, 75), done)
            self.assertEqual(found, [], done)
            self.assertEqual(done.out, "")
            self.assertEqual((folder_record(ANN), mailbox_record(ANN)), ((0, 0), (0, 0)))

    ERRORS = ["ENOSPC"] if SANITIZED else ["EIO", "ENOSPC", "EINTR", "EMFILE", "EACCES"]


class FailingWorkerTest(FailingCase):
    def test_without_a_name(self):
        self.fail_everywhere(False, self.ERRORS, traced_worker)


class FailingNamedWorkerTest(FailingCase):
    def test_with_a_name(self):
        self.fail_everywhere(True, self.ERRORS[:2], traced_worker)


class FailingParentTest(FailingCase):
    def test_each_call(self):
        self.fail_everywhere(False, self.ERRORS[:3], traced_parent)


class CodesTest(FaultCase):
    def test_exit_codes(self):
        rows = [("ENOSPC", 75), ("EDQUOT", 75), ("ENOMEM", 75), ("EMFILE", 75), ("EIO", 74),
                ("EROFS", 75), ("EPERM", 75), ("EACCES", 75), ("ELOOP", 73), ("ENXIO", 74),
                ("ENOTCONN", 75), ("EHOSTDOWN", 75), ("EREMOTEIO", 75)]
        for error, code in rows:
            done, _ = self.deliver(*failing(error, "linkat"))
            self.assertEqual(done.code, code, done)
            self.assertRegex(done.err, "^tsmail: [^ ]*/Inbox: putting the message into new: ")
        done, _ = self.deliver(*failing("EIO", "fsync"))
        self.assertEqual(done.code, 74, done)
        self.assertEqual((messages(ANN), left_in_tmp(ANN)), ([], []))


class FallbackTest(FaultCase):
    def tmpfile_call(self):
        _, calls = self.deliver()
        [n] = [n for _, n, line in numbered(calls) if "O_TMPFILE" in line]
        return n

    def test_a_file_system_without_unnamed_files(self):
        n = self.tmpfile_call()
        for error in ("EOPNOTSUPP", "EISDIR", "EINVAL"):
            self.setUp()
            done, calls = self.deliver(*failing(error, "openat", n))
            self.assertEqual(done.code, 0, done)
            self.assertTrue(any("RENAME_NOREPLACE" in line for line in calls))
            self.assert_counted(ANN)
            self.assertEqual(left_in_tmp(ANN), [])

    def test_a_file_that_cannot_get_a_name_is_copied(self):
        for error in ("EOPNOTSUPP", "ENOENT", "EINVAL", "ENOSYS"):
            self.setUp()
            done, calls = self.deliver(*failing(error, "linkat"))
            self.assertEqual(done.code, 0, done)
            self.in_order("\n".join(calls), r"O_TMPFILE", r"fsync\(", r"linkat\(.* = -1", r"O_CREAT\|O_EXCL", r"fsync\(",
                          "RENAME_NOREPLACE", r"fsync\(")
            self.assert_counted(ANN)
            self.assertEqual(left_in_tmp(ANN), [])

    def test_the_process_remembers_it(self):
        files = [f"/tmp/message{n}" for n in range(3)]
        for path in files:
            toolkit.write(path, BODY)
        done, calls = traced_worker(failing("EOPNOTSUPP", "linkat"), [*DELIVER, *files])
        self.assertEqual((done.code, len(messages(ANN))), (0, 3), done)
        self.assertEqual(sum("O_TMPFILE" in line for line in calls), 1)

    def test_nor_an_exclusive_rename(self):
        n = self.tmpfile_call()
        for error in ("EINVAL", "ENOSYS"):
            self.setUp()
            done, calls = self.deliver(*failing("EOPNOTSUPP", "openat", n), *failing(error, "renameat2", 1, ALWAYS))
            self.assertEqual(done.code, 0, done)
            self.assertTrue(any(re.match(r"linkat\(\d", line) for line in calls))
            self.assert_counted(ANN)
            self.assertEqual(left_in_tmp(ANN), [])

    def test_a_name_that_exists_is_drawn_again(self):
        done, calls = self.deliver(*failing("EEXIST", "linkat", 1, 3))
        self.assertEqual(done.code, 0, done)
        names = [re.search(r'"(\d+\.[^"]*#E)"', line).group(1) for line in calls
                 if line.startswith("linkat")]
        self.assertEqual((len(names), len(set(names))), (4, 4))
        self.setUp()
        done, calls = self.deliver(*failing("EEXIST", "linkat", 1, ALWAYS))
        self.assertEqual(done.code, 75, done)
        self.assertEqual(messages(ANN), [])

    def in_order(self, text, *steps):
        place = 0
        for step in steps:
            match = re.compile(step).search(text, place)
            self.assertIsNotNone(match, step)
            place = match.end()

    def test_order_of_the_steps(self):
        _, calls = self.deliver()
        text = "\n".join(calls)
        # The folder's lock is the only one that is released without LOCK_UN.
        [lock] = set(re.findall(r"flock\((\d+), LOCK_SH", text)) - set(
            re.findall(r"flock\((\d+), LOCK_UN", text))
        # The worker reports the message when it is in new and again when it is flushed. Then the parent shows it and
        # tells the daemon.
        self.in_order(text, r"O_TMPFILE", r"write\(\d+, \"Subject", r"fsync\(", rf"flock\({lock}, LOCK_SH",
                      r"linkat\(", r"write\(3, ", r"fsync\(", r"write\(3, .*path", r"\.ts_folder_size\", O_",
                      r"/\.maildirsize\", O_", rf"close\({lock}\)", r"write\(3, .*code")
        _, own = self.deliver(trace=traced_parent)
        self.in_order("\n".join(own), r"fork|clone", r"write\(1, ", r"sendto\(", r"wait4\(")
        for line in calls:
            if re.match(r"open(at)?\(", line) and toolkit.HOME in line:
                self.assertIn("O_CLOEXEC", line)


class TogetherTest(SpoolCase):
    PROCESSES, EACH = 4, 25

    def setUp(self):
        super().setUp()
        self.succeed("create", ANN)

    def test_a_count_beside_deliveries_is_exact(self):
        sample = toolkit.SAMPLES[0]
        script = f'for i in $(seq {self.EACH}); do "$0" -q deliver {ANN} "$1" || exit 1; done'
        agents = [subprocess.Popen(["bash", "-c", script, TSMAIL, sample], env=environment())
                  for _ in range(self.PROCESSES)]
        counts = 0
        while any(agent.poll() is None for agent in agents):
            with toolkit.Lock(mail(ANN) + "/Inbox"):
                found = len(messages(ANN))
                self.assertEqual(folder_record(ANN)[1], found)
                self.assertEqual(mailbox_record(ANN)[1], found)
            counts += 1
            time.sleep(0.002)
        self.assertEqual([agent.wait() for agent in agents], [0] * self.PROCESSES)
        self.assertGreater(counts, 3)
        self.assertEqual(len(messages(ANN)), self.PROCESSES * self.EACH)
        self.assert_counted(ANN)
        self.assertEqual(left_in_tmp(ANN), [])

    def test_the_folder_lock_is_waited_for(self):
        with toolkit.Lock(mail(ANN) + "/Inbox"):
            process = subprocess.Popen([TSMAIL, "-q", "deliver", ANN], stdin=subprocess.DEVNULL,
                                       env=environment())
            time.sleep(0.3)
            self.assertIsNone(process.poll())
            self.assertEqual((messages(ANN), mailbox_record(ANN)), ([], (0, 0)))
        self.assertEqual(process.wait(timeout=10), 0)
        self.assertEqual(len(messages(ANN)), 1)

    def test_two_that_make_the_same_folder(self):
        for turn in range(10):
            results = []
            def deliver(folder=f"F{turn}/sub"):
                results.append(toolkit.tsmail("deliver", ANN, "--folder", folder, stdin=b"x").code)
            threads = [threading.Thread(target=deliver) for _ in range(3)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
            self.assertEqual(results, [0, 0, 0])
            self.assertEqual(folder_record(ANN, f"F{turn}/sub"), (3, 3))


if __name__ == "__main__":
    unittest.main()
