// Short-data transforms: the fixed-point path against the exact scaled DFT,
// the float path, output shifts, scratch buffers, checks and traces.
#include <cmath>
#include <complex>
#include <cstdint>
#include <numbers>
#include <random>
#include <vector>

#include "kvx_test.h"
#include "qx_context.h"

using kvxtest::FailAllocation;
using kvxtest::LibTest;
using kvxtest::Rep;

namespace {

using cd = std::complex<double>;

class ShortFft : public LibTest {
protected:
    void SetUp() override {
        LibTest::SetUp();
        QXFreeFftTbls();
        live_ = qx::testing::live_blocks();
    }
    void TearDown() override {
        QXFreeFftTbls();
        EXPECT_EQ(qx::testing::live_blocks(), live_);
        LibTest::TearDown();
    }
    long live_ = 0;
};

// The DFT of n complex values, sign -1 forward, +1 inverse (no division).
std::vector<cd> dft(const std::vector<cd>& x, int sign) {
    const std::size_t n = x.size();
    std::vector<cd> roots(n), X(n);
    for (std::size_t m = 0; m < n; ++m) {
        double a = 2.0 * std::numbers::pi * double(m) / double(n);
        roots[m] = {std::cos(a), sign * std::sin(a)};
    }
    for (std::size_t k = 0; k < n; ++k)
        for (std::size_t j = 0; j < n; ++j)
            X[k] += x[j] * roots[(j * k) % n];
    return X;
}

std::vector<short> random_shorts(std::size_t count, int amplitude, unsigned seed) {
    std::mt19937 gen(seed);
    std::uniform_int_distribution<int> u(-amplitude, amplitude);
    std::vector<short> v(count);
    for (short& s : v)
        s = static_cast<short>(u(gen));
    return v;
}

// Packed layout of the spectrum X of a real signal of length n.
std::vector<double> pack(const std::vector<cd>& X) {
    const std::size_t n = X.size();
    std::vector<double> p(n);
    p[0] = X[0].real();
    if (n > 1)
        p[1] = X[n / 2].real();
    for (std::size_t k = 1; k < n / 2; ++k)
        p[2 * k] = X[k].real(), p[2 * k + 1] = X[k].imag();
    return p;
}

}  // namespace

// The fixed-point path of order <= 10 stays within a few LSB of the exact
// result: the error of each 16384-scaled product is below one unit of the
// 64-times-enlarged data, and 64 such units make one output LSB.
constexpr double kLsb = 2.0;

TEST_F(ShortFft, ComplexFixedPointMatchesTheScaledDft) {
    for (int order = 1; order <= 10; ++order) {
        const std::size_t n = std::size_t{1} << order;
        const auto in = random_shorts(2 * n, 20000, order);
        std::vector<cd> z(n);
        for (std::size_t k = 0; k < n; ++k)
            z[k] = {double(in[2 * k]), double(in[2 * k + 1])};
        // Forward with the factor `order` (result X / n); inverse without a
        // factor divides by n itself; inverse unscaled with the factor.
        struct Case {
            int flags, factor, sign;
        };
        for (Case c : {Case{QX_FORWARD, order, -1}, Case{QX_INVERSE, 0, 1},
                       Case{QX_INVERSE | QX_NO_INVERSE_SCALING, order, 1}}) {
            auto X = dft(z, c.sign);
            std::vector<short> x = in;
            int sf = c.factor;
            QXvFft(x.data(), order, c.flags, 1, &sf);
            EXPECT_EQ(sf, c.factor);
            for (std::size_t k = 0; k < n; ++k) {
                ASSERT_NEAR(x[2 * k], X[k].real() / double(n), kLsb) << order << " " << c.flags << " " << k;
                ASSERT_NEAR(x[2 * k + 1], X[k].imag() / double(n), kLsb) << order << " " << c.flags << " " << k;
            }
        }
    }
    EXPECT_TRUE(got().empty());
}

