// FFT tables and the float transforms, against a naive DFT in double.
#include <cmath>
#include <complex>
#include <cstdint>
#include <cstring>
#include <numbers>
#include <random>
#include <vector>

#include "kvx_test.h"
#include "qx_fft.h"

using kvxtest::FailAllocation;
using kvxtest::LibTest;
using kvxtest::Rep;

namespace {

using cd = std::complex<double>;

// Tables live in the working context until QXFreeFftTbls; every test starts
// and ends without them so that leaks show.
class Fft : public LibTest {
protected:
    void SetUp() override {
        LibTest::SetUp();
        QXFreeFftTbls();
        live_ = qx::testing::live_blocks();
    }
    void TearDown() override {
        QXFreeFftTbls();
        EXPECT_EQ(qx::testing::live_blocks(), live_ - 0);
        LibTest::TearDown();
    }
    long live_ = 0;
};

// e^(sign * 2 pi i * jk / n), with jk reduced mod n first for accuracy.
cd root(std::size_t jk, std::size_t n, int sign) {
    double a = 2.0 * std::numbers::pi * static_cast<double>(jk % n) / static_cast<double>(n);
    return {std::cos(a), sign * std::sin(a)};
}

// One bin of the DFT of x (n complex values): sum_j x[j] e^(sign 2 pi i jk/n).
cd dft_bin(const std::vector<cd>& x, std::size_t k, int sign) {
    static std::vector<cd> roots;  // e^(-2 pi i m/n) for the last n used
    const std::size_t n = x.size();
    if (roots.size() != n) {
        roots.resize(n);
        for (std::size_t m = 0; m < n; ++m)
            roots[m] = root(m, n, -1);
    }
    cd s = 0;
    for (std::size_t j = 0; j < n; ++j) {
        cd w = roots[(j * k) % n];
        s += x[j] * (sign < 0 ? w : std::conj(w));
    }
    return s;
}

std::vector<float> random_floats(std::size_t count, unsigned seed) {
    std::mt19937 gen(seed);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    std::vector<float> v(count);
    for (float& f : v)
        f = u(gen);
    return v;
}

std::vector<cd> as_complex(const std::vector<float>& v) {
    std::vector<cd> z(v.size() / 2);
    for (std::size_t k = 0; k < z.size(); ++k)
        z[k] = {v[2 * k], v[2 * k + 1]};
    return z;
}

// Float rounding through log2(n) stages of sums of magnitude about sqrt(n).
double tolerance(int order) { return 3e-7 * (order + 2) * std::sqrt(double(std::size_t{1} << order)); }

// Bins checked at an order: all of them up to 2^10, a spread sample above.
std::vector<std::size_t> bins(std::size_t n) {
    std::vector<std::size_t> b;
    if (n <= 1024) {
        for (std::size_t k = 0; k < n; ++k)
            b.push_back(k);
    } else {
        for (std::size_t k : {std::size_t{0}, std::size_t{1}, std::size_t{2}, std::size_t{3}, n / 8, n / 4 - 1, n / 3,
                              n / 2 - 1, n / 2, n / 2 + 1, n - 3, n - 1})
            b.push_back(k);
    }
    return b;
}

}  // namespace

// ---------------------------------------------------------------------------
// Tables

TEST_F(Fft, BitReversalTableAndPermutationReverseTheLowOrderBits) {
    for (int order = 0; order <= 12; ++order) {
        std::size_t n = std::size_t{1} << order;
        std::vector<int> t(n, -1);
        EXPECT_EQ(QXCalcBitRevTbl(t.data(), order), int(n - 1));
        std::vector<float> v(2 * n);
        for (std::size_t i = 0; i < n; ++i) {
            std::size_t r = 0;
            for (int b = 0; b < order; ++b)
                r |= ((i >> b) & 1u) << (order - 1 - b);
            ASSERT_EQ(t[i], int(r)) << order << " " << i;
            v[2 * i] = float(i), v[2 * i + 1] = -float(i);
        }
        const int* cached = QXGetBitRevTbl(order);
        ASSERT_NE(cached, nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(cached) % 32, 0u);
        EXPECT_EQ(QXGetBitRevTbl(order), cached);
        EXPECT_TRUE(std::equal(t.begin(), t.end(), cached));
        EXPECT_EQ(QXcbBitRev1(v.data(), order), 0);
        for (std::size_t i = 0; i < n; ++i) {
            ASSERT_EQ(v[2 * i], float(t[i]));
            ASSERT_EQ(v[2 * i + 1], -float(t[i]));
        }
    }
    EXPECT_TRUE(got().empty());
}

