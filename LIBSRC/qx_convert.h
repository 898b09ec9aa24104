// Block floating point: conversions between real data (float, double) and
// scaled integers (16-bit, 32-bit). An integer v with scale factor f stands for
// v * 2^f; converting a real x down gives x * 2^-f, truncated toward zero.
//
// The exported QX...ConvertDown / QX...ConvertUp functions check their
// arguments and call the kernels below; other families call either.
#pragma once

#include <array>
#include <cstdint>
#include <limits>

#include "qx_report.h"

namespace qx {

// 2^-k and 2^k for k = 0..64: every multiplication by a power of two reads these.
extern const std::array<double, 65> kShrink;
extern const std::array<double, 65> kEnlarge;

// The multiplier of scale factor f: 2^-f (f > 0 shrinks, f < 0 enlarges),
// from the tables; factors outside -64..64 fall back to an exact ldexp.
double scale_multiplier(int factor) noexcept;

// Truncation toward zero into a 64-bit integer, as the processor does with
// chopping: values outside the 64-bit range and NaN give the integer
// indefinite 0x8000000000000000.
inline std::int64_t trunc64(double x) noexcept {
    if (!(x > -9223372036854775808.0 && x < 9223372036854775808.0))
        return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(x);
}

// The low 16 or 32 bits of a 64-bit integer, as a signed value.
template <class Int>
inline Int low_bits(std::int64_t v) noexcept {
    using U = std::make_unsigned_t<Int>;
    return static_cast<Int>(static_cast<U>(static_cast<std::uint64_t>(v)));
}

template <class Int>
inline Int trunc_to(double x) noexcept { return low_bits<Int>(trunc64(x)); }

// Converts n reals down with the doScale rules (0 truncate, 1 caller's factor,
// 2 automatic, 3 saturate). Arguments are assumed checked. Failures of the
// automatic search are reported under r's name and leave out untouched.
void convert_down(const Report& r, const float* in, short* out, int n, int doScale, int* scaleFactor) noexcept;
void convert_down(const Report& r, const double* in, short* out, int n, int doScale, int* scaleFactor) noexcept;
void convert_down(const Report& r, const float* in, int* out, int n, int doScale, int* scaleFactor) noexcept;
void convert_down(const Report& r, const double* in, int* out, int n, int doScale, int* scaleFactor) noexcept;

// out[k] = in[k] * 2^-scaleFactor (arguments assumed checked).
void convert_up(const short* in, float* out, int n, int scaleFactor) noexcept;
void convert_up(const short* in, double* out, int n, int scaleFactor) noexcept;
void convert_up(const int* in, double* out, int n, int scaleFactor) noexcept;
void convert_up(const int* in, float* out, int n, int scaleFactor) noexcept;

}  // namespace qx
