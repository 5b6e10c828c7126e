"""Registered frames to one image."""

from __future__ import annotations

import os
import tempfile
from collections.abc import Iterable, Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import Any

import numpy as np

from . import _core
from ._apply import bytes_of
from ._errors import IncompleteError, UsageError
from ._files import read
from ._images import Image, ImageLike, Taken, in_unit, is_path, source, take, with_uncertainty
from ._register import Registration, Registrations
from ._report import ProgressCallback, Report, warn

#: Where frames lie: what `register` gave, or some of it.
RegistrationsLike = Registrations | Sequence[Registration]


@dataclass(frozen=True)
class StackedFrame:
    """A frame in a stack: its weight, the share of the stack that it covers, and those of its pixels rejected."""

    file: str
    weight: float
    covers: float
    rejected_low: float
    rejected_high: float


@dataclass(frozen=True)
class Stack:
    """A stack, and what went into it.

    Attributes
    ----------
    image : image
        Of the kind of the frames' first; an `Image` for files. NaN, or masked, where no frame reaches.
    frames : list of StackedFrame
    left_out : list of (str, str)
        Frames that are not in it, and why.
    low, high : numpy.ndarray or None
        Numbers of values rejected in each pixel.
    """

    image: Any
    frames: list[StackedFrame]
    left_out: list[tuple[str, str]]
    low: np.ndarray | None = None
    high: np.ndarray | None = None


@dataclass(frozen=True)
class StackFiles:
    """The files of a stack, the stack itself first, and what went into it."""

    outputs: list[str]
    frames: list[StackedFrame]
    left_out: list[tuple[str, str]]


#: Deviations: one number, those below and above, or a text.
Kappa = str | float | Sequence[float]


def kappa_text(kappa: Kappa) -> str:
    """Deviations as the command line writes them."""
    if isinstance(kappa, str):
        return kappa
    numbers = kappa if isinstance(kappa, Sequence) else [kappa]
    return ",".join(repr(float(number)) for number in numbers)


def _places(registrations: RegistrationsLike | None, count: int) -> list[Registration]:
    if registrations is None:
        return [Registration()] * count
    places = list(registrations.frames if isinstance(registrations, Registrations) else registrations)
    if len(places) != count:
        raise UsageError(f"there are {count} images and {len(places)} registrations")
    return places


