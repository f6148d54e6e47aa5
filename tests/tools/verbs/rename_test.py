"""mailbox rename, domain rename; both killed at each system call, after which the same command finishes."""

import os
import subprocess
import unittest
from functools import partial

from testing.toolkit import TSMAIL, Kept, SpoolCase, content, mail, mailbox_record, messages, snapshot, tsmail, write
from testing.tracing import (STEP, all_killed, failing, from_the_first_in_the_spool, killed, numbered, traced_parent,
                             traced_worker)

ANN, EVE, BERT, CLEO = "ann@site.test", "eve@site.test", "bert@site.test", "cleo@other.test"
SPOOL = "/var/spool/home"


def pref(address, name):
    home = os.path.dirname(mail(address))
    return f"{home}/pref/{os.path.basename(home)}.{name}"


class RenameCase(SpoolCase):
    def setUp(self):
        super().setUp()
        self.succeed("-q", "create", ANN, BERT, CLEO)
        write(pref(ANN, "pref"), "npage=30\n")
        write(pref(ANN, "whitelist"), "a@b\n")
        write(f"{SPOOL}/site.test/ann~site.test/pref/.ann~site.test.whitelist.lock", "")
        write(pref(ANN, "primaryaddr"), "bert@site.test\ncleo@other.test\nnobody@none.test\n")
        write(pref(BERT, "secondaryaddr"), "x@site.test\nann@site.test\ny@site.test\n")
        write(pref(CLEO, "secondaryaddr"), "ann@site.test\n")
        write(mail(ANN) + "/Inbox/new/1000000000.1_1.host,#F#S#10#E", b"x" * 10)
        write(mail(ANN) + "/.maildirsize", "10 1\n")

    def assert_moved(self, address, bert=BERT):
        self.assertEqual((len(messages(address)), mailbox_record(address)), (1, (10, 1)))
        home = os.path.dirname(mail(address))
        tilde = os.path.basename(home)
        self.assertEqual(sorted(name for name in os.listdir(home + "/pref") if not name.endswith("addr.lock")), sorted([f".{tilde}.whitelist.lock"] +
                                [f"{tilde}.{name}" for name in ("pref", "primaryaddr", "whitelist")]))
        self.assertEqual({name.lstrip(".")[:len(tilde)] for name in os.listdir(home + "/pref")}, {tilde})
        self.assertEqual(content(pref(bert, "secondaryaddr")).split()[1:2], [address.encode()])
        self.assertEqual(content(pref(CLEO, "secondaryaddr")), address.encode() + b"\n")


