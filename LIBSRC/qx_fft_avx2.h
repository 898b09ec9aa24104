// The float FFT kernels with AVX2, for QX_FFT.cpp only: the radix-4 stages
// four butterflies at a time, the last pass fused with the bit reversal, and
// the real split two pairs at a time. Every lane performs the double
// operations of the scalar Radix4<FloatOps> and real_split in the same order
// and with the same roundings (a fused multiply-add serves only as an exact
// sum), so both paths give the same bits. NaNs aside: the operand order of
// sums can pass on another NaN, so the results' NaNs are settled
// (qx::fft::settled) as the plain path's last pass does. The four-way loops
// over registers carry unroll pragmas: left as loops (as GCC does at -O2),
// their arrays live in memory and the transforms take twice as long.
#pragma once

#include <immintrin.h>

#include <array>
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
// The kernels' pieces inline into their one caller whatever the optimiser's
// budget (link-time optimisation otherwise leaves calls per block).
#define QX_AVX2_INLINE [[gnu::always_inline]] QX_AVX2 inline

QX_AVX2_INLINE __m256d load2(const float* p) noexcept { return _mm256_cvtps_pd(_mm_loadu_ps(p)); }

// NaN lanes replaced by the library's one quiet NaN (qx::fft::settled).
QX_AVX2_INLINE __m128 settle(__m128 v) noexcept {
    const __m128 nan = _mm_castsi128_ps(_mm_set1_epi32(static_cast<int>(kQuietNan)));
    return _mm_blendv_ps(v, nan, _mm_cmpunord_ps(v, v));
}
// A result of four complex floats stored, NaNs settled.
QX_AVX2_INLINE void store2_settled(float* p, __m256d v) noexcept { _mm_storeu_ps(p, settle(_mm256_cvtpd_ps(v))); }

QX_AVX2_INLINE __m256d swap_pairs(__m256d x) noexcept { return _mm256_permute_pd(x, 0b0101); }
QX_AVX2_INLINE __m256d negate(__m256d x) noexcept { return _mm256_xor_pd(x, _mm256_set1_pd(-0.0)); }

// a + b and a - b computed as a * 1 + b and a * 1 - b: the product by one is
// exact, so the one rounding of the fused instruction is the rounding of the
// sum, signed zeros and infinities included. They run on the multiply units,
// which the stages leave half idle while the adders also convert.
QX_AVX2_INLINE __m256d sum(__m256d a, __m256d b) noexcept { return _mm256_fmadd_pd(a, _mm256_set1_pd(1.0), b); }
QX_AVX2_INLINE __m256d dif(__m256d a, __m256d b) noexcept { return _mm256_fmsub_pd(a, _mm256_set1_pd(1.0), b); }

// ---------------------------------------------------------------------------
// The radix-4 stages on four butterflies at a time, in split form: one vector
// of four real parts, one of four imaginary parts.
//
// Between stages the floats are kept quartered. An index splits into its top
// two bits T (the quarter), middle bits M and low two bits L. Every stage
// after the first combines elements of one quarter only, so the four
// quarters' elements of equal M and L (the four T) form one block: their four
// real parts, then their four imaginary parts, 32 bytes at element position
// 4M + L n/4 (T and L exchanged). A butterfly of those stages is then four
// butterflies, one per lane, with the same twiddles. The first stage reads
// the caller's pairs and transposes its results into blocks; the last pass
// writes pairs in bit-reversed order.

struct Quad {  // four complex doubles
    __m256d re, im;
};

