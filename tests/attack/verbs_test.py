"""Root runs every verb on the mailbox of a hostile owner. Whatever the mailbox contains, the command ends in time,
changes nothing outside of the owner's home, and shows no data of other users. The twin is a mailbox whose owner is
not hostile: there every verb does its work."""

import errno
import glob
import itertools
import os
import shutil
import socket
import stat
import subprocess
import sys
import time
import unittest

from testing.toolkit import SANITIZED, TSMAIL, Lock, SpoolCase, content, environment, mail, run, tsmail, write
from testing.tracing import STEP, from_the_first_in_the_spool, killed, traced_parent

ANN, BERT, MAILMAN = "ann@site.test", "bert@site.test", 20009
USERS = {ANN: 20001, BERT: 20002}
ROOTS = "/var/spool/root"
SECRET, BERTS = b"precious 1 1\n", b"bertsecret\n"
TEMPLATE = "/tmp/template"

# Each verb ends with an exit code of sysexits, or with 1 for the answer no.
VERBS = (
    ("create", ANN), ("create", ANN, "--folder", "Extra/Sub"), ("folders", ANN), ("messages", ANN, "Inbox"), ("size", ANN),
    ("recount", ANN), ("recount", ANN, "--dry-run"), ("tag", ANN), ("usage",), ("usage", "--verify"),
    ("usage", "--total"), ("metrics",), ("doctor", "--spool"), ("doctor", ANN), ("doctor", ANN, "--repair"),
    ("deliver", ANN), ("deliver", "ann+Tag@site.test"), ("deliver", "ann+Tag@site.test", "--new-folders"),
    ("deliver", ANN, "--defer-exceeded"), ("deliver", ANN, "--folder", "Work", "--create"),
    ("lmtp",), ("policy",),
    ("pref", "show", ANN), ("pref", "set", ANN, "npage=30"), ("pref", "reset", ANN),
    ("list", "names", ANN), ("list", "show", ANN, "whitelist"), ("list", "export", ANN, "whitelist"), ("list", "add", ANN, "whitelist", "x@y"),
    ("list", "remove", ANN, "whitelist", "a@b"), ("list", "replace", ANN, "whitelist", "1", "c@d"),
    ("list", "match", ANN, "whitelist", "a@b"), ("list", "import", ANN, "blacklist", "/tmp/entries"),
    ("quota", "show", ANN), ("quota", "set", ANN, "warning"), ("quota", "set", ANN, "exceeded", "7"),
    ("quota", "clear", ANN, "exceeded"), ("quota", "reset", ANN),
    ("folders", "--all"), ("size", "--all"), ("messages", "--all", "Inbox"), ("tag", "--all", "Work"),
    ("pref", "get", "--all", "npage"), ("pref", "set", "--all", "npage=40"), ("quota", "show", "--all"),
    ("quota", "set", "--all", "warning"), ("list", "names", "--all"), ("list", "show", "--all", "whitelist"),
    ("list", "find", "--all", "whitelist", "a@b"), ("list", "add", "--all", "whitelist", "x@y"),
    ("list", "remove", "--all", "whitelist", "a@b"),
    ("export", ANN, "/tmp/exported"), ("export", ANN, "/tmp/exported", "--format", "mbox"), ("import", ANN, "/tmp/mbox"), ("import", ANN, "/tmp/mbox", "--folder", "Work", "--dry-run"),
    ("message", "flag", ANN, "Inbox", "a", "+S"), ("message", "move", ANN, "Inbox", "a", "--to", "Work"),
    ("message", "rm", ANN, "Inbox", "a"), ("rm", ANN, "Work", "--dry-run"), ("rm", ANN, "Work"),
    ("rm", ANN, "Inbox", "--now", "--force"), ("restore", ANN, "Old"),
    ("restore", ANN, "Old/Sub", "--dry-run"), ("sweep", ANN), ("sweep", "--all", "--older", "0s"),
    ("expire", ANN, "--folder", "Inbox", "--older", "0s", "--by", "received"),
    ("expire", "--all", "--folder", "Inbox", "--folder", "Work", "--older", "30d", "--dry-run"),
    ("mailbox", "remove", ANN, "--dry-run"), ("mailbox", "remove", ANN, "--yes"),
    ("mailbox", "remove", ANN, "--yes", "--now"), ("mailbox", "rename", ANN, "away@site.test"),
    ("mailbox", "rename", ANN, "away@site.test", "--dry-run"), ("create", ANN, "--dry-run"),
)
if SANITIZED:  # the sanitizer makes each run ten times as long
    VERBS = VERBS[::3]
# What comes over the connection of a resident service.
SERVED = {"policy": b"recipient=ann@site.test\n\n", "lmtp": (
    b"LHLO c\r\nMAIL FROM:<s@x>\r\nRCPT TO:<ann@site.test>\r\nRCPT TO:<ann+Work@site.test>\r\n"
    b"DATA\r\nSubject: x\r\n\r\nx\r\n.\r\nQUIT\r\n")}
