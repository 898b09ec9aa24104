// Gaussian mixture servers checked against the mixture formula evaluated
// directly in the test: sum_k w_k exp(-0.5 (x-m_k)' C_k (x-m_k)).
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "kvx_test.h"
#include "qx_gauss.h"

using kvxtest::FailAllocation;
using kvxtest::LibTest;
using kvxtest::Rep;

namespace {

class Gauss : public LibTest {};

// A mixture in the caller's layout: weights, mean rows, and either diagonal
// rows or full matrices (row pointers per component).
template <class T>
struct Mixture {
    int n, nGauss;
    std::vector<T> w;
    std::vector<std::vector<T>> mean, diag;
    std::vector<std::vector<std::vector<T>>> full;
    std::vector<T*> meanRows, diagRows;
    std::vector<std::vector<T*>> fullRows;
    std::vector<T**> fullPtrs;

    Mixture(int n_, int g) : n(n_), nGauss(g), w(g), mean(g, std::vector<T>(n_)), diag(g, std::vector<T>(n_)),
                             full(g, std::vector<std::vector<T>>(n_, std::vector<T>(n_))) {}
    T** means() {
        meanRows.clear();
        for (auto& r : mean) meanRows.push_back(r.data());
        return meanRows.data();
    }
    T** diags() {
        diagRows.clear();
        for (auto& r : diag) diagRows.push_back(r.data());
        return diagRows.data();
    }
    T*** fulls() {
        fullRows.assign(nGauss, {});
        fullPtrs.clear();
        for (int k = 0; k < nGauss; ++k) {
            for (auto& r : full[k]) fullRows[k].push_back(r.data());
        }
        for (auto& r : fullRows) fullPtrs.push_back(r.data());
        return fullPtrs.data();
    }

    // The formula, in long double; `scale` multiplies the quadratic form.
    long double value(const T* x, bool useFull, long double scale = 1.0L) const {
        long double sum = 0;
        for (int k = 0; k < nGauss; ++k) {
            long double q = 0;
            for (int i = 0; i < n; ++i) {
                long double di = static_cast<long double>(x[i]) - mean[k][i];
                if (!useFull) {
                    q += di * di * diag[k][i];
                } else {
                    for (int j = 0; j < n; ++j)
                        q += di * full[k][i][j] * (static_cast<long double>(x[j]) - mean[k][j]);
                }
            }
            if (useFull && q < 0)
                q = -q;
            sum += static_cast<long double>(w[k]) * std::exp(-0.5L * scale * q);
        }
        return sum;
    }
};

Mixture<float> random_float_mixture(std::mt19937& g, int n, int nGauss) {
    std::uniform_real_distribution<float> u(-1.0f, 1.0f), pos(0.2f, 2.0f);
    Mixture<float> m(n, nGauss);
    for (int k = 0; k < nGauss; ++k) {
        m.w[k] = pos(g);
        for (int i = 0; i < n; ++i) {
            m.mean[k][i] = u(g);
            m.diag[k][i] = pos(g);
            for (int j = 0; j < n; ++j)   // symmetric, diagonally dominant
                m.full[k][i][j] = i == j ? 1.5f + pos(g) : 0.0f;
        }
        for (int i = 0; i < n; ++i)
            for (int j = i + 1; j < n; ++j)
                m.full[k][i][j] = m.full[k][j][i] = 0.2f * u(g);
    }
    return m;
}

}  // namespace

