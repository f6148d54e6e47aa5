"""List operations in which one system call fails, or at which the process is killed.

Each operation is traced once. Then it runs again for every system call that it makes from its lock file on,
with a fault at that call.
"""
import os
import re
import subprocess
import unittest

CALL = os.path.join(os.environ["TSMAIL_BUILD"], "tests/maillist/list_call")
DIRECTORY = "/var/spool/etc/mail"
LIST = DIRECTORY + "/test"
LOCK = ".test.lock"
TEMPORARY = ".test.tmp"
TRACE = "/tmp/trace"
BLOCK = "/dev/shm/tessaly-config"

OLD = "".join(f"{i},entry{i}@site.test\n" for i in range(1, 4001))
# Operation, its argument, and the list that it makes of OLD.
WRITERS = (
    ("drop", "3,ENTRY3@site.test", OLD.replace("3,entry3@site.test\n", "", 1)),
    ("modify", "x", OLD.replace("2,entry2@site.test\n", "x\n", 1)),
    ("drop-id", "3999", OLD.replace("3999,entry3999@site.test\n4000,", "3999,")),
)
# System calls that do not concern files.
WITHOUT_FILES = ("exit_group", "mmap", "munmap", "mprotect", "madvise", "brk", "futex")
WHOLE_WRITE = r"^write\(\d+, .*= \d{5}"  # of a list, in a trace


def put(text):
    os.makedirs(DIRECTORY, exist_ok=True)
    for name in os.listdir(DIRECTORY):
        os.unlink(os.path.join(DIRECTORY, name))
    with open(LIST, "w", encoding="ascii") as file:
        file.write(text)


def content():
    with open(LIST, encoding="ascii") as file:
        return file.read()


def run(*words, trace=(), **others):
    """Runs one call, under strace if options are given. Returns the finished process."""
    command = [CALL, *words]
    if trace:
        command = ["strace", "-o", TRACE, *trace, "--", *command]
    # The leak checker does not work in a process that is traced.
    environment = dict(os.environ, ASAN_OPTIONS="detect_leaks=0")
    return subprocess.run(command, env=environment, stdout=subprocess.PIPE, text=True, timeout=30,
                          check=False, **others)


def result(*words, trace=()):
    return int(run(*words, trace=trace).stdout)


def calls_of(*words, extra=()):
    """The system calls from the lock file on: (name, its number among those of the name, its line)."""
    run(*words, trace=["-s", "0", *extra])
    counts, calls, begun = {}, [], False
    with open(TRACE, encoding="ascii", errors="replace") as trace:
        for line in trace:
            name = re.match(r"\w+(?=\()", line)
            if name is None:
                continue
            counts[name[0]] = counts.get(name[0], 0) + 1
            begun = begun or LOCK in line
            if begun and name[0] not in WITHOUT_FILES:
                calls.append((name[0], counts[name[0]], line))
    return calls


def inject(name, number, fault):
    return ["-e", f"inject={name}:{fault}:when={number}"]


def call_with(calls, pattern):
    """Name and number of the only call whose line contains this."""
    found = [(name, number) for name, number, line in calls if re.search(pattern, line)]
    assert len(found) == 1, (pattern, found)
    return found[0]


class KilledTest(unittest.TestCase):
    def check_kills(self, words, after, extra=(), left_out=()):
        put(OLD)
        calls = calls_of(*words, extra=extra)
        self.assertEqual(content(), after)
        moved = killed = 0
        for name, number, line in calls:
            if name in left_out:
                continue
            put(OLD)
            trace = [*extra, *inject(name, number, "signal=KILL")]
            self.assertEqual(run(*words, trace=trace).returncode, -9, line)
            killed += 1
            self.assertIn(content(), (OLD, after), line)
            moved += content() == after
            self.assertLessEqual(set(os.listdir(DIRECTORY)), {"test", LOCK, TEMPORARY})
            # A file that was left behind does not harm the next rewrite, which leaves nothing behind.
            before = content()
            self.assertEqual(result("drop", "nobody"), 0)
            self.assertEqual(content(), before)
            self.assertEqual(set(os.listdir(DIRECTORY)), {"test", LOCK})
        self.assertGreater(killed, 6)
        self.assertGreater(moved, 0)
        print(f"{words[0]}: killed at {killed} system calls, the new list was there at {moved}")

    def test_rewrite_leaves_the_old_or_the_new_list(self):
        for verb, argument, after in WRITERS:
            with self.subTest(verb):
                self.check_kills([verb, argument], after)

    def test_rewrite_without_unnamed_files_too(self):
        put(OLD)
        verb, argument, after = WRITERS[0]
        name, number = call_with(calls_of(verb, argument), "O_TMPFILE")
        extra = inject(name, number, "error=EOPNOTSUPP")
        self.check_kills([verb, argument], after, extra=extra, left_out=(name,))

    def test_add_is_there_or_not(self):
        short = "a\nb\n"
        put(short)
        for name, number, line in calls_of("add", "new"):
            put(short)
            self.assertEqual(run("add", "new", trace=inject(name, number, "signal=KILL")).returncode, -9)
            self.assertIn(content(), (short, short + "new\n"), line)


