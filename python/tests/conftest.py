"""Shared fixtures: the C library itself through ctypes (the same loaded
instance the extension uses), and the shipped recordings."""

import ctypes
import os

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
    lib.QXcFft.argtypes = [fp, ctypes.c_int, ctypes.c_int]
    lib.QXswbConvertDown.argtypes = [fp, ctypes.POINTER(ctypes.c_short), ctypes.c_int, ctypes.c_int,
                                     ctypes.POINTER(ctypes.c_int)]
    lib.QXRedirectError.restype = ctypes.c_void_p
    lib.QXRedirectError.argtypes = [ctypes.c_void_p]
    return lib


def fptr(a):
    return a.ctypes.data_as(ctypes.POINTER(ctypes.c_float))


@pytest.fixture(scope="session")
def recordings():
    """The shipped recordings: data/digits/<voice>/<word>.flac."""
    data = os.environ.get("KVX_DATA_DIR", os.path.join(os.path.dirname(__file__), "..", "..", "data"))
    found = []
    for base, _, files in os.walk(os.path.join(data, "digits")):
        found += [os.path.join(base, f) for f in files if f.endswith(".flac")]
    assert found, "no recordings below %s/digits" % data
    return sorted(found)


@pytest.fixture(scope="session")
def speech(recordings):
    import soundfile

    x, rate = soundfile.read(recordings[0], dtype="int16")
    return x, rate
