// Mel-frequency cepstrum: filter banks against band edges and weights worked
// out here from the mel formulas, cepstra against a double-precision reference
// with its own DFT, band sums and cosine transform, scratch reuse across banks,
// checks and allocation failures.
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "kvx_test.h"
#include "qx_ceps.h"
#include "qx_context.h"

using kvxtest::FailAllocation;
using kvxtest::LibTest;
using kvxtest::Rep;

namespace {

// ---- Reference -------------------------------------------------------------

double ref_mel(double f) { return 2595.0 * std::log10(1.0 + f * (1.0 / 700.0)); }
double ref_hz(double m) { return 700.0 * (std::pow(10.0, m * (1.0 / 2595.0)) - 1.0); }

struct Band {
    double left, centre, right;
};

struct BankSpec {
    int order, nBand, start, end, fs, linear, nLinear, linearEnd;
};

// Band edges: mel bands overlapping by half; with a linear part, L bands of
// width w = 2 (E - start) / L stepping by w/2, then mel bands from mel(E), the
// junction band L-1 reaching up to half a mel step beyond E with its centre
// halfway between its edges.
std::vector<Band> ref_edges(const BankSpec& s) {
    std::vector<Band> e(s.nBand);
    auto mel_run = [&](int first, double lowMel, double step) {
        for (int b = first; b < s.nBand; ++b) {
            double x = lowMel + (b - first) * step / 2;
            e[b] = {ref_hz(x), ref_hz(x + step / 2), ref_hz(x + step)};
        }
    };
    if (!s.linear || s.nLinear < 1 || s.linearEnd <= s.start) {
        mel_run(0, ref_mel(s.start), (ref_mel(s.end) - ref_mel(s.start)) / (s.nBand / 2.0 + 0.5));
        return e;
    }
    const int L = s.nLinear;
    const double w = 2.0 * (s.linearEnd - s.start) / L;
    for (int b = 0; b < L - 1; ++b)
        e[b] = {s.start + b * w / 2, s.start + b * w / 2 + w / 2, s.start + b * w / 2 + w};
    const double step = (ref_mel(s.end) - ref_mel(s.linearEnd)) / ((s.nBand - L) / 2.0 + 0.5);
    const double x = s.start + (L - 1) * w / 2;
    e[L - 1].left = x;
    e[L - 1].right = ref_hz(ref_mel(x + w / 2) + step / 2);
    e[L - 1].centre = (x + e[L - 1].right) / 2;
    mel_run(L, ref_mel(s.linearEnd), step);
    return e;
}

struct Pair {
    int band;
    double weight;
};

// Triangular weights of every band containing point j, first two in band order.
std::vector<std::vector<Pair>> ref_points(const BankSpec& s) {
    const int n = 1 << s.order;
    auto e = ref_edges(s);
    std::vector<std::vector<Pair>> p(n);
    for (int j = 0; j < n; ++j) {
        double f = j * static_cast<double>(s.fs) / (2.0 * (n - 1));
        for (int b = 0; b < s.nBand && p[j].size() < 2; ++b) {
            const Band& t = e[b];
            if (f < t.left || f > t.right)
                continue;
            double w = f > t.centre ? (t.right - f) / (t.right - t.centre) : (f - t.left) / (t.centre - t.left);
            p[j].push_back({b, w});
        }
    }
    return p;
}

// Log magnitudes 0.5 log10 |X_k|^2 of a naive DFT, k = 0..n/2.
std::vector<double> ref_log_spectrum(const std::vector<double>& x) {
    const std::size_t n = x.size();
    std::vector<double> s(n / 2 + 1);
    for (std::size_t k = 0; k <= n / 2; ++k) {
        double re = 0, im = 0;
        for (std::size_t j = 0; j < n; ++j) {
            double ang = 2.0 * M_PI * static_cast<double>((j * k) % n) / static_cast<double>(n);
            re += x[j] * std::cos(ang);
            im -= x[j] * std::sin(ang);
        }
        s[k] = 0.5 * std::log10(re * re + im * im);
    }
    return s;
}

// Band sums over points j (bins beyond n/2 mirrored), then c[k] =
// sum_i F(k, i) band[i] with F(0, i) = 2 and F(k, i) = 2 cos(k (i + 1/2) a),
// a = 3.14159265 / nBand.
std::vector<double> ref_cepstrum(const BankSpec& s, const std::vector<double>& logSpec, int nCeps) {
    const int n = 1 << s.order, m = n / 2 + 1;
    auto pts = ref_points(s);
    std::vector<double> band(s.nBand, 0.0);
    for (int j = 0; j < n; ++j)
        for (const Pair& p : pts[j])
            band[p.band] += p.weight * logSpec[j < m ? j : n - j];
    std::vector<double> c(nCeps);
    const double a = 3.14159265 / s.nBand;
    for (int k = 0; k < nCeps; ++k) {
        double sum = 0;
        for (int i = 0; i < s.nBand; ++i)
            sum += (k == 0 ? 2.0 : 2.0 * std::cos(k * (i + 0.5) * a)) * band[i];
        c[k] = sum;
    }
    return c;
}

// A frame with structure at several frequencies and no empty bins.
std::vector<float> test_frame(int n, std::uint32_t seed) {
    std::vector<float> x(n);
    for (int i = 0; i < n; ++i) {
        seed = seed * 1664525u + 1013904223u;
        double noise = static_cast<double>(seed >> 8) / 16777216.0 - 0.5;
        x[i] = static_cast<float>(3000.0 * std::sin(0.07 * i) + 1500.0 * std::sin(0.9 * i + 1.0) +
                                  700.0 * std::cos(2.3 * i) + 200.0 * noise);
    }
    return x;
}

std::vector<double> widen(const std::vector<float>& v) { return {v.begin(), v.end()}; }

QXMFCCFilters* make(const BankSpec& s) {
    return QXsMFCCInit(s.order, s.nBand, s.start, s.end, s.fs, s.linear, s.nLinear, s.linearEnd);
}

const BankSpec kMel{9, 24, 0, 8000, 16000, 0, 0, 0};              // bins mirrored near the top
const BankSpec kLinear{9, 24, 100, 7000, 16000, 1, 8, 1000};     // linear part, then mel
const BankSpec kLow{8, 12, 200, 2000, 8000, 0, 0, 0};            // below a quarter: no mirroring

class Cepstrum : public LibTest {
protected:
    static long allocs() { return qx::testing::allocations(); }
    static long live() { return qx::testing::live_blocks(); }
};

void expect_lines() {
    for (auto& r : kvxtest::reports())
        EXPECT_TRUE(kvxtest::names_raising_line(r)) << r.function << " " << r.condition;
}

void expect_close(const std::vector<float>& got, const std::vector<double>& want, double rel) {
    ASSERT_EQ(got.size(), want.size());
    for (std::size_t k = 0; k < got.size(); ++k)
        EXPECT_NEAR(got[k], want[k], rel * (1.0 + std::fabs(want[k]))) << "k=" << k;
}

}  // namespace

