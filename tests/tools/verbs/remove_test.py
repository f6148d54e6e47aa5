"""rm, sweep, mailbox remove, message rm, check-name: what is removed, what stays, what is counted."""

import fcntl
import os
import subprocess
import time
import unittest

from testing.toolkit import (NOBODY, SYSTEM_FOLDERS, TSMAIL, Lock, SpoolCase, as_nobody,
                             environment, folder_record, is_marked, mail, mailbox_record, messages,
                             run, snapshot, tsmail)

ANN, BERT = "ann@site.test", "bert@site.test"
HOME = os.path.dirname(mail(ANN))


def scheduled(home=HOME):
    return sorted(name for name in os.listdir(home) if name.startswith(".deleted."))


class RemovalCase(SpoolCase):
    def setUp(self):
        super().setUp()
        self.succeed("create", ANN, "--folder", "Work/2024")

    def deliver(self, size, folder="Inbox", address=ANN):
        done = self.succeed("deliver", address, "--folder", folder, stdin=b"x" * size)
        return done.lines[0]

    def give_to_nobody(self):
        for directory, _, files in os.walk("/var/spool"):
            os.chmod(directory, 0o755)
            for name in [".", *files]:
                if os.geteuid() == 0:
                    os.chown(os.path.join(directory, name), NOBODY, NOBODY)


