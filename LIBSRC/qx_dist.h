// Vector distances: the kernels shared by the float and 16-bit distance
// forms, the warping and the Gaussian mixtures.
//
// Every measure keeps one double accumulator that starts at
// 0.0 and is added to in element order 0..n-1; the order is part of the result
// (a different order gives different roundings), so no kernel reassociates.
// Elements are widened before they are combined: a float difference is formed
// in double from the two floats, a 16-bit difference in 32-bit integers (it
// cannot overflow) and then widened. The 16-bit and float forms share these
// templates through `diff`. The loops are unrolled (the order of the additions
// stays the same): with short vectors the loop control is a good part of the work.
#pragma once

#include <cmath>
#include <cstdint>

#include "qx_report.h"

namespace qx::dist {

// The argument checks every measure makes, in their order: the length, the
// two vectors, then a weighted measure's weights (weightsText names them; none
// without it). Reported at the caller's line. True when the call must end: a
// check failed or an error was already pending.
inline bool vector_checks(const Report& r, int n, const void* vect1, const void* vect2, const void* weights = nullptr,
                          const char* weightsText = nullptr, where loc = where::current()) noexcept {
    r.checks(n, {{vect1, "vect1==0"}, {vect2, "vect2==0"}}, loc);
    if (weightsText != nullptr)
        r.check(weights == nullptr, weightsText, loc);
    return Report::failed();
}

inline double diff(float a, float b) noexcept { return static_cast<double>(a) - static_cast<double>(b); }
inline double diff(short a, short b) noexcept {
    return static_cast<double>(static_cast<std::int32_t>(a) - static_cast<std::int32_t>(b));
}

template <class T>
double dot(const T* v1, const T* v2, int n) noexcept {
    double acc = 0.0;
#pragma GCC unroll 4
    for (int i = 0; i < n; ++i)
        acc += static_cast<double>(v1[i]) * static_cast<double>(v2[i]);
    return acc;
}

template <class T>
double l1(const T* v1, const T* v2, int n) noexcept {
    double acc = 0.0;
#pragma GCC unroll 4
    for (int i = 0; i < n; ++i)
        acc += std::fabs(diff(v1[i], v2[i]));
    return acc;
}

template <class T>
double l2(const T* v1, const T* v2, int n, int doSqrt) noexcept {
    double acc = 0.0;
#pragma GCC unroll 4
    for (int i = 0; i < n; ++i) {
        const double d = diff(v1[i], v2[i]);
        acc += d * d;
    }
    return doSqrt ? std::sqrt(acc) : acc;
}

// Diagonal weights: term i is d[i] * (w[i] * d[i]).
template <class T>
double mahalanobis_diag(const T* v1, const T* v2, const T* w, int n, int doSqrt) noexcept {
    double acc = 0.0;
#pragma GCC unroll 4
    for (int i = 0; i < n; ++i) {
        const double d = diff(v1[i], v2[i]);
        acc += d * (static_cast<double>(w[i]) * d);
    }
    return doSqrt ? std::sqrt(acc) : acc;
}

// Full symmetric weight matrix, read through its lower triangle only: the
// off-diagonal terms (d[j] * M[i][j]) * d[i], j < i, row by row, are summed
// apart from the diagonal terms (M[i][i] * d[i]) * d[i]; the result is
// 2 * off-diagonal + diagonal. Row i is read up to column i.
template <class T>
double mahalanobis_full(const T* v1, const T* v2, T* const* m, int n, int doSqrt) noexcept {
    double off = 0.0;
    double diag = 0.0;
    for (int i = 0; i < n; ++i) {
        const double di = diff(v1[i], v2[i]);
        const T* row = m[i];
        for (int j = 0; j < i; ++j)
            off += (diff(v1[j], v2[j]) * static_cast<double>(row[j])) * di;
        diag += (static_cast<double>(row[i]) * di) * di;
    }
    const double acc = 2.0 * off + diag;
    return doSqrt ? std::sqrt(acc) : acc;
}

}  // namespace qx::dist
