"""Makes the wheel of korimg, for pip (PEP 517): builds the package by CMake, in build/wheel, and packs what it installs.

It wants nothing beyond the standard library, so that pip needs no network. A build that stands is taken as it is by
``pip install . --config-settings build-dir=build/release``.
"""

from __future__ import annotations

import base64
import gzip
import hashlib
import io
import os
import re
import shutil
import subprocess
import sys
import sysconfig
import tarfile
import tempfile
import time
import tomllib
import zipfile
from pathlib import Path
from typing import Any

Settings = dict[str, Any] | None

ROOT = Path(__file__).resolve().parents[2]
PROJECT = tomllib.loads((ROOT / "pyproject.toml").read_text())["project"]
VERSION, SUMMARY = re.search(
    r'project\(korimg VERSION (\S+) DESCRIPTION "(.+?)"', (ROOT / "CMakeLists.txt").read_text()).groups()
NAME = f"korimg-{VERSION}"
TAG = "cp{0}{1}-cp{0}{1}-{2}".format(*sys.version_info[:2], re.sub("[-.]", "_", sysconfig.get_platform()))
# Of everything in wheels and source distributions: the same tree gives the same bytes, if it is told.
DATE = max(int(os.environ.get("SOURCE_DATE_EPOCH", time.time())), 315532800)  # the first that zip files know
SETUP = "on Debian, `tools/setup build` installs what korimg is built with"


def build_wheel(wheel_directory: str, config_settings: Settings = None, metadata_directory: str | None = None) -> str:
    with tempfile.TemporaryDirectory() as folder:
        run("cmake", "--install", built(config_settings or {}), "--prefix", folder, "--component", "wheel", "--strip")
        files = installed(Path(folder))
    core = "korimg/_core" + sysconfig.get_config_var("EXT_SUFFIX")
    if core not in files:
        sys.exit(f"The build has no {core}: build its target korimg_package, with -DPython_EXECUTABLE={sys.executable}")
    terms = {f"{NAME}.dist-info/{name}": (0o644, (ROOT / name).read_bytes()) for name in ("LICENSE", "NOTICE")}
    return write_wheel(wheel_directory, {**files, **information(), **terms})


def prepare_metadata_for_build_wheel(metadata_directory: str, config_settings: Settings = None) -> str:
    for name, (_, data) in information().items():
        file = Path(metadata_directory, name)
        file.parent.mkdir(exist_ok=True)
        file.write_bytes(data)
    return f"{NAME}.dist-info"


def build_sdist(sdist_directory: str, config_settings: Settings = None) -> str:
    def add(name: str, data: bytes, mode: int) -> None:
        entry = tarfile.TarInfo(f"{NAME}/{name}")
        entry.size, entry.mode, entry.mtime = len(data), mode, DATE
        archive.addfile(entry, io.BytesIO(data))

    target = Path(sdist_directory, f"{NAME}.tar.gz")
    with open(target, "wb") as file, gzip.GzipFile("", "wb", fileobj=file, mtime=DATE) as packed:
        with tarfile.open(fileobj=packed, mode="w", format=tarfile.PAX_FORMAT) as archive:
            add("PKG-INFO", metadata(), 0o644)
            for name in sources():
                add(name, (ROOT / name).read_bytes(), mode_of(ROOT / name))
    return target.name


def run(*command: Any, hint: str = "") -> None:
    # Python within the build is the user's: pip's own path hides the packages that the build needs, as numpy.
    environment = {name: value for name, value in os.environ.items() if name != "PYTHONPATH"}
    try:
        subprocess.run(list(map(str, command)), check=True, env=environment)
    except FileNotFoundError:
        sys.exit(f"There is no {command[0]}: {SETUP}")
    except subprocess.CalledProcessError:
        sys.exit(f"{' '.join(map(str, command))} failed{hint}")