TEST_F(Gauss, FloatMixturesMatchTheFormulaWithAndWithoutTables) {
    std::mt19937 g(1);
    std::uniform_real_distribution<float> u(-1.5f, 1.5f);
    for (int n : {1, 3, 13}) {
        for (int nGauss : {1, 4}) {
            auto m = random_float_mixture(g, n, nGauss);
            for (bool useFull : {false, true}) {
                QXsGaussMixServer* exact = QXsInitGaussMixServer(m.w.data(), m.means(), useFull ? m.fulls() : nullptr,
                                                                 useFull ? nullptr : m.diags(), n, nGauss, 0);
                QXsGaussMixServer* table = QXsInitGaussMixServer(m.w.data(), m.means(), useFull ? m.fulls() : nullptr,
                                                                 useFull ? nullptr : m.diags(), n, nGauss, 1);
                ASSERT_NE(exact, nullptr);
                ASSERT_NE(table, nullptr);
                for (int rep = 0; rep < 20; ++rep) {
                    std::vector<float> x(n);
                    for (float& v : x)
                        v = u(g);
                    const double want = static_cast<double>(m.value(x.data(), useFull));
                    EXPECT_NEAR(QXsEvalGaussMix(exact, x.data(), n), want, 1e-12 * want);
                    // The exponent's magnitude is truncated to steps of 0.001:
                    // up to 0.1 % high, plus the float entries.
                    const double t = QXsEvalGaussMix(table, x.data(), n);
                    EXPECT_GE(t, want * (1 - 1e-6));
                    EXPECT_LE(t, want * (1 + 1.01e-3));
                }
                QXsFreeGaussMixServer(exact);
                QXsFreeGaussMixServer(table);
            }
        }
    }
    EXPECT_TRUE(got().empty());
}

TEST_F(Gauss, TableEdgesAndPositiveExponents) {
    // One component, n 1: the exponent is -0.5 * c * d^2 with d = x - mean.
    float w = 0.75f, mean = 0.0f, c = 2.0f;
    float* means[1] = {&mean};
    float* diags[1] = {&c};
    QXsGaussMixServer* t = QXsInitGaussMixServer(&w, means, nullptr, diags, 1, 1, 1);
    QXsGaussMixServer* e = QXsInitGaussMixServer(&w, means, nullptr, diags, 1, 1, 0);

    float x = 0.0f;   // at the mean: index 0 of both tables, exactly 1
    EXPECT_EQ(QXsEvalGaussMix(t, &x, 1), 0.75);
    EXPECT_EQ(QXsEvalGaussMix(e, &x, 1), 0.75);
    ASSERT_EQ(qx::expTablesBuilt, 1);
    for (int k : {0, 1, 50, 80})   // normal floats
        EXPECT_NEAR(qx::integralExpTable[k], std::exp(-static_cast<double>(k)), 1e-7 * std::exp(-k));
    for (int k : {0, 1, 500, 999})
        EXPECT_NEAR(qx::fractionalExpTable[k], std::exp(-k * 0.001), 1e-7);

    x = 10.0f;   // e = -100 exactly: flushed to 0
    EXPECT_EQ(QXsEvalGaussMix(t, &x, 1), 0.0);
    EXPECT_GT(QXsEvalGaussMix(e, &x, 1), 0.0);

    // e = -99.9995: integral entry 99, fractional entry 999.
    c = static_cast<float>(99.9995 * 2.0 / 100.0);
    const double want = 0.75 * static_cast<double>(qx::fractionalExpTable[999]) * qx::integralExpTable[99];
    EXPECT_DOUBLE_EQ(QXsEvalGaussMix(t, &x, 1), want);

    // A negative reciprocal variance: the table mode refuses, exp grows.
    c = -1.0f;
    x = 1.0f;
    EXPECT_EQ(QXsEvalGaussMix(t, &x, 1), 0.0);
    EXPECT_EQ(got(), (std::vector<Rep>{{-3, "LookupExponential (Macro)", "Cannot lookup exponential of positive value"}}));
    EXPECT_TRUE(kvxtest::names_raising_line(kvxtest::reports()[0]));
    clear();
    EXPECT_NEAR(QXsEvalGaussMix(e, &x, 1), 0.75 * std::exp(0.5), 1e-12);

    // A full matrix with a negative form counts as its magnitude.
    float fm = -2.0f;
    float* frow[1] = {&fm};
    float** fmat[1] = {frow};
    QXsGaussMixServer* f = QXsInitGaussMixServer(&w, means, fmat, nullptr, 1, 1, 1);
    EXPECT_NEAR(QXsEvalGaussMix(f, &x, 1), 0.75 * std::exp(-1.0), 1e-3);
    EXPECT_TRUE(got().empty());

    // Freeing a table-using server releases the tables; the next use rebuilds.
    const long live = qx::testing::live_blocks();
    QXsFreeGaussMixServer(f);
    EXPECT_EQ(qx::expTablesBuilt, 0);
    EXPECT_EQ(qx::integralExpTable, nullptr);
    EXPECT_EQ(qx::testing::live_blocks(), live - 3);
    QXsFreeGaussMixServer(e);   // no tables: leaves them alone
    EXPECT_EQ(QXsEvalGaussMix(t, &(x = 0.0f), 1), 0.75);
    EXPECT_EQ(qx::expTablesBuilt, 1);
    QXsFreeGaussMixServer(t);
    EXPECT_EQ(qx::expTablesBuilt, 0);
    EXPECT_TRUE(got().empty());
}

