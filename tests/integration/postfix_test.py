"""Beside Postfix, which passes the mail that arrives to `tsmail deliver`."""

import grp
import json
import os
import pathlib
import re
import smtplib
import subprocess
import threading
import time

import neighbours
from arrivals import Service, numbers, send
from testing.toolkit import (HOME, SOURCE, SpoolCase, content, folder_record, left_in_tmp, mail,
                             mailbox_record, messages)

LOG = "/var/spool/log/postfix"
CONF = "/etc/postfix"


def postfix(*words):
    return subprocess.run(["postfix", *words], stdout=subprocess.PIPE, stderr=subprocess.STDOUT)


def wait_until(condition, what, seconds=30):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            with open(LOG) as log:
                raise AssertionError(f"waited in vain for {what}\n{log.read()}")
        time.sleep(0.02)


def queue():
    """The messages that Postfix still holds."""
    done = subprocess.run(["postqueue", "-j"], stdout=subprocess.PIPE, check=True)
    return [json.loads(line) for line in done.stdout.splitlines()]


def deferred():
    return [recipient["delay_reason"] for message in queue() for recipient in message["recipients"]
            if "delay_reason" in recipient]


def submitter():
    """The owner of the mail, with the right to submit that Postfix's set-group-id program would give."""
    return {**neighbours.as_vmail(), "extra_groups": [grp.getgrnam("postdrop").gr_gid]}


def everything_delivered():
    return not queue()


class PostfixCase(SpoolCase):
    MASTER = ("", "")  # what a case changes in the shown configuration

    def setUp(self):
        super().setUp()
        neighbours.make_home()
        os.makedirs(os.path.dirname(LOG))
        os.makedirs("/var/spool/postfix")
        shown = neighbours.configuration
        with open(f"{CONF}/main.cf", "w") as main:
            main.write(shown("postfix.md", "main.cf") + f"maillog_file = {LOG}\n")
        with open("/usr/share/postfix/master.cf.dist") as dist:
            debian = dist.read()
        with open(f"{CONF}/master.cf", "w") as master:
            master.write(debian + shown("postfix.md", "master.cf").replace(*self.MASTER))
        done = postfix("start")
        self.assertEqual(done.returncode, 0, done.stdout.decode())
        for user in ("ann", "bob"):
            self.succeed("create", f"{user}@site.test", "--folder", "Work", **neighbours.as_vmail())

        self.prepare()

    def prepare(self):
        """What else has to be there before mail comes."""

    def tearDown(self):
        postfix("stop")

    def submit(self, sender, recipient, text):
        """Through the interface that local programs use."""
        subprocess.run(["/bin/sendmail", "-i", "-f", sender, recipient], input=text, check=True)

    def assert_body(self, path, body):
        head, found = content(path).split(b"\n\n", 1)
        self.assertEqual(found, body)
        return head


class ArrivalTest(PostfixCase):
    def test_local_submission(self):
        body = b"From here\n.\n..\n" + bytes(range(128, 256)) + b"\n\nlast\n"
        self.submit("bob@site.test", "ann@site.test", b"Subject: hello\n\n" + body)
        wait_until(everything_delivered, "delivery")
        path, = messages("ann@site.test")
        head = self.assert_body(path, body)
        self.assertIn(b"Return-Path: <bob@site.test>", head)
        self.assertIn(b"Subject: hello", head)
        size = os.path.getsize(path)
        self.assertTrue(path.endswith(f",#F#S#{size}#E"), path)
        self.assertEqual(folder_record("ann@site.test"), (size, 1))
        self.assertEqual(os.stat(path).st_uid, neighbours.VMAIL)

    def test_smtp_with_a_tag_and_two_recipients(self):
        text = b"Subject: over SMTP\r\n\r\nline\r\n.dot\r\n"
        with smtplib.SMTP("127.0.0.1") as smtp:
            refused = smtp.sendmail("bob@site.test", ["ann+Work@site.test", "bob@site.test"], text)
        self.assertEqual(refused, {})
        wait_until(everything_delivered, "delivery")
        for address, folder in (("ann@site.test", "Work"), ("bob@site.test", "Inbox")):
            path, = messages(address, folder)
            self.assert_body(path, b"line\n.dot\n")
        self.assertEqual(messages("ann@site.test"), [])
        queue_id = content(path).split(b"with ESMTP id ")[1].split()[0].rstrip(b";").decode()
        self.assertIn(f"#Q#{queue_id},", path)

    def test_many_at_once(self):
        with smtplib.SMTP("127.0.0.1") as smtp:
            for n in range(60):
                smtp.sendmail("bob@site.test", [f"ann{'+Work' * (n % 2)}@site.test"],
                              b"Subject: %d\r\n\r\n" % n + b"x\r\n" * n)
        wait_until(everything_delivered, "delivery", 60)
        sizes = []
        for folder in ("Inbox", "Work"):
            paths = messages("ann@site.test", folder)
            self.assertEqual(len(paths), 30)
            found = sum(map(os.path.getsize, paths))
            self.assertEqual(folder_record("ann@site.test", folder), (found, 30))
            sizes.append(found)
        self.assertEqual(mailbox_record("ann@site.test"), (sum(sizes), 60))


