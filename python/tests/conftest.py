"""Shared fixtures: the C library itself through ctypes (the same loaded
instance the extension uses), and the recordings the tests run on."""

import ctypes
import os

import numpy as np
import pytest

import kvxpx

REPORT = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_int, ctypes.c_char_p, ctypes.c_char_p, ctypes.c_char_p, ctypes.c_int)


def _loaded_library():
    with open("/proc/self/maps") as maps:
        for line in maps:
            path = line.split()[-1]
            if os.path.basename(path).startswith("libkvxpx.so"):
                return path
    raise RuntimeError("libkvxpx is not loaded")


@pytest.fixture(scope="session")
def clib():
    lib = ctypes.CDLL(_loaded_library())
    fp = ctypes.POINTER(ctypes.c_float)
    lib.QXsMFCCInit.restype = ctypes.c_void_p
    lib.QXsMFCCInit.argtypes = [ctypes.c_int] * 8
    lib.QXsCepstralMFCC.argtypes = [ctypes.c_int, fp, ctypes.c_void_p, fp, ctypes.c_int]
    lib.QXsFreeMFCCFilters.argtypes = [ctypes.c_void_p]
    lib.QXsPreemphasize.argtypes = [fp, ctypes.c_float, ctypes.c_int]
    lib.QXsWinHamming.argtypes = [fp, ctypes.c_int]
    lib.QXcFft.argtypes = [fp, ctypes.c_int, ctypes.c_int]
    lib.QXswbConvertDown.argtypes = [fp, ctypes.POINTER(ctypes.c_short), ctypes.c_int, ctypes.c_int,
                                     ctypes.POINTER(ctypes.c_int)]
    lib.QXRedirectError.restype = ctypes.c_void_p
    lib.QXRedirectError.argtypes = [ctypes.c_void_p]
    return lib


def fptr(a):
    return a.ctypes.data_as(ctypes.POINTER(ctypes.c_float))


def _generated(tmp_dir):
    """Short spoken-digit stand-ins: a few tones with noise, 16 kHz 16-bit WAV."""
    import soundfile

    rng = np.random.default_rng(7)
    paths = []
    for k in range(8):
        t = np.arange(int(16000 * (0.4 + 0.05 * k))) / 16000.0
        x = 0.3 * np.sin(2 * np.pi * (300 + 90 * k) * t) * np.hanning(t.size) + 0.01 * rng.standard_normal(t.size)
        sub = os.path.join(tmp_dir, "voice%d" % (k % 2))
        os.makedirs(sub, exist_ok=True)
        p = os.path.join(sub, "word%d.wav" % k)
        soundfile.write(p, x, 16000, subtype="PCM_16")
        paths.append(p)
    return paths


@pytest.fixture(scope="session")
def recordings(tmp_path_factory):
    """The shipped recordings (data/digits) when present, else generated ones."""
    data = os.environ.get("KVX_DATA_DIR", os.path.join(os.path.dirname(__file__), "..", "..", "data"))
    found = []
    for base, _, files in os.walk(os.path.join(data, "digits")):
        found += [os.path.join(base, f) for f in sorted(files) if f.endswith((".flac", ".wav"))]
    return sorted(found) if found else _generated(str(tmp_path_factory.mktemp("audio")))


@pytest.fixture(scope="session")
def speech(recordings):
    import soundfile

    x, rate = soundfile.read(recordings[0], dtype="int16")
    return x, rate
