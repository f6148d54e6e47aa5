"""Root works on another user's mailbox: every file that a verb makes belongs to the mailbox's owner, and
only to that user."""

import os
import pwd
import stat
import sys
import unittest

from testing.toolkit import HOME, NOBODY, SpoolCase, as_nobody, environment, mail, tsmail

ANN = "ann@site.test"


class OwnerTest(SpoolCase):
    def setUp(self):
        super().setUp()
        os.makedirs(f"{HOME}/site.test")
        for path in (HOME, f"{HOME}/site.test"):
            os.chown(path, NOBODY, NOBODY)
        self.succeed("create", ANN, "--folder", "Work", **as_nobody())
        os.umask(0)
        self.addCleanup(os.umask, 0o022)

    def assert_owned(self, what):
        for directory, _, names in os.walk(HOME):
            for name in [".", *names]:
                path = os.path.join(directory, name)
                status = os.lstat(path)
                self.assertEqual((status.st_uid, status.st_gid), (NOBODY, NOBODY), (what, path))
                if stat.S_ISREG(status.st_mode):
                    self.assertEqual(status.st_mode & 0o7077, 0, (what, path))
        for root in (f"{HOME}/site.test/ann~site.test", mail(ANN), f"{mail(ANN)}/../pref"):
            self.assertEqual(os.stat(root).st_mode & 0o777, 0o700, (what, root))

    def put_untagged(self):
        path = f"{mail(ANN)}/Inbox/cur/untagged:2,S"
        with open(path, "wb") as file:
            file.write(b"x")
        os.chown(path, NOBODY, NOBODY)
        os.chmod(path, 0o600)

    def test_every_verb_that_changes_something(self):
        self.put_untagged()
        with open("/tmp/entries", "wb") as file:
            file.write(b"*@spam.test\n*@more.test\n")
        for words in (
                ("deliver", ANN), ("deliver", "ann+Tag@site.test", "--new-folders"), ("create", ANN, "--folder", "Another"),
                ("tag", ANN), ("recount", ANN), ("recount", "--all"),
                ("pref", "set", ANN, "npage=30"), ("pref", "reset", ANN),
                ("list", "add", ANN, "whitelist", "bob@site.test"),
                ("list", "import", ANN, "blacklist", "/tmp/entries"),
                ("list", "replace", ANN, "blacklist", "1", "*@other.test"),
                ("list", "remove", ANN, "whitelist", "bob@site.test"),
                ("quota", "set", ANN, "warning"), ("quota", "set", ANN, "exceeded", "3"),
                ("quota", "reset", ANN), ("quota", "clear", ANN, "exceeded"),
                ("doctor", ANN, "--repair"),
                ("message", "rm", ANN, "Inbox", "untagged,#F#S#1#E:2,S"),
                ("rm", ANN, "Work"), ("sweep", ANN), ("rm", ANN, "Tag", "--now")):
            with self.subTest(words):
                done = tsmail(*words, stdin=b"Subject: x\n\ntext\n")
                self.assertEqual(done.code, 0, done)
                self.assert_owned(words)

    def test_mailboxes_of_many_owners_at_a_time(self):
        """Each worker of a recount has the rights of the mailbox's owner, and no others."""
        owners = {f"u{n}@site.test": 20000 + n for n in range(40)}
        inboxes = {user: f"{mail(user)}/Inbox" for user in owners}
        for user, owner in owners.items():
            self.succeed("create", user)
            home = os.path.dirname(mail(user))
            for directory, names, files in os.walk(home):
                for name in [".", *names, *files]:
                    os.chown(os.path.join(directory, name), owner, owner)
            with open(f"{inboxes[user]}/new/a", "wb") as file:
                file.write(b"x" * 10)
        # u7's Drafts is a link to a closed folder of u8: it stays closed, even while a worker runs as u8.
        os.rename(f"{mail('u7@site.test')}/Drafts", f"{mail('u7@site.test')}/../Drafts")
        os.symlink(inboxes["u8@site.test"], f"{mail('u7@site.test')}/Drafts")
        os.chmod(inboxes["u8@site.test"], 0o700)
        for jobs in ("1", "4", "16"):
            for user in owners:
                for record in (f"{mail(user)}/.maildirsize", f"{inboxes[user]}/.ts_folder_size"):
                    if os.path.exists(record):
                        os.unlink(record)
            with self.subTest(jobs=jobs):
                done = tsmail("recount", "--all", "--jobs", jobs)
                self.assertEqual(done.code, 73, done)
                self.assertEqual(len(done.err.splitlines()), 1, done.err)
                self.assertRegex(done.err, "u7@site.test: .*/Drafts: Permission denied")
                for user, owner in owners.items():
                    if user == "u7@site.test":
                        continue
                    for record in (f"{mail(user)}/.maildirsize",
                                   f"{inboxes[user]}/.ts_folder_size"):
                        status = os.stat(record)
                        self.assertEqual((status.st_uid, status.st_gid), (owner, owner), record)

    def test_the_owner_may_go_on(self):
        self.succeed("deliver", ANN, stdin=b"x")
        self.succeed("pref", "set", ANN, "npage=30")
        self.succeed("list", "add", ANN, "whitelist", "bob@site.test")
        self.succeed("deliver", ANN, stdin=b"y", **as_nobody())
        self.succeed("pref", "set", ANN, "npage=31", **as_nobody())
        self.succeed("list", "add", ANN, "whitelist", "eve@site.test", **as_nobody())
        self.succeed("recount", ANN, **as_nobody())


