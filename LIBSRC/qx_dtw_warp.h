// The warping core: local distances, the band walk of one pattern and the
// scoring of a list of patterns. Nothing here reports; the evaluators in
// QX_DTW.cpp check their options and raise for their work arrays.
//
// The warping matches a test sequence against a stored pattern with a
// slope-constrained local path: the pattern index advances by 0, 1 or 2 per
// test vector, never by 0 twice in a row. The band bounds keep the slope
// between 1/2 and 2. Only one column of accumulated scores is kept; it is
// updated in place from high to low pattern indices, so that cells j-1 and j-2
// still hold the previous frame when cell j is computed.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>

#include "kvxpx.h"
#include "qx_alloc.h"
#include "qx_dtw.h"

namespace qx::dtw {

using qx::pattern::SRecord;
using qx::pattern::WRecord;

constexpr double kMark = 3.4e38;  // an unreachable cell

// Two doubles side by side (and their comparison masks): the native width of
// every x86-64 processor.
typedef double V2 __attribute__((vector_size(16)));
typedef long long V2i __attribute__((vector_size(16)));

// Local distances between test vector i and pattern vectors j.
//
// The plain form calls the exported measure for every cell, so that it raises
// and returns exactly what the measure does (0 while an error is pending, the
// measure's own reports for a null test row). The fast form, used when neither
// can happen, works on double copies: the test row by row, the pattern
// transposed (element k of vectors j.. j+3 side by side), so that four cells
// are accumulated at once, each in element order, with the same roundings as
// the measure itself.
class LocalDistance {
public:
    LocalDistance(float* const* test, int vecLen, bool l1) noexcept : test_(test), vecLen_(vecLen), l1_(l1) {}

    // Double copies for the fast form; `scratch` holds testLen * vecLen +
    // (m + 3) * vecLen doubles for the longest pattern m.
    void use_fast(double* scratch, int testLen) noexcept {
        td_ = scratch;
        pt_ = scratch + static_cast<std::size_t>(testLen) * vecLen_;
        for (int i = 0; i < testLen; ++i)
            for (int k = 0; k < vecLen_; ++k)
                td_[static_cast<std::size_t>(i) * vecLen_ + k] = test_[i][k];
    }

    void set_pattern(float* const* rows, int m) noexcept {
        rows_ = rows;
        if (td_ == nullptr)
            return;
        stride_ = static_cast<std::size_t>(m) + 3;
        for (int k = 0; k < vecLen_; ++k) {
            double* col = pt_ + k * stride_;
            for (int j = 0; j < m; ++j)
                col[j] = rows[j][k];
            col[m] = col[m + 1] = col[m + 2] = 0.0;
        }
    }

    // out[j] = d(t[i], p[j]) for j = lo..hi; with `reach`, only where
    // reach[j] is below the mark.
    void frame(int i, int lo, int hi, double* out, const double* reach) const noexcept {
        if (td_ == nullptr) {
            const float* t = test_ == nullptr ? nullptr : test_[i];
            for (int j = hi; j >= lo; --j)
                if (reach == nullptr || reach[j] < kMark)
                    out[j] = l1_ ? QXsL1Norm(t, rows_[j], vecLen_) : QXsL2Norm(t, rows_[j], vecLen_, 1);
            return;
        }
        const double* t = td_ + static_cast<std::size_t>(i) * vecLen_;
        for (int j = lo; j <= hi; j += 4) {
            if (reach != nullptr && !(reach[j] < kMark) && !(j + 1 <= hi && reach[j + 1] < kMark) &&
                !(j + 2 <= hi && reach[j + 2] < kMark) && !(j + 3 <= hi && reach[j + 3] < kMark))
                continue;
            double d[4];
            if (l1_)
                block<true>(t, pt_ + j, stride_, vecLen_, d);
            else
                block<false>(t, pt_ + j, stride_, vecLen_, d);
            for (int q = 0; q < 4 && j + q <= hi; ++q)
                if (reach == nullptr || reach[j + q] < kMark)
                    out[j + q] = d[q];
        }
    }

private:
    // Four distances at once as two 2-lane halves: native width without AVX,
    // so the sums stay in registers. City block sums |t - p|, Euclidean the
    // square root of the sum of squares.
    template <bool L1>
    static void block(const double* t, const double* p, std::size_t stride, int n, double* out) noexcept {
        const V2i noSign = {0x7fffffffffffffffLL, 0x7fffffffffffffffLL};
        V2 lo = {0.0, 0.0}, hi = {0.0, 0.0};
        for (int k = 0; k < n; ++k) {
            V2 p0, p1;
            std::memcpy(&p0, p + k * stride, sizeof p0);
            std::memcpy(&p1, p + k * stride + 2, sizeof p1);
            const V2 d0 = t[k] - p0;
            const V2 d1 = t[k] - p1;
            if constexpr (L1) {
                lo += reinterpret_cast<V2>(reinterpret_cast<V2i>(d0) & noSign);
                hi += reinterpret_cast<V2>(reinterpret_cast<V2i>(d1) & noSign);
            } else {
                lo += d0 * d0;
                hi += d1 * d1;
            }
        }
        const double sums[4] = {lo[0], lo[1], hi[0], hi[1]};
        for (int q = 0; q < 4; ++q)
            out[q] = L1 ? sums[q] : std::sqrt(sums[q]);
    }

