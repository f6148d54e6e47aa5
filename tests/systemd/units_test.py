"""The units as systemd reads them, what they run, and the entries for the mail user."""

import fcntl
import os
import pathlib
import re
import shlex
import subprocess
import time
import unittest

from testing.schemas import grammar, verb_of
from testing.toolkit import (BUILD, NOBODY, SANITIZED, SOURCE, TSMAIL, SpoolCase, is_marked, mailbox_record,
                             own_by_nobody, run)

UNITS = pathlib.Path(BUILD, "systemd")
SYSTEMD = pathlib.Path(SOURCE, "systemd")
SERVICES = sorted(UNITS.glob("*.service"))
TIMERS = sorted(SYSTEMD.glob("*.timer"))
SOCKETS = sorted(SYSTEMD.glob("*.socket"))
EXPOSURE = 3
TEN_MINUTES = 600
DAY = 86400


def settings(path):
    """{name: the values given to it} of a unit."""
    found = {}
    for line in path.read_text(encoding="utf-8").splitlines():
        if match := re.match(r"(\w+)=(.*)", line):
            found.setdefault(match.group(1), []).append(match.group(2))
    return found


def command_of(service):
    """The words of a service's command line."""
    [line] = settings(service)["ExecStart"]
    return shlex.split(line)


def calls_in(group):
    """The system calls in one of systemd's groups."""
    code, shown = output_of("systemd-analyze", "syscall-filter", "--no-pager", group)
    assert code == 0, shown
    words = [line.strip() for line in shown.splitlines()[1:] if line.startswith("    ") and "#" not in line]
    return set().union(*(calls_in(word) if word.startswith("@") else {word} for word in words))


def allowed_calls(service):
    """The system calls that a service's filter lets through."""
    allow, deny = settings(service)["SystemCallFilter"]
    assert not allow.startswith("~") and deny.startswith("~"), (allow, deny)
    allowed = set().union(*map(calls_in, allow.split()))
    return allowed - set().union(*map(calls_in, deny[1:].split()))


def later(seconds):
    """What is put before a command whose clock goes that many seconds fast."""
    return ("env", "LD_PRELOAD=later.so", f"LD_LIBRARY_PATH={BUILD}/tests/systemd", f"LATER_SECONDS={seconds}",
            "ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=0")


def output_of(*words):
    done = subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    return done.returncode, done.stdout


class UnitsTest(unittest.TestCase):
    def test_each_socket_and_timer_has_its_service(self):
        self.assertEqual([s.stem for s in SERVICES], ["tsmail-lmtp", "tsmail-policy", "tsmail-recount", "tsmail-sweep"])
        self.assertEqual([t.stem for t in [*SOCKETS, *TIMERS]], [s.stem for s in SERVICES])

    def test_systemd_reads_them_without_a_word(self):
        os.makedirs("/tmp/units")
        for unit in [*SERVICES, *SOCKETS, *TIMERS]:
            text = re.sub(r"(?m)^ExecStart=\S+/tsmail ", f'ExecStart="{TSMAIL}" ', unit.read_text(encoding="utf-8"))
            pathlib.Path("/tmp/units", unit.name).write_text(text, encoding="utf-8")
        code, shown = output_of("systemd-analyze", "verify", "--man=no", "--recursive-errors=no",
                                *(f"/tmp/units/{u.name}" for u in [*SERVICES, *SOCKETS, *TIMERS]))
        self.assertEqual((code, [line for line in shown.splitlines() if "tsmail" in line]), (0, []), shown)

    def test_they_are_hardened(self):
        for service in SERVICES:
            code, shown = output_of("systemd-analyze", "security", "--offline=yes", "--no-pager",
                                    f"--threshold={EXPOSURE * 10 - 1}", service)
            self.assertEqual(code, 0, shown)
            level = float(re.search(r"Overall exposure level.*: ([\d.]+)", shown).group(1))
            self.assertLess(level, EXPOSURE, shown)

    def test_how_often(self):
        for timer, seconds in zip(TIMERS, (TEN_MINUTES, DAY)):
            [calendar] = settings(timer)["OnCalendar"]
            code, shown = output_of("systemd-analyze", "calendar", "--iterations=2", "--base-time=2026-11-01", calendar)
            self.assertEqual(code, 0, shown)
            times = re.findall(r"(?:Next elapse|Iter(?:\.|ation) #2): \w+ (\S+ \S+)", shown)
            stamps = [int(output_of("date", "-u", "-d", time, "+%s")[1]) for time in times]
            self.assertEqual(stamps[1] - stamps[0], seconds, shown)

    def test_the_pages_that_they_name_are_there(self):
        for unit in [*SERVICES, *SOCKETS, *TIMERS]:
            for page in settings(unit)["Documentation"]:
                name = re.fullmatch(r"man:(\S+)\(1\)", page).group(1)
                self.assertTrue(os.path.exists(f"{BUILD}/docs/man/man1/{name}.1"), page)


