// Element-wise arithmetic of the vector families: element traits, the four
// integer scaling modes as one policy, and the float loops.
//
// Every integer operation first forms the exact result of two elements in a
// 32-bit int (sums, differences and products of two 16-bit elements all fit)
// and then reduces it to the element width by the scaling mode:
//
//   0 checked      store the low bits; the caller reports -20 when any result
//                  was above the element's maximum, -21 when any was below
//                  its minimum.
//   1 fixed shift  factor > 0: store (exact >> factor), arithmetic shift;
//                  factor <= 0: store (low bits << -factor), wrapped again.
//                  Counts are taken modulo 32, as the processor's shift does.
//                  A factor of 0 stores the low bits on either path, so the
//                  multiplication's "0 shifts right" and the addition's
//                  "0 shifts left" give the same values.
//   2 automatic    if every result fits, store them exactly and report 0;
//                  otherwise shift every result right by the smallest count
//                  that brings the result of largest magnitude into range and
//                  report that count (always 1 for sums and differences).
//                  Unsigned differences cannot be brought into range by
//                  shifting; there mode 2 saturates like mode 3.
//   3 saturating   clamp to the element range.
//
// The loops are written branch-free over whole blocks so that the compiler
// vectorises them: checked mode tracks the largest and smallest exact result
// instead of testing each one, and the automatic mode scans a block before it
// stores it, so that in the common case where nothing needs shifting every
// element is read once from memory and stored once.
#pragma once

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <type_traits>

#include "qx_packed.h"
#include "qx_scale_x86.h"

