"""Operations on arrays of every kind, against the tool and against plain float32 arrays."""

import doctest
import inspect
import json
import os
import subprocess
import sys
import threading

import numpy as np
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st
from hypothesis.extra import numpy as hnp

import korimg
from conftest import make
from korimg import ops


def sky(shape=(120, 160), seed=4):
    """Stars on noise: what operations that measure stars want."""
    rng = np.random.default_rng(seed)
    image = rng.normal(1000, 5, shape)
    y, x = np.mgrid[: shape[0], : shape[1]]
    for _ in range(25):
        cx, cy, flux = rng.uniform(8, shape[1] - 8), rng.uniform(8, shape[0] - 8), rng.uniform(300, 4000)
        image += flux * np.exp(-((x - cx) ** 2 + (y - cy) ** 2) / (2 * 1.3**2))
    return image.astype(np.float32)


@pytest.mark.parametrize("name", ops.__all__)
def test_every_example_runs_and_keeps_what_it_is_given(name, images):
    function = getattr(ops, name)
    before = {key: value.copy() for key, value in images.items() if isinstance(value, np.ndarray)}
    parsed = doctest.DocTestParser().get_doctest(inspect.getdoc(function), dict(images), name, None, 0)
    assert parsed.examples
    runner = doctest.DocTestRunner(verbose=False)
    names = parsed.globs
    failed = runner.run(parsed, out=lambda text: print(text), clear_globs=False).failed
    assert failed == 0
    result = names["result"]
    assert isinstance(result, np.ndarray) and result.dtype == np.float32 and result.size
    for key, value in before.items():
        assert np.array_equal(images[key], value), f"{name} changes {key}"


@pytest.mark.skipif("KORIMG_NO_ROOM" not in os.environ, reason="nothing takes the allocator's place")
def test_what_could_not_be_computed_is_an_error():
    # Scratch memory of pipelines runs out, and nothing else.
    code = """if True:
        import numpy as np, korimg
        image = np.random.default_rng(1).normal(100, 5, (700, 900)).astype(np.float32)
        try:
            korimg.ops.gaussian(image, sigma=5)
        except korimg.OutOfMemoryError as error:
            assert "memory or threads" in str(error), error
        else:
            raise SystemExit("pixels that nobody computed")
    """
    room = {"LD_PRELOAD": os.environ["KORIMG_NO_ROOM"], "KORIMG_ROOM": "8000"}
    subprocess.run([sys.executable, "-c", code], env=os.environ | room, check=True)


def test_results_are_those_of_the_tool(tmp_path, images):
    tool = os.environ["KORIMG_TOOL"]
    korimg.write(tmp_path / "light.fits", korimg.Image(images["image"], levels=[(0, 1100)] * 3))
    korimg.write(tmp_path / "other.fits", images["other"])
    calls = {
        "gaussian sigma=2 highlight=180": lambda i: ops.gaussian(i, sigma=2, highlight=180),
        "bright bright=4,0,-3 contrast=24": lambda i: ops.bright(i, bright=(4, 0, -3), contrast=24),
        "rotate degrees=12.5 method=bicubic": lambda i: ops.rotate(i, degrees=12.5, method="bicubic"),
        "blit file=other.fits x=20 y=10 width=30": lambda i: ops.blit(i, file=images["other"], x=20, y=10, width=30),
        "curve points=0:0,0.2:0.45,1:1": lambda i: ops.curve(i, points=[(0, 0), (0.2, 0.45), (1, 1)]),
        "threshold condition=greater threshold=700 value=700": lambda i: ops.threshold(
            i, condition="greater", threshold=700, value=700),
    }
    for words, call in calls.items():
        subprocess.run([tool, "apply", *words.split(), "light.fits", "-o", "result.fits", "--overwrite"],
                       cwd=tmp_path, check=True, capture_output=True)
        image = korimg.read(tmp_path / "light.fits")
        assert np.array_equal(call(image).data, korimg.read(tmp_path / "result.fits").data), words
        assert np.array_equal(call(tmp_path / "light.fits").data, korimg.read(tmp_path / "result.fits").data)


dtypes = st.sampled_from(["u1", "<u2", ">u2", "<i2", ">i4", "<u4", "<i8", "<f2", ">f4", "<f4", "<f8", ">f8", "?"])


