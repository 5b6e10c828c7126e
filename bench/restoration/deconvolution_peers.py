#!/usr/bin/python3
"""Measures Richardson-Lucy by SciPy's rfft2 and by scikit-image on the size of Deconvolution_bench.cpp.

Debian: apt install python3-scipy python3-skimage. Medians of three, after one run of one iteration.
"""
import statistics
import time

import numpy as np
import scipy
import scipy.fft
import skimage
from skimage.restoration import richardson_lucy

SIDE, SIGMA, ITERATIONS = 2048, 2.0, 20
RADIUS = 12


def median_ms(run, times=3):
    run(1)
    seconds = []
    for _ in range(times):
        start = time.perf_counter()
        run(ITERATIONS)
        seconds.append(time.perf_counter() - start)
    return 1e3 * statistics.median(seconds)


def field():
    random = np.random.default_rng(1)
    image = random.normal(300, 15, (SIDE, SIDE))
    offsets = np.arange(-RADIUS, RADIUS + 1)
    star = np.exp(-(offsets[:, None] ** 2 + offsets[None, :] ** 2) / (2 * SIGMA**2))
    for _ in range(SIDE):
        x, y = random.integers(16, SIDE - 16, 2)
        image[y - RADIUS:y + RADIUS + 1, x - RADIUS:x + RADIUS + 1] += 30 * 100 ** random.uniform() * star
    return image.astype(np.float32), (star / star.sum()).astype(np.float32)


def with_rfft2(data, psf, iterations, workers):
    """Plain steps, with the room of the point-spread function about the image."""
    side = scipy.fft.next_fast_len(SIDE + 2 * RADIUS, real=True)
    response = np.zeros((side, side), np.float32)
    response[:psf.shape[0], :psf.shape[1]] = psf
    response = np.roll(response, (-RADIUS, -RADIUS), (0, 1))
    response = scipy.fft.rfft2(response, workers=workers)

    def blur(plane):
        return scipy.fft.irfft2(scipy.fft.rfft2(plane, workers=workers) * response, (side, side), workers=workers)

    padded = np.full((side, side), np.median(data), np.float32)
    padded[:SIDE, :SIDE] = data
    estimate = np.full_like(padded, padded.mean())
    for _ in range(iterations):
        estimate *= blur(padded / np.maximum(blur(estimate), 1e-6))
    return estimate[:SIDE, :SIDE]


DATA, PSF = field()
print(f"SciPy {scipy.__version__}, scikit-image {skimage.__version__}")
for threads in (1, 2):
    print(f"SciPy rfft2, {threads} workers: {median_ms(lambda n: with_rfft2(DATA, PSF, n, threads)):.0f} ms")
SCALE = float(DATA.max())
print(f"scikit-image richardson_lucy: {median_ms(lambda n: richardson_lucy(DATA / SCALE, PSF, num_iter=n, clip=False), 1):.0f} ms")
