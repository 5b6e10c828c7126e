#!/usr/bin/python3
"""Runs korimg's wavelets beside PyWavelets, in turns: medians of rounds. Debian: apt install python3-pywt

usage: peers.py FOLDER_OF_BENCHMARKS [ROUNDS]
"""
import json
import pathlib
import statistics
import subprocess
import sys
import time

import numpy as np
import pywt


def ours(folder, threads):
    """Milliseconds of both directions for a frame."""
    told = subprocess.run([folder / "wavelet_bench", f"--benchmark_filter=^Wavelet/threads:{threads}/real_time$",
                           "--benchmark_format=json"], check=True, capture_output=True, text=True).stdout
    return json.loads(told)["benchmarks"][0]["real_time"]


def peer(frame):
    start = time.perf_counter()
    pywt.waverec2(pywt.wavedec2(frame, "db4", mode="periodization", level=4), "db4", mode="periodization")
    return (time.perf_counter() - start) * 1e3


def main():
    folder = pathlib.Path(sys.argv[1])
    rounds = int(sys.argv[2]) if len(sys.argv) > 2 else 3
    frame = np.random.default_rng(1).uniform(100, 900, (4000, 6000)).astype(np.float32)
    times = [[], [], []]
    for _ in range(rounds):
        times[0].append(ours(folder, 1))
        times[1].append(ours(folder, 2))
        times[2].append(peer(frame))
    one, two, other = map(statistics.median, times)
    print("db4, 4 levels, both directions, 24 megapixels, milliseconds: korimg with 1 and 2 threads, PyWavelets, and "
          "how many times as fast")
    print(f"{one:8.0f} {two:8.0f} {other:8.0f} {other / one:8.1f} {other / two:8.1f}")


if __name__ == "__main__":
    main()
