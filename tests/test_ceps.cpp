// Mel-frequency cepstrum: banks and cepstra against a double-precision
// reference with its own band edges, DFT, band sums and cosine transform;
// scratch following the bank used last; checks and allocation failures.
#include <array>
#include <cmath>
#include <complex>
#include <cstdint>
#include <numbers>
#include <string>
#include <utility>
#include <vector>

#include "kvx_test.h"
#include "model_reference.h"
#include "qx_ceps.h"
#include "qx_context.h"

using kvxtest::LibTest;

namespace {

double ref_mel(double f) { return 2595.0 * std::log10(1.0 + f / 700.0); }
double ref_hz(double m) { return 700.0 * (std::pow(10.0, m / 2595.0) - 1.0); }

struct Bank {  // the arguments of the init, in order
    int order, nBand, start, end, fs, linear, nLinear, linearEnd;
};
using Pair = std::pair<int, double>;  // band, weight

const Bank kMel{9, 24, 0, 8000, 16000, 0, 0, 0};           // bins mirrored near the top
const Bank kLinear{9, 24, 100, 7000, 16000, 1, 8, 1000};  // linear part, then mel
const Bank kLow{8, 12, 200, 2000, 8000, 0, 0, 0};         // below a quarter: no mirroring
// Points every 100 Hz, linear bands 200 Hz wide: 200 Hz lies on three bands.
const Bank kTriple{3, 6, 0, 700, 1400, 1, 4, 400};

// Triangular weights of the bands containing each point, the first two in band
// order. Mel bands overlap by half; a linear part has L bands of width
// w = 2 (E - start) / L, the junction band L-1 reaching half a mel step beyond E.
std::vector<std::vector<Pair>> ref_points(const Bank& s) {
    std::vector<std::array<double, 3>> e(s.nBand);  // left, centre, right
    auto mel_run = [&](int first, double lowMel, double step) {
        for (int b = first; b < s.nBand; ++b) {
            double x = lowMel + (b - first) * step / 2;
            e[b] = {ref_hz(x), ref_hz(x + step / 2), ref_hz(x + step)};
        }
    };
    const int L = s.nLinear;
    if (!s.linear || L < 1 || s.linearEnd <= s.start) {
        mel_run(0, ref_mel(s.start), (ref_mel(s.end) - ref_mel(s.start)) / (s.nBand / 2.0 + 0.5));
    } else {
        const double w = 2.0 * (s.linearEnd - s.start) / L, x = s.start + (L - 1) * w / 2;
        const double step = (ref_mel(s.end) - ref_mel(s.linearEnd)) / ((s.nBand - L) / 2.0 + 0.5);
        for (int b = 0; b < L - 1; ++b)
            e[b] = {s.start + b * w / 2, s.start + (b + 1) * w / 2, s.start + b * w / 2 + w};
        const double right = ref_hz(ref_mel(x + w / 2) + step / 2);
        e[L - 1] = {x, (x + right) / 2, right};
        mel_run(L, ref_mel(s.linearEnd), step);
    }
    const int n = 1 << s.order;
    std::vector<std::vector<Pair>> p(n);
    for (int j = 0; j < n; ++j) {
        const double f = j * static_cast<double>(s.fs) / (2.0 * (n - 1));
        for (int b = 0; b < s.nBand && p[j].size() < 2; ++b)
            if (f >= e[b][0] && f <= e[b][2])
                p[j].push_back({b, f > e[b][1] ? (e[b][2] - f) / (e[b][2] - e[b][1])
                                               : (f - e[b][0]) / (e[b][1] - e[b][0])});
    }
    return p;
}

// Log magnitudes 0.5 log10 |X_k|^2 of a naive DFT, k = 0..n/2.
std::vector<double> ref_log_spectrum(const std::vector<float>& x) {
    const std::size_t n = x.size();
    std::vector<double> s(n / 2 + 1);
    for (std::size_t k = 0; k <= n / 2; ++k) {
        std::complex<double> sum = 0;
        for (std::size_t j = 0; j < n; ++j)
            sum += double{x[j]} * std::polar(1.0, -2.0 * std::numbers::pi * static_cast<double>(j * k % n) / static_cast<double>(n));
        s[k] = 0.5 * std::log10(std::norm(sum));
    }
    return s;
}

// Band sums over the points (bins beyond n/2 mirrored), then c[k] = sum over
// bands of 2 band[i] for k = 0 and 2 cos(k (i + 1/2) 3.14159265 / nBand) band[i].
std::vector<double> ref_cepstrum(const Bank& s, const std::vector<double>& logMag, int nCeps) {
    const int n = 1 << s.order, m = n / 2 + 1;
    const auto pts = ref_points(s);
    std::vector<double> band(s.nBand, 0.0), c(nCeps, 0.0);
    for (int j = 0; j < n; ++j)
        for (auto [b, w] : pts[j]) band[b] += w * logMag[j < m ? j : n - j];
    for (int k = 0; k < nCeps; ++k)
        for (int i = 0; i < s.nBand; ++i)
            c[k] += (k == 0 ? 2.0 : 2.0 * std::cos(k * (i + 0.5) * 3.14159265 / s.nBand)) * band[i];
    return c;
}

// An integer-valued frame (the same in floats and shorts) with structure at
// several frequencies and no empty bins.
std::vector<float> frame(int n, std::uint32_t seed) {
    std::vector<float> x(n);
    for (int i = 0; i < n; ++i) {
        seed = seed * 1664525u + 1013904223u;
        x[i] = static_cast<float>(std::round(3000.0 * std::sin(0.07 * i) + 1500.0 * std::sin(0.9 * i + 1.0) +
                                             700.0 * std::cos(2.3 * i) + (seed >> 24)));
    }
    return x;
}

QXMFCCFilters* make(const Bank& s) {
    return QXsMFCCInit(s.order, s.nBand, s.start, s.end, s.fs, s.linear, s.nLinear, s.linearEnd);
}

template <class Got>
void expect_close(const Got& got, const std::vector<double>& want, double rel, double abs = 0) {
    for (std::size_t k = 0; k < want.size(); ++k)
        EXPECT_NEAR(got[k], want[k], abs + rel * (1.0 + std::fabs(want[k]))) << "k=" << k;
}

class Cepstrum : public LibTest {};

}  // namespace

