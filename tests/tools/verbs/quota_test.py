"""quota: flags, kept totals, notices, the archive share."""

import email
import email.policy
import os
import re
import threading
import time
import unittest

from testing.toolkit import (NOBODY, SpoolCase, as_nobody, content, environment, is_marked, limited, mail,
                             snapshot, tsmail)

ANN = "ann@site.test"
HOME = os.path.dirname(mail(ANN))
FLAGS = {"warning": f"{HOME}/quota_warning_flag", "exceeded": f"{HOME}/quota_exceeded_flag"}
STAMP = f"{HOME}/.alert_notification"
PROGRAM = "/bin/sendmail"
RECORDER = '#!/bin/sh\nprintf "%s\\n" "$*" >/tmp/sent.args\numask >/tmp/sent.umask\n' \
           'cat >/tmp/sent.input\nexit $(cat /tmp/sent.code)\n'
CONFIG = "/tmp/tsmail.toml"


def write(path, data):
    with open(path, "w", encoding="utf-8") as file:
        file.write(data)


def age(path, seconds):
    then = time.time() - seconds
    os.utime(path, (then, then))


class QuotaCase(SpoolCase):
    def setUp(self):
        super().setUp()
        self.succeed("create", ANN)

    def shown(self):
        [state] = self.succeed("--json", "quota", "show", ANN).objects
        return state