class FolderTest(RemovalCase):
    def fill(self):
        self.deliver(100)
        self.deliver(1000, "Work")
        self.deliver(20, "Work/2024")
        self.deliver(3, "Work/2024")

    def test_scheduled(self):
        self.fill()
        daemon = self.listen()
        [row] = self.succeed("--json", "rm", ANN, "Work").objects
        self.assertEqual((row["action"], row["done"], row["messages"], row["bytes"]),
                         ("schedule", True, 3, 1023))
        day = time.strftime("%Y%m%d", time.gmtime())
        self.assertEqual(scheduled(), [f".deleted.{day}.Work.1"])
        self.assertTrue(os.path.isdir(f"{HOME}/{scheduled()[0]}/2024/new"))
        self.assertFalse(os.path.exists(mail(ANN) + "/Work"))
        self.assertEqual(mailbox_record(ANN), (100, 1))
        self.assertFalse(is_marked(ANN))
        self.assertEqual(self.told(daemon), [f"S-1023,F({mail(ANN)}/Work)"])
        names = [r["folder"] for r in self.succeed("--json", "folders", ANN).objects]
        self.assertEqual(names, sorted(SYSTEM_FOLDERS))
        self.succeed("create", ANN, "--folder", "Work")
        self.succeed("rm", ANN, "Work")
        self.assertEqual(len(scheduled()), 2)

    def test_at_once(self):
        self.fill()
        daemon = self.listen()
        out = self.succeed("rm", ANN, "Work/2024", "--now").out
        self.assertEqual(out, f"removed {mail(ANN)}/Work/2024: "
                              "2 messages (23 B) and 1 other file\n")
        self.assertEqual(scheduled(), [])
        self.assertFalse(os.path.exists(mail(ANN) + "/Work/2024"))
        self.assertEqual((mailbox_record(ANN), folder_record(ANN, "Work")), ((1100, 2), (1000, 1)))
        self.assertEqual(self.told(daemon), [f"S-23,F({mail(ANN)}/Work/2024)"])

    def test_dry_run(self):
        self.fill()
        before = snapshot("/var/spool")
        daemon = self.listen()
        for words, deed in (((), "schedule"), (("--now",), "remove")):
            out = self.succeed("rm", ANN, "Work", "--dry-run", *words).out
            self.assertEqual(out, f"would {deed} {mail(ANN)}/Work: "
                                  "3 messages (1023 B) and 2 other files\n")
        [row] = self.succeed("--json", "rm", ANN, "Work", "--dry-run").objects
        self.assertEqual((row["done"], row["messages"], row["bytes"]), (False, 3, 1023))
        self.assertEqual(snapshot("/var/spool"), before)
        self.assertEqual(self.told(daemon), [])

    def test_a_system_folder(self):
        self.fill()
        before = snapshot("/var/spool")
        for words in ((), ("--now",), ("--dry-run",)):
            self.fail_with(65, "rm", ANN, "Inbox", *words, saying="system folder.*--force")
        self.assertEqual(snapshot("/var/spool"), before)
        for words in (("--now",), ()):
            self.succeed("rm", ANN, "Inbox", "--force", *words)
            self.assertEqual(messages(ANN), [])
            self.assertTrue(os.path.isdir(mail(ANN) + "/Inbox/cur"))
            self.assertEqual(mailbox_record(ANN), (1023, 3))
        self.assertEqual(len(scheduled()), 1)

    def test_what_is_refused(self):
        os.symlink(mail(ANN) + "/Work", mail(ANN) + "/Link")
        os.mkdir(mail(ANN) + "/plain")
        before = snapshot("/var/spool")
        for name in ("../Work", "/Work", "Work/..", ".", "", "Work/cur", "a\nb", "Link"):
            self.fail_with(65, "rm", ANN, name, "--now")
        for name in ("None", "Work/None", "plain"):
            self.fail_with(66, "rm", ANN, name, saying="no folder")
        self.fail_with(67, "rm", BERT, "Work")
        self.fail_with(64, "rm", ANN)
        self.assertEqual(snapshot("/var/spool"), before)

    def test_links_are_not_followed(self):
        self.deliver(5)
        os.symlink(mail(ANN) + "/Inbox", mail(ANN) + "/Work/cur/link")
        os.symlink(mail(ANN) + "/Inbox", mail(ANN) + "/Work/link")
        out = self.succeed("rm", ANN, "Work", "--now").out
        self.assertIn("0 messages (0 B) and 2 other files", out)
        self.assertEqual(len(messages(ANN)), 1)
        self.assertEqual(mailbox_record(ANN), (5, 1))

    def test_a_home_that_may_not_be_written(self):
        self.fill()
        self.give_to_nobody()
        os.chmod(HOME, 0o555)
        self.addCleanup(os.chmod, HOME, 0o755)
        done = tsmail("rm", ANN, "Work", **as_nobody())
        self.assertEqual(done.code, 73, done)
        self.assertEqual((mailbox_record(ANN), is_marked(ANN)), ((1123, 4), False))
        self.assertEqual(len(messages(ANN, "Work")), 1)

    def test_what_stays_marks_the_mailbox(self):
        self.fill()
        self.give_to_nobody()
        os.chmod(mail(ANN) + "/Work/2024/new", 0o555)
        done = tsmail("rm", ANN, "Work", "--now", **as_nobody())
        self.assertEqual(done.code, 73, done)
        self.assertEqual(len(messages(ANN, "Work/2024")), 2)
        self.assertTrue(is_marked(ANN))

    def test_a_record_that_cannot_be_corrected(self):
        self.fill()
        os.unlink(mail(ANN) + "/.maildirsize")
        os.mkdir(mail(ANN) + "/.maildirsize")
        done = self.succeed("rm", ANN, "Work")
        self.assertIn("needs a recount", done.err)
        self.assertTrue(is_marked(ANN))

    def test_deliveries_and_removals_wait_for_each_other(self):
        with Lock(mail(ANN) + "/Work") as lock:
            fcntl.flock(lock.fd, fcntl.LOCK_SH)  # as a delivery does
            with subprocess.Popen([TSMAIL, "rm", ANN, "Work"], stdout=subprocess.PIPE,
                                  env=environment()) as waiting:
                time.sleep(0.3)
                self.assertIsNone(waiting.poll())
                self.assertTrue(os.path.exists(mail(ANN) + "/Work"))
                fcntl.flock(lock.fd, fcntl.LOCK_UN)
                waiting.communicate(timeout=60)
        self.assertEqual(waiting.returncode, 0)
        self.assertFalse(os.path.exists(mail(ANN) + "/Work"))


