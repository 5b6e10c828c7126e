"""Stars and what they tell of an image."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any

import numpy as np

from . import _core
from ._apply import bytes_of
from ._errors import UsageError
from ._images import ImageLike, take
from ._report import Report


@dataclass(frozen=True)
class PsfMeasure:
    """What the stars of an image say of its point spread function, and the sky about them.

    Attributes
    ----------
    stars : int
        Stars that were found.
    fwhm : float
        Full width at half maximum of the usual star, pixels; 0 without any.
    elongation : float
        Its longer axis over its shorter one.
    guide_error : float or None
        How many times as long as wide stars are, drawn out all in one direction; None where too few tell.
    sky, noise : float
        Level and standard deviation of the sky, raw values.
    gain : float
        Electrons of a raw value that the noise of a star's light was taken by; 0: not known.
    """

    stars: int
    fwhm: float
    elongation: float
    guide_error: float | None
    sky: float
    noise: float
    gain: float


def _find(image: ImageLike, sigmas: float, gain: float | None, memory: int | str | None) -> dict[str, Any]:
    if not sigmas > 0 or (gain is not None and not gain > 0):
        raise UsageError(f"sigmas={sigmas} and gain={gain}: write numbers above 0")
    taken = take(image)
    return _core.find_stars(taken.data, taken.levels, taken.header, sigmas, gain, bytes_of(memory), Report())


def find_stars(
    image: ImageLike, *, sigmas: float = 5.0, gain: float | None = None, memory: int | str | None = None
) -> np.ndarray:
    """Finds and measures the stars of an image.

    Parameters
    ----------
    image : image-like
        Of one plane or three; it stays as it is. Masked and NaN pixels are no sky and no stars.
    sigmas : float, optional
        Of the sky's noise, that stars exceed.
    gain : float, optional
        Electrons of a raw value, for the noise of a star's own light; as the header says unless told.
    memory : int or str, optional
        Bytes for pixels, as in "2G".

    Returns
    -------
    numpy.ndarray
        A structured array, a row for each star in order of falling flux: ``x``, ``y`` (pixels, centres at
        whole numbers, the first row on top), ``flux``, ``peak`` and ``sky`` (raw values), ``noise``, ``snr``,
        ``fwhm`` (pixels), ``elongation``, and the flags ``saturated``, ``edge`` and ``blended``.
        ``astropy.table.Table(stars)`` makes a table of it.
    """
    stars: np.ndarray = _find(image, sigmas, gain, memory)["stars"]
    return stars


def measure_psf(
    image: ImageLike, *, sigmas: float = 5.0, gain: float | None = None, memory: int | str | None = None
) -> PsfMeasure:
    """Measures the point spread function of an image by its stars.

    The parameters are those of `find_stars`.
    """
    found = _find(image, sigmas, gain, memory)
    stars = len(found.pop("stars"))
    return PsfMeasure(stars=stars, **found)
