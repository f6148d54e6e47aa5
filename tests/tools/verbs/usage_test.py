"""usage: it shows all mailboxes and opens only one file for each."""

import os
import re
import resource
import time
import unittest

from testing.toolkit import (SANITIZED, TSMAIL, SpoolCase, as_nobody, content, mail, mode, own_by_nobody, snapshot, traced,
                             tsmail, write)

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


class SumsTest(SpoolCase):
    """The sums of usage and metrics, beside sums that the test makes of the rows."""

    def setUp(self):
        super().setUp()
        for address, size in ((ANN, 1000), (ANN, 50), (BERT, 10), (CARL, 4000)):
            self.succeed("deliver", "--create", address, stdin=b"x" * size)
        self.succeed("quota", "set", ANN, "warning")
        self.succeed("quota", "set", BERT, "exceeded")
        self.succeed("quota", "reset", CARL)
        self.succeed("deliver", "--create", "--folder", "Old", ANN, stdin=b"x" * 40)
        self.succeed("rm", ANN, "Old")
        write(mail(BERT) + "/.maildirsize", "99999999999999999999 1\n")

    def expected(self, domain=None):
        rows = [row for row in self.succeed("--json", "usage").objects
                if domain is None or row["address"].endswith("@" + domain)]
        sums = {"mailboxes": len(rows)}
        for field in ("messages", "bytes"):
            sums[field] = sum(row[field] or 0 for row in rows)
        for field in ("warning", "exceeded", "dirty"):
            sums[field] = sum(row[field] for row in rows)
        sums["damaged"] = sum(row["bytes"] is None for row in rows)
        sums["scheduled"] = 1 if domain != "other.test" else 0
        return sums

    def test_by_domain_and_total(self):
        shown = self.succeed("--json", "usage", "--by-domain", "--total").objects
        self.assertEqual(shown, [{"domain": domain, **self.expected(domain)}
                                 for domain in ("other.test", "site.test")] + [self.expected()])
        self.assertEqual(shown[1], {"domain": "site.test", "mailboxes": 2, "messages": 2, "bytes": 1050,
                                    "warning": 1, "exceeded": 1, "dirty": 0, "damaged": 1, "scheduled": 1})
        self.assertEqual(self.succeed("--json", "usage", "--total").objects, shown[2:])
        self.assertEqual(self.succeed("--json", "usage", "--by-domain", "--domain", "site.test").objects, shown[1:2])
        lines = self.succeed("usage", "--by-domain", "--total").lines
        self.assertRegex(lines[0], "^domain +mailboxes +messages +bytes +warning +exceeded +dirty +damaged +scheduled$")
        self.assertRegex(lines[2], "^site.test +2 +2 +1.0 KiB +1 +1 +0 +1 +1$")
        self.assertRegex(lines[3], "^total +3 +3 ")

    def test_sums_refuse_what_belongs_to_rows(self):
        for words in (["--total", "--verify"], ["--by-domain", "--limit", "1"]):
            self.fail_with(64, "usage", *words, saying="go with neither")

    @staticmethod
    def parsed(text):
        """{metric: {domain: number}}; fails for a line that the format does not know."""
        found, declared = {}, []
        for line in text.splitlines():
            if match := re.fullmatch(r"# HELP (tsmail_\w+) [^\n]+\.", line):
                declared.append(match[1])
            elif match := re.fullmatch(r"# TYPE (tsmail_\w+) gauge", line):
                assert declared[-1] == match[1], line
            else:
                match = re.fullmatch(r'(tsmail_\w+)(?:\{domain="((?:[^"\\]|\\.)*)"\})? (-?\d+)', line)
                assert match and match[1] == declared[-1], line
                found.setdefault(match[1], {})[match[2]] = int(match[3])
        assert len(declared) == len(set(declared)), declared
        return found

    METRICS = {"mailboxes": "mailboxes", "messages": "messages", "bytes": "mail_bytes",
               "warning": "quota_warning_mailboxes", "exceeded": "quota_exceeded_mailboxes",
               "dirty": "marked_mailboxes", "damaged": "damaged_mailboxes", "scheduled": "scheduled_folders"}

    def test_metrics(self):
        shown = self.parsed(self.succeed("metrics").out)
        self.assertEqual(shown.pop("tsmail_left_out_mailboxes"), {None: 0})
        self.assertEqual(shown, {"tsmail_" + metric: {domain: self.expected(domain)[field]
                                                      for domain in ("other.test", "site.test")}
                                 for field, metric in self.METRICS.items()})
        self.assertEqual(self.succeed("--json", "metrics").objects,
                         self.succeed("--json", "usage", "--by-domain").objects)

    def test_metrics_into_a_file(self):
        os.makedirs("/tmp/collector")
        path = "/tmp/collector/tsmail.prom"
        write(path, "old\n")
        before = os.stat(path).st_ino
        self.assertEqual(self.succeed("metrics", "--output", path).out, "")
        self.assertEqual(content(path), self.succeed("metrics").out.encode())
        self.assertNotEqual(os.stat(path).st_ino, before)
        mask = os.umask(0o022)
        os.umask(mask)
        self.assertEqual(mode(path), 0o666 & ~mask)
        self.assertEqual(os.listdir("/tmp/collector"), ["tsmail.prom"])

    def test_a_file_that_cannot_be_made(self):
        self.fail_with(73, "metrics", "--output", "/tmp/none/x.prom", saying="/tmp/none/")
        os.makedirs("/tmp/taken/x")
        self.fail_with(73, "metrics", "--output", "/tmp/taken", saying="/tmp/taken")
        self.assertEqual([name for name in os.listdir("/tmp") if name.startswith(".taken")], [])

    def test_what_cannot_be_read_is_counted(self):
        own_by_nobody("/var/spool")
        os.chmod(mail(CARL), 0)
        done = tsmail("metrics", **as_nobody())
        self.assertNotEqual(done.code, 0)
        shown = self.parsed(done.out)
        self.assertEqual(shown["tsmail_left_out_mailboxes"], {None: 1})
        self.assertEqual(shown["tsmail_mailboxes"], {"site.test": 2})
        os.chmod(mail(CARL), 0o700)


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
