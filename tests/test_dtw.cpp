// Pattern stores and dynamic time warping.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <random>
#include <vector>

#include "kvx_test.h"
#include "qx_dtw.h"

using kvxtest::FailAllocation;
using kvxtest::LibTest;
using kvxtest::Rep;

namespace {

constexpr double kMark = 3.4e38;

// A sequence of vectors and the row pointers the library takes.
template <class T>
struct Seq {
    std::vector<std::vector<T>> v;
    std::vector<T*> rows;
    Seq(std::vector<std::vector<T>> data) : v(std::move(data)) {
        for (auto& r : v)
            rows.push_back(r.data());
    }
    T** p() { return rows.data(); }
    int n() const { return static_cast<int>(v.size()); }
    int len() const { return static_cast<int>(v[0].size()); }
};

// One-element vectors from a list of values.
Seq<float> scalars(std::initializer_list<float> xs) {
    std::vector<std::vector<float>> v;
    for (float x : xs)
        v.push_back({x});
    return Seq<float>(v);
}

class Store : public LibTest {
protected:
    void TearDown() override {
        QXSetStatus(0);
        QXsPatternFreeAll();
        QXwPatternFreeAll();
        LibTest::TearDown();
    }
};

class Dtw : public Store {};

// ----- Reference warping on a plain full grid -------------------------------

double ref_dist(const std::vector<float>& a, const std::vector<float>& b, bool l1) {
    double s = 0.0;
    for (std::size_t k = 0; k < a.size(); ++k) {
        const double d = double(a[k]) - double(b[k]);
        s += l1 ? std::fabs(d) : d * d;
    }
    return l1 ? s : std::sqrt(s);
}

int floor_div(std::int64_t a, std::int64_t b) {
    std::int64_t q = a / b;
    if ((a % b != 0) && ((a < 0) != (b < 0)))
        --q;
    return static_cast<int>(q);
}

// Band bounds by exact integer arithmetic.
void ref_band(int n, int m, int delta, std::vector<int>& lo, std::vector<int>& hi) {
    lo.assign(n, 0);
    hi.assign(n, 0);
    int a = floor_div(2 * m - 2 * delta - n - 1, 3);
    if (a < 0)
        a = -1;
    int b = -floor_div(-(4 * n - 2 * m + 2 * delta - 2), 3);  // ceiling
    if (b > n - 1)
        b = n;
    for (int i = 0; i < n; ++i) {
        hi[i] = i <= a ? 2 * i + delta : m - 1 - (n - 1 - i) / 2;
        lo[i] = i < b ? i / 2 : m - 1 - delta - 2 * (n - 1 - i);
    }
}

// The same recurrence on a full (frames x pattern indices) grid: G holds the
// accumulated score of every cell, H whether the best path into it was a
// horizontal step; cells outside a frame's band are unreachable.
double ref_dtw(const Seq<float>& t, const Seq<float>& p, bool l1, double thr, int delta) {
    const int n = t.n(), m = p.n();
    std::vector<int> lo, hi;
    ref_band(n, m, delta, lo, hi);
    std::vector<std::vector<double>> G(n, std::vector<double>(m, kMark));
    std::vector<std::vector<int>> H(n, std::vector<int>(m, 0));
    auto g = [&](int i, int j) { return j < 0 ? kMark : G[i][j]; };
    int live = 0;
    for (int j = 0; j <= hi[0]; ++j) {
        const double d = ref_dist(t.v[0], p.v[j], l1);
        G[0][j] = d >= thr ? kMark : d;
        live += d < thr;
    }
    if (live == 0)
        return thr;
    for (int i = 1; i <= n - 2; ++i) {
        live = 0;
        for (int j = lo[i]; j <= hi[i]; ++j) {
            double c = kMark;
            int flag = 0;
            if (H[i - 1][j] != 1) {
                c = g(i - 1, j);
                flag = 1;
            }
            if (g(i - 1, j - 1) <= c) {
                c = g(i - 1, j - 1);
                flag = 0;
            }
            if (g(i - 1, j - 2) < c) {
                c = g(i - 1, j - 2);
                flag = 0;
            }
            H[i][j] = flag;
            if (c >= thr)
                continue;  // pruned on the score up to frame i-1
            ++live;
            G[i][j] = c < kMark ? c + ref_dist(t.v[i], p.v[j], l1) : kMark;
        }
        if (live == 0)
            return thr;
    }
    const int prev = n >= 2 ? n - 2 : 0;
    double best = thr;
    for (int j = m - 1; j >= lo[n - 1]; --j) {
        double c = thr;
        if (H[prev][j] != 1)  // frame 0 has no horizontal steps
            c = g(prev, j);
        if (g(prev, j - 1) <= c)
            c = g(prev, j - 1);
        if (g(prev, j - 2) < c)
            c = g(prev, j - 2);
        const double total = ref_dist(t.v[n - 1], p.v[j], l1) + c;
        if (total < thr && total < best)
            best = total;
    }
    return best;
}

// The cheapest admissible path by exhaustive search (steps of 0, 1 or 2, never
// 0 twice in a row, inside the band): a lower bound of the recurrence, which
// decides greedily per cell.
double exhaustive(const Seq<float>& t, const Seq<float>& p, bool l1, int delta) {
    const int n = t.n(), m = p.n();
    std::vector<int> lo, hi;
    ref_band(n, m, delta, lo, hi);
    double best = INFINITY;
    std::function<void(int, int, bool, double)> walk = [&](int i, int j, bool wasFlat, double cost) {
        if (j < lo[i] || j > hi[i])
            return;
        cost += ref_dist(t.v[i], p.v[j], l1);
        if (i == n - 1) {
            if (n == 1)
                cost += ref_dist(t.v[0], p.v[j], l1);
            if (j <= m - 1)
                best = std::min(best, cost);
            return;
        }
        if (!wasFlat)
            walk(i + 1, j, true, cost);
        walk(i + 1, j + 1, false, cost);
        walk(i + 1, j + 2, false, cost);
    };
    for (int j = 0; j <= std::min(hi[0], m - 1); ++j)
        walk(0, j, false, 0.0);
    return best;
}

int eligible(int n, int m, int delta) { return (n - 1) / 2 + 1 <= m && m <= 2 * n - 1 + delta; }

double eval1(int id, Seq<float>& t, int options, double thr = 0.0, int range = 0) {
    double score = -1.0;
    EXPECT_EQ(QXsEvalDTW(&id, 1, t.p(), t.n(), t.len(), options, thr, range, &score), 0);
    return score;
}

}  // namespace