class CommandsTest(SpoolCase):
    """What the services run, with the rights that they leave."""

    def test_their_words_are_in_the_grammar(self):
        verbs = {verb["name"]: verb for verb in grammar()["verbs"]}
        for service in SERVICES:
            words = command_of(service)[1:]
            verb = verbs[verb_of(words)]
            options = {name for option in verb["options"] for name in option["names"]}
            self.assertLessEqual({word for word in words if word.startswith("-")}, options)

    def test_they_run_on_an_empty_store(self):
        os.makedirs("/var/spool/home")
        for service in SERVICES:
            done = run([TSMAIL, *command_of(service)[1:]])
            self.assertEqual((done.code, done.err), (0, ""), done)

    @unittest.skipUnless(os.geteuid() == 0, "only root has capabilities to give up")
    def test_their_rights_are_enough_for_mail_that_arrives(self):
        address = self.mailbox_of_nobody()
        talk = f"LHLO c\r\nMAIL FROM:<>\r\nRCPT TO:<{address}>\r\nDATA\r\n" + "x" * 11_000_000 + "\r\n.\r\n"
        before = ("strace", "-f", "-qq", "-o", "/tmp/calls") if not SANITIZED else ()
        done = self.limited(UNITS / "tsmail-lmtp.service", before=before, stdin=talk.encode())
        self.assertRegex(done.out, r"\n250 2\.0\.0 Saved as \S+\r\n$", done)
        self.assertEqual(mailbox_record(address)[1], 2)
        if not SANITIZED:
            calls = set(re.findall(r"(?m)^\d+ +(\w+)\(", pathlib.Path("/tmp/calls").read_text(encoding="utf-8")))
            self.assertLessEqual({"memfd_create", "sendfile"}, calls)  # in memory, and moved to the disk
            self.assertEqual(calls - allowed_calls(UNITS / "tsmail-lmtp.service"), set())

    @unittest.skipUnless(os.geteuid() == 0, "only root has capabilities to give up")
    def test_their_rights_are_enough_for_questions(self):
        address = self.mailbox_of_nobody()
        question = f"request=smtpd_access_policy\nrecipient={address}\n\n".encode()
        service = UNITS / "tsmail-policy.service"
        self.assertEqual(self.limited(service, stdin=question).out, "action=DUNNO\n\n")
        self.succeed("quota", "set", address, "exceeded")
        self.assertRegex(self.limited(service, stdin=question).out, r"^action=452 4\.2\.2 .*full\n\n$")

    def limited(self, service, *more, before=(), **options):
        """Runs the command with no other capabilities than the service has."""
        [capabilities] = settings(service)["CapabilityBoundingSet"]
        kept = ",".join("+" + name.removeprefix("CAP_").lower() for name in capabilities.split())
        return run([*before, "setpriv", "--bounding-set", f"-all,{kept}", "--inh-caps=-all", "--no-new-privs",
                    TSMAIL, *command_of(service)[1:], *more], **options)

    def mailbox_of_nobody(self):
        address = "ann@site.test"
        self.succeed("create", address, "--folder", "Work")
        self.succeed("deliver", address, stdin=b"x" * 100)
        own_by_nobody("/var/spool/home/site.test/ann~site.test")
        os.chmod("/var/spool/home/site.test/ann~site.test", 0o700)
        return address

    @unittest.skipUnless(os.geteuid() == 0, "only root has capabilities to give up")
    def test_their_rights_are_enough_for_a_recount(self):
        address = self.mailbox_of_nobody()
        mail = "/var/spool/home/site.test/ann~site.test/mail"
        with open(f"{mail}/.maildirsize", "w", encoding="ascii") as file:
            file.write("7 7\n")
        pathlib.Path(f"{mail}/.maildirsize.dirty").touch()
        own_by_nobody(mail)
        done = self.limited(UNITS / "tsmail-recount.service")
        self.assertEqual((done.code, done.err), (0, ""), done)
        self.assertFalse(is_marked(address))
        self.assertEqual(mailbox_record(address), (100, 1))
        self.assertEqual(os.stat(f"{mail}/.maildirsize").st_uid, NOBODY)

    @unittest.skipUnless(os.geteuid() == 0, "only root has capabilities to give up")
    def test_their_rights_are_enough_for_a_sweep(self):
        address = self.mailbox_of_nobody()
        self.succeed("rm", address, "Work")
        home = pathlib.Path("/var/spool/home/site.test/ann~site.test")
        for seconds, left in ((7 * DAY - 60, 1), (7 * DAY + 60, 0)):
            done = self.limited(UNITS / "tsmail-sweep.service", before=later(seconds))
            self.assertEqual((done.code, done.err), (0, ""), done)
            self.assertEqual(len(list(home.rglob(".deleted.*"))), left, seconds)

    @unittest.skipUnless(os.geteuid() == 0, "only root has capabilities to give up")
    def test_a_worker_that_takes_too_long_is_ended(self):
        self.mailbox_of_nobody()
        mail = "/var/spool/home/site.test/ann~site.test/mail"
        pathlib.Path(f"{mail}/.maildirsize.dirty").touch()
        with open(f"{mail}/.maildirsize", encoding="ascii") as file:
            fcntl.flock(file, fcntl.LOCK_EX)
            begin = time.monotonic()
            done = self.limited(UNITS / "tsmail-recount.service", "--timeout", "1", before=("timeout", "-s", "KILL", "20"))
        self.assertLess(time.monotonic() - begin, 15)
        self.assertIn("it took longer than 1 second", done.err)

    @unittest.skipUnless(os.geteuid() == 0, "only root has capabilities to give up")
    @unittest.skipIf(SANITIZED, "a sanitizer makes system calls of its own")
    def test_their_system_calls_are_allowed(self):
        self.mailbox_of_nobody()
        mail = "/var/spool/home/site.test/ann~site.test/mail"
        allowed = allowed_calls(UNITS / "tsmail-recount.service")
        for service in SERVICES:
            pathlib.Path(f"{mail}/.maildirsize.dirty").touch()
            done = self.limited(service, before=("strace", "-f", "-qq", "-o", "/tmp/calls"))
            self.assertEqual((done.code, done.err), (0, ""), done)
            calls = set(re.findall(r"(?m)^\d+ +(\w+)\(", pathlib.Path("/tmp/calls").read_text(encoding="utf-8")))
            self.assertIn("setresuid", calls)
            self.assertEqual(calls - allowed, set())


