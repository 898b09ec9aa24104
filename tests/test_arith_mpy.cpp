// Element-wise multiplication of byte, short, nibble and float vectors.
#include <cstdint>
#include <random>
#include <vector>

#include "kvx_test.h"

using kvxtest::LibTest;
using kvxtest::Rep;

namespace {

class Mpy : public LibTest {};

std::vector<float> random_floats(std::mt19937& g, int n) {
    std::uniform_real_distribution<float> d(-100.0f, 100.0f);
    std::vector<float> v(n);
    for (auto& x : v) x = d(g);
    return v;
}

}  // namespace

TEST_F(Mpy, FloatFormsMatchElementProducts) {
    std::mt19937 g(7);
    for (int n : {1, 3, 4, 5, 17, 64, 1001}) {
        auto a = random_floats(g, n), b = random_floats(g, n);
        float val = 3.25f;
        std::vector<float> dst(n + 1, 99.0f);
        ASSERT_EQ(QXsbMpy3(a.data(), b.data(), dst.data(), n), 0);
        for (int k = 0; k < n; ++k) EXPECT_EQ(dst[k], a[k] * b[k]) << k;
        EXPECT_EQ(dst[n], 99.0f);  // nothing written past the end

        auto c = b;
        ASSERT_EQ(QXsbMpy2(a.data(), c.data(), n), 0);
        for (int k = 0; k < n; ++k) EXPECT_EQ(c[k], b[k] * a[k]) << k;

        c = b;
        ASSERT_EQ(QXsbMpy2s(val, c.data(), n), 0);
        for (int k = 0; k < n; ++k) EXPECT_EQ(c[k], b[k] * val) << k;
    }
    EXPECT_TRUE(got().empty());
}

TEST_F(Mpy, FloatFormChecksInOrder) {
    float v[2] = {1, 2};
    EXPECT_EQ(QXsbMpy2(nullptr, nullptr, 0), -5);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsbMpy2", "n<=0"}, {-5, "QXsbMpy2", "src==0"}, {-5, "QXsbMpy2", "dst==0"}}));
    clear();
    EXPECT_EQ(QXsbMpy3(nullptr, nullptr, nullptr, -1), -5);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsbMpy3", "n<=0"}, {-5, "QXsbMpy3", "srcA==0"}, {-5, "QXsbMpy3", "srcB==0"},
                                       {-5, "QXsbMpy3", "dst==0"}}));
    clear();
    EXPECT_EQ(QXsbMpy2s(2.0f, nullptr, 0), -5);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsbMpy2s", "n<=0"}, {-5, "QXsbMpy2s", "dst==0"}}));
    for (const auto& rep : kvxtest::reports()) EXPECT_TRUE(kvxtest::names_raising_line(rep));
    clear();
    // A pending error stops the call before any work.
    QXSetStatus(-5);
    EXPECT_EQ(QXsbMpy2s(2.0f, v, 2), -5);
    EXPECT_EQ(v[0], 1.0f);
}
