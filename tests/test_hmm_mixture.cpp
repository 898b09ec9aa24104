// Continuous and semicontinuous Viterbi scoring, checked against output costs
// computed in the test from the mixture formula and an exhaustive search over
// every state path.
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "kvx_test.h"
#include "qx_hmm.h"

using kvxtest::FailAllocation;
using kvxtest::LibTest;
using kvxtest::Rep;

namespace {

class HmmMixture : public LibTest {
protected:
    void SetUp() override {
        LibTest::SetUp();
        QXHMMFreeAll();
    }
    void TearDown() override {
        QXHMMFreeAll();
        for (auto* s : fservers_)
            QXsFreeGaussMixServer(s);
        for (auto* s : wservers_)
            QXwFreeGaussMixServer(s);
        LibTest::TearDown();
    }

    // A diagonal mixture of nGauss components over vectors of n; kept alive
    // by the fixture since servers refer to its arrays.
    template <class T>
    struct Diag {
        std::vector<T> w;
        std::vector<std::vector<T>> mean, icov;
        std::vector<T*> meanRows, icovRows;
    };

    template <class T>
    Diag<T>& make_diag(std::mt19937& g, int n, int nGauss) {
        auto& d = std::is_same_v<T, float> ? reinterpret_cast<Diag<T>&>(fdiags_.emplace_back())
                                           : reinterpret_cast<Diag<T>&>(wdiags_.emplace_back());
        std::uniform_int_distribution<int> val(-8, 8), pos(1, 4);
        d.w.resize(nGauss);
        d.mean.assign(nGauss, std::vector<T>(n));
        d.icov.assign(nGauss, std::vector<T>(n));
        for (int k = 0; k < nGauss; ++k) {
            d.w[k] = static_cast<T>(std::is_same_v<T, float> ? pos(g) * 0.25f : pos(g) * 2);
            for (int i = 0; i < n; ++i) {
                d.mean[k][i] = static_cast<T>(std::is_same_v<T, float> ? val(g) * 0.25f : val(g) * 8);
                d.icov[k][i] = static_cast<T>(std::is_same_v<T, float> ? pos(g) * 0.5f : pos(g));
            }
        }
        for (auto& r : d.mean) d.meanRows.push_back(r.data());
        for (auto& r : d.icov) d.icovRows.push_back(r.data());
        return d;
    }

    QXsGaussMixServer* fserver(std::mt19937& g, int n, int nGauss, Diag<float>** out = nullptr) {
        auto& d = make_diag<float>(g, n, nGauss);
        if (out) *out = &d;
        fservers_.push_back(QXsInitGaussMixServer(d.w.data(), d.meanRows.data(), nullptr, d.icovRows.data(), n,
                                                  nGauss, 0));
        return fservers_.back();
    }
    QXwGaussMixServer* wserver(std::mt19937& g, int n, int nGauss, int scaleExp, Diag<short>** out = nullptr) {
        auto& d = make_diag<short>(g, n, nGauss);
        if (out) *out = &d;
        wservers_.push_back(QXwInitGaussMixServer(d.w.data(), d.meanRows.data(), nullptr, d.icovRows.data(), n,
                                                  nGauss, 0, scaleExp));
        return wservers_.back();
    }

