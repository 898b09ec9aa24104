// Absolute value, shifts, minimum and maximum, and sums.
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "test_arith_reference.h"

using kvxtest::LibTest;
using kvxtest::Rep;

namespace {

class Misc : public LibTest {};

template <class T>
std::vector<T> randomData(std::mt19937& g, int n) {
    std::uniform_int_distribution<int> d(std::numeric_limits<T>::min(), std::numeric_limits<T>::max());
    std::vector<T> v(n);
    for (auto& x : v) x = T(d(g));
    return v;
}

// Bit k of a packed bit vector starting at bit p of its first byte.
int bitAt(const std::vector<uint8_t>& v, int p, int k) {
    int pos = (7 - p) + k;
    return (v[pos / 8] >> (7 - pos % 8)) & 1;
}

}  // namespace

TEST_F(Misc, AbsoluteValue) {
    signed char t[4] = {-128, -5, 0, 7};
    QXtbAbs(t, 4);
    EXPECT_EQ(std::vector<int>(t, t + 4), (std::vector<int>{-128, 5, 0, 7}));
    short w[3] = {-32768, -32767, 12}, w2[3];
    QXwbAbs2(w, w2, 3);
    EXPECT_EQ(std::vector<int>(w2, w2 + 3), (std::vector<int>{-32768, 32767, 12}));
    QXwbAbs(w, 3);
    EXPECT_EQ(std::vector<int>(w, w + 3), (std::vector<int>{-32768, 32767, 12}));
    signed char t2[2];
    signed char ts[2] = {-1, 1};
    QXtbAbs2(ts, t2, 2);
    EXPECT_EQ(t2[0], 1);
    EXPECT_EQ(t2[1], 1);

    float f[4] = {-1.5f, -0.0f, 2.0f, -std::numeric_limits<float>::infinity()}, f2[4];
    QXsbAbs2(f, f2, 4);
    EXPECT_EQ(f2[0], 1.5f);
    EXPECT_TRUE(std::signbit(f2[1]));  // negative zero does not compare below zero
    EXPECT_EQ(f2[2], 2.0f);
    EXPECT_EQ(f2[3], std::numeric_limits<float>::infinity());
    QXsbAbs(f, 4);
    EXPECT_EQ(f[0], 1.5f);
    EXPECT_TRUE(std::signbit(f[1]));

    // The in-place form runs backward; over a random vector it matches the reference.
    std::mt19937 g(3);
    auto v = randomData<short>(g, 1000);
    auto ref = v;
    for (auto& x : ref) x = x < 0 ? short(arithref::wrapTo(-int64_t(x), arithref::kS16)) : x;
    QXwbAbs(v.data(), 1000);
    EXPECT_EQ(v, ref);
    EXPECT_TRUE(got().empty());

    QXtbAbs(nullptr, 0);
    QXsbAbs2(nullptr, nullptr, -3);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXtbAbs", "n<=0"}, {-5, "QXtbAbs", "dst==0"}, {-5, "QXsbAbs2", "n<=0"},
                                       {-5, "QXsbAbs2", "src==0"}, {-5, "QXsbAbs2", "dst==0"}}));
    for (const auto& r : kvxtest::reports()) EXPECT_TRUE(kvxtest::names_raising_line(r));
}

