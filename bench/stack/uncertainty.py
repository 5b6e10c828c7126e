#!/usr/bin/env python3
"""Compares the uncertainty of stacks with the scatter of stacks of the same sky that differ in their noise.

    uncertainty.py KORIMG FOLDER [--stacks 100] [--frames 12] [--size 160x120] [--bayer RGGB] [--kernel bicubic]

Each stack has lights, darks, flats and biases of its own noise, calibrated, laid where truth.json says and
stacked. Wants numpy and astropy.
"""
import argparse
import json
import pathlib
import shutil
import subprocess

import numpy as np
from astropy.io import fits


def run(*words):
    subprocess.run([str(word) for word in words], check=True, stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL)


def transforms(folder, calibrated):
    """What `korimg register --json` would write, by the truth."""
    half = np.array([0.5, 0.5])  # from the middle of the pixels to that of width and height
    lines = []
    for light in json.loads((folder / "truth.json").read_text())["lights"]:
        angle = -np.radians(light["rotation_deg"])
        back = np.array([[np.cos(angle), -np.sin(angle)], [np.sin(angle), np.cos(angle)]])
        dx, dy = back @ (half - [light["dx"], light["dy"]]) - half
        lines.append(json.dumps({"file": str(calibrated / (pathlib.Path(light["file"]).stem + ".fits")),
                                 "dx": dx, "dy": dy, "degrees": np.degrees(angle), "status": "ok"}))
    return "\n".join(lines) + "\n"


def one(args, number):
    """A stack and its uncertainty and mask."""
    work = args.folder / "work"
    shutil.rmtree(work, ignore_errors=True)
    sky, calibrated = work / "sky", work / "calibrated"
    mosaic = ["--bayer", args.bayer] if args.bayer else []
    run(args.korimg, "simulate", sky, "--frames", args.frames, "--size", args.size, "--noise-seed", 1000 + number,
        *mosaic)
    balance = ["--white-balance", "none"] if args.bayer else []
    run(args.korimg, "calibrate", sky / "lights", "--dark", sky / "darks", "--flat", sky / "flats", "--bias",
        sky / "biases", "--out", calibrated, "--cosmetic", "auto", "--uncertainty", "--mask", *balance)
    (work / "transforms.jsonl").write_text(transforms(sky, calibrated))
    output = work / "stack.fits"
    run(args.korimg, "stack", calibrated, "-o", output, "--transforms", work / "transforms.jsonl",
        "--kernel", args.kernel, "--uncertainty", "--mask", *args.options.split())
    with fits.open(output) as file:
        return [np.atleast_3d(np.array(file[name].data, np.float64).T).T for name in (0, "UNCERT", "MASK")]


def inner(folder, shape):
    """Pixels no further than 1.5 pixels from the middle of a star."""
    y, x = np.indices(shape)
    where = np.zeros(shape, bool)
    for star in json.loads((folder / "truth.json").read_text())["stars"]:
        if -2 < star["x"] < shape[1] + 2 and -2 < star["y"] < shape[0] + 2:
            where |= np.hypot(x - star["x"], y - star["y"]) <= 1.5
    return where


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("korimg", type=pathlib.Path)
    parser.add_argument("folder", type=pathlib.Path)
    parser.add_argument("--stacks", type=int, default=100)
    parser.add_argument("--frames", type=int, default=12)
    parser.add_argument("--size", default="160x120")
    parser.add_argument("--bayer", default="")
    parser.add_argument("--kernel", default="bicubic")
    parser.add_argument("--options", default="", help="more words for korimg stack")
    args = parser.parse_args()

    stacks = [one(args, i) for i in range(args.stacks)]
    values, errors, masks = (np.array([stack[i] for stack in stacks]) for i in range(3))
    scatter = values.std(axis=0, ddof=1)
    predicted = np.sqrt((errors**2).mean(axis=0))
    good = np.isfinite(scatter) & (masks == 0).all(axis=0)
    level = np.median(values, axis=0)
    # Of the square root of a chi-squared number over its freedom, upside down.
    bias = (1 - 2 / (9 * (args.stacks - 1))) ** -1.5
    for p in range(level.shape[0]):
        sky = np.median(level[p][good[p]])
        noise = np.median(predicted[p][good[p]])
        # In steps of the stack's own noise above the sky.
        above = (level[p] - sky) / noise
        isInner = inner(args.folder / "work" / "sky", above.shape) & (above >= 10)
        classes = {"sky": (above < 5) & ~isInner, "nebula and wings": (above >= 5) & ~isInner,
                   "inner pixels of stars": isInner, "of the brightest": isInner & (above >= 60)}
        for name, where in classes.items():
            ratio = (predicted[p] / scatter[p])[good[p] & where]
            if ratio.size == 0:
                continue
            print(f"plane {p} {name:21} {ratio.size:6} pixels: predicted / scatter {np.median(ratio) / bias:.4f} in the "
                  f"median, 5 to 95 % {np.percentile(ratio, 5) / bias:.3f} to {np.percentile(ratio, 95) / bias:.3f}")


if __name__ == "__main__":
    main()
