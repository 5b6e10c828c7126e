#!/usr/bin/python3
"""Measures SciPy's transform and scikit-image's registration on the sizes of Fourier_bench.cpp.

Debian: apt install python3-scipy python3-skimage. Medians of five, after one run.
"""
import statistics
import time

import numpy as np
import scipy
import scipy.fft
import skimage
from skimage.registration import phase_cross_correlation

TRANSFORM, FRAME = 4096, 2048
DX, DY = 12.37, -7.61


def median_ms(run, times=5):
    run()
    seconds = []
    for _ in range(times):
        start = time.perf_counter()
        run()
        seconds.append(time.perf_counter() - start)
    return 1e3 * statistics.median(seconds)


def stars(dx, dy, seed):
    image = np.random.default_rng(seed).uniform(995, 1005, (FRAME, FRAME)).astype(np.float32)
    for u, v, w in np.random.default_rng(0).uniform(0, 1, (2000, 3)):
        x, y = (1.5 * u - 0.25) * FRAME + dx, (1.5 * v - 0.25) * FRAME + dy
        columns = np.arange(max(int(x) - 8, 0), min(int(x) + 9, FRAME))
        rows = np.arange(max(int(y) - 8, 0), min(int(y) + 9, FRAME))
        if columns.size and rows.size:
            r2 = (columns[None, :] - x) ** 2 + (rows[:, None] - y) ** 2
            image[rows[0]:rows[-1] + 1, columns[0]:columns[-1] + 1] += 50 / (w + 0.003) * np.exp(-r2 / 2 / 1.6**2)
    return image


print(f"SciPy {scipy.__version__}, scikit-image {skimage.__version__}")
field = (np.random.default_rng(3).random((TRANSFORM, TRANSFORM)) + 0j).astype(np.complex64)
for workers in (1, 2):
    print(f"scipy.fft.fft2, {workers} workers: {median_ms(lambda: scipy.fft.fft2(field, workers=workers)):.1f} ms")

a, b = stars(0, 0, 1), stars(DX, DY, 2)
for factor in (1, 100):
    shift = phase_cross_correlation(a, b, upsample_factor=factor)[0]
    ms = median_ms(lambda: phase_cross_correlation(a, b, upsample_factor=factor))
    print(f"phase_cross_correlation, by 1/{factor}: {ms:.1f} ms, error {np.hypot(shift[1] + DX, shift[0] + DY):.4f}")
