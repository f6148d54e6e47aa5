"""The standard library's own test suite for Maildir, run against tsmail.mailbox.Maildir."""

import os
import sys
import unittest

from package import tsmail
from tsmail.mailbox import Maildir

try:
    from test import test_mailbox
except ImportError:
    print("the standard library's tests are not installed (libpython3.11-testsuite)")
    sys.exit(77)

# What cannot pass, and why. Each of these must fail: a list that is longer than it need be is wrong.
EXPECTED_FAILURES = {
    "test_get_folder": "looks for the folder in .foo.bar, where the store has foo.bar",
    "test_folder_file_perms": "looks at the file maildirfolder, which the store does not have",
}


class StandardMaildir(Maildir):
    """Made as the suite makes it, from a path: that of a mailbox given by path and its folder."""

    def __init__(self, dirname, factory=None, create=True):
        root, folder = os.path.split(os.path.abspath(dirname))
        box = tsmail.Mailbox(root, tsmail.MailboxType.GIVEN_PATH)
        super().__init__(box, folder, factory, create)


def counted(box):
    """The total of what lies in a folder."""
    sizes = [tsmail.mailbox._message_size(os.path.join(box._path, sub, name))
             for sub in ("cur", "new") for name in os.listdir(os.path.join(box._path, sub))
             if not os.path.isdir(os.path.join(box._path, sub, name))]
    return sum(sizes), len(sizes)


class SuiteOfMailboxTest(test_mailbox.TestMaildir):
    """All of TestMaildir, which makes its boxes through _factory or as mailbox.Maildir. After each
    case the totals are looked at."""

    # Put or take files past the class, so that the kept totals cannot be those of the files.
    PAST_THE_CLASS = {"test_lookup", "test_reread", "test_clean", "test_initialize_existing"}

    _factory = lambda self, path, factory=None: StandardMaildir(path, factory)  # noqa: E731

    def setUp(self):
        os.chdir("/tmp")
        self._standard = test_mailbox.mailbox.Maildir
        test_mailbox.mailbox.Maildir = StandardMaildir
        for name in (".maildirsize", ".maildirsize.dirty"):
            if os.path.exists(name):
                os.unlink(name)
        super().setUp()

    def tearDown(self):
        test_mailbox.mailbox.Maildir = self._standard
        try:
            if self._testMethodName not in self.PAST_THE_CLASS and os.path.isdir(self._path):
                self.check_totals()
        finally:
            super().tearDown()

    def check_totals(self):
        folder = tsmail.Folder(os.path.abspath(self._path))
        if not os.path.exists(folder.size_file):
            return
        self.assertEqual(folder.size(), counted(self._box))


for each, reason in EXPECTED_FAILURES.items():
    setattr(SuiteOfMailboxTest, each, unittest.expectedFailure(getattr(test_mailbox.TestMaildir, each)))


class SuiteOfNextTest(test_mailbox.MaildirTestCase):
    """The older cases: what other programs put into a maildir is found."""

    def setUp(self):
        os.chdir("/tmp")
        self._standard = test_mailbox.mailbox.Maildir
        test_mailbox.mailbox.Maildir = StandardMaildir
        super().setUp()

    def tearDown(self):
        test_mailbox.mailbox.Maildir = self._standard
        super().tearDown()


class SuiteIsWholeTest(unittest.TestCase):
    def test_it_runs_all_cases(self):
        """The suite is there, and what is made is ours."""
        loader = unittest.TestLoader()
        self.assertGreater(len(loader.getTestCaseNames(SuiteOfMailboxTest)), 50)
        self.assertLess(len(EXPECTED_FAILURES), 5)
        self.assertTrue(set(EXPECTED_FAILURES) <= set(loader.getTestCaseNames(SuiteOfMailboxTest)))
        self.assertIsInstance(SuiteOfMailboxTest._factory(None, "/tmp/box"), Maildir)


if __name__ == "__main__":
    unittest.main()
