"""Writes korimg/ops.py and its stubs by the descriptions of the operations: generate.py PACKAGE_FOLDER."""

from __future__ import annotations

import json
import keyword
import sys
import textwrap
from pathlib import Path
from typing import Any

WIDTH = 108
COMMON = ["levels", "out", "memory", "progress"]
COMMON_TYPES = {
    "rect": "_Rect | None",
    "levels": "_LevelsLike | None",
    "out": "np.ndarray | None",
    "memory": "int | str | None",
    "progress": "ProgressCallback | None",
}
COMMON_TEXTS = {
    "rect": ("(int, int, int, int)", "Left, top, right and bottom of the window where pixels may change, in "
             "pixels; right and bottom are exclusive."),
    "levels": ("(float, float) or a pair for each plane", "Raw values of black and white; those of an `Image`, "
               "the range of 8- and 16-bit integers, else the extremes of the pixels."),
    "out": ("numpy.ndarray", "float32 array of the result's shape that the result is written to."),
    "memory": ("int or str", 'Bytes for pixels beside those of image and result, as in "2G"; half of the '
               "machine's unless told."),
    "progress": ("callable", "Is called as ``progress(title, step, total)``; what it raises ends the work."),
}
HEADERS = {
    "keeps": "",
    "moves": " World coordinates go along with the pixels.",
    "drops places": " World coordinates are left out: no affine map says where pixels come from.",
    "drops counts": " The gain in electrons goes from the header: values are no counts of a camera any more.",
}
KINDS = {
    "number": ("float", "float"),
    "whole number": ("int", "int"),
    "0 or 1": ("bool", "bool"),
    "number, or three": ("_PerPlane", "float or three of them"),
    "file": ("ImageLike", "image-like"),
    "left,top,right,bottom": ("_Rect", "(int, int, int, int)"),
    "points": ("_Points", "sequence of (float, float)"),
    "rows of numbers": ("_MatrixLike", "array-like of rows of numbers"),
}
PREAMBLE = '''"""Operations on images: an image in, its result out, and what went in stays as it is.

Images are float32 arrays of the shape (rows, columns) or (planes, rows, columns), the first row on top; any
other dtype, order or byte order is converted once. Masked arrays, quantities, `CCDData` and `korimg.Image` come
back as what they were; a path is read, and comes back as an `Image`.
"""

# Written by generate.py; changes belong into the descriptions of the operations.

from __future__ import annotations
'''
IMPORTS = '''
from collections.abc import Sequence
from typing import Any, Literal, Union

import numpy as np

from ._images import ImageLike
from ._report import ProgressCallback

_PerPlane = Union[float, Sequence[float]]
_Rect = tuple[int, int, int, int]
_Points = Sequence[tuple[float, float]]
_MatrixLike = Union[Sequence[float], Sequence[Sequence[float]], np.ndarray]
_LevelsLike = Union[tuple[float, float], Sequence[tuple[float, float]]]
'''


def python_name(name: str) -> str:
    name = name.replace("-", "_")
    return name + "_" if keyword.iskeyword(name) else name


def type_of(parameter: dict[str, Any]) -> str:
    if parameter["kind"] == "choice":
        return "Literal[" + ", ".join(json.dumps(choice) for choice in parameter["enum"]) + "]"
    return KINDS[parameter["kind"]][0]


def words_of(parameter: dict[str, Any]) -> str:
    if parameter["kind"] == "choice":
        return "{" + ", ".join(json.dumps(choice) for choice in parameter["enum"]) + "}"
    return KINDS[parameter["kind"]][1]


def limits_of(parameter: dict[str, Any]) -> str:
    inner = parameter["oneOf"][0] if "oneOf" in parameter else parameter
    low, high = inner.get("minimum"), inner.get("maximum")
    return "" if low is None else f", {low:g} to {high:g}"


