"""Makes a picture of a stack: picture.py STACK.fits PICTURE.png."""

import sys

import korimg
from korimg import ops

stack = korimg.read(sys.argv[1])
psf = korimg.measure_psf(stack)
print(f"{psf.stars} stars, FWHM {psf.fwhm:.2f} pixels, noise of the sky {psf.noise:.3g}")

# Operations take an image and give another; the stack stays as it is.
even = ops.gradient(stack)
if even.data.ndim == 3:
    even = ops.auto_colour(even)  # a grey sky
picture = ops.stretch(even)
korimg.write(sys.argv[2], picture, overwrite=True)
