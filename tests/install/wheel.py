"""Installs the package by pip into an environment of its own, of a build that stands: wheel.py BUILD WORK."""

import base64
import csv
import hashlib
import importlib.util
import re
import shutil
import sys
import zipfile
from pathlib import Path

from support import PACKED, ROOT, TESTS, run, skip

DATE = {"SOURCE_DATE_EPOCH": "1000000000"}

build, work = map(Path, sys.argv[1:])
if not importlib.util.find_spec("ensurepip"):
    skip("python3-venv is not installed")
shutil.rmtree(work, ignore_errors=True)
work.mkdir()
python = work / "venv/bin/python"
run(sys.executable, "-m", "venv", "--copies", "--system-site-packages", work / "venv")
pip = [python, "-m", "pip", "--isolated", "--disable-pip-version-check"]
settings = ["--no-index", "--no-deps", "--config-settings", f"build-dir={build}"]
for folder in ("one", "two"):
    run(*pip, "wheel", *settings, "-w", work / folder, ROOT, env=DATE)
[wheel] = (work / "one").iterdir()
assert wheel.read_bytes() == (work / "two" / wheel.name).read_bytes(), "the same build gives the same bytes"

with zipfile.ZipFile(wheel) as archive:
    record = next(name for name in archive.namelist() if name.endswith(".dist-info/RECORD"))
    rows = list(csv.reader(archive.read(record).decode().splitlines()))
    assert [name for name, *_ in rows] == archive.namelist()
    for name, digest, size in rows:
        data = archive.read(name)
        expected = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).decode().rstrip("=")
        assert name == record or (digest, size) == (f"sha256={expected}", str(len(data))), name

run(*pip, "install", "--no-index", wheel)
package = Path(run(python, "-c", "import korimg; print(korimg.__path__[0])", cwd=work).strip())
assert package.is_relative_to(work / "venv"), package
# Libraries are found beside what wants them, and nothing leads back to the build.
for file in [*package.glob("*.so*"), package / "korimg-decoder"]:
    for path in re.findall(r"R(?:UN)?PATH.*\[(.*)\]", run("readelf", "-d", file)):
        assert all(entry.startswith("$ORIGIN") for entry in path.split(":")), (file, path)
    for library in re.findall(r"(libkorimg\S*) => (\S+)", run("ldd", file)):
        assert library[1].startswith(str(package)), library
assert str(build).encode() not in (package / "ops.py").read_bytes()

sky = work / "sky"
sky.mkdir()
shutil.copy(PACKED, sky / "packed.fits")
# Another decoder, beside the program that runs: the library keeps to its own.
other = work / "venv/bin/korimg-decoder"
other.write_text("#!/bin/sh\nexit 1\n")
other.chmod(0o755)
print(run(python, TESTS / "smoke.py", sky, cwd=work))
# The tests of the package, but for those that want the tool.
if importlib.util.find_spec("pytest") and importlib.util.find_spec("hypothesis"):
    print(run(python, "-B", "-m", "pytest", "-q", "-p", "no:cacheprovider", ROOT / "tests/python/test_ops.py",
              "-k", "not tool", cwd=work))

# A source distribution holds what builds the wheel, and itself.
def source(tree, folder):
    run(python, "-B", "-c", "import korimg_build, sys; korimg_build.build_sdist(sys.argv[1])", folder,
        env={**DATE, "PYTHONPATH": tree / "python/backend"})
    [archive] = folder.glob("*.tar.gz")
    return archive


shutil.unpack_archive(source(ROOT, work / "one"), work / "source")
[tree] = (work / "source").iterdir()
run(*pip, "wheel", *settings, "-w", work / "three", tree, env=DATE)
assert wheel.read_bytes() == (work / "three" / wheel.name).read_bytes()
assert source(ROOT, work / "one").read_bytes() == source(tree, work / "three").read_bytes()
