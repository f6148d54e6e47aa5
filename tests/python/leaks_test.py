"""Nothing grows: neither memory nor descriptors nor threads, on success and on failure."""

import gc
import os
import threading
import unittest

from package import MAIL, make_mailbox, tsmail
from tsmail import Mailbox, MessageName, Preferences
from tsmail.mailbox import Maildir

ROUNDS = 3000
PAGE = os.sysconf("SC_PAGE_SIZE")
ALLOWED = 600_000  # bytes; one leaked text a round is more than ROUNDS * 500


def resident():
    gc.collect()
    with open("/proc/self/statm", encoding="ascii") as file:
        return int(file.read().split()[1]) * PAGE


def descriptors():
    return sorted(os.listdir("/proc/self/fd"))


def refused(call, *errors):
    try:
        call()
    except errors or (OSError, ValueError):
        return
    raise AssertionError("it was not refused")


class LeaksTest(unittest.TestCase):
    def setUp(self):
        self.box = make_mailbox("ann@site.test", "Work", "x" * 200)
        self.list = self.box.list("whitelist")
        self.list.add("y" * 200)
        Preferences({"uname": "z" * 200}).store("ann@site.test")

    def tearDown(self):
        tsmail.folders.delete_path("/var/spool/home")

    def check(self, call, rounds=ROUNDS):
        for _ in range(rounds // 2):
            call()
        before, open_before, threads = resident(), descriptors(), threading.active_count()
        for _ in range(rounds):
            call()
        self.assertLess(resident() - before, ALLOWED)
        self.assertEqual((descriptors(), threading.active_count()), (open_before, threads))

    def test_texts(self):
        long = "a" * 500

        def call():
            box = Mailbox(f"{long}@site.test")
            return (box.mail, box.address, box.file(15), box.parsed(long).local,
                    MessageName.parse(long).key, os.fspath(box.folder(long)))
        self.check(call)

    def test_failures(self):
        direct = Mailbox("x" * 500, tsmail.MailboxType.DIRECT)
        preferences = Preferences()

        def call():
            refused(lambda: direct.home)
            refused(lambda: self.box.folder("none" * 60).size())
            refused(lambda: preferences.__setitem__("uname", "x" * 300))
            refused(lambda: Mailbox("a\0" + "x" * 500))
            refused(lambda: Mailbox(5), TypeError)
            refused(lambda: list(tsmail.walk("/none" * 100)))
        self.check(call)

    def test_walks(self):
        class Stop(Exception):
            pass

        def stop(name, stat):
            raise Stop(name, stat)

        def call():
            next(self.box.folders())  # and the rest is never asked for
            refused(lambda: tsmail.visit(MAIL, stop), Stop)
            refused(lambda: tsmail.visit(MAIL, lambda name, stat: "no number"), RuntimeError)
            tsmail.visit(MAIL, lambda name, stat: 1)
        self.check(call)

    def test_files(self):
        def call():
            list(self.list)
            self.list.match("y")
            Preferences.of("ann@site.test").copy().store("ann@site.test")
            self.box.append_size(0, 0)
            self.box.size()
        self.check(call)

    def test_mailboxes(self):
        inbox = Maildir(self.box)
        for _ in range(20):
            inbox.add(b"x")

        def call():
            inbox._toc = {}
            inbox._last_read = 0
            inbox.keys()
        self.check(call)

    def test_messages_come_and_go(self):
        inbox = Maildir(self.box)

        def call():
            key = inbox.add(b"Subject: x\n\nx\n")
            inbox.set_flags(key, "S")
            inbox.remove(key)
        self.check(call, 300)


if __name__ == "__main__":
    unittest.main()
