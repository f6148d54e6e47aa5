"""size, tag, messages: the output about folders and their sizes, and tagging."""

import fcntl
import os
import time
import unittest

from testing.toolkit import (SYSTEM_FOLDERS, Lock, SpoolCase, as_nobody, content, folder_record,
                             is_marked, mail, mailbox_record, messages, own_by_nobody, snapshot,
                             tsmail, write)

ANN = "ann@site.test"


class SizeCase(SpoolCase):
    def setUp(self):
        super().setUp()
        self.succeed("create", ANN, "--folder", "Work/2024")

    def put(self, place, size=0):
        write(f"{mail(ANN)}/{place}", b"x" * size)

    def deliver(self, size, folder="Inbox"):
        return self.succeed("deliver", ANN, "--folder", folder, stdin=b"x" * size).lines[0]


class SizeTest(SizeCase):
    def rows(self, *words):
        return {row.get("folder", "mailbox"): row
                for row in self.succeed("--json", "size", ANN, *words).objects}

    def test_kept_cached_and_actual_side_by_side(self):
        self.deliver(1000)
        self.deliver(24, "Work/2024")
        self.put("Work/cur/by-hand", 7)
        write(mail(ANN) + "/Work/.ts_cache", "mtime=5\nsize=1536\n")
        write(mail(ANN) + "/Work/2024/.ts_cache", "mtime=5,size=24")
        rows = self.rows()
        self.assertEqual(list(rows), sorted(SYSTEM_FOLDERS) + ["Work", "Work/2024", "mailbox"])

        def numbers(row):
            return [row[key] for key in ("kept_bytes", "kept_messages", "cached_bytes",
                                         "actual_bytes", "actual_messages", "agrees")]
        self.assertEqual(numbers(rows["Inbox"]), [1000, 1, None, 1000, 1, True])
        self.assertEqual(numbers(rows["Work"]), [None, None, 1536, 7, 1, False])
        self.assertEqual(numbers(rows["Work/2024"]), [24, 1, 24, 24, 1, True])
        self.assertEqual(numbers(rows["Sent"]), [None, None, None, 0, 0, True])
        self.assertEqual((rows["mailbox"]["address"], rows["mailbox"]["path"]), (ANN, mail(ANN)))
        self.assertEqual({key: rows["mailbox"][key] for key in (
            "kept_bytes", "kept_messages", "actual_bytes", "actual_messages", "agrees", "dirty",
            "kept_damaged")},
            {"kept_bytes": 1024, "kept_messages": 2, "actual_bytes": 1031, "actual_messages": 3,
             "agrees": False, "dirty": False, "kept_damaged": False})
        table = self.succeed("size", ANN).lines
        self.assertRegex(table[0], "^folder +kept +size +cached +actual +size$")
        self.assertRegex(table[-3], "^Work +- +- +1.5 KiB +1 +7 B +differs$")
        self.assertRegex(table[-2], "^Work/2024 +1 +24 B +24 B +1 +24 B$")
        self.assertRegex(table[-1], "^mailbox +2 +1.0 KiB +- +3 +1.0 KiB +differs$")

    def test_one_folder(self):
        self.deliver(5, "Work/2024")
        [row] = self.succeed("--json", "size", ANN, "Work/2024").objects
        self.assertEqual((row["folder"], row["path"], row["kept_bytes"], row["actual_messages"]),
                         ("Work/2024", mail(ANN) + "/Work/2024", 5, 1))
        self.assertEqual(len(self.succeed("size", ANN, "Work/2024").lines), 2)
        self.fail_with(66, "size", ANN, "None", saying='no folder "None"')
        self.fail_with(65, "size", ANN, "../Inbox")
        self.fail_with(67, "size", "bert@site.test")

    def test_damage_and_the_mark_are_shown_and_nothing_is_changed(self):
        self.deliver(5)
        for text in ("99999999999999999999 1\n", "5 1\n-6 -1\n", "9223372036854775807 1\n1 1\n",
                     "5 1\n0 -9223372036854775808\n0 -5\n"):
            write(mail(ANN) + "/Inbox/.ts_folder_size", text)
            before = snapshot("/var/spool")
            row = self.rows("Inbox")["Inbox"]
            self.assertEqual((row["kept_bytes"], row["kept_damaged"], row["agrees"]),
                             (None, True, False), text)
            self.assertRegex(self.succeed("size", ANN, "Inbox").lines[1], "^Inbox +- +damaged +- ")
            self.assertEqual(snapshot("/var/spool"), before)
        write(mail(ANN) + "/.maildirsize.dirty", "")
        self.assertTrue(self.rows()["mailbox"]["dirty"])
        self.assertIn("marked for a recount", self.succeed("size", ANN).lines[-1])

    def test_lines_are_read_as_the_library_reads_them(self):
        rows = [("0S, 0C\n5 1\n", (5, 1)), ("\n 7\t2 x\n3\n", (7, 2)), ("5 1", (5, 1)),
                ("x" * 254 + "9 2\n", (9, 2)), ("x" * 253 + "9 2\n", (0, 0)), ("", (0, 0)),
                ("9 2\n#1 1\n4 4\n", (13, 6)), ("1 1\n" * 3000, (3000, 3000)),
                ("5 1\n-2 0\n", (3, 1)), ("+5 +1\n", (5, 1))]
        for text, total in rows:
            write(mail(ANN) + "/Inbox/.ts_folder_size", text)
            row = self.rows("Inbox")["Inbox"]
            self.assertEqual((row["kept_bytes"], row["kept_messages"]), total, text[:20])

    def test_what_cannot_be_read_is_said(self):
        own_by_nobody("/var/spool/home")
        os.chmod(mail(ANN) + "/Work/cur", 0)
        done = tsmail("size", ANN, **as_nobody())
        os.chmod(mail(ANN) + "/Work/cur", 0o700)
        self.assertEqual(done.code, 66, done)
        self.assertIn("/Work: Permission denied", done.err)


