// AVX2 paths of the hottest scaled operations, chosen at run time when the
// processor has AVX2. Each gives exactly the values and reports of the plain
// loops in qx_scale.h, which remain the path on every other processor and
// for the elements after the last whole 32-byte vector.
//
//   saturating add/sub of unsigned bytes, signed bytes and shorts (the
//   processor's saturating instructions are exactly the clamp; unsigned
//   subtraction saturating at zero is also the automatic mode);
//   checked add/sub: the wrapped result is stored, and a lane whose
//   saturated result differs from the wrapped one left the range, upward
//   when the saturated result is the maximum, downward when the minimum;
//   automatic-shift multiplication of shorts: the low and high halves of
//   each 32-bit product (mullo/mulhi) tell whether it fits (the high half is
//   the sign extension of the low one), give the 32-bit extremes, and give
//   (product >> s) as (low >> s) | (high << (16 - s));
//   the sum of shorts, by pairwise multiply-add into 32-bit lanes.
#pragma once

#include <cstdint>
#include <type_traits>

#if defined(__x86_64__) || defined(__i386__)
#define QX_SCALE_X86 1
#include <immintrin.h>
#endif

namespace qx::x86 {

// Set by tests to run the plain loops on a processor that has AVX2.
inline bool& plain_only() noexcept {
    static bool yes = false;
    return yes;
}

#if QX_SCALE_X86

#define QX_AVX2 __attribute__((target("avx2")))

inline bool has_avx2() noexcept {
    static const bool yes = __builtin_cpu_supports("avx2");
    return yes && !plain_only();
}

template <class T>
QX_AVX2 inline __m256i load(const T* p) noexcept {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i_u*>(p));
}
template <class T>
QX_AVX2 inline void store(T* p, __m256i v) noexcept {
    _mm256_storeu_si256(reinterpret_cast<__m256i_u*>(p), v);
}

template <class T>
QX_AVX2 inline __m256i splat(T v) noexcept {
    if constexpr (sizeof(T) == 1)
        return _mm256_set1_epi8(static_cast<char>(v));
    else
        return _mm256_set1_epi16(static_cast<short>(v));
}

template <class E, class Op>
QX_AVX2 inline __m256i saturated(__m256i a, __m256i b) noexcept {
    if constexpr (E::bits == 16)
        return Op::is_sub ? _mm256_subs_epi16(a, b) : _mm256_adds_epi16(a, b);
    else if constexpr (E::is_signed)
        return Op::is_sub ? _mm256_subs_epi8(a, b) : _mm256_adds_epi8(a, b);
    else
        return Op::is_sub ? _mm256_subs_epu8(a, b) : _mm256_adds_epu8(a, b);
}

template <class E, class Op>
QX_AVX2 inline __m256i wrapped(__m256i a, __m256i b) noexcept {
    if constexpr (E::bits == 16)
        return Op::is_sub ? _mm256_sub_epi16(a, b) : _mm256_add_epi16(a, b);
    else
        return Op::is_sub ? _mm256_sub_epi8(a, b) : _mm256_add_epi8(a, b);
}

template <class E>
QX_AVX2 inline __m256i equal(__m256i a, __m256i b) noexcept {
    if constexpr (E::bits == 16)
        return _mm256_cmpeq_epi16(a, b);
    else
        return _mm256_cmpeq_epi8(a, b);
}

// Saturating add or subtract of whole vectors; returns the elements done.
// ScalarR: the right operand is rv for every element.
template <class E, class Op, bool ScalarR>
QX_AVX2 long saturate(const typename E::T* l, const typename E::T* r, typename E::T rv, typename E::T* d,
                      long n) noexcept {
    constexpr long lanes = 32 / sizeof(typename E::T);
    const long m = n - n % lanes;
    const __m256i rs = splat(rv);
#pragma GCC unroll 2
    for (long k = 0; k < m; k += lanes)
        store(d + k, saturated<E, Op>(load(l + k), ScalarR ? rs : load(r + k)));
    return m;
}

// Checked add or subtract: stores the wrapped results and reports whether
// any left the range upward (over) or downward (under). A lane left the
// range where its saturated and wrapped results differ. For signed elements
// the saturated value of such a lane is the maximum (upward: sign bit clear,
// low bits set) or the minimum (downward: sign bit set, low bits clear), so
// one OR of those lanes keeps both answers apart; an unsigned sum can only
// go up and an unsigned difference only down.
template <class E, class Op, bool ScalarR>
QX_AVX2 long checked(const typename E::T* l, const typename E::T* r, typename E::T rv, typename E::T* d, long n,
                     bool& over, bool& under) noexcept {
    using T = typename E::T;
    constexpr long lanes = 32 / sizeof(T);
    const long m = n - n % lanes;
    const __m256i rs = splat(rv);
    const __m256i ones = _mm256_set1_epi8(-1);
    __m256i acc = _mm256_setzero_si256();
#pragma GCC unroll 2
    for (long k = 0; k < m; k += lanes) {
        __m256i a = load(l + k), b = ScalarR ? rs : load(r + k);
        __m256i w = wrapped<E, Op>(a, b), s = saturated<E, Op>(a, b);
        store(d + k, w);
        acc = _mm256_or_si256(acc, _mm256_andnot_si256(equal<E>(s, w), E::is_signed ? s : ones));
    }
    if constexpr (E::is_signed) {
        const __m256i sign = splat(static_cast<T>(E::lo));
        over = !_mm256_testz_si256(acc, _mm256_andnot_si256(sign, ones));
        under = !_mm256_testz_si256(acc, sign);
    } else {
        bool any = !_mm256_testz_si256(acc, acc);
        over = any && !Op::is_sub;
        under = any && Op::is_sub;
    }
    return m;
}