@settings(max_examples=60)
@given(dtype=dtypes, planes=st.sampled_from([None, 1, 3]), data=st.data())
def test_any_dtype_order_and_stride_is_one_image(dtype, planes, data):
    shape = (data.draw(st.integers(1, 12)), data.draw(st.integers(1, 12)))
    shape = shape if planes is None else (planes, *shape)
    values = data.draw(hnp.arrays("u1", shape, elements=st.integers(0, 1 if dtype == "?" else 200)))
    image = values.astype(dtype)
    form = data.draw(st.sampled_from(["C", "F", "negative", "strided", "read-only"]))
    if form == "F":
        image = np.asfortranarray(image)
    elif form == "negative":
        image = image[..., ::-1, :][..., ::-1, :].copy()[..., ::-1, ::-1][..., ::-1, ::-1]
    elif form == "strided":
        wide = np.zeros((*shape[:-1], 2 * shape[-1]), image.dtype)
        wide[..., ::2] = image
        image = wide[..., ::2]
    elif form == "read-only":
        image.flags.writeable = False
    mask = data.draw(st.one_of(st.none(), hnp.arrays(bool, shape)))
    given_image = image if mask is None else np.ma.MaskedArray(image, mask)
    plain = values.astype(np.float32)
    if mask is not None:
        plain[mask] = np.nan
    for call in (lambda i: ops.calculate(i, op="multiply", value=1.5, levels=(0, 255)),
                 lambda i: ops.flip(i, axis="left-right", levels=(0, 255)),
                 lambda i: ops.threshold(i, condition="greater", threshold=100, value=50, levels=(0, 255))):
        result, expected = call(given_image), call(plain)
        assert result.shape == image.shape
        assert (mask is not None) == isinstance(result, np.ma.MaskedArray)
        assert np.array_equal(np.ma.getdata(result), expected, equal_nan=True)
        if mask is not None:
            assert np.array_equal(np.ma.getmaskarray(result), np.isnan(expected))
    assert np.array_equal(image, values.astype(dtype))


def test_masks_stay_and_move(images):
    image = np.ma.MaskedArray(make((40, 50)), make((40, 50), 0, 1, 5) > 0.9)
    blurred = ops.median(image, radius=1)
    assert np.array_equal(blurred.mask & image.mask, image.mask), "what was masked is"
    cropped = ops.crop(image, rect=(7, 5, 30, 26))
    assert np.array_equal(cropped.mask, image.mask[5:26, 7:30])
    assert np.array_equal(cropped.data[~cropped.mask], image.data[5:26, 7:30][~cropped.mask])
    unmasked = np.ma.MaskedArray(np.where(image.mask, np.nan, image.data), False)
    assert not ops.invert(unmasked, levels=(0, 1000)).mask.any(), "NaN that nobody masked is not masked"


def test_quantities_and_ccddata_come_back_with_all_they_have():
    units = pytest.importorskip("astropy.units")
    from astropy.io import fits
    from astropy.nddata import CCDData, NDData
    from astropy.wcs import WCS

    quantity = ops.scroll(make((30, 40)) * units.electron, x=3)
    assert isinstance(quantity, units.Quantity) and quantity.unit == units.electron
    wcs = WCS(naxis=2)
    wcs.wcs.ctype = ["RA---TAN", "DEC--TAN"]
    wcs.wcs.crval, wcs.wcs.crpix, wcs.wcs.cdelt = [83.8, -5.4], [20.5, 10.25], [-2.8e-4, 2.8e-4]
    header = fits.Header({"OBJECT": "M 42", "EGAIN": 1.3, "EXPTIME": 60.0})

    class Own(CCDData):
        pass

    mask = make((71, 97), 0, 1, 6) > 0.95
    image = Own(make((71, 97)).astype(">f8"), unit="adu", wcs=wcs, meta=header, mask=mask)
    turned = ops.crop(image, rect=(11, 7, 80, 66))
    assert type(turned) is Own and turned.unit == units.adu and turned.shape == (59, 69)
    assert np.array_equal(turned.mask, mask[7:66, 11:80])
    sky_before, sky_after = wcs.pixel_to_world(30, 40), turned.wcs.pixel_to_world(30 - 11, 40 - 7)
    assert sky_before.separation(sky_after).arcsec < 1e-6
    assert turned.meta["EGAIN"] == 1.3 and turned.meta["OBJECT"] == "M 42"
    assert "CRPIX1" not in turned.meta, "world coordinates are those of wcs alone"
    for degrees in (90, 33.0):
        rotated = ops.rotate(image, degrees=degrees, expand=True)
        assert rotated.wcs.pixel_scale_matrix.shape == (2, 2)
        centre = [(n - 1) / 2 for n in rotated.shape[::-1]]
        middle = wcs.pixel_to_world(48, 35)
        assert middle.separation(rotated.wcs.pixel_to_world(*centre)).arcsec < 1.0
    bright = ops.bright(image, bright=3)
    assert "EGAIN" not in bright.meta and "EGAIN" in image.meta, "values are no counts any more"
    assert bright.wcs.wcs.crpix[0] == 20.5
    plain = ops.invert(NDData(make((20, 30)), meta={"OBJECT": "M 1", "note": [1, 2]}))
    assert type(plain) is NDData and plain.meta == {"OBJECT": "M 1", "note": [1, 2]} and plain.wcs is None
    with pytest.warns(korimg.KorimgWarning, match="uncertainties"):
        from astropy.nddata import StdDevUncertainty

        ops.invert(CCDData(make((20, 30)), unit="adu", uncertainty=StdDevUncertainty(make((20, 30)))))