// ----- Pattern stores -------------------------------------------------------

TEST_F(Store, IdsAreSmallestFreeNumbersPerStoreAndTheListKeepsCreationOrder) {
    auto a = scalars({1, 2, 3});
    EXPECT_EQ(QXsPatternIni(a.p(), 3, 1), 1);
    EXPECT_EQ(QXsPatternIni(a.p(), 2, 1), 2);
    EXPECT_EQ(QXsPatternIni(a.p(), 1, 1), 3);
    EXPECT_EQ(QXsPatternFree(2), 0);
    EXPECT_EQ(QXsPatternsNumber(), 2);
    EXPECT_EQ(QXsPatternIni(a.p(), 3, 1), 2);
    EXPECT_EQ(QXsPatternsNumber(), 3);
    EXPECT_EQ(QXsPatternIni(a.p(), 3, 1), 4);

    // The new id 2 went to the tail: 1, 3, 2, 4; only the head is marked.
    std::vector<int> ids;
    const qx::pattern::SRecord* prev = nullptr;
    for (auto* r = QXsPatternPtrGet(1); r != nullptr; prev = r, r = r->next) {
        EXPECT_EQ(r->prev, prev);
        EXPECT_EQ(r->isHead, prev == nullptr ? 1 : 0);
        ids.push_back(r->id);
    }
    EXPECT_EQ(ids, (std::vector<int>{1, 3, 2, 4}));

    // Freeing the head passes the mark on.
    EXPECT_EQ(QXsPatternFree(1), 0);
    auto* head = QXsPatternPtrGet(3);
    EXPECT_EQ(head->isHead, 1);
    EXPECT_EQ(head->prev, nullptr);
    EXPECT_EQ(QXsPatternIni(a.p(), 3, 1), 1);

    // The 16-bit store numbers on its own.
    Seq<short> w({{1, 2}, {3, 4}});
    EXPECT_EQ(QXwPatternIni(w.p(), 2, 2, 0), 1);
    EXPECT_EQ(QXwPatternsNumber(), 1);
    EXPECT_EQ(QXsPatternsNumber(), 4);
    EXPECT_TRUE(got().empty());

    EXPECT_EQ(QXsPatternFreeAll(), 0);
    EXPECT_EQ(QXsPatternsNumber(), 0);
    EXPECT_EQ(QXwPatternFreeAll(), 0);
    EXPECT_EQ(QXwPatternFreeAll(), 0);  // empty: nothing to do, nothing raised
    EXPECT_EQ(QXwPatternsNumber(), 0);
    EXPECT_TRUE(got().empty());
}

