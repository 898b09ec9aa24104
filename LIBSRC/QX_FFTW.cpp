// Fixed-point twiddle tables and the transforms of short data: complex shorts,
// real shorts to a packed short spectrum, and back. Orders up to 10 without
// automatic scaling run on 32-bit integers (six bits of headroom); longer
// transforms and automatic scaling go through floats and the scaled
// conversions.
#include <cmath>
#include <cstdint>

#include "kvxpx.h"
#include "qx_alloc.h"
#include "qx_context.h"
#include "qx_fft.h"
#include "qx_report.h"

namespace {

using qx::fft::FixedOps;

using qx::fft::points;

// Each part of the float table times 16384, truncated toward zero.
void fixed_from_float(short* tbl, const float* f, int order) noexcept {
    for (std::size_t i = 0; i < 2 * points(order); ++i)
        tbl[i] = static_cast<short>(std::trunc(static_cast<double>(f[i]) * 16384.0));
}

// Makes the scratch buffer in `raw` hold `count` 4-byte elements: a buffer
// that is too small is released and replaced, never shrunk. Null when the
// allocation failed (the buffer is then gone).
void* grow(void*& raw, int& capacity, std::size_t count) noexcept {
    if (raw != nullptr && static_cast<std::size_t>(capacity) >= count)
        return qx::align32(raw);
    qx::free(raw);
    raw = nullptr;
    capacity = 0;
    void* p = qx::alloc_aligned32(4 * count, &raw);
    if (raw != nullptr)
        capacity = static_cast<int>(count);
    return p;
}

std::int32_t shift_right(std::int32_t v, std::int64_t s) noexcept { return v >> (s < 31 ? s : 31); }
std::int32_t shift_left(std::int32_t v, std::int64_t s) noexcept {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(v) << (s & 31));
}

// Back to shorts with the output shift s: right by s for s >= 1, left by s
// modulo 32 otherwise; doScale 3 saturates, 0 and 1 keep the low 16 bits.
void store_shorts(const std::int32_t* v, short* out, std::size_t count, std::int64_t s, int doScale) noexcept {
    if (doScale != 0 && doScale != 1 && doScale != 3)
        return;
    for (std::size_t i = 0; i < count; ++i) {
        std::int32_t x = s >= 1 ? shift_right(v[i], s) : shift_left(v[i], s);
        if (doScale == 3)
            x = x > 32767 ? 32767 : (x < -32768 ? -32768 : x);
        out[i] = static_cast<short>(static_cast<std::uint16_t>(static_cast<std::uint32_t>(x)));
    }
}

// Fixed-point path of the three short transforms. `flags` carries the shape bit.
void core_short_as_int(short* samps, int order, int flags, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"Fft_Core_Short_As_Int"};
    const bool realIn = flags & qx::fft::kRealIn, packedIn = flags & qx::fft::kPackedIn;
    const bool complexData = !realIn && !packedIn;
    const int half = order - 1;
    const short* w = QXwGetFftTwdTbl(order);
    const short* wHalf = complexData ? nullptr : QXwGetFftTwdTbl(half);
    const int revOrder = complexData ? order : half;
    const int* rev = revOrder >= 3 ? QXGetBitRevTbl(revOrder) : nullptr;
    if (qx::Report::failed()) {
        r.raise(QX_StsBackTrace, "Bad Ptr");
        return;
    }
    qx::Context& c = *qx::context();
    const std::size_t count = complexData ? 2 * points(order) : points(order);
    auto* v = static_cast<std::int32_t*>(grow(c.Fft.iBuffer, c.Fft.iBufferCap, count));
    if (v == nullptr) {
        r.raise(QX_StsNoMem, "insufficiency of memory for pointer  pQXContext->Fft.iBuffer");
        return;
    }
    for (std::size_t i = 0; i < count; ++i)
        v[i] = samps[i] * 64;
    const bool inverse = flags & QX_INVERSE;
    using Core = qx::fft::Radix4<FixedOps>;
    if (complexData) {
        Core::run(v, order, w, inverse);
        qx::fft::bit_reverse(v, order, rev);
    } else if (realIn) {
        if (half > 0) {
            Core::run(v, half, wHalf, inverse);
            qx::fft::bit_reverse(v, half, rev);
        }
        qx::fft::real_split<FixedOps>(v, points(half), w, !inverse);
    } else {
        qx::fft::packed_unsplit<FixedOps>(v, points(half), w, !inverse);
        if (half > 0) {
            Core::run(v, half, wHalf, inverse);
            qx::fft::bit_reverse(v, half, rev);
        }
    }
    // Summed in 64 bits: the caller's factor is not range-checked on this path.
    std::int64_t s = 6;
    if (scaleFactor != nullptr) {  // a missing factor counts as 0
        if (doScale == 1)
            s += *scaleFactor;
        else
            *scaleFactor = 0;
    }
    if (inverse && !(flags & QX_NO_INVERSE_SCALING))
        s += order;
    store_shorts(v, samps, count, s, doScale);
}