// Elements e .. e + 3 (e a multiple of 4) as pairs, in the lane order
// e, e + 2, e + 1, e + 3 (widened first, then split within the vector's
// halves: cheaper than splitting the floats); a block.
constexpr std::size_t kPairLane[4] = {0, 2, 1, 3};  // the element of each lane, less e
QX_AVX2_INLINE Quad load_pairs(const float* x, std::size_t e) noexcept {
    const __m256d lo = _mm256_cvtps_pd(_mm_loadu_ps(x + 2 * e)), hi = _mm256_cvtps_pd(_mm_loadu_ps(x + 2 * e + 4));
    return {_mm256_unpacklo_pd(lo, hi), _mm256_unpackhi_pd(lo, hi)};
}
QX_AVX2_INLINE Quad load_block(const float* p) noexcept {
    return {_mm256_cvtps_pd(_mm_loadu_ps(p)), _mm256_cvtps_pd(_mm_loadu_ps(p + 4))};
}
QX_AVX2_INLINE void store_block(float* p, const Quad& v) noexcept {
    _mm_storeu_ps(p, _mm256_cvtpd_ps(v.re));
    _mm_storeu_ps(p + 4, _mm256_cvtpd_ps(v.im));
}

// The butterfly's four results before twiddles, indexed as the scalar kernel
// names them: r[0] = (a + c) + (b + d), r[2] = (a + c) - (b + d),
// r[1] = (a - c) - i(b - d), r[3] = (a - c) + i(b - d).
QX_AVX2_INLINE void radix4(const Quad& a, const Quad& b, const Quad& c, const Quad& d, Quad r[4]) noexcept {
    const Quad s1{sum(a.re, c.re), sum(a.im, c.im)}, s2{sum(b.re, d.re), sum(b.im, d.im)};
    const Quad d1{dif(a.re, c.re), dif(a.im, c.im)}, d2{dif(b.re, d.re), dif(b.im, d.im)};
    r[0] = {sum(s1.re, s2.re), sum(s1.im, s2.im)};
    r[2] = {dif(s1.re, s2.re), dif(s1.im, s2.im)};
    r[1] = {sum(d1.re, d2.im), dif(d1.im, d2.re)};
    r[3] = {dif(d1.re, d2.im), sum(d1.im, d2.re)};
}

// x * w: (xr wr - xi wi, xr wi + xi wr), products and sums rounded apart.
QX_AVX2_INLINE Quad times(const Quad& x, const Quad& w) noexcept {
    return {_mm256_sub_pd(_mm256_mul_pd(x.re, w.re), _mm256_mul_pd(x.im, w.im)),
            _mm256_add_pd(_mm256_mul_pd(x.re, w.im), _mm256_mul_pd(x.im, w.re))};
}

// The products of j = q/2 by the constant c: W(2j) = -i, W(j) = c(1 - i),
// W(3j) = -c(1 + i), for r[2], r[1], r[3].
QX_AVX2_INLINE void eighth(const Quad r[4], Quad y[4]) noexcept {
    const __m256d k = _mm256_set1_pd(FloatOps::kC);
    y[2] = {r[2].im, negate(r[2].re)};
    y[1] = {_mm256_mul_pd(k, _mm256_add_pd(r[1].re, r[1].im)),  //
            _mm256_mul_pd(k, _mm256_sub_pd(r[1].im, r[1].re))};
    y[3] = {_mm256_mul_pd(k, _mm256_sub_pd(r[3].im, r[3].re)),  //
            negate(_mm256_mul_pd(k, _mm256_add_pd(r[3].re, r[3].im)))};
}

template <int kLane>
QX_AVX2_INLINE Quad take_lane(const Quad& into, const Quad& from) noexcept {
    return {_mm256_blend_pd(into.re, from.re, 1 << kLane), _mm256_blend_pd(into.im, from.im, 1 << kLane)};
}

// Both 4x4 halves of four rows transposed: out[c] holds element c of each row,
// in its low half from the rows' low halves, in its high half from their high.
QX_AVX2_INLINE void transpose_halves(const __m256 g[4], __m256 out[4]) noexcept {
    const __m256 t0 = _mm256_unpacklo_ps(g[0], g[1]), t1 = _mm256_unpackhi_ps(g[0], g[1]);
    const __m256 t2 = _mm256_unpacklo_ps(g[2], g[3]), t3 = _mm256_unpackhi_ps(g[2], g[3]);
    out[0] = _mm256_shuffle_ps(t0, t2, 0x44);
    out[1] = _mm256_shuffle_ps(t0, t2, 0xee);
    out[2] = _mm256_shuffle_ps(t1, t3, 0x44);
    out[3] = _mm256_shuffle_ps(t1, t3, 0xee);
}