class SweepTest(RemovalCase):
    def test_what_was_scheduled_goes(self):
        self.deliver(10, "Work")
        self.succeed("rm", ANN, "Work")
        os.mkdir(mail(ANN) + "/.deleted..Old.1")
        os.symlink(mail(ANN) + "/Inbox", HOME + "/.deleted.link")
        os.mkdir(HOME + "/.deleted")
        os.mkdir(mail(ANN) + "/deleted.x")
        self.deliver(7)
        before = snapshot("/var/spool")
        dry = self.succeed("sweep", ANN, "--dry-run")
        self.assertEqual(snapshot("/var/spool"), before)
        rows = self.succeed("--json", "sweep", ANN).objects
        self.assertEqual([(os.path.basename(r["path"]).split(".")[-2], r["messages"], r["bytes"])
                          for r in rows], [("Work", 1, 10), ("deleted", 0, 0), ("Old", 0, 0)])
        self.assertEqual([line.split()[:2] for line in dry.lines], [["would", "remove"]] * 3)
        self.assertEqual(scheduled() + scheduled(mail(ANN)), [])
        self.assertEqual((len(messages(ANN)), mailbox_record(ANN)), (1, (7, 1)))
        self.assertTrue(os.path.isdir(HOME + "/.deleted"))
        self.assertTrue(os.path.isdir(mail(ANN) + "/deleted.x"))
        self.assertEqual(self.succeed("sweep", ANN).out, "")

    def test_all_mailboxes(self):
        for address in (ANN, BERT, "carl@other.test"):
            self.succeed("create", address, "--folder", "Gone")
            self.succeed("rm", address, "Gone")
        os.makedirs("/var/spool/home/site.test/.deleted.no.home.1")
        os.makedirs("/var/spool/home/sys_arch/dora~site.test/.deleted.x")
        rows = self.succeed("--json", "sweep", "--all").objects
        self.assertEqual([r["path"].split("/")[5] for r in rows],
                         ["carl~other.test", "ann~site.test", "bert~site.test"])
        self.assertTrue(os.path.exists("/var/spool/home/site.test/.deleted.no.home.1"))
        self.assertTrue(os.path.exists("/var/spool/home/sys_arch/dora~site.test/.deleted.x"))
        self.assertEqual(self.succeed("sweep", "--all").out, "")

    def test_what_does_not_go_does_not_keep_the_others(self):
        for name in (".deleted.a", ".deleted.b/full", ".deleted.c"):
            os.makedirs(f"{HOME}/{name}")
        self.give_to_nobody()
        os.chmod(HOME + "/.deleted.b", 0o555)
        done = tsmail("sweep", ANN, **as_nobody())
        os.chmod(HOME + "/.deleted.b", 0o755)
        self.assertEqual(done.code, 73, done)
        self.assertEqual(scheduled(), [".deleted.b"])

    def test_what_is_older_goes(self):
        self.succeed("rm", ANN, "Work")
        for age in ("7d", "1h", "1w"):
            self.assertEqual(self.succeed("sweep", ANN, "--older", age).out, "")
        self.assertEqual(len(scheduled()), 1)
        status = os.lstat(f"{HOME}/{scheduled()[0]}")
        while time.time() < status.st_ctime + 2.1:
            time.sleep(0.1)
        dry = self.succeed("sweep", "--all", "--older", "1s", "--dry-run").lines
        self.assertRegex(dry[0], "^would remove .*Work.1: 0 messages")
        os.chmod(f"{HOME}/{scheduled()[0]}", 0o700)  # now it counts as just scheduled
        self.assertEqual(self.succeed("sweep", ANN, "--older", "2s").out, "")
        while time.time() < os.lstat(f"{HOME}/{scheduled()[0]}").st_ctime + 2.1:
            time.sleep(0.1)
        self.succeed("sweep", "--domain", "site.test", "--older", "1s")
        self.assertEqual(scheduled(), [])

    def test_ages(self):
        for age in ("", "7", "d", "-1d", "7m", "7 d", "7dd", "1.5h", "100001d"):
            with self.subTest(age=age):
                self.fail_with(64, "sweep", ANN, "--older", age, saying="older")
        for age in ("0s", "12h", "30d", "100000w"):
            self.succeed("sweep", ANN, "--older", age)

    def test_one_or_all(self):
        self.fail_with(64, "sweep")
        self.fail_with(64, "sweep", ANN, "--all")
        self.fail_with(67, "sweep", BERT)
        self.fail_with(65, "sweep", "../x@site.test")


