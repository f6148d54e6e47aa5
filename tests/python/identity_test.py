"""Mailboxes: fields, paths, comparison, totals."""

import errno
import os
import pathlib
import re
import unittest

from package import MAIL, SOURCE, make_mailbox, tsmail
from tsmail import FileKind, Mailbox, MailboxType, identity


class IdentityTest(unittest.TestCase):
    def test_fields(self):
        box = Mailbox("Ann.Lee+Work@Site.Test")
        self.assertEqual(
            (box.type, box.user_type, box.tilde_name, box.local, box.bare_local, box.tag, box.domain,
             box.address, box.bare_address),
            (MailboxType.USER, 1, "ann.lee~site.test", "ann.lee+Work", "ann.lee", "Work",
             "site.test", "ann.lee+Work@site.test", "ann.lee@site.test"))

    def test_paths(self):
        box = Mailbox("ann+Work@site.test")
        home = "/var/spool/home/site.test/ann~site.test"
        self.assertEqual((box.home, box.mail, box.pref, box.trash),
                         (home, f"{home}/mail", f"{home}/pref", "/var/spool/home/sys_arch/.Trash"))
        self.assertEqual(box.folder_path("Sent"), f"{home}/mail/Sent")
        self.assertEqual(box.index_path("Sent"), f"{home}/index/Sent")
        self.assertEqual((box.drop_name(), box.drop_path("")), ("Work", f"{home}/mail/Work"))
        self.assertEqual(box.drop_name("Bulk"), "Bulk")
        self.assertEqual(box.file(FileKind.PREF_FILE), f"{home}/pref/ann~site.test.pref")
        self.assertEqual(identity.user_file(FileKind.PREF_FILE, "ann@site.test"),
                         box.file(FileKind.PREF_FILE))
        self.assertEqual((box.folder("Sent").path, box.drop().name), (f"{home}/mail/Sent", "Work"))

    def test_types(self):
        self.assertEqual(Mailbox("ann@site.test", MailboxType.LOCAL).home,
                         "/var/spool/home.local/site.test/ann~site.test")
        self.assertEqual(Mailbox("/x/y", MailboxType.GIVEN_PATH).mail, "/x/y")
        none = Mailbox()
        self.assertEqual((none.type, none.mail), (MailboxType.NONE, "/mail"))
        # A field that is left is that of the other one.
        box = Mailbox("ann+work@site.test")
        self.assertEqual(box.parsed("bob").address, "bob+work@site.test")
        self.assertEqual(box.initialised("bob@b.test").address, "bob+work@b.test")
        self.assertEqual(box.with_type(MailboxType.LOCAL).home,
                         "/var/spool/home.local/site.test/ann~site.test")
        self.assertEqual((box.address, box.type), ("ann+work@site.test", MailboxType.USER))

    def test_comparison(self):
        a, b = Mailbox("a@site.test"), Mailbox("b@site.test")
        self.assertTrue(a == Mailbox("A@Site.test") and a != b and a < b and b > a)
        self.assertNotEqual(a, "a@site.test")
        self.assertEqual(a.with_type(MailboxType.LOCAL), b.with_type(MailboxType.LOCAL))
        with self.assertRaises(TypeError):
            hash(a)

    def test_a_direct_mailbox_has_no_paths(self):
        box = Mailbox("Folder", MailboxType.DIRECT)
        self.assertEqual((box.tilde_name, box.folder_path("x")), ("Folder", "x"))
        for question in (lambda: box.home, lambda: box.drop_path(), lambda: box.domain,
                         lambda: box.append_size(1, 1)):
            with self.assertRaises(tsmail.NoLayoutError) as caught:
                question()
            self.assertIsInstance(caught.exception, OSError)
            self.assertEqual((caught.exception.errno, caught.exception.code), (errno.ENOTSUP, 4))
            self.assertIn("Not Implimented", str(caught.exception))

    def test_texts_of_every_kind(self):
        for text in (b"ann@site.test", pathlib.PurePath("ann@site.test")):
            self.assertEqual(Mailbox(text).address, "ann@site.test")
        # What is no UTF-8 goes through as it is.
        odd = Mailbox(b"\xff@site.test").folder_path(b"\xfe")
        self.assertEqual(os.fsencode(odd),
                         b"/var/spool/home/site.test/\xff~site.test/mail/\xfe")
        self.assertEqual(Mailbox("ä@site.test").local, "ä")
        for bad, error in (("a\0b", ValueError), (b"a\0b", ValueError), (1, TypeError),
                           (None, TypeError), (["a"], TypeError)):
            with self.subTest(bad=bad), self.assertRaises(error):
                Mailbox(bad)

    def test_constants(self):
        self.assertEqual((Mailbox.MAIL_PATH_PREFIX, Mailbox.ADMIN_USER), ("/var/spool/home", "admin"))

    def test_numbers_are_those_of_the_headers(self):
        for name, prefix, enum in (("MailUserId.h", "MAILBOX_", MailboxType),
                                   ("mailstore.h", "MUF_", FileKind)):
            with open(f"{SOURCE}/include/tessaly/{name}", encoding="utf-8") as file:
                rows = re.findall(rf"^    {prefix}(\w+) = (\d+)", file.read(), re.M)
            self.assertEqual({key: int(number) for key, number in rows},
                             {each.name: each.value for each in enum})

    def test_it_is_shown_so_that_it_can_be_made_again(self):
        self.assertEqual(repr(Mailbox("a+t@b.test")), "Mailbox('a+t@b.test', MailboxType.USER)")
        self.assertEqual(repr(Mailbox("/x", MailboxType.GIVEN_PATH)),
                         "Mailbox('/x', MailboxType.GIVEN_PATH)")