TEST_F(Cepstrum, PointRecordLayout) {
    EXPECT_EQ(sizeof(QXMFCCPoint), 40u);
    EXPECT_EQ(offsetof(QXMFCCPoint, entry[0].band), 8u);
    EXPECT_EQ(offsetof(QXMFCCPoint, entry[0].weight), 16u);
    EXPECT_EQ(offsetof(QXMFCCPoint, entry[1].band), 24u);
    EXPECT_EQ(offsetof(QXMFCCPoint, entry[1].weight), 32u);
}

TEST_F(Cepstrum, BanksMatchTheMelAndLinearLayouts) {
    for (const BankSpec& s : {kMel, kLinear, kLow, BankSpec{6, 5, 300, 3500, 11025, 1, 2, 900}}) {
        QXMFCCFilters* f = make(s);
        ASSERT_NE(f, nullptr);
        EXPECT_EQ(f->order, s.order);
        EXPECT_EQ(f->n, 1 << s.order);
        EXPECT_EQ(f->nBandPass, s.nBand);
        auto pts = ref_points(s);
        int first = -1, last = -1;
        for (int j = 0; j < f->n; ++j) {
            const QXMFCCPoint& p = f->fftSpec[j];
            ASSERT_EQ(p.count, pts[j].size()) << "point " << j;
            for (int e = 0; e < p.count; ++e) {
                EXPECT_EQ(p.entry[e].band, pts[j][e].band);
                EXPECT_NEAR(p.entry[e].weight, pts[j][e].weight, 1e-9);
            }
            if (p.count) {
                if (first < 0) first = j;
                last = j;
            }
        }
        EXPECT_EQ(f->firstPoint, first);
        EXPECT_EQ(f->lastPoint, last);
        // Triangles overlapping by half form a partition of unity between the
        // first centre and the last one.
        auto e = ref_edges(s);
        for (int j = f->firstPoint; j <= f->lastPoint; ++j) {
            double fr = j * static_cast<double>(s.fs) / (2.0 * (f->n - 1));
            if (fr < e[0].centre || fr > e[s.nBand - 1].centre || s.linear)
                continue;
            const QXMFCCPoint& p = f->fftSpec[j];
            double sum = 0;
            for (int k = 0; k < p.count; ++k)
                sum += p.entry[k].weight;
            EXPECT_NEAR(sum, 1.0, 1e-9) << "point " << j;
        }
        QXsFreeMFCCFilters(f);
    }
    EXPECT_TRUE(got().empty());
}

