"""The preferences of a user."""

import enum
from collections.abc import Iterator, Mapping
from typing import NamedTuple

from . import _core
from ._documented import from_library
from ._text import Text

__all__ = ["PREFERENCES", "Preference", "PreferenceType", "Preferences", "user_timezone"]

Value = int | bool | str


class PreferenceType(enum.IntEnum):
    """What a preference holds."""
    INT = 0
    BOOL = 1
    STRING = 2
    UINT16 = 3


class Preference(NamedTuple):
    """What a key stands for: its type, and in how many bytes a text with its end must fit."""
    key: str
    type: PreferenceType
    size: int

    @property
    def range(self) -> range | None:
        """The numbers that it takes; None for a text."""
        ends = {PreferenceType.INT: range(-2**31, 2**31), PreferenceType.BOOL: range(2),
                PreferenceType.UINT16: range(2**16)}
        return range(-2**31, 101) if self.key == "npage" else ends.get(self.type)


PREFERENCES: Mapping[str, Preference] = {
    key: Preference(key, PreferenceType(kind), size)
    for key, (kind, size) in _core.PREFERENCES.items()}


class Preferences(Mapping[str, Value]):
    """The preferences in memory, a mapping from keys to int, bool and str in the file's order.

    A key's value can be assigned. One that would not come back as it is when it was stored and read
    (out of range, too long, with a line break, with white space at its end) raises ValueError, one
    of a wrong type TypeError, an unknown key KeyError; the value then stays. PREFERENCES describes
    the keys.
    """

    __slots__ = ("_record",)

    @from_library(_core.PreferenceRecord.defaults)
    def __init__(self, values: Mapping[str, Value] | None = None, *,
                 system_timezone: bool = False) -> None:
        """The defaults, by request with the system's time zone, then what `values` has."""
        self._record = _core.PreferenceRecord.defaults(system_timezone)
        self.update(values or {})

    @classmethod
    @from_library(_core.PreferenceRecord.read_all)
    def of(cls, user: Text, *, missing_ok: bool = False) -> "Preferences":
        """The defaults with a user's file applied. OSError if there is none, or, with missing_ok,
        the defaults alone."""
        preferences = cls()
        try:
            preferences._record.read_all(user)
        except FileNotFoundError:
            if not missing_ok:
                raise
        return preferences

    @from_library(_core.PreferenceRecord.read)
    def read(self, user: Text) -> None:
        """Applies a user's file; what it does not mention keeps its value."""
        self._record.read(user)

    @from_library(_core.PreferenceRecord.store)
    def store(self, user: Text) -> None:
        """Writes all preferences to a user's file, which is made if missing."""
        self._record.store(user)

    @from_library(_core.PreferenceRecord.fill)
    def apply(self, content: bytes) -> None:
        """Applies the content of a preference file."""
        self._record.fill(content)

    @from_library(_core.PreferenceRecord.parse_line)
    def apply_line(self, line: Text) -> None:
        """Applies one line of a preference file; a line that is none changes nothing."""
        self._record.parse_line(line)

    @from_library(_core.PreferenceRecord.line)
    def line(self, key: str) -> str:
        """The line that a store writes for a key."""
        return self._record.line(key)

    def copy(self) -> "Preferences":
        """The same values, independent of these."""
        other = type(self)()
        other._record = self._record.copy()
        return other

    def update(self, values: Mapping[str, Value]) -> None:
        """Assigns all the values, or none if one is refused."""
        changed = self._record.copy()
        for key, value in values.items():
            changed.set(key, value)
        self._record = changed

    def reset(self, key: str) -> None:
        """Gives a key its default."""
        self._record.set(key, _core.PreferenceRecord.defaults().get(key))

    def __getitem__(self, key: str) -> Value:
        return self._record.get(key)

    @from_library(_core.PreferenceRecord.set)
    def __setitem__(self, key: str, value: Value | bytes) -> None:
        """Assigns a value that will come back as it is."""
        self._record.set(key, value)

    def __contains__(self, key: object) -> bool:
        return key in PREFERENCES

    def __iter__(self) -> Iterator[str]:
        return iter(PREFERENCES)

    def __len__(self) -> int:
        return len(PREFERENCES)

    def __repr__(self) -> str:
        return f"{type(self).__name__}({dict(self)!r})"


@from_library(_core.user_timezone)
def user_timezone(user: Text) -> int:
    """The number of a user's time zone."""
    return _core.user_timezone(user)
