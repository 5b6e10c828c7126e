#!/usr/bin/python3
"""Takes a simulated session to a stack by korimg run and by the best chain of Python libraries at hand, in turns.

The chain: masters and stack clipped by a loop that Numba compiles and runs on all threads, frames calibrated by NumPy,
stars by SEP, matched by votes for a shift and pairs of neighbours, moved by OpenCV (bicubic), written as raw floats, TIFF
and PNG. Frames are worked on side by side. It finds shifts and small turns only, and writes no report.
Debian: apt install python3-numpy python3-opencv python3-numba python3-scipy python3-sep

usage: chain.py KORIMG SESSION [--runs N] (SESSION as `korimg simulate` writes it, without --bayer)
       chain.py --chain SESSION OUT (the chain alone)
"""
import concurrent.futures
import math
import os
import pathlib
import statistics
import subprocess
import sys
import tempfile
import time

import cv2
import numba
import numpy as np
import scipy.spatial
import sep

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "stack"))
from peers import clip, move, read  # noqa: E402

THREADS, KAPPA = 2, 3.0


def clipped(frames, kappa=KAPPA):
    out = np.empty(frames.shape[1:], np.float32)
    clip(frames, out, kappa)
    return out


def master(folder, less=None):
    with concurrent.futures.ThreadPoolExecutor(THREADS) as pool:
        frames = list(pool.map(read, sorted(folder.iterdir())))
    if less is not None:
        frames = [frame - less for frame in frames]
        frames = [frame / np.mean(frame[::8, ::8]) for frame in frames]
    return clipped(np.stack(frames))


def stars(image):
    background = sep.Background(image)
    found = sep.extract(image - background.back(), 5, err=background.globalrms)
    flux, _, _ = sep.sum_circle(image - background.back(), found["x"], found["y"], 4.0)
    best = np.argsort(-flux)[:1000]
    return np.column_stack([found["x"], found["y"]])[best], flux[best], background.globalback


def lay(points, flux, reference, reference_flux, shape):
    """Shift and angle that lay the points on the reference's, and the ratio of their fluxes."""
    differences = (reference[:60, None] - points[None, :60]).reshape(-1, 2)
    tree = scipy.spatial.cKDTree(differences)
    shift = differences[np.argmax([len(near) for near in tree.query_ball_point(differences, 3)])]
    distance, pair = scipy.spatial.cKDTree(reference).query(points + shift, distance_upper_bound=5)
    ok = np.isfinite(distance)
    matrix, inside = cv2.estimateAffinePartial2D(points[ok], reference[pair[ok]], ransacReprojThreshold=0.5)
    inside = inside[:, 0] > 0
    middle = np.array([shape[1] / 2, shape[0] / 2])
    dx, dy = matrix[:, :2] @ middle + matrix[:, 2] - middle
    gain = np.median(reference_flux[pair[ok]][inside] / flux[ok][inside])
    return {"dx": dx, "dy": dy, "degrees": math.degrees(math.atan2(matrix[1, 0], matrix[0, 0]))}, gain


def chain(session, out):
    bias = master(session / "biases")
    dark, flat = master(session / "darks"), master(session / "flats", bias)
    lights = sorted((session / "lights").iterdir())

    def measure(path):
        frame = (read(path) - dark) / flat
        return frame, *stars(frame)

    with concurrent.futures.ThreadPoolExecutor(THREADS) as pool:
        frames = list(pool.map(measure, lights))
        _, reference, reference_flux, level = frames[0]

        def moved(item):
            frame, points, flux, sky = item
            transform, gain = lay(points, flux, reference, reference_flux, frame.shape)
            return move(((frame - sky) * gain + level).astype(np.float32), transform)

        result = clipped(np.stack(list(pool.map(moved, frames))))
    out.mkdir(exist_ok=True)
    result.astype(">f4").tofile(out / "stack.raw")
    low, high = np.nanmin(result), np.nanmax(result)
    scaled = np.nan_to_num((result - low) * (65535 / (high - low)))
    cv2.imwrite(str(out / "stack.tif"), scaled.astype(np.uint16))
    low, high = np.nanquantile(result[::8, ::8], [0.01, 0.999])
    cv2.imwrite(str(out / "stack.png"), np.nan_to_num(np.clip((result - low) * (255 / (high - low)), 0, 255)).astype(np.uint8))


def measure(command):
    """Seconds and MB of a command, and what it prints."""
    start = time.perf_counter()
    child = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
    text = child.stdout.read()
    _, status, usage = os.wait4(child.pid, 0)
    if status:
        raise SystemExit(f"failed: {command}")
    return time.perf_counter() - start, usage.ru_maxrss / 1024, text


def main():
    if sys.argv[1] == "--chain":
        numba.set_num_threads(THREADS)
        cv2.setNumThreads(1)  # frames go side by side
        clip(np.zeros((3, 4, 4), np.float32), np.zeros((4, 4), np.float32), KAPPA)  # compiles
        start = time.perf_counter()
        chain(pathlib.Path(sys.argv[2]), pathlib.Path(sys.argv[3]))
        print(time.perf_counter() - start)
        return
    korimg, session = sys.argv[1], pathlib.Path(sys.argv[2])
    runs = int(sys.argv[4]) if "--runs" in sys.argv else 3
    times = {"korimg": [], "chain": []}
    with tempfile.TemporaryDirectory() as folder:
        for _ in range(runs):
            seconds, peak, _ = measure([korimg, "run", str(session), "--out", f"{folder}/korimg", "--reject", "sigma", "--kappa",
                                        str(KAPPA), "--threads", str(THREADS), "--quiet", "--overwrite"])
            times["korimg"].append((seconds, peak))
            _, peak, own = measure([sys.executable, __file__, "--chain", str(session), f"{folder}/chain"])
            times["chain"].append((float(own), peak))  # without the time of starting and compiling
    print(f"{THREADS} threads; OpenCV {cv2.__version__}, Numba {numba.__version__}, SEP {sep.__version__}")
    medians = {name: statistics.median(seconds for seconds, _ in results) for name, results in times.items()}
    for name, results in times.items():
        print(f"{name}: {medians[name]:.2f} s, {max(peak for _, peak in results):.0f} MB")
    print(f"ratio {medians['korimg'] / medians['chain']:.2f}")


if __name__ == "__main__":
    main()
