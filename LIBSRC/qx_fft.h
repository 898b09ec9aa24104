// The transform kernels shared by the complex, real, packed-spectrum and
// short-data FFTs, written once over an arithmetic policy:
//
//   FloatOps  float storage, double intermediates, float twiddle tables
//   FixedOps  32-bit integers with wrap-around, 16384-scaled short twiddles;
//             a twiddle product is floor(value * twiddle / 16384), computed as
//             the high 32 bits of value * (twiddle << 18)
//
// Complex data are (re, im) pairs. Twiddle table entry k of order m is
// W(k) = e^(-2*pi*i*k/2^m); the real-transform table holds
// T(k) = (Re W(k) / 2, Im W(k) / 2 + 1/2).
//
// The core is a radix-4 decimation in frequency on natural-order input; its
// output is in plain bit-reversed order (an odd order ends with one radix-2
// pass). The inverse direction conjugates before and after the forward core.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "kvxpx.h"
#include "qx_alloc.h"
#include "qx_report.h"

// Products and sums round separately wherever these kernels are compiled,
// whatever instruction set the including file targets: no fused multiply-add.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC push_options
#pragma GCC optimize("fp-contract=off")
#endif

namespace qx::fft {

constexpr int kRealIn = 0x04000000;   // short core: real signal in, packed spectrum out
constexpr int kPackedIn = 0x08000000; // short core: packed spectrum in, real signal out

// The two direction-flag messages of every transform.
constexpr const char* kBothDirections = "Error in flag (QX_FORWARD & QX_INVERSE are presented)";
constexpr const char* kNoDirection = "Error in flag (QX_FORWARD & QX_INVERSE are not presented)";

// Every NaN a float transform returns is the quiet NaN 0x7fc00000. Which of
// two NaN operands a sum passes on (its sign and payload) is the compiler's
// and the processor's choice, not the source's; one NaN keeps the bytes of
// every kernel path and every build the same.
constexpr std::uint32_t kQuietNan = 0x7fc00000u;
inline std::uint32_t settled(std::uint32_t bits) noexcept {
    return (bits & 0x7fffffffu) > 0x7f800000u ? kQuietNan : bits;
}

// 2^order: the points of a transform of `order`.
constexpr std::size_t points(int order) noexcept { return std::size_t{1} << order; }

// Bit-reversed indices of n = 2^order points, by the reversed-counter walk.
constexpr void calc_bit_reversal(int* tbl, int order) noexcept {
    const std::size_t n = points(order);
    tbl[0] = 0;
    tbl[n - 1] = static_cast<int>(n - 1);
    std::size_t j = 0;
    for (std::size_t i = 1; i + 1 < n; ++i) {
        std::size_t bit = n >> 1;
        while (j & bit) {
            j ^= bit;
            bit >>= 1;
        }
        j |= bit;
        if (i <= j) {
            tbl[i] = static_cast<int>(j);
            tbl[j] = static_cast<int>(i);
        }
    }
}

// The order checks of every table and transform, in their order, reported on
// the caller's line. True when the order is out of [0, 31].
inline bool bad_order(const Report& r, int order, where loc = where::current()) noexcept {
    return r.check(order < 0, "order<0", loc) | r.check(order > 31, "order>31", loc);
}

// tbl1[i] = tbl2[2i] for the 2^order complex entries of tbl1.
template <class T>
void decimate(T* tbl1, const T* tbl2, int order) noexcept {
    for (std::size_t i = 0; i < points(order); ++i) {
        tbl1[2 * i] = tbl2[4 * i];
        tbl1[2 * i + 1] = tbl2[4 * i + 1];
    }
}

// The not-in-place form of an in-place transform (float or short data of
// `perPoint` elements a point): its checks on the caller's line, the copy,
// run(out), and the trace `trace` when that failed. kZeroCopies: order 0 is
// done once copied.
template <bool kZeroCopies, class T, class Run>
int not_in_place(const Report& r, const T* in, T* out, int order, std::size_t perPoint, const char* trace, Run run,
                 where loc = where::current()) {
    bad_order(r, order, loc);
    r.check(in == nullptr, "inSamps==0", loc);
    r.check(out == nullptr, "outSamps==0", loc);
    if (Report::failed())
        return QXGetStatus();
    if constexpr (sizeof(T) == 4)
        QXsbCopy(in, out, static_cast<int>(perPoint * points(order)));
    else
        QXwbCopy(in, out, static_cast<int>(perPoint * points(order)));
    if (kZeroCopies && order == 0)
        return 0;
    run(out);
    if (Report::failed())
        r.raise(QX_StsBackTrace, trace, loc);
    return QXGetStatus();
}

// The cached real-transform table of `order` (32-byte aligned), built on first
// use; reports as "QXcGetFftTwdTbl". Null when the order is bad or memory ran out.
float* real_twiddles(int order);

// The direction checks of every transform, in their order, reported on the
// caller's line. True when the flags name both directions or neither.
inline bool bad_direction(const Report& r, int flags, where loc = where::current()) noexcept {
    const int dir = flags & (QX_FORWARD | QX_INVERSE);
    return r.check(dir == (QX_FORWARD | QX_INVERSE), kBothDirections, loc) | r.check(dir == 0, kNoDirection, loc);
}

// The cached table of `order` from `slots` (one table kind's raw addresses in
// the working context), 32-byte aligned. A missing table gets `bytes` of fresh
// memory, filled by build(t, finer): `finer` is the cached table of order + 1
// when there is one (every other entry of it is this table), else null. A
// build that returns false drops the new block. Running out of memory reports
// -4 "NULL Pointer" on the caller's line. Null when there is no table.
template <class T, class Build>
T* cached_table(const Report& r, void** slots, int order, std::size_t bytes, Build build,
                where loc = where::current()) {
    if (slots[order])
        return static_cast<T*>(qx::align32(slots[order]));
    void* raw = nullptr;
    auto* t = static_cast<T*>(qx::alloc_aligned32(bytes, &raw));
    if (raw == nullptr) {
        r.raise(QX_StsNoMem, "NULL Pointer", loc);
        return nullptr;
    }
    const T* finer = slots[order + 1] ? static_cast<const T*>(qx::align32(slots[order + 1])) : nullptr;
    if (!build(t, finer)) {
        qx::free(raw);
        return nullptr;
    }
    slots[order] = raw;
    return t;
}


// Swaps element i with element rev[i] for every i < rev[i] (orders >= 3),
// the closed forms for orders 0..2 (rev may then be null).
template <class T>
void bit_reverse(T* x, int order, const int* rev) noexcept {
    static_assert(sizeof(T) == 4, "complex elements of 8 bytes");
    auto swap = [x](std::size_t a, std::size_t b) {  // one 8-byte move each way
        std::uint64_t u, v;
        std::memcpy(&u, x + 2 * a, 8);
        std::memcpy(&v, x + 2 * b, 8);
        std::memcpy(x + 2 * a, &v, 8);
        std::memcpy(x + 2 * b, &u, 8);
    };
    if (order < 2)
        return;
    if (order == 2) {
        swap(1, 2);
        return;
    }
    // rev(i + n/2) = rev(i) + 1: one pass over the first half finds every pair.
    const std::size_t half = std::size_t{1} << (order - 1);
    for (std::size_t i = 0; i < half; ++i) {
        std::size_t j = static_cast<std::size_t>(rev[i]);
        if (i < j)
            swap(i, j);
        if (i + half < j + 1)
            swap(i + half, j + 1);
    }
}

// ---------------------------------------------------------------------------
// Arithmetic policies.

struct FloatOps {
    using T = float;   // storage
    using V = double;  // intermediates
    using W = float;   // twiddle entries
    static constexpr bool kEighthConstant = true;
    static constexpr double kC = 0.7071067781186547;

