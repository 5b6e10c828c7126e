"""How frames lie on each other."""

from __future__ import annotations

import json
import os
from collections.abc import Iterable
from dataclasses import dataclass
from typing import Any

from . import _core
from ._apply import bytes_of
from ._errors import IncompleteError, UsageError
from ._images import ImageLike, is_path, source, take
from ._report import ProgressCallback, Report


@dataclass(frozen=True)
class Registration:
    """How a frame comes to lie on the reference.

    It is turned by ``degrees``, clockwise on the screen with the first row on top, about the point
    (width / 2, height / 2), and then shifted by ``dx`` pixels to the right and ``dy`` down. A frame that this
    does not lay has a ``map``: straightened by its lens, moved by the matrix of a homography, bent by the
    reference's lens.

    Attributes
    ----------
    file : str
        The frame: its file, or "image 0" and so on.
    stars : int
        That it was laid by.
    residual : float
        Pixels that they are off, root mean square.
    fwhm : float
        Of the frame's stars, pixels.
    flux_ratio : float or None
        Of its stars' light to that of the same ones on the reference.
    method : str
        "reference", "stars", "disc", "phase", "place" or "wcs".
    status, note : str
        "ok", or why the frame does not lie on the reference.
    """

    file: str = ""
    dx: float = 0.0
    dy: float = 0.0
    degrees: float = 0.0
    stars: int = 0
    residual: float = 0.0
    fwhm: float = 0.0
    flux_ratio: float | None = None
    method: str = ""
    status: str = "ok"
    note: str = ""
    map: dict[str, Any] | None = None

    @property
    def is_good(self) -> bool:
        """The frame lies on the reference."""
        return self.status == "ok"

    @property
    def is_still(self) -> bool:
        """The frame lies as the reference does."""
        return self.map is None and self.dx == self.dy == self.degrees == 0

    @classmethod
    def from_json(cls, text: str) -> Registration:
        """Takes an object of JSON, as ``korimg register --json`` writes it."""
        values = json.loads(text)
        values["residual"] = values.pop("residual_px", 0.0)
        return cls(**values)

    def to_json(self) -> str:
        """Gives an object of JSON in one line, as ``korimg stack --transforms`` takes it."""
        values = {**self.__dict__, "residual_px": self.residual}
        del values["residual"]
        if self.map is None:
            del values["map"]
        return json.dumps(values)


@dataclass(frozen=True)
class Registrations:
    """How frames lie on a reference.

    Attributes
    ----------
    reference : str
        Its file, or "image 0" and so on.
    frames : list of Registration
        One for each image, in their order; of files and folders, what cannot be read comes last.
    model : str
        For people: what the frames are laid by, and why.
    """

    reference: str
    frames: list[Registration]
    model: str


def register(
    images: Iterable[ImageLike],
    *,
    reference: int | ImageLike | None = None,
    sigmas: float = 5.0,
    residual: float = 1.0,
    model: str = "auto",
    by: str = "auto",
    lenses: str | os.PathLike[str] | None = None,
    memory: int | str | None = None,
    progress: ProgressCallback | None = None,
) -> Registrations:
    """Finds the stars of frames, and lays each frame on one of them.

    Parameters
    ----------
    images : sequence of image-like
        Images, or files and folders of files, of which only those at work are in memory.
    reference : int or image-like, optional
        The number of an image, or another one; the sharpest of the images unless told.
    sigmas : float
        Of the sky's noise, that stars exceed.
    residual : float
        Pixels that stars may be off by in the mean.
    model : {"auto", "rigid", "similarity", "affine", "homography", "distortion"}
        What lays frames: shift and turn, or more; "auto" takes the simplest that the stars do not refute.
    by : {"auto", "stars", "wcs"}
        Stars, or the light of frames without them; world coordinates; "auto" takes these for what stars do not
        lay.
    lenses : path, optional
        A library of lenses, which gets the distortion that stars tell, and serves frames of few stars.
    memory : int or str, optional
        Bytes for pixels beside the images, as in "2G".
    progress : callable, optional
        Is called as ``progress(title, step, total)``; what it raises ends the work.

    Returns
    -------
    Registrations

    Raises
    ------
    UsageError, FileError
        For values out of range, and for a reference that cannot be read.
    IncompleteError
        When less than half of the frames lie on the reference, or none but itself; ``result`` has them.
    """
    frames = list(images)
    if not frames:
        raise UsageError("there is no image to register")
    values: dict[str, Any] = {"sigmas": sigmas, "residual": residual, "model": model, "by": by,
                              "lenses": None if lenses is None else os.fspath(lenses)}
    report = Report(progress)
    rest = (values, bytes_of(memory), report, progress is not None)
    number = reference if isinstance(reference, int) else None
    if number is not None and not 0 <= number < len(frames):
        raise UsageError(f"reference={number} is the number of no image: there are {len(frames)}")
    other = None if number is not None else reference
    files = [os.fspath(frame) for frame in frames if is_path(frame)]
    if len(files) == len(frames) and (other is None or is_path(other)):
        told = files[number] if number is not None else "" if other is None else os.fspath(other)
        found = _core.register_files(files, told, *rest)
        registrations = [Registration.from_json(text) for text in found["frames"]]
    else:
        sources = [source(take(frame), f"image {n}") for n, frame in enumerate(frames)]
        beside = None if other is None else source(take(other), "the reference")
        found = _core.register_arrays(sources, number, beside, *rest)
        registrations = [Registration.from_json(text) for text in found["frames"]]
        registrations.sort(key=lambda frame: int(frame.file.split()[1]))
    result = Registrations(found["reference"], registrations, found["model"])
    if report.failures:
        raise IncompleteError(report.failures, result)
    return result
