#!/usr/bin/python3
"""Stacks dithered frames of lenses with a barrel by korimg and by Siril, and compares the FWHM of stars in the corners
with that of the frames themselves.

Both have the same calibrated frames of 1000 x 700, nine of them, dithered by a tenth. Debian: apt install siril

usage: distortion.py KORIMG WORK [--barrels SHARE ...] [--seeds N]
"""
import argparse
import json
import pathlib
import shutil
import statistics
import subprocess

parser = argparse.ArgumentParser()
parser.add_argument("korimg")
parser.add_argument("work", type=pathlib.Path)
parser.add_argument("--barrels", type=float, nargs="+", default=[0, 0.018, 0.03, 0.06])
parser.add_argument("--seeds", type=int, default=3)
arguments = parser.parse_args()
korimg = str(pathlib.Path(arguments.korimg).resolve())
work = arguments.work.resolve()
shutil.rmtree(work, ignore_errors=True)


def call(*command, text=None):
    done = subprocess.run([str(c) for c in command], input=text, capture_output=True, text=True)
    if done.returncode and not done.stdout:
        raise SystemExit(f"{command} failed: {done.stderr[-400:]}")
    return done.stdout


def stars(file):
    """Medians of the FWHM in the corners and in the middle, by their number."""
    out, far, near = call(korimg, "stars", "--json", file), [], []
    for star in json.loads(out)["list"]:
        if star["flags"] or star["snr"] < 30:
            continue
        r = ((star["x"] - 499.5) ** 2 + (star["y"] - 349.5) ** 2) ** 0.5 / 610.3
        (far if r > 0.7 else near if r < 0.4 else []).append(star["fwhm"])
    return far, near


def median(values):
    return statistics.median(values) if values else float("nan")


print("barrel      frames           korimg                    Siril")
for barrel in arguments.barrels:
    rows = {"frames": [[], []], "korimg": [[], []], "Siril": [[], []]}
    stacked = [0, 0]
    for seed in range(1, arguments.seeds + 1):
        folder = work / f"{barrel}_{seed}"
        night = folder / "night"
        call(korimg, "simulate", night, "--frames", 9, "--size", "1000x700", "--barrel", barrel, "--dither", 0.1, "--seed",
             seed)
        call(korimg, "calibrate", night / "lights", "--dark", night / "darks", "--flat", night / "flats", "--bias",
             night / "biases", "--out", folder / "lights")
        frames = sorted((folder / "lights").glob("*.fits"))
        call(korimg, "register", *frames, "-o", folder / "list.jsonl")
        call(korimg, "stack", *frames, "--transforms", folder / "list.jsonl", "-o", folder / "korimg.fits")
        stacked[0] += sum(json.loads(line)["status"] == "ok" for line in (folder / "list.jsonl").open())
        process = folder / "process"
        process.mkdir()
        call("siril-cli", "-s", "-", text=f"requires 1.0.0\ncd {folder}/lights\nconvert l -out={process}\ncd {process}\n"
             "register l\nstack r_l rej 3 3 -norm=addscale -output_norm -out=../siril\n")
        stacked[1] += len(list(process.glob("r_l_*.fit")))
        for name, files in (("frames", frames), ("korimg", [folder / "korimg.fits"]), ("Siril", [folder / "siril.fit"])):
            for file in files:
                for all_of, own in zip(rows[name], stars(file)):
                    all_of.extend(own)
        shutil.rmtree(process)
    text = f"{barrel:6.3f}"
    for name in rows:
        far, near = median(rows[name][0]), median(rows[name][1])
        text += f"   {far:5.2f} corner {near:5.2f} middle"
    count = 9 * arguments.seeds
    print(text + f"   stacked {stacked[0]} and {stacked[1]} of {count}", flush=True)