TEST_F(Fft, TwiddleTablesHoldTheRootsOfUnity) {
    for (int order = 0; order <= 14; ++order) {
        std::size_t n = std::size_t{1} << order;
        std::vector<float> t(2 * n);
        QXcCalcFftTwdTbl(t.data(), order);
        for (std::size_t k = 0; k < n; ++k) {
            cd w = root(k, n, -1);
            ASSERT_NEAR(t[2 * k], w.real(), 4e-7) << order << " " << k;
            ASSERT_NEAR(t[2 * k + 1], w.imag(), 4e-7) << order << " " << k;
        }
        // The symmetries are exact.
        for (std::size_t k = 0; k < n / 2; ++k) {
            ASSERT_EQ(t[2 * (k + n / 2)], -t[2 * k]);
            ASSERT_EQ(t[2 * (k + n / 2) + 1], -t[2 * k + 1]);
        }
        const float* c = QXcGetFftTwdTbl(order);
        ASSERT_NE(c, nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(c) % 32, 0u);
        EXPECT_TRUE(std::equal(t.begin(), t.end(), c)) << order;
        short* w = QXwGetFftTwdTbl(order);
        ASSERT_NE(w, nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(w) % 32, 0u);
        for (std::size_t k = 0; k < 2 * n; ++k)
            ASSERT_EQ(w[k], short(std::trunc(double(t[k]) * 16384.0))) << order << " " << k;
        std::vector<short> wc(2 * n);
        QXwCalcFftTwdTbl(wc.data(), order);
        EXPECT_TRUE(std::equal(wc.begin(), wc.end(), w));
    }
    EXPECT_TRUE(got().empty());
}

TEST_F(Fft, SmallerTablesAreDecimatedFromACachedLargerOne) {
    const float* big = QXcGetFftTwdTbl(9);
    const short* wbig = QXwGetFftTwdTbl(9);
    ASSERT_TRUE(big && wbig);
    std::vector<float> direct(2 * 256);
    QXcCalcFftTwdTbl(direct.data(), 8);
    const float* small = QXcGetFftTwdTbl(8);
    const short* wsmall = QXwGetFftTwdTbl(8);
    ASSERT_TRUE(small && wsmall);
    std::vector<float> dec(2 * 256);
    std::vector<short> wdec(2 * 256);
    QXcDecFftTwdTbl(dec.data(), big, 8);
    QXwDecFftTwdTbl(wdec.data(), wbig, 8);
    bool differs = false;
    for (int i = 0; i < 256; ++i) {
        for (int p = 0; p < 2; ++p) {
            ASSERT_EQ(small[2 * i + p], big[4 * i + p]);
            ASSERT_EQ(dec[2 * i + p], big[4 * i + p]);
            ASSERT_EQ(wsmall[2 * i + p], wbig[4 * i + p]);
            ASSERT_EQ(wdec[2 * i + p], wbig[4 * i + p]);
            EXPECT_NEAR(small[2 * i + p], direct[2 * i + p], 3e-7);
            differs |= small[2 * i + p] != direct[2 * i + p];
        }
    }
    (void)differs;  // decimated and computed entries agree only within rounding
    EXPECT_TRUE(got().empty());
}

TEST_F(Fft, RealTransformTableHalvesTheTwiddlesAndShiftsTheImaginaryPart) {
    for (int order : {0, 1, 2, 3, 7, 12}) {
        const std::size_t n = std::size_t{1} << order;
        const float* t = qx::fft::real_twiddles(order);
        ASSERT_NE(t, nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(t) % 32, 0u);
        EXPECT_EQ(qx::fft::real_twiddles(order), t);
        for (std::size_t k = 0; k < n; ++k) {
            cd w = root(k, n, -1);
            ASSERT_NEAR(t[2 * k], 0.5 * w.real(), 3e-7) << order << " " << k;
            ASSERT_NEAR(t[2 * k + 1], 0.5 * w.imag() + 0.5, 3e-7) << order << " " << k;
        }
    }
    // A smaller order comes from the cached larger one.
    QXFreeFftTbls();
    const float* big = qx::fft::real_twiddles(6);
    const float* small = qx::fft::real_twiddles(5);
    ASSERT_TRUE(big && small);
    for (int i = 0; i < 64; ++i)
        ASSERT_EQ(small[i], big[2 * (i / 2) * 2 + i % 2]);
    // Its failures report under the complex getter's name.
    QXFreeFftTbls();
    {
        FailAllocation f(1);
        EXPECT_EQ(qx::fft::real_twiddles(4), nullptr);
    }
    EXPECT_EQ(got(), (std::vector<Rep>{{-4, "QXcGetFftTwdTbl", "NULL Pointer"}}));
    clear();
    EXPECT_EQ(qx::fft::real_twiddles(-1), nullptr);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXcGetFftTwdTbl", "order<0"}}));
}

