// Continuous and semicontinuous Viterbi scoring, checked against output costs
// computed in the test from the mixture formula and an exhaustive search over
// every state path.
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <deque>
#include <random>
#include <vector>

#include "kvx_test.h"
#include "model_reference.h"
#include "qx_hmm.h"

using kvxtest::Rep;
using ref::Mat;
using ref::reps;
using Reps = std::vector<Rep>;

namespace {

template <class T>
constexpr bool isFloat = std::is_same_v<T, float>;
template <class T>
using Cost = std::conditional_t<isFloat<T>, float, std::int64_t>;
template <class T>
using Pdf = std::conditional_t<isFloat<T>, QXsGaussMixServer, QXwGaussMixServer>;

constexpr int kScaleExp = -14, kCostFactor = -5;   // 16-bit: forms times 2^-14, costs times 32

class HmmMixture : public kvxtest::LibTest {
protected:
    void SetUp() override { LibTest::SetUp(), QXHMMFreeAll(); }
    void TearDown() override { QXHMMFreeAll(), LibTest::TearDown(); }
};

// Diagonal mixtures over vectors of nQuant with their servers: two components
// for float data; one of weight 1 for 16-bit data, whose densities must stay
// below 1 to fit 16 bits.
template <class T>
struct Mixtures {
    std::deque<ref::Mix<T>> mix;
    std::vector<Pdf<T>*> pdf;
    std::pair<Pdf<T>*, ref::Mix<T>*> add(std::mt19937& g, int nQuant) {
        std::uniform_int_distribution<int> val(-8, 8), pos(1, 4);
        const int nGauss = isFloat<T> ? 2 : 1;
        auto& m = mix.emplace_back(nQuant, nGauss, [&](int k) {
            return static_cast<T>(isFloat<T> ? (k == 1 ? val(g) * 0.25f : pos(g) * (k ? 0.5f : 0.25f)) : (k == 1 ? val(g) * 8 : k ? pos(g) : 1));
        });
        if constexpr (isFloat<T>)
            pdf.push_back(QXsInitGaussMixServer(m.w.data(), m.meanRows.data(), nullptr, m.diagRows.data(), nQuant, nGauss, 0));
        else
            pdf.push_back(QXwInitGaussMixServer(m.w.data(), m.meanRows.data(), nullptr, m.diagRows.data(), nQuant, nGauss, 0, kScaleExp));
        return {pdf.back(), &m};
    }
    ~Mixtures() {
        for (auto* p : pdf)
            if constexpr (isFloat<T>) QXsFreeGaussMixServer(p); else QXwFreeGaussMixServer(p);
    }
};

// A density as the library hands it on: double for float data, an integer
// with factor -15 for 16-bit data.
template <class T>
long double density(const ref::Mix<T>& m, const T* x) {
    if constexpr (isFloat<T>)
        return static_cast<double>(m.value(x, false));
    else
        return std::trunc(m.value(x, false, std::ldexp(1.0L, kScaleExp)) * 32768.0L);
}

// -log10 p, or for 16-bit (29 log10 2 - log10 p) with the cost factor, truncated.
template <class T>
Cost<T> cost_of(long double p) {
    if constexpr (isFloat<T>)
        return static_cast<float>(-std::log10(static_cast<double>(p)));
    else
        return static_cast<std::int64_t>(std::trunc((29 * std::log10(2.0L) - std::log10(p)) * std::ldexp(1.0L, -kCostFactor)));
}

template <class T>
Cost<T> eval(bool semicont, int id, Mat<T>& frames, int nObserv, int* best) {
    auto r = ref::rows(frames);
    int sf = 0;
    if constexpr (isFloat<T>)
        return (semicont ? QXsEvalSemicontHMMViterbi : QXsEvalContHMMViterbi)(id, r.data(), nObserv, best);
    else
        return (semicont ? QXwEvalSemicontHMMViterbi : QXwEvalContHMMViterbi)(id, r.data(), nObserv, best, 0, &sf);
}

template <class T>
int init(bool semicont, ref::Chain<T>& ch, std::vector<Pdf<T>*>& pdfs, int nQuant) {
    static int csf = kCostFactor;
    auto a = ref::rows(ch.a), w = ref::rows(ch.b);
    const int n = static_cast<int>(ch.pi.size()), K = static_cast<int>(pdfs.size());
    if constexpr (isFloat<T>)
        return semicont ? QXsInitSemicontHMMServer(a.data(), w.data(), ch.pi.data(), pdfs.data(), n, K, nQuant, 1)
                        : QXsInitContHMMServer(a.data(), ch.pi.data(), pdfs.data(), n, nQuant, 1);
    else
        return semicont ? QXwInitSemicontHMMServer(a.data(), w.data(), ch.pi.data(), pdfs.data(), n, K, nQuant, 1, &csf)
                        : QXwInitContHMMServer(a.data(), ch.pi.data(), pdfs.data(), n, nQuant, 1, &csf);
}

}  // namespace

