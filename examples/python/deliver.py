"""deliver.py ADDRESS <MESSAGE - delivers a message into the mailbox of an address."""

import os
import sys

from tsmail import Mailbox
from tsmail.folders import NameVerdict, name_verdict
from tsmail.mailbox import Maildir


def folder_of(box: Mailbox) -> str:
    """The tag's folder if it exists, else Inbox. A tag comes from strangers and does not make folders."""
    is_name = name_verdict(box.tag, refuse_parts=True) is NameVerdict.VALID
    return box.tag if is_name and box.folder(box.tag).exists() else "Inbox"


def main() -> int:
    if len(sys.argv) != 2 or "/" in sys.argv[1]:
        return os.EX_USAGE
    box = Mailbox(sys.argv[1])
    if not box.folder("Inbox").exists():
        return os.EX_NOUSER
    try:
        # Writes the message in tmp, flushes it, moves it into new under a free name, and counts it.
        Maildir(box, folder_of(box), create=False).add(sys.stdin.buffer.read())
    except OSError as error:
        print(f"deliver: {error}", file=sys.stderr)
        return os.EX_TEMPFAIL
    return os.EX_OK


if __name__ == "__main__":
    sys.exit(main())
