"""From raw frames to calibrated and developed ones."""

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
from ._errors import FileError, IncompleteError, UsageError
from ._files import read
from ._images import ImageLike, in_unit, is_path, source, take
from ._report import ProgressCallback, Report

#: A path, or several.
Paths = str | os.PathLike[str] | Iterable[str | os.PathLike[str]]


@dataclass(frozen=True)
class CalibratedLight:
    """A light, and what it has come to.

    Attributes
    ----------
    file : str
    output, preview : str or None
        Files that were written; None where there was nothing to do.
    is_done : bool
    dark, flat, bias, mosaic : str
        Names of the masters that served it, and its pattern.
    clipped : float
        Share of its pixels that were limited.
    mean : float
        Of the result, raw values.
    hot, cold : int
        Pixels that were mended.
    """

    file: str
    output: str | None
    preview: str | None
    is_done: bool
    dark: str
    flat: str
    bias: str
    mosaic: str
    clipped: float
    mean: float
    hot: int
    cold: int


@dataclass(frozen=True)
class DevelopedFrame:
    """A frame's files, its mosaic, and what its colours were multiplied by."""

    file: str
    output: str
    preview: str | None
    mosaic: str
    gains: list[float]
    white_balance: str


def paths_of(paths: Paths) -> list[str]:
    """The names of a path, or of several."""
    if isinstance(paths, (str, os.PathLike)):
        return [os.fspath(paths)]
    return [os.fspath(path) for path in paths]


def calibrate(
    light: ImageLike,
    *,
    dark: ImageLike | None = None,
    bias: ImageLike | None = None,
    flat: ImageLike | None = None,
    memory: int | str | None = None,
) -> Any:
    """Takes a dark or bias off a light, and divides it by a flat times the flat's mean.

    Noise below 0 stays, and what the flat has no data for, or nothing above 0, is NaN or masked. `stack` with
    ``method="median"`` makes a master of frames; `calibrate_files` finds, makes and matches the masters of a
    session itself.

    Parameters
    ----------
    light : image-like
        It stays as it is.
    dark : image-like, optional
        A master dark of the light's exposure and temperature. It contains the bias.
    bias : image-like, optional
        Where there is no dark.
    flat : image-like, optional
        A master flat, free of its own dark or bias.
    memory : int or str, optional
        Bytes for pixels beside the images, as in "2G".

    Returns
    -------
    image
        float32, of the light's kind.

    Raises
    ------
    UsageError
        For images of other sizes or units, a dark with a bias, and a flat whose mean is not above 0.
    """
    if dark is not None and bias is not None:
        raise UsageError("a dark contains the bias: give one of them")
    if dark is None and bias is None and flat is None:
        raise UsageError("nothing to calibrate with: give dark, bias or flat")
    taken = take(light)
    masters = {name: None if image is None else in_unit(take(image), taken.unit, f"the {name}")
               for name, image in (("dark", dark), ("bias", bias))}
    masters["flat"] = None if flat is None else take(flat)
    divisor = masters["flat"]
    if divisor is not None and np.any(divisor.data <= 0):
        divisor.data = np.where(divisor.data <= 0, np.float32(np.nan), divisor.data)
    given = {name: source(image, name) for name, image in masters.items() if image is not None}
    report = Report()
    made = _core.calibrate(source(taken, "the light"), given.get("dark", given.get("bias")), given.get("flat"),
                           bytes_of(memory), report)
    header = made["header"]
    header.add_history("korimg.calibrate: " + ", ".join(given))
    # What the flat lacks is new among what is masked.
    return taken.give(made["pixels"], taken.levels, header if taken.header is not None else None, False)


