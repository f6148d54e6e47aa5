"""The quota functions on the bundled configuration: a TOML file named by TSMAIL_CONFIG."""
import os
import pathlib
import subprocess
import unittest

DRIVER = pathlib.Path(os.environ["TSMAIL_BUILD"], "tests/quota/quota_driver")
CONFIG = pathlib.Path("/tmp/tsmail.toml")
ACCOUNTS = """
[[archive_account]]
name = "alpha"
quota_gib = 5
[[archive_account]]
name = "beta"
quota_gib = 7
[[archive_account]]
name = "gamma"
quota_gib = 3
"""


def run(*args):
    environment = dict(os.environ, TSMAIL_CONFIG=str(CONFIG))
    return int(subprocess.run([DRIVER, *args], check=True, stdout=subprocess.PIPE,
                              env=environment).stdout)


class ConfiguredArchiveTest(unittest.TestCase):
    def setUp(self):
        spool = os.statvfs("/var/spool")
        self.share = spool.f_blocks * spool.f_frsize // 2**30 // 5

    def test_the_quotas_given_are_taken_off(self):
        for exclude, given in (("-", 15), ("alpha", 10), ("beta", 8), ("gamma", 12), ("Beta", 15),
                               ("bet", 15), ("", 15)):
            with self.subTest(exclude=exclude):
                CONFIG.write_text(ACCOUNTS)
                self.assertEqual(run("available", exclude), self.share - given)

    def test_without_accounts_the_whole_share_is_free(self):
        CONFIG.unlink(missing_ok=True)
        self.assertEqual(run("available", "-"), self.share)
        CONFIG.write_text("timezone = 3\n")
        self.assertEqual(run("available", "-"), self.share)


class ConfiguredPostmasterTest(unittest.TestCase):
    def test_sends_and_receives_what_names_nobody(self):
        program = pathlib.Path("/bin/sendmail")
        program.write_text("#!/bin/sh\nexec cat >/tmp/sent\n")
        program.chmod(0o755)
        for config, address in (('postmaster = "hostmaster@site.test"\n', "hostmaster@site.test"),
                                ('postmaster = ""\n', "postmaster@sandbox"), ("", "postmaster@sandbox")):
            with self.subTest(config=config):
                CONFIG.write_text(config)
                self.assertEqual(run("notice", "-", "-", "s", "t"), 0)
                self.assertEqual(pathlib.Path("/tmp/sent").read_text(),
                                 f"From:{address}\nTo:{address}\nSubject:s\nX-Tessaly-Quota: 1\n"
                                 "Precedence: bulk\n\nt\n.\n")


if __name__ == "__main__":
    unittest.main()
