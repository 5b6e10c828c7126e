#!/usr/bin/python3
"""Measures korimg stack --drizzle: beside python3-drizzle, on the same frames in turns, and by the width of stars.

The peer gets its maps of pixels ready made, and only its drops are timed; of korimg it is the whole call, from files to
files. Where frames are turned the peer's areas are off by up to 1 %, and ours are exact, as the tests show by clipping
polygons. The stars, 1.2 pixels wide before the detector's pixels, lie in 30 frames at random places; what the means should
make of them is their convolution with pixel, drop and fine pixel, or with pixel and bicubic kernel.
Debian: apt install python3-astropy python3-drizzle python3-scipy

usage: drizzling.py KORIMG WORK
"""
import json
import os
import statistics
import subprocess
import sys
import time

import numpy as np
from astropy.io import fits
from drizzle import cdrizzle
from scipy.optimize import least_squares
from scipy.special import erf

KORIMG, WORK = os.path.abspath(sys.argv[1]), sys.argv[2]
ROUNDS = 3
PER_SIGMA = 2.3548200450309493
os.makedirs(WORK, exist_ok=True)
os.chdir(WORK)


def write(frames, poses):
    names = []
    with open("moves.jsonl", "w") as file:
        for i, (frame, (dx, dy, degrees)) in enumerate(zip(frames, poses)):
            names.append(f"f{i:02}.fits")
            fits.writeto(names[-1], frame.astype(np.float32), overwrite=True)
            file.write(json.dumps({"file": names[-1], "dx": dx, "dy": dy, "degrees": degrees, "fwhm": 1.5, "stars": 9,
                                   "status": "ok"}) + "\n")
    return names


def stack(names, *options):
    start = time.perf_counter()
    subprocess.run([KORIMG, "stack", *names, "--transforms", "moves.jsonl", "-o", "out.fits", "--overwrite", "--normalize",
                    "none", "--weight", "none", *options], check=True, capture_output=True)
    return time.perf_counter() - start


def place(shape, pose, scale):
    """The pixels of a frame on the fine grid, in the peer's coordinates."""
    height, width = shape
    dx, dy, degrees = pose
    a = np.radians(degrees)
    y, x = np.mgrid[0:height, 0:width].astype(float)
    u, v = x - width / 2, y - height / 2
    x, y = np.cos(a) * u - np.sin(a) * v + width / 2 + dx, np.sin(a) * u + np.cos(a) * v + height / 2 + dy
    return np.dstack([(x + 0.5) * scale - 0.5, (y + 0.5) * scale - 0.5])


def beside_peer(degrees):
    rng = np.random.default_rng(3)
    height, width, scale, pixfrac = 1000, 1504, 2, 0.7
    frames = [rng.normal(1000, 30, (height, width)) for _ in range(8)]
    poses = [(0, 0, 0)] + [(*rng.uniform(-5, 5, 2), rng.uniform(-degrees, degrees)) for _ in frames[1:]]
    names = write(frames, poses)
    maps = [place((height, width), pose, scale) for pose in poses]
    ours, peers = [], []
    for _ in range(ROUNDS):
        ours.append(stack(names, "--reject", "none", "--drizzle", str(scale), "--pixfrac", str(pixfrac)))
        means, weights = np.zeros((2, height * scale, width * scale), np.float32)
        context, ones = np.zeros(means.shape, np.int32), np.ones((height, width), np.float32)
        start = time.perf_counter()
        for frame, pixels in zip(frames, maps):
            cdrizzle.tdriz(frame.astype(np.float32), ones, pixels, means, weights, context, uniqid=1, xmin=0, xmax=width,
                           ymin=0, ymax=height, scale=1 / scale, pixfrac=pixfrac, kernel="square", in_units="cps",
                           expscale=1.0, wtscale=1.0, fillstr="nan")
        peers.append(time.perf_counter() - start)
    means *= scale * scale  # the peer keeps the sum over a star's pixels
    own, own_weights = fits.getdata("out.fits"), fits.getdata("out_weights.fits")
    there = weights > 1e-3
    edge = 30  # fine pixels, in which edges of frames lie: the peer loses some of their pixels
    there[:edge], there[-edge:], there[:, :edge], there[:, -edge:] = False, False, False, False
    print(f"{len(frames)} frames of {width} x {height}, turned by up to {degrees} degrees, --drizzle {scale} --pixfrac {pixfrac}: korimg "
          f"{statistics.median(ours):.2f} s, python3-drizzle {statistics.median(peers):.2f} s, ratio "
          f"{statistics.median(ours) / statistics.median(peers):.3f}")
    print(f"  largest difference of means {np.nanmax(np.abs(own / means - 1)[there]):.1e} of them, of weights "
          f"{np.max(np.abs(own_weights - weights)[there]):.1e}; {np.sum(np.isnan(own) & there)} pixels of theirs are missing")


