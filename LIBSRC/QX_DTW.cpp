// Pattern stores and dynamic time warping.
//
// Two process-wide stores keep the reference patterns: one of 16-bit patterns
// (with a float copy of each) and one of float patterns. Each is a doubly
// linked list in order of creation plus a count; ids are the smallest positive
// integers not in use in that store.
//
// The warping matches a test sequence against a list of stored patterns with
// a slope-constrained local path: the pattern index advances by 0, 1 or 2 per
// test vector, never by 0 twice in a row. The band bounds keep the slope
// between 1/2 and 2. Only one column of accumulated scores is kept; it is
// updated in place from high to low pattern indices, so that cells j-1 and j-2
// still hold the previous frame when cell j is computed.
#include <cmath>
#include <cstdint>
#include <cstring>

#include "kvxpx.h"
#include "qx_alloc.h"
#include "qx_dtw.h"
#include "qx_report.h"

using qx::pattern::SRecord;
using qx::pattern::WRecord;
using qx::dtw::Band;

namespace {

// ---------------------------------------------------------------------------
// The stores
// ---------------------------------------------------------------------------

template <class Record>
struct PatternStore {
    Record* head = nullptr;
    int count = 0;
};

PatternStore<WRecord> wPatterns;
PatternStore<SRecord> sPatterns;

// Names and texts of each store's messages.
struct WStore {
    using Record = WRecord;
    static PatternStore<WRecord>& store() { return wPatterns; }
    static constexpr qx::Report ini{"QXwPatternIni"};
    static constexpr qx::Report ptrGet{"QXwPatternPtrGet"};
    static constexpr qx::Report free{"QXwPatternFree"};
    static constexpr qx::Report ptrFree{"QXwPatternPtrFree"};
    static constexpr qx::Report freeAll{"QXwPatternFreeAll"};
};
struct SStore {
    using Record = SRecord;
    static PatternStore<SRecord>& store() { return sPatterns; }
    static constexpr qx::Report ini{"QXsPatternIni"};
    static constexpr qx::Report ptrGet{"QXsPatternPtrGet"};
    static constexpr qx::Report free{"QXsPatternFree"};
    static constexpr qx::Report ptrFree{"QXsPatternPtrFree"};
    static constexpr qx::Report freeAll{"QXsPatternFreeAll"};
};

// Releases a row-pointer array from QXsAlloc2 directly, so that a record is
// released completely even while an error is pending.
void release_rows(float** rows, int nRows) noexcept {
    if (rows == nullptr)
        return;
    for (int k = nRows - 1; k >= 0; --k)
        qx::free(rows[k]);
    qx::free(rows);
}

template <class S>
typename S::Record* find(int idPttrn) noexcept {
    for (auto* r = S::store().head; r != nullptr; r = r->next)
        if (r->id == idPttrn)
            return r;
    return nullptr;
}

// Smallest positive id that names no record (the count is already raised).
template <class S>
int new_id() noexcept {
    auto& st = S::store();
    if (st.head == nullptr)
        return 1;
    for (int id = 1; id <= st.count; ++id)
        if (find<S>(id) == nullptr)
            return id;
    return st.count + 1;
}

// Links a new record at the tail.
template <class S>
void append(typename S::Record* rec) noexcept {
    auto& st = S::store();
    if (st.head == nullptr) {
        rec->isHead = 1;
        st.head = rec;
        return;
    }
    auto* last = st.head;
    while (last->next != nullptr)
        last = last->next;
    last->next = rec;
    rec->prev = last;
}

template <class S>
void unlink(typename S::Record* rec) noexcept {
    auto& st = S::store();
    if (!rec->isHead) {
        if (rec->prev != nullptr)
            rec->prev->next = rec->next;
        if (rec->next != nullptr)
            rec->next->prev = rec->prev;
    } else if (rec->next != nullptr) {
        rec->next->isHead = 1;
        rec->next->prev = nullptr;
        st.head = rec->next;
    } else {
        st.head = nullptr;
    }
}

void release(WRecord* rec) noexcept {
    release_rows(rec->floatRows, rec->nSeq);
    qx::free(rec->rowBlock);
    qx::free(rec->pSeq);
    qx::free(rec);
}

void release(SRecord* rec) noexcept {
    release_rows(rec->pSeq, rec->nSeq);
    qx::free(rec);
}

template <class S>
typename S::Record* ptr_get(int idPttrn, const char* emptyText) noexcept {
    if (idPttrn <= 0) {
        S::ptrGet.raise(QX_StsBadArg, "(idPttrn<=0)");
        return nullptr;
    }
    if (S::store().head == nullptr) {
        S::ptrGet.raise(QX_StsError, emptyText);
        return nullptr;
    }
    return find<S>(idPttrn);
}

template <class S>
int ptr_free(typename S::Record* rec, const char* brokenText) noexcept {
    if (rec == nullptr)
        return -1;
    auto& st = S::store();
    if (st.count == 0 || st.head == nullptr) {
        S::ptrFree.raise(QX_StsError, brokenText);
        return -1;
    }
    unlink<S>(rec);
    --st.count;
    release(rec);
    return 0;
}

template <class S, class PtrFree>
int free_all(PtrFree ptrFree, const char* failText) noexcept {
    auto& st = S::store();
    if (st.head == nullptr)
        return 0;
    int result = 0;
    for (auto* rec = st.head; rec != nullptr;) {
        auto* next = rec->next;
        if (ptrFree(rec) != 0) {
            S::freeAll.raise(QX_StsError, failText);
            result = -1;
        }
        rec = next;
    }
    return result;
}

// The argument checks of both Ini functions; false when the call must end.
template <class S, class T>
bool ini_checks(T** pSeq, int nSeq, int len) noexcept {
    S::ini.check(nSeq <= 0, "nSeq<=0");
    S::ini.check(len <= 0, "len<=0");
    S::ini.check(pSeq == nullptr, "pSeq==0");
    if (qx::Report::failed())
        return false;
    for (int i = 0; i < nSeq; ++i) {
        S::ini.check(pSeq[i] == nullptr, "pSeq[i]==0");
        if (qx::Report::failed())
            return false;
    }
    return true;
}

// -scaleFactor with two's-complement wrap-around (INT_MIN stays INT_MIN).
int negate(int v) noexcept { return static_cast<int>(0u - static_cast<unsigned>(v)); }

// ---------------------------------------------------------------------------
// Dynamic time warping
// ---------------------------------------------------------------------------

constexpr double kMark = 3.4e38;       // an unreachable cell
constexpr double kOneThird = 1.0 / 3.0;  // the double nearest 1/3

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
                block_l1(t, pt_ + j, stride_, vecLen_, d);
            else
                block_l2(t, pt_ + j, stride_, vecLen_, d);
            for (int q = 0; q < 4 && j + q <= hi; ++q)
                if (reach == nullptr || reach[j + q] < kMark)
                    out[j + q] = d[q];
        }
    }