TEST_F(Cepstrum, BanksAndCepstraAgreeWithTheReference) {
    for (const Bank& s : {kMel, kLinear, kLow, kTriple}) {
        const int n = 1 << s.order;
        QXMFCCFilters* f = make(s);
        ASSERT_NE(f, nullptr);
        const auto pts = ref_points(s);  // the per-point table, first two bands in band order
        for (int j = 0; j < n; ++j) {
            ASSERT_EQ(f->fftSpec[j].count, pts[j].size()) << "point " << j;
            for (int e = 0; e < f->fftSpec[j].count; ++e) {
                EXPECT_EQ(f->fftSpec[j].entry[e].band, pts[j][e].first);
                EXPECT_NEAR(f->fftSpec[j].entry[e].weight, pts[j][e].second, 1e-9);
            }
        }
        const auto x = frame(n, 7u + s.order);
        const std::vector<short> xs(x.begin(), x.end());
        for (int nCeps : {13, 30}) {  // more coefficients than bands is allowed
            std::vector<float> c(nCeps);
            std::vector<short> cs(nCeps);
            int sf = 0;
            QXsCepstralMFCC(1, x.data(), f, c.data(), nCeps);
            QXwCepstralMFCC(1, xs.data(), f, cs.data(), nCeps, 1, &sf);  // truncated
            const auto want = ref_cepstrum(s, ref_log_spectrum(x), nCeps);
            expect_close(c, want, 2e-4);
            expect_close(cs, want, 2e-4, 1.0);
        }
        // Without the transform the input is the log spectrum itself.
        std::vector<float> bins(n / 2 + 1), c(13);
        for (int k = 0; k <= n / 2; ++k) bins[k] = static_cast<float>(1.0 + 0.25 * std::sin(0.05 * k) + k * 0.003);
        QXsCepstralMFCC(0, bins.data(), f, c.data(), 13);
        expect_close(c, ref_cepstrum(s, {bins.begin(), bins.end()}, 13), 1e-6);
        QXsFreeMFCCFilters(f);
    }
    EXPECT_TRUE(got().empty());
}

