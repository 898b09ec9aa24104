import os
import subprocess
import threading

import numpy as np
import pytest

import kvxpx
from conftest import fptr


def c_mfcc_frames(clib, x16, rate, frame, hop, ceps=13, bands=24, low=133, high=8000, preemph=0.97):
    """Float-path cepstra straight from the C interface, frame by frame."""
    order = (frame - 1).bit_length()
    bank = clib.QXsMFCCInit(order, bands, low, high, rate, 0, 0, 0)
    assert bank
    out = []
    try:
        for start in range(0, x16.size - frame + 1, hop):
            buf = np.zeros(1 << order, np.float32)
            buf[:frame] = x16[start:start + frame]
            clib.QXsPreemphasize(fptr(buf), np.float32(preemph), frame)
            clib.QXsWinHamming(fptr(buf), frame)
            c = np.zeros(ceps, np.float32)
            clib.QXsCepstralMFCC(1, fptr(buf), bank, fptr(c), ceps)
            out.append(c)
    finally:
        clib.QXsFreeMFCCFilters(bank)
    return np.array(out)


def test_mfcc_float_path_is_the_c_interface_bit_for_bit(clib, speech):
    x, rate = speech
    got = kvxpx.mfcc(x, rate)
    want = c_mfcc_frames(clib, x.astype(np.float32), rate, frame=512, hop=160)
    assert got.dtype == np.float32 and got.shape == want.shape == ((x.size - 512) // 160 + 1, 13)
    # Frames with energy: the library's values; frames of digital silence
    # (no finite logarithm) come out finite instead of -inf/NaN.
    live = np.isfinite(want).all(axis=1)
    assert live.sum() > 10
    assert got[live].tobytes() == want[live].tobytes()
    assert np.isfinite(got).all()


@pytest.mark.parametrize("dtype", [np.float32, np.float64])
def test_float_input_at_unit_full_scale_equals_int16_input(speech, dtype):
    x, rate = speech
    unit = (x / 32768.0).astype(dtype)
    assert kvxpx.mfcc(unit, rate).tobytes() == kvxpx.mfcc(x, rate).tobytes()
    assert kvxpx.mfcc(x.astype(np.float32), rate, full_scale=32768).tobytes() == kvxpx.mfcc(x, rate).tobytes()


def test_fixed_point_path_agrees_with_float_to_16_bit_precision(speech):
    x, rate = speech
    fl = kvxpx.mfcc(x, rate)
    fx = kvxpx.mfcc(x, rate, fixed_point=True)
    assert fx.shape == fl.shape
    assert np.all(np.isfinite(fx))
    live = np.abs(fl[:, 0]) > 100
    scale = np.abs(fl[live]).max(axis=1, keepdims=True)
    assert (np.abs(fx[live] - fl[live]) / scale).max() < 2e-3
    q, e = kvxpx.mfcc(x, rate, fixed_point=True, return_scale=True)
    assert q.dtype == np.int16 and e.shape == (fl.shape[0],)
    np.testing.assert_allclose(q * np.exp2(e)[:, None], fx, rtol=0, atol=np.exp2(e).max())


def test_options_reach_the_front_end(speech):
    x, rate = speech
    base = kvxpx.mfcc(x, rate)
    assert kvxpx.mfcc(x, rate, ceps=20, bands=30).shape == (base.shape[0], 20)
    assert kvxpx.mfcc(x, rate, hop_ms=20).shape[0] == (x.size - 512) // 320 + 1
    cmn = kvxpx.mfcc(x, rate, cmn=True)
    np.testing.assert_allclose(cmn.mean(axis=0), 0, atol=1e-2 * np.abs(base).max())
    kept, index = kvxpx.mfcc(x, rate, energy_floor=10, return_index=True)
    assert 0 < kept.shape[0] < base.shape[0]
    assert kept.tobytes() == base[index].tobytes()
    for window in ("hanning", "bartlett", "blackman", "rect"):
        assert not np.array_equal(kvxpx.mfcc(x, rate, window=window), base)


@pytest.mark.parametrize("options, text", [
    ({"window": "kaiser"}, "window"),
    ({"high": 9000}, "half the rate"),
    ({"ceps": 0}, "ceps"),
    ({"frame_samples": 100000}, "--frame"),
])
def test_unusable_options_raise_value_error(speech, options, text):
    x, rate = speech
    with pytest.raises(ValueError, match=text):
        kvxpx.mfcc(x, rate, **options)


def test_too_short_a_signal_raises_value_error(speech):
    with pytest.raises(ValueError, match="shorter than one frame"):
        kvxpx.mfcc(speech[0][:511], 16000)


def test_silence_gives_finite_features():
    f = kvxpx.mfcc(np.zeros(8000, np.int16), 16000)
    assert np.all(np.isfinite(f))


def test_threads_share_the_library_safely(speech):
    x, rate = speech
    want = {ceps: kvxpx.mfcc(x, rate, ceps=ceps) for ceps in (10, 13)}
    got, errors = [], []

    def work(ceps):
        try:
            for _ in range(10):
                got.append((ceps, kvxpx.mfcc(x, rate, ceps=ceps)))
        except Exception as exc:  # pragma: no cover - shown on failure
            errors.append(exc)

    threads = [threading.Thread(target=work, args=(10 + 3 * (i % 2),)) for i in range(4)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert not errors
    assert all(v.tobytes() == want[c].tobytes() for c, v in got)


def test_filter_bank_cepstrum_and_release(speech):
    x = speech[0][4000:4512]
    frame = x.astype(np.float32)
    with kvxpx.MelFilterBank(9, low=133) as bank:
        c = bank.cepstrum(kvxpx.window(kvxpx.preemphasize(frame)), 13)
        assert c.tobytes() == kvxpx.mfcc(x, 16000)[0].tobytes()
        raw = bank.cepstrum(frame, 13)
    with kvxpx.MelFilterBank(9, fixed_point=True) as fixed:
        q, sf = fixed.cepstrum(x, 13)
        assert q.dtype == np.int16
        np.testing.assert_allclose(q * 2.0 ** sf, raw, rtol=0, atol=2.0 ** sf)
    assert bank.closed
    with pytest.raises(ValueError, match="closed"):
        bank.cepstrum(frame)
    with pytest.raises(ValueError, match="512"):
        kvxpx.MelFilterBank(9).cepstrum(frame[:100])


@pytest.mark.parametrize("flags, options", [
    ([], {}),
    (["--fixed-point", "--cmn", "--window", "hanning", "--hop", "20ms", "--ceps", "16"],
     {"fixed_point": True, "cmn": True, "window": "hanning", "hop_ms": 20, "ceps": 16}),
    (["--frame", "400", "--bands", "30", "--low", "200", "--linear", "5", "--energy-floor", "30"],
     {"frame_samples": 400, "bands": 30, "low": 200, "linear": 5, "energy_floor": 30}),
])
def test_mfcc_equals_kvx_features(recordings, tmp_path, flags, options):
    """Same options, same defaults, same values as the command-line tool."""
    import soundfile

    tool = os.environ.get("KVX_TOOL")
    if not tool:
        pytest.skip("the kvx tool is not built")
    paths = recordings[:2]
    subprocess.run([tool, "features", "--format", "npy", "-o", str(tmp_path)] + flags + paths, check=True,
                   capture_output=True)
    for p in paths:
        x, rate = soundfile.read(p, dtype="int16")
        want = np.load(tmp_path / (os.path.splitext(os.path.basename(p))[0] + ".npy"))
        assert kvxpx.mfcc(x, rate, **options).tobytes() == want.tobytes()
