"""restore, and rm and restore killed at each of their system calls."""

import os
import time
import unittest

from testing.toolkit import (TSMAIL, Kept, SpoolCase, folder_record, held_by_folders, is_marked, mail, mailbox_record,
                             messages, snapshot, write)
from testing.tracing import all_killed, numbered, traced_worker

ANN = "ann@site.test"
HOME = os.path.dirname(mail(ANN))


def scheduled():
    return sorted(name for name in os.listdir(HOME) if name.startswith(".deleted."))


class RestoreCase(SpoolCase):
    def setUp(self):
        super().setUp()
        self.succeed("-q", "create", ANN)
        for folder, size in (("Inbox", 100), ("Work", 20), ("Work/2024", 3)):
            for part in ("cur", "new", "tmp"):
                os.makedirs(f"{mail(ANN)}/{folder}/{part}", exist_ok=True)
            write(f"{mail(ANN)}/{folder}/new/1000000000.1_1.host,#F#S#{size}#E", b"x" * size)
            write(f"{mail(ANN)}/{folder}/.ts_folder_size", f"{size} 1\n")
        write(mail(ANN) + "/.maildirsize", "123 3\n")


class RestoreTest(RestoreCase):
    def test_everything_is_as_before(self):
        before = snapshot(mail(ANN))
        self.succeed("rm", ANN, "Work")
        self.assertEqual((mailbox_record(ANN), len(scheduled())), ((100, 1), 1))
        daemon = self.listen()
        [row] = self.succeed("--json", "restore", ANN, "Work").objects
        self.assertEqual((row["path"], row["action"], row["done"], row["messages"], row["bytes"]),
                         (mail(ANN) + "/Work", "restore", True, 2, 23))
        self.assertEqual(self.told(daemon), [f"S23,F({mail(ANN)}/Work)"])
        after = snapshot(mail(ANN))
        self.assertEqual(after.keys(), before.keys())
        self.assertEqual((mailbox_record(ANN), is_marked(ANN), scheduled()), ((123, 3), False, []))
        self.fail_with(66, "restore", ANN, "Work", saying="scheduled for removal")

    def test_where_it_was_with_the_folders_above(self):
        self.succeed("rm", ANN, "Work/2024")
        self.succeed("rm", ANN, "Work", "--now")
        self.fail_with(66, "restore", ANN, "2024")
        out = self.succeed("restore", ANN, "Work/2024").out
        self.assertEqual(out, f"restored {mail(ANN)}/Work/2024: 1 message (3 B) and 1 other file\n")
        self.assertEqual((messages(ANN, "Work"), mailbox_record(ANN)), ([], (103, 2)))
        self.assertIn("Work/2024", [row["folder"] for row in self.succeed("--json", "folders", ANN).objects])

    def test_the_youngest(self):
        for text in ("old", "young"):
            self.succeed("-q", "deliver", ANN, "--folder", "Work", stdin=text.encode())
            self.succeed("rm", ANN, "Work")
            time.sleep(0.05)
            self.succeed("-q", "create", ANN)
        self.succeed("restore", ANN, "Work")
        self.assertEqual([open(path, encoding="ascii").read() for path in messages(ANN, "Work")], ["young"])
        self.assertEqual(len(scheduled()), 1)

    def test_an_empty_folder_is_replaced_and_no_other(self):
        self.succeed("rm", ANN, "Inbox", "--force")
        self.succeed("-q", "deliver", ANN, stdin=b"new")
        before = snapshot("/var/spool")
        for words in ((), ("--dry-run",)):
            self.fail_with(73, "restore", ANN, "Inbox", *words, saying="not empty")
        self.assertEqual(snapshot("/var/spool"), before)
        for name in ("new", "cur"):
            for path in messages(ANN, "Inbox", (name,)):
                os.unlink(path)
        write(mail(ANN) + "/Inbox/tmp/unfinished", b"x")
        self.fail_with(73, "restore", ANN, "Inbox", saying="not empty")
        os.unlink(mail(ANN) + "/Inbox/tmp/unfinished")
        os.makedirs(mail(ANN) + "/Inbox/Sub/new")
        self.fail_with(73, "restore", ANN, "Inbox", saying="not empty")
        os.removedirs(mail(ANN) + "/Inbox/Sub/new")
        self.succeed("restore", ANN, "Inbox")
        self.assertEqual(len(messages(ANN)), 1)
        self.assertEqual(folder_record(ANN), (100, 1))

    def test_something_else_in_its_place(self):
        self.succeed("rm", ANN, "Work")
        for put in (lambda: write(mail(ANN) + "/Work", "x"), lambda: os.symlink("Inbox", mail(ANN) + "/Work")):
            put()
            self.fail_with(73, "restore", ANN, "Work", saying="something else")
            os.unlink(mail(ANN) + "/Work")
        self.succeed("restore", ANN, "Work")

    def test_folders_without_a_record(self):
        """As other programs schedule them."""
        os.rename(mail(ANN) + "/Work", HOME + "/.deleted.20240229.Work.a.1")
        self.succeed("-q", "recount", ANN)
        self.fail_with(66, "restore", ANN, "Work")
        self.succeed("restore", ANN, "Work.a")
        self.assertEqual(len(messages(ANN, "Work.a")), 1)
        self.assertEqual(mailbox_record(ANN), (123, 3))

    def test_records_that_name_what_is_no_folder(self):
        self.succeed("rm", ANN, "Work")
        record = f"{HOME}/{scheduled()[0]}/.ts_removed_from"
        for text in ("../../bert", "/etc", "", "a\n", "cur", "x" * 5000):
            write(record, text)
            for name in ("../../bert", "/etc"):
                self.fail_with(65, "restore", ANN, name)
            self.succeed("restore", ANN, "Work", "--dry-run")  # goes by the hidden name
        os.unlink(record)
        os.mkfifo(record)
        self.succeed("restore", ANN, "Work")

    def test_dry_run(self):
        self.succeed("rm", ANN, "Work")
        before = snapshot("/var/spool")
        out = self.succeed("restore", ANN, "Work", "--dry-run").out
        self.assertEqual(out, f"would restore {mail(ANN)}/Work: 2 messages (23 B) and 2 other files\n")
        self.assertEqual(snapshot("/var/spool"), before)

    def test_what_a_sweep_has_begun_to_remove_does_not_come_back(self):
        self.succeed("rm", ANN, "Work")
        os.rename(f"{HOME}/{scheduled()[0]}", f"{HOME}/{scheduled()[0]}.swept")
        self.fail_with(66, "restore", ANN, "Work")
        self.succeed("sweep", ANN)
        self.assertEqual(scheduled(), [])


