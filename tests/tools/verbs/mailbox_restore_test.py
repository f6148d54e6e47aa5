"""mailbox remove, which puts the home aside, mailbox restore and sweep; each killed at every system call."""

import os
import subprocess
import time
import unittest

from testing.toolkit import TSMAIL, Kept, SpoolCase, mail, mailbox_record, messages, snapshot, tsmail, write
from testing.tracing import STEP, all_killed, from_the_first_in_the_spool, killed, numbered, traced_parent, traced_worker

ANN, BERT = "ann@site.test", "bert@site.test"
HOME, DOMAIN = os.path.dirname(mail(ANN)), "/var/spool/home/site.test"
THEIRS = f"{DOMAIN}/bert~site.test/pref/bert~site.test.secondaryaddr"
RECORD = ".partners"


def hidden():
    return sorted(name for name in os.listdir(DOMAIN) if name.startswith(".deleted.") and not name.endswith(RECORD))


def records():
    return sorted(name for name in os.listdir(DOMAIN) if name.endswith(RECORD))


def lines(path=THEIRS):
    with open(path, encoding="ascii") as file:
        return file.read().splitlines()


class HiddenCase(SpoolCase):
    def setUp(self):
        super().setUp()
        self.succeed("-q", "create", ANN)
        self.succeed("-q", "create", BERT)
        write(f"{HOME}/pref/ann~site.test.primaryaddr", "bert@site.test\ncleo@site.test\n")
        write(THEIRS, "x@site.test\nann@site.test\n")
        self.succeed("-q", "deliver", ANN, stdin=b"x" * 1000)

    def remove(self, *words):
        return self.succeed("mailbox", "remove", ANN, "--yes", *words)


class RestoreTest(HiddenCase):
    def test_away_and_back(self):
        before = snapshot(HOME)
        daemon = self.listen()
        [row] = self.succeed("--json", "mailbox", "remove", ANN, "--yes").objects
        self.assertEqual((row["path"], row["action"], row["done"], row["messages"]), (HOME, "schedule", True, 1))
        day = time.strftime("%Y%m%d", time.gmtime())
        self.assertEqual(hidden(), [f".deleted.{day}.ann~site.test.1"])
        self.assertEqual(lines(), ["x@site.test"])
        self.fail_with(67, "folders", ANN)
        self.fail_with(67, "mailbox", "remove", ANN, "--yes")
        out = self.succeed("mailbox", "restore", ANN).out
        self.assertRegex(out, rf"^restored {HOME}: 1 message \(1000 B\)")
        self.assertEqual((snapshot(HOME), lines()), (before, ["x@site.test", "ann@site.test"]))
        self.assertEqual((hidden(), records(), mailbox_record(ANN)), ([], [], (1000, 1)))
        self.assertEqual(self.told(daemon), [f"S-1000,F({mail(ANN)})", f"S1000,F({mail(ANN)})"])

    def test_only_partners_that_named_it(self):
        write(THEIRS, "x@site.test\n")
        self.remove()
        self.succeed("mailbox", "restore", ANN)
        self.assertEqual(lines(), ["x@site.test"])

    def test_no_walk_sees_a_hidden_home(self):
        self.remove()
        for words in (("usage",), ("doctor", "--all"), ("recount", "--all"), ("usage", "--domain", "site.test")):
            done = tsmail("--json", *words)
            self.assertNotIn("ann~", done.out)
            self.assertNotIn("deleted", done.out + done.err)
        write(THEIRS, "")
        self.assertEqual(tsmail("doctor", "--all").code, 0)

    def test_the_youngest_and_only_in_a_free_place(self):
        self.remove()
        self.succeed("-q", "create", ANN)
        before = snapshot("/var/spool")
        for words in ((), ("--dry-run",)):
            self.fail_with(73, "mailbox", "restore", ANN, *words, saying="this name is taken")
        self.assertEqual(snapshot("/var/spool"), before)
        self.succeed("-q", "deliver", ANN, stdin=b"young")
        time.sleep(0.05)
        self.remove()
        self.assertEqual(len(hidden()), 2)
        self.succeed("mailbox", "restore", ANN)
        with open(messages(ANN)[0], encoding="ascii") as file:
            self.assertEqual(file.read(), "young")

    def test_nothing_to_restore(self):
        self.fail_with(67, "mailbox", "restore", "cleo@site.test", saying="scheduled for removal")
        self.fail_with(67, "mailbox", "restore", "cleo@other.test", saying="no such domain")
        self.fail_with(65, "mailbox", "restore", "cleo")
        self.remove("--now")
        self.assertEqual(hidden(), [])
        self.fail_with(67, "mailbox", "restore", ANN)

    def test_dry_run(self):
        self.remove()
        before = snapshot("/var/spool")
        self.assertRegex(self.succeed("mailbox", "restore", ANN, "--dry-run").out, r"^would restore .*: 1 message")
        self.assertEqual(snapshot("/var/spool"), before)

    def test_partners_that_are_gone_or_full(self):
        self.remove()
        self.succeed("mailbox", "remove", BERT, "--yes")
        done = self.succeed("mailbox", "restore", ANN)
        self.assertIn("not entered", done.err)
        self.succeed("mailbox", "restore", BERT)
        self.remove()
        self.assertEqual(lines(), ["x@site.test"])

    def test_a_home_that_is_a_link(self):
        os.rename(HOME, "/var/spool/elsewhere")
        os.symlink("/var/spool/elsewhere", HOME)
        self.remove()
        self.assertTrue(os.path.islink(f"{DOMAIN}/{hidden()[0]}"))
        self.succeed("mailbox", "restore", ANN)
        self.assertEqual(len(messages(ANN)), 1)
        self.remove()
        self.succeed("sweep", ANN)
        self.assertEqual((hidden(), os.listdir("/var/spool/elsewhere")), ([], []))

    def test_what_a_user_writes_into_the_home_enters_nobody(self):
        """The record is not in the home, which belongs to the user."""
        self.remove()
        write(f"{DOMAIN}/{hidden()[0]}/{records()[0]}", "secondaryaddr bert@site.test\n")
        write(f"{DOMAIN}/{hidden()[0]}/.partners", "secondaryaddr bert@site.test\n")
        write(THEIRS, "x@site.test\n")
        write(f"{DOMAIN}/{records()[0]}", "whitelist bert@site.test\nsecondaryaddr ../bert\nnonsense\n")
        self.succeed("mailbox", "restore", ANN)
        self.assertEqual(lines(), ["x@site.test"])
        self.assertFalse(os.path.exists(THEIRS.replace("secondaryaddr", "whitelist")))


