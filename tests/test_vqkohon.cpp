// Kohonen vector quantiser: distances against the direct formula, the ranking
// against a selection sort written here (ties, mixed 1-based and 0-based
// entries), and the checks in order.
#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "kvx_test.h"

using namespace kvxtest;

namespace {

class Kohonen : public LibTest {};

// Partial selection sort with strict exchanges, then 1-based numbers for the
// first min(ranks, n) entries; the rest stay 0-based. The list carries one
// guard entry 77 and stays untouched when there are no ranks.
template <class T>
std::vector<short> ranking(const std::vector<T>& dist, int ranks) {
    const int n = static_cast<int>(dist.size()), m = std::min(ranks, n);
    std::vector<short> r(n + 1, 77);
    for (int k = 0; k < n && ranks > 0; ++k) r[k] = static_cast<short>(k);
    for (int p = 0; p < m; ++p)
        for (int q = p + 1; q < n; ++q)
            if (dist[r[p]] > dist[r[q]]) std::swap(r[p], r[q]);
    for (int p = 0; p < m; ++p) ++r[p];
    return r;
}

}  // namespace

TEST_F(Kohonen, DistancesAndRanksMatchTheDirectFormulaAndSelectionSort) {
    // By hand: distances {2, 1, 2, 0}; the exchanges put neuron 2 before neuron 0,
    // and one rank leaves the others 0-based.
    const float zero = 0, w[] = {2, 1, 2, 0}, far[] = {-3e38f, 3e38f};
    std::vector<short> r(4);
    std::vector<float> o(4);
    QXsVQKohonen(&zero, 1, 4, w, 4, r.data(), 1, o.data());
    EXPECT_EQ(r, (std::vector<short>{4, 2, 3, 1}));
    QXsVQKohonen(&zero, 1, 4, w, 1, r.data(), 0, o.data());
    EXPECT_EQ(o, (std::vector<float>{4, 1, 4, 0}));
    EXPECT_EQ(r, (std::vector<short>{4, 0, 2, 1}));
    QXsVQKohonen(far, 1, 1, far + 1, 1, r.data(), 0, o.data());  // beyond the float range
    EXPECT_EQ(o[0], std::numeric_limits<float>::infinity());

    std::mt19937 rng(6);
    std::uniform_int_distribution<int> small(-2, 2), wide(-32768, 32767);
    for (int trial = 0; trial < 20; ++trial) {
        const int nIn = 1 + static_cast<int>(rng() % 9), nOut = 1 + static_cast<int>(rng() % 30);
        const int ranks = trial < 3 ? trial - 1 : static_cast<int>(rng() % 35), doSqrt = trial % 2;
        // The input, then the codebook. Few distinct values make ties common;
        // full-range values reach sums beyond 2^31. The float form gets the same values.
        std::vector<short> s(nIn * (nOut + 1)), sr(nOut + 1, 77), fr(nOut + 1, 77);  // one guard entry
        for (auto& v : s)
            v = static_cast<short>(trial < 10 ? small(rng) : wide(rng));
        const std::vector<float> f(s.begin(), s.end());
        std::vector<float> fWant(nOut), fo(nOut);
        std::vector<int> sWant(nOut), so(nOut);
        for (int k = 0; k < nOut; ++k) {
            double sum = 0;
            for (int i = 0; i < nIn; ++i)
                sum += std::pow(s[i] - s[nIn * (k + 1) + i], 2);
            fWant[k] = static_cast<float>(doSqrt ? std::sqrt(sum) : sum);
            // The truncation's low 32 bits.
            sWant[k] = static_cast<int>(static_cast<unsigned>(static_cast<long long>(doSqrt ? std::sqrt(sum) : sum)));
        }
        int sf = 3;
        QXsVQKohonen(f.data(), nIn, nOut, f.data() + nIn, ranks, fr.data(), doSqrt, fo.data());
        QXwVQKohonen(s.data(), nIn, nOut, s.data() + nIn, ranks, sr.data(), doSqrt, 2, &sf, so.data());
        ASSERT_EQ(fo, fWant);
        ASSERT_EQ(so, sWant);
        EXPECT_EQ(sf, 3);  // the 16-bit form never scales
        ASSERT_EQ(fr, ranking(fWant, ranks));
        ASSERT_EQ(sr, ranking(sWant, ranks));
    }
    EXPECT_TRUE(got().empty());
}

TEST_F(Kohonen, ChecksInOrder) {
    const short x = 3, w = 0;
    short r = -9;
    int o = -9, sf = 65;
    QXsVQKohonen(nullptr, 0, 0, nullptr, 1, nullptr, 0, nullptr);
    QXwVQKohonen(nullptr, 0, 0, nullptr, 1, nullptr, 0, 1, &sf, nullptr);
    QXwVQKohonen(&x, 1, 1, &w, 1, nullptr, 0, -1, nullptr, &o);
    QXwVQKohonen(&x, 1, 1, &w, 1, &r, 0, 4, &sf, &o);  // checked, though the distances are never scaled
    std::vector<Rep> want;
    for (const char* f : {"QXsVQKohonen", "QXwVQKohonen"}) {
        want.emplace_back(-5, f, "numberOfOutputs<=0");
        if (f[2] == 'w')
            want.emplace_back(-5, f, "*scaleFactor>64");
        for (const char* t : {"numberOfInputs<=0", "input==0", "weights==0", "rankList==0", "output==0"})
            want.emplace_back(-5, f, t);
    }
    for (const char* t : {"doScale<0", "scaleFactor==0", "rankList==0", "doScale>3"})
        want.emplace_back(-5, "QXwVQKohonen", t);
    EXPECT_EQ(got(), want);
    EXPECT_TRUE(kvxtest::all_name_raising_lines());
    // Nothing was written; a pending error stops the call.
    QXwVQKohonen(&x, 1, 1, &w, 1, &r, 0, 0, &sf, &o);
    EXPECT_EQ(o, -9);
    clear();
    sf = -99;  // any factor passes without doScale 1
    QXwVQKohonen(&x, 1, 1, &w, 1, &r, 0, 3, &sf, &o);
    EXPECT_EQ(o, 9);
    EXPECT_EQ(sf, -99);
    EXPECT_TRUE(got().empty());
}