    std::vector<QXsGaussMixServer*> fservers_;
    std::vector<QXwGaussMixServer*> wservers_;
    std::vector<Diag<float>> fdiags_;   // deque-like stability is not needed: reserved below
    std::vector<Diag<short>> wdiags_;

public:
    HmmMixture() {
        fdiags_.reserve(256);
        wdiags_.reserve(256);
    }
};

// The mixture formula, directly: sum_k w_k exp(-0.5 * scale * q_k).
template <class T>
long double density(const std::vector<T>& w, const std::vector<std::vector<T>>& mean,
                    const std::vector<std::vector<T>>& icov, const T* x, int n, long double scale = 1.0L) {
    long double sum = 0;
    for (std::size_t k = 0; k < w.size(); ++k) {
        long double q = 0;
        for (int i = 0; i < n; ++i) {
            long double d = static_cast<long double>(x[i]) - mean[k][i];
            q += d * d * icov[k][i];
        }
        sum += w[k] * std::exp(-0.5L * scale * q);
    }
    return sum;
}

// Least path cost by exhaustive search: cost[t][j] per frame and state,
// transitions a[i][j], initial pi[j]; sums in the recurrence's order.
template <class C>
C search(const std::vector<std::vector<C>>& a, const std::vector<C>& pi, const std::vector<std::vector<C>>& cost) {
    const int N = static_cast<int>(pi.size()), T = static_cast<int>(cost.size());
    std::vector<int> path(T, 0);
    C best = std::numeric_limits<C>::max();
    bool first = true;
    while (true) {
        C s = pi[path[0]] + cost[0][path[0]];
        for (int t = 1; t < T; ++t)
            s = cost[t][path[t]] + (s + a[path[t - 1]][path[t]]);
        if (first || s < best)
            best = s;
        first = false;
        int t = 0;
        while (t < T && ++path[t] == N)
            path[t++] = 0;
        if (t == T)
            break;
    }
    return best;
}

template <class T>
struct Chain {
    std::vector<std::vector<T>> a;
    std::vector<T> pi;
    std::vector<T*> rows;
    T** ap() {
        rows.clear();
        for (auto& r : a) rows.push_back(r.data());
        return rows.data();
    }
};

// Costs with impossible jumps (beyond two states, or backwards) for `band`.
template <class T>
Chain<T> random_chain(std::mt19937& g, int n, bool band) {
    std::uniform_int_distribution<int> c(0, 9);
    Chain<T> ch;
    ch.a.assign(n, std::vector<T>(n));
    ch.pi.resize(n);
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < n; ++j) {
            bool ok = !band || (j >= i && j < i + 3);
            if constexpr (std::is_same_v<T, float>)
                ch.a[i][j] = ok ? c(g) * 0.3f : 1.0e30f;
            else
                ch.a[i][j] = static_cast<short>(ok ? c(g) * 20 : 32767);
        }
        if constexpr (std::is_same_v<T, float>)
            ch.pi[i] = c(g) * 0.3f;
        else
            ch.pi[i] = static_cast<short>(c(g) * 20);
    }
    return ch;
}

template <class T>
std::vector<std::vector<T>> frames(std::mt19937& g, int T_, int n) {
    std::uniform_int_distribution<int> val(-8, 8);
    std::vector<std::vector<T>> f(T_, std::vector<T>(n));
    for (auto& v : f)
        for (auto& x : v)
            x = static_cast<T>(std::is_same_v<T, float> ? val(g) * 0.25f : val(g) * 8);
    return f;
}

template <class T>
std::vector<T*> rows_of(std::vector<std::vector<T>>& f) {
    std::vector<T*> r;
    for (auto& v : f) r.push_back(v.data());
    return r;
}


}  // namespace

TEST_F(HmmMixture, FloatContinuousClassAgainstTheFormula) {
    std::mt19937 g(4);
    const int nQuant = 3, T = 5;
    auto f = frames<float>(g, T, nQuant);
    auto fr = rows_of(f);
    const int c = QXCreateHMMClass();
    float want = FLT_MAX;
    int wantId = 0;
    for (int n : {3, 4, 2, 1}) {
        auto ch = random_chain<float>(g, n, n >= 3);
        std::vector<QXsGaussMixServer*> pdfs;
        std::vector<Diag<float>*> ds;
        for (int j = 0; j < n; ++j) {
            Diag<float>* d;
            pdfs.push_back(fserver(g, nQuant, 2, &d));
            ds.push_back(d);
        }
        if (n == 4)
            ds[1]->w.assign(2, 0.0f);   // density 0: an infinite cost
        const int id = QXsInitContHMMServer(ch.ap(), ch.pi.data(), pdfs.data(), n, nQuant, 1);
        ASSERT_GT(id, 0);
        QXAddHMMToClass(c, id);
        std::vector<std::vector<float>> cost(T, std::vector<float>(n));
        for (int t = 0; t < T; ++t)
            for (int j = 0; j < n; ++j)
                cost[t][j] = static_cast<float>(-std::log10(density(ds[j]->w, ds[j]->mean, ds[j]->icov, fr[t], nQuant)));
        const float s = search(ch.a, ch.pi, cost);
        int best = 0;
        EXPECT_NEAR(QXsEvalContHMMViterbi(id, fr.data(), T, &best), s, 1e-5f * s) << n;
        if (s <= want) {
            want = s;
            wantId = id;
        }
        // One frame: the least initial plus output cost.
        float one = FLT_MAX;
        for (int j = 0; j < n; ++j)
            one = std::min(one, ch.pi[j] + cost[0][j]);
        EXPECT_NEAR(QXsEvalContHMMViterbi(id, fr.data(), 1, &best), one, 1e-5f * one);
    }
    int best = 0;
    EXPECT_NEAR(QXsEvalContHMMViterbi(-c, fr.data(), T, &best), want, 1e-5f * want);
    EXPECT_EQ(best, wantId);
    EXPECT_TRUE(got().empty());
}