class TagTest(SizeCase):
    def names(self, folder, sub):
        return sorted(os.listdir(f"{mail(ANN)}/{folder}/{sub}"))

    def test_new_and_cur_but_never_tmp(self):
        self.put("Inbox/new/a", 10)
        self.put("Inbox/cur/b:2,S", 20)
        self.put("Inbox/cur/c,U5:2,RS", 3)
        self.put("Inbox/tmp/d", 4)
        self.put("Inbox/cur/e,#F#S#99#E:2,", 1)
        self.put("Work/2024/new/f", 5)
        self.succeed("recount", ANN)
        daemon = self.listen()
        before = mailbox_record(ANN), folder_record(ANN)
        done = self.succeed("tag", ANN)
        self.assertEqual(done.lines, ["Inbox: 3 messages tagged", "Work/2024: 1 message tagged"])
        self.assertEqual(self.names("Inbox", "new"), ["a,#F#S#10#E"])
        self.assertEqual(self.names("Inbox", "cur"),
                         ["b,#F#S#20#E:2,S", "c,#F#S#3#E,U5:2,RS", "e,#F#S#99#E:2,"])
        self.assertEqual(self.names("Inbox", "tmp"), ["d"])
        self.assertEqual(self.names("Work/2024", "new"), ["f,#F#S#5#E"])
        # No size changed: the totals stay true, and the daemon is told nothing.
        self.assertEqual((mailbox_record(ANN), folder_record(ANN)), before)
        self.assertEqual(self.told(daemon), [])
        self.assertTrue(all(row["agrees"] for row in self.succeed("--json", "size", ANN).objects))
        self.assertEqual(self.succeed("tag", ANN).out, "")

    def test_one_folder(self):
        self.put("Inbox/new/a", 10)
        self.put("Work/new/b", 10)
        self.assertEqual(self.succeed("--json", "tag", ANN, "Work").objects,
                         [{"folder": "Work", "tagged": 1, "left": 0}])
        self.assertEqual(self.names("Inbox", "new"), ["a"])
        self.fail_with(66, "tag", ANN, "None", saying="no folder")
        self.fail_with(65, "tag", ANN, "a/../b")
        self.fail_with(67, "tag", "bert@site.test")

    def test_what_cannot_be_tagged_is_said_and_stays(self):
        long = "x" * 250
        self.put("Inbox/new/" + long, 1)
        self.put("Inbox/new/a", 1)
        done = self.succeed("tag", ANN)
        self.assertEqual(done.lines, ["Inbox: 1 message tagged"])
        self.assertIn("Inbox: 1 message could not be tagged", done.err)
        self.assertEqual(self.names("Inbox", "new"), ["a,#F#S#1#E", long])

    def test_waits_for_who_holds_the_folder(self):
        self.put("Inbox/new/a", 1)
        with Lock(mail(ANN) + "/Inbox", fcntl.LOCK_SH):
            process = self.begin("tag", ANN)
            time.sleep(0.3)
            self.assertIsNone(process.poll())
            self.assertEqual(self.names("Inbox", "new"), ["a"])
        self.end(process)
        self.assertEqual(self.names("Inbox", "new"), ["a,#F#S#1#E"])


