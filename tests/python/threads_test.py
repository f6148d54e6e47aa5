"""Threads: the interpreter goes on while a call waits, and what is shared stays whole."""

import faulthandler
import fcntl
import os
import threading
import unittest

from package import MAIL, make_mailbox, tsmail
from tsmail import Preferences

PREF = "/var/spool/home/site.test/ann~site.test/pref/ann~site.test.pref"
faulthandler.dump_traceback_later(100, exit=True)  # a lock that is not released would wait for ever


def in_threads(work, count=8):
    failures = []

    def guarded():
        try:
            work()
        except BaseException as error:  # pylint: disable=broad-except
            failures.append(error)
    threads = [threading.Thread(target=guarded) for _ in range(count)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    return failures


class ThreadsTest(unittest.TestCase):
    def setUp(self):
        self.box = make_mailbox("ann@site.test", "Work")
        Preferences().store("ann@site.test")

    def tearDown(self):
        tsmail.folders.delete_path("/var/spool/home")

    def test_the_interpreter_goes_on_while_a_call_waits(self):
        """Each of these waits for the lock of its file; meanwhile this thread runs."""
        inbox = self.box.folder()
        inbox.write_size(1, 1)
        inbox.unread_scan_date = 1
        self.box.append_size(1, 1)
        waiting = (
            (f"{MAIL}/.maildirsize", lambda: self.box.append_size(1, 1)),
            (f"{MAIL}/.maildirsize", self.box.size),
            (inbox.size_file, inbox.size),
            (inbox.size_file, lambda: inbox.append_size(1, 1)),
            (inbox.size_file, lambda: inbox.write_size(1, 1)),
            (inbox.size_file, lambda: self.box.folder_kilobytes("Inbox")),
            (f"{MAIL}/Inbox/.ts_unread_scan_date", lambda: inbox.unread_scan_date),
            (PREF, lambda: Preferences.of("ann@site.test")),
            (PREF, lambda: Preferences().store("ann@site.test")),
            (PREF, lambda: tsmail.preferences.user_timezone("ann@site.test")))
        for path, call in waiting:
            with self.subTest(path=path), open(path, "rb") as file:
                fcntl.flock(file, fcntl.LOCK_EX)
                thread = threading.Thread(target=call)
                thread.start()
                thread.join(0.05)
                self.assertTrue(thread.is_alive())
                fcntl.flock(file, fcntl.LOCK_UN)
                thread.join(20)
                self.assertFalse(thread.is_alive())

    def test_one_mailbox_in_many_threads(self):
        names = {"Inbox", "Work"}

        def work():
            for _ in range(300):
                self.box.append_size(10, 1)
                assert self.box.drop_path() == f"{MAIL}/Inbox"
                assert self.box.parsed("bob@site.test").address == "bob@site.test"
                assert {folder.name for folder in self.box.folders()} == names
                assert self.box.folder().exists()
        self.assertEqual(in_threads(work), [])
        self.assertEqual(self.box.size(), (8 * 300 * 10, 8 * 300))

    def test_one_record_in_many_threads(self):
        preferences = Preferences({"uname": "x" * 200})

        def work():
            for number in range(200):
                preferences["theme"] = number
                preferences.store("ann@site.test")
                preferences.read("ann@site.test")
                assert preferences["uname"] == "x" * 200
        self.assertEqual(in_threads(work, 4), [])

    def test_exceptions_in_many_threads(self):
        def work():
            for _ in range(500):
                try:
                    tsmail.Folder(f"{MAIL}/none").size()
                except FileNotFoundError as error:
                    assert error.filename == f"{MAIL}/none/.ts_folder_size"
        self.assertEqual(in_threads(work), [])

    def test_visits_one_after_the_other(self):
        """A visitor's calls come with the interpreter's lock, whatever other threads do."""
        counts, done = [], threading.Event()

        def spin():
            while not done.is_set():
                sum(range(100))
        spinner = threading.Thread(target=spin)
        spinner.start()
        for _ in range(100):
            counts.append(tsmail.visit(MAIL, lambda name, stat: len([name] * 3)))
        done.set()
        spinner.join()
        self.assertEqual(set(counts), {6})

    def test_a_child(self):
        """The module works in a child made by fork."""
        tsmail.MessageName.generate(1)
        child = os.fork()
        if child == 0:
            name = tsmail.MessageName.generate(1).name
            os._exit(0 if f".{os.getpid()}_" in name and self.box.folder().exists() else 1)
        self.assertEqual(os.waitpid(child, 0)[1], 0)


if __name__ == "__main__":
    unittest.main()