// Float path: convert up, the float transform of the same shape, convert down
// with the caller's scaling (where doScale 2 finds its factor).
void core_short_as_float(short* samps, int order, int flags, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"Fft_Core_Short_As_Float"};
    const bool realIn = flags & qx::fft::kRealIn, packedIn = flags & qx::fft::kPackedIn;
    const std::size_t count = (realIn || packedIn) ? points(order) : 2 * points(order);
    qx::Context& c = *qx::context();
    auto* f = static_cast<float*>(grow(c.Fft.sBuffer, c.Fft.sBufferCap, count));
    if (f == nullptr) {
        r.raise(QX_StsNoMem, "insufficiency of memory for pointer  pQXContext->Fft.sBuffer");
        return;
    }
    const int n = static_cast<int>(count);
    const int direction = flags & ~(qx::fft::kRealIn | qx::fft::kPackedIn);
    QXwsbConvertUp(samps, f, n, 0);
    if (realIn)
        QXsRealFft(f, order, direction);
    else if (packedIn)
        QXsCcsFft(f, order, direction);
    else
        QXcFft(f, order, direction);
    if (qx::Report::failed())
        return;
    QXswbConvertDown(f, samps, n, doScale, scaleFactor);
}

// The part shared by QXvFft, QXwRealFft and QXwCcsFft after their checks:
// the caller's shape bits are replaced by the routine's own.
void short_transform(short* samps, int order, int flags, int doScale, int* scaleFactor, int shape) {
    flags = (flags & ~(qx::fft::kRealIn | qx::fft::kPackedIn)) | shape;
    if (order > 10 || doScale == 2)
        core_short_as_float(samps, order, flags, doScale, scaleFactor);
    else
        core_short_as_int(samps, order, flags, doScale, scaleFactor);
}

}  // namespace

extern "C" {

QX_API void QXwCalcFftTwdTbl(short* tbl, int order) {
    constexpr qx::Report r{"QXwCalcFftTwdTbl"};
    qx::fft::bad_order(r, order);
    r.check(tbl == nullptr, "tbl==0");
    if (qx::Report::failed())
        return;
    const float* f = QXcGetFftTwdTbl(order);
    if (f != nullptr)
        fixed_from_float(tbl, f, order);
}

QX_API void QXwDecFftTwdTbl(short* tbl1, const short* tbl2, int order) {
    constexpr qx::Report r{"QXwDecFftTwdTbl"};
    qx::fft::bad_order(r, order);
    r.check(tbl1 == nullptr, "tbl1==0");
    r.check(tbl2 == nullptr, "tbl2==0");
    if (qx::Report::failed())
        return;
    qx::fft::decimate(tbl1, tbl2, order);
}

QX_API short* QXwGetFftTwdTbl(int order) {
    constexpr qx::Report r{"QXwGetFftTwdTbl"};
    qx::fft::bad_order(r, order);
    if (qx::Report::failed())
        return nullptr;
    return qx::fft::cached_table<short>(r, qx::context()->wTwd, order, 4 * points(order), [order](short* t, const short* finer) {
        if (finer) {
            qx::fft::decimate(t, finer, order);
            return true;
        }
        const float* f = QXcGetFftTwdTbl(order);
        if (f == nullptr)
            return false;
        fixed_from_float(t, f, order);
        return true;
    });
}

QX_API void QXvFft(short* samps, int order, int flags, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXvFft"};
    qx::fft::bad_order(r, order);
    r.check(samps == nullptr, "samps==0");
    if (qx::Report::failed() || order < 1)
        return;
    if (qx::fft::bad_direction(r, flags))
        return;
    short_transform(samps, order, flags, doScale, scaleFactor, 0);
    if (qx::Report::failed())
        r.raise(QX_StsBackTrace, qx::current_message());
}

QX_API int QXvFftNip(const short* inSamps, short* outSamps, int order, int flags, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXvFftNip"};
    return qx::fft::not_in_place<false>(r, inSamps, outSamps, order, 2, "out QXvFft", [&](short* out) {
        QXvFft(out, order, flags, doScale, scaleFactor);
    });
}

QX_API void QXwRealFft(short* samps, int order, int flags, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXwRealFft"};
    qx::fft::bad_order(r, order);
    r.check(samps == nullptr, "samps==0");
    if (qx::Report::failed() || order < 1)
        return;
    if (qx::fft::bad_direction(r, flags))
        return;
    short_transform(samps, order, flags, doScale, scaleFactor, qx::fft::kRealIn);
    if (qx::Report::failed())
        r.raise(QX_StsBackTrace, qx::current_message());
}

QX_API int QXwRealFftNip(const short* inSamps, short* outSamps, int order, int flags, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXwRealFftNip"};
    return qx::fft::not_in_place<false>(r, inSamps, outSamps, order, 1, "out QXwRealFftl", [&](short* out) {
        QXwRealFft(out, order, flags, doScale, scaleFactor);
    });
}

QX_API void QXwCcsFft(short* samps, int order, int flags, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXwCcsFft"};
    qx::fft::bad_order(r, order);
    r.check(samps == nullptr, "samps==0");
    if (qx::Report::failed() || order < 1)
        return;
    if (qx::fft::bad_direction(r, flags))
        return;
    short_transform(samps, order, flags, doScale, scaleFactor, qx::fft::kPackedIn);
    if (qx::Report::failed())
        r.raise(QX_StsBackTrace, qx::current_message());
}

QX_API int QXwCcsFftNip(const short* inSamps, short* outSamps, int order, int flags, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXwCcsFftNip"};
    return qx::fft::not_in_place<false>(r, inSamps, outSamps, order, 1, "out QXwCcsFft", [&](short* out) {
        QXwCcsFft(out, order, flags, doScale, scaleFactor);
    });
}

}  // extern "C"