class MessagesTest(SizeCase):
    NAME = "1763275200.1_2_3.h#Q#6B9Ha0q3004242,#F#S#2048#E"

    def test_dates_sizes_and_flags(self):
        self.put(f"Inbox/cur/{self.NAME}:2,FRS", 1)
        self.put("Inbox/new/plain", 30)
        self.put("Inbox/tmp/waiting", 3)
        self.put("Inbox/cur/.hidden", 3)
        rows = self.succeed("--json", "messages", ANN, "Inbox").objects
        self.assertEqual(rows, [
            {"name": "plain", "place": "new", "received": None, "created": None, "bytes": 30,
             "flags": ""},
            {"name": self.NAME + ":2,FRS", "place": "cur", "received": rows[1]["received"],
             "created": 1763275200, "bytes": 2048, "flags": "FRS"}])
        # 6, B, 9, H, a, 0: year 66 (of the 60 from 2020: 2026), month 11 + 1, and so on.
        self.assertEqual(time.gmtime(rows[1]["received"])[:6], (2026, 12, 9, 17, 36, 0))
        table = self.succeed("messages", ANN, "Inbox").lines
        self.assertRegex(table[0], r"^received \(UTC\) +created \(UTC\) +size +place +flags +name$")
        self.assertRegex(table[1], "^- +- +30 B +new +plain$")
        self.assertRegex(table[2], "^2026-12-09 17:36:00  2025-11-16 06:40:00  2.0 KiB +cur +FRS +1")

    def test_names_from_strangers(self):
        self.put("Inbox/new/99999999999999999999.x", 1)
        self.put("Inbox/new/9999999999999.x", 1)
        self.put("Inbox/new/evil\x1b[2J", 1)
        done = self.succeed("messages", ANN, "Inbox")
        self.assertNotIn("\x1b", done.out)
        self.assertIn("evil\\x1b[2J", done.out)
        rows = self.succeed("--json", "messages", ANN, "Inbox").objects
        self.assertEqual({row["created"] for row in rows}, {None})

    def test_what_was_delivered(self):
        path = self.deliver(17, "Work/2024")
        before = snapshot("/var/spool")
        [row] = self.succeed("--json", "messages", ANN, "Work/2024").objects
        self.assertEqual((row["name"], row["bytes"], row["place"]),
                         (os.path.basename(path), 17, "new"))
        written = os.stat(path).st_mtime
        for key in ("received", "created"):
            self.assertLess(abs(row[key] - written), 5)
        self.assertEqual(snapshot("/var/spool"), before)
        self.assertEqual(content(path), b"x" * 17)
        self.assertEqual((messages(ANN, "Work/2024"), is_marked(ANN)), ([path], False))

    def test_what_is_refused(self):
        self.fail_with(66, "messages", ANN, "None", saying="no folder")
        self.fail_with(65, "messages", ANN, "..")
        self.fail_with(67, "messages", "bert@site.test", "Inbox")
        self.fail_with(64, "messages", ANN)
        self.assertEqual(len(self.succeed("messages", ANN, "Inbox").lines), 1)


if __name__ == "__main__":
    unittest.main()