TEST_F(Fft, FreeReleasesEveryTableAndBufferAndMayRepeat) {
    long live = qx::testing::live_blocks();
    std::vector<float> x(64, 1.0f);
    QXsRealFft(x.data(), 6, QX_FORWARD);
    QXcFft(x.data(), 5, QX_FORWARD);
    ASSERT_NE(QXwGetFftTwdTbl(3), nullptr);
    EXPECT_GT(qx::testing::live_blocks(), live);
    QXFreeFftTbls();
    EXPECT_EQ(qx::testing::live_blocks(), live);
    QXFreeFftTbls();
    EXPECT_EQ(qx::testing::live_blocks(), live);
    // A transform after the release rebuilds what it needs.
    std::vector<float> imp(64, 0.0f);
    imp[0] = 1.0f;
    QXcFft(imp.data(), 5, QX_FORWARD);
    for (int k = 0; k < 32; ++k)
        ASSERT_EQ(imp[2 * k], 1.0f);
    EXPECT_TRUE(got().empty());
}

// ---------------------------------------------------------------------------
// Complex transform

TEST_F(Fft, ComplexTransformMatchesTheDftInBothDirections) {
    for (int order = 0; order <= 14; ++order) {
        const std::size_t n = std::size_t{1} << order;
        const auto in = random_floats(2 * n, 100 + order);
        const auto z = as_complex(in);
        for (int flags : {QX_FORWARD, QX_INVERSE, QX_INVERSE | QX_NO_INVERSE_SCALING, QX_FORWARD | QX_NO_INVERSE_SCALING}) {
            std::vector<float> x = in;
            QXcFft(x.data(), order, flags);
            const int sign = (flags & QX_INVERSE) ? 1 : -1;
            const double div = (flags == QX_INVERSE) ? double(n) : 1.0;
            for (std::size_t k : bins(n)) {
                cd want = dft_bin(z, k, sign) / div;
                ASSERT_NEAR(x[2 * k], want.real(), tolerance(order) / div) << order << " " << flags << " " << k;
                ASSERT_NEAR(x[2 * k + 1], want.imag(), tolerance(order) / div) << order << " " << flags << " " << k;
            }
            if (order >= 13)
                break;  // the other directions are covered at the smaller orders
        }
    }
    EXPECT_TRUE(got().empty());
}

TEST_F(Fft, ComplexSpecialSignalsAndRoundTrip) {
    // Order 0 is the identity; the Nip form copies the one value.
    float one[2] = {3.5f, -2.0f}, out[2] = {0, 0};
    QXcFft(one, 0, 0);  // no flag checks at order 0
    EXPECT_EQ(one[0], 3.5f);
    EXPECT_EQ(QXcFftNip(one, out, 0, 0), 0);
    EXPECT_EQ(out[0], 3.5f);
    EXPECT_EQ(out[1], -2.0f);
    // Order 1: the inverse is the forward transform halved.
    float f[4] = {1.0f, 2.0f, 5.0f, -3.0f}, g[4] = {1.0f, 2.0f, 5.0f, -3.0f};
    QXcFft(f, 1, QX_FORWARD);
    QXcFft(g, 1, QX_INVERSE);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(g[i], f[i] / 2);
    EXPECT_EQ(f[0], 6.0f);
    EXPECT_EQ(f[3], 5.0f);
    for (int order = 2; order <= 10; ++order) {
        const std::size_t n = std::size_t{1} << order;
        std::vector<float> imp(2 * n, 0.0f), ones(2 * n, 0.0f);
        imp[0] = 1.0f;
        for (std::size_t k = 0; k < n; ++k)
            ones[2 * k] = 1.0f;
        QXcFft(imp.data(), order, QX_FORWARD);
        QXcFft(ones.data(), order, QX_FORWARD);
        for (std::size_t k = 0; k < n; ++k) {
            ASSERT_EQ(imp[2 * k], 1.0f);
            ASSERT_EQ(imp[2 * k + 1], 0.0f);
            ASSERT_NEAR(ones[2 * k], k == 0 ? double(n) : 0.0, 1e-4) << order << " " << k;
            ASSERT_NEAR(ones[2 * k + 1], 0.0, 1e-4);
        }
        const auto in = random_floats(2 * n, order);
        std::vector<float> x(2 * n), y(2 * n);
        EXPECT_EQ(QXcFftNip(in.data(), x.data(), order, QX_FORWARD), 0);
        EXPECT_EQ(QXcFftNip(x.data(), y.data(), order, QX_INVERSE), 0);
        for (std::size_t i = 0; i < 2 * n; ++i)
            ASSERT_NEAR(y[i], in[i], 1e-6 * order);
    }
    EXPECT_TRUE(got().empty());
}