    static V ld(T x) noexcept { return x; }
    static T st(V x) noexcept { return static_cast<T>(x); }
    static V add(V a, V b) noexcept { return a + b; }
    static V sub(V a, V b) noexcept { return a - b; }
    static V neg(V a) noexcept { return -a; }
    // v times the real number held by a twiddle part
    static V scale(V v, W w) noexcept { return v * static_cast<V>(w); }
    // Real-split factors from the real-transform table.
    static V tr(V v, const W* t, std::size_t k) noexcept { return v * static_cast<V>(t[2 * k]); }
    static V ti(V v, const W* t, std::size_t k) noexcept { return v * static_cast<V>(t[2 * k + 1]); }
    // Conjugation by toggling the sign bits of the imaginary parts.
    static void conj(T* x, std::size_t n) noexcept {
        for (std::size_t k = 0; k < n; ++k) {
            std::uint32_t b;
            std::memcpy(&b, &x[2 * k + 1], 4);
            b ^= 0x80000000u;
            std::memcpy(&x[2 * k + 1], &b, 4);
        }
    }
};

struct FixedOps {
    using T = std::int32_t;
    using V = std::int32_t;
    using W = short;
    static constexpr bool kEighthConstant = false;

    static V ld(T x) noexcept { return x; }
    static T st(V x) noexcept { return x; }
    static V wrap(std::uint32_t u) noexcept { return static_cast<V>(u); }  // modular since C++20
    static V add(V a, V b) noexcept { return wrap(static_cast<std::uint32_t>(a) + static_cast<std::uint32_t>(b)); }
    static V sub(V a, V b) noexcept { return wrap(static_cast<std::uint32_t>(a) - static_cast<std::uint32_t>(b)); }
    static V neg(V a) noexcept { return wrap(0u - static_cast<std::uint32_t>(a)); }
    // High 32 bits of the 64-bit product v * (w << shift), wrapping like the
    // hardware multiply: floor(v * w / 2^(32 - shift)).
    static V high(V v, std::int64_t w, int shift) noexcept {
        std::uint64_t p = static_cast<std::uint64_t>(static_cast<std::int64_t>(v)) *
                          (static_cast<std::uint64_t>(w) << shift);
        return wrap(static_cast<std::uint32_t>(p >> 32));
    }
    static V scale(V v, W w) noexcept { return high(v, w, 18); }  // floor(v*w/16384)
    // The real split reads the complex table: T = (W.re/2, W.im/2 + 1/2),
    // applied as floor(v * W.re / 32768) and floor(v * (16384 + W.im) / 32768).
    static V tr(V v, const W* t, std::size_t k) noexcept { return high(v, t[2 * k], 17); }
    static V ti(V v, const W* t, std::size_t k) noexcept { return high(v, 16384 + t[2 * k + 1], 17); }
    static void conj(T* x, std::size_t n) noexcept {
        for (std::size_t k = 0; k < n; ++k)
            x[2 * k + 1] = neg(x[2 * k + 1]);
    }
};

// ---------------------------------------------------------------------------
// The complex core: n = 2^order points (order >= 1), output bit-reversed.

template <class Ops>
struct Radix4 {
    using T = typename Ops::T;
    using V = typename Ops::V;
    using W = typename Ops::W;

