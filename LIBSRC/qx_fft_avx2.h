// The float FFT kernels with AVX2, for QX_FFT.cpp only: the radix-4 stages two
// butterflies at a time, the last pass fused with the bit reversal, and the
// real split two pairs at a time. Every lane performs the double operations of
// the scalar Radix4<FloatOps> and real_split in the same order (no fused
// multiply-add), so both paths give the same bits. NaNs aside: a - b written
// as a + (-b) and the operand order of sums can pass on another NaN, so the
// last stores settle them (qx::fft::settled) as the plain path's last pass does.
#pragma once

#include <immintrin.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "qx_cpu.h"
#include "qx_fft.h"

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC push_options
#pragma GCC optimize("fp-contract=off")
#endif

namespace qx::fft::avx2 {

// AVX2 with FMA: the processors of the AVX2 path have both. The multiply-add
// instructions serve only as exact sums (see sum()), never as contractions.
#define QX_AVX2 __attribute__((target("avx2,fma")))

QX_AVX2 inline __m256d load2(const float* p) noexcept { return _mm256_cvtps_pd(_mm_loadu_ps(p)); }

// NaN lanes replaced by the library's one quiet NaN (qx::fft::settled).
QX_AVX2 inline __m256 settle(__m256 v) noexcept {
    const __m256 nan = _mm256_castsi256_ps(_mm256_set1_epi32(static_cast<int>(kQuietNan)));
    return _mm256_blendv_ps(v, nan, _mm256_cmp_ps(v, v, _CMP_UNORD_Q));
}
QX_AVX2 inline __m128 settle(__m128 v) noexcept {
    const __m128 nan = _mm_castsi128_ps(_mm_set1_epi32(static_cast<int>(kQuietNan)));
    return _mm_blendv_ps(v, nan, _mm_cmpunord_ps(v, v));
}
// A result of four complex floats stored, NaNs settled.
QX_AVX2 inline void store2_settled(float* p, __m256d v) noexcept { _mm_storeu_ps(p, settle(_mm256_cvtpd_ps(v))); }

QX_AVX2 inline __m256d swap_pairs(__m256d x) noexcept { return _mm256_permute_pd(x, 0b0101); }
QX_AVX2 inline __m256d flip_im(__m256d x) noexcept { return _mm256_xor_pd(x, _mm256_set_pd(-0.0, 0.0, -0.0, 0.0)); }
QX_AVX2 inline __m256d negate(__m256d x) noexcept { return _mm256_xor_pd(x, _mm256_set1_pd(-0.0)); }

// a + b and a - b computed as a * 1 + b and a * 1 - b: the product by one is
// exact, so the one rounding of the fused instruction is the rounding of the
// sum, signed zeros and infinities included. They run on the multiply units,
// which the stages leave half idle while the adders also convert.
QX_AVX2 inline __m256d sum(__m256d a, __m256d b) noexcept { return _mm256_fmadd_pd(a, _mm256_set1_pd(1.0), b); }
QX_AVX2 inline __m256d dif(__m256d a, __m256d b) noexcept { return _mm256_fmsub_pd(a, _mm256_set1_pd(1.0), b); }

// ---------------------------------------------------------------------------
// The radix-4 stages on four butterflies at a time, in split form: one vector
// of four real parts, one of four imaginary parts. Between stages the data
// stay in floats in a blocked layout: each four consecutive elements as their
// four real parts, then their four imaginary parts (same 32 bytes). The first
// stage reads (re, im) pairs, and the stage whose result goes to the
// pair-wise kernels below writes pairs again.

struct Quad {  // four complex doubles
    __m256d re, im;
};

// Elements e .. e + 3 (e a multiple of 4), as pairs or blocked.
template <bool kPairs>
QX_AVX2 inline Quad load4(const float* x, std::size_t e) noexcept {
    const float* p = x + 2 * e;
    const __m128 lo = _mm_loadu_ps(p), hi = _mm_loadu_ps(p + 4);
    if constexpr (kPairs)
        return {_mm256_cvtps_pd(_mm_shuffle_ps(lo, hi, 0x88)), _mm256_cvtps_pd(_mm_shuffle_ps(lo, hi, 0xdd))};
    return {_mm256_cvtps_pd(lo), _mm256_cvtps_pd(hi)};
}
template <bool kPairs>
QX_AVX2 inline void store4(float* x, std::size_t e, Quad v) noexcept {
    float* p = x + 2 * e;
    const __m128 re = _mm256_cvtpd_ps(v.re), im = _mm256_cvtpd_ps(v.im);
    _mm_storeu_ps(p, kPairs ? _mm_unpacklo_ps(re, im) : re);
    _mm_storeu_ps(p + 4, kPairs ? _mm_unpackhi_ps(re, im) : im);
}

// The butterfly's four results before twiddles, indexed as the scalar kernel
// names them: r[0] = (a + c) + (b + d), r[2] = (a + c) - (b + d),
// r[1] = (a - c) - i(b - d), r[3] = (a - c) + i(b - d).
QX_AVX2 inline void radix4(const Quad& a, const Quad& b, const Quad& c, const Quad& d, Quad r[4]) noexcept {
    const Quad s1{sum(a.re, c.re), sum(a.im, c.im)}, s2{sum(b.re, d.re), sum(b.im, d.im)};
    const Quad d1{dif(a.re, c.re), dif(a.im, c.im)}, d2{dif(b.re, d.re), dif(b.im, d.im)};
    r[0] = {sum(s1.re, s2.re), sum(s1.im, s2.im)};
    r[2] = {dif(s1.re, s2.re), dif(s1.im, s2.im)};
    r[1] = {sum(d1.re, d2.im), dif(d1.im, d2.re)};
    r[3] = {dif(d1.re, d2.im), sum(d1.im, d2.re)};
}

// x * w: (xr wr - xi wi, xr wi + xi wr), products and sums rounded apart.
QX_AVX2 inline Quad times(const Quad& x, const Quad& w) noexcept {
    return {_mm256_sub_pd(_mm256_mul_pd(x.re, w.re), _mm256_mul_pd(x.im, w.im)),
            _mm256_add_pd(_mm256_mul_pd(x.re, w.im), _mm256_mul_pd(x.im, w.re))};
}

template <int kLane>
QX_AVX2 inline Quad take_lane(const Quad& into, const Quad& from) noexcept {
    return {_mm256_blend_pd(into.re, from.re, 1 << kLane), _mm256_blend_pd(into.im, from.im, 1 << kLane)};
}

// Twiddles W(m j) of the four butterflies j .. j + 3 of a stage (m = 1, 2, 3).
// Widened: read from the stage's double table (per block of four butterflies
// the real parts then the imaginary parts for m = 1, 2, 3). Gathered: taken
// from the float table, entry m j t (orders whose widened table is not kept).
struct Widened {
    const double* w;  // the stage's table
    QX_AVX2 Quad get(std::size_t j, int m) const noexcept {
        const double* p = w + 6 * j + 8 * (m - 1);
        return {_mm256_load_pd(p), _mm256_load_pd(p + 4)};
    }
};
struct Gathered {
    const float* w;
    std::size_t t;
    QX_AVX2 Quad get(std::size_t j, int m) const noexcept {
        const std::size_t s = static_cast<std::size_t>(m) * t;
        const float* p = w + 2 * j * s;
        const __m128 lo = _mm_setr_ps(p[0], p[1], p[2 * s], p[2 * s + 1]);
        const __m128 hi = _mm_setr_ps(p[4 * s], p[4 * s + 1], p[6 * s], p[6 * s + 1]);
        return {_mm256_cvtps_pd(_mm_shuffle_ps(lo, hi, 0x88)), _mm256_cvtps_pd(_mm_shuffle_ps(lo, hi, 0xdd))};
    }
};

// Butterflies j .. j + 3 of the group at p (its element 0), q apart. Lane
// kZero (or none: -1) is j = 0, which takes no twiddles; lane kEighth is
// j = q/2, which multiplies by the constant c: W(2j) = -i, W(j) = c(1 - i),
// W(3j) = -c(1 + i).
template <bool kPairsIn, bool kPairsOut, int kZero, int kEighth, class Tw>
QX_AVX2 inline void block4(float* p, std::size_t j, std::size_t q, const Tw& tw) noexcept {
    const Quad a = load4<kPairsIn>(p, j), b = load4<kPairsIn>(p, j + q);
    const Quad c = load4<kPairsIn>(p, j + 2 * q), d = load4<kPairsIn>(p, j + 3 * q);
    Quad r[4];
    radix4(a, b, c, d, r);
    Quad y1 = times(r[1], tw.get(j, 1)), y2 = times(r[2], tw.get(j, 2)), y3 = times(r[3], tw.get(j, 3));
    if constexpr (kZero >= 0) {
        y1 = take_lane<kZero>(y1, r[1]);
        y2 = take_lane<kZero>(y2, r[2]);
        y3 = take_lane<kZero>(y3, r[3]);
    }
    if constexpr (kEighth >= 0) {
        const __m256d k = _mm256_set1_pd(FloatOps::kC);
        const Quad e2{r[2].im, negate(r[2].re)};
        const Quad e1{_mm256_mul_pd(k, _mm256_add_pd(r[1].re, r[1].im)), _mm256_mul_pd(k, _mm256_sub_pd(r[1].im, r[1].re))};
        const Quad e3{_mm256_mul_pd(k, _mm256_sub_pd(r[3].im, r[3].re)),
                      negate(_mm256_mul_pd(k, _mm256_add_pd(r[3].re, r[3].im)))};
        y1 = take_lane<kEighth>(y1, e1);
        y2 = take_lane<kEighth>(y2, e2);
        y3 = take_lane<kEighth>(y3, e3);
    }
    store4<kPairsOut>(p, j, r[0]);
    store4<kPairsOut>(p, j + q, y2);
    store4<kPairsOut>(p, j + 2 * q, y1);
    store4<kPairsOut>(p, j + 3 * q, y3);
}

// One radix-4 stage of q >= 4 butterflies per group.
template <bool kPairsIn, bool kPairsOut, class Tw>
QX_AVX2 inline void stage4(float* x, std::size_t n, std::size_t q, const Tw& tw) noexcept {
    const std::size_t mid = q / 2;
    for (std::size_t g = 0; g < n; g += 4 * q) {
        float* p = x + 2 * g;
        if (q == 4) {
            block4<kPairsIn, kPairsOut, 0, 2>(p, 0, q, tw);
            continue;
        }
        block4<kPairsIn, kPairsOut, 0, -1>(p, 0, q, tw);
        for (std::size_t j = 4; j < mid; j += 4)
            block4<kPairsIn, kPairsOut, -1, -1>(p, j, q, tw);
        block4<kPairsIn, kPairsOut, -1, 0>(p, mid, q, tw);
        for (std::size_t j = mid + 4; j < q; j += 4)
            block4<kPairsIn, kPairsOut, -1, -1>(p, j, q, tw);
    }
}

// Every stage of q >= 4 of a transform of n points: the first reads pairs;
// the last writes pairs when `pairsOut` (odd orders: the q = 2 stage and the
// radix-2 pass follow). `e`: the widened tables of all these stages, or null
// (twiddles gathered from the float table `w`).
template <bool kPairsOut>
QX_AVX2 inline void wide_stages(float* x, std::size_t n, const float* w, const double* e) noexcept {
    std::size_t q = n / 4, t = 1;
    auto one = [&](auto pairsIn, auto pairsOut) {
        if (e) {
            stage4<pairsIn.value, pairsOut.value>(x, n, q, Widened{e});
            e += 6 * q;
        } else {
            stage4<pairsIn.value, pairsOut.value>(x, n, q, Gathered{w, t});
        }
    };
    using Yes = std::true_type;
    using No = std::false_type;
    if (q / 4 < 4 && kPairsOut)
        one(Yes{}, std::bool_constant<kPairsOut>{});
    else
        one(Yes{}, No{});
    for (q /= 4, t *= 4; q >= 4; q /= 4, t *= 4) {
        if (q / 4 < 4 && kPairsOut)
            one(No{}, std::bool_constant<kPairsOut>{});
        else
            one(No{}, No{});
    }
}

// The q = 2 stage of an odd order from pairs: butterflies j = 0 (no twiddles)
// and j = 1 (the constant) in the two halves of each vector; the result as
// pairs or blocked.
template <bool kPairsOut>
QX_AVX2 inline void stage2(float* x, std::size_t n) noexcept {
    const __m256d k = _mm256_set1_pd(FloatOps::kC);
    for (std::size_t g = 0; g < n; g += 8) {
        float* p = x + 2 * g;
        const __m256d a = load2(p), b = load2(p + 4), c = load2(p + 8), d = load2(p + 12);
        const __m256d s1 = _mm256_add_pd(a, c), s2 = _mm256_add_pd(b, d);
        const __m256d d1 = _mm256_sub_pd(a, c), d2 = _mm256_sub_pd(b, d);
        const __m256d x0 = _mm256_add_pd(s1, s2), x2 = _mm256_sub_pd(s1, s2);
        const __m256d x1 = _mm256_add_pd(d1, flip_im(swap_pairs(d2)));  // (a - c) - i(b - d)
        const __m256d x3 = _mm256_addsub_pd(d1, swap_pairs(d2));        // (a - c) + i(b - d)
        const __m256d e2 = flip_im(swap_pairs(x2));
        const __m256d e1 = _mm256_mul_pd(k, _mm256_add_pd(x1, flip_im(swap_pairs(x1))));
        const __m256d e3 = flip_im(_mm256_mul_pd(k, _mm256_addsub_pd(swap_pairs(x3), x3)));
        const __m128 f0 = _mm256_cvtpd_ps(x0), f2 = _mm256_cvtpd_ps(_mm256_blend_pd(x2, e2, 0b1100));
        const __m128 f1 = _mm256_cvtpd_ps(_mm256_blend_pd(x1, e1, 0b1100));
        const __m128 f3 = _mm256_cvtpd_ps(_mm256_blend_pd(x3, e3, 0b1100));
        if constexpr (kPairsOut) {
            _mm_storeu_ps(p, f0);
            _mm_storeu_ps(p + 4, f2);
            _mm_storeu_ps(p + 8, f1);
            _mm_storeu_ps(p + 12, f3);
        } else {  // elements 0..3 are x0 and x2 of j = 0, 1; elements 4..7 x1 and x3
            _mm256_storeu_ps(p, _mm256_set_m128(_mm_shuffle_ps(f0, f2, 0xdd), _mm_shuffle_ps(f0, f2, 0x88)));
            _mm256_storeu_ps(p + 8, _mm256_set_m128(_mm_shuffle_ps(f1, f3, 0xdd), _mm_shuffle_ps(f1, f3, 0x88)));
        }
    }
}

// (u, v) -> (u + v, u - v) for the two complex halves of a vector.
QX_AVX2 inline __m256d sum_dif(__m256d uv) noexcept {
    __m256d u = _mm256_permute2f128_pd(uv, uv, 0x00), v = _mm256_permute2f128_pd(uv, uv, 0x11);
    return _mm256_add_pd(u, _mm256_xor_pd(v, _mm256_set_pd(-0.0, -0.0, 0.0, 0.0)));
}

// The last pass fused with the bit reversal, in place, from the blocked
// layout (orders >= 4): the q = 1 radix-4 stage
// for even orders, the radix-2 pass for odd ones. An index splits into its
// top two bits T, middle bits M and low two bits L. The pass combines the
// elements of equal T and M (one block of four); the reversal takes
// (T, M, L) to (rev L, rev M, rev T). So the four blocks of middle M, one per
// quarter, land as four runs of four at middle rev M: the blocks are
// transposed in float (lanes T), widened, combined and stored whole, the
// middles M and rev M together. With kWatch it tells whether any result is a
// NaN (for the caller to settle them: rare, and cheaper than settling here).
// kHalves: a block read as the two halves the stage before stored; a
// whole-vector read of two recent half-vector stores would wait for them to
// reach the cache instead of taking them from the store buffer (small
// transforms, whose last stage's stores are all still recent).
template <bool kHalves>
QX_AVX2 inline __m256 block(const float* p) noexcept {
    if constexpr (kHalves)
        return _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(p)), _mm_loadu_ps(p + 4), 1);
    return _mm256_loadu_ps(p);
}

