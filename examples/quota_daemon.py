"""quota_daemon.py - listens for size changes and keeps each mailbox's total.

On SIGTERM it reads what was sent before and prints the totals as JSON.
"""

import json
import re
import signal
import socket
import sys

SOCKET = "/tmp/quotad.socket"
CHANGE = re.compile(rb"S(-?\d+),F\((.*)\)", re.DOTALL)


def listen():
    daemon = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    daemon.bind(SOCKET)
    daemon.settimeout(0.2)
    return daemon


def mailbox_of(folder):
    """/var/spool/home/site.test/ann~site.test/mail/Work/2024 is of .../ann~site.test/mail."""
    return re.match(r".*?/mail(?=/|$)", folder).group()


def main():
    ended, totals = [], {}
    signal.signal(signal.SIGTERM, lambda *_: ended.append(True))
    daemon = listen()
    print("listening", flush=True)
    while True:
        try:
            size, folder = CHANGE.fullmatch(daemon.recv(576)).groups()
        except TimeoutError:
            if ended:
                break
            continue
        mailbox = mailbox_of(folder.decode("utf-8", "surrogateescape"))
        totals[mailbox] = totals.get(mailbox, 0) + int(size)
    json.dump(totals, sys.stdout)


if __name__ == "__main__":
    main()
