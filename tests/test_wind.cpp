// Windows and pre-emphasis: coefficients against the window formulas evaluated
// here, the per-length caches seen through allocation counts, the short-data
// paths with their scaling, checks and allocation failures.
#include <cmath>
#include <cstdint>
#include <vector>

#include "kvx_test.h"
#include "qx_context.h"

using kvxtest::FailAllocation;
using kvxtest::LibTest;
using kvxtest::Rep;

namespace {

enum Kind { Hamming, Hanning, Bartlett, Blackman };

using FloatWin = void (*)(float*, int);
using ShortWin = void (*)(short*, int, int, int*);
using Release = void (*)();

const FloatWin kFloat[4] = {QXsWinHamming, QXsWinHanning, QXsWinBartlett, QXsWinBlackman};
const ShortWin kShort[4] = {QXwWinHamming, QXwWinHanning, QXwWinBartlett, QXwWinBlackman};
const Release kFloatRelease[4] = {QXsFreeWinHammingTbls, QXsFreeWinHanningTbls, QXsFreeWinBartlettTbls,
                                  QXsFreeWinBlackmanTbls};
const Release kShortRelease[4] = {QXwFreeWinHammingTbls, QXwFreeWinHanningTbls, QXwFreeWinBartlettTbls,
                                  QXwFreeWinBlackmanTbls};
const char* const kFloatName[4] = {"QXsWinHamming", "QXsWinHanning", "QXsWinBartlett", "QXsWinBlackman"};
const char* const kShortName[4] = {"QXwWinHamming", "QXwWinHanning", "QXwWinBartlett", "QXwWinBlackman"};

// The window definitions: extended precision, the decimal 6.2831853, rounded
// once to float. Bartlett is a ramp of float products.
float reference(Kind kind, int i, int n) {
    using ld = long double;
    const ld twoPi = 6.2831853;
    switch (kind) {
    case Hamming:
        return static_cast<float>(ld{0.54} - ld{0.46} * cosl(i * (twoPi / (n - 1))));
    case Hanning:
        return static_cast<float>(ld{0.5} - ld{0.5} * cosl((i + 1) * (twoPi / (n + 1))));
    case Bartlett: {
        float d = 2.0f / static_cast<float>(n - 1);
        return i <= (n - 1) / 2 ? static_cast<float>(i) * d : 2.0f - static_cast<float>(i) * d;
    }
    case Blackman: {
        const ld t = i * (twoPi / (n - 1));
        return static_cast<float>(ld{0.42} - ld{0.5} * cosl(t) + ld{0.08} * cosl(2 * t));
    }
    }
    return 0.0f;
}

class Windows : public LibTest {
protected:
    void SetUp() override {
        LibTest::SetUp();
        for (int k = 0; k < 4; ++k)
            kShortRelease[k]();
        QXFreePreemphasizeTbls();
        live0_ = qx::testing::live_blocks();
    }
    void TearDown() override {
        for (int k = 0; k < 4; ++k)
            kShortRelease[k]();
        QXFreePreemphasizeTbls();
        EXPECT_EQ(qx::testing::live_blocks(), live0_);
        LibTest::TearDown();
    }
    static long allocs() { return qx::testing::allocations(); }
    static long live() { return qx::testing::live_blocks(); }
    long live0_ = 0;
};

void expect_lines() {
    for (auto& r : kvxtest::reports())
        EXPECT_TRUE(kvxtest::names_raising_line(r)) << r.function << " " << r.condition;
}

}  // namespace