// Twiddles of the first stage (t = 1) for butterflies j .. j + 3, one per
// lane in the order of load_pairs: W(m j) for m = 1, 2, 3. Widened: read
// from the double table (per block of four butterflies the real parts, then
// the imaginary parts, for m = 1, 2, 3). Gathered: taken from the float table
// (orders whose widened table is not kept).
struct Widened {
    const double* w;
    QX_AVX2_INLINE Quad get(std::size_t j, int m) const noexcept {
        const double* p = w + 6 * j + 8 * (m - 1);
        return {_mm256_load_pd(p), _mm256_load_pd(p + 4)};
    }
};
struct Gathered {
    const float* w;
    QX_AVX2_INLINE Quad get(std::size_t j, int m) const noexcept {
        const std::size_t s = static_cast<std::size_t>(m);
        const float* p = w + 2 * j * s;
        const __m128 lo = _mm_setr_ps(p[0], p[1], p[4 * s], p[4 * s + 1]);
        const __m128 hi = _mm_setr_ps(p[2 * s], p[2 * s + 1], p[6 * s], p[6 * s + 1]);
        return {_mm256_cvtps_pd(_mm_shuffle_ps(lo, hi, 0x88)), _mm256_cvtps_pd(_mm_shuffle_ps(lo, hi, 0xdd))};
    }
};
// Twiddles of a later stage (stride t) for butterfly j, the same in every
// lane: from the double table (per j the real and imaginary part for
// m = 1, 2, 3), or from the float table.
struct Spread {
    const double* w;
    QX_AVX2_INLINE Quad get(std::size_t j, int m) const noexcept {
        const double* p = w + 6 * j + 2 * (m - 1);
        return {_mm256_broadcast_sd(p), _mm256_broadcast_sd(p + 1)};
    }
};
struct SpreadGathered {
    const float* w;
    std::size_t t;
    QX_AVX2_INLINE Quad get(std::size_t j, int m) const noexcept {
        const float* p = w + 2 * j * static_cast<std::size_t>(m) * t;
        return {_mm256_set1_pd(p[0]), _mm256_set1_pd(p[1])};
    }
};

// First-stage butterflies j .. j + 3 (q = n/4 apart) from pairs into the four
// blocks of index j .. j + 3, blocks[l] for element position kPairLane[l] q +
// j. Lane kZero (or none: -1) is j = 0, which takes no twiddles; lane kEighth
// is j = q/2. The blocks take the same 32-byte runs the butterflies read, so
// the stage works in place.
template <int kZero, int kEighth, class Tw>
QX_AVX2_INLINE void first_block(const float* x, std::size_t j, std::size_t q, const Tw& tw, __m256 blocks[4]) noexcept {
    Quad r[4];
    radix4(load_pairs(x, j), load_pairs(x, j + q), load_pairs(x, j + 2 * q), load_pairs(x, j + 3 * q), r);
    Quad y[4] = {r[0], times(r[1], tw.get(j, 1)), times(r[2], tw.get(j, 2)), times(r[3], tw.get(j, 3))};
    if constexpr (kZero >= 0)
        #pragma GCC unroll 4
        for (int k = 1; k < 4; ++k)
            y[k] = take_lane<kZero>(y[k], r[k]);
    if constexpr (kEighth >= 0) {
        Quad e[4];
        eighth(r, e);
        #pragma GCC unroll 4
        for (int k = 1; k < 4; ++k)
            y[k] = take_lane<kEighth>(y[k], e[k]);
    }
    // Results by quarter: x0, then the index-2 term, index 1, index 3.
    const Quad* byQuarter[4] = {&y[0], &y[2], &y[1], &y[3]};
    __m256 rows[4];
    #pragma GCC unroll 4
    for (int t = 0; t < 4; ++t)
        rows[t] = _mm256_set_m128(_mm256_cvtpd_ps(byQuarter[t]->im), _mm256_cvtpd_ps(byQuarter[t]->re));
    transpose_halves(rows, blocks);
}

