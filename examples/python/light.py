"""Shows a light as the camera gave it, with its stars: light.py LIGHT.fits PICTURE.png."""

import sys
from pathlib import Path

import korimg

light, picture = sys.argv[1:]
stars = korimg.find_stars(light)
print(f"{len(stars)} stars; the brightest one at x {stars['x'][0]:.1f}, y {stars['y'][0]:.1f}")

# A list of circles, drawn beside a scale bar.
circles = Path(picture).with_suffix(".txt")
circles.write_text("".join(f"{s['x']:.2f} {s['y']:.2f} {2 * s['fwhm']:.1f}\n" for s in stars[:60]))
korimg.render_file(light, out=picture, stars=circles, scale_bar=True, title="One light", overwrite=True)
circles.unlink()