TEST_F(Windows, FloatCoefficientsFollowTheFormulas) {
    for (int k = 0; k < 4; ++k) {
        for (int n : {2, 3, 4, 5, 16, 255, 256, 400, 512}) {
            std::vector<float> v(n, 1.0f);
            kFloat[k](v.data(), n);
            for (int i = 0; i < n; ++i)
                ASSERT_EQ(v[i], reference(Kind(k), i, n)) << kFloatName[k] << " n=" << n << " i=" << i;
            // Applied to data: element-wise product with the same table.
            std::vector<float> x(n);
            for (int i = 0; i < n; ++i)
                x[i] = static_cast<float>((i * 37) % 101) - 50.0f;
            std::vector<float> y = x;
            kFloat[k](y.data(), n);
            for (int i = 0; i < n; ++i)
                ASSERT_EQ(y[i], x[i] * reference(Kind(k), i, n));
        }
    }
    // Familiar values.
    float h2[2] = {1, 1}, b3[3] = {1, 1, 1}, n3[3] = {1, 1, 1};
    QXsWinHamming(h2, 2);
    QXsWinBartlett(b3, 3);
    QXsWinHanning(n3, 3);
    EXPECT_NEAR(h2[0], 0.08, 1e-6);
    EXPECT_NEAR(h2[1], 0.08, 1e-6);
    EXPECT_EQ(b3[0], 0.0f);
    EXPECT_EQ(b3[1], 1.0f);
    EXPECT_EQ(b3[2], 0.0f);
    EXPECT_NEAR(n3[0], 0.5, 1e-6);
    EXPECT_NEAR(n3[1], 1.0, 1e-6);
    EXPECT_NEAR(n3[2], 0.5, 1e-6);
    // Hanning never reaches zero at its ends; the others do (Blackman to
    // rounding of 0.42 - 0.5 + 0.08).
    float ends[4][8];
    for (int k = 0; k < 4; ++k) {
        for (float& e : ends[k]) e = 1.0f;
        kFloat[k](ends[k], 8);
    }
    EXPECT_GT(ends[Hanning][0], 0.01f);
    EXPECT_GT(ends[Hanning][7], 0.01f);
    EXPECT_NEAR(ends[Hamming][7], 0.08, 1e-6);
    EXPECT_NEAR(ends[Blackman][0], 0.0, 1e-6);
    EXPECT_EQ(ends[Bartlett][7], 2.0f - 7.0f * (2.0f / 7.0f));
    EXPECT_TRUE(got().empty());
}

TEST_F(Windows, LengthOneIsTheIdentityAndCachesNothing) {
    for (int k = 0; k < 4; ++k) {
        float v = 3.5f;
        long a = allocs();
        kFloat[k](&v, 1);
        EXPECT_EQ(v, 3.5f);
        EXPECT_EQ(allocs(), a);
    }
    float p = -2.0f;
    EXPECT_EQ(QXsPreemphasize(&p, 0.97f, 1), 0);
    EXPECT_EQ(p, -2.0f);
    EXPECT_TRUE(got().empty());
}

TEST_F(Windows, SixteenLengthsAreCachedAndTheSeventeenthEmptiesTheCache) {
    std::vector<float> v(40, 1.0f);
    long a = allocs();
    for (int n = 2; n < 18; ++n)
        QXsWinHamming(v.data(), n);
    EXPECT_EQ(allocs(), a + 16);
    EXPECT_EQ(live(), live0_ + 16);
    // Every cached length, in any order, allocates nothing: the cursor slot
    // first, then the search.
    for (int n : {17, 17, 2, 9, 16, 3, 3, 10})
        QXsWinHamming(v.data(), n);
    EXPECT_EQ(allocs(), a + 16);
    // Other kinds keep caches of their own.
    QXsWinBlackman(v.data(), 2);
    EXPECT_EQ(allocs(), a + 17);
    // The seventeenth length releases the sixteen Hamming tables and takes slot 0.
    std::fill(v.begin(), v.end(), 1.0f);
    QXsWinHamming(v.data(), 30);
    EXPECT_EQ(allocs(), a + 18);
    EXPECT_EQ(live(), live0_ + 2);
    EXPECT_EQ(v[0], reference(Hamming, 0, 30));
    EXPECT_EQ(v[15], reference(Hamming, 15, 30));
    EXPECT_EQ(qx::context()->win[qx::kHamming].sCache.count, 1);
    EXPECT_EQ(qx::context()->win[qx::kHamming].sCache.lengths[0], 30);
    // An evicted length is computed again, correctly.
    std::fill(v.begin(), v.end(), 1.0f);
    QXsWinHamming(v.data(), 5);
    EXPECT_EQ(allocs(), a + 19);
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(v[i], reference(Hamming, i, 5));
    // Release gives everything back; the Blackman table stays until its own release.
    QXsFreeWinHammingTbls();
    EXPECT_EQ(live(), live0_ + 1);
    QXsFreeWinBlackmanTbls();
    EXPECT_EQ(live(), live0_);
    EXPECT_TRUE(got().empty());
}

