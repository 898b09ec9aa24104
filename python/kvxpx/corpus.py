"""Feature extraction over a corpus of audio files as Dask tasks.

The library's state is process wide, so a corpus scales over processes (and
machines), not threads: each task reads one file, computes its mel cepstra
with :func:`kvxpx.mfcc` and writes one ``.npy`` or HTK file, atomically.
Run it on a ``distributed`` cluster (``client``) or, without one, on Dask's
local process pool::

    from dask.distributed import Client
    import kvxpx.corpus
    result = kvxpx.corpus.features(paths, "feats", client=Client("tcp://scheduler:8786"), cmn=True)
    print(result.failed)   # {path: "what went wrong"}
"""

import os
import struct
import tempfile
from collections import namedtuple

import numpy as np

__all__ = ["CorpusResult", "extract", "features", "output_path"]

#: written: outputs made by this run; skipped: inputs whose output existed;
#: failed: {input path: message} for inputs that could not be done.
CorpusResult = namedtuple("CorpusResult", "written skipped failed")

_SUFFIX = {"npy": ".npy", "htk": ".htk"}
_HTK_MFCC, _HTK_ZEROTH, _HTK_MEAN_REMOVED = 6, 0x2000, 0x0800


def output_path(path, out_dir, root, fmt="npy"):
    """Where the features of `path` go: its place below `root`, under `out_dir`, with the format's suffix."""
    rel = os.path.relpath(os.path.abspath(path), os.path.abspath(root))
    if rel.startswith(os.pardir):
        rel = os.path.basename(path)
    return os.path.join(out_dir, os.path.splitext(rel)[0] + _SUFFIX[fmt])


def _read(path, rate):
    import soundfile

    data, file_rate = soundfile.read(path, dtype="float32", always_2d=True)
    if rate is not None and file_rate != rate:
        raise ValueError("the file is at %d Hz, the analysis rate is %d Hz (resample it first)" % (file_rate, rate))
    # Mono as the kvx tool makes it: the mean of the channels.
    mono = data[:, 0] if data.shape[1] == 1 else data.mean(axis=1, dtype=np.float32)
    return np.ascontiguousarray(mono), file_rate


def _htk_bytes(values, hop_samples, rate, cmn):
    rows, cols = values.shape
    period = int(1e7 * hop_samples / rate + 0.5)  # 100 ns units
    kind = _HTK_MFCC | _HTK_ZEROTH | (_HTK_MEAN_REMOVED if cmn else 0)
    head = struct.pack(">iihh", rows, period, 4 * cols, kind)
    # HTK puts c0 last.
    return head + np.roll(values, -1, axis=1).astype(">f4").tobytes()


def _hop_samples(options, rate):
    if options.get("hop_samples"):
        return options["hop_samples"]
    return int(round(options.get("hop_ms", 10.0) * rate / 1000.0))


def _write_atomically(target, payload):
    directory = os.path.dirname(target) or "."
    os.makedirs(directory, exist_ok=True)
    fd, tmp = tempfile.mkstemp(prefix=".%s." % os.path.basename(target), suffix=".part", dir=directory)
    try:
        with os.fdopen(fd, "wb") as f:
            payload(f)
            f.flush()
            os.fsync(f.fileno())
        os.replace(tmp, target)
    except BaseException:
        try:
            os.unlink(tmp)
        except OSError:
            pass
        raise


def extract(path, target, fmt="npy", rate=None, **options):
    """Features of one file into `target` (atomically); returns the frame count."""
    import kvxpx

    signal, file_rate = _read(path, rate)
    values = kvxpx.mfcc(signal, file_rate, **options)
    if fmt == "npy":
        _write_atomically(target, lambda f: np.save(f, values, allow_pickle=False))
    else:
        data = _htk_bytes(values, _hop_samples(options, file_rate), file_rate, options.get("cmn", False))
        _write_atomically(target, lambda f: f.write(data))
    return values.shape[0]


def _task(path, target, fmt, rate, options):
    """One Dask task: (path, None) when done, (path, message) when not."""
    try:
        extract(path, target, fmt, rate, **options)
        return path, None
    except Exception as exc:  # reported per file; the batch goes on
        return path, "%s: %s" % (type(exc).__name__, exc)


def features(paths, out_dir, client=None, *, fmt="npy", root=None, rate=None, overwrite=False, progress=True,
             scheduler="processes", **options):
    """Mel cepstra of every file in `paths`, one output file each, as Dask tasks.

    paths: audio files soundfile can read (WAV, FLAC, ...), mono or averaged
    to mono, at the analysis rate (`rate`, default each file's own; files at
    another rate fail: no resampling is done here).
    out_dir: outputs keep each input's place below `root` (default: the
    inputs' common directory; give it when reruns may list other files, so
    that the layout stays the same), with the suffix of `fmt` ("npy" float32
    frames x ceps, or "htk": MFCC_0 big-endian, c0 last, _Z with cmn).
    client: a ``distributed.Client`` to run on; None uses Dask's local
    `scheduler` ("processes"; "synchronous" runs in this process).
    Inputs whose output exists are skipped unless `overwrite`, so a rerun
    after a failure resumes. Outputs appear atomically: a file is either
    complete or absent. A failure (unreadable file, too short, bad audio,
    even a crashed worker) is reported in the result and does not stop the
    batch. `options` are those of :func:`kvxpx.mfcc` (``kvx features``).
    """
    import dask

    if fmt not in _SUFFIX:
        raise ValueError("fmt must be 'npy' or 'htk', not %r" % (fmt,))
    options.pop("return_scale", None)
    options.pop("return_index", None)
    _check_options(options, rate)
    paths = [os.fspath(p) for p in paths]
    if root is None:
        dirs = [os.path.dirname(os.path.abspath(p)) for p in paths]
        root = os.path.commonpath(dirs) if dirs else "."
    todo, skipped = [], []
    for p in paths:
        target = output_path(p, out_dir, root, fmt)
        if not overwrite and os.path.exists(target):
            skipped.append(target)
        else:
            todo.append((p, target))
    results = []
    if todo and client is not None:
        futures = client.map(_task, [p for p, _ in todo], [t for _, t in todo], fmt=fmt, rate=rate,
                             options=options, pure=False)
        if progress:
            from dask.distributed import progress as show_progress

            show_progress(futures)
        for (p, _), fut in zip(todo, futures):
            try:
                results.append(fut.result())
            except Exception as exc:  # the worker died or the task was lost
                results.append((p, "%s: %s" % (type(exc).__name__, exc)))
    elif todo:
        tasks = [dask.delayed(_task, pure=False)(p, t, fmt, rate, options) for p, t in todo]
        if progress:
            from dask.diagnostics import ProgressBar

            with ProgressBar():
                results = list(dask.compute(*tasks, scheduler=scheduler))
        else:
            results = list(dask.compute(*tasks, scheduler=scheduler))
    targets = dict(todo)
    written = [targets[p] for p, err in results if err is None]
    failed = {p: err for p, err in results if err is not None}
    return CorpusResult(written, skipped, failed)


def _check_options(options, rate):
    """Refuse unusable options here rather than once per file."""
    import kvxpx

    probe_rate = rate or 16000
    if rate is None and "high" in options:
        probe_rate = max(probe_rate, 2 * options["high"])
    kvxpx.mfcc(np.zeros(max(probe_rate, 70000), np.float32), probe_rate, **options)