TEST_F(Misc, ShiftsOfBytesAndShorts) {
    unsigned char y[2] = {200, 255};
    QXybShiftL(y, 1, 1);
    EXPECT_EQ(y[0], 144);
    QXybShiftR(y + 1, 1, 1);
    EXPECT_EQ(y[1], 127);
    signed char t[1] = {-3};
    QXtbShiftR(t, 1, 1);
    EXPECT_EQ(t[0], -2);

    // Counts modulo 32, against a per-element reference for every count.
    std::mt19937 g(5);
    for (int shift : {0, 1, 3, 7, 8, 15, 16, 17, 31, 32, 33, 40, 63, -1, -31}) {
        SCOPED_TRACE(shift);
        int s = shift & 31;
        auto yv = randomData<unsigned char>(g, 37);
        auto tv = randomData<signed char>(g, 37);
        auto wv = randomData<short>(g, 37);
        auto yl = yv, yr = yv;
        auto tl = tv, tr = tv;
        auto wl = wv, wr = wv;
        QXybShiftL(yl.data(), 37, shift);
        QXybShiftR(yr.data(), 37, shift);
        QXtbShiftL(tl.data(), 37, shift);
        QXtbShiftR(tr.data(), 37, shift);
        QXwbShiftL(wl.data(), 37, shift);
        QXwbShiftR(wr.data(), 37, shift);
        for (int k = 0; k < 37; ++k) {
            EXPECT_EQ(yl[k], arithref::wrapTo(int64_t(yv[k]) << s, arithref::kU8));
            EXPECT_EQ(yr[k], int(yv[k]) >> s);
            EXPECT_EQ(tl[k], arithref::wrapTo(int64_t(tv[k]) * (int64_t(1) << s), arithref::kS8));
            EXPECT_EQ(tr[k], arithref::shr(tv[k], s));
            EXPECT_EQ(wl[k], arithref::wrapTo(int64_t(wv[k]) * (int64_t(1) << s), arithref::kS16));
            EXPECT_EQ(wr[k], arithref::shr(wv[k], s));
        }
    }
    EXPECT_TRUE(got().empty());

    QXwbShiftR(nullptr, 0, 1);
    QXybShiftL(y, -1, 1);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXwbShiftL", "n<=0"}, {-5, "QXwbShiftL", "dst==0"},
                                       {-5, "QXybShiftL", "n<=0"}}));
    for (const auto& r : kvxtest::reports()) EXPECT_TRUE(kvxtest::names_raising_line(r));
}

TEST_F(Misc, NibbleShiftsStayInsideTheirNibbles) {
    unsigned char b[1] = {0x9C};
    QXnbShiftL(b, 1, 2, 1);
    EXPECT_EQ(b[0], 0x28);

    std::mt19937 g(9);
    std::uniform_int_distribution<int> byte(0, 255);
    for (int n : {1, 2, 3, 4, 7, 10, 31}) {
        for (int p = 0; p <= 1; ++p) {
            for (int shift : {0, 1, 2, 3, 4, 33, 35}) {
                for (bool left : {true, false}) {
                    SCOPED_TRACE(testing::Message() << n << " " << p << " " << shift << " " << left);
                    std::vector<uint8_t> buf(n / 2 + 5);
                    for (auto& x : buf) x = uint8_t(byte(g));
                    auto want = buf;
                    int s = shift & 31;
                    for (int k = 0; k < n; ++k) {
                        int v = arithref::nib(buf, 2, p, k);
                        arithref::setNib(want, 2, p, k, left ? (v << s) & 15 : v >> s);
                    }
                    (left ? QXnbShiftL : QXnbShiftR)(buf.data() + 2, p, n, shift);
                    EXPECT_EQ(buf, want);
                }
            }
        }
    }
    QXnbShiftR(nullptr, -1, 0, 1);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXnbShiftR", "dstStartPos<0"}, {-5, "QXnbShiftR", "n<=0"},
                                       {-5, "QXnbShiftR", "dst==0"}}));
}