def built(settings: dict[str, Any]) -> Path:
    """The folder of a build that has the package: the one that is told, or build/wheel after building there."""
    if "build-dir" in settings:
        return ROOT / settings["build-dir"]
    build = ROOT / "build/wheel"
    fresh = not (build / "CMakeCache.txt").exists()
    generator = ["-G", "Ninja"] if fresh and shutil.which("ninja") else []
    run("cmake", "-S", ROOT, "-B", build, *generator, "-DCMAKE_BUILD_TYPE=Release", "-DKORIMG_BUILD_APP=OFF",
        "-DKORIMG_BUILD_TESTS=OFF", f"-DPython_EXECUTABLE={sys.executable}", hint=f"; {SETUP}")
    processors = len(os.sched_getaffinity(0))
    run("cmake", "--build", build, "--target", "korimg_package", "--parallel", processors)
    return build


def installed(folder: Path) -> dict[str, tuple[int, bytes]]:
    """Modes and contents of files, by their names. Wheels have no links: libraries go by the names that loaders seek."""
    names = {file.resolve(): file for file in folder.rglob("*") if not file.is_dir() and not file.is_symlink()}
    names |= {link.resolve(): link for link in folder.rglob("*") if link.is_symlink()}
    return {str(name.relative_to(folder)): (mode_of(file), file.read_bytes()) for file, name in names.items()}


def mode_of(file: Path) -> int:
    return 0o755 if os.access(file, os.X_OK) else 0o644


def metadata() -> bytes:
    lines = ["Metadata-Version: 2.1", f"Name: {PROJECT['name']}", f"Version: {VERSION}", f"Summary: {SUMMARY}",
             f"License: {PROJECT['license']['text']}", f"Requires-Python: {PROJECT['requires-python']}"]
    lines += [f"Requires-Dist: {needed}" for needed in PROJECT["dependencies"]]
    lines += ["Description-Content-Type: text/markdown", "", (ROOT / PROJECT["readme"]).read_text()]
    return "\n".join(lines).encode()


def information() -> dict[str, tuple[int, bytes]]:
    """What installers want to know, as files of the wheel."""
    wheel = f"Wheel-Version: 1.0\nGenerator: korimg_build {VERSION}\nRoot-Is-Purelib: false\nTag: {TAG}\n"
    return {f"{NAME}.dist-info/METADATA": (0o644, metadata()), f"{NAME}.dist-info/WHEEL": (0o644, wheel.encode())}


def write_wheel(folder: str, files: dict[str, tuple[int, bytes]]) -> str:
    """Writes a wheel of files, told by their modes and contents, and the record of them."""
    record = ""
    for name, (_, data) in sorted(files.items()):
        digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()
        record += f"{name},sha256={digest},{len(data)}\n"
    own = f"{NAME}.dist-info/RECORD"
    name = f"{NAME}-{TAG}.whl"
    with zipfile.ZipFile(Path(folder, name), "w", zipfile.ZIP_DEFLATED) as wheel:
        for path, (mode, data) in [*sorted(files.items()), (own, (0o644, f"{record}{own},,\n".encode()))]:
            entry = zipfile.ZipInfo(path, time.gmtime(DATE)[:6])
            entry.compress_type = zipfile.ZIP_DEFLATED
            entry.external_attr = (0o100000 | mode) << 16
            wheel.writestr(entry, data)
    return name


def sources() -> list[str]:
    """What belongs to the source distribution: what git knows, or all of a tree that came without git."""
    listed = (ROOT / ".git").exists() and subprocess.run(["git", "-C", ROOT, "ls-files", "-z"], capture_output=True, text=True)
    if listed and listed.returncode == 0:
        names = [Path(name) for name in listed.stdout.split("\0") if name]
    else:
        names = [path for file in ROOT.rglob("*") if (path := file.relative_to(ROOT)).parts[0] not in
                 (".git", "build", "demo", "PKG-INFO") and "__pycache__" not in path.parts]
    return sorted(str(name) for name in names if (ROOT / name).is_file())