def stack(
    images: Iterable[ImageLike],
    registrations: RegistrationsLike | None = None,
    *,
    method: str = "mean",
    reject: str = "auto",
    kappa: Kappa = "auto",
    iterations: int = 5,
    normalize: str = "auto",
    weight: str = "noise",
    kernel: str = "bicubic",
    undershoot: str = "clamp",
    uncertainty: bool = False,
    rejection_maps: bool = False,
    memory: int | str | None = None,
    progress: ProgressCallback | None = None,
) -> Stack:
    """Stacks frames on the grid of one of them.

    Parameters
    ----------
    images : sequence of image-like
        Of one size. Arrays are read where they are; of files a band of rows is in memory at a time.
    registrations : Registrations or sequence of Registration, optional
        What `register` gave, one for each image; without them frames are taken as they lie. The first that is
        not moved gives level and header.
    method : {"mean", "median", "max", "min"}
    reject : {"auto", "sigma", "winsorized", "esd", "linear-fit", "noise", "none"}
        How a mean tells outliers; "auto": by the noise of each frame up to 4 frames, winsorized from 5,
        generalised ESD from 15.
    kappa : number, two of them, or str
        Deviations beyond which values are rejected, as in 3 or (2.5, 3.5).
    iterations : int
        How often at most, each by what the last one left.
    normalize : {"auto", "none", "level", "level+scale"}
        What brings frames to the reference: the level of the sky, and the light of stars where it was compared.
        Where a mean rejects values, frames are compared on a common sky whatever this is, and a value that is
        left out does not take the sky of its frame along.
    weight : {"noise", "fwhm", "none"}
        Of frames in means.
    kernel : str
        How moved frames are read between their pixels.
    undershoot : {"clamp", "keep"}
        Of kernels beside bright stars.
    uncertainty : bool
        The stack has standard deviations, by those of the images.
    rejection_maps : bool
        ``low`` and ``high`` hold the number of values rejected in each pixel.
    memory : int or str, optional
        Bytes beside images and result, as in "500M".
    progress : callable, optional
        Is called as ``progress(title, step, total)``; what it raises ends the work.

    Returns
    -------
    Stack

    Raises
    ------
    UsageError, FileError
        For images that differ in size, values that do not go together, and when no frame is left.
    IncompleteError
        When less than half of the frames are in the stack, which is ``result``.
    """
    frames = list(images)
    values: dict[str, Any] = {"method": method, "reject": reject, "kappa": kappa_text(kappa), "iterations": iterations,
                              "normalize": normalize, "weight": weight, "kernel": kernel,
                              "undershoot": undershoot, "uncertainty": uncertainty,
                              "rejection_maps": rejection_maps}
    if frames and all(is_path(frame) for frame in frames):
        return _stack_of_files(frames, registrations, values, memory, progress)
    places = _places(registrations, len(frames))
    left = [(f"image {n}", f"{p.status}: {p.note}") for n, p in enumerate(places) if not p.is_good]
    used = [n for n, place in enumerate(places) if place.is_good]
    if normalize in ("auto", "level+scale") and any(places[n].flux_ratio for n in used):
        left += [(f"image {n}", "no star to compare its light with the reference's by; normalize=\"level\" "
                  "takes it as it is") for n in used if not places[n].flux_ratio]
        used = [n for n in used if places[n].flux_ratio]
    if not used:
        raise UsageError("no frame to stack: none of them is ok")
    taken = {n: take(frames[n]) for n in used}
    for n in used:
        if taken[n].mosaic and not places[n].is_still:
            raise UsageError(f"image {n} is an undeveloped mosaic, whose colours moving would mix; develop it "
                             "first")
    reference = next((n for n in used if places[n].is_still), used[0])
    taken = {n: in_unit(image, taken[reference].unit, f"image {n}") for n, image in taken.items()}
    report = Report(progress)
    made = _core.stack_arrays([source(taken[n], f"image {n}") for n in used],
                              [_place(places[n]) for n in used], used.index(reference), values,
                              bytes_of(memory), report, progress is not None)
    result = Stack(_image(taken[reference], places[reference].is_still, len(used), made),
                   [StackedFrame(**frame) for frame in made["frames"]], left, made["low"], made["high"])
    return _complete(result, report, len(used), len(frames))


def _place(place: Registration) -> dict[str, Any]:
    import json

    return {"dx": float(place.dx), "dy": float(place.dy), "degrees": float(place.degrees),
            "fwhm": float(place.fwhm), "flux_ratio": place.flux_ratio,
            "map": None if place.map is None else json.dumps(place.map)}


def _image(reference: Taken, is_still: bool, count: int, made: dict[str, Any]) -> Any:
    """The stack as an image of the reference's kind."""
    header = None
    if reference.header is not None:
        if is_still:
            header = reference.header.copy()
        else:
            header = _core.Header()
            warn("no frame lies on the grid of the stack: it has no header and no world coordinates")
        header["NCOMBINE"] = count
        header.add_history(f"korimg.stack of {count} images")
    reference.uncertainty = None  # is that of the stack
    image = reference.give(made["pixels"], reference.levels, header, True)
    if made["uncertainty"] is not None:
        image = with_uncertainty(image, made["uncertainty"])
    return image


def _complete(result: Stack, report: Report, used: int, wanted: int) -> Stack:
    failures = list(report.failures)
    if 2 * used < wanted:
        failures.append(f"the stack holds {used} of {wanted} frames, less than half")
    if failures:
        raise IncompleteError(failures, result)
    return result


def _stack_of_files(
    files: list[Any],
    registrations: RegistrationsLike | None,
    values: dict[str, Any],
    memory: int | str | None,
    progress: ProgressCallback | None,
) -> Stack:
    """Stacks files by way of a file: as many as there are, in bounded memory."""
    with tempfile.TemporaryDirectory(prefix="korimg-") as folder:
        out = Path(folder) / "stack.fits"
        incomplete = None
        try:
            made = stack_files(files, registrations, out=out, memory=memory, progress=progress, **values)
        except IncompleteError as error:
            incomplete = error
            assert isinstance(error.result, StackFiles)
            made = error.result
        image: Image = read(out)
        image.levels = [] if "KORLMIN1" not in image.header else image.levels
        maps = [read(out.with_name(f"stack_{name}.fits")).data if values["rejection_maps"] else None
                for name in ("low", "high")]
    result = Stack(image, made.frames, made.left_out, *maps)
    if incomplete:
        raise IncompleteError(incomplete.failures, result)
    return result