TEST_F(Store, GetReturnsTheStoresOwnCopies) {
    Seq<float> s({{1.5f, -2.0f, 3.0f}, {4.0f, 5.0f, 6.25f}});
    const int id = QXsPatternIni(s.p(), 2, 3);
    s.v[0][0] = 99.0f;  // the caller's rows are not kept
    float** rows = nullptr;
    int n = 0, len = 0;
    EXPECT_EQ(QXsPatternGet(id, &rows, &n, &len), id);
    EXPECT_EQ(n, 2);
    EXPECT_EQ(len, 3);
    EXPECT_EQ(rows[0][0], 1.5f);
    EXPECT_EQ(rows[1][2], 6.25f);

    // Absent id: 0, nothing raised, outputs untouched.
    float** untouched = rows;
    EXPECT_EQ(QXsPatternGet(7, &untouched, &n, &len), 0);
    EXPECT_EQ(untouched, rows);
    EXPECT_TRUE(got().empty());

    // 16-bit rows: 8-byte aligned; the float copy holds short x 2^scaleFactor.
    Seq<short> w({{12, -7, 1}, {3, 32767, -32768}, {5, 6, 7}});
    for (int sf : {3, -3, 0}) {
        const int wid = QXwPatternIni(w.p(), 3, 3, sf);
        short** wrows = nullptr;
        int wn = 0, wlen = 0, wsf = 99;
        EXPECT_EQ(QXwPatternGet(wid, &wrows, &wn, &wlen, &wsf), wid);
        EXPECT_EQ(wn, 3);
        EXPECT_EQ(wlen, 3);
        EXPECT_EQ(wsf, sf);
        const auto* rec = QXwPatternPtrGet(wid);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(wrows[i]) % 8, 0u);
            EXPECT_NE(wrows[i], w.rows[i]);
            for (int k = 0; k < 3; ++k) {
                EXPECT_EQ(wrows[i][k], w.v[i][k]);
                EXPECT_EQ(rec->floatRows[i][k], float(w.v[i][k] * std::ldexp(1.0, sf)));
            }
            // Rows follow each other inside the one block.
            if (i > 0) {
                EXPECT_EQ(reinterpret_cast<char*>(wrows[i]) - reinterpret_cast<char*>(wrows[i - 1]), 8);
            }
        }
    }
    EXPECT_EQ(QXwPatternsNumber(), 3);
    EXPECT_TRUE(got().empty());
}

TEST_F(Store, MessagesOfLookupFreeAndIni) {
    float** rows = nullptr;
    int n = 0, len = 0;
    EXPECT_EQ(QXsPatternGet(1, &rows, &n, &len), 0);
    EXPECT_EQ(QXsPatternFree(0), -1);
    EXPECT_EQ(QXwPatternFree(3), -1);
    EXPECT_EQ(got(), (std::vector<Rep>{
                         {-2, "QXsPatternPtrGet", "sPatterns have not been initialized."},
                         {-5, "QXsPatternPtrGet", "(idPttrn<=0)"},
                         {-2, "QXsPatternFree", "sPattern NULL ptr is met in internal structure. The sPattern can not be free."},
                         {-2, "QXwPatternPtrGet", "wPatterns have not been initialized."},
                         {-2, "QXwPatternFree", "wPattern NULL ptr is met in internal structure. The wPattern can not be free."},
                     }));
    for (auto& r : kvxtest::reports()) {
        EXPECT_EQ(r.file, "..\\LIBSRC\\QX_DTW.cpp");
        EXPECT_TRUE(kvxtest::names_raising_line(r));
    }
    clear();

    // Releasing a record while the store is empty is an internal error; a null
    // record is refused quietly.
    qx::pattern::SRecord stray{};
    qx::pattern::WRecord wstray{};
    EXPECT_EQ(QXsPatternPtrFree(nullptr), -1);
    EXPECT_EQ(QXsPatternPtrFree(&stray), -1);
    EXPECT_EQ(QXwPatternPtrFree(&wstray), -1);
    EXPECT_EQ(got(), (std::vector<Rep>{
                         {-2, "QXsPatternPtrFree", "Error in internal structure. sPatterns have not be allocated."},
                         {-2, "QXwPatternPtrFree", "Error in internal structure. wPatterns have not be allocated."},
                     }));
    clear();

    // All three argument checks, then the status ends the call.
    EXPECT_EQ(QXwPatternIni(nullptr, 0, -1, 0), -1);
    EXPECT_EQ(QXsPatternIni(nullptr, -2, 0), -1);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXwPatternIni", "nSeq<=0"},
                                      {-5, "QXwPatternIni", "len<=0"},
                                      {-5, "QXwPatternIni", "pSeq==0"},
                                      {-5, "QXsPatternIni", "nSeq<=0"},
                                      {-5, "QXsPatternIni", "len<=0"},
                                      {-5, "QXsPatternIni", "pSeq==0"}}));
    clear();

    // A null row is reported once; nothing is stored.
    Seq<short> w({{1}, {2}, {3}, {4}, {5}});
    w.rows[2] = nullptr;
    EXPECT_EQ(QXwPatternIni(w.p(), 5, 1, 0), -1);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXwPatternIni", "pSeq[i]==0"}}));
    EXPECT_EQ(QXwPatternsNumber(), 0);
    clear();

    // A pending error ends Ini before any work.
    w.rows[2] = w.v[2].data();
    QXSetStatus(-5);
    EXPECT_EQ(QXwPatternIni(w.p(), 5, 1, 0), -1);
    EXPECT_EQ(QXwPatternsNumber(), 0);
    EXPECT_TRUE(got().empty());
    clear();

    // A scale factor the conversion refuses: the conversion reports, the row
    // copy does nothing, and the record is stored all the same (rows read 0).
    const int id = QXwPatternIni(w.p(), 2, 1, -65);
    EXPECT_EQ(id, 1);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXwsbConvertUp", "scaleFactor>64"},
                                      {-5, "QXwsbConvertUp", "scaleFactor>64"}}));
    short** rows16 = nullptr;
    int sf = 0;
    EXPECT_EQ(QXwPatternGet(id, &rows16, &n, &len, &sf), id);
    EXPECT_EQ(rows16[1][0], 0);
    EXPECT_EQ(sf, -65);
    EXPECT_EQ(QXwPatternsNumber(), 1);
}

