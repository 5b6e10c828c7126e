"""Images of every kind: taken in as float32 arrays, and given back as what they were."""

from __future__ import annotations

import copy
import os
import re
import sys
from collections.abc import Sequence
from dataclasses import dataclass, field
from typing import Any, TypeGuard, Union

import numpy as np

from . import _core
from ._core import Header
from ._errors import UsageError
from ._report import warn

#: Black and white of each plane.
Levels = list[tuple[float, float]]

_LEFT_OUT = "uncertainties and flags are not carried along: they are left out"
_INTEGER_LEVELS: dict[Any, Levels] = {np.dtype(np.uint8): [(0.0, 255.0)], np.dtype(np.uint16): [(0.0, 65535.0)]}


@dataclass(eq=False)
class Image:
    """Pixels with what their file says of them.

    Attributes
    ----------
    data : numpy.ndarray
        float32 of the shape (rows, columns) or (planes, rows, columns), the first row on top; NaN where there
        is no data.
    header : Header
        The cards of the file's header.
    levels : list of (float, float)
        Raw values of black and white of each plane; empty: the extremes of the pixels.
    uncertainty : numpy.ndarray or None
        Standard deviation of each pixel, of the shape of the data.
    flags : numpy.ndarray or None
        Bits that say what is wrong with each pixel, as docs/uncertainty.md names them.
    format : str
        Of the file that it was read from, as in "FITS"; empty: none.
    mosaic : str
        Pattern of the colour filters, as in "RGGB"; empty: none.
    """

    data: np.ndarray
    header: Header = field(default_factory=Header)
    levels: Levels = field(default_factory=list)
    uncertainty: np.ndarray | None = None
    flags: np.ndarray | None = None
    format: str = ""
    mosaic: str = ""

    @property
    def shape(self) -> tuple[int, ...]:
        """Shape of the data."""
        return self.data.shape

    @property
    def mask(self) -> np.ndarray:
        """True where there is no data, or flags say that something is wrong."""
        none = np.isnan(self.data)
        return none if self.flags is None else none | (self.flags != 0)

    def __array__(self, dtype: Any = None) -> np.ndarray:
        return self.data if dtype is None else self.data.astype(dtype, copy=False)

    def __repr__(self) -> str:
        size = " x ".join(str(n) for n in reversed(self.data.shape))
        return f"<korimg.Image {size} {self.format or 'in memory'}{' ' + self.mosaic if self.mosaic else ''}>"

    def to_ccddata(self, unit: Any = None) -> Any:
        """Makes a `CCDData` of astropy: with mask, standard deviations, header and world coordinates.

        The unit is that of BUNIT in the header, else adu, unless told.
        """
        from astropy.io import fits
        from astropy.nddata import CCDData, StdDevUncertainty
        from astropy.wcs import WCS

        header = fits.Header.fromstring(self.header.tostring())
        wcs = WCS(header, naxis=2) if "CTYPE1" in header else None
        uncertainty = None if self.uncertainty is None else StdDevUncertainty(self.uncertainty)
        if unit is None:
            unit = header.get("BUNIT", "adu")
        return CCDData(self.data, unit=unit, mask=self.mask, uncertainty=uncertainty, header=header, wcs=wcs)


#: Whatever stands for an image: an array, masked or with a unit, CCDData, an `Image`, or the path of a file.
ImageLike = Union[np.ndarray, Image, str, "os.PathLike[str]", Any]


