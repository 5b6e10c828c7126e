#!/usr/bin/python3
"""Takes gradients of simulated skies off by korimg, by photutils' Background2D and by Siril, and tells what each leaves.

A line, a bowl and the glow of a moon lie over stars and a nebula that fills a third of the image. Of what a tool took
off: what differs from the gradient, root mean square in percent of the gradient's range, and the share of the nebula
that went with it, in percent: that by which what is taken off changes with the nebula.
Debian: apt install siril python3-photutils

usage: gradient_peers.py KORIMG WORK [OPTIONS OF gradient...]
"""
import pathlib
import shutil
import subprocess
import sys
import time

import numpy as np
from astropy.io import fits
from astropy.stats import SigmaClip
from photutils.background import Background2D, MedianBackground

WIDTH, HEIGHT, NOISE, SCALE = 1500, 1000, 15.0, 1 / 16384


def sky(random):
    """Coordinates from -1 to 1 on the longer side, a nebula's shape of maximum 1, and stars."""
    y, x = np.mgrid[:HEIGHT, :WIDTH].astype(np.float64)
    u, v = (x - WIDTH / 2) / (WIDTH / 2), (y - HEIGHT / 2) / (WIDTH / 2)
    r2 = 1.3 * (u + 0.25) ** 2 + 2 * (v - 0.1) ** 2
    nebula = np.exp(-r2 / 0.14) * (1 + 0.3 * np.sin(x / 17) * np.cos(y / 23))
    stars = np.zeros_like(x)
    offsets = np.arange(-12, 13)
    star = np.exp(-(offsets[:, None] ** 2 + offsets[None, :] ** 2) / 5)
    for _ in range(800):
        i, j = random.integers(13, HEIGHT - 13), random.integers(13, WIDTH - 13)
        stars[i - 12:i + 13, j - 12:j + 13] += 30 * 300 ** random.uniform() * star
    return u, v, nebula, stars


def slopes(u, v):
    return {"line": 200 * u - 120 * v,
            "bowl": 220 * (u * u + v * v) - 60 * u,
            "moon": 500 / (1 + 2 * np.hypot(u - 1.6, v + 1.2))}


def by_korimg(image, options):
    subprocess.run([KORIMG, "apply", "gradient", "result=model", *options, WORK / "in.fits", "-o", WORK / "model.fits",
                    "--overwrite", "--quiet"], check=True)
    return fits.getdata(WORK / "model.fits").astype(np.float64)


def by_photutils(image, _):
    return Background2D(image, 64, filter_size=3, sigma_clip=SigmaClip(3), bkg_estimator=MedianBackground()).background


def by_siril(image, options):
    # Of a sequence of two, since the command for one image ends scripts of Siril 1.0.6.
    folder = WORK / "siril"
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir()
    for number in (1, 2):
        shutil.copy(WORK / "in.fits", folder / f"in_0000{number}.fit")
    script = WORK / "script.ssf"
    script.write_text(f"requires 1.0.0\ncd {folder}\nset32bits\nseqsubsky in_ {' '.join(options)}\n")
    subprocess.run(["siril-cli", "-s", script], check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return image.astype(np.float64) - fits.getdata(folder / "bkg_in_00001.fit")


TOOLS = {"korimg, plate": (by_korimg, []), "korimg, degree 2": (by_korimg, ["surface=polynomial"]),
         "korimg, degree 4": (by_korimg, ["surface=polynomial", "degree=4"]),
         "photutils, boxes of 64": (by_photutils, None), "Siril, degree 4": (by_siril, ["4"]),
         "Siril, degree 1": (by_siril, ["1"])}


def main():
    random = np.random.default_rng(1)
    u, v, nebula, stars = sky(random)
    shape = nebula - nebula.mean()
    print(f"{'':26}" + "".join(f"{name + ', nebula ' + str(peak):>26}" for name in slopes(u, v) for peak in (150, 60)))
    rows = {name: "" for name in TOOLS}
    for slope in slopes(u, v).values():
        for peak in (150, 60):
            field = 1000 + slope + stars + random.normal(0, NOISE, slope.shape)
            for name, (tool, options) in TOOLS.items():
                taken = []
                for image in (field, field + peak * nebula):
                    # Siril takes floats from 0 to 1.
                    image = (image * SCALE).astype(np.float32)
                    fits.PrimaryHDU(image).writeto(WORK / "in.fits", overwrite=True)
                    start = time.perf_counter()
                    taken.append(tool(image, options + OPTIONS if tool is by_korimg else options) / SCALE)
                    seconds = time.perf_counter() - start
                share = ((taken[1] - taken[0]) * shape).sum() / (peak * shape * shape).sum()
                error = (taken[1] - slope).std() / np.ptp(slope)
                rows[name] += f"{100 * error:8.2f} {100 * share:7.2f} {seconds:7.2f} s"
    for name, row in rows.items():
        print(f"{name:26}{row}")


KORIMG, WORK, OPTIONS = sys.argv[1], pathlib.Path(sys.argv[2]).resolve(), sys.argv[3:]
main()