TEST_F(HmmMixture, ShortContinuousCostsAreOffsetLogsConverted) {
    std::mt19937 g(8);
    const int nQuant = 2, T = 4, n = 3, scaleExp = -14;
    int csf = -5;   // costs times 32
    auto f = frames<short>(g, T, nQuant);
    auto fr = rows_of(f);
    auto ch = random_chain<short>(g, n, true);
    std::vector<QXwGaussMixServer*> pdfs;
    std::vector<Diag<short>*> ds;
    for (int j = 0; j < n; ++j) {
        Diag<short>* d;
        pdfs.push_back(wserver(g, nQuant, 2, scaleExp, &d));
        ds.push_back(d);
    }
    const int id = QXwInitContHMMServer(ch.ap(), ch.pi.data(), pdfs.data(), n, nQuant, 1, &csf);
    ASSERT_GT(id, 0);
    std::vector<std::vector<std::int64_t>> cost(T, std::vector<std::int64_t>(n));
    std::vector<std::vector<std::int64_t>> a(n, std::vector<std::int64_t>(n));
    std::vector<std::int64_t> pi(ch.pi.begin(), ch.pi.end());
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j)
            a[i][j] = ch.a[i][j];
    for (int t = 0; t < T; ++t)
        for (int j = 0; j < n; ++j) {
            // The density brought to 16-bit with factor -15, then
            // (29 log10 2 - log10 m) with the cost factor.
            long double p = density(ds[j]->w, ds[j]->mean, ds[j]->icov, fr[t], nQuant, std::ldexp(1.0L, scaleExp));
            long double m = std::trunc(p * 32768.0L);
            ASSERT_GT(m, 0) << "choose data with non-zero densities";
            cost[t][j] = static_cast<std::int64_t>(std::trunc((29 * std::log10(2.0L) - std::log10(m)) * 32.0L));
        }
    const std::int64_t want = search(a, pi, cost);
    int best = 0, sf = 0;
    EXPECT_NEAR(QXwEvalContHMMViterbi(id, fr.data(), T, &best, 0, &sf), want, T);   // one truncation a frame
    EXPECT_EQ(best, id);
    sf = 1;
    EXPECT_NEAR(QXwEvalContHMMViterbi(id, fr.data(), T, &best, 1, &sf), want / 2, T);
    EXPECT_TRUE(got().empty());
}

