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

#include "qx_cpu.h"
#include "qx_fft.h"

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC push_options
#pragma GCC optimize("fp-contract=off")
#endif

namespace qx::fft::avx2 {

#define QX_AVX2 QX_TARGET_AVX2

QX_AVX2 inline __m256d load2(const float* p) noexcept { return _mm256_cvtps_pd(_mm_loadu_ps(p)); }
QX_AVX2 inline void store2(float* p, __m256d v) noexcept { _mm_storeu_ps(p, _mm256_cvtpd_ps(v)); }

// NaN lanes replaced by the library's one quiet NaN (qx::fft::settled).
QX_AVX2 inline __m256 settle(__m256 v) noexcept {
    const __m256 nan = _mm256_castsi256_ps(_mm256_set1_epi32(static_cast<int>(kQuietNan)));
    return _mm256_blendv_ps(v, nan, _mm256_cmp_ps(v, v, _CMP_UNORD_Q));
}
QX_AVX2 inline __m128 settle(__m128 v) noexcept {
    const __m128 nan = _mm_castsi128_ps(_mm_set1_epi32(static_cast<int>(kQuietNan)));
    return _mm_blendv_ps(v, nan, _mm_cmpunord_ps(v, v));
}
// store2 for a result: NaNs settled.
QX_AVX2 inline void store2_settled(float* p, __m256d v) noexcept { _mm_storeu_ps(p, settle(_mm256_cvtpd_ps(v))); }

// Twiddles W(j0 * s) and W((j0 + 1) * s).
QX_AVX2 inline __m256d twiddles2(const float* w, std::size_t j0, std::size_t s) noexcept {
    const float* p = w + 2 * j0 * s;
    if (s == 1)
        return load2(p);
    __m128d lo = _mm_load_sd(reinterpret_cast<const double*>(p));
    __m128d both = _mm_loadh_pd(lo, reinterpret_cast<const double*>(p + 2 * s));
    return _mm256_cvtps_pd(_mm_castpd_ps(both));
}

QX_AVX2 inline __m256d swap_pairs(__m256d x) noexcept { return _mm256_permute_pd(x, 0b0101); }
QX_AVX2 inline __m256d flip_im(__m256d x) noexcept { return _mm256_xor_pd(x, _mm256_set_pd(-0.0, 0.0, -0.0, 0.0)); }

// x * w per complex lane, given w's real and imaginary parts duplicated:
// (xr wr - xi wi, xi wr + xr wi).
QX_AVX2 inline __m256d cmul(__m256d x, __m256d wr, __m256d wi) noexcept {
    return _mm256_addsub_pd(_mm256_mul_pd(x, wr), _mm256_mul_pd(swap_pairs(x), wi));
}

// Twiddles W(m j) (m = 1, 2, 3) of butterflies j0 and j0 + 1, as duplicated
// real and imaginary parts: read from the table, or from a copy expanded
// once per stage when the stage has many groups.
struct TableTwiddles {
    const float* w;
    std::size_t j0, t;
    QX_AVX2 void get(std::size_t m, __m256d& wr, __m256d& wi) const noexcept {
        __m256d v = twiddles2(w, j0, m * t);
        wr = _mm256_movedup_pd(v);
        wi = _mm256_permute_pd(v, 0b1111);
    }
};

struct ExpandedTwiddles {
    const __m256d* e;  // wr, wi for m = 1, 2, 3
    QX_AVX2 void get(std::size_t m, __m256d& wr, __m256d& wi) const noexcept {
        wr = e[2 * m - 2];
        wi = e[2 * m - 1];
    }
};

// Butterflies j0 and j0 + 1 of one group. kind 0: both general; 1: lane 0
// is j = 0; 2: lane 0 is j = q/2; 3: lane 0 is j = 0 and lane 1 is j = q/2.
template <int kind, class Tw>
QX_AVX2 inline void block2(float* p, std::size_t q, const Tw& tw) noexcept {
    __m256d a = load2(p), b = load2(p + 2 * q), c = load2(p + 4 * q), d = load2(p + 6 * q);
    __m256d s1 = _mm256_add_pd(a, c), s2 = _mm256_add_pd(b, d);
    __m256d d1 = _mm256_sub_pd(a, c), d2 = _mm256_sub_pd(b, d);
    __m256d x0 = _mm256_add_pd(s1, s2), x2 = _mm256_sub_pd(s1, s2);
    __m256d x1 = _mm256_add_pd(d1, flip_im(swap_pairs(d2)));  // (a - c) - i(b - d)
    __m256d x3 = _mm256_addsub_pd(d1, swap_pairs(d2));        // (a - c) + i(b - d)
    __m256d y1 = x1, y2 = x2, y3 = x3;
    if constexpr (kind != 3) {
        __m256d wr, wi;
        tw.get(2, wr, wi);
        y2 = cmul(x2, wr, wi);
        tw.get(1, wr, wi);
        y1 = cmul(x1, wr, wi);
        tw.get(3, wr, wi);
        y3 = cmul(x3, wr, wi);
    }
    if constexpr (kind == 1 || kind == 3) {
        y1 = _mm256_blend_pd(y1, x1, 0b0011);
        y2 = _mm256_blend_pd(y2, x2, 0b0011);
        y3 = _mm256_blend_pd(y3, x3, 0b0011);
    }
    if constexpr (kind == 2 || kind == 3) {
        // W(2j) = -i, W(j) = c(1 - i), W(3j) = -c(1 + i) with the constant c
        constexpr int lane = kind == 2 ? 0b0011 : 0b1100;
        const __m256d k = _mm256_set1_pd(FloatOps::kC);
        __m256d e2 = flip_im(swap_pairs(x2));
        __m256d e1 = _mm256_mul_pd(k, _mm256_add_pd(x1, flip_im(swap_pairs(x1))));
        __m256d e3 = flip_im(_mm256_mul_pd(k, _mm256_addsub_pd(swap_pairs(x3), x3)));
        y1 = _mm256_blend_pd(y1, e1, lane);
        y2 = _mm256_blend_pd(y2, e2, lane);
        y3 = _mm256_blend_pd(y3, e3, lane);
    }
    store2(p, x0);
    store2(p + 2 * q, y2);
    store2(p + 4 * q, y1);
    store2(p + 6 * q, y3);
}

// Every group of one stage; tw(j0) gives the twiddles of butterflies j0, j0 + 1.
template <class TwOf>
QX_AVX2 inline void groups_avx2(float* x, std::size_t n, std::size_t q, TwOf tw) noexcept {
    const std::size_t L = 4 * q, mid = q / 2;
    for (std::size_t g = 0; g < n; g += L) {
        float* p = x + 2 * g;
        if (q == 2) {
            block2<3>(p, q, tw(0));
            continue;
        }
        block2<1>(p, q, tw(0));
        for (std::size_t j0 = 2; j0 < mid; j0 += 2)
            block2<0>(p + 2 * j0, q, tw(j0));
        block2<2>(p + 2 * mid, q, tw(mid));
        for (std::size_t j0 = mid + 2; j0 < q; j0 += 2)
            block2<0>(p + 2 * j0, q, tw(j0));
    }
}

// One radix-4 stage with q >= 2; `e` holds the stage's widened twiddles
// (null: read the float table).
QX_AVX2 void stage_avx2(float* x, std::size_t n, std::size_t q, std::size_t t, const float* w,
                        const double* e) noexcept {
    if (e) {
        const auto* v = reinterpret_cast<const __m256d*>(e);
        groups_avx2(x, n, q, [v](std::size_t j0) { return ExpandedTwiddles{v + 3 * j0}; });
        return;
    }
    constexpr std::size_t kMaxExpanded = 256;
    if (n / (4 * q) >= 4 && q <= kMaxExpanded) {
        __m256d ex[3 * kMaxExpanded];  // six vectors per pair of butterflies
        for (std::size_t j0 = 0; j0 < q; j0 += 2) {
            TableTwiddles tw{w, j0, t};
            for (std::size_t m = 1; m <= 3; ++m)
                tw.get(m, ex[3 * j0 + 2 * m - 2], ex[3 * j0 + 2 * m - 1]);
        }
        groups_avx2(x, n, q, [ex = static_cast<const __m256d*>(ex)](std::size_t j0) { return ExpandedTwiddles{ex + 3 * j0}; });
    } else {
        groups_avx2(x, n, q, [w, t](std::size_t j0) { return TableTwiddles{w, j0, t}; });
    }
}

// (u, v) -> (u + v, u - v) for the two complex halves of a vector.
QX_AVX2 inline __m256d sum_dif(__m256d uv) noexcept {
    __m256d u = _mm256_permute2f128_pd(uv, uv, 0x00), v = _mm256_permute2f128_pd(uv, uv, 0x11);
    return _mm256_add_pd(u, _mm256_xor_pd(v, _mm256_set_pd(-0.0, -0.0, 0.0, 0.0)));
}

// The last pass fused with the bit reversal, in place, NaNs settled with kSettle (orders >= 4): the
// q = 1 radix-4 stage for even orders, the radix-2 pass for odd ones. An index
// splits into its top two bits T, middle bits M and low two bits L. The pass
// combines the elements of equal T and M; the reversal takes (T, M, L) to
// (rev L, rev M, rev T). So the 16 elements of middle M (four runs of four,
// one per quarter) land as four runs of four at middle rev M: the runs are
// transposed in float, widened, combined and stored whole, the blocks M and
// rev M together.
// Four complex floats read as the two halves the stage before stored: a
// whole-vector read of two recent half-vector stores would wait for them to
// reach the cache instead of taking them from the store buffer (small
// transforms, whose last stage's stores are all still recent).
template <bool kHalves>
QX_AVX2 inline __m256d run4(const float* p) noexcept {
    if constexpr (kHalves)
        return _mm256_castps_pd(_mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(p)), _mm_loadu_ps(p + 4), 1));
    return _mm256_castps_pd(_mm256_loadu_ps(p));
}

