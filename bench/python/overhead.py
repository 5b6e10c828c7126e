"""What a call by Python costs: of a small image, and of 24 megapixels beside a copy by numpy and, with the path of
bench/call, beside the same call in C++, in turns: overhead.py [CALL]."""

import subprocess
import sys
import time

import numpy as np
from korimg import ops


def seconds(call):
    start = time.perf_counter()
    call()
    return time.perf_counter() - start


small = np.random.default_rng(1).uniform(100, 1000, (64, 64)).astype(np.float32)
calls = [seconds(lambda: [ops.invert(small) for _ in range(50)]) / 50 for _ in range(30)]
print(f"invert, 64 x 64: {1e6 * np.median(calls):.1f} us a call")

large = np.random.default_rng(1).uniform(0, 1, (4000, 6000)).astype(np.float32)
out = np.empty_like(large)
ratios = []
for _ in range(15):
    own = seconds(lambda: ops.invert(large, levels=(0, 1), out=out))
    ratios.append(own / seconds(lambda: np.copyto(out, large)))
print(f"invert, 6000 x 4000, into out: {np.median(ratios):.2f} of numpy.copyto")

if len(sys.argv) > 1:
    ratios = []
    for _ in range(7):
        theirs = float(subprocess.run(sys.argv[1], check=True, capture_output=True, text=True).stdout)
        own = np.median([seconds(lambda: ops.invert(large, levels=(0, 1), out=out)) for _ in range(15)])
        ratios.append(own / theirs)
    print(f"invert, 6000 x 4000, into out: {np.median(ratios):.3f} of the call in C++")
