"""Steps on arrays, against numpy and against the same steps on files."""

import copy
import dataclasses
import os
import pickle
import subprocess
import sys
import warnings

import numpy as np
import pytest

import korimg
from conftest import make


@pytest.fixture(scope="module")
def night(tmp_path_factory):
    """A night, and its lights calibrated with their uncertainty."""
    folder = tmp_path_factory.mktemp("steps")
    korimg.simulate(folder / "night", frames=5, width=400, height=300, seed=4)
    lights = korimg.calibrate_files(folder / "night/lights", out=folder / "calibrated",
                                    darks=folder / "night/darks", flats=folder / "night/flats",
                                    biases=[folder / "night/biases"], uncertainty=True)
    assert all(light.is_done and light.dark == "master_dark_120s" for light in lights)
    files = [light.output for light in lights]
    return folder, files, [korimg.read(name) for name in files]


def test_calibration_is_that_of_numpy():
    light, dark, flat = make((3, 21, 34)), make((21, 34), 90, 120, 1), make((21, 34), 300, 500, 2)
    flat[3, 4] = np.nan
    expected = (light - dark) / flat * np.nanmean(flat)
    made = korimg.calibrate(light, dark=dark, flat=flat)
    assert np.allclose(made, expected, rtol=3e-6, equal_nan=True) and np.isnan(made[:, 3, 4]).all()
    assert np.nanmin(made) < 0  # noise below the dark stays
    faint = korimg.calibrate(dark - 5, bias=dark)
    assert np.all(faint == -5) and korimg.calibrate(light[:1], bias=dark).shape == (1, 21, 34)
    masked = korimg.calibrate(np.ma.MaskedArray(light[0], light[0] > 900), flat=flat)
    assert np.array_equal(masked.mask, (light[0] > 900) | np.isnan(flat))
    assert np.allclose(masked.compressed(), (light[0] / flat * np.nanmean(flat))[~masked.mask], rtol=3e-6)


def test_arrays_are_registered_as_files_are(night):
    _, files, images = night
    of_files, of_arrays = korimg.register(files), korimg.register([image.data for image in images])
    assert of_arrays.model == of_files.model
    assert of_arrays.reference == f"image {files.index(of_files.reference)}"
    for ours, theirs in zip(of_arrays.frames, of_files.frames):
        assert ours.is_good and (ours.dx, ours.dy, ours.degrees, ours.stars, ours.flux_ratio) == (
            theirs.dx, theirs.dy, theirs.degrees, theirs.stars, theirs.flux_ratio)
        assert korimg.Registration.from_json(ours.to_json()) == ours
    third = korimg.register(images, reference=3)
    assert third.frames[3].is_still and third.reference == "image 3"
    other = korimg.register(images[:2], reference=images[3])
    assert other.frames[1].dx == pytest.approx(third.frames[1].dx, abs=1e-9)


@pytest.mark.parametrize("options", [
    {}, {"reject": "sigma", "kappa": "2,2.2", "normalize": "level", "kernel": "bilinear"},
    {"method": "median", "normalize": "none"}, {"weight": "fwhm", "undershoot": "keep", "memory": "3M"}])
def test_arrays_are_stacked_as_files_are(night, options):
    _, files, images = night
    places = korimg.register(files)
    maps = options.get("method") != "median"
    ours = korimg.stack(images, places, uncertainty=True, rejection_maps=maps, **options)
    theirs = korimg.stack(files, places, uncertainty=True, rejection_maps=maps, **options)
    assert np.array_equal(ours.image.data, theirs.image.data, equal_nan=True)
    assert np.allclose(ours.image.uncertainty, theirs.image.uncertainty, rtol=1e-5, equal_nan=True)
    assert np.nanmedian(ours.image.uncertainty) < np.nanmedian(images[0].uncertainty)
    assert np.isnan(ours.image.data).sum() < ours.image.data.size / 10
    if maps:
        assert np.array_equal(ours.low, theirs.low) and np.array_equal(ours.high, theirs.high)
        assert ours.high.sum() > 0
    for mine, other in zip(ours.frames, theirs.frames):
        assert (mine.weight, mine.covers, mine.rejected_high) == pytest.approx(
            (other.weight, other.covers, other.rejected_high))
    assert ours.image.header["NCOMBINE"] == 5 and ours.image.header["OBJECT"] == "Simulated field"