TEST_F(Misc, MinimumAndMaximumKeepTheFirstOccurrence) {
    int pos = -1;
    unsigned char y[3] = {5, 3, 3};
    EXPECT_EQ(QXyMin(y, 3, &pos), 3);
    EXPECT_EQ(pos, 1);
    unsigned char y2[2] = {7, 7};
    EXPECT_EQ(QXyMax(y2, 2, &pos), 7);
    EXPECT_EQ(pos, 0);
    signed char t[2] = {1, -1};
    EXPECT_EQ(QXtMin(t, 2, &pos), -1);
    EXPECT_EQ(pos, 1);
    unsigned char u[2] = {1, 255};
    EXPECT_EQ(QXyMin(u, 2, &pos), 1);
    EXPECT_EQ(pos, 0);

    std::mt19937 g(4);
    for (int n : {1, 2, 17, 300}) {
        auto w = randomData<short>(g, n);
        for (auto& x : w) x = short(x % 50);  // plenty of ties
        int lo = 0, hi = 0;
        for (int k = 1; k < n; ++k) {
            if (w[k] < w[lo]) lo = k;
            if (w[k] > w[hi]) hi = k;
        }
        EXPECT_EQ(QXwMin(w.data(), n, &pos), w[lo]);
        EXPECT_EQ(pos, lo);
        EXPECT_EQ(QXwMax(w.data(), n, &pos), w[hi]);
        EXPECT_EQ(pos, hi);
        std::vector<float> f(w.begin(), w.end());
        EXPECT_EQ(QXsMin(f.data(), n, &pos), f[lo]);
        EXPECT_EQ(pos, lo);
        EXPECT_EQ(QXsMax(f.data(), n, &pos), f[hi]);
        EXPECT_EQ(pos, hi);
        auto tb = randomData<signed char>(g, n);
        int tl = 0;
        for (int k = 1; k < n; ++k)
            if (tb[k] > tb[tl]) tl = k;
        EXPECT_EQ(QXtMax(tb.data(), n, &pos), tb[tl]);
        EXPECT_EQ(pos, tl);
    }

    // Nibbles, from either start position.
    unsigned char nb[3] = {0x3A, 0x1F, 0x0E};
    EXPECT_EQ(QXnMin(nb, 0, 3, &pos), 1);  // elements A, 1, F; the 0 after them lies beyond n
    EXPECT_EQ(pos, 1);
    EXPECT_EQ(QXnMax(nb, 0, 3, &pos), 15);
    EXPECT_EQ(pos, 2);
    EXPECT_EQ(QXnMin(nb, 1, 5, &pos), 0);
    EXPECT_EQ(pos, 4);
    EXPECT_TRUE(got().empty());

    EXPECT_EQ(QXnMax(nullptr, 2, 0, nullptr), 0);
    EXPECT_EQ(QXyMin(nullptr, 0, nullptr), 0);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXnMax", "src==0"}, {-5, "QXnMax", "position==0"},
                                       {-5, "QXnMax", "startPos>1"}, {-5, "QXnMax", "n<=0"},
                                       {-5, "QXyMin", "n<=0"}, {-5, "QXyMin", "src==0"},
                                       {-5, "QXyMin", "position==0"}}));
    for (const auto& r : kvxtest::reports()) EXPECT_TRUE(kvxtest::names_raising_line(r));
}