TEST_F(Gauss, ShortMixturesScaleTheFormAndConvertTheResult) {
    std::mt19937 g(9);
    std::uniform_int_distribution<int> val(-200, 200), pos(1, 60), wt(1000, 20000);
    const int n = 6, nGauss = 3, scaleExp = -12;
    Mixture<short> m(n, nGauss);
    for (int k = 0; k < nGauss; ++k) {
        m.w[k] = static_cast<short>(wt(g));
        for (int i = 0; i < n; ++i) {
            m.mean[k][i] = static_cast<short>(val(g));
            m.diag[k][i] = static_cast<short>(pos(g));
            for (int j = 0; j < n; ++j)
                m.full[k][i][j] = static_cast<short>(i == j ? pos(g) : 0);
        }
    }
    for (bool useFull : {false, true}) {
        for (int tables : {0, 1}) {
            QXwGaussMixServer* s = QXwInitGaussMixServer(m.w.data(), m.means(), useFull ? m.fulls() : nullptr,
                                                         useFull ? nullptr : m.diags(), n, nGauss, tables, scaleExp);
            ASSERT_NE(s, nullptr);
            for (int rep = 0; rep < 20; ++rep) {
                std::vector<short> x(n);
                for (int i = 0; i < n; ++i)
                    x[i] = static_cast<short>(m.mean[rep % nGauss][i] + val(g) / 8);
                const long double want = m.value(x.data(), useFull, std::ldexp(1.0L, scaleExp));
                int sf = 2;   // value * 2^-2, truncated
                const int v = QXwEvalGaussMix(s, x.data(), n, 1, &sf);
                const double tol = tables ? 1.01e-3 * static_cast<double>(want) / 4 + 1 : 1;   // truncations
                EXPECT_NEAR(v, static_cast<double>(want / 4), tol);
                EXPECT_EQ(sf, 2);
            }
            QXwFreeGaussMixServer(s);
        }
    }
    EXPECT_TRUE(got().empty());
}

