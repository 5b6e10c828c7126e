"""Makes a colour picture of stacks through filters: colour.py RESULTS PICTURE.png, of a run's results."""

import sys
from pathlib import Path

import korimg
from korimg import ops

results = Path(sys.argv[1])
luminance, *colours = (korimg.read(results / f"stack_{name}.fits") for name in "LRGB")

image = ops.gradient(korimg.compose(colours, luminance, background="equal"))
# Each colour has its own stretch: the sky becomes grey.
korimg.write(sys.argv[2], ops.stretch(image, link=False), overwrite=True)
