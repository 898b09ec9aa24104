"""Labelled templates in the library's float pattern store, matched by
dynamic time warping."""

from collections import namedtuple

from . import _kvxpx

__all__ = ["Match", "TemplateStore"]

#: label and score of the best template (None and inf when no template was
#: eligible), its position in the store, and every template's score (the
#: library's 3.4e38 marks an ineligible one).
Match = namedtuple("Match", "label score index scores")

_METRICS = {"l1": _kvxpx.DTW_L1, "l2": _kvxpx.DTW_L2}
_ENDS = {"fixed": _kvxpx.DTW_FIXED_END, "relaxed": _kvxpx.DTW_RELAXED_END}
_UNSCORED = 3.4e38


class TemplateStore:
    """Feature matrices (frames x coefficients) with labels.

    Each template is copied into the library's pattern store
    (QXsPatternIni) and released by :meth:`close`, at the end of a ``with``
    block or when the store is collected.
    """

    def __init__(self, templates=()):
        self._ids = []
        self._labels = []
        for label, features in templates:
            self.add(label, features)

    def add(self, label, features):
        """Store `features` (2-D, float32) under `label`; returns the library id."""
        self._check_open()
        pid = _kvxpx._pattern_add(features)
        self._ids.append(pid)
        self._labels.append(label)
        return pid

    @property
    def labels(self):
        return list(self._labels)

    @property
    def ids(self):
        return list(self._ids)

    def __len__(self):
        return len(self._ids)

    def match(self, features, metric="l1", end="fixed", end_range=0, threshold=None):
        """Warp `features` against every template (QXsEvalDTW).

        metric: "l1" (city block) or "l2" (Euclidean); end: "fixed" or
        "relaxed" (the path may start and end `end_range` frames inside a
        template); threshold: prune templates whose partial score reaches it.
        """
        self._check_open()
        try:
            options = _METRICS[metric] | _ENDS[end]
        except KeyError:
            raise ValueError("metric must be 'l1' or 'l2' and end 'fixed' or 'relaxed' (got %r, %r)" % (metric, end))
        if threshold is not None:
            options |= _kvxpx.DTW_THRESHOLD
        best, scores = _kvxpx._eval_dtw(self._ids, features, options, 0.0 if threshold is None else threshold,
                                        end_range)
        if best < 0 or scores[best] >= _UNSCORED:
            return Match(None, float("inf"), None, scores)
        return Match(self._labels[best], float(scores[best]), best, scores)

    def close(self):
        """Release every template from the library's store."""
        ids, self._ids, self._labels = self._ids, [], []
        self._closed = True
        for pid in ids:
            _kvxpx._pattern_free(pid)

    def _check_open(self):
        if getattr(self, "_closed", False):
            raise ValueError("the template store is closed")

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __del__(self):
        try:
            self.close()
        except Exception:
            pass