def test_stacks_are_of_the_kind_of_their_frames():
    nddata, units = pytest.importorskip("astropy.nddata"), pytest.importorskip("astropy.units")
    frames = [make((40, 50), seed=seed) for seed in range(4)]
    masks = [frame > 950 for frame in frames]
    expected = np.ma.mean([np.ma.MaskedArray(*pair) for pair in zip(frames, masks)], axis=0)
    how = {"reject": "none", "normalize": "none", "weight": "none"}
    kinds = [nddata.StdDevUncertainty(frame / 10) for frame in frames]
    kinds[2] = nddata.VarianceUncertainty((frames[2] / 10) ** 2)
    ccds = [nddata.CCDData(frame, unit="adu", mask=mask, uncertainty=kind, meta={"OBJECT": "M 1"})
            for frame, mask, kind in zip(frames, masks, kinds)]
    with warnings.catch_warnings():
        warnings.simplefilter("error")  # nothing is lost, nothing is warned of
        made = korimg.stack(ccds, uncertainty=True, **how).image
    assert type(made) is nddata.CCDData and made.unit == units.adu and made.meta["OBJECT"] == "M 1"
    assert np.array_equal(made.mask, np.ma.getmaskarray(expected))
    assert np.allclose(made.data[~made.mask], expected.compressed(), rtol=1e-6)
    counts = np.sum([~mask for mask in masks], axis=0)
    deviation = np.sqrt(np.sum([np.where(mask, 0, frame / 10) ** 2 for frame, mask in zip(frames, masks)], 0))
    with np.errstate(invalid="ignore", divide="ignore"):
        assert np.allclose(made.uncertainty.array, deviation / counts, rtol=1e-5, equal_nan=True)
    plain = korimg.stack(np.stack(frames), **how).image
    assert type(plain) is np.ndarray and np.allclose(plain, np.mean(frames, 0), rtol=1e-6)
    assert korimg.stack([frame * units.electron for frame in frames], **how).image.unit == units.electron
    still = [korimg.Registration(), korimg.Registration(dx=3, dy=-2), korimg.Registration(status="no match")]
    moved = korimg.stack(frames[:3], still, kernel="nearest", undershoot="keep", **how)
    assert moved.left_out == [("image 2", "no match: ")]
    assert np.allclose(moved.image[5:30, 10:40],
                       (frames[0][5:30, 10:40] + frames[1][7:32, 7:37]) / 2, rtol=1e-6)


def test_frames_that_are_left_out_are_told(night):
    _, files, images = night
    places = korimg.register(images[:3] + [make((300, 400))], reference=0)
    assert [place.is_good for place in places.frames] == [True, True, True, False]
    made = korimg.stack(images[:3] + [make((300, 400))], places)
    assert len(made.frames) == 3 and made.left_out[0][0] == "image 3"
    dim = [dataclasses.replace(place, flux_ratio=place.flux_ratio if n != 1 else None)
           for n, place in enumerate(places.frames[:3])]
    made = korimg.stack(images[:3], dim)
    assert len(made.frames) == 2 and "no star" in made.left_out[0][1]
    assert len(korimg.stack(images[:3], dim, normalize="level").frames) == 3
    with pytest.raises(korimg.IncompleteError, match="none but itself") as raised:
        korimg.register([images[0], *(make((300, 400), seed=seed) for seed in range(3))], reference=0)
    assert len(raised.value.result.frames) == 4
    with pytest.raises(korimg.IncompleteError, match="less than half") as stacked:
        korimg.stack(images[:4], raised.value.result)
    assert len(stacked.value.result.frames) == 1