class FaultTest(unittest.TestCase):
    def check_refused(self, words, pattern, fault):
        """A fault at the call with the pattern gives -1. Nothing is changed or left behind."""
        put(OLD)
        name, number = call_with(calls_of(*words), pattern)
        put(OLD)
        self.assertEqual(result(*words, trace=inject(name, number, fault)), -1, (words, pattern))
        self.assertEqual(content(), OLD)
        self.assertEqual(set(os.listdir(DIRECTORY)), {"test", LOCK})

    def close_of_temporary(self, calls):
        """The close of the descriptor that the temporary file was opened with."""
        opened = next(i for i, call in enumerate(calls) if "O_TMPFILE" in call[2])
        fd = re.search(r"= (\d+)$", calls[opened][2].strip())[1]
        return next((c[0], c[1]) for c in calls[opened:] if c[2].startswith(f"close({fd})"))

    def test_new_list_that_is_not_whole_is_refused(self):
        for verb, argument, _ in WRITERS:
            with self.subTest(verb):
                self.check_refused([verb, argument], WHOLE_WRITE, "error=ENOSPC")
                self.check_refused([verb, argument], "O_TMPFILE", "error=EMFILE")
                self.check_refused([verb, argument], "linkat", "error=EIO")

    def test_close_error_refuses_the_new_list(self):
        put(OLD)
        verb, argument, _ = WRITERS[0]
        name, number = self.close_of_temporary(calls_of(verb, argument))
        put(OLD)
        self.assertEqual(result(verb, argument, trace=inject(name, number, "error=EIO")), -1)
        self.assertEqual(content(), OLD)
        self.assertEqual(set(os.listdir(DIRECTORY)), {"test", LOCK})

    def test_failed_move_is_not_told_and_leaves_nothing(self):
        for verb, argument, _ in WRITERS:
            put(OLD)
            name, number = call_with(calls_of(verb, argument), r"^rename\w*\(")
            for error in ("EIO", "EACCES"):
                put(OLD)
                trace = inject(name, number, f"error={error}")
                self.assertEqual(result(verb, argument, trace=trace), 0, verb)
                self.assertEqual(content(), OLD)
                self.assertEqual(set(os.listdir(DIRECTORY)), {"test", LOCK})

    def test_read_error_is_not_the_end(self):
        """The second piece of the list cannot be read."""
        put(OLD)
        reads = [(name, number) for name, number, line in calls_of("drop", "nobody")
                 if name == "read" and re.search(r"65536\) += ", line)]
        self.assertGreaterEqual(len(reads), 3)
        for verb, argument, wanted in (("drop", "nobody", -1), ("modify", "x", -1),
                                       ("drop-id", "1", -1), ("names", "", -1), ("find", "last", 0),
                                       ("match", "last", 0)):
            put(OLD)
            trace = inject(*reads[1], "error=EIO")
            self.assertEqual(result(verb, argument, trace=trace), wanted, verb)
            self.assertEqual(content(), OLD)
            self.assertEqual(set(os.listdir(DIRECTORY)), {"test", LOCK})

    def test_read_error_adds_nothing(self):
        put("a\n")
        name, number = next((c[0], c[1]) for c in calls_of("add", "new") if "65536) " in c[2])
        put("a\n")
        self.assertEqual(result("add", "new", trace=inject(name, number, "error=EIO")), -1)
        self.assertEqual(content(), "a\n")

    def test_interruptions_are_retried(self):
        for verb, argument, after in (*WRITERS, ("names", "", OLD)):
            put(OLD)
            calls = [c for c in calls_of(verb, argument) if c[0] in ("openat", "flock", "read", "write")]
            for name, number, line in calls:
                if "write(1," in line:
                    continue
                put(OLD)
                self.assertEqual(result(verb, argument, trace=inject(name, number, "error=EINTR")), 0, line)
                self.assertEqual(content(), after, line)

    def test_adding_writes_once(self):
        put("a\n")
        writes = [c[2] for c in calls_of("add", "x" * 5000) if c[0] == "write" and "write(1," not in c[2]]
        self.assertEqual(len(writes), 1)
        self.assertRegex(writes[0], r", 5001\) += 5001$")