TEST_F(Cepstrum, ThreeBandPointsKeepTheFirstTwoBands) {
    // Spectrum points every 100 Hz (1400 / (2 * 7)); linear bands 200 Hz wide
    // stepping by 100 Hz, so 200 Hz is the right edge of band 0, the centre of
    // band 1 and the left edge of band 2.
    QXMFCCFilters* f = QXsMFCCInit(3, 6, 0, 700, 1400, 1, 4, 400);
    ASSERT_NE(f, nullptr);
    const QXMFCCPoint& p = f->fftSpec[2];
    ASSERT_EQ(p.count, 2);
    EXPECT_EQ(p.entry[0].band, 0);
    EXPECT_EQ(p.entry[0].weight, 0.0);
    EXPECT_EQ(p.entry[1].band, 1);
    EXPECT_EQ(p.entry[1].weight, 1.0);
    EXPECT_EQ(f->fftSpec[0].count, 1);  // left edge of band 0, weight 0
    EXPECT_EQ(f->fftSpec[0].entry[0].weight, 0.0);
    EXPECT_EQ(f->firstPoint, 0);
    QXsFreeMFCCFilters(f);
}

TEST_F(Cepstrum, IdentifiersDifferBetweenLiveBanks) {
    QXMFCCFilters* a = make(kLow);
    QXMFCCFilters* b = QXwMFCCInit(kLow.order, kLow.nBand, kLow.start, kLow.end, kLow.fs, 0, 0, 0);
    QXMFCCFilters* c = make(kLow);
    ASSERT_TRUE(a && b && c);
    EXPECT_NE(a->id, b->id);
    EXPECT_NE(b->id, c->id);
    EXPECT_NE(a->id, c->id);
    EXPECT_EQ(b->id, a->id + 1);  // one counter for both forms
    QXsFreeMFCCFilters(a);
    QXwFreeMFCCFilters(b);
    QXsFreeMFCCFilters(c);
    EXPECT_TRUE(got().empty());
}

