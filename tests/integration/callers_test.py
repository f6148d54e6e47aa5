"""The same delivery by a caller in C, one in C++ and one in Python, on the installed library."""

import os
import subprocess
import unittest

from testing.toolkit import (BUILD, SOURCE, SpoolCase, content, environment, folder_record, left_in_tmp,
                             mailbox_record, messages)

PREFIX = "/tmp/installed"
NOTE = "Do not forget the milk"
MESSAGE = f"Subject: note\n\n{NOTE}\n".encode()


def build(compiler, standard, source):
    """Builds an example in the way of any program: with the flags of pkg-config."""
    library = next(root for root, _, names in os.walk(PREFIX) if "tsmail.pc" in names)
    env = environment(PKG_CONFIG_PATH=library)
    words = {what: subprocess.run(["pkg-config", what, "tsmail"], env=env, check=True,
                                  stdout=subprocess.PIPE, text=True).stdout.split()
             for what in ("--cflags", "--libs", "--variable=libdir")}
    program = f"/tmp/{source.replace('.', '_')}"
    subprocess.run([compiler, standard, "-D_POSIX_C_SOURCE=200809L", *words["--cflags"],
                    f"{SOURCE}/examples/{source}", "-o", program, *words["--libs"],
                    "-Wl,-rpath," + words["--variable=libdir"][0]], check=True)
    return program, words["--variable=libdir"][0]


class CallersTest(SpoolCase):
    def test_the_same_delivery(self):
        subprocess.run(["cmake", "--install", BUILD, "--prefix", PREFIX], check=True,
                       stdout=subprocess.DEVNULL)
        in_c, libraries = build("cc", "-std=c99", "file_note.c")
        in_cxx, _ = build("c++", "-std=c++11", "agent.cpp")
        in_python = f"{SOURCE}/examples/agent.py"
        callers = {"c": ([in_c, "c+Work@site.test", NOTE], b""),
                   "cxx": ([in_cxx, "cxx+Work@site.test"], MESSAGE),
                   "python": (["python3", in_python, "python+Work@site.test"], MESSAGE)}
        for name, (words, text) in callers.items():
            with self.subTest(name):
                address = f"{name}@site.test"
                self.succeed("create", address, "--folder", "Work")
                done = subprocess.run(words, input=text, stdout=subprocess.DEVNULL,
                                      env=environment(LD_LIBRARY_PATH=libraries))
                self.assertEqual(done.returncode, 0)
                path, = messages(address, "Work")
                self.assertEqual(content(path), MESSAGE)
                self.assertRegex(path, rf"/new/\d+\.\d+_\d+_\d+\.[^#]+#Q#\w{{8}}\d{{6,}}"
                                       rf",#F#S#{len(MESSAGE)}#E$")
                self.assertEqual(left_in_tmp(address), [])
                self.assertEqual(folder_record(address, "Work"), (len(MESSAGE), 1))
                self.assertEqual(mailbox_record(address), (len(MESSAGE), 1))
                again = self.succeed("recount", address, "--json").objects[0]
                self.assertEqual((again["bytes"], again["messages"], again["corrected"]),
                                 (len(MESSAGE), 1, []))

    def test_a_mailbox_that_was_never_created(self):
        if not os.path.isdir(PREFIX):
            subprocess.run(["cmake", "--install", BUILD, "--prefix", PREFIX], check=True,
                           stdout=subprocess.DEVNULL)
        in_cxx, libraries = build("c++", "-std=c++11", "agent.cpp")
        for words in ([in_cxx], ["python3", f"{SOURCE}/examples/agent.py"]):
            done = subprocess.run([*words, "nobody@site.test"], input=MESSAGE,
                                  env=environment(LD_LIBRARY_PATH=libraries))
            self.assertEqual(done.returncode, 67)
        self.assertEqual(os.listdir("/var/spool"), [])


if __name__ == "__main__":
    unittest.main()