class TagTest(PostfixCase):
    def test_a_stranger_makes_no_folder(self):
        for tag in ("anything", "work", "INBOX"):
            self.submit("bob@site.test", f"ann+{tag}@site.test", b"Subject: x\n\ntext\n")
        wait_until(everything_delivered, "delivery")
        self.assertEqual(len(messages("ann@site.test")), 3)
        self.assertFalse(os.path.exists(f"{mail('ann@site.test')}/anything"))


class QuotaTest(PostfixCase):
    def test_a_full_mailbox_is_refused_with_its_status(self):
        self.succeed("quota", "set", "ann@site.test", "exceeded", **neighbours.as_vmail())
        self.submit("bob@site.test", "ann@site.test", b"Subject: one too many\n\ntext\n")
        wait_until(everything_delivered, "the bounce")
        path, = messages("bob@site.test")
        bounce = content(path)
        self.assertIn(b"Status: 5.2.2", bounce)
        self.assertIn(b"ann@site.test: the mailbox is full", bounce)
        self.assertIn(b"Subject: one too many", bounce)
        self.assertEqual(messages("ann@site.test"), [])
        self.succeed("quota", "clear", "ann@site.test", "exceeded", **neighbours.as_vmail())
        self.submit("bob@site.test", "ann@site.test", b"Subject: room again\n\ntext\n")
        wait_until(everything_delivered, "delivery")
        self.assertEqual(len(messages("ann@site.test")), 1)


class DeferTest(PostfixCase):
    MASTER = ("--refuse-exceeded", "--defer-exceeded")

    def test_a_full_mailbox_may_be_tried_again(self):
        self.succeed("quota", "set", "ann@site.test", "exceeded", **neighbours.as_vmail())
        self.submit("bob@site.test", "ann@site.test", b"Subject: later\n\ntext\n")
        wait_until(deferred, "the delay")
        self.assertRegex(deferred()[0], "the mailbox is full")
        self.assertEqual(messages("bob@site.test"), [])
        self.succeed("quota", "clear", "ann@site.test", "exceeded", **neighbours.as_vmail())
        subprocess.run(["postqueue", "-f"], check=True)
        wait_until(everything_delivered, "delivery after the delay")
        self.assertEqual(len(messages("ann@site.test")), 1)


class ExitCodeTest(PostfixCase):
    def small_home(self, size):
        subprocess.run(["umount", HOME], stderr=subprocess.DEVNULL)
        subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size},uid={neighbours.VMAIL}",
                        "tmpfs", HOME], check=True)

    def test_unknown_user_goes_back_to_the_sender(self):
        self.submit("bob@site.test", "nobody@site.test", b"Subject: lost\n\ntext\n")
        wait_until(everything_delivered, "the bounce")
        path, = messages("bob@site.test")
        bounce = content(path)
        self.assertIn(b"Status: 5.1.1", bounce)
        self.assertIn(b"nobody@site.test: there is no such mailbox", bounce)
        self.assertIn(b"Subject: lost", bounce)
        self.assertFalse(os.path.exists(f"{HOME}/site.test/nobody~site.test"))

    def test_a_full_disk_is_tried_again(self):
        self.small_home("256k")
        self.succeed("create", "ann@site.test", **neighbours.as_vmail())
        self.submit("bob@site.test", "ann@site.test", b"Subject: big\n\n" + b"x" * 70 * 5000)
        wait_until(deferred, "the delay")
        self.assertRegex(deferred()[0], "No space left on device")
        self.assertEqual(messages("ann@site.test"), [])
        self.assertEqual(folder_record("ann@site.test"), (0, 0))
        subprocess.run(["mount", "-o", "remount,size=10m", HOME], check=True)
        subprocess.run(["postqueue", "-f"], check=True)
        wait_until(everything_delivered, "delivery after the delay")
        self.assertEqual(len(messages("ann@site.test")), 1)
        subprocess.run(["umount", HOME], check=True)

    def test_an_unreadable_spool_is_tried_again(self):
        os.chown(HOME, 0, 0)
        os.chmod(HOME, 0o700)
        self.submit("bob@site.test", "ann@site.test", b"Subject: later\n\ntext\n")
        wait_until(deferred, "the delay")
        self.assertRegex(deferred()[0], "Permission denied")
        neighbours.make_home()
        subprocess.run(["postqueue", "-f"], check=True)
        wait_until(everything_delivered, "delivery after the delay")
        self.assertEqual(len(messages("ann@site.test")), 1)
        self.assertEqual(messages("bob@site.test"), [])


