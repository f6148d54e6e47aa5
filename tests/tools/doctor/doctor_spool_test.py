"""doctor --spool: what the store relies on from its file system, on one machine and between two processes that stand
for two machines."""

import fcntl
import os
import subprocess
import time
import unittest

from testing.toolkit import (BUILD, NOBODY, TSMAIL, SpoolCase, as_nobody, environment, preloading, traced, tsmail,
                             wait_until)

ANN = "ann@site.test"
HOMES = "/var/spool/home"
LOCAL = ["file-locks", "directory-locks", "unnamed-files", "links", "exclusive-renames", "entry-types",
         "appending", "times", "flushes", "room"]
BETWEEN = [name + "-between-machines" for name in ("file-locks", "directory-locks", "new-names", "lag")]


class SpoolTraitsTest(SpoolCase):
    def setUp(self):
        super().setUp()
        self.succeed("create", ANN)

    def traits(self, *words, **options):
        done = tsmail("--json", "doctor", "--spool", *words, **options)
        return done, {row["trait"]: row for row in done.objects}

    def test_every_trait_is_tried(self):
        done, rows = self.traits()
        self.assertEqual(done.code, 0, done)
        self.assertEqual(list(rows), LOCAL)
        for name, row in rows.items():
            self.assertEqual((row["path"], row["standing"], row["advice"]), (HOMES, "holds", ""), name)
            self.assertGreater(len(row["why"]), 20, name)
        self.assertRegex(rows["room"]["detail"], r"^[\d.]+ \w+ \(\d+ %\) and \d+ inodes \(\d+ %\) are free$")

    def test_nothing_is_left(self):
        before = sorted(os.listdir(HOMES))
        self.succeed("doctor", "--spool")
        self.assertEqual(sorted(os.listdir(HOMES)), before)

    def test_lines_for_people(self):
        lines = self.succeed("doctor", "--spool").lines
        self.assertEqual(lines[0], f"{HOMES}: file-locks holds")
        self.assertEqual(lines[7], f"{HOMES}: times holds (nanoseconds)")

    def test_an_ordinary_user_tries_in_the_own_store(self):
        if os.geteuid() == 0:
            os.chown(HOMES, NOBODY, NOBODY)
        done, rows = self.traits(**as_nobody())
        self.assertEqual((done.code, list(rows)), (0, LOCAL), done)

    def test_who_may_not_write_there_is_told(self):
        os.chmod(HOMES, 0o555)
        self.addCleanup(os.chmod, HOMES, 0o755)
        done = tsmail("doctor", "--spool", **as_nobody())
        self.assertEqual(done.code, 73, done)
        self.assertIn(f"{HOMES}/.ts_try", done.err)

    @unittest.skipIf(os.geteuid() != 0, "needs root")
    def test_a_home_on_another_file_system_is_tried_too(self):
        os.makedirs("/tmp/far/mail")
        os.chown("/tmp/far", NOBODY, NOBODY)
        os.symlink("/tmp/far", HOMES + "/site.test/bert~site.test")
        if os.stat("/tmp").st_dev == os.stat("/var/spool").st_dev:
            self.skipTest("one file system")
        done, _ = self.traits()
        self.assertEqual({row["path"] for row in done.objects}, {HOMES, HOMES + "/site.test/bert~site.test"})
        self.assertEqual(os.listdir("/tmp/far"), ["mail"])

    FAULTS = (
        ("flock", "error=ENOLCK", 1, "file-locks", "fails"),
        ("flock", "error=ENOLCK", 1, "directory-locks", "fails"),
        ("linkat", "error=EPERM", 1, "unnamed-files", "adapts"),
        ("linkat", "error=EPERM", 1, "links", "fails"),
        ("renameat2", "error=EINVAL", 0, "exclusive-renames", "adapts"),
        ("renameat2", "retval=0", 1, "exclusive-renames", "fails"),
        ("fsync", "error=EIO", 1, "flushes", "fails"),
    )

    def test_what_is_missing_is_seen(self):
        for call, fault, code, trait, standing in self.FAULTS:
            with self.subTest(call=call):
                done, _ = traced(["-e", f"trace={call}", "-e", f"inject={call}:{fault}"],
                                 [TSMAIL, "--json", "doctor", "--spool"])
                row = {row["trait"]: row for row in done.objects}[trait]
                self.assertEqual((done.code, row["standing"]), (code, standing), done)
                self.assertEqual(row["advice"] != "", standing == "fails")

    def test_a_file_system_that_others_may_share(self):
        library = os.path.join(BUILD, "tests/tools/network_like.so")
        self.assertTrue(os.path.exists(library))
        _, rows = self.traits(env=environment(**preloading(library), ASAN_OPTIONS="verify_asan_link_order=0:detect_leaks=0"))
        self.assertEqual(rows["directory-locks"]["standing"], "adapts")

    def test_wrong_usage(self):
        for words in (["--spool", ANN], ["--spool", "--all"], ["--spool", "--repair"], ["--wait"], ["--probe"],
                      ["--peer", "host"], ["--spool", "--wait", "--probe"]):
            self.fail_with(64, "doctor", *words)