class MailboxTest(RenameCase):
    def test_everything_goes_with_it(self):
        [row] = self.succeed("--json", "mailbox", "rename", ANN, EVE).objects
        self.assertEqual(row, {"from": ANN, "to": EVE, "done": True})
        self.assert_moved(EVE)
        self.assertEqual(content(pref(BERT, "secondaryaddr")), b"x@site.test\neve@site.test\ny@site.test\n")
        self.assertFalse(os.path.exists(os.path.dirname(mail(ANN))))
        self.assertEqual(self.succeed("pref", "get", EVE, "npage").out, "30\n")
        self.assertEqual(tsmail("doctor", EVE).code, 1)  # there is no mailbox nobody@none.test
        self.fail_with(67, "mailbox", "rename", ANN, EVE)
        self.assertEqual(self.succeed("mailbox", "rename", EVE, ANN).out, f"renamed {EVE} to {ANN}\n")
        self.assert_moved(ANN)

    def test_the_quota_daemon_is_told(self):
        daemon = self.listen()
        self.succeed("mailbox", "rename", ANN, EVE, "--dry-run")
        self.assertEqual(self.told(daemon), [])
        self.succeed("mailbox", "rename", ANN, EVE)
        self.assertEqual(self.told(daemon), [f"S-10,F({mail(ANN)})", f"S10,F({mail(EVE)})"])
        self.succeed("mailbox", "rename", BERT, ANN)  # holds nothing
        self.assertEqual(self.told(daemon), [])
        self.succeed("domain", "rename", "site.test", "new.test")
        self.assertEqual(self.told(daemon), [f"S-10,F({mail(EVE)})", f"S10,F({mail('eve@new.test')})"])

    def test_to_another_domain(self):
        for to in ("eve@other.test", "ann@new.test"):
            self.succeed("mailbox", "rename", ANN, to)
            self.assert_moved(to)
            self.succeed("mailbox", "rename", to, ANN)

    def test_a_taken_name(self):
        self.succeed("-q", "create", EVE)
        for to in (EVE, "ann@other.test"):
            if to != EVE:
                os.mkfifo(f"{SPOOL}/other.test/ann~other.test")
            before = snapshot("/var/spool")
            for words in ((), ("--dry-run",)):
                self.fail_with(73, "mailbox", "rename", ANN, to, *words, saying="this name is taken")
            self.assertEqual(snapshot("/var/spool"), before)

    def test_a_name_that_is_taken_at_the_last_moment(self):
        """All that was done is taken back."""
        before = {path: what for path, what in snapshot("/var/spool").items() if not path.endswith(".lock")}
        kept, words = Kept(), [TSMAIL, "mailbox", "rename", ANN, EVE]
        worker, n = next(self.renamings(kept, words))
        kept.put_back()
        done, _ = traced_worker(failing("EEXIST", "renameat2", n), words, number=worker)
        after = {path: what for path, what in snapshot("/var/spool").items() if not path.endswith(".lock")}
        self.assertEqual((done.code, after), (73, before), done)
        self.assertIn("this name is taken", done.err)

    @staticmethod
    def renamings(kept, words):
        """The worker that renames the home, and which of its calls does it."""
        for worker in range(1, 10):
            kept.put_back()
            _, calls = traced_worker([], words, number=worker)
            yield from ((worker, n) for name, n, line in numbered(calls)
                        if name == "renameat2" and '"ann~site.test", ' in line)

    def test_a_file_whose_new_name_is_taken(self):
        write(f"{SPOOL}/site.test/ann~site.test/pref/eve~site.test.pref", "x\n")
        self.fail_with(73, "mailbox", "rename", ANN, EVE, saying="eve~site.test.pref: this name is taken")
        self.assertEqual(len(messages(ANN)), 1)
        os.unlink(f"{SPOOL}/site.test/ann~site.test/pref/eve~site.test.pref")
        self.succeed("mailbox", "rename", ANN, EVE)
        self.assert_moved(EVE)

    def test_what_is_refused(self):
        before = snapshot("/var/spool")
        self.fail_with(67, "mailbox", "rename", "none@site.test", EVE)
        self.fail_with(65, "mailbox", "rename", ANN, ANN, saying="same")
        self.fail_with(65, "mailbox", "rename", ANN, "ANN@Site.test", saying="same")
        self.fail_with(65, "mailbox", "rename", ANN, "eve+x@site.test")
        self.fail_with(65, "mailbox", "rename", ANN, "eve,x@site.test")
        self.fail_with(65, "mailbox", "rename", ANN, "../eve@site.test")
        self.fail_with(64, "mailbox", "rename", ANN)
        self.assertEqual(snapshot("/var/spool"), before)

    def test_dry_run(self):
        before = snapshot("/var/spool")
        for to in (EVE, "eve@new.test"):
            self.assertEqual(self.succeed("mailbox", "rename", ANN, to, "--dry-run").out, f"would rename {ANN} to {to}\n")
        self.assertEqual(snapshot("/var/spool"), before)


class DomainTest(RenameCase):
    ANN, BERT = "ann@new.test", "bert@new.test"

    def test_everything_goes_with_it(self):
        self.succeed("-q", "create", "dora@site.test")
        self.succeed("mailbox", "remove", "dora@site.test", "--yes")
        out = self.succeed("domain", "rename", "site.test", "new.test").out
        self.assertEqual(out, "renamed site.test to new.test\n")
        self.assert_moved(self.ANN, self.BERT)
        self.assertEqual(content(pref(self.BERT, "secondaryaddr")), b"x@new.test\nann@new.test\ny@new.test\n")
        self.assertEqual(content(pref(self.ANN, "primaryaddr")), b"bert@new.test\ncleo@other.test\nnobody@none.test\n")
        self.assertEqual(sorted(os.listdir(SPOOL)), ["new.test", "other.test"])
        self.succeed("mailbox", "restore", "dora@new.test")
        self.assertEqual([row["address"] for row in self.succeed("--json", "usage").objects],
                         [self.ANN, self.BERT, "dora@new.test", CLEO])
        self.fail_with(65, "domain", "rename", "site.test", "new.test", saying="no such domain")

    def test_what_is_refused(self):
        before = snapshot("/var/spool")
        for words in ((), ("--dry-run",)):
            self.fail_with(73, "domain", "rename", "site.test", "other.test", *words, saying="taken")
            self.fail_with(65, "domain", "rename", "none.test", "new.test", *words, saying="no such domain")
        self.fail_with(65, "domain", "rename", "site.test", "Site.test", saying="same")
        for name in ("a/b", "..", "", "a b", "a@b", "a,b"):
            self.fail_with(65, "domain", "rename", "site.test", name)
        self.assertEqual(snapshot("/var/spool"), before)

    def test_dry_run(self):
        before = snapshot("/var/spool")
        out = self.succeed("domain", "rename", "site.test", "new.test", "--dry-run").lines
        self.assertEqual(out, ["would rename ann@site.test to ann@new.test",
                               "would rename bert@site.test to bert@new.test", "would rename site.test to new.test"])
        self.assertEqual(snapshot("/var/spool"), before)


