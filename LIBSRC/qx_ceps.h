// Internal pieces of the mel-frequency cepstrum shared with the tests.
#pragma once

#include <bit>
#include <cstdint>

#include "qx_report.h"

namespace qx {

// The cosine transform of the cepstrum ("OwnsDct"): outVect[k] = sum over i of
// F[k][i] * inVect[i], with F[0][i] = c0 and F[k][i] = c1 * cos(k (i + 1/2) a),
// a = 3.14159265 / n, for k >= 1. The factor table is cached in the working
// context for the last (n, nCoefficients, c0, c1). Returns the status.
int owns_dct(const double* inVect, int n, float* outVect, int nCoefficients, double c0, double c1) noexcept;

// Mel scale and its inverse, with the stored reciprocals 1/700 and 1/2595.
double mel(double hz) noexcept;
double mel_to_hz(double mel) noexcept;

// True for positive, finite, normal doubles: the domain of half_log10_normal.
inline bool is_normal_positive(double p) noexcept {
    const std::uint64_t e = std::bit_cast<std::uint64_t>(p) >> 52;  // sign and exponent
    return e - 1u < 2046u;
}

// 0.5 * log10(p) for positive normal p, to within about two units in the last
// place of a double, so that rounded to float it matches the library log10.
// Written with logical shifts, masks and plain double arithmetic only, so that
// loops over it vectorise. p = 2^k * x with x in [sqrt(1/2), sqrt(2));
// log(x) = f - (f^2/2 - s (f^2/2 + R(s^2))), f = x - 1, s = f / (2 + f), with
// the classic minimax coefficients of R; then log10(p) = k log10(2) +
// log(x) / ln(10), log10(2) split into a high part with trailing zero bits
// (k times it is exact) and a low part.
inline double half_log10_normal(double p) noexcept {
    constexpr double Lg1 = 6.666666666666735130e-01, Lg2 = 3.999999999940941908e-01,
                     Lg3 = 2.857142874366239149e-01, Lg4 = 2.222219843214978396e-01,
                     Lg5 = 1.818357216161805012e-01, Lg6 = 1.531383769920937332e-01,
                     Lg7 = 1.479819860511658591e-01;
    constexpr double log10_2hi = 3.01029995663611771306e-01, log10_2lo = 3.69423907715893078616e-13;
    constexpr double invLn10 = 4.34294481903251816668e-01;
    const std::uint64_t bits = std::bit_cast<std::uint64_t>(p);
    // Mantissa in [1, 2), then halved when above sqrt(2) (exponent raised).
    const std::uint64_t mant = (bits & 0x000FFFFFFFFFFFFFull) | 0x3FF0000000000000ull;
    const bool high = mant > 0x3FF6A09E667F3BCDull;
    const double x = std::bit_cast<double>(high ? mant - 0x0010000000000000ull : mant);
    // The biased exponent as a double without an integer conversion.
    const double biased = std::bit_cast<double>(0x4330000000000000ull | (bits >> 52)) - 4503599627370496.0;
    const double k = biased - 1023.0 + (high ? 1.0 : 0.0);
    const double f = x - 1.0;
    const double hfsq = 0.5 * f * f;
    const double s = f / (2.0 + f);
    const double z = s * s, w = z * z;
    const double t1 = w * (Lg2 + w * (Lg4 + w * Lg6));
    const double t2 = z * (Lg1 + w * (Lg3 + w * (Lg5 + w * Lg7)));
    const double logx = f - (hfsq - s * (hfsq + (t2 + t1)));
    return 0.5 * (k * log10_2hi + (k * log10_2lo + logx * invLn10));
}

}  // namespace qx
