#!/usr/bin/python3
"""Tells what is left of an aeroplane's trail in stacks of few frames, by each way to reject outliers.

Simulated sessions are calibrated and registered; into one light of each goes a double trail of up to 60 deviations of the
sky's noise, and where it is asked for a slope of 10 deviations, to another side in each light. Counted are pixels that
differ from the stack without the trail by more than 5 deviations of the stack's noise.
Debian: apt install python3-numpy python3-astropy

usage: rejection.py KORIMG WORK [--frames 3,5,8] [--seed N]
"""
import argparse
import pathlib
import subprocess

import numpy as np
from astropy.io import fits

parser = argparse.ArgumentParser()
parser.add_argument("korimg")
parser.add_argument("work", type=pathlib.Path)
parser.add_argument("--frames", default="3,5,8")
parser.add_argument("--seed", type=int, default=7)
arguments = parser.parse_args()


def korimg(*words):
    return subprocess.run([arguments.korimg, *map(str, words)], check=True, capture_output=True, text=True).stdout


def noise_of(image):
    steps = np.diff(image[::7], axis=1)
    return 1.4826 * np.nanmedian(abs(steps - np.nanmedian(steps))) / 2**0.5


def trail(shape, noise):
    y, x = np.mgrid[0:shape[0], 0:shape[1]]
    result = np.zeros(shape)
    for offset, peak in ((0, 60), (14, 25)):
        away = (y - shape[0] * 0.2 - offset - 0.35 * (x - 100)) / np.hypot(1, 0.35)
        result += peak * noise * (1 + 0.5 * np.sin(x / 40)) * np.exp(-away**2 / 2 / 2.5**2)
    return result


def slope(shape, noise, frame):
    y, x = np.mgrid[0:shape[0], 0:shape[1]]
    return 10 * noise * (np.cos(2.1 * frame) * (x / shape[1] - 0.5) + np.sin(2.1 * frame) * (y / shape[0] - 0.5))


print(f"{'frames':>6} {'slopes':>6}  pixels above 5 sigma, by way")
for count in map(int, arguments.frames.split(",")):
    session = arguments.work / f"session{count}"
    korimg("simulate", session, "--frames", count, "--seed", arguments.seed, "--overwrite", "-q")
    korimg("calibrate", session / "lights", "--dark", session / "darks", "--flat", session / "flats", "--bias",
           session / "biases", "--out", session / "calibrated", "--overwrite", "-q")
    lights = sorted((session / "calibrated").glob("*.fits"))
    transforms = korimg("register", *lights, "--json")
    for slopes in (False, True):
        folders = {name: session / name for name in ("clean", "spoiled")}
        for name, folder in folders.items():
            folder.mkdir(exist_ok=True)
            (folder / "transforms.jsonl").write_text(transforms.replace(str(lights[0].parent), str(folder)))
            for i, light in enumerate(lights):
                pixels = fits.getdata(light).astype(np.float64)
                noise = noise_of(pixels)
                if slopes:
                    pixels += slope(pixels.shape, noise, i)
                if name == "spoiled" and i == count // 2:
                    pixels += trail(pixels.shape, noise)
                fits.writeto(folder / light.name, pixels.astype(np.float32), overwrite=True)
        line = []
        for way in ("none", "sigma", "winsorized", "esd", "auto"):
            stacks = {}
            for name, folder in folders.items():
                korimg("stack", *(folder / light.name for light in lights), "--transforms", folder / "transforms.jsonl",
                       "--weight", "none", "--reject", way, "-o", folder / "stack.fits", "--overwrite", "-q")
                stacks[name] = fits.getdata(folder / "stack.fits").astype(np.float64)
            left = abs(stacks["spoiled"] - stacks["clean"]) > 5 * noise_of(stacks["clean"])
            line.append(f"{way} {np.count_nonzero(left)}")
        print(f"{count:6} {'yes' if slopes else 'no':>6}  {', '.join(line)}", flush=True)