// Terms of very different sizes and signs: every band must add its terms one
// at a time in point order, also when it leaves and comes back.
TEST_F(Cepstrum, BandSumsAddOneTermAtATimeInPointOrder) {
    std::vector<float> bins(257), c(4);
    for (int k = 0; k < 257; ++k) bins[k] = (k % 3 ? 3.0f : 1e17f) * (k % 2 ? -1.0f : 1.0f) + 0.1f * k;
    auto check = [&](QXMFCCFilters* f) {
        std::vector<double> want(f->nBandPass, 0.0);
        for (int j = f->firstPoint; j >= 0 && j <= f->lastPoint; ++j)
            for (int e = 0; e < f->fftSpec[j].count; ++e)
                want[f->fftSpec[j].entry[e].band] += f->fftSpec[j].entry[e].weight * bins[j <= f->n / 2 ? j : f->n - j];
        QXsCepstralMFCC(0, bins.data(), f, c.data(), 4);
        for (int b = 0; b < f->nBandPass; ++b) ASSERT_EQ(qx::context()->Ceps.filterOutput[b], want[b]) << "band " << b;
    };
    for (const Bank& s : {kMel, kLinear, kLow}) {
        QXMFCCFilters* f = make(s);
        check(f);
        QXsFreeMFCCFilters(f);
    }
    // Point, band, weight: band 0 leaves at point 3 (band 2 shares its parity)
    // and comes back at points 4, 6 and 12 (bin 4 mirrored).
    const double hand[][3] = {{1, 0, 1}, {1, 1, 1}, {2, 0, 1}, {3, 2, 1}, {3, 1, 0.5}, {4, 0, 1}, {5, 0, 1},
                              {5, 3, 1}, {6, 2, 1}, {6, 0, 0.125}, {9, 1, 1}, {9, 3, 3}, {12, 3, 0.5}, {12, 0, 0.5}};
    std::vector<QXMFCCPoint> pts(16);
    for (auto [j, b, w] : hand) {
        QXMFCCPoint& p = pts[static_cast<int>(j)];
        p.entry[p.count].band = static_cast<unsigned char>(b);
        p.entry[p.count++].weight = w;
    }
    QXMFCCFilters own{1 << 30, 4, 16, 4, 1, 12, pts.data()};
    check(&own);
    EXPECT_TRUE(got().empty());
}

TEST_F(Cepstrum, BanksUsedAlternatelyGiveTheirOwnResults) {
    QXMFCCFilters* bank[2] = {make(kMel), make(kLow)};
    const auto x = frame(512, 5);
    std::vector<float> alone[2] = {std::vector<float>(13), std::vector<float>(13)}, c(13);
    QXsCepstralMFCC(1, x.data(), bank[0], alone[0].data(), 13);
    QXsCepstralMFCC(1, x.data(), bank[1], alone[1].data(), 13);
    const long before = qx::testing::allocations();
    for (int call = 0; call < 6; ++call) {
        QXsCepstralMFCC(1, x.data(), bank[call % 2], c.data(), 13);
        EXPECT_EQ(c, alone[call % 2]) << "call " << call;
    }
    // Each switch reallocates filterOutput and fftOut, the cosine factors as
    // the band count changes; the same bank again allocates nothing.
    EXPECT_EQ(qx::testing::allocations(), before + 6 * 3);
    QXsCepstralMFCC(1, x.data(), bank[1], c.data(), 13);
    EXPECT_EQ(qx::testing::allocations(), before + 6 * 3);
    QXsFreeMFCCFilters(bank[0]);
    QXsFreeMFCCFilters(bank[1]);
    EXPECT_TRUE(got().empty());
}

