"""Image files: FITS, TIFF, PNG and camera raw."""

from __future__ import annotations

import os
from typing import Any

import numpy as np

from . import _core
from ._core import Header
from ._errors import UsageError
from ._images import Image, ImageLike, take
from ._report import ProgressCallback, Report


_NO_DATA = 1  # in docs/uncertainty.md


def _name(path: str | os.PathLike[str]) -> str:
    name = os.fspath(path)
    if "\0" in name:
        raise UsageError("a file's name has no NUL")
    return name


def read(
    path: str | os.PathLike[str], *, hdu: int | str | None = None, progress: ProgressCallback | None = None
) -> Image:
    """Reads an image file.

    Parameters
    ----------
    path : str or path-like
        FITS (plain, gzipped or tile-compressed), TIFF, PNG, or a camera raw file, whose mosaic is not
        developed.
    hdu : int or str, optional
        Number or name of the FITS extension to read; the first image that has pixels unless told.
    progress : callable, optional
        Is called as ``progress(title, step, total)``.

    Returns
    -------
    Image
        float32 of the physical values, the picture's upper row first as the file says it; blank pixels are
        NaN.

    Raises
    ------
    FileError
        When the file is missing, damaged, or of no known kind. It is an `OSError` with the file's name.
    """
    name = "" if hdu is None else str(hdu)
    found = _core.read(_name(path), name, Report(progress), progress is not None)
    image = Image(found["pixels"], found["header"], found["levels"], format=found["format"],
                  mosaic=found["mosaic"])
    if found["variance"] is not None:
        image.uncertainty = np.sqrt(found["variance"])
    if found["mask"] is not None:
        image.flags = flags = found["mask"].astype(np.uint8)
        image.data[(flags & _NO_DATA) != 0] = np.nan  # as masks by astropy say it
    return image


def write(
    path: str | os.PathLike[str],
    image: ImageLike,
    *,
    bits: str = "float",
    overwrite: bool = False,
    progress: ProgressCallback | None = None,
) -> None:
    """Writes an image file: to a temporary name first, which becomes the file once it is whole.

    Parameters
    ----------
    path : str or path-like
        FITS (.fits .fit .fts), TIFF or PNG, by its extension.
    image : image-like
        float32 is written as it is; masked pixels are NaN in the file. Header, levels, uncertainty and flags
        are written with an `Image`, header, unit and standard deviations with `CCDData`.
    bits : {"float", "16"}
        Floats, or whole numbers of 16 bits on a scale that the file tells. PNG has 16.
    overwrite : bool
        An existing file may be replaced.
    progress : callable, optional
        Is called as ``progress(title, step, total)``.

    Raises
    ------
    FileError
        When the file exists already, or cannot be written.
    """
    if bits not in ("float", "16"):
        raise UsageError(f"bits are 'float' or '16', not {bits!r}")
    taken = take(image)
    variance: Any = None
    flags: Any = None
    if taken.uncertainty is not None:
        variance = np.square(take(taken.uncertainty).data)
    if isinstance(image, Image) and image.flags is not None:
        flags = take(image.flags).data
    header = Header() if taken.header is None else taken.header.copy()
    if taken.unit is not None:
        header["BUNIT"] = str(taken.unit)
    _core.write(_name(path), taken.data, header, taken.levels, bits == "16", variance, flags, overwrite,
                Report(progress), progress is not None)
