#!/usr/bin/env python3
"""Speed of kvxpx.mfcc from Python against the same front end in C++ and the
kvx tool, and against aubio's MFCC (Debian's python3-aubio), on one hour of
16 kHz audio, side by side in one run (rounds alternate; medians).

    PYTHONPATH=build/release/python python3 python/bench/bench_mfcc.py \
        --mfcc-time build/release/python/kvx_mfcc_time --kvx build/release/tools/kvx/kvx

Rows:
  python, one call      kvxpx.mfcc on the whole hour (int16 array in, float32 out)
  C++, one call         kvx_frontend on the same samples, no Python (kvx_mfcc_time)
  python, 1 s calls     3600 calls of one second each
  C++, 1 s calls        the same chunks in C++
  python file to file   kvxpx.corpus.extract: read the WAV, compute, write .npy
  kvx features          the tool on the same WAV to .npy (process wall time)
  aubio                 aubio.pvoc(512, 160) + aubio.mfcc(512, 24 bands, 13, 16000), one Python call per frame
From these: the binding's cost per frame ((python - C++) one call / frames)
and per call ((python - C++) 1 s calls / calls).
"""

import argparse
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

import numpy as np

import kvxpx
import kvxpx.corpus

RATE = 16000


def hour_of_audio(seconds, data_dir):
    """Shipped recordings end to end (with a little noise) or, without them, tones in noise."""
    rng = np.random.default_rng(1)
    pieces = []
    if data_dir and os.path.isdir(os.path.join(data_dir, "digits")):
        import soundfile

        for base, _, files in sorted(os.walk(os.path.join(data_dir, "digits"))):
            for f in sorted(files):
                if f.endswith((".flac", ".wav")):
                    pieces.append(soundfile.read(os.path.join(base, f), dtype="int16")[0])
    if not pieces:
        t = np.arange(RATE) / RATE
        pieces = [(8000 * np.sin(2 * np.pi * f0 * t)).astype(np.int16) for f0 in (220, 330, 440, 550)]
    one = np.concatenate(pieces)
    x = np.resize(one, seconds * RATE).astype(np.int32) + rng.integers(-3, 4, seconds * RATE)
    return np.clip(x, -32768, 32767).astype(np.int16)


def timed(fn):
    t0 = time.perf_counter()
    fn()
    return time.perf_counter() - t0


def cxx_seconds(tool, raw, chunk=None):
    args = [tool, raw, "1"] + ([str(chunk)] if chunk else [])
    line = subprocess.run(args, check=True, capture_output=True, text=True).stdout.split()
    return float(line[0]), int(line[1])


def aubio_mfcc(x):
    import aubio

    hop, n = 160, 512
    pv, mf = aubio.pvoc(n, hop), aubio.mfcc(n, 24, 13, RATE)
    mf.set_mel_coeffs(133.0, 8000.0)
    f = x.astype(np.float32) / 32768.0
    frames = f.size // hop
    out = np.empty((frames, 13), np.float32)
    for i in range(frames):
        out[i] = mf(pv(f[i * hop:(i + 1) * hop]))
    return out


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--seconds", type=int, default=3600)
    ap.add_argument("--rounds", type=int, default=3)
    ap.add_argument("--mfcc-time", help="the kvx_mfcc_time program (C++ front end timing)")
    ap.add_argument("--kvx", help="the kvx tool")
    ap.add_argument("--data", default=os.path.join(os.path.dirname(__file__), "..", "..", "data"))
    ap.add_argument("--no-aubio", action="store_true")
    a = ap.parse_args()

    x = hour_of_audio(a.seconds, a.data)
    calls = a.seconds
    work = tempfile.mkdtemp(prefix="kvx-bench-")
    try:
        raw = os.path.join(work, "hour.raw")
        x.tofile(raw)
        wav = os.path.join(work, "hour.wav")
        import soundfile

        soundfile.write(wav, x, RATE, subtype="PCM_16")

        results = {}
        frames_one = kvxpx.mfcc(x, RATE).shape[0]

        def record(name, seconds):
            results.setdefault(name, []).append(seconds)

        for _ in range(a.rounds):
            record("python, one call", timed(lambda: kvxpx.mfcc(x, RATE)))
            if a.mfcc_time:
                record("C++, one call", cxx_seconds(a.mfcc_time, raw)[0])
            record("python, 1 s calls", timed(lambda: [kvxpx.mfcc(x[i * RATE:(i + 1) * RATE], RATE)
                                                      for i in range(calls)]))
            if a.mfcc_time:
                record("C++, 1 s calls", cxx_seconds(a.mfcc_time, raw, RATE)[0])
            npy = os.path.join(work, "py", "hour.npy")
            record("python file to file", timed(lambda: kvxpx.corpus.extract(wav, npy)))
            if a.kvx:
                out = os.path.join(work, "tool")
                os.makedirs(out, exist_ok=True)
                record("kvx features", timed(lambda: subprocess.run(
                    [a.kvx, "features", "--format", "npy", "-o", out, wav], check=True, capture_output=True)))
        if not a.no_aubio:
            record("aubio", timed(lambda: aubio_mfcc(x)))

        frames_chunks = calls * kvxpx.mfcc(x[:RATE], RATE).shape[0]
        aubio_frames = x.size // 160
        med = {k: statistics.median(v) for k, v in results.items()}
        print("%d s of 16 kHz audio, %d frames (one call), %d rounds, medians" % (a.seconds, frames_one, a.rounds))
        print("%-22s %10s %12s %12s" % ("", "seconds", "us/frame", "x realtime"))
        for name, s in med.items():
            fr = aubio_frames if name == "aubio" else frames_chunks if "1 s" in name else frames_one
            print("%-22s %10.3f %12.3f %12.0f" % (name, s, 1e6 * s / fr, a.seconds / s))
        if "C++, one call" in med:
            print("binding cost per frame: %.3f us (%.1f %%)" % (
                1e6 * (med["python, one call"] - med["C++, one call"]) / frames_one,
                100 * (med["python, one call"] / med["C++, one call"] - 1)))
            print("binding cost per call (1 s of audio): %.1f us" % (
                1e6 * (med["python, 1 s calls"] - med["C++, 1 s calls"]) / calls))
        if a.kvx:
            tool = np.load(os.path.join(work, "tool", "hour.npy"))
            mine = np.load(os.path.join(work, "py", "hour.npy"))
            print("python .npy equals kvx features .npy bit for bit:", tool.tobytes() == mine.tobytes())
    finally:
        shutil.rmtree(work)


if __name__ == "__main__":
    sys.exit(main())
