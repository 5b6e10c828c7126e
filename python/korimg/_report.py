"""Events of a job on their way to whom they concern."""

from __future__ import annotations

import logging
import warnings
from collections.abc import Callable

from ._errors import KorimgWarning, in_python

#: Is called with a title, steps that are done, and all steps.
ProgressCallback = Callable[[str, int, int], object]

_log = logging.getLogger("korimg")
_NOTE, _DETAIL, _PROGRESS, _RESULT, _WARNING, _FAILURE = range(6)


class Report:
    """Hands events on: notes to the logger "korimg", warnings to `warnings`, progress to a callback.

    ``failures``, ``notes`` and ``results`` hold the lines and the data of what was told.
    """

    def __init__(self, progress: ProgressCallback | None = None) -> None:
        self._progress = progress
        self.failures: list[str] = []
        self.notes: list[str] = []
        self.results: list[str] = []

    def __call__(self, kind: int, text: str, data: str, step: int, total: int, detail: str) -> None:
        text = in_python(text)
        if kind == _PROGRESS:
            if self._progress is not None and total > 0:
                self._progress(text, step, total)
        elif kind == _WARNING:
            warn(text)
        elif kind == _FAILURE:
            _log.error(text)
            self.failures.append(text)
        elif kind == _DETAIL:
            _log.debug(text)
        else:
            if text:
                _log.info(text)
                self.notes.append(text)
            if data:
                self.results.append(data)


def warn(text: str) -> None:
    """Warns, as from the line of the user's that called."""
    import os
    import sys

    here = os.path.dirname(__file__)
    depth, frame = 1, sys._getframe(0)
    while frame.f_back is not None and frame.f_code.co_filename.startswith(here):
        frame, depth = frame.f_back, depth + 1
    warnings.warn(text, KorimgWarning, stacklevel=depth)