class KilledCase(RenameCase):
    """The command is killed at each of its calls, and with its workers at each call of each worker."""

    HARMLESS = ("exit_group", "geteuid", "fcntl", "newfstatat", "close", "brk", "mmap")

    def killed_everywhere(self, words, check):
        self.words, self.check, self.kept = [TSMAIL, *words], check, Kept()
        self.assertGreater(self.killed_in(traced_parent, killed), 5 // STEP)
        ended = []
        while not ended or ended[-1] is not None:
            ended.append(self.killed_in(partial(traced_worker, number=len(ended) + 1), all_killed))
        self.assertGreater(len(ended), 4)
        self.assertGreater(sum(ended[:-1]), 50 // STEP)

    def killed_in(self, trace, kill):
        """In how many of its calls the process was killed before the end; None if there is no such process."""
        self.kept.put_back()
        done, calls = trace([], self.words)
        self.assertEqual(done.code, 0, done)
        self.check()
        if not calls:
            return None
        ended = 0
        rows = from_the_first_in_the_spool(calls) if trace is traced_parent else numbered(calls)
        for name, n, line in [row for row in rows if row[0] not in self.HARMLESS][::STEP]:
            with self.subTest(call=line):
                self.kept.put_back()
                trace(kill(name, n), self.words)
                ended += self.finished()
        return ended

    def finished(self):
        """Whether the same command had something to do."""
        begun = "domain" in self.words or os.path.exists(SPOOL + "/site.test/ann~site.test")
        if begun:
            again = tsmail(*self.words[1:])
            gone = not os.path.exists(SPOOL + "/site.test") and "domain" in self.words
            self.assertEqual(again.code, 0 if "no such domain" not in again.err else 65, again)
            self.assertTrue(again.code == 0 or gone, again)
        self.check()
        return begun


class KilledMailboxTest(KilledCase):
    def test_each_call(self):
        self.killed_everywhere(["mailbox", "rename", ANN, EVE], lambda: self.assert_moved(EVE))


class KilledDomainTest(KilledCase):
    def test_each_call(self):
        self.killed_everywhere(["domain", "rename", "site.test", "new.test"],
                               lambda: self.assert_moved("ann@new.test", "bert@new.test"))


@unittest.skipUnless(os.geteuid() == 0, "only root takes other users' rights")
class OwnersTest(RenameCase):
    def setUp(self):
        super().setUp()
        for address, owner in ((ANN, 20001), (BERT, 20002), (CLEO, 20004)):
            home = os.path.dirname(mail(address))
            subprocess.run(["chown", "-R", f"{owner}:{owner}", home], check=True)
            os.chmod(home, 0o700)

    def test_each_step_has_its_owners_rights(self):
        for owner in (20003, 0):
            os.chown(SPOOL + "/site.test", owner, owner)
            self.succeed("mailbox", "rename", ANN, EVE)
            self.assert_moved(EVE)
            owners = {os.stat(f"{directory}/{name}").st_uid
                      for directory, _, names in os.walk(os.path.dirname(mail(EVE))) for name in [".", *names]}
            self.assertEqual((owners, os.stat(pref(BERT, "secondaryaddr")).st_uid), ({20001}, 20002))
            self.succeed("mailbox", "rename", EVE, ANN)

    def test_domains_of_different_owners(self):
        os.chown(SPOOL + "/other.test", 20003, 20003)
        before = snapshot("/var/spool")
        self.fail_with(73, "mailbox", "rename", ANN, "ann@other.test", saying="different users")
        after = snapshot("/var/spool")
        self.assertEqual({p: w for p, w in after.items() if not p.endswith(".lock")},
                         {p: w for p, w in before.items() if not p.endswith(".lock")})


if __name__ == "__main__":
    unittest.main()