    // (x.re + i x.im) * (wr + i wi)
    static void twiddle(V& re, V& im, W wr, W wi) noexcept {
        V r = Ops::sub(Ops::scale(re, wr), Ops::scale(im, wi));
        V i = Ops::add(Ops::scale(re, wi), Ops::scale(im, wr));
        re = r;
        im = i;
    }

    // One radix-4 butterfly over a, b, c, d = p[0], p[q], p[2q], p[3q] (complex
    // elements). kind 0: j = 0 (no twiddles); 1: general; 2: one eighth turn.
    template <int kind>
    static void butterfly(T* p, std::size_t q, const W* w1, const W* w2, const W* w3) noexcept {
        T* a = p;
        T* b = p + 2 * q;
        T* c = p + 4 * q;
        T* d = p + 6 * q;
        V ar = Ops::ld(a[0]), ai = Ops::ld(a[1]), br = Ops::ld(b[0]), bi = Ops::ld(b[1]);
        V cr = Ops::ld(c[0]), ci = Ops::ld(c[1]), dr = Ops::ld(d[0]), di = Ops::ld(d[1]);
        V s1r = Ops::add(ar, cr), s1i = Ops::add(ai, ci);  // a + c
        V s2r = Ops::add(br, dr), s2i = Ops::add(bi, di);  // b + d
        V d1r = Ops::sub(ar, cr), d1i = Ops::sub(ai, ci);  // a - c
        V d2r = Ops::sub(br, dr), d2i = Ops::sub(bi, di);  // b - d
        V x0r = Ops::add(s1r, s2r), x0i = Ops::add(s1i, s2i);
        V x2r = Ops::sub(s1r, s2r), x2i = Ops::sub(s1i, s2i);
        // (a - c) - i(b - d) and (a - c) + i(b - d)
        V x1r = Ops::add(d1r, d2i), x1i = Ops::sub(d1i, d2r);
        V x3r = Ops::sub(d1r, d2i), x3i = Ops::add(d1i, d2r);
        if constexpr (kind == 1) {
            twiddle(x2r, x2i, w2[0], w2[1]);
            twiddle(x1r, x1i, w1[0], w1[1]);
            twiddle(x3r, x3i, w3[0], w3[1]);
        } else if constexpr (kind == 2) {
            // W(2j) = -i; W(j) = c(1 - i); W(3j) = -c(1 + i)
            V t = x2r;
            x2r = x2i;
            x2i = -t;
            V c = Ops::kC;
            V r1 = c * (x1r + x1i), i1 = c * (x1i - x1r);
            V r3 = c * (x3i - x3r), i3 = -(c * (x3r + x3i));
            x1r = r1, x1i = i1, x3r = r3, x3i = i3;
        }
        a[0] = Ops::st(x0r), a[1] = Ops::st(x0i);
        b[0] = Ops::st(x2r), b[1] = Ops::st(x2i);
        c[0] = Ops::st(x1r), c[1] = Ops::st(x1i);
        d[0] = Ops::st(x3r), d[1] = Ops::st(x3i);
    }

