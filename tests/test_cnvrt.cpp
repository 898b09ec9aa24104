// Scaled conversions: every rule checked against values worked out by hand or
// against the plain definition (x * 2^-f truncated toward zero).
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "kvx_test.h"

using kvxtest::LibTest;
using kvxtest::Rep;

namespace {
class Convert : public LibTest {};

// Runs the automatic block conversion to shorts.
std::vector<short> auto_w(std::vector<float> in, int* sf) {
    std::vector<short> out(in.size(), 0x5555);
    QXswbConvertDown(in.data(), out.data(), static_cast<int>(in.size()), 2, sf);
    return out;
}
}  // namespace

TEST_F(Convert, AutomaticBlockFactorFollowsTheBoundRules) {
    const struct { std::vector<float> in; std::vector<short> out; int sf; } cases[] = {
        {{1.0f}, {16384}, -14},   // 2^15 would not be below 32767
        {{-1.0f}, {-16384}, -14},
        {{40000.0f}, {20000}, 1},
        {{-40000.0f}, {-20000}, 1},
        {{32767.0f, 3.7f}, {32767, 3}, 0},   // at the bound: unscaled
        {{-32768.0f, 0.5f}, {-32768, 0}, 0},
        {{0.0f, -0.0f, 0.0f}, {0, 0, 0}, 0},
        {{3.0f, 3.0f}, {24576, 24576}, -13},   // constant block enlarged
        {{100000.0f, -200000.0f}, {12500, -25000}, 3},   // the larger magnitude on the negative side
    };
    int sf = 99;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.in[0]);
        EXPECT_EQ(auto_w(c.in, &sf), c.out);
        EXPECT_EQ(sf, c.sf);
    }
    // The side closer to its bound governs, not the larger magnitude: with
    // min -0.9 and max 0.1 the positive side is chosen, and the negative
    // values leave the range and wrap.
    std::vector<short> mixed = auto_w({-0.9f, 0.1f}, &sf);
    EXPECT_EQ(sf, -18);
    EXPECT_EQ(mixed[1], static_cast<short>(std::trunc(0.1f * 262144.0)));
    EXPECT_EQ(mixed[0], static_cast<short>(static_cast<std::uint16_t>(static_cast<std::int64_t>(-0.9f * 262144.0) & 0xFFFF)));
    EXPECT_TRUE(got().empty());
}

TEST_F(Convert, AutomaticFailuresWriteNothing) {
    int sf = 7;
    std::vector<short> out = auto_w({1.0f, 7e23f}, &sf);
    EXPECT_EQ(out, (std::vector<short>{0x5555, 0x5555}));
    EXPECT_EQ(sf, 7);
    EXPECT_EQ(got(), (std::vector<Rep>{{-7, "QXswbConvertDown",
                                       "Unscalable range [  1.00000000e+00   6.99999966e+23] too large in input vector"}}));
    EXPECT_TRUE(kvxtest::names_raising_line(kvxtest::reports()[0]));
    // Small values all on the negative side govern with a negative magnitude:
    // no factor can be found within seven probes. Nor can an enlargement by
    // 2^64 or more, which the bisection cannot reach.
    for (std::vector<float> block : {std::vector<float>{-0.25f, -0.5f}, std::vector<float>{1e-30f}}) {
        clear();
        out = auto_w(block, &sf);
        EXPECT_EQ(out[0], 0x5555);
        EXPECT_EQ(sf, 7);
        EXPECT_EQ(got(), (std::vector<Rep>{{-7, "QXswbConvertDown",
                                           "Internal Error, Binary Search could not find a scaling factor"}}));
    }
}

TEST_F(Convert, IntResultsAndTheSaturationQuirk) {
    int sf = 0;
    std::vector<float> in = {2147483648.0f, 3e9f, -3e9f, -2147483648.0f, 1.9f, -1.9f,
                             std::numeric_limits<float>::infinity(), -std::numeric_limits<float>::quiet_NaN()};
    std::vector<int> out(in.size());
    QXsibConvertDown(in.data(), out.data(), 8, 3, &sf);
    EXPECT_EQ(out, (std::vector<int>{INT32_MIN, INT32_MAX, INT32_MIN, INT32_MIN, 1, -1, INT32_MAX, INT32_MIN}));
    std::vector<double> d = {2147483648.0, 2147483648.5, -2147483649.0, 1e300};
    QXdibConvertDown(d.data(), out.data(), 4, 3, &sf);
    EXPECT_EQ(std::vector<int>(out.begin(), out.begin() + 4), (std::vector<int>{INT32_MIN, INT32_MAX, INT32_MIN, INT32_MAX}));
    // Automatic: a block of 1.0 is enlarged to 2^30.
    double one = 1.0;
    QXdibConvertDown(&one, out.data(), 1, 2, &sf);
    EXPECT_EQ(out[0], 1 << 30);
    EXPECT_EQ(sf, -30);
    EXPECT_EQ(QXsiConvertDown(2147483648.0f, 3, &sf), INT32_MIN);
}