class LmtpTest(PostfixCase):
    """Postfix passes the mail to `tsmail lmtp`, which root starts as the page says."""

    def prepare(self):
        page = pathlib.Path(SOURCE, "docs/neighbours/postfix.md").read_text(encoding="utf-8")
        command, lines = re.search(r"## Over LMTP.*?\n    tsmail (.*?)\n.*?```\n(.*?)^```$", page, re.S | re.M).groups()
        self.command = command.split()
        for line in lines.splitlines():
            subprocess.run(["postconf", "-e", line], check=True)
        subprocess.run(["postconf", "-X", "tsmail_destination_recipient_limit"], check=True)
        subprocess.run(["postconf", "-MX", "tsmail/unix"], check=True)
        subprocess.run(["postconf", "-e", "minimal_backoff_time=1s", "maximal_backoff_time=2s",
                        "queue_run_delay=1s"], check=True)
        self.assertEqual(postfix("reload").returncode, 0)
        self.start()
        self.addCleanup(lambda: self.service.stop())

    def start(self, *more):
        self.service = Service("/var/spool/postfix/private/tsmail", *self.command, *more)

    def test_a_message(self):
        body = b"From here\n.\n..\n" + bytes(range(128, 256)) + b"\n\nlast\n"
        self.submit("bob@site.test", "ann@site.test", b"Subject: hello\n\n" + body)
        wait_until(everything_delivered, "delivery")
        path, = messages("ann@site.test")
        head = self.assert_body(path, body)
        self.assertTrue(head.startswith(b"Return-Path: <bob@site.test>\n"))
        self.assertEqual(folder_record("ann@site.test"), (os.path.getsize(path), 1))
        self.assertEqual(os.stat(path).st_uid, neighbours.VMAIL)

    def test_several_recipients_and_a_tag(self):
        self.succeed("create", "ann@site.test", "--folder", "Work", **neighbours.as_vmail())
        send(1, ["ann@site.test", "ann+Work@site.test", "bob@site.test", "nobody@site.test"])
        wait_until(everything_delivered, "delivery")
        self.assertEqual(numbers("ann@site.test"), [0])
        self.assertEqual(numbers("ann@site.test", "Work"), [0])
        path, = messages("ann@site.test")
        queue_id = content(path).split(b"with ESMTP id ")[1].split()[0].rstrip(b";").decode()
        self.assertIn(f"#Q#{queue_id},", path)
        bounces = [path for path in messages("bob@site.test") if b"5.1.1" in content(path)]
        self.assertEqual((len(bounces), len(messages("bob@site.test"))), (1, 2))

    def test_a_full_mailbox_is_put_off(self):
        self.service.stop()
        self.start("--defer-exceeded")
        self.succeed("quota", "set", "ann@site.test", "exceeded", **neighbours.as_vmail())
        send(1, ["ann@site.test", "bob@site.test"])
        wait_until(deferred, "the delay")
        self.assertRegex(deferred()[0], r"452 4\.2\.2 .*full")
        self.assertEqual((messages("ann@site.test"), numbers("bob@site.test")), ([], [0]))
        self.succeed("quota", "clear", "ann@site.test", "exceeded", **neighbours.as_vmail())
        subprocess.run(["postqueue", "-f"], check=True)
        wait_until(everything_delivered, "delivery after the delay")
        self.assertEqual(numbers("ann@site.test"), [0])

    def test_a_full_mailbox_is_refused(self):
        self.service.stop()
        self.start("--refuse-exceeded")
        self.succeed("quota", "set", "ann@site.test", "exceeded", **neighbours.as_vmail())
        send(1, ["ann@site.test"])
        wait_until(everything_delivered, "the bounce")
        self.assertEqual(messages("ann@site.test"), [])
        self.assertRegex(content(*messages("bob@site.test")), rb"Status: 5\.2\.2")

    def test_thousands(self):
        senders = [threading.Thread(target=send, args=(250, ["ann@site.test", "bob@site.test"], 250 * n))
                   for n in range(4)]
        for sender in senders:
            sender.start()
        for sender in senders:
            sender.join()
        wait_until(everything_delivered, "delivery", 100)
        for address in ("ann@site.test", "bob@site.test"):
            self.assertEqual(numbers(address), list(range(1000)))
            size = sum(map(os.path.getsize, messages(address)))
            self.assertEqual(mailbox_record(address), (size, 1000))

    def test_killed_again_and_again(self):
        sender = threading.Thread(target=send, args=(400, ["ann@site.test"]), kwargs={"body": b"x\r\n" * 3000})
        sender.start()
        for _ in range(5):
            time.sleep(0.7)
            self.service.kill()
            self.start()
        sender.join()
        subprocess.run(["postqueue", "-f"], check=True)

        def all_there():
            subprocess.run(["postqueue", "-f"], check=True)
            time.sleep(0.3)
            return not queue()
        wait_until(all_there, "delivery", 100)
        found = numbers("ann@site.test")
        self.assertEqual(sorted(set(found)), list(range(400)))
        # At each kill as many can come twice as were on their way: Postfix had no answer for them.
        self.assertLessEqual(len(found) - 400, 5 * 20)
        self.assertEqual(left_in_tmp("ann@site.test"), [])


