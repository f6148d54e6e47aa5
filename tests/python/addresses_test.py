"""Address lists."""

import errno
import os
import resource
import signal
import unittest

from package import lines, make_mailbox
from tsmail import AddressList, ListScope, addresses

PREF = "/var/spool/home/site.test/ann~site.test/pref"


class AddressesTest(unittest.TestCase):
    def setUp(self):
        self.list = make_mailbox().list("whitelist")
        if os.path.exists(self.list.path):
            os.unlink(self.list.path)

    def write(self, text):
        with open(self.list.path, "w", encoding="utf-8") as file:
            file.write(text)

    def test_entries(self):
        self.assertEqual(self.list.path, f"{PREF}/ann~site.test.whitelist")
        for entry in ("bob@site.test", b"*@friends.test", "Carl@site.test", "BOB@site.test"):
            self.list.add(entry)
        self.assertEqual(list(self.list), ["bob@site.test", "*@friends.test", "Carl@site.test"])
        self.assertEqual(self.list.sorted(), ["*@friends.test", "bob@site.test", "Carl@site.test"])
        self.assertEqual((len(self.list), self.list.line_count()), (3, 3))
        self.assertIn("carl@SITE.test", self.list)
        self.assertNotIn("dora@site.test", self.list)
        self.assertNotIn(5, self.list)
        self.assertTrue(self.list.match("eve@friends.test"))
        self.assertFalse(self.list.match("eve@site.test"))
        self.list.remove("BOB@site.test")
        with self.assertRaises(KeyError):
            self.list.remove("bob@site.test")
        self.list.discard("bob@site.test")
        self.list.replace(1, "dora@site.test")
        self.assertEqual(lines(self.list.path), ["dora@site.test", "Carl@site.test"])
        for line in (0, 3):
            with self.assertRaises(IndexError):
                self.list.replace(line, "x")

    def test_entries_that_would_not_come_back(self):
        self.list.add("x" * 254)
        self.assertEqual(list(self.list), ["x" * 254])
        for bad in ("", "x" * 255, "a\nb", "a\n", "a\r", "a\0"):
            with self.subTest(bad=bad), self.assertRaises(ValueError):
                self.list.add(bad)
            with self.assertRaises(ValueError):
                self.list.replace(1, bad)
        self.assertEqual(list(self.list), ["x" * 254])
        self.list.add("ä\udcff@site.test")
        self.assertEqual(list(self.list)[1], "ä\udcff@site.test")

    def test_a_last_line_without_end(self):
        self.write("bob@site.test")
        self.list.add("carl@site.test")
        self.assertEqual(list(self.list), ["bob@site.test", "carl@site.test"])

    def test_a_full_list(self):
        self.write("".join(f"a{n}\n" for n in range(2047)))
        self.list.add("last")
        with self.assertRaises(OSError) as caught:
            self.list.add("too many")
        self.assertEqual((caught.exception.errno, caught.exception.filename),
                         (errno.ENOSPC, self.list.path))
        self.list.add("last")  # it is there

    def test_lists_that_are_not_there(self):
        for ask in (lambda: list(self.list), lambda: len(self.list), self.list.line_count):
            with self.assertRaises(FileNotFoundError) as caught:
                ask()
            self.assertEqual(caught.exception.filename, self.list.path)
        self.assertNotIn("x", self.list)
        self.assertFalse(self.list.match("x"))
        nowhere = AddressList("nobody@site.test", "whitelist")
        with self.assertRaises(FileNotFoundError):
            nowhere.add("x")

    def test_an_entry_that_cannot_be_written(self):
        """The library answers with success."""
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
        limits = resource.getrlimit(resource.RLIMIT_FSIZE)
        resource.setrlimit(resource.RLIMIT_FSIZE, (0, limits[1]))
        try:
            with self.assertRaisesRegex(OSError, "could not be written"):
                self.list.add("x")
        finally:
            resource.setrlimit(resource.RLIMIT_FSIZE, limits)

    def test_numbered_lists(self):
        self.write("1,one\n2,two\n3,three\n")
        self.list.remove_numbered(2)
        self.assertEqual(lines(self.list.path), ["1,one", "2,three"])

    def test_scopes(self):
        os.makedirs("/var/spool/etc/mail", exist_ok=True)
        system = AddressList.of_system("blocked")
        system.add("x@site.test")
        self.assertEqual(system.path, "/var/spool/etc/mail/blocked")
        self.assertEqual(AddressList("dir", "l", ListScope.HOME).path, "/var/spool/home/dir/dir.l")
        self.assertEqual(addresses.system_lists_changed(), 0)
        self.assertEqual(addresses.system_lists_changed("ann@site.test"), 0)
        with self.assertRaises(OSError) as caught:
            AddressList("u", "n" * 5000).path  # pylint: disable=expression-not-assigned
        self.assertIn("nnnn", repr(AddressList("u", "n" * 5000)))
        self.assertEqual(caught.exception.errno, errno.ENAMETOOLONG)


if __name__ == "__main__":
    unittest.main()