def fit(image, x, y):
    """The FWHM of a Gaussian star near a place, along x and y in the mean."""
    radius = image_radius
    x0, y0 = int(round(x)), int(round(y))
    box = image[y0 - radius:y0 + radius + 1, x0 - radius:x0 + radius + 1]
    v, u = np.mgrid[y0 - radius:y0 + radius + 1, x0 - radius:x0 + radius + 1]

    def off(p):
        return (p[0] * np.exp(-((u - p[1]) ** 2 + (v - p[2]) ** 2) / (2 * p[3] ** 2)) + p[4] - box).ravel()

    return least_squares(off, [box.max(), x, y, radius / 4, 0]).x[3] * PER_SIGMA


def stars():
    global image_radius
    rng = np.random.default_rng(5)
    side, count, sigma = 400, 30, 1.2 / PER_SIGMA
    places = np.array([(x, y) for y in range(30, side - 25, 20) for x in range(30, side - 25, 20)], float)
    places += rng.uniform(-0.5, 0.5, places.shape)
    poses = [(0, 0, 0)] + [tuple(np.append(rng.uniform(-4, 4, 2), 0)) for _ in range(count - 1)]
    frames = []
    edges = np.arange(side + 1) - 0.5
    for dx, dy, _ in poses:
        along = [np.diff(0.5 * erf((edges[None, :] - (places[:, k] - d)[:, None]) / (sigma * np.sqrt(2))), axis=1)
                 for k, d in ((0, dx), (1, dy))]
        frames.append(1000 + 20000 * np.einsum("iy,ix->yx", along[1], along[0]) + rng.normal(0, 5, (side, side)))
    names = write(frames, poses)

    def theory(scale, *parts):
        """By convolution on a fine line, read at places of pixels, fitted as stars are."""
        fine = 64
        line = np.arange(-16 * fine, 16 * fine + 1) / fine
        profile = np.exp(-line ** 2 / (2 * sigma ** 2))
        for part in ((np.abs(line) < 0.5) * 1.0, *[part(line) for part in parts]):
            profile = np.convolve(profile, part / part.sum(), "same")
        widths = []
        for phase in np.linspace(-0.5, 0.5, 5):
            at = np.interp((np.arange(-image_radius, image_radius + 1) + phase) / scale, line, profile)
            widths.append(fit(np.outer(at, at), image_radius - phase, image_radius - phase) / scale)
        return np.mean(widths)

    def box(width):
        return lambda line: (np.abs(line) < width / 2) * 1.0

    def bicubic(line):
        a, x = -0.5, np.abs(line)
        return np.where(x < 1, (a + 2) * x ** 3 - (a + 3) * x ** 2 + 1,
                        np.where(x < 2, a * (x ** 3 - 5 * x ** 2 + 8 * x - 4), 0))

    print(f"{len(places)} stars of 1.2 px before pixels, {count} frames: FWHM in the stack, and by convolution")
    for scale, pixfrac in ((1, None), (1, 0.7), (2, 1.0), (2, 0.7), (2, 0.5), (3, 0.5)):
        options = [] if pixfrac is None else ["--drizzle", str(scale), "--pixfrac", str(pixfrac)]
        stack(names, "--reject", "none", *options)
        image = fits.getdata("out.fits")
        image_radius = 4 * scale
        found = [fit(image - 1000, (x + 0.5) * scale - 0.5, (y + 0.5) * scale - 0.5) / scale for x, y in places]
        expected = theory(scale, bicubic) if pixfrac is None else theory(scale, box(pixfrac), box(1 / scale))
        uneven = ""
        if pixfrac is not None:
            weights = fits.getdata("out_weights.fits")[8 * scale:-8 * scale, 8 * scale:-8 * scale]
            uneven = f"; weights vary by {weights.std() / np.median(weights):.3f}"
        name = "bicubic" if pixfrac is None else " ".join(options)
        print(f"  {name}: {np.median(found):.4f} px, by theory {expected:.4f}{uneven}")


image_radius = 4
beside_peer(0)
beside_peer(0.5)
stars()
