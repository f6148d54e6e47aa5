"""The package as it is installed: importing this installs it into the sandbox."""

import os
import subprocess
import sys

BUILD, SOURCE = os.environ["TSMAIL_BUILD"], os.environ["TSMAIL_SOURCE"]
PREFIX = "/tmp/installed"
PLACE = f"{PREFIX}/lib/python3/dist-packages"
MAIL = "/var/spool/home/site.test/ann~site.test/mail"

for component in ("runtime", "python"):
    subprocess.run(["cmake", "--install", BUILD, "--prefix", PREFIX, "--component", component],
                   check=True, stdout=subprocess.DEVNULL)
sys.path.insert(0, PLACE)

import tsmail  # noqa: E402

assert tsmail.__file__.startswith(PREFIX), tsmail.__file__


def make_mailbox(address="ann@site.test", *folders):
    """A mailbox with Inbox and the given folders."""
    box = tsmail.Mailbox(address)
    box.make_mail_directory()
    box.make_pref_directory()
    for name in ("Inbox", *folders):
        box.folder(name).make()
    return box


def lines(path):
    with open(path, encoding="utf-8") as file:
        return file.read().splitlines()
