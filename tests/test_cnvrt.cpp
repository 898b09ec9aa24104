// Scaled conversions: every rule checked against values worked out by hand or
// against the plain definition (x * 2^-f truncated toward zero).
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "kvx_test.h"
#include "model_reference.h"

using kvxtest::LibTest;
using kvxtest::Rep;

namespace {
class Convert : public LibTest {};

// A conversion down through the form its function is named after ("swb":
// QXswbConvertDown, "sw": QXswConvertDown), the inputs given as doubles;
// the outputs start as 0x5555.
std::vector<long long> down(const std::string& form, const std::vector<double>& in, int doScale, int* sf) {
    const int n = static_cast<int>(in.size());
    std::vector<float> f(in.begin(), in.end());
    std::vector<short> w(n, 0x5555);
    std::vector<int> i(n, 0x5555);
    if (form == "swb") QXswbConvertDown(f.data(), w.data(), n, doScale, sf);
    if (form == "dwb") QXdwbConvertDown(in.data(), w.data(), n, doScale, sf);
    if (form == "sib") QXsibConvertDown(f.data(), i.data(), n, doScale, sf);
    if (form == "dib") QXdibConvertDown(in.data(), i.data(), n, doScale, sf);
    if (form == "sw") w[0] = QXswConvertDown(f[0], doScale, sf);
    if (form == "dw") w[0] = QXdwConvertDown(in[0], doScale, sf);
    if (form == "si") i[0] = QXsiConvertDown(f[0], doScale, sf);
    if (form == "di") i[0] = QXdiConvertDown(in[0], doScale, sf);
    return form[1] == 'w' ? std::vector<long long>(w.begin(), w.end()) : std::vector<long long>(i.begin(), i.end());
}
}  // namespace