class MailboxTest(RemovalCase):
    def setUp(self):
        super().setUp()
        self.succeed("create", BERT)
        self.write_list(ANN, "primaryaddr", "bert@site.test\n")
        self.write_list(BERT, "secondaryaddr", "x@site.test\nann@site.test\n")
        self.deliver(1000)

    @staticmethod
    def write_list(address, name, text):
        home = os.path.dirname(mail(address))
        with open(f"{home}/pref/{os.path.basename(home)}.{name}", "w", encoding="ascii") as file:
            file.write(text)

    def answered(self, text):
        ours, theirs = os.openpty()
        try:
            os.write(ours, text)
            return run([TSMAIL, "mailbox", "remove", ANN, "--now"], stdin=theirs)
        finally:
            os.close(ours)
            os.close(theirs)

    def check_removed(self):
        self.assertEqual(os.listdir("/var/spool/home/site.test"), ["bert~site.test"])
        home = os.path.dirname(mail(BERT))
        with open(f"{home}/pref/bert~site.test.secondaryaddr", encoding="ascii") as file:
            self.assertEqual(file.read(), "x@site.test\n")
        self.assertEqual(tsmail("folders", BERT).code, 0)
        self.fail_with(67, "mailbox", "remove", ANN, "--now", "--yes")

    def test_with_yes(self):
        daemon = self.listen()
        [row] = self.succeed("--json", "mailbox", "remove", "ann@site.test", "--now", "--yes").objects
        self.assertEqual((row["path"], row["done"], row["messages"], row["bytes"]),
                         (HOME, True, 1, 1000))
        self.assertEqual(self.told(daemon), [f"S-1000,F({mail(ANN)})"])
        self.check_removed()

    def test_nobody_to_ask(self):
        before = snapshot("/var/spool")
        self.fail_with(64, "mailbox", "remove", ANN, stdin=b"y\n", saying="--yes")
        self.fail_with(65, "mailbox", "remove", "@site.test", "--yes")
        self.fail_with(65, "mailbox", "remove", "ann", "--yes")
        self.assertEqual(snapshot("/var/spool"), before)

    def test_asked_on_a_terminal(self):
        before = snapshot("/var/spool")
        for text in (b"n\n", b"\n", b"yet\n", b"\x04"):
            with self.subTest(text=text):
                done = self.answered(text)
                self.assertEqual(done.code, 64, done)
                self.assertIn("ann@site.test has 1 message (1000 B)", done.err)
                self.assertEqual(snapshot("/var/spool"), before)
        self.assertEqual(self.answered(b"Yes\n").code, 0)
        self.check_removed()

    def test_dry_run(self):
        before = snapshot("/var/spool")
        out = self.succeed("mailbox", "remove", ANN, "--now", "--dry-run").out
        self.assertRegex(out, rf"^would remove {HOME}: 1 message \(1000 B\) and \d+ other files$")
        self.succeed("mailbox", "remove", ANN, "--now", "--dry-run", "--yes")
        self.assertEqual(snapshot("/var/spool"), before)

    def test_again_after_a_part(self):
        for directory, _, files in os.walk(mail(ANN), topdown=False):
            for name in files:
                os.unlink(os.path.join(directory, name))
            os.rmdir(directory)
        self.succeed("mailbox", "remove", ANN, "--now", "--yes")
        self.check_removed()

    def test_partners_that_are_not_mailboxes(self):
        self.write_list(ANN, "primaryaddr", "bert@site.test\nx@../../../..\nno@site.test\n\n../..\n")
        done = self.succeed("mailbox", "remove", ANN, "--now", "--yes")
        self.assertEqual(len(done.err.splitlines()), 2, done)
        self.assertIn("is left alone", done.err)
        self.check_removed()

    def test_a_home_that_is_a_link(self):
        os.rename(HOME, "/var/spool/elsewhere")
        os.symlink("/var/spool/elsewhere", HOME)
        self.succeed("mailbox", "remove", ANN, "--now", "--yes")
        self.check_removed()
        self.assertEqual(os.listdir("/var/spool/elsewhere"), [])

    def test_a_partner_whose_list_cannot_be_changed(self):
        """The command reports that and removes the mailbox nevertheless."""
        theirs = f"{os.path.dirname(mail(BERT))}/pref/bert~site.test.secondaryaddr"
        os.unlink(theirs)
        os.mkdir(theirs)
        done = tsmail("mailbox", "remove", ANN, "--now", "--yes")
        self.assertEqual(done.code, 73, done)
        self.assertIn(theirs, done.err)
        self.assertIn(f"removed {HOME}", done.out)
        self.assertEqual(os.listdir("/var/spool/home/site.test"), ["bert~site.test"])

    def test_what_stays_is_said(self):
        self.give_to_nobody()
        os.chmod(mail(ANN) + "/Inbox/new", 0o555)
        done = tsmail("mailbox", "remove", ANN, "--now", "--yes", **as_nobody())
        os.chmod(mail(ANN) + "/Inbox/new", 0o755)
        self.assertEqual(done.code, 73, done)
        self.assertEqual(done.out, "")
        self.assertEqual(len(messages(ANN)), 1)


