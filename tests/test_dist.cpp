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
