"""Folders on a file system that several machines share: files are locked, as locks on directories have no
effect on other machines. network_like.so makes the sandbox's file system look like such a file system."""

import fcntl
import os
import subprocess
import time
import unittest

from testing import toolkit
from testing.toolkit import (BUILD, TSMAIL, SpoolCase, environment, is_marked, mail, messages, traced)

ANN = "ann@site.test"
PRELOADED = f"{BUILD}/tests/tools/network_like.so"
FILES = [".ts_folder_gate", ".ts_folder_lock"]


def far(**changes):
    return environment(ASAN_OPTIONS="verify_asan_link_order=0:detect_leaks=0",
                       **toolkit.preloading(PRELOADED), **changes)


class NetworkTest(SpoolCase):
    def setUp(self):
        super().setUp()
        self.assertTrue(os.path.exists(PRELOADED))
        self.succeed("create", ANN, "--folder", "Work/2024")

    def lock_files(self, folder):
        return sorted(set(os.listdir(f"{mail(ANN)}/{folder}")) & set(FILES))

    def begin_far(self, *words, stdin=subprocess.DEVNULL):
        process = subprocess.Popen([TSMAIL, *words], stdin=stdin, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, env=far())
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        return process

    def lock(self, folder, name, kind):
        """A lock as another machine would hold it."""
        fd = os.open(f"{mail(ANN)}/{folder}/{name}", os.O_RDWR | os.O_CREAT, 0o600)
        fcntl.flock(fd, kind)
        return fd

    def test_a_local_disk_gets_no_files(self):
        self.succeed("deliver", ANN, stdin=b"x")
        self.succeed("recount", ANN)
        self.assertEqual(self.lock_files("Inbox"), [])

    def test_preferences_are_locked_by_a_file(self):
        place = os.path.dirname(mail(ANN)) + "/pref"
        self.succeed("pref", "set", ANN, "npage=20")
        self.assertNotIn(".ts_folder_lock", os.listdir(place))
        fd = os.open(place + "/.ts_folder_lock", os.O_RDWR | os.O_CREAT, 0o600)
        fcntl.flock(fd, fcntl.LOCK_EX)
        process = self.begin_far("pref", "set", ANN, "npage=30")
        time.sleep(0.5)
        self.assertIsNone(process.poll())
        self.succeed("pref", "set", ANN, "lang=de")
        os.close(fd)
        self.end(process)
        shown = self.succeed("--json", "pref", "show", ANN).objects[0]
        self.assertEqual((shown["npage"], shown["lang"]), (30, "de"))
        self.assertRegex(self.succeed("doctor", ANN).out, "^0 findings")
        self.assertEqual(self.succeed("--json", "list", "names", ANN).objects, [])

    def test_a_delivery_waits_for_the_lock_on_the_file(self):
        held = self.lock("Inbox", ".ts_folder_lock", fcntl.LOCK_EX)
        process = self.begin_far("deliver", ANN, toolkit.SAMPLES[0])
        time.sleep(0.5)
        self.assertIsNone(process.poll())
        self.assertEqual(messages(ANN), [])
        os.close(held)
        self.end(process)
        self.assertEqual(len(messages(ANN)), 1)
        self.assertEqual(self.lock_files("Inbox"), FILES)

    def test_a_recount_waits_for_deliveries_and_they_for_it_at_the_gate(self):
        held = self.lock("Inbox", ".ts_folder_lock", fcntl.LOCK_SH)
        recount = self.begin_far("recount", ANN)
        time.sleep(0.5)
        self.assertIsNone(recount.poll())
        delivery = self.begin_far("deliver", ANN, toolkit.SAMPLES[0])
        time.sleep(0.5)
        self.assertIsNone(delivery.poll())  # though the lock is a shared one
        os.close(held)
        self.end(recount)
        self.end(delivery)
        self.assert_counted(ANN)

    def test_folders_above_are_locked_too(self):
        held = self.lock("Work", ".ts_folder_lock", fcntl.LOCK_EX)
        process = self.begin_far("deliver", ANN, "--folder", "Work/2024", toolkit.SAMPLES[0])
        time.sleep(0.5)
        self.assertIsNone(process.poll())
        os.close(held)
        self.end(process)

    def test_a_lock_file_that_was_removed_while_it_was_waited_for(self):
        held = self.lock("Inbox", ".ts_folder_lock", fcntl.LOCK_EX)
        process = self.begin_far("deliver", ANN, toolkit.SAMPLES[0])
        time.sleep(0.5)
        os.unlink(f"{mail(ANN)}/Inbox/.ts_folder_lock")
        second = self.lock("Inbox", ".ts_folder_lock", fcntl.LOCK_EX)
        os.close(held)
        time.sleep(0.5)
        self.assertIsNone(process.poll())
        os.close(second)
        self.end(process)

    def test_a_folder_that_was_removed_while_it_was_waited_for(self):
        held = self.lock("Inbox", ".ts_folder_lock", fcntl.LOCK_EX)
        process = self.begin_far("deliver", ANN, toolkit.SAMPLES[0])
        time.sleep(0.5)
        os.rename(f"{mail(ANN)}/Inbox", f"{mail(ANN)}/../.deleted.x.Inbox.1")
        os.close(held)
        self.end(process)
        self.assertEqual(len(messages(ANN)), 1)

    def test_doctor_finds_nothing(self):
        self.succeed("deliver", ANN, env=far(), stdin=b"x")
        self.succeed("recount", ANN, env=far())
        self.assertEqual(self.lock_files("Inbox"), FILES)
        self.assertEqual(self.succeed("doctor", ANN).out, self.succeed("doctor", ANN, env=far()).out)
        self.assertEqual(toolkit.tsmail("doctor", ANN).code, 0)

    def test_recounts_beside_deliveries(self):
        script = f"""for i in $(seq 25); do "$0" deliver {ANN} "$1" >&2 || exit 1; done"""
        agents = [subprocess.Popen(["bash", "-c", script, TSMAIL, toolkit.SAMPLES[n]], env=far(),
                                   stderr=subprocess.DEVNULL) for n in range(3)]
        while any(agent.poll() is None for agent in agents):
            self.succeed("recount", ANN, env=far())
        self.assertEqual([agent.wait() for agent in agents], [0, 0, 0])
        self.assertEqual(len(messages(ANN)), 75)
        self.assert_counted(ANN)
        self.assertFalse(is_marked(ANN))

    def test_on_a_local_disk_a_delivery_asks_once_which_it_is(self):
        _, calls = traced(["-e", "trace=fstatfs,statfs"], [TSMAIL, "deliver", ANN], stdin=b"x")
        self.assertEqual(len([line for line in calls if line.startswith("fstatfs")]), 1)
        _, calls = traced(["-e", "trace=fstatfs,statfs"],
                          [TSMAIL, "deliver", ANN, "--folder", "Work/2024"], stdin=b"x")
        self.assertEqual(len([line for line in calls if line.startswith("fstatfs")]), 1)


if __name__ == "__main__":
    unittest.main()
