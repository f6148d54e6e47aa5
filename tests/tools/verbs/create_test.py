"""create: several mailboxes at a time, folders, and what a dry run says."""

import os
import re
import unittest

from testing.toolkit import HOME, SYSTEM_FOLDERS, TSMAIL, SpoolCase, mail, snapshot, traced, tsmail

ANN, BERT, CLEO = "ann@site.test", "bert@site.test", "cleo@other.test"


def homes():
    return sorted(f"{domain}/{home}" for domain in os.listdir(HOME) for home in os.listdir(f"{HOME}/{domain}"))


class SeveralTest(SpoolCase):
    def test_each_word_is_a_mailbox(self):
        self.succeed("create", ANN, BERT, CLEO, "--folder", "Work/2024", "--folder", "Old")
        self.assertEqual(homes(), ["other.test/cleo~other.test", "site.test/ann~site.test", "site.test/bert~site.test"])
        for address in (ANN, BERT, CLEO):
            self.assertEqual(sorted(os.listdir(mail(address))), sorted([*SYSTEM_FOLDERS, "Work", "Old"]))

    def test_a_folder_is_not_taken_for_a_mailbox(self):
        self.fail_with(65, "create", ANN, "Work", saying='"Work"')
        self.fail_with(64, "create")
        self.fail_with(64, "create", "--folder", "Work")
        self.assertEqual(os.listdir("/var/spool"), [])

    def test_from_standard_input(self):
        rows = self.succeed("--json", "create", "-", ANN, "--folder", "Work",
                            stdin=b"bert@site.test\r\n\ncleo@other.test").objects
        self.assertEqual([row["address"] for row in rows if row["name"] == "Work"], [BERT, CLEO, ANN])
        self.assertEqual(len(homes()), 3)

    def test_one_that_is_no_address_keeps_all(self):
        done = self.fail_with(65, "create", ANN, "-", stdin=b"bert@site.test\na@x,b@x\ncleo\n")
        self.assertRegex(done.err, r'(?s)standard input, line 2: .*"a@x,b@x".*line 3: .*nothing was created')
        self.assertEqual(os.listdir("/var/spool"), [])

    def test_one_that_cannot_be_made_does_not_keep_the_others(self):
        os.makedirs(HOME + "/site.test")
        os.mkfifo(HOME + "/site.test/ann~site.test")
        done = tsmail("create", ANN, BERT)
        self.assertIn(done.code, (73, 75), done)
        self.assertIn("ann~site.test", done.err)
        self.assertTrue(os.path.isdir(mail(BERT) + "/Inbox/cur"))


class DryRunTest(SpoolCase):
    def test_of_a_new_and_of_an_old_mailbox(self):
        self.succeed("create", ANN)
        before = snapshot("/var/spool")
        rows = self.succeed("--json", "create", BERT, ANN, "--folder", "Work", "--dry-run").objects
        self.assertEqual({row["done"] for row in rows}, {False})
        self.assertEqual([(row["address"], row["name"]) for row in rows if row["created"]],
                         [(BERT, name) for name in ("", *SYSTEM_FOLDERS, "Work")] + [(ANN, "Work")])
        out = self.succeed("create", ANN, "--folder", "Work", "--dry-run").lines
        self.assertEqual(out, [f"existed {mail(ANN)}"] + [f"existed {mail(ANN)}/{name}" for name in SYSTEM_FOLDERS] +
                         [f"would create {mail(ANN)}/Work"])
        self.assertEqual(snapshot("/var/spool"), before)


class DiskTest(SpoolCase):
    OF_ANN = os.path.dirname(mail(ANN))

    def flushes(self, calls):
        """The directories that were flushed, and those that got an entry after their flush."""
        flushed, late = [], set()
        for line in calls:
            if match := re.match(r'mkdir\("([^"]+)"', line):
                late.add(os.path.dirname(match.group(1)))
            elif match := re.match(r'fsync\(\d+<([^>]+)>\) += 0', line):
                flushed.append(match.group(1))
                late.discard(match.group(1))
        return flushed, late

    def test_what_was_made_is_flushed_once(self):
        done, calls = traced(["-y", "-e", "trace=mkdir,fsync"], [TSMAIL, "create", ANN, "--folder", "Work/2024"])
        self.assertEqual(done.code, 0, done)
        flushed, late = self.flushes(calls)
        made = {os.path.dirname(path) for path, subs, _ in os.walk(self.OF_ANN) if path.startswith(self.OF_ANN + "/")}
        made |= {path for path, subs, _ in os.walk(self.OF_ANN + "/mail") if "cur" in subs}
        self.assertEqual(made - set(flushed), set())
        self.assertEqual(late, set())
        of_home = [path for path in flushed if path.startswith(self.OF_ANN)]
        self.assertEqual(sorted(of_home), sorted(set(of_home)))

    def test_what_cannot_be_flushed_is_not_reported_as_made(self):
        self.succeed("-q", "create", ANN)
        os.rename(self.OF_ANN + "/mail/Inbox", self.OF_ANN + "/was")
        done, _ = traced(["-e", "inject=fsync:error=EIO"], [TSMAIL, "create", ANN])
        self.assertEqual((done.code, done.out), (74, ""), done)
        self.assertIn("Input/output error", done.err)


if __name__ == "__main__":
    unittest.main()
