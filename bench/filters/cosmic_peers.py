#!/usr/bin/python3
"""Runs cosmic-rays beside astroscrappy on a frame, with one thread and two: seconds, and how far the masks agree.

korimg's seconds hold reading and writing the files, astroscrappy's do not. Debian: apt install python3-astroscrappy

usage: cosmic_peers.py KORIMG FRAME.fits [GAIN READ_NOISE]
"""
import os
import pathlib
import subprocess
import sys
import tempfile
import time

import numpy as np
from astropy.io import fits

PEER = """
import sys, time
import astroscrappy, numpy as np
from astropy.io import fits
frame = fits.getdata(sys.argv[1]).astype(np.float32)
start = time.perf_counter()
mask, _ = astroscrappy.detect_cosmics(frame, gain=float(sys.argv[2]), readnoise=float(sys.argv[3]), sigclip=4.5,
                                      sigfrac=0.3, objlim=5, niter=4, satlevel=np.inf, sepmed=False,
                                      cleantype='medmask')
print(time.perf_counter() - start)
np.save(sys.argv[4], mask)
"""


def main():
    korimg, frame = sys.argv[1:3]
    gain, noise = sys.argv[3:5] if len(sys.argv) > 4 else ("0.8", "3")
    with tempfile.TemporaryDirectory() as folder:
        theirs, ours = pathlib.Path(folder) / "mask.npy", pathlib.Path(folder) / "mask.fits"
        for threads in ("1", "2"):
            told = subprocess.run([sys.executable, "-c", PEER, frame, gain, noise, theirs], check=True,
                                  capture_output=True, text=True, env=dict(os.environ, OMP_NUM_THREADS=threads))
            start = time.perf_counter()
            subprocess.run([korimg, "apply", "cosmic-rays", "result=mask", f"gain={gain}", f"read-noise={noise}",
                            frame, "-o", ours, "--overwrite", "--quiet", "--threads", threads], check=True)
            seconds = time.perf_counter() - start
            a, b = np.load(theirs), fits.getdata(ours) > 0
            print(f"{threads} threads: korimg {seconds:.2f} s, astroscrappy {float(told.stdout):.2f} s; "
                  f"{b.sum()} and {a.sum()} pixels are hit, {100 * (a == b).mean():.4f} % of all agree")


if __name__ == "__main__":
    main()