template <bool kRadix4, bool kHalves>
QX_AVX2 inline void last_block(const float* x, std::size_t quarter, std::size_t at, __m256 y[4]) noexcept {
    const float* p = x + 2 * at;
    const __m256 g0 = block<kHalves>(p), g1 = block<kHalves>(p + 2 * quarter);
    const __m256 g2 = block<kHalves>(p + 4 * quarter), g3 = block<kHalves>(p + 6 * quarter);
    // Both 4x4 halves transposed: v[L] = (real parts of T = 0..3 | imaginary parts)
    const __m256 t0 = _mm256_unpacklo_ps(g0, g1), t1 = _mm256_unpackhi_ps(g0, g1);
    const __m256 t2 = _mm256_unpacklo_ps(g2, g3), t3 = _mm256_unpackhi_ps(g2, g3);
    const __m256 v[4] = {_mm256_shuffle_ps(t0, t2, 0x44), _mm256_shuffle_ps(t0, t2, 0xee),
                         _mm256_shuffle_ps(t1, t3, 0x44), _mm256_shuffle_ps(t1, t3, 0xee)};
    Quad u[4];
    for (int l = 0; l < 4; ++l)
        u[l] = {_mm256_cvtps_pd(_mm256_castps256_ps128(v[l])), _mm256_cvtps_pd(_mm256_extractf128_ps(v[l], 1))};
    Quad r[4];  // by destination quarter
    if constexpr (kRadix4) {
        radix4(u[0], u[1], u[2], u[3], r);
    } else {
        r[0] = {sum(u[0].re, u[1].re), sum(u[0].im, u[1].im)};
        r[2] = {dif(u[0].re, u[1].re), dif(u[0].im, u[1].im)};
        r[1] = {sum(u[2].re, u[3].re), sum(u[2].im, u[3].im)};
        r[3] = {dif(u[2].re, u[3].re), dif(u[2].im, u[3].im)};
    }
    // Run position P holds T = rev P: positions 0, 1 are T = 0, 2 and
    // positions 2, 3 are T = 1, 3, the lane pairs of the unpacks.
    for (int k = 0; k < 4; ++k) {
        const __m128 lo = _mm256_cvtpd_ps(_mm256_unpacklo_pd(r[k].re, r[k].im));
        const __m128 hi = _mm256_cvtpd_ps(_mm256_unpackhi_pd(r[k].re, r[k].im));
        y[k] = _mm256_set_m128(hi, lo);
    }
}

