"""--dry-run of verbs that change preferences, lists, flags and names: it says what would change, and changes nothing."""

import json
import os
import unittest

from testing.toolkit import SpoolCase, content, mail, snapshot, tsmail, write

ANN = "ann@site.test"
HOME = os.path.dirname(mail(ANN))


class DryRunTest(SpoolCase):
    def setUp(self):
        super().setUp()
        self.succeed("-q", "create", ANN)
        self.succeed("list", "add", ANN, "whitelist", "a@site.test", "b@site.test")
        write(mail(ANN) + "/Inbox/new/untagged", "x")
        write("/tmp/entries", "b@site.test\nc@site.test\n\x01\n")

    def test_nothing_changes_and_then_it_does(self):
        rows = (
            (("pref", "set", ANN, "npage=50", "lang=x"), ["would set npage=50", "would set lang=x"]),
            (("pref", "reset", ANN), []),
            (("list", "add", ANN, "whitelist", "a@site.test", "c@site.test"),
             ["was there: a@site.test", "would add c@site.test"]),
            (("list", "add", ANN, "blacklist", "a@site.test"), ["would add a@site.test"]),
            (("list", "remove", ANN, "whitelist", "a@site.test", "z@site.test"),
             ["would remove a@site.test", "was not there: z@site.test"]),
            (("list", "replace", ANN, "whitelist", "2", "d@site.test"),
             ["would replace b@site.test by d@site.test"]),
            (("quota", "set", ANN, "warning", "7"), ["would set the flag to 7"]),
            (("quota", "reset", ANN), ["would mark the mailbox for a recount"]),
            (("tag", ANN, "Inbox"), ["Inbox: 1 message would be tagged"]),
        )
        for words, lines in rows:
            with self.subTest(words=words):
                self.setUp()
                before = snapshot("/var/spool")
                self.assertEqual(sorted(self.succeed(*words, "--dry-run").lines), sorted(lines))
                self.succeed("--json", *words, "--dry-run")
                self.assertEqual(snapshot("/var/spool"), before)
                if lines:
                    self.succeed(*words)
                    self.assertNotEqual(snapshot("/var/spool"), before)

    def test_import(self):
        before = content(f"{HOME}/pref/ann~site.test.whitelist")
        done = tsmail("list", "import", ANN, "whitelist", "/tmp/entries", "--dry-run")
        self.assertEqual((done.code, done.out), (65, "1 would be added, 1 were there, 1 refused\n"))
        self.assertEqual(content(f"{HOME}/pref/ann~site.test.whitelist"), before)

    def test_a_delivery(self):
        write("/tmp/one", "Subject: x\n\nx\n")
        write("/tmp/two", "From a@site.test Thu Jan  1 00:00:00 1970\nx\n\n" * 2)
        self.succeed("quota", "set", ANN, "exceeded")
        other = "bob@other.test"
        rows = (((ANN,), "Inbox"), ((ANN, "/tmp/one"), "Inbox"), (("ann+sent@site.test",), "Sent"),
                (("ann+Project@site.test",), "Inbox"), (("ann+Project@site.test", "--new-folders"), "Project"),
                ((ANN, "--folder", "Work/2024"), "Work/2024"),
                ((ANN, "--folder", "Work/2024", "--no-new-folder"), "Inbox"),
                ((other, "--create"), "Inbox"), (("bob+Trash@other.test", "--create", "/tmp/one"), "Trash"),
                (("bob+Project@other.test", "--create"), "Inbox"))
        before = snapshot("/var/spool")
        for words, folder in rows:
            with self.subTest(words=words):
                path = f"{mail(other if 'other' in words[0] else ANN)}/{folder}"
                # Standard input stays open and empty: it is not read.
                reader, writer = os.pipe()
                done = tsmail("deliver", *words, "--dry-run", stdin=reader)
                shown = tsmail("--json", "deliver", *words, "--dry-run", stdin=reader)
                os.close(reader)
                os.close(writer)
                self.assertEqual((done.code, done.out), (0, f"would be delivered into {path}\n"), done)
                file = {"file": "/tmp/one"} if "/tmp/one" in words else {}
                self.assertEqual(json.loads(shown.out), {**file, "folder": folder, "done": False})
        for code, words in ((67, (other,)), (69, (ANN, "--refuse-exceeded")), (75, (ANN, "--defer-exceeded")),
                            (65, (ANN, "/tmp/two")), (66, (ANN, "/tmp/none")), (66, (other, "--create", "/tmp/none"))):
            with self.subTest(words=words):
                self.assertEqual(tsmail("deliver", *words, "--dry-run").code, code)
        self.assertEqual(snapshot("/var/spool"), before)

    def test_a_recount(self):
        write(mail(ANN) + "/.maildirsize", "70 7\n")
        write(mail(ANN) + "/.maildirsize.dirty", "")
        write(mail(ANN) + "/Sent/.ts_folder_size", "5 1\n")
        before, daemon = snapshot("/var/spool"), self.listen()
        marked = os.stat(mail(ANN) + "/.maildirsize.dirty").st_mtime_ns
        lines = [f"{ANN} Inbox: would become 1 message (1 B), kept is 0 messages (0 B)",
                 f"{ANN} Sent: would become 0 messages (0 B), kept is 1 message (5 B)",
                 f"{ANN}: would become 1 message (1 B), kept is 7 messages (70 B); it is marked"]
        done = self.succeed("recount", ANN, "--dry-run")
        self.assertEqual((done.lines, done.err), (lines, ""))
        for words in (("--all",), ("--all", "--marked"), ("--domain", "site.test")):
            self.assertEqual(self.succeed("recount", *words, "--dry-run").lines, [*lines, "1 mailbox counted"])
        [row] = self.succeed("--json", "recount", ANN, "--dry-run").objects
        self.assertEqual((row["done"], row["messages"], row["messages_before"], row["dirty"]), (False, 1, 7, True))
        self.assertEqual((snapshot("/var/spool"), self.told(daemon)), (before, []))
        self.assertEqual(os.stat(mail(ANN) + "/.maildirsize.dirty").st_mtime_ns, marked)
        [row] = self.succeed("--json", "recount", ANN).objects
        self.assertEqual((row["done"], row["messages"], row["messages_before"], row["dirty"]), (True, 1, 7, False))
        self.assertEqual(self.told(daemon), [f"S-69,F({mail(ANN)})"])
        self.assertEqual(self.succeed("recount", ANN, "--dry-run").out, f"{ANN}: 1 message (1 B)\n")

    def test_reset_and_clear(self):
        self.succeed("pref", "set", ANN, "npage=50")
        self.succeed("quota", "set", ANN, "warning")
        before = snapshot("/var/spool")
        self.assertEqual(self.succeed("pref", "reset", ANN, "--dry-run").out, "would set npage=25\n")
        self.assertEqual(self.succeed("quota", "clear", ANN, "warning", "--dry-run").out, "would remove the flag\n")
        self.assertEqual(snapshot("/var/spool"), before)

    def test_what_would_be_refused_is_refused(self):
        for code, words in ((65, ("pref", "set", ANN, "npage=x")), (65, ("pref", "set", ANN, "nothing=1")),
                            (65, ("list", "add", ANN, "whitelist", "a\nb")), (65, ("list", "add", ANN, "witelist", "a")),
                            (65, ("list", "replace", ANN, "whitelist", "3", "x")), (66, ("list", "remove", ANN, "none", "x")),
                            (64, ("quota", "set", ANN, "nothing")), (67, ("quota", "reset", "none@site.test")),
                            (66, ("tag", ANN, "None"))):
            with self.subTest(words=words):
                self.fail_with(code, *words, "--dry-run")

    def test_a_notice(self):
        write("/bin/sendmail", "#!/bin/sh\ncat >/tmp/sent\n")
        os.chmod("/bin/sendmail", 0o755)
        words = ("quota", "notify", ANN, "--subject", "x")
        before = snapshot("/var/spool")
        self.assertEqual(self.succeed(*words, "--dry-run").out, "would be sent\n")
        self.assertEqual((snapshot("/var/spool"), os.path.exists("/tmp/sent")), (before, False))
        self.succeed(*words)
        self.assertRegex(self.succeed(*words, "--dry-run").out, "^would not be sent: the last")


if __name__ == "__main__":
    unittest.main()
