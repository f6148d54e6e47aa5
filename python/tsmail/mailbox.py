"""The standard library's Maildir on a folder of the store."""

import contextlib
import mailbox as standard
import os
import time
from collections.abc import Callable, Iterator
from typing import IO, TYPE_CHECKING, Any

from . import _core
from ._locks import folder_lock
from ._text import Text
from .folders import Folder, NameVerdict, name_verdict
from .identity import Mailbox

__all__ = ["Maildir"]

_Stamp = tuple[int, int] | None


def _stamp(path: str) -> _Stamp:
    """By what a change of a file shows."""
    try:
        record = os.stat(path)
    except FileNotFoundError:
        return None
    return record.st_size, record.st_mtime_ns


def _message_size(path: str) -> int:
    """What a message counts: the size in its name, or else that of its file."""
    size = _core.size_in_name(os.path.basename(path))
    return os.stat(path).st_size if size is None else size


class Maildir(standard.Maildir):
    """A folder of a mailbox as a mailbox.Maildir.

    Messages get the store's names, and what is added, removed, replaced or moved is counted in the
    totals of folder and mailbox and told to the quota daemon, if one listens. Meanwhile the folder
    is locked as the tsmail command does it, so that a recount counts each message once.

    What differs from mailbox.Maildir:

    - It is made from a Mailbox and a folder's name, "Work/2024".
    - Folders within it are folders of the store ("Work", not ".Work"), without the file
      "maildirfolder"; add_folder refuses names that tsmail.folders.name_verdict does.
    - A key is a message's name without flags. Replacing a message keeps its key; where its size
      changed, the file's name then carries the new one behind the key.
    - A hidden file is not a message, as for the command; before Python 3.13 mailbox.Maildir takes it
      for one.
    - iterkeys, keys and len read the folder once, and do not ask for each message whether it is
      still there.
    """

    # What the standard library's class has besides what its types show.
    _path: str
    _paths: dict[str, str]
    _toc: dict[str, str]
    _toc_mtimes: dict[str, float]
    _last_read: float
    _skewfactor: float
    if TYPE_CHECKING:
        def _create_tmp(self) -> IO[bytes]: ...
        def _dump_message(self, message: Any, target: IO[bytes],
                          mangle_from_: bool = False) -> None: ...
        def _lookup(self, key: str) -> str: ...

    def __init__(self, mailbox: Mailbox, folder: Text = "Inbox",
                 factory: Callable[[IO[Any]], standard.MaildirMessage] | None = None,
                 create: bool = True) -> None:
        self.mailbox = mailbox
        self.folder = os.fsdecode(folder)
        self._folder = Folder(mailbox.folder_path(self.folder))
        if not self._folder.exists():
            if not create:
                raise standard.NoSuchMailboxError(self._folder.path)
            self._folder.make()
        super().__init__(self._folder.path, factory, create=False)

    # ---- Adding ---------------------------------------------------------------------------------

    def add(self, message: Any) -> str:
        """Adds a message, flushed to the disk, and returns its key."""
        draft = self._draft(message)
        try:
            with self._lock() as directory:
                name = self._place(draft, *_subdir_and_suffix(message))
                self._flush(directory, name)
                size = os.stat(draft).st_size
                self._record(size, 1)
        finally:
            os.remove(draft)
        self._tell(size)
        return _core.key_of_name(os.path.basename(name))

    def _draft(self, message: Any) -> str:
        """Writes a message in tmp; its path there."""
        file = self._create_tmp()
        try:
            try:
                self._dump_message(message, file)
                file.flush()
                if isinstance(message, standard.MaildirMessage):
                    os.utime(file.fileno(), (time.time(), message.get_date()))
                os.fsync(file.fileno())
            finally:
                file.close()
        except BaseException:
            os.remove(file.name)
            raise
        return os.fsdecode(file.name)

    def _place(self, draft: str, subdir: str, suffix: str) -> str:
        """Makes a draft appear under a new name; where, below the folder."""
        size = os.stat(draft).st_size
        while True:
            name = f"{subdir}/{_core.unique_name(size, _core.queue_id())}{suffix}"
            with contextlib.suppress(FileExistsError):
                os.link(draft, f"{self._path}/{name}")
                return name

    # ---- Removing and replacing -----------------------------------------------------------------

    def remove(self, key: str) -> None:
        """Removes a message; KeyError if there is none."""
        with self._lock():
            size = self._unlink(f"{self._path}/{self._lookup(key)}")
            if size is None:
                raise KeyError(f"No message with key: {key}")
            self._record(-size, -1)
        self._tell(-size)

    def discard(self, key: str) -> None:
        """Removes a message if it is there."""
        with contextlib.suppress(KeyError):
            self.remove(key)

    def _unlink(self, path: str) -> int | None:
        """Removes a file; how much it counted. None if it was gone: who removed it has counted
        that. (The library's own call counts first, which would count such a message twice.)"""
        try:
            size = _message_size(path)
            os.remove(path)
        except FileNotFoundError:
            return None
        return size

    def __setitem__(self, key: str, message: Any) -> None:
        """Replaces a message; KeyError if there is none. One of the two is there at any moment."""
        old = self._lookup(key)
        draft = self._draft(message)
        try:
            with self._lock() as directory:
                old = self._lookup(key)
                size = os.stat(draft).st_size
                new = self._name_for(key, size, old, message)
                gone = _message_size(f"{self._path}/{old}")
                os.rename(draft, f"{self._path}/{new}")
                self._flush(directory, new)
                if new != old and self._unlink(f"{self._path}/{old}") is None:
                    gone = 0
                    self._record(size, 1)
                else:
                    self._record(size - gone, 0)
        finally:
            with contextlib.suppress(FileNotFoundError):
                os.remove(draft)
        self._toc[key] = new
        self._tell(size - gone)

    @staticmethod
    def _name_for(key: str, size: int, old: str, message: Any) -> str:
        """Under which name a message replaces another: the key, a size field if the key does not
        say the size, and place and flags of the new message, else those of the old one."""
        subdir, suffix = os.path.dirname(old), "".join(old.partition(":")[1:])
        if isinstance(message, standard.MaildirMessage):
            subdir, suffix = _subdir_and_suffix(message)
        field = "" if _core.size_in_name(key) == size else f",#F#S#{size}#E"
        return f"{subdir}/{key}{field}{suffix}"

    # ---- Moves and flags ------------------------------------------------------------------------

    def move(self, key: str, target: "Maildir") -> None:
        """Moves a message, flags and all, to another folder, which may be another mailbox's on the
        same file system. It keeps its key. KeyError if there is none."""
        with contextlib.ExitStack() as held:
            for each in sorted((self, target), key=lambda each: each._path.split("/")):
                held.enter_context(each._lock())
            old = self._lookup(key)
            size = _message_size(f"{self._path}/{old}")
            try:
                os.rename(f"{self._path}/{old}", f"{target._path}/{old}")
            except FileNotFoundError:
                raise KeyError(f"No message with key: {key}") from None
            if target._path != self._path:
                self._record(-size, -1)
                target._record(size, 1)
        self._toc.pop(key, None)
        if target._path != self._path:
            self._tell(-size)
            target._tell(size)

    def get_flags(self, key: str) -> str:
        """The flags of a message, which is not read; KeyError if there is none."""
        return self._lookup(key).partition(":2,")[2]

    def set_flags(self, key: str, flags: str) -> None:
        """Gives a message these flags, and no others; it then lies in cur. What it counts stays.
        KeyError if there is none."""
        if not all("A" <= flag <= "z" and flag.isalpha() for flag in flags):
            raise ValueError("flags are letters")
        with self._lock():
            old = self._lookup(key)
            name = os.path.basename(old).partition(":")[0]
            new = f"cur/{name}:2,{''.join(sorted(set(flags)))}"
            try:
                os.rename(f"{self._path}/{old}", f"{self._path}/{new}")
            except FileNotFoundError:
                raise KeyError(f"No message with key: {key}") from None
        self._toc[key] = new

    def add_flag(self, key: str, flag: str) -> None:
        """Sets flags besides those that a message has."""
        self.set_flags(key, self.get_flags(key) + flag)

    def remove_flag(self, key: str, flag: str) -> None:
        """Takes flags from a message."""
        self.set_flags(key, "".join(set(self.get_flags(key)) - set(flag)))

    # ---- Folders --------------------------------------------------------------------------------

    def list_folders(self) -> list[str]:
        """The names of the folders right within this one."""
        with os.scandir(self._path) as entries:
            names = [entry.name for entry in entries if entry.is_dir()]
        return [name for name in names if not name.startswith(".") and _is_component(name)
                and Folder(f"{self._path}/{name}").exists()]

    def get_folder(self, folder: str) -> "Maildir":
        """A folder within this one; NoSuchMailboxError if there is none."""
        return Maildir(self.mailbox, f"{self.folder}/{folder}", self._factory, create=False)

    def add_folder(self, folder: str) -> "Maildir":
        """Makes a folder within this one; ValueError for a name that no folder may have."""
        if not _is_component(folder):
            raise ValueError(f"not a folder's name: {folder!r}")
        return Maildir(self.mailbox, f"{self.folder}/{folder}", self._factory)

    def remove_folder(self, folder: str) -> None:
        """Removes a folder within this one; NotEmptyError if there are messages or folders in it."""
        inner = self.get_folder(folder)
        with inner._lock(exclusive=True):
            if len(inner):
                raise standard.NotEmptyError(f"Folder contains message(s): {folder}")
            with os.scandir(inner._path) as entries:
                below = [each.name for each in entries if each.is_dir() and _is_component(each.name)]
            if below:
                raise standard.NotEmptyError(
                    f"Folder contains subdirectory '{folder}': {below[0]}")
            inner._folder.delete()

    # ---- Reading --------------------------------------------------------------------------------

    def iterkeys(self) -> Iterator[str]:
        """The keys of what was there when the first one is asked for."""
        self._refresh()
        yield from list(self._toc)

    def _refresh(self) -> None:
        is_old = time.time() - self._last_read > 2 + self._skewfactor
        if is_old and not self._has_changed():
            return
        self._toc = _core.messages_in(self._path)
        self._last_read = time.time()

    def _has_changed(self) -> bool:
        """Whether a directory is newer than when this was last asked."""
        times = {subdir: os.path.getmtime(self._paths[subdir]) for subdir in self._toc_mtimes}
        changed = any(times[subdir] > self._toc_mtimes[subdir] for subdir in times)
        self._toc_mtimes = times
        return changed

    # ---- Totals ---------------------------------------------------------------------------------

    def _lock(self, *, exclusive: bool = False) -> contextlib.AbstractContextManager[int]:
        parts = self.folder.split("/")
        paths = [self.mailbox.folder_path("/".join(parts[:n])) for n in range(1, len(parts) + 1)]
        return folder_lock(paths, exclusive=exclusive)

    def _record(self, size: int, messages: int) -> None:
        """Counts a change, under the folder's lock. What could not be counted is recounted: the
        library's appends do not say whether they could write, the file's stamp does."""
        mailbox_file = self.mailbox.mail + "/.maildirsize"
        before = _stamp(self._folder.size_file), _stamp(mailbox_file)
        self._folder.append_size(size, messages)
        self.mailbox.append_size(size, messages)
        after = _stamp(self._folder.size_file), _stamp(mailbox_file)
        if before[0] == after[0] or before[1] == after[1]:
            self.mailbox.distrust_sizes()

    def _tell(self, delta: int) -> None:
        """Tells the quota daemon of a change, without a lock: it may keep its senders waiting. It is
        not a failure if no daemon listens."""
        if delta:
            with contextlib.suppress(OSError):
                self._folder.tell_quota_daemon(delta)

    @staticmethod
    def _flush(folder: int, name: str) -> None:
        """Flushes the directory that a message appeared in."""
        fd = os.open(os.path.dirname(name), os.O_RDONLY | os.O_DIRECTORY, dir_fd=folder)
        try:
            os.fsync(fd)
        finally:
            os.close(fd)


def _subdir_and_suffix(message: Any) -> tuple[str, str]:
    """Where a message wants to lie, and what its name ends in."""
    if not isinstance(message, standard.MaildirMessage):
        return "new", ""
    info = message.get_info()
    return message.get_subdir(), ":" + info if info else ""


def _is_component(name: str) -> bool:
    """Whether a folder may have the name."""
    return name_verdict(name, refuse_parts=True) is NameVerdict.VALID