TEST_F(Gauss, ChecksInOrder) {
    float w = 1.0f, mean = 0.0f, c = 1.0f;
    float* means[1] = {&mean};
    float* diags[1] = {&c};
    float** full[1] = {diags};
    EXPECT_EQ(QXsInitGaussMixServer(nullptr, nullptr, nullptr, nullptr, 0, 0, 0), nullptr);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsInitGaussMixServer", "n<=0"},
                                       {-5, "QXsInitGaussMixServer", "nGauss<=0"},
                                       {-5, "QXsInitGaussMixServer", "n<=0"},
                                       {-5, "QXsInitGaussMixServer", "weightVect==0"},
                                       {-5, "QXsInitGaussMixServer", "meanVect==0"}}));
    for (auto& r : kvxtest::reports())
        EXPECT_TRUE(kvxtest::names_raising_line(r));
    clear();
    for (bool both : {true, false}) {
        EXPECT_EQ(QXsInitGaussMixServer(&w, means, both ? full : nullptr, both ? diags : nullptr, 1, 1, 0), nullptr);
        EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsInitGaussMixServer",
                                            "One of InverseCov or InverseCovD must be NULL and the other non NULL"}}));
        clear();
    }
    short sw = 1;
    EXPECT_EQ(QXwInitGaussMixServer(&sw, nullptr, nullptr, nullptr, -1, 1, 0, 0), nullptr);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXwInitGaussMixServer", "n<=0"},
                                       {-5, "QXwInitGaussMixServer", "n<=0"},
                                       {-5, "QXwInitGaussMixServer", "meanVect==0"}}));
    clear();

    EXPECT_EQ(QXsEvalGaussMix(nullptr, nullptr, 0), 0.0);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsEvalGaussMix", "n<=0"},
                                       {-5, "QXsEvalGaussMix", "server==0"},
                                       {-5, "QXsEvalGaussMix", "vect==0"}}));
    clear();
    int sf = 0;
    EXPECT_EQ(QXwEvalGaussMix(nullptr, nullptr, 0, 1, &sf), 0);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXwEvalGaussMix", "n<=0"},
                                       {-5, "QXwEvalGaussMix", "server==0"},
                                       {-5, "QXwEvalGaussMix", "vect==0"}}));
    clear();
    QXsFreeGaussMixServer(nullptr);
    QXwFreeGaussMixServer(nullptr);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsFreeGaussMixServer", "server==0"},
                                       {-5, "QXwFreeGaussMixServer", "server==0"}}));
    clear();

    // The evaluation uses its own n, not the server's; a pending error frees nothing.
    QXsGaussMixServer* s = QXsInitGaussMixServer(&w, means, nullptr, diags, 5, 1, 0);
    float x = 2.0f;
    EXPECT_NEAR(QXsEvalGaussMix(s, &x, 1), std::exp(-2.0), 1e-15);
    const long live = qx::testing::live_blocks();
    QXSetStatus(-5);
    QXsFreeGaussMixServer(s);
    EXPECT_EQ(qx::testing::live_blocks(), live);
    EXPECT_EQ(QXsEvalGaussMix(s, &x, 1), 0.0);
    QXSetStatus(0);
    QXsFreeGaussMixServer(s);
    EXPECT_EQ(qx::testing::live_blocks(), live - 1);
}

TEST_F(Gauss, AllocationFailures) {
    float w = 1.0f, mean = 0.0f, c = 1.0f;
    float* means[1] = {&mean};
    float* diags[1] = {&c};
    const long live = qx::testing::live_blocks();
    {
        FailAllocation f(1);
        EXPECT_EQ(QXsInitGaussMixServer(&w, means, nullptr, diags, 1, 1, 1), nullptr);
    }
    EXPECT_EQ(got(), (std::vector<Rep>{{-4, "QXsInitGaussMixServer", "insufficiency of memory for pointer  server"}}));
    clear();
    QXsGaussMixServer* s = QXsInitGaussMixServer(&w, means, nullptr, diags, 1, 1, 1);
    float x = 0.0f;
    {
        FailAllocation f(1);
        EXPECT_EQ(QXsEvalGaussMix(s, &x, 1), 0.0);
    }
    EXPECT_EQ(got(), (std::vector<Rep>{{-4, "BuildExpTables", "insufficiency of memory for pointer  integralExpTable"},
                                       {-1, "QXsEvalGaussMix", ""}}));
    EXPECT_EQ(qx::expTablesBuilt, 0);
    clear();
    {
        FailAllocation f(2);
        EXPECT_EQ(QXsEvalGaussMix(s, &x, 1), 0.0);
    }
    EXPECT_EQ(got(), (std::vector<Rep>{{-4, "BuildExpTables", "insufficiency of memory for pointer  fractionalExpTable"},
                                       {-1, "QXsEvalGaussMix", ""}}));
    EXPECT_EQ(qx::expTablesBuilt, 0);
    for (auto& r : kvxtest::reports())
        EXPECT_TRUE(kvxtest::names_raising_line(r));
    clear();
    EXPECT_EQ(QXsEvalGaussMix(s, &x, 1), 1.0);   // the next build replaces the half-built tables
    QXsFreeGaussMixServer(s);
    EXPECT_EQ(qx::testing::live_blocks(), live);
    EXPECT_TRUE(got().empty());
}