TEST_F(Misc, SumsAndTheirScaling) {
    int sf = 0;
    unsigned char y[2] = {3, 4};
    sf = 1;
    EXPECT_EQ(QXySum(y, 2, 1, &sf), 3);
    EXPECT_EQ(sf, 1);
    sf = -2;
    EXPECT_EQ(QXySum(y, 2, 1, &sf), 28);
    sf = 33;
    EXPECT_EQ(QXySum(y, 2, 1, &sf), 3);

    unsigned char bits[1] = {0x05};
    EXPECT_EQ(QXbSum(bits, 2, 3, 0, &sf), 2);
    EXPECT_EQ(sf, 0);

    // Bit and nibble counts over many start positions and lengths.
    std::mt19937 g(8);
    std::uniform_int_distribution<int> byte(0, 255);
    std::vector<uint8_t> buf(40);
    for (auto& x : buf) x = uint8_t(byte(g));
    for (int p = 0; p <= 7; ++p) {
        for (int n = 1; n <= 200; n += 7) {
            int want = 0;
            for (int k = 0; k < n; ++k) want += bitAt(buf, p, k);
            EXPECT_EQ(QXbSum(buf.data(), p, n, 3, &sf), want) << p << " " << n;
        }
    }
    for (int p = 0; p <= 1; ++p) {
        for (int n = 1; n <= 70; n += 3) {
            int want = 0;
            for (int k = 0; k < n; ++k) want += arithref::nib(buf, 0, p, k);
            EXPECT_EQ(QXnSum(buf.data(), p, n, 0, &sf), want) << p << " " << n;
        }
    }

    // Signed sums against a plain loop, across the internal block size.
    auto w = randomData<short>(g, 70000);
    int64_t ws = 0;
    for (auto x : w) ws += x;
    EXPECT_EQ(QXwSum(w.data(), 70000, 0, &sf), ws);
    auto t = randomData<signed char>(g, 999);
    int64_t ts = 0;
    for (auto x : t) ts += x;
    EXPECT_EQ(QXtSum(t.data(), 999, 3, &sf), ts);
    std::vector<float> f{0.5f, 0.25f, -2.0f};
    EXPECT_EQ(QXsSum(f.data(), 3), -1.25f);
    EXPECT_TRUE(got().empty());

    // Beyond the int range: checked raises (and still returns the wrapped
    // sum), automatic halves, saturating clamps.
    std::vector<short> big(70000, 32767);
    int64_t exact = int64_t(70000) * 32767;  // 2293690000
    EXPECT_EQ(QXwSum(big.data(), 70000, 0, &sf), int(uint32_t(exact)));
    EXPECT_EQ(got(), (std::vector<Rep>{{-20, "QXwSum ", ""}}));
    clear();
    EXPECT_EQ(QXwSum(big.data(), 70000, 2, &sf), exact / 2);
    EXPECT_EQ(sf, 1);
    EXPECT_EQ(QXwSum(big.data(), 70000, 3, &sf), 2147483647);
    std::vector<short> low(70000, -32768);
    EXPECT_EQ(QXwSum(low.data(), 70000, 3, &sf), -2147483647 - 1);
    QXwSum(low.data(), 70000, 0, &sf);
    EXPECT_EQ(got(), (std::vector<Rep>{{-21, "QXwSum ", ""}}));
    for (const auto& r : kvxtest::reports()) EXPECT_TRUE(kvxtest::names_raising_line(r));
    clear();
    std::vector<unsigned char> ones(1 << 24, 255);  // 4278190080: above the int range
    EXPECT_EQ(QXySum(ones.data(), int(ones.size()), 2, &sf), int(4278190080u >> 1));
    EXPECT_EQ(sf, 1);
    EXPECT_EQ(QXySum(ones.data(), int(ones.size()), 3, &sf), 2147483647);
    EXPECT_TRUE(got().empty());
}

TEST_F(Misc, SumChecksUseTheirOddNamesAndTexts) {
    int sf = 70;
    EXPECT_EQ(QXbSum(nullptr, 8, 0, 1, &sf), 0);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXbSum ", "*scaleFactor>64"}, {-5, "QXbSum ", "dst==0"},
                                       {-5, "QXbSum ", "startPos>7"}, {-5, "QXbSum ", "n<=0"}}));
    clear();
    QXnSum(nullptr, -1, 1, 4, nullptr);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXnSum ", "doScale>3"}, {-5, "QXnSum ", "scaleFactor==0"},
                                       {-5, "QXnSum ", "dst==0"}, {-5, "QXnSum ", "startPos<0"}}));
    clear();
    QXtSum(nullptr, 0, -1, &sf);
    QXsSum(nullptr, 0);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXtSum ", "doScale<0"}, {-5, "QXtSum ", "n<=0"},
                                       {-5, "QXtSum ", "dst==0"}, {-5, "QXsSum ", "n<=0"}, {-5, "QXsSum ", "dst==0"}}));
    for (const auto& r : kvxtest::reports()) EXPECT_TRUE(kvxtest::names_raising_line(r));
}
