"""Failing and interrupted system calls under the quota functions, injected with strace."""
import os
import pathlib
import struct
import subprocess
import time
import unittest

DRIVER = pathlib.Path(os.environ["TSMAIL_BUILD"], "tests/quota/quota_driver")
USER = "ann@site.test"
HOME = pathlib.Path("/var/spool/home/site.test/ann~site.test")
WARNING = HOME / "quota_warning_flag"
EXCEEDED = HOME / "quota_exceeded_flag"
STAMP = HOME / ".alert_notification"
DAY = 86400

# Names of one call on different machines.
CALLS = {
    "clone": "?clone,?clone3,?fork,?vfork",
    "access": "?access,?faccessat,?faccessat2",
    "stat": "?stat,?newfstatat,?statx",
    "unlink": "?unlink,?unlinkat",
}


def start(*args, inject=None, path=None):
    """Starts the driver. inject is (call, fault), for calls on this path only."""
    command = [str(DRIVER), *args]
    log = f"/tmp/strace.{os.getpid()}.{len(os.listdir('/tmp'))}"
    if inject:
        call, fault = inject
        names = CALLS.get(call, call)
        command = ["strace", "-o", log, *(("-P", str(path)) if path else ()),
                   "-e", f"trace={names}", "-e", f"inject={names}:{fault}", *command]
    # The leak checker does not work under strace.
    environment = dict(os.environ, ASAN_OPTIONS="detect_leaks=0")
    process = subprocess.Popen(command, stdout=subprocess.PIPE, text=True, env=environment)
    process.log = log
    return process


def finish(test, process, injected):
    out, _ = process.communicate(timeout=20)
    test.assertEqual(process.returncode, 0)
    if injected:
        log = pathlib.Path(process.log).read_text()
        test.assertIn(injected, log, "the fault was not injected")
    return int(out)


def run(test, *args, inject=None, path=None):
    return finish(test, start(*args, inject=inject, path=path), "(INJECTED" if inject else None)


class FlagFaultsTest(unittest.TestCase):
    def setUp(self):
        HOME.mkdir(parents=True, exist_ok=True)
        for file in HOME.iterdir():
            file.unlink()
        WARNING.write_text("2")

    def test_an_interrupted_call_is_made_again(self):
        for call in ("openat", "pwrite64"):
            with self.subTest(call):
                run(self, "set-warning", USER, "345", inject=(call, "error=EINTR:when=1"),
                    path=WARNING)
                self.assertEqual(WARNING.read_text(), "345")
        for call in ("openat", "read"):
            with self.subTest(call):
                value = run(self, "get-warning", USER, inject=(call, "error=EINTR:when=1"),
                            path=WARNING)
                self.assertEqual(value, 345)
        EXCEEDED.touch()
        self.assertEqual(run(self, "is-exceeded", USER, inject=("access", "error=EINTR:when=1"),
                             path=EXCEEDED), 1)
        run(self, "mark-exceeded", USER, "0", inject=("unlink", "error=EINTR:when=1"),
            path=EXCEEDED)
        self.assertFalse(EXCEEDED.exists())

    def test_what_cannot_be_opened_stays(self):
        for error in ("ENOSPC", "EACCES", "EMFILE", "EROFS", "EIO"):
            with self.subTest(error):
                run(self, "set-warning", USER, "5", inject=("openat", f"error={error}"),
                    path=WARNING)
                self.assertEqual(WARNING.read_text(), "2")
                run(self, "mark-exceeded", USER, "1", inject=("openat", f"error={error}"),
                    path=EXCEEDED)
                self.assertFalse(EXCEEDED.exists())

    def test_what_cannot_be_removed_stays(self):
        EXCEEDED.write_text("1")
        run(self, "mark-exceeded", USER, "0", inject=("unlink", "error=EIO"),
            path=EXCEEDED)
        self.assertEqual(EXCEEDED.read_text(), "1")

    def test_a_full_disk_leaves_the_file_empty(self):
        run(self, "set-warning", USER, "5", inject=("pwrite64", "error=ENOSPC"), path=WARNING)
        self.assertEqual(WARNING.read_text(), "")
        self.assertEqual(run(self, "get-warning", USER), 0)

    def test_a_read_error_is_no_number(self):
        WARNING.write_text(" " * 255 + "12")
        self.assertEqual(run(self, "get-warning", USER), 12)
        for nth in (1, 2, 3):
            with self.subTest(nth=nth):
                value = run(self, "get-warning", USER,
                            inject=("read", f"error=EIO:when={nth}"), path=WARNING)
                self.assertEqual(value, 0)

    def overlap(self, slow, quick, delay):
        """Sets `quick` while the setter of `slow` has emptied the file and waits before its write.
        False if the slow one did not wait long enough."""
        WARNING.write_text("999999")
        waiting = start("set-warning", USER, slow,
                        inject=("pwrite64", f"delay_enter={delay}:when=1"), path=WARNING)
        while WARNING.stat().st_size > 0 and waiting.poll() is None:
            time.sleep(0.01)
        run(self, "set-warning", USER, quick)
        between = WARNING.read_text()
        overlapped = waiting.poll() is None
        finish(self, waiting, "(DELAYED)")
        self.assertTrue(not overlapped or between == quick, between)
        self.assertTrue(not overlapped or WARNING.read_text() == slow, WARNING.read_text())
        return overlapped

    def test_of_two_setters_the_last_ones_number_stays_whole(self):
        for slow, quick in (("7", "12345"), ("12345", "7"), ("-8", "12345")):
            with self.subTest(slow=slow, quick=quick):
                # A busy machine may need more than the first wait.
                self.assertTrue(any(self.overlap(slow, quick, delay)
                                    for delay in (400000, 3000000, 10000000)))