TEST_F(ShortFft, RealAndPackedFixedPointMatchTheScaledDft) {
    for (int order = 1; order <= 10; ++order) {
        const std::size_t n = std::size_t{1} << order;
        const auto in = random_shorts(n, 30000, 50 + order);
        std::vector<cd> z(in.begin(), in.end());
        auto P = pack(dft(z, -1));
        std::vector<short> x(n);
        int sf = order;
        EXPECT_EQ(QXwRealFftNip(in.data(), x.data(), order, QX_FORWARD, 1, &sf), 0);
        for (std::size_t i = 0; i < n; ++i)
            ASSERT_NEAR(x[i], P[i] / double(n), kLsb) << order << " " << i;
        // Back from a packed spectrum of shorts: the inverse divides by n.
        const auto spec = random_shorts(n, 8000, 70 + order);
        std::vector<cd> X(n);
        X[0] = spec[0];
        X[n / 2] = order > 0 ? spec[1] : 0;
        for (std::size_t k = 1; k < n / 2; ++k) {
            X[k] = {double(spec[2 * k]), double(spec[2 * k + 1])};
            X[n - k] = std::conj(X[k]);
        }
        auto sig = dft(X, 1);
        std::vector<short> y(n);
        int zero = 0;
        EXPECT_EQ(QXwCcsFftNip(spec.data(), y.data(), order, QX_INVERSE, 1, &zero), 0);
        for (std::size_t j = 0; j < n; ++j)
            ASSERT_NEAR(y[j], sig[j].real() / double(n), kLsb) << order << " " << j;
        // Forward packed transform without division, with the factor.
        auto sigF = dft(X, -1);
        sf = order;
        std::vector<short> w = spec;
        QXwCcsFft(w.data(), order, QX_FORWARD, 1, &sf);
        for (std::size_t j = 0; j < n; ++j)
            ASSERT_NEAR(w[j], sigF[j].real() / double(n), kLsb) << order << " " << j;
    }
    EXPECT_TRUE(got().empty());
}

TEST_F(ShortFft, OutputShiftWrapsSaturatesAndShiftsLeftModulo32) {
    // A constant c at order 3: position 0 holds 8c, all others 0.
    auto constant = [](short c) { return std::vector<short>(8, c); };
    std::vector<short> x = constant(1000);
    int sf = 0;
    QXwRealFft(x.data(), 3, QX_FORWARD, 1, &sf);
    EXPECT_EQ(x, (std::vector<short>{8000, 0, 0, 0, 0, 0, 0, 0}));
    // 8 * 5000 = 40000 keeps its low 16 bits, or saturates with doScale 3.
    x = constant(5000);
    sf = 7;
    QXwRealFft(x.data(), 3, QX_FORWARD, 0, &sf);
    EXPECT_EQ(sf, 0);
    EXPECT_EQ(x[0], short(40000 - 65536));
    x = constant(5000);
    sf = 7;
    QXwRealFft(x.data(), 3, QX_FORWARD, 3, &sf);
    EXPECT_EQ(sf, 0);
    EXPECT_EQ(x[0], 32767);
    x = constant(-5000);
    QXwRealFft(x.data(), 3, QX_FORWARD, 3, &sf);
    EXPECT_EQ(x[0], -32768);
    // Factor -3: eight times larger (shift right by 3 of the 64-fold value).
    x = constant(100);
    sf = -3;
    QXwRealFft(x.data(), 3, QX_FORWARD, 1, &sf);
    EXPECT_EQ(x[0], 6400);
    EXPECT_EQ(sf, -3);
    // Factor -6: s = 0, the 64-fold value itself.
    x = constant(10);
    sf = -6;
    QXwRealFft(x.data(), 3, QX_FORWARD, 1, &sf);
    EXPECT_EQ(x[0], 80 * 64);
    // Factor -8: s = -2 shifts left by 30: 800 * 64 << 30 keeps no low bits.
    x = constant(100);
    sf = -8;
    QXwRealFft(x.data(), 3, QX_FORWARD, 1, &sf);
    EXPECT_EQ(x[0], 0);
    // Factor -64: s = -58, a left shift by -58 modulo 32 = 6: 512 * 64 = 32768
    // keeps its low 16 bits.
    x = constant(1);
    sf = -64;
    QXwRealFft(x.data(), 3, QX_FORWARD, 1, &sf);
    EXPECT_EQ(x, (std::vector<short>{-32768, 0, 0, 0, 0, 0, 0, 0}));
    // A large factor shifts everything out: signs remain as 0 and -1.
    std::vector<short> v{100, -100, 0, 0};
    sf = 60;
    QXvFft(v.data(), 1, QX_FORWARD, 1, &sf);
    EXPECT_EQ(v, (std::vector<short>{0, -1, 0, -1}));
    EXPECT_TRUE(got().empty());
}