CODES = (0, 1, 65, 66, 67, 73, 74, 75)
OLD = f".deleted.{time.strftime('%Y%m%d', time.gmtime())}.Old.1"
# The names that the store knows, below the home.
FILES = ("mail/.maildirsize", "mail/.maildirsize.dirty", "mail/Inbox/.ts_folder_size", "mail/Inbox/.ts_cache",
         "mail/Inbox/.ts_unread_scan_date", "mail/Inbox/.maildirfolder", "mail/Inbox/new/a", "quota_warning_flag",
         "quota_exceeded_flag", ".alert_notification", "pref/ann~site.test.pref", "pref/ann~site.test.whitelist",
         "pref/.ann~site.test.whitelist.lock", "pref/.ann~site.test.whitelist.tmp", "pref/ann~site.test.blacklist",
         "pref/ann~site.test.primaryaddr", "pref/ann~site.test.secondaryaddr", OLD + "/.ts_removed_from")
DIRECTORIES = ("mail", "pref", "mail/Inbox", "mail/Inbox/new", "mail/Inbox/cur", "mail/Inbox/tmp", "mail/Work",
               OLD)


def home(address=ANN):
    return os.path.dirname(mail(address))


def give(top, owner):
    os.lchown(top, owner, owner)
    for directory, names, files in os.walk(top):
        for name in names + files:
            os.lchown(os.path.join(directory, name), owner, owner)


def everything(top, without=()):
    """Every path below top with its owner, mode and content."""
    found = {}
    for directory, names, files in os.walk(top):
        names[:] = [name for name in names if os.path.join(directory, name) not in without]
        for name in [".", *names, *files]:
            path = os.path.join(directory, name)
            status = os.lstat(path)
            data = content(path) if stat.S_ISREG(status.st_mode) else None
            found[path] = (status.st_uid, status.st_gid, status.st_mode, data)
    return found


def copy(source, target):
    subprocess.run(["cp", "-a", source, target], check=True)