template <bool kRadix4, bool kSettle, bool kHalves>
QX_AVX2 inline void last_block(const float* x, std::size_t quarter, std::size_t at, __m256 y[4]) noexcept {
    // Runs in the lane order of their destination: quarters 0, 2, 1, 3.
    const float* p = x + 2 * at;
    const __m256d g0 = run4<kHalves>(p), g1 = run4<kHalves>(p + 4 * quarter);
    const __m256d g2 = run4<kHalves>(p + 2 * quarter), g3 = run4<kHalves>(p + 6 * quarter);
    const __m256d t0 = _mm256_unpacklo_pd(g0, g1), t1 = _mm256_unpackhi_pd(g0, g1);
    const __m256d t2 = _mm256_unpacklo_pd(g2, g3), t3 = _mm256_unpackhi_pd(g2, g3);
    const __m256 v[4] = {_mm256_castpd_ps(_mm256_permute2f128_pd(t0, t2, 0x20)),
                         _mm256_castpd_ps(_mm256_permute2f128_pd(t1, t3, 0x20)),
                         _mm256_castpd_ps(_mm256_permute2f128_pd(t0, t2, 0x31)),
                         _mm256_castpd_ps(_mm256_permute2f128_pd(t1, t3, 0x31))};  // element L of each run
    __m128 half[2][4];
    for (int h = 0; h < 2; ++h) {
        __m256d u[4];
        for (int l = 0; l < 4; ++l)
            u[l] = _mm256_cvtps_pd(h ? _mm256_extractf128_ps(v[l], 1) : _mm256_castps256_ps128(v[l]));
        const __m256d a = u[0], b = u[1], c = u[2], d = u[3];
        __m256d r[4];  // by destination quarter
        if constexpr (kRadix4) {
            const __m256d s1 = _mm256_add_pd(a, c), s2 = _mm256_add_pd(b, d);
            const __m256d d1 = _mm256_sub_pd(a, c), d2 = _mm256_sub_pd(b, d);
            r[0] = _mm256_add_pd(s1, s2);
            r[2] = _mm256_sub_pd(s1, s2);
            r[1] = _mm256_add_pd(d1, flip_im(swap_pairs(d2)));  // (a - c) - i(b - d)
            r[3] = _mm256_addsub_pd(d1, swap_pairs(d2));        // (a - c) + i(b - d)
        } else {
            r[0] = _mm256_add_pd(a, b);
            r[2] = _mm256_sub_pd(a, b);
            r[1] = _mm256_add_pd(c, d);
            r[3] = _mm256_sub_pd(c, d);
        }
        for (int k = 0; k < 4; ++k)
            half[h][k] = _mm256_cvtpd_ps(r[k]);
    }
    for (int k = 0; k < 4; ++k)
        y[k] = kSettle ? settle(_mm256_set_m128(half[1][k], half[0][k])) : _mm256_set_m128(half[1][k], half[0][k]);
}

