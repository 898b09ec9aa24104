// Gaussian mixture servers checked against the mixture formula evaluated
// directly in the test: sum_k w_k exp(-0.5 (x-m_k)' C_k (x-m_k)).
#include <cmath>
#include <random>
#include <vector>

#include "kvx_test.h"
#include "model_reference.h"
#include "qx_gauss.h"

using kvxtest::Rep;
using Reps = std::vector<Rep>;

class Gauss : public kvxtest::LibTest {};

TEST_F(Gauss, MixturesMatchTheFormulaInEveryFormWithAndWithoutTables) {
    std::mt19937 g(1);
    std::uniform_real_distribution<float> u(-1.5f, 1.5f), pos(0.2f, 2.0f);
    std::uniform_int_distribution<int> val(-200, 200), prec(1, 60), wt(1000, 20000);
    const int scaleExp = -12;
    for (int n : {1, 3, 13})
        for (int nGauss : {1, 4}) {
            ref::Mix<float> f(n, nGauss, [&](int k) { return k == 1 ? u(g) : k == 3 ? 0.2f * u(g) : pos(g); });
            ref::Mix<short> w(n, nGauss, [&](int k) { return short(k == 0 ? wt(g) : k == 1 ? val(g) : k == 2 ? prec(g) : val(g) / 50); });
            for (bool full : {false, true})
                for (int tables : {0, 1}) {
                    auto* fs = QXsInitGaussMixServer(f.w.data(), f.meanRows.data(), full ? f.fullPtrs.data() : nullptr,
                                                     full ? nullptr : f.diagRows.data(), n, nGauss, tables);
                    auto* ws = QXwInitGaussMixServer(w.w.data(), w.meanRows.data(), full ? w.fullPtrs.data() : nullptr,
                                                     full ? nullptr : w.diagRows.data(), n, nGauss, tables, scaleExp);
                    for (int rep = 0; rep < 10; ++rep) {
                        std::vector<float> x(n);
                        std::vector<short> y(n);
                        for (int i = 0; i < n; ++i) x[i] = u(g), y[i] = short(w.mean[rep % nGauss][i] + val(g) / 32);
                        // The tables truncate the exponent's magnitude to steps of 0.001: up to 0.1 % high.
                        const double want = double(f.value(x.data(), full)), v = QXsEvalGaussMix(fs, x.data(), n);
                        EXPECT_TRUE(v >= want * (1 - (tables ? 1e-6 : 1e-12)) && v <= want * (1 + (tables ? 1.01e-3 : 1e-12)))
                            << v << " " << want;
                        const double wwant = double(w.value(y.data(), full, std::ldexp(1.0L, scaleExp)) / 4);
                        int sf = 2;   // the result times 2^-2, truncated
                        EXPECT_NEAR(QXwEvalGaussMix(ws, y.data(), n, 1, &sf), wwant, tables ? 1.01e-3 * wwant + 1 : 1);
                        EXPECT_EQ(sf, 2);
                    }
                    QXsFreeGaussMixServer(fs), QXwFreeGaussMixServer(ws);
                }
        }
    EXPECT_TRUE(got().empty());
}