class Function:
    """An operation as a function."""

    def __init__(self, operation: dict[str, Any]) -> None:
        self.operation = operation
        self.name = python_name(operation["name"])
        schema = operation["parameters"]
        self.parameters = schema["properties"]
        # Those that must be given come first.
        self.order = sorted(self.parameters, key=lambda name: name not in schema["required"])
        self.required = set(schema["required"])
        common = (["rect"] if operation["rect"] else []) + COMMON
        # Where an operation has a parameter of that name, it goes before.
        self.common = [name for name in common if name not in map(python_name, self.parameters)]

    def default(self, name: str) -> str | None:
        if name in self.required:
            return None
        return repr(self.parameters[name].get("default"))

    def signature(self, stub: bool) -> str:
        pieces = ["image: ImageLike" if stub else "image", "*"]
        for name in self.order:
            default, kind = self.default(name), type_of(self.parameters[name])
            if default == "None":
                kind += " | None"
            piece = python_name(name) + (f": {kind}" if stub else "")
            pieces.append(piece if default is None else f"{piece} = ..." if stub else f"{piece}={default}")
        for name in self.common:
            pieces.append(f"{name}: {COMMON_TYPES[name]} = ..." if stub else f"{name}=None")
        inside = ",\n    ".join(pieces)
        return f"def {self.name}(\n    {inside},\n){' -> Any' if stub else ''}:"

    def document(self) -> str:
        operation = self.operation
        lines = [operation["summary"][0].upper() + operation["summary"][1:] + ".", ""]
        lines += wrap(operation["text"] + HEADERS[operation["header"]], 4) + ["", "Parameters", "----------"]
        lines += ["image : image-like"] + wrap("What is worked on; it stays as it is.", 8)
        for name in self.order:
            p = self.parameters[name]
            unit = f", {p['unit']}" if p.get("unit") else ""
            optional = "" if name in self.required else ", optional"
            lines.append(f"{python_name(name)} : {words_of(p)}{optional}")
            text = p["description"][0].upper() + p["description"][1:] + f" ({p['kind']}{unit}{limits_of(p)})."
            lines += wrap(text, 8)
        for name in self.common:
            kind, text = COMMON_TEXTS[name]
            lines += [f"{name} : {kind}, optional"] + wrap(text, 8)
        lines += ["", "Returns", "-------", "image-like"]
        lines += wrap("The result in float32, of the kind of ``image``.", 8)
        lines += ["", "Raises", "------", "UsageError"]
        lines += wrap("For values out of range, and where they do not fit the image.", 8)
        lines += ["", "Examples", "--------", f">>> result = korimg.ops.{self.name}({self.example()})", ""]
        return "\n".join("    " + line if line else "" for line in lines)

    def example(self) -> str:
        words = ["mosaic" if self.operation["name"] == "cfa-noise" else "image"]
        for word in self.operation["example"].split():
            name, text = word.split("=", 1)
            words.append(f"{python_name(name)}={value_of(self.parameters[name], text)}")
        return ", ".join(words)

    def source(self) -> str:
        values = []
        for name in self.order:
            variable = python_name(name)
            image = self.parameters[name]["kind"] == "file"
            values.append(f"{name!r}: {f'beside({variable})' if image else variable}")
        rest = ", ".join(name if name in self.common else "None" for name in ["rect"] + COMMON)
        call = (f"    return apply({self.operation['name']!r}, {self.operation['header']!r}, image, "
                f"{{{', '.join(values)}}}, {rest})")
        return f'{self.signature(False)}\n    """{self.document().strip()}\n    """\n{call}\n'


def value_of(parameter: dict[str, Any], text: str) -> str:
    """A value of an example as Python has it."""
    kind = parameter["kind"]
    if kind == "choice":
        return json.dumps(text)
    if kind == "0 or 1":
        return str(text == "1")
    if kind == "file":
        return text.split(".")[0]
    if kind == "points":
        return "[" + ", ".join("(" + point.replace(":", ", ") + ")" for point in text.split(",")) + "]"
    if kind == "rows of numbers":
        return "[" + ", ".join("[" + row.replace(",", ", ") + "]" for row in text.split(";")) + "]"
    return "(" + text.replace(",", ", ") + ")" if "," in text else text


def wrap(text: str, indent: int) -> list[str]:
    inside = " " * (indent - 4)
    return [inside + line for line in textwrap.wrap(text, WIDTH - indent)]


def main(folder: Path) -> None:
    sys.path.insert(0, str(folder.parent))
    sys.dont_write_bytecode = True
    from korimg import _core

    functions = [Function(operation) for operation in json.loads(_core.operations())["operations"]]
    names = "__all__ = [\n" + "".join(f"    {f.name!r},\n" for f in functions) + "]\n"
    source = PREAMBLE + "\nfrom ._apply import apply\nfrom ._images import beside\n\n" + names
    stubs = PREAMBLE + IMPORTS + "\n" + names
    for function in functions:
        source += "\n\n" + function.source()
        stubs += "\n\n" + function.signature(True) + " ...\n"
    for name, text in (("ops.py", source), ("ops.pyi", stubs)):
        (folder / name).write_text(text)


main(Path(sys.argv[1]))