TEST_F(Cepstrum, FloatCepstrumAgreesWithTheReference) {
    for (const BankSpec& s : {kMel, kLinear, kLow}) {
        const int n = 1 << s.order;
        QXMFCCFilters* f = make(s);
        ASSERT_NE(f, nullptr);
        auto x = test_frame(n, 7u + s.order);
        auto logSpec = ref_log_spectrum(widen(x));
        for (int nCeps : {13, 30}) {  // more coefficients than bands is allowed
            std::vector<float> c(nCeps, -999.0f);
            QXsCepstralMFCC(1, x.data(), f, c.data(), nCeps);
            expect_close(c, ref_cepstrum(s, logSpec, nCeps), 2e-4);
        }
        // Without the transform the input is the log spectrum itself (m bins).
        std::vector<float> spec(n / 2 + 1);
        std::vector<double> specD(n / 2 + 1);
        for (int k = 0; k <= n / 2; ++k)
            specD[k] = spec[k] = static_cast<float>(1.0 + 0.25 * std::sin(0.05 * k) + k * 0.003);
        std::vector<float> c(13);
        QXsCepstralMFCC(0, spec.data(), f, c.data(), 13);
        expect_close(c, ref_cepstrum(s, specD, 13), 1e-6);
        QXsFreeMFCCFilters(f);
    }
    // The frame is read, not written.
    auto x = test_frame(512, 1);
    auto keep = x;
    QXMFCCFilters* f = make(kMel);
    std::vector<float> c(13);
    QXsCepstralMFCC(1, x.data(), f, c.data(), 13);
    EXPECT_EQ(x, keep);
    QXsFreeMFCCFilters(f);
    EXPECT_TRUE(got().empty());
}

TEST_F(Cepstrum, ShortCepstrumScalesTheReference) {
    const int n = 1 << kMel.order;
    auto xf = test_frame(n, 99);
    std::vector<short> x(n);
    for (int i = 0; i < n; ++i)
        x[i] = static_cast<short>(xf[i]);
    std::vector<double> xd(x.begin(), x.end());
    auto want = ref_cepstrum(kMel, ref_log_spectrum(xd), 13);
    QXMFCCFilters* f = QXwMFCCInit(kMel.order, kMel.nBand, kMel.start, kMel.end, kMel.fs, 0, 0, 0);
    ASSERT_NE(f, nullptr);
    std::vector<short> c(13);
    int sf = 0;
    QXwCepstralMFCC(1, x.data(), f, c.data(), 13, 2, &sf);
    double peak = 0;
    for (double v : want)
        peak = std::max(peak, std::fabs(v));
    EXPECT_LT(sf, 0);  // a few hundred at most: enlarged
    EXPECT_GE(peak * std::ldexp(1.0, -sf), 16383.0);
    for (int k = 0; k < 13; ++k)
        EXPECT_NEAR(c[k], want[k] * std::ldexp(1.0, -sf), 1.0 + 2e-4 * std::ldexp(1.0, -sf) * (1 + std::fabs(want[k])));
    // doScale 1 with factor 0: plain truncation of the float cepstrum.
    sf = 0;
    QXwCepstralMFCC(1, x.data(), f, c.data(), 13, 1, &sf);
    for (int k = 0; k < 13; ++k)
        EXPECT_NEAR(c[k], want[k], 1.0 + 2e-4 * std::fabs(want[k]));
    QXwFreeMFCCFilters(f);
    EXPECT_TRUE(got().empty());
}

TEST_F(Cepstrum, BanksUsedAlternatelyGiveTheirOwnResults) {
    QXMFCCFilters* a = make(kMel);
    QXMFCCFilters* b = make(kLinear);
    ASSERT_TRUE(a && b);
    auto x = test_frame(512, 5);
    std::vector<float> aloneA(13), aloneB(13), c(13);
    QXsCepstralMFCC(1, x.data(), a, aloneA.data(), 13);
    QXsCepstralMFCC(1, x.data(), b, aloneB.data(), 13);
    long before = allocs();
    for (int round = 0; round < 3; ++round) {
        QXsCepstralMFCC(1, x.data(), a, c.data(), 13);
        EXPECT_EQ(c, aloneA);
        QXsCepstralMFCC(1, x.data(), b, c.data(), 13);
        EXPECT_EQ(c, aloneB);
    }
    // Each switch resizes filterOutput and fftOut; the cosine table (same
    // sizes) stays.
    EXPECT_EQ(allocs(), before + 6 * 2);
    // The same bank again allocates nothing.
    before = allocs();
    QXsCepstralMFCC(1, x.data(), b, c.data(), 13);
    EXPECT_EQ(allocs(), before);
    QXsFreeMFCCFilters(a);
    QXsFreeMFCCFilters(b);
    EXPECT_TRUE(got().empty());
}

