import os
import subprocess
from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pytest

import kvxpx


@pytest.mark.parametrize("dtype", [np.float32, np.float64])
def test_float_input_at_unit_full_scale_equals_int16_input(speech, dtype):
    x, rate = speech
    unit = (x / 32768.0).astype(dtype)
    assert kvxpx.mfcc(unit, rate).tobytes() == kvxpx.mfcc(x, rate).tobytes()
    assert kvxpx.mfcc(x.astype(np.float32), rate, full_scale=32768).tobytes() == kvxpx.mfcc(x, rate).tobytes()


def test_fixed_point_cepstra_come_with_their_scale(speech):
    """The tool's --fixed-point values (compared below) as int16 and a per-frame exponent."""
    x, rate = speech
    fx = kvxpx.mfcc(x, rate, fixed_point=True)
    q, e = kvxpx.mfcc(x, rate, fixed_point=True, return_scale=True)
    assert q.dtype == np.int16 and e.shape == (fx.shape[0],)
    np.testing.assert_allclose(q * np.exp2(e)[:, None], fx, rtol=0, atol=np.exp2(e).max())


def test_energy_floor_returns_the_kept_frames(speech):
    x, rate = speech
    base = kvxpx.mfcc(x, rate)
    kept, index = kvxpx.mfcc(x, rate, energy_floor=10, return_index=True)
    assert 0 < kept.shape[0] < base.shape[0]
    assert kept.tobytes() == base[index].tobytes()


@pytest.mark.parametrize("x, options, text", [
    (None, {"window": "kaiser"}, "window"),
    (None, {"high": 9000}, "half the rate"),
    (None, {"frame_samples": 100000}, "--frame"),
    (np.zeros(511, np.int16), {}, "shorter than one frame"),
])
def test_unusable_options_raise_value_error(speech, x, options, text):
    with pytest.raises(ValueError, match=text):
        kvxpx.mfcc(speech[0] if x is None else x, 16000, **options)


def test_threads_share_the_library_safely(speech):
    x, rate = speech
    want = {ceps: kvxpx.mfcc(x, rate, ceps=ceps).tobytes() for ceps in (10, 13)}
    with ThreadPoolExecutor(4) as pool:  # a failure in a thread is raised here
        got = pool.map(lambda c: [(c, kvxpx.mfcc(x, rate, ceps=c).tobytes()) for _ in range(10)], [10, 13, 10, 13])
        assert all(v == want[c] for run in got for c, v in run)


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
    (["--window", "blackman", "--ceps", "20", "--bands", "30"], {"window": "blackman", "ceps": 20, "bands": 30}),
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