class TotalsTest(unittest.TestCase):
    def test_size(self):
        box = make_mailbox()
        self.assertEqual(box.size(), (0, 0))
        box.append_size(300, 2)
        box.append_size(-100, -1)
        self.assertEqual((box.size().bytes, box.size().messages), (200, 1))

    def test_totals_that_are_not_to_be_trusted(self):
        box = make_mailbox()
        box.demand_recount()
        with self.assertRaises(tsmail.UnknownTotalsError) as caught:
            box.size()
        self.assertEqual((caught.exception.errno, caught.exception.filename),
                         (errno.ESTALE, MAIL))
        os.unlink(f"{MAIL}/.maildirsize.dirty")
        self.assertEqual(box.size(), (0, 0))
        box.distrust_sizes()
        self.assertTrue(os.path.exists(f"{MAIL}/.maildirsize.dirty"))
        os.unlink(f"{MAIL}/.maildirsize.dirty")
        identity.demand_recount("ann@site.test")
        self.assertTrue(os.path.exists(f"{MAIL}/.maildirsize.dirty"))
        os.unlink(f"{MAIL}/.maildirsize.dirty")
        with self.assertRaises(OSError):
            identity.demand_recount("")
        tsmail.folders.append_mailbox_size(f"{MAIL}/.maildirsize", 7, 1)
        self.assertEqual(box.size(), (7, 1))
        box.append_size(-7, -1)
        box.append_size(-1, -1)
        with self.assertRaisesRegex(tsmail.UnknownTotalsError, "damaged"):
            box.size()

    def test_a_mailbox_that_is_not_there(self):
        box = Mailbox("nobody@site.test")
        with self.assertRaises(OSError) as caught:
            box.demand_recount()
        self.assertEqual(caught.exception.errno, errno.ENOENT)
        self.assertFalse(box.make_mail_directory(create=False))
        self.assertFalse(box.make_pref_directory(create=False))
        self.assertFalse(os.path.exists("/var/spool/home"))

    def test_a_directory_that_cannot_be_made(self):
        os.mkdir("/var/spool/home")
        with open("/var/spool/home/file.test", "w", encoding="utf-8"):
            pass
        with self.assertRaises(NotADirectoryError) as caught:
            Mailbox("ann@file.test").make_mail_directory()
        self.assertEqual(caught.exception.filename, "ann@file.test")
        os.unlink("/var/spool/home/file.test")

    def test_notices_are_due_once_a_day(self):
        box = make_mailbox()
        self.assertTrue(box.notice_is_due())
        self.assertFalse(box.notice_is_due())
        stamp = box.file(FileKind.ALERT_NOTIFICATION)
        old = os.stat(stamp).st_mtime - 86401
        os.utime(stamp, (old, old))
        self.assertTrue(box.notice_is_due())

    def test_kilobytes_of_folders(self):
        box = make_mailbox("ann@site.test", "Work", "Work/2024")
        box.folder("Work").write_size(1025, 1)
        box.folder("Work/2024").write_size(1, 1)
        self.assertEqual(box.folder_kilobytes("Work"), 3)

    def tearDown(self):
        if os.path.isdir("/var/spool/home"):
            tsmail.folders.delete_path("/var/spool/home")


if __name__ == "__main__":
    unittest.main()