TEST_F(Cepstrum, ReleaseGivesBackScratchAndCosineTable) {
    // Warm the transform tables of this order, which stay until their own release.
    QXMFCCFilters* w = make(kMel);
    auto x = test_frame(512, 3);
    std::vector<float> c(13);
    QXsCepstralMFCC(1, x.data(), w, c.data(), 13);
    QXsFreeMFCCFilters(w);
    const long base = live();

    QXMFCCFilters* f = QXwMFCCInit(kMel.order, kMel.nBand, kMel.start, kMel.end, kMel.fs, 0, 0, 0);
    std::vector<short> xs(512), cs(20);
    for (int i = 0; i < 512; ++i) xs[i] = static_cast<short>(x[i]);
    int sf = 0;
    QXwCepstralMFCC(1, xs.data(), f, cs.data(), 13, 2, &sf);
    EXPECT_EQ(live(), base + 2 + 2 + 2 + 1);  // bank, float and short scratch, cosine table
    // More coefficients on the same bank: tempCeps and the cosine table grow.
    QXwCepstralMFCC(1, xs.data(), f, cs.data(), 20, 2, &sf);
    EXPECT_EQ(live(), base + 7);
    QXwFreeMFCCFilters(f);
    EXPECT_EQ(live(), base);
    EXPECT_EQ(qx::context()->Dct.n, 0);
    EXPECT_EQ(qx::context()->Ceps.filterOutput, nullptr);
    EXPECT_EQ(qx::context()->Ceps.tempVect, nullptr);
    EXPECT_TRUE(got().empty());
}

TEST_F(Cepstrum, CosineTransformFactorsAndCache) {
    const double in[5] = {1.0, -2.0, 0.5, 4.0, 3.0};
    float out[4];
    ASSERT_EQ(qx::owns_dct(in, 5, out, 4, 1.5, 0.75), 0);
    const double a = 3.14159265 / 5;
    for (int k = 0; k < 4; ++k) {
        double sum = 0;
        for (int i = 0; i < 5; ++i)
            sum += (k == 0 ? 1.5 : 0.75 * std::cos(k * (i + 0.5) * a)) * in[i];
        EXPECT_NEAR(out[k], sum, 1e-5 * (1 + std::fabs(sum)));
    }
    long before = allocs();
    qx::owns_dct(in, 5, out, 4, 1.5, 0.75);
    EXPECT_EQ(allocs(), before);  // cached
    const long l = live();
    qx::owns_dct(in, 5, out, 4, 1.5, 0.5);  // another c1: rebuilt in place of the old
    EXPECT_EQ(allocs(), before + 1);
    EXPECT_EQ(live(), l);
    double sum1 = 0;
    for (int i = 0; i < 5; ++i)
        sum1 += 0.5 * std::cos((i + 0.5) * a) * in[i];
    EXPECT_NEAR(out[1], sum1, 1e-5 * (1 + std::fabs(sum1)));

    qx::owns_dct(nullptr, 0, nullptr, 0, 2.0, 2.0);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "OwnsDct", "n<=0"},
                                      {-5, "OwnsDct", "nCoefficients<=0"},
                                      {-5, "OwnsDct", "inVect==0"},
                                      {-5, "OwnsDct", "outVect==0"}}));
    expect_lines();
    clear();
    // Give the table back: a bank release drops the cached cosine factors.
    QXMFCCFilters* f = make(kLow);
    QXsFreeMFCCFilters(f);
    EXPECT_EQ(live(), l - 1);
}

