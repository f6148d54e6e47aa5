"""Quota flags, notices, the archive's share."""

import os
import stat
import unittest

from package import make_mailbox
from tsmail import Mailbox, QuotaFlags
from tsmail.quota import archive_gibibytes_left, send_notice

HOME = "/var/spool/home/site.test/ann~site.test"
SENDMAIL = "/bin/sendmail"


class QuotaTest(unittest.TestCase):
    def setUp(self):
        self.box = make_mailbox()
        self.flags = self.box.quota

    def test_flags(self):
        for name in ("exceeded", "warning"):
            self.assertEqual(getattr(self.flags, name), 0)
            setattr(self.flags, name, 90)
            self.assertEqual(getattr(self.flags, name), 90)
            with open(f"{HOME}/quota_{name}_flag", encoding="utf-8") as file:
                self.assertEqual(file.read(), "90")
            os.unlink(f"{HOME}/quota_{name}_flag")
        with self.assertRaises(TypeError):
            self.flags.exceeded = 2**31
        with self.assertRaises(TypeError):
            self.flags.warning = "1"

    def test_the_archives_flag(self):
        self.assertIs(self.flags.archive_exceeded, False)
        self.flags.archive_exceeded = True
        self.assertIs(self.flags.archive_exceeded, True)
        self.assertIs(self.box.quota_exceeded, True)
        self.flags.archive_exceeded = False
        self.assertIs(self.flags.archive_exceeded, False)
        self.box.quota_exceeded = True
        self.assertIs(self.flags.archive_exceeded, True)
        self.box.quota_exceeded = False
        self.assertEqual(os.path.exists(f"{HOME}/quota_exceeded_flag"), False)

    def test_what_cannot_be_written_reads_so(self):
        flags = Mailbox("nobody@site.test").quota
        flags.exceeded = 5
        self.assertEqual(flags.exceeded, 0)

    def test_a_notice(self):
        self.assertEqual(send_notice(), 127)
        with open(SENDMAIL, "w", encoding="utf-8") as file:
            file.write('#!/bin/sh\ncat >/tmp/sent\nexit "${CODE-0}"\n')
        os.chmod(SENDMAIL, stat.S_IRWXU)
        self.assertEqual(send_notice("q@site.test", b"ann@site.test", "full", "Mind it.\xe4"), 0)
        with open("/tmp/sent", encoding="utf-8") as file:
            sent = file.read()
        self.assertTrue(sent.startswith("From:q@site.test\nTo:ann@site.test\nSubject:full\n"), sent)
        self.assertTrue(sent.endswith("\n\nMind it.\xe4\n.\n"), sent)
        os.environ["CODE"] = "69"
        self.assertEqual(send_notice(), 69)
        with open(SENDMAIL, "w", encoding="utf-8") as file:
            file.write("#!/bin/sh\ncat >/dev/null; kill -9 $$\n")
        self.assertIn(send_notice(), (-9, 128 + 9))

    def test_the_archive(self):
        with open("/tmp/tsmail.toml", "w", encoding="utf-8") as file:
            file.write('[[archive_account]]\nname = "a1"\nquota_gib = 40\n')
        os.environ["TSMAIL_CONFIG"] = "/tmp/tsmail.toml"
        self.assertEqual(archive_gibibytes_left("a1") - archive_gibibytes_left(), 40)

    def test_by_address(self):
        QuotaFlags(b"ann@site.test").warning = 3
        self.assertEqual(self.flags.warning, 3)
        os.unlink(f"{HOME}/quota_warning_flag")


if __name__ == "__main__":
    unittest.main()
