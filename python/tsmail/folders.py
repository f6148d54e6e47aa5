"""Mail folders: what is one, making, walking, sizes, removal."""

import enum
import os
from collections.abc import Callable, Iterator
from typing import NamedTuple

from . import _core
from ._core import (RESERVED_NAMES, SYSTEM_FOLDERS, append_mailbox_size, is_deleted_name, is_mbox,
                    is_reserved_name, may_be_mbox, system_folder_number, system_parent_number)
from ._documented import from_library
from ._text import Text

__all__ = ["RESERVED_NAMES", "SYSTEM_FOLDERS", "Folder", "NameVerdict", "ScanFlag", "Total",
           "append_mailbox_size", "delete_path", "free_deleted_path", "is_deleted_name", "is_mbox", "is_reserved_name",
           "may_be_mbox", "name_verdict", "schedule_deletion", "system_folder_number",
           "system_parent_number", "visit", "walk"]


class Total(NamedTuple):
    """What a folder or a mailbox holds."""
    bytes: int
    messages: int


class NameVerdict(enum.IntEnum):
    """What is wrong with the name of a folder."""
    VALID = 0
    MALFORMED = 1
    REFUSED = 2


class ScanFlag(enum.IntFlag):
    """How a scan counts messages."""
    NONE = 0
    FILE_SIZES = 2
    TAG_NAMES = 4


class Folder:
    """A mail folder by its path; the folder need not exist.

    `name` is what the walk calls it, `stat` the record that the walk read; of a folder that comes
    from a path they are the path's last component and None.
    """

    __slots__ = ("path", "name", "stat")

    def __init__(self, path: Text, name: str | None = None,
                 stat: os.stat_result | None = None) -> None:
        self.path = os.fsdecode(path)
        self.name = os.path.basename(self.path) if name is None else name
        self.stat = stat

    def __fspath__(self) -> str:
        return self.path

    def __repr__(self) -> str:
        return f"{type(self).__name__}({self.path!r})"

    @from_library(_core.is_maildir_folder)
    def has_parts(self) -> bool:
        """Whether the directory holds what makes it a folder; it may be a file's name, too."""
        return _core.is_maildir_folder(self.path)

    @from_library(_core.is_mail_folder)
    def exists(self) -> bool:
        """Whether it is a directory that is a mail folder."""
        return _core.is_mail_folder(self.path)

    @from_library(_core.make_folder)
    def make(self) -> None:
        """Makes the folder with its missing parents; fine if it is there."""
        _core.make_folder(self.path)

    # ---- Sizes ----------------------------------------------------------------------------------

    @property
    def size_file(self) -> str:
        """The path of the folder's size record file."""
        return self.path + "/.ts_folder_size"

    @from_library(_core.read_folder_size)
    def size(self) -> Total:
        """The kept total. FileNotFoundError if nothing was ever counted here, UnknownTotalsError if
        the file is damaged."""
        return Total(*_core.read_folder_size(self.size_file))

    @from_library(_core.append_folder_size)
    def append_size(self, bytes: int, messages: int) -> None:
        """Adds to the kept total; negative numbers for what went."""
        _core.append_folder_size(self.size_file, bytes, messages)

    @from_library(_core.write_folder_size)
    def write_size(self, bytes: int, messages: int) -> None:
        """Replaces the kept total."""
        _core.write_folder_size(self.size_file, bytes, messages)

    @from_library(_core.tell_quota_daemon)
    def tell_quota_daemon(self, delta: int) -> None:
        """Tells the quota daemon of a change by so many bytes; OSError if nobody listens."""
        _core.tell_quota_daemon(self.path, delta)

    @from_library(_core.directory_size)
    def part_size(self, part: Text = "cur", flags: int = ScanFlag.NONE) -> int:
        """The bytes of the entries of one of the folder's directories, counted now."""
        return _core.directory_size(self.path, part, flags)

    @from_library(_core.cached_size)
    def cached_size(self) -> int:
        """The bytes as the scan cache has them, whatever its age."""
        return _core.cached_size(self.path)

    @from_library(_core.scanned_size)
    def scanned_size(self, flags: int = ScanFlag.NONE) -> int:
        """The bytes, counted now unless the scan cache is fresh."""
        return _core.scanned_size(self.path, flags)

    # ---- Scan cache and scan date ---------------------------------------------------------------

    @property
    @from_library(_core.cache_file)
    def cache_file(self) -> str:
        """The path of the scan cache."""
        return _core.cache_file(self.path)

    @from_library(_core.read_cache)
    def read_cache(self) -> tuple[int, int] | None:
        """Seconds since the epoch and bytes in a one-line scan cache; None without one."""
        return _core.read_cache(self.cache_file)

    @from_library(_core.write_cache)
    def write_cache(self, mtime: int, size: int) -> None:
        """Writes a scan cache: seconds since the epoch and bytes."""
        _core.write_cache(self.cache_file, mtime, size)

    @property
    @from_library(_core.unread_scan_date, _core.set_unread_scan_date)
    def unread_scan_date(self) -> int | None:
        """When the folder was last scanned for unread messages, in seconds since the epoch."""
        return _core.unread_scan_date(self.path)

    @unread_scan_date.setter
    def unread_scan_date(self, date: int) -> None:
        _core.set_unread_scan_date(self.path, date)

    # ---- Removal --------------------------------------------------------------------------------

    @from_library(_core.empty_folder)
    def empty(self) -> None:
        """Removes the messages; the folder and those below it stay, and so does the kept total."""
        _core.empty_folder(self.path)

    @from_library(_core.delete_folder)
    def delete(self) -> None:
        """Removes the folder with all below it."""
        _core.delete_folder(self.path)

    @from_library(_core.unlink_message)
    def unlink_message(self, name: Text) -> None:
        """Removes a message ("cur/NAME" or "new/NAME") and takes it out of the folder's total."""
        _core.unlink_message(os.path.join(self.path, os.fsdecode(name)))

    @from_library(_core.walk)
    def folders(self) -> Iterator["Folder"]:
        """The folders below this one; see walk."""
        return walk(self.path)


