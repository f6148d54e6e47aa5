"""deliver: folders that are removed while a delivery waits for them, and telling the quota daemon."""

import fcntl
import glob
import os
import shutil
import socket
import subprocess
import time
import unittest

from testing import toolkit
from testing.toolkit import (DAEMON, TSMAIL, Lock, SpoolCase, content, environment, folder_record,
                             held_by_folders, is_marked, left_in_tmp, mail, mailbox_record, messages,
                             run, wait_until)
from testing.tracing import INJECT, failing, numbered, traced_worker

ANN = "ann@site.test"
HOME = os.path.dirname(mail(ANN))
BODY = b"Subject: x\n\nbody\n"


def is_message(path):
    """Whether an open file is the message that is delivered."""
    try:
        return "/tmp/" in os.readlink(path) and content(path) == BODY
    except OSError:
        return False


class FolderCase(SpoolCase):
    def setUp(self):
        super().setUp()
        self.succeed("create", ANN, "--folder", "Work/2024")
        # Makes the tool believe that it cannot name an unnamed file.
        _, calls = traced_worker([], [TSMAIL, "deliver", ANN], stdin=BODY)
        [probe] = [n for name, n, line in numbered(calls)
                   if name == "access" and "/proc/self/fd" in line]
        shutil.rmtree(mail(ANN))
        self.named = [INJECT, "--worker", "1", *failing("ENOENT", "access", probe), "--"]
        self.succeed("create", ANN, "--folder", "Work/2024")

    def begin_delivery(self, folder, *words, prefix=()):
        process = subprocess.Popen([*prefix, TSMAIL, "deliver", ANN, "--folder", folder, *words],
                                   stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE,
                                   env=environment(ASAN_OPTIONS="detect_leaks=0"))
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        process.stdin.write(BODY)
        process.stdin.close()
        process.stdin = None
        wait_until(lambda: any(is_message(path) for path in glob.glob("/proc/[0-9]*/fd/*")))
        time.sleep(0.2)  # it waits
        self.assertIsNone(process.poll())
        return process

    def schedule(self, folder):
        hidden = f"{HOME}/.deleted.x.{folder.replace('/', '.')}.1"
        os.rename(f"{mail(ANN)}/{folder}", hidden)
        return hidden

    def assert_delivered(self, process, folder):
        out, _ = self.end(process)
        path = out.strip()
        self.assertEqual(messages(ANN, folder), [path])
        self.assertEqual(content(path), BODY)
        self.assertEqual(folder_record(ANN, folder), (len(BODY), 1))
        self.assertEqual(mailbox_record(ANN), (len(BODY), 1))
        self.assertFalse(is_marked(ANN))
        self.assertEqual(left_in_tmp(ANN), [])
        self.assertEqual(glob.glob(HOME + "/.deleted*/**/new/*", recursive=True), [])
        self.assertEqual(glob.glob(HOME + "/.deleted*/**/tmp/*", recursive=True), [])


