"""Beside Exim, which passes the mail that arrives to `tsmail lmtp`."""

import os
import pathlib
import re
import smtplib
import socket
import subprocess
import threading
import time

import neighbours
from arrivals import Service, numbers, send
from testing.toolkit import SOURCE, SpoolCase, content, folder_record, left_in_tmp, mailbox_record, messages

LOG = "/var/spool/log/exim"
SOCKET = "/run/tsmail/lmtp"
ANN, BOB = "ann@site.test", "bob@site.test"


def log():
    return "".join(path.read_text(errors="replace") for path in sorted(pathlib.Path(LOG).glob("*log")))


def wait_until(condition, what, seconds=60):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            raise AssertionError(f"waited in vain for {what}\n{log()}")
        time.sleep(0.02)


def queue():
    """The identifiers of the messages that Exim still holds; their parts are longer from 4.97 on."""
    done = subprocess.run(["exim4", "-bpr"], stdout=subprocess.PIPE, check=True, text=True)
    return re.findall(r"^ *\S+ +\S+ +(\w+-\w+-\w+) <", done.stdout, re.M)


def accepts_connections():
    with socket.socket() as peer:
        return peer.connect_ex(("127.0.0.1", 25)) == 0


def everything_delivered():
    return not queue()


def try_again():
    subprocess.run(["exim4", "-qff"], check=True)


class EximCase(SpoolCase):
    OPTIONS = ()  # of the service

    def setUp(self):
        super().setUp()
        neighbours.make_home()
        exim = neighbours.number_of("Debian-exim")
        for path in ("/var/spool/exim4", LOG, "/run/exim4", os.path.dirname(SOCKET)):
            os.makedirs(path, exist_ok=True)
            os.chown(path, exim, exim)
        with open("/etc/exim4/exim4.conf", "w", encoding="utf-8") as file:
            file.write(f"log_file_path = {LOG}/%slog\n" + neighbours.configuration("exim.md", "/etc/exim4/exim4.conf"))
        page = pathlib.Path(SOURCE, "docs/neighbours/exim.md").read_text(encoding="utf-8")
        self.command = re.search(r"^    tsmail (lmtp .*)$", page, re.M).group(1).split()
        self.start()
        self.addCleanup(lambda: self.service.stop())
        daemon = subprocess.Popen(["exim4", "-bdf", "-q1s"])  # in the foreground
        self.addCleanup(daemon.wait)
        self.addCleanup(daemon.terminate)
        wait_until(accepts_connections, "Exim")
        for address in (ANN, BOB):
            self.succeed("create", address, "--folder", "Work", **neighbours.as_vmail())

    def start(self):
        self.service = Service(SOCKET, *self.command, *self.OPTIONS)


class ArrivalTest(EximCase):
    def test_a_local_message(self):
        body = b"From here\n.\n..\n" + bytes(range(128, 256)) + b"\n\nlast\n"
        subprocess.run(["exim4", "-i", "-f", BOB, ANN], input=b"Subject: hello\n\n" + body, check=True)
        wait_until(lambda: messages(ANN), "delivery")
        path, = messages(ANN)
        head, found = content(path).split(b"\n\n", 1)
        self.assertEqual(found, body)
        self.assertTrue(head.startswith(b"Return-Path: <bob@site.test>\n"))
        self.assertEqual(head.count(b"Return-Path:"), 1)
        wait_until(lambda: folder_record(ANN) == (os.path.getsize(path), 1), "the record")
        self.assertEqual(os.stat(path).st_uid, neighbours.VMAIL)

    def test_several_recipients_and_a_tag(self):
        send(1, [ANN, "ann+Work@site.test", "ann+anything@site.test", BOB, "nobody@site.test"])
        wait_until(lambda: len(messages(BOB)) == 2, "delivery and the bounce")
        wait_until(everything_delivered, "the end")
        self.assertEqual(numbers(ANN), [0, 0])
        self.assertEqual(numbers(ANN, "Work"), [0])
        bounces = [path for path in messages(BOB) if b"5.1.1" in content(path)]
        self.assertEqual(len(bounces), 1)
        # One connection, so one identifier for all.
        saved = set(re.findall(r'C="250 2\.0\.0 Saved as (\w+)"', log()))
        for path in messages(ANN) + messages(ANN, "Work"):
            self.assertIn(re.search(r"#Q#(\w+),", path).group(1), saved)

    def test_other_domains_are_refused(self):
        with smtplib.SMTP("127.0.0.1") as smtp:
            smtp.helo()
            smtp.mail(BOB)
            self.assertEqual(smtp.rcpt("ann@other.test")[0], 550)

    def test_many_at_once(self):
        senders = [threading.Thread(target=send, args=(50, [ANN, BOB], 50 * n)) for n in range(4)]
        for sender in senders:
            sender.start()
        for sender in senders:
            sender.join()
        wait_until(everything_delivered, "delivery", 120)
        for address in (ANN, BOB):
            self.assertEqual(numbers(address), list(range(200)))
            size = sum(map(os.path.getsize, messages(address)))
            wait_until(lambda a=address, s=size: mailbox_record(a) == (s, 200), "the record")


class QuotaTest(EximCase):
    OPTIONS = ("--refuse-exceeded",)

    def test_a_full_mailbox_is_refused(self):
        self.succeed("quota", "set", ANN, "exceeded", **neighbours.as_vmail())
        send(1, [ANN])
        wait_until(lambda: messages(BOB), "the bounce")
        self.assertRegex(content(*messages(BOB)), rb"(?s)552 5\.2\.2 ann@site.test:\s+the mailbox is full")
        self.assertEqual(messages(ANN), [])


class LaterTest(EximCase):
    OPTIONS = ("--defer-exceeded",)

    def test_a_full_mailbox_is_put_off(self):
        self.succeed("quota", "set", ANN, "exceeded", **neighbours.as_vmail())
        send(1, [ANN, BOB])
        wait_until(lambda: messages(BOB) and re.search(r"452 4\.2\.2 .*full", log()), "the delay")
        self.assertEqual((messages(ANN), len(queue())), ([], 1))
        self.succeed("quota", "clear", ANN, "exceeded", **neighbours.as_vmail())
        try_again()
        wait_until(everything_delivered, "delivery after the delay")
        self.assertEqual((numbers(ANN), numbers(BOB)), ([0], [0]))

    def test_a_service_that_is_killed(self):
        sender = threading.Thread(target=send, args=(60, [ANN]), kwargs={"body": b"x\r\n" * 3000})
        sender.start()
        for _ in range(3):
            time.sleep(0.5)
            self.service.kill()
            self.start()
        sender.join()

        def all_there():
            try_again()
            return not queue()
        wait_until(all_there, "delivery", 120)
        found = numbers(ANN)
        self.assertEqual(sorted(set(found)), list(range(60)))
        # At each kill as many can come twice as were on their way: Exim had no answer for them.
        self.assertLessEqual(len(found) - 60, 3 * 20)
        self.assertEqual(left_in_tmp(ANN), [])


if __name__ == "__main__":
    import unittest
    unittest.main()
