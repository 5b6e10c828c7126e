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
def calibrate(
    light: dict[str, Any],
    offset: dict[str, Any] | None,
    flat: dict[str, Any] | None,
    memory: int,
    report: Any,
) -> dict[str, Any]: ...
def develop(
    mosaic: dict[str, Any], options: dict[str, Any], memory: int, report: Any, wants_progress: bool
) -> dict[str, Any]: ...
def register_arrays(
    images: list[dict[str, Any]],
    number: int | None,
    other: dict[str, Any] | None,
    options: dict[str, Any],
    memory: int,
    report: Any,
    wants_progress: bool,
) -> dict[str, Any]: ...
def register_files(
    files: list[str], reference: str, options: dict[str, Any], memory: int, report: Any, wants_progress: bool
) -> dict[str, Any]: ...
def stack_arrays(
    images: list[dict[str, Any]],
    registrations: list[dict[str, Any]],
    reference: int,
    options: dict[str, Any],
    memory: int,
    report: Any,
    wants_progress: bool,
) -> dict[str, Any]: ...
def compose(
    images: list[dict[str, Any]], options: dict[str, Any], memory: int, report: Any, wants_progress: bool
) -> dict[str, Any]: ...
def render(image: dict[str, Any], options: dict[str, Any], memory: int, report: Any) -> np.ndarray: ...
def calibrate_files(
    options: dict[str, Any], memory: int, overwrite: bool, origin: str, report: Any, wants_progress: bool
) -> list[dict[str, Any]]: ...
def develop_files(
    options: dict[str, Any], memory: int, overwrite: bool, origin: str, report: Any, wants_progress: bool
) -> list[dict[str, Any]]: ...
def stack_files(
    options: dict[str, Any], memory: int, overwrite: bool, origin: str, report: Any, wants_progress: bool
) -> dict[str, Any]: ...
def compose_files(
    options: dict[str, Any], memory: int, overwrite: bool, origin: str, report: Any, wants_progress: bool
) -> None: ...
def render_file(
    options: dict[str, Any], memory: int, overwrite: bool, report: Any, wants_progress: bool
) -> None: ...
def plan_run(session: str, options: dict[str, Any], memory: int, overwrite: bool, report: Any) -> None: ...
def run(
    session: str,
    options: dict[str, Any],
    memory: int,
    overwrite: bool,
    origin: str,
    report: Any,
    wants_progress: bool,
) -> dict[str, Any]: ...
def plan_tasks(
    session: str, options: dict[str, Any], parts: int, memory: int, report: Any
) -> list[dict[str, Any]]: ...
def do_task(
    session: str, options: dict[str, Any], task: dict[str, Any], memory: int, origin: str, report: Any
) -> None: ...
def simulate(
    folder: str,
    frames: int,
    width: int,
    height: int,
    bayer: str,
    filters: list[str],
    seed: int,
    overwrite: bool,
) -> None: ...