class Taken:
    """An image as it was taken in.

    ``data`` is a native, C-contiguous float32 array, NaN where ``mask`` is true; ``give`` makes what came in
    of the pixels of a result. Standard deviations that are left out are told of: who carries them along sets
    ``uncertainty`` to None. ``mosaic`` is the pattern that the result has, as an `Image` says it.
    """

    levels: Levels = []
    header: Header | None = None
    uncertainty: np.ndarray | None = None
    mosaic: str = ""
    unit: Any = None

    def __init__(self, data: np.ndarray, mask: np.ndarray | None = None) -> None:
        self.mask = mask
        if mask is None:
            self.data = _as_float32(data)
            return
        pixels = np.array(data, dtype=np.float32, order="C")  # its own: masked pixels become NaN
        self.mask = np.broadcast_to(np.asarray(mask, dtype=bool), pixels.shape)
        pixels[self.mask] = np.nan
        self.data = pixels

    def mask_of(self, pixels: np.ndarray, moves: bool) -> np.ndarray | None:
        """What of a result is masked: what was, and what has become NaN by it."""
        if self.mask is None:
            return None
        none = np.isnan(pixels)
        if moves or pixels.shape != self.data.shape:
            return none
        return self.mask | (none & ~np.isnan(self.data))

    def give(self, pixels: np.ndarray, levels: Levels, header: Header | None, moves: bool) -> Any:
        return pixels


class _TakenMasked(Taken):
    def __init__(self, image: np.ma.MaskedArray) -> None:
        super().__init__(image.data, np.ma.getmaskarray(image))
        self._like = image

    def give(self, pixels: np.ndarray, levels: Levels, header: Header | None, moves: bool) -> Any:
        return np.ma.MaskedArray(pixels, self.mask_of(pixels, moves))


class _TakenQuantity(Taken):
    """Also of an array or quantity that astropy masks."""

    def __init__(self, image: Any) -> None:
        self._class = type(image)
        self._unit = self.unit = getattr(image, "unit", None)
        self._masked = hasattr(image, "unmasked")
        plain = image.unmasked if self._masked else image
        super().__init__(plain if self._unit is None else plain.value, image.mask if self._masked else None)

    def give(self, pixels: np.ndarray, levels: Levels, header: Header | None, moves: bool) -> Any:
        if not self._masked:
            return self._class(pixels, self._unit, copy=False)
        from astropy.utils.masked import Masked

        given = pixels if self._unit is None else pixels << self._unit
        return Masked(given, self.mask_of(pixels, moves))


class _TakenNDData(Taken):
    def __init__(self, image: Any) -> None:
        super().__init__(_plain(image.data), image.mask)
        self._like = image
        self.unit = image.unit
        self.header = Header()
        self._meta = self._cards_of_meta()
        self.header = Header(self._meta.tostring())
        self._world: list[str] = []
        if image.wcs is not None:
            self._take_world()
        self.levels = _levels_in(self.header)
        if image.uncertainty is not None:
            self.uncertainty = _deviations(image.uncertainty, image.unit)

    def _cards_of_meta(self) -> Header:
        meta = self._like.meta
        if hasattr(meta, "tostring"):
            return Header(meta.tostring(sep="", endcard=False, padding=False))
        cards = Header()
        for key, value in dict(meta or {}).items():
            if isinstance(key, str) and key.isupper() and len(key) <= 8 and _is_plain(value):
                cards.set(key, value)
        return cards

    def _take_world(self) -> None:
        wcs = self._like.wcs
        assert self.header is not None
        if not hasattr(wcs, "to_header") or getattr(wcs, "cpdis1", None) is not None:
            return
        cards = [card for card in wcs.to_header(relax=True).cards
                 if card.keyword not in ("", "COMMENT", "HISTORY")]
        # Coordinates of one kind: those of the meta may be written by another matrix.
        for key in _world_keys(self.header) if cards else ():
            del self.header[key]
        for card in cards:
            if card.keyword not in self._meta:
                self._world.append(card.keyword)
            self.header.set(card.keyword, card.value)

    def give(self, pixels: np.ndarray, levels: Levels, header: Header | None, moves: bool) -> Any:
        like = self._like
        assert header is not None and self.header is not None
        if self.uncertainty is not None:
            warn(_LEFT_OUT)
        wcs = like.wcs
        if wcs is not None and (moves or header != self.header):
            wcs = self._world_of(header, pixels.shape)
        if "KORLMIN1" in header:
            for number, (black, white) in enumerate(levels, 1):
                header.set(f"KORLMIN{number}", black)
                header.set(f"KORLMAX{number}", white)
        meta = self._meta_of(header)
        keep: dict[str, Any] = {}
        if getattr(like, "psf", None) is not None and not moves:
            keep["psf"] = like.psf
        return type(like)(
            pixels, unit=like.unit, mask=self.mask_of(pixels, moves), wcs=wcs, meta=meta, **keep
        )

    def _world_of(self, header: Header, shape: tuple[int, ...]) -> Any:
        if not self._world and "CTYPE1" not in header:
            if hasattr(self._like.wcs, "to_header"):
                return None  # the operation says that no map moves them
            warn("world coordinates of this kind cannot be moved: they are left out")
            return None
        from astropy.io import fits
        from astropy.wcs import WCS

        wcs = WCS(fits.Header.fromstring(header.tostring()), naxis=self._like.wcs.naxis)
        wcs.array_shape = shape[-wcs.naxis :]
        return wcs

    def _meta_of(self, header: Header) -> Any:
        """The meta data of a result: what was, less and other than before what the header says so."""
        meta = copy.copy(self._like.meta)
        after = Header(header.tostring())
        for key in self._world:
            del after[key]
        if hasattr(meta, "tostring"):
            from astropy.io import fits

            return fits.Header.fromstring(after.tostring())
        for key in list(dict(meta or {})):
            if isinstance(key, str) and key in self._meta:
                if key not in after:
                    del meta[key]
                elif after[key] != self._meta[key]:
                    meta[key] = after[key]
        return meta