class MailUserTest(unittest.TestCase):
    ROOT = "/tmp/root"

    def setUp(self):
        for name in ("etc", "var/spool", "usr/lib"):
            os.makedirs(f"{self.ROOT}/{name}", exist_ok=True)
        code, shown = output_of("systemd-sysusers", f"--root={self.ROOT}", SYSTEMD / "tsmail.sysusers")
        self.assertEqual(code, 0, shown)

    def account(self):
        with open(f"{self.ROOT}/etc/passwd", encoding="utf-8") as file:
            return next(line.rstrip("\n").split(":") for line in file if line.startswith("tsmail:"))

    def test_the_user_is_one_of_the_system_and_cannot_log_in(self):
        _, _, user, _, _, home, shell = self.account()
        self.assertLess(int(user), 1000)
        self.assertEqual((home, shell), ("/var/spool/home", "/usr/sbin/nologin"))

    @unittest.skipUnless(os.geteuid() == 0, "only root gives directories to others")
    def test_the_directories(self):
        code, shown = output_of("systemd-tmpfiles", "--create", f"--root={self.ROOT}", SYSTEMD / "tsmail.tmpfiles")
        self.assertEqual(code, 0, shown)
        user = int(self.account()[2])
        for path, owner in (("home", user), ("etc", 0), ("etc/mail", 0)):
            status = os.stat(f"{self.ROOT}/var/spool/{path}")
            self.assertEqual((status.st_uid, status.st_mode & 0o7777), (owner, 0o755), path)


if __name__ == "__main__":
    unittest.main()