TEST_F(Convert, TruncationFixedFactorsAndWrapping) {
    int sf = 3;
    float v = 100.0f;
    short s = 0;
    QXswbConvertDown(&v, &s, 1, 1, &sf);
    EXPECT_EQ(s, 12);  // 12.5 truncated
    EXPECT_EQ(sf, 3);
    std::vector<double> in = {40000.0, -40000.9, 2.9, -2.9, 1e20};
    std::vector<short> out(5);
    QXdwbConvertDown(in.data(), out.data(), 5, 0, &sf);
    EXPECT_EQ(out, (std::vector<short>{-25536, 25536, 2, -2, 0}));  // low 16 bits; 1e20 is past int64
    EXPECT_EQ(sf, 0);
    sf = -2;
    QXdwbConvertDown(in.data() + 2, out.data(), 2, 1, &sf);
    EXPECT_EQ(out[0], 11);
    EXPECT_EQ(out[1], -11);
    sf = 0;
    QXdwbConvertDown(in.data(), out.data(), 1, 1, &sf);
    EXPECT_EQ(out[0], -25536);  // no saturation in mode 1
    EXPECT_TRUE(got().empty());
}

TEST_F(Convert, SingleValuesFollowTheBlockRules) {
    // {value, doScale, factor in, result, factor out} through the float, double and int forms.
    const struct { double v; int doScale, sf; long long out; int sfOut; char form; } cases[] = {
        {1.0, 2, 0, 16384, -14, 'w'},      {-1.0, 2, 0, -16384, -14, 'w'},
        {-0.25, 2, 0, -16384, -16, 'W'},   // a single negative value is fine
        {32767.0, 2, 0, 32767, 0, 'W'},    {-70000.0, 2, 0, -17500, 2, 'W'},
        {0.0, 2, 0, 0, 0, 'I'},            {5e9, 2, 0, 1250000000, 2, 'I'},
        {-40000.0, 3, 0, -32768, 0, 'w'},  {7.0, 1, 1, 3, 1, 'W'},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.v);
        int sf = c.sf;
        const long long r = c.form == 'w' ? QXswConvertDown(static_cast<float>(c.v), c.doScale, &sf)
                            : c.form == 'W' ? QXdwConvertDown(c.v, c.doScale, &sf)
                                            : QXdiConvertDown(c.v, c.doScale, &sf);
        EXPECT_EQ(r, c.out);
        EXPECT_EQ(sf, c.sfOut);
    }
    EXPECT_TRUE(got().empty());

    int sf = 5;
    EXPECT_EQ(QXswConvertDown(1e30f, 2, &sf), 0);
    EXPECT_EQ(QXsiConvertDown(1e-30f, 2, &sf), 0);
    EXPECT_EQ(QXdiConvertDown(1.0, 7, &sf), 0);
    EXPECT_EQ(QXswConvertDown(1.0f, 4, &sf), 0);
    EXPECT_EQ(QXdwConvertDown(1.0, -1, &sf), 0);
    EXPECT_EQ(QXsiConvertDown(1.0f, 9, &sf), 0);
    EXPECT_EQ(sf, 5);
    EXPECT_EQ(got(),
              (std::vector<Rep>{
                  {-7, "QXswConvertDown", "Unscalable value   1.00000002e+30, magnitude too large"},
                  {-7, "QXsiConvertDown",
                   "Internal Error,                                     Binary Search could not find a scaling factor"},
                  {-5, "QXdiConvertDown", "doScale>3"},
                  {-5, "QX_diConvert", "Unknown value   7 for doScale"},
                  {-5, "QXswConvertDown", "doScale>3"},
                  {-5, "QX_swConvertDown", "Unknown value   4 for doScale"},
                  {-5, "QXdwConvertDown", "doScale<0"},
                  {-5, "QX_dwConvertDown", "Unknown value  -1 for doScale"},
                  {-5, "QXsiConvertDown", "doScale>3"},
                  {-5, "QX_siConvert", "Unknown value   9 for doScale"},
              }));
}

