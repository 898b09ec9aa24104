// Vector distances: float and 16-bit forms.
#include <cmath>
#include <random>
#include <vector>

#include "kvx_test.h"

using kvxtest::LibTest;
using kvxtest::Rep;

namespace {

class Dist : public LibTest {};

// Independent references: plain sums over the elements, in element order.
double ref_sum(int n, auto term) {
    double s = 0.0;
    for (int i = 0; i < n; ++i)
        s += term(i);
    return s;
}

}  // namespace

TEST_F(Dist, FloatMeasuresOnHandValues) {
    const float a[] = {1.0f, -2.0f, 3.5f};
    const float b[] = {4.0f, 0.5f, -1.5f};
    const float w[] = {2.0f, 0.25f, 1.0f};
    EXPECT_DOUBLE_EQ(QXsDotP(a, b, 3), 4.0 - 1.0 - 5.25);
    EXPECT_DOUBLE_EQ(QXsL1Norm(a, b, 3), 3.0 + 2.5 + 5.0);
    EXPECT_DOUBLE_EQ(QXsL2Norm(a, b, 3, 0), 9.0 + 6.25 + 25.0);
    EXPECT_DOUBLE_EQ(QXsL2Norm(a, b, 3, 1), std::sqrt(40.25));
    EXPECT_DOUBLE_EQ(QXsMahalanobisD(a, b, w, 3, 0), 18.0 + 1.5625 + 25.0);
    EXPECT_DOUBLE_EQ(QXsMahalanobisD(a, b, w, 3, 1), std::sqrt(44.5625));

    // d = (-3, -2.5, 5). Lower triangle: 2*(d0*M10*d1 + d0*M20*d2 + d1*M21*d2) + sum Mii*di^2.
    float r0[] = {1.0f, 100.0f, -100.0f};  // upper entries are never read
    float r1[] = {0.5f, 2.0f, 1e30f};
    float r2[] = {-1.0f, 0.25f, 3.0f};
    float* m[] = {r0, r1, r2};
    const double off = (-3.0 * 0.5) * -2.5 + (-3.0 * -1.0) * 5.0 + (-2.5 * 0.25) * 5.0;
    const double diag = 9.0 + 2.0 * 6.25 + 3.0 * 25.0;
    EXPECT_DOUBLE_EQ(QXsMahalanobis(a, b, m, 3, 0), 2.0 * off + diag);
    EXPECT_DOUBLE_EQ(QXsMahalanobis(a, b, m, 3, 1), std::sqrt(2.0 * off + diag));

    // Rows only as long as the lower triangle needs: ASan sees any read beyond.
    std::vector<float> t0{1.0f}, t1{0.5f, 2.0f}, t2{-1.0f, 0.25f, 3.0f};
    float* tri[] = {t0.data(), t1.data(), t2.data()};
    EXPECT_DOUBLE_EQ(QXsMahalanobis(a, b, tri, 3, 0), 2.0 * off + diag);

    // n of 1: M[0][0]*d^2 only.
    float one[] = {2.0f};
    float* m1[] = {one};
    EXPECT_DOUBLE_EQ(QXsMahalanobis(a, b, m1, 1, 0), 18.0);

    // Neither negative weights nor an indefinite matrix are rejected.
    const float neg[] = {-1.0f, -1.0f, -1.0f};
    EXPECT_TRUE(std::isnan(QXsMahalanobisD(a, b, neg, 3, 1)));
    EXPECT_DOUBLE_EQ(QXsMahalanobisD(a, b, neg, 3, 0), -40.25);
    EXPECT_TRUE(got().empty());
}

