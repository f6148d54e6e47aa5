"""README.md names the Debian packages that a build needs, all of them and no others.

usage: readme_test.py SOURCE
"""
import pathlib
import re
import subprocess
import sys
import unittest

SOURCE = pathlib.Path(sys.argv[1])


class ReadmeTest(unittest.TestCase):
    def test_packages_of_the_build(self):
        text = (SOURCE / "README.md").read_text(encoding="utf-8")
        (line,) = re.findall(r"^    sudo apt-get install ((?:[a-z0-9+ .-]+\\\n)*[a-z0-9+ .-]+)$", text, re.M)
        listed = subprocess.run(["bash", "-c", '. "$1/scripts/lib.sh" && packages_of build', "bash", SOURCE],
                                stdout=subprocess.PIPE, text=True, check=True).stdout
        self.assertEqual(sorted(line.replace("\\", " ").split()), sorted(listed.split()))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