// Butterflies j .. j + 7 as two blocks of four (the special lanes of the
// first: kZero, kEighth; of the second: kEighth4), whose runs of equal
// position are stored one after the other: both halves of a 64-byte line
// back to back (about 2% of a 64-point transform).
template <int kZero, int kEighth, int kEighth4, class Tw>
QX_AVX2_INLINE void first_pair(float* x, std::size_t j, std::size_t q, const Tw& tw) noexcept {
    __m256 a[4], b[4];
    first_block<kZero, kEighth>(x, j, q, tw, a);
    first_block<-1, kEighth4>(x, j + 4, q, tw, b);
    #pragma GCC unroll 4
    for (std::size_t l = 0; l < 4; ++l) {
        _mm256_storeu_ps(x + 2 * (kPairLane[l] * q + j), a[l]);
        _mm256_storeu_ps(x + 2 * (kPairLane[l] * q + j + 4), b[l]);
    }
}

template <class Tw>
QX_AVX2_INLINE void first_stage(float* x, std::size_t n, const Tw& tw) noexcept {
    const std::size_t q = n / 4, mid = q / 2;
    if (q == 4) {
        __m256 a[4];
        first_block<0, 1>(x, 0, q, tw, a);  // j = 2 is lane 1
        #pragma GCC unroll 4
        for (std::size_t l = 0; l < 4; ++l)
            _mm256_storeu_ps(x + 2 * kPairLane[l] * q, a[l]);
        return;
    }
    if (q == 8) {
        first_pair<0, -1, 0>(x, 0, q, tw);  // j = 4 is lane 0 of the second block
        return;
    }
    first_pair<0, -1, -1>(x, 0, q, tw);
    for (std::size_t j = 8; j < mid; j += 8)
        first_pair<-1, -1, -1>(x, j, q, tw);
    first_pair<-1, 0, -1>(x, mid, q, tw);
    for (std::size_t j = mid + 8; j < q; j += 8)
        first_pair<-1, -1, -1>(x, j, q, tw);
}

// Four butterflies (one per lane) on the blocks a, b, c, d. kKind 0: j = 0
// (no twiddles); 1: general (w: W(j), W(2j), W(3j)); 2: j = q/2 (the constant).
template <int kKind>
QX_AVX2_INLINE void lane_block(float* a, float* b, float* c, float* d, const Quad* w) noexcept {
    Quad r[4];
    radix4(load_block(a), load_block(b), load_block(c), load_block(d), r);
    Quad y[4] = {r[0], r[1], r[2], r[3]};
    if constexpr (kKind == 1)
        #pragma GCC unroll 4
        for (int k = 1; k < 4; ++k)
            y[k] = times(r[k], w[k - 1]);
    if constexpr (kKind == 2)
        eighth(r, y);
    store_block(a, y[0]);
    store_block(b, y[2]);
    store_block(c, y[1]);
    store_block(d, y[3]);
}

// Butterfly j of every group of a later stage: p is its a in the first group.
template <int kKind>
QX_AVX2_INLINE void lane_groups(float* p, std::size_t q, std::size_t quarter, const Quad* w) noexcept {
    for (std::size_t g = 0; g < quarter; g += 4 * q, p += 8 * q)
        lane_block<kKind>(p, p + 2 * q, p + 4 * q, p + 6 * q, w);
}