TEST_F(ShortFft, FloatPathForLongTransformsAndAutomaticScaling) {
    // doScale 2 goes through floats and reports the factor it chose.
    for (int order : {3, 8, 11}) {
        const std::size_t n = std::size_t{1} << order;
        const auto in = random_shorts(2 * n, 30000, 90 + order);
        std::vector<cd> z(n);
        for (std::size_t k = 0; k < n; ++k)
            z[k] = {double(in[2 * k]), double(in[2 * k + 1])};
        auto X = dft(z, -1);
        double peak = 0;
        for (auto& v : X)
            peak = std::max({peak, std::abs(v.real()), std::abs(v.imag())});
        std::vector<short> x(2 * n);
        int sf = 99;
        EXPECT_EQ(QXvFftNip(in.data(), x.data(), order, QX_FORWARD, 2, &sf), 0);
        // The smallest factor that makes the peak fit.
        EXPECT_EQ(sf, int(std::ceil(std::log2(peak / 32767.0)))) << order;
        const double unit = std::ldexp(1.0, sf);
        for (std::size_t k = 0; k < n; ++k) {
            ASSERT_NEAR(x[2 * k] * unit, X[k].real(), unit * 1.01) << order << " " << k;
            ASSERT_NEAR(x[2 * k + 1] * unit, X[k].imag(), unit * 1.01) << order << " " << k;
        }
    }
    // Order 11 with a fixed factor takes the float path too (truncation).
    const std::size_t n = 2048;
    std::vector<short> imp(n, 0);
    imp[0] = 1000;
    int sf = 1;
    QXwRealFft(imp.data(), 11, QX_FORWARD, 1, &sf);
    EXPECT_EQ(sf, 1);
    EXPECT_EQ(imp[0], 500);
    EXPECT_EQ(imp[1], 500);
    EXPECT_EQ(imp[2], 500);
    EXPECT_EQ(imp[3], 0);
    std::vector<short> back = imp;
    QXwCcsFft(back.data(), 11, QX_INVERSE, 1, &sf);  // factor 1 again halves
    EXPECT_EQ(back[0], 250);
    EXPECT_EQ(back[1], 0);
    EXPECT_TRUE(got().empty());
}

TEST_F(ShortFft, ScratchBuffersGrowButAreReused) {
    const qx::Context& c = *qx::context();
    std::vector<short> x = random_shorts(2048, 100, 1);
    int sf = 0;
    QXwRealFft(x.data(), 6, QX_FORWARD, 0, &sf);
    const int cap = c.Fft.iBufferCap;
    EXPECT_GE(cap, 64);
    void* buf = c.Fft.iBuffer;
    long before = qx::testing::allocations();
    QXvFft(x.data(), 5, QX_FORWARD, 0, &sf);  // 64 values again: reused
    QXwCcsFft(x.data(), 4, QX_INVERSE, 0, &sf);
    EXPECT_EQ(qx::testing::allocations() - before, 3);  // twiddles of orders 4 and 3, bit reversal of 3
    EXPECT_EQ(c.Fft.iBuffer, buf);
    QXvFft(x.data(), 9, QX_FORWARD, 0, &sf);
    EXPECT_GE(c.Fft.iBufferCap, 1024);
    QXvFft(x.data(), 2, QX_FORWARD, 0, &sf);
    EXPECT_GE(c.Fft.iBufferCap, 1024);  // never shrunk
    EXPECT_EQ(c.Fft.sBuffer, nullptr);
    QXwRealFft(x.data(), 11, QX_FORWARD, 2, &sf);
    EXPECT_GE(c.Fft.sBufferCap, 2048);
    QXFreeFftTbls();
    EXPECT_EQ(c.Fft.iBuffer, nullptr);
    EXPECT_EQ(c.Fft.sBuffer, nullptr);
    EXPECT_EQ(c.Fft.iBufferCap, 0);
    EXPECT_EQ(c.Fft.sBufferCap, 0);
    EXPECT_TRUE(got().empty());
}

