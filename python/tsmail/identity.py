"""Mailboxes: who they belong to, where everything of them lies, and their totals."""

import enum
from collections.abc import Iterator

from . import _core
from ._documented import from_library
from ._text import Text
from .addresses import AddressList, ListScope
from .folders import Folder, Total, walk
from .preferences import Preferences
from .quota import QuotaFlags

__all__ = ["FileKind", "Mailbox", "MailboxType", "delete_user_file", "demand_recount", "user_file"]


class MailboxType(enum.IntEnum):
    """The kinds of mailbox."""
    NONE = 0
    USER = 1
    DEAD_LETTER = 2
    SYSTEM_ARCHIVE = 3
    QUARANTINE = 4
    SECURE_STORE = 5
    USER_UNTYPED = 6
    EXTERNAL = 7
    GIVEN_PATH = 8
    DIRECT = 9
    DEFERRED = 10
    GIVEN_PATH_2 = 11
    LOCAL = 12


class FileKind(enum.IntEnum):
    """The kinds of file that a user has."""
    WHITELIST = 0
    BLACKLIST = 1
    BLOCKLIST = 2
    MAILPATH = 4
    PREFPATH = 5
    MAILDROP = 6
    QUOTA_WARNING_FLAG = 7
    QUOTA_EXCEEDED_FLAG = 8
    BULK = 10
    HOMEPATH = 11
    HOME_PARENT = 12
    PRIMARY_ADDR = 13
    SECONDARY_ADDR = 14
    PREF_FILE = 15
    INBOX_ARCHIVE = 17
    INBOX = 18
    INBOX_INDEX = 19
    BULK_ARCHIVE = 20
    BULK_FOLDER = 21
    BULK_INDEX = 22
    QUOTA_EXCEEDED_FLAG_2 = 23
    EMAILTAG = 24
    CALENDARTAG = 25
    TRASH = 26
    CALENDAR = 27
    ALERT_NOTIFICATION = 28
    WEBDAV = 29
    LOCAL_HOMEPATH = 30
    FAVORLIST = 31


class Mailbox(_core.Identity):
    """A mailbox by an address, or by a type and a text. A value: nothing of it changes, and it may
    be shared between threads. Making one touches no file.

    Paths are str; what bytes in them the file system's encoding does not know are surrogates, as
    os.fsdecode makes them. A direct mailbox has no paths: NoLayoutError.
    """

    def __repr__(self) -> str:
        text = self.tilde_name if self.type in _NAMED_BY_TEXT else self.address
        return f"{type(self).__name__}({text!r}, MailboxType.{self.type.name})"

    @property
    @from_library(_core.Identity.type_number)
    def type(self) -> MailboxType:
        """The kind of mailbox."""
        return MailboxType(self.type_number)

    @from_library(_core.Identity._parse)
    def parsed(self, text: Text) -> "Mailbox":
        """The mailbox of another address. What the address lacks is taken from this one."""
        other = Mailbox(self)
        other._parse(text)
        return other

    @from_library(_core.Identity._init)
    def initialised(self, text: Text) -> "Mailbox":
        """The mailbox of another text, read as its type demands."""
        other = Mailbox(self)
        other._init(text)
        return other

    @from_library(_core.Identity._set_type)
    def with_type(self, type: MailboxType) -> "Mailbox":
        """The mailbox of the same name with another type's paths."""
        other = Mailbox(self)
        other._set_type(type)
        return other

    # ---- Folders --------------------------------------------------------------------------------

    def folder(self, name: Text = "Inbox") -> Folder:
        """A mail folder, which need not exist."""
        return Folder(self.folder_path(name))

    def drop(self, name: Text = "") -> Folder:
        """The folder that mail goes to: `name` if not empty, else that of the tag, else Inbox."""
        return Folder(self.drop_path(name))

    @from_library(_core.walk)
    def folders(self) -> Iterator[Folder]:
        """All mail folders, each before those below it; see tsmail.folders.walk."""
        return walk(self.mail)

    @from_library(_core.make_mail_directory)
    def make_mail_directory(self, create: bool = True) -> bool:
        """Makes the maildir root of an ordinary user; whether it is there."""
        return _core.make_mail_directory(self.bare_address, create)

    @from_library(_core.make_pref_directory)
    def make_pref_directory(self, create: bool = True) -> bool:
        """Makes the preference directory of an ordinary user; whether it is there."""
        return _core.make_pref_directory(self.bare_address, create)

    # ---- Totals ---------------------------------------------------------------------------------

    @from_library(_core.read_mailbox_size)
    def size(self) -> Total:
        """The kept total. UnknownTotalsError if it waits for a recount or its file is damaged."""
        return Total(*_core.read_mailbox_size(self.mail))

    @from_library(_core.distrust_sizes_by_path)
    def demand_recount(self) -> None:
        """Marks the kept totals as untrusted until somebody recounts. OSError if the mailbox is not
        there; distrust_sizes() says nothing then."""
        _core.distrust_sizes_by_path(self.mail)

    # ---- What else belongs to a mailbox ---------------------------------------------------------

    @property
    def quota(self) -> QuotaFlags:
        """The flags of the ordinary user of this address."""
        return QuotaFlags(self.bare_address)

    def preferences(self, *, missing_ok: bool = False) -> Preferences:
        """The preferences of the ordinary user of this address, read now."""
        return Preferences.of(self.bare_address, missing_ok=missing_ok)

    def list(self, name: Text, scope: ListScope = ListScope.USER) -> AddressList:
        """An address list of the ordinary user of this address."""
        return AddressList(self.bare_address, name, scope)


_NAMED_BY_TEXT = {MailboxType.DEAD_LETTER, MailboxType.GIVEN_PATH, MailboxType.GIVEN_PATH_2,
                  MailboxType.DEFERRED, MailboxType.DIRECT}


@from_library(_core.user_file)
def user_file(kind: FileKind, address: Text) -> str:
    """The path of a file of an ordinary user."""
    return _core.user_file(kind, address)


@from_library(_core.distrust_sizes_by_user)
def demand_recount(address: Text) -> None:
    """Marks the kept totals of an ordinary user as untrusted until somebody recounts."""
    _core.distrust_sizes_by_user(address)


@from_library(_core.delete_user_file)
def delete_user_file(kind: FileKind, address: Text) -> None:
    """Removes what a file kind names for a user."""
    _core.delete_user_file(kind, address)
