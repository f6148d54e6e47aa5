"""learn_spam.py ADDRESS FOLDER MODEL - learns what spam looks like from a folder and those below it.

MODEL is a JSON file: the number of messages that were learnt, the number of those with each word, and the
keys of the messages, so that each one is learnt once, however often the program runs.
"""

import collections
import email.message
import json
import os
import re
import sys
from collections.abc import Iterator
from typing import Any

from tsmail import Mailbox
from tsmail.mailbox import Maildir

LARGEST = 1 << 20  # bytes; spam is short


def words_of(message: email.message.Message) -> set[str]:
    """The words of the subject and of the plain text parts."""
    texts = [str(message["subject"] or "")]
    for part in message.walk():
        payload = part.get_payload(decode=True)
        if part.get_content_type() == "text/plain" and isinstance(payload, bytes):
            texts.append(payload.decode("utf-8", "replace"))
    return set(re.findall(r"\w{3,20}", " ".join(texts).lower()))


def maildirs(box: Mailbox, folder: str) -> Iterator[Maildir]:
    """The folder and those below it."""
    yield Maildir(box, folder, create=False)
    for each in box.folder(folder).folders():
        yield Maildir(box, f"{folder}/{each.name}", create=False)


def read_model(path: str) -> dict[str, Any]:
    try:
        with open(path, encoding="utf-8") as file:
            return dict(json.load(file))
    except FileNotFoundError:
        return {"messages": 0, "words": {}, "learnt": []}


def learn(model: dict[str, Any], maildir: Maildir) -> None:
    learnt, words = set(model["learnt"]), collections.Counter(model["words"])
    for key in maildir.keys():
        if key in learnt:
            continue
        try:
            message = maildir[key]
        except (KeyError, FileNotFoundError):  # another program moved it meanwhile
            continue
        learnt.add(key)
        if len(message.as_bytes()) <= LARGEST:
            words.update(words_of(message))
            model["messages"] += 1
    model["learnt"], model["words"] = sorted(learnt), dict(words)


def main() -> int:
    if len(sys.argv) != 4:
        print(__doc__, file=sys.stderr)
        return os.EX_USAGE
    address, folder, path = sys.argv[1:]
    model = read_model(path)
    for maildir in maildirs(Mailbox(address), folder):
        learn(model, maildir)
    with open(path + ".new", "w", encoding="utf-8") as file:
        json.dump(model, file)
    os.replace(path + ".new", path)
    print(f"learnt {model['messages']} messages, {len(model['words'])} words")
    return os.EX_OK


if __name__ == "__main__":
    sys.exit(main())
