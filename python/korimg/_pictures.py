"""Colours, and pictures for people."""

from __future__ import annotations

import os
from collections.abc import Sequence
from typing import Any

import numpy as np

from . import _core
from ._apply import bytes_of
from ._errors import IncompleteError, UsageError
from ._images import ImageLike, source, take
from ._report import ProgressCallback, Report


def compose(
    colours: ImageLike | Sequence[ImageLike],
    luminance: ImageLike | None = None,
    *,
    composition: str = "auto",
    register: bool = True,
    crop: bool = True,
    levels: str = "auto",
    background: str = "keep",
    kernel: str = "bicubic",
    memory: int | str | None = None,
    progress: ProgressCallback | None = None,
) -> Any:
    """Makes a colour image of exposures through filters.

    Parameters
    ----------
    colours : sequence of three image-like, or image-like
        Exposures through red, green and blue filters (cyan, magenta and yellow), of any sizes, or one image in
        colour. For "lab", an image of the planes a and b.
    luminance : image-like, optional
        An exposure without a filter, or of a narrow band, whose brightness the result has; its colours are
        those of the others.
    composition : {"auto", "rgb", "cmy", "lrgb", "lab"}
        "auto" is "lrgb" with a luminance, and "rgb" without.
    register : bool
        Lays all on the luminance, else on the first, by their stars or by phase.
    crop : bool
        Keeps the largest rectangle that all of them reach, in the place of the first one's size.
    levels : {"auto", "source", "sky"}
        Black and white, by which colours meet a luminance.
    background : {"keep", "equal"}
        "equal" brings the sky of each colour to that of the first one.
    kernel : str
        How sources are read between their pixels.
    memory : int or str, optional
        Bytes for pixels beside the images, as in "2G".
    progress : callable, optional
        Is called as ``progress(title, step, total)``; what it raises ends the work.

    Returns
    -------
    image
        float32 of the shape (3, rows, columns), of the first source's kind.

    Raises
    ------
    UsageError, FileError
        For a number of images that does not suit, and for one that cannot be laid on the first.
    """
    several = isinstance(colours, Sequence) and not isinstance(colours, (str, os.PathLike))
    wanted = list(colours) if several else [colours]  # type: ignore[arg-type]
    if composition == "auto":
        composition = "rgb" if luminance is None else "lrgb"
    names = ["red", "green", "blue"] if len(wanted) == 3 else ["the colours"] * len(wanted)
    if luminance is not None:
        wanted, names = [luminance, *wanted], ["luminance", *names]
    taken = [take(image) for image in wanted]
    made = _core.compose([source(image, name) for image, name in zip(taken, names)],
                         {"composition": composition, "register": register, "crop": crop, "levels": levels,
                          "background": background, "kernel": kernel},
                         bytes_of(memory), Report(progress), progress is not None)
    first = taken[0]
    return first.give(made["pixels"], made["levels"], made["header"] if first.header is not None else None, True)


def compose_files(
    colours: str | os.PathLike[str] | Sequence[str | os.PathLike[str]],
    luminance: str | os.PathLike[str] | None = None,
    *,
    out: str | os.PathLike[str],
    composition: str = "auto",
    register: bool = True,
    crop: bool = True,
    levels: str = "auto",
    background: str = "keep",
    kernel: str = "bicubic",
    integers: bool = False,
    memory: int | str | None = None,
    overwrite: bool = False,
    progress: ProgressCallback | None = None,
) -> None:
    """Makes a colour image of exposures through filters, from files to a file.

    Parameters are those of `compose`, and of `stack_files`.

    Parameters
    ----------
    out : path
        FITS, TIFF or PNG, by its extension.
    integers : bool
        16 bits in the place of floats.

    Raises
    ------
    UsageError, FileError
        As `compose` does, and for outputs that are there.
    """
    if composition == "auto":
        composition = "rgb" if luminance is None else "lrgb"
    files = [colours] if isinstance(colours, (str, os.PathLike)) else list(colours)
    values: dict[str, Any] = {
        "colours": [os.fspath(name) for name in files],
        "luminance": None if luminance is None else os.fspath(luminance), "out": os.fspath(out),
        "composition": composition, "register": register, "crop": crop, "levels": levels,
        "background": background, "kernel": kernel, "integers": integers}
    report = Report(progress)
    _core.compose_files(values, bytes_of(memory), overwrite, f"korimg.compose_files(out={os.fspath(out)!r})",
                        report, progress is not None)
    if report.failures:
        raise IncompleteError(report.failures, None)


def render(
    image: ImageLike,
    *,
    level: str = "auto",
    scale: float = 1.0,
    title: str = "",
    scale_bar: bool = False,
    memory: int | str | None = None,
) -> np.ndarray:
    """Makes a picture of an image, as it is shown to people.

    Parameters
    ----------
    image : image-like
        It stays as it is.
    level : {"auto", "linked", "normal", "mean", "median", "histogram", "none"}
        "auto" stretches the midtones of a linear image so that its sky is a dark grey; "linked" the same
        without a neutral sky; "normal", "mean", "median" and "histogram" set black and white; "none" takes the
        image's own levels.
    scale : float
        1, or a fraction, rounded to one over a whole number.
    title : str
        Text in the upper left corner.
    scale_bar : bool
        A bar of a round angle, by the world coordinates of the header.
    memory : int or str, optional
        Bytes for pixels beside the image, as in "2G".

    Returns
    -------
    numpy.ndarray
        uint8 of the shape (rows, columns), or (rows, columns, 3) of red, green and blue: as matplotlib's
        ``imshow`` and Pillow take it, the first row as the image has it.

    Raises
    ------
    UsageError, FileError
        For values out of range, and for a scale bar where the scale is not known.
    """
    taken = take(image)
    return _core.render(source(taken, "the image"),
                        {"level": level, "scale": scale, "title": title, "scale_bar": scale_bar},
                        bytes_of(memory), Report())


def render_file(
    image: str | os.PathLike[str],
    *,
    out: str | os.PathLike[str],
    level: str = "auto",
    scale: float = 1.0,
    annotate: bool = False,
    title: str = "",
    scale_bar: bool = False,
    stars: str | os.PathLike[str] | None = None,
    memory: int | str | None = None,
    overwrite: bool = False,
    progress: ProgressCallback | None = None,
) -> None:
    """Makes a picture of an image file, upright by its header, as the command ``korimg render`` does.

    Parameters are those of `render`, and these:

    Parameters
    ----------
    out : path
        PNG, TIFF or JPEG of 8 bits, by its extension.
    annotate : bool
        Draws the name of the object, and a scale bar where the scale is known.
    stars : path, optional
        A list of circles to draw, "x y radius" on each line.

    Raises
    ------
    UsageError, FileError
        As `render` does, and for outputs that are there.
    """
    if not 0.001 <= scale <= 1:
        raise UsageError(f"scale={scale} is not from 0.001 to 1")
    report = Report(progress)
    _core.render_file({"image": os.fspath(image), "out": os.fspath(out), "level": level, "scale": scale,
                       "annotate": annotate, "title": title, "scale_bar": scale_bar,
                       "stars": None if stars is None else os.fspath(stars)},
                      bytes_of(memory), overwrite, report, progress is not None)
    if report.failures:
        raise IncompleteError(report.failures, None)