TEST_F(Windows, ShortWindowsGoThroughFloatsWithTheCallersScaling) {
    const int n = 64;
    std::vector<short> x(n);
    for (int i = 0; i < n; ++i)
        x[i] = static_cast<short>((i * 977) % 20001 - 10000);
    for (int k = 0; k < 4; ++k) {
        // doScale 0: float product truncated toward zero, factor forced to 0.
        std::vector<short> y = x;
        int sf = 5;
        kShort[k](y.data(), n, 0, &sf);
        EXPECT_EQ(sf, 0);
        for (int i = 0; i < n; ++i)
            ASSERT_EQ(y[i], static_cast<short>(std::trunc(static_cast<float>(x[i]) * reference(Kind(k), i, n))));
        // doScale 1 with factor 2: divided by 4, truncated.
        y = x;
        sf = 2;
        kShort[k](y.data(), n, 1, &sf);
        EXPECT_EQ(sf, 2);
        for (int i = 0; i < n; ++i)
            ASSERT_EQ(y[i], static_cast<short>(std::trunc(
                                static_cast<double>(static_cast<float>(x[i]) * reference(Kind(k), i, n)) * 0.25)));
    }
    // doScale 2 on a full-scale frame: the windowed maximum stays below 32767,
    // so the block already fits and cannot be doubled: factor 0.
    std::vector<short> full(512, 32767);
    int sf = 9;
    QXwWinHamming(full.data(), 512, 2, &sf);
    EXPECT_EQ(sf, 0);
    EXPECT_EQ(full[256], static_cast<short>(32767.0f * reference(Hamming, 256, 512)));
    // A quiet frame is enlarged by the largest power of two that keeps its
    // maximum below 32767.
    std::vector<short> quiet(512, 100);
    QXwWinHanning(quiet.data(), 512, 2, &sf);
    float peak = 0;
    for (int i = 0; i < 512; ++i)
        peak = std::max(peak, 100.0f * reference(Hanning, i, 512));
    int k = 0;
    while (peak * std::ldexp(1.0, k + 1) < 32767.0)
        ++k;
    EXPECT_EQ(sf, -k);
    EXPECT_EQ(quiet[0], static_cast<short>(std::trunc(100.0f * reference(Hanning, 0, 512) * std::ldexp(1.0, k))));
    EXPECT_TRUE(got().empty());
}

TEST_F(Windows, ShortReleaseGivesBackTheBufferAndTheFloatTables) {
    std::vector<short> x(100, 1000);
    int sf = 0;
    long a = allocs();
    QXwWinBartlett(x.data(), 100, 0, &sf);  // buff and one table
    EXPECT_EQ(allocs(), a + 2);
    QXwWinBartlett(x.data(), 80, 0, &sf);   // buff is large enough; new table
    EXPECT_EQ(allocs(), a + 3);
    QXwWinBartlett(x.data(), 100, 0, &sf);  // all cached
    EXPECT_EQ(allocs(), a + 3);
    EXPECT_EQ(qx::context()->win[qx::kBartlett].buffCap, 100);
    QXwFreeWinBartlettTbls();
    EXPECT_EQ(live(), live0_);
    EXPECT_EQ(qx::context()->win[qx::kBartlett].buffCap, 0);
    EXPECT_EQ(qx::context()->win[qx::kBartlett].sCache.count, 0);
    EXPECT_TRUE(got().empty());
}