TEST_F(Cepstrum, ArgumentChecksInOrder) {
    EXPECT_EQ(QXsMFCCInit(0, 0, -1, 0, 0, 0, 0, 0), nullptr);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsMFCCInit", "order<=0"},
                                      {-5, "QXsMFCCInit", "nBandPass<=0"},
                                      {-5, "QXsMFCCInit", "startFreq < 0"},
                                      {-5, "QXsMFCCInit", "endFreq<=0"},
                                      {-5, "QXsMFCCInit", "samplingFreq<=0"}}));
    expect_lines();
    clear();
    EXPECT_EQ(QXwMFCCInit(4, 3, 500, 500, 8000, 0, 0, 0), nullptr);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXwMFCCInit", "startFreq >= endFreq"}}));
    expect_lines();
    clear();

    QXsCepstralMFCC(1, nullptr, nullptr, nullptr, 0);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsCepstralMFCC", "nCeps<=0"},
                                      {-5, "QXsCepstralMFCC", "vect==0"},
                                      {-5, "QXsCepstralMFCC", "ceps==0"},
                                      {-5, "QXsCepstralMFCC", "filters==0"}}));
    expect_lines();
    clear();
    int sf = 70;
    QXwCepstralMFCC(1, nullptr, nullptr, nullptr, -2, 1, &sf);
    QXwCepstralMFCC(1, nullptr, nullptr, nullptr, 1, -1, nullptr);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXwCepstralMFCC", "*scaleFactor>64"},
                                      {-5, "QXwCepstralMFCC", "nCeps<=0"},
                                      {-5, "QXwCepstralMFCC", "vect==0"},
                                      {-5, "QXwCepstralMFCC", "ceps==0"},
                                      {-5, "QXwCepstralMFCC", "filters==0"},
                                      {-5, "QXwCepstralMFCC", "doScale<0"},
                                      {-5, "QXwCepstralMFCC", "scaleFactor==0"},
                                      {-5, "QXwCepstralMFCC", "vect==0"},
                                      {-5, "QXwCepstralMFCC", "ceps==0"},
                                      {-5, "QXwCepstralMFCC", "filters==0"}}));
    expect_lines();
    clear();
    QXsFreeMFCCFilters(nullptr);
    QXwFreeMFCCFilters(nullptr);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsFreeMFCCFilters", "filters==0"},
                                      {-5, "QXwFreeMFCCFilters", "filters==0"},
                                      {-5, "QXsFreeMFCCFilters", "filters==0"}}));
    expect_lines();
    clear();
    // A pending error stops the cepstrum before it touches the output.
    QXMFCCFilters* f = make(kLow);
    std::vector<float> x(256, 1.0f), c(4, 7.0f);
    QXSetStatus(-5);
    QXsCepstralMFCC(1, x.data(), f, c.data(), 4);
    EXPECT_EQ(c[0], 7.0f);
    QXSetStatus(0);
    QXsFreeMFCCFilters(f);
}

TEST_F(Cepstrum, AllocationFailuresAreReportedAndLeaveNothingBehind) {
    const long base = live();
    const char* initTexts[3] = {"insufficiency of memory for pointer  filters",
                                "insufficiency of memory for pointer  tempFilter",
                                "insufficiency of memory for pointer  filters->fftSpec"};
    for (int k = 0; k < 3; ++k) {
        {
            FailAllocation fail(k + 1);
            EXPECT_EQ(make(kLow), nullptr);
        }
        EXPECT_EQ(got(), (std::vector<Rep>{{-4, "QXsMFCCInit", initTexts[k]}}));
        expect_lines();
        EXPECT_EQ(live(), base);
        clear();
    }

    // Warm the transform tables with a bank of the same order, so that the
    // allocations below are the cepstrum's own.
    auto x = test_frame(512, 11);
    std::vector<float> c(13);
    QXMFCCFilters* w = make(kMel);
    QXsCepstralMFCC(1, x.data(), w, c.data(), 13);
    QXsFreeMFCCFilters(w);

    QXMFCCFilters* f = make(BankSpec{9, 20, 0, 8000, 16000, 0, 0, 0});
    ASSERT_NE(f, nullptr);
    const long withBank = live();
    const char* cepsTexts[3] = {"insufficiency of memory for pointer  pQXcontext->Ceps.filterOutput",
                                "insufficiency of memory for pointer  pQXcontext->Ceps.fftOut",
                                "insufficiency of memory for pointer  pQXcontext->Dct.sstoredDctFactor"};
    for (int k = 0; k < 3; ++k) {
        std::fill(c.begin(), c.end(), 5.0f);
        {
            FailAllocation fail(k + 1);
            QXsCepstralMFCC(1, x.data(), f, c.data(), 13);
        }
        if (k < 2) {
            EXPECT_EQ(got(), (std::vector<Rep>{{-4, "QXsCepstralMFCC", cepsTexts[k]}}));
            EXPECT_EQ(live(), withBank);
        } else {
            EXPECT_EQ(got(), (std::vector<Rep>{{-4, "OwnsDct", cepsTexts[k]}, {-1, "QXsCepstralMFCC", cepsTexts[k]}}));
        }
        expect_lines();
        EXPECT_EQ(c[0], 5.0f);
        clear();
    }
    // Memory back: the same call works and matches the reference.
    QXsCepstralMFCC(1, x.data(), f, c.data(), 13);
    expect_close(c, ref_cepstrum(BankSpec{9, 20, 0, 8000, 16000, 0, 0, 0}, ref_log_spectrum(widen(x)), 13), 2e-4);

    std::vector<short> xs(512, 300), cs(13, 9);
    int sf = 0;
    const char* shortTexts[2] = {"insufficiency of memory for pointer  pQXcontext->Ceps.tempVect",
                                 "insufficiency of memory for pointer  pQXcontext->Ceps.tempCeps"};
    for (int k = 0; k < 2; ++k) {
        {
            FailAllocation fail(k + 1);
            QXwCepstralMFCC(1, xs.data(), f, cs.data(), 13, 2, &sf);
        }
        EXPECT_EQ(got(), (std::vector<Rep>{{-4, "QXwCepstralMFCC", shortTexts[k]}}));
        expect_lines();
        EXPECT_EQ(cs[0], 9);
        clear();
    }
    QXwFreeMFCCFilters(f);
    EXPECT_EQ(live(), base);
}

