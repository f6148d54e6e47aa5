"""Mail storage of the Tessaly mail appliance.

    >>> import tsmail
    >>> box = tsmail.Mailbox("Ann+Work@Site.Test")
    >>> box.mail
    '/var/spool/home/site.test/ann~site.test/mail'
    >>> box.drop().name
    'Work'

Wherever a path, a name or an address goes, str, bytes and os.PathLike do; answers are str, in which
bytes that the file system's encoding does not know are surrogates. A failure is an OSError, or the
subclass that belongs to its errno. What the library does not report, the package cannot either:
where that is so, the docstring says it. Other threads run during every call that touches a file.

The part of a docstring behind "From NAME:" is what the C headers say about NAME.
"""

from ._core import NoLayoutError, UnknownTotalsError
from .addresses import AddressList, ListScope
from .folders import Folder, ScanFlag, Total, visit, walk
from .identity import FileKind, Mailbox, MailboxType
from .messages import MessageName, queue_id
from .preferences import Preferences
from .quota import QuotaFlags

__all__ = ["AddressList", "FileKind", "Folder", "ListScope", "Mailbox", "MailboxType",
           "MessageName", "NoLayoutError", "Preferences", "QuotaFlags", "ScanFlag", "Total",
           "UnknownTotalsError", "queue_id", "visit", "walk"]
