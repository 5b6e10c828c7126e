"""Works through a night step by step, on arrays: by_hand.py NIGHT PICTURE.png."""

import sys
from pathlib import Path

import korimg
from korimg import ops

night, picture = Path(sys.argv[1]), sys.argv[2]


def frames(kind):
    return [korimg.read(path) for path in sorted((night / kind).glob("*.fits"))]


def master(images, **how):
    return korimg.stack(images, method="median", weight="none", **how).image


bias = master(frames("biases"), normalize="none")
dark = master(frames("darks"), normalize="none")
# Flats are brought to one level: the sky at dusk was not as bright in each.
flat = master([korimg.calibrate(image, bias=bias) for image in frames("flats")], normalize="level+scale")

lights = [korimg.calibrate(light, dark=dark, flat=flat) for light in frames("lights")]
places = korimg.register(lights)
for place in places.frames:
    print(f"{place.file}: {place.dx:+.2f} {place.dy:+.2f} px, {place.degrees:+.3f} degrees, "
          f"FWHM {place.fwhm:.2f}: {place.status}")
stack = korimg.stack(lights, places)
print(f"rejected: {100 * sum(f.rejected_high for f in stack.frames) / len(stack.frames):.2f} %")

even = ops.gradient(stack.image)
korimg.write(picture, ops.stretch(even), overwrite=True)
