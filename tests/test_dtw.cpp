// Pattern stores and dynamic time warping.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "kvx_test.h"
#include "model_reference.h"
#include "qx_dtw.h"

using kvxtest::Rep;

namespace {

constexpr double kMark = 3.4e38;

// Vectors and the row pointers the library takes.
template <class T>
struct Seq {
    std::vector<std::vector<T>> v;
    std::vector<T*> rows;
    Seq(std::vector<std::vector<T>> data) : v(std::move(data)) { for (auto& r : v) rows.push_back(r.data()); }
    T** p() { return rows.data(); }
    int n() const { return static_cast<int>(v.size()); }
};

// `values` cut into vectors of `len` elements.
Seq<float> vecs(const std::vector<float>& values, int len = 1) {
    std::vector<std::vector<float>> v;
    for (std::size_t k = 0; k < values.size(); k += len)
        v.emplace_back(values.begin() + k, values.begin() + k + len);
    return Seq<float>(v);
}

double ref_dist(const std::vector<float>& a, const std::vector<float>& b, bool l1) {
    double s = 0.0;
    for (std::size_t k = 0; k < a.size(); ++k)
        s += l1 ? std::fabs(double(a[k]) - b[k]) : (double(a[k]) - b[k]) * (double(a[k]) - b[k]);
    return l1 ? s : std::sqrt(s);
}

// The warping on a full (frame x pattern index) grid: G holds the score of
// every cell, H whether the best path into it was a horizontal step. Frame i
// may use the pattern indices between the slope-1/2 and slope-2 lines out of
// the first cell and into the last, both widened by delta.
double ref_dtw(const Seq<float>& t, const Seq<float>& p, bool l1, double thr, int delta) {
    const int n = t.n(), m = p.n();
    auto d = [&](int i, int j) { return ref_dist(t.v[i], p.v[j], l1); };
    auto lo = [&](int i) { return std::max(i / 2, m - 1 - delta - 2 * (n - 1 - i)); };
    auto hi = [&](int i) { return std::min(2 * i + delta, m - 1 - (n - 1 - i) / 2); };
    // Column j + 2 holds pattern index j; the two guard columns stay unreachable.
    std::vector<std::vector<double>> G(n, std::vector<double>(m + 2, kMark));
    std::vector<std::vector<int>> H(n, std::vector<int>(m + 2, 0));
    // The best way into index j from frame i: j-1 wins ties over j (which must
    // not repeat a horizontal step), and both win ties over j-2.
    auto pred = [&](int i, int j, int& flat) {
        const double* g = &G[i][j + 2];
        const double c = std::min(H[i][j + 2] != 1 ? g[0] : kMark, g[-1]);
        flat = H[i][j + 2] != 1 && g[0] < g[-1] && !(g[-2] < c);
        return std::min(c, g[-2]);
    };
    int live = 0;
    for (int j = 0; j <= hi(0); ++j)
        if (d(0, j) < thr)
            G[0][j + 2] = d(0, j), ++live;
    for (int i = 1; live > 0 && i <= n - 2; ++i) {
        live = 0;
        for (int j = lo(i); j <= hi(i); ++j)
            if (const double c = pred(i - 1, j, H[i][j + 2]); c < thr)  // pruned on the score up to frame i-1
                G[i][j + 2] = c + d(i, j), ++live;
    }
    double best = thr;
    for (int j = lo(n - 1), flat; live > 0 && j < m; ++j)
        best = std::min(best, pred(std::max(n - 2, 0), j, flat) + d(n - 1, j));
    return best;
}

class Dtw : public kvxtest::LibTest {
protected:
    void TearDown() override {
        QXSetStatus(0);
        QXsPatternFreeAll();
        QXwPatternFreeAll();
        LibTest::TearDown();
    }
};

}  // namespace