template <bool kRadix4, bool kSettle, bool kHalves = false>
QX_AVX2 void last_pass_reversed(float* x, std::size_t n, const int* rev) noexcept {
    const std::size_t quarter = n / 4;
    for (std::size_t at = 0; at < quarter; at += 4) {
        const std::size_t to = static_cast<std::size_t>(rev[at]);  // 4 rev M
        if (to < at)
            continue;
        __m256 y[4], z[4];
        last_block<kRadix4, kSettle, kHalves>(x, quarter, at, y);
        if (to != at) {
            last_block<kRadix4, kSettle, kHalves>(x, quarter, to, z);
            for (std::size_t k = 0; k < 4; ++k)
                _mm256_storeu_ps(x + 2 * (k * quarter + at), z[k]);
        }
        for (std::size_t k = 0; k < 4; ++k)
            _mm256_storeu_ps(x + 2 * (k * quarter + to), y[k]);
    }
}

// The whole core of an even order kOrder (4 or 6) with every count and
// offset known: the stages of q >= 4 on the widened twiddles `e`, then the
// last pass.
template <int kOrder, bool kSettle>
QX_AVX2 __attribute__((flatten)) void small_core(float* x, const double* e, const int* rev) noexcept {
    constexpr std::size_t n = std::size_t{1} << kOrder;
    const auto* v = reinterpret_cast<const __m256d*>(e);
    if constexpr (kOrder == 6) {
        groups_avx2(x, n, 16, [v](std::size_t j0) { return ExpandedTwiddles{v + 3 * j0}; });
        v += 3 * 16;
    }
    groups_avx2(x, n, 4, [v](std::size_t j0) { return ExpandedTwiddles{v + 3 * j0}; });
    last_pass_reversed<true, kSettle, true>(x, n, rev);
}

// The closing radix-2 pass of order 3, into bit-reversed positions of `out`, NaNs settled.
QX_AVX2 void pairs_scatter(const float* x, std::size_t n, const int* rev, std::uint64_t* out) noexcept {
    for (std::size_t k = 0; k < n; k += 2) {
        const __m128 f = settle(_mm256_cvtpd_ps(sum_dif(load2(x + 2 * k))));
        _mm_storel_pi(reinterpret_cast<__m64*>(out + rev[k]), f);
        _mm_storeh_pi(reinterpret_cast<__m64*>(out + rev[k + 1]), f);
    }
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
