"""Files and sessions by Python, against the tool."""

import importlib.util
import os
import subprocess
import sys

import numpy as np
import pytest

import korimg
from conftest import make


def test_images_survive_the_way_to_a_file_and_back(tmp_path):
    header = korimg.Header()
    header["OBJECT"] = "M 42"
    header.set("EXPTIME", 60.5, "seconds")
    header["NCOMBINE"] = 3
    data = make((3, 20, 30))
    data[1, 4, 5] = np.nan
    image = korimg.Image(data, header, [(10.0, 900.0)] * 3, np.abs(data) / 10, 2 * (data > 500).astype(np.uint8))
    korimg.write(tmp_path / "a.fits", image)
    back = korimg.read(tmp_path / "a.fits")
    assert np.array_equal(back.data, data, equal_nan=True) and back.levels == image.levels
    assert np.allclose(back.uncertainty, image.uncertainty, rtol=1e-6, equal_nan=True)
    assert np.array_equal(back.flags, image.flags) and np.array_equal(back.mask, np.isnan(data) | (data > 500))
    assert back.header["OBJECT"] == "M 42" and back.header["EXPTIME"] == 60.5 and back.header["NCOMBINE"] == 3
    assert "DATE" in back.header and back.header.get("FILTER") is None and back.header.get("FILTER", 1) == 1
    with pytest.raises(OSError, match="exists"):
        korimg.write(tmp_path / "a.fits", image)
    korimg.write(tmp_path / "a.fits", data[0].astype(">i2"), overwrite=True)
    assert np.array_equal(korimg.read(tmp_path / "a.fits").data, data[0].astype("i2"))
    with pytest.raises(korimg.UsageError, match="shape"):
        korimg.write(tmp_path / "b.fits", korimg.Image(data, uncertainty=data[0]))
    assert not (tmp_path / "b.fits").exists()
    fits = pytest.importorskip("astropy.io.fits")
    korimg.write(tmp_path / "c.fits", np.ma.MaskedArray(data[0], data[0] > 800))
    assert np.array_equal(np.isnan(fits.getdata(tmp_path / "c.fits")), data[0] > 800)
    ccd = back.to_ccddata()
    assert ccd.header["OBJECT"] == "M 42" and np.array_equal(ccd.mask, np.isnan(data) | (data > 500))


def test_a_run_has_the_files_of_the_tool(tmp_path):
    night = tmp_path / "night"
    korimg.simulate(night, frames=5, width=320, height=240)
    with pytest.raises(OSError):
        korimg.simulate(night, frames=5, width=320, height=240)
    plan = korimg.plan_run(night, out=tmp_path / "out")
    assert any("5 lights" in line for line in plan.lines) and not (tmp_path / "out").exists()
    seen = []
    result = korimg.run(night, out=tmp_path / "out", reject="sigma", kappa="3",
                        progress=lambda title, step, total: seen.append((title, step, total)))
    assert seen and all(0 <= step <= total for _, step, total in seen)
    assert [s.frames for s in result.stacks] == [5] and len(result.frames) == 5
    assert all(frame.is_stacked and frame.status == "stacked" for frame in result.frames)
    subprocess.run([os.environ["KORIMG_TOOL"], "run", night, "--out", tmp_path / "tool", "--reject", "sigma",
                    "--kappa", "3"], check=True, capture_output=True)
    ours, theirs = korimg.read(result.stacks[0].file), korimg.read(tmp_path / "tool" / "stack.fits")
    assert np.array_equal(ours.data, theirs.data, equal_nan=True)
    assert korimg.measure_psf(ours).fwhm == result.stacks[0].fwhm


def test_a_run_that_is_interrupted_says_so_and_goes_on(tmp_path):
    night, out = tmp_path / "night", tmp_path / "out"
    korimg.simulate(night, frames=4, width=256, height=200)

    def interrupt(title, step, total):
        if title == "registering frame":
            raise KeyboardInterrupt

    with pytest.raises(KeyboardInterrupt):
        korimg.run(night, out=out, progress=interrupt)
    assert not (out / "stack.fits").exists()
    result = korimg.run(night, out=out)
    assert result.stacks[0].frames == 4 and (out / "stack.fits").exists()
    with pytest.raises(OSError, match="nowhere"):
        korimg.run(tmp_path / "nowhere", out=out)
    with pytest.raises(ValueError):
        korimg.run(night, out=tmp_path / "other", kappa="many", reject="sigma")


def test_the_gallery_goes_from_lights_to_pictures(tmp_path):
    def show(script, *arguments):
        done = subprocess.run([sys.executable, os.path.join(os.environ["KORIMG_EXAMPLES"], script + ".py"),
                               *arguments], capture_output=True, text=True)
        assert done.returncode == 0, done.stderr
        return done.stdout

    night, wheel = tmp_path / "night", tmp_path / "wheel"
    korimg.simulate(night, frames=4, width=640, height=480, seed=2)
    korimg.simulate(wheel, frames=3, width=480, height=360, filters=["L", "R", "G", "B"], seed=3)
    assert "stars; the brightest one at" in show("light", night / "lights/light_0001.fits", tmp_path / "light.png")
    assert "image 3:" in show("by_hand", night, tmp_path / "by_hand.png")
    assert "stacked" in show("session", night, tmp_path / "results")
    assert "stars, FWHM" in show("picture", tmp_path / "results/stack.fits", tmp_path / "picture.png")
    show("session", wheel, tmp_path / "colours")
    show("colour", tmp_path / "colours", tmp_path / "colour.png")
    if importlib.util.find_spec("distributed"):
        assert "4 of 4 lights" in show("cluster", night, tmp_path / "cluster")
    made = {path.stem: korimg.read(path).data for path in tmp_path.glob("*.png")}
    assert set(made) == {"light", "by_hand", "picture", "colour"}
    for name in ("by_hand", "picture"):
        assert made[name].shape == (480, 640) and 2000 < np.median(made[name]) < 30000
    # The sky is grey.
    assert made["colour"].shape[0] == 3 and np.ptp(np.median(made["colour"], axis=(1, 2))) < 3000