class PolicyTest(PostfixCase):
    """Postfix asks `tsmail policy` about each recipient, as the page says."""

    def prepare(self):
        page = pathlib.Path(SOURCE, "docs/neighbours/postfix.md").read_text(encoding="utf-8")
        command, line = re.search(r"## Full mailboxes.*?\n    tsmail (.*?)\n.*?```\n(.*?)\n```$", page,
                                  re.S | re.M).groups()
        subprocess.run(["postconf", "-e", line], check=True)
        self.assertEqual(postfix("reload").returncode, 0)
        self.service = Service("/var/spool/postfix/private/tsmail-policy", *command.split())
        self.addCleanup(self.service.stop)

    def test_a_full_mailbox_is_refused_when_it_is_named(self):
        self.succeed("quota", "set", "ann@site.test", "exceeded", **neighbours.as_vmail())
        with smtplib.SMTP("127.0.0.1") as smtp:
            recipients = ["ann@site.test", "ann+Work@site.test", "bob@site.test"]
            refused = smtp.sendmail("bob@site.test", recipients, b"Subject: x\r\n\r\nx\r\n")
            self.assertEqual(sorted(refused), ["ann+Work@site.test", "ann@site.test"])
            for code, text in refused.values():
                self.assertEqual(code, 552)
                self.assertRegex(text, rb"^5\.2\.2 .*full")
            self.succeed("quota", "clear", "ann@site.test", "exceeded", **neighbours.as_vmail())
            self.assertEqual(smtp.sendmail("bob@site.test", recipients[:1], b"Subject: y\r\n\r\ny\r\n"), {})
        wait_until(everything_delivered, "delivery")
        self.assertEqual([len(messages(f"{user}@site.test")) for user in ("ann", "bob")], [1, 1])

    def test_mail_comes_in_while_the_service_is_away(self):
        self.service.kill()
        with smtplib.SMTP("127.0.0.1") as smtp:
            self.assertEqual(smtp.sendmail("bob@site.test", ["ann@site.test"], b"Subject: x\r\n\r\nx\r\n"), {})
        wait_until(everything_delivered, "delivery")
        self.assertEqual(len(messages("ann@site.test")), 1)


class NoticeTest(PostfixCase):
    def test_a_quota_notice_goes_out_and_comes_back_in(self):
        self.succeed("quota", "notify", "ann@site.test", "--subject", "Mailbox nearly full",
                     "--force", **submitter())
        wait_until(everything_delivered, "the notice")
        path, = messages("ann@site.test")
        head = self.assert_body(path, b"\n")
        for line in (b"Subject:Mailbox nearly full", b"X-Tessaly-Quota: 1", b"Precedence: bulk"):
            self.assertIn(line, head.split(b"\n"))


if __name__ == "__main__":
    import unittest
    unittest.main()