TEST_F(Convert, DownFollowsTheBoundTruncationAndSaturationRules) {
    const double inf = std::numeric_limits<double>::infinity(), nan = std::numeric_limits<double>::quiet_NaN();
    const long long lo = INT32_MIN, hi = INT32_MAX;
    const std::string unscalable = "Unscalable range [  1.00000000e+00   6.99999966e+23] too large in input vector",
                      noFactor = "Internal Error, Binary Search could not find a scaling factor";
    // Form, input, doScale, factor in, results, factor out, the -7 report (if any).
    const struct {
        const char* form;
        std::vector<double> in;
        int doScale, sf;
        std::vector<long long> out;
        int sfOut;
        std::string report;
    } cases[] = {
        // Automatic: the largest factor that keeps the block below the bounds.
        {"swb", {1.0}, 2, 9, {16384}, -14, ""},   // 2^15 would not be below 32767
        {"swb", {-1.0}, 2, 9, {-16384}, -14, ""},
        {"swb", {40000.0}, 2, 9, {20000}, 1, ""},
        {"swb", {-40000.0}, 2, 9, {-20000}, 1, ""},
        {"swb", {32767.0, 3.7}, 2, 9, {32767, 3}, 0, ""},   // at the bound: unscaled
        {"swb", {-32768.0, 0.5}, 2, 9, {-32768, 0}, 0, ""},
        {"swb", {0.0, -0.0, 0.0}, 2, 9, {0, 0, 0}, 0, ""},
        {"swb", {3.0, 3.0}, 2, 9, {24576, 24576}, -13, ""},   // constant block enlarged
        {"swb", {100000.0, -200000.0}, 2, 9, {12500, -25000}, 3, ""},   // the larger magnitude on the negative side
        // The side closer to its bound governs: the positive one here, and -0.9 x 2^18 wraps.
        {"swb", {-0.9f, 0.1f}, 2, 9, {26215, 26214}, -18, ""},
        {"dib", {1.0}, 2, 9, {1 << 30}, -30, ""},
        // Failures write nothing and keep the factor. Small values all on the negative side govern
        // with a negative magnitude, and an enlargement by 2^64 is beyond the bisection.
        {"swb", {1.0, 7e23}, 2, 7, {0x5555, 0x5555}, 7, unscalable},
        {"swb", {-0.25, -0.5}, 2, 7, {0x5555, 0x5555}, 7, noFactor},
        {"swb", {1e-30}, 2, 7, {0x5555}, 7, noFactor},
        // Saturation to int: 2^31 itself goes to the most negative value.
        {"sib", {2147483648.0, 3e9, -3e9, -2147483648.0, 1.9, -1.9, inf, -nan}, 3, 0, {lo, hi, lo, lo, 1, -1, hi, lo}, 0, ""},
        {"dib", {2147483648.0, 2147483648.5, -2147483649.0, 1e300}, 3, 0, {lo, hi, lo, hi}, 0, ""},
        {"si", {2147483648.0}, 3, 0, {lo}, 0, ""},
        // Fixed factors truncate toward zero and keep the low 16 bits; 1e20 is past int64.
        {"swb", {100.0}, 1, 3, {12}, 3, ""},
        {"dwb", {40000.0, -40000.9, 2.9, -2.9, 1e20}, 0, 3, {-25536, 25536, 2, -2, 0}, 0, ""},
        {"dwb", {2.9, -2.9}, 1, -2, {11, -11}, -2, ""},
        {"dwb", {40000.0}, 1, 0, {-25536}, 0, ""},   // no saturation in mode 1
        // Single values follow the block rules.
        {"sw", {1.0}, 2, 0, {16384}, -14, ""},
        {"sw", {-1.0}, 2, 0, {-16384}, -14, ""},
        {"dw", {-0.25}, 2, 0, {-16384}, -16, ""},   // a single negative value is fine
        {"dw", {32767.0}, 2, 0, {32767}, 0, ""},
        {"dw", {-70000.0}, 2, 0, {-17500}, 2, ""},
        {"di", {0.0}, 2, 0, {0}, 0, ""},
        {"di", {5e9}, 2, 0, {1250000000}, 2, ""},
        {"sw", {-40000.0}, 3, 0, {-32768}, 0, ""},
        {"dw", {7.0}, 1, 1, {3}, 1, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.form << " " << c.in[0] << " doScale " << c.doScale);
        int sf = c.sf;
        EXPECT_EQ(down(c.form, c.in, c.doScale, &sf), c.out);
        EXPECT_EQ(sf, c.sfOut);
        EXPECT_EQ(got(), c.report.empty() ? std::vector<Rep>() : std::vector<Rep>(1, {-7, "QXswbConvertDown", c.report}));
        EXPECT_TRUE(kvxtest::all_name_raising_lines());
        clear();
    }

    // With the status left pending from one call to the next.
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
    // Form, input, factor, result: value x 2^-factor.
    const struct { const char* form; int in, sf; double out; } cases[] = {
        {"wsb", 12, 3, 1.5}, {"wsb", 12, -3, 96.0}, {"idb", INT32_MAX, 64, std::ldexp(2147483647.0, -64)},
        {"isb", -7, -1, -14.0}, {"ws", -3, 1, -1.5}, {"wd", 3, -64, std::ldexp(3.0, 64)}, {"id", 1, 0, 1.0},
        {"is", 1 << 20, 20, 1.0},
    };
    for (const auto& c : cases) {
        const std::string f = c.form;
        const short w[2] = {static_cast<short>(c.in), 1};
        const int i[2] = {c.in, 1};
        float fs[2] = {0, 0};
        double d[2] = {0, 0};
        const double r = f == "wsb"   ? (QXwsbConvertUp(w, fs, 2, c.sf), fs[0])
                         : f == "idb" ? (QXidbConvertUp(i, d, 2, c.sf), d[0])
                         : f == "isb" ? (QXisbConvertUp(i, fs, 2, c.sf), fs[0])
                         : f == "ws"  ? QXwsConvertUp(w[0], c.sf)
                         : f == "wd"  ? QXwdConvertUp(w[0], c.sf)
                         : f == "id"  ? QXidConvertUp(c.in, c.sf)
                                      : QXisConvertUp(c.in, c.sf);
        EXPECT_EQ(r, c.out) << f << " " << c.in << " " << c.sf;
    }
    // Down with k, up with -k restores the block.
    std::vector<float> in = {0.5f, -0.25f, 0.125f};
    std::vector<short> mid(3);
    std::vector<double> back(3);
    int sf = 0;
    QXswbConvertDown(in.data(), mid.data(), 3, 2, &sf);
    QXwdbConvertUp(mid.data(), back.data(), 3, -sf);
    EXPECT_EQ(back, std::vector<double>(in.begin(), in.end()));
    EXPECT_TRUE(got().empty());
    EXPECT_EQ(QXisConvertUp(1, 65), 0.0f);
    QXisbConvertUp(nullptr, nullptr, 0, -65);
    EXPECT_EQ(got(), ref::reps({{-5, "QXisConvert", {"scaleFactor>64"}},
                                {-5, "QXisbConvert", {"scaleFactor<-64", "n<=0", "inVect==0", "outVect==0"}}}));

}

TEST_F(Convert, BlockChecksRunInOrderAndStopTheWork) {
    int sf = 65;
    short out = 0x1234;
    float in = 1.0f;
    QXswbConvertDown(nullptr, nullptr, 0, 1, &sf);
    QXswbConvertDown(&in, &out, 1, 4, nullptr);
    EXPECT_EQ(got(), ref::reps({{-5, "QXswbConvertDown", {"*scaleFactor>64", "n<=0", "inVect==0", "outVect==0", "doScale>3",
                                                          "scaleFactor==0"}}}));

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