def calibrate_files(
    lights: Paths,
    *,
    out: str | os.PathLike[str],
    darks: Paths = (),
    flats: Paths = (),
    biases: Paths = (),
    masters: str | os.PathLike[str] | None = None,
    pedestal: float | None = None,
    cosmetic: str = "none",
    maps: bool = False,
    group: str = "auto",
    allow_mismatch: bool = False,
    keep_mosaic: bool = False,
    cfa: str = "",
    row_order: str = "",
    white_balance: str = "auto",
    uncertainty: bool = False,
    mask: bool = False,
    gain: float | None = None,
    read_noise: float | None = None,
    previews: bool = False,
    memory: int | str | None = None,
    overwrite: bool = False,
    progress: ProgressCallback | None = None,
) -> list[CalibratedLight]:
    """Calibrates lights into a folder, as the command ``korimg calibrate`` does.

    Masters are made of the frames by camera, gain, temperature, exposure and filter, and each light is served
    by those that fit it. Mosaics are developed into colour.

    Parameters
    ----------
    lights, darks, flats, biases : path or sequence of paths
        Files, or folders of files. One file of a kind is taken as a master.
    out : path
        Folder for the results.
    masters : path, optional
        Folder to keep the masters in.
    pedestal : float, optional
        Raw value that is added before darks come off, and kept; what the noise needs unless told, and taken
        off again.
    cosmetic : {"none", "auto"}
        Mends hot and cold pixels by the darks, or by several lights.
    maps : bool
        Writes the maps of hot and cold pixels too.
    group : str
        By what flats belong together, as in "night,rotator,folder".
    allow_mismatch : bool
        Calibration frames that differ in more than size serve with a warning.
    keep_mosaic : bool
        Mosaics stay as they are.
    cfa, row_order, white_balance : str
        Of mosaics, as `develop` takes them.
    uncertainty, mask : bool
        Write them beside the pixels.
    gain, read_noise : float, optional
        Electrons of a raw value, and electrons, where files do not tell.
    previews : bool
        Writes small pictures too.
    memory, overwrite, progress
        As `stack_files` takes them.

    Returns
    -------
    list of CalibratedLight

    Raises
    ------
    FileError
        When calibration frames or outputs are wrong.
    IncompleteError
        When lights could not be calibrated; ``result`` has the others.
    """
    values: dict[str, Any] = {
        "lights": paths_of(lights), "darks": paths_of(darks), "flats": paths_of(flats),
        "biases": paths_of(biases), "out": os.fspath(out),
        "masters": None if masters is None else os.fspath(masters), "pedestal": pedestal, "cosmetic": cosmetic,
        "maps": maps, "group": group, "allow_mismatch": allow_mismatch, "keep_mosaic": keep_mosaic, "cfa": cfa,
        "row_order": row_order, "white_balance": white_balance, "uncertainty": uncertainty, "mask": mask,
        "gain": gain, "read_noise": read_noise, "previews": previews}
    report = Report(progress)
    made = _core.calibrate_files(values, bytes_of(memory), overwrite,
                                 f"korimg.calibrate_files(out={os.fspath(out)!r})", report, progress is not None)
    result = [CalibratedLight(**light) for light in made]
    if report.failures:
        raise IncompleteError(report.failures, result)
    return result