TEST_F(Gauss, TableEdgesPositiveExponentsAndTableLifetime) {
    // One component, n 1: the exponent is -0.5 * c * x^2.
    float w = 0.75f, mean = 0.0f, c = 2.0f, x = 0.0f, fm = -2.0f, *means[1] = {&mean}, *diags[1] = {&c}, *frow[1] = {&fm};
    float** fmat[1] = {frow};
    QXsGaussMixServer* t = QXsInitGaussMixServer(&w, means, nullptr, diags, 1, 1, 1);
    QXsGaussMixServer* e = QXsInitGaussMixServer(&w, means, nullptr, diags, 1, 1, 0);
    EXPECT_EQ(QXsEvalGaussMix(t, &x, 1), 0.75);   // at the mean: index 0 of both tables
    EXPECT_EQ(QXsEvalGaussMix(e, &x, 1), 0.75);
    ASSERT_EQ(qx::expTablesBuilt, 1);
    for (int k : {0, 1, 50, 80}) EXPECT_NEAR(qx::integralExpTable[k], std::exp(-k), 1e-7 * std::exp(-k));   // normal floats
    for (int k : {0, 1, 500, 999}) EXPECT_NEAR(qx::fractionalExpTable[k], std::exp(-k * 0.001), 1e-7);
    x = 10.0f;   // e = -100 exactly: flushed to 0
    EXPECT_EQ(QXsEvalGaussMix(t, &x, 1), 0.0);
    EXPECT_GT(QXsEvalGaussMix(e, &x, 1), 0.0);
    c = static_cast<float>(99.9995 * 2.0 / 100.0);   // e = -99.9995: entries 99 and 999
    EXPECT_DOUBLE_EQ(QXsEvalGaussMix(t, &x, 1), 0.75 * double(qx::fractionalExpTable[999]) * qx::integralExpTable[99]);
    c = -1.0f, x = 1.0f;   // a negative precision: the tables refuse, exp grows
    EXPECT_EQ(QXsEvalGaussMix(t, &x, 1), 0.0);
    EXPECT_EQ(got(), (Reps{{-3, "LookupExponential (Macro)", "Cannot lookup exponential of positive value"}}));
    EXPECT_TRUE(kvxtest::names_raising_line(kvxtest::reports()[0]));
    clear();
    EXPECT_NEAR(QXsEvalGaussMix(e, &x, 1), 0.75 * std::exp(0.5), 1e-12);
    QXsGaussMixServer* f = QXsInitGaussMixServer(&w, means, fmat, nullptr, 1, 1, 1);   // a negative full form: its magnitude
    EXPECT_NEAR(QXsEvalGaussMix(f, &x, 1), 0.75 * std::exp(-1.0), 1e-3);
    const long live = qx::testing::live_blocks();
    QXsFreeGaussMixServer(f);   // freeing one table-using server releases the tables
    EXPECT_EQ(qx::expTablesBuilt, 0);
    EXPECT_EQ(qx::testing::live_blocks(), live - 3);
    QXsFreeGaussMixServer(e);   // no tables: leaves them alone
    EXPECT_EQ(QXsEvalGaussMix(t, &(x = 0.0f), 1), 0.75);   // the next use rebuilds them
    EXPECT_EQ(qx::expTablesBuilt, 1);
    QXsFreeGaussMixServer(t);
    EXPECT_EQ(qx::expTablesBuilt, 0);
    EXPECT_TRUE(got().empty());
}

TEST_F(Gauss, ChecksInOrder) {
    float w = 1.0f, mean = 0.0f, c = 1.0f, x = 2.0f, *means[1] = {&mean}, *diags[1] = {&c}, **full[1] = {diags};
    short sw = 1;
    int sf = 0;
    ref::each_fresh({[&] { EXPECT_EQ(QXsInitGaussMixServer(nullptr, nullptr, nullptr, nullptr, 0, 0, 0), nullptr); },
                     [&] { EXPECT_EQ(QXwInitGaussMixServer(&sw, nullptr, nullptr, nullptr, -1, 1, 0, 0), nullptr); },
                     [&] { EXPECT_EQ(QXsInitGaussMixServer(&w, means, full, diags, 1, 1, 0), nullptr); },
                     [&] { EXPECT_EQ(QXsInitGaussMixServer(&w, means, nullptr, nullptr, 1, 1, 0), nullptr); },
                     [&] { EXPECT_EQ(QXsEvalGaussMix(nullptr, nullptr, 0), 0.0); },
                     [&] { EXPECT_EQ(QXwEvalGaussMix(nullptr, nullptr, 0, 1, &sf), 0); },
                     [&] { QXsFreeGaussMixServer(nullptr), QXwFreeGaussMixServer(nullptr); }});
    const std::string oneOf = "One of InverseCov or InverseCovD must be NULL and the other non NULL";
    EXPECT_EQ(got(), ref::reps({{-5, "QXsInitGaussMixServer", {"n<=0", "nGauss<=0", "n<=0", "weightVect==0", "meanVect==0"}},
                                {-5, "QXwInitGaussMixServer", {"n<=0", "n<=0", "meanVect==0"}},
                                {-5, "QXsInitGaussMixServer", {oneOf, oneOf}},
                                {-5, "QXsEvalGaussMix", {"n<=0", "server==0", "vect==0"}},
                                {-5, "QXwEvalGaussMix", {"n<=0", "server==0", "vect==0"}},
                                {-5, "QXsFreeGaussMixServer", {"server==0"}}, {-5, "QXwFreeGaussMixServer", {"server==0"}}}));
    EXPECT_TRUE(kvxtest::all_name_raising_lines());
    clear();
    // The evaluation uses its own n, not the server's; a pending error frees nothing.
    QXsGaussMixServer* s = QXsInitGaussMixServer(&w, means, nullptr, diags, 5, 1, 0);
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