TEST_F(ShortFft, ChecksFlagsAndTraces) {
    int sf = 0;
    short s[8] = {};
    QXvFft(nullptr, -1, 3, 0, &sf);
    clear();
    QXwRealFft(s, 32, 1, 0, &sf);
    auto g = got();
    clear();
    QXwCcsFft(nullptr, 4, 1, 0, &sf);
    g.push_back(got()[0]);
    EXPECT_EQ(g, (std::vector<Rep>{{-5, "QXwRealFft", "order>31"}, {-5, "QXwCcsFft", "samps==0"}}));
    clear();
    // Order 0: nothing happens, no flag checks; the Nip forms copy.
    short one[2] = {5, 6}, out[2] = {0, 0};
    QXwRealFft(one, 0, 0, 0, &sf);
    EXPECT_EQ(QXwRealFftNip(one, out, 0, 0, 0, &sf), 0);
    EXPECT_EQ(out[0], 5);
    EXPECT_TRUE(got().empty());
    // The flag messages, under each routine's name; no trace follows.
    for (auto fn : {QXvFft, QXwRealFft, QXwCcsFft}) {
        short x[8] = {1, 2, 3, 4, 5, 6, 7, 8};
        fn(x, 2, 3, 0, &sf);
        ASSERT_EQ(got().size(), 1u);
        EXPECT_EQ(std::get<2>(got()[0]), "Error in flag (QX_FORWARD & QX_INVERSE are presented)");
        EXPECT_TRUE(kvxtest::names_raising_line(kvxtest::reports()[0]));
        clear();
        fn(x, 2, 8, 0, &sf);
        EXPECT_EQ(std::get<2>(got()[0]), "Error in flag (QX_FORWARD & QX_INVERSE are not presented)");
        EXPECT_EQ(x[0], 1);
        clear();
    }
    // Nip forms: their checks, then the follow-up texts.
    EXPECT_EQ(QXvFftNip(nullptr, nullptr, 40, 1, 0, &sf), -5);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXvFftNip", "order>31"},
                                       {-5, "QXvFftNip", "inSamps==0"},
                                       {-5, "QXvFftNip", "outSamps==0"}}));
    struct Nip {
        int (*fn)(const short*, short*, int, int, int, int*);
        const char* name;
        const char* text;
    };
    for (Nip c : {Nip{QXvFftNip, "QXvFftNip", "out QXvFft"}, Nip{QXwRealFftNip, "QXwRealFftNip", "out QXwRealFftl"},
                  Nip{QXwCcsFftNip, "QXwCcsFftNip", "out QXwCcsFft"}}) {
        clear();
        short in[16] = {}, o[16];
        EXPECT_EQ(c.fn(in, o, 3, 0, 0, &sf), -5);
        ASSERT_EQ(got().size(), 2u);
        EXPECT_EQ(got()[1], (Rep{-1, c.name, c.text}));
        EXPECT_TRUE(kvxtest::names_raising_line(kvxtest::reports()[1]));
    }
    // A failing float path: the conversion's own check, then the trace with
    // the current message.
    clear();
    short big[4096] = {};
    QXvFft(big, 11, QX_FORWARD, 1, nullptr);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXswbConvertDown", "scaleFactor==0"}, {-1, "QXvFft", "scaleFactor==0"}}));
}

TEST_F(ShortFft, AllocationFailuresReportThroughTheCores) {
    const long live = qx::testing::live_blocks();
    const auto in = random_shorts(32, 1000, 3);
    int sf = 0;
    // Cold fixed-point real transform of order 5: tables w5, (w5's float
    // table c5), w4, bit reversal of order 4, then the buffer.
    const std::vector<std::vector<Rep>> expected = {
        {{-4, "QXwGetFftTwdTbl", "NULL Pointer"}},
        {{-4, "QXcGetFftTwdTbl", "NULL Pointer"}},
        {{-4, "QXwGetFftTwdTbl", "NULL Pointer"}},
        {{-4, "QXGetBitRevTbl", "NULL Pointer"}},
    };
    for (std::size_t nth = 1; nth <= expected.size() + 1; ++nth) {
        QXFreeFftTbls();
        std::vector<short> x = in;
        {
            FailAllocation f{static_cast<long>(nth)};
            QXwRealFft(x.data(), 5, QX_FORWARD, 0, &sf);
        }
        EXPECT_EQ(x, in) << nth;
        auto g = got();
        if (nth <= expected.size()) {
            auto want = expected[nth - 1];
            want.push_back({-1, "Fft_Core_Short_As_Int", "Bad Ptr"});
            want.push_back({-1, "QXwRealFft", "Bad Ptr"});
            EXPECT_EQ(g, want) << nth;
        } else {
            const char* text = "insufficiency of memory for pointer  pQXContext->Fft.iBuffer";
            EXPECT_EQ(g, (std::vector<Rep>{{-4, "Fft_Core_Short_As_Int", text}, {-1, "QXwRealFft", text}}));
        }
        for (auto& r : kvxtest::reports())
            EXPECT_TRUE(kvxtest::names_raising_line(r)) << r.function << " " << r.condition;
        clear();
    }
    // The float path's buffer.
    QXFreeFftTbls();
    std::vector<short> x(4096, 1);
    {
        FailAllocation f(1);
        QXvFft(x.data(), 11, QX_FORWARD, 2, &sf);
    }
    const char* text = "insufficiency of memory for pointer  pQXContext->Fft.sBuffer";
    EXPECT_EQ(got(), (std::vector<Rep>{{-4, "Fft_Core_Short_As_Float", text}, {-1, "QXvFft", text}}));
    EXPECT_EQ(x[0], 1);
    QXFreeFftTbls();
    EXPECT_EQ(qx::testing::live_blocks(), live);
}