class GoneMeanwhileTest(FolderCase):
    def test_a_folder_that_was_scheduled_for_deletion(self):
        for prefix in ([], self.named):
            for folder in ("Inbox", "Work", "Work/2024"):
                with self.subTest(folder=folder, named=bool(prefix)):
                    self.setUp()
                    with Lock(f"{mail(ANN)}/{folder}"):
                        process = self.begin_delivery(folder, prefix=prefix)
                        self.schedule(folder)
                    self.assert_delivered(process, folder)

    def test_a_folder_that_is_no_more(self):
        for prefix in ([], self.named):
            with self.subTest(named=bool(prefix)):
                self.setUp()
                with Lock(mail(ANN) + "/Work/2024"):
                    process = self.begin_delivery("Work/2024", prefix=prefix)
                    shutil.rmtree(mail(ANN) + "/Work")
                self.assert_delivered(process, "Work/2024")

    @unittest.skipUnless(os.geteuid() == 0, "only root's own mailboxes are looked through")
    def test_a_folder_that_goes_while_root_looks_through_its_mailbox(self):
        """A directory that was removed when it was open already has no entries: reading it says ENOENT."""
        strace = ["strace", "-qq", "-o", "/tmp/log", "-e", "inject=getdents64:error=ENOENT:when=3", "--"]
        done = run([*strace, TSMAIL, "deliver", ANN], stdin=BODY, env=environment(ASAN_OPTIONS="detect_leaks=0"))
        self.assertEqual((done.code, done.err), (0, ""))
        self.assertIn("(INJECTED)", content("/tmp/log").decode())

    def test_a_folder_that_is_there_anew(self):
        for prefix in ([], self.named):
            with self.subTest(named=bool(prefix)):
                self.setUp()
                with Lock(mail(ANN) + "/Inbox"):
                    process = self.begin_delivery("Inbox", prefix=prefix)
                    self.schedule("Inbox")
                    self.succeed("create", ANN)
                self.assert_delivered(process, "Inbox")

    def test_again_and_again(self):
        with Lock(mail(ANN) + "/Inbox"):
            process = self.begin_delivery("Inbox")
            self.schedule("Inbox")
            self.succeed("create", ANN)
            second = Lock(mail(ANN) + "/Inbox")
            second.__enter__()
        time.sleep(0.3)
        self.assertIsNone(process.poll())
        os.rename(mail(ANN) + "/Inbox", HOME + "/.deleted.x.Inbox.2")
        second.__exit__()
        self.assert_delivered(process, "Inbox")

    def test_no_new_folder(self):
        with Lock(mail(ANN) + "/Work/2024"):
            process = self.begin_delivery("Work/2024", "--no-new-folder")
            self.schedule("Work/2024")
        self.assert_delivered(process, "Inbox")
        self.assertFalse(os.path.exists(mail(ANN) + "/Work/2024"))

    def test_a_mailbox_that_is_no_more(self):
        with Lock(mail(ANN) + "/Inbox"):
            process = self.begin_delivery("Inbox")
            self.succeed("mailbox", "remove", ANN, "--yes", stdin=b"")
        _, err = self.end(process, 67)
        self.assertIn("no mailbox", err)
        self.assertFalse(os.path.exists(HOME))

    def test_who_takes_a_folder_away_keeps_out_what_goes_below_it(self):
        with Lock(mail(ANN) + "/Work"):
            process = self.begin_delivery("Work/2024")
            self.assertEqual(messages(ANN, "Work/2024"), [])
            self.schedule("Work")
        self.assert_delivered(process, "Work/2024")

    def test_a_folder_that_lacks_a_part_is_completed(self):
        os.rmdir(mail(ANN) + "/Inbox/cur")
        self.succeed("deliver", ANN, stdin=BODY)
        self.assertTrue(os.path.isdir(mail(ANN) + "/Inbox/cur"))
        self.assert_counted(ANN)


class RemovalsBesideTest(FolderCase):
    AGENTS, REMOVALS = 4, 6

    def test_every_message_is_in_a_folder_or_went_with_one(self):
        enough = "/tmp/enough"
        script = f"""until [ -e {enough} ]; do
            "$0" deliver {ANN} --folder Work/2024 "$1" || exit 1
        done"""
        agents = [subprocess.Popen(["bash", "-c", script, TSMAIL, toolkit.SAMPLES[n]],
                                   stdout=subprocess.PIPE, env=environment())
                  for n in range(self.AGENTS)]
        removed = []
        until = time.monotonic() + 90
        while len(removed) < self.REMOVALS and time.monotonic() < until:
            for words in (("Work",), ("Work/2024",)):
                done = toolkit.tsmail("--json", "rm", ANN, *words)
                self.assertIn(done.code, (0, 66), done)
                removed += [row["messages"] for row in done.objects]
        toolkit.write(enough, "")
        names = [os.path.basename(line) for agent in agents
                 for line in agent.communicate(timeout=60)[0].decode().splitlines()]
        self.assertEqual([agent.returncode for agent in agents], [0] * self.AGENTS)
        there = glob.glob(HOME + "/**/new/*", recursive=True)
        gone = [path for directory in glob.glob(HOME + "/.deleted.*")
                for path in glob.glob(directory + "/**/new/*", recursive=True)]
        self.assertEqual(sorted(names), sorted(os.path.basename(path) for path in there + gone))
        # Each removal told how much it removed, so no message arrived after it.
        self.assertEqual(sum(removed), len(gone))
        self.assertGreaterEqual(len(removed), self.REMOVALS)
        self.assertEqual(mailbox_record(ANN), held_by_folders(ANN))
        self.assertFalse(is_marked(ANN))