class VerbsCase(SpoolCase):
    """The store of the template, made once."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        if os.path.exists(TEMPLATE):
            shutil.rmtree(TEMPLATE)
        maker = cls("make")
        SpoolCase.setUp(maker)
        maker.make()
        copy("/var/spool", TEMPLATE)

    def make(self):
        for user, owner in USERS.items():
            self.succeed("create", user, "--folder", "Work", "--owner", f"{owner}:{owner}")
            write(mail(user) + "/Inbox/new/a", b"x" * 10)
            for folder in ("Old/Sub", "Old"):
                self.succeed("create", user, "--owner", f"{owner}:{owner}", "--folder", "Old/Sub")
                self.succeed("rm", user, folder)
            write(f"{home(user)}/pref/{os.path.basename(home(user))}.whitelist", b"a@b\nc@d\n")
        write(home(BERT) + "/pref/bert~site.test.secondaryaddr", b"ann@site.test\n" + BERTS)
        write(home(ANN) + "/pref/ann~site.test.primaryaddr", b"bert@site.test\n")
        for user, owner in USERS.items():
            give(home(user), owner)
        for part in ("Inbox/cur", "Inbox/new", "Inbox/tmp", "cur", "new", "tmp"):
            os.makedirs(f"{ROOTS}/{part}", mode=0o700, exist_ok=True)
        for name in ("file", ".maildirsize", "Inbox/.ts_folder_size", "new/message", "Inbox/new/message"):
            write(f"{ROOTS}/{name}", SECRET)
            os.chmod(f"{ROOTS}/{name}", 0o600)
        os.chmod(ROOTS, 0o700)

    def setUp(self):
        write("/tmp/entries", b"*@spam.test\n")
        write("/tmp/mbox", b"From ann@site.test Thu Jan  1 00:00:00 2015\nSubject: x\n\nx\n")
        self.restore()

    def restore(self):
        for name in os.listdir("/var/spool"):
            shutil.rmtree("/var/spool/" + name)
        for name in os.listdir(TEMPLATE):
            copy(f"{TEMPLATE}/{name}", "/var/spool")

    @staticmethod
    def outside(words):
        """All but the owner's home, which may be hidden. A partner whom the owner's lists name loses an entry with the
        mailbox."""
        domain = os.path.dirname(home())
        hidden = [f"{domain}/{name}" for name in os.listdir(domain) if name.startswith(".deleted.")]
        # A home that was renamed may hold a terabyte of holes as well.
        seen = everything("/var/spool", without=(home(), f"{domain}/away~site.test", *hidden))
        seen = {path: what for path, what in seen.items() if path not in hidden}
        seen = {path: what for path, what in seen.items() if not path.startswith(f"{domain}/away~")}
        if words[0] == "mailbox":
            del seen[home(BERT) + "/pref/bert~site.test.secondaryaddr"]
        seen = {path: what for path, what in seen.items()
                if not (words[0] in ("usage", "metrics") or "--all" in words) or home(BERT) not in path}
        return {path: what for path, what in seen.items() if not path.endswith((".lock", "/."))}

    def survive(self, words, seconds=20):
        shutil.rmtree("/tmp/exported", ignore_errors=True)
        before, begun = self.outside(words), time.monotonic()
        done = tsmail("--timeout", "2", *words, stdin=SERVED.get(words[0], b"Subject: x\n\nx\n"))
        self.assertIn(done.code, CODES, (words, done))
        self.assertLess(time.monotonic() - begun, seconds, words)
        self.assertEqual(self.outside(words), before, (words, done))
        exported = "".join(content(path).decode("latin-1") for path in glob.glob("/tmp/exported/**", recursive=True)
                           if os.path.isfile(path))
        for secret in (SECRET, BERTS):
            self.assertNotIn(secret.decode().strip(), done.out + done.err + exported, words)
        self.assertNotRegex(done.err, "internal error|exit code 7[0-2]", words)
        return done

    def survive_all(self, attack, verbs=VERBS, **options):
        for words in verbs:
            with self.subTest(words=words):
                self.restore()
                attack()
                self.survive(words, **options)


class TwinTest(VerbsCase):
    def test_every_verb_works(self):
        allowed = {("usage",): (0, 1), ("usage", "--verify"): (0, 1), ("doctor", ANN): (0, 1)}
        for words in VERBS:
            with self.subTest(words=words):
                self.restore()
                done = self.survive(words)
                self.assertIn(done.code, allowed.get(words, (0,)))
                self.assertEqual(done.out.count("250 2.0.0 Saved"), 2 if words == ("lmtp",) else 0)
                for path, (user, group, _, _) in everything(home() if os.path.exists(home()) else home(BERT)).items():
                    self.assertIn((user, group), ((USERS[ANN],) * 2, (USERS[BERT],) * 2), (words, path))

    def test_a_store_that_one_user_owns(self):
        for words in VERBS:
            with self.subTest(words=words):
                self.restore()
                give("/var/spool/home", MAILMAN)
                self.assertIn(self.survive(words).code, (0, 1))
                for path, (user, _, _, _) in everything("/var/spool/home").items():
                    self.assertEqual(user, MAILMAN, (words, path))

    def test_roots_own(self):
        for words in VERBS:
            with self.subTest(words=words):
                self.restore()
                give("/var/spool/home", 0)
                self.assertIn(self.survive(words).code, (0, 1))


class FilesTest(VerbsCase):
    """Each name that the store knows for a file is taken by something else."""

    def at_every_file(self, put):
        def attack():
            for name in FILES:
                path = f"{home()}/{name}"
                if os.path.lexists(path):
                    os.unlink(path)
                put(path)
                os.lchown(path, USERS[ANN], USERS[ANN])
        return attack

    def test_links_to_roots_file(self):
        self.survive_all(self.at_every_file(lambda path: os.symlink(ROOTS + "/file", path)))

    def test_links_to_another_users_file(self):
        self.survive_all(self.at_every_file(
            lambda path: os.symlink(home(BERT) + "/pref/bert~site.test.secondaryaddr", path)))

    def test_links_to_a_missing_file_elsewhere(self):
        self.survive_all(self.at_every_file(lambda path: os.symlink(ROOTS + "/none", path)))

    def test_links_to_themselves(self):
        self.survive_all(self.at_every_file(lambda path: os.symlink(os.path.basename(path), path)))

    def test_links_to_endless_devices(self):
        self.survive_all(self.at_every_file(lambda path: os.symlink("/dev/zero", path)))

    def test_links_to_the_terminal_and_standard_streams(self):
        targets = itertools.cycle(("/dev/tty", "/proc/self/fd/0", "/proc/self/fd/3", "/proc/self/mem"))
        self.survive_all(self.at_every_file(lambda path: os.symlink(next(targets), path)))

    def test_hard_links_to_roots_file(self):
        """As if the kernel did not protect hard links."""
        def attack():
            for name in FILES:
                path = f"{home()}/{name}"
                if os.path.lexists(path):
                    os.unlink(path)
                os.link(ROOTS + "/file", path)
        before = everything(ROOTS)
        self.survive_all(attack)
        self.assertEqual(everything(ROOTS).keys(), before.keys())

    def test_fifos(self):
        self.survive_all(self.at_every_file(os.mkfifo))

    def test_directories(self):
        self.survive_all(self.at_every_file(os.mkdir))

    def test_directories_with_something_in_them(self):
        def put(path):
            os.mkdir(path)
            write(path + "/x", b"x")
        self.survive_all(self.at_every_file(put))

    def test_sockets(self):
        def put(path):
            with socket.socket(socket.AF_UNIX) as server:
                os.chdir(os.path.dirname(path))
                server.bind(os.path.basename(path))
                os.chdir("/")
        self.survive_all(self.at_every_file(put))

    def test_a_terabyte_of_holes(self):
        def put(path):
            write(path, b"1 1\n")
            os.truncate(path, 1 << 40)
        self.survive_all(self.at_every_file(put))

    def test_noise(self):
        noise = bytes(range(256)) * 64
        self.survive_all(self.at_every_file(lambda path: write(path, noise)))

    def test_one_line_of_a_megabyte(self):
        self.survive_all(self.at_every_file(lambda path: write(path, b"9" * (1 << 20))))

    def test_numbers_at_the_limit(self):
        self.survive_all(self.at_every_file(
            lambda path: write(path, b"9223372036854775807S, 9223372036854775807C\n9223372036854775807 1\n" * 3)))

    def test_files_without_rights(self):
        def put(path):
            write(path, b"1 1\n")
            os.chmod(path, 0)
        self.survive_all(self.at_every_file(put))

    def test_files_of_others(self):
        def attack():
            self.at_every_file(lambda path: write(path, b"1 1\n"))()
            for name in FILES:
                os.chown(f"{home()}/{name}", USERS[BERT], USERS[BERT])
        self.survive_all(attack)

    def test_set_user_id_files(self):
        def put(path):
            write(path, b"1 1\n")
            os.chmod(path, 0o6777)
        self.survive_all(self.at_every_file(put))


class DirectoriesTest(VerbsCase):
    """Something else takes the place of a directory."""

    def in_place_of(self, name, put):
        def attack():
            path = f"{home()}/{name}"
            os.rename(path, home() + "/other")
            put(path)
            os.lchown(path, USERS[ANN], USERS[ANN])
        return attack

    def each_directory(self, put):
        for name in DIRECTORIES:
            with self.subTest(directory=name):
                self.survive_all(self.in_place_of(name, put))

    def test_links_to_roots_directory(self):
        self.each_directory(lambda path: os.symlink(ROOTS, path))

    def test_links_to_another_users_mail(self):
        self.each_directory(lambda path: os.symlink(mail(BERT), path))

    def test_links_to_another_users_folder(self):
        self.each_directory(lambda path: os.symlink(mail(BERT) + "/Inbox", path))

    def test_links_to_another_users_preferences(self):
        self.each_directory(lambda path: os.symlink(home(BERT) + "/pref", path))

    def test_links_to_slash(self):
        self.survive_all(self.in_place_of("mail", lambda path: os.symlink("/etc", path)))

    def test_links_to_themselves(self):
        self.each_directory(lambda path: os.symlink(os.path.basename(path), path))

    def test_links_upwards(self):
        self.each_directory(lambda path: os.symlink("..", path))

    def test_files(self):
        self.each_directory(lambda path: write(path, b"x"))

    def test_fifos(self):
        self.each_directory(os.mkfifo)


class ModesTest(VerbsCase):
    def test_without_rights(self):
        for name in (".", *DIRECTORIES):
            for mode in (0, 0o111, 0o444, 0o555):
                with self.subTest(name=name, mode=mode):
                    verbs = VERBS if name in (".", "mail", "pref") else VERBS[:16]
                    self.survive_all(lambda n=name, m=mode: os.chmod(f"{home()}/{n}", m), verbs)

    def test_open_to_all_with_special_bits(self):
        def attack():
            for directory, _, _ in os.walk(home()):
                os.chmod(directory, 0o7777)
        self.survive_all(attack)

    def test_set_group_id_directories_of_roots_group(self):
        def attack():
            for directory, _, _ in os.walk(home()):
                os.chown(directory, USERS[ANN], 0)
                os.chmod(directory, 0o2770)
        self.survive_all(attack)

    def test_a_default_acl_for_somebody_else(self):
        """The partner decides who may read his list, and the list stays his."""
        rows = [(0x01, 7, 0xffffffff), (0x02, 7, MAILMAN), (0x04, 0, 0xffffffff), (0x10, 7, 0xffffffff),
                (0x20, 0, 0xffffffff)]
        acl = (2).to_bytes(4, "little") + b"".join(
            tag.to_bytes(2, "little") + rights.to_bytes(2, "little") + who.to_bytes(4, "little")
            for tag, rights, who in rows)
        try:
            os.setxattr(home() + "/pref", "system.posix_acl_default", acl)
        except OSError as error:
            self.assertEqual(error.errno, errno.EOPNOTSUPP)
            self.skipTest("the file system has no ACLs")
        listed = home(BERT) + "/pref/bert~site.test.secondaryaddr"
        os.setxattr(home(BERT) + "/pref", "system.posix_acl_default", acl)
        self.assertEqual(self.survive(("mailbox", "remove", ANN, "--yes")).code, 0)
        status = os.stat(listed)
        self.assertEqual((status.st_uid, status.st_gid), (USERS[BERT],) * 2)
        self.assertEqual(content(listed), BERTS)


class NamesTest(VerbsCase):
    def test_partners_that_lead_elsewhere(self):
        names = (b"x@../../../..", b"../../root", b"@", b"~", b"root@", b"a/b@site.test", b"x" * 300, b"\x00", b"\xff@\xff",
                 b"ann@site.test", b"%s%n@site.test")
        for own in ("primaryaddr", "secondaryaddr"):
            self.restore()
            path = f"{home()}/pref/ann~site.test.{own}"
            write(path, b"\n".join(names) + b"\n")
            os.chown(path, USERS[ANN], USERS[ANN])
            self.assertEqual(self.survive(("mailbox", "remove", ANN, "--yes")).code, 0)
            self.assertFalse(os.path.exists(home()))

    def test_a_hundred_thousand_partners(self):
        path = f"{home()}/pref/ann~site.test.primaryaddr"
        write(path, b"".join(b"u%d@site.test\n" % n for n in range(100000)))
        done = self.survive(("mailbox", "remove", ANN, "--yes"))
        self.assertIn("only the first lines", done.err)

    def test_names_that_act_on_a_terminal(self):
        def attack():
            for name in ("a\x1b[2Jb", "c\nd", "e\u202ef", "\udcff\udcfe"):
                for part in ("cur", "new", "tmp"):
                    os.makedirs(f"{mail(ANN)}/{name}/{part}")
                write(f"{mail(ANN)}/{name}/new/m\x1b]0;x\x07", b"x")
            give(mail(ANN), USERS[ANN])
        for words in VERBS:
            with self.subTest(words=words):
                self.restore()
                attack()
                done = self.survive(words)
                shown = done.out + done.err
                if words[0] in SERVED:  # their lines end as the protocols say
                    shown = shown.replace("\r\n", "\n")
                self.assertNotRegex(shown, "[\x00-\x09\x0b-\x1f\x7f\u202e]", words)

    def test_a_tag_that_leads_elsewhere(self):
        for tag in ("..", ".", "../../bert~site.test/mail/Inbox", "cur", "a//b", "\x1b[2J", "x" * 300, "~"):
            with self.subTest(tag=tag):
                self.restore()
                self.survive(("deliver", f"ann+{tag}@site.test"))

    def test_folders_in_folders(self):
        def attack():
            path = mail(ANN)
            for _ in range(60):
                path += "/deep"
                for part in ("cur", "new", "tmp"):
                    os.makedirs(f"{path}/{part}")
            os.symlink(mail(ANN), mail(ANN) + "/Work/loop")
            os.symlink("../..", mail(ANN) + "/Work/back")
            give(mail(ANN), USERS[ANN])
        self.survive_all(attack, seconds=40)


class StallTest(VerbsCase):
    """A lock is held for ever: a worker that waits for it is ended, but a message in new is delivered."""

    LOCKS = ("mail/.maildirsize", "mail/Inbox/.ts_folder_size", "mail/Inbox/.ts_cache", "quota_warning_flag",
             "pref/ann~site.test.pref", "pref/ann~site.test.whitelist")

    def held(self, name, words):
        self.restore()
        path = f"{home()}/{name}"
        if not os.path.exists(path):
            write(path, b"1 1\n")
            os.chown(path, USERS[ANN], USERS[ANN])
        with Lock(path):
            return self.survive(words, seconds=40)

    def test_files(self):
        for name, words in itertools.product(self.LOCKS, (
                ("recount", ANN), ("size", ANN), ("usage",), ("folders", ANN), ("doctor", ANN, "--repair"),
                ("pref", "set", ANN, "npage=30"), ("list", "add", ANN, "whitelist", "x@y"), ("quota", "show", ANN),
                ("message", "rm", ANN, "Inbox", "a"), ("rm", ANN, "Work"), ("tag", ANN))):
            with self.subTest(name=name, words=words):
                self.held(name, words)

    def test_a_delivery_that_passed(self):
        for name in ("mail/.maildirsize", "mail/Inbox/.ts_folder_size"):
            with self.subTest(name=name):
                done = self.held(name, ("deliver", ANN))
                self.assertEqual(done.code, 0, done)
                self.assertTrue(os.path.exists(done.lines[0]))
                self.assertIn("need a recount", done.err)
                self.assertTrue(os.path.exists(mail(ANN) + "/.maildirsize.dirty"))

    def test_a_delivery_that_waits_for_the_folder(self):
        with Lock(mail(ANN) + "/Inbox"):
            done = self.survive(("deliver", ANN))
        self.assertEqual(done.code, 75, done)
        self.assertEqual(os.listdir(mail(ANN) + "/Inbox/new"), ["a"])
        self.assertEqual(os.listdir(mail(ANN) + "/Inbox/tmp"), [])

    def test_a_lease(self):
        path = mail(ANN) + "/.maildirsize"
        write(path, b"1 1\n")
        os.chown(path, USERS[ANN], USERS[ANN])
        holder = subprocess.Popen([sys.executable, "-c", "import fcntl, os, signal, sys, time\n"
                                   "signal.signal(signal.SIGIO, signal.SIG_IGN)\n"
                                   "fd = os.open(sys.argv[1], os.O_RDWR)\n"
                                   "fcntl.fcntl(fd, fcntl.F_SETLEASE, fcntl.F_WRLCK)\n"
                                   "print('held', flush=True)\ntime.sleep(600)\n", path],
                                  user=USERS[ANN], group=USERS[ANN], extra_groups=[], stdout=subprocess.PIPE)
        self.addCleanup(holder.wait)
        self.addCleanup(holder.kill)
        self.addCleanup(holder.stdout.close)
        self.assertEqual(holder.stdout.readline(), b"held\n")
        for words in (("size", ANN), ("recount", ANN), ("deliver", ANN), ("usage",)):
            self.survive(words, seconds=40)


class ExchangeTest(VerbsCase):
    """A process of the owner replaces something by a link, and back, all the time."""

    SWAP = """import ctypes, sys