// ---------------------------------------------------------------------------
// Real signals and packed spectra

namespace {
// The packed spectrum of a real signal by the DFT.
std::vector<double> packed_dft(const std::vector<float>& x, int sign, const std::vector<std::size_t>& which) {
    std::vector<cd> z(x.begin(), x.end());
    const std::size_t n = x.size();
    std::vector<double> p(n, std::nan(""));
    for (std::size_t k : which) {
        if (k > n / 2)
            continue;
        cd X = dft_bin(z, k, sign);
        if (k == 0)
            p[0] = X.real();
        else if (k == n / 2)
            p[1] = X.real();
        else
            p[2 * k] = X.real(), p[2 * k + 1] = X.imag();
    }
    return p;
}
}  // namespace

TEST_F(Fft, RealTransformGivesThePackedSpectrumOfTheDft) {
    for (int order = 0; order <= 14; ++order) {
        const std::size_t n = std::size_t{1} << order;
        const auto in = random_floats(n, 200 + order);
        for (int flags : {QX_FORWARD, QX_INVERSE, QX_INVERSE | QX_NO_INVERSE_SCALING}) {
            std::vector<float> x(n);
            EXPECT_EQ(QXsRealFftNip(in.data(), x.data(), order, flags), 0);
            const int sign = (flags & QX_INVERSE) ? 1 : -1;
            const double div = (flags == QX_INVERSE) ? double(n) : 1.0;
            auto want = packed_dft(in, sign, bins(n));
            for (std::size_t i = 0; i < n; ++i) {
                if (std::isnan(want[i]))
                    continue;
                ASSERT_NEAR(x[i], want[i] / div, tolerance(order) / div) << order << " " << flags << " " << i;
            }
        }
    }
    // (a, b) -> (a + b, a - b); the impulse -> ones and (1, 0).
    float ab[2] = {3.0f, 5.0f};
    QXsRealFft(ab, 1, QX_FORWARD);
    EXPECT_EQ(ab[0], 8.0f);
    EXPECT_EQ(ab[1], -2.0f);
    std::vector<float> imp(32, 0.0f);
    imp[0] = 1.0f;
    QXsRealFft(imp.data(), 5, QX_FORWARD);
    for (int k = 1; k < 16; ++k) {
        EXPECT_EQ(imp[2 * k], 1.0f);
        EXPECT_EQ(imp[2 * k + 1], 0.0f);
    }
    EXPECT_EQ(imp[0], 1.0f);
    EXPECT_EQ(imp[1], 1.0f);
    EXPECT_TRUE(got().empty());
}

