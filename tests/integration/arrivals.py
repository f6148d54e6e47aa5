"""Services of tsmail beside a transfer agent, and mail that arrives at the agent on port 25."""

import os
import re
import signal
import smtplib
import subprocess
import time

from testing.toolkit import TSMAIL, content, environment, messages

SENDER = "bob@site.test"


class Service:
    """A service that root starts in a process group of its own, on the socket of a transfer agent."""

    def __init__(self, path, *words):
        self.path = path
        self.process = subprocess.Popen([TSMAIL, *words], env=environment(), start_new_session=True)
        end = time.monotonic() + 30
        while not os.path.exists(path) or os.stat(path).st_uid == 0:  # the owner comes last
            if time.monotonic() > end or self.process.poll() is not None:
                raise AssertionError(f"no service on {path}")
            time.sleep(0.01)

    def stop(self):
        self.process.terminate()
        self.process.wait(15)

    def kill(self):
        """Kills all its processes. What is left of its socket is removed."""
        os.killpg(self.process.pid, signal.SIGKILL)
        self.process.wait(15)
        os.unlink(self.path)


def send(count, recipients, first=0, body=b"x\r\n"):
    """Sends messages with the subjects N<first> and so on over one connection."""
    with smtplib.SMTP("127.0.0.1") as smtp:
        for n in range(first, first + count):
            smtp.sendmail(SENDER, recipients, b"Subject: N%d\r\n\r\n" % n + body)


def numbers(address, folder="Inbox"):
    """The numbers in the subjects of the messages in the folder."""
    return sorted(int(re.search(rb"^Subject: N(\d+)$", content(path), re.M).group(1))
                  for path in messages(address, folder))