libc = ctypes.CDLL(None)
while True:
    libc.renameat2(-100, sys.argv[1].encode(), -100, sys.argv[2].encode(), 2)
"""
    CHANGING = (("recount", ANN), ("deliver", ANN), ("create", ANN, "--folder", "Extra"), ("doctor", ANN, "--repair"),
                ("rm", ANN, "Work", "--now"), ("message", "rm", ANN, "Inbox", "a"), ("tag", ANN),
                ("pref", "set", ANN, "npage=30"), ("list", "add", ANN, "whitelist", "x@y"),
                ("quota", "set", ANN, "warning"), ("restore", ANN, "Old"), ("sweep", ANN),
                ("expire", ANN, "--folder", "Inbox", "--older", "0s", "--by", "received"),
                ("mailbox", "rename", ANN, "away@site.test"), ("mailbox", "remove", ANN, "--yes"))

    def exchanged(self, name, target, words):
        self.restore()
        path, link = f"{home()}/{name}", home() + "/link"
        os.symlink(target, link)
        os.lchown(link, USERS[ANN], USERS[ANN])
        with subprocess.Popen([sys.executable, "-c", self.SWAP, path, link], user=USERS[ANN], group=USERS[ANN],
                              extra_groups=[]) as swapper:
            try:
                for _ in range(3):
                    before = self.outside(words)
                    done = tsmail("--timeout", "5", *words, stdin=b"x")
                    self.assertEqual(self.outside(words), before, (name, target, words, done))
            finally:
                swapper.kill()

    def test_links_to_roots_and_others(self):
        for name, target in itertools.product(("mail", "pref", "mail/Inbox", "mail/Inbox/new", "mail/Work"),
                                              (ROOTS, mail(BERT))):
            for words in self.CHANGING:
                with self.subTest(name=name, target=target, words=words):
                    self.exchanged(name, target, words)

    def test_exchanges_beside_delayed_calls(self):
        """Each system call on a path takes so long that an exchange happens meanwhile."""
        for name, words in itertools.product(("mail", "mail/Inbox"), self.CHANGING[:5]):
            with self.subTest(name=name, words=words):
                self.restore()
                os.symlink(ROOTS, home() + "/link")
                os.lchown(home() + "/link", USERS[ANN], USERS[ANN])
                before = self.outside(words)
                with subprocess.Popen([sys.executable, "-c", self.SWAP, f"{home()}/{name}", home() + "/link"],
                                      user=USERS[ANN], group=USERS[ANN], extra_groups=[]) as swapper:
                    try:
                        run(["strace", "-f", "-qq", "-o", "/dev/null", "-e",
                             "inject=openat,newfstatat,readlinkat,mkdirat,linkat,renameat2:delay_exit=3000",
                             TSMAIL, "--timeout", "5", *words], stdin=b"x",
                            env=environment(ASAN_OPTIONS="detect_leaks=0"))
                    finally:
                        swapper.kill()
                self.assertEqual(self.outside(words), before)

    def test_homes_exchanged_by_the_owner_of_the_domain(self):
        """The owner of the domain's directory can exchange homes. Only files of the named mailbox's owner change,
        whichever user that is at the moment."""
        domain = os.path.dirname(home())
        for words in self.CHANGING:
            with self.subTest(words=words):
                self.restore()
                os.chown(domain, MAILMAN, MAILMAN)
                os.symlink(ROOTS, domain + "/link")
                os.lchown(domain + "/link", MAILMAN, MAILMAN)
                before = everything(ROOTS)
                with subprocess.Popen([sys.executable, "-c", self.SWAP, home(), domain + "/link"], user=MAILMAN,
                                      group=MAILMAN, extra_groups=[]) as swapper:
                    try:
                        for _ in range(5):
                            tsmail("--timeout", "5", *words, stdin=b"x")
                            self.assertEqual(everything(ROOTS), before, words)
                    finally:
                        swapper.kill()


class HiddenTest(VerbsCase):
    """The owner of a hidden home goes on to change it, and so does the owner of the domain."""

    WORDS = (("mailbox", "restore", ANN), ("mailbox", "restore", ANN, "--dry-run"), ("sweep", ANN), ("sweep", "--all"))

    def hide(self):
        self.restore()
        self.assertEqual(tsmail("mailbox", "remove", ANN, "--yes").code, 0)
        domain = os.path.dirname(home())
        [hidden] = [f"{domain}/{name}" for name in os.listdir(domain)
                    if name.startswith(".deleted.") and not name.endswith(".partners")]
        return domain, hidden

    def harmless(self, domain, hidden, words):
        def others():
            return {path: what for path, what in everything("/var/spool", without=(home(), hidden)).items()
                    if "/.deleted." not in path}
        theirs = home(BERT) + "/pref/bert~site.test.secondaryaddr"
        before, entered = others(), content(theirs)
        done = tsmail("--timeout", "5", *words)
        after = others()
        self.assertIn(done.code, CODES, (words, done))
        for seen in (before, after):  # a restore enters the partner again
            seen.pop(theirs)
        self.assertEqual({path: what for path, what in after.items() if not path.endswith((".lock", "/."))},
                         {path: what for path, what in before.items() if not path.endswith((".lock", "/."))}, words)
        self.assertIn(content(theirs), (entered, entered + b"ann@site.test\n"))
        return done

    def test_twin(self):
        for words in self.WORDS:
            with self.subTest(words=words):
                self.assertEqual(self.harmless(*self.hide(), words).code, 0)

    def test_what_is_in_it(self):
        puts = (lambda path: os.symlink(ROOTS, path), lambda path: os.symlink(home(BERT), path), os.mkfifo,
                lambda path: os.symlink("/dev/zero", path))
        for words, put in itertools.product(self.WORDS, puts):
            with self.subTest(words=words):
                domain, hidden = self.hide()
                for name in ("mail", "pref"):
                    shutil.rmtree(f"{hidden}/{name}")
                    put(f"{hidden}/{name}")
                    os.lchown(f"{hidden}/{name}", USERS[ANN], USERS[ANN])
                self.harmless(domain, hidden, words)

    def test_exchanged_by_the_owner_of_the_domain(self):
        for words, target in itertools.product(self.WORDS, (ROOTS, home(BERT))):
            with self.subTest(words=words, target=target):
                domain, hidden = self.hide()
                os.chown(domain, MAILMAN, MAILMAN)
                os.symlink(target, domain + "/link")
                os.lchown(domain + "/link", MAILMAN, MAILMAN)
                before = everything(ROOTS)
                with subprocess.Popen([sys.executable, "-c", ExchangeTest.SWAP, hidden, domain + "/link"], user=MAILMAN,
                                      group=MAILMAN, extra_groups=[]) as swapper:
                    try:
                        tsmail("--timeout", "5", *words)
                    finally:
                        swapper.kill()
                self.assertEqual(everything(ROOTS), before)

    def test_a_record_that_is_no_file(self):
        for words, put in itertools.product(self.WORDS[:1], (os.mkfifo, os.mkdir,
                                                             lambda path: os.symlink(ROOTS + "/file", path))):
            domain, hidden = self.hide()
            os.unlink(hidden + ".partners")
            put(hidden + ".partners")
            done = self.harmless(domain, hidden, words)
            self.assertEqual(done.code, 0, done)
            self.assertNotIn("precious", done.out + done.err)


class ListsTest(VerbsCase):
    """Lists of a directory below the homes: the worker runs as the directory's owner."""

    TOP = "/var/spool/home/lists"

    def run_each(self, answer):
        for words in (("add", "lists", "white", "x@y"), ("remove", "lists", "white", "a@b"),
                      ("replace", "lists", "white", "1", "c@d"), ("show", "lists", "white")):
            self.restore()
            os.mkdir(self.TOP)
            write(self.TOP + "/lists.white", b"a@b\n")
            answer("list", *words, "--scope", "home")

    def test_twin(self):
        def answer(*words):
            give(self.TOP, USERS[ANN])
            self.assertEqual(tsmail(*words).code, 0, words)
            for path, (user, _, _, _) in everything(self.TOP).items():
                self.assertEqual(user, USERS[ANN], (words, path))
        self.run_each(answer)

    def test_links_to_roots_file(self):
        def answer(*words):
            before = everything(ROOTS)
            for name in (".lists.white.lock", ".lists.white.tmp", "lists.white"):
                if os.path.exists(f"{self.TOP}/{name}"):
                    os.unlink(f"{self.TOP}/{name}")
                os.symlink(ROOTS + "/file", f"{self.TOP}/{name}")
            give(self.TOP, USERS[ANN])
            done = tsmail(*words)
            self.assertIn(done.code, CODES, words)
            self.assertNotIn("precious", done.out + done.err)
            self.assertEqual(everything(ROOTS), before, words)
        self.run_each(answer)

    def test_a_directory_that_is_a_users_link(self):
        def answer(*words):
            os.rename(self.TOP, ROOTS + "/lists")
            os.symlink(ROOTS + "/lists", self.TOP)
            os.lchown(self.TOP, USERS[ANN], USERS[ANN])
            before = everything(ROOTS)
            self.assertIn(tsmail(*words).code, (66, 73), words)
            self.assertEqual(everything(ROOTS), before, words)
        self.run_each(answer)

    def test_a_directory_of_roots_that_others_can_write_to(self):
        def answer(*words):
            os.chmod(self.TOP, 0o777)
            self.assertIn(tsmail(*words).code, (66, 73), words)
        self.run_each(answer)


