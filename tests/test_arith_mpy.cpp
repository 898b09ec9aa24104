// Element-wise multiplication of byte, short, nibble and float vectors.
#include <cstdint>
#include <random>
#include <vector>

#include "test_arith_reference.h"

using arithref::Op;
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

TEST_F(Mpy, BytesAndShortsMatchTheReferenceInEveryMode) {
    arithref::checkAgainstReference(Op::mul, arithref::kU8,
                                    arithref::Forms<unsigned char>{"QXybMpy2", QXybMpy2, "QXybMpy3", QXybMpy3,
                                                                   "QXybMpy2s", QXybMpy2s}, 21);
    arithref::checkAgainstReference(Op::mul, arithref::kS8,
                                    arithref::Forms<signed char>{"QXtbMpy2", QXtbMpy2, "QXtbMpy3", QXtbMpy3,
                                                                 "QXtbMpy2s", QXtbMpy2s}, 22);
    arithref::checkAgainstReference(Op::mul, arithref::kS16,
                                    arithref::Forms<short>{"QXwbMpy2", QXwbMpy2, "QXwbMpy3", QXwbMpy3, "QXwbMpy2s",
                                                           QXwbMpy2s}, 23);
}

TEST_F(Mpy, NibblesMatchTheReferenceAndKeepTheirNeighbours) {
    arithref::checkNibbles(Op::mul, {"QXnbMpy2", QXnbMpy2, "QXnbMpy3", QXnbMpy3, "QXnbMpy2s", QXnbMpy2s}, 24);
}

TEST_F(Mpy, AutomaticShiftFollowsTheLargestProduct) {
    int sf = 0;
    unsigned char y[2] = {20, 2}, ys[2] = {20, 3};
    QXybMpy2(ys, y, 2, 2, &sf);
    EXPECT_EQ(y[0], 200);
    EXPECT_EQ(y[1], 3);
    EXPECT_EQ(sf, 1);

    unsigned char z[3] = {2, 255, 100}, zs[3] = {3, 255, 1};
    QXybMpy2(zs, z, 3, 2, &sf);
    EXPECT_EQ(sf, 8);
    EXPECT_EQ(std::vector<int>(z, z + 3), (std::vector<int>{0, 254, 0}));

    // Only the products from the first one out of range decide; the smaller
    // product wins when its magnitude is larger.
    signed char t[3] = {-128, 1, 100}, ts[3] = {127, 1, 1};
    QXtbMpy2(ts, t, 3, 2, &sf);
    EXPECT_EQ(sf, 7);
    EXPECT_EQ(std::vector<int>(t, t + 3), (std::vector<int>{-127, 0, 0}));

    // Nothing out of range: the products stay and the factor is 0.
    short w[2] = {181, -181}, ws[2] = {181, 181};
    sf = 5;
    QXwbMpy2(ws, w, 2, 2, &sf);
    EXPECT_EQ(w[0], 32761);
    EXPECT_EQ(w[1], -32761);
    EXPECT_EQ(sf, 0);
    EXPECT_TRUE(got().empty());
}

TEST_F(Mpy, SaturatingCheckedAndFixedShiftCases) {
    int sf = 4;
    signed char t[1] = {-128}, ts[1] = {-128};
    QXtbMpy2(ts, t, 1, 3, &sf);
    EXPECT_EQ(t[0], 127);
    EXPECT_EQ(sf, 0);

    unsigned char y[1] = {20}, ys[1] = {20};
    sf = 0;
    QXybMpy2(ys, y, 1, 1, &sf);  // the wrapped product
    EXPECT_EQ(y[0], 144);
    EXPECT_EQ(sf, 0);

    t[0] = -128;
    EXPECT_EQ(QXtbMpy2s(2, t, 1, 0, &sf), -21);
    EXPECT_EQ(t[0], 0);
    QXSetStatus(0);  // keep the reports, clear the pending error
    t[0] = 100;
    EXPECT_EQ(QXtbMpy2s(2, t, 1, 0, &sf), -20);
    EXPECT_EQ(t[0], -56);
    EXPECT_EQ(got(), (std::vector<Rep>{{-21, "QXtbMpy2s", ""}, {-20, "QXtbMpy2s", ""}}));
    for (const auto& r : kvxtest::reports()) EXPECT_TRUE(kvxtest::names_raising_line(r));
    clear();

    // Negative factors wrap the product, then shift it left.
    short w[1] = {300};
    sf = -2;
    QXwbMpy2s(300, w, 1, 1, &sf);  // 90000 wraps to 24464, times 4 wraps to 32320
    EXPECT_EQ(w[0], 32320);
}

TEST_F(Mpy, ByteFormsRunBackwardInFixedShiftAndSaturatingModes) {
    // srcDst[k] *= src[k] with src one element ahead: the last element first.
    unsigned char v[4] = {2, 3, 4, 5};
    int sf = 0;
    QXybMpy2(v + 1, v, 3, 3, &sf);
    // k = 2: 4*5 = 20; k = 1: 3*20 = 60; k = 0: 2*60 = 120.
    EXPECT_EQ(std::vector<int>(v, v + 4), (std::vector<int>{120, 60, 20, 5}));
    signed char t[3] = {2, 3, 4};
    sf = 0;
    QXtbMpy2(t + 1, t, 2, 1, &sf);
    EXPECT_EQ(std::vector<int>(t, t + 3), (std::vector<int>{24, 12, 4}));
}

TEST_F(Mpy, TheByteFormReportsItsScalingChecksUnderTheSignedName) {
    int sf = 65;
    QXybMpy2(nullptr, nullptr, 0, 1, &sf);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXtbMpy2", "*scaleFactor>64"}, {-5, "QXybMpy2", "n<=0"},
                                       {-5, "QXybMpy2", "src==0"}, {-5, "QXybMpy2", "dst==0"}}));
    clear();
    QXybMpy2(nullptr, nullptr, 1, -1, nullptr);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXtbMpy2", "doScale<0"}, {-5, "QXtbMpy2", "scaleFactor==0"},
                                       {-5, "QXybMpy2", "src==0"}, {-5, "QXybMpy2", "dst==0"}}));
    clear();
    unsigned char v[1] = {3};
    QXnbMpy2s(3, v, 3, -2, 5, &sf);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXnbMpy2s", "dstStartPos>1"}, {-5, "QXnbMpy2s", "doScale>3"},
                                       {-5, "QXnbMpy2s", "n<=0"}}));
    for (const auto& r : kvxtest::reports()) EXPECT_TRUE(kvxtest::names_raising_line(r));
    clear();
    EXPECT_EQ(v[0], 3);
}