TEST_F(HmmMixture, FloatSemicontinuousUsesTheFirstServersCodebook) {
    std::mt19937 g(12);
    const int nQuant = 3, T = 4, K = 3;
    auto f = frames<float>(g, T, nQuant);
    auto fr = rows_of(f);
    std::vector<QXsGaussMixServer*> book, other;
    std::vector<Diag<float>*> ds;
    for (int k = 0; k < K; ++k) {
        Diag<float>* d;
        book.push_back(fserver(g, nQuant, 2, &d));
        ds.push_back(d);
        other.push_back(fserver(g, nQuant, 2));
    }
    std::vector<std::vector<double>> gk(T, std::vector<double>(K));
    for (int t = 0; t < T; ++t)
        for (int k = 0; k < K; ++k)
            gk[t][k] = static_cast<float>(density(ds[k]->w, ds[k]->mean, ds[k]->icov, fr[t], nQuant));

    const int c = QXCreateHMMClass();
    float want = FLT_MAX;
    int wantId = 0;
    std::uniform_int_distribution<int> wt(1, 8);
    for (int n : {3, 2, 4}) {
        auto ch = random_chain<float>(g, n, n == 4);
        std::vector<std::vector<float>> w(n, std::vector<float>(K));
        for (auto& r : w)
            for (auto& x : r)
                x = wt(g) / 8.0f;
        std::vector<float*> wr;
        for (auto& r : w) wr.push_back(r.data());
        // Later servers name another codebook; the first one's outputs are used.
        const int id = QXsInitSemicontHMMServer(ch.ap(), wr.data(), ch.pi.data(), n == 3 ? book.data() : other.data(),
                                                n, K, nQuant, 1);
        ASSERT_GT(id, 0);
        QXAddHMMToClass(c, id);
        std::vector<std::vector<float>> cost(T, std::vector<float>(n));
        for (int t = 0; t < T; ++t)
            for (int j = 0; j < n; ++j) {
                double p = 0;
                for (int k = 0; k < K; ++k)
                    p += static_cast<double>(w[j][k]) * static_cast<float>(gk[t][k]);
                cost[t][j] = static_cast<float>(-std::log10(p));
            }
        const float s = search(ch.a, ch.pi, cost);
        if (s <= want) {
            want = s;
            wantId = id;
        }
        if (n == 3) {
            int best = 0;
            EXPECT_NEAR(QXsEvalSemicontHMMViterbi(id, fr.data(), T, &best), s, 1e-5f * s);
        }
    }
    int best = 0;
    EXPECT_NEAR(QXsEvalSemicontHMMViterbi(-c, fr.data(), T, &best), want, 1e-5f * want);
    EXPECT_EQ(best, wantId);
    EXPECT_TRUE(got().empty());
}

TEST_F(HmmMixture, ShortSemicontinuousWeightsTheCodebookOutputs) {
    // Codebook outputs are 16-bit densities (factor -15): frames keep every
    // coordinate 8..24 away from the zero means so they stay below 1.
    std::mt19937 g(30);
    const int nQuant = 2, T = 3, K = 3, n = 3, scaleExp = -10;
    int csf = -4;   // costs times 16
    std::uniform_int_distribution<int> mag(8, 24), sign(0, 1), pos(1, 4), wt(1, 8);
    std::vector<std::vector<short>> f(T, std::vector<short>(nQuant));
    for (auto& v : f)
        for (auto& x : v)
            x = static_cast<short>(sign(g) ? mag(g) : -mag(g));
    auto fr = rows_of(f);
    std::vector<short> cw(K, 1), zero(nQuant, 0);
    std::vector<std::vector<short>> icov(K, std::vector<short>(nQuant));
    std::vector<std::vector<short*>> meanRows(K), icovRows(K);
    std::vector<QXwGaussMixServer*> book;
    for (int k = 0; k < K; ++k) {
        for (auto& x : icov[k]) x = static_cast<short>(pos(g));
        meanRows[k] = {zero.data()};
        icovRows[k] = {icov[k].data()};
        wservers_.push_back(QXwInitGaussMixServer(&cw[k], meanRows[k].data(), nullptr, icovRows[k].data(), nQuant,
                                                  1, 0, scaleExp));
        book.push_back(wservers_.back());
    }
    std::vector<std::vector<std::int64_t>> gk(T, std::vector<std::int64_t>(K));
    for (int t = 0; t < T; ++t)
        for (int k = 0; k < K; ++k) {
            long double q = 0;
            for (int i = 0; i < nQuant; ++i)
                q += static_cast<long double>(fr[t][i]) * fr[t][i] * icov[k][i];
            gk[t][k] = static_cast<std::int64_t>(std::trunc(std::exp(-0.5L * std::ldexp(q, scaleExp)) * 32768.0L));
        }
    auto ch = random_chain<short>(g, n, true);
    std::vector<std::vector<short>> w(n, std::vector<short>(K));
    for (auto& r : w)
        for (auto& x : r) x = static_cast<short>(wt(g));
    std::vector<short*> wr;
    for (auto& r : w) wr.push_back(r.data());
    const int id = QXwInitSemicontHMMServer(ch.ap(), wr.data(), ch.pi.data(), book.data(), n, K, nQuant, 1, &csf);
    ASSERT_GT(id, 0);
    std::vector<std::vector<std::int64_t>> cost(T, std::vector<std::int64_t>(n)), a(n, std::vector<std::int64_t>(n));
    std::vector<std::int64_t> pi(ch.pi.begin(), ch.pi.end());
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) a[i][j] = ch.a[i][j];
    for (int t = 0; t < T; ++t)
        for (int j = 0; j < n; ++j) {
            std::int64_t p = 0;
            for (int k = 0; k < K; ++k) p += w[j][k] * gk[t][k];
            ASSERT_GT(p, 0);
            cost[t][j] = static_cast<std::int64_t>(
                std::trunc((29 * std::log10(2.0L) - std::log10(static_cast<long double>(p))) * 16.0L));
        }
    int best = 0, sf = 0;
    // A density may truncate one lower than the reference: a few units a frame.
    EXPECT_NEAR(QXwEvalSemicontHMMViterbi(id, fr.data(), T, &best, 0, &sf), search(a, pi, cost), 2 * T);
    EXPECT_EQ(best, id);
    EXPECT_TRUE(got().empty());
}