TEST_F(Windows, FloatPreemphasisUsesThePreviousInputSample) {
    float v[4] = {1, 2, 3, 4};
    EXPECT_EQ(QXsPreemphasize(v, 0.5f, 4), 0);
    EXPECT_EQ(v[0], 1.0f);
    EXPECT_EQ(v[1], 1.5f);
    EXPECT_EQ(v[2], 2.0f);
    EXPECT_EQ(v[3], 2.5f);
    std::vector<float> x(300), y;
    for (int i = 0; i < 300; ++i)
        x[i] = std::sin(0.1f * i) * 1000.0f + static_cast<float>(i % 7);
    y = x;
    QXsPreemphasize(y.data(), 0.97f, 300);
    for (int i = 1; i < 300; ++i)
        ASSERT_EQ(y[i], static_cast<float>(double{x[i]} - double{0.97f} * double{x[i - 1]}));
    EXPECT_EQ(y[0], x[0]);
    EXPECT_TRUE(got().empty());
}

TEST_F(Windows, ShortPreemphasisDirectAndScaled) {
    // doScale 0 works on the shorts: truncation toward zero, low 16 bits kept.
    short a[2] = {100, 100};
    int sf = 7;
    EXPECT_EQ(QXwPreemphasize(a, 0.5f, 2, 0, &sf), 0);
    EXPECT_EQ(a[0], 100);
    EXPECT_EQ(a[1], 50);
    EXPECT_EQ(sf, 0);
    short b[2] = {100, 100};
    QXwPreemphasize(b, 0.97f, 2, 0, &sf);  // 0.97f is slightly above 0.97
    EXPECT_EQ(b[1], 2);
    short c[3] = {-32768, 32767, -7};
    QXwPreemphasize(c, -1.0f, 3, 0, &sf);  // 65535 wraps to -1; -7 + 32767
    EXPECT_EQ(c[1], -1);
    EXPECT_EQ(c[2], 32760);
    short d[2] = {3, 3};
    QXwPreemphasize(d, 1e30f, 2, 0, &sf);  // beyond 64 bits: low bits of the indefinite integer
    EXPECT_EQ(d[1], 0);
    EXPECT_EQ(qx::testing::live_blocks(), live0_);  // the direct path needs no buffer

    // Other doScale values go through the float buffer and the conversion.
    short e[3] = {100, 100, 40};
    sf = 1;
    QXwPreemphasize(e, 0.5f, 3, 1, &sf);
    EXPECT_EQ(e[0], 50);
    EXPECT_EQ(e[1], 25);
    EXPECT_EQ(e[2], -5);
    EXPECT_EQ(sf, 1);
    short f[2] = {1000, 1000};
    QXwPreemphasize(f, 0.5f, 2, 2, &sf);  // max 1000 enlarged by 2^5 (32000 < 32767)
    EXPECT_EQ(sf, -5);
    EXPECT_EQ(f[0], 32000);
    EXPECT_EQ(f[1], 16000);
    short g[2] = {30000, -30000};
    QXwPreemphasize(g, 1.0f, 2, 3, &sf);  // saturates
    EXPECT_EQ(g[1], -32768);
    EXPECT_EQ(sf, 0);
    // The buffer grows only when too small and is released by its routine.
    EXPECT_EQ(qx::context()->preemphCap, 3);
    long n0 = allocs();
    std::vector<short> h(10, 1);
    QXwPreemphasize(h.data(), 0.5f, 2, 1, &sf);
    EXPECT_EQ(allocs(), n0);
    QXwPreemphasize(h.data(), 0.5f, 10, 1, &sf);
    EXPECT_EQ(allocs(), n0 + 1);
    EXPECT_EQ(qx::context()->preemphCap, 10);
    QXFreePreemphasizeTbls();
    EXPECT_EQ(qx::context()->preemphCap, 0);
    EXPECT_EQ(live(), live0_);
    EXPECT_TRUE(got().empty());
}

