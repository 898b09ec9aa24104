// Fill, copy, complement and bitwise and/or/xor of packed bit and nibble
// vectors and of byte, short and float vectors.
//
// Each exported function runs the checks of its group (one helper per group,
// in the group's fixed order), then the status test, then one packed kernel
// from qx_packed.h. Failures show only in the status word; these functions
// return nothing.
#include <cstdint>

#include "kvxpx.h"
#include "qx_packed.h"
#include "qx_report.h"

namespace {

namespace pk = qx::packed;
using qx::Report;
using u8 = std::uint8_t;

// ----------------------------------------------------------------- checks
// Each returns true when the call may go on (no failed check and no pending
// error).

// Byte, short and float Zero, Set and Not; byte and short X2s.
bool dst_checks(const Report& r, int n, const void* dst) {
    r.check(n <= 0, "n<=0");
    r.check(dst == nullptr, "dst==0");
    return !Report::failed();
}

// Byte, short and float Copy; byte and short X2.
bool src_dst_checks(const Report& r, int n, const void* src, const void* dst) {
    r.check(n <= 0, "n<=0");
    r.check(src == nullptr, "src==0");
    r.check(dst == nullptr, "dst==0");
    return !Report::failed();
}

// Byte and short X3.
[[maybe_unused]] bool two_src_checks(const Report& r, int n, const void* srcA, const void* srcB, const void* dst) {
    r.check(n <= 0, "n<=0");
    r.check(srcA == nullptr, "srcA==0");
    r.check(srcB == nullptr, "srcB==0");
    r.check(dst == nullptr, "dst==0");
    return !Report::failed();
}

std::size_t count(int n, std::size_t width) { return static_cast<std::size_t>(n) * width; }

}  // namespace

extern "C" {

// ------------------------------------------------ Zero, Set, Copy: plain

QX_API void QXybZero(unsigned char* dst, int n) {
    static constexpr Report r{"QXybZero"};
    if (dst_checks(r, n, dst))
        pk::block_fill<pk::OpCopy>(dst, 0, count(n, 1));
}

QX_API void QXtbZero(signed char* dst, int n) {
    static constexpr Report r{"QXtbZero"};
    if (dst_checks(r, n, dst))
        pk::block_fill<pk::OpCopy>(reinterpret_cast<u8*>(dst), 0, count(n, 1));
}

QX_API void QXwbZero(short* dst, int n) {
    static constexpr Report r{"QXwbZero"};
    if (dst_checks(r, n, dst))
        pk::block_fill<pk::OpCopy>(reinterpret_cast<u8*>(dst), 0, count(n, sizeof(short)));
}

QX_API void QXsbZero(float* dst, int n) {
    static constexpr Report r{"QXsbZero"};
    if (dst_checks(r, n, dst))
        pk::block_fill<pk::OpCopy>(reinterpret_cast<u8*>(dst), 0, count(n, sizeof(float)));
}

QX_API void QXybSet(unsigned char val, unsigned char* dst, int n) {
    static constexpr Report r{"QXybSet"};
    if (dst_checks(r, n, dst))
        pk::block_fill<pk::OpCopy>(dst, val, count(n, 1));
}

QX_API void QXtbSet(signed char val, signed char* dst, int n) {
    static constexpr Report r{"QXtbSet"};
    if (dst_checks(r, n, dst))
        pk::block_fill<pk::OpCopy>(reinterpret_cast<u8*>(dst), static_cast<u8>(val), count(n, 1));
}

QX_API void QXwbSet(short val, short* dst, int n) {
    static constexpr Report r{"QXwbSet"};
    if (dst_checks(r, n, dst))
        pk::fill_elements(dst, val, count(n, 1));
}

QX_API void QXsbSet(float val, float* dst, int n) {
    static constexpr Report r{"QXsbSet"};
    if (dst_checks(r, n, dst))
        pk::fill_elements(dst, val, count(n, 1));
}

QX_API void QXybCopy(const unsigned char* src, unsigned char* dst, int n) {
    static constexpr Report r{"QXybCopy"};
    if (src_dst_checks(r, n, src, dst))
        pk::block<pk::OpCopy>(dst, src, nullptr, count(n, 1));
}

QX_API void QXtbCopy(const signed char* src, signed char* dst, int n) {
    static constexpr Report r{"QXtbCopy"};
    if (src_dst_checks(r, n, src, dst))
        pk::block<pk::OpCopy>(reinterpret_cast<u8*>(dst), reinterpret_cast<const u8*>(src), nullptr, count(n, 1));
}

QX_API void QXwbCopy(const short* src, short* dst, int n) {
    static constexpr Report r{"QXwbCopy"};
    if (src_dst_checks(r, n, src, dst))
        pk::block<pk::OpCopy>(reinterpret_cast<u8*>(dst), reinterpret_cast<const u8*>(src), nullptr,
                              count(n, sizeof(short)));
}

QX_API void QXsbCopy(const float* src, float* dst, int n) {
    static constexpr Report r{"QXsbCopy"};
    if (src_dst_checks(r, n, src, dst))
        pk::block<pk::OpCopy>(reinterpret_cast<u8*>(dst), reinterpret_cast<const u8*>(src), nullptr,
                              count(n, sizeof(float)));
}

}  // extern "C"
