"""The locks that keep deliveries, removals and recounts of a folder apart, as the tsmail command
takes them (docs/architecture.md)."""

import contextlib
import fcntl
import os
import time
from collections.abc import Iterator, Sequence

SHORTEST_PAUSE, LONGEST_PAUSE = 0.001, 0.02  # seconds


def _try(fd: int, operation: int) -> bool:
    """Takes a lock; False if another has it."""
    try:
        fcntl.flock(fd, operation | fcntl.LOCK_NB)
        return True
    except BlockingIOError:
        return False


class _Gate:
    """A lock on the folder's tmp in front of the folder's own. It is held exclusively while the
    exclusive lock is waited for, and shared for the moment in which a shared one is tried: so
    deliveries that overlap do not keep out who waits for the exclusive one. A folder without tmp
    has no gate."""

    def __init__(self, folder: int) -> None:
        self._closed = False
        try:
            self._fd = os.open("tmp", os.O_RDONLY | os.O_DIRECTORY, dir_fd=folder)
        except OSError:
            self._fd = -1

    def __enter__(self) -> "_Gate":
        return self

    def __exit__(self, *_: object) -> None:
        if self._fd >= 0:
            os.close(self._fd)

    def try_shared(self, folder: int) -> bool:
        if self._fd >= 0 and not _try(self._fd, fcntl.LOCK_SH):
            return False
        try:
            return _try(folder, fcntl.LOCK_SH)
        finally:
            if self._fd >= 0:
                fcntl.flock(self._fd, fcntl.LOCK_UN)

    def try_exclusive(self, folder: int) -> bool:
        self._closed = self._closed or self._fd < 0 or _try(self._fd, fcntl.LOCK_EX)
        return self._closed and _try(folder, fcntl.LOCK_EX)


def _acquire(folder: int, exclusive: bool) -> None:
    with _Gate(folder) as gate:
        attempt = gate.try_exclusive if exclusive else gate.try_shared
        pause = SHORTEST_PAUSE
        while not attempt(folder):
            time.sleep(pause)
            pause = min(2 * pause, LONGEST_PAUSE)


def _stands_at(path: str, fd: int) -> bool:
    try:
        return os.path.samestat(os.stat(path), os.fstat(fd))
    except FileNotFoundError:
        return False


def _locked(path: str, exclusive: bool) -> int:
    """The directory at the path, open and locked. One that went away while it was waited for is
    passed over."""
    while True:
        fd = os.open(path, os.O_RDONLY | os.O_DIRECTORY)
        try:
            _acquire(fd, exclusive)
            if _stands_at(path, fd):
                return fd
        except BaseException:
            os.close(fd)
            raise
        os.close(fd)


@contextlib.contextmanager
def folder_lock(paths: Sequence[str], *, exclusive: bool = False) -> Iterator[int]:
    """Locks a folder, which is the last of the paths, and those above it, the top one first; gives
    the descriptor of the folder's directory. Exclusive: the folder's own lock is."""
    with contextlib.ExitStack() as held:
        fd = -1
        for path in paths:
            fd = _locked(path, exclusive and path is paths[-1])
            held.callback(os.close, fd)
        yield fd