class KilledTest(RestoreCase):
    """The whole command is killed at each system call of its worker."""

    def killed(self, words, prepare, check, counts_left):
        prepare()
        kept = Kept()
        done, calls = traced_worker([], [TSMAIL, *words])
        self.assertEqual(done.code, 0, done)
        changed = set()
        for name, n, line in numbered(calls):
            if name == "exit_group":
                continue
            with self.subTest(call=line):
                kept.put_back()
                traced_worker(all_killed(name, n), [TSMAIL, *words])
                size, count = held_by_folders(ANN)
                changed.add(count)
                self.assertTrue(mailbox_record(ANN) == (size, count) or is_marked(ANN))
                check()
        self.assertEqual(changed, counts_left)

    def nothing_is_lost(self):
        if not messages(ANN, "Work/2024"):
            self.succeed("-q", "recount", ANN)
            self.succeed("restore", ANN, "Work")
            self.succeed("-q", "recount", ANN)
            self.assertEqual(held_by_folders(ANN), (123, 3))
        self.assertEqual(len(messages(ANN, "Work/2024")), 1)

    def test_rm(self):
        self.killed(["rm", ANN, "Work"], self.setUp, self.nothing_is_lost, {1, 3})

    def test_rm_now(self):
        def check():
            if os.path.isdir(mail(ANN) + "/Work/cur"):
                self.succeed("rm", ANN, "Work", "--now")
        self.killed(["rm", ANN, "Work", "--now"], self.setUp, check, {1, 2, 3})

    def test_restore(self):
        def prepare():
            self.setUp()
            self.succeed("-q", "rm", ANN, "Work")
            os.makedirs(mail(ANN) + "/Work")
        self.killed(["restore", ANN, "Work"], prepare, self.nothing_is_lost, {1, 3})


if __name__ == "__main__":
    unittest.main()