// Servers of 3, 2, 4 and 1 states in one class, each checked alone, with one
// frame, and the class as a whole. Continuous: one mixture per state, one of
// them of density 0 (float). Semicontinuous: a codebook of three mixtures
// weighted per state; the servers after the first name another codebook,
// which they use alone, while the class uses the first server's for all.
template <class T>
void against_formula(std::mt19937& g, bool semicont) {
    Mixtures<T> mixture;
    const int nQuant = 2, nObserv = 4, K = 3;
    const Cost<T> tol = isFloat<T> ? 0 : nObserv;   // a cost truncated one lower, a frame
    Mat<T> frames(nObserv, std::vector<T>(nQuant));   // 16-bit: odd multiples of 4, never on a mean
    for (auto& f : frames)
        for (auto& x : f) x = static_cast<T>(isFloat<T> ? std::uniform_int_distribution<int>(-8, 8)(g) * 0.25f
                                                        : std::uniform_int_distribution<int>(-8, 7)(g) * 8 + 4);
    std::vector<Pdf<T>*> book[2];
    std::vector<ref::Mix<T>*> bookMix[2];
    for (int b = 0; b < 2; ++b)
        for (int k = 0; k < K; ++k) {
            auto [pdf, mix] = mixture.add(g, nQuant);
            book[b].push_back(pdf), bookMix[b].push_back(mix);
        }
    const int c = QXCreateHMMClass();
    Cost<T> want{};
    int wantId = 0, best = 0;
    for (int n : {3, 2, 4, 1}) {
        auto ch = ref::random_chain<T>(g, n, K, n >= 3 ? ref::Shape::Band : ref::Shape::Full);
        for (auto& r : ch.b)   // semicontinuous weights
            for (auto& x : r) x = static_cast<T>(std::uniform_int_distribution<int>(1, 8)(g) * (isFloat<T> ? 0.125f : 1.0f));
        std::vector<Pdf<T>*> pdfs = book[n != 3];
        std::vector<ref::Mix<T>*> mixes = bookMix[n != 3];
        if (!semicont)
            for (int j = (pdfs.clear(), mixes.clear(), 0); j < n; ++j) {
                auto [pdf, mix] = mixture.add(g, nQuant);
                pdfs.push_back(pdf), mixes.push_back(mix);
                if (isFloat<T> && n == 4 && j == 1) mix->w.assign(2, T{});   // density 0: an infinite cost
            }
        const int id = init(semicont, ch, pdfs, nQuant);
        ASSERT_GT(id, 0);
        QXAddHMMToClass(c, id);
        auto costs = [&](const std::vector<ref::Mix<T>*>& mx) {
            Mat<Cost<T>> cost(nObserv, std::vector<Cost<T>>(n));
            for (int t = 0; t < nObserv; ++t)
                for (int j = 0; j < n; ++j) {
                    long double p = semicont ? 0 : density(*mx[j], frames[t].data());
                    for (int k = 0; semicont && k < K; ++k) {
                        const long double gk = density(*mx[k], frames[t].data());
                        p += ch.b[j][k] * (isFloat<T> ? static_cast<float>(gk) : gk);
                    }
                    cost[t][j] = cost_of<T>(p);
                }
            return cost;
        };
        const auto own = costs(mixes);
        const Cost<T> s = ref::least_path<Cost<T>>(ch.a, ch.pi, own), s1 = ref::least_path<Cost<T>>(ch.a, ch.pi, Mat<Cost<T>>{own[0]});
        EXPECT_NEAR(eval(semicont, id, frames, nObserv, &best), s, isFloat<T> ? 1e-5 * s : tol) << n;
        EXPECT_EQ(best, id);
        EXPECT_NEAR(eval(semicont, id, frames, 1, &best), s1, isFloat<T> ? 1e-5 * s1 : tol) << n;
        const Cost<T> sc = ref::least_path<Cost<T>>(ch.a, ch.pi, semicont ? costs(bookMix[0]) : own);
        if (wantId == 0 || sc <= want) want = sc, wantId = id;
    }
    EXPECT_NEAR(eval(semicont, -c, frames, nObserv, &best), want, isFloat<T> ? 1e-5 * want : tol);
    if (isFloat<T>) {
        EXPECT_EQ(best, wantId);
    }
}

