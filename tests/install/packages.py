"""Installs the Debian packages of a build that stands into a bare system, and uses them there: packages.py BUILD WORK.

Hosts of the libraries are built on this system, against the packages alone.
"""

import platform
import re
import shutil
import sys
import urllib.request
from pathlib import Path

from support import PACKED, ROOT, TESTS, run, skip

# Runs in the bare system.
USE = """
set -e
apt-get install -y -qq --no-install-recommends /korimg/*.deb >/korimg/apt.log 2>&1 || { cat /korimg/apt.log; exit 1; }
cd /korimg
korimg --version
korimg info packed.fits
korimg simulate night --frames 6 --size 400x300 --quiet
korimg run night --out result --quiet
korimg render result/stack.fits -o picture.png --annotate --title M42
test -s result/report.html && test -s picture.png
mkdir python
cp packed.fits python
python3 smoke.py python
python3 -c 'import korimg._core; print("compiled:", korimg.__cached__)'
test -f /usr/lib/python3/dist-packages/korimg/__pycache__/ops.cpython-3*.pyc
apt-get remove -y -qq python3-korimg >/dev/null 2>&1
test ! -e /usr/lib/python3/dist-packages/korimg
"""

build, work = map(Path, sys.argv[1:])
for program in ("mmdebstrap", "dpkg-shlibdeps"):
    if not shutil.which(program):
        skip(f"{program} is not installed")
suite = platform.freedesktop_os_release().get("VERSION_CODENAME")
for sources in map(Path, ("/etc/apt/sources.list.d/debian.sources", "/etc/apt/sources.list")):
    archive = sources.is_file() and re.search(r"^(?:URIs:|deb ).*?(https?://\S+)", sources.read_text(), re.MULTILINE)
    if archive:
        break
else:
    skip("this is no Debian that says where its packages come from")
try:
    urllib.request.urlopen(f"{archive[1]}/dists/{suite}/InRelease", timeout=20).close()
except OSError as error:
    skip(f"{archive[1]} cannot be reached: {error}")

shutil.rmtree(work, ignore_errors=True)
run("cpack", "--config", build / "CPackConfig.cmake", "-B", work)
debs = {re.match("[^_]+", deb.name)[0]: deb for deb in work.glob("*.deb")}
assert debs.keys() == {"korimg", "libkorimg0", "libkorimg-dev", "python3-korimg"}, debs

# Hosts.
for name in ("libkorimg0", "libkorimg-dev"):
    run("dpkg-deb", "-x", debs[name], work / "unpacked")
run("cmake", "-G", "Ninja", "-S", ROOT / "examples", "-B", work / "hosts", f"-DCMAKE_PREFIX_PATH={work}/unpacked/usr")
assert f"korimg_DIR:PATH={work}/unpacked/usr/lib" in (work / "hosts/CMakeCache.txt").read_text()
run("cmake", "--build", work / "hosts", "--target", "invert", "operation")
for host in ("invert", "operation"):
    run(work / "hosts" / host)

# The tool and the Python package. The root is gone when its test is done.
share = work / "korimg"
share.mkdir()
for file in (*debs.values(), TESTS / "smoke.py"):
    shutil.copy(file, share)
shutil.copy(PACKED, share / "packed.fits")
(share / "use.sh").write_text(USE)
print(run("mmdebstrap", "--variant=minbase", "--format=null", f"--customize-hook=copy-in {share} /",
          "--customize-hook=chroot \"$1\" sh /korimg/use.sh", suite, "/dev/null", sources))