// A later stage of q >= 4 butterflies per group, on quartered blocks: for
// each j its twiddles once, then every group. Index i of a quarter is in the
// block at element position (i mod 4) n/4 + (i - i mod 4).
template <class Tw>
QX_AVX2_INLINE void lane_stage(float* x, std::size_t n, std::size_t q, const Tw& tw) noexcept {
    const std::size_t quarter = n / 4;
    // j in the order its blocks lie (j mod 4 = 0, 1, 2, 3 in turn): the blocks
    // of j and j + 1 are n/4 elements apart, a multiple of 4 KiB at larger n,
    // where a load that follows a store 4 KiB away waits for it.
    for (std::size_t l = 0; l < 4; ++l)
        for (std::size_t j = l; j < q; j += 4) {
            float* p = x + 2 * (l * quarter + j - l);
            if (j == 0) {
                lane_groups<0>(p, q, quarter, nullptr);
            } else if (j == q / 2) {
                lane_groups<2>(p, q, quarter, nullptr);
            } else {
                const Quad w[3] = {tw.get(j, 1), tw.get(j, 2), tw.get(j, 3)};
                lane_groups<1>(p, q, quarter, w);
            }
        }
}

// The q = 2 stage of an odd order on quartered blocks. In a group of eight
// indices, butterfly j (0: no twiddles, 1: the constant) has a and b at
// L = j and j + 2, c and d in the same places of the next middle.
QX_AVX2_INLINE void lane_stage2(float* x, std::size_t n) noexcept {
    const std::size_t quarter = n / 4;
    for (std::size_t g = 0; g < quarter; g += 8) {
        float* a = x + 2 * g;
        lane_block<0>(a, a + 4 * quarter, a + 8, a + 4 * quarter + 8, nullptr);
        a += 2 * quarter;
        lane_block<2>(a, a + 4 * quarter, a + 8, a + 4 * quarter + 8, nullptr);
    }
}

// The last pass fused with the bit reversal, in place, from quartered blocks:
// the q = 1 radix-4 stage for even orders, the radix-2 pass for odd ones. It
// combines the elements of equal T and M, the blocks L = 0..3 of middle M;
// the reversal takes (T, M, L) to (rev L, rev M, rev T), so the results land
// as four runs of four at middle rev M, one per quarter, lane T at run
// position rev T. The blocks of M are the runs of rev M, so M and rev M are
// done together. With kWatch it tells whether any result is a NaN (for the
// caller to settle: rare, and cheaper than settling every store).
template <bool kRadix4>
QX_AVX2_INLINE void last_block(const float* x, std::size_t quarter, std::size_t at, __m256 y[4]) noexcept {
    Quad u[4];
    #pragma GCC unroll 4
    for (std::size_t l = 0; l < 4; ++l)
        u[l] = load_block(x + 2 * (l * quarter + at));
    Quad r[4];  // by destination quarter
    if constexpr (kRadix4) {
        radix4(u[0], u[1], u[2], u[3], r);
    } else {
        r[0] = {sum(u[0].re, u[1].re), sum(u[0].im, u[1].im)};
        r[2] = {dif(u[0].re, u[1].re), dif(u[0].im, u[1].im)};
        r[1] = {sum(u[2].re, u[3].re), sum(u[2].im, u[3].im)};
        r[3] = {dif(u[2].re, u[3].re), dif(u[2].im, u[3].im)};
    }
    // Run positions 0, 1 hold T = 0, 2 and positions 2, 3 hold T = 1, 3: the
    // real parts and the imaginary parts rounded side by side, then one
    // permutation interleaves them in that order.
    const __m256i order = _mm256_setr_epi32(0, 4, 2, 6, 1, 5, 3, 7);
    #pragma GCC unroll 4
    for (int k = 0; k < 4; ++k)
        y[k] = _mm256_permutevar8x32_ps(_mm256_set_m128(_mm256_cvtpd_ps(r[k].im), _mm256_cvtpd_ps(r[k].re)), order);
}

