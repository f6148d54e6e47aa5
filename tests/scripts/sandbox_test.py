"""The sandbox shows the checkout and the build to every user in it, wherever they lie and whatever their
modes are. It does not show anything else of a home.

usage: sandbox_test.py SOURCE [CLASS]  (outside of a sandbox: it makes its own)
"""
import contextlib
import itertools
import os
import pathlib
import shutil
import stat
import subprocess
import sys
import tempfile
import unittest

SOURCE = pathlib.Path(sys.argv.pop(1)) if __name__ == "__main__" else None
# Root becomes another user, as the tests of refused permissions do. Other users cannot.
OTHER = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"] if os.geteuid() == 0 else []


@contextlib.contextmanager
def umask(mask):
    before = os.umask(mask)
    try:
        yield
    finally:
        os.umask(before)


class Checkout:
    """A small checkout with its own sandbox, a program as if built, and a file."""

    def __init__(self, path, mask=0o022):
        self.path = pathlib.Path(path)
        self.build = self.path / "build/release"
        with umask(mask):
            (self.path / "scripts").mkdir(parents=True)
            (self.path / "tests").mkdir()
            self.build.mkdir(parents=True)
            self.write("scripts/sandbox", (SOURCE / "scripts/sandbox").read_text(), 0o777)
            self.write("tests/data", "as it is\n", 0o666)
            self.write("build/release/program", "#!/bin/sh\necho it runs\n", 0o777)

    def write(self, name, text, mode):
        file = os.open(self.path / name, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, mode)
        with open(file, "w", encoding="utf-8") as stream:
            stream.write(text)

    def sandbox(self, *words, **environment):
        done = subprocess.run([self.path / "scripts/sandbox", *words], stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, check=False,
                              env={**os.environ, **environment})
        return done.returncode, done.stdout

    def prepare(self):
        code, text = self.sandbox("--prepare", "--rw", self.build)
        assert code == 0, text

    def inside(self, *command, **environment):
        """The output of the command, run as another user. Its exit code must be 0."""
        code, text = self.sandbox("--rw", self.build, "--", *OTHER, *command, **environment)
        assert code == 0, text
        return text


class Case(unittest.TestCase):
    def place(self, parent):
        """A new directory that other users may not enter."""
        path = tempfile.mkdtemp(dir=parent)
        self.addCleanup(shutil.rmtree, path)
        return pathlib.Path(path)

    def assert_serves(self, checkout):
        checkout.prepare()
        self.assertEqual(checkout.inside("cat", checkout.path / "tests/data"), "as it is\n")
        self.assertEqual(checkout.inside(checkout.build / "program"), "it runs\n")


class PlacesTest(Case):
    def test_below_closed_directories(self):
        for parent in ("/tmp", "/var/tmp"):
            top = self.place(parent)
            for name in ("a", "a/b"):
                (top / name).mkdir(mode=0o700)
            self.assert_serves(Checkout(top / "a/b/clone"))

    def test_the_way_is_open(self):
        checkout = Checkout(self.place("/tmp") / "a/clone")
        text = checkout.inside("stat", "-c", "%a", checkout.path.parent, checkout.path.parent.parent)
        self.assertEqual(text, "755\n755\n")

    def test_blanks_and_letters_beyond_ascii(self):
        for parent in ("/tmp", "/var/tmp"):
            self.assert_serves(Checkout(self.place(parent) / "a b/\u00fc *$x/clone"))

    def test_a_link_on_the_way(self):
        for parent, mask, mode in itertools.product(("/tmp", "/var/tmp"), (0o022, 0o077), (0o700, 0o755)):
            top = self.place(parent)
            top.chmod(mode)
            (top / "link").symlink_to(top / "there")
            Checkout(top / "there/clone", mask)
            linked = Checkout.__new__(Checkout)
            linked.path = top / "link/clone"
            linked.build = linked.path / "build/release"
            self.assert_serves(linked)

    def test_the_build_lies_elsewhere(self):
        checkout = Checkout(self.place("/tmp") / "clone")
        build = self.place("/var/tmp") / "b/release"
        build.parent.mkdir(mode=0o700)
        checkout.build.rename(build)
        checkout.build = build
        self.assert_serves(checkout)


