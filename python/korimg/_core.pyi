from typing import Any

import numpy as np

_Levels = list[tuple[float, float]]

class Header:
    def __init__(self, text: str = ...) -> None: ...
    @property
    def cards(self) -> list[str]: ...
    def tostring(self) -> str: ...
    def get(self, key: str, default: Any = ...) -> Any: ...
    def set(self, key: str, value: str | int | float, comment: str = ...) -> None: ...
    def add_history(self, text: str) -> None: ...
    def copy(self) -> Header: ...
    def __getitem__(self, key: str) -> Any: ...
    def __setitem__(self, key: str, value: str | int | float) -> None: ...
    def __delitem__(self, key: str) -> None: ...
    def __contains__(self, key: str) -> bool: ...
    def __len__(self) -> int: ...
    def __eq__(self, other: object) -> bool: ...

def version() -> str: ...
def parse_size(text: str) -> int: ...
def operations() -> str: ...
def run_operation(
    name: str,
    values: dict[str, Any],
    source: np.ndarray,
    result: np.ndarray,
    result_is_zero: bool,
    rect: tuple[int, int, int, int] | None,
    levels: _Levels,
    header: Header | None,
    memory: int,
    report: Any,
    wants_progress: bool,
) -> tuple[np.ndarray, _Levels, Header | None]: ...
def read(path: str, hdu: str, report: Any, wants_progress: bool) -> dict[str, Any]: ...
def write(
    path: str,
    pixels: np.ndarray,
    header: Header,
    levels: _Levels,
    integers: bool,
    variance: np.ndarray | None,
    mask: np.ndarray | None,
    overwrite: bool,
    report: Any,
    wants_progress: bool,
) -> None: ...
def find_stars(
    pixels: np.ndarray,
    levels: _Levels,
    header: Header | None,
    sigmas: float,
    gain: float | None,
    memory: int,
    report: Any,
) -> dict[str, Any]: ...
def plan_run(session: str, values: dict[str, Any], memory: int, overwrite: bool, report: Any) -> None: ...
def run(
    session: str,
    values: dict[str, Any],
    memory: int,
    overwrite: bool,
    origin: str,
    report: Any,
    wants_progress: bool,
) -> dict[str, Any]: ...
def simulate(
    folder: str,
    frames: int,
    width: int,
    height: int,
    bayer: str,
    filters: list[str],
    seed: int,
    overwrite: bool,
) -> bool: ...