class _TakenImage(Taken):
    def __init__(self, image: Image) -> None:
        super().__init__(_plain(image.data))
        self._like = image
        self.levels = image.levels
        self.header = image.header
        self.uncertainty = image.uncertainty
        self.mosaic = image.mosaic
        self._flags = image.flags

    def give(self, pixels: np.ndarray, levels: Levels, header: Header | None, moves: bool) -> Any:
        if self.uncertainty is not None or self._flags is not None:
            warn(_LEFT_OUT)
        return Image(pixels, header if header is not None else Header(), levels, format=self._like.format,
                     mosaic=self.mosaic if pixels.ndim == 2 else "")


def take(image: ImageLike) -> Taken:
    """Takes an image in, whatever stands for it.

    Raises
    ------
    UsageError
        For what is no image, and for arrays that are not in this process's memory.
    """
    if type(image) is np.ndarray:
        taken = Taken(image)
        taken.levels = _INTEGER_LEVELS.get(image.dtype, [])
        return taken
    if isinstance(image, Image):
        return _TakenImage(image)
    if isinstance(image, (str, os.PathLike)):
        from ._files import read

        return _TakenImage(read(image))
    if isinstance(image, np.ma.MaskedArray):
        return _TakenMasked(image)
    units = sys.modules.get("astropy.units")
    masked = sys.modules.get("astropy.utils.masked")
    if (units and isinstance(image, units.Quantity)) or (masked and isinstance(image, masked.Masked)):
        return _TakenQuantity(image)
    nddata = sys.modules.get("astropy.nddata")
    if nddata and isinstance(image, nddata.NDData):
        return _TakenNDData(image)
    pixels = _plain(image)
    taken = Taken(pixels)
    taken.levels = _INTEGER_LEVELS.get(pixels.dtype, [])
    return taken


def beside(image: ImageLike | None) -> Any:
    """An image that is used beside another, as the core takes it."""
    if image is None:
        return None
    if isinstance(image, (str, os.PathLike)):
        return os.fspath(image)
    taken = take(image)
    return taken.data, taken.levels


def level_pairs(levels: Any) -> Levels:
    """Levels as they are given: (black, white), or such a pair for each plane."""
    try:
        if np.ndim(levels) == 1:
            levels = [levels]
        return [(float(black), float(white)) for black, white in levels]
    except (TypeError, ValueError):
        raise UsageError("levels are (black, white), or such a pair for each plane") from None


