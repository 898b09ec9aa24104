import ctypes
import warnings

import numpy as np
import pytest

import kvxpx
from conftest import REPORT, fptr


def c_reports(clib, call):
    """What the library reports for `call`, caught by a handler of our own."""
    seen = []

    def handler(code, function, condition, file, line):
        seen.append((code, function.decode(), condition.decode(), file.decode(), line))
        clib.QXSetStatus(code)
        return code

    cb = REPORT(handler)
    previous = clib.QXRedirectError(ctypes.cast(cb, ctypes.c_void_p))
    try:
        call()
    finally:
        clib.QXRedirectError(previous)
        clib.QXSetStatus(0)
    return seen


def test_bad_argument_carries_the_library_report_exactly(clib):
    x = np.array([1.0, 2.0], np.float32)
    q = np.zeros(2, np.int16)
    sf = ctypes.c_int(0)
    want = c_reports(clib, lambda: clib.QXswbConvertDown(
        fptr(x), q.ctypes.data_as(ctypes.POINTER(ctypes.c_short)), 2, 7, ctypes.byref(sf)))
    assert len(want) == 1
    with pytest.raises(kvxpx.BadArgument) as err:
        kvxpx.to_int16(x, scaling=7)
    e = err.value
    assert isinstance(e, ValueError) and isinstance(e, kvxpx.Error)
    assert (e.code, e.function, e.condition, e.file, e.line) == want[0]
    assert e.text == "Bad argument" and e.condition == "doScale>3"
    assert e.reports == tuple(want)


def test_a_failure_does_not_poison_later_calls():
    with pytest.raises(kvxpx.Error):
        kvxpx.to_int16(np.array([1.0], np.float32), scaling=-1)
    assert kvxpx.to_int16(np.array([1.0], np.float32)) == (pytest.approx(np.array([16384])), -14)
    with pytest.raises(kvxpx.Error):
        kvxpx.preemphasize(np.zeros(4, np.int16), scaling=9)
    assert kvxpx.fft(np.ones(4, np.complex64))[0] == 4


def test_codes_pick_the_python_classes():
    with pytest.raises(kvxpx.Error) as err:  # unscalable: code -7, not a bad argument
        kvxpx.to_int16(np.array([1e30], np.float32), scaling="auto")
    assert err.value.code == -7 and not isinstance(err.value, ValueError)
    with pytest.raises(kvxpx.OutOfMemory) as err:
        kvxpx._kvxpx._raise_probe(-4, "QXprobe", "no room")
    assert isinstance(err.value, MemoryError) and err.value.text == "Out of memory"
    for code in (-20, -21):
        with warnings.catch_warnings(record=True) as caught:
            warnings.simplefilter("always")
            kvxpx._kvxpx._raise_probe(code, "QXprobe", "")
        assert [w.category for w in caught] == [kvxpx.OverflowWarning]
        assert caught[0].message.code == code
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        with pytest.raises(kvxpx.OverflowWarning):
            kvxpx._kvxpx._raise_probe(-20, "QXprobe", "")


@pytest.mark.parametrize("x, scaling, sf, q, sf_out", [
    ([0.5, -0.25, 0.75, 0.0], "auto", 0, [16384, -8192, 24576, 0], -15),
    ([40000.0], "auto", 0, [20000], 1),
    ([40000.0], "saturate", 0, [32767], 0),
    ([40000.0], "none", 0, [40000 - 65536], 0),
    ([10.0], "fixed", 1, [5], 1),
    ([-2.5], 0, 0, [-2], 0),
])
def test_conversions(x, scaling, sf, q, sf_out):
    for dtype in (np.float32, np.float64):
        got, got_sf = kvxpx.to_int16(np.array(x, dtype), scaling=scaling, scale_factor=sf)
        assert got.dtype == np.int16 and got.tolist() == q and got_sf == sf_out
        back = kvxpx.from_int16(got, got_sf, dtype="float64")
        np.testing.assert_array_equal(back, np.array(q) * 2.0 ** sf_out)
    big, big_sf = kvxpx.to_int32(np.array(x, np.float64), scaling="auto")
    np.testing.assert_allclose(kvxpx.from_int32(big, big_sf, dtype="float64"), x, rtol=1e-9)


