"""Folders: tests, making, sizes, removal, and the walk."""

import errno
import os
import pathlib
import threading
import unittest

from package import MAIL, lines, make_mailbox, tsmail
from tsmail import Folder, ScanFlag, folders


class Case(unittest.TestCase):
    def tearDown(self):
        if os.path.isdir("/var/spool/home"):
            folders.delete_path("/var/spool/home")


class FoldersTest(Case):
    def test_tables(self):
        self.assertEqual(folders.SYSTEM_FOLDERS,
                         ("Inbox", "Drafts", "Sent", "Bulk", "Trash", "SecureMail"))
        self.assertIn(".maildirsize", folders.RESERVED_NAMES)
        self.assertEqual(len(folders.RESERVED_NAMES), 12)

    def test_names(self):
        self.assertEqual([folders.system_folder_number(n) for n in ("Inbox", "SecureMail", "inbox")],
                         [1, 6, 0])
        self.assertEqual(folders.system_parent_number("INBOX/Work"), 1)
        self.assertTrue(folders.is_reserved_name("/a/.replyx"))
        self.assertFalse(folders.may_be_mbox("/a/.replyx"))
        verdict = folders.name_verdict
        self.assertEqual([verdict("Work"), verdict("a/b"), verdict("a/b", path=True), verdict("cur"),
                          verdict("cur", refuse_parts=True)], [0, 1, 0, 0, 2])

    def test_making(self):
        folder = Folder(pathlib.Path(MAIL) / "Inbox")
        self.assertFalse(folder.exists() or folder.has_parts())
        folder.make()
        folder.make()
        self.assertTrue(folder.exists() and folder.has_parts())
        self.assertEqual(sorted(os.listdir(folder)), ["cur", "new", "tmp"])
        self.assertEqual(folder.name, "Inbox")
        with open(f"{MAIL}/file", "w", encoding="utf-8"):
            pass
        with self.assertRaises(NotADirectoryError) as caught:
            Folder(f"{MAIL}/file/x").make()
        self.assertEqual(caught.exception.filename, f"{MAIL}/file/x")
        with self.assertRaises(OSError) as caught:
            Folder("/" + "x/" * 2100).make()
        self.assertEqual(caught.exception.errno, errno.ENAMETOOLONG)

    def test_mbox(self):
        os.makedirs(MAIL)
        path = f"{MAIL}/mbox".encode()
        for text, answer in (("From ann Mon Nov 17 10:00:00 2025\n", True), ("From ann\n", False)):
            with open(path, "w", encoding="utf-8") as file:
                file.write(text)
            self.assertIs(folders.is_mbox(path), answer)

    def test_sizes(self):
        folder = make_mailbox().folder()
        with self.assertRaises(FileNotFoundError) as caught:
            folder.size()
        self.assertEqual(caught.exception.filename, f"{MAIL}/Inbox/.ts_folder_size")
        folder.append_size(10, 1)
        folder.append_size(20, 1)
        self.assertEqual(folder.size(), (30, 2))
        folder.write_size(5, 1)
        self.assertEqual(lines(folder.size_file), ["5 1"])
        folder.write_size(-5, 1)
        with self.assertRaises(tsmail.UnknownTotalsError):
            folder.size()

    def test_scans(self):
        folder = make_mailbox().folder()
        for name, size in (("cur/1.x.y,#F#S#100#E:2,S", 3), ("new/2.x.y", 7)):
            with open(os.path.join(folder, name), "wb") as file:
                file.write(b"x" * size)
        self.assertEqual((folder.part_size(), folder.part_size("new")), (100, 7))
        self.assertEqual(folder.part_size("cur", ScanFlag.FILE_SIZES), 3)
        self.assertEqual(folder.cached_size(), 0)
        self.assertEqual(folder.scanned_size(), 107)
        self.assertEqual(folder.cached_size(), 107)
        self.assertEqual(folder.scanned_size(ScanFlag.TAG_NAMES), 107)
        folder.unlink_message("cur/1.x.y,#F#S#100#E:2,S")
        self.assertEqual(lines(folder.size_file), ["-100 -1"])
        with self.assertRaises(FileNotFoundError):
            folder.unlink_message("cur/nothing")

    def test_caches(self):
        folder = make_mailbox().folder()
        self.assertIsNone(folder.read_cache())
        folder.write_cache(12, 34)
        self.assertEqual((folder.cache_file, folder.read_cache()),
                         (f"{MAIL}/Inbox/.ts_cache", (12, 34)))
        self.assertIsNone(folder.unread_scan_date)
        folder.unread_scan_date = 77
        self.assertEqual(folder.unread_scan_date, 77)
        with self.assertRaises(FileNotFoundError):
            Folder("/var/spool/none").write_cache(1, 2)

    def test_nobody_listens(self):
        with self.assertRaises(FileNotFoundError):
            Folder(MAIL).tell_quota_daemon(1)

    def test_removal(self):
        box = make_mailbox("ann@site.test", "Work", "Work/2024", "Old")
        for folder in ("Work", "Old"):
            with open(f"{MAIL}/{folder}/new/1", "w", encoding="utf-8"):
                pass
        box.folder("Work").empty()
        self.assertEqual(os.listdir(f"{MAIL}/Work/new"), [])
        with self.assertRaises(NotADirectoryError):
            Folder("/etc/passwd").empty()
        box.folder("Work").delete()
        self.assertFalse(os.path.exists(f"{MAIL}/Work"))
        with self.assertRaises(FileNotFoundError):
            box.folder("Work").delete()
        self.assertEqual(folders.free_deleted_path(f"{MAIL}/Old"), f"{MAIL}/.deleted.Old.1")
        folders.schedule_deletion(f"{MAIL}/Old", MAIL, "x")
        self.assertEqual(sorted(os.listdir(MAIL)), [".deleted.x.Old.1", "Inbox"])
        self.assertTrue(folders.is_deleted_name(".deleted.x.Old.1"))
        with self.assertRaises(FileNotFoundError):
            folders.schedule_deletion(f"{MAIL}/Old", MAIL)
        folders.delete_path(f"{MAIL}/.deleted.x.Old.1")
        with self.assertRaises(FileNotFoundError):
            folders.delete_path(f"{MAIL}/.deleted.x.Old.1")
        tsmail.identity.delete_user_file(tsmail.FileKind.MAILPATH, "ann@site.test")
        self.assertEqual(os.listdir(MAIL), [])

    def test_what_a_user_file_of_a_folder_refuses(self):
        make_mailbox("ann@site.test", "Bulk")
        with self.assertRaises(OSError):
            tsmail.identity.delete_user_file(tsmail.FileKind.BULK, "ann@site.test")