    static void pair(T* p) noexcept {
        V ar = Ops::ld(p[0]), ai = Ops::ld(p[1]), br = Ops::ld(p[2]), bi = Ops::ld(p[3]);
        p[0] = Ops::st(Ops::add(ar, br)), p[1] = Ops::st(Ops::add(ai, bi));
        p[2] = Ops::st(Ops::sub(ar, br)), p[3] = Ops::st(Ops::sub(ai, bi));
    }

    // One radix-4 stage over groups of L = 4q points, twiddle stride t.
    static void stage(T* x, std::size_t n, std::size_t q, std::size_t t, const W* w) noexcept {
        const std::size_t L = 4 * q;
        [[maybe_unused]] const std::size_t eighth = q >= 2 ? q / 2 : 0;
        for (std::size_t g = 0; g < n; g += L) {
            T* p = x + 2 * g;
            butterfly<0>(p, q, nullptr, nullptr, nullptr);
            for (std::size_t j = 1; j < q; ++j) {
                if constexpr (Ops::kEighthConstant) {
                    if (j == eighth) {
                        butterfly<2>(p + 2 * j, q, nullptr, nullptr, nullptr);
                        continue;
                    }
                }
                butterfly<1>(p + 2 * j, q, w + 2 * j * t, w + 4 * j * t, w + 6 * j * t);
            }
        }
    }