// NaN lanes of y[0..3] added to `nan`.
QX_AVX2 inline __m256 watch(__m256 nan, const __m256 y[4]) noexcept {
    for (int k = 0; k < 4; ++k)
        nan = _mm256_or_ps(nan, _mm256_cmp_ps(y[k], y[k], _CMP_UNORD_Q));
    return nan;
}

template <bool kRadix4, bool kWatch, bool kHalves = false>
QX_AVX2 bool last_pass_reversed(float* x, std::size_t n, const int* rev) noexcept {
    const std::size_t quarter = n / 4;
    __m256 nan = _mm256_setzero_ps();
    for (std::size_t at = 0; at < quarter; at += 4) {
        const std::size_t to = static_cast<std::size_t>(rev[at]);  // 4 rev M
        if (to < at)
            continue;
        __m256 y[4], z[4];
        last_block<kRadix4, kHalves>(x, quarter, at, y);
        if (to != at) {
            last_block<kRadix4, kHalves>(x, quarter, to, z);
            for (std::size_t k = 0; k < 4; ++k)
                _mm256_storeu_ps(x + 2 * (k * quarter + at), z[k]);
            if constexpr (kWatch)
                nan = watch(nan, z);
        }
        for (std::size_t k = 0; k < 4; ++k)
            _mm256_storeu_ps(x + 2 * (k * quarter + to), y[k]);
        if constexpr (kWatch)
            nan = watch(nan, y);
    }
    return _mm256_movemask_ps(nan) != 0;
}