class WalkTest(Case):
    NAMES = ["Inbox", "Inbox/Sub", "Work", "Work/2023", "Work/2024", "Work/2024/Q1"]

    def setUp(self):
        self.box = make_mailbox("ann@site.test", *self.NAMES)
        os.chdir("/tmp")

    def test_names_and_records(self):
        found = list(self.box.folders())
        self.assertEqual([folder.name for folder in found], self.NAMES)
        for folder in found:
            self.assertEqual(folder.path, f"{MAIL}/{folder.name}")
            self.assertEqual(folder.stat, os.stat(folder))
            self.assertEqual(folder.stat.st_mtime_ns, os.stat(folder).st_mtime_ns)
        self.assertEqual([each.name for each in self.box.folder("Work").folders()],
                         ["2023", "2024", "2024/Q1"])
        self.assertEqual([each.name for each in tsmail.walk(f"{MAIL}/Work", 2)][0], "Work/2023")

    def test_a_name_that_is_no_text(self):
        self.box.folder(b"\xff").make()
        name = [folder.name for folder in self.box.folders()][-1]
        self.assertEqual(os.fsencode(name), b"\xff")
        self.assertTrue(self.box.folder(name).exists())

    def test_the_working_directory_never_moves(self):
        for number, _ in enumerate(self.box.folders()):
            self.assertEqual(os.getcwd(), "/tmp")
            if number == 2:
                break
        self.assertEqual(os.getcwd(), "/tmp")
        with self.assertRaises(ZeroDivisionError):
            for _ in self.box.folders():
                1 // 0  # pylint: disable=pointless-statement
        self.assertEqual(os.getcwd(), "/tmp")
        walk = self.box.folders()
        next(walk)
        walk.close()
        self.assertEqual(os.getcwd(), "/tmp")

    def test_walks_at_the_same_time(self):
        """Each thread sees all folders, and the working directory where it was."""
        places, counts = set(), []

        def walk():
            for _ in range(50):
                counts.append(len(list(self.box.folders())))
                places.add(os.getcwd())
        threads = [threading.Thread(target=walk) for _ in range(4)]
        for thread in threads:
            thread.start()
        while any(thread.is_alive() for thread in threads):
            places.add(os.getcwd())
        for thread in threads:
            thread.join()
        self.assertEqual((places, set(counts), len(counts)), ({"/tmp"}, {len(self.NAMES)}, 200))

    def test_a_walk_within_a_walk(self):
        pairs = [(a.name, b.name) for a in self.box.folders() for b in self.box.folders()]
        self.assertEqual(len(pairs), len(self.NAMES) ** 2)

    def test_a_directory_that_cannot_be_listed(self):
        for path, error in ((f"{MAIL}/none", FileNotFoundError), ("/etc/passwd", NotADirectoryError)):
            with self.assertRaises(error) as caught:
                list(tsmail.walk(path))
            self.assertEqual(caught.exception.filename, path)
            with self.assertRaises(error):
                tsmail.visit(path, lambda name, stat: 0)
        walk = tsmail.walk(f"{MAIL}/none")  # nothing is looked at before the first folder
        with self.assertRaises(FileNotFoundError):
            next(walk)

    def test_a_visitor_works_in_the_directory_of_the_folder(self):
        def visitor(name, stat):
            self.assertEqual(os.stat(os.path.basename(name)), stat)
            return len(name)
        self.assertEqual(tsmail.visit(MAIL, visitor), sum(map(len, self.NAMES)))
        self.assertEqual(tsmail.visit(MAIL, lambda name, stat: None), 0)
        self.assertEqual(os.getcwd(), "/tmp")

    def test_a_visitors_exception_travels_through(self):
        class Stop(Exception):
            pass
        seen = []

        def visitor(name, _):
            seen.append((name, os.getcwd()))
            if name == "Work/2024":
                raise Stop(name)
        with self.assertRaises(Stop) as caught:
            tsmail.visit(MAIL, visitor)
        self.assertEqual(caught.exception.args, ("Work/2024",))
        self.assertEqual(seen[-1], ("Work/2024", f"{MAIL}/Work"))
        self.assertEqual(len(seen), 5)
        self.assertEqual(os.getcwd(), "/tmp")
        with self.assertRaises(RuntimeError):  # what cannot be converted is an exception, too
            tsmail.visit(MAIL, lambda name, stat: "text")
        self.assertEqual(os.getcwd(), "/tmp")

    def test_a_visitor_may_remove_what_it_visits(self):
        def visitor(name, _):
            if name == "Work":
                folders.delete_path("Work")
            return 1
        self.assertEqual(tsmail.visit(MAIL, visitor), 3)


if __name__ == "__main__":
    unittest.main()
