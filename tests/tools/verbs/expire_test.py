"""expire: which messages go, which stay, what is counted; and a kill at each of its system calls."""

import os
import time
import unittest

from testing.toolkit import (TSMAIL, Kept, SpoolCase, as_nobody, folder_record, is_marked, mail, mailbox_record,
                             messages, own_by_nobody, snapshot, tsmail, write)
from testing.tracing import all_killed, numbered, traced_worker

ANN, BERT, CARL = "ann@site.test", "bert@site.test", "carl@other.test"
DAY = 86400


class ExpireCase(SpoolCase):
    def setUp(self):
        super().setUp()
        self.succeed("create", ANN, "--folder", "Trash/Sub")

    def put(self, age, flags=None, folder="Trash", size=10, address=ANN, number=[0]):
        """A message whose name says that it came `age` seconds ago, or any name as it stands."""
        number[0] += 1
        name = age if isinstance(age, str) else f"{int(time.time()) - age}.1_{number[0]}.host,#F#S#{size}#E"
        path = f"{mail(address)}/{folder}/" + ("new/" + name if flags is None else f"cur/{name}:2,{flags}")
        write(path, b"x" * size)
        return path

    def settle(self, *addresses):
        """Records as they are kept, and change times in the past."""
        self.succeed("-q", "recount", *(addresses or ("--all",)))
        begun = time.time()
        while time.time() < begun + 2.1:
            time.sleep(0.1)

    def names(self, folder="Trash", address=ANN):
        return [os.path.basename(path) for path in messages(address, folder)]


