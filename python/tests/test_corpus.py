import os
import struct

import numpy as np
import pytest

import kvxpx
import kvxpx.corpus as corpus


def tree(root):
    out = {}
    for base, _, files in os.walk(root):
        for f in files:
            p = os.path.join(base, f)
            with open(p, "rb") as fh:
                out[os.path.relpath(p, root)] = fh.read()
    return out


@pytest.fixture(scope="module")
def inputs(recordings, tmp_path_factory):
    """Up to 12 recordings, plus one file that is not audio."""
    bad = tmp_path_factory.mktemp("bad") / "broken.wav"
    bad.write_bytes(b"RIFF not really")
    return list(recordings[:12]), str(bad)


def test_dask_cluster_run_equals_serial_run_and_resumes(inputs, tmp_path):
    from dask.distributed import Client, LocalCluster

    paths, bad = inputs
    root = os.path.commonpath([os.path.dirname(p) for p in paths])
    serial = corpus.features(paths, tmp_path / "serial", scheduler="synchronous", progress=False, cmn=True)
    assert not serial.failed and len(serial.written) == len(paths)
    with LocalCluster(n_workers=2, processes=True, threads_per_worker=1, dashboard_address=None) as cluster, \
            Client(cluster) as client:
        run = corpus.features(paths + [bad], tmp_path / "dask", client=client, root=root, cmn=True)
        assert set(run.failed) == {bad} and "LibsndfileError" in run.failed[bad]
        assert len(run.written) == len(paths)
        assert tree(tmp_path / "dask") == tree(tmp_path / "serial")
        # A rerun does only what is missing.
        victim = run.written[0]
        os.unlink(victim)
        again = corpus.features(paths, tmp_path / "dask", client=client, root=root, cmn=True, progress=False)
        assert again.written == [victim] and len(again.skipped) == len(paths) - 1
    assert tree(tmp_path / "dask") == tree(tmp_path / "serial")
    first = np.load(serial.written[0])
    assert first.tobytes() == kvxpx.mfcc(__import__("soundfile").read(paths[0], dtype="int16")[0], 16000,
                                         cmn=True).tobytes()
    # Nothing half-written is left behind.
    assert not [f for f in tree(tmp_path) if f.endswith(".part")]


def test_htk_output_layout(inputs, tmp_path):
    paths, _ = inputs
    result = corpus.features(paths[:1], tmp_path, fmt="htk", scheduler="synchronous", progress=False)
    with open(result.written[0], "rb") as f:
        rows, period, size, kind = struct.unpack(">iihh", f.read(12))
        body = np.frombuffer(f.read(), ">f4").reshape(rows, size // 4)
    values = corpus.features(paths[:1], tmp_path / "npy", scheduler="synchronous", progress=False)
    want = np.load(values.written[0])
    assert (period, size, kind) == (100000, 4 * 13, 6 | 0x2000)
    assert np.array_equal(body[:, -1], want[:, 0]) and np.array_equal(body[:, :-1], want[:, 1:])


def test_unusable_options_fail_before_any_task(inputs, tmp_path):
    with pytest.raises(ValueError, match="--bands"):
        corpus.features(inputs[0], tmp_path, bands=0, scheduler="synchronous")
    assert not os.listdir(tmp_path)
