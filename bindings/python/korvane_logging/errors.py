"""The exceptions of the package."""

from __future__ import annotations


class LogError(Exception):
    """A call into libkorvane-logging failed; `message` is the library's text, unchanged."""

    def __init__(self, message: str) -> None:
        super().__init__(message)
        self.message = message

    def __str__(self) -> str:
        return self.message


class NotFoundError(LogError, KeyError):
    """A look-up found nothing: an entry, metadata key, resource or source property.

    It is also a KeyError, so the mapping views answer `in` and `.get()` as mappings do.
    """
