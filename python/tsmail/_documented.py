"""Docstrings of the package's own functions, completed by those of the functions that they call."""

from collections.abc import Callable
from typing import Any, TypeVar

Documented = TypeVar("Documented", bound=Callable[..., Any])


def _library_part(docstring: str | None) -> str:
    """A docstring from its first "From NAME:" on."""
    begin = (docstring or "").find("\n\nFrom ")
    return "" if begin < 0 else (docstring or "")[begin:]


def from_library(*functions: object) -> Callable[[Documented], Documented]:
    """A decorator that adds what the headers say about the functions that are called."""
    def complete(function: Documented) -> Documented:
        parts = dict.fromkeys(_library_part(each.__doc__) for each in functions)
        function.__doc__ = (function.__doc__ or "") + "".join(parts)
        return function
    return complete
