#!/usr/bin/python3
"""Makes four panels of a mosaic with their own gradients, transparency and turns, joins them by korimg and by SWarp,
and measures the seams: how far what is left of the truth steps where a panel ends, in units of the sky's noise.

Debian: apt install swarp python3-numpy python3-scipy python3-astropy

usage: panels.py KORIMG WORK [--runs N]
"""
import argparse
import pathlib
import shutil
import statistics
import subprocess
import time

import numpy as np
from astropy.io import fits

parser = argparse.ArgumentParser()
parser.add_argument("korimg")
parser.add_argument("work", type=pathlib.Path)
parser.add_argument("--runs", type=int, default=3)
parser.add_argument("--size", type=int, nargs=2, default=(1200, 900))
arguments = parser.parse_args()
work = arguments.work.resolve()
shutil.rmtree(work, ignore_errors=True)
(work / "panels").mkdir(parents=True)
korimg = str(pathlib.Path(arguments.korimg).resolve())

W, H = arguments.size
NOISE, SKY, SCALE = 10.0, 1000.0, 2.0 / 3600
random = np.random.default_rng(5)
stars = [(x, y, 3000 / u) for x, y, u in zip(random.uniform(-100, 2 * W, 4000), random.uniform(-100, 2 * H, 4000),
                                              random.uniform(0.02, 1, 4000))]


def nebula(x, y):
    return 300 * np.exp(-((x - 0.9 * W) ** 2 / (0.5 * W) ** 2 + (y - 0.8 * H) ** 2 / (0.3 * H) ** 2))


# Where the middle of each panel lies on the first one's grid, how it is turned, its transparency and gradient.
PANELS = [((0, 0), 0.0, 1.0, (0, 0, 0)), ((0.85 * W, 12.3), 0.7, 0.9, (80, -60, 30)),
          ((-9.4, 0.86 * H), -0.5, 0.95, (-50, 70, -40)), ((0.84 * W, 0.85 * H), 0.3, 1.05, (60, 60, 50))]
yy, xx = np.mgrid[0:H, 0:W]
for number, ((dx, dy), degrees, light, (gx, gy, gxy)) in enumerate(PANELS):
    a = np.radians(degrees)
    c, s = np.cos(a), np.sin(a)
    mx, my = (W - 1) / 2, (H - 1) / 2
    u, v = xx - mx, yy - my
    skyx, skyy = c * u - s * v + mx + dx, s * u + c * v + my + dy
    image = light * nebula(skyx, skyy)
    for x, y, peak in stars:
        p, q = x - mx - dx, y - my - dy
        px, py = c * p + s * q + mx, -s * p + c * q + my
        if not (-8 < px < W + 8 and -8 < py < H + 8):
            continue
        x0, x1, y0, y1 = max(int(px) - 8, 0), min(int(px) + 9, W), max(int(py) - 8, 0), min(int(py) + 9, H)
        if x0 < x1 and y0 < y1:
            box = np.s_[y0:y1, x0:x1]
            image[box] += light * peak * np.exp(-((xx[box] - px) ** 2 + (yy[box] - py) ** 2) / (2 * 1.3 ** 2))
    un, vn = u / mx, v / my
    image += SKY * (1 + 0.1 * number) + gx * un + gy * vn + gxy * un * vn + random.normal(0, NOISE, (H, W))
    header = fits.Header({"OBJECT": "mosaic", "EXPTIME": 60.0, "CTYPE1": "RA---TAN", "CTYPE2": "DEC--TAN", "CRVAL1": 80.0,
                          "CRVAL2": 20.0, "CRPIX1": mx - (c * dx + s * dy) + 1, "CRPIX2": my - (-s * dx + c * dy) + 1,
                          "CD1_1": -SCALE * c, "CD1_2": SCALE * s, "CD2_1": SCALE * s, "CD2_2": SCALE * c})
    fits.writeto(work / "panels" / f"panel{number}.fits", image.astype("f4"), header)


def run(command, **options):
    start = time.perf_counter()
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, **options)
    return time.perf_counter() - start


def seams(image, left, top):
    """Steps of what is left of the truth across each panel's edges, between strips of 12 pixels, in sigmas."""
    rows, columns = image.shape
    y, x = np.mgrid[0:rows, 0:columns]
    rest = image - nebula(x + left, y + top)
    for sx, sy, _ in stars:
        i, k = round(sy - top), round(sx - left)
        rest[max(i - 7, 0):max(i + 8, 0), max(k - 7, 0):max(k + 8, 0)] = np.nan
    steps = []
    for (dx, dy), degrees, *_ in PANELS:
        a = np.radians(degrees)
        c, s = np.cos(a), np.sin(a)
        p, q = x + left - (W - 1) / 2 - dx, y + top - (H - 1) / 2 - dy
        px, py = c * p + s * q + (W - 1) / 2, -s * p + c * q + (H - 1) / 2
        for along, across, size, other in ((px, py, W, H), (py, px, H, W)):
            for edge in (0, size):
                for part in range(8):  # of the edge
                    on = (across > other * part / 8) & (across < other * (part + 1) / 8) & np.isfinite(rest)
                    inside, outside = on & (abs(along - edge) < 12), on
                    sign = 1 if edge else -1
                    inner = inside & (sign * (along - edge) < 0)
                    outer = inside & (sign * (along - edge) >= 0)
                    if inner.sum() > 500 and outer.sum() > 500:
                        steps.append((np.median(rest[inner]) - np.median(rest[outer])) / NOISE)
    return np.array(steps)


files = sorted(str(f) for f in (work / "panels").glob("*.fits"))
times = {"korimg": [], "SWarp": []}
for _ in range(arguments.runs):
    seconds = run([korimg, "register", "-o", "list.jsonl", "--overwrite", "--reference", files[0], *files], cwd=work)
    seconds += run([korimg, "stack", "--frame", "union", "--transforms", "list.jsonl", "--reference", files[0], "-o",
                    "korimg.fits", "--overwrite", *files], cwd=work)
    times["korimg"].append(seconds)
    times["SWarp"].append(run(["SWarp", *files, "-IMAGEOUT_NAME", "swarp.fits", "-COMBINE_TYPE", "WEIGHTED",
                               "-SUBTRACT_BACK", "Y", "-BACK_SIZE", "128", "-NTHREADS", "2", "-RESAMPLING_TYPE", "LANCZOS3"],
                              cwd=work))
for name, file in (("korimg", "korimg.fits"), ("SWarp", "swarp.fits")):
    with fits.open(work / file) as opened:
        header, image = opened[0].header, opened[0].data.astype("f8")
    # The first panel's pixel (0, 0) by the world coordinates that both keep.
    left = (W - 1) / 2 + 1 - header["CRPIX1"]
    top = (H - 1) / 2 + 1 - header["CRPIX2"]
    if header["CD1_1"] * -1 > 0 and header.get("CD2_2", 1) < 0:
        image = image[::-1]
    image[image == 0] = np.nan
    steps = seams(image, left, top)
    print(f"{name:8s} {statistics.median(times[name]):6.2f} s  {image.shape[1]} x {image.shape[0]}  seams: {len(steps)}, "
          f"median {np.median(abs(steps)):.3f}, worst {abs(steps).max():.3f} sigma")