class Lazy:
    shape, dtype, ndim = (10, 10), np.dtype("f4"), 2

    def __array__(self, dtype=None):
        raise AssertionError("is computed without being asked for")


@pytest.mark.parametrize("image, text", [
    (Lazy(), "test_ops.Lazy is no array in memory"),
    ([[1.0, 2.0]], "list is no image"),
    (np.zeros((4, 4), complex), "complex128"),
    (np.array([["a"]]), "pixels are real numbers"),
    (np.zeros((0, 4)), "0"),
    (np.zeros(5), "1 dimensions"),
    (np.zeros((5, 6, 4)), "moveaxis"),
    (None, "NoneType"),
])
def test_what_is_no_image_is_refused(image, text):
    with pytest.raises(ValueError, match=text):
        ops.invert(image)


def test_results_go_where_they_are_wanted():
    image = make((50, 60))
    expected = ops.median(image, radius=2)
    for name, out in {
        "plain": np.full((50, 60), 7, np.float32),
        "strided": np.full((50, 120), 7, np.float32)[:, ::2],
        "itself": image.copy(),
    }.items():
        source = out if name == "itself" else image
        assert ops.median(source, radius=2, out=out) is out
        assert np.array_equal(out, expected), name
    small = np.zeros((10, 12), np.float32)
    assert ops.crop(image, rect=(3, 2, 15, 12), out=small) is small
    assert np.array_equal(small, image[2:12, 3:15])
    frozen = np.zeros((50, 60), np.float32)
    frozen.flags.writeable = False
    for out in (np.zeros((50, 60)), frozen, np.zeros((3, 50, 60), np.float32), [1]):
        with pytest.raises(korimg.UsageError):
            ops.invert(image, out=out)


def test_errors_are_of_one_family_and_pythons_own(tmp_path):
    with pytest.raises(korimg.UsageError, match="gaussian: sigma=-1 is not possible") as error:
        ops.gaussian(make(), sigma=-1)
    assert isinstance(error.value, ValueError) and isinstance(error.value, korimg.Error)
    with pytest.raises(OSError, match="no-such.fits") as error:
        korimg.read(tmp_path / "no-such.fits")
    assert error.value.filename == str(tmp_path / "no-such.fits")
    with pytest.raises(TypeError):
        ops.gaussian(make(), sigmas=1)
    with pytest.raises(korimg.UsageError, match="white"):
        ops.invert(make(), levels=(5, 5))


def test_a_callback_that_raises_ends_the_work_and_reaches_the_caller():
    class Enough(Exception):
        pass

    steps = []

    def progress(title, step, total):
        steps.append(step)
        raise Enough

    with pytest.raises(Enough):
        ops.median(make((600, 800)), radius=9, progress=progress)
    assert len(steps) == 1


def test_two_threads_work_at_once():
    image, results = make((300, 400)), {}

    def work(number):
        results[number] = [ops.gaussian(image, sigma=1 + number) for _ in range(5)]

    threads = [threading.Thread(target=work, args=(n,)) for n in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    for number in range(4):
        expected = ops.gaussian(image, sigma=1 + number)
        assert all(np.array_equal(result, expected) for result in results[number])


def test_descriptions_are_told_whole():
    described = {o["name"].replace("-", "_"): o for o in json.loads(korimg._core.operations())["operations"]}
    assert set(described) == set(ops.__all__)
    for name, operation in described.items():
        signature = inspect.signature(getattr(ops, name))
        schema = operation["parameters"]
        for parameter, about in schema["properties"].items():
            own = signature.parameters[parameter.replace("-", "_")]
            assert own.kind is own.KEYWORD_ONLY
            assert (own.default is own.empty) == (parameter in schema["required"]), (name, parameter)
            if own.default is not own.empty and "default" in about:
                assert own.default == about["default"]


def test_stars_are_found_where_they_are():
    image = sky()
    stars = korimg.find_stars(image)
    measure = korimg.measure_psf(image)
    assert measure.stars == len(stars) > 10 and abs(measure.fwhm - 2.355 * 1.3) < 0.25
    assert abs(measure.sky - 1000) < 2 and abs(measure.noise - 5) < 0.6
    assert (np.diff(stars["flux"]) <= 0).all()
    brightest = stars[0]
    window = image[int(brightest["y"]) - 2 : int(brightest["y"]) + 4, int(brightest["x"]) - 2 : int(brightest["x"]) + 4]
    assert window.max() > 1500
    shifted = korimg.find_stars(ops.crop(image, rect=(10, 0, 160, 120)))
    near = np.abs(shifted["x"][:, None] + 10 - stars["x"]) + np.abs(shifted["y"][:, None] - stars["y"])
    assert np.median(near.min(axis=1)) < 0.01
    masked = np.ma.MaskedArray(image, np.broadcast_to(np.arange(160) < 80, image.shape))
    assert (korimg.find_stars(masked)["x"] > 75).all()
    table = pytest.importorskip("astropy.table").Table(stars)
    assert table["fwhm"][0] == brightest["fwhm"]
