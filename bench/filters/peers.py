#!/usr/bin/python3
"""Runs korimg's rank filters and its equalisation beside SciPy's and NumPy's, in turns: medians of rounds.

SciPy takes minutes for a frame of 24 megapixels, so it filters a part; times are given for a megapixel. Debian: apt
install python3-numpy python3-scipy

usage: peers.py FOLDER_OF_BENCHMARKS [ROUNDS]
"""
import json
import pathlib
import statistics
import subprocess
import sys
import time

import numpy as np
from scipy import ndimage

FRAME, PART = (4000, 6000), (500, 1000)


def seconds(function):
    start = time.perf_counter()
    function()
    return time.perf_counter() - start


def ours(folder, program, name):
    """Milliseconds of a benchmark for a frame, by its name up to the end."""
    told = subprocess.run([folder / program, f"--benchmark_filter=^{name}$", "--benchmark_format=json"],
                          check=True, capture_output=True, text=True).stdout
    return json.loads(told)["benchmarks"][0]["real_time"]


def disc(radius):
    side = np.arange(-radius, radius + 1)
    return side[:, None] ** 2 + side ** 2 <= radius ** 2


def main():
    folder = pathlib.Path(sys.argv[1])
    rounds = int(sys.argv[2]) if len(sys.argv) > 2 else 3
    random = np.random.default_rng(1)
    sky = random.normal(1000, 20, FRAME).astype(np.float32)
    whole = random.integers(0, 65536, FRAME).astype(np.float32)
    noise = random.uniform(80, 920, PART).astype(np.float32)

    def rank(image):
        order = np.argsort(image, axis=None)
        ranks = np.empty(image.size, np.float32)
        ranks[order] = np.arange(image.size, dtype=np.float32)

    cases = [
        ("equalize, a sky", "equalize_bench", "EqualizeSky", FRAME, lambda: rank(sky)),
        ("equalize, 16 bits", "equalize_bench", "EqualizeWhole", FRAME, lambda: rank(whole)),
        ("star-sharpen 3, rank 14.5", "star_bench", "StarSharp/r:3", PART,
         lambda: ndimage.rank_filter(noise, 14, footprint=disc(3), mode="mirror")),
        ("hot-cool 2", "noise_bench", "HotCool2", PART,
         lambda: ndimage.median_filter(noise, footprint=disc(2), mode="mirror")),
    ]
    frame = FRAME[0] * FRAME[1] / 1e6
    print("milliseconds for a megapixel: korimg with 1 and 2 threads, the peer, and how many times as fast")
    for name, program, bench, shape, peer in cases:
        if not (folder / program).exists():
            continue
        times = [[], [], []]
        for _ in range(rounds):
            for i, threads in enumerate((1, 2)):
                times[i].append(ours(folder, program, f"{bench}/threads:{threads}/real_time") / frame)
            times[2].append(seconds(peer) * 1e9 / (shape[0] * shape[1]))
        one, two, other = map(statistics.median, times)
        print(f"{name:28} {one:8.1f} {two:8.1f} {other:8.1f} {other / one:8.1f} {other / two:8.1f}")


if __name__ == "__main__":
    main()