TEST_F(Cepstrum, BinLogarithmRoundsLikeTheLibraryLog) {
    std::vector<double> values;
    std::uint64_t seed = 0x9E3779B97F4A7C15ull;  // positive doubles over a wide range
    for (int i = 0; i < 200000; ++i) {
        seed ^= seed << 13, seed ^= seed >> 7, seed ^= seed << 17;
        values.push_back(std::ldexp(static_cast<double>(seed >> 16), static_cast<int>(seed % 160) - 128));
    }
    for (int e = -1020; e <= 1020; e += 7)  // around powers of two and the split at sqrt(2)
        for (double v : {std::ldexp(1.0, e), std::ldexp(std::sqrt(2.0), e)})
            values.insert(values.end(), {v, std::nextafter(v, 0.0)});
    for (double p : values)
        ASSERT_EQ(static_cast<float>(qx::half_log10_normal(p)), static_cast<float>(0.5 * std::log10(p))) << p;
    // Other powers take the library log: an empty frame gives minus infinity.
    EXPECT_TRUE(qx::is_normal_positive(2.2250738585072014e-308) && qx::is_normal_positive(1.7976931348623157e308));
    for (double p : {0.0, -1.0, 4e-320, double(INFINITY), double(NAN)}) EXPECT_FALSE(qx::is_normal_positive(p)) << p;
    QXMFCCFilters* f = make(kLow);
    std::vector<float> x(256, 0.0f), c(3);
    QXsCepstralMFCC(1, x.data(), f, c.data(), 3);
    for (int k = 0; k <= 128; ++k) ASSERT_EQ(qx::context()->Ceps.fftOut[k], -INFINITY) << k;
    QXsFreeMFCCFilters(f);
}

TEST_F(Cepstrum, ChecksInOrder) {
    QXMFCCFilters* f = make(kLow);
    std::vector<float> x(256, 1.0f), c(4, 7.0f);
    int sf = 70;
    EXPECT_EQ(QXsMFCCInit(0, 0, -1, 0, 0, 0, 0, 0), nullptr);
    EXPECT_EQ(QXwMFCCInit(4, 3, 500, 500, 8000, 0, 0, 0), nullptr);
    QXsCepstralMFCC(1, nullptr, nullptr, nullptr, 0);
    QXsCepstralMFCC(1, x.data(), f, c.data(), 4);  // a pending error stops it before any work
    QXwCepstralMFCC(1, nullptr, nullptr, nullptr, -2, 1, &sf);
    QXwCepstralMFCC(1, nullptr, nullptr, nullptr, 1, -1, nullptr);
    QXsFreeMFCCFilters(nullptr);
    QXwFreeMFCCFilters(nullptr);
    qx::owns_dct(nullptr, 0, nullptr, 0, 2.0, 2.0);
    const std::string si = "QXsMFCCInit", sc = "QXsCepstralMFCC", wc = "QXwCepstralMFCC", d = "OwnsDct";
    EXPECT_EQ(got(), ref::reps({{-5, si, {"order<=0", "nBandPass<=0", "startFreq < 0", "endFreq<=0", "samplingFreq<=0"}},
                                {-5, "QXwMFCCInit", {"startFreq >= endFreq"}},
                                {-5, sc, {"nCeps<=0", "vect==0", "ceps==0", "filters==0"}},
                                {-5, wc, {"*scaleFactor>64", "nCeps<=0", "vect==0", "ceps==0", "filters==0", "doScale<0",
                                          "scaleFactor==0", "vect==0", "ceps==0", "filters==0"}},
                                {-5, "QXsFreeMFCCFilters", {"filters==0"}}, {-5, "QXwFreeMFCCFilters", {"filters==0"}},
                                {-5, "QXsFreeMFCCFilters", {"filters==0"}},
                                {-5, d, {"n<=0", "nCoefficients<=0", "inVect==0", "outVect==0"}}}));
    EXPECT_EQ(c[0], 7.0f);
    EXPECT_TRUE(kvxtest::all_name_raising_lines());
    clear();
    QXsFreeMFCCFilters(f);
}
