"""deliver on a full disk."""

import os
import unittest

from testing.toolkit import (SpoolCase, content, folder_record, is_marked, left_in_tmp, mail,
                             mailbox_record, messages, snapshot)

ANN = "ann@site.test"


class FullDiskTest(SpoolCase):
    def fill(self):
        with open("/var/spool/filler", "wb", buffering=0) as file:
            try:
                while True:
                    file.write(b"x" * 4096)
            except OSError:
                pass

    def test_nothing_is_left_and_nothing_counted(self):
        self.succeed("create", ANN)
        self.succeed("deliver", ANN, stdin=b"first")
        self.fill()
        before = snapshot("/var/spool")
        for size in (1, 100000, 10000000):
            self.fail_with(75, "deliver", ANN, stdin=b"x" * size, saying="No space left")
            self.assertEqual(snapshot("/var/spool"), before)
        os.unlink("/var/spool/filler")
        self.succeed("deliver", ANN, stdin=b"second")
        self.assert_counted(ANN)

    def test_a_message_larger_than_the_disk(self):
        self.succeed("create", ANN)
        self.fail_with(75, "deliver", ANN, stdin=b"x" * (4 << 20), saying="No space left")
        self.assertEqual((messages(ANN), left_in_tmp(ANN)), ([], []))
        self.assertEqual((folder_record(ANN), mailbox_record(ANN)), ((0, 0), (0, 0)))

    def test_room_for_the_message_but_not_for_the_records(self):
        self.succeed("create", ANN)
        self.fill()
        os.truncate("/var/spool/filler", os.path.getsize("/var/spool/filler") - 4096)
        done = self.succeed("deliver", ANN, stdin=b"x" * 4096)
        self.assertEqual(content(done.out.strip()), b"x" * 4096)
        self.assertIn("folder's size record", done.err)
        self.assertIn("mailbox's size record", done.err)
        self.assertTrue(is_marked(ANN))
        self.assertTrue(os.path.exists(mail(ANN)))


if __name__ == "__main__":
    unittest.main()
