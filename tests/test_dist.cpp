// Vector distances: float and 16-bit forms.
#include <cmath>
#include <random>
#include <tuple>
#include <vector>

#include "kvx_test.h"
#include "model_reference.h"


namespace {
class Dist : public kvxtest::LibTest {};
}  // namespace

TEST_F(Dist, HandValues) {
    // d = a - b = (-3, -2.5, 5).
    const float a[] = {1.0f, -2.0f, 3.5f}, b[] = {4.0f, 0.5f, -1.5f}, w[] = {2.0f, 0.25f, 1.0f};
    // Only the lower triangle counts: 2 * (d0 M10 d1 + d0 M20 d2 + d1 M21 d2) + sum Mii di^2 = 2 * 15.625 + 96.5.
    float r0[] = {1.0f, 100.0f, -100.0f}, r1[] = {0.5f, 2.0f, 1e30f}, r2[] = {-1.0f, 0.25f, 3.0f};
    float* asym[] = {r0, r1, r2};
    // Rows exactly as long as the lower triangle: ASan sees any read beyond.
    std::vector<float> t0{1.0f}, t1{0.5f, 2.0f}, t2{-1.0f, 0.25f, 3.0f};
    float* tri[] = {t0.data(), t1.data(), t2.data()};
    // 16-bit: the extremes' difference 65535 does not wrap, its square 4294836225 is exact.
    const short hi[] = {32767}, lo[] = {-32768}, x[] = {1, 1, 0}, z[] = {0, 0, 0};
    const short u[] = {5, -1, 2}, v[] = {1, 2, 0}, wv[] = {2, 3, -1};  // d = (4, -3, 2)
    short q0[] = {2, 99, 99}, q1[] = {-1, 1, 99}, q2[] = {3, 0, 1};  // off-diagonal 36, diagonal 45
    short* qm[] = {q0, q1, q2};
    int sf = 0;
    // List-initialisation runs in order: a "factor" row reads sf after the call before it.
    const std::vector<std::tuple<const char*, double, double>> rows{
        {"sDotP", QXsDotP(a, b, 3), -2.25},
        {"sL1Norm", QXsL1Norm(a, b, 3), 10.5},
        {"sL2Norm", QXsL2Norm(a, b, 3, 0), 40.25},
        {"sMahalanobisD", QXsMahalanobisD(a, b, w, 3, 0), 44.5625},
        {"sMahalanobis asymmetric", QXsMahalanobis(a, b, asym, 3, 0), 127.75},
        {"sMahalanobis root", QXsMahalanobis(a, b, asym, 3, 1), std::sqrt(127.75)},
        {"sMahalanobis triangle", QXsMahalanobis(a, b, tri, 3, 0), 127.75},
        {"wL2Norm low 32 bits", QXwL2Norm(hi, lo, 1, 0, 0, &sf), 4294836225.0 - 4294967296.0},
        {"wL2Norm automatic", QXwL2Norm(hi, lo, 1, 0, 2, &sf), 2147418112.0},
        {"its factor", sf, 1},
        {"wL1Norm extremes", QXwL1Norm(hi, lo, 1, 0, &sf), 65535.0},
        {"wDotP extremes", QXwDotP(hi, lo, 1, 0, &sf), -32767.0 * 32768.0},
        {"wMahalanobisD automatic", QXwMahalanobisD(hi, lo, hi, 1, 0, 2, &sf), 2147352578.0},
        {"its factor", sf, 16},
        // The root is taken before the conversion: sqrt(2) * 2^20, truncated.
        {"wL2Norm root scaled", (sf = -20, QXwL2Norm(x, z, 3, 1, 1, &sf)), 1482910.0},
        {"its factor", sf, -20},
        {"wDotP", QXwDotP(u, v, 3, 0, &sf), 3.0},
        {"wL1Norm", QXwL1Norm(u, v, 3, 0, &sf), 9.0},
        {"wL2Norm", QXwL2Norm(u, v, 3, 0, 0, &sf), 29.0},
        {"wMahalanobisD", QXwMahalanobisD(u, v, wv, 3, 0, 0, &sf), 55.0},
        {"wMahalanobis", QXwMahalanobis(u, v, qm, 3, 0, 0, &sf), 117.0},
        {"wMahalanobis root", QXwMahalanobis(u, v, qm, 3, 1, 0, &sf), 10.0},
    };
    for (auto& [what, value, want] : rows)
        EXPECT_EQ(value, want) << what;
    EXPECT_TRUE(got().empty());
}