TEST_F(HmmMixture, ChecksInOrder) {
    int best = 0, sf = 0;
    EXPECT_EQ(QXsEvalContHMMViterbi(0, nullptr, 0, nullptr), FLT_MAX);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsEvalContHMMViterbi", "HMMOrClassId==0"},
                                       {-5, "QXsEvalContHMMViterbi", "nObserv<=0"},
                                       {-5, "QXsEvalContHMMViterbi", "nqVect==0"},
                                       {-5, "QXsEvalContHMMViterbi", "bestHMMId==0"}}));
    for (auto& r : kvxtest::reports())
        EXPECT_TRUE(kvxtest::names_raising_line(r));
    clear();
    short* wrows[2] = {nullptr, nullptr};
    EXPECT_EQ(QXwEvalSemicontHMMViterbi(1, wrows, 2, &best, 0, &sf), 2147483647);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXwEvalSemicontHMMViterbi", "nqVect[i]==NULL"},
                                       {-5, "QXwEvalSemicontHMMViterbi", "nqVect[i]==NULL"}}));
    clear();
    EXPECT_EQ(QXwEvalContHMMViterbi(1, wrows, 1, &best, 0, &sf), 2147483647);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXwEvalContHMMViterbi", "nqVect[l]==NULL"}}));
    clear();

    // A discrete server: wrong flavour, and none of the mixture fields.
    float a0 = 0.0f, b0 = 0.0f, p0 = 0.0f;
    float* arow[1] = {&a0};
    float* brow[1] = {&b0};
    const int did = QXsInitHMMServer(arow, brow, &p0, 1, 1, 1);
    float x[2] = {0, 0};
    float* xr[1] = {x};
    EXPECT_EQ(QXsEvalContHMMViterbi(did, xr, 1, &best), FLT_MAX);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsEvalContHMMViterbi", "!(status&0x00400000)"},
                                       {-5, "QXsEvalContHMMViterbi", "ser->nQuant<=0"},
                                       {-5, "QXsEvalContHMMViterbi", "ser->outPdfs==0"}}));
    clear();
    // A continuous float server given to the 16-bit semicontinuous entry.
    std::mt19937 g(1);
    QXsGaussMixServer* pdf[1] = {fserver(g, 2, 1)};
    const int cid = QXsInitContHMMServer(arow, &p0, pdf, 1, 2, 1);
    short wx[2] = {0, 0};
    short* wxr[1] = {wx};
    EXPECT_EQ(QXwEvalSemicontHMMViterbi(cid, wxr, 1, &best, 0, &sf), 2147483647);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXwEvalSemicontHMMViterbi", "!(status&0x00000010)"},
                                       {-5, "QXwEvalSemicontHMMViterbi", "!(status&0x00200000)"},
                                       {-5, "QXwEvalSemicontHMMViterbi", "nSymbols<=0"}}));
    clear();
    // Probabilities rather than costs.
    const int pid = QXsInitContHMMServer(arow, &p0, pdf, 1, 2, 0);
    EXPECT_EQ(QXsEvalContHMMViterbi(pid, xr, 1, &best), FLT_MAX);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsEvalContHMMViterbi", "!(status&0x00000001)"}}));
    clear();
    EXPECT_EQ(QXsEvalSemicontHMMViterbi(-9, xr, 1, &best), FLT_MAX);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsEvalSemicontHMMViterbi", "HMM server and/or class does not exist"}}));
    clear();
    EXPECT_NEAR(QXsEvalContHMMViterbi(cid, xr, 1, &best), 0.0f - std::log10(QXsEvalGaussMix(pdf[0], x, 2)), 1e-6);
    EXPECT_TRUE(got().empty());
}

