// Element-wise shifts of integer vectors by a common count. The count is
// taken modulo 32; a count of at least the element width leaves 0 for left
// shifts and logical right shifts, and the sign fill for arithmetic ones.
// Right shifts are logical for unsigned elements, arithmetic for signed ones.
// Nibbles are shifted within their own four bits.
#include <cstdint>

#include "kvxpx.h"
#include "qx_report.h"
#include "qx_scale.h"

namespace {

// Left shifts wrap to the element width. Right shifts are arithmetic for
// signed elements (the value is sign-extended first), logical for unsigned
// ones (zero-extended).
template <bool Left, class E>
void shift_all(typename E::T* v, long n, int shift) noexcept {
    unsigned sh = static_cast<unsigned>(shift) & 31u;
    for (long k = 0; k < n; ++k) {
        if constexpr (Left)
            v[k] = qx::wrap<E>(static_cast<std::uint32_t>(static_cast<std::int32_t>(v[k])) << sh);
        else
            v[k] = qx::wrap<E>(static_cast<std::int32_t>(v[k]) >> sh);
    }
}

// Each nibble of a packed nibble vector, shifted within its four bits: whole
// bytes two nibbles at a time, the first and last byte merged so that nibbles
// outside the vector stay.
template <bool Left>
void shift_nibbles(std::uint8_t* v, int dstPos, long n, int shift) noexcept {
    unsigned sh = static_cast<unsigned>(shift) & 31u;
    auto one = [sh](unsigned nib) -> unsigned { return Left ? (nib << sh) & 0x0Fu : nib >> sh; };
    long i = 1 - dstPos;   // nibble index of element 0
    long end = i + n;
    long k = 0;
    if (i & 1) {
        qx::packed::set_nibble(v, dstPos, k, one(qx::packed::get_nibble(v, dstPos, k)));
        ++i;
        ++k;
    }
    for (; i + 2 <= end; i += 2, k += 2) {
        unsigned b = v[i >> 1];
        v[i >> 1] = static_cast<std::uint8_t>(one(b >> 4) << 4 | one(b & 0x0Fu));
    }
    if (i < end)
        qx::packed::set_nibble(v, dstPos, k, one(qx::packed::get_nibble(v, dstPos, k)));
}

// The checks of the whole-element forms, reported on the caller's line, then
// the shift.
template <bool Left, class E>
int checked_shift(const qx::Report& r, typename E::T* srcDst, int n, int shift,
                  qx::where loc = qx::where::current()) noexcept {
    r.checks(n, {{srcDst, "dst==0"}}, loc);
    if (qx::Report::failed())
        return QXGetStatus();
    shift_all<Left, E>(srcDst, n, shift);
    return 0;
}

}  // namespace

extern "C" {

QX_API int QXybShiftL(unsigned char* srcDst, int n, int shift) {
    constexpr qx::Report r{"QXybShiftL"};
    return checked_shift<true, qx::U8>(r, srcDst, n, shift);
}

QX_API int QXtbShiftL(signed char* srcDst, int n, int shift) {
    constexpr qx::Report r{"QXtbShiftL"};
    return checked_shift<true, qx::S8>(r, srcDst, n, shift);
}

QX_API int QXwbShiftL(short* srcDst, int n, int shift) {
    constexpr qx::Report r{"QXwbShiftL"};
    return checked_shift<true, qx::S16>(r, srcDst, n, shift);
}

QX_API int QXybShiftR(unsigned char* srcDst, int n, int shift) {
    constexpr qx::Report r{"QXybShiftR"};
    return checked_shift<false, qx::U8>(r, srcDst, n, shift);
}

QX_API int QXtbShiftR(signed char* srcDst, int n, int shift) {
    constexpr qx::Report r{"QXtbShiftR"};
    return checked_shift<false, qx::S8>(r, srcDst, n, shift);
}

QX_API int QXwbShiftR(short* srcDst, int n, int shift) {
    constexpr qx::Report r{"QXwbShiftL"};  // reports under the left shift's name
    return checked_shift<false, qx::S16>(r, srcDst, n, shift);
}

QX_API int QXnbShiftL(unsigned char* srcDst, int dstStartPos, int n, int shift) {
    constexpr qx::Report r{"QXnbShiftL"};
    r.check(dstStartPos < 0, "dstStartPos<0");
    r.check(dstStartPos > 1, "dstStartPos>1");
    r.checks(n, {{srcDst, "dst==0"}});
    if (qx::Report::failed())
        return QXGetStatus();
    shift_nibbles<true>(srcDst, dstStartPos, n, shift);
    return 0;
}

QX_API int QXnbShiftR(unsigned char* srcDst, int dstStartPos, int n, int shift) {
    constexpr qx::Report r{"QXnbShiftR"};
    r.check(dstStartPos < 0, "dstStartPos<0");
    r.check(dstStartPos > 1, "dstStartPos>1");
    r.checks(n, {{srcDst, "dst==0"}});
    if (qx::Report::failed())
        return QXGetStatus();
    shift_nibbles<false>(srcDst, dstStartPos, n, shift);
    return 0;
}

}  // extern "C"