def develop(
    image: ImageLike,
    *,
    cfa: str = "",
    row_order: str = "",
    white_balance: str | Sequence[float] = "auto",
    mono: bool = False,
    half: bool = False,
    gamma: float = 1.0,
    level_cut: bool = False,
    memory: int | str | None = None,
    progress: ProgressCallback | None = None,
) -> Any:
    """Makes a colour image of a mosaic of colour filters.

    Parameters
    ----------
    image : image-like
        Of one plane, free of the camera's black level (`calibrate` takes it off); of a camera raw file, given
        as a path, it is taken off here. What has three planes gets its white balance only.
    cfa : str, optional
        Pattern from the upper left corner of the upright picture, as in "RGGB" or "HONEYCOMB1"; as the header
        says unless told.
    row_order : {"", "top-down", "bottom-up"}
        Whether the first row is the picture's upper one or its lower one; as the header says unless told.
        Arrays without a header are top-down.
    white_balance : str or sequence of four floats
        "auto" (the camera's, else by medians), "camera", "none", or gains of the cells row by row.
    mono : bool
        Brightness in one plane.
    half : bool
        Half the size, a pixel from each cell of the mosaic.
    gamma : float
        2.2 and the like, for pictures; 1 keeps the values linear.
    level_cut : bool
        Limits the result to black and white.
    memory : int or str, optional
        Bytes for pixels beside the images, as in "2G".
    progress : callable, optional
        Is called as ``progress(title, step, total)``; what it raises ends the work.

    Returns
    -------
    image
        float32 of the shape (3, rows, columns), or (rows, columns) with ``mono``, of the image's kind.

    Raises
    ------
    UsageError, FileError
        When the mosaic is not known, and for values out of range.
    """
    if not isinstance(white_balance, str):
        white_balance = ",".join(repr(float(gain)) for gain in white_balance)
    how: dict[str, Any] = {"cfa": cfa, "row_order": row_order, "white_balance": white_balance, "mono": mono,
                           "half": half, "gamma": gamma, "level_cut": level_cut}
    if is_path(image):
        with tempfile.TemporaryDirectory(prefix="korimg-") as folder:
            out = Path(folder) / "developed.fits"
            try:
                develop_files(image, out=out, memory=memory, progress=progress, **how)
            except IncompleteError as error:
                raise FileError(str(error), os.fspath(image)) from None
            return read(out)
    taken = take(image)
    if taken.header is not None and not cfa and taken.mosaic and "BAYERPAT" not in taken.header:
        how["cfa"], how["row_order"] = taken.mosaic, row_order or "top-down"
    taken.mosaic = ""
    found = _core.develop(source(taken, "the image"), how, bytes_of(memory), Report(progress), progress is not None)
    header = found["header"]
    header.add_history(f"korimg.develop: white balance {found['white_balance']}")
    return taken.give(found["pixels"], found["levels"], header if taken.header is not None else None, True)


def develop_files(
    frames: Paths,
    *,
    out: str | os.PathLike[str],
    dark: str | os.PathLike[str] | None = None,
    flat: str | os.PathLike[str] | None = None,
    black: float = 0.0,
    cfa: str = "",
    row_order: str = "",
    white_balance: str = "auto",
    mono: bool = False,
    half: bool = False,
    gamma: float = 1.0,
    level_cut: bool = False,
    integers: bool = False,
    previews: bool = False,
    memory: int | str | None = None,
    overwrite: bool = False,
    progress: ProgressCallback | None = None,
) -> list[DevelopedFrame]:
    """Makes colour images of camera raw files and mosaics, as the command ``korimg develop`` does.

    Parameters beside those of `develop`:

    Parameters
    ----------
    frames : path or sequence of paths
        Camera raw, FITS or TIFF files, or folders of them.
    out : path
        Folder for the results, or the .fits or .tif of a single one.
    dark, flat : path, optional
        Taken off the mosaic, and what it is divided by.
    black : float
        Raw value of no light, where neither a dark nor the file says it.
    integers : bool
        16 bits with white at 65535, in the place of raw values.
    previews : bool
        Writes small pictures too.
    memory, overwrite, progress
        As `stack_files` takes them.

    Returns
    -------
    list of DevelopedFrame

    Raises
    ------
    UsageError, FileError
        For values that do not go together, and for a dark or flat that cannot be used.
    IncompleteError
        When frames could not be developed; ``result`` has the others.
    """
    values: dict[str, Any] = {
        "frames": paths_of(frames), "out": os.fspath(out), "dark": None if dark is None else os.fspath(dark),
        "flat": None if flat is None else os.fspath(flat), "black": black, "cfa": cfa, "row_order": row_order,
        "white_balance": white_balance, "mono": mono, "half": half, "gamma": gamma, "level_cut": level_cut,
        "integers": integers, "previews": previews}
    report = Report(progress)
    made = _core.develop_files(values, bytes_of(memory), overwrite,
                               f"korimg.develop_files(out={os.fspath(out)!r})", report, progress is not None)
    result = [DevelopedFrame(**frame) for frame in made]
    if report.failures:
        raise IncompleteError(report.failures, result)
    return result
