"""config check"""

import os
import unittest

from testing.toolkit import SpoolCase, environment

GOOD = 'timezone = 3\npostmaster = "pm@site.test"\n'
FILE = "/tmp/tsmail.toml"


class ConfigTest(SpoolCase):
    def write(self, text):
        with open(FILE, "w", encoding="utf-8") as file:
            file.write(text)

    def test_a_good_file(self):
        self.write(GOOD)
        self.assertEqual(self.succeed("config", "check", FILE).out, FILE + ": fine\n")
        self.assertEqual(self.succeed("--json", "config", "check", FILE).objects, [])

    def test_the_file_in_use(self):
        self.write(GOOD)
        done = self.succeed("config", "check", env=environment(TSMAIL_CONFIG=FILE))
        self.assertEqual(done.out, FILE + ": fine\n")

    def test_places_of_problems(self):
        self.write(GOOD + "[[archive_account]]\nname = \n")
        done = self.succeed_not("config", "check", FILE)
        self.assertRegex(done.out, rf"^{FILE}:4:\d+: ")
        [problem] = self.succeed_not("--json", "config", "check", FILE).objects
        self.assertEqual((problem["file"], problem["line"]), (FILE, 4))
        self.assertGreater(problem["column"], 0)
        self.assertTrue(problem["message"])

    def test_values_of_the_wrong_kind(self):
        self.write("\n  timezone = 'noon'\n")
        self.assertRegex(self.succeed_not("config", "check", FILE).out, rf"^{FILE}:2:\d+: ")

    def test_a_missing_file(self):
        missing = environment(TSMAIL_CONFIG="/tmp/none.toml")
        self.assertRegex(self.succeed("config", "check", env=missing).out,
                         "/tmp/none.toml: no such file")
        self.fail_with(66, "config", "check", "/tmp/none.toml", saying="No such file")
        self.fail_with(66, "config", "check", "/tmp", saying="directory")

    def succeed_not(self, *words):
        return self.run_with(65, *words)

    def run_with(self, code, *words):
        from testing.toolkit import tsmail
        done = tsmail(*words)
        self.assertEqual(done.code, code, done)
        return done

    def tearDown(self):
        if os.path.exists(FILE):
            os.unlink(FILE)


if __name__ == "__main__":
    unittest.main()