TEST_F(Windows, ArgumentChecksInOrder) {
    for (int k = 0; k < 4; ++k) {
        kFloat[k](nullptr, 0);
        EXPECT_EQ(got(), (std::vector<Rep>{{-5, kFloatName[k], "n<=0"}, {-5, kFloatName[k], "vect==0"}}));
        expect_lines();
        clear();
        int sf = 65;
        kShort[k](nullptr, 0, 1, &sf);
        EXPECT_EQ(got(), (std::vector<Rep>{{-5, kShortName[k], "*scaleFactor>64"},
                                          {-5, kShortName[k], "n<=0"},
                                          {-5, kShortName[k], "vect==0"}}));
        expect_lines();
        clear();
        short v[2] = {10, 20};
        kShort[k](v, 2, -1, nullptr);
        kShort[k](v, 2, 4, &sf);
        EXPECT_EQ(got(), (std::vector<Rep>{{-5, kShortName[k], "doScale<0"},
                                          {-5, kShortName[k], "scaleFactor==0"},
                                          {-5, kShortName[k], "doScale>3"}}));
        EXPECT_EQ(v[0], 10);
        EXPECT_EQ(v[1], 20);
        clear();
    }
    float f[2] = {1, 2};
    EXPECT_EQ(QXsPreemphasize(nullptr, 0.5f, -1), -5);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsPreemphasize", "n<=0"}, {-5, "QXsPreemphasize", "vect==0"}}));
    expect_lines();
    // A pending error stops the next call before any work.
    EXPECT_EQ(QXsPreemphasize(f, 0.5f, 2), -5);
    EXPECT_EQ(f[1], 2.0f);
    clear();
    int sf = -65;
    short s[2] = {4, 4};
    EXPECT_EQ(QXwPreemphasize(s, 0.5f, 0, 1, &sf), -5);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXwPreemphasize", "*scaleFactor<-64"}, {-5, "QXwPreemphasize", "n<=0"}}));
    expect_lines();
    clear();
    QXwPreemphasize(nullptr, 0.5f, 2, 5, nullptr);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXwPreemphasize", "doScale>3"},
                                      {-5, "QXwPreemphasize", "scaleFactor==0"},
                                      {-5, "QXwPreemphasize", "vect==0"}}));
    EXPECT_EQ(s[1], 4);
    clear();
}

TEST_F(Windows, AllocationFailuresLeaveDataAndCachesIntact) {
    for (int k = 0; k < 4; ++k) {
        float v[3] = {1, 1, 1};
        {
            FailAllocation fail(1);
            kFloat[k](v, 3);
        }
        EXPECT_EQ(got(), (std::vector<Rep>{{-4, kFloatName[k], "insufficiency of memory for pointer  sCoeff"}}));
        expect_lines();
        EXPECT_EQ(v[0], 1.0f);
        EXPECT_EQ(qx::context()->win[k].sCache.count, 0);
        clear();
        kFloat[k](v, 3);  // works once memory is back
        EXPECT_EQ(v[1], reference(Kind(k), 1, 3));
        kFloatRelease[k]();

        short s[3] = {100, 100, 100};
        int sf = 0;
        {
            FailAllocation fail(1);
            kShort[k](s, 3, 0, &sf);
        }
        EXPECT_EQ(got(), (std::vector<Rep>{{-4, kShortName[k], "insufficiency of memory for pointer  buff"}}));
        expect_lines();
        clear();
        {
            FailAllocation fail(2);  // buff succeeds, the table fails in the float window
            kShort[k](s, 3, 0, &sf);
        }
        EXPECT_EQ(got(), (std::vector<Rep>{{-4, kFloatName[k], "insufficiency of memory for pointer  sCoeff"}}));
        EXPECT_EQ(s[0], 100);
        EXPECT_EQ(s[1], 100);
        clear();
        kShortRelease[k]();
        EXPECT_EQ(live(), live0_);
    }
    short p[4] = {5, 6, 7, 8};
    int sf = 0;
    {
        FailAllocation fail(1);
        EXPECT_EQ(QXwPreemphasize(p, 0.5f, 4, 1, &sf), -4);
    }
    EXPECT_EQ(got(), (std::vector<Rep>{{-4, "QXwPreemphasize", "insufficiency of memory for pointer  buff"}}));
    expect_lines();
    EXPECT_EQ(p[1], 6);
    EXPECT_EQ(qx::context()->preemphCap, 0);
}
