"""create and deliver: where messages arrive, and what is refused."""

import hashlib
import os
import re
import shutil
import signal
import subprocess
import time
import unittest

from testing import toolkit
from testing.toolkit import (SAMPLES, SANITIZED, SYSTEM_FOLDERS, TSMAIL, SpoolCase, as_nobody, content,
                             environment, folder_record, is_marked, left_in_tmp, limited, mail,
                             mailbox_record, messages, mode, own_by_nobody, snapshot)

ANN = "ann@site.test"


class CreateTest(SpoolCase):
    def test_roots_and_system_folders(self):
        done = self.succeed("create", "Ann@Site.Test")
        top = mail(ANN)
        self.assertEqual(sorted(os.listdir(top)), sorted(SYSTEM_FOLDERS))
        for folder in SYSTEM_FOLDERS:
            self.assertEqual(sorted(os.listdir(f"{top}/{folder}")), ["cur", "new", "tmp"])
        self.assertEqual(done.lines, ["created " + top] +
                         [f"created {top}/{folder}" for folder in SYSTEM_FOLDERS])

    def test_modes(self):
        for umask, folder in ((0o022, 0o755), (0o077, 0o700), (0o000, 0o777)):
            with self.subTest(umask=oct(umask)):
                address = f"u{umask}@site.test"
                self.succeed("create", address, "--folder", "Work", preexec_fn=lambda m=umask: os.umask(m))
                top = mail(address)
                self.assertEqual((mode(top), mode(top + "/../pref")), (0o700, 0o700))
                self.assertEqual((mode(top + "/Work"), mode(top + "/Work/tmp")), (folder, folder))

    def test_named_folders_with_every_level(self):
        self.succeed("create", ANN, "--folder", "Work/2024/May", "--folder", "A b")
        for folder in ("Work", "Work/2024", "Work/2024/May", "A b"):
            for part in ("cur", "new", "tmp"):
                self.assertTrue(os.path.isdir(f"{mail(ANN)}/{folder}/{part}"), folder)

    def test_what_exists_stays(self):
        self.succeed("create", ANN, "--folder", "Work")
        before = snapshot("/var/spool")
        done = self.succeed("create", ANN, "--folder", "Work")
        self.assertEqual(snapshot("/var/spool"), before)
        self.assertTrue(all(line.startswith("existed ") for line in done.lines))
        os.rmdir(mail(ANN) + "/Work/tmp")
        shown = self.succeed("--json", "create", ANN, "--folder", "Work").objects
        self.assertEqual(shown[-1], {"address": ANN, "name": "Work", "path": mail(ANN) + "/Work", "created": True,
                                     "done": True})
        self.assertEqual(snapshot("/var/spool"), before)

    def test_refused_names(self):
        names = ["", "/Work", "Work/", "a//b", ".hidden", "a/.b", "..", "a/../b", "a\\b", "a?", "a*",
                 "a:b", 'a"b', "a<b", "a>b", "a|b", "new", "a/cur", "tmp/a", "New", "a/CUR", "a\nb",
                 "a\x1bb", "x" * 256, "/".join(["y" * 200] * 12)]
        for name in names:
            with self.subTest(name=name):
                self.fail_with(65, "create", ANN, "--folder", "Good", "--folder", name, saying="folder name")
                self.assertEqual(os.listdir("/var/spool"), [])
                self.fail_with(65, "deliver", ANN, "--create", "--folder", name,
                               saying="folder name")
                self.assertEqual(os.listdir("/var/spool"), [])

    @unittest.skipIf(os.geteuid() != 0, "only root can be somebody else")
    def test_without_permission(self):
        os.mkdir("/var/spool/home")
        self.fail_with(73, "create", ANN, saying="/var/spool/home/site.test.*Permission denied",
                       **as_nobody())

    def test_something_in_the_way(self):
        os.makedirs(toolkit.HOME)
        with open(toolkit.HOME + "/site.test", "wb"):
            pass
        self.fail_with(73, "create", ANN, saying="Not a directory")


