"""The way of all operations: an image in, its result out."""

from __future__ import annotations

from typing import Any

import numpy as np

from . import _core
from ._errors import UsageError
from ._images import ImageLike, level_pairs, take
from ._report import ProgressCallback, Report


def bytes_of(memory: int | str | None) -> int:
    """Bytes of a number or of a text such as "2G"; 0 for None."""
    if memory is None:
        return 0
    return _core.parse_size(str(memory))


def apply(
    name: str,
    effect: str,
    image: ImageLike,
    values: dict[str, Any],
    rect: tuple[int, int, int, int] | None,
    levels: Any,
    out: np.ndarray | None,
    memory: int | str | None,
    progress: ProgressCallback | None,
) -> Any:
    """Runs an operation, and gives a result of the kind of the image."""
    taken = take(image)
    source = taken.data
    header = taken.header
    result = source_shaped(out, source)
    pixels, after, moved = _core.run_operation(
        name,
        values,
        source,
        result,
        result is not out,
        rect,
        taken.levels if levels is None else level_pairs(levels),
        header,
        bytes_of(memory),
        Report(progress),
        progress is not None,
    )
    if out is not None and pixels is not out:
        if pixels.shape != out.shape:
            raise UsageError(f"{name}: the result has the shape {pixels.shape}, but out has {out.shape}")
        out[...] = pixels
        pixels = out
    if moved is not None:
        moved.add_history(history(name, values, rect))
    return taken.give(pixels, after, moved, effect in ("moves", "drops places"))


def source_shaped(out: np.ndarray | None, source: np.ndarray) -> np.ndarray:
    """Memory of the source's shape for a result: `out` where it can be."""
    if out is None:
        return np.zeros(source.shape, np.float32)
    if not isinstance(out, np.ndarray) or out.dtype != np.float32 or not out.flags.writeable:
        raise UsageError("out is an array of float32 that may be written to")
    if out.shape == source.shape and out.flags.c_contiguous and not np.may_share_memory(out, source):
        return out
    return np.zeros(source.shape, np.float32)


def history(name: str, values: dict[str, Any], rect: Any) -> str:
    """A line for headers."""
    words = [f"korimg {_core.version()} ops.{name.replace('-', '_')}"]
    for key, value in values.items():
        if value is None:
            continue
        text = "an image" if isinstance(value, tuple) and value and isinstance(value[0], np.ndarray) else str(value)
        words.append(f"{key}={text}")
    if rect is not None:
        words.append(f"rect={tuple(rect)}")
    return " ".join(words)
