// Distances, pattern stores and dynamic time warping: the shared internals.
//
// Distance kernels. Every measure keeps one double accumulator that starts at
// 0.0 and is added to in element order 0..n-1; the order is part of the result
// (a different order gives different roundings), so no kernel reassociates.
// Elements are widened before they are combined: a float difference is formed
// in double from the two floats, a 16-bit difference in 32-bit integers (it
// cannot overflow) and then widened. The 16-bit and float forms share these
// templates through `diff`. The loops are unrolled (the order of the additions
// stays the same): with short vectors the loop control is a good part of the work.
//
// Pattern records. The two stores are doubly linked lists of records; the
// 16-bit record also keeps a float copy of its rows for the warping.
#pragma once

#include <cmath>
#include <cstdint>

namespace qx::dist {

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

namespace qx::pattern {

// A 16-bit pattern. The rows live in rowBlock, each starting on an 8-byte
// boundary; floatRows holds the real values (short x 2^scaleFactor).
struct WRecord {
    WRecord* next;
    WRecord* prev;
    int isHead;
    int id;
    short** pSeq;
    void* rowBlock;
    float** floatRows;
    int nSeq;
    int len;
    int scaleFactor;
};

// A float pattern: its rows are a row-pointer array of the library's own.
struct SRecord {
    SRecord* next;
    SRecord* prev;
    int isHead;
    int id;
    float** pSeq;
    int nSeq;
    int len;
};

}  // namespace qx::pattern

namespace qx::dtw {

// Lowest and highest pattern index allowed at one test frame.
struct Band {
    int lo;
    int hi;
};

// Band bounds of every frame of a test of n vectors against a pattern of m
// vectors with slack delta (band holds n entries).
void band_bounds(int n, int m, int delta, Band* band) noexcept;

}  // namespace qx::dtw

// Lookup and release of single records, shared by the store functions and the
// warping. The lookups raise for an id below 1 and for an empty store.
qx::pattern::WRecord* QXwPatternPtrGet(int idPttrn);
qx::pattern::SRecord* QXsPatternPtrGet(int idPttrn);
int QXwPatternPtrFree(qx::pattern::WRecord* record);
int QXsPatternPtrFree(qx::pattern::SRecord* record);