namespace qx {

// ---------------------------------------------------------------------------
// Element traits.
struct U4 {   // unsigned nibble, two per byte
    using T = std::uint8_t;
    static constexpr int lo = 0, hi = 15, bits = 4;
    static constexpr bool is_signed = false, packed = true;
};
struct U8 {   // unsigned byte
    using T = std::uint8_t;
    static constexpr int lo = 0, hi = 255, bits = 8;
    static constexpr bool is_signed = false, packed = false;
};
struct S8 {   // signed byte
    using T = std::int8_t;
    static constexpr int lo = -128, hi = 127, bits = 8;
    static constexpr bool is_signed = true, packed = false;
};
struct S16 {  // signed short
    using T = std::int16_t;
    static constexpr int lo = -32768, hi = 32767, bits = 16;
    static constexpr bool is_signed = true, packed = false;
};

// The low bits of v in the element's width (two's complement wrap-around).
template <class E>
constexpr typename E::T wrap(std::uint32_t v) noexcept {
    if constexpr (E::packed)
        return static_cast<typename E::T>(v & 0x0Fu);
    else
        return static_cast<typename E::T>(v);
}
template <class E>
constexpr typename E::T wrap(std::int32_t v) noexcept {
    return wrap<E>(static_cast<std::uint32_t>(v));
}
template <class E>
constexpr typename E::T wrap(std::int16_t v) noexcept {
    return wrap<E>(static_cast<std::uint32_t>(static_cast<std::uint16_t>(v)));
}

template <class E, class W>
constexpr typename E::T clamp(W v) noexcept {
    return static_cast<typename E::T>(std::min(std::max(v, static_cast<W>(E::lo)), static_cast<W>(E::hi)));
}

// ---------------------------------------------------------------------------
// The operations. apply(l, r): l is srcDst for the in-place forms, srcB for
// the three-operand subtraction, so that every form computes l op r.
struct Add {
    static constexpr bool is_sub = false;
    static constexpr std::int32_t apply(std::int32_t l, std::int32_t r) noexcept { return l + r; }
};
struct Sub {
    static constexpr bool is_sub = true;
    static constexpr std::int32_t apply(std::int32_t l, std::int32_t r) noexcept { return l - r; }
};
struct Mul {
    static constexpr bool is_sub = false;
    static constexpr std::int32_t apply(std::int32_t l, std::int32_t r) noexcept { return l * r; }
};

// Largest and smallest exact result seen.
struct Span {
    std::int32_t mx = INT32_MIN, mn = INT32_MAX;
    void merge(const Span& o) noexcept {
        mx = std::max(mx, o.mx);
        mn = std::min(mn, o.mn);
    }
    template <class E>
    bool fits() const noexcept { return mx <= E::hi && mn >= E::lo; }
};

// The count of the automatic mode: the result of larger magnitude (the
// largest when the smallest's magnitude does not exceed it) is shifted right
// until it fits the element range.
template <class E>
int automatic_shift(const Span& s) noexcept {
    std::int32_t v = s.mx;
    if (E::is_signed && -static_cast<std::int64_t>(s.mn) > static_cast<std::int64_t>(s.mx))
        v = s.mn;
    int count = 0;
    while (v > E::hi || v < E::lo) {
        v >>= 1;
        ++count;
    }
    return count;
}

// What the checked mode saw; the exported function reports it.
struct Outcome {
    bool over = false, under = false;
};

// ---------------------------------------------------------------------------
// A source that is the destination itself, or lies wholly apart from it
// (`bytes` long each). The vector paths and the block-wise automatic mode
// take only these; a source that overlaps the destination otherwise goes
// element by element in the documented order.
inline bool same_or_apart(const void* p, const void* d, std::size_t bytes) noexcept {
    std::uintptr_t a = reinterpret_cast<std::uintptr_t>(p), b = reinterpret_cast<std::uintptr_t>(d);
    return a == b || a + bytes <= b || b + bytes <= a;
}
template <class T>
bool same_or_apart(const T* p, const T* d, long n) noexcept {
    return same_or_apart(static_cast<const void*>(p), static_cast<const void*>(d), static_cast<std::size_t>(n) * sizeof(T));
}

// ---------------------------------------------------------------------------
// Operand access. A vector operand reads element k; a scalar gives its value
// for every k.
template <class T>
struct VecOf {
    const T* p;
    std::int32_t operator[](long k) const noexcept { return p[k]; }
    bool overlaps(const T* d, long n) const noexcept { return !same_or_apart(p, d, n); }
};
template <class T>
struct ScalarOf {
    std::int32_t v;
    std::int32_t operator[](long) const noexcept { return v; }
    bool overlaps(const T*, long) const noexcept { return false; }
};

// The narrowest signed type that holds every exact result of Op on two
// elements of E: fewer lanes to widen to, so the loops vectorise wider.
template <class E, class Op>
struct work_type {
    using type = std::int32_t;
};
template <>
struct work_type<U8, Add> { using type = std::int16_t; };
template <>
struct work_type<U8, Sub> { using type = std::int16_t; };
template <>
struct work_type<S8, Add> { using type = std::int16_t; };
template <>
struct work_type<S8, Sub> { using type = std::int16_t; };
template <>
struct work_type<S8, Mul> { using type = std::int16_t; };

// Byte and short vectors: dst[k] = reduce(l[k] op r[k]). The loops copy the
// operands into locals, so that byte stores cannot be taken to change them.
template <class E, class Op, class L, class R>
struct Plain {
    using T = typename E::T;
    using W = typename work_type<E, Op>::type;
    using op = Op;
    static constexpr long block = 4096;

    L l;
    R r;
    T* dst;

    static W apply(std::int32_t a, std::int32_t b) noexcept { return static_cast<W>(Op::apply(a, b)); }

    // True when a source overlaps the destination other than exactly.
    bool overlapping(long n) const noexcept { return l.overlaps(dst, n) || r.overlaps(dst, n); }

    Span scan(long b, long e) const noexcept {
        const L lv = l;
        const R rv = r;
        W mx = std::numeric_limits<W>::min(), mn = std::numeric_limits<W>::max();
        for (long k = b; k < e; ++k) {
            W x = apply(lv[k], rv[k]);
            mx = std::max(mx, x);
            mn = std::min(mn, x);
        }
        return {mx, mn};
    }

