"""metrics beside the monitoring system's own tool, which says what it would not take."""

import subprocess
import unittest

from testing.toolkit import SpoolCase

ANN = "ann@site.test"


class MetricsTest(SpoolCase):
    def check(self, text):
        return subprocess.run(["promtool", "check", "metrics"], input=text, capture_output=True, text=True)

    def test_nothing_to_complain_of(self):
        self.succeed("create", ANN, "bob@x-1.other.test")
        self.succeed("deliver", ANN, stdin=b"Subject: x\n\nx\n")
        self.succeed("quota", "set", ANN, "exceeded")
        self.succeed("quota", "reset", ANN)
        for words in ((), ("--domain", "site.test")):
            with self.subTest(words=words):
                text = self.succeed("metrics", *words).out
                self.assertIn('domain="site.test"', text)
                done = self.check(text)
                self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))

    def test_it_complains_of_mistakes(self):
        text = self.succeed("metrics").out
        self.assertNotEqual(self.check(text + text).returncode, 0)


if __name__ == "__main__":
    unittest.main()