class FallbackTest(unittest.TestCase):
    """Where there are no unnamed files, or they cannot be named, the temporary file has its name from the beginning."""

    def check(self, pattern, fault):
        for verb, argument, after in WRITERS:
            put(OLD)
            name, number = call_with(calls_of(verb, argument), pattern)
            put(OLD)
            with open(os.path.join(DIRECTORY, TEMPORARY), "w", encoding="ascii") as stale:
                stale.write("stale" * 100000)
            self.assertEqual(result(verb, argument, trace=inject(name, number, fault)), 0)
            self.assertEqual(content(), after)
            self.assertEqual(set(os.listdir(DIRECTORY)), {"test", LOCK})

    def test_without_unnamed_files(self):
        self.check("O_TMPFILE", "error=EOPNOTSUPP")

    def test_without_proc(self):
        self.check("linkat", "error=ENOENT")

    def test_failing_write_is_refused(self):
        put(OLD)
        verb, argument, _ = WRITERS[0]
        name, number = call_with(calls_of(verb, argument), "O_TMPFILE")
        fallback = inject(name, number, "error=EOPNOTSUPP")
        put(OLD)
        calls = calls_of(verb, argument, extra=fallback)
        put(OLD)
        trace = [*fallback, *inject(*call_with(calls, WHOLE_WRITE), "error=ENOSPC")]
        self.assertEqual(result(verb, argument, trace=trace), -1)
        self.assertEqual(content(), OLD)
        self.assertEqual(set(os.listdir(DIRECTORY)), {"test", LOCK})

    def test_temporary_file_that_cannot_be_made_is_refused(self):
        put(OLD)
        verb, argument, _ = WRITERS[0]
        name, number = call_with(calls_of(verb, argument), "O_TMPFILE")
        put(OLD)
        trace = ["-e", f"inject={name}:error=EOPNOTSUPP:when={number}+"]
        self.assertEqual(result(verb, argument, trace=trace), -1)
        self.assertEqual(content(), OLD)
        self.assertEqual(set(os.listdir(DIRECTORY)), {"test", LOCK})

    def test_name_that_is_always_taken_ends_the_attempts(self):
        put(OLD)
        trace = ["-e", "inject=linkat:error=EEXIST"]
        self.assertEqual(result("drop", "nobody", trace=trace), -1)
        self.assertEqual(content(), OLD)


class SharedBlockTest(unittest.TestCase):
    """The change flag in the real shared configuration block."""
    FLAG = 280944

    def tearDown(self):
        if os.path.exists(BLOCK):
            os.unlink(BLOCK)

    def make_block(self, flag, size=FLAG + 4):
        block = os.open(BLOCK, os.O_RDWR | os.O_CREAT | os.O_TRUNC, 0o644)
        os.ftruncate(block, size)
        os.pwrite(block, flag.to_bytes(4, "little", signed=True), self.FLAG)
        os.close(block)

    def test_flag_is_read(self):
        self.assertEqual(result("changed", ""), 0)
        for flag in (0, 1, -7, 2147483647):
            self.make_block(flag)
            self.assertEqual(result("changed", ""), flag)
            self.assertEqual(result("changed", "ann@site.test"), 0)


if __name__ == "__main__":
    unittest.main()
