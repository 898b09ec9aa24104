"""kvxpx for Python: the library's front end, FFTs, conversions, template
matching and statistical models on NumPy arrays.

Library failures raise :class:`Error` (:class:`BadArgument`, also a
ValueError, for refused arguments; :class:`OutOfMemory`, also a MemoryError);
overflow and underflow reports become :class:`OverflowWarning`. Calls into the
library are serialised by one lock and run without the GIL. For corpora over
many processes or machines see :mod:`kvxpx.corpus`.
"""

from ._errors import BadArgument, Error, OutOfMemory, OverflowWarning, Report
from ._kvxpx import (
    ContinuousHMM,
    DiscreteHMM,
    GaussianMixture,
    HMM,
    HMMClass,
    MelFilterBank,
    error_text,
    fft,
    from_int16,
    from_int32,
    irfft,
    library_version,
    mfcc,
    preemphasize,
    rfft,
    to_int16,
    to_int32,
    window,
)
from ._templates import Match, TemplateStore

__all__ = [
    "BadArgument", "ContinuousHMM", "DiscreteHMM", "Error", "GaussianMixture", "HMM", "HMMClass", "Match",
    "MelFilterBank", "OutOfMemory", "OverflowWarning", "Report", "TemplateStore", "error_text", "fft",
    "from_int16", "from_int32", "irfft", "library_version", "mfcc", "preemphasize", "rfft", "to_int16",
    "to_int32", "window",
]
