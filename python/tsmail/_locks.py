"""The locks that keep deliveries, removals and recounts of a folder apart, as the tsmail command
takes them (docs/architecture.md)."""

import contextlib
import errno
import fcntl
import os
import time
from collections.abc import Iterator, Sequence

from . import _core

SHORTEST_PAUSE, LONGEST_PAUSE = 0.001, 0.02  # seconds

LOCK_FILE, GATE_FILE = ".ts_folder_lock", ".ts_folder_gate"
# Readable and writable: what becomes a lock of bytes on a server wants both.
TO_LOCK = os.O_RDWR | os.O_CREAT | os.O_NOFOLLOW | os.O_NOCTTY | os.O_NONBLOCK
# File systems that other machines may have, too: those of the command (tools/work/folder_lock.cpp).
NETWORKED = frozenset({
    0x65735546,  # FUSE
    0x00006969,  # NFS
    0x00c36400,  # Ceph
    0x01161970,  # GFS2
    0x7461636f,  # OCFS2
    0x0bd00bd0,  # Lustre
    0x47504653,  # GPFS
    0x19830326,  # BeeGFS
    0x5346414f,  # AFS
    0xff534d42,  # CIFS
    0xfe534d42,  # SMB 2
    0x01021997,  # 9P
})


def _try(fd: int, operation: int) -> bool:
    """Takes a lock; False if another has it."""
    try:
        fcntl.flock(fd, operation | fcntl.LOCK_NB)
        return True
    except BlockingIOError:
        return False


def _lies_on_network(folder: int) -> bool:
    return _core.file_system_type(folder) in NETWORKED


def _lock_file(folder: int, name: str) -> int | None:
    """A file of the folder to take a lock on. None if the folder has been removed."""
    try:
        return os.open(name, TO_LOCK, 0o666, dir_fd=folder)
    except OSError as error:
        if error.errno in (errno.ENOENT, errno.ESTALE):
            return None
        raise


def _gate_of(folder: int, networked: bool) -> int | None:
    """What stands in front of a folder's lock. A folder without tmp has nothing, and no deliveries."""
    if networked:
        return _lock_file(folder, GATE_FILE)
    try:
        return os.open("tmp", os.O_RDONLY | os.O_DIRECTORY, dir_fd=folder)
    except OSError:
        return None


class _Gate:
    """A lock in front of the folder's own. It is held exclusively while the exclusive lock is waited
    for, and shared for the moment in which a shared one is tried: so deliveries that overlap do not
    keep out who waits for the exclusive one."""

    def __init__(self, fd: int | None) -> None:
        self._closed = fd is None
        self._fd = fd

    def __enter__(self) -> "_Gate":
        return self

    def __exit__(self, *_: object) -> None:
        if self._fd is not None:
            os.close(self._fd)

    def try_shared(self, lock: int) -> bool:
        if self._fd is None:
            return _try(lock, fcntl.LOCK_SH)
        if not _try(self._fd, fcntl.LOCK_SH):
            return False
        try:
            return _try(lock, fcntl.LOCK_SH)
        finally:
            fcntl.flock(self._fd, fcntl.LOCK_UN)

    def try_exclusive(self, lock: int) -> bool:
        if not self._closed:
            assert self._fd is not None
            self._closed = _try(self._fd, fcntl.LOCK_EX)
        return self._closed and _try(lock, fcntl.LOCK_EX)


def _acquire(folder: int, lock: int, exclusive: bool) -> None:
    """Takes the lock: on the folder itself or on its file."""
    if exclusive and _try(lock, fcntl.LOCK_EX):  # a free folder's gate is not needed
        return
    with _Gate(_gate_of(folder, lock != folder)) as gate:
        attempt = gate.try_exclusive if exclusive else gate.try_shared
        pause = SHORTEST_PAUSE
        while not attempt(lock):
            time.sleep(pause)
            pause = min(2 * pause, LONGEST_PAUSE)


def _stands_at(path: str, fd: int) -> bool:
    try:
        return os.path.samestat(os.stat(path), os.fstat(fd))
    except FileNotFoundError:
        return False


def _try_level(path: str, exclusive: bool, held: contextlib.ExitStack) -> int | None:
    """Opens and locks the directory at the path. None if it went away while the lock was waited for."""
    folder = os.open(path, os.O_RDONLY | os.O_DIRECTORY)
    held.callback(os.close, folder)
    lock = folder
    if _lies_on_network(folder):
        file = _lock_file(folder, LOCK_FILE)
        if file is None:
            return None
        held.callback(os.close, file)
        lock = file
    _acquire(folder, lock, exclusive)
    return folder if _stands_at(path, folder) and os.fstat(lock).st_nlink else None


def _lock_level(path: str, exclusive: bool, held: contextlib.ExitStack) -> int:
    """The directory at the path, open and locked until `held` ends."""
    while True:
        with contextlib.ExitStack() as level:
            folder = _try_level(path, exclusive, level)
            if folder is not None:
                held.enter_context(level.pop_all())
                return folder


@contextlib.contextmanager
def folder_lock(paths: Sequence[str], *, exclusive: bool = False) -> Iterator[int]:
    """Locks a folder, which is the last of the paths, and those above it, the top one first; gives
    the descriptor of the folder's directory. Exclusive: the folder's own lock is.

    On a file system that several machines may have, a file in the folder takes the directory's
    place."""
    with contextlib.ExitStack() as held:
        fd = -1
        for path in paths:
            fd = _lock_level(path, exclusive and path is paths[-1], held)
        yield fd
