"""Quota flags, notices, the archive's share."""

import os

from . import _core
from ._documented import from_library
from ._text import Text

__all__ = ["QuotaFlags", "archive_gibibytes_left", "send_notice"]


class QuotaFlags:
    """The flags of an ordinary user, and of an archive account, as properties.

    Each property asks or writes the flag's file. The library does not tell of failures: a flag that
    cannot be written stays as it was, and reads accordingly.
    """

    __slots__ = ("user",)

    def __init__(self, user: Text) -> None:
        self.user = os.fsdecode(user)

    def __repr__(self) -> str:
        return f"{type(self).__name__}({self.user!r})"

    @property
    @from_library(_core.quota_exceeded, _core.set_quota_exceeded)
    def exceeded(self) -> int:
        """The number in the exceeded flag; 0 without one."""
        return _core.quota_exceeded(self.user)

    @exceeded.setter
    def exceeded(self, value: int) -> None:
        _core.set_quota_exceeded(self.user, value)

    @property
    @from_library(_core.quota_warning, _core.set_quota_warning)
    def warning(self) -> int:
        """The number in the warning flag; 0 without one."""
        return _core.quota_warning(self.user)

    @warning.setter
    def warning(self, value: int) -> None:
        _core.set_quota_warning(self.user, value)

    @property
    @from_library(_core.archive_exceeded, _core.set_archive_exceeded, _core.unset_archive_exceeded)
    def archive_exceeded(self) -> bool:
        """Whether the archive account's flag is set."""
        return _core.archive_exceeded(self.user) != 0

    @archive_exceeded.setter
    def archive_exceeded(self, flag: bool) -> None:
        (_core.set_archive_exceeded if flag else _core.unset_archive_exceeded)(self.user)


@from_library(_core.send_quota_notice)
def send_notice(from_: Text | None = None, to: Text | None = None, subject: Text | None = None,
                body: Text | None = None) -> int:
    """Mails a quota notice. The exit code of the submission program, negative for a signal that
    killed it (as of subprocess), 127 if there is none."""
    return os.waitstatus_to_exitcode(_core.send_quota_notice(from_, to, subject, body))


@from_library(_core.archive_gibibytes_left)
def archive_gibibytes_left(exclude: Text | None = None) -> int:
    """The gibibytes that may still be given to archive accounts; `exclude` names an account whose
    own quota does not count."""
    return _core.archive_gibibytes_left(exclude)
