// Kohonen vector quantiser: distances against a direct formula, the ranking
// against a selection sort written here, the documented tie and numbering
// behaviour, and the checks in order.
#include <cmath>
#include <random>
#include <vector>

#include "kvx_test.h"

using kvxtest::LibTest;
using kvxtest::Rep;

namespace {

class Kohonen : public LibTest {};

// The ranking as documented: partial selection sort with strict exchanges,
// then 1-based numbers for the first m entries.
template <class T>
std::vector<short> ranking(const std::vector<T>& dist, int ranks) {
    const int n = static_cast<int>(dist.size()), m = std::min(ranks, n);
    std::vector<short> r(n);
    for (int k = 0; k < n; ++k) r[k] = static_cast<short>(k);
    for (int p = 0; p < m; ++p)
        for (int q = p + 1; q < n; ++q)
            if (dist[r[p]] > dist[r[q]]) std::swap(r[p], r[q]);
    for (int p = 0; p < m; ++p) ++r[p];
    return r;
}

}  // namespace

TEST_F(Kohonen, DocumentedExamples) {
    const float in[] = {0, 0}, w[] = {3, 4, 1, 0, 0, 2};
    std::vector<short> rank(3, -9);
    std::vector<float> out(3);
    QXsVQKohonen(in, 2, 3, w, 3, rank.data(), 1, out.data());
    EXPECT_EQ(out, (std::vector<float>{5, 1, 2}));
    EXPECT_EQ(rank, (std::vector<short>{2, 3, 1}));
    QXsVQKohonen(in, 2, 3, w, 3, rank.data(), 0, out.data());
    EXPECT_EQ(out, (std::vector<float>{25, 1, 4}));
    EXPECT_EQ(rank, (std::vector<short>{2, 3, 1}));
    QXsVQKohonen(in, 2, 3, w, 1, rank.data(), 0, out.data());
    EXPECT_EQ(rank, (std::vector<short>{2, 0, 2}));  // one 1-based entry, then 0-based ones

    // Distances {2, 1, 2, 0}: the exchanges put neuron 2 before neuron 0.
    const float x[] = {0}, ties[] = {2, 1, 2, 0};
    std::vector<short> r4(4, -9);
    std::vector<float> o4(4);
    QXsVQKohonen(x, 1, 4, ties, 4, r4.data(), 1, o4.data());
    EXPECT_EQ(r4, (std::vector<short>{4, 2, 3, 1}));

    // No ranks: distances only.
    std::fill(r4.begin(), r4.end(), short{-9});
    QXsVQKohonen(x, 1, 4, ties, 0, r4.data(), 0, o4.data());
    EXPECT_EQ(o4, (std::vector<float>{4, 1, 4, 0}));
    EXPECT_EQ(r4, std::vector<short>(4, -9));

    // 16-bit: 5, and the root 2.236 truncates to 2.
    const short si[] = {0, 0}, sw[] = {1, 2};
    short sr = -9;
    int so = 0, sf = 0;
    QXwVQKohonen(si, 2, 1, sw, 1, &sr, 0, 0, &sf, &so);
    EXPECT_EQ(so, 5);
    EXPECT_EQ(sr, 1);
    QXwVQKohonen(si, 2, 1, sw, 1, &sr, 1, 0, &sf, &so);
    EXPECT_EQ(so, 2);
    EXPECT_TRUE(got().empty());
}

