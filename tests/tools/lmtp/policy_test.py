"""tsmail policy: Postfix's questions, over real sockets."""

import os
import unittest

from tools.lmtp.service import ANN, BOB, OWNERS, Client, Service
from testing.toolkit import SpoolCase, as_nobody, own_by_nobody, run, TSMAIL

ROOT = os.geteuid() == 0


def question(recipient, *more):
    lines = ["request=smtpd_access_policy", "protocol_state=RCPT", f"recipient={recipient}", "size=1", *more, "", ""]
    return "\n".join(lines).encode()


class PolicyTest(SpoolCase):
    def setUp(self):
        super().setUp()
        for address, owner in OWNERS.items():
            self.succeed("create", address, *(["--owner", f"{owner}:{owner}"] if ROOT else []))
        self.succeed("quota", "set", ANN, "exceeded")

    def asked(self, client, recipient):
        client.send(question(recipient))
        line = client.file.readline().decode()
        self.assertEqual(client.file.readline(), b"\n")
        return line.rstrip("\n")

    def test_answers(self):
        for options, action in (([], "452 4.2.2"), (["--defer-exceeded"], "452 4.2.2"),
                                (["--refuse-exceeded"], "552 5.2.2")):
            with Service(*options, verb="policy"), Client(greet=False) as client:
                self.assertRegex(self.asked(client, ANN), f"^action={action} ann@site.test: .*full")
                self.assertRegex(self.asked(client, "ann+Work@site.test"), f"^action={action} ")
                for other in (BOB, "none@site.test", "a/b@site.test", "", "x" * 3000):
                    self.assertEqual(self.asked(client, other), "action=DUNNO")
                self.succeed("quota", "clear", ANN, "exceeded")
                self.assertEqual(self.asked(client, ANN), "action=DUNNO")
                self.succeed("quota", "set", ANN, "exceeded")

    def test_torn_and_at_once(self):
        talk = question(ANN) + question(BOB, "x=" + "y" * 5000) + question(ANN)
        with Service(verb="policy"):
            for length in (1, 7, len(talk)):
                with Client(greet=False) as client:
                    for at in range(0, len(talk), length):
                        client.send(talk[at:at + length])
                    answers = [client.file.readline()[:10] for _ in range(6)]
                    self.assertEqual(answers, [b"action=452", b"\n", b"action=DUN", b"\n"] + [b"action=452", b"\n"])

    def test_silence_and_the_end(self):
        with Service("--idle", "1s", verb="policy") as service, Client(greet=False) as client:
            self.assertTrue(client.closed())
            with Client(greet=False) as other:
                service.process.terminate()
                self.assertTrue(other.closed())
            self.assertEqual(service.process.wait(10), 0)

    @unittest.skipUnless(ROOT, "gives the store to another user")
    def test_as_the_mail_user(self):
        own_by_nobody("/var/spool/home")
        with Service(verb="policy", **as_nobody()), Client(greet=False) as client:
            self.assertRegex(self.asked(client, ANN), "^action=452")

    def test_standard_input(self):
        done = run([TSMAIL, "policy"], stdin=question(BOB) + question(ANN))
        self.assertRegex(done.out, r"^action=DUNNO\n\naction=452 4\.2\.2 .*\n\n$")
        self.assertEqual(done.code, 0)


if __name__ == "__main__":
    unittest.main()
