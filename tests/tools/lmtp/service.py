"""Helpers for tests of the resident services: a service that runs, and a plain client."""

import contextlib
import fcntl
import os
import re
import socket
import subprocess
import sys
import termios

from testing.toolkit import TSMAIL, environment, wait_until

SOCKET = "/tmp/lmtp.socket"
ANN, BOB = "ann@site.test", "bob@site.test"
OWNERS = {ANN: 20001, BOB: 20002}


def is_listening():
    with open("/proc/net/unix", encoding="ascii") as file:
        return any(line.split()[3] == "00010000" and line.endswith(f" {SOCKET}\n") for line in file)


def open_files(pid):
    """Paths and sizes."""
    directory = f"/proc/{pid}/fd"
    with contextlib.suppress(FileNotFoundError):  # what is closed meanwhile
        for name in os.listdir(directory):
            with contextlib.suppress(FileNotFoundError):
                yield os.readlink(f"{directory}/{name}"), os.stat(f"{directory}/{name}").st_size


def state_of(pid):
    """"S" for a process that waits, "T" for one that is stopped."""
    with open(f"/proc/{pid}/stat", encoding="ascii") as file:
        return file.read().rsplit(") ", 1)[1][0]


class Service:
    """A service on a unix socket, in its own process group."""

    def __init__(self, *words, verb="lmtp", options=(), listen=True, **popen):
        where = ["--listen", f"unix:{SOCKET}"] if listen else []
        self.process = subprocess.Popen([TSMAIL, *options, verb, *where, *words], env=popen.pop("env", environment()),
                                        stdin=popen.pop("stdin", subprocess.DEVNULL), stderr=subprocess.PIPE,
                                        start_new_session=True, **popen)
        if listen:
            self.wait_for_socket()

    def wait_for_socket(self):
        try:
            wait_until(lambda: is_listening() or self.process.poll() is not None)
        except AssertionError:
            self.kill()
            raise

    @property
    def pid(self):
        return self.process.pid

    def children(self):
        with open(f"/proc/{self.pid}/task/{self.pid}/children", encoding="ascii") as file:
            return [int(word) for word in file.read().split()]

    def network(self):
        return self.children()[0]

    def workers(self):
        return self.children()[1:]

    def is_idle(self):
        """Whether all processes wait for something."""
        return all(state_of(pid) == "S" for pid in self.children())

    def writes_below(self, directory):
        """Whether a worker has a message open below the directory."""
        drafts = re.compile(re.escape(directory) + r"/[^/]+/tmp/.")
        return any(drafts.match(path) for worker in self.workers()
                   for path, _ in open_files(worker))

    def end(self):
        self.process.terminate()
        self.process.communicate(timeout=20)
        return self.process.returncode

    def kill(self):
        for pid in [*self.children(), self.pid]:
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, 9)
        self.process.communicate()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.returncode is None:
            self.kill()
        if os.path.exists(SOCKET):
            os.unlink(SOCKET)


class Client:
    """Speaks LMTP over a socket, without any understanding of it."""

    def __init__(self, where=SOCKET, greet=True):
        family = socket.AF_UNIX if isinstance(where, str) else socket.AF_INET
        self.socket = socket.socket(family, socket.SOCK_STREAM)
        self.socket.settimeout(30)
        if family == socket.AF_INET:  # Service waits for the unix socket alone
            wait_until(lambda: self.socket.connect_ex(where) == 0)
        else:
            self.socket.connect(where)
        self.file = self.socket.makefile("rb")
        if greet:
            self.reply()
            self.say("LHLO client")

    def reply(self):
        lines = []
        while True:
            line = self.file.readline().decode()
            lines.append(line.rstrip("\r\n"))
            if not re.match(r"\d\d\d-", line):
                return "\n".join(lines)

    def send(self, data):
        self.socket.sendall(data if isinstance(data, bytes) else data.encode())

    def unheard(self):
        """The bytes that the service has not received yet."""
        count = fcntl.ioctl(self.socket, termios.TIOCOUTQ, bytes(4))
        return int.from_bytes(count, sys.byteorder)

    def say(self, line):
        self.send(line + "\r\n")
        return self.reply()

    def begin(self, *recipients, sender="s@remote.test"):
        """The envelope; returns the replies to the recipients."""
        assert self.say(f"MAIL FROM:<{sender}>").startswith("250")
        return [self.say(f"RCPT TO:<{recipient}>") for recipient in recipients]

    def text(self, text, recipients=1):
        """The message; returns one reply for each accepted recipient."""
        assert self.say("DATA").startswith("354")
        self.send(text + b"\r\n.\r\n")
        return [self.reply() for _ in range(recipients)]

    def deliver(self, *recipients, text=b"Subject: x\r\n\r\nx"):
        accepted = self.begin(*recipients)
        return self.text(text, sum(reply.startswith("250") for reply in accepted))

    def closed(self):
        """Whether the service ends the connection, without another byte."""
        return self.file.read() == b""

    def close(self):
        self.file.close()
        self.socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()