TEST_F(Fft, PackedSpectrumTransformMatchesTheDftAndInvertsTheRealOne) {
    for (int order = 1; order <= 12; ++order) {
        const std::size_t n = std::size_t{1} << order;
        const auto P = random_floats(n, 300 + order);
        // The full conjugate-symmetric spectrum the packed form stands for.
        std::vector<cd> X(n);
        X[0] = P[0];
        X[n / 2] = P[1];
        for (std::size_t k = 1; k < n / 2; ++k) {
            X[k] = {P[2 * k], P[2 * k + 1]};
            X[n - k] = std::conj(X[k]);
        }
        for (int flags : {QX_INVERSE, QX_FORWARD, QX_INVERSE | QX_NO_INVERSE_SCALING}) {
            std::vector<float> x(n);
            EXPECT_EQ(QXsCcsFftNip(P.data(), x.data(), order, flags), 0);
            const int sign = (flags & QX_INVERSE) ? 1 : -1;
            const double div = (flags == QX_INVERSE) ? double(n) : 1.0;
            for (std::size_t j : bins(n)) {
                cd want = dft_bin(X, j, sign) / div;
                ASSERT_NEAR(x[j], want.real(), 2 * tolerance(order) / div) << order << " " << flags << " " << j;
            }
        }
        // Round trips in both pairings.
        const auto sig = random_floats(n, 400 + order);
        std::vector<float> s = sig;
        QXsRealFft(s.data(), order, QX_FORWARD);
        QXsCcsFft(s.data(), order, QX_INVERSE);
        for (std::size_t i = 0; i < n; ++i)
            ASSERT_NEAR(s[i], sig[i], 1e-6 * order);
        s = sig;
        QXsRealFft(s.data(), order, QX_INVERSE | QX_NO_INVERSE_SCALING);
        QXsCcsFft(s.data(), order, QX_FORWARD);
        for (std::size_t i = 0; i < n; ++i)
            ASSERT_NEAR(s[i], sig[i] * double(n), 1e-6 * order * n);
    }
    // Order 0 leaves the data alone; the Nip form copies it.
    float v = 7.0f, w = 0.0f;
    QXsCcsFft(&v, 0, QX_INVERSE);
    EXPECT_EQ(v, 7.0f);
    EXPECT_EQ(QXsCcsFftNip(&v, &w, 0, QX_INVERSE), 0);
    EXPECT_EQ(w, 7.0f);
    EXPECT_TRUE(got().empty());
}

// ---------------------------------------------------------------------------
// Checks, flag messages, traces, memory

TEST_F(Fft, ArgumentChecksRunInOrderAndAllReport) {
    float buf[8] = {};
    int ibuf[4] = {};
    EXPECT_EQ(QXCalcBitRevTbl(nullptr, -1), QX_StsBadArg);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXCalcBitRevTbl", "order<0"}, {-5, "QXCalcBitRevTbl", "tbl==0"}}));
    for (auto& r : kvxtest::reports())
        EXPECT_TRUE(kvxtest::names_raising_line(r));
    clear();
    EXPECT_EQ(QXGetBitRevTbl(32), nullptr);
    EXPECT_EQ(QXcGetFftTwdTbl(-1), nullptr);
    EXPECT_EQ(QXwGetFftTwdTbl(32), nullptr);
    EXPECT_EQ(QXcbBitRev1(nullptr, 32), QX_StsBadArg);
    QXcCalcFftTwdTbl(nullptr, 40);
    QXcDecFftTwdTbl(nullptr, nullptr, -2);
    QXwCalcFftTwdTbl(nullptr, 3);
    QXwDecFftTwdTbl(nullptr, nullptr, 3);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXGetBitRevTbl", "order>31"},
                                       {-5, "QXcGetFftTwdTbl", "order<0"},
                                       {-5, "QXwGetFftTwdTbl", "order>31"},
                                       {-5, "QXcbBitRev1", "order>31"},
                                       {-5, "QXcbBitRev1", "vec==0"},
                                       {-5, "QXcCalcFftTwdTbl", "order>31"},
                                       {-5, "QXcCalcFftTwdTbl", "tbl==0"},
                                       {-5, "QXcDecFftTwdTbl", "order<0"},
                                       {-5, "QXcDecFftTwdTbl", "tbl1==0"},
                                       {-5, "QXcDecFftTwdTbl", "tbl2==0"},
                                       {-5, "QXwCalcFftTwdTbl", "tbl==0"},
                                       {-5, "QXwDecFftTwdTbl", "tbl1==0"},
                                       {-5, "QXwDecFftTwdTbl", "tbl2==0"}}));
    for (auto& r : kvxtest::reports())
        EXPECT_TRUE(kvxtest::names_raising_line(r)) << r.function << " " << r.condition;
    clear();
    QXcFft(nullptr, -1, 3);
    QXsRealFft(nullptr, 32, 1);
    QXsCcsFft(buf, 99, 1);
    EXPECT_EQ(QXcFftNip(nullptr, nullptr, -1, 1), QX_StsBadArg);
    EXPECT_EQ(QXsRealFftNip(buf, nullptr, 32, 1), QX_StsBadArg);
    EXPECT_EQ(QXsCcsFftNip(nullptr, buf, 1, 1), QX_StsBadArg);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXcFft", "order<0"},
                                       {-5, "QXcFft", "samps==0"},
                                       {-5, "QXsRealFft", "order>31"},
                                       {-5, "QXsRealFft", "samps==0"},
                                       {-5, "QXsCcsFft", "order>31"},
                                       {-5, "QXcFftNip", "order<0"},
                                       {-5, "QXcFftNip", "inSamps==0"},
                                       {-5, "QXcFftNip", "outSamps==0"},
                                       {-5, "QXsRealFftNip", "order>31"},
                                       {-5, "QXsRealFftNip", "outSamps==0"},
                                       {-5, "QXsCcsFftNip", "inSamps==0"}}));
    for (auto& r : kvxtest::reports())
        EXPECT_TRUE(kvxtest::names_raising_line(r)) << r.function << " " << r.condition;
    // A pending error stops everything, including table getters.
    clear();
    QXSetStatus(-5);
    std::vector<float> x(8, 1.0f);
    QXcFft(x.data(), 2, QX_FORWARD);
    EXPECT_EQ(x[0], 1.0f);
    EXPECT_EQ(QXGetBitRevTbl(3), nullptr);
    EXPECT_EQ(QXCalcBitRevTbl(ibuf, 2), -5);
    EXPECT_TRUE(got().empty());
}