TEST_F(Dtw, StoreIdsLookupsAndMessages) {
    float** rows = nullptr;
    int n = 0, len = 0;
    qx::pattern::SRecord stray{};
    qx::pattern::WRecord wstray{};
    Seq<short> w({{12, -7, 1}, {3, 32767, -32768}, {5, 6, 7}});
    w.rows[1] = nullptr;
    EXPECT_EQ(QXwPatternIni(w.p(), 3, 3, 0), -1);  // a null row is reported once
    EXPECT_EQ(QXsPatternGet(1, &rows, &n, &len), 0);
    EXPECT_EQ(QXsPatternFree(0), -1);
    EXPECT_EQ(QXwPatternFree(3), -1);
    EXPECT_EQ(QXsPatternPtrFree(nullptr), -1);  // refused quietly
    EXPECT_EQ(QXsPatternPtrFree(&stray), -1);
    EXPECT_EQ(QXwPatternPtrFree(&wstray), -1);
    EXPECT_EQ(QXwPatternIni(nullptr, 0, -1, 0), -1);
    EXPECT_EQ(QXsPatternIni(nullptr, -2, 0), -1);
    EXPECT_EQ(got(), ref::reps({{-5, "QXwPatternIni", {"pSeq[i]==0"}}, {-2, "QXsPatternPtrGet", {"sPatterns have not been initialized."}},
                                {-5, "QXsPatternPtrGet", {"(idPttrn<=0)"}},
                                {-2, "QXsPatternFree", {"sPattern NULL ptr is met in internal structure. The sPattern can not be free."}},
                                {-2, "QXwPatternPtrGet", {"wPatterns have not been initialized."}},
                                {-2, "QXwPatternFree", {"wPattern NULL ptr is met in internal structure. The wPattern can not be free."}},
                                {-2, "QXsPatternPtrFree", {"Error in internal structure. sPatterns have not be allocated."}},
                                {-2, "QXwPatternPtrFree", {"Error in internal structure. wPatterns have not be allocated."}},
                                {-5, "QXwPatternIni", {"nSeq<=0", "len<=0", "pSeq==0"}},
                                {-5, "QXsPatternIni", {"nSeq<=0", "len<=0", "pSeq==0"}}}));
    EXPECT_TRUE(kvxtest::all_name_raising_lines());
    clear();

    auto a = vecs({1.5f, -2.0f, 3.0f, 4.0f, 5.0f, 6.25f}, 3);
    for (int id : {1, 2, 3})
        EXPECT_EQ(QXsPatternIni(a.p(), 2, 3), id);
    EXPECT_EQ(QXsPatternFree(2), 0);
    EXPECT_EQ(QXsPatternIni(a.p(), 2, 3), 2);  // the smallest free id
    EXPECT_EQ(QXsPatternFree(1), 0);  // the head of the list
    EXPECT_EQ(QXsPatternFree(3), 0);  // then the new head
    a.v[0][0] = 99.0f;                                    // the caller's rows are not kept
    EXPECT_EQ(QXsPatternGet(2, &rows, &n, &len), 2);
    EXPECT_EQ(std::vector<float>({rows[0][0], rows[1][2], float(n), float(len)}),
              std::vector<float>({1.5f, 6.25f, 2.0f, 3.0f}));
    EXPECT_EQ(QXsPatternIni(a.p(), 1, 3), 1);
    EXPECT_EQ(QXsPatternIni(a.p(), 1, 3), 3);  // the smallest free ids
    EXPECT_EQ(QXsPatternFree(2), 0);
    EXPECT_EQ(QXsPatternFree(3), 0);
    EXPECT_EQ(QXsPatternGet(7, &rows, &n, &len), 0);  // absent: 0, quietly

    // The 16-bit store numbers on its own; its rows start on 8-byte boundaries
    // and its float copy holds the real values short x 2^scaleFactor.
    w.rows[1] = w.v[1].data();
    short** wrows = nullptr;
    int wsf = 99;
    EXPECT_EQ(QXwPatternIni(w.p(), 3, 3, -3), 1);
    EXPECT_EQ(QXwPatternGet(1, &wrows, &n, &len, &wsf), 1);
    EXPECT_EQ(std::vector<int>({n, len, wsf}), std::vector<int>({3, 3, -3}));
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(wrows[i]) % 8, 0u);
        for (int k = 0; k < 3; ++k) {
            EXPECT_EQ(wrows[i][k], w.v[i][k]);
            EXPECT_EQ(QXwPatternPtrGet(1)->floatRows[i][k], w.v[i][k] / 8.0f);
        }
    }
    EXPECT_EQ(QXwPatternsNumber(), 1);
    EXPECT_EQ(QXsPatternsNumber(), 1);
    EXPECT_EQ(QXsPatternFreeAll(), 0);
    EXPECT_EQ(QXwPatternFreeAll(), 0);
    EXPECT_EQ(QXwPatternFreeAll(), 0);  // the last has nothing to do
    EXPECT_EQ(QXwPatternsNumber(), 0);
    EXPECT_EQ(QXsPatternsNumber(), 0);
    EXPECT_TRUE(got().empty());
}

