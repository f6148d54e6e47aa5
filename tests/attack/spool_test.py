"""Hostile owners of mailboxes: root's commands over all mailboxes serve the others, and nothing outside of
the hostile mailbox changes. Each attack has a twin without a hostile owner."""

import fcntl
import os
import subprocess
import sys
import time
import unittest

from testing.toolkit import HOME, Lock, SpoolCase, TSMAIL, mail, snapshot, tsmail, write
from testing.tracing import failing, traced_worker

USERS = {"ann@site.test": 20001, "bert@site.test": 20002, "carl@site.test": 20003}
ANN, BERT, CARL = USERS
ANY = (0, 1, 66, 73, 74, 75)
ROOTS_FILE = "/var/spool/root/file"
ROOTS_DIRECTORY = "/var/spool/root/directory"
VERBS = (("usage",), ("usage", "--verify"), ("recount", "--all"), ("recount", "--all", "--jobs", "1"),
         ("doctor", "--all"), ("doctor", "--all", "--repair"))


def home(address):
    return os.path.dirname(mail(address))


def give(top, owner):
    for directory, names, files in os.walk(top):
        for name in [".", *names, *files]:
            os.lchown(os.path.join(directory, name), owner, owner)


class AttackCase(SpoolCase):
    def setUp(self):
        super().setUp()
        for user, owner in USERS.items():
            self.succeed("create", user)
            write(f"{mail(user)}/Inbox/new/a", b"x" * 10)
            give(home(user), owner)
        os.makedirs(ROOTS_DIRECTORY + "/Inbox/cur")
        write(ROOTS_FILE, "precious 1 1\n")
        os.chmod(ROOTS_FILE, 0o600)
        for part in ("new", "tmp"):
            os.makedirs(f"{ROOTS_DIRECTORY}/Inbox/{part}")
        write(ROOTS_DIRECTORY + "/.maildirsize", "7 7\n")
        os.chmod(ROOTS_DIRECTORY, 0o700)

    def outside(self, attacker=ANN):
        """Everything outside the attacker's home, except for other users' files that the verbs may write."""
        seen = {path: what for path, what in snapshot("/var/spool").items()
                if not path.startswith(home(attacker) + "/") and path != home(attacker)}
        return {path: what for path, what in seen.items() if not path.startswith(HOME)}

    def serve(self, words, left_out=1, codes=(1, 66, 73, 74, 75), **options):
        """The verb serves the other mailboxes and reports that it left the attacker's out."""
        before = self.outside()
        done = tsmail(*words, **options)
        self.assertEqual(self.outside(), before, done)
        self.assertIn(done.code, codes, done)
        if left_out:
            self.assertIn("ann@site.test", done.err, done)
            self.assertRegex(done.lines[-1], "^1 mailbox was left out$", done)
        if words[0] == "recount":
            for user in (BERT, CARL):
                with open(mail(user) + "/.maildirsize", encoding="ascii") as file:
                    self.assertTrue(file.read().endswith("10 1\n"), done)
        return done

    def every_verb(self, attack, **expected):
        for words in VERBS:
            with self.subTest(words=words):
                self.setUp()
                attack()
                self.serve(words, **expected)

    def twin(self):
        for words in VERBS:
            with self.subTest(words=words):
                done = tsmail(*words)
                self.assertIn(done.code, (0, 1), done)
                self.assertEqual(done.err, "", done)


class ClosedTest(AttackCase):
    def test_twin(self):
        self.twin()

    def test_a_mail_root_without_rights_gives_nobody_roots_rights(self):
        def attack():
            for name in (".maildirsize", ".maildirsize.dirty"):
                os.symlink(ROOTS_FILE, f"{mail(ANN)}/{name}")
            os.symlink(ROOTS_FILE, f"{mail(ANN)}/Inbox/.ts_folder_size")
            os.chmod(mail(ANN), 0)
        for words in VERBS:
            with self.subTest(words=words):
                self.setUp()
                attack()
                # (A repair gives the owner the rights back.)
                self.serve(words, left_out="--repair" not in words, codes=ANY)

    def test_a_home_that_may_only_be_passed(self):
        self.every_verb(lambda: os.chmod(home(ANN), 0o111), left_out=0, codes=ANY)

    def test_a_home_without_rights(self):
        self.every_verb(lambda: os.chmod(home(ANN), 0), codes=(66, 73, 74, 75), left_out=0)

    def test_a_working_directory_that_the_owner_cannot_enter(self):
        os.mkdir("/tmp/closed", 0o700)
        self.addCleanup(os.rmdir, "/tmp/closed")
        for words in (("recount", ANN), ("size", ANN), ("usage", "--verify"), ("--json", "doctor", ANN)):
            done = tsmail(*words, cwd="/tmp/closed")
            self.assertIn(done.code, (0, 1), done)
            self.assertNotEqual(done.out, "", words)


