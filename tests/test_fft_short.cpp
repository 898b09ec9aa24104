// Short-data transforms: the fixed-point path against the exact scaled DFT,
// its output shift rules, and the float path with its scale factor.
#include "fft_reference.h"

using namespace fftref;

namespace {

struct Transform {
    Shape shape;
    void (*fn)(short*, int, int, int, int*);
    double amplitude;  // of random input that keeps the 64-fold values and their sums in 32 bits
};
constexpr Transform kTransforms[] = {
    {Shape::Complex, QXvFft, 20000}, {Shape::Real, QXwRealFft, 30000}, {Shape::Packed, QXwCcsFft, 8000}};

std::size_t count(Shape s, std::size_t n) { return s == Shape::Complex ? 2 * n : n; }

}  // namespace

// Up to order 10 the transforms run on 32-bit integers and stay within 2 LSB
// of the exact result: the error of each 16384-scaled product is below one
// unit of the 64-fold data, and 64 such units make one output LSB.
TEST_F(FftTest, FixedPointStaysWithinTwoLsbOfTheScaledDft) {
    struct Case {
        int flags, factor, sign;
    };
    for (int order = 1; order <= 10; ++order) {
        const std::size_t n = std::size_t{1} << order;
        for (const Transform& t : kTransforms) {
            const auto in = noise<short>(count(t.shape, n), t.amplitude, 20 * order + unsigned(t.shape));
            // All results are the DFT divided by n: forward with the factor `order`, the scaled
            // inverse by itself, the unscaled inverse with the factor.
            for (Case c :
                 {Case{QX_FORWARD, order, -1}, {QX_INVERSE, 0, 1}, {QX_INVERSE | QX_NO_INVERSE_SCALING, order, 1}}) {
                Dft X(t.shape, in, c.sign);
                std::vector<short> x = in;
                int sf = c.factor;
                t.fn(x.data(), order, c.flags, 1, &sf);
                EXPECT_EQ(sf, c.factor);
                for (std::size_t i = 0; i < x.size(); ++i)
                    ASSERT_NEAR(x[i], X.at(i) / double(n), 2.0)
                        << int(t.shape) << " " << order << " " << c.flags << " " << i;
            }
        }
    }
    EXPECT_TRUE(got().empty());
}

// A constant c at order 3 gives position 0 = 64 * 8c before the output shift
// s = 6 + factor (doScale 1): right by s for s >= 1, left by s modulo 32
// below, keeping the low 16 bits; doScale 3 saturates instead, doScale 0
// ignores the factor and sets it to 0.
TEST_F(FftTest, OutputShiftWrapsSaturatesAndShiftsLeftModulo32) {
    struct Case {
        short c;
        int doScale, factor;
        short want;
        int factorAfter;
    };
    for (Case k : {Case{1000, 1, 0, 8000, 0},
                   {5000, 0, 7, short(40000 - 65536), 0},  // keeps the low 16 bits
                   {5000, 3, 7, 32767, 0},
                   {-5000, 3, 7, -32768, 0},
                   {100, 1, -3, 6400, -3},  // s = 3
                   {10, 1, -6, 80 * 64, -6},  // s = 0
                   {100, 1, -8, 0, -8},       // s = -2: left by 30 keeps no low bits
                   {1, 1, -64, -32768, -64},  // s = -58: left by 6, 32768 wraps
                   {-100, 1, 60, -1, 60}}) {  // shifted out, the sign remains
        std::vector<short> x(8, k.c);
        int sf = k.factor;
        QXwRealFft(x.data(), 3, QX_FORWARD, k.doScale, &sf);
        EXPECT_EQ(x, (std::vector<short>{k.want, 0, 0, 0, 0, 0, 0, 0})) << k.c << " " << k.factor;
        EXPECT_EQ(sf, k.factorAfter);
    }
    EXPECT_TRUE(got().empty());
}

// doScale 2 and every order above 10 go through floats: doScale 2 reports the
// smallest factor that makes the peak fit, doScale 1 applies the given one.
TEST_F(FftTest, FloatPathFindsOrAppliesTheFactor) {
    for (int order : {3, 11}) {
        const std::size_t n = std::size_t{1} << order;
        for (const Transform& t : kTransforms) {
            const auto in = noise<short>(count(t.shape, n), 30000, 30 * order + unsigned(t.shape));
            Dft X(t.shape, in, -1);
            double peak = 0;
            for (std::size_t i = 0; i < in.size(); ++i)
                peak = std::max(peak, std::abs(X.at(i)));
            const int chosen = int(std::ceil(std::log2(peak / 32767.0)));
            for (int doScale : {2, 1}) {
                if (doScale == 1 && order <= 10)
                    continue;  // the fixed-point path
                std::vector<short> x = in;
                int sf = doScale == 2 ? 99 : chosen + 1;
                t.fn(x.data(), order, QX_FORWARD, doScale, &sf);
                EXPECT_EQ(sf, doScale == 2 ? chosen : chosen + 1) << int(t.shape) << " " << order;
                const double unit = std::ldexp(1.0, sf);
                for (std::size_t i = 0; i < x.size(); ++i)
                    ASSERT_NEAR(x[i] * unit, X.at(i), unit * 1.01)
                        << int(t.shape) << " " << order << " " << doScale << " " << i;
            }
        }
    }
    EXPECT_TRUE(got().empty());
}
