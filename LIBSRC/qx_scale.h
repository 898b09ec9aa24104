// Element-wise arithmetic of the vector families: element traits, the four
// integer scaling modes and the float loops.
#pragma once

#include <cstdint>

namespace qx {

// ---------------------------------------------------------------------------
// Float forms: plain loops the compiler unrolls and vectorises. The left
// operand is the first argument of the operation (srcDst for the in-place
// forms), so subtraction computes left - right.
struct FAdd { float operator()(float l, float r) const noexcept { return l + r; } };
struct FSub { float operator()(float l, float r) const noexcept { return l - r; } };
struct FMul { float operator()(float l, float r) const noexcept { return l * r; } };

template <class Op>
inline void float_map(const float* left, const float* right, float* dst, long n, Op op) noexcept {
    for (long k = 0; k < n; ++k)
        dst[k] = op(left[k], right[k]);
}

template <class Op>
inline void float_map_scalar(const float* left, float right, float* dst, long n, Op op) noexcept {
    for (long k = 0; k < n; ++k)
        dst[k] = op(left[k], right);
}

}  // namespace qx