class LinkTest(AttackCase):
    def in_place_of_mail(self, target):
        os.rename(mail(ANN), home(ANN) + "/other")
        os.symlink(target, mail(ANN))

    def test_mail_that_is_a_link_to_itself(self):
        self.every_verb(lambda: self.in_place_of_mail("mail"), left_out=0, codes=ANY)

    def test_mail_that_is_roots_directory(self):
        self.every_verb(lambda: self.in_place_of_mail(ROOTS_DIRECTORY), left_out=0,
                        codes=ANY)

    def test_mail_that_is_another_users(self):
        before = snapshot(mail(BERT))
        for words in (("usage", "--verify"), ("doctor", ANN, "--repair"), ("recount", ANN), ("size", ANN)):
            self.setUp()
            before = snapshot(mail(BERT))
            self.in_place_of_mail(mail(BERT))
            tsmail(*words)
            self.assertEqual(snapshot(mail(BERT)), before, words)

    def test_every_file_of_the_store_is_a_link_to_roots_file(self):
        def attack():
            for name in (".maildirsize", ".maildirsize.dirty", "Inbox/.ts_folder_size", "Inbox/.ts_cache",
                         "Inbox/.maildirfolder", "../quota_warning_flag", "../quota_exceeded_flag",
                         "../.alert_notification", "../pref/ann~site.test.pref",
                         "../pref/.ann~site.test.whitelist.lock"):
                os.symlink(ROOTS_FILE, f"{mail(ANN)}/{name}")
        self.every_verb(attack, left_out=0, codes=ANY)

    def test_an_exchange_during_the_look_up(self):
        """The home and a link to root's directory are exchanged all the time."""
        script = """import ctypes, sys
libc = ctypes.CDLL(None)
while True:
    libc.renameat2(-100, sys.argv[1].encode(), -100, sys.argv[2].encode(), 2)
"""
        os.symlink(ROOTS_DIRECTORY, home(ANN) + "/link")
        swapper = subprocess.Popen([sys.executable, "-c", script, mail(ANN), home(ANN) + "/link"],
                                   user=USERS[ANN], group=USERS[ANN], extra_groups=[])
        self.addCleanup(swapper.wait)
        self.addCleanup(swapper.kill)
        before = snapshot(ROOTS_DIRECTORY)
        end = time.monotonic() + 3
        while time.monotonic() < end:
            tsmail("recount", ANN)
            tsmail("doctor", ANN, "--repair")
            self.assertEqual(snapshot(ROOTS_DIRECTORY), before)
        self.assertIsNone(swapper.poll())

    def test_a_home_that_a_user_links_is_not_followed(self):
        os.rename(home(ANN), "/var/spool/root/elsewhere")
        os.symlink("/var/spool/root/elsewhere", home(ANN))
        self.succeed("size", ANN)  # root's link, as an operator makes one
        os.lchown(home(ANN), USERS[BERT], USERS[BERT])
        self.fail_with(66, "size", ANN, saying="is not followed")


class StallTest(AttackCase):
    def test_a_lock_that_is_held_for_ever(self):
        write(mail(ANN) + "/.maildirsize", "7 7\n")
        os.chown(mail(ANN) + "/.maildirsize", USERS[ANN], USERS[ANN])
        with Lock(mail(ANN) + "/.maildirsize"):
            for words in VERBS:
                with self.subTest(words=words):
                    begun = time.monotonic()
                    done = tsmail("--timeout", "1", *words)
                    self.assertEqual(done.code, 75, done)
                    self.assertIn("ann@site.test: it took longer than 1 second", done.err)
                    self.assertRegex(done.lines[-1], "^1 mailbox was left out$", done)
                    self.assertLess(time.monotonic() - begun, 20)
        self.succeed("recount", "--all")

    def test_a_folder_lock_that_is_held_for_ever(self):
        with Lock(mail(ANN) + "/Inbox", fcntl.LOCK_SH):
            done = tsmail("--timeout", "1", "recount", "--all")
            self.assertEqual(done.code, 75, done)
        self.succeed("recount", "--all")

    def test_fifos_everywhere(self):
        for name in (".maildirsize", "Inbox/.ts_folder_size", "Inbox/.ts_cache", "../quota_warning_flag"):
            os.mkfifo(f"{mail(ANN)}/{name}")
            os.chown(f"{mail(ANN)}/{name}", USERS[ANN], USERS[ANN])
        for words in VERBS:
            with self.subTest(words=words):
                done = tsmail("--timeout", "5", *words)
                self.assertNotIn("longer than", done.err)