def stack_files(
    frames: Iterable[str | os.PathLike[str]],
    registrations: RegistrationsLike | str | os.PathLike[str] | None = None,
    *,
    out: str | os.PathLike[str],
    method: str = "mean",
    reject: str = "auto",
    kappa: Kappa = "auto",
    iterations: int = 5,
    normalize: str = "auto",
    weight: str = "noise",
    kernel: str = "bicubic",
    undershoot: str = "clamp",
    drizzle: float | None = None,
    pixfrac: float = 0.7,
    drizzle_kernel: str = "square",
    reference: str | os.PathLike[str] | None = None,
    frame: str = "reference",
    feather: float | None = None,
    uncertainty: bool = False,
    mask: bool = False,
    rejection_maps: bool = False,
    integers: bool = False,
    memory: int | str | None = None,
    overwrite: bool = False,
    progress: ProgressCallback | None = None,
) -> StackFiles:
    """Stacks files into a file: as many as there are, in bounded memory.

    Parameters beside those of `stack` are those of the command ``korimg stack``.

    Parameters
    ----------
    frames : sequence of paths
        Files, or folders of files, of one size and kind.
    registrations : Registrations, sequence of Registration or path, optional
        What `register` gave for these files, or a file of JSON that ``korimg register`` wrote.
    out : path
        FITS, TIFF or PNG, by its extension.
    drizzle : float, optional
        Lays pixels on a grid so many times as fine, 1 to 4.
    pixfrac : float
        Drizzled: side of what falls in that of the pixel, 0.01 to 1.
    drizzle_kernel : {"square", "point", "gaussian"}
    reference : path, optional
        The frame that gives header, levels and sky.
    frame : {"reference", "union"}
        What the stack shows: what the reference does, or what any frame does, as a mosaic of panels.
    feather : float, optional
        Pixels over which frames fade towards their edges.
    uncertainty, mask, rejection_maps : bool
        What is written beside the stack.
    integers : bool
        16 bits in the place of floats.
    memory : int or str, optional
        Bytes, as in "500M".
    overwrite : bool
        Files that are there may be replaced.
    progress : callable, optional
        Is called as ``progress(title, step, total)``; what it raises ends the work.

    Returns
    -------
    StackFiles

    Raises
    ------
    UsageError, FileError, IncompleteError
        As `stack` does.
    """
    values: dict[str, Any] = {
        "frames": [os.fspath(name) for name in frames], "out": os.fspath(out), "method": method, "reject": reject,
        "kappa": kappa_text(kappa), "iterations": iterations, "normalize": normalize, "weight": weight, "kernel": kernel,
        "undershoot": undershoot, "drizzle": drizzle, "pixfrac": pixfrac, "drizzle_kernel": drizzle_kernel,
        "reference": None if reference is None else os.fspath(reference), "frame": frame, "feather": feather,
        "uncertainty": uncertainty, "mask": mask, "rejection_maps": rejection_maps, "integers": integers}
    report = Report(progress)
    with tempfile.TemporaryDirectory(prefix="korimg-") as folder:
        if isinstance(registrations, (str, os.PathLike)):
            values["transforms"] = os.fspath(registrations)
        elif registrations is not None:
            listed = registrations.frames if isinstance(registrations, Registrations) else registrations
            told = Path(folder) / "registrations.json"
            told.write_text("".join(place.to_json() + "\n" for place in listed))
            values["transforms"] = os.fspath(told)
        made = _core.stack_files(values, bytes_of(memory), overwrite, f"korimg.stack_files(out={os.fspath(out)!r})",
                                 report, progress is not None)
    result = StackFiles(made["outputs"], [StackedFrame(**one) for one in made["frames"]], made["left_out"])
    if report.failures:
        raise IncompleteError(report.failures, result)
    return result