    float* const* test_;
    int vecLen_;
    bool l1_;
    float* const* rows_ = nullptr;
    double* td_ = nullptr;
    double* pt_ = nullptr;
    std::size_t stride_ = 0;
};

// Work arrays of one evaluation. A and F carry two guard cells below index 0.
struct Work {
    double* acc = nullptr;    // accumulated scores, maxLen + 2
    double* local = nullptr;  // local distances
    int* flags = nullptr;     // horizontal flags, maxLen + 2
    Band* band = nullptr;     // testLen
    void** recs = nullptr;    // nPatterns
    double* scratch = nullptr;

    bool ok() const noexcept { return acc && local && flags && band && recs; }
    void release() noexcept {
        qx::free(acc);
        qx::free(local);
        qx::free(flags);
        qx::free(band);
        qx::free(recs);
        qx::free(scratch);
    }
};

// count elements of `size` bytes; a negative count cannot be allocated.
inline void* alloc_count(std::int64_t count, std::size_t size, bool zero = false) noexcept {
    if (count < 0 || static_cast<std::uint64_t>(count) > SIZE_MAX / 2 / size)
        return nullptr;
    const auto n = static_cast<std::size_t>(count);
    return zero ? qx::calloc(n, size) : qx::alloc(n * size);
}

// m ? x : y per lane, without a branch (m is all ones or all zeros).
inline V2 select(V2i m, V2 x, V2 y) noexcept {
    return reinterpret_cast<V2>((m & reinterpret_cast<V2i>(x)) | (~m & reinterpret_cast<V2i>(y)));
}

// One middle frame's step for j = hi down to lo, then its pruning. Cell j
// takes the best of its predecessors in the previous frame: j itself (not
// after a horizontal step, flag 1), j-1 (preferred on ties, note <=) and j-2
// (taken only when strictly better). Every cell reads only cells j, j-1 and
// j-2 of the previous frame, none of which the downward pass has written yet,
// so two cells are done at once; the outcomes are data dependent, hence
// selections instead of branches. A cell whose score so far is at or above
// the threshold is set to the mark. Returns the number of cells so set.
inline int step_and_prune(double* A, int* F, int lo, int hi, double t) noexcept {
    const V2 mark = {kMark, kMark};
    const V2 thr = {t, t};
    int marked = 0;
    int j = hi;
    for (; j - 1 >= lo; j -= 2) {
        V2 a0, a1, a2;
        std::memcpy(&a0, A + j - 1, sizeof a0);
        std::memcpy(&a1, A + j - 2, sizeof a1);
        std::memcpy(&a2, A + j - 3, sizeof a2);
        const V2i flat = {F[j - 1] != 1 ? -1LL : 0LL, F[j] != 1 ? -1LL : 0LL};
        V2 c = select(flat, a0, mark);
        const V2i one = a1 <= c;
        c = select(one, a1, c);
        const V2i two = a2 < c;
        c = select(two, a2, c);
        const V2i f = flat & ~one & ~two;
        F[j - 1] = static_cast<int>(f[0] & 1);
        F[j] = static_cast<int>(f[1] & 1);
        const V2i cut = c >= thr;
        c = select(cut, mark, c);
        marked += static_cast<int>((cut[0] & 1) + (cut[1] & 1));
        std::memcpy(A + j - 1, &c, sizeof c);
    }
    if (j >= lo) {
        double c = kMark;
        int flag = 0;
        if (F[j] != 1) {
            c = A[j];
            flag = 1;
        }
        if (A[j - 1] <= c) {
            c = A[j - 1];
            flag = 0;
        }
        if (A[j - 2] < c) {
            c = A[j - 2];
            flag = 0;
        }
        F[j] = flag;
        if (c >= t) {
            c = kMark;
            ++marked;
        }
        A[j] = c;
    }
    return marked;
}

// The first frame: cells 0..hi take their own distances, those at or above
// the threshold the mark. False when no cell is left below the threshold.
inline bool first_frame(const LocalDistance& dist, int hi, double t, double* A) noexcept {
    if (hi < 0)
        return false;
    dist.frame(0, 0, hi, A, nullptr);
    int marked = 0;
    for (int j = hi; j >= 0; --j)
        if (A[j] >= t) {
            A[j] = kMark;
            ++marked;
        }
    return marked != hi + 1;
}

// The last frame i: every end cell from m-1 down to the band's lower bound lo
// takes its best predecessor as in the middle frames, plus its own distance.
// Returns the best total below t, or t.
inline double last_frame(const LocalDistance& dist, int i, int lo, int m, double t, double* A, const int* F,
                         double* Ld) noexcept {
    dist.frame(i, lo, m - 1, Ld, nullptr);
    double best = t;
    for (int j = m - 1; j >= lo; --j) {
        double c = t;
        if (F[j] != 1)
            c = A[j];
        if (A[j - 1] <= c)
            c = A[j - 1];
        if (A[j - 2] < c)
            c = A[j - 2];
        const double total = Ld[j] + c;
        A[j] = total;
        if (total >= t)
            A[j] = t;
        else if (total < best)
            best = total;
    }
    return best;
}

// The warping of one pattern of m vectors against the test of n vectors with
// threshold t and slack delta. Returns the best total, or t.
inline double dtw_core(const LocalDistance& dist, int n, int m, double t, int delta, const Work& w) noexcept {
    double* A = w.acc + 2;
    int* F = w.flags + 2;
    double* Ld = w.local;
    Band* band = w.band;

    for (int j = -2; j < m; ++j) {
        A[j] = kMark;
        F[j] = 0;
    }
    band_bounds(n, m, delta, band);

    if (!first_frame(dist, band[0].hi, t, A))
        return t;
    for (int i = 1; i <= n - 2; ++i) {
        const int lo = band[i].lo;
        const int hi = band[i].hi;
        const int marked = step_and_prune(A, F, lo, hi, t);
        const int below = hi < lo ? hi : lo - 1;
        if (below >= -2)
            A[below] = kMark;
        if (below - 1 >= -2)
            A[below - 1] = kMark;
        if (hi < lo || marked == hi - lo + 1)
            return t;

        dist.frame(i, lo, hi, Ld, A);
        for (int j = hi; j >= lo; --j)
            A[j] += Ld[j];
    }

    return last_frame(dist, n - 1, band[n - 1].lo, m, t, A, F, Ld);
}

// Pattern rows seen as float vectors: the float store's own rows, the 16-bit
// store's float copy.
inline float* const* float_rows(const SRecord* rec) noexcept { return rec->pSeq; }
inline float* const* float_rows(const WRecord* rec) noexcept { return rec->floatRows; }

// The work arrays shared by both forms; maxLen = delta + 2 x testLen - 1.
// The local distances get two spare cells in the float form only.
inline bool alloc_work(Work& w, std::int64_t maxLen, int localSpare, int testLen, int nPatterns) noexcept {
    w.acc = static_cast<double*>(alloc_count(maxLen + 2, sizeof(double)));
    w.local = static_cast<double*>(alloc_count(maxLen + localSpare, sizeof(double), true));
    w.flags = static_cast<int*>(alloc_count(maxLen + 2, sizeof(int)));
    w.band = static_cast<Band*>(alloc_count(testLen, sizeof(Band)));
    w.recs = static_cast<void**>(alloc_count(nPatterns, sizeof(void*)));
    return w.ok();
}

// Eligible patterns have the test's vector length and floor((N-1)/2) + 1 <=
// M <= 2N - 1 + delta vectors; the rest score the mark, as does an id that
// names no stored pattern.
template <class Record>
bool eligible(const Record* rec, int testLen, int vecLen, std::int64_t delta) noexcept {
    if (rec == nullptr || rec->len != vecLen || testLen <= 0)
        return false;
    const std::int64_t m = rec->nSeq;
    return (testLen - 1) / 2 + 1 <= m && m <= 2 * std::int64_t{testLen} - 1 + delta;
}

// Scores every listed pattern (steps after the lookups) and returns the
// position of the first strictly best score below `best`.
template <class Record>
int score_all(Work& w, int nPatterns, float* const* test, int testLen, int vecLen, bool l1, double t,
              std::int64_t delta, double best, double* scores) noexcept {
    auto recs = reinterpret_cast<Record**>(w.recs);
    LocalDistance dist(test, vecLen, l1);

    // The fast form needs valid test rows and no pending error; without
    // its scratch copies the plain form does the same work.
    bool fast = QXGetStatus() >= 0 && test != nullptr;
    for (int i = 0; fast && i < testLen; ++i)
        fast = test[i] != nullptr;
    int maxM = -1;
    for (int k = 0; k < nPatterns; ++k)
        if (eligible(recs[k], testLen, vecLen, delta) && recs[k]->nSeq > maxM)
            maxM = recs[k]->nSeq;
    if (fast && maxM > 0) {
        w.scratch = static_cast<double*>(alloc_count(
            (std::int64_t{testLen} + maxM + 3) * vecLen, sizeof(double)));
        if (w.scratch != nullptr)
            dist.use_fast(w.scratch, testLen);
    }

    int position = 0;
    for (int k = 0; k < nPatterns; ++k) {
        double score = kMark;
        const Record* rec = recs[k];
        if (eligible(rec, testLen, vecLen, delta)) {
            const int m = rec->nSeq;
            dist.set_pattern(float_rows(rec), m);
            score = dtw_core(dist, testLen, m, t, static_cast<int>(delta < m - 1 ? delta : m - 1), w);
        }
        scores[k] = score;
        if (score < best) {
            best = score;
            position = k;
        }
    }
    return position;
}

// The slack: 0 for fixed end points, else |endPointRange|.
inline std::int64_t slack(int options, int endPointRange) noexcept {
    if (options & QX_DTW_FIXED_END)
        return 0;
    const std::int64_t e = endPointRange;
    return e < 0 ? -e : e;
}

}  // namespace qx::dtw