TEST_F(Fft, DirectionFlagsAreCheckedAndLeaveTheDataUntouched) {
    const auto in = random_floats(16, 1);
    for (int flags : {0, QX_NO_INVERSE_SCALING, QX_FORWARD | QX_INVERSE, QX_FORWARD | QX_INVERSE | 8}) {
        const char* text = (flags & 3) ? "Error in flag (QX_FORWARD & QX_INVERSE are presented)"
                                       : "Error in flag (QX_FORWARD & QX_INVERSE are not presented)";
        std::vector<float> x = in, y(16);
        std::vector<Rep> all;
        for (auto fn : {QXcFft, QXsRealFft, QXsCcsFft}) {
            fn(x.data(), 3, flags);
            for (auto& r : kvxtest::reports())
                EXPECT_TRUE(kvxtest::names_raising_line(r));
            auto g = got();
            all.insert(all.end(), g.begin(), g.end());
            clear();
        }
        EXPECT_EQ(x, in);
        EXPECT_EQ(all, (std::vector<Rep>{{-5, "QXcFft", text}, {-5, "QXsRealFft", text}, {-5, "QXsCcsFft", text}}));
        EXPECT_EQ(QXcFftNip(in.data(), y.data(), 3, flags), -5);
        clear();
        EXPECT_EQ(QXsRealFftNip(in.data(), y.data(), 4, flags), -5);
        clear();
        EXPECT_EQ(QXsCcsFftNip(in.data(), y.data(), 4, flags), -5);
        auto& rep = kvxtest::reports();
        ASSERT_EQ(rep.size(), 2u);
        EXPECT_EQ(rep[1].code, -1);
        EXPECT_EQ(rep[1].function, "QXsCcsFftNip");
        EXPECT_EQ(rep[1].condition, "out QXsCcsFft");
        EXPECT_TRUE(kvxtest::names_raising_line(rep[1]));
        clear();
    }
    // The follow-up texts of the other Nip forms.
    std::vector<float> y(16);
    QXcFftNip(in.data(), y.data(), 3, 0);
    EXPECT_EQ(std::get<2>(got().back()), "out QXcFft");
    clear();
    QXsRealFftNip(in.data(), y.data(), 3, 0);
    EXPECT_EQ(got().back(), (Rep{-1, "QXsRealFftNip", "out QXsRealFftl"}));
}

