"""Our calls beside those of ccdproc and SEP, in turns: peers.py FOLDER, which gets 20 frames of 3008 x 2008."""

import os
import resource
import subprocess
import sys
import time
import warnings
from pathlib import Path

import numpy as np

import korimg

LIMIT = 500_000_000
folder = Path(sys.argv[1])
if not (folder / "lights").exists():
    korimg.simulate(folder, frames=20, seed=3)
files = sorted(map(str, (folder / "lights").glob("*.fits")))


def clipped(images):
    return korimg.stack(images, reject="sigma", kappa="3", iterations=1, weight="none", normalize="none", memory=LIMIT)


def ours():
    return clipped(files).image.data


def ours_robust():
    return korimg.stack(files, reject="auto", weight="none", normalize="none", memory=LIMIT).image.data


def ours_on_arrays(images=[]):
    images or images.extend(korimg.read(name).data for name in files)
    return clipped(images).image


def combine(function, deviation, threshold):
    import ccdproc

    warnings.simplefilter("ignore")
    return ccdproc.combine(files, unit="adu", method="average", sigma_clip=True, sigma_clip_low_thresh=threshold,
                           sigma_clip_high_thresh=threshold, sigma_clip_func=function, mem_limit=LIMIT,
                           sigma_clip_dev_func=deviation, dtype=np.float32).data


def theirs():
    return combine(np.ma.mean, np.ma.std, 3)


def theirs_robust():
    """As astropy's CCD Data Reduction Guide calls it."""
    from astropy.stats import mad_std

    return combine(np.ma.median, mad_std, 5)


def our_stars(image=[]):
    image or image.append(korimg.read(files[0]).data)
    return korimg.find_stars(image[0])


def their_stars(image=[]):
    import sep

    image or image.append(korimg.read(files[0]).data)
    background = sep.Background(image[0])
    return sep.extract(image[0] - background.back(), 5, err=background.globalrms)


CALLS = {call.__name__: call for call in (ours, ours_robust, ours_on_arrays, theirs, theirs_robust, our_stars, their_stars)}

if len(sys.argv) > 2:
    # A process for each call: its memory is its own. What is loaded once is not measured.
    call = CALLS[sys.argv[2]]
    if "their" in call.__name__:
        import ccdproc  # noqa: F401
        import sep  # noqa: F401
    if "stars" in call.__name__ or "arrays" in call.__name__:
        call()
    start = time.perf_counter()
    found = call()
    print(time.perf_counter() - start, resource.getrusage(resource.RUSAGE_SELF).ru_maxrss * 1024, len(found))
    sys.exit()

taken = {name: [] for name in CALLS}
for _ in range(int(os.environ.get("ROUNDS", 5))):
    for name in CALLS:
        out = subprocess.run([sys.executable, __file__, str(folder), name], check=True, capture_output=True, text=True)
        taken[name].append([float(word) for word in out.stdout.splitlines()[-1].split()])
middle = {name: np.median(runs, axis=0) for name, runs in taken.items()}
for name, (seconds, memory, found) in middle.items():
    print(f"{name}: {seconds:.2f} s, {memory / 1e6:.0f} MB, {found:.0f} rows")
for kind in ("", "_robust"):
    ratio = middle["theirs" + kind][0] / middle["ours" + kind][0]
    print(f"stack of 20 files{kind}: {ratio:.1f} times as fast as ccdproc.combine")
print(f"stars: {middle['their_stars'][0] / middle['our_stars'][0]:.1f} times as fast as sep")