// The whole core of an even order kOrder (4 or 6) with every count and
// offset known: the stages of q >= 4 on the widened twiddles `e`, then the
// last pass.
template <int kOrder, bool kWatch>
QX_AVX2 __attribute__((flatten)) bool small_core(float* x, const double* e, const int* rev) noexcept {
    constexpr std::size_t n = std::size_t{1} << kOrder;
    if constexpr (kOrder == 6) {
        stage4<true, false>(x, n, 16, Widened{e});
        stage4<false, false>(x, n, 4, Widened{e + 6 * 16});
    } else {
        stage4<true, false>(x, n, 4, Widened{e});
    }
    return last_pass_reversed<true, kWatch, true>(x, n, rev);
}

// The closing radix-2 pass of order 3, into bit-reversed positions of `out`, NaNs settled.
QX_AVX2 void pairs_scatter(const float* x, std::size_t n, const int* rev, std::uint64_t* out) noexcept {
    for (std::size_t k = 0; k < n; k += 2) {
        const __m128 f = settle(_mm256_cvtpd_ps(sum_dif(load2(x + 2 * k))));
        _mm_storel_pi(reinterpret_cast<__m64*>(out + rev[k]), f);
        _mm_storeh_pi(reinterpret_cast<__m64*>(out + rev[k + 1]), f);
    }
}