class CreateTest(SpoolCase):
    """The owner of a new mailbox."""

    def setUp(self):
        super().setUp()
        self.domain = f"{HOME}/site.test"
        self.home = f"{self.domain}/ann~site.test"

    def assert_owned(self, user, group):
        for directory, _, names in os.walk(self.home):
            for name in [".", *names]:
                status = os.lstat(os.path.join(directory, name))
                self.assertEqual((status.st_uid, status.st_gid), (user, group), directory)
        self.assertEqual(os.stat(self.home).st_mode & 0o7777, 0o700)
        self.assertEqual(os.listdir(self.domain), ["ann~site.test"])
        self.assertTrue(os.path.isdir(self.home + "/pref"))

    def domain_of(self, user, group, mode=0o755):
        os.makedirs(self.domain)
        os.chown(self.domain, user, group)
        os.chmod(self.domain, mode)

    def configured(self, text):
        with open("/tmp/tsmail.toml", "w", encoding="ascii") as file:
            file.write(text)
        return {"env": environment(TSMAIL_CONFIG="/tmp/tsmail.toml")}

    def test_root_where_nothing_else_is_said(self):
        self.succeed("create", ANN)
        self.assert_owned(0, 0)

    def test_the_owner_of_the_domain(self):
        self.domain_of(20001, 20002)
        self.succeed("create", ANN, **self.configured("mail_user = '20003'"))
        self.assert_owned(20001, 20002)

    def test_the_configured_mail_user(self):
        user = pwd.getpwnam("nobody")
        self.succeed("create", ANN, **self.configured("mail_user = 'nobody'"))
        self.assert_owned(user.pw_uid, user.pw_gid)
        self.fail_with(64, "create", "bert@site.test", saying="unknown user",
                       **self.configured("mail_user = 'nosuchuser'"))

    def test_owners_that_are_asked_for(self):
        user = pwd.getpwnam("nobody")
        for words, owner in (("nobody", (user.pw_uid, user.pw_gid)), ("20001:20002", (20001, 20002)),
                             (f"{user.pw_uid}:0", (user.pw_uid, 0)), ("root", (0, 0))):
            for domain in (None, (0, 0), (20009, 20009)):
                with self.subTest(words=words, domain=domain):
                    self.setUp()
                    if domain:
                        self.domain_of(*domain)
                    if domain == (20009, 20009) and words == "root":
                        self.fail_with(73, "create", ANN, "--owner", words)
                        continue
                    for _ in range(2):
                        self.succeed("create", ANN, "--owner", words)
                        self.assert_owned(*owner)

    def test_owners_that_are_refused(self):
        for words in ("", "nosuchuser", "20001", "nobody:nosuchgroup", ":nogroup", "-1:0", "4294967295:0"):
            self.fail_with(64, "create", ANN, "--owner", words, saying="--owner")
        self.assertEqual(os.listdir("/var/spool"), [])

    def test_a_home_of_somebody_else(self):
        self.succeed("create", ANN, "--owner", "20001:20001")
        self.fail_with(73, "create", ANN, "--owner", "20002:20002", saying="belongs to user 20001")
        self.assert_owned(20001, 20001)

    def test_only_root_gives_away(self):
        self.domain_of(NOBODY, NOBODY)
        done = tsmail("create", ANN, "--owner", "20001:20001", **as_nobody())
        self.assertEqual((done.code, os.listdir(self.domain)), (73, []), done)
        self.assertIn("only root", done.err)
        self.assertEqual(tsmail("create", ANN, "--owner", f"{NOBODY}:{NOBODY}", **as_nobody()).code, 0)
        self.assert_owned(NOBODY, NOBODY)

    def test_a_mask_does_not_close_the_domain(self):
        os.umask(0o077)
        self.addCleanup(os.umask, 0o022)
        self.succeed("create", ANN, "--owner", "20001:20001")
        self.assert_owned(20001, 20001)
        self.assertEqual(os.stat(self.domain).st_mode & 0o777, 0o711)

    def test_a_set_group_id_domain(self):
        self.domain_of(20001, 20002, 0o2755)
        self.succeed("create", ANN)
        self.assertEqual(os.stat(self.home).st_gid, 20002)


if __name__ == "__main__":
    if os.geteuid() != 0:
        print("skipped: only root can be somebody else", file=sys.stderr)
        sys.exit(77)
    unittest.main()