class NotifyTest(SpoolCase):
    def setUp(self):
        super().setUp()
        self.succeed("create", ANN)

    def test_each_message_is_told(self):
        daemon = self.listen()
        self.succeed("deliver", ANN, "--folder", "Work", stdin=b"x" * 2048)
        self.assertEqual(self.told(daemon), [f"S2048,F({mail(ANN)}/Work)"])
        paths = self.succeed("deliver", ANN, *toolkit.SAMPLES[:3]).lines
        self.assertEqual(self.told(daemon), [f"S{os.path.getsize(path)},F({mail(ANN)}/Inbox)"
                                             for path in paths])
        self.fail_with(66, "deliver", ANN, "/tmp/none")
        self.assertEqual(self.told(daemon), [])

    def test_nobody_listens(self):
        self.assertEqual(self.succeed("deliver", ANN, stdin=b"x").err, "")
        with open(DAEMON, "wb"):
            pass
        self.assertEqual(self.succeed("deliver", ANN, stdin=b"x").err, "")
        os.unlink(DAEMON)
        daemon = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        daemon.bind(DAEMON)
        daemon.close()
        self.assertEqual(self.succeed("deliver", ANN, stdin=b"x").err, "")
        os.unlink(DAEMON)

    def fill(self):
        """Fills the queue of a daemon that reads nothing."""
        daemon = self.listen()
        sender = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(sender.close)
        sender.setblocking(False)
        while True:
            try:
                sender.sendto(b"x", DAEMON)
            except BlockingIOError:
                return daemon

    def test_a_daemon_that_stands_still(self):
        self.fill()
        begun = time.monotonic()
        process = self.begin("deliver", ANN, *toolkit.SAMPLES[:4])
        first = process.stdout.readline()  # comes before the wait for the daemon
        self.assertLess(time.monotonic() - begun, 2)
        self.assertTrue(os.path.exists(first.decode().strip()))
        time.sleep(0.2)
        self.assertIsNone(process.poll())
        # The delivery is done; it need not wait for the daemon.
        with Lock(mail(ANN) + "/Inbox", fcntl.LOCK_EX | fcntl.LOCK_NB):
            self.assertEqual(mailbox_record(ANN)[1], 1)
        self.assertEqual(process.wait(timeout=20), 0)
        self.assertLess(time.monotonic() - begun, 6)  # it does not wait for each message
        self.assertEqual(process.stderr.read(), b"")
        self.assertEqual(len(messages(ANN)), 4)
        self.assert_counted(ANN)

    def test_removals_hold_no_lock_either(self):
        self.succeed("create", ANN, "--folder", "Work")
        self.succeed("deliver", ANN, "--folder", "Work", stdin=b"x")
        path = self.succeed("deliver", ANN, stdin=b"x").lines[0]
        with open(mail(ANN) + "/Sent/new/by-hand", "wb") as file:
            file.write(b"x")
        self.fill()
        for words, is_done in (
                (("message", "rm", ANN, "Inbox", os.path.basename(path)), lambda: not os.path.exists(path)),
                (("rm", ANN, "Work"), lambda: not os.path.exists(mail(ANN) + "/Work")),
                (("recount", ANN), lambda: mailbox_record(ANN)[1] == 1)):
            with self.subTest(words):
                process = self.begin(*words)
                wait_until(is_done)
                wait_until(self.inbox_is_free)
                self.assertIsNone(process.poll(), "it tells the daemon")
                self.end(process)

    @staticmethod
    def inbox_is_free():
        try:
            with Lock(mail(ANN) + "/Inbox", fcntl.LOCK_EX | fcntl.LOCK_NB):
                return True
        except BlockingIOError:
            return False



if __name__ == "__main__":
    unittest.main()