class DomainTest(VerbsCase):
    """The owner of a domain's directory may link homes, but root does not work where such a link leads to
    root's directories."""

    def linked(self, target, owner):
        domain = os.path.dirname(home())
        os.chown(domain, MAILMAN, MAILMAN)
        os.rename(home(), "/var/spool/elsewhere")
        os.symlink(target, home())
        os.lchown(home(), owner, owner)

    def test_twin(self):
        for owner in (0, MAILMAN):
            self.restore()
            self.linked("/var/spool/elsewhere", owner)
            for words in (("recount", ANN), ("deliver", ANN), ("create", ANN, "--folder", "Extra"), ("size", ANN)):
                self.assertEqual(tsmail(*words, stdin=b"x").code, 0, words)

    def test_a_link_to_roots_directory(self):
        for owner, target in itertools.product((0, MAILMAN), (ROOTS, "../../root", "/var/spool/root/.")):
            self.restore()
            self.linked(target, owner)
            os.mkdir(ROOTS + "/mail")
            before = everything(ROOTS)
            for words in VERBS:
                if words[0] in ("usage", "metrics", *SERVED) or "--all" in words or "--spool" in words:
                    continue
                done = tsmail("--timeout", "2", *words, stdin=b"x")
                self.assertIn(done.code, (66, 73, 75), (words, done))
                self.assertEqual(everything(ROOTS), before, (words, target))


