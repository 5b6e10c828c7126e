"""Sessions of files: the frames of a night, from folders to a finished picture."""

from __future__ import annotations

import json
import os
from collections.abc import Sequence
from dataclasses import dataclass
from typing import Any

from . import _core
from ._apply import bytes_of
from ._errors import IncompleteError
from ._report import ProgressCallback, Report
from ._stack import Kappa, kappa_text


@dataclass(frozen=True)
class RunFrame:
    """A light, and what has become of it: ``status`` is "stacked", or says why it is not."""

    file: str
    status: str
    is_stacked: bool
    weight: float
    rejected: float
    stars: int
    fwhm: float
    sky: float
    noise: float


@dataclass(frozen=True)
class RunStack:
    """A stack: its FITS file, how many of how many lights it holds, seconds, and what its stars say."""

    file: str
    filter: str
    frames: int
    lights: int
    exposure: float
    stars: int
    fwhm: float
    noise: float


@dataclass(frozen=True)
class RunResult:
    """What a run made: stacks, what has become of each light, colour images and reports (file names)."""

    stacks: list[RunStack]
    frames: list[RunFrame]
    colours: list[str]
    reports: list[str]


@dataclass(frozen=True)
class RunPlan:
    """What a run would do.

    Attributes
    ----------
    session : str
    options : dict
        Of the run, by name.
    lines : list of str
        For people: groups of frames, what serves each light, stacks, what it takes of memory, disk and time.
    details : list of dict
        The same for programs, as ``korimg run --dry-run --json`` tells it.
    """

    session: str
    options: dict[str, Any]
    lines: list[str]
    details: list[dict[str, Any]]
    memory: int
    overwrite: bool

    def __str__(self) -> str:
        return "\n".join(self.lines)

    def run(self, *, progress: ProgressCallback | None = None) -> RunResult:
        """Does what is planned: see `korimg.run`."""
        return _run(self.session, self.options, self.memory, self.overwrite, progress)


def run_values(given: dict[str, Any]) -> dict[str, Any]:
    """Options of a run as the core takes them: paths as texts, and what was not told left out."""
    values = {key: os.fspath(value) if isinstance(value, os.PathLike) else value
              for key, value in given.items() if value is not None}
    if "kappa" in values:
        values["kappa"] = kappa_text(values["kappa"])
    return values


def origin_of(session: str, out: str) -> str:
    """What a run was called by."""
    return f"korimg.run({session!r}, out={out!r})"


def _run(
    session: str, values: dict[str, Any], memory: int, overwrite: bool, progress: ProgressCallback | None
) -> RunResult:
    report = Report(progress)
    made = _core.run(session, values, memory, overwrite, origin_of(session, values["out"]), report,
                     progress is not None)
    result = RunResult([RunStack(**stack) for stack in made["stacks"]],
                       [RunFrame(**frame) for frame in made["frames"]], made["colours"], made["reports"])
    if report.failures:
        raise IncompleteError(report.failures, result)
    return result


_NO_OPTIONS = ("session", "memory", "overwrite", "progress")


def plan_run(
    session: str | os.PathLike[str],
    *,
    out: str | os.PathLike[str],
    calibration: str | os.PathLike[str] | None = None,
    masters: str | os.PathLike[str] | None = None,
    reference: str | os.PathLike[str] | None = None,
    include: Sequence[str] = (),
    exclude: Sequence[str] = (),
    selection: str | os.PathLike[str] | None = None,
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
    model: str = "auto",
    min_stars: float = 0.4,
    max_fwhm: float = 1.5,
    max_elongation: float = 1.4,
    palette: str = "auto",
    rejection_maps: bool = False,
    gradient: bool = False,
    pedestal: float | None = None,
    cosmetic: str = "auto",
    maps: bool = False,
    group: str = "auto",
    allow_mismatch: bool = False,
    cfa: str = "",
    row_order: str = "",
    white_balance: str = "auto",
    uncertainty: bool = False,
    mask: bool = False,
    gain: float | None = None,
    read_noise: float | None = None,
    memory: int | str | None = None,
    overwrite: bool = False,
) -> RunPlan:
    """Plans what `run` would do. Nothing is written.

    Parameters
    ----------
    session : path
        A folder that holds the frames, in folders of any kind; they say themselves what they are for.
    out : path
        The folder for all results.
    calibration : path, optional
        Folder of calibration frames or ready masters: of kinds that the session has none of.
    masters : path, optional
        Folder of masters of any sessions; OUT/masters unless told.
    reference : path, optional
        A light, or an image of the lights' size, whose grid all stacks lie on; the best light unless told.
    include, exclude : sequence of str
        Patterns of names, as of a shell: only these lights are used; these are left out.
    selection : path, optional
        A file of JSON with lists include and exclude, and reference.
    method, reject, kappa, iterations, normalize, weight, kernel, undershoot
        How frames are stacked, as `stack` takes them.
    drizzle, pixfrac, drizzle_kernel
        As `stack_files` takes them.
    model : str
        What lights are laid by, as `register` takes it.
    min_stars : float
        Leaves out lights with fewer stars than this share of the median; 0: no limit.
    max_fwhm, max_elongation : float
        Leaves out lights of more than so many times the median; 0: no limit.
    palette : {"auto", "rgb", "sho", "hoo", "none"}
        The colour image of several filters.
    rejection_maps : bool
        Writes stack_low.fits and stack_high.fits too, the number of values rejected in each pixel.
    gradient : bool
        Takes the gradient of the sky off each stack.
    pedestal, cosmetic, maps, group, allow_mismatch, uncertainty, mask, gain, read_noise
        How lights are calibrated, as `calibrate_files` takes them.
    cfa, row_order, white_balance : str
        Of mosaics, as `develop` takes them.
    memory : int or str, optional
        Bytes for pixels, as in "2G"; half of the machine's unless told.
    overwrite : bool
        Files that are there may be replaced.

    Returns
    -------
    RunPlan
        Which ``print`` shows, and whose ``run()`` does it.

    Raises
    ------
    UsageError, FileError
        When values do not go together, frames or outputs are wrong, or the disk has no room.
    """
    values = run_values({key: value for key, value in locals().items() if key not in _NO_OPTIONS})
    report = Report()
    _core.plan_run(os.fspath(session), values, bytes_of(memory), overwrite, report)
    return RunPlan(os.fspath(session), values, report.notes, [json.loads(data) for data in report.results],
                   bytes_of(memory), overwrite)


