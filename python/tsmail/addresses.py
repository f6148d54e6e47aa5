"""Address lists: safe senders, blocked senders and the like."""

import enum
import os
from collections.abc import Collection, Iterator

from . import _core
from ._core import system_lists_changed
from ._documented import from_library
from ._text import Text

__all__ = ["AddressList", "ListScope", "system_lists_changed"]

LONGEST_ENTRY = 254  # bytes; of a longer line each 255 would count as a line


class ListScope(enum.IntEnum):
    """Where a list lies."""
    USER = 0
    HOME = 1
    SYSTEM = 2


def _checked(entry: Text) -> bytes:
    """An entry that comes back as it is; ValueError else."""
    text = os.fsencode(entry)
    if not text:
        raise ValueError("an entry is not empty")
    if len(text) > LONGEST_ENTRY:
        raise ValueError(f"an entry has at most {LONGEST_ENTRY} bytes")
    if b"\n" in text or text.endswith(b"\r"):
        raise ValueError("an entry holds no line end")
    return text


class AddressList(Collection[str]):
    """A list by its user, its name ("whitelist", ...) and its scope; the file need not exist.

    Entries are compared with the letter case ignored. Questions about a list that is missing or
    cannot be read are answered with no, as by the library; iterating and changing raise OSError.
    """

    __slots__ = ("_list",)

    def __init__(self, user: Text, name: Text, scope: ListScope = ListScope.USER) -> None:
        self._list = _core.List(user, name, scope)

    @classmethod
    def of_system(cls, name: Text) -> "AddressList":
        """A list of the whole system."""
        return cls("", name, ListScope.SYSTEM)

    @property
    @from_library(_core.List.path)
    def path(self) -> str:
        """Where the list lies."""
        return self._list.path()

    @from_library(_core.List.add)
    def add(self, entry: Text) -> None:
        """Adds an entry unless the list has it. ValueError for one that would not come back as it
        is, OSError (ENOSPC) if the list is full, OSError if it could not be written."""
        text = _checked(entry)
        if self._list.contains(text):
            return
        self._end_last_line(text)
        self._list.add(text)
        if not self._list.contains(text):  # success is also the answer to a failed write
            raise OSError(5, "the entry could not be written", self.path)

    def _end_last_line(self, entry: bytes) -> None:
        """A new entry would become part of a last line without an end. Any rewrite ends it: this
        one leaves out an entry that is not there."""
        try:
            with open(self.path, "rb") as file:
                is_open = file.seek(0, os.SEEK_END) > 0 and (file.seek(-1, os.SEEK_END),
                                                             file.read(1))[1] != b"\n"
        except FileNotFoundError:
            return
        if is_open:
            self._list.remove(entry)

    @from_library(_core.List.remove)
    def discard(self, entry: Text) -> None:
        """Removes an entry if the list has it."""
        if self._list.contains(entry):
            self._list.remove(entry)

    @from_library(_core.List.remove)
    def remove(self, entry: Text) -> None:
        """Removes an entry; KeyError if the list does not have it."""
        if not self._list.contains(entry):
            raise KeyError(entry)
        self._list.remove(entry)

    @from_library(_core.List.contains)
    def __contains__(self, entry: object) -> bool:
        """Whether a line equals the entry."""
        if not isinstance(entry, (str, bytes, os.PathLike)):
            return False
        return self._list.contains(entry)

    @from_library(_core.List.matches)
    def match(self, address: Text) -> bool:
        """Whether an entry, taken as a shell pattern ("*@site.test"), matches the address."""
        return self._list.matches(address)

    @from_library(_core.List.entries)
    def __iter__(self) -> Iterator[str]:
        """The entries in the file's order."""
        return iter(self._list.entries())

    @from_library(_core.List.entries)
    def sorted(self) -> list[str]:
        """The entries in alphabetical order, letter case ignored."""
        return self._list.entries(True)

    def __len__(self) -> int:
        return len(self._list.entries())

    @from_library(_core.List.line_count)
    def line_count(self) -> int:
        """How many lines the list has, empty ones included; 2,048 are the most that add() fills."""
        return self._list.line_count()

    @from_library(_core.List.replace)
    def replace(self, line: int, entry: Text) -> None:
        """Replaces a line, counted from 1. IndexError if the list does not have it."""
        if not 1 <= line <= self.line_count():
            raise IndexError(line)
        self._list.replace(line, _checked(entry))

    @from_library(_core.List.remove_numbered)
    def remove_numbered(self, number: int) -> None:
        """Removes an entry of a list with lines "NUMBER,REST" and closes the gap."""
        self._list.remove_numbered(number)

    @from_library(_core.List.file_name)
    def __repr__(self) -> str:
        """Names the list, also one that has no path."""
        return f"<{type(self).__name__} {self._list.file_name()!r}>"
