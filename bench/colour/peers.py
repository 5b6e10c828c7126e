#!/usr/bin/python3
"""Runs korimg's planes of Lab beside scikit-image's rgb2lab and lab2rgb, in turns: medians of rounds.

scikit-image takes seconds for a frame of 24 megapixels, so it converts a part; times are given for a megapixel. Debian:
apt install python3-numpy python3-skimage

usage: peers.py FOLDER_OF_BENCHMARKS [ROUNDS]
"""
import json
import pathlib
import statistics
import subprocess
import sys
import time

import numpy as np
from skimage import color

FRAME, PART = (4000, 6000), (1000, 1500)


def seconds(function):
    start = time.perf_counter()
    function()
    return time.perf_counter() - start


def ours(folder, name):
    """Milliseconds of a benchmark for a frame, by its name up to the end."""
    told = subprocess.run([folder / "colour_bench", f"--benchmark_filter=^{name}$", "--benchmark_format=json"],
                          check=True, capture_output=True, text=True).stdout
    return json.loads(told)["benchmarks"][0]["real_time"]


def main():
    folder = pathlib.Path(sys.argv[1])
    rounds = int(sys.argv[2]) if len(sys.argv) > 2 else 3
    rgb = np.random.default_rng(1).uniform(0, 1, PART + (3,)).astype(np.float32)
    lab = color.rgb2lab(rgb)
    cases = [("MakeLabPlane, rgb2lab", "ToLab", lambda: color.rgb2lab(rgb)),
             ("lab-enhance, lab2rgb", "FromLab", lambda: color.lab2rgb(lab))]
    frame = FRAME[0] * FRAME[1] / 1e6
    print("milliseconds for a megapixel: korimg with 1 and 2 threads, scikit-image, and how many times as fast")
    for name, bench, peer in cases:
        times = [[], [], []]
        for _ in range(rounds):
            for i, threads in enumerate((1, 2)):
                times[i].append(ours(folder, f"{bench}/threads:{threads}/real_time") / frame)
            times[2].append(seconds(peer) * 1e9 / (PART[0] * PART[1]))
        one, two, other = map(statistics.median, times)
        print(f"{name:28} {one:8.1f} {two:8.1f} {other:8.1f} {other / one:8.1f} {other / two:8.1f}")


if __name__ == "__main__":
    main()