TEST_F(Dist, FloatMeasuresAccumulateInElementOrderInDouble) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> u(-1000.0f, 1000.0f);
    for (int n : {1, 2, 13, 39, 200}) {
        std::vector<float> a(n), b(n), w(n);
        for (int i = 0; i < n; ++i) {
            a[i] = u(rng);
            b[i] = u(rng) * 1e-3f;
            w[i] = std::fabs(u(rng)) * 1e-4f;
        }
        auto d = [&](int i) { return double(a[i]) - double(b[i]); };
        EXPECT_EQ(QXsDotP(a.data(), b.data(), n), ref_sum(n, [&](int i) { return double(a[i]) * double(b[i]); }));
        EXPECT_EQ(QXsL1Norm(a.data(), b.data(), n), ref_sum(n, [&](int i) { return std::fabs(d(i)); }));
        EXPECT_EQ(QXsL2Norm(a.data(), b.data(), n, 0), ref_sum(n, [&](int i) { return d(i) * d(i); }));
        EXPECT_EQ(QXsMahalanobisD(a.data(), b.data(), w.data(), n, 0),
                  ref_sum(n, [&](int i) { return d(i) * (double(w[i]) * d(i)); }));
        // A full symmetric matrix: the library's lower-triangle sum equals the
        // plain n^2 quadratic form up to rounding.
        std::vector<std::vector<float>> full(n, std::vector<float>(n));
        std::vector<float*> rows(n);
        for (int i = 0; i < n; ++i) {
            rows[i] = full[i].data();
            for (int j = 0; j <= i; ++j)
                full[i][j] = full[j][i] = u(rng) * 1e-5f;
        }
        double q = 0.0, mag = 0.0;
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) {
                q += d(i) * double(full[i][j]) * d(j);
                mag += std::fabs(d(i) * double(full[i][j]) * d(j));
            }
        EXPECT_NEAR(QXsMahalanobis(a.data(), b.data(), rows.data(), n, 0), q, mag * 1e-13);
    }
}

TEST_F(Dist, FloatChecksInOrderThenZeroWhilePending) {
    const float v[] = {1.0f};
    float* m[] = {const_cast<float*>(v)};
    EXPECT_EQ(QXsDotP(nullptr, nullptr, 0), 0.0);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsDotP", "n<=0"}, {-5, "QXsDotP", "vect1==0"},
                                      {-5, "QXsDotP", "vect2==0"}}));
    for (auto& r : kvxtest::reports()) {
        EXPECT_EQ(r.file, "..\\LIBSRC\\QX_DIST.cpp");
        EXPECT_TRUE(kvxtest::names_raising_line(r));
    }
    clear();
    EXPECT_EQ(QXsMahalanobisD(v, nullptr, nullptr, -1, 1), 0.0);
    EXPECT_EQ(QXsMahalanobis(nullptr, v, nullptr, 1, 1), 0.0);
    EXPECT_EQ(QXsL1Norm(v, v, 0), 0.0);
    EXPECT_EQ(QXsL2Norm(nullptr, v, 1, 0), 0.0);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsMahalanobisD", "n<=0"},
                                      {-5, "QXsMahalanobisD", "vect2==0"},
                                      {-5, "QXsMahalanobisD", "reciprocalVariance==0"},
                                      {-5, "QXsMahalanobis", "vect1==0"},
                                      {-5, "QXsMahalanobis", "inverseCovarianceMatrix==0"},
                                      {-5, "QXsL1Norm", "n<=0"},
                                      {-5, "QXsL2Norm", "vect1==0"}}));
    for (auto& r : kvxtest::reports())
        EXPECT_TRUE(kvxtest::names_raising_line(r));
    clear();

    // With an error pending every measure returns 0 for good arguments.
    const float big[] = {5.0f};
    QXSetStatus(-5);
    EXPECT_EQ(QXsDotP(big, big, 1), 0.0);
    EXPECT_EQ(QXsL1Norm(big, v, 1), 0.0);
    EXPECT_EQ(QXsL2Norm(big, v, 1, 1), 0.0);
    EXPECT_EQ(QXsMahalanobisD(big, v, v, 1, 0), 0.0);
    EXPECT_EQ(QXsMahalanobis(big, v, m, 1, 0), 0.0);
    EXPECT_TRUE(got().empty());
}