@from_library(_core.walk)
def walk(dir: Text, depth: int = 1) -> Iterator[Folder]:
    """The mail folders below a directory, each before those below it.

    The library walks when the first folder is asked for, to the end, and before that folder is
    handed out: whatever the loop does, breaks and exceptions included, the working directory is the
    caller's. It does not move during the walk either, unless the kernel refuses the walk's thread a
    working directory of its own. What the loop changes in the tree is not seen; visit() sees it.
    """
    top = os.fsdecode(dir)
    for name, stat in _core.walk(top, depth):
        yield Folder(os.path.join(top, name), name, stat)


@from_library(_core.visit)
def visit(dir: Text, visitor: Callable[[str, os.stat_result], int | None], depth: int = 1) -> int:
    """Calls visitor(name, stat record) for each mail folder below a directory, while the directory
    that holds the folder is the process's working directory; the sum of the visitor's results (None
    counts 0). An exception of the visitor ends the walk and passes on; the working directory is put
    back either way."""
    return _core.visit(dir, visitor, depth)


@from_library(_core.name_verdict)
def name_verdict(name: Text, *, path: bool = False, refuse_parts: bool = False) -> NameVerdict:
    """Judges a folder name that a person gave. With `path` it may hold '/', with `refuse_parts` no
    component may be cur, new or tmp."""
    return NameVerdict(_core.name_verdict(name, (1 if path else 0) + (2 if refuse_parts else 0)))


@from_library(_core.delete_path)
def delete_path(path: Text) -> None:
    """Removes a file, a link or a directory with all below it."""
    _core.delete_path(path)


@from_library(_core.schedule_deletion)
def schedule_deletion(path: Text, dir: Text, tag: Text = "") -> None:
    """Renames a path to a hidden name in `dir`, which a later sweep removes."""
    _core.schedule_deletion(path, dir, tag)


@from_library(_core.free_deleted_path)
def free_deleted_path(path: Text) -> str:
    """The first free hidden name for a path that is to be removed later."""
    return _core.free_deleted_path(path)