TEST_F(Store, AllocationFailuresInIniStoreNothingAndLeakNothing) {
    Seq<short> w({{1, 2}, {3, 4}, {5, 6}});
    Seq<float> s({{1, 2}, {3, 4}});
    const long live = qx::testing::live_blocks();
    int failures = 0;
    for (long nth = 1;; ++nth) {
        int id;
        {
            FailAllocation fail(nth);
            id = QXwPatternIni(w.p(), 3, 2, 0);
        }
        if (id > 0)
            break;
        ++failures;
        EXPECT_EQ(id, -1);
        ASSERT_FALSE(got().empty());
        EXPECT_EQ(got().back(), (Rep{-4, "QXwPatternIni", "wPattern can not be allocated"}));
        EXPECT_TRUE(kvxtest::names_raising_line(kvxtest::reports().back()));
        EXPECT_EQ(QXwPatternsNumber(), 0);
        EXPECT_EQ(qx::testing::live_blocks(), live);
        clear();
    }
    EXPECT_EQ(failures, 7);  // record, row pointers, row block, float array, three float rows
    const long stored = qx::testing::live_blocks();
    for (long nth = 1;; ++nth) {
        int id;
        {
            FailAllocation fail(nth);
            id = QXsPatternIni(s.p(), 2, 2);
        }
        if (id > 0)
            break;
        EXPECT_EQ(got().back(), (Rep{-4, "QXsPatternIni", "sPattern can not be allocated"}));
        EXPECT_EQ(QXsPatternsNumber(), 0);
        EXPECT_EQ(qx::testing::live_blocks(), stored);
        clear();
    }
    EXPECT_EQ(QXwPatternFreeAll() + QXsPatternFreeAll(), 0);
    EXPECT_EQ(qx::testing::live_blocks(), live);
}

// ----- Warping --------------------------------------------------------------

TEST_F(Dtw, BandBounds) {
    qx::dtw::Band b[4];
    qx::dtw::band_bounds(4, 4, 0, b);
    EXPECT_EQ((std::vector<int>{b[0].lo, b[1].lo, b[2].lo, b[3].lo}), (std::vector<int>{0, 0, 1, 3}));
    EXPECT_EQ((std::vector<int>{b[0].hi, b[1].hi, b[2].hi, b[3].hi}), (std::vector<int>{0, 2, 3, 3}));
    qx::dtw::band_bounds(4, 2, 0, b);
    EXPECT_EQ((std::vector<int>{b[0].lo, b[1].lo, b[2].lo, b[3].lo}), (std::vector<int>{0, 0, 1, 1}));
    EXPECT_EQ((std::vector<int>{b[0].hi, b[1].hi, b[2].hi, b[3].hi}), (std::vector<int>{0, 0, 1, 1}));

    // Against exact integer floor and ceiling over every eligible shape: the
    // multiplications by the double nearest 1/3 land on the same integers.
    std::vector<qx::dtw::Band> band(40);
    std::vector<int> lo, hi;
    for (int n = 1; n <= 40; ++n)
        for (int delta = 0; delta <= 5; ++delta)
            for (int m = 1; m <= 2 * n - 1 + delta; ++m) {
                if (!eligible(n, m, delta) || delta > m - 1)
                    continue;
                qx::dtw::band_bounds(n, m, delta, band.data());
                ref_band(n, m, delta, lo, hi);
                for (int i = 0; i < n; ++i) {
                    ASSERT_EQ(band[i].lo, lo[i]) << n << " " << m << " " << delta << " " << i;
                    ASSERT_EQ(band[i].hi, hi[i]) << n << " " << m << " " << delta << " " << i;
                    ASSERT_GE(band[i].lo, 0);
                    ASSERT_LE(band[i].hi, m - 1);
                }
            }
}