class RootsOwnTest(AttackCase):
    """Root's own mailbox: root works in it as root only if no other user can change anything in it."""

    def setUp(self):
        super().setUp()
        self.succeed("create", "root@site.test")
        self.top = mail("root@site.test")

    def test_twin(self):
        for words in (("size",), ("recount",), ("doctor",)):
            self.succeed(*words, "root@site.test")

    def refused(self, saying):
        self.fail_with(73, "recount", "root@site.test", saying=saying)
        done = tsmail("recount", "--all")
        self.assertEqual(done.code, 73, done)
        self.assertRegex(done.lines[-1], "^1 mailbox was left out$")

    def test_others_can_write_to_a_folder(self):
        os.chmod(self.top + "/Work" if os.path.exists(self.top + "/Work") else self.top + "/Sent", 0o777)
        self.refused("another user can write")

    def test_a_folder_of_another_user(self):
        os.chown(self.top + "/Sent", USERS[ANN], USERS[ANN])
        self.refused("another user can write")

    def test_a_link_of_another_user(self):
        os.symlink(ROOTS_FILE, self.top + "/Inbox/.ts_folder_size")
        os.lchown(self.top + "/Inbox/.ts_folder_size", USERS[ANN], USERS[ANN])
        self.refused("another user's")
        with open(ROOTS_FILE, encoding="ascii") as file:
            self.assertEqual(file.read(), "precious 1 1\n")

    def test_a_domain_directory_that_others_can_write_to(self):
        os.chmod(os.path.dirname(home(ANN)), 0o777)
        self.refused("another user can write to it or above it")
        self.succeed("recount", ANN)  # as ann


class IdentityTest(AttackCase):
    def status_of_worker(self, address):
        """The user and group of the worker that waits for a lock."""
        write(mail(address) + "/.maildirsize", "7 7\n")
        os.chown(mail(address) + "/.maildirsize", USERS[address], USERS[address])
        with Lock(mail(address) + "/.maildirsize"):
            process = self.begin("recount", address)
            children = []
            while not children:
                with open(f"/proc/{process.pid}/task/{process.pid}/children", encoding="ascii") as file:
                    children = file.read().split()
            time.sleep(0.2)
            with open(f"/proc/{children[0]}/status", encoding="ascii") as file:
                status = dict(line.rstrip("\n").split(":", 1) for line in file)
        self.end(process)
        return status

    def test_a_worker_is_the_owner_for_good(self):
        status = self.status_of_worker(ANN)
        owner = str(USERS[ANN])
        self.assertEqual(status["Uid"].split(), [owner] * 4)
        self.assertEqual(status["Gid"].split(), [owner] * 4)
        self.assertEqual(status["Groups"].split(), [])
        self.assertEqual(int(status["CapPrm"], 16), 0)
        self.assertEqual(int(status["CapEff"], 16), 0)
        self.assertEqual(status["NoNewPrivs"].strip(), "1")

    def test_roots_group_is_nobodys(self):
        for directory, names, files in os.walk(home(ANN)):
            for name in [".", *names, *files]:
                os.lchown(os.path.join(directory, name), USERS[ANN], 0)
        status = self.status_of_worker(ANN)
        self.assertEqual(status["Gid"].split(), ["65534"] * 4)

    def test_a_kernel_that_refuses_the_change(self):
        before = self.outside()
        for call in ("setgroups", "setresgid", "setresuid"):
            done, _ = traced_worker(failing("EPERM", call), [TSMAIL, "recount", ANN])
            self.assertEqual(done.code, 73, done)
            self.assertIn("cannot become this user", done.err)
            self.assertFalse(os.path.exists(mail(ANN) + "/.maildirsize"), call)
        self.assertEqual(self.outside(), before)


if __name__ == "__main__":
    if os.geteuid() != 0:
        print("skipped: only root can be somebody else", file=sys.stderr)
        sys.exit(77)
    unittest.main()