// Products of shorts: low and high halves.
template <bool ScalarR>
QX_AVX2 inline void products(const std::int16_t* l, const std::int16_t* r, __m256i rs, long k, __m256i& lo,
                             __m256i& hi) noexcept {
    __m256i a = load(l + k), b = ScalarR ? rs : load(r + k);
    lo = _mm256_mullo_epi16(a, b);
    hi = _mm256_mulhi_epi16(a, b);
}

// True when every product of [b, e) fits a short (whole vectors only; the
// caller checks the rest). e - b must be a multiple of 16.
template <bool ScalarR>
QX_AVX2 bool products_fit(const std::int16_t* l, const std::int16_t* r, std::int16_t rv, long b, long e) noexcept {
    const __m256i rs = splat(rv);
    __m256i bad = _mm256_setzero_si256();
    for (long k = b; k < e; k += 16) {
        __m256i lo, hi;
        products<ScalarR>(l, r, rs, k, lo, hi);
        bad = _mm256_or_si256(bad, _mm256_xor_si256(hi, _mm256_srai_epi16(lo, 15)));
    }
    return _mm256_testz_si256(bad, bad);
}

// Largest and smallest 32-bit product of [b, e), e - b a multiple of 16.
template <bool ScalarR>
QX_AVX2 void product_span(const std::int16_t* l, const std::int16_t* r, std::int16_t rv, long b, long e,
                          std::int32_t& mx, std::int32_t& mn) noexcept {
    const __m256i rs = splat(rv);
    __m256i vmx = _mm256_set1_epi32(mx), vmn = _mm256_set1_epi32(mn);
    for (long k = b; k < e; k += 16) {
        __m256i lo, hi;
        products<ScalarR>(l, r, rs, k, lo, hi);
        __m256i p0 = _mm256_unpacklo_epi16(lo, hi), p1 = _mm256_unpackhi_epi16(lo, hi);
        vmx = _mm256_max_epi32(vmx, _mm256_max_epi32(p0, p1));
        vmn = _mm256_min_epi32(vmn, _mm256_min_epi32(p0, p1));
    }
    alignas(32) std::int32_t a[8], c[8];
    _mm256_store_si256(reinterpret_cast<__m256i*>(a), vmx);
    _mm256_store_si256(reinterpret_cast<__m256i*>(c), vmn);
    for (int i = 0; i < 8; ++i) {
        mx = a[i] > mx ? a[i] : mx;
        mn = c[i] < mn ? c[i] : mn;
    }
}

// Stores the low 16 bits of (product >> s), 0 <= s <= 16, for [b, e).
template <bool ScalarR>
QX_AVX2 void store_products(const std::int16_t* l, const std::int16_t* r, std::int16_t rv, std::int16_t* d, long b,
                            long e, int s) noexcept {
    const __m256i rs = splat(rv);
    if (s == 0) {   // the products fit: their low halves
        for (long k = b; k < e; k += 16)
            store(d + k, _mm256_mullo_epi16(load(l + k), ScalarR ? rs : load(r + k)));
        return;
    }
    const __m128i right = _mm_cvtsi32_si128(s), left = _mm_cvtsi32_si128(16 - s);
    for (long k = b; k < e; k += 16) {
        __m256i lo, hi;
        products<ScalarR>(l, r, rs, k, lo, hi);
        store(d + k, _mm256_or_si256(_mm256_srl_epi16(lo, right), _mm256_sll_epi16(hi, left)));
    }
}

// Arithmetic shift of stored shorts, [b, e) a multiple of 16 long.
QX_AVX2 inline void shift_stored(std::int16_t* d, long b, long e, int s) noexcept {
    const __m128i count = _mm_cvtsi32_si128(s);
    for (long k = b; k < e; k += 16)
        store(d + k, _mm256_sra_epi16(load(d + k), count));
}

// Sum of shorts, exactly.
QX_AVX2 inline std::int64_t sum16(const std::int16_t* v, long n) noexcept {
    const __m256i ones = _mm256_set1_epi16(1);
    std::int64_t total = 0;
    long k = 0;
    // Each 32-bit lane gains at most 2^16 in magnitude per vector: 2^14
    // vectors per block keep it below 2^31.
    constexpr long block = 16L << 14;
    while (n - k >= 16) {
        long e = n - k > block ? k + block : n - (n - k) % 16;
        __m256i acc = _mm256_setzero_si256();
        for (; k < e; k += 16)
            acc = _mm256_add_epi32(acc, _mm256_madd_epi16(load(v + k), ones));
        alignas(32) std::int32_t a[8];
        _mm256_store_si256(reinterpret_cast<__m256i*>(a), acc);
        for (int i = 0; i < 8; ++i)
            total += a[i];
    }
    for (; k < n; ++k)
        total += v[k];
    return total;
}

#undef QX_AVX2

#else

inline bool has_avx2() noexcept { return false; }

#endif

}  // namespace qx::x86