TEST_F(Dtw, WorkedExamples) {
    auto test = scalars({0, 1, 2, 3});
    auto p1 = scalars({0, 3});
    auto p2 = scalars({5, 0, 1, 2});
    const int id1 = QXsPatternIni(p1.p(), 2, 1);
    const int id2 = QXsPatternIni(p2.p(), 4, 1);
    EXPECT_EQ(eval1(id1, test, QX_DTW_FIXED_END | QX_DTW_L1), 2.0);
    EXPECT_EQ(eval1(id2, test, QX_DTW_FIXED_END | QX_DTW_L1), 6.0);
    // Relaxed end points: the path may start at pattern index 1.
    EXPECT_EQ(eval1(id2, test, QX_DTW_RELAXED_END | QX_DTW_L1, 0.0, 1), 1.0);
    // The slack is the absolute value of the range.
    EXPECT_EQ(eval1(id2, test, QX_DTW_RELAXED_END | QX_DTW_L1, 0.0, -1), 1.0);

    // One test vector: first and last frame both use it.
    auto one = scalars({1.5f});
    auto p3 = scalars({4});
    const int id3 = QXsPatternIni(p3.p(), 1, 1);
    EXPECT_EQ(eval1(id3, one, QX_DTW_FIXED_END | QX_DTW_L2), 5.0);

    // The recurrence decides per cell: 2,1,0,0,1 against 3,0,2 scores 5,
    // although the path 0,1,1,1,2 costs 4.
    auto t5 = scalars({2, 1, 0, 0, 1});
    auto p5 = scalars({3, 0, 2});
    const int id5 = QXsPatternIni(p5.p(), 3, 1);
    EXPECT_EQ(eval1(id5, t5, QX_DTW_FIXED_END | QX_DTW_L1), 5.0);
    EXPECT_EQ(exhaustive(t5, p5, true, 0), 4.0);
    EXPECT_EQ(ref_dtw(t5, p5, true, kMark, 0), 5.0);

    // Option precedence: fixed wins over relaxed, city-block over Euclidean.
    EXPECT_EQ(eval1(id2, test, 0x083, 0.0, 1), 6.0);
    Seq<float> v2({{0, 0}, {0, 0}});
    Seq<float> w2({{3, 4}, {3, 4}});
    const int idv = QXsPatternIni(w2.p(), 2, 2);
    EXPECT_EQ(eval1(idv, v2, 0x282, 0.0, 0), 14.0);
    EXPECT_EQ(eval1(idv, v2, 0x201, 0.0, 0), 10.0);
    EXPECT_TRUE(got().empty());
}

TEST_F(Dtw, EligibilityTiesAndThreshold) {
    std::vector<std::vector<float>> tv;
    for (int i = 0; i < 10; ++i)
        tv.push_back({float(i), float(-i)});
    Seq<float> t(tv);
    auto make = [&](int m, float shift, int len = 2) {
        std::vector<std::vector<float>> v;
        for (int j = 0; j < m; ++j)
            v.push_back(len == 2 ? std::vector<float>{float(j) + shift, float(-j)} : std::vector<float>{float(j)});
        Seq<float> s(v);
        return QXsPatternIni(s.p(), m, len);
    };
    const int p4 = make(4, 0), p5 = make(5, 0), p19 = make(19, 0.5f), p20 = make(20, 0), pl = make(10, 0, 1);
    const int p10 = make(10, 0.25f), p10b = make(10, 0.25f);
    const int ids[] = {p4, p20, pl, p5, p19, p10, p10b, 999};
    double scores[8];
    const int best = QXsEvalDTW(ids, 8, t.p(), 10, 2, QX_DTW_FIXED_END | QX_DTW_L1, 0.0, 0, scores);
    EXPECT_EQ(scores[0], kMark);  // 4 < floor(9/2) + 1
    EXPECT_EQ(scores[1], kMark);  // 20 > 19
    EXPECT_EQ(scores[2], kMark);  // other vector length
    EXPECT_EQ(scores[7], kMark);  // names no stored pattern
    EXPECT_LT(scores[3], kMark);
    EXPECT_LT(scores[4], kMark);
    EXPECT_EQ(scores[5], 2.5);
    EXPECT_EQ(scores[6], 2.5);
    EXPECT_EQ(best, 5);  // the earlier of two equal scores
    EXPECT_TRUE(got().empty());

    // Nothing eligible: every score is the mark and the result is 0.
    const int bad[] = {p4, p20};
    EXPECT_EQ(QXsEvalDTW(bad, 2, t.p(), 10, 2, QX_DTW_FIXED_END | QX_DTW_L1, 0.0, 0, scores), 0);
    EXPECT_EQ(scores[0], kMark);
    EXPECT_EQ(scores[1], kMark);

    // A threshold below the first frame's smallest distance is the score.
    EXPECT_EQ(eval1(p10, t, QX_DTW_FIXED_END | QX_DTW_L1 | QX_DTW_THRESHOLD, 0.2), 0.2);
    // A threshold the path stays below changes nothing.
    EXPECT_EQ(eval1(p10, t, QX_DTW_FIXED_END | QX_DTW_L1 | QX_DTW_THRESHOLD, 2.75), 2.5);
    EXPECT_EQ(eval1(p10, t, QX_DTW_FIXED_END | QX_DTW_L1 | QX_DTW_THRESHOLD, 2.5), 2.5);  // nothing below
}

