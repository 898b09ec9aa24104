"""Exceptions and warnings raised for the kvxpx library's reports."""

import warnings

__all__ = ["Error", "BadArgument", "OutOfMemory", "OverflowWarning", "Report"]


class Report(tuple):
    """One report of the library: (code, function, condition, file, line)."""

    __slots__ = ()

    def __new__(cls, code, function, condition, file, line):
        return super().__new__(cls, (code, function, condition, file, line))

    code = property(lambda self: self[0])
    function = property(lambda self: self[1])
    condition = property(lambda self: self[2])
    file = property(lambda self: self[3])
    line = property(lambda self: self[4])

    def __repr__(self):
        return "Report(code=%d, function=%r, condition=%r, file=%r, line=%d)" % self


class Error(Exception):
    """A check of the kvxpx library failed.

    Attributes are those of the first error the library reported, exactly as
    it reported them: ``code`` (negative), ``text`` (the code's text, as
    QXErrorStr gives it), ``function``, ``condition``, ``file`` and ``line``.
    ``reports`` holds every report of the call in order, trace records
    included. Bad arguments (code -5) raise :class:`BadArgument`, also a
    ValueError; out of memory (code -4) raises :class:`OutOfMemory`, also a
    MemoryError.
    """

    def __init__(self, code, function, condition, file, line, reports=()):
        from . import _kvxpx

        self.code = code
        self.text = _kvxpx.error_text(code)
        self.function = function
        self.condition = condition
        self.file = file
        self.line = line
        self.reports = tuple(Report(*r) for r in reports)
        super().__init__("%s(): %s [%s, code %d, %s:%d]" % (function, condition, self.text, code, file, line))


class BadArgument(Error, ValueError):
    """The library refused an argument (code -5)."""


class OutOfMemory(Error, MemoryError):
    """The library ran out of memory (code -4)."""


class OverflowWarning(RuntimeWarning):
    """The library reported an overflow (-20) or underflow (-21); the result wrapped."""

    def __init__(self, code, function, condition, file, line):
        from . import _kvxpx

        self.code = code
        self.text = _kvxpx.error_text(code)
        self.function = function
        self.file = file
        self.line = line
        super().__init__("%s(): %s [code %d, %s:%d]" % (function, self.text, code, file, line))


for _cls in (Report, Error, BadArgument, OutOfMemory, OverflowWarning):
    _cls.__module__ = "kvxpx"

_BY_CODE = {-5: BadArgument, -4: OutOfMemory}


def _error_from_reports(reports):
    """The exception for the first error among `reports` (called by the extension)."""
    first = next(r for r in reports if r[0] not in (-1, -8, -20, -21))
    return _BY_CODE.get(first[0], Error)(*first, reports=reports)


def _warn(report):
    warnings.warn(OverflowWarning(*report), stacklevel=3)
