// Windows and pre-emphasis: coefficients against the window formulas evaluated
// here, the per-length cache seen through allocation counts, pre-emphasis
// examples, checks and allocation failures.
#include <cmath>
#include <string>
#include <vector>

#include "kvx_test.h"

using kvxtest::LibTest;
using kvxtest::Rep;

namespace {

enum Kind { Hamming, Hanning, Bartlett, Blackman };
const char* const kName[4] = {"Hamming", "Hanning", "Bartlett", "Blackman"};
void (*const kFloat[4])(float*, int) = {QXsWinHamming, QXsWinHanning, QXsWinBartlett, QXsWinBlackman};
void (*const kShort[4])(short*, int, int, int*) = {QXwWinHamming, QXwWinHanning, QXwWinBartlett, QXwWinBlackman};

// The window definitions in extended precision with the decimal 6.2831853,
// rounded once to float; Bartlett is a ramp of float products.
float reference(Kind kind, int i, int n) {
    using ld = long double;
    const ld twoPi = 6.2831853, t = i * (twoPi / (n - 1));
    const float d = 2.0f / static_cast<float>(n - 1);
    switch (kind) {
    case Hamming: return static_cast<float>(ld{0.54} - ld{0.46} * cosl(t));
    case Hanning: return static_cast<float>(ld{0.5} - ld{0.5} * cosl((i + 1) * (twoPi / (n + 1))));
    case Bartlett: return i <= (n - 1) / 2 ? static_cast<float>(i) * d : 2.0f - static_cast<float>(i) * d;
    case Blackman: return static_cast<float>(ld{0.42} - ld{0.5} * cosl(t) + ld{0.08} * cosl(2 * t));
    }
    return 0.0f;
}

// Every window and pre-emphasis table released: nothing of this family is live.
void release_all() {
    for (auto r : {QXwFreeWinHammingTbls, QXwFreeWinHanningTbls, QXwFreeWinBartlettTbls, QXwFreeWinBlackmanTbls}) r();
    QXFreePreemphasizeTbls();
}

class Windows : public LibTest {
protected:
    void TearDown() override {
        release_all();
        EXPECT_EQ(live(), live0_);
        LibTest::TearDown();
    }
    static long live() { return qx::testing::live_blocks(); }
    static long allocs() { return qx::testing::allocations(); }
    const long live0_ = live();
};

}  // namespace

TEST_F(Windows, CoefficientsFollowTheFormulasForFloatsAndShorts) {
    for (int k = 0; k < 4; ++k)
        for (int n : {2, 3, 4, 5, 16, 255, 400, 512}) {
            std::vector<float> v(n, 1.0f);
            std::vector<short> s(n), x(n);
            for (int i = 0; i < n; ++i) s[i] = x[i] = static_cast<short>((i * 977) % 20001 - 10000);
            int sf = 5;
            kFloat[k](v.data(), n);
            kShort[k](s.data(), n, 0, &sf);  // through floats, truncated toward zero
            EXPECT_EQ(sf, 0);
            for (int i = 0; i < n; ++i) {
                ASSERT_EQ(v[i], reference(Kind(k), i, n)) << kName[k] << " n=" << n << " i=" << i;
                ASSERT_EQ(s[i], static_cast<short>(std::trunc(x[i] * reference(Kind(k), i, n)))) << kName[k];
            }
        }
    EXPECT_TRUE(got().empty());
}

TEST_F(Windows, SixteenLengthsAreCachedAndTheSeventeenthEmptiesTheCache) {
    std::vector<float> v(40, 3.5f);
    const long a = allocs();
    QXsWinHamming(v.data(), 1);  // the identity; nothing cached
    EXPECT_EQ(v[0], 3.5f);
    for (int n : {2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 17, 2, 9, 3}) QXsWinHamming(v.data(), n);
    EXPECT_EQ(allocs(), a + 16);
    EXPECT_EQ(live(), live0_ + 16);
    QXsWinBlackman(v.data(), 2);  // a cache of its own
    v.assign(40, 1.0f);
    QXsWinHamming(v.data(), 30);  // gives back the sixteen Hamming tables
    EXPECT_EQ(allocs(), a + 18);
    EXPECT_EQ(live(), live0_ + 2);
    EXPECT_EQ(v[15], reference(Hamming, 15, 30));
    QXsWinHamming(v.data(), 5);  // evicted: computed again
    EXPECT_EQ(allocs(), a + 19);
    EXPECT_TRUE(got().empty());
}

