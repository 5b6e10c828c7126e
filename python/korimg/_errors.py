"""What goes wrong: errors that say what to do, and warnings."""

from __future__ import annotations

import re
from typing import Any


def in_python(text: str) -> str:
    """Names options as Python does where a text names them as the command line does: --max-fwhm."""
    return re.sub(r"(?<![\w-])--([a-z]+(?:-[a-z]+)*)", lambda option: option[1].replace("-", "_"), text)


class Error(Exception):
    """Whatever goes wrong in korimg. The text is one line that says what to do."""

    def __init__(self, text: str) -> None:
        super().__init__(in_python(text))


class UsageError(Error, ValueError):
    """The call itself is wrong. The text says what to give instead."""


class FileError(Error, OSError):
    """A file or folder cannot be read, written, or used for this: the one named by ``filename``."""

    def __init__(self, text: str, filename: str | None = None) -> None:
        super().__init__(text)
        self.filename = filename or None

    def __str__(self) -> str:
        return str(self.args[0])

    def __reduce__(self) -> Any:
        return type(self), (self.args[0], self.filename)


class OutOfMemoryError(Error, MemoryError):
    """There is no room in memory."""


class Cancelled(Error):
    """The work was ended before it was done."""


class IncompleteError(Error):
    """Part of what was asked for could not be done; the rest is there, in ``result``.

    ``failures`` has a line for each part that failed.
    """

    def __init__(self, failures: list[str], result: object) -> None:
        super().__init__("; ".join(failures))
        self.failures = failures
        self.result = result

    def __reduce__(self) -> Any:
        return type(self), (self.failures, self.result)


class KorimgWarning(UserWarning):
    """Something that was found on the way and may not be wanted."""
