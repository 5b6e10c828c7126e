#!/usr/bin/python3
"""Stacks frames by korimg stack and by the best chain of Python libraries at hand, in one run, in turns.

The chain reads 16-bit FITS by numpy, moves the frames by OpenCV (bicubic), and clips by a loop that Numba compiles and
runs on all threads, with the same rule. Debian: apt install python3-numpy python3-opencv python3-numba

usage: peers.py KORIMG TRANSFORMS FRAMES... (TRANSFORMS as korimg register --json writes it)
"""
import json
import math
import os
import statistics
import subprocess
import sys
import tempfile
import time

import cv2
import numba
import numpy as np

RUNS, ROUNDS = 5, 5


def read(path):
    with open(path, "rb") as file:
        cards, data = {}, b""
        while b"END" + b" " * 77 not in [data[i:i + 80] for i in range(0, len(data), 80)]:
            data += file.read(2880)
        for i in range(0, len(data), 80):
            card = data[i:i + 80].decode("ascii")
            if card[8:10] == "= ":
                cards[card[:8].strip()] = card[10:].split("/")[0].strip()
        shape = int(cards["NAXIS2"]), int(cards["NAXIS1"])
        pixels = np.frombuffer(file.read(shape[0] * shape[1] * 2), ">i2").reshape(shape)
    return pixels.astype(np.float32) + np.float32(cards.get("BZERO", 0))


def move(image, t):
    height, width = image.shape
    a = math.radians(t["degrees"])
    c, s, cx, cy = math.cos(a), math.sin(a), width / 2, height / 2
    x, y = t["dx"] + cx, t["dy"] + cy
    back = np.array([[c, s, cx - c * x - s * y], [-s, c, cy + s * x - c * y]])
    return cv2.warpAffine(image, back, (width, height), flags=cv2.INTER_CUBIC | cv2.WARP_INVERSE_MAP,
                          borderMode=cv2.BORDER_CONSTANT, borderValue=math.nan)


@numba.njit(parallel=True)
def clip(stack, out, kappa=2.5):
    frames, height, width = stack.shape
    for y in numba.prange(height):
        values = np.empty(frames, np.float32)
        for x in range(width):
            n = 0
            for i in range(frames):
                if math.isfinite(stack[i, y, x]):
                    values[n] = stack[i, y, x]
                    n += 1
            if n == 0:
                out[y, x] = np.nan
                continue
            for i in range(1, n):
                v, j = values[i], i
                while j > 0 and values[j - 1] > v:
                    values[j] = values[j - 1]
                    j -= 1
                values[j] = v
            first, end = 0, n
            for _ in range(ROUNDS):
                count = end - first
                if count < 3:
                    break
                middle = 0.5 * (values[first + (count - 1) // 2] + values[first + count // 2])
                linear, squares = 0.0, 0.0
                for i in range(first, end):
                    d = values[i] - middle
                    linear += d
                    squares += d * d
                width_ = kappa * math.sqrt(max(squares / count - (linear / count) ** 2, 0.0))
                low, high = first, end
                while low < high and values[low] < middle - width_:
                    low += 1
                while low < high and values[high - 1] > middle + width_:
                    high -= 1
                if low == high or high - low == count:
                    break
                first, end = low, high
            total = 0.0
            for i in range(first, end):
                total += values[i]
            out[y, x] = total / (end - first)


def chain(frames, transforms, output):
    stack = np.stack([move(read(path), transforms[os.path.realpath(path)]) for path in frames])
    out = np.empty(stack.shape[1:], np.float32)
    clip(stack, out)
    out.astype(">f4").tofile(output)
    return out


def main():
    korimg, path, *frames = sys.argv[1:]
    transforms = {os.path.realpath(t["file"]): t for t in map(json.loads, open(path)) if "file" in t}
    clip(np.zeros((3, 4, 4), np.float32), np.zeros((4, 4), np.float32))  # compiles
    cv2.setNumThreads(numba.get_num_threads())
    times = {"korimg": [], "chain": []}
    with tempfile.TemporaryDirectory() as folder:
        for _ in range(RUNS):
            start = time.perf_counter()
            subprocess.run([korimg, "stack", *frames, "--transforms", path, "--normalize", "none", "-q", "--overwrite",
                            "-o", f"{folder}/a.fits"], check=True)
            middle = time.perf_counter()
            result = chain(frames, transforms, f"{folder}/b.raw")
            times["korimg"].append(middle - start)
            times["chain"].append(time.perf_counter() - middle)
        with open(f"{folder}/a.fits", "rb") as file:
            data = file.read()
        at = (data.index(b"END" + b" " * 77) // 2880 + 1) * 2880
        own = np.frombuffer(data[at:at + result.size * 4], ">f4").reshape(result.shape)
    inner = (slice(40, -40), slice(40, -40))
    difference = np.abs(own[inner] - result[inner])
    print(f"{len(frames)} frames of {result.shape[1]} x {result.shape[0]}, {numba.get_num_threads()} threads; "
          f"OpenCV {cv2.__version__}, Numba {numba.__version__}")
    print(f"differences of the results: median {np.nanmedian(difference):.3g}, 99 % below {np.nanquantile(difference, .99):.3g}")
    medians = {name: statistics.median(seconds) for name, seconds in times.items()}
    for name, seconds in medians.items():
        print(f"{name}: {seconds:.2f} s")
    print(f"ratio {medians['korimg'] / medians['chain']:.2f}")


if __name__ == "__main__":
    main()