TEST_F(HmmMixture, ScoresMatchTheFormulaAndAnExhaustiveSearch) {
    std::mt19937 g(4);
    for (bool semicont : {false, true}) {
        against_formula<float>(g, semicont);
        against_formula<short>(g, semicont);
    }
    EXPECT_TRUE(got().empty());
}

TEST_F(HmmMixture, ChecksInOrder) {
    // Continuous: only the diagonal is checked.
    ref::Chain<float> m{{{-1, -1}, {5, 2}}, {{0.5f, -0.5f}, {0, 0}}, {0.5f, -3}}, one{{{0}}, {{0}}, {0}};
    ref::Chain<short> w{{{-1, 0}, {0, 0}}, {{3, -3}, {0, 0}}, {0, -1}};
    auto a = ref::rows(m.a), b = ref::rows(m.b), oa = ref::rows(one.a), ob = ref::rows(one.b);
    auto s = ref::rows(w.a), v = ref::rows(w.b);
    QXsGaussMixServer* pdfs[2] = {nullptr, nullptr};
    QXwGaussMixServer* wpdfs[2] = {nullptr, nullptr};
    int csf = 0, best = 0, sf = 0;
    float x[2] = {0, 0}, *xr[1] = {x};
    short wx[2] = {0, 0}, *wrows[2] = {nullptr, nullptr}, *wxr[1] = {wx};
    ref::each_fresh({[&] { EXPECT_EQ(QXsInitContHMMServer(nullptr, nullptr, nullptr, 0, 0, 1), -1); },
                     [&] { EXPECT_EQ(QXsInitContHMMServer(a.data(), m.pi.data(), pdfs, 2, 3, 0), -1); },
                     [&] { EXPECT_EQ(QXwInitContHMMServer(s.data(), w.pi.data(), wpdfs, 2, 3, 1, &csf), -1); },
                     [&] { EXPECT_EQ(QXsInitSemicontHMMServer(nullptr, nullptr, nullptr, nullptr, 0, 0, 0, 1), -1); }});
    m.a = {{0.5f, 1.5f}, {0.0f, 0.0f}}, m.pi = {0, 0}, a = ref::rows(m.a);
    w.a = {{0, 0}, {0, 0}}, w.pi = {0, 0}, s = ref::rows(w.a);
    const int did = QXsInitHMMServer(oa.data(), ob.data(), one.pi.data(), 1, 1, 1);
    ref::each_fresh({[&] { EXPECT_EQ(QXsInitSemicontHMMServer(a.data(), b.data(), m.pi.data(), pdfs, 2, 2, 3, 0), -1); },
                     [&] { b[0] = nullptr; EXPECT_EQ(QXsInitSemicontHMMServer(a.data(), b.data(), m.pi.data(), pdfs, 2, 2, 3, 0), -1); },
                     [&] { EXPECT_EQ(QXwInitSemicontHMMServer(s.data(), v.data(), w.pi.data(), wpdfs, 2, 2, 3, 1, &csf), -1); },
                     [&] { EXPECT_EQ(QXsEvalContHMMViterbi(0, nullptr, 0, nullptr), FLT_MAX); },
                     [&] { EXPECT_EQ(QXwEvalSemicontHMMViterbi(1, wrows, 2, &best, 0, &sf), 2147483647); },
                     [&] { EXPECT_EQ(QXwEvalContHMMViterbi(1, wrows, 1, &best, 0, &sf), 2147483647); },
                     [&] { EXPECT_EQ(QXsEvalContHMMViterbi(did, xr, 1, &best), FLT_MAX); },   // discrete: no mixture fields
                     [&] {   // float continuous data at the 16-bit semicontinuous entry
                         const int id = QXsInitContHMMServer(a.data(), m.pi.data(), pdfs, 2, 2, 1);
                         EXPECT_EQ(QXwEvalSemicontHMMViterbi(id, wxr, 1, &best, 0, &sf), 2147483647);
                     },
                     [&] { EXPECT_EQ(QXsEvalContHMMViterbi(QXsInitContHMMServer(a.data(), m.pi.data(), pdfs, 2, 2, 0), xr, 1, &best), FLT_MAX); },
                     [&] { EXPECT_EQ(QXsEvalSemicontHMMViterbi(-9, xr, 1, &best), FLT_MAX); }});
    const char *sc = "QXsInitContHMMServer", *ss = "QXsInitSemicontHMMServer", *ec = "QXsEvalContHMMViterbi";
    EXPECT_EQ(got(), reps({{-5, sc, {"tprob==0", "iprob==0", "outPdfs==0", "nStates<=0", "nQuant<=0"}},
                           {-5, sc, {"tprob[i][i]<-(float)0.0", "tprob[i][i]>(float)1.0", "iprob[i]<-(float)0.0"}},
                           {-5, "QXwInitContHMMServer", {"tprob[i][i]<0", "iprob[i]<0"}},
                           {-5, ss, {"tprob==0", "weightVect==0", "iprob==0", "nStates<=0", "nSymbols<=0"}},
                           {-5, ss, {"tprob[i][j]>(float)1.0", "weightVect[i][j]<-(float)0.0", "weightVect[i]==NULL",
                                     "tprob[i][j]>(float)1.0"}},
                           {-5, "QXwInitSemicontHMMServer", {"weightVect[i][j]<0"}},
                           {-5, ec, {"HMMOrClassId==0", "nObserv<=0", "nqVect==0", "bestHMMId==0"}},
                           {-5, "QXwEvalSemicontHMMViterbi", {"nqVect[i]==NULL", "nqVect[i]==NULL"}},
                           {-5, "QXwEvalContHMMViterbi", {"nqVect[l]==NULL"}},
                           {-5, ec, {"!(status&0x00400000)", "ser->nQuant<=0", "ser->outPdfs==0"}},
                           {-5, "QXwEvalSemicontHMMViterbi", {"!(status&0x00000010)", "!(status&0x00200000)", "nSymbols<=0"}},
                           {-5, ec, {"!(status&0x00000001)"}},
                           {-5, "QXsEvalSemicontHMMViterbi", {"HMM server and/or class does not exist"}}}));
    EXPECT_TRUE(kvxtest::all_name_raising_lines());
}