class CreateTest(VerbsCase):
    """A home is made below a domain whose directory another user owns."""

    def test_an_exchange_while_a_home_is_given_away(self):
        """The domain's owner replaces the new directories by links and other directories."""
        domain = "/var/spool/home/new.test"
        script = """import ctypes, os, sys
libc = ctypes.CDLL(None)
os.chdir(sys.argv[1])
while True:
    for name in os.listdir("."):
        if name.startswith(".eve"):
            libc.renameat2(-100, name.encode(), -100, b"bait", 2)
"""
        for bait in ("link", "directory"):
            self.restore()
            os.mkdir(domain)
            if bait == "link":
                os.symlink(ROOTS, domain + "/bait")
            else:
                os.mkdir(domain + "/bait")
            give(domain, MAILMAN)
            before = everything(ROOTS)
            with subprocess.Popen([sys.executable, "-c", script, domain], user=MAILMAN, group=MAILMAN,
                                  extra_groups=[]) as swapper:
                try:
                    for n in range(60):
                        done = tsmail("create", f"eve{n}@new.test", "--owner", "20005:20005")
                        self.assertIn(done.code, (0, 73, 75), done)
                        self.assertEqual(everything(ROOTS), before)
                finally:
                    swapper.kill()

    def test_killed_at_each_call(self):
        """At most an empty directory with a hidden name is left. A home that is there has its owner, and the same
        command completes it."""
        words = [TSMAIL, "create", "eve@site.test", "--owner", "20005:20005"]
        domain, target = os.path.dirname(home()), home("eve@site.test")
        _, calls = traced_parent([], words)
        ended = 0
        rows = [row for row in from_the_first_in_the_spool(calls) if row[0] != "exit_group"]
        for name, n, _ in rows[::STEP]:
            with self.subTest(call=name, n=n):
                self.restore()
                done, _ = traced_parent(killed(name, n), words)
                ended += done.code == -9
                for left in set(os.listdir(domain)) - {os.path.basename(home(user)) for user in USERS}:
                    if left == os.path.basename(target):
                        self.assertEqual(os.stat(target).st_uid, 20005)
                    else:
                        self.assertTrue(left.startswith(".eve~site.test."), left)
                        self.assertEqual(os.listdir(f"{domain}/{left}"), [])
                self.assertEqual(tsmail(*words[1:]).code, 0)
                self.assertEqual({row[:2] for row in everything(target).values()}, {(20005, 20005)})
        self.assertGreater(ended, 20 // STEP)

    def test_create_where_something_stands(self):
        target = home("eve@site.test")
        for put in (lambda: os.symlink(ROOTS, target), lambda: write(target, b"x"), lambda: os.mkfifo(target)):
            self.restore()
            put()
            os.lchown(target, USERS[BERT], USERS[BERT])
            before = everything(ROOTS)
            for words in (("create", "eve@site.test"), ("deliver", "eve@site.test", "--create"),
                          ("create", "eve@site.test", "--owner", "20001:20001")):
                done = tsmail(*words, stdin=b"x")
                self.assertIn(done.code, (67, 73, 75), done)
                self.assertEqual(everything(ROOTS), before)


class LimitsTest(VerbsCase):
    def test_a_record_of_64_mebibytes(self):
        """It is read in bounded memory, by a worker whose memory is limited."""
        write(mail(ANN) + "/.maildirsize", b"1 1\n" * (16 << 20))
        os.chown(mail(ANN) + "/.maildirsize", USERS[ANN], USERS[ANN])
        for words in (("size", ANN), ("recount", ANN), ("usage",), ("deliver", ANN)):
            self.survive(words, seconds=60)


if __name__ == "__main__":
    if os.geteuid() != 0:
        print("skipped: only root can be somebody else", file=sys.stderr)
        sys.exit(77)
    unittest.main()
