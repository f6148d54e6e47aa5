"""The programs in examples/python do what they say."""

import json
import os
import subprocess
import sys
import unittest

from package import MAIL, PLACE, SOURCE, make_mailbox, tsmail
from tsmail import Preferences
from tsmail.mailbox import Maildir

MESSAGE = b"Subject: report\n\nIt is due.\r\n\xff\n"


def run(name, *words, text=b""):
    env = {**os.environ, "PYTHONPATH": PLACE}
    return subprocess.run([sys.executable, "-B", f"{SOURCE}/examples/python/{name}", *words], env=env,
                          input=text, check=False, stdout=subprocess.PIPE, stderr=subprocess.PIPE)


class ExamplesTest(unittest.TestCase):
    def setUp(self):
        self.box = make_mailbox("ann@site.test", "Work", "Bulk", "Bulk/Old")

    def tearDown(self):
        tsmail.folders.delete_path("/var/spool/home")

    def test_deliver(self):
        for address, folder in (("ann@site.test", "Inbox"), ("ann+Work@site.test", "Work"),
                                ("ann+None@site.test", "Inbox"), ("ann+cur@site.test", "Inbox")):
            self.assertEqual(run("deliver.py", address, text=MESSAGE).returncode, 0)
            found = Maildir(self.box, folder)
            key, = found.keys()
            self.assertEqual(found.get_bytes(key), MESSAGE)
            found.remove(key)
        self.assertEqual(self.box.size(), (0, 0))
        self.assertEqual(sorted(os.listdir(f"{MAIL}/Inbox/tmp")), [])
        self.assertEqual(run("deliver.py", "ann+../x@site.test").returncode, os.EX_USAGE)
        self.assertEqual(run("deliver.py", "nobody@site.test").returncode, os.EX_NOUSER)
        os.rmdir(f"{MAIL}/Inbox/new")
        failed = run("deliver.py", "ann@site.test", text=MESSAGE)
        self.assertNotEqual(failed.returncode, 0)
        self.assertEqual(os.listdir(f"{MAIL}/Inbox/tmp"), [])

    def test_learn_spam(self):
        Maildir(self.box, "Bulk").add("Subject: cheap pills\n\npills pills now\n")
        Maildir(self.box, "Bulk/Old").add("Subject: pills\n\nbuy\n")
        Maildir(self.box, "Inbox").add("Subject: ham\n\nham\n")
        for _ in range(2):
            done = run("learn_spam.py", "ann@site.test", "Bulk", "/tmp/model")
            self.assertEqual(done.stdout, b"learnt 2 messages, 4 words\n", done.stderr)
        with open("/tmp/model", encoding="utf-8") as file:
            self.assertEqual(json.load(file)["words"], {"pills": 2, "cheap": 1, "now": 1, "buy": 1})
        self.assertNotEqual(run("learn_spam.py", "ann@site.test", "None", "/tmp/model").returncode, 0)

    def test_migrate_preferences(self):
        Preferences({"theme": 4}).store("ann@site.test")
        text = (b'{"address": "Ann+x@Site.Test", "npage": 50, "uname": "Ann", "lang": "x\\ny", "none": 1}\n'
                b'{"address": "bob@site.test", "npage": 101, "dspam": false, "lang": 5}\n')
        done = run("migrate_preferences.py", text=text)
        self.assertEqual(done.returncode, 1)
        self.assertEqual(len(done.stderr.splitlines()), 4, done.stderr)
        ann, bob = Preferences.of("ann@site.test"), Preferences.of("bob@site.test")
        self.assertEqual((ann["npage"], ann["uname"], ann["lang"], ann["theme"]), (50, "Ann", "en", 4))
        self.assertEqual((bob["npage"], bob["dspam"]), (25, False))
        self.assertEqual(run("migrate_preferences.py", text=b'{"address": "bob@site.test"}\n').returncode, 0)


if __name__ == "__main__":
    unittest.main()