class DeliverTest(SpoolCase):
    def setUp(self):
        super().setUp()
        self.succeed("create", ANN)

    def test_from_standard_input(self):
        done = self.succeed("deliver", ANN, stdin=b"Subject: x\n\nbody\n")
        [path] = done.lines
        self.assertEqual(messages(ANN), [path])
        self.assertEqual(content(path), b"Subject: x\n\nbody\n")
        self.assertEqual(mode(path), 0o600)
        self.assertRegex(os.path.basename(path),
                         r"^\d+\.\d+_\d+_\d+\.[^#]+#Q#[0-9A-Za-z]{8}\d{6,},#F#S#17#E$")
        self.assertEqual(done.err, "")
        self.assertEqual(left_in_tmp(ANN), [])
        self.assert_counted(ANN)

    def test_every_sample_keeps_every_byte(self):
        self.assertGreaterEqual(len(SAMPLES), 20)
        paths = self.succeed("deliver", ANN, *SAMPLES).lines
        self.assertEqual(len(paths), len(SAMPLES))
        for sample, path in zip(SAMPLES, paths):
            self.assertEqual(content(path), content(sample), sample)
            self.assertIn(f",#F#S#{os.path.getsize(sample)}#E", path)
        self.assert_counted(ANN)

    def test_sizes_around_the_pieces_read(self):
        for size in (0, 1, 65535, 65536, 65537, 131072, 200001):
            data = os.urandom(size)
            [path] = self.succeed("deliver", ANN, stdin=data).lines
            self.assertEqual(content(path), data)
            self.assertTrue(path.endswith(f"#S#{size}#E"))

    def test_a_slow_pipe(self):
        with subprocess.Popen([TSMAIL, "deliver", ANN], stdin=subprocess.PIPE, bufsize=0,
                              stdout=subprocess.PIPE, env=environment()) as process:
            for piece in (b"a", b"b\r", b"\nc"):
                process.stdin.write(piece)
                time.sleep(0.02)
            process.stdin.close()
            path = process.stdout.read().decode().strip()
        self.assertEqual(content(path), b"ab\r\nc")

    def test_input_that_does_not_block(self):
        reader, writer = os.pipe()
        os.set_blocking(reader, False)
        with subprocess.Popen([TSMAIL, "deliver", ANN], stdin=reader, stdout=subprocess.PIPE,
                              env=environment()) as process:
            time.sleep(0.05)
            os.write(writer, b"late")
            os.close(writer)
            path = process.stdout.read().decode().strip()
            self.assertEqual(process.wait(), 0)
        os.close(reader)
        self.assertEqual(content(path), b"late")

    def test_folder_by_tag_option_and_neither(self):
        rows = [("ann@site.test", [], "Inbox"), ("ann+Work@site.test", [], "Work"),
                ("ann+Work@site.test", ["--folder", "Other"], "Other"),
                ("ann@site.test", ["--folder", "Work/2024"], "Work/2024"),
                ("ann+Drafts@site.test", [], "Drafts"), ("ann+A b@site.test", [], "A b")]
        for address, options, folder in rows:
            with self.subTest(address=address, options=options):
                [path] = self.succeed("deliver", "--new-folders", address, *options, stdin=b"x").lines
                self.assertTrue(path.startswith(f"{mail(ANN)}/{folder}/new/"), path)
        self.assertTrue(os.path.isdir(mail(ANN) + "/Work/cur"))

    def test_a_tag_that_is_no_folder_name_goes_to_inbox(self):
        for tag in (".hidden", "a*b", "a:b", "cur", "new", "tmp", "Cur", "NEW", "a|b", "<x>", "x" * 256):
            with self.subTest(tag):
                [path] = self.succeed("deliver", f"ann+{tag}@site.test", stdin=b"x").lines
                self.assertTrue(path.startswith(mail(ANN) + "/Inbox/new/"), path)
        self.assertEqual(sorted(os.listdir(mail(ANN))), sorted([*SYSTEM_FOLDERS, ".maildirsize"]))

    def test_no_new_folder(self):
        for words in (["ann+Work@site.test"], [ANN, "--folder", "Work"]):
            [path] = self.succeed("deliver", "--no-new-folder", *words, stdin=b"x").lines
            self.assertTrue(path.startswith(mail(ANN) + "/Inbox/new/"), path)
        self.succeed("create", ANN, "--folder", "Work")
        [path] = self.succeed("deliver", "--no-new-folder", ANN, "--folder", "Work", stdin=b"x").lines
        self.assertTrue(path.startswith(mail(ANN) + "/Work/new/"), path)

    def test_a_folder_without_all_its_parts_is_completed(self):
        shutil.rmtree(mail(ANN) + "/Inbox/tmp")
        shutil.rmtree(mail(ANN) + "/Inbox/new")
        self.succeed("deliver", ANN, stdin=b"x")
        shutil.rmtree(mail(ANN) + "/Inbox")
        self.succeed("deliver", ANN, "--no-new-folder", stdin=b"x")
        self.assertEqual(len(messages(ANN)), 1)

    def test_a_mailbox_that_was_never_created(self):
        self.fail_with(67, "deliver", "bob@site.test", stdin=b"x", saying="bob@site.test: there is no such mailbox")
        self.fail_with(67, "deliver", "bob@other.test", "/nowhere", saying="no such mailbox")
        self.assertFalse(os.path.exists(mail("bob@site.test")))
        [path] = self.succeed("deliver", "--create", "--new-folders", "bob+Work@site.test", stdin=b"x").lines
        self.assertTrue(path.startswith(mail("bob@site.test") + "/Work/new/"))
        self.assertEqual(sorted(os.listdir(mail("bob@site.test"))),
                         sorted([*SYSTEM_FOLDERS, "Work", ".maildirsize"]))
        self.assertTrue(os.path.isdir(mail("bob@site.test") + "/../pref"))

    def test_queue_identifier(self):
        rows = [("6B9Ha0q3004242", "6B9Ha0q3004242"), ("abc-6B9Ha0xyz", "6B9Ha0xyz"),
                ("a" * 100, "a" * 100)]
        for given, part in rows:
            [path] = self.succeed("deliver", ANN, "--queue-id", given, stdin=b"x").lines
            self.assertIn(f"#Q#{part},#F#S#1#E", path)
        for bad in ("", "a/b", "../x", "a b", "a:2,S", "a,b", "a#E", "a\n", "é", "a" * 101):
            self.fail_with(65, "deliver", ANN, "--queue-id", bad, stdin=b"x",
                           saying="queue identifier")
        self.assertEqual(len(messages(ANN)), len(rows))

    def test_names_differ_between_runs(self):
        names = {re.sub(r"^\d+\.\d+_\d+_", "", os.path.basename(
            self.succeed("deliver", ANN, "--queue-id", "q", stdin=b"x").out.strip()))
            for _ in range(8)}
        self.assertGreater(len(names), 4)  # the random number is seeded

    def test_json(self):
        [shown] = self.succeed("--json", "deliver", ANN, "--folder", "Work", stdin=b"12345").objects
        self.assertEqual({k: shown[k] for k in ("folder", "size")}, {"folder": "Work", "size": 5})
        self.assertEqual(content(shown["path"]), b"12345")

    def test_several_files_each_on_its_own(self):
        good, other = SAMPLES[:2]
        done = self.fail_with(66, "deliver", ANN, good, "/tmp/none", other, "/tmp",
                              saying="/tmp/none: No such file")
        self.assertEqual([content(path) for path in done.lines], [content(good), content(other)])
        self.assertIn("/tmp: Is a directory", done.err)
        self.assert_counted(ANN)

    def test_input_that_may_not_be_read(self):
        with open("/tmp/secret", "wb") as file:
            file.write(b"x")
        os.chmod("/tmp/secret", 0)
        own_by_nobody("/var/spool/home/site.test")
        self.fail_with(66, "deliver", ANN, "/tmp/secret", saying="Permission denied", **as_nobody())
        self.assertEqual(messages(ANN), [])

    def test_output_that_fails_after_delivery(self):
        with open("/dev/full", "wb") as full:
            done = toolkit.tsmail("deliver", ANN, stdin=b"x", stdout=full.fileno())
        self.assertEqual(done.code, 0, done)
        self.assertIn("warning: standard output", done.err)
        self.assertEqual(len(messages(ANN)), 1)

    def test_stays_within_128_MiB(self):
        size = 300 << 20
        with open("/tmp/big", "wb") as file:
            file.truncate(size)
            file.seek(size // 2)
            file.write(b"middle")
        options = {} if SANITIZED else {"preexec_fn": limited(AS=128 << 20)}
        with open("/tmp/big", "rb") as file:
            [path] = self.succeed("deliver", ANN, stdin=file, **options).lines
        self.assertEqual(os.path.getsize(path), size)
        with open(path, "rb") as got, open("/tmp/big", "rb") as sent:
            self.assertEqual(self.digest(got), self.digest(sent))
        self.assertEqual(mailbox_record(ANN), (size, 1))
        os.unlink("/tmp/big")

    @unittest.skipUnless(os.environ.get("TSMAIL_LARGE"), "3 GiB of memory: set TSMAIL_LARGE to run it")
    def test_beyond_31_bits(self):
        size = 3 << 30
        with open("/tmp/big", "wb") as file:
            file.truncate(size)
        with open("/tmp/big", "rb") as file:
            [path] = self.succeed("deliver", ANN, stdin=file,
                                  preexec_fn=limited(AS=128 << 20)).lines
        self.assertEqual(os.path.getsize(path), size)
        self.assertEqual(mailbox_record(ANN), (size, 1))
        os.unlink("/tmp/big")

    @staticmethod
    def digest(file):
        digest = hashlib.sha256()
        while piece := file.read(1 << 20):
            digest.update(piece)
        return digest.digest()


class RefusedTest(SpoolCase):
    """A delivery that fails before its message is in the folder leaves no trace."""

    def setUp(self):
        super().setUp()
        self.succeed("create", ANN)

    def unchanged(self, code, saying, *words, **options):
        before = snapshot("/var/spool")
        done = self.fail_with(code, "deliver", *(words or [ANN]), stdin=options.pop("stdin", b"x" * 9),
                              saying=saying, **options)
        self.assertEqual(done.out, "")
        self.assertEqual(snapshot("/var/spool"), before)

    def test_permissions(self):
        own_by_nobody("/var/spool/home/site.test")
        inbox = mail(ANN) + "/Inbox"
        for path, bits in ((inbox + "/tmp", 0o500), (inbox + "/new", 0o500), (inbox, 0o000),
                           (mail(ANN), 0o000)):
            before = mode(path)
            os.chmod(path, bits)
            with self.subTest(path):
                self.fail_with(75, "deliver", ANN, stdin=b"x", saying="Permission denied",
                               **as_nobody())
            os.chmod(path, before)
        os.chmod(mail(ANN), 0o500)
        self.fail_with(75, "deliver", ANN, "--folder", "New one", stdin=b"x",
                       saying="Permission denied", **as_nobody())
        os.chmod(mail(ANN), 0o700)
        self.assertEqual((messages(ANN), left_in_tmp(ANN)), ([], []))
        self.assertEqual(mailbox_record(ANN), (0, 0))
        self.succeed("deliver", ANN, stdin=b"x", **as_nobody())

    def test_files_in_the_way(self):
        for part in ("tmp", "new"):
            path = f"{mail(ANN)}/Inbox/{part}"
            os.rmdir(path)
            with open(path, "wb"):
                pass
            self.unchanged(73, "Not a directory")
            os.unlink(path)
            os.mkdir(path)
        with open(mail(ANN) + "/Work", "wb"):
            pass
        self.unchanged(73, "Not a directory", "ann+Work@site.test", "--new-folders")

    def test_limits(self):
        self.unchanged(75, "File too large", stdin=b"x" * 5000, preexec_fn=limited(FSIZE=4096))
        if not SANITIZED:
            for open_files in (4, 5, 6, 7):
                self.unchanged(75, "Too many open files", preexec_fn=limited(NOFILE=open_files))

    def test_bad_input(self):
        self.unchanged(66, "Is a directory", ANN, "/tmp")
        self.unchanged(66, "No such file", ANN, "/tmp/none")

    def test_a_signal_while_reading(self):
        for name in ("TERM", "INT", "HUP", "QUIT"):
            before = snapshot("/var/spool")
            with subprocess.Popen([TSMAIL, "deliver", ANN], stdin=subprocess.PIPE,
                                  stderr=subprocess.PIPE, env=environment()) as process:
                process.stdin.write(b"half a message")
                process.stdin.flush()
                self.wait_until(lambda: self.unnamed_size(process.pid) == 14)
                process.send_signal(getattr(signal, "SIG" + name))
                self.assertEqual(process.wait(timeout=10), 75)
                self.assertIn(b"signal", process.stderr.read())
            self.assertEqual(snapshot("/var/spool"), before)

    def test_a_signal_while_the_folder_is_locked(self):
        before = snapshot("/var/spool")
        with toolkit.Lock(mail(ANN) + "/Inbox"):
            with subprocess.Popen([TSMAIL, "deliver", ANN], stdin=subprocess.DEVNULL,
                                  stderr=subprocess.PIPE, env=environment()) as process:
                self.wait_until(lambda: self.unnamed_size(process.pid) is not None)
                process.terminate()
                self.assertEqual(process.wait(timeout=10), 75)
        self.assertEqual(snapshot("/var/spool"), before)

    def wait_until(self, true):
        deadline = time.monotonic() + 10
        while not true():
            self.assertLess(time.monotonic(), deadline)
            time.sleep(0.005)

    @staticmethod
    def unnamed_size(pid):
        """The size of the message that the process's worker is writing; None if it has not begun."""
        try:
            for worker in toolkit.workers_of(pid):
                for fd in os.listdir(f"/proc/{worker}/fd"):
                    if "/tmp/#" in os.readlink(f"/proc/{worker}/fd/{fd}"):
                        return os.stat(f"/proc/{worker}/fd/{fd}").st_size
        except OSError:
            pass
        return None


class RecordsTest(SpoolCase):
    """Once a message is in the folder it is delivered, whatever happens to the size records."""

    def setUp(self):
        super().setUp()
        self.succeed("create", ANN)

    def test_records_that_cannot_be_written(self):
        rows = [(mail(ANN) + "/Inbox/.ts_folder_size", "folder's size record"),
                (mail(ANN) + "/.maildirsize", "mailbox's size record")]
        for path, saying in rows:
            with self.subTest(saying):
                if os.path.exists(path):
                    os.unlink(path)
                os.mkdir(path)  # no process can append to it
                done = self.succeed("deliver", ANN, stdin=b"x")
                self.assertRegex(done.err, rf"^tsmail: warning: {done.out.strip()}: missing in .*"
                                 + saying)
                self.assertEqual(done.err.count("warning"), 1)
                self.assertTrue(os.path.exists(done.out.strip()))
                self.assertTrue(is_marked(ANN))
                os.rmdir(path)
                os.unlink(mail(ANN) + "/.maildirsize.dirty")
        self.assertEqual(folder_record(ANN), (1, 1))  # of the second message
        self.assertEqual(len(messages(ANN)), 2)

    def test_long_records_are_compacted(self):
        with open(mail(ANN) + "/.maildirsize", "w", encoding="ascii") as file:
            file.write("0S, 0C\n" + "10 1\n" * 900)
        done = self.succeed("deliver", ANN, stdin=b"123")
        self.assertEqual(done.err, "")
        self.assertEqual(content(mail(ANN) + "/.maildirsize"), b"0S, 0C\n9003 901\n")

    def test_folders_and_subfolders_have_their_own(self):
        self.succeed("deliver", "ann+Work@site.test", "--new-folders", stdin=b"12")
        self.succeed("deliver", ANN, "--folder", "Work/2024", stdin=b"345")
        self.assertEqual(folder_record(ANN, "Work"), (2, 1))
        self.assertEqual(folder_record(ANN, "Work/2024"), (3, 1))
        self.assertEqual(mailbox_record(ANN), (5, 2))

    def test_private_modes(self):
        self.succeed("deliver", ANN, stdin=b"x", preexec_fn=lambda: os.umask(0))
        self.assertEqual(mode(mail(ANN) + "/.maildirsize"), 0o600)
        self.assertEqual(mode(mail(ANN) + "/Inbox/.ts_folder_size"), 0o600)


@unittest.skipUnless(os.geteuid() == 0, "needs root, to have mailboxes of several owners")
class OwnerTest(SpoolCase):
    USER = 1234

    def setUp(self):
        super().setUp()
        self.succeed("create", ANN)
        for directory, names, _ in os.walk(mail(ANN) + "/.."):
            for name in [".", *names]:
                os.chown(os.path.join(directory, name), self.USER, self.USER)

    def owners(self, path):
        status = os.stat(path)
        return status.st_uid, status.st_gid

    def test_files_belong_to_the_owner(self):
        done = self.succeed("deliver", ANN, "--folder", "Work", stdin=b"x")
        self.assertEqual(done.err, "")
        for path in (done.out.strip(), mail(ANN) + "/Work", mail(ANN) + "/Work/tmp",
                     mail(ANN) + "/.maildirsize", mail(ANN) + "/Work/.ts_folder_size"):
            self.assertEqual(self.owners(path), (self.USER, self.USER), path)
        self.succeed("create", ANN, "--folder", "More")
        self.assertEqual(self.owners(mail(ANN) + "/More/new"), (self.USER, self.USER))

    def test_a_link_leads_nowhere_that_the_owner_may_not_go(self):
        os.mkdir("/tmp/private", 0o700)
        for part in ("cur", "new", "tmp"):
            os.mkdir("/tmp/private/" + part)
        shutil.rmtree(mail(ANN) + "/Inbox")
        os.symlink("/tmp/private", mail(ANN) + "/Inbox")
        self.fail_with(75, "deliver", ANN, stdin=b"x", saying="Permission denied")
        self.assertEqual(os.listdir("/tmp/private/new"), [])
        shutil.rmtree("/tmp/private")

    def test_input_is_opened_as_the_caller(self):
        with open("/tmp/only-root", "wb") as file:
            file.write(b"for root")
        os.chmod("/tmp/only-root", 0o600)
        paths = self.succeed("deliver", ANN, "/tmp/only-root", "/tmp/only-root").lines
        self.assertEqual([content(path) for path in paths], [b"for root"] * 2)

    def test_an_owner_who_cannot_reach_the_mailbox(self):
        os.chmod("/var/spool/home", 0o700)
        before = snapshot("/var/spool")
        self.fail_with(75, "deliver", ANN, stdin=b"x", saying="Permission denied")
        self.assertEqual(snapshot("/var/spool"), before)


if __name__ == "__main__":
    unittest.main()
