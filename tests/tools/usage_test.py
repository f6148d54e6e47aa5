"""usage: it shows all mailboxes and opens only one file for each."""

import os
import re
import resource
import time
import unittest

from tools.toolkit import SANITIZED, TSMAIL, SpoolCase, mail, snapshot, traced, tsmail, write

ANN, BERT, CARL = "ann@site.test", "bert@site.test", "carl@other.test"


class UsageTest(SpoolCase):
    def setUp(self):
        super().setUp()
        for address in (ANN, BERT, CARL):
            self.succeed("create", address)
        for address, size in ((ANN, 1000), (BERT, 10), (BERT, 20), (CARL, 4000)):
            self.succeed("deliver", address, stdin=b"x" * size)

    def rows(self, *words):
        return self.succeed("--json", "usage", *words).objects

    def names(self, *words):
        return [row["address"] for row in self.rows(*words)]

    def test_order_limit_and_domain(self):
        self.assertEqual(self.names(), [CARL, ANN, BERT])
        self.assertEqual(self.names("--sort", "messages"), [BERT, CARL, ANN])
        self.assertEqual(self.names("--sort", "name"), [CARL, ANN, BERT])  # by domain
        self.assertEqual(self.names("--limit", "2"), [CARL, ANN])
        self.assertEqual(self.names("--limit", "0"), [])
        self.assertEqual(self.names("--domain", "Site.Test"), [ANN, BERT])
        self.fail_with(65, "usage", "--domain", "none.test", saying="no such domain")
        self.fail_with(64, "usage", "--sort", "age", saying="allowed: size")
        self.fail_with(64, "usage", "--limit", "-1", saying="whole number")
        self.fail_with(65, "usage", "--domain", "..")

    def test_fields(self):
        written = 1763275200
        os.utime(mail(ANN) + "/.maildirsize", (written, written))
        self.succeed("quota", "set", ANN, "warning", "1")
        self.succeed("quota", "reset", ANN)
        self.assertEqual(self.rows()[1], {
            "address": ANN, "path": mail(ANN), "bytes": 1000, "messages": 1, "dirty": True,
            "warning": True, "exceeded": False, "changed": written})
        self.succeed("quota", "set", ANN, "exceeded", "1")
        lines = self.succeed("usage").lines
        self.assertRegex(lines[0], r"^mailbox +messages +size +changed \(UTC\) +flags$")
        self.assertRegex(lines[1], r"^carl@other.test +1 +3.9 KiB  #{20}  20\d\d-\d\d-\d\d \d\d:\d\d$")
        self.assertRegex(lines[2], r"^ann@site.test +1 +1000 B  #{5} +2025-11-16 06:40  "
                                   "exceeded warning recount$")
        self.assertRegex(lines[3], r"^bert@site.test +2 +30 B  +20")

    def test_damage_and_nothing_kept(self):
        write(mail(ANN) + "/.maildirsize", "99999999999999999999 1\n")
        os.unlink(mail(BERT) + "/.maildirsize")
        before = snapshot("/var/spool")
        rows = {row["address"]: row for row in self.rows("--verify")}
        self.assertEqual((rows[ANN]["bytes"], rows[ANN]["messages"]), (None, None))
        self.assertEqual((rows[BERT]["bytes"], rows[BERT]["changed"]), (0, None))
        self.assertEqual([rows[a]["agrees"] for a in (ANN, BERT, CARL)], [False, False, True])
        self.assertIn("damaged", self.succeed("usage").out)
        self.assertEqual(snapshot("/var/spool"), before)

    def test_verify_looks_into_the_folders(self):
        write(mail(ANN) + "/Inbox/cur/99.by-hand:2,", b"x" * 5)
        row = self.rows("--verify", "--limit", "2")[1]
        self.assertEqual((row["bytes"], row["actual_bytes"], row["actual_messages"], row["agrees"]),
                         (1000, 1005, 2, False))
        self.assertLess(abs(row["newest"] - time.time()), 60)
        lines = self.succeed("usage", "--verify").lines
        self.assertRegex(lines[0], r"flags +newest \(UTC\) +actual +size$")
        self.assertRegex(lines[2], r" 2 +1005 B +differs$")
        self.assertRegex(lines[1], r" 1 +3.9 KiB$")

    def test_opens_one_file_for_each_mailbox(self):
        _, calls = traced(["-e", "trace=openat,open"], [TSMAIL, "usage"])
        opened = [match.group(1) for match in (re.search('"([^"]*)"', line) for line in calls) if match]
        self.assertEqual(sorted(path for path in opened if path.startswith("/var/spool/home/")
                                and path.count("/") > 4),
                         sorted(mail(address) + "/.maildirsize" for address in (ANN, BERT, CARL)))


@unittest.skipIf(SANITIZED, "the sanitizer takes its time")
class ManyTest(SpoolCase):
    def test_ten_thousand_in_a_second(self):
        number = 10000
        for n in range(number):
            top = mail(f"user{n}@site.test")
            os.makedirs(top)
            write(top + "/.maildirsize", f"0S, 0C\n{n} 1\n")
        tsmail("usage")  # warm
        best = 10.0
        for _ in range(5):
            before = resource.getrusage(resource.RUSAGE_CHILDREN)
            self.assertEqual(len(self.succeed("usage").lines), number + 1)
            after = resource.getrusage(resource.RUSAGE_CHILDREN)
            best = min(best, after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime)
        self.assertLess(best, 1.0)  # CPU time, as other processes may be running


if __name__ == "__main__":
    unittest.main()
