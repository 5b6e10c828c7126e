"""Image processing for astronomy: arrays in, arrays out.

`korimg.ops` has the operations; the functions here go from the frames of a night to a finished picture.
"""

from __future__ import annotations

from . import _core
from ._core import Header
from ._errors import (
    Cancelled,
    Error,
    FileError,
    IncompleteError,
    KorimgWarning,
    OutOfMemoryError,
    UsageError,
)
from ._files import read, write
from ._images import Image
from ._measures import PsfMeasure, find_stars, measure_psf
from ._sessions import RunResult, plan_run, run, simulate

__version__: str = _core.version()

__all__ = [
    "Cancelled",
    "Error",
    "FileError",
    "Header",
    "Image",
    "IncompleteError",
    "KorimgWarning",
    "OutOfMemoryError",
    "PsfMeasure",
    "RunResult",
    "UsageError",
    "find_stars",
    "measure_psf",
    "ops",
    "plan_run",
    "read",
    "run",
    "simulate",
    "write",
]


def __getattr__(name: str) -> object:
    # Half of the time of an import, for those who do not call operations.
    if name == "ops":
        import importlib

        return importlib.import_module("korimg.ops")
    raise AttributeError(f"module 'korimg' has no attribute {name!r}")