class SweepTest(HiddenCase):
    def test_hidden_homes_go(self):
        self.succeed("-q", "create", "carl@other.test")
        self.remove()
        self.succeed("mailbox", "remove", "carl@other.test", "--yes")
        for age in ("7d", "1h"):
            self.assertEqual(self.succeed("sweep", "--all", "--older", age).out, "")
        before = snapshot("/var/spool")
        rows = self.succeed("--json", "sweep", "--all", "--dry-run").objects
        self.assertEqual([(row["done"], row["messages"]) for row in rows], [(False, 0), (False, 1)])
        self.assertEqual(snapshot("/var/spool"), before)
        path = f"{DOMAIN}/{hidden()[0]}"
        self.assertEqual(self.succeed("sweep", "--domain", "site.test").out.split(":")[0], f"removed {path}")
        self.assertEqual((hidden(), records()), ([], []))
        self.assertEqual(len(self.succeed("sweep", "--all").lines), 1)
        self.assertEqual(os.listdir("/var/spool/home/other.test"), [])

    def test_of_one_mailbox(self):
        self.remove()
        self.succeed("mailbox", "remove", BERT, "--yes")
        self.succeed("sweep", ANN)
        self.assertEqual([name.split(".")[3] for name in hidden()], ["bert~site"])
        self.fail_with(67, "sweep", ANN)
        self.succeed("-q", "create", BERT)
        self.succeed("sweep", BERT)
        self.assertEqual((hidden(), os.path.isdir(mail(BERT))), ([], True))

    def test_what_is_older_goes(self):
        self.remove()
        os.utime(f"{DOMAIN}/{records()[0]}", (0, time.time() - 8 * 86400))
        self.assertEqual(self.succeed("sweep", "--all", "--older", "9d").out, "")
        self.succeed("sweep", "--all", "--older", "7d")
        self.assertEqual((hidden(), records()), ([], []))

    def test_names_of_others_stay(self):
        names = (".deleted.x", ".deleted.20240229.ann.1", ".deleted.20240229.ann~other.test.1",
                 ".deleted.2024022.ann~site.test.1", ".deleted.20240229.ann~site.test.x", ".deleted.no.home.1")
        for name in names:
            os.mkdir(f"{DOMAIN}/{name}")
        self.succeed("sweep", "--all")
        self.assertEqual(hidden(), sorted(names))

    def test_what_a_sweep_has_begun_to_remove_does_not_come_back(self):
        self.remove()
        os.rename(f"{DOMAIN}/{hidden()[0]}", f"{DOMAIN}/{hidden()[0]}.swept")
        self.fail_with(67, "mailbox", "restore", ANN)
        self.succeed("sweep", ANN, "--older", "7d")
        self.assertEqual(hidden(), [])