// The core of an order of at least 3 and the bit reversal: the stages of
// q >= 4 (`e`: their widened twiddles, or null), the q = 2 stage of odd
// orders, then the last pass. With kWatch, true when a result is a NaN
// (order 3 settles its NaNs itself).
template <bool kWatch>
QX_AVX2 bool core(float* x, int order, const float* w, const double* e, const int* rev) noexcept {
    const std::size_t n = points(order);
    if (order == 3) {
        stage2<true>(x, n);
        std::uint64_t tmp[8];
        pairs_scatter(x, n, rev, tmp);
        std::memcpy(x, tmp, sizeof tmp);
        return false;
    }
    if (order & 1) {
        wide_stages<true>(x, n, w, e);
        stage2<false>(x, n);
        return last_pass_reversed<false, kWatch>(x, n, rev);
    }
    wide_stages<false>(x, n, w, e);
    return last_pass_reversed<true, kWatch>(x, n, rev);
}

// The real split for pairs (k, m - k), (k + 1, m - k - 1) at a time, with the
// operations of qx::fft::real_split, NaNs settled; returns the first k it left undone.
QX_AVX2 std::size_t real_split_avx2(float* z, std::size_t m, const float* T, bool forward) noexcept {
    std::size_t k = 1;
    for (; 2 * (k + 1) < m; k += 2) {
        float* pa = z + 2 * k;
        float* pb = z + 2 * (m - k - 1);
        __m256d A = load2(pa);
        __m256d B = _mm256_permute2f128_pd(load2(pb), load2(pb), 0x01);  // B[k], B[k + 1]
        __m256d Tv = load2(T + 2 * k);                                   // (Tr, Ti) of k, k + 1
        __m256d V = _mm256_blend_pd(_mm256_sub_pd(A, B), _mm256_add_pd(A, B), 0b1010);  // (dif, sum)
        __m256d P1 = _mm256_mul_pd(V, swap_pairs(Tv));  // (dif Ti, sum Tr)
        __m256d P2 = _mm256_mul_pd(V, Tv);              // (dif Tr, sum Ti)
        __m256d An, Bn;
        if (forward) {
            __m256d F2 = _mm256_hadd_pd(P1, P1);                           // sum Tr + dif Ti
            __m256d F3 = _mm256_hsub_pd(swap_pairs(P2), swap_pairs(P2));  // sum Ti - dif Tr
            An = _mm256_blend_pd(_mm256_add_pd(B, F2), _mm256_sub_pd(F3, B), 0b1010);
            Bn = _mm256_blend_pd(_mm256_sub_pd(A, F2), _mm256_sub_pd(F3, A), 0b1010);
        } else {
            __m256d F1 = _mm256_hsub_pd(P1, P1);  // dif Ti - sum Tr
            __m256d F2 = _mm256_hadd_pd(P2, P2);  // dif Tr + sum Ti
            __m256d G = _mm256_blend_pd(F1, F2, 0b1010);
            An = _mm256_sub_pd(A, G);
            Bn = _mm256_blend_pd(_mm256_add_pd(B, G), _mm256_sub_pd(B, G), 0b1010);
        }
        store2_settled(pa, An);
        store2_settled(pb, _mm256_permute2f128_pd(Bn, Bn, 0x01));
    }
    return k;
}


}  // namespace qx::fft::avx2

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC pop_options
#endif
