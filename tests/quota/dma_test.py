"""Notices through a real submission program: Debian's dma, unpacked beside the build, takes the
place of /bin/sendmail and delivers to a mailbox file, which is read back.

usage: dma_test.py SOURCE BUILD  (outside of a sandbox; exits with 77 if dma cannot be had)
"""
import os
import pathlib
import pwd
import re
import socket
import subprocess
import sys
import sysconfig
import time
import unittest

SKIPPED = 77
SPOOL = pathlib.Path("/var/spool/dma")
DRIVER = pathlib.Path(os.environ.get("TSMAIL_BUILD", ""), "tests/quota/quota_driver")


def outside(source, build):
    cache = pathlib.Path(build, "neighbours")
    fetched = subprocess.run([f"{source}/scripts/fetch-neighbour", "dma", cache])
    if fetched.returncode != 0:
        return SKIPPED
    root = cache / "dma"
    libraries = root / "usr/lib" / (sysconfig.get_config_var("MULTIARCH") or "")
    environment = {"TSMAIL_BUILD": build, "LD_LIBRARY_PATH": str(libraries)}
    options = ["--perms", "1777", "--tmpfs", "/var/mail"]
    for name, value in environment.items():
        options += ["--setenv", name, value]
    command = [f"{source}/scripts/sandbox", "--rw", build, "--sendmail", root / "usr/sbin/dma"]
    for option in options:
        command += ["--bwrap", option]
    return subprocess.run([*command, sys.executable, "-B", __file__, "--inside"]).returncode


class Mail:
    """The one message in a mailbox file, as bytes."""

    def __init__(self, mbox):
        head, self.body = mbox.split(b"\n\n", 1)
        envelope, *self.headers = head.split(b"\n")
        assert envelope.startswith(b"From "), envelope
        # The file's own mark: a ">" before lines that look like an envelope.
        self.body = re.sub(rb"^>(>*From )", rb"\1", self.body, flags=re.M)


class DmaTest(unittest.TestCase):
    def setUp(self):
        # The program works for the user who runs it. If that is root, it becomes another user.
        self.user = pwd.getpwuid(os.getuid()).pw_name
        self.mailbox = pathlib.Path("/var/mail", self.user)
        self.mailbox.write_bytes(b"")
        self.mailbox.chmod(0o666)
        SPOOL.mkdir(exist_ok=True)
        SPOOL.chmod(0o1777)

    def send(self, *texts):
        sent = subprocess.run([DRIVER, "notice", *texts], stdout=subprocess.PIPE)
        self.assertEqual(sent.returncode, 0)
        return int(sent.stdout)

    def delivered(self):
        """Delivery goes on in the background, and is done when the queue is empty."""
        end = time.monotonic() + 20
        while self.mailbox.stat().st_size == 0 or list(SPOOL.glob("[MQ]*")):
            self.assertLess(time.monotonic(), end, f"not delivered: {list(SPOOL.iterdir())}")
            time.sleep(0.02)
        return Mail(self.mailbox.read_bytes())

    def check(self, sender, subject, body, lines):
        self.assertEqual(self.send(sender, self.user, subject, body), 0)
        mail = self.delivered()
        first = mail.headers.index(lines[0])
        self.assertEqual(mail.headers[first:first + len(lines)], lines)
        self.assertEqual(mail.body, (body if body != "-" else "").encode() + b"\n")

    def test_arrives_byte_for_byte(self):
        body = ("Dear user,\n\n  your mailbox is 93 % full.\t\ntrailing blanks   \n"
                "From here on\n>From there\n.dot\n..\n\u00e4\u20ac\n" + "x" * 900 + "\n\nlast")
        self.check("quota@site.test", "Mailbox  nearly full: 93 % \u00fc", body, [
            b"From:quota@site.test",
            b"To:" + self.user.encode(),
            "Subject:Mailbox  nearly full: 93 % \u00fc".encode(),
            b"X-Tessaly-Quota: 1",
            b"Precedence: bulk",
        ])

    def test_a_long_body_arrives_whole(self):
        # As an argument it may be 128 KiB long.
        body = "".join(f"line {n}\n" for n in range(10000))
        self.check("quota@site.test", "long", body, [b"From:quota@site.test"])

    def test_the_defaults_are_headers_too(self):
        host = socket.gethostname()
        domain = host.partition(".")[2] or host
        self.check("-", "-", "-", [
            b"From:postmaster@" + domain.encode(),
            b"To:" + self.user.encode(),
            b"Subject:(no subject)",
            b"X-Tessaly-Quota: 1",
            b"Precedence: bulk",
        ])

    def test_the_status_is_the_programs(self):
        nobody = "no-such-user-here"
        literal = subprocess.run(["/bin/sendmail", "-Am", "-bm", "-t"],
                                 input=f"To:{nobody}\n\n.\n".encode(), stderr=subprocess.PIPE)
        self.assertNotEqual(literal.returncode, 0)
        self.assertEqual(self.send("a@site.test", nobody, "s", "t"), literal.returncode << 8)


if __name__ == "__main__":
    if sys.argv[1:] == ["--inside"]:
        unittest.main(argv=sys.argv[:1], verbosity=2)
    sys.exit(outside(*sys.argv[1:]))