class ChoiceTest(ExpireCase):
    def test_what_is_older_than_its_age_goes(self):
        old, flagged, seen = self.put(40 * DAY), self.put(40 * DAY, "FS"), self.put(31 * DAY, "S")
        young, below = self.put(29 * DAY), self.put(40 * DAY, folder="Trash/Sub")
        inbox = self.put(40 * DAY, folder="Inbox")
        self.settle()
        daemon = self.listen()
        done = self.succeed("expire", ANN, "--folder", "Trash", "--older", "30d", "--by", "received")
        self.assertEqual(done.out, "ann@site.test Trash: removed 2 messages (20 B)\n")
        self.assertEqual([os.path.exists(path) for path in (old, seen, flagged, young, below, inbox)],
                         [False, False, True, True, True, True])
        self.assertEqual((folder_record(ANN, "Trash"), mailbox_record(ANN), is_marked(ANN)),
                         ((20, 2), (40, 4), False))
        self.assertEqual(self.told(daemon), [f"S-20,F({mail(ANN)}/Trash)"])
        self.succeed("expire", ANN, "--folder", "Trash", "--folder", "Trash/Sub", "--older", "30d", "--by", "received",
                     "--flagged")
        self.assertFalse(os.path.exists(flagged) or os.path.exists(below))
        self.assertEqual((folder_record(ANN, "Trash/Sub"), mailbox_record(ANN)), ((0, 0), (20, 2)))

    def test_saved_is_the_later_of_name_and_change_time(self):
        moved, claimed, plain = self.put(40 * DAY), self.put(-DAY), self.put(10)
        self.succeed("expire", ANN, "--folder", "Trash", "--older", "1h")
        self.assertEqual(len(self.names()), 3)  # all of them were put there just now
        self.settle()
        self.succeed("expire", ANN, "--folder", "Trash", "--older", "1s")
        self.assertEqual([os.path.exists(path) for path in (moved, claimed, plain)], [False, True, False])

    def test_exactly_the_age_stays(self):
        path = self.put(5, "S")
        received = int(os.path.basename(path).split(".")[0])
        for seconds, stays in ((0, True), (1, False)):
            while time.time() < received + 10 + seconds:
                time.sleep(0.01)
            self.succeed("expire", ANN, "--folder", "Trash", "--older", "10s", "--by", "received")
            if time.time() < received + 11 + seconds:
                self.assertEqual(os.path.exists(path), stays, seconds)

    def test_messages_without_a_date_go_by_their_files(self):
        path = self.put("plain")
        os.utime(path, (0, time.time() - 40 * DAY))
        fresh = self.put("fresh")
        self.succeed("expire", ANN, "--folder", "Trash", "--older", "30d")
        self.assertEqual(self.names(), ["fresh", "plain"])
        self.settle()
        self.succeed("expire", ANN, "--folder", "Trash", "--older", "30d", "--by", "received")
        self.assertEqual(self.names(), ["fresh"])
        self.succeed("expire", ANN, "--folder", "Trash", "--older", "1s")
        self.assertFalse(os.path.exists(fresh))
        self.assertEqual((folder_record(ANN, "Trash"), mailbox_record(ANN)), ((0, 0), (0, 0)))

    def test_what_is_not_a_message_stays(self):
        old = self.put(40 * DAY)
        trash = mail(ANN) + "/Trash"
        name = "1000000000.1_1.host,#F#S#1#E"
        os.symlink(old, f"{trash}/cur/{name}")
        os.mkdir(f"{trash}/new/{name}")
        os.mkfifo(f"{trash}/cur/1000000001.1_1.host")
        for place in ("new/." + name, "tmp/" + name):
            write(f"{trash}/{place}", b"x")
        before = snapshot(trash)
        self.settle()
        self.succeed("expire", ANN, "--folder", "Trash", "--older", "0s", "--by", "received")
        after = snapshot(trash)
        self.assertEqual(set(before) - set(after), {old})

    def test_dry_run(self):
        self.put(40 * DAY)
        self.put("plain")
        self.settle()
        before = snapshot("/var/spool")
        daemon = self.listen()
        words = ("expire", ANN, "--folder", "Trash", "--older", "1s", "--dry-run")
        self.assertEqual(self.succeed(*words).out, "ann@site.test Trash: would remove 2 messages (20 B)\n")
        [row] = self.succeed("--json", *words).objects
        self.assertEqual((row["done"], row["messages"], row["bytes"]), (False, 2, 20))
        self.assertEqual((snapshot("/var/spool"), self.told(daemon)), (before, []))

    def test_all_mailboxes(self):
        self.succeed("create", BERT)
        self.succeed("create", CARL, "--folder", "Extra")
        for address in (ANN, BERT, CARL):
            self.put(40 * DAY, address=address)
        self.put(40 * DAY, folder="Extra", address=CARL)
        self.settle()
        words = ("expire", "--folder", "Extra", "--folder", "Trash", "--older", "30d", "--by", "received")
        dry = self.succeed(*words, "--all", "--dry-run").lines
        self.assertEqual(dry, ["carl@other.test Extra: would remove 1 message (10 B)"] +
                         [f"{address} Trash: would remove 1 message (10 B)" for address in (CARL, ANN, BERT)])
        rows = self.succeed("--json", *words, "--domain", "site.test", "--jobs", "2").objects
        self.assertEqual([(row["address"], row["folder"], row["messages"]) for row in rows],
                         [(ANN, "Trash", 1), (BERT, "Trash", 1)])
        self.assertEqual(len(self.succeed(*words, "--all").lines), 2)
        self.assertEqual(self.succeed(*words, "--all").out, "")
        self.assertEqual([mailbox_record(address) for address in (ANN, BERT, CARL)], [(0, 0)] * 3)

    def test_thousands(self):
        """More than are looked at at a time."""
        trash = mail(ANN) + "/Trash"
        for n in range(10100):
            write(f"{trash}/cur/1000000000.1_{n}.host,#F#S#3#E:2,S", b"xyz")
        self.settle()
        out = self.succeed("expire", ANN, "--folder", "Trash", "--older", "30d", "--by", "received").out
        self.assertIn("10100 messages", out)
        self.assertEqual((self.names(), mailbox_record(ANN), folder_record(ANN, "Trash")), ([], (0, 0), (0, 0)))