class FlagsTest(QuotaCase):
    def test_a_new_mailbox(self):
        before = snapshot("/var/spool")
        self.assertEqual(self.shown(), {
            "address": ANN, "warning": {"set": False, "value": 0},
            "exceeded": {"set": False, "value": 0}, "bytes": 0, "messages": 0, "dirty": False,
            "last_notice": None, "notice_due": True})
        out = self.succeed("quota", "show", ANN).out
        self.assertRegex(out, r"(?m)^warning flag +not set$")
        self.assertRegex(out, r"(?m)^notice due +yes$")
        self.assertEqual(snapshot("/var/spool"), before)

    def test_set_and_clear(self):
        for flag, path in FLAGS.items():
            for words, value in (((), 1), (("0",), 0), (("7",), 7), (("-2147483648",), -2**31),
                                 (("2147483647",), 2**31 - 1)):
                with self.subTest(flag=flag, value=value):
                    self.succeed("quota", "set", ANN, flag, *words)
                    self.assertEqual(content(path), str(value).encode())
                    self.assertEqual(self.shown()[flag], {"set": True, "value": value})
            self.succeed("quota", "clear", ANN, flag)
            self.assertFalse(os.path.exists(path))
            self.assertEqual(self.shown()[flag], {"set": False, "value": 0})
            self.succeed("quota", "clear", ANN, flag)

    def test_a_flag_without_a_number(self):
        write(FLAGS["exceeded"], "")
        self.assertEqual(self.shown()["exceeded"], {"set": True, "value": 0})
        self.assertRegex(self.succeed("quota", "show", ANN).out, r"exceeded flag +set, value 0")

    def test_words_that_are_refused(self):
        for words in (("set", ANN, "other"), ("set", ANN, "warning", "12abc"),
                      ("set", ANN, "warning", "2147483648"), ("set", ANN, "warning", ""),
                      ("clear", ANN, "other"), ("clear", ANN)):
            with self.subTest(words=words):
                self.fail_with(64, "quota", *words)
        for words in (("set", "bob@site.test", "warning"), ("clear", "bob@site.test", "warning"),
                      ("show", "bob@site.test"), ("reset", "bob@site.test")):
            self.fail_with(67, "quota", *words, saying="no such mailbox")
        self.fail_with(65, "quota", "show", "../x@site.test")
        self.assertEqual([p for p in FLAGS.values() if os.path.exists(p)], [])

    def test_what_was_not_written_is_said(self):
        os.mkdir(FLAGS["warning"])
        self.fail_with(73, "quota", "set", ANN, "warning", "3", saying="quota_warning_flag: Is a directory")
        self.fail_with(75, "quota", "set", ANN, "exceeded", "3", saying="quota_exceeded_flag: File too large",
                       preexec_fn=limited(FSIZE=0))
        self.assertNotEqual(tsmail("quota", "clear", ANN, "warning").code, 0)

    @unittest.skipIf(os.geteuid() != 0, "only root can be somebody else")
    def test_another_setter_at_the_same_time(self):
        """The last writer wins; the other one's flag was written, too."""
        done = threading.Event()

        def keep_writing():
            while not done.is_set():
                write(FLAGS["warning"], "5")

        other = threading.Thread(target=keep_writing)
        other.start()
        try:
            for _ in range(20):
                self.succeed("quota", "set", ANN, "warning", "7")
        finally:
            done.set()
            other.join()

    def test_a_home_that_may_not_be_written(self):
        for directory, _, _ in os.walk("/var/spool"):
            os.chmod(directory, 0o755)
        if os.geteuid() != 0:
            os.chmod(HOME, 0o555)
        self.addCleanup(os.chmod, HOME, 0o755)
        for words in (("set", ANN, "exceeded"),):
            done = tsmail("quota", *words, **as_nobody())
            self.assertEqual(done.code, 73, done)
            self.assertIn("quota_exceeded_flag: Permission denied", done.err)
        mode = os.stat(HOME).st_mode
        os.chmod(HOME, 0o755)
        write(FLAGS["exceeded"], "4")
        os.chmod(HOME, mode)
        done = tsmail("quota", "clear", ANN, "exceeded", **as_nobody())
        self.assertEqual(done.code, 73, done)
        os.chmod(mail(ANN), 0o555)
        done = tsmail("quota", "reset", ANN, **as_nobody())
        os.chmod(mail(ANN), 0o755)
        self.assertEqual(done.code, 73, done)

    def test_reset_and_kept_totals(self):
        write(f"{mail(ANN)}/.maildirsize", "1000 2\n536 1\n")
        state = self.shown()
        self.assertEqual((state["bytes"], state["messages"], state["dirty"]), (1536, 3, False))
        self.assertRegex(self.succeed("quota", "show", ANN).out,
                         r"kept total +1\.5 KiB \(1536 bytes\) in 3 messages")
        self.succeed("quota", "reset", ANN)
        self.assertTrue(is_marked(ANN))
        state = self.shown()
        self.assertEqual((state["bytes"], state["messages"], state["dirty"]), (None, None, True))
        self.succeed("quota", "reset", ANN)

    def test_when_a_notice_is_due(self):
        for seconds, due in ((0, False), (86390, False), (86401, True), (-100, False)):
            with self.subTest(seconds=seconds):
                write(STAMP, "")
                age(STAMP, seconds)
                before = os.stat(STAMP).st_mtime_ns
                state = self.shown()
                self.assertEqual((state["notice_due"], state["last_notice"]),
                                 (due, before // 10**9))
                self.assertEqual(os.stat(STAMP).st_mtime_ns, before)


class NotifyTest(QuotaCase):
    def setUp(self):
        super().setUp()
        self.install(0)

    def install(self, code, script=RECORDER):
        for name in ("args", "input", "umask"):
            if os.path.exists("/tmp/sent." + name):
                os.unlink("/tmp/sent." + name)
        write("/tmp/sent.code", str(code))
        write(PROGRAM, script)
        os.chmod(PROGRAM, 0o755)

    def notify(self, *words, **options):
        return tsmail("--json", "quota", "notify", ANN, "--subject", "Full", *words, **options)

    def sent(self):
        return content("/tmp/sent.input") if os.path.exists("/tmp/sent.input") else None

    def test_the_mail(self):
        done = self.notify("--from", "Post <pm@site.test>", "--body-file", "-",
                           stdin=b"Dear Ann,\n\n..\nit is over.\n")
        self.assertEqual((done.code, done.objects), (0, [{"address": ANN, "sent": True, "done": True}]), done)
        self.assertEqual(content("/tmp/sent.args"), b"-Am -bm -t\n")
        self.assertEqual(self.sent(),
                         b"From:Post <pm@site.test>\nTo:ann@site.test\nSubject:Full\n"
                         b"X-Tessaly-Quota: 1\nPrecedence: bulk\n\n"
                         b"Dear Ann,\n\n..\nit is over.\n.\n")

    def test_texts_beyond_ascii(self):
        """As an independent reader of mail sees them."""
        rows = [("Postfach fast voll", "x\n"), ("Postfach f\u00fcr Ann", "x\n"), ("Full", "it is \u00fcber.\n"),
                ("\u65e5\u672c\u8a9e \U0001f600 " * 30, "\u00e9\n"), ("\u00fc" * 39 + "x", ""), ("=?UTF-8?B?eA==?=\u00e9", "")]
        for subject, body in rows:
            with self.subTest(subject=subject):
                self.install(0)
                done = tsmail("--json", "quota", "notify", ANN, "--subject", subject, "--from", "P\u00f6st Amt <pm@site.test>",
                              "--body-file", "-", "--force", stdin=body.encode())
                self.assertEqual(done.code, 0, done)
                sent = self.sent()
                head = sent.split(b"\n\n")[0]
                self.assertTrue(head.isascii())
                self.assertLessEqual(max(map(len, head.split(b"\n"))), 78)
                message = email.message_from_bytes(sent, policy=email.policy.default)
                self.assertEqual(message["Subject"], subject)
                self.assertEqual(message["From"], "P\u00f6st Amt <pm@site.test>")
                self.assertEqual((message["MIME-Version"], message["X-Tessaly-Quota"]), ("1.0", "1"))
                self.assertEqual(message.get_content(), body.rstrip("\n") + "\n.\n")
                self.assertEqual(message["Content-Transfer-Encoding"], "7bit" if body.isascii() else "8bit")

    def test_texts_that_are_not_utf8(self):
        for words in (["--subject", b"\xff"], ["--subject", "x", "--from", b"\xff <a@b.test>"]):
            self.fail_with(65, "quota", "notify", ANN, *words, saying="not UTF-8")
        self.assertEqual(self.notify("--body-file", "-", stdin=b"\xff\n").code, 0)
        self.assertIn(b"charset=unknown-8bit", self.sent())

    def test_defaults(self):
        write(CONFIG, 'postmaster = "pm@site.test"\n')
        self.addCleanup(os.unlink, CONFIG)
        before = os.umask(0o027)
        done = self.notify(env=environment(TSMAIL_CONFIG=CONFIG))
        os.umask(before)
        self.assertEqual(done.code, 0, done)
        self.assertEqual(self.sent(), b"From:pm@site.test\nTo:ann@site.test\nSubject:Full\n"
                                      b"X-Tessaly-Quota: 1\nPrecedence: bulk\n\n\n.\n")
        self.assertEqual(int(content("/tmp/sent.umask"), 8), 0o027)

    def test_once_a_day(self):
        self.assertEqual(self.notify().objects[0]["sent"], True)
        self.install(0)
        stamp = os.stat(STAMP).st_mtime_ns
        done = self.notify()
        self.assertEqual((done.code, done.objects[0]["sent"], self.sent()), (0, False, None))
        self.assertIn("not sent", self.succeed("quota", "notify", ANN, "--subject", "s").out)
        self.assertEqual(self.notify("--force").objects[0]["sent"], True)
        self.assertIsNotNone(self.sent())
        self.assertEqual(os.stat(STAMP).st_mtime_ns, stamp)
        self.install(0)
        age(STAMP, 86401)
        self.assertEqual(self.notify().objects[0]["sent"], True)
        self.assertIsNotNone(self.sent())
        self.assertLess(time.time() - os.stat(STAMP).st_mtime, 60)

    def test_each_mailbox_gets_its_own(self):
        bert, carl = "bert@site.test", "carl@other.test"
        self.succeed("-q", "create", bert, carl)
        self.install(0, "#!/bin/sh\numask >>/tmp/sent.umask\ncat >>/tmp/sent.input\n")
        self.succeed("quota", "notify", bert, "--subject", "Early")
        self.assertEqual(self.succeed("quota", "notify", "--all", "--subject", "Full", "--dry-run").lines,
                         [f"{carl}: would be sent", f"{ANN}: would be sent",
                          f"{bert}: would not be sent: the last notice is less than a day old"])
        before = os.umask(0o027)
        done = tsmail("--json", "quota", "notify", "--all", "--subject", "Full", "--body-file", "-", stdin=b"text\n")
        os.umask(before)
        self.assertEqual((done.code, done.err), (0, ""))
        self.assertEqual(done.objects, [{"address": address, "sent": address != bert, "done": True}
                                        for address in (carl, ANN, bert)])
        sent = self.sent().decode()
        self.assertEqual(re.findall("^To:(.*)$", sent, re.M), [bert, carl, ANN])
        self.assertEqual(sent.count("\ntext\n.\n"), 2)
        self.assertEqual(content("/tmp/sent.umask").split()[1:], [b"0027"] * 2)
        self.assertEqual(os.stat(STAMP).st_mode & 0o777, os.stat(STAMP.replace("ann", "bert")).st_mode & 0o777)
        self.assertEqual(tsmail("--json", "quota", "notify", "--domain", "other.test", "--subject", "x", "--force").objects,
                         [{"address": carl, "sent": True, "done": True}])

    def test_a_notice_that_cannot_be_sent_does_not_stop_the_others(self):
        bert = "bert@site.test"
        self.succeed("-q", "create", bert)
        self.install(0, "#!/bin/sh\nif grep -q ^To:ann; then exit 75; fi\n")
        done = tsmail("quota", "notify", "--all", "--subject", "x")
        self.assertEqual((done.code, done.lines), (75, [f"{bert}: sent", "1 mailbox was left out"]))
        self.assertRegex(done.err, f"^tsmail: {ANN}: [^\n]*\n$")

    def test_the_programs_answer_is_the_exit_code(self):
        for status, code in ((0, 0), (75, 75), (67, 67), (1, 69), (127, 69)):
            with self.subTest(status=status):
                self.install(status)
                self.assertEqual(self.notify("--force").code, code)
        self.install(0, "#!/bin/sh\nkill -9 $$\n")
        self.assertEqual(self.notify("--force").code, 75)
        self.install(0, "#!/bin/sh\nexit 0\n")  # without reading
        write("/tmp/body", "long\n" * 100000)
        self.assertEqual(self.notify("--force", "--body-file", "/tmp/body").code, 0)

    def test_without_a_program_the_day_is_not_used_up(self):
        os.unlink(PROGRAM)
        self.fail_with(69, "quota", "notify", ANN, "--subject", "s", saying=PROGRAM)
        self.assertFalse(os.path.exists(STAMP))

    def test_texts_that_are_refused(self):
        write("/tmp/dot", "Dear Ann,\n.\nmore\n")
        write("/tmp/dot_at_end", "Dear Ann,\n.")
        write("/tmp/dot_crlf", "Dear Ann,\r\n.\r\nmore\r\n")
        write("/tmp/nul", "a\0b")
        write("/tmp/long", "x" * (2**20 + 1))
        for words in (("--subject", "a\nBcc: eve@site.test"), ("--subject", "a\rb"),
                      ("--subject", "s", "--from", "pm\nX: y"),
                      *(("--subject", "s", "--body-file", "/tmp/" + name)
                        for name in ("dot", "dot_at_end", "dot_crlf", "nul", "long"))):
            with self.subTest(words=words):
                self.fail_with(65, "quota", "notify", ANN, *words)
        self.fail_with(66, "quota", "notify", ANN, "--subject", "s", "--body-file", "/tmp/none")
        self.fail_with(66, "quota", "notify", ANN, "--subject", "s", "--body-file", "/tmp")
        self.fail_with(64, "quota", "notify", ANN)
        self.fail_with(67, "quota", "notify", "bob@site.test", "--subject", "s")
        self.assertIsNone(self.sent())
        self.assertFalse(os.path.exists(STAMP))

    def test_addresses_that_would_be_several(self):
        for address in ("ann,eve@site.test", "ann eve@site.test", "ann<eve@site.test"):
            with self.subTest(address=address):
                self.fail_with(65, "create", address)
                self.fail_with(65, "quota", "notify", address, "--subject", "s")
        self.assertIsNone(self.sent())

    def test_the_longest_text(self):
        write("/tmp/body", "x" * 2**20)
        self.assertEqual(self.notify("--body-file", "/tmp/body").code, 0)
        self.assertEqual(len(self.sent().split(b"\n\n", 1)[1]), 2**20 + len("\n.\n"))

    def test_a_stamp_that_cannot_be_made(self):
        os.symlink("/none/here", STAMP)
        done = self.notify()
        self.assertEqual(done.code, 0, done)
        self.assertIn("could not be kept", done.err)
        self.assertIsNotNone(self.sent())


@unittest.skipUnless(os.geteuid() == 0, "owners are changed")
class OwnerTest(QuotaCase):
    def test_files_belong_to_the_mailboxs_owner(self):
        for directory, _, _ in os.walk(HOME):
            os.chown(directory, NOBODY, NOBODY)
        os.chmod("/var/spool/home", 0o755)
        os.chmod(os.path.dirname(HOME), 0o755)
        write(PROGRAM, "#!/bin/sh\nid -u >/tmp/sent.uid\ncat >/dev/null\n")
        os.chmod(PROGRAM, 0o755)
        self.succeed("quota", "set", ANN, "warning")
        self.succeed("quota", "notify", ANN, "--subject", "s")
        self.assertEqual([os.stat(path).st_uid for path in (FLAGS["warning"], STAMP)],
                         [NOBODY, NOBODY])
        self.assertEqual(content("/tmp/sent.uid"), b"0\n")


class ArchiveTest(SpoolCase):
    def setUp(self):
        super().setUp()
        write(CONFIG, "".join(f'[[archive_account]]\nname = "{name}"\nquota_gib = {quota}\n'
                              for name, quota in (("alpha", 5), ("beta", 7), ("gamma", 3))))
        spool = os.statvfs("/var/spool")
        self.share = spool.f_blocks * spool.f_frsize // 2**30 // 5
        self.env = environment(TSMAIL_CONFIG=CONFIG)

    def tearDown(self):
        os.unlink(CONFIG)

    def test_share_given_and_free(self):
        for words, given in (((), 15), (("--exclude", "beta"), 8), (("--exclude", "none"), 15)):
            with self.subTest(words=words):
                [row] = self.succeed("--json", "quota", "archive", *words, env=self.env).objects
                self.assertEqual((row["share_gib"], row["given_gib"], row["free_gib"]),
                                 (self.share, given, self.share - given))
                self.assertEqual([(a["name"], a["quota_gib"], a["counts"])
                                  for a in row["accounts"]],
                                 [("alpha", 5, True), ("beta", 7, "beta" not in words),
                                  ("gamma", 3, True)])

    def test_the_table(self):
        out = self.succeed("quota", "archive", "--exclude", "beta", env=self.env).out
        for pattern in (r"^share +\d+$", r"^  alpha +5$", r"^  beta \(left out\) +7$",
                        r"^given +8$", rf"^free +{self.share - 8}$"):
            self.assertRegex(out, "(?m)" + pattern)

    def test_without_accounts(self):
        [row] = self.succeed("--json", "quota", "archive").objects
        self.assertEqual((row["given_gib"], row["free_gib"], row["accounts"]),
                         (0, self.share, []))


if __name__ == "__main__":
    unittest.main()
