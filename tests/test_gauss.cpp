// Gaussian mixture servers checked against the mixture formula evaluated
// directly in the test: sum_k w_k exp(-0.5 (x-m_k)' C_k (x-m_k)).
#include <cmath>
#include <functional>
#include <random>
#include <vector>

#include "kvx_test.h"
#include "model_reference.h"
#include "qx_gauss.h"

using kvxtest::FailAllocation;
using kvxtest::LibTest;
using kvxtest::Rep;
using Reps = std::vector<Rep>;

namespace {

class Gauss : public LibTest {};

// Every server in both forms, with and without tables.
template <class T, class Init, class Eval>
void check_against_formula(std::mt19937& g, int n, int nGauss, ref::Mix<T>& m, Init init, Eval eval_and_expect) {
    for (bool useFull : {false, true})
        for (int tables : {0, 1}) {
            auto* s = init(m.w.data(), m.meanRows.data(), useFull ? m.fullPtrs.data() : nullptr,
                           useFull ? nullptr : m.diagRows.data(), n, nGauss, tables);
            ASSERT_NE(s, nullptr);
            for (int rep = 0; rep < 20; ++rep) eval_and_expect(s, useFull, tables, g);
        }
}

}  // namespace

TEST_F(Gauss, MixturesMatchTheFormulaWithAndWithoutTables) {
    std::mt19937 g(1);
    std::uniform_real_distribution<float> u(-1.5f, 1.5f), pos(0.2f, 2.0f);
    for (int n : {1, 3, 13})
        for (int nGauss : {1, 4}) {
            ref::Mix<float> m(n, nGauss, [&](int kind) { return kind == 1 ? u(g) : kind == 3 ? 0.2f * u(g) : pos(g); });
            check_against_formula<float>(g, n, nGauss, m, QXsInitGaussMixServer, [&](QXsGaussMixServer* s, bool full, int tables, std::mt19937&) {
                std::vector<float> x(n);
                for (float& v : x) v = u(g);
                const double want = static_cast<double>(m.value(x.data(), full)), v = QXsEvalGaussMix(s, x.data(), n);
                // The table truncates the exponent's magnitude to steps of 0.001: up to 0.1 % high.
                EXPECT_GE(v, want * (1 - (tables ? 1e-6 : 1e-12)));
                EXPECT_LE(v, want * (1 + (tables ? 1.01e-3 : 1e-12)));
            });
        }
    // 16-bit: the form scaled by 2^scaleExp, the result converted with the caller's factor.
    std::uniform_int_distribution<int> val(-200, 200), prec(1, 60), wt(1000, 20000);
    const int n = 6, nGauss = 3, scaleExp = -12;
    ref::Mix<short> m(n, nGauss, [&](int kind) { return static_cast<short>(kind == 0 ? wt(g) : kind == 1 ? val(g) : kind == 2 ? prec(g) : 0); });
    auto init = [&](short* w, short** mean, short*** full, short** diag, int, int, int tables) {
        return QXwInitGaussMixServer(w, mean, full, diag, n, nGauss, tables, scaleExp);
    };
    int rep = 0;
    check_against_formula<short>(g, n, nGauss, m, init, [&](QXwGaussMixServer* s, bool full, int tables, std::mt19937&) {
        std::vector<short> x(n);
        for (int i = 0; i < n; ++i) x[i] = static_cast<short>(m.mean[++rep % nGauss][i] + val(g) / 8);
        const double want = static_cast<double>(m.value(x.data(), full, std::ldexp(1.0L, scaleExp)) / 4);
        int sf = 2;   // value * 2^-2, truncated
        EXPECT_NEAR(QXwEvalGaussMix(s, x.data(), n, 1, &sf), want, tables ? 1.01e-3 * want + 1 : 1);
        EXPECT_EQ(sf, 2);
    });
    EXPECT_TRUE(got().empty());
}