class StampFaultsTest(unittest.TestCase):
    def setUp(self):
        HOME.mkdir(parents=True, exist_ok=True)
        STAMP.write_text("text")

    def test_an_interrupted_look_is_repeated(self):
        self.assertEqual(run(self, "due", USER, inject=("stat", "error=EINTR:when=1"),
                             path=STAMP), 0)
        self.assertEqual(STAMP.read_text(), "text")

    def test_an_interrupted_renewal_is_repeated(self):
        os.utime(STAMP, (1000, 1000))
        self.assertEqual(run(self, "due", USER, inject=("openat", "error=EINTR:when=1"),
                             path=STAMP), 1)
        self.assertEqual(STAMP.read_text(), "")
        self.assertEqual(run(self, "due", USER), 0)

    def test_a_stamp_that_cannot_be_looked_at_is_made_anew(self):
        self.assertEqual(run(self, "due", USER, inject=("stat", "error=EIO"), path=STAMP), 1)
        self.assertEqual(STAMP.read_text(), "")

    def test_a_stamp_that_cannot_be_opened_leaves_the_notice_due(self):
        os.utime(STAMP, (1000, 1000))
        for error in ("ENOSPC", "EACCES", "EMFILE", "EROFS", "EIO"):
            with self.subTest(error):
                self.assertEqual(run(self, "due", USER, inject=("openat", f"error={error}"),
                                     path=STAMP), 1)
                self.assertEqual(STAMP.stat().st_mtime, 1000)


class NoticeFaultsTest(unittest.TestCase):
    MESSAGE = ("From:a\nTo:b\nSubject:s\nX-Tessaly-Quota: 1\nPrecedence: bulk\n\n"
               + "x" * 100000 + "\n.\n")
    SENT = pathlib.Path("/tmp/sent")

    def setUp(self):
        self.program("#!/bin/sh\nexec cat >/tmp/sent\n")
        self.SENT.unlink(missing_ok=True)

    @staticmethod
    def program(script):
        program = pathlib.Path("/bin/sendmail")
        program.write_text(script)
        program.chmod(0o755)

    def send(self, inject=None):
        return run(self, "notice", "a", "b", "s", "x" * 100000, inject=inject)

    def test_nothing_is_started_without_a_pipe_or_a_process(self):
        for call, error in (("pipe2", "EMFILE"), ("clone", "EAGAIN"), ("clone", "ENOMEM")):
            with self.subTest(call=call, error=error):
                self.assertEqual(self.send((call, f"error={error}")), 0)
                self.assertFalse(self.SENT.exists())

    def test_an_interrupted_write_or_wait_is_made_again(self):
        # The driver writes its standard output after the message.
        for call in ("write", "wait4"):
            with self.subTest(call):
                self.assertEqual(self.send((call, "error=EINTR:when=1")), 0)
                self.assertEqual(self.SENT.read_text(), self.MESSAGE)

    def test_the_answer_is_the_programs_when_the_write_fails(self):
        self.program("#!/bin/sh\ncat >/tmp/sent\nexit 75\n")
        self.assertEqual(self.send(("write", "error=EIO:when=1")), 75 << 8)
        self.assertEqual(self.SENT.read_text(), "")

    def test_without_the_program_the_shell_answers(self):
        os.unlink("/bin/sendmail")
        self.assertEqual(self.send(), 127 << 8)
        pathlib.Path("/bin/sendmail").touch(0o644)
        self.assertEqual(self.send(), 126 << 8)

    def test_without_a_shell_nothing_is_started(self):
        shell = os.readlink("/bin/sh")
        os.unlink("/bin/sh")
        try:
            self.assertEqual(self.send(), 0)
        finally:
            os.symlink(shell, "/bin/sh")
        self.assertFalse(self.SENT.exists())


class ArchiveFaultsTest(unittest.TestCase):
    SPOOL = "/var/spool"

    def test_an_interrupted_look_is_repeated(self):
        undisturbed = run(self, "available", "-")
        self.assertNotEqual(undisturbed, 0, "the spool is too small to say anything")
        self.assertEqual(run(self, "available", "-", inject=("statfs", "error=EINTR:when=1"),
                             path=self.SPOOL), undisturbed)

    def available_on(self, blocks, transfer, block):
        """The result on a file system of so many blocks, according to the system call."""
        kind, unused = 0x65735546, 0
        fields = struct.pack("=10q", kind, transfer, blocks, *[unused] * 6, block)
        return run(self, "available", "-", path=self.SPOOL,
                   inject=("statfs", f"retval=0:poke_exit=@arg2={fields.hex()}"))

    def test_the_size_is_counted_in_blocks(self):
        for transfer, block in ((4096, 4096), (1 << 20, 4096), (512, 4096), (4096, 0)):
            with self.subTest(transfer=transfer, block=block):
                self.assertEqual(self.available_on(100 * 2**30 // 4096, transfer, block), 20)
        self.assertEqual(self.available_on(0, 4096, 4096), 0)

    def test_without_a_size_nothing_is_free(self):
        self.assertEqual(run(self, "available", "-", inject=("statfs", "error=EIO"),
                             path=self.SPOOL), 0)


if __name__ == "__main__":
    unittest.main()