def test_mosaics_are_developed_as_files_are(tmp_path):
    korimg.simulate(tmp_path / "night", frames=3, width=320, height=240, bayer="GBRG", seed=6)
    name = sorted((tmp_path / "night/lights").iterdir())[0]
    image = korimg.read(name)
    for options in ({}, {"half": True, "white_balance": "none"}, {"mono": True},
                    {"white_balance": [2, 1, 1, 1.5], "level_cut": True}):
        ours, theirs = korimg.develop(image, **options), korimg.develop(name, **options)
        assert np.array_equal(ours.data, theirs.data) and ours.data.ndim == (2 if "mono" in options else 3)
        assert "BAYERPAT" not in ours.header and ours.mosaic == ""
    plain = korimg.develop(image.data, cfa="GBRG", white_balance="none")
    assert np.array_equal(plain, korimg.develop(name, white_balance="none").data)
    turned = korimg.develop(image.data, cfa="RGGB", row_order="bottom-up", white_balance="none")
    assert np.array_equal(turned, plain)  # read from below, 240 rows of GBRG begin with RG
    for wrong in ({}, {"cfa": "RGBG"}, {"cfa": "RGGB", "white_balance": "warm"}, {"cfa": "RGGB", "gamma": 0}):
        with pytest.raises(korimg.Error):
            korimg.develop(image.data, **wrong)


def test_camera_raw_files_are_developed(tmp_path):
    raw = next((os.path.join(at, name) for at, _, names in os.walk(os.environ.get("KORIMG_TEST_DATA", ""))
                for name in sorted(names) if name.upper().endswith((".CR2", ".NEF", ".ARW", ".DNG"))), None)
    if raw is None:
        pytest.skip("no camera raw file is there")
    korimg.develop_files(raw, out=tmp_path / "a.fits")
    assert np.array_equal(korimg.develop(raw).data, korimg.read(tmp_path / "a.fits").data, equal_nan=True)


def test_colours_and_pictures_are_those_of_files(night, tmp_path):
    _, files, images = night
    made = korimg.compose(images[:3], images[3], background="equal")
    korimg.compose_files(files[:3], files[3], out=tmp_path / "colour.fits", background="equal")
    theirs = korimg.read(tmp_path / "colour.fits")
    assert np.array_equal(made.data, theirs.data) and made.levels == theirs.levels
    assert made.data.shape[0] == 3 and made.data.shape[1] < 300  # what all four share
    still = korimg.compose([image.data for image in images[:3]], register=False, crop=False)
    assert np.array_equal(still, np.stack([image.data for image in images[:3]]))
    with pytest.raises(korimg.UsageError):
        korimg.compose(images[:2])
    for image, options in ((made, {}), (made, {"level": "linked", "scale": 0.5}),
                           (images[0], {"level": "histogram", "title": "A field"})):
        korimg.write(tmp_path / "image.fits", image, overwrite=True)
        picture = korimg.render(image, **options)
        korimg.render_file(tmp_path / "image.fits", out=tmp_path / "picture.png", overwrite=True, **options)
        shown = korimg.read(tmp_path / "picture.png").data
        assert picture.dtype == np.uint8
        assert np.array_equal(picture if picture.ndim == 2 else np.moveaxis(picture, -1, 0), shown)


def test_what_does_not_go_together_is_refused(night):
    _, files, images = night
    image, small = make((20, 30)), make((20, 29))
    mosaic = korimg.Image(image, mosaic="RGGB")
    moved = [korimg.Registration(), korimg.Registration(dx=1)]
    for call in (
        lambda: korimg.calibrate(image, dark=small), lambda: korimg.calibrate(image),
        lambda: korimg.calibrate(image, dark=image, bias=image),
        lambda: korimg.calibrate(image, flat=image - 5000), lambda: korimg.calibrate(image, dark=make((3, 20, 30))),
        lambda: korimg.stack([]), lambda: korimg.stack([image, small]), lambda: korimg.stack([image], moved),
        lambda: korimg.stack([image, image], uncertainty=True), lambda: korimg.stack([image], method="mode"),
        lambda: korimg.stack([image], reject="auto", kappa="3"), lambda: korimg.stack([image], iterations=0),
        lambda: korimg.stack([mosaic, mosaic], moved), lambda: korimg.register([]),
        lambda: korimg.register([image, image], reference=2), lambda: korimg.register([image], sigmas=0),
        lambda: korimg.register([image], model="bent"), lambda: korimg.render(image, scale=2),
        lambda: korimg.render(image, level="best"), lambda: korimg.stack([image, [[1, 2]]]),
        lambda: korimg.stack([image], [korimg.Registration(map={"matrix": [0] * 9})]),
        lambda: korimg.stack([image, image], [korimg.Registration(), korimg.Registration(dx=float("nan"))]),
        lambda: korimg.stack_files(files[:1], out="x.fits", drizzle=9), lambda: korimg.stack(["nowhere.fits"]),
        lambda: korimg.calibrate_files(files, out="x"), lambda: korimg.calibrate_files(files, out="x", maps=True),
    ):
        with pytest.raises(korimg.UsageError):
            call()
    with pytest.raises(korimg.UsageError, match="; leave out cosmetic|maps are") as raised:
        korimg.plan_run(night[0] / "night", out="x", maps=True, cosmetic="none")
    assert "--" not in str(raised.value)
    with pytest.raises(korimg.IncompleteError):
        korimg.register(["nowhere.fits"])
    for call in (lambda: korimg.render_file("nowhere.fits", out="x.png"), lambda: korimg.develop("nowhere.fits"),
                 lambda: korimg.render(image, scale_bar=True)):
        with pytest.raises(OSError):
            call()