class RefusalTest(ExpireCase):
    def test_what_is_refused(self):
        self.put(40 * DAY)
        os.symlink(mail(ANN) + "/Trash", mail(ANN) + "/Link")
        before = snapshot("/var/spool")
        older = ("--older", "0s")
        self.fail_with(64, "expire", ANN, *older, saying="--folder")
        self.fail_with(64, "expire", ANN, "--folder", "Trash", saying="--older")
        self.fail_with(64, "expire", "--folder", "Trash", *older)
        self.fail_with(64, "expire", ANN, "--all", "--folder", "Trash", *older)
        self.fail_with(64, "expire", ANN, "--folder", "Trash", "--older", "30")
        self.fail_with(64, "expire", ANN, "--folder", "Trash", *older, "--by", "age", saying="saved")
        self.fail_with(65, "expire", ANN, "--folder", "../Inbox", *older)
        self.fail_with(65, "expire", ANN, "--folder", "Link", *older, saying="symbolic link")
        self.fail_with(66, "expire", ANN, "--folder", "None", *older, saying="no folder")
        self.fail_with(67, "expire", BERT, "--folder", "Trash", *older)
        self.assertEqual(snapshot("/var/spool"), before)

    def test_a_missing_folder_does_not_keep_the_others(self):
        self.put(40 * DAY)
        self.settle()
        done = tsmail("expire", ANN, "--folder", "None", "--folder", "Trash", "--older", "1s")
        self.assertEqual((done.code, self.names()), (66, []), done)

    def test_linked_parts_are_left_alone(self):
        path = self.put(40 * DAY, folder="Inbox")
        os.rmdir(mail(ANN) + "/Trash/new")
        os.symlink(mail(ANN) + "/Inbox/new", mail(ANN) + "/Trash/new")
        self.settle(ANN)
        done = tsmail("expire", ANN, "--folder", "Trash", "--older", "1s")
        self.assertEqual((done.code, os.path.exists(path)), (73, True), done)

    def test_what_may_not_go_is_said(self):
        self.put(40 * DAY)
        self.put(40 * DAY, "S")
        self.settle()
        own_by_nobody("/var/spool")
        os.chmod(mail(ANN) + "/Trash/new", 0o555)
        done = tsmail("expire", ANN, "--folder", "Trash", "--older", "1d", "--by", "received", **as_nobody())
        os.chmod(mail(ANN) + "/Trash/new", 0o755)
        self.assertEqual(done.code, 73, done)
        self.assertRegex(done.err, "Trash: 1 message could not be removed: Permission denied")
        self.assertIn("removed 1 message (10 B)", done.out)
        self.assertEqual((folder_record(ANN, "Trash"), mailbox_record(ANN), is_marked(ANN)), ((10, 1),) * 2 + (False,))

    def test_nothing_goes_that_cannot_be_counted(self):
        self.put(40 * DAY)
        self.settle()
        own_by_nobody("/var/spool")
        os.chmod(mail(ANN), 0o555)
        done = tsmail("expire", ANN, "--folder", "Trash", "--older", "1d", "--by", "received", **as_nobody())
        os.chmod(mail(ANN), 0o755)
        self.assertEqual((done.code, len(self.names())), (73, 1), done)
        self.assertRegex(done.err, r"\.maildirsize\.dirty: Permission denied")

    def test_a_record_that_cannot_be_corrected(self):
        self.put(40 * DAY)
        self.settle()
        os.unlink(mail(ANN) + "/.maildirsize")
        os.mkdir(mail(ANN) + "/.maildirsize")
        done = self.succeed("expire", ANN, "--folder", "Trash", "--older", "1s")
        self.assertIn("needs a recount", done.err)
        self.assertTrue(is_marked(ANN))

    def test_a_mark_that_was_there_stays(self):
        self.put(40 * DAY)
        self.settle()
        self.succeed("quota", "reset", ANN)
        self.succeed("expire", ANN, "--folder", "Trash", "--older", "1s")
        self.assertEqual((self.names(), is_marked(ANN), mailbox_record(ANN)), ([], True, (0, 0)))


class KilledTest(ExpireCase):
    WORDS = [TSMAIL, "expire", ANN, "--folder", "Trash", "--older", "1s"]

    def prepare(self):
        self.setUp()
        for n in range(3):
            name = f"1000000000.1_{n}.host,#F#S#10#E"
            write(f"{mail(ANN)}/Trash/" + ("new/" + name if n else f"cur/{name}:2,S"), b"x" * 10)
        write(f"{mail(ANN)}/.maildirsize", "30 3\n")
        write(f"{mail(ANN)}/Trash/.ts_folder_size", "30 3\n")

    def begin_old(self):
        """The clock of the file system cannot be set back, so the age is none."""
        return [word if word != "1s" else "0s" for word in self.WORDS] + ["--by", "received"]

    def test_totals_are_right_or_marked(self):
        self.prepare()
        kept = Kept()
        words = self.begin_old()
        done, calls = traced_worker([], words)
        self.assertFalse([line for line in calls if "/etc/localtime" in line][1:], "once, not for each message")
        self.assertEqual((done.code, self.names(), mailbox_record(ANN)), (0, [], (0, 0)), done)
        removed = set()
        for name, n, line in numbered(calls):
            if name == "exit_group":
                continue
            with self.subTest(call=line):
                kept.put_back()
                traced_worker(all_killed(name, n), words)
                left = len(self.names())
                removed.add(left)
                right = mailbox_record(ANN) == folder_record(ANN, "Trash") == (10 * left, left)
                self.assertTrue(right or is_marked(ANN))
                self.succeed(*words[1:])
                self.assertEqual(self.names(), [])
        self.assertEqual(removed, {0, 1, 2, 3})
        self.assertGreater(len(calls), 20)


if __name__ == "__main__":
    unittest.main()