TEST_F(Gauss, TableEdgesPositiveExponentsAndTableLifetime) {
    // One component, n 1: the exponent is -0.5 * c * x^2.
    float w = 0.75f, mean = 0.0f, c = 2.0f, x = 0.0f;
    float* means[1] = {&mean};
    float* diags[1] = {&c};
    QXsGaussMixServer* t = QXsInitGaussMixServer(&w, means, nullptr, diags, 1, 1, 1);
    QXsGaussMixServer* e = QXsInitGaussMixServer(&w, means, nullptr, diags, 1, 1, 0);
    EXPECT_EQ(QXsEvalGaussMix(t, &x, 1), 0.75);   // at the mean: index 0 of both tables
    EXPECT_EQ(QXsEvalGaussMix(e, &x, 1), 0.75);
    ASSERT_EQ(qx::expTablesBuilt, 1);
    for (int k : {0, 1, 50, 80})   // normal floats
        EXPECT_NEAR(qx::integralExpTable[k], std::exp(-k), 1e-7 * std::exp(-k));
    for (int k : {0, 1, 500, 999}) EXPECT_NEAR(qx::fractionalExpTable[k], std::exp(-k * 0.001), 1e-7);
    x = 10.0f;   // e = -100 exactly: flushed to 0
    EXPECT_EQ(QXsEvalGaussMix(t, &x, 1), 0.0);
    EXPECT_GT(QXsEvalGaussMix(e, &x, 1), 0.0);
    c = static_cast<float>(99.9995 * 2.0 / 100.0);   // e = -99.9995: entries 99 and 999
    EXPECT_DOUBLE_EQ(QXsEvalGaussMix(t, &x, 1), 0.75 * static_cast<double>(qx::fractionalExpTable[999]) * qx::integralExpTable[99]);

    c = -1.0f;   // a negative precision: the table refuses, exp grows
    x = 1.0f;
    EXPECT_EQ(QXsEvalGaussMix(t, &x, 1), 0.0);
    EXPECT_EQ(got(), (Reps{{-3, "LookupExponential (Macro)", "Cannot lookup exponential of positive value"}}));
    EXPECT_TRUE(kvxtest::names_raising_line(kvxtest::reports()[0]));
    clear();
    EXPECT_NEAR(QXsEvalGaussMix(e, &x, 1), 0.75 * std::exp(0.5), 1e-12);
    float fm = -2.0f;   // a full matrix with a negative form counts as its magnitude
    float* frow[1] = {&fm};
    float** fmat[1] = {frow};
    QXsGaussMixServer* f = QXsInitGaussMixServer(&w, means, fmat, nullptr, 1, 1, 1);
    EXPECT_NEAR(QXsEvalGaussMix(f, &x, 1), 0.75 * std::exp(-1.0), 1e-3);

    // Freeing one table-using server releases the tables; the next use rebuilds.
    const long live = qx::testing::live_blocks();
    QXsFreeGaussMixServer(f);
    EXPECT_EQ(qx::expTablesBuilt, 0);
    EXPECT_EQ(qx::testing::live_blocks(), live - 3);
    QXsFreeGaussMixServer(e);   // no tables: leaves them alone
    EXPECT_EQ(QXsEvalGaussMix(t, &(x = 0.0f), 1), 0.75);
    EXPECT_EQ(qx::expTablesBuilt, 1);
    QXsFreeGaussMixServer(t);
    EXPECT_EQ(qx::expTablesBuilt, 0);
    EXPECT_TRUE(got().empty());
}