def in_unit(image: Taken, unit: Any, name: str) -> Taken:
    """Brings an image to a unit, where both have one.

    Raises
    ------
    UsageError
        For a unit that is none of the same kind.
    """
    if None in (image.unit, unit) or image.unit == unit:
        return image
    try:
        factor = float(image.unit.to(unit))
    except Exception as error:  # astropy's own, which is not imported here
        raise UsageError(f"{name} is in {image.unit}, which is no {unit}: {error}") from None
    image.data = image.data * np.float32(factor)
    if image.uncertainty is not None:
        image.uncertainty = image.uncertainty * factor
    image.levels = [(factor * black, factor * white) for black, white in image.levels]
    return image


def source(image: Taken, name: str) -> dict[str, Any]:
    """An image as the steps of the core take it."""
    deviations = None if image.uncertainty is None else _as_float32(image.uncertainty)
    return {"name": name, "pixels": image.data, "levels": image.levels, "header": image.header,
            "uncertainty": deviations}


def is_path(image: Any) -> TypeGuard[str | os.PathLike[str]]:
    """An image that is the path of a file."""
    return isinstance(image, (str, os.PathLike))


def with_uncertainty(image: Any, deviations: np.ndarray) -> Any:
    """An image of the kinds that have uncertainties, with standard deviations."""
    if isinstance(image, Image):
        image.uncertainty = deviations
    elif hasattr(image, "uncertainty"):
        from astropy.nddata import StdDevUncertainty

        image.uncertainty = StdDevUncertainty(deviations)
    return image


def _deviations(uncertainty: Any, unit: Any) -> np.ndarray | None:
    """Standard deviations of an uncertainty of astropy, in the data's unit; None for one of no known kind."""
    from astropy.nddata import StdDevUncertainty

    try:
        deviations = uncertainty.represent_as(StdDevUncertainty)
        values = np.asarray(deviations.array)
        return values if None in (unit, deviations.unit) else values * float(deviations.unit.to(unit))
    except (AttributeError, TypeError):
        warn("an uncertainty of this kind is no standard deviation: it is left out")
        return None


def _plain(image: Any) -> np.ndarray:
    """An array that is in memory."""
    if isinstance(image, np.ndarray):
        return np.asarray(image)
    kind = type(image)
    name = f"{kind.__module__}.{kind.__qualname__}"
    if isinstance(image, Sequence):
        raise UsageError(f"a {kind.__qualname__} is no image; numpy.asarray makes an array of numbers")
    raise UsageError(f"{name} is no array in memory; make a numpy array of it first, as its own library does "
                     "(dask: image.compute(), cupy: image.get(), torch: image.numpy(), xarray: image.values)")


def _as_float32(pixels: np.ndarray) -> np.ndarray:
    if pixels.dtype.kind not in "fiub":
        raise UsageError(f"pixels are real numbers, not {pixels.dtype}")
    return np.ascontiguousarray(pixels, dtype=np.float32)


def _world_keys(header: Header) -> set[str]:
    """Keywords that say how pixels lie in the sky."""
    pattern = re.compile(r"(CD|PC|PV)\d+_\d+|(CDELT|CROTA|CRPIX|CRVAL|CTYPE|CUNIT)\d+|[AB]P?_(ORDER|DMAX|\d+_\d+)"
                         r"|LONPOLE|LATPOLE|WCSAXES")
    return {key for card in header.cards if pattern.fullmatch(key := card[:8].strip())}


def _is_plain(value: Any) -> bool:
    return isinstance(value, (str, int, float)) and not isinstance(value, bool)


def _levels_in(header: Header) -> Levels:
    levels = []
    for number in (1, 2, 3):
        black, white = header.get(f"KORLMIN{number}"), header.get(f"KORLMAX{number}")
        if black is None or white is None:
            break
        levels.append((float(black), float(white)))
    return levels
