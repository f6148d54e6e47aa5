"""folders: the tree with counts and sizes."""

import os
import shutil
import unittest

from testing.toolkit import SYSTEM_FOLDERS, SpoolCase, as_nobody, mail, mode, own_by_nobody, snapshot, tsmail

ANN = "ann@site.test"


class FoldersTest(SpoolCase):
    def setUp(self):
        super().setUp()
        self.succeed("create", ANN, "--folder", "Work/2024")

    def put(self, place, size=0):
        with open(f"{mail(ANN)}/{place}", "wb") as file:
            file.write(b"x" * size)

    def shown(self):
        return {row["folder"]: (row["messages"], row["new"], row["bytes"])
                for row in self.succeed("--json", "folders", ANN).objects}

    def test_tree_in_order(self):
        rows = self.succeed("--json", "folders", "ann@site.test").objects
        self.assertEqual([row["folder"] for row in rows],
                         sorted(SYSTEM_FOLDERS) + ["Work", "Work/2024"])
        self.assertEqual(rows[-1]["path"], mail(ANN) + "/Work/2024")
        table = self.succeed("folders", ANN).lines
        self.assertRegex(table[0], "^folder +messages +new +size$")
        self.assertRegex(table[-3], "^Work +0 +0 +0 B$")
        self.assertRegex(table[-2], "^  2024 +0 +0 +0 B$")
        self.assertRegex(table[-1], "^total +0 +0 +0 B$")

    def test_counts_and_sizes(self):
        self.put("Inbox/new/a,#F#S#1000#E", 3)  # the name counts
        self.put("Inbox/cur/b:2,S", 500)        # no size in the name: the file counts
        self.put("Inbox/cur/c,#F#S#24#E:2,S", 0)
        self.put("Inbox/tmp/d,#F#S#9#E", 9)     # on its way
        self.put("Work/2024/cur/e", 7)
        self.assertEqual(self.shown(), {**{name: (0, 0, 0) for name in SYSTEM_FOLDERS + ["Work"]},
                                        "Inbox": (3, 1, 1524), "Work/2024": (1, 0, 7)})
        table = self.succeed("folders", ANN).out
        self.assertRegex(table, r"(?m)^Inbox +3 +1 +1\.5 KiB$")
        self.assertRegex(table, r"(?m)^total +4 +1 +1\.5 KiB$")

    def test_what_is_no_message(self):
        self.put("Inbox/new/.hidden", 5)
        os.mkdir(mail(ANN) + "/Inbox/cur/directory")
        os.symlink("/etc/passwd", mail(ANN) + "/Inbox/cur/link")
        os.mkfifo(mail(ANN) + "/Inbox/cur/fifo,#F#S#9#E")
        self.assertEqual(self.shown()["Inbox"], (0, 0, 0))

    def test_sizes_that_somebody_made_up(self):
        self.put("Inbox/new/a,#F#S#9223372036854775807#E")
        self.put("Inbox/new/b,#F#S#9223372036854775807#E")
        self.put("Inbox/new/c,#F#S#99999999999999999999999#E")
        self.put("Inbox/new/d,#F#S#-5#E", 2)
        self.assertEqual(self.shown()["Inbox"], (4, 4, 2**64 - 1))
        self.assertRegex(self.succeed("folders", ANN).out, r"Inbox +4 +4 +16\.0 EiB")

    def test_hostile_names_are_shown_escaped(self):
        name = "evil\x1b[2J\u202e\u009b"
        for part in ("cur", "new", "tmp"):
            os.makedirs(f"{mail(ANN)}/{name}/{part}")
        out = self.succeed("folders", ANN).out
        self.assertIn("evil\\x1b[2J\\xe2\\x80\\xae\\xc2\\x9b", out)
        self.assertNotIn("\x1b", out)
        self.assertIn(name, self.shown())

    def test_nothing_is_changed(self):
        self.put("Inbox/new/a", 3)
        before = snapshot("/var/spool")
        self.succeed("folders", ANN)
        self.assertEqual(snapshot("/var/spool"), before)

    def test_missing_parts_are_empty(self):
        shutil.rmtree(mail(ANN) + "/Inbox/new")
        with open(mail(ANN) + "/Inbox/.maildirfolder", "wb"):
            pass
        self.assertEqual(self.shown()["Inbox"], (0, 0, 0))

    def test_the_folders_that_all_verbs_count(self):
        shutil.copytree(mail(ANN) + "/Inbox", mail(ANN) + "/.deleted..Old.1")
        os.symlink("Work", mail(ANN) + "/Also-Work")  # counted once
        self.put("Work/2024/cur/a", 3)
        self.put(".deleted..Old.1/cur/a", 3)
        names = list(self.shown())
        self.assertEqual(names, [row["folder"] for row in self.succeed("--json", "size", ANN).objects[:-1]])
        self.assertNotIn(".deleted..Old.1", names)
        self.assertEqual(len(names), len(SYSTEM_FOLDERS) + 2)

    def test_a_directory_that_cannot_be_listed_is_said(self):
        own_by_nobody("/var/spool/home")
        os.chmod(mail(ANN) + "/Work", 0)
        done = tsmail("folders", ANN, **as_nobody())
        os.chmod(mail(ANN) + "/Work", 0o700)
        self.assertEqual(done.code, 66, done)
        self.assertIn("/Work: Permission denied", done.err)
        self.assertNotIn("Work", done.out)

    def test_no_mailbox(self):
        self.fail_with(67, "folders", "bob@site.test", saying="no such mailbox")

    def test_what_cannot_be_read_is_said(self):
        self.put("Work/cur/a", 3)
        own_by_nobody("/var/spool/home")
        os.chmod(mail(ANN) + "/Inbox/cur", 0)
        done = tsmail("folders", ANN, **as_nobody())
        self.assertEqual(done.code, 66, done)
        self.assertIn("Inbox: Permission denied", done.err)
        self.assertRegex(done.out, r"(?m)^Work +1 +0 +3 B$")
        os.chmod(mail(ANN) + "/Inbox/cur", 0o700)
        self.assertEqual(mode(mail(ANN) + "/Inbox/cur"), 0o700)


if __name__ == "__main__":
    unittest.main()