TEST_F(Kohonen, RandomCodebooksMatchTheDirectFormula) {
    std::mt19937 rng(6);
    for (int trial = 0; trial < 20; ++trial) {
        const int nIn = 1 + static_cast<int>(rng() % 9), nOut = 1 + static_cast<int>(rng() % 30);
        const int ranks = static_cast<int>(rng() % 35), doSqrt = trial % 2;
        // Few distinct values make ties common.
        std::uniform_int_distribution<int> small(-2, 2), wide(-32768, 32767);
        std::vector<float> fi(nIn), fw(nIn * nOut);
        std::vector<short> si(nIn), sw(nIn * nOut);
        for (auto& v : fi) v = static_cast<float>(small(rng)) * 0.5f;
        for (auto& v : fw) v = static_cast<float>(small(rng)) * 0.5f;
        for (auto& v : si) v = static_cast<short>(trial < 10 ? small(rng) : wide(rng));
        for (auto& v : sw) v = static_cast<short>(trial < 10 ? small(rng) : wide(rng));

        std::vector<float> fWant(nOut);
        std::vector<int> sWant(nOut);
        for (int k = 0; k < nOut; ++k) {
            double fs = 0, ss = 0;
            for (int i = 0; i < nIn; ++i) {
                const double fd = double(fi[i]) - fw[k * nIn + i], sd = double(si[i]) - sw[k * nIn + i];
                fs += fd * fd;
                ss += sd * sd;
            }
            fWant[k] = static_cast<float>(doSqrt ? std::sqrt(fs) : fs);
            // Sums of more than 2^31 keep the low 32 bits of the truncation.
            const double s = doSqrt ? std::sqrt(ss) : ss;
            sWant[k] = static_cast<int>(static_cast<unsigned>(static_cast<long long>(s)));
        }
        std::vector<float> fo(nOut);
        std::vector<int> so(nOut);
        std::vector<short> fr(nOut + 1, 77), sr(nOut + 1, 77);  // one guard entry
        int sf = 3;
        QXsVQKohonen(fi.data(), nIn, nOut, fw.data(), ranks, fr.data(), doSqrt, fo.data());
        QXwVQKohonen(si.data(), nIn, nOut, sw.data(), ranks, sr.data(), doSqrt, 2, &sf, so.data());
        ASSERT_EQ(fo, fWant);
        ASSERT_EQ(so, sWant);
        EXPECT_EQ(sf, 3);  // the 16-bit form never scales
        if (ranks > 0) {
            auto fR = ranking(fWant, ranks), sR = ranking(sWant, ranks);
            fR.push_back(77);
            sR.push_back(77);
            ASSERT_EQ(fr, fR);
            ASSERT_EQ(sr, sR);
        } else {
            EXPECT_EQ(fr, std::vector<short>(nOut + 1, 77));
        }
    }
    EXPECT_TRUE(got().empty());
}

TEST_F(Kohonen, ChecksInOrder) {
    QXsVQKohonen(nullptr, 0, 0, nullptr, 1, nullptr, 0, nullptr);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsVQKohonen", "numberOfOutputs<=0"},
                                      {-5, "QXsVQKohonen", "numberOfInputs<=0"},
                                      {-5, "QXsVQKohonen", "input==0"},
                                      {-5, "QXsVQKohonen", "weights==0"},
                                      {-5, "QXsVQKohonen", "rankList==0"},
                                      {-5, "QXsVQKohonen", "output==0"}}));
    for (auto& r : kvxtest::reports())
        EXPECT_TRUE(kvxtest::names_raising_line(r));
    clear();
    int sf = 65;
    QXwVQKohonen(nullptr, 0, 0, nullptr, 1, nullptr, 0, 1, &sf, nullptr);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXwVQKohonen", "numberOfOutputs<=0"},
                                      {-5, "QXwVQKohonen", "*scaleFactor>64"},
                                      {-5, "QXwVQKohonen", "numberOfInputs<=0"},
                                      {-5, "QXwVQKohonen", "input==0"},
                                      {-5, "QXwVQKohonen", "weights==0"},
                                      {-5, "QXwVQKohonen", "rankList==0"},
                                      {-5, "QXwVQKohonen", "output==0"}}));
    for (auto& r : kvxtest::reports())
        EXPECT_TRUE(kvxtest::names_raising_line(r));
    clear();
    QXwVQKohonen(nullptr, 1, 1, nullptr, 1, nullptr, 0, -1, nullptr, nullptr);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXwVQKohonen", "doScale<0"},
                                      {-5, "QXwVQKohonen", "scaleFactor==0"},
                                      {-5, "QXwVQKohonen", "input==0"},
                                      {-5, "QXwVQKohonen", "weights==0"},
                                      {-5, "QXwVQKohonen", "rankList==0"},
                                      {-5, "QXwVQKohonen", "output==0"}}));
    clear();

    // The checked but unused arguments: doScale 4 stops the call, any factor
    // with another mode passes; a pending error stops the call.
    const short x = 3, w = 0;
    short r = -9;
    int o = -9;
    sf = -99;
    QXwVQKohonen(&x, 1, 1, &w, 1, &r, 0, 4, &sf, &o);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXwVQKohonen", "doScale>3"}}));
    EXPECT_EQ(o, -9);
    clear();
    QXwVQKohonen(&x, 1, 1, &w, 1, &r, 0, 3, &sf, &o);
    EXPECT_EQ(o, 9);
    EXPECT_EQ(sf, -99);
    QXSetStatus(-5);
    float fo = -1;
    const float fx = 1;
    QXsVQKohonen(&fx, 1, 1, &fx, 1, &r, 0, &fo);
    EXPECT_EQ(fo, -1);
}