    template <bool Backward, class F>
    void store(long b, long e, F f) const noexcept {
        const L lv = l;
        const R rv = r;
        T* const d = dst;
        if constexpr (Backward) {
            for (long k = e; k-- > b;)
                d[k] = f(apply(lv[k], rv[k]));
        } else {
            for (long k = b; k < e; ++k)
                d[k] = f(apply(lv[k], rv[k]));
        }
    }

    // Checked mode: store the low bits and track the extremes in one pass.
    template <bool Backward>
    Span store_checked(long b, long e) const noexcept {
        const L lv = l;
        const R rv = r;
        T* const d = dst;
        W mx = std::numeric_limits<W>::min(), mn = std::numeric_limits<W>::max();
        if constexpr (Backward) {
            for (long k = e; k-- > b;) {
                W x = apply(lv[k], rv[k]);
                mx = std::max(mx, x);
                mn = std::min(mn, x);
                d[k] = static_cast<T>(x);
            }
        } else {
            for (long k = b; k < e; ++k) {
                W x = apply(lv[k], rv[k]);
                mx = std::max(mx, x);
                mn = std::min(mn, x);
                d[k] = static_cast<T>(x);
            }
        }
        return {mx, mn};
    }

    // Shifts results already stored (exact, in range) right by s.
    void reshift(long b, long e, int s) const noexcept {
        T* const d = dst;
        for (long k = b; k < e; ++k)
            d[k] = wrap<E>(static_cast<std::int32_t>(d[k]) >> s);
    }
};

// Nibble operands: a packed vector with its start position, or a scalar.
struct NibVec {
    const std::uint8_t* p;
    int pos;
    std::int32_t operator[](long k) const noexcept { return static_cast<std::int32_t>(packed::get_nibble(p, pos, k)); }
    std::uint8_t byte(long i) const noexcept { return p[i]; }
    bool aligned_with(int dstPos) const noexcept { return pos == dstPos; }
    bool overlaps(const std::uint8_t* d, int dstPos, long n) const noexcept {
        if (p == d && pos == dstPos)
            return false;
        return !same_or_apart(p, d, n / 2 + 2) || p == d;
    }
};
struct NibScalar {
    std::int32_t v;   // 0..15
    std::int32_t operator[](long) const noexcept { return v; }
    std::uint8_t byte(long) const noexcept { return static_cast<std::uint8_t>(v << 4 | v); }
    bool aligned_with(int) const noexcept { return true; }
    bool overlaps(const std::uint8_t*, int, long) const noexcept { return false; }
};

// Nibble vectors. When the operands start where the destination starts, the
// whole bytes between the first and last are done two nibbles per byte;
// otherwise the elements are realigned one by one. Nibbles of the first and
// last destination bytes outside the vector are kept.
template <class Op, class L, class R>
struct Nibbles {
    using T = std::uint8_t;
    using op = Op;
    static constexpr long block = LONG_MAX;   // the automatic mode decides once

    L l;
    R r;
    std::uint8_t* dst;
    int dstPos;

    bool overlapping(long n) const noexcept { return l.overlaps(dst, dstPos, n) || r.overlaps(dst, dstPos, n); }

    Span scan(long b, long e) const noexcept {
        Span s;
        for (long k = b; k < e; ++k) {
            std::int32_t x = Op::apply(l[k], r[k]);
            s.mx = std::max(s.mx, x);
            s.mn = std::min(s.mn, x);
        }
        return s;
    }

    template <bool Backward, class F>
    void store(long b, long e, F f) const noexcept {
        if (!l.aligned_with(dstPos) || !r.aligned_with(dstPos)) {
            for (long k = b; k < e; ++k)
                packed::set_nibble(dst, dstPos, k, f(Op::apply(l[k], r[k])));
            return;
        }
        long i = (1 - dstPos) + b;   // nibble index of element b
        long end = (1 - dstPos) + e;
        long k = b;
        if (i < end && (i & 1)) {
            packed::set_nibble(dst, dstPos, k, f(Op::apply(l[k], r[k])));
            ++i;
            ++k;
        }
        for (; i + 2 <= end; i += 2, k += 2) {
            long at = i >> 1;
            std::uint8_t lb = l.byte(at), rb = r.byte(at);
            std::uint32_t hiN = f(Op::apply(lb >> 4, rb >> 4));
            std::uint32_t loN = f(Op::apply(lb & 0x0F, rb & 0x0F));
            dst[at] = static_cast<std::uint8_t>((hiN << 4) | loN);
        }
        if (i < end)
            packed::set_nibble(dst, dstPos, k, f(Op::apply(l[k], r[k])));
    }

