// AVX2 and AVX-512 paths of the hottest scaled operations, chosen at run
// time by what the processor has. Each gives exactly the values and reports of the plain
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

#include "qx_cpu.h"

#if QX_X86_PATHS
#define QX_SCALE_X86 1
#include <immintrin.h>
#endif

namespace qx::x86 {

#if QX_SCALE_X86

#define QX_AVX2 QX_TARGET_AVX2

inline bool has_avx2() noexcept { return cpu::at_least(cpu::Path::avx2); }
inline bool has_avx512() noexcept { return cpu::at_least(cpu::Path::avx512); }

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

// AVX-512 (BW) forms of the saturating and checked add/sub and the short
// sum: 64-byte vectors, and lane masks instead of compare vectors.
#define QX_AVX512 QX_TARGET_AVX512

template <class T>
QX_AVX512 inline __m512i load512(const T* p) noexcept {
    return _mm512_loadu_si512(static_cast<const void*>(p));
}
template <class T>
QX_AVX512 inline void store512(T* p, __m512i v) noexcept {
    _mm512_storeu_si512(static_cast<void*>(p), v);
}
template <class T>
QX_AVX512 inline __m512i splat512(T v) noexcept {
    if constexpr (sizeof(T) == 1)
        return _mm512_set1_epi8(static_cast<char>(v));
    else
        return _mm512_set1_epi16(static_cast<short>(v));
}

template <class E, class Op>
QX_AVX512 inline __m512i saturated512(__m512i a, __m512i b) noexcept {
    if constexpr (E::bits == 16)
        return Op::is_sub ? _mm512_subs_epi16(a, b) : _mm512_adds_epi16(a, b);
    else if constexpr (E::is_signed)
        return Op::is_sub ? _mm512_subs_epi8(a, b) : _mm512_adds_epi8(a, b);
    else
        return Op::is_sub ? _mm512_subs_epu8(a, b) : _mm512_adds_epu8(a, b);
}

template <class E, class Op>
QX_AVX512 inline __m512i wrapped512(__m512i a, __m512i b) noexcept {
    if constexpr (E::bits == 16)
        return Op::is_sub ? _mm512_sub_epi16(a, b) : _mm512_add_epi16(a, b);
    else
        return Op::is_sub ? _mm512_sub_epi8(a, b) : _mm512_add_epi8(a, b);
}

template <class E>
QX_AVX512 inline std::uint64_t differ512(__m512i a, __m512i b) noexcept {
    if constexpr (E::bits == 16)
        return _mm512_cmpneq_epi16_mask(a, b);
    else
        return _mm512_cmpneq_epi8_mask(a, b);
}
template <class E>
QX_AVX512 inline std::uint64_t equal512(__m512i a, __m512i b) noexcept {
    if constexpr (E::bits == 16)
        return _mm512_cmpeq_epi16_mask(a, b);
    else
        return _mm512_cmpeq_epi8_mask(a, b);
}

template <class E, class Op, bool ScalarR>
QX_AVX512 long saturate512(const typename E::T* l, const typename E::T* r, typename E::T rv, typename E::T* d,
                           long n) noexcept {
    constexpr long lanes = 64 / sizeof(typename E::T);
    const long m = n - n % lanes;
    const __m512i rs = splat512(rv);
#pragma GCC unroll 2
    for (long k = 0; k < m; k += lanes)
        store512(d + k, saturated512<E, Op>(load512(l + k), ScalarR ? rs : load512(r + k)));
    return m;
}

// As checked() above: lanes whose saturated and wrapped results differ left
// the range, upward where the saturated result is the maximum.
template <class E, class Op, bool ScalarR>
QX_AVX512 long checked512(const typename E::T* l, const typename E::T* r, typename E::T rv, typename E::T* d, long n,
                          bool& over, bool& under) noexcept {
    using T = typename E::T;
    constexpr long lanes = 64 / sizeof(T);
    const long m = n - n % lanes;
    const __m512i rs = splat512(rv), hi = splat512(static_cast<T>(E::hi));
    // Upward and downward lanes are gathered apart: one lane position may
    // overflow in one vector and underflow in another.
    std::uint64_t out = 0, up = 0, down = 0;
#pragma GCC unroll 2
    for (long k = 0; k < m; k += lanes) {
        __m512i a = load512(l + k), b = ScalarR ? rs : load512(r + k);
        __m512i w = wrapped512<E, Op>(a, b), s = saturated512<E, Op>(a, b);
        store512(d + k, w);
        std::uint64_t ne = differ512<E>(s, w);
        if constexpr (E::is_signed) {
            std::uint64_t top = equal512<E>(s, hi);
            up |= ne & top;
            down |= ne & ~top;
        } else {
            out |= ne;
        }
    }
    if constexpr (!E::is_signed) {   // sums only go up, differences only down
        up = Op::is_sub ? 0 : out;
        down = Op::is_sub ? out : 0;
    }
    over = up != 0;
    under = down != 0;
    return m;
}

// The automatic multiply shift of shorts, as products_fit, product_span,
// store_products and shift_stored above, 32 shorts at a time.
// Also keeps the low halves of the products of [b, e) in lows[0 .. e-b), so
// that a block that fits is copied out rather than multiplied again.
template <bool ScalarR>
QX_AVX512 bool products_fit512(const std::int16_t* l, const std::int16_t* r, std::int16_t rv, long b, long e,
                               std::int16_t* lows) noexcept {
    const __m512i rs = splat512(rv);
    __m512i bad = _mm512_setzero_si512();
    for (long k = b; k < e; k += 32) {
        __m512i a = load512(l + k), c = ScalarR ? rs : load512(r + k);
        __m512i lo = _mm512_mullo_epi16(a, c), hi = _mm512_mulhi_epi16(a, c);
        store512(lows + (k - b), lo);
        bad = _mm512_or_si512(bad, _mm512_xor_si512(hi, _mm512_srai_epi16(lo, 15)));
    }
    return _mm512_test_epi64_mask(bad, bad) == 0;
}

QX_AVX512 inline void copy512(const std::int16_t* src, std::int16_t* d, long count) noexcept {
    for (long k = 0; k < count; k += 32)
        store512(d + k, load512(src + k));
}

template <bool ScalarR>
QX_AVX512 void product_span512(const std::int16_t* l, const std::int16_t* r, std::int16_t rv, long b, long e,
                               std::int32_t& mx, std::int32_t& mn) noexcept {
    const __m512i rs = splat512(rv);
    __m512i vmx = _mm512_set1_epi32(mx), vmn = _mm512_set1_epi32(mn);
    for (long k = b; k < e; k += 32) {
        __m512i a = load512(l + k), c = ScalarR ? rs : load512(r + k);
        __m512i lo = _mm512_mullo_epi16(a, c), hi = _mm512_mulhi_epi16(a, c);
        __m512i p0 = _mm512_unpacklo_epi16(lo, hi), p1 = _mm512_unpackhi_epi16(lo, hi);
        // The zero-masking forms with every lane selected: the plain forms
        // trip a false uninitialised-value warning in some compilers' headers.
        vmx = _mm512_maskz_max_epi32(0xFFFF, vmx, _mm512_maskz_max_epi32(0xFFFF, p0, p1));
        vmn = _mm512_maskz_min_epi32(0xFFFF, vmn, _mm512_maskz_min_epi32(0xFFFF, p0, p1));
    }
    alignas(64) std::int32_t a[16], c[16];
    _mm512_store_si512(static_cast<void*>(a), vmx);
    _mm512_store_si512(static_cast<void*>(c), vmn);
    for (int i = 0; i < 16; ++i) {
        mx = a[i] > mx ? a[i] : mx;
        mn = c[i] < mn ? c[i] : mn;
    }
}

template <bool ScalarR>
QX_AVX512 void store_products512(const std::int16_t* l, const std::int16_t* r, std::int16_t rv, std::int16_t* d,
                                 long b, long e, int s) noexcept {
    const __m512i rs = splat512(rv);
    if (s == 0) {
        for (long k = b; k < e; k += 32)
            store512(d + k, _mm512_mullo_epi16(load512(l + k), ScalarR ? rs : load512(r + k)));
        return;
    }
    const __m128i right = _mm_cvtsi32_si128(s), left = _mm_cvtsi32_si128(16 - s);
    for (long k = b; k < e; k += 32) {
        __m512i a = load512(l + k), c = ScalarR ? rs : load512(r + k);
        __m512i lo = _mm512_mullo_epi16(a, c), hi = _mm512_mulhi_epi16(a, c);
        store512(d + k, _mm512_or_si512(_mm512_srl_epi16(lo, right), _mm512_sll_epi16(hi, left)));
    }
}

QX_AVX512 inline void shift_stored512(std::int16_t* d, long b, long e, int s) noexcept {
    const __m128i count = _mm_cvtsi32_si128(s);
    for (long k = b; k < e; k += 32)
        store512(d + k, _mm512_sra_epi16(load512(d + k), count));
}

QX_AVX512 inline std::int64_t sum16_512(const std::int16_t* v, long n) noexcept {
    const __m512i ones = _mm512_set1_epi16(1);
    std::int64_t total = 0;
    long k = 0;
    // Four accumulators of 16 lanes, 128 shorts per round; each lane moves by
    // at most 2^16 per round, so after 2^12 rounds the four together stay
    // within 2^30 and are added in 32 bits.
    constexpr long round = 128, block = round << 12;
    while (n - k >= round) {
        long e = n - k > block ? k + block : n - (n - k) % round;
        __m512i a0 = _mm512_setzero_si512(), a1 = a0, a2 = a0, a3 = a0;
        for (; k < e; k += round) {
            a0 = _mm512_add_epi32(a0, _mm512_madd_epi16(load512(v + k), ones));
            a1 = _mm512_add_epi32(a1, _mm512_madd_epi16(load512(v + k + 32), ones));
            a2 = _mm512_add_epi32(a2, _mm512_madd_epi16(load512(v + k + 64), ones));
            a3 = _mm512_add_epi32(a3, _mm512_madd_epi16(load512(v + k + 96), ones));
        }
        __m512i all = _mm512_add_epi32(_mm512_add_epi32(a0, a1), _mm512_add_epi32(a2, a3));
        alignas(64) std::int32_t lanes[16];
        _mm512_store_si512(static_cast<void*>(lanes), all);
        for (int i = 0; i < 16; ++i)
            total += lanes[i];
    }
    for (; k < n; ++k)
        total += v[k];
    return total;
}

#undef QX_AVX512

#else

inline bool has_avx2() noexcept { return false; }
inline bool has_avx512() noexcept { return false; }

#endif

}  // namespace qx::x86