class TwoMachinesTest(SpoolCase):
    """Two processes on one file system: every lock holds between them."""

    def setUp(self):
        super().setUp()
        self.succeed("create", ANN)

    def waiting(self, *words):
        process = subprocess.Popen([TSMAIL, *words, "doctor", "--spool", "--wait"], stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, text=True)
        wait_until(lambda: os.path.exists(HOMES + "/.ts_probe/ready"))
        return process

    def test_all_holds(self):
        process = self.waiting()
        done = tsmail("--json", "doctor", "--spool", "--probe")
        self.assertEqual(process.communicate(timeout=20), ("", ""))
        self.assertEqual((done.code, process.returncode), (0, 0), done)
        self.assertEqual([(row["trait"], row["standing"]) for row in done.objects],
                         [(name, "holds") for name in BETWEEN])
        self.assertEqual(os.listdir(HOMES), ["site.test"])

    def test_a_lock_that_does_not_reach_the_other_is_seen(self):
        process = self.waiting()
        done, _ = traced(["-e", "trace=flock", "-e", "inject=flock:retval=0"],
                         [TSMAIL, "--json", "doctor", "--spool", "--probe"])
        process.communicate(timeout=20)
        self.assertEqual(done.code, 1, done)
        self.assertEqual([row["standing"] for row in done.objects], ["fails", "fails", "holds", "holds"])
        self.assertIn("nolock", done.objects[0]["advice"])

    def test_nobody_comes(self):
        for word in ("--wait", "--probe"):
            done = tsmail("--timeout", "1", "doctor", "--spool", word)
            self.assertEqual(done.code, 75, done)
            self.assertEqual(os.listdir(HOMES), ["site.test"])

    def test_a_meeting_place_of_another_try(self):
        os.mkdir(HOMES + "/.ts_probe")
        done = tsmail("doctor", "--spool", "--wait")
        self.assertNotEqual(done.code, 0)
        self.assertIn(".ts_probe: File exists", done.err)

    @staticmethod
    def with_ssh(script):
        """The options of a command that finds this program as ssh."""
        os.makedirs("/tmp/programs", exist_ok=True)
        with open("/tmp/programs/ssh", "w", encoding="utf-8") as file:
            file.write("#!/bin/sh\n" + script)
        os.chmod("/tmp/programs/ssh", 0o755)
        return {"env": {"PATH": "/tmp/programs:" + os.environ["PATH"]}}

    def test_a_peer(self):
        options = self.with_ssh(f'[ "$1 $2 $3" = "-- other.test tsmail" ] || exit 9\nshift 3\nexec "{TSMAIL}" "$@"\n')
        done = tsmail("--json", "doctor", "--spool", "--peer", "other.test", **options)
        self.assertEqual(done.code, 0, done)
        self.assertEqual([row["trait"] for row in done.objects], BETWEEN)

    def test_a_peer_that_fails(self):
        options = self.with_ssh("exit 255\n")
        begun = time.monotonic()
        done = tsmail("doctor", "--spool", "--peer", "other.test", **options)
        self.assertEqual(done.code, 255, done)
        self.assertIn("the other machine's command has failed", done.err)
        self.assertLess(time.monotonic() - begun, 30)
        self.assertEqual(os.listdir(HOMES), ["site.test"])


if __name__ == "__main__":
    unittest.main()