TEST_F(Gauss, ChecksInOrder) {
    float w = 1.0f, mean = 0.0f, c = 1.0f, x = 2.0f;
    short sw = 1;
    float* means[1] = {&mean};
    float* diags[1] = {&c};
    float** full[1] = {diags};
    int sf = 0;
    const std::string oneOf = "One of InverseCov or InverseCovD must be NULL and the other non NULL";
    // Each call reports and fails on its own; the status is reset between them.
    for (auto call : std::vector<std::function<bool()>>{
             [&] { return QXsInitGaussMixServer(nullptr, nullptr, nullptr, nullptr, 0, 0, 0) == nullptr; },
             [&] { return QXwInitGaussMixServer(&sw, nullptr, nullptr, nullptr, -1, 1, 0, 0) == nullptr; },
             [&] { return QXsInitGaussMixServer(&w, means, full, diags, 1, 1, 0) == nullptr; },
             [&] { return QXsInitGaussMixServer(&w, means, nullptr, nullptr, 1, 1, 0) == nullptr; },
             [&] { return QXsEvalGaussMix(nullptr, nullptr, 0) == 0.0; },
             [&] { return QXwEvalGaussMix(nullptr, nullptr, 0, 1, &sf) == 0; },
             [&] { QXsFreeGaussMixServer(nullptr), QXwFreeGaussMixServer(nullptr); return true; }}) {
        EXPECT_TRUE(call());
        QXSetStatus(0);
    }
    EXPECT_EQ(got(), (Reps{{-5, "QXsInitGaussMixServer", "n<=0"}, {-5, "QXsInitGaussMixServer", "nGauss<=0"},
                           {-5, "QXsInitGaussMixServer", "n<=0"}, {-5, "QXsInitGaussMixServer", "weightVect==0"},
                           {-5, "QXsInitGaussMixServer", "meanVect==0"},
                           {-5, "QXwInitGaussMixServer", "n<=0"}, {-5, "QXwInitGaussMixServer", "n<=0"},
                           {-5, "QXwInitGaussMixServer", "meanVect==0"},
                           {-5, "QXsInitGaussMixServer", oneOf}, {-5, "QXsInitGaussMixServer", oneOf},
                           {-5, "QXsEvalGaussMix", "n<=0"}, {-5, "QXsEvalGaussMix", "server==0"}, {-5, "QXsEvalGaussMix", "vect==0"},
                           {-5, "QXwEvalGaussMix", "n<=0"}, {-5, "QXwEvalGaussMix", "server==0"}, {-5, "QXwEvalGaussMix", "vect==0"},
                           {-5, "QXsFreeGaussMixServer", "server==0"}, {-5, "QXwFreeGaussMixServer", "server==0"}}));
    for (auto& r : kvxtest::reports()) EXPECT_TRUE(kvxtest::names_raising_line(r));
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

TEST_F(Gauss, AllocationFailuresLeaveNothingBehind) {
    // The record, then the two tables at the first evaluation.
    float w = 1.0f, mean = 0.0f, c = 1.0f, x = 0.0f;
    float* means[1] = {&mean};
    float* diags[1] = {&c};
    const Reps want[] = {{{-4, "QXsInitGaussMixServer", "insufficiency of memory for pointer  server"}},
                         {{-4, "BuildExpTables", "insufficiency of memory for pointer  integralExpTable"}, {-1, "QXsEvalGaussMix", ""}},
                         {{-4, "BuildExpTables", "insufficiency of memory for pointer  fractionalExpTable"}, {-1, "QXsEvalGaussMix", ""}},
                         {}};
    const long live = qx::testing::live_blocks();
    for (int nth = 1; nth <= 4; ++nth) {
        QXsGaussMixServer* s;
        {
            FailAllocation f(nth);
            s = QXsInitGaussMixServer(&w, means, nullptr, diags, 1, 1, 1);
            if (s) {
                EXPECT_EQ(QXsEvalGaussMix(s, &x, 1), nth == 4 ? 1.0 : 0.0);
            }
        }
        EXPECT_EQ(got(), want[nth - 1]) << nth;
        for (auto& r : kvxtest::reports()) EXPECT_TRUE(kvxtest::names_raising_line(r));
        EXPECT_EQ(qx::expTablesBuilt, nth == 4 ? 1 : 0);
        clear();
        if (s) {
            EXPECT_EQ(QXsEvalGaussMix(s, &x, 1), 1.0);   // rebuilds over a half-built pair
            QXsFreeGaussMixServer(s);
        }
        EXPECT_EQ(qx::testing::live_blocks(), live) << nth;
    }
}