TEST_F(Dtw, Examples) {
    const std::vector<float> t4{0, 1, 2, 3}, p4{5, 0, 1, 2}, t10{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}, long20(20, 1.0f);
    const std::vector<float> r10{0.25f, 1.25f, 2.25f, 3.25f, 4.25f, 5.25f, 6.25f, 7.25f, 8.25f, 9.25f};
    struct Case {  // an empty pattern stands for an id naming no pattern
        int vecLen; std::vector<float> test; std::vector<std::vector<float>> pats;
        int options, range; double thr; std::vector<double> want; int best;
    };
    const std::vector<Case> cases{
        {1, t4, {{0, 3}, p4}, QX_DTW_L1 | QX_DTW_FIXED_END, 0, 0, {2, 6}, 0},
        {1, t4, {p4}, QX_DTW_L1 | QX_DTW_RELAXED_END, 1, 0, {1}, 0},  // may start at pattern index 1
        {1, t4, {p4}, QX_DTW_L1 | QX_DTW_RELAXED_END, -1, 0, {1}, 0},
        {1, t4, {p4, {0, 3}}, QX_DTW_L1 | QX_DTW_RELAXED_END, 3, 0, {1, 2}, 0},
        {1, t4, {p4, {0, 3}}, QX_DTW_L1 | QX_DTW_RELAXED_END, -3, 0, {1, 2}, 0},
        {1, {1.5f}, {{4}}, QX_DTW_L2 | QX_DTW_FIXED_END, 0, 0, {5}, 0},                 // one frame, first and last
        {1, {2, 1, 0, 0, 1}, {{3, 0, 2}}, QX_DTW_L1 | QX_DTW_FIXED_END, 0, 0, {5}, 0},  // greedy per cell; the path 0,1,1,1,2 costs 4
        {1, t4, {p4}, QX_DTW_L1 | QX_DTW_FIXED_END | QX_DTW_RELAXED_END, 1, 0, {6}, 0},                      // fixed end points win
        {2, {0, 0, 0, 0}, {{3, 4, 3, 4}}, QX_DTW_L1 | QX_DTW_L2 | QX_DTW_RELAXED_END, 0, 0, {14}, 0},  // city-block wins
        {2, {0, 0, 0, 0}, {{3, 4, 3, 4}}, QX_DTW_L2 | QX_DTW_FIXED_END, 0, 0, {10}, 0},
        {1, t4, {p4}, QX_DTW_L1 | QX_DTW_FIXED_END | QX_DTW_THRESHOLD, 0, 0.5, {0.5}, 0},  // below the first frame's distances
        {1, t4, {p4}, QX_DTW_L1 | QX_DTW_FIXED_END | QX_DTW_THRESHOLD, 0, 6.5, {6}, 0},
        {1, t10, {t4, long20, r10, r10, {}}, QX_DTW_L1 | QX_DTW_FIXED_END, 0, 0, {kMark, kMark, 2.5, 2.5, kMark}, 2},
        {1, t10, {t4, long20, {}}, QX_DTW_L1 | QX_DTW_FIXED_END, 0, 0, {kMark, kMark, kMark}, 0},
        // The float form's running best starts at 3.4e38f widened, 3.3999999521e38.
        {1, {-1e38f}, {{1, 2, 3}, {3.3e38f}}, QX_DTW_L1 | QX_DTW_FIXED_END | QX_DTW_THRESHOLD, 0, 3.39999997e38, {kMark, 3.39999997e38}, 0},
        {1, {-1e38f}, {{1, 2, 3}, {3.3e38f}}, QX_DTW_L1 | QX_DTW_FIXED_END | QX_DTW_THRESHOLD, 0, 3.3999999e38, {kMark, 3.3999999e38}, 1},
    };
    for (const Case& c : cases) {
        std::vector<int> ids;
        for (auto& p : c.pats)
            ids.push_back(p.empty() ? 999 : QXsPatternIni(vecs(p, c.vecLen).p(), int(p.size()) / c.vecLen, c.vecLen));
        std::vector<double> s(ids.size());
        const int k = int(ids.size());
        EXPECT_EQ(QXsEvalDTW(ids.data(), k, vecs(c.test, c.vecLen).p(), int(c.test.size()) / c.vecLen, c.vecLen,
                             c.options, c.thr, c.range, s.data()),
                  c.best);
        EXPECT_EQ(s, c.want) << "case " << &c - cases.data();
        QXsPatternFreeAll();
    }
    EXPECT_TRUE(got().empty());
}