def test_fft_against_numpy_and_the_c_interface(clib):
    rng = np.random.default_rng(3)
    for n in (1, 2, 8, 1024):
        x = (rng.standard_normal(n) + 1j * rng.standard_normal(n)).astype(np.complex64)
        y = kvxpx.fft(x)
        np.testing.assert_allclose(y, np.fft.fft(x), rtol=1e-4, atol=1e-4 * np.sqrt(n))
        c = x.copy()
        clib.QXcFft(c.ctypes.data_as(ctypes.POINTER(ctypes.c_float)), n.bit_length() - 1, 1)
        assert y.tobytes() == c.tobytes()
        np.testing.assert_allclose(kvxpx.fft(y, inverse=True), x, rtol=1e-4, atol=1e-5)
        np.testing.assert_allclose(kvxpx.fft(y, inverse=True, scaled=False), n * x, rtol=1e-4, atol=1e-4 * n)
    r = rng.standard_normal(256).astype(np.float32)
    spectrum = kvxpx.rfft(r)
    np.testing.assert_allclose(spectrum, np.fft.rfft(r), rtol=1e-4, atol=1e-4)
    packed = kvxpx.rfft(r, packed=True)
    assert packed[0] == spectrum[0].real and packed[1] == spectrum[-1].real
    np.testing.assert_allclose(kvxpx.irfft(spectrum), r, atol=1e-5)
    assert kvxpx.irfft(packed, packed=True).tobytes() == kvxpx.irfft(spectrum).tobytes()
    with pytest.raises(ValueError, match="power-of-two"):
        kvxpx.fft(np.zeros(6, np.complex64))


def test_16_bit_fft_reports_its_scale():
    s = np.zeros((8, 2), np.int16)
    s[:2, 0] = [100, 50]
    y, sf = kvxpx.fft(s)
    np.testing.assert_allclose(y[:, 0] * 2.0 ** sf, np.fft.fft([100, 50, 0, 0, 0, 0, 0, 0]).real, atol=2 * 2.0 ** sf)
    r = (1000 * np.sin(np.arange(64) / 3)).astype(np.int16)
    packed, sf = kvxpx.rfft(r, scaling="auto")
    ref = np.fft.rfft(r.astype(float))
    np.testing.assert_allclose(packed[2:64:2] * 2.0 ** sf, ref[1:32].real, atol=4 * 2.0 ** sf)


def test_preemphasis_and_windows_against_references():
    x = np.array([100, 100, 50, -20], np.float32)
    np.testing.assert_allclose(kvxpx.preemphasize(x, 0.97),
                               [100, 100 - 0.97 * 100, 50 - 0.97 * 100, -20 - 0.97 * 50], rtol=1e-6)
    y, sf = kvxpx.preemphasize(np.array([100, 100], np.int16), 0.97, scaling="none")
    assert y.tolist() == [100, 2] and sf == 0
    n = 64
    i = np.arange(n)
    ones = np.ones(n, np.float32)
    np.testing.assert_allclose(kvxpx.window(ones, "hamming"), 0.54 - 0.46 * np.cos(i * 6.2831853 / (n - 1)), atol=1e-6)
    np.testing.assert_allclose(kvxpx.window(ones, "hanning"), 0.5 - 0.5 * np.cos((i + 1) * 6.2831853 / (n + 1)),
                               atol=1e-6)
    w, sf = kvxpx.window(np.full(n, 1000, np.int16), "blackman")
    a = 6.2831853 / (n - 1)
    np.testing.assert_allclose(w * 2.0 ** sf, 1000 * (0.42 - 0.5 * np.cos(i * a) + 0.08 * np.cos(2 * i * a)),
                               atol=2 * 2.0 ** sf + 1e-3)
    assert ones.tolist() == [1.0] * n  # inputs are not modified
    with pytest.raises(ValueError, match="window"):
        kvxpx.window(ones, "kaiser")