TEST_F(HmmMixture, FailuresInsideTheMixturesAndAllocations) {
    // A table-using mixture with a negative reciprocal variance fails on the
    // first frame: the evaluation traces it and returns the initial best.
    float w = 1.0f, mean = 0.0f, ic = -1.0f;
    float* means[1] = {&mean};
    float* ics[1] = {&ic};
    QXsGaussMixServer* bad = QXsInitGaussMixServer(&w, means, nullptr, ics, 1, 1, 1);
    fservers_.push_back(bad);
    float a0 = 0.0f, p0 = 0.0f;
    float* arow[1] = {&a0};
    QXsGaussMixServer* pdf[1] = {bad};
    const int id = QXsInitContHMMServer(arow, &p0, pdf, 1, 1, 1);
    float x = 1.0f;
    float* xr[1] = {&x};
    int best = 0;
    EXPECT_EQ(QXsEvalContHMMViterbi(id, xr, 1, &best), FLT_MAX);
    EXPECT_EQ(got(), (std::vector<Rep>{{-3, "LookupExponential (Macro)", "Cannot lookup exponential of positive value"},
                                       {-1, "QXsEvalContHMMViterbi", ""}}));
    EXPECT_EQ(best, 0);
    clear();
    float one = 1.0f;
    float* wrow[1] = {&one};
    const int sid = QXsInitSemicontHMMServer(arow, wrow, &p0, pdf, 1, 1, 1, 1);
    EXPECT_EQ(QXsEvalSemicontHMMViterbi(sid, xr, 1, &best), FLT_MAX);
    EXPECT_EQ(got(), (std::vector<Rep>{{-3, "LookupExponential (Macro)", "Cannot lookup exponential of positive value"},
                                       {-1, "QXsEvalSemicontHMMViterbi", ""}}));
    clear();

    ic = 1.0f;
    const long live = qx::testing::live_blocks();
    {
        FailAllocation f(1);   // the score area
        EXPECT_EQ(QXsEvalSemicontHMMViterbi(sid, xr, 1, &best), FLT_MAX);
    }
    EXPECT_EQ(got(), (std::vector<Rep>{{-4, "QXsEvalSemicontHMMViterbi", "NULL pointer"}}));
    clear();
    {
        FailAllocation f(2);   // the codebook table
        EXPECT_EQ(QXsEvalSemicontHMMViterbi(sid, xr, 1, &best), FLT_MAX);
    }
    EXPECT_EQ(got(), (std::vector<Rep>{{-4, "QXsEvalSemicontHMMViterbi", "NULL pointer"}}));
    EXPECT_EQ(qx::testing::live_blocks(), live);
    clear();
    // The tables are built by the first evaluation and stay.
    EXPECT_NEAR(QXsEvalSemicontHMMViterbi(sid, xr, 1, &best), -std::log10(std::exp(-0.5)), 1e-6);
    EXPECT_EQ(best, sid);
    EXPECT_TRUE(got().empty());
}