TEST_F(Dtw, AgreesWithTheFullGridRecurrenceOnRandomCases) {
    std::mt19937 rng(12345);
    std::uniform_int_distribution<int> small(0, 9);
    int compared = 0, pruned = 0, greedyGap = 0;
    for (int round = 0; round < 400; ++round) {
        const int n = 1 + rng() % 9;
        const int vecLen = 1 + rng() % 5;
        const bool relaxed = rng() % 2;
        const int range = relaxed ? int(rng() % 7) - 3 : 0;
        const int delta = relaxed ? std::abs(range) : 0;
        const bool l1 = rng() % 2;
        auto seq = [&](int len) {
            std::vector<std::vector<float>> v(len, std::vector<float>(vecLen));
            for (auto& r : v)
                for (auto& x : r)
                    x = float(small(rng)) * 0.5f;
            return Seq<float>(v);
        };
        Seq<float> t = seq(n);
        std::vector<Seq<float>> pats;
        std::vector<int> ids;
        for (int m = 1; m <= 2 * n - 1 + delta + 1; ++m) {
            pats.push_back(seq(m));
            ids.push_back(QXsPatternIni(pats.back().p(), m, vecLen));
        }
        double thr = kMark;
        int options = (relaxed ? QX_DTW_RELAXED_END : QX_DTW_FIXED_END) | (l1 ? QX_DTW_L1 : QX_DTW_L2);
        if (rng() % 3 == 0) {
            options |= QX_DTW_THRESHOLD;
            thr = 1.0 + small(rng) * n * 0.4;
        }
        std::vector<double> scores(ids.size()), plain(ids.size());
        const int best = QXsEvalDTW(ids.data(), int(ids.size()), t.p(), n, vecLen, options, thr, range, scores.data());
        {
            // Without its scratch copies (the sixth allocation) the call does
            // the same work through the exported measures.
            FailAllocation fail(6);
            EXPECT_EQ(QXsEvalDTW(ids.data(), int(ids.size()), t.p(), n, vecLen, options, thr, range, plain.data()),
                      best);
        }
        EXPECT_EQ(plain, scores);
        double bestRef = double(3.4e38f);
        int bestPos = 0;
        for (std::size_t k = 0; k < ids.size(); ++k) {
            const int m = pats[k].n();
            double want = kMark;
            if (eligible(n, m, delta)) {
                const int core = std::min(delta, m - 1);
                want = ref_dtw(t, pats[k], l1, thr, core);
                ++compared;
                pruned += want == thr;
                if (thr == kMark) {
                    const double low = exhaustive(t, pats[k], l1, core);
                    EXPECT_LE(low, scores[k] * (1 + 1e-12));
                    greedyGap += low < scores[k] - 1e-9;
                }
            }
            ASSERT_EQ(scores[k], want) << "round " << round << " m " << m;
            if (want < bestRef) {
                bestRef = want;
                bestPos = int(k);
            }
        }
        EXPECT_EQ(best, bestPos);
        QXsPatternFreeAll();
    }
    EXPECT_GT(compared, 1000);
    EXPECT_GT(pruned, 20);      // the threshold did cut some patterns
    EXPECT_GT(greedyGap, 0);    // and the per-cell decision did miss cheaper paths
    EXPECT_TRUE(got().empty());
}

TEST_F(Dtw, StartingValueOfTheRunningBestDiffersBetweenForms) {
    // A pattern scoring the threshold 3.39999997e38 does not beat the float
    // form's start (3.4e38f widened, 3.3999999521e38); one scoring below does.
    auto t = scalars({-1e38f});
    auto p = scalars({3.3e38f});
    const int far = QXsPatternIni(p.p(), 1, 1);
    auto q = scalars({1, 2, 3});
    const int ineligible = QXsPatternIni(q.p(), 3, 1);
    const int ids[] = {ineligible, far};
    double scores[2];
    const int opts = QX_DTW_FIXED_END | QX_DTW_L1 | QX_DTW_THRESHOLD;
    EXPECT_EQ(QXsEvalDTW(ids, 2, t.p(), 1, 1, opts, 3.39999997e38, 0, scores), 0);
    EXPECT_EQ(scores[1], 3.39999997e38);
    EXPECT_EQ(QXsEvalDTW(ids, 2, t.p(), 1, 1, opts, 3.3999999e38, 0, scores), 1);
}

