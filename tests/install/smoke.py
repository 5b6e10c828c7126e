"""Uses an installed package: smoke.py FOLDER, which holds packed.fits. It wants numpy only."""

import sys
from pathlib import Path

import numpy as np

import korimg
from korimg import ops

folder = Path(sys.argv[1])

image = np.arange(35, dtype=np.float32).reshape(5, 7)
assert np.allclose(ops.invert(image, levels=(0, 255)), 255 - image, atol=1e-4)

packed = korimg.read(folder / "packed.fits")  # by the decoder
assert packed.data.shape == (3, 7, 9) and packed.data.sum() == 23567 and packed.data[1, 0, 0] == 72
korimg.write(folder / "plain.fits", packed)
assert np.array_equal(korimg.read(folder / "plain.fits").data, packed.data)

korimg.simulate(folder / "night", frames=6, width=400, height=300)
result = korimg.run(folder / "night", out=folder / "result")
assert [stack.frames for stack in result.stacks] == [6]
assert len(korimg.find_stars(korimg.read(result.stacks[0].file))) > 5
print("korimg", korimg.__version__, "of", Path(korimg.__file__).parent)