TEST_F(Dist, FloatMeasuresSumInElementOrderInDouble) {
    constexpr int n = 39;
    std::mt19937 rng(1);
    std::uniform_real_distribution<float> u(-1000.0f, 1000.0f);
    std::vector<float> a(n), b(n), w(n), mat(n * n, 0.0f);
    std::vector<float*> diag(n);
    double dot = 0.0, l1 = 0.0, l2 = 0.0, md = 0.0, mf = 0.0;
    for (int i = 0; i < n; ++i) {
        const int e = int(rng() % 40) - 20;  // magnitudes far apart, so that the order shows in the roundings
        a[i] = std::ldexp(u(rng), e), b[i] = u(rng), w[i] = std::fabs(u(rng));
        diag[i] = &mat[i * n], diag[i][i] = w[i];
        const double d = double(a[i]) - b[i];
        dot += double(a[i]) * b[i], l1 += std::fabs(d), l2 += d * d, md += d * (w[i] * d), mf += (w[i] * d) * d;
    }
    EXPECT_EQ(std::vector<double>({QXsDotP(a.data(), b.data(), n), QXsL1Norm(a.data(), b.data(), n),
                                   QXsL2Norm(a.data(), b.data(), n, 0), QXsMahalanobisD(a.data(), b.data(), w.data(), n, 0),
                                   QXsMahalanobis(a.data(), b.data(), diag.data(), n, 0)}),
              std::vector<double>({dot, l1, l2, md, mf}));
}

TEST_F(Dist, ChecksInOrderThenZeroWhilePending) {
    const float f[] = {5.0f}, g[] = {1.0f};
    float* fm[] = {const_cast<float*>(g)};
    const short s[] = {300}, t[] = {1};
    short* sm[] = {const_cast<short*>(t)};
    int sf = 65;
    EXPECT_EQ(QXsDotP(nullptr, nullptr, 0), 0.0);
    EXPECT_EQ(QXsMahalanobisD(f, nullptr, nullptr, -1, 1), 0.0);
    EXPECT_EQ(QXsMahalanobis(nullptr, f, nullptr, 1, 1), 0.0);
    EXPECT_EQ(QXsL1Norm(f, f, 0), 0.0);
    EXPECT_EQ(QXsL2Norm(nullptr, f, 1, 0), 0.0);
    EXPECT_EQ(QXwMahalanobis(nullptr, s, nullptr, 0, 0, 1, &sf), 0);  // scaling checks come first
    sf = -65;
    EXPECT_EQ(QXwDotP(s, s, 1, -1, nullptr), 0);
    EXPECT_EQ(QXwL1Norm(s, nullptr, 1, 4, &sf), 0);
    EXPECT_EQ(QXwL2Norm(s, s, 1, 0, 1, &sf), 0);
    EXPECT_EQ(QXwMahalanobisD(s, s, nullptr, 1, 0, 0, &sf), 0);  // the factor is checked only for doScale 1
    EXPECT_EQ(got(), ref::reps({{-5, "QXsDotP", {"n<=0", "vect1==0", "vect2==0"}},
                                {-5, "QXsMahalanobisD", {"n<=0", "vect2==0", "reciprocalVariance==0"}},
                                {-5, "QXsMahalanobis", {"vect1==0", "inverseCovarianceMatrix==0"}},
                                {-5, "QXsL1Norm", {"n<=0"}}, {-5, "QXsL2Norm", {"vect1==0"}},
                                {-5, "QXwMahalanobis", {"*scaleFactor>64", "n<=0", "vect1==0", "inverseCovarianceMatrix==0"}},
                                {-5, "QXwDotP", {"doScale<0", "scaleFactor==0"}}, {-5, "QXwL1Norm", {"doScale>3", "vect2==0"}},
                                {-5, "QXwL2Norm", {"*scaleFactor<-64"}}, {-5, "QXwMahalanobisD", {"reciprocalVariance==0"}}}));
    EXPECT_TRUE(kvxtest::all_name_raising_lines());
    clear();

    // With an error pending every measure returns 0 for good arguments, quietly.
    sf = 0;
    QXSetStatus(-5);
    // Each would be positive.
    for (double v : {QXsDotP(f, f, 1), QXsL1Norm(f, g, 1), QXsL2Norm(f, g, 1, 1), QXsMahalanobisD(f, g, g, 1, 0),
                     QXsMahalanobis(f, g, fm, 1, 0)})
        EXPECT_EQ(v, 0.0);
    for (int v : {QXwDotP(s, s, 1, 0, &sf), QXwL1Norm(s, t, 1, 0, &sf), QXwL2Norm(s, t, 1, 0, 0, &sf),
                  QXwMahalanobisD(s, t, t, 1, 0, 0, &sf), QXwMahalanobis(s, t, sm, 1, 0, 0, &sf)})
        EXPECT_EQ(v, 0);
    EXPECT_TRUE(got().empty());
}