TEST_F(Fft, TableAllocationFailuresReportAndLeaveNothingBehind) {
    const long live = qx::testing::live_blocks();
    {
        FailAllocation f(1);
        EXPECT_EQ(QXGetBitRevTbl(4), nullptr);
    }
    EXPECT_EQ(got(), (std::vector<Rep>{{-4, "QXGetBitRevTbl", "NULL Pointer"}}));
    EXPECT_TRUE(kvxtest::names_raising_line(kvxtest::reports()[0]));
    clear();
    {
        FailAllocation f(1);
        EXPECT_EQ(QXcGetFftTwdTbl(4), nullptr);
        clear();
        EXPECT_EQ(QXwGetFftTwdTbl(4), nullptr);  // its own table
    }
    EXPECT_EQ(got(), (std::vector<Rep>{{-4, "QXwGetFftTwdTbl", "NULL Pointer"}}));
    clear();
    {
        FailAllocation f(2);  // the float table it is computed from
        EXPECT_EQ(QXwGetFftTwdTbl(4), nullptr);
    }
    EXPECT_EQ(got(), (std::vector<Rep>{{-4, "QXcGetFftTwdTbl", "NULL Pointer"}}));
    EXPECT_EQ(qx::testing::live_blocks(), live);
    clear();
    // Transforms: every table fetch that fails ends in "Bad Ptr", data untouched.
    const auto in = random_floats(64, 5);
    struct Case {
        void (*fn)(float*, int, int);
        const char* name;
        int tables;            // allocations a cold call makes
        const char* getter[3]; // who reports each failure
    };
    for (Case c : {Case{QXcFft, "QXcFft", 2, {"QXcGetFftTwdTbl", "QXGetBitRevTbl"}},
                   Case{QXsRealFft, "QXsRealFft", 3, {"QXcGetFftTwdTbl", "QXcGetFftTwdTbl", "QXGetBitRevTbl"}},
                   Case{QXsCcsFft, "QXsCcsFft", 3, {"QXcGetFftTwdTbl", "QXcGetFftTwdTbl", "QXGetBitRevTbl"}}}) {
        for (int nth = 1; nth <= c.tables; ++nth) {
            QXFreeFftTbls();
            std::vector<float> x = in;
            {
                FailAllocation f(nth);
                c.fn(x.data(), 5, QX_FORWARD);
            }
            EXPECT_EQ(x, in) << c.name << " " << nth;
            auto g = got();
            ASSERT_EQ(g.size(), 2u) << c.name << " " << nth;
            EXPECT_EQ(g[0], (Rep{-4, c.getter[nth - 1], "NULL Pointer"}));
            EXPECT_EQ(g[1], (Rep{-1, c.name, "Bad Ptr"}));
            EXPECT_TRUE(kvxtest::names_raising_line(kvxtest::reports()[1]));
            clear();
        }
        // With every table cached, nothing is allocated.
        std::vector<float> x = in;
        c.fn(x.data(), 5, QX_FORWARD);
        long before = qx::testing::allocations();
        c.fn(x.data(), 5, QX_FORWARD);
        EXPECT_EQ(qx::testing::allocations(), before);
    }
    QXFreeFftTbls();
    EXPECT_EQ(qx::testing::live_blocks(), live);
}

// The vectorised core performs the scalar operations in the same order, so
// both give the same bits (signed zeros included).
TEST_F(Fft, TransformsEqualThePlainScalarCoreBitForBit) {
    for (int order = 1; order <= 13; ++order) {
        const std::size_t n = std::size_t{1} << order;
        auto in = random_floats(2 * n, 500 + order);
        in[3] = -0.0f;
        if (in.size() > 6)
            in[6] = 0.0f;
        for (bool inverse : {false, true}) {
            std::vector<float> want = in, got = in;
            qx::fft::Radix4<qx::fft::FloatOps>::run(want.data(), order, QXcGetFftTwdTbl(order), inverse);
            qx::fft::bit_reverse(want.data(), order, order >= 3 ? QXGetBitRevTbl(order) : nullptr);
            QXcFft(got.data(), order, inverse ? QX_INVERSE | QX_NO_INVERSE_SCALING : QX_FORWARD);
            ASSERT_EQ(std::memcmp(want.data(), got.data(), want.size() * sizeof(float)), 0) << order << inverse;
            // The real transform: half-length core, bit reversal, split.
            std::vector<float> rwant(in.begin(), in.begin() + n), rgot = rwant;
            if (order > 1) {
                qx::fft::Radix4<qx::fft::FloatOps>::run(rwant.data(), order - 1, QXcGetFftTwdTbl(order - 1), inverse);
                qx::fft::bit_reverse(rwant.data(), order - 1, order >= 4 ? QXGetBitRevTbl(order - 1) : nullptr);
            }
            qx::fft::real_split<qx::fft::FloatOps>(rwant.data(), n / 2, qx::fft::real_twiddles(order), !inverse);
            QXsRealFft(rgot.data(), order, inverse ? QX_INVERSE | QX_NO_INVERSE_SCALING : QX_FORWARD);
            ASSERT_EQ(std::memcmp(rwant.data(), rgot.data(), n * sizeof(float)), 0) << order << inverse;
        }
    }
}
