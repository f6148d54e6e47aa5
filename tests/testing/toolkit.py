"""Shared helpers for tests of the tsmail command: they run it and inspect a spool by plain means."""

import fcntl
import glob
import json
import os
import re
import resource
import shutil
import socket
import subprocess
import time
import unittest

from testing.schemas import check_shown

BUILD = os.environ["TSMAIL_BUILD"]
SOURCE = os.environ["TSMAIL_SOURCE"]
TSMAIL = os.path.join(BUILD, "tools", "tsmail")
SAMPLES = sorted(glob.glob(os.path.join(SOURCE, "examples", "messages", "*.eml")))
HOME = "/var/spool/home"
SYSTEM_FOLDERS = ["Inbox", "Drafts", "Sent", "Bulk", "Trash", "SecureMail"]
NOBODY = 65534
DAEMON = "/tmp/quotad.socket"

with open(os.path.join(BUILD, "CMakeCache.txt"), encoding="utf-8") as cache:
    SANITIZED = re.search(r"^TSMAIL_SANITIZE:\w+=.", cache.read(), re.M) is not None


class Result:
    def __init__(self, done):
        self.code = done.returncode
        self.out = (done.stdout or b"").decode("utf-8", "surrogateescape")
        self.err = done.stderr.decode("utf-8", "surrogateescape")

    @property
    def lines(self):
        return self.out.splitlines()

    @property
    def objects(self):
        return [json.loads(line) for line in self.lines]

    def __repr__(self):
        return f"exit code {self.code}\n--- output\n{self.out}--- errors\n{self.err}---"


def environment(**changes):
    env = {k: v for k, v in os.environ.items() if k not in ("NO_COLOR", "TSMAIL_CONFIG")}
    env.update(LC_ALL="C.UTF-8", TERM="dumb")
    env.update(changes)
    return env


def preloading(library):
    """The variables with which programs load a library before all others. Its path would be cut at a blank, so it is
    found by its name."""
    return {"LD_PRELOAD": os.path.basename(library), "LD_LIBRARY_PATH": os.path.dirname(library)}


def run(words, stdin=b"", env=None, **options):
    if isinstance(stdin, bytes):
        options["input"] = stdin
    else:
        options["stdin"] = stdin
    done = Result(subprocess.run(words, env=env or environment(), timeout=120, check=False,
                                 stdout=options.pop("stdout", subprocess.PIPE),
                                 stderr=subprocess.PIPE, **options))
    check_schema(words, done.out)
    return done


def check_schema(words, shown):
    """Checks that the output of a command with --json matches its schema."""
    if TSMAIL in words:
        check_shown(words[words.index(TSMAIL) + 1:], shown)


def tsmail(*words, **options):
    return run([TSMAIL, *words], **options)


def as_nobody():
    """Options for run() that give up root's exemption from permission checks."""
    if os.geteuid() != 0:
        return {}
    return {"user": NOBODY, "group": NOBODY, "extra_groups": []}


def own_by_nobody(top):
    """Gives everything below top to the user of as_nobody()."""
    if os.geteuid() == 0:
        for directory, names, files in os.walk(top):
            for name in [".", *names, *files]:
                os.chown(os.path.join(directory, name), NOBODY, NOBODY)


def limited(**limits):
    """A preexec_fn that sets limits: limited(AS=..., NOFILE=...)."""
    def apply():
        for name, value in limits.items():
            resource.setrlimit(getattr(resource, "RLIMIT_" + name), (value, value))
    return apply


class Call(str):
    """A system call as strace writes it; `process` made it."""

    def __new__(cls, line):
        process, text = line.split(None, 1)
        call = super().__new__(cls, text)
        call.process = process
        return call


def processes_of(process):
    """The process and its children."""
    started = []
    for task in glob.glob(f"/proc/{process.pid}/task/*/children"):
        with open(task, encoding="ascii") as file:
            started += file.read().split()
    return [str(process.pid), *started]


def workers_of(pid):
    """The processes that the command with this process number has started."""
    with open(f"/proc/{pid}/task/{pid}/children", encoding="ascii") as file:
        return [int(word) for word in file.read().split()]


def traced(options, words, **more):
    """Runs words under strace; returns the result and the list of the system calls' lines."""
    log = "/tmp/trace.log"
    env = environment(ASAN_OPTIONS="detect_leaks=0")  # the leak check does not work under a tracer
    done = run(["strace", "-f", "-qq", "-o", log, *options, "--", *words], env=env, **more)
    with open(log, encoding="utf-8", errors="replace") as file:
        calls = [Call(line.rstrip("\n")) for line in file]
    return done, calls


def numbered(calls):
    """(name, n, line) of each system call, which is the n-th of its name in its process, as strace counts."""
    counts, result = {}, []
    for line in calls:
        match = re.match(r"(\w+)\(", line)
        if match:
            key = (line.process, match.group(1))
            counts[key] = counts.get(key, 0) + 1
            result.append((match.group(1), counts[key], line))
    return result


def mail(address):
    tilde = re.sub(r"\+[^@]*", "", address).lower().replace("@", "~")
    return f"{HOME}/{tilde.split('~')[1]}/{tilde}/mail"