def test_a_callback_ends_steps(night):
    _, files, images = night

    def end(title, step, total):
        raise ZeroDivisionError(title)

    for call in (lambda: korimg.register(images, progress=end), lambda: korimg.stack(images, progress=end),
                 lambda: korimg.stack(files, progress=end), lambda: korimg.compose(images[:3], progress=end)):
        with pytest.raises(ZeroDivisionError):
            call()


def test_a_planned_run_has_its_options(night, tmp_path):
    folder, _, _ = night
    options = {"exclude": ["*_0002*"], "reject": "winsorized", "iterations": 3, "drizzle": 1.5, "pixfrac": 0.8,
               "max_fwhm": 2, "model": "affine", "uncertainty": False, "white_balance": "none"}
    plan = korimg.plan_run(folder / "night", out=tmp_path / "out", **options)
    assert "4 lights" in str(plan) and plan.details and not (tmp_path / "out").exists()
    result = plan.run()
    subprocess.run([os.environ["KORIMG_TOOL"], "run", folder / "night", "--out", tmp_path / "tool", "--exclude",
                    "*_0002*", "--reject", "winsorized", "--iterations", "3", "--drizzle", "1.5", "--pixfrac",
                    "0.8", "--max-fwhm", "2", "--model", "affine"], check=True, capture_output=True)
    ours, theirs = korimg.read(result.stacks[0].file), korimg.read(tmp_path / "tool/stack.fits")
    assert ours.shape == (450, 600) and np.array_equal(ours.data, theirs.data, equal_nan=True)
    for wrong in ({"min_stars": 2}, {"palette": "sepia"}, {"cosmetic": "none", "maps": True}, {"gain": 0},
                  {"exclude": 3}, {"reject": "sigma", "kappa": "few"}, {"pedestal": -1}, {"iterations": 0}):
        with pytest.raises(korimg.UsageError):
            korimg.plan_run(folder / "night", out=tmp_path / "out", **wrong)


def test_masks_and_units_count(tmp_path):
    nddata, u = pytest.importorskip("astropy.nddata"), pytest.importorskip("astropy.units")
    mask = np.zeros((40, 40), bool)
    mask[5:9, 5:9] = True
    files = []
    for number in range(4):
        own = mask & (number == 1)
        files.append(tmp_path / f"{number}.fits")
        nddata.CCDData(np.where(own, 150, 100).astype("f4"), unit="electron", mask=own).write(files[-1])
    how = {"reject": "none", "normalize": "none", "weight": "none"}
    assert np.all(korimg.stack(files, **how).image.data == 100)
    back = korimg.read(files[1])
    assert np.array_equal(back.to_ccddata().mask, mask) and np.array_equal(np.isnan(back.data), mask)
    assert back.to_ccddata().unit == u.electron
    flat = np.full((9, 9), 100, "f4")
    assert korimg.calibrate(flat * u.km, bias=flat * u.m)[0, 0].to_value(u.km) == pytest.approx(99.9)
    with pytest.raises(korimg.UsageError, match="adu"):
        korimg.calibrate(nddata.CCDData(flat, unit="electron"), bias=nddata.CCDData(flat, unit="adu"))
    with pytest.raises(korimg.UsageError):
        korimg.stack([flat * u.km, flat * u.s], **how)
    deviations = nddata.StdDevUncertainty(flat * 10, unit=u.m)
    ccds = [nddata.CCDData(flat, unit=u.km, uncertainty=deviations)] * 4
    made = korimg.stack(ccds, uncertainty=True, **how).image
    assert np.allclose((made.uncertainty.array * made.uncertainty.unit).to_value(u.km), 0.5)
    korimg.write(tmp_path / "made.fits", made)
    again = nddata.CCDData.read(tmp_path / "made.fits")
    assert again.unit == u.km and np.allclose(again.uncertainty.array, 0.5)
    hole = make((9, 9), 300, 500)
    hole[2, 3], hole[4, 5] = 0, -1
    divided = korimg.calibrate(flat, flat=hole)
    assert np.array_equal(np.isnan(divided), hole <= 0)
    assert np.allclose(divided[hole > 0], (flat / hole * hole[hole > 0].mean())[hole > 0], rtol=3e-6)