// The lanes where any of y[0..3] is a NaN, added to `nan`: an unordered
// compare of two vectors covers both.
QX_AVX2_INLINE __m256 watch(__m256 nan, const __m256 y[4]) noexcept {
    nan = _mm256_or_ps(nan, _mm256_cmp_ps(y[0], y[1], _CMP_UNORD_Q));
    return _mm256_or_ps(nan, _mm256_cmp_ps(y[2], y[3], _CMP_UNORD_Q));
}

template <bool kRadix4, bool kWatch>
QX_AVX2_INLINE bool last_pass_reversed(float* x, std::size_t n, const int* rev) noexcept {
    const std::size_t quarter = n / 4;
    __m256 nan = _mm256_setzero_ps();
    #pragma GCC unroll 4
    for (std::size_t at = 0; at < quarter; at += 4) {
        const std::size_t to = static_cast<std::size_t>(rev[at]);  // 4 rev M
        if (to < at)
            continue;
        __m256 y[4], z[4];
        last_block<kRadix4>(x, quarter, at, y);
        if (to != at) {
            last_block<kRadix4>(x, quarter, to, z);
            #pragma GCC unroll 4
            for (std::size_t k = 0; k < 4; ++k)
                _mm256_storeu_ps(x + 2 * (k * quarter + at), z[k]);
            if constexpr (kWatch)
                nan = watch(nan, z);
        }
        #pragma GCC unroll 4
        for (std::size_t k = 0; k < 4; ++k)
            _mm256_storeu_ps(x + 2 * (k * quarter + to), y[k]);
        if constexpr (kWatch)
            nan = watch(nan, y);
    }
    return _mm256_movemask_ps(nan) != 0;
}

// The core and the bit reversal of an order of at least 4: the first stage,
// the later stages of q >= 4, the q = 2 stage of odd orders, the last pass.
// `e`: the widened twiddles (null: taken from the float table `w`). With
// kWatch, true when a result is a NaN.
template <bool kWatch>
QX_AVX2 bool core(float* x, int order, const float* w, const double* e, const int* rev) noexcept {
    const std::size_t n = points(order);
    std::size_t q = n / 4, t = 1;
    if (e) {
        first_stage(x, n, Widened{e});
        e += 6 * q;
    } else {
        first_stage(x, n, Gathered{w});
    }
    for (q /= 4, t *= 4; q >= 4; q /= 4, t *= 4) {
        if (e) {
            lane_stage(x, n, q, Spread{e});
            e += 6 * q;
        } else {
            lane_stage(x, n, q, SpreadGathered{w, t});
        }
    }
    if (q == 2) {
        lane_stage2(x, n);
        return last_pass_reversed<false, kWatch>(x, n, rev);
    }
    return last_pass_reversed<true, kWatch>(x, n, rev);
}

// The whole core of order kOrder (4 or 6) with every count and offset known,
// the bit reversal too: the last pass unrolls, its runs' places constant
// (about 1% of a 64-point transform against reading them from the table).
template <int kOrder, bool kWatch>
QX_AVX2 __attribute__((flatten)) bool small_core(float* x, const double* e) noexcept {
    constexpr std::size_t n = std::size_t{1} << kOrder;
    static constexpr auto kRev = [] {
        std::array<int, n> rev{};
        calc_bit_reversal(rev.data(), kOrder);
        return rev;
    }();
    first_stage(x, n, Widened{e});
    if constexpr (kOrder == 6)
        lane_stage(x, n, 4, Spread{e + 6 * 16});
    return last_pass_reversed<true, kWatch>(x, n, kRev.data());
}

// The real split for pairs (k, m - k), (k + 1, m - k - 1) at a time, with the
// operations of qx::fft::real_split, NaNs settled; returns the first k it left undone.
QX_AVX2 inline std::size_t real_split_avx2(float* z, std::size_t m, const float* T, bool forward) noexcept {
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
