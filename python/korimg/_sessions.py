"""Sessions of files: the frames of a night, from folders to a finished picture."""

from __future__ import annotations

import os
from collections.abc import Sequence
from dataclasses import dataclass
from typing import Any

from . import _core
from ._apply import bytes_of
from ._errors import IncompleteError
from ._report import ProgressCallback, Report



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


def _options(
    out: str | os.PathLike[str],
    masters: str | os.PathLike[str] | None,
    reference: str | os.PathLike[str] | None,
    **values: Any,
) -> dict[str, Any]:
    values["out"] = os.fspath(out)
    if masters is not None:
        values["masters"] = os.fspath(masters)
    if reference is not None:
        values["reference"] = os.fspath(reference)
    return values


def plan_run(
    session: str | os.PathLike[str],
    *,
    out: str | os.PathLike[str],
    masters: str | os.PathLike[str] | None = None,
    reference: str | os.PathLike[str] | None = None,
    memory: int | str | None = None,
    overwrite: bool = False,
) -> list[str]:
    """Tells what `run` would do, in lines for people: groups of frames, what serves each light, what it takes.

    Nothing is written.

    Raises
    ------
    FileError
        When frames or outputs are wrong, or the disk has no room.
    """
    report = Report()
    values = _options(out, masters, reference, gradient=False, uncertainty=False, mask=False)
    _core.plan_run(os.fspath(session), values, bytes_of(memory), overwrite, report)
    return report.notes


def run(
    session: str | os.PathLike[str],
    *,
    out: str | os.PathLike[str],
    masters: str | os.PathLike[str] | None = None,
    reference: str | os.PathLike[str] | None = None,
    method: str = "mean",
    reject: str = "auto",
    kappa: str = "auto",
    normalize: str = "auto",
    weight: str = "noise",
    kernel: str = "bicubic",
    palette: str = "auto",
    gradient: bool = False,
    uncertainty: bool = False,
    mask: bool = False,
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
    masters : path, optional
        Folder of masters of any sessions; OUT/masters unless told.
    reference : path, optional
        A light, or an image of the lights' size, whose grid all stacks lie on; the best light unless told.
    method : {"mean", "median", "max", "min"}
    reject : {"auto", "sigma", "winsorized", "esd", "linear-fit", "noise", "none"}
    kappa : str
        Deviations beyond which values are rejected, as in "3" or "2.5,3.5".
    normalize : {"auto", "none", "level", "level+scale"}
    weight : {"noise", "fwhm", "none"}
    kernel : str
        How moved frames are read between their pixels.
    palette : {"auto", "rgb", "sho", "hoo", "none"}
        The colour image of several filters.
    gradient : bool
        Take the gradient of the sky off each stack.
    uncertainty, mask : bool
        Write them beside the pixels.
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
    FileError
        When calibration frames or outputs are wrong, the disk has no room, or no light is left.
    IncompleteError
        When part of what was asked for failed, as when a stack holds less than half of its lights; ``result``
        has the rest.
    """
    report = Report(progress)
    values = _options(out, masters, reference, method=method, reject=reject, kappa=kappa, normalize=normalize,
                      weight=weight, kernel=kernel, palette=palette, gradient=gradient, uncertainty=uncertainty,
                      mask=mask)
    made = _core.run(os.fspath(session), values, bytes_of(memory), overwrite,
                     f"korimg.run({os.fspath(session)!r}, out={os.fspath(out)!r})", report, progress is not None)
    result = RunResult([RunStack(**stack) for stack in made["stacks"]],
                       [RunFrame(**frame) for frame in made["frames"]], made["colours"], made["reports"])
    if report.failures:
        raise IncompleteError(report.failures, result)
    return result


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
