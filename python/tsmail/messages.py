"""Names of message files and queue identifiers."""

import dataclasses
import datetime
import os

from . import _core
from ._documented import from_library
from ._text import Text

__all__ = ["MessageName", "queue_id"]


def _aware(seconds: int | None) -> datetime.datetime | None:
    """A time in UTC; None where there is none, or none that datetime can hold."""
    if seconds is None:
        return None
    try:
        return datetime.datetime.fromtimestamp(seconds, datetime.timezone.utc)
    except (OverflowError, ValueError, OSError):
        return None


@from_library(_core.queue_id)
def queue_id(when: datetime.datetime | None = None) -> str:
    """A new queue identifier that codes a time (an aware datetime), by default now."""
    if when is None:
        return _core.queue_id()
    if when.tzinfo is None:
        raise ValueError("the time has no time zone")
    return _core.queue_id(int(when.timestamp()))


@dataclasses.dataclass(frozen=True, slots=True)
class MessageName:
    """A message file's name and what it says.

    `created` and `received` are aware datetimes in UTC, None where the name holds none; `size` is
    in bytes, None if the name does not carry it; `flags` are the letters behind ":2,".
    """
    name: str
    created: datetime.datetime | None
    received: datetime.datetime | None
    size: int | None
    flags: str

    @classmethod
    @from_library(_core.creation_time, _core.received_time, _core.size_in_name)
    def parse(cls, name: Text) -> "MessageName":
        """Reads a name; of a path, the last component. Any name is one."""
        text = os.path.basename(os.fsdecode(name))
        return cls(text, _aware(_core.creation_time(text)), _aware(_core.received_time(text)),
                   _core.size_in_name(text), text.partition(":2,")[2])

    @classmethod
    @from_library(_core.unique_name)
    def generate(cls, size: int, queue_id: Text | None = None) -> "MessageName":
        """A new name for a message of `size` bytes, by default with a queue identifier of its own.
        Whoever creates a file by it creates it exclusively and draws again if it exists."""
        return cls.parse(_core.unique_name(size, _core.queue_id() if queue_id is None else queue_id))

    @property
    def key(self) -> str:
        """The name without flags: what tsmail.mailbox.Maildir calls the message."""
        return _core.key_of_name(self.name)

    def __str__(self) -> str:
        return self.name

    def __fspath__(self) -> str:
        return self.name