    template <bool Backward>
    Span store_checked(long b, long e) const noexcept {
        Span s;
        store<Backward>(b, e, [&s](std::int32_t x) {
            s.mx = std::max(s.mx, x);
            s.mn = std::min(s.mn, x);
            return wrap<U4>(x);
        });
        return s;
    }

    void reshift(long b, long e, int s) const noexcept {
        for (long k = b; k < e; ++k)
            packed::set_nibble(dst, dstPos, k, packed::get_nibble(dst, dstPos, k) >> s);
    }
};

// ---------------------------------------------------------------------------
// The four modes over one operation. Bit d of BackModes runs mode d from the
// last element to the first (the automatic mode always runs forward). Writes
// *scaleFactor as the mode requires.
template <class E, unsigned BackModes = 0, class V>
Outcome scaled(const V& v, long n, int doScale, int* scaleFactor) noexcept {
    using Op = typename V::op;
    switch (doScale) {
    case 0: {
        Span s = v.template store_checked<(BackModes & 1u) != 0>(0, n);
        *scaleFactor = 0;
        return {s.mx > E::hi, s.mn < E::lo};
    }
    case 1: {
        int factor = *scaleFactor;
        if (factor > 0) {
            int sh = factor & 31;
            v.template store<(BackModes & 2u) != 0>(0, n, [sh](auto x) { return wrap<E>(static_cast<decltype(x)>(x >> sh)); });
        } else {
            int sh = (-factor) & 31;
            v.template store<(BackModes & 2u) != 0>(0, n, [sh](auto x) {
                return wrap<E>(static_cast<std::uint32_t>(static_cast<std::int32_t>(x)) << sh);
            });
        }
        return {};
    }
    case 2:
        if constexpr (!E::is_signed && Op::is_sub) {
            v.template store<false>(0, n, [](auto x) { return clamp<E>(x); });
            *scaleFactor = 0;
            return {};
        } else {
            // Overlapping operands go one element at a time, so that every
            // result is formed from memory as the element order leaves it.
            const long block = v.overlapping(n) ? 1 : V::block;
            for (long b = 0; b < n;) {
                long e = n - b > block ? b + block : n;
                Span s = v.scan(b, e);
                if (s.template fits<E>()) {
                    v.template store<false>(b, e, [](auto x) { return wrap<E>(x); });
                    b = e;
                    continue;
                }
                // The first block with a result out of range: one count for
                // the whole vector, from the results of this block onwards
                // (the results before it all fit and cannot decide it). The
                // results stored before are shifted first, then the rest.
                s.merge(v.scan(e, n));
                int sh = automatic_shift<E>(s);
                v.reshift(0, b, sh);
                v.template store<false>(b, n, [sh](auto x) { return wrap<E>(static_cast<decltype(x)>(x >> sh)); });
                *scaleFactor = sh;
                return {};
            }
            *scaleFactor = 0;
            return {};
        }
    default:
        v.template store<(BackModes & 8u) != 0>(0, n, [](auto x) { return clamp<E>(x); });
        *scaleFactor = 0;
        return {};
    }
}

#if QX_SCALE_X86
namespace x86 {

// Saturating (doScale 3, and 2 for unsigned subtraction) and checked
// (doScale 0) addition and subtraction; false for the other modes.
template <class E, class Op, bool ScalarR, class V>
bool add_sub(const V& v, const typename E::T* l, const typename E::T* r, typename E::T rv, typename E::T* d, long n,
             int doScale, int* scaleFactor, Outcome& out) noexcept {
    if (doScale == 3 || (doScale == 2 && !E::is_signed && Op::is_sub)) {
        long m = has_avx512() ? saturate512<E, Op, ScalarR>(l, r, rv, d, n) : saturate<E, Op, ScalarR>(l, r, rv, d, n);
        v.template store<false>(m, n, [](auto x) { return clamp<E>(x); });
        *scaleFactor = 0;
        out = {};
        return true;
    }
    if (doScale == 0) {
        bool over = false, under = false;
        long m = has_avx512() ? checked512<E, Op, ScalarR>(l, r, rv, d, n, over, under)
                              : checked<E, Op, ScalarR>(l, r, rv, d, n, over, under);
        Span s = v.template store_checked<false>(m, n);
        *scaleFactor = 0;
        out = {over || s.mx > E::hi, under || s.mn < E::lo};
        return true;
    }
    return false;
}

// The products of elements b .. n-1 of shorts shifted right by sh: the blocks
// stored before b shifted by sh, whole vectors from b, the plain loop for the
// rest.
template <bool ScalarR, class V>
void store_shifted_products(const V& v, const std::int16_t* l, const std::int16_t* r, std::int16_t rv,
                            std::int16_t* d, long b, long nv, long n, int sh) noexcept {
    if (has_avx512()) {
        shift_stored512(d, 0, b, sh);
        store_products512<ScalarR>(l, r, rv, d, b, nv, sh);
    } else {
        shift_stored(d, 0, b, sh);
        store_products<ScalarR>(l, r, rv, d, b, nv, sh);
    }
    v.template store<false>(nv, n, [sh](auto x) { return wrap<S16>(static_cast<decltype(x)>(x >> sh)); });
}

// The automatic multiply shift of shorts, block by block as in scaled(): a
// block whose products all fit is stored as it is; at the first one that does
// not, one count is chosen for the rest and the blocks stored before are
// shifted by it. Blocks are whole vectors except at the end.
template <bool ScalarR, class V>
void auto_multiply(const V& v, const std::int16_t* l, const std::int16_t* r, std::int16_t rv, std::int16_t* d,
                   long n, int* scaleFactor) noexcept {
    const bool wide = has_avx512();
    const long lanes = wide ? 32 : 16;
    alignas(64) std::int16_t lows[V::block];   // the products of one block, while it is checked
    for (long b = 0; b < n;) {
        long e = n - b > V::block ? b + V::block : n;
        long ev = b + ((e - b) & -lanes);   // lanes is a power of two
        bool fit = wide ? products_fit512<ScalarR>(l, r, rv, b, ev, lows) : products_fit<ScalarR>(l, r, rv, b, ev);
        if (fit && v.scan(ev, e).template fits<S16>()) {
            if (wide)
                copy512(lows, d + b, ev - b);
            else
                store_products<ScalarR>(l, r, rv, d, b, ev, 0);
            v.template store<false>(ev, e, [](auto x) { return wrap<S16>(x); });
            b = e;
            continue;
        }
        long nv = b + ((n - b) & -lanes);
        Span s = v.scan(nv, n);
        if (wide)
            product_span512<ScalarR>(l, r, rv, b, nv, s.mx, s.mn);
        else
            product_span<ScalarR>(l, r, rv, b, nv, s.mx, s.mn);
        const int sh = automatic_shift<S16>(s);
        store_shifted_products<ScalarR>(v, l, r, rv, d, b, nv, n, sh);
        *scaleFactor = sh;
        return;
    }
    *scaleFactor = 0;
}

}  // namespace x86
#endif

// The vector paths (qx_scale_x86.h) where the processor has them: saturating
// and checked addition and subtraction of bytes and shorts, and the
// automatic multiply shift of shorts. The plain loops of `v` finish the
// elements after the last whole vector. Returns false to leave the call to
// the plain loops.
template <class E, class Op, bool ScalarR, class V>
bool vector_path(const V& v, const typename E::T* l, const typename E::T* r, typename E::T rv, typename E::T* d,
                 long n, int doScale, int* scaleFactor, Outcome& out) noexcept {
#if QX_SCALE_X86
    if (!x86::has_avx2() || !same_or_apart(l, d, n) || (!ScalarR && !same_or_apart(r, d, n)))
        return false;
    if constexpr (!std::is_same_v<Op, Mul>) {
        return x86::add_sub<E, Op, ScalarR>(v, l, r, rv, d, n, doScale, scaleFactor, out);
    } else if constexpr (std::is_same_v<E, S16>) {
        if (doScale != 2)
            return false;
        x86::auto_multiply<ScalarR>(v, l, r, rv, d, n, scaleFactor);
        out = {};
        return true;
    }
#else
    (void)v, (void)l, (void)r, (void)rv, (void)d, (void)n, (void)doScale, (void)scaleFactor, (void)out;
#endif
    return false;
}

// Entry points for the exported functions.
template <class E, class Op, unsigned BackModes = 0>
Outcome vec2(const typename E::T* right, typename E::T* srcDst, long n, int doScale, int* scaleFactor) noexcept {
    using T = typename E::T;
    Plain<E, Op, VecOf<T>, VecOf<T>> v{{srcDst}, {right}, srcDst};
    Outcome o;
    if (vector_path<E, Op, false>(v, srcDst, right, T{}, srcDst, n, doScale, scaleFactor, o))
        return o;
    return scaled<E, BackModes>(v, n, doScale, scaleFactor);
}
template <class E, class Op>
Outcome vec3(const typename E::T* left, const typename E::T* right, typename E::T* dst, long n, int doScale,
             int* scaleFactor) noexcept {
    using T = typename E::T;
    Plain<E, Op, VecOf<T>, VecOf<T>> v{{left}, {right}, dst};
    Outcome o;
    if (vector_path<E, Op, false>(v, left, right, T{}, dst, n, doScale, scaleFactor, o))
        return o;
    return scaled<E>(v, n, doScale, scaleFactor);
}
template <class E, class Op>
Outcome vec2s(typename E::T val, typename E::T* srcDst, long n, int doScale, int* scaleFactor) noexcept {
    using T = typename E::T;
    Plain<E, Op, VecOf<T>, ScalarOf<T>> v{{srcDst}, {val}, srcDst};
    Outcome o;
    if (vector_path<E, Op, true>(v, srcDst, static_cast<const T*>(nullptr), val, srcDst, n, doScale, scaleFactor, o))
        return o;
    return scaled<E>(v, n, doScale, scaleFactor);
}

template <class Op>
Outcome nib2(const std::uint8_t* src, std::uint8_t* srcDst, int srcPos, int dstPos, long n, int doScale,
             int* scaleFactor) noexcept {
    Nibbles<Op, NibVec, NibVec> v{{srcDst, dstPos}, {src, srcPos}, srcDst, dstPos};
    return scaled<U4>(v, n, doScale, scaleFactor);
}
template <class Op>
Outcome nib3(const std::uint8_t* left, const std::uint8_t* right, std::uint8_t* dst, int srcPos, int dstPos, long n,
             int doScale, int* scaleFactor) noexcept {
    Nibbles<Op, NibVec, NibVec> v{{left, srcPos}, {right, srcPos}, dst, dstPos};
    return scaled<U4>(v, n, doScale, scaleFactor);
}
// The scalar is taken as a nibble (its low four bits).
template <class Op>
Outcome nib2s(unsigned char val, std::uint8_t* srcDst, int dstPos, long n, int doScale, int* scaleFactor) noexcept {
    Nibbles<Op, NibVec, NibScalar> v{{srcDst, dstPos}, {static_cast<std::int32_t>(val & 0x0F)}, srcDst, dstPos};
    return scaled<U4>(v, n, doScale, scaleFactor);
}

// ---------------------------------------------------------------------------
// Float forms: plain loops the compiler unrolls and vectorises; no scaling.
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