TEST_F(Dtw, ErrorsAndPendingStatus) {
    auto t = scalars({0, 1, 2, 3});
    auto p = scalars({0, 3});
    const int id = QXsPatternIni(p.p(), 2, 1);
    double score = 7.0;
    EXPECT_EQ(QXsEvalDTW(&id, 1, t.p(), 4, 1, QX_DTW_FIXED_END | QX_DTW_THRESHOLD, 0.0, 0, &score), -1);
    EXPECT_EQ(QXsEvalDTW(&id, 1, t.p(), 4, 1, QX_DTW_L2 | QX_DTW_THRESHOLD, 0.0, 0, &score), -1);
    int iscore = 7, sf = 0;
    short* none[] = {nullptr};
    EXPECT_EQ(QXwEvalDTW(&id, 1, none, 1, 1, 0, 0, 0, 0, 0, &iscore, 0, &sf), -1);
    EXPECT_EQ(score, 7.0);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsEvalDTW", "Bad Distance Metric Options"},
                                      {-5, "QXsEvalDTW", "Bad End-Point Constraint Options"},
                                      {-5, "QXwEvalDTW", "Bad Distance Metric Options"}}));
    for (auto& r : kvxtest::reports())
        EXPECT_TRUE(kvxtest::names_raising_line(r));
    clear();

    // The status is not read first: with an error pending the distances are 0.
    auto far = scalars({50, 60});
    const int id2 = QXsPatternIni(far.p(), 2, 1);
    const int ids[] = {id2, id};
    double scores[2];
    QXSetStatus(-5);
    EXPECT_EQ(QXsEvalDTW(ids, 2, t.p(), 4, 1, QX_DTW_FIXED_END | QX_DTW_L1, 0.0, 0, scores), 0);
    EXPECT_EQ(scores[0], 0.0);
    EXPECT_EQ(scores[1], 0.0);
    // ... or the threshold, when it is 0 or less.
    EXPECT_EQ(QXsEvalDTW(ids, 2, t.p(), 4, 1, QX_DTW_FIXED_END | QX_DTW_L1 | QX_DTW_THRESHOLD, -1.0, 0, scores), 0);
    EXPECT_EQ(scores[1], -1.0);
    EXPECT_TRUE(got().empty());
    QXSetStatus(0);

    // A bad id in the list raises through the lookup, which leaves the error
    // pending for the rest of the call.
    const int withBad[] = {id2, 0, id};
    double three[3];
    EXPECT_EQ(QXsEvalDTW(withBad, 3, t.p(), 4, 1, QX_DTW_FIXED_END | QX_DTW_L1, 0.0, 0, three), 0);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsPatternPtrGet", "(idPttrn<=0)"}}));
    EXPECT_EQ(three[0], 0.0);
    EXPECT_EQ(three[1], kMark);
    EXPECT_EQ(three[2], 0.0);
    clear();

    // A null test row: the measure reports it and returns 0, so the last
    // frame adds nothing to the first frame's distance 1.
    auto t1 = scalars({1, 2});
    t1.rows[1] = nullptr;
    const int id1 = QXsPatternIni(p.p(), 1, 1);
    EXPECT_EQ(eval1(id1, t1, QX_DTW_FIXED_END | QX_DTW_L2), 1.0);
    ASSERT_FALSE(got().empty());
    EXPECT_EQ(got()[0], (Rep{-5, "QXsL2Norm", "vect1==0"}));
}

TEST_F(Dtw, AllocationFailuresReleaseTheWorkArrays) {
    auto t = scalars({0, 1, 2, 3});
    auto p = scalars({5, 0, 1, 2});
    const int id = QXsPatternIni(p.p(), 4, 1);
    Seq<short> wp({{5}, {0}, {1}, {2}});
    const int wid = QXwPatternIni(wp.p(), 4, 1, 0);
    Seq<short> wt({{0}, {1}, {2}, {3}});
    const long live = qx::testing::live_blocks();
    int failed = 0;
    for (long nth = 1; nth < 40; ++nth) {
        double score = -1.0;
        int r;
        {
            FailAllocation fail(nth);
            r = QXsEvalDTW(&id, 1, t.p(), 4, 1, QX_DTW_FIXED_END | QX_DTW_L1, 0.0, 0, &score);
        }
        EXPECT_EQ(qx::testing::live_blocks(), live);
        if (r == 0) {
            EXPECT_EQ(score, 6.0);  // a failed scratch copy falls back to the plain form
            continue;
        }
        ++failed;
        EXPECT_EQ(r, -1);
        EXPECT_EQ(got(), (std::vector<Rep>{{-4, "QXsEvalDTW", "No memory for work arrays allocation"}}));
        clear();
    }
    EXPECT_EQ(failed, 5);
    failed = 0;
    for (long nth = 1; nth < 40; ++nth) {
        int score = -1, sf = 0;
        int r;
        {
            FailAllocation fail(nth);
            r = QXwEvalDTW(&wid, 1, wt.p(), 4, 1, 0, QX_DTW_FIXED_END | QX_DTW_L1, 0, 0, 0, &score, 0, &sf);
        }
        EXPECT_EQ(qx::testing::live_blocks(), live);
        if (r == 0) {
            EXPECT_EQ(score, 6);
            continue;
        }
        ++failed;
        ASSERT_FALSE(got().empty());
        EXPECT_EQ(got().back(), (Rep{-4, "QXwEvalDTW", "No memory for work arrays allocation"}));
        clear();
    }
    EXPECT_EQ(failed, 11);  // five shared arrays, the test copy (array and 4 rows), the scores
}