def run(
    session: str | os.PathLike[str],
    *,
    out: str | os.PathLike[str],
    calibration: str | os.PathLike[str] | None = None,
    masters: str | os.PathLike[str] | None = None,
    reference: str | os.PathLike[str] | None = None,
    include: Sequence[str] = (),
    exclude: Sequence[str] = (),
    selection: str | os.PathLike[str] | None = None,
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
    model: str = "auto",
    min_stars: float = 0.4,
    max_fwhm: float = 1.5,
    max_elongation: float = 1.4,
    palette: str = "auto",
    rejection_maps: bool = False,
    gradient: bool = False,
    pedestal: float | None = None,
    cosmetic: str = "auto",
    maps: bool = False,
    group: str = "auto",
    allow_mismatch: bool = False,
    cfa: str = "",
    row_order: str = "",
    white_balance: str = "auto",
    uncertainty: bool = False,
    mask: bool = False,
    gain: float | None = None,
    read_noise: float | None = None,
    memory: int | str | None = None,
    overwrite: bool = False,
    progress: ProgressCallback | None = None,
) -> RunResult:
    """Works through a session: calibrates, develops, registers and stacks, and writes pictures and a report.

    Parameters are those of the command ``korimg run``, and results the same files. A run that was ended goes
    on where it was when it is called again.

    Parameters
    ----------
    session : path
        A folder that holds the frames, in folders of any kind; they say themselves what they are for.
    out : path
        The folder for all results.
    calibration : path, optional
        Folder of calibration frames or ready masters: of kinds that the session has none of.
    masters : path, optional
        Folder of masters of any sessions; OUT/masters unless told.
    reference : path, optional
        A light, or an image of the lights' size, whose grid all stacks lie on; the best light unless told.
    include, exclude : sequence of str
        Patterns of names, as of a shell: only these lights are used; these are left out.
    selection : path, optional
        A file of JSON with lists include and exclude, and reference.
    method, reject, kappa, iterations, normalize, weight, kernel, undershoot
        How frames are stacked, as `stack` takes them.
    drizzle, pixfrac, drizzle_kernel
        As `stack_files` takes them.
    model : str
        What lights are laid by, as `register` takes it.
    min_stars : float
        Leaves out lights with fewer stars than this share of the median; 0: no limit.
    max_fwhm, max_elongation : float
        Leaves out lights of more than so many times the median; 0: no limit.
    palette : {"auto", "rgb", "sho", "hoo", "none"}
        The colour image of several filters.
    rejection_maps : bool
        Writes stack_low.fits and stack_high.fits too, the number of values rejected in each pixel.
    gradient : bool
        Takes the gradient of the sky off each stack.
    pedestal, cosmetic, maps, group, allow_mismatch, uncertainty, mask, gain, read_noise
        How lights are calibrated, as `calibrate_files` takes them.
    cfa, row_order, white_balance : str
        Of mosaics, as `develop` takes them.
    memory : int or str, optional
        Bytes for pixels, as in "2G"; half of the machine's unless told.
    overwrite : bool
        Files that are there may be replaced.
    progress : callable, optional
        Is called as ``progress(title, step, total)``. What it raises ends the run, as Ctrl-C does, and reaches
        the caller.

    Returns
    -------
    RunResult

    Raises
    ------
    UsageError, FileError
        When values do not go together, calibration frames or outputs are wrong, the disk has no room, or no
        light is left.
    IncompleteError
        When part of what was asked for failed, as when a stack holds less than half of its lights; ``result``
        has the rest.
    """
    values = run_values({key: value for key, value in locals().items() if key not in _NO_OPTIONS})
    return _run(os.fspath(session), values, bytes_of(memory), overwrite, progress)


def simulate(
    folder: str | os.PathLike[str],
    *,
    frames: int = 20,
    width: int = 3008,
    height: int = 2008,
    bayer: str = "",
    filters: Sequence[str] = (),
    seed: int = 1,
    overwrite: bool = False,
) -> None:
    """Makes an observing session with known truth, for trying things: lights, darks, flats, biases, truth.json.

    Parameters
    ----------
    folder : path
        Where it is written.
    frames : int
        Lights, of each filter.
    width, height : int
        Pixels, at least 64.
    bayer : str
        Pattern of a colour sensor, as in "RGGB"; empty: a mono one.
    filters : sequence of str
        Of a wheel before a mono sensor, as in ["L", "R", "G", "B"].
    seed : int
        The same seed and options give the same bytes.
    overwrite : bool
        Files that are there may be replaced.
    """
    _core.simulate(os.fspath(folder), frames, width, height, bayer, list(filters), seed, overwrite)