class MessageTest(RemovalCase):
    def test_sizes_are_corrected(self):
        daemon = self.listen()
        paths = [self.deliver(size, "Work") for size in (100, 0, 7)]
        self.told(daemon)
        left, count = 107, 3
        for path, size in zip(paths, (100, 0, 7)):
            if size == 100:
                moved = f"{mail(ANN)}/Work/cur/{os.path.basename(path)}:2,S"
                os.rename(path, moved)
                path = moved
            [row] = self.succeed("--json", "message", "rm", ANN, "Work",
                                 os.path.basename(path)).objects
            self.assertEqual((row["path"], row["messages"], row["bytes"]), (path, 1, size))
            left, count = left - size, count - 1
            self.assertFalse(os.path.exists(path))
            self.assertEqual((folder_record(ANN, "Work"), mailbox_record(ANN)),
                             ((left, count), (left, count)))
            self.assertEqual(self.told(daemon), [f"S{-size},F({mail(ANN)}/Work)"])
        self.assertFalse(is_marked(ANN))

    def test_dry_run(self):
        path = self.deliver(9)
        before = snapshot("/var/spool")
        out = self.succeed("message", "rm", ANN, "Inbox", os.path.basename(path), "--dry-run").out
        self.assertEqual(out, f"would remove {path}: 1 message (9 B) and 0 other files\n")
        self.assertEqual(snapshot("/var/spool"), before)

    def test_what_is_refused(self):
        path = self.deliver(9)
        os.symlink(path, mail(ANN) + "/Inbox/new/link")
        os.mkdir(mail(ANN) + "/Inbox/new/directory")
        with open(mail(ANN) + "/Inbox/tmp/waiting", "wb"):
            pass
        before = snapshot("/var/spool")
        for name in ("", ".", "..", "../tmp/waiting", "/etc/passwd", "a/b", ".hidden"):
            self.fail_with(65, "message", "rm", ANN, "Inbox", name)
        for name in ("none", "link", "directory", "waiting"):
            self.fail_with(66, "message", "rm", ANN, "Inbox", name, saying="no message")
        self.fail_with(65, "message", "rm", ANN, "../Inbox", "x")
        self.fail_with(66, "message", "rm", ANN, "None", "x")
        self.fail_with(67, "message", "rm", BERT, "Inbox", "x")
        self.assertEqual(snapshot("/var/spool"), before)

    def test_a_message_that_may_not_go_marks_the_mailbox(self):
        name = os.path.basename(self.deliver(9))
        self.give_to_nobody()
        os.chmod(mail(ANN) + "/Inbox/new", 0o555)
        done = tsmail("message", "rm", ANN, "Inbox", name, **as_nobody())
        os.chmod(mail(ANN) + "/Inbox/new", 0o755)
        self.assertEqual(done.code, 73, done)
        self.assertEqual(mailbox_record(ANN), (9, 1))
        self.assertTrue(is_marked(ANN))

    def test_waits_for_a_recount(self):
        name = os.path.basename(self.deliver(9))
        with Lock(mail(ANN) + "/Inbox") as lock:
            with subprocess.Popen([TSMAIL, "-q", "message", "rm", ANN, "Inbox", name],
                                  env=environment()) as waiting:
                time.sleep(0.3)
                self.assertIsNone(waiting.poll())
                self.assertEqual(len(messages(ANN)), 1)
                fcntl.flock(lock.fd, fcntl.LOCK_UN)
                self.assertEqual(waiting.wait(timeout=60), 0)
        self.assertEqual(messages(ANN), [])


class CheckNameTest(SpoolCase):
    ROWS = (  # name, options, whether valid, reason
        ("Work", (), True, ""),
        ("a.b", (), True, ""),
        ("a b", (), True, ""),
        ("Work/2024", (), False, "holds a '/'"),
        ("Work/2024", ("--path",), True, ""),
        ("/Work", ("--path",), False, "is empty"),
        ("Work/", ("--path",), False, "is empty"),
        ("a/.b", ("--path",), False, r"begins with '\.'"),
        (".hidden", (), False, r"begins with '\.'"),
        ("..", (), False, r"begins with '\.'"),
        ("", (), False, "is empty"),
        ("a|b", (), False, r"holds a '\|'"),
        ("cur", (), True, ""),
        ("cur", ("--reserved",), False, '"cur"'),
        ("Work/cur", ("--path", "--reserved"), False, '"cur"'),
        ("Work/CUR", ("--path", "--reserved"), True, ""),
    )

    def test_names(self):
        for name, options, valid, why in self.ROWS:
            with self.subTest(name=name, options=options):
                done = tsmail("check-name", name, *options)
                self.assertEqual(done.code, 0 if valid else 65, done)
                self.assertRegex(done.out, ": valid$" if valid else ": not valid, .*" + why)
                [row] = tsmail("--json", "check-name", name, *options).objects
                self.assertEqual((row["name"], row["valid"]), (name, valid))

    def test_nothing_is_touched(self):
        self.succeed("check-name", "Work")
        self.assertEqual(os.listdir("/var/spool"), [])
        self.fail_with(64, "check-name")


if __name__ == "__main__":
    unittest.main()