class KilledTest(HiddenCase):
    """The command is killed at each system call, its workers end with it."""

    def killed_everywhere(self, words, prepare, check):
        prepare()
        kept = Kept()
        done, calls = traced_parent([], [TSMAIL, *words])
        self.assertEqual(done.code, 0, done)
        ended = 0
        harmless = ("exit_group", "geteuid", "fcntl", "newfstatat", "close", "brk", "mmap")
        rows = [row for row in from_the_first_in_the_spool(calls) if row[0] not in harmless]
        for name, n, line in rows[::STEP]:
            with self.subTest(call=line):
                kept.put_back()
                done, _ = traced_parent(killed(name, n), [TSMAIL, *words])
                ended += done.code != 0
                check()
        self.assertGreater(ended, 20 // STEP)

    def whole(self):
        """The mailbox is here or hidden, with its mail; at the end it is here, and its partner names it."""
        here = os.path.isdir(mail(ANN))
        self.assertEqual([here] + [name.endswith("ann~site.test.1") for name in hidden()], [True] if here else
                         [False, True])
        if not here:
            self.succeed("mailbox", "restore", ANN)
        self.assertEqual((len(messages(ANN)), hidden()), (1, []))
        if not here:
            self.assertEqual(sorted(lines()), ["ann@site.test", "x@site.test"])

    def test_remove(self):
        self.killed_everywhere(["mailbox", "remove", ANN, "--yes"], self.setUp, self.whole)

    def test_restore(self):
        def prepare():
            self.setUp()
            self.remove()

        def check():
            self.whole()
            self.assertEqual(sorted(lines()), ["ann@site.test", "x@site.test"])
        self.killed_everywhere(["mailbox", "restore", ANN], prepare, check)

    def test_sweep(self):
        def prepare():
            self.setUp()
            self.remove()

        def check():
            self.succeed("sweep", "--all")
            self.assertEqual((hidden(), records()), ([], []))
        self.killed_everywhere(["sweep", "--all"], prepare, check)


class KilledWorkersTest(HiddenCase):
    """Workers are killed at each of their system calls, alone or with the command."""

    def in_each_worker(self, words, kill, check):
        kept, number = Kept(), 0
        while calls := self.calls_of_worker(kept, words, number := number + 1):
            for name, n, line in numbered(calls):
                with self.subTest(worker=number, call=line):
                    kept.put_back()
                    check(traced_worker(kill(name, n), words, number=number)[0])
        self.assertGreater(number, 3)

    @staticmethod
    def calls_of_worker(kept, words, number):
        kept.put_back()
        return traced_worker([], words, number=number)[1]

    def test_remove(self):
        """The same command hides the home if it is there. No record without a home is left."""
        words, begun = [TSMAIL, "mailbox", "remove", ANN, "--yes"], set()

        def check(_):
            begun.add(os.path.isdir(mail(ANN)))
            if os.path.isdir(mail(ANN)):
                self.succeed(*words[1:])
            self.assertEqual(records(), [name + RECORD for name in hidden()])
            self.succeed("mailbox", "restore", ANN)
            self.assertEqual((len(messages(ANN)), hidden(), records()), (1, [], []))
            self.assertEqual(sorted(lines()), ["ann@site.test", "x@site.test"])
        self.in_each_worker(words, all_killed, check)
        self.assertEqual(begun, {True, False})

    def test_restore(self):
        """The same command finishes the work. No partner is forgotten."""
        self.remove()
        words, ended = [TSMAIL, "mailbox", "restore", ANN], []

        def check(done):
            if done.code != 0 and not os.path.isdir(HOME):
                ended.append(done)
                self.succeed(*words[1:])
            self.assertEqual((len(messages(ANN)), hidden(), records()), (1, [], []))
            self.assertEqual(sorted(lines()), ["ann@site.test", "x@site.test"])
        self.in_each_worker(words, killed, check)
        self.assertGreater(len(ended), 50)


@unittest.skipUnless(os.geteuid() == 0, "only root takes other users' rights")
class OwnersTest(HiddenCase):
    """Three users: of the home, of the partner's home and of the domain."""

    def setUp(self):
        super().setUp()
        for path, owner in ((HOME, 20001), (os.path.dirname(mail(BERT)), 20002)):
            subprocess.run(["chown", "-R", f"{owner}:{owner}", path], check=True)
            os.chmod(path, 0o700)

    def test_each_step_has_its_owners_rights(self):
        for owner in (20003, 0):
            os.chown(DOMAIN, owner, owner)
            self.remove()
            [name] = hidden()
            self.assertEqual([os.stat(f"{DOMAIN}/{n}").st_uid for n in (name, name + RECORD)], [20001, owner])
            self.succeed("mailbox", "restore", ANN)
            self.assertEqual((os.stat(HOME).st_uid, os.stat(THEIRS).st_uid), (20001, 20002))
            self.assertEqual(lines(), ["x@site.test", "ann@site.test"])
        self.remove()
        self.succeed("sweep", "--all")
        self.assertEqual(hidden(), [])

    def test_a_domain_that_its_owner_may_not_change(self):
        os.chown(DOMAIN, 20003, 20003)
        os.chmod(DOMAIN, 0o555)
        done = tsmail("mailbox", "remove", ANN, "--yes")
        self.assertEqual((done.code, os.path.isdir(mail(ANN))), (73, True), done)
        self.assertEqual(lines(), ["x@site.test", "ann@site.test"])
        os.chmod(DOMAIN, 0o755)


if __name__ == "__main__":
    unittest.main()