TEST_F(HmmMixture, AFailureInsideAMixtureIsTracedAndReturnsTheInitialBest) {
    // A table-using mixture with a negative precision fails on the first frame.
    float w = 1.0f, mean = 0.0f, ic = -1.0f, a0 = 0.0f, p0 = 0.0f, one = 1.0f, x = 1.0f;
    float *means[1] = {&mean}, *ics[1] = {&ic}, *arow[1] = {&a0}, *wrow[1] = {&one}, *xr[1] = {&x};
    QXsGaussMixServer* pdf[1] = {QXsInitGaussMixServer(&w, means, nullptr, ics, 1, 1, 1)};
    const int cid = QXsInitContHMMServer(arow, &p0, pdf, 1, 1, 1), sid = QXsInitSemicontHMMServer(arow, wrow, &p0, pdf, 1, 1, 1, 1);
    EXPECT_EQ(QXHMMServer(cid)->outPdfs[0], pdf[0]);   // the handles are copied
    EXPECT_NE(QXHMMServer(cid)->outPdfs, reinterpret_cast<void**>(pdf));
    EXPECT_EQ(QXHMMServer(cid)->status, QX_HMM_CONT | QX_HMM_FLOAT | QX_HMM_COST);
    int best = 0;
    ref::each_fresh({[&] { EXPECT_EQ(QXsEvalContHMMViterbi(cid, xr, 1, &best), FLT_MAX); },
                     [&] { EXPECT_EQ(QXsEvalSemicontHMMViterbi(sid, xr, 1, &best), FLT_MAX); }});
    const Rep lookup{-3, "LookupExponential (Macro)", "Cannot lookup exponential of positive value"};
    EXPECT_EQ(got(), (Reps{lookup, {-1, "QXsEvalContHMMViterbi", ""}, lookup, {-1, "QXsEvalSemicontHMMViterbi", ""}}));
    EXPECT_EQ(best, 0);
    clear();
    ic = 1.0f;
    EXPECT_NEAR(QXsEvalSemicontHMMViterbi(sid, xr, 1, &best), -std::log10(std::exp(-0.5)), 1e-6);
    EXPECT_EQ(best, sid);
    EXPECT_TRUE(got().empty());
    QXsFreeGaussMixServer(pdf[0]);
}