TEST_F(Dtw, BothFormsAgreeWithTheFullGridOnRandomCases) {
    std::mt19937 rng(12345);
    // m vectors of `len` random halves: shorts with the factor -1, and floats.
    auto make = [&](int m, int len) {
        std::vector<std::vector<short>> w(m, std::vector<short>(len));
        std::vector<std::vector<float>> f(m, std::vector<float>(len));
        for (int j = 0; j < m; ++j)
            for (int k = 0; k < len; ++k)
                f[j][k] = (w[j][k] = short(rng() % 10)) * 0.5f;
        return std::pair(Seq<short>(w), Seq<float>(f));
    };
    int pruned = 0;
    for (int round = 0; round < 300; ++round) {
        const int n = 1 + rng() % 9, vecLen = 1 + rng() % 4, range = int(rng() % 7) - 3, thrHalves = 2 + rng() % 10 * n;
        const int options = int(rng() % 2 ? QX_DTW_RELAXED_END : QX_DTW_FIXED_END) | (rng() % 2 ? QX_DTW_L1 : QX_DTW_L2) | (rng() % 3 ? 0 : QX_DTW_THRESHOLD);
        const int delta = options & QX_DTW_FIXED_END ? 0 : std::abs(range), k = 2 * n + delta;
        const double thr = options & QX_DTW_THRESHOLD ? thrHalves * 0.5 : kMark;
        auto [t, tf] = make(n, vecLen);
        std::vector<Seq<float>> pats;
        std::vector<int> ids;
        for (int m = 1; m <= k; ++m) {  // one too long, and one of n vectors of another length
            auto [w, f] = make(m, m == n ? vecLen + 1 : vecLen);
            ids.push_back(QXsPatternIni(f.p(), m, int(f.v[0].size())));
            QXwPatternIni(w.p(), m, int(w.v[0].size()), -1);
            pats.push_back(std::move(f));
        }
        std::vector<double> s(k);
        std::vector<int> w(k);
        int sf = 0, bestPos = 0;
        double bestRef = double(3.4e38f);  // where the float form's running best starts
        const int wbest = QXwEvalDTW(ids.data(), k, t.p(), n, vecLen, -1, options, thrHalves, -1, range, w.data(), 3, &sf);
        // Every other round without the scratch copies (the sixth allocation):
        // the same work through the exported measures.
        kvxtest::FailAllocation fail(round % 2 ? 6 : 0);
        const int best = QXsEvalDTW(ids.data(), k, tf.p(), n, vecLen, options, thr, range, s.data());
        for (int q = 0, m = 1; q < k; ++q, ++m) {
            const bool ok = m != n && (n - 1) / 2 + 1 <= m && m <= 2 * n - 1 + delta;
            const double want = ok ? ref_dtw(tf, pats[q], options & QX_DTW_L1, thr, std::min(delta, m - 1)) : kMark;
            pruned += ok && want == thr;
            ASSERT_EQ(s[q], want) << "round " << round << " m " << m;
            EXPECT_EQ(w[q], want > 2147483647.0 ? 2147483647 : int(want));  // saturated, truncated
            if (want < bestRef)
                bestRef = want, bestPos = q;
        }
        EXPECT_EQ(best, bestPos);
        EXPECT_EQ(wbest, bestPos);
        QXsPatternFreeAll();
        QXwPatternFreeAll();
    }
    EXPECT_GT(pruned, 20);  // the threshold did cut some patterns
    EXPECT_TRUE(got().empty());
}