def messages(address, folder="Inbox", where=("new", "cur")):
    return sorted(path for sub in where for path in
                  glob.glob(f"{mail(address)}/{folder}/{sub}/*"))


def left_in_tmp(address):
    return glob.glob(f"{mail(address)}/**/tmp/*", recursive=True)


def record(path):
    """The sums of a size record file, read by its format; (0, 0) if there is no file."""
    size = count = 0
    if os.path.exists(path):
        with open(path, encoding="ascii") as file:
            for line in file:
                match = re.match(r"\s*(-?\d+)\s+(-?\d+)", line)
                if match:
                    size, count = size + int(match.group(1)), count + int(match.group(2))
    return size, count


def folder_record(address, folder="Inbox"):
    return record(f"{mail(address)}/{folder}/.ts_folder_size")


def mailbox_record(address):
    return record(f"{mail(address)}/.maildirsize")


def is_marked(address):
    return os.path.exists(f"{mail(address)}/.maildirsize.dirty")


def content(path):
    with open(path, "rb") as file:
        return file.read()


def mode(path):
    return os.stat(path).st_mode & 0o7777


def held_by_folders(address):
    """Bytes and messages in new and cur of all folders of the mailbox, by the files' sizes."""
    paths = [path for sub in ("new", "cur")
             for path in glob.glob(f"{mail(address)}/**/{sub}/*", recursive=True)]
    return sum(os.path.getsize(path) for path in paths), len(paths)


def write(path, text):
    with open(path, "wb") as file:
        file.write(text if isinstance(text, bytes) else text.encode())


def wait_until(true, seconds=30):
    deadline = time.monotonic() + seconds
    while not true():
        if time.monotonic() > deadline:
            raise AssertionError("waited in vain")
        time.sleep(0.005)


def snapshot(top):
    """Every path below top with its type, mode and content."""
    found = {}
    for directory, names, files in os.walk(top):
        for name in names + files:
            path = os.path.join(directory, name)
            status = os.lstat(path)
            data = content(path) if os.path.isfile(path) and not os.path.islink(path) else None
            found[path] = (status.st_mode, data)
    return found


def empty(top):
    for name in os.listdir(top):
        path = os.path.join(top, name)
        shutil.rmtree(path) if os.path.isdir(path) and not os.path.islink(path) else os.unlink(path)


class Kept:
    """A copy of the spool as it is now. To put it back costs less than the commands that made it."""

    PLACE = "/tmp/kept"

    def __init__(self):
        shutil.rmtree(self.PLACE, ignore_errors=True)
        subprocess.run(["cp", "-a", "/var/spool", self.PLACE], check=True)

    def put_back(self):
        empty("/var/spool")
        subprocess.run(["cp", "-a", self.PLACE + "/.", "/var/spool"], check=True)


class SpoolCase(unittest.TestCase):
    """Each test begins with an empty spool."""

    maxDiff = None

    def setUp(self):
        for name in os.listdir("/var/spool"):
            shutil.rmtree(os.path.join("/var/spool", name))
        if os.geteuid() == 0:
            os.chown("/var/spool", 0, 0)
            os.chmod("/var/spool", 0o755)

    def succeed(self, *words, **options):
        done = tsmail(*words, **options)
        self.assertEqual(done.code, 0, done)
        return done

    def fail_with(self, code, *words, saying="", **options):
        done = tsmail(*words, **options)
        self.assertEqual(done.code, code, done)
        self.assertRegex(done.err, r"(?s)^tsmail: .*" + saying, done)
        return done

    def listen(self):
        """A quota daemon's socket."""
        daemon = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(os.unlink, DAEMON)
        self.addCleanup(daemon.close)
        daemon.bind(DAEMON)
        daemon.setblocking(False)
        return daemon

    @staticmethod
    def told(daemon):
        """What was sent to the daemon since the last call."""
        texts = []
        while True:
            try:
                texts.append(daemon.recv(1024).decode())
            except BlockingIOError:
                return texts

    def begin(self, *words, **options):
        """Starts a tsmail command and does not wait for it. It is ended with the test."""
        process = subprocess.Popen([TSMAIL, *words], stdin=options.pop("stdin", subprocess.DEVNULL),
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                   env=environment(), **options)
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        return process

    def end(self, process, code=0):
        out, err = process.communicate(timeout=60)
        self.assertEqual(process.returncode, code, (out, err))
        check_schema(process.args, out.decode())
        return out.decode(), err.decode()

    def assert_counted(self, address, folder="Inbox"):
        """The records of folder and mailbox match the folder's contents (the only folder with mail)."""
        sizes = [os.path.getsize(path) for path in messages(address, folder)]
        self.assertEqual(folder_record(address, folder), (sum(sizes), len(sizes)))
        self.assertEqual(mailbox_record(address), (sum(sizes), len(sizes)))


class Lock:
    """A flock on a directory or a file, exclusive unless told otherwise."""

    def __init__(self, path, kind=fcntl.LOCK_EX):
        self.fd = os.open(path, os.O_RDONLY)
        self.kind = kind

    def __enter__(self):
        fcntl.flock(self.fd, self.kind)
        return self

    def __exit__(self, *_):
        os.close(self.fd)
