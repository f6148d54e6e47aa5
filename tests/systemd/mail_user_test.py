"""The entries for the mail user."""

import os
import pathlib
import subprocess
import unittest

SYSTEMD = pathlib.Path(os.environ["TSMAIL_SOURCE"], "systemd")


def output_of(*words):
    done = subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    return done.returncode, done.stdout


class MailUserTest(unittest.TestCase):
    ROOT = "/tmp/root"

    def setUp(self):
        for name in ("etc", "var/spool", "usr/lib"):
            os.makedirs(f"{self.ROOT}/{name}", exist_ok=True)
        code, shown = output_of("systemd-sysusers", f"--root={self.ROOT}", SYSTEMD / "tsmail.sysusers")
        self.assertEqual(code, 0, shown)

    def account(self):
        with open(f"{self.ROOT}/etc/passwd", encoding="utf-8") as file:
            return next(line.rstrip("\n").split(":") for line in file if line.startswith("tsmail:"))

    def test_the_user_is_one_of_the_system_and_cannot_log_in(self):
        _, _, user, _, _, home, shell = self.account()
        self.assertLess(int(user), 1000)
        self.assertEqual((home, shell), ("/var/spool/home", "/usr/sbin/nologin"))

    @unittest.skipUnless(os.geteuid() == 0, "only root gives directories to others")
    def test_the_directories(self):
        code, shown = output_of("systemd-tmpfiles", "--create", f"--root={self.ROOT}", SYSTEMD / "tsmail.tmpfiles")
        self.assertEqual(code, 0, shown)
        user = int(self.account()[2])
        for path, owner in (("home", user), ("etc", 0), ("etc/mail", 0)):
            status = os.stat(f"{self.ROOT}/var/spool/{path}")
            self.assertEqual((status.st_uid, status.st_mode & 0o7777), (owner, 0o755), path)


if __name__ == "__main__":
    unittest.main()