private:
    // Two 2-lane halves: native width without AVX, so the sums stay in registers.
    static void block_l1(const double* t, const double* p, std::size_t stride, int n, double* out) noexcept {
        const V2i noSign = {0x7fffffffffffffffLL, 0x7fffffffffffffffLL};
        V2 lo = {0.0, 0.0}, hi = {0.0, 0.0};
        for (int k = 0; k < n; ++k) {
            V2 p0, p1;
            std::memcpy(&p0, p + k * stride, sizeof p0);
            std::memcpy(&p1, p + k * stride + 2, sizeof p1);
            const V2 d0 = t[k] - p0;
            const V2 d1 = t[k] - p1;
            lo += reinterpret_cast<V2>(reinterpret_cast<V2i>(d0) & noSign);
            hi += reinterpret_cast<V2>(reinterpret_cast<V2i>(d1) & noSign);
        }
        out[0] = lo[0];
        out[1] = lo[1];
        out[2] = hi[0];
        out[3] = hi[1];
    }

    static void block_l2(const double* t, const double* p, std::size_t stride, int n, double* out) noexcept {
        V2 lo = {0.0, 0.0}, hi = {0.0, 0.0};
        for (int k = 0; k < n; ++k) {
            V2 p0, p1;
            std::memcpy(&p0, p + k * stride, sizeof p0);
            std::memcpy(&p1, p + k * stride + 2, sizeof p1);
            const V2 d0 = t[k] - p0;
            const V2 d1 = t[k] - p1;
            lo += d0 * d0;
            hi += d1 * d1;
        }
        out[0] = std::sqrt(lo[0]);
        out[1] = std::sqrt(lo[1]);
        out[2] = std::sqrt(hi[0]);
        out[3] = std::sqrt(hi[1]);
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
void* alloc_count(std::int64_t count, std::size_t size, bool zero = false) noexcept {
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
int step_and_prune(double* A, int* F, int lo, int hi, double t) noexcept {
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

// The warping of one pattern of m vectors against the test of n vectors with
// threshold t and slack delta. Returns the best total, or t.
double dtw_core(const LocalDistance& dist, int n, int m, double t, int delta, const Work& w) noexcept {
    double* A = w.acc + 2;
    int* F = w.flags + 2;
    double* Ld = w.local;
    Band* band = w.band;

    for (int j = -2; j < m; ++j) {
        A[j] = kMark;
        F[j] = 0;
    }
    band_bounds(n, m, delta, band);

    // First frame.
    const int hi0 = band[0].hi;
    if (hi0 < 0)
        return t;
    dist.frame(0, 0, hi0, A, nullptr);
    int marked = 0;
    for (int j = hi0; j >= 0; --j)
        if (A[j] >= t) {
            A[j] = kMark;
            ++marked;
        }
    if (marked == hi0 + 1)
        return t;

    // Middle frames.
    for (int i = 1; i <= n - 2; ++i) {
        const int lo = band[i].lo;
        const int hi = band[i].hi;
        marked = step_and_prune(A, F, lo, hi, t);
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

    // Last frame: every end cell from m-1 down to the band's lower bound.
    const int lo = band[n - 1].lo;
    dist.frame(n - 1, lo, m - 1, Ld, nullptr);
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

// Pattern rows seen as float vectors: the float store's own rows, the 16-bit
// store's float copy.
float* const* float_rows(const SRecord* rec) noexcept { return rec->pSeq; }
float* const* float_rows(const WRecord* rec) noexcept { return rec->floatRows; }

// The work arrays shared by both forms; maxLen = delta + 2 x testLen - 1.
// The local distances get two spare cells in the float form only.
bool alloc_work(Work& w, std::int64_t maxLen, int localSpare, int testLen, int nPatterns) noexcept {
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

// The option checks of both forms; false when the call must end.
bool options_ok(const qx::Report& r, int options) noexcept {
    if ((options & (QX_DTW_L1 | QX_DTW_L2)) == 0) {
        r.raise(QX_StsBadArg, "Bad Distance Metric Options");
        return false;
    }
    if ((options & (QX_DTW_FIXED_END | QX_DTW_RELAXED_END)) == 0) {
        r.raise(QX_StsBadArg, "Bad End-Point Constraint Options");
        return false;
    }
    return true;
}

// The slack: 0 for fixed end points, else |endPointRange|.
std::int64_t slack(int options, int endPointRange) noexcept {
    if (options & QX_DTW_FIXED_END)
        return 0;
    const std::int64_t e = endPointRange;
    return e < 0 ? -e : e;
}

}  // namespace

// The upper bound is the slope-2 line from the start, relaxed by delta, until
// it meets the slope-1/2 line into the last cell; the lower bound the slope-1/2
// line from the start until it meets the slope-2 line into the last cell. The
// divisions by 3 are multiplications by the double nearest 1/3.
void qx::dtw::band_bounds(int n, int m, int delta, Band* band) noexcept {
    const std::int64_t N = n, M = m, D = delta;
    auto a = static_cast<std::int64_t>(std::floor(static_cast<double>(2 * M - 2 * D - N - 1) * kOneThird));
    if (a < 0)
        a = -1;
    auto b = static_cast<std::int64_t>(std::ceil(static_cast<double>(4 * N - 2 * M + 2 * D - 2) * kOneThird));
    if (b > N - 1)
        b = N;
    for (std::int64_t i = 0; i < N; ++i) {
        band[i].hi = static_cast<int>(i <= a ? 2 * i + D : M - 1 - (N - 1 - i) / 2);
        band[i].lo = static_cast<int>(i < b ? i / 2 : M - 1 - D - 2 * (N - 1 - i));
    }
}

// ---------------------------------------------------------------------------
// Internal lookups and releases
// ---------------------------------------------------------------------------

WRecord* QXwPatternPtrGet(int idPttrn) { return ptr_get<WStore>(idPttrn, "wPatterns have not been initialized."); }
SRecord* QXsPatternPtrGet(int idPttrn) { return ptr_get<SStore>(idPttrn, "sPatterns have not been initialized."); }

int QXwPatternPtrFree(WRecord* record) {
    return ptr_free<WStore>(record, "Error in internal structure. wPatterns have not be allocated.");
}
int QXsPatternPtrFree(SRecord* record) {
    return ptr_free<SStore>(record, "Error in internal structure. sPatterns have not be allocated.");
}

// ---------------------------------------------------------------------------
// Exported functions
// ---------------------------------------------------------------------------

extern "C" {

QX_API int QXwPatternIni(short** pSeq, int nSeq, int len, int scaleFactor) {
    if (!ini_checks<WStore>(pSeq, nSeq, len))
        return -1;

    // The record, its row pointers, one block for the 8-byte aligned rows
    // ((len + 16) x nSeq x 4 bytes, more than the rows need) and the float copy.
    const auto rows = static_cast<std::size_t>(nSeq);
    const auto rowBytes = static_cast<std::size_t>(len) * sizeof(short);
    auto rec = static_cast<WRecord*>(qx::calloc(1, sizeof(WRecord)));
    auto rowPtrs = qx::alloc_n<short*>(rows);
    void* block = qx::calloc((static_cast<std::size_t>(len) + 16) * rows, 4);
    if (rowPtrs != nullptr && block != nullptr) {
        auto at = reinterpret_cast<std::uintptr_t>(block);
        for (std::size_t i = 0; i < rows; ++i) {
            at = (at + 7) & ~std::uintptr_t{7};
            rowPtrs[i] = reinterpret_cast<short*>(at);
            at += rowBytes;
        }
    }
    float** floatRows = QXsAlloc2(nSeq, len);
    if (rec == nullptr || rowPtrs == nullptr || block == nullptr || floatRows == nullptr) {
        release_rows(floatRows, nSeq);
        qx::free(block);
        qx::free(rowPtrs);
        qx::free(rec);
        WStore::ini.raise(QX_StsNoMem, "wPattern can not be allocated");
        return -1;
    }
    // Rows that a failing conversion leaves unwritten read as zeros.
    for (int i = 0; i < nSeq; ++i)
        std::memset(floatRows[i], 0, static_cast<std::size_t>(len) * sizeof(float));

    ++wPatterns.count;
    rec->id = new_id<WStore>();
    rec->pSeq = rowPtrs;
    rec->rowBlock = block;
    rec->floatRows = floatRows;
    rec->nSeq = nSeq;
    rec->len = len;
    rec->scaleFactor = scaleFactor;
    for (int i = 0; i < nSeq; ++i) {
        QXwsbConvertUp(pSeq[i], floatRows[i], len, negate(scaleFactor));
        QXwbCopy(pSeq[i], rowPtrs[i], len);
    }
    append<WStore>(rec);
    return rec->id;
}

QX_API int QXsPatternIni(float** pSeq, int nSeq, int len) {
    if (!ini_checks<SStore>(pSeq, nSeq, len))
        return -1;
    auto rec = static_cast<SRecord*>(qx::calloc(1, sizeof(SRecord)));
    float** rows = QXsAlloc2(nSeq, len);
    if (rec == nullptr || rows == nullptr) {
        release_rows(rows, nSeq);
        qx::free(rec);
        SStore::ini.raise(QX_StsNoMem, "sPattern can not be allocated");
        return -1;
    }
    ++sPatterns.count;
    rec->id = new_id<SStore>();
    rec->pSeq = rows;
    rec->nSeq = nSeq;
    rec->len = len;
    for (int i = 0; i < nSeq; ++i)
        QXsbCopy(pSeq[i], rows[i], len);
    append<SStore>(rec);
    return rec->id;
}

QX_API int QXwPatternGet(int idPttrn, short*** pSeq, int* nSeq, int* len, int* scaleFactor) {
    const WRecord* rec = QXwPatternPtrGet(idPttrn);
    if (rec == nullptr)
        return 0;
    if (pSeq) *pSeq = rec->pSeq;
    if (nSeq) *nSeq = rec->nSeq;
    if (len) *len = rec->len;
    if (scaleFactor) *scaleFactor = rec->scaleFactor;
    return rec->id;
}

QX_API int QXsPatternGet(int idPttrn, float*** pSeq, int* nSeq, int* len) {
    const SRecord* rec = QXsPatternPtrGet(idPttrn);
    if (rec == nullptr)
        return 0;
    if (pSeq) *pSeq = rec->pSeq;
    if (nSeq) *nSeq = rec->nSeq;
    if (len) *len = rec->len;
    return rec->id;
}

QX_API int QXwPatternFree(int idPttrn) {
    WRecord* rec = QXwPatternPtrGet(idPttrn);
    if (rec == nullptr) {
        WStore::free.raise(QX_StsError, "wPattern NULL ptr is met in internal structure. The wPattern can not be free.");
        return -1;
    }
    return QXwPatternPtrFree(rec);
}

QX_API int QXsPatternFree(int idPttrn) {
    SRecord* rec = QXsPatternPtrGet(idPttrn);
    if (rec == nullptr) {
        SStore::free.raise(QX_StsError, "sPattern NULL ptr is met in internal structure. The sPattern can not be free.");
        return -1;
    }
    return QXsPatternPtrFree(rec);
}

QX_API int QXwPatternFreeAll(void) {
    return free_all<WStore>(QXwPatternPtrFree, "Error in internal structure. wPattern can not be free");
}

QX_API int QXsPatternFreeAll(void) {
    return free_all<SStore>(QXsPatternPtrFree, "Error in internal structure. sPattern can not be free");
}

QX_API int QXwPatternsNumber(void) { return wPatterns.count; }
QX_API int QXsPatternsNumber(void) { return sPatterns.count; }

// The evaluators depart from the usual shape (checks, then the status test):
// they check only the options, stop at the first failed one, and never read the
// status word; while an error is pending the distances are 0, so every eligible
// pattern scores 0 (or the threshold when it is 0 or less). A null idList (or,
// in the float form, a null scores) with nPatterns > 0 returns -1 unreported.
QX_API int QXsEvalDTW(const int* idList, int nPatterns, float** testSeq, int testLen, int vecLen, int options,
                      double threshold, int endPointRange, double* scores) {
    constexpr qx::Report r{"QXsEvalDTW"};
    if (!options_ok(r, options))
        return -1;
    if (nPatterns > 0 && (idList == nullptr || scores == nullptr))
        return -1;
    const std::int64_t delta = slack(options, endPointRange);
    const double best = static_cast<double>(3.4e38f);
    const double t = (options & QX_DTW_THRESHOLD) ? threshold : kMark;
    const bool l1 = (options & QX_DTW_L1) != 0;

    Work w;
    if (!alloc_work(w, delta + 2 * std::int64_t{testLen} - 1, 2, testLen, nPatterns)) {
        w.release();
        r.raise(QX_StsNoMem, "No memory for work arrays allocation");
        return -1;
    }
    for (int k = 0; k < nPatterns; ++k)
        w.recs[k] = QXsPatternPtrGet(idList[k]);
    const int position = score_all<SRecord>(w, nPatterns, testSeq, testLen, vecLen, l1, t, delta, best, scores);
    w.release();
    return position;
}

QX_API int QXwEvalDTW(const int* idList, int nPatterns, short** testSeq, int testLen, int vecLen, int testScaleFactor,
                      int options, int threshold, int thresholdScaleFactor, int endPointRange, int* scores,
                      int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXwEvalDTW"};
    if (!options_ok(r, options))
        return -1;
    if (nPatterns > 0 && idList == nullptr)
        return -1;
    const std::int64_t delta = slack(options, endPointRange);
    const double best = 3.4e38;
    const double t = (options & QX_DTW_THRESHOLD) ? QXidConvertUp(threshold, negate(thresholdScaleFactor)) : kMark;
    const bool l1 = (options & QX_DTW_L1) != 0;

    Work w;
    const bool ok = alloc_work(w, delta + 2 * std::int64_t{testLen} - 1, 0, testLen, nPatterns);
    float** test = QXsAlloc2(testLen, vecLen);
    auto dscores = static_cast<double*>(alloc_count(nPatterns, sizeof(double)));
    if (!ok || test == nullptr || dscores == nullptr) {
        w.release();
        release_rows(test, testLen);
        qx::free(dscores);
        r.raise(QX_StsNoMem, "No memory for work arrays allocation");
        return -1;
    }
    for (int k = 0; k < nPatterns; ++k)
        w.recs[k] = QXwPatternPtrGet(idList[k]);
    for (int i = 0; i < testLen; ++i)  // rows a failing conversion leaves unwritten read as zeros
        std::memset(test[i], 0, static_cast<std::size_t>(vecLen) * sizeof(float));
    for (int i = 0; i < testLen; ++i)
        QXwsbConvertUp(testSeq == nullptr ? nullptr : testSeq[i], test[i], vecLen, negate(testScaleFactor));
    const int position = score_all<WRecord>(w, nPatterns, test, testLen, vecLen, l1, t, delta, best, dscores);
    QXdibConvertDown(dscores, scores, nPatterns, doScale, scaleFactor);
    w.release();
    release_rows(test, testLen);
    qx::free(dscores);
    return position;
}

}  // extern "C"