def test_world_coordinates_of_other_matrices_move(tmp_path):
    fits, wcs = pytest.importorskip("astropy.io.fits"), pytest.importorskip("astropy.wcs")
    header = fits.Header()
    header.update(CTYPE1="RA---TAN", CTYPE2="DEC--TAN", CRVAL1=150.0, CRVAL2=30.0, CRPIX1=50.0, CRPIX2=40.0,
                  CD1_1=-1 / 3600, CD1_2=0.0, CD2_1=0.0, CD2_2=1 / 3600)
    fits.PrimaryHDU(np.zeros((100, 120), "f4"), header).writeto(tmp_path / "a.fits")
    place = wcs.WCS(header).pixel_to_world(10, 20)
    image = korimg.read(tmp_path / "a.fits").to_ccddata()
    for moved, x, y in ((korimg.ops.flip(image), 10, 79), (korimg.ops.bin(image), 4.75, 9.75),
                        (korimg.ops.rotate(image, degrees=180), 109, 79)):
        assert moved.wcs.pixel_to_world(x, y).separation(place).arcsec < 1e-3
        korimg.write(tmp_path / "b.fits", moved, overwrite=True)
        written = wcs.WCS(fits.getheader(tmp_path / "b.fits"))
        assert written.pixel_to_world(x, y).separation(place).arcsec < 1e-3


def test_images_and_errors_cross_processes():
    error = pickle.loads(pickle.dumps(korimg.IncompleteError(["x"], 3)))
    assert error.failures == ["x"] and error.result == 3
    error = pickle.loads(pickle.dumps(korimg.FileError("a: missing", "a")))
    assert error.filename == "a" and str(error) == "a: missing"
    image = korimg.Image(np.ones((4, 5), "f4"))
    image.header["n"], image.header["X"] = np.int64(3), np.float32(1.5)
    assert image.header["N"] == 3 and image.header["x"] == 1.5 and list(image.header) == ["N", "X"]
    for other in (copy.deepcopy(image), pickle.loads(pickle.dumps(image))):
        assert other.header == image.header and np.array_equal(other.data, image.data)
    for wrong in (True, np.bool_(True), None, [1], 2**70):
        with pytest.raises(korimg.UsageError, match="N: "):
            image.header["N"] = wrong
    code = ("import multiprocessing as m, numpy as n, korimg\n"
            "def f(i):\n"
            "    try: return len(korimg.find_stars(n.zeros((50, 50), 'f4')))\n"
            "    except korimg.UsageError as e: return str(e)\n"
            "f(0)\n"
            "print(m.get_context('fork').Pool(2).map_async(f, range(2)).get(timeout=20)[0])")
    told = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, timeout=60)
    assert "forked" in told.stdout and "spawn" in told.stdout


def test_numbers_are_taken_as_people_write_them():
    frames = [make((20, 30), seed=seed) for seed in range(6)]
    ours = korimg.stack(frames, reject="sigma", kappa=(1.5, 2)).image
    assert np.array_equal(ours, korimg.stack(frames, reject="sigma", kappa="1.5,2").image)
    assert np.array_equal(korimg.stack(frames, reject="noise", kappa=4).image,
                          korimg.stack(frames, reject="noise", kappa="4").image)
    with pytest.raises(korimg.Error, match="memory"):
        korimg.stack(frames, memory="1K")
    for call in (lambda: korimg.find_stars(frames[0], sigmas=0), lambda: korimg.find_stars(frames[0], gain=-1)):
        with pytest.raises(korimg.UsageError):
            call()