TEST_F(Cepstrum, BinLogarithmRoundsLikeTheLibraryLog) {
    // Powers re^2 + im^2 of float spectra across the whole range, plus values
    // at and around the mantissa split at sqrt(2) and exact powers of two.
    std::uint64_t seed = 0x9E3779B97F4A7C15ull;
    auto next = [&] {
        seed ^= seed << 13;
        seed ^= seed >> 7;
        seed ^= seed << 17;
        return seed;
    };
    std::vector<double> values;
    for (int i = 0; i < 200000; ++i) {
        float re = std::ldexp(static_cast<float>(next() % 16777216) / 16777216.0f, static_cast<int>(next() % 80) - 40);
        float im = std::ldexp(static_cast<float>(next() % 16777216) / 16777216.0f, static_cast<int>(next() % 80) - 40);
        values.push_back(double{re} * re + double{im} * im);
    }
    for (int e = -1020; e <= 1020; e += 7) {
        values.push_back(std::ldexp(1.0, e));
        values.push_back(std::ldexp(std::sqrt(2.0), e));
        values.push_back(std::nextafter(std::ldexp(std::sqrt(2.0), e), 0.0));
        values.push_back(std::nextafter(std::ldexp(1.0, e), 10.0));
    }
    for (double p : values) {
        if (!qx::is_normal_positive(p))
            continue;
        double want = 0.5 * std::log10(p);
        double fast = qx::half_log10_normal(p);
        ASSERT_EQ(static_cast<float>(fast), static_cast<float>(want)) << p;
        ASSERT_NEAR(fast, want, 4e-16 * std::fabs(want) + 1e-300) << p;
    }
    EXPECT_FALSE(qx::is_normal_positive(0.0));
    EXPECT_FALSE(qx::is_normal_positive(-1.0));
    EXPECT_FALSE(qx::is_normal_positive(4e-320));
    EXPECT_FALSE(qx::is_normal_positive(INFINITY));
    EXPECT_FALSE(qx::is_normal_positive(NAN));
    EXPECT_TRUE(qx::is_normal_positive(2.2250738585072014e-308));
    EXPECT_TRUE(qx::is_normal_positive(1.7976931348623157e308));

    // In a frame: empty bins give minus infinity as log10(0) does; an impulse
    // gives unit magnitudes, log 0.
    QXMFCCFilters* f = make(kLow);
    std::vector<float> x(256, 0.0f);
    std::vector<float> c(3);
    QXsCepstralMFCC(1, x.data(), f, c.data(), 3);
    for (int k = 0; k <= 128; ++k)
        ASSERT_EQ(qx::context()->Ceps.fftOut[k], -INFINITY) << k;
    x[0] = 1.0f;
    QXsCepstralMFCC(1, x.data(), f, c.data(), 3);
    for (int k = 0; k <= 128; ++k)
        ASSERT_EQ(qx::context()->Ceps.fftOut[k], 0.0f) << k;
    EXPECT_EQ(c[0], 0.0f);
    QXsFreeMFCCFilters(f);
}