class ModesTest(Case):
    def setUp(self):
        self.checkout = Checkout(self.place("/tmp") / "clone", mask=0o077)

    def test_a_clone_under_mask_077(self):
        self.assert_serves(self.checkout)
        self.assertEqual(self.checkout.inside("ls", self.checkout.path / "build").split()[-1], "release")

    def test_the_checkout_stays_as_it_is(self):
        self.checkout.prepare()
        for name, mode in {"": 0o700, "tests": 0o700, "tests/data": 0o600, "scripts/sandbox": 0o700}.items():
            self.assertEqual(stat.S_IMODE((self.checkout.path / name).stat().st_mode), mode, name)

    def test_changes_are_seen(self):
        self.checkout.prepare()
        with umask(0o077):
            self.checkout.write("tests/data", "changed\n", 0o666)
            self.checkout.write("tests/more", "more\n", 0o666)
        (self.checkout.path / "scripts/gone").touch(mode=0o600)
        self.checkout.prepare()
        (self.checkout.path / "scripts/gone").unlink()
        self.checkout.prepare()
        text = self.checkout.inside("sh", "-c", 'cd "$1" && cat tests/*; ls scripts', "sh", self.checkout.path)
        self.assertEqual(text, "changed\nmore\nsandbox\n")

    def test_programs_of_the_checkout(self):
        with umask(0o077):
            self.checkout.write("tests/recorder", "#!/bin/sh\necho recorded\n", 0o777)
        self.checkout.prepare()
        recorder = self.checkout.path / "tests/recorder"
        code, text = self.checkout.sandbox("--sendmail", recorder, "--bin", recorder, "--", *OTHER, "sh",
                                           "-c", "/bin/sendmail; /bin/recorder")
        self.assertEqual((code, text), (0, "recorded\nrecorded\n"))

    def test_an_open_checkout_has_no_copy(self):
        self.checkout.prepare()
        copy = self.checkout.path / "build/readable"
        self.assertEqual(copy.is_dir(), os.geteuid() == 0)
        subprocess.run(["chmod", "-R", "go+rX", self.checkout.path], check=True)
        self.checkout.prepare()
        self.assertFalse(copy.is_dir())

    def test_the_callers_mask(self):
        with umask(0o077):
            self.assertEqual(self.checkout.inside("sh", "-c", "umask"), "0022\n")


class HomesTest(Case):
    def home(self):
        """A home outside of /home, with something private."""
        home = self.place("/var/tmp") / "homes/ann"
        home.mkdir(parents=True)
        (home / "private").write_text("private\n")
        (home.parent / "bert").mkdir()
        return home

    def test_homes_are_empty(self):
        checkout = Checkout(self.place("/tmp") / "clone")
        self.assertEqual(checkout.inside("find", "/root", "/home"), "/root\n/home\n")

    def test_the_callers_home_shows_the_checkout_only(self):
        home = self.home()
        checkout = Checkout(home / "src/clone")
        checkout.prepare()
        text = checkout.inside("ls", home, home / "src", HOME=str(home))
        self.assertEqual(text, f"{home}:\nsrc\n\n{home}/src:\nclone\n")

    def test_a_home_that_holds_nothing_of_ours(self):
        home = self.home()
        home.parent.parent.chmod(0o755)
        checkout = Checkout(self.place("/tmp") / "clone")
        self.assertEqual(checkout.inside("find", home, HOME=str(home)), f"{home}\n")

    def test_a_home_among_homes(self):
        # The real checkout is an example of private files beside the caller's home.
        checkout = Checkout(self.place("/tmp") / "clone")
        checkout.inside("test", "!", "-e", SOURCE / "scripts", HOME=str(SOURCE.parent))

    def test_a_python_in_a_home(self):
        home = self.home()
        checkout = Checkout(self.place("/tmp") / "clone")
        python = home / "env/bin/python3"
        subprocess.run([sys.executable, "-m", "venv", "--without-pip", home / "env"], check=True)
        (home / "env/private").write_text("private\n")
        with open(checkout.build / "sandbox.show", "w", encoding="utf-8") as shown:
            subprocess.run([python, SOURCE / "tests/testing/python_places.py"], stdout=shown, check=True)
        checkout.prepare()
        text = checkout.inside(python, "-Bc", "import json, socket, sys; print(sys.prefix)", HOME=str(home))
        self.assertEqual(text, f"{home}/env\n")
        self.assertEqual(checkout.inside("ls", home, home / "env", HOME=str(home)).split(),
                         [f"{home}:", "env", f"{home}/env:", "bin", "lib", "pyvenv.cfg"])


if __name__ == "__main__":
    unittest.main(verbosity=2)