TEST_F(Windows, PreemphasisFromThePreviousInputSample) {
    std::vector<float> f{1, 2, 3, 4}, x(300);
    EXPECT_EQ(QXsPreemphasize(f.data(), 0.5f, 4), 0);
    EXPECT_EQ(f, (std::vector<float>{1.0f, 1.5f, 2.0f, 2.5f}));
    EXPECT_EQ(QXsPreemphasize(f.data(), 0.5f, 1), 0);
    EXPECT_EQ(f[0], 1.0f);
    for (int i = 0; i < 300; ++i) x[i] = std::sin(0.1f * i) * 1000.0f + static_cast<float>(i % 7);
    std::vector<float> y = x;  // long enough to cross block boundaries
    QXsPreemphasize(y.data(), 0.97f, 300);
    for (int i = 1; i < 300; ++i) ASSERT_EQ(y[i], static_cast<float>(x[i] - double{0.97f} * x[i - 1])) << i;
    // doScale 0 works on the shorts, truncating toward zero and keeping the low
    // 16 bits; 0.97f lies slightly above 0.97; beyond 64 bits the low bits are 0.
    short a[2] = {100, 100}, b[2] = {100, 100}, c[3] = {-32768, 32767, -7}, d[2] = {3, 3}, e[2] = {1000, 1000};
    int sf = 7;
    EXPECT_EQ(QXwPreemphasize(a, 0.5f, 2, 0, &sf), 0);
    EXPECT_EQ(QXwPreemphasize(b, 0.97f, 2, 0, &sf), 0);
    QXwPreemphasize(c, -1.0f, 3, 0, &sf);
    QXwPreemphasize(d, 1e30f, 2, 0, &sf);
    EXPECT_TRUE(a[0] == 100 && a[1] == 50 && b[1] == 2 && c[1] == -1 && c[2] == 32760 && d[1] == 0 && sf == 0);
    EXPECT_EQ(live(), live0_);  // no buffer
    QXwPreemphasize(e, 0.5f, 2, 2, &sf);  // through floats, enlarged by 2^5
    EXPECT_TRUE(e[0] == 32000 && e[1] == 16000 && sf == -5);
    EXPECT_TRUE(got().empty());
}

TEST_F(Windows, ChecksInOrder) {
    std::vector<Rep> want;
    int sf = 65;
    short v[2] = {10, 20};
    for (int k = 0; k < 4; ++k) {
        const std::string fl = std::string("QXsWin") + kName[k], sh = std::string("QXwWin") + kName[k];
        kFloat[k](nullptr, 0);
        kShort[k](nullptr, 0, 1, &sf);
        kShort[k](v, 2, -1, nullptr);
        kShort[k](v, 2, 4, &sf);
        want.insert(want.end(), {{-5, fl, "n<=0"}, {-5, fl, "vect==0"}, {-5, sh, "*scaleFactor>64"}, {-5, sh, "n<=0"},
                                 {-5, sh, "vect==0"}, {-5, sh, "doScale<0"}, {-5, sh, "scaleFactor==0"},
                                 {-5, sh, "doScale>3"}});
    }
    float f[2] = {1, 2};
    EXPECT_EQ(QXsPreemphasize(nullptr, 0.5f, -1), -5);
    EXPECT_EQ(QXsPreemphasize(f, 0.5f, 2), -5);  // a pending error stops it before any work
    sf = -65;
    EXPECT_EQ(QXwPreemphasize(v, 0.5f, 0, 1, &sf), -5);
    QXwPreemphasize(nullptr, 0.5f, 2, 5, nullptr);
    const std::string sp = "QXsPreemphasize", wp = "QXwPreemphasize";
    want.insert(want.end(), {{-5, sp, "n<=0"}, {-5, sp, "vect==0"}, {-5, wp, "*scaleFactor<-64"}, {-5, wp, "n<=0"},
                             {-5, wp, "doScale>3"}, {-5, wp, "scaleFactor==0"}, {-5, wp, "vect==0"}});
    EXPECT_EQ(got(), want);
    EXPECT_TRUE(v[0] == 10 && v[1] == 20 && f[1] == 2.0f);
    EXPECT_TRUE(kvxtest::all_name_raising_lines());
}
