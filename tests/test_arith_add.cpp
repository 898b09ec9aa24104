// Addition, subtraction and multiplication of nibble, byte, short and float
// vectors against the per-element references, over every vector path.
#include <cstdint>
#include <random>
#include <vector>

#include "test_arith_reference.h"

using namespace arithref;

namespace {

class Arith : public kvxtest::LibTest {};

// One set of operands through the three forms in every mode; fixed-shift mode
// with each of `factors`.
void runForms(const Forms& f, const std::vector<int>& a, const std::vector<int>& b, const std::vector<int>& d3,
              const std::vector<int>& factors, int sp = 1, int dp = 1) {
    for (int form = 0; form < 3; ++form) {
        const std::string name = f.name + kSuffix[form];
        for (int doScale = 0; doScale <= 3; ++doScale) {
            for (int sf0 : doScale == 1 ? factors : std::vector<int>{9}) {
                SCOPED_TRACE(testing::Message() << name << " doScale " << doScale << " factor " << sf0 << " n "
                                                << a.size() << " positions " << sp << dp);
                std::vector<int> d = form == 1 ? d3 : b;
                Expect e = expected(f, form, a, b, d, doScale, sf0);
                int sf = sf0;
                f.f[form](a, b, d, doScale, &sf, sp, dp);
                EXPECT_EQ(d, e.out);
                EXPECT_EQ(sf, e.scaleFactor);
                std::vector<kvxtest::Rep> want;
                if (e.over) want.emplace_back(-20, name, "");
                if (e.under) want.emplace_back(-21, name, "");
                EXPECT_EQ(takeReports(), want);
            }
        }
    }
}

}  // namespace

// Random operands in three regimes: the full range; small values that never
// leave the range; small values with one extreme pair, the first result out
// of range, at varied positions (also around the 4096-element blocks).
TEST_F(Arith, EveryFormMatchesTheReferenceInEveryMode) {
    const std::vector<int> factors{0, 1, 3, 15, 31, 33, 64, -1, -7, -33, -64}, few{0, 1, -1, 33};
    std::mt19937 g(1);
    allPaths([&] {
        for (const Forms* f : {&kYAdd, &kTAdd, &kWAdd, &kYSub, &kTSub, &kWSub, &kYMpy, &kTMpy, &kWMpy}) {
            const Type t = f->t;
            const int small = t.is_signed() ? 5 : 7;
            for (int n : {1, 2, 3, 7, 16, 33, 100}) {
                auto rnd = [&](int lo, int hi) { return randomVec(g, t, n, lo, hi); };
                runForms(*f, rnd(t.lo, t.hi), rnd(t.lo, t.hi), rnd(t.lo, t.hi), factors);
                runForms(*f, rnd(-small, small), rnd(-small, small), rnd(t.lo, t.hi), factors);
            }
            for (int n : {40, 9000}) {
                for (int at : {0, 1, 15, 16, 31, 4095, 4096, n - 1}) {
                    if (at >= n) continue;
                    auto a = randomVec(g, t, n, -small, small), b = randomVec(g, t, n, -small, small);
                    a[at] = f->op == Op::mul && t.is_signed() ? t.lo : t.hi;
                    b[at] = f->op == Op::add ? t.hi : t.lo;
                    if (f->op == Op::mul && !t.is_signed()) b[at] = t.hi;
                    runForms(*f, a, b, randomVec(g, t, n, t.lo, t.hi), few);
                }
            }
        }
    });
}

// Nibbles over (source, destination) start positions and lengths.
TEST_F(Arith, NibbleFormsMatchTheReferenceAndKeepTheirNeighbours) {
    std::mt19937 g(2);
    for (const Forms* f : {&kNAdd, &kNSub, &kNMpy}) {
        for (int n : {1, 2, 3, 4, 5, 8, 13, 64, 301}) {
            for (int sp = 0; sp <= 1; ++sp) {
                for (int dp = 0; dp <= 1; ++dp) {
                    int hi = n % 2 ? 3 : 15;  // odd lengths with small values, which automatic mode keeps
                    auto rnd = [&](int top) { return randomVec(g, kNib, n, 0, top); };
                    runForms(*f, rnd(hi), rnd(hi), rnd(15), {0, 1, 2, 33, -1, -3}, sp, dp);
                }
            }
        }
    }
}

TEST_F(Arith, FloatFormsMatchElementResults) {
    struct F {
        Op op;
        int (*f2)(const float*, float*, int);
        int (*f3)(const float*, const float*, float*, int);
        int (*f2s)(float, float*, int);
    };
    auto op = [](Op o, float l, float r) { return o == Op::add ? l + r : o == Op::sub ? l - r : l * r; };
    std::mt19937 g(7);
    std::uniform_real_distribution<float> d(-100.0f, 100.0f);
    for (F f : {F{Op::add, QXsbAdd2, QXsbAdd3, QXsbAdd2s}, F{Op::sub, QXsbSub2, QXsbSub3, QXsbSub2s},
                F{Op::mul, QXsbMpy2, QXsbMpy3, QXsbMpy2s}}) {
        for (int n : {1, 3, 4, 5, 17, 64, 1001}) {
            std::vector<float> a(n), b(n), dst(n + 1, 99.0f);
            for (int k = 0; k < n; ++k) a[k] = d(g), b[k] = d(g);
            const float val = 3.25f;
            auto c = b, c2 = b;
            ASSERT_EQ(f.f3(a.data(), b.data(), dst.data(), n), 0);
            ASSERT_EQ(f.f2(a.data(), c.data(), n), 0);
            ASSERT_EQ(f.f2s(val, c2.data(), n), 0);
            for (int k = 0; k < n; ++k) {
                EXPECT_EQ(dst[k], f.op == Op::sub ? op(f.op, b[k], a[k]) : op(f.op, a[k], b[k])) << k;
                EXPECT_EQ(c[k], op(f.op, b[k], a[k])) << k;
                EXPECT_EQ(c2[k], op(f.op, b[k], val)) << k;
            }
            EXPECT_EQ(dst[n], 99.0f);
        }
    }
    EXPECT_TRUE(got().empty());
}