TEST_F(Convert, ConvertUpUsesTheSameSign) {
    short w = 12;
    float f = 0;
    QXwsbConvertUp(&w, &f, 1, 3);
    EXPECT_EQ(f, 1.5f);
    QXwsbConvertUp(&w, &f, 1, -3);
    EXPECT_EQ(f, 96.0f);
    // Down with k, up with -k restores the block.
    std::vector<float> in = {0.5f, -0.25f, 0.125f};
    std::vector<short> mid(3);
    std::vector<double> back(3);
    int sf = 0;
    QXswbConvertDown(in.data(), mid.data(), 3, 2, &sf);
    QXwdbConvertUp(mid.data(), back.data(), 3, -sf);
    for (int k = 0; k < 3; ++k) EXPECT_EQ(back[k], in[k]);
    int big[2] = {INT32_MAX, -7};
    double d[2];
    float fs[2];
    QXidbConvertUp(big, d, 2, 64);
    EXPECT_EQ(d[0], std::ldexp(2147483647.0, -64));
    QXisbConvertUp(big, fs, 2, -1);
    EXPECT_EQ(fs[1], -14.0f);
    EXPECT_EQ(QXwsConvertUp(-3, 1), -1.5f);
    EXPECT_EQ(QXwdConvertUp(3, -64), std::ldexp(3.0, 64));
    EXPECT_EQ(QXidConvertUp(1, 0), 1.0);
    EXPECT_EQ(QXisConvertUp(1 << 20, 20), 1.0f);
    EXPECT_TRUE(got().empty());
    EXPECT_EQ(QXisConvertUp(1, 65), 0.0f);
    QXisbConvertUp(nullptr, nullptr, 0, -65);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXisConvert", "scaleFactor>64"},
                                      {-5, "QXisbConvert", "scaleFactor<-64"},
                                      {-5, "QXisbConvert", "n<=0"},
                                      {-5, "QXisbConvert", "inVect==0"},
                                      {-5, "QXisbConvert", "outVect==0"}}));
}

TEST_F(Convert, BlockChecksRunInOrderAndStopTheWork) {
    int sf = 65;
    short out = 0x1234;
    float in = 1.0f;
    QXswbConvertDown(nullptr, nullptr, 0, 1, &sf);
    QXswbConvertDown(&in, &out, 1, 4, nullptr);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXswbConvertDown", "*scaleFactor>64"},
                                      {-5, "QXswbConvertDown", "n<=0"},
                                      {-5, "QXswbConvertDown", "inVect==0"},
                                      {-5, "QXswbConvertDown", "outVect==0"},
                                      {-5, "QXswbConvertDown", "doScale>3"},
                                      {-5, "QXswbConvertDown", "scaleFactor==0"}}));
    clear();
    sf = 0;
    QXSetStatus(-5);  // a pending error stops a valid call
    QXswbConvertDown(&in, &out, 1, 0, &sf);
    EXPECT_EQ(out, 0x1234);
    // A handler that records nothing lets the call through past its checks:
    // the unknown doScale is then reported by the conversion itself.
    QXSetStatus(0);
    QXRedirectError([](int code, const char* fn, const char* cond, const char* file, int line) {
        kvxtest::reports().push_back({code, fn, cond, file, line});
        return code;
    });
    QXswbConvertDown(&in, &out, 1, 5, &sf);
    EXPECT_EQ(got().back(), Rep(-5, "QXswbConvertDown", "Unknown value   5 for doScale"));
    EXPECT_EQ(out, 0x1234);
}

TEST_F(Convert, ComplexToRealAndComplexShorts) {
    const float c[4] = {3.0f, 4.0f, 0.0f, 0.0f}, lg = std::log10(25.0f), inf = std::numeric_limits<float>::infinity();
    // (mode, n, results): magnitude (also when 3 asks for both), power, log10 power and half of it; 0 and 8 write nothing.
    const struct { int mode, n; float out[2]; } cases[] = {{1, 2, {5, 0}}, {3, 2, {5, 0}}, {2, 2, {25, 0}}, {6, 2, {lg, -inf}},
                                                           {5, 1, {0.5f * lg, -1}}, {0, 2, {-1, -1}}, {8, 2, {-1, -1}}};
    for (const auto& k : cases) {
        float out[2] = {-1, -1};
        QXcsbConvert(c, out, k.n, k.mode);
        EXPECT_FLOAT_EQ(out[0], k.out[0]) << k.mode;
        EXPECT_FLOAT_EQ(out[1], k.out[1]) << k.mode;
    }
    EXPECT_TRUE(got().empty());

    const short v[4] = {300, 400, -6, 8};
    short w[2];
    int sf = 0;
    QXvwbConvert(v, w, 2, 1, 0, &sf);
    EXPECT_EQ(w[0], 500);
    EXPECT_EQ(w[1], 10);
    QXvwbConvert(v, w, 2, 2, 2, &sf);  // 250000 and 100, shrunk together
    EXPECT_EQ(sf, 3);
    EXPECT_EQ(w[0], 31250);
    EXPECT_EQ(w[1], 12);
}

TEST(Power2, TablesInsideAndPowOutside) {
    for (int k = -70; k <= 70; ++k) EXPECT_EQ(QXPower2(k), std::ldexp(1.0, k)) << k;
}