TEST_F(Dtw, ShortFormScalesInAndOut) {
    // Real test values 2, 4, 6, 8 (shorts x 2^1); real pattern values 2, 8
    // (shorts x 2^-1): city-block score 2 + 0 + 2 + 0 = 4.
    Seq<short> t({{1}, {2}, {3}, {4}}), p({{4}, {16}});
    const int ids[] = {QXwPatternIni(p.p(), 2, 1, -1), 1};
    int scores[2] = {0, 0}, sf = 0;
    auto eval = [&](int testSf, int options, int thr, int thrSf, int doScale) {
        EXPECT_EQ(QXwEvalDTW(ids, 2, t.p(), 4, 1, testSf, options, thr, thrSf, 0, scores, doScale, &sf), 0);
        return scores[0];
    };
    EXPECT_EQ(eval(1, QX_DTW_L1 | QX_DTW_FIXED_END, 0, 0, 0), 4);
    EXPECT_EQ(eval(1, QX_DTW_L1 | QX_DTW_FIXED_END, 0, 0, 2), 4 << 28);  // automatic factor
    EXPECT_EQ(sf, -28);
    EXPECT_EQ(eval(1, QX_DTW_L1 | QX_DTW_FIXED_END | QX_DTW_THRESHOLD, 3, 1, 0), 4);  // threshold 3 x 2^1 = 6
    EXPECT_EQ(eval(1, QX_DTW_L1 | QX_DTW_FIXED_END | QX_DTW_THRESHOLD, 1, 0, 0), 1);  // threshold 1: pruned at the third frame
    EXPECT_TRUE(got().empty());
    // A test factor the conversion refuses: the error stays pending, the final
    // conversion writes nothing, and the position is still returned.
    EXPECT_EQ(eval(70, QX_DTW_L1 | QX_DTW_FIXED_END, 0, 0, 0), 1);
    EXPECT_EQ(got().at(0), (Rep{-5, "QXwsbConvertUp", "scaleFactor<-64"}));
}

TEST_F(Dtw, ErrorsAndPendingStatus) {
    auto t = vecs({0, 1, 2, 3}), pfar = vecs({50, 60}), p = vecs({0, 3});
    const int id = 1, ids[] = {QXsPatternIni(pfar.p(), 2, 1), QXsPatternIni(p.p(), 2, 1)}, withBad[] = {1, 0, 2};
    std::vector<double> s(3, 7.0);
    int iscore = 9, sf = 0;
    EXPECT_EQ(QXsEvalDTW(&id, 1, t.p(), 4, 1, QX_DTW_FIXED_END | QX_DTW_THRESHOLD, 0.0, 0, s.data()), -1);
    EXPECT_EQ(QXsEvalDTW(&id, 1, t.p(), 4, 1, QX_DTW_L2 | QX_DTW_THRESHOLD, 0.0, 0, s.data()), -1);
    EXPECT_EQ(QXwEvalDTW(&id, 1, nullptr, 1, 1, 0, 0, 0, 0, 0, &iscore, 0, &sf), -1);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsEvalDTW", "Bad Distance Metric Options"},
                                      {-5, "QXsEvalDTW", "Bad End-Point Constraint Options"},
                                      {-5, "QXwEvalDTW", "Bad Distance Metric Options"}}));
    EXPECT_TRUE(kvxtest::names_raising_line(kvxtest::reports().at(1)));
    clear();

    // The status is not read first: with an error pending every distance is 0,
    // so the scores are 0 (or a threshold of 0 or less) and the first wins.
    QXSetStatus(-5);
    EXPECT_EQ(QXsEvalDTW(ids, 2, t.p(), 4, 1, QX_DTW_L1 | QX_DTW_FIXED_END, 0.0, 0, s.data()), 0);
    EXPECT_EQ(s, std::vector<double>({0.0, 0.0, 7.0}));
    EXPECT_EQ(QXsEvalDTW(ids, 2, t.p(), 4, 1, QX_DTW_L1 | QX_DTW_FIXED_END | QX_DTW_THRESHOLD, -1.0, 0, s.data()), 0);
    EXPECT_EQ(s, std::vector<double>({-1.0, -1.0, 7.0}));
    EXPECT_TRUE(got().empty());
    clear();

    // A bad id raises through the lookup, which leaves the error pending for the rest of the call.
    EXPECT_EQ(QXsEvalDTW(withBad, 3, t.p(), 4, 1, QX_DTW_L1 | QX_DTW_FIXED_END, 0.0, 0, s.data()), 0);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsPatternPtrGet", "(idPttrn<=0)"}}));
    EXPECT_EQ(s, std::vector<double>({0.0, kMark, 0.0}));
}