    static void run(T* x, int order, const W* w, bool inverse) noexcept {
        const std::size_t n = std::size_t{1} << order;
        if (n == 2) {  // the two-point transform is its own inverse
            pair(x);
            return;
        }
        if (inverse)
            Ops::conj(x, n);
        std::size_t t = 1;
        for (std::size_t q = n / 4; q >= 1; q /= 4, t *= 4)
            stage(x, n, q, t, w);
        if (order & 1)
            for (std::size_t k = 0; k < n; k += 2)
                pair(x + 2 * k);
        if (inverse)
            Ops::conj(x, n);
    }
};

// ---------------------------------------------------------------------------
// Split steps between a complex transform of m = n/2 points and the packed
// spectrum of n reals: [0] X[0], [1] X[n/2], [2k], [2k+1] X[k].

// After the half-length transform of z[k] = x[2k] + i x[2k+1] (natural order):
// forms the packed spectrum. T is the real-transform table (float) or the
// complex table of order log2(n) (fixed point).
// Pairs (k, m - k) below `from` are taken as done (a vector loop did them).
template <class Ops>
void real_split(typename Ops::T* z, std::size_t m, const typename Ops::W* T, bool forward,
                std::size_t from = 1) noexcept {
    using V = typename Ops::V;
    std::size_t k = from;
    for (; k < m - k; ++k) {
        typename Ops::T* A = z + 2 * k;
        typename Ops::T* B = z + 2 * (m - k);
        V ar = Ops::ld(A[0]), ai = Ops::ld(A[1]), br = Ops::ld(B[0]), bi = Ops::ld(B[1]);
        V sum = Ops::add(ai, bi), dif = Ops::sub(ar, br);
        if (forward) {
            V f3 = Ops::sub(Ops::ti(sum, T, k), Ops::tr(dif, T, k));
            V f2 = Ops::add(Ops::tr(sum, T, k), Ops::ti(dif, T, k));
            B[0] = Ops::st(Ops::sub(ar, f2));
            A[0] = Ops::st(Ops::add(br, f2));
            B[1] = Ops::st(Ops::sub(f3, ai));
            A[1] = Ops::st(Ops::sub(f3, bi));
        } else {
            V f1 = Ops::sub(Ops::ti(dif, T, k), Ops::tr(sum, T, k));
            V f2 = Ops::add(Ops::tr(dif, T, k), Ops::ti(sum, T, k));
            B[0] = Ops::st(Ops::add(br, f1));
            A[0] = Ops::st(Ops::sub(ar, f1));
            B[1] = Ops::st(Ops::sub(bi, f2));
            A[1] = Ops::st(Ops::sub(ai, f2));
        }
    }
    if (m > 1 && forward)
        z[2 * k + 1] = Ops::st(Ops::neg(Ops::ld(z[2 * k + 1])));
    V r = Ops::ld(z[0]), i = Ops::ld(z[1]);
    z[0] = Ops::st(Ops::add(r, i));
    z[1] = Ops::st(Ops::sub(r, i));
}

// Before the half-length transform: turns a packed spectrum into the m complex
// values whose transform interleaves the real signal. W is the complex table
// of order log2(n).
template <class Ops>
void packed_unsplit(typename Ops::T* z, std::size_t m, const typename Ops::W* W, bool forward) noexcept {
    using V = typename Ops::V;
    std::size_t k = 1;
    for (; k < m - k; ++k) {
        typename Ops::T* A = z + 2 * k;
        typename Ops::T* B = z + 2 * (m - k);
        V ar = Ops::ld(A[0]), ai = Ops::ld(A[1]), br = Ops::ld(B[0]), bi = Ops::ld(B[1]);
        V dif = Ops::sub(ar, br), sum = Ops::add(ai, bi);
        V wr_dif = Ops::scale(dif, W[2 * k]), wi_dif = Ops::scale(dif, W[2 * k + 1]);
        V wr_sum = Ops::scale(sum, W[2 * k]), wi_sum = Ops::scale(sum, W[2 * k + 1]);
        V f6, f5;
        if (forward) {
            f6 = Ops::sub(wr_dif, wi_sum);
            f5 = Ops::neg(Ops::add(wi_dif, wr_sum));
        } else {
            f6 = Ops::add(wr_dif, wi_sum);
            f5 = Ops::sub(wi_dif, wr_sum);
        }
        B[0] = Ops::st(Ops::sub(Ops::add(br, ar), f5));
        A[0] = Ops::st(Ops::add(Ops::add(f5, br), ar));
        B[1] = Ops::st(Ops::sub(f6, Ops::sub(ai, bi)));
        A[1] = Ops::st(Ops::add(f6, Ops::sub(ai, bi)));
    }
    if (m > 1) {
        V r = Ops::ld(z[2 * k]), i = Ops::ld(z[2 * k + 1]);
        z[2 * k] = Ops::st(Ops::add(r, r));
        i = Ops::add(i, i);
        z[2 * k + 1] = Ops::st(forward ? i : Ops::neg(i));
    }
    V p0 = Ops::ld(z[0]), p1 = Ops::ld(z[1]);
    z[0] = Ops::st(Ops::add(p0, p1));
    z[1] = Ops::st(Ops::sub(p0, p1));
}

}  // namespace qx::fft

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC pop_options
#endif