TEST_F(Dist, ShortMeasuresWidenBeforeCombiningAndConvertTheRoot) {
    // The difference 65535 does not wrap; the sum 4294836225 is exact in double.
    const short hi[] = {32767};
    const short lo[] = {-32768};
    int sf = 0;
    EXPECT_EQ(QXwL2Norm(hi, lo, 1, 0, 0, &sf), static_cast<int>(4294836225LL - 4294967296LL));  // low 32 bits
    EXPECT_EQ(sf, 0);
    EXPECT_EQ(QXwL2Norm(hi, lo, 1, 0, 2, &sf), 2147418112);  // 4294836225 / 2, truncated
    EXPECT_EQ(sf, 1);
    EXPECT_EQ(QXwL2Norm(hi, lo, 1, 0, 3, &sf), 2147483647);
    EXPECT_EQ(QXwL1Norm(hi, lo, 1, 0, &sf), 65535);
    EXPECT_EQ(QXwDotP(hi, lo, 1, 0, &sf), -32767 * 32768);
    EXPECT_EQ(QXwMahalanobisD(hi, lo, hi, 1, 0, 2, &sf), 2147352578);  // 65535^2 * 32767 / 2^16
    EXPECT_EQ(sf, 16);

    // The root is taken before the conversion: sqrt(2) * 2^20, truncated.
    const short a[] = {1, 1, 0};
    const short z[] = {0, 0, 0};
    sf = -20;
    EXPECT_EQ(QXwL2Norm(a, z, 3, 1, 1, &sf), static_cast<int>(std::sqrt(2.0) * 1048576.0));
    EXPECT_EQ(sf, -20);
    sf = 0;
    EXPECT_EQ(QXwL2Norm(a, z, 3, 1, 0, &sf), 1);

    // Hand values: d = (4, -3, 2).
    const short u[] = {5, -1, 2};
    const short v[] = {1, 2, 0};
    const short w[] = {2, 3, -1};
    sf = 0;
    EXPECT_EQ(QXwDotP(u, v, 3, 0, &sf), 5 - 2 + 0);
    EXPECT_EQ(QXwL1Norm(u, v, 3, 0, &sf), 9);
    EXPECT_EQ(QXwL2Norm(u, v, 3, 0, 0, &sf), 29);
    EXPECT_EQ(QXwMahalanobisD(u, v, w, 3, 0, 0, &sf), 32 + 27 - 4);
    short r0[] = {2, 99, 99};
    short r1[] = {-1, 1, 99};
    short r2[] = {3, 0, 1};
    short* m[] = {r0, r1, r2};
    // off = (4*-1)*-3 + (4*3)*2 + (-3*0)*2 = 36; diag = 32 + 9 + 4 = 45.
    EXPECT_EQ(QXwMahalanobis(u, v, m, 3, 0, 0, &sf), 2 * 36 + 45);
    EXPECT_EQ(QXwMahalanobis(u, v, m, 3, 1, 0, &sf), 10);  // sqrt(117) truncated
    EXPECT_TRUE(got().empty());
}

TEST_F(Dist, ShortScalingChecksComeFirstThenZeroWhilePending) {
    const short v[] = {1};
    short* m[] = {const_cast<short*>(v)};
    int sf = 65;
    EXPECT_EQ(QXwMahalanobis(nullptr, v, nullptr, 0, 0, 1, &sf), 0);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXwMahalanobis", "*scaleFactor>64"},
                                      {-5, "QXwMahalanobis", "n<=0"},
                                      {-5, "QXwMahalanobis", "vect1==0"},
                                      {-5, "QXwMahalanobis", "inverseCovarianceMatrix==0"}}));
    for (auto& r : kvxtest::reports()) {
        EXPECT_EQ(r.file, "..\\LIBSRC\\QX_DISTW.cpp");
        EXPECT_TRUE(kvxtest::names_raising_line(r));
    }
    clear();
    sf = -65;
    EXPECT_EQ(QXwDotP(v, v, 1, -1, nullptr), 0);
    EXPECT_EQ(QXwL1Norm(v, nullptr, 1, 4, &sf), 0);
    EXPECT_EQ(QXwL2Norm(v, v, 1, 0, 1, &sf), 0);
    EXPECT_EQ(QXwMahalanobisD(v, v, nullptr, 1, 0, 0, &sf), 0);  // factor unchecked unless doScale is 1
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXwDotP", "doScale<0"},
                                      {-5, "QXwDotP", "scaleFactor==0"},
                                      {-5, "QXwL1Norm", "doScale>3"},
                                      {-5, "QXwL1Norm", "vect2==0"},
                                      {-5, "QXwL2Norm", "*scaleFactor<-64"},
                                      {-5, "QXwMahalanobisD", "reciprocalVariance==0"}}));
    for (auto& r : kvxtest::reports())
        EXPECT_TRUE(kvxtest::names_raising_line(r));
    clear();

    const short big[] = {300};
    sf = 0;
    QXSetStatus(-4);
    EXPECT_EQ(QXwDotP(big, big, 1, 0, &sf), 0);
    EXPECT_EQ(QXwL1Norm(big, v, 1, 0, &sf), 0);
    EXPECT_EQ(QXwL2Norm(big, v, 1, 0, 0, &sf), 0);
    EXPECT_EQ(QXwMahalanobisD(big, v, v, 1, 0, 0, &sf), 0);
    EXPECT_EQ(QXwMahalanobis(big, v, m, 1, 0, 0, &sf), 0);
    EXPECT_TRUE(got().empty());
}