TEST_F(Dtw, ShortFormScalesInAndOut) {
    // Real test values 2, 4, 6, 8 (shorts x 2^1); real pattern values 2, 8
    // (shorts x 2^-1): city-block score 2 + 0 + 2 + 0 = 4.
    Seq<short> t({{1}, {2}, {3}, {4}});
    Seq<short> p({{4}, {16}});
    const int id = QXwPatternIni(p.p(), 2, 1, -1);
    int score = 0, sf = 0;
    EXPECT_EQ(QXwEvalDTW(&id, 1, t.p(), 4, 1, 1, QX_DTW_FIXED_END | QX_DTW_L1, 0, 0, 0, &score, 0, &sf), 0);
    EXPECT_EQ(score, 4);
    EXPECT_EQ(QXwEvalDTW(&id, 1, t.p(), 4, 1, 1, QX_DTW_FIXED_END | QX_DTW_L1, 0, 0, 0, &score, 2, &sf), 0);
    EXPECT_EQ(score, 4 << 28);  // automatic factor
    EXPECT_EQ(sf, -28);

    // The same match in the float form on the real values.
    auto ft = scalars({2, 4, 6, 8});
    auto fp = scalars({2, 8});
    const int fid = QXsPatternIni(fp.p(), 2, 1);
    EXPECT_EQ(eval1(fid, ft, QX_DTW_FIXED_END | QX_DTW_L1), 4.0);

    // Threshold 3 x 2^1 = 6 leaves the score; with 1 x 2^0 the path is
    // pruned at the third frame and the pattern scores the threshold.
    EXPECT_EQ(QXwEvalDTW(&id, 1, t.p(), 4, 1, 1, 0x0C1, 3, 1, 0, &score, 0, &sf), 0);
    EXPECT_EQ(score, 4);
    EXPECT_EQ(QXwEvalDTW(&id, 1, t.p(), 4, 1, 1, 0x0C1, 1, 0, 0, &score, 0, &sf), 0);
    EXPECT_EQ(score, 1);

    // A bad test factor: the conversion reports, the error stays pending, so
    // distances are 0, the scores 0, and the position is still returned.
    sf = 0;
    const int ids[] = {id, id};
    int two[2] = {9, 9};
    EXPECT_EQ(QXwEvalDTW(ids, 2, t.p(), 4, 1, 70, QX_DTW_FIXED_END | QX_DTW_L1, 0, 0, 0, two, 0, &sf), 0);
    ASSERT_FALSE(got().empty());
    EXPECT_EQ(got()[0], (Rep{-5, "QXwsbConvertUp", "scaleFactor<-64"}));
    EXPECT_EQ(two[0], 9);  // the final conversion writes nothing while the error is pending
}

TEST_F(Dtw, ShortFormMatchesTheFloatFormOnTheRealValues) {
    std::mt19937 rng(99);
    for (int round = 0; round < 30; ++round) {
        const int n = 2 + rng() % 8, vecLen = 1 + rng() % 4, sfTest = int(rng() % 5) - 2;
        auto shorts = [&](int len) {
            std::vector<std::vector<short>> v(len, std::vector<short>(vecLen));
            for (auto& r : v)
                for (auto& x : r)
                    x = short(int(rng() % 201) - 100);
            return Seq<short>(v);
        };
        auto real = [&](Seq<short>& s, int sf) {
            std::vector<std::vector<float>> v;
            for (auto& r : s.v) {
                v.emplace_back();
                for (short x : r)
                    v.back().push_back(float(std::ldexp(double(x), sf)));
            }
            return Seq<float>(v);
        };
        Seq<short> t = shorts(n);
        Seq<float> tf = real(t, sfTest);
        std::vector<int> wids, sids;
        for (int m = (n - 1) / 2 + 1; m <= 2 * n - 1; ++m) {
            const int sf = int(rng() % 5) - 2;
            Seq<short> p = shorts(m);
            Seq<float> pf = real(p, sf);
            wids.push_back(QXwPatternIni(p.p(), m, vecLen, sf));
            sids.push_back(QXsPatternIni(pf.p(), m, vecLen));
        }
        const int k = int(wids.size());
        const int options = (round % 2 ? QX_DTW_L1 : QX_DTW_L2) | QX_DTW_FIXED_END;
        std::vector<int> w(k);
        std::vector<double> s(k);
        int sf = 0;
        const int wbest = QXwEvalDTW(wids.data(), k, t.p(), n, vecLen, sfTest, options, 0, 0, 0, w.data(), 0, &sf);
        EXPECT_EQ(wbest, QXsEvalDTW(sids.data(), k, tf.p(), n, vecLen, options, 0.0, 0, s.data()));
        for (int q = 0; q < k; ++q)
            EXPECT_EQ(w[q], static_cast<int>(s[q]));  // truncated, no scaling
        QXwPatternFreeAll();
        QXsPatternFreeAll();
    }
    EXPECT_TRUE(got().empty());
}
