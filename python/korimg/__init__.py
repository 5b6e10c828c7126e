"""Image processing for astronomy: arrays in, arrays out.

`korimg.ops` has the operations; the functions here go from the frames of a night to a finished picture.
"""

from __future__ import annotations

from . import _core
from ._core import Header
from ._calibrate import (
    CalibratedLight,
    DevelopedFrame,
    calibrate,
    calibrate_files,
    develop,
    develop_files,
)
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
from ._pictures import compose, compose_files, render, render_file
from ._register import Registration, Registrations, register
from ._sessions import RunFrame, RunPlan, RunResult, RunStack, plan_run, run, simulate
from ._stack import Stack, StackedFrame, StackFiles, stack, stack_files

__version__: str = _core.version()

__all__ = [
    "CalibratedLight",
    "Cancelled",
    "DevelopedFrame",
    "Error",
    "FileError",
    "Header",
    "Image",
    "IncompleteError",
    "KorimgWarning",
    "OutOfMemoryError",
    "PsfMeasure",
    "Registration",
    "Registrations",
    "RunFrame",
    "RunPlan",
    "RunResult",
    "RunStack",
    "Stack",
    "StackFiles",
    "StackedFrame",
    "UsageError",
    "calibrate",
    "calibrate_files",
    "compose",
    "compose_files",
    "develop",
    "develop_files",
    "distributed",
    "find_stars",
    "measure_psf",
    "ops",
    "plan_run",
    "read",
    "register",
    "render",
    "render_file",
    "run",
    "simulate",
    "stack",
    "stack_files",
    "write",
]


def __getattr__(name: str) -> object:
    # Operations take half of the time of an import, and Dask far more: for those who use them.
    if name in ("distributed", "ops"):
        import importlib

        return importlib.import_module(f"korimg.{name}")
    raise AttributeError(f"module 'korimg' has no attribute {name!r}")