TEST_F(Cepstrum, BandSumsAddInPointOrder) {
    // Sums that depend on the order of their terms: every band must add its
    // terms one at a time, in point order, starting from zero, as written.
    auto sequential = [](const QXMFCCFilters* f, const std::vector<float>& s) {
        std::vector<double> out(f->nBandPass, 0.0);
        const int n = f->n, m = n / 2 + 1;
        for (int j = f->firstPoint; j >= 0 && j <= f->lastPoint; ++j)
            for (int e = 0; e < f->fftSpec[j].count; ++e)
                out[f->fftSpec[j].entry[e].band] += f->fftSpec[j].entry[e].weight * s[j < m ? j : n - j];
        return out;
    };
    std::vector<float> spec(2049);
    for (int k = 0; k < 2049; ++k)
        spec[k] = (k % 3 == 0 ? 1e17f : 3.0f) * (k % 2 ? -1.0f : 1.0f) + 0.1f * static_cast<float>(k);
    std::vector<float> c(4);
    for (const BankSpec& s : {kMel, kLinear, kLow, BankSpec{3, 6, 0, 700, 1400, 1, 4, 400},
                              BankSpec{12, 40, 0, 8000, 16000, 1, 10, 1000}}) {
        QXMFCCFilters* f = make(s);
        QXsCepstralMFCC(0, spec.data(), f, c.data(), 4);
        const double* got = qx::context()->Ceps.filterOutput;
        auto want = sequential(f, spec);
        for (int b = 0; b < s.nBand; ++b)
            ASSERT_EQ(got[b], want[b]) << "band " << b;
        QXsFreeMFCCFilters(f);
    }
    // A hand-made table whose bands come back after leaving, share a parity at
    // one point and appear out of order.
    std::vector<QXMFCCPoint> pts(16);
    auto put = [&](int j, std::initializer_list<std::pair<int, double>> list) {
        pts[j].count = 0;
        for (auto [b, w] : list) {
            pts[j].entry[pts[j].count].band = static_cast<unsigned char>(b);
            pts[j].entry[pts[j].count].weight = w;
            ++pts[j].count;
        }
    };
    // Band 0 is summed over points 1-2, leaves at point 3 (band 2 shares its
    // parity), comes back for points 4-5 and again at 6 and 12 (mirrored bin
    // 4). In double, 1e17 + 10 + 10 differs from 1e17 + (10 + 10).
    put(1, {{0, 1.0}, {1, 1.0}});
    put(2, {{0, 1.0}});
    put(3, {{2, 1.0}, {1, 0.5}});
    put(4, {{0, 1.0}});
    put(5, {{0, 1.0}, {3, 1.0}});
    put(6, {{2, 1.0}, {0, 0.125}});
    put(9, {{1, 1.0}, {3, 3.0}});  // mirrored: bin 16 - 9 = 7
    put(12, {{3, 0.5}, {0, 0.5}});
    const std::vector<float> bins{0.0f, 1e17f, 0.0f, 2.0f, 10.0f, 10.0f, 7.0f, 5.0f, 1.0f};
    QXMFCCFilters hand{1 << 30, 4, 16, 4, 1, 12, pts.data()};
    QXsCepstralMFCC(0, bins.data(), &hand, c.data(), 4);
    auto want = sequential(&hand, bins);
    EXPECT_EQ(want[0], double{1e17f} + 32.0);
    for (int b = 0; b < 4; ++b)
        EXPECT_EQ(qx::context()->Ceps.filterOutput[b], want[b]) << "band " << b;
    QXMFCCFilters* other = make(kLow);  // moves the scratch to a bank of the library
    QXsCepstralMFCC(0, spec.data(), other, c.data(), 4);
    QXsFreeMFCCFilters(other);
    EXPECT_TRUE(got().empty());
}
