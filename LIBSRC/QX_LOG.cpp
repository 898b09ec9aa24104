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
    r.checks(n, {{dst, "dst==0"}});
    return !qx::Report::failed();
}

// Byte, short and float Copy; byte and short X2.
bool src_dst_checks(const Report& r, int n, const void* src, const void* dst) {
    r.checks(n, {{src, "src==0"}, {dst, "dst==0"}});
    return !qx::Report::failed();
}

// Byte and short X3.
bool two_src_checks(const Report& r, int n, const void* srcA, const void* srcB, const void* dst) {
    r.checks(n, {{srcA, "srcA==0"}, {srcB, "srcB==0"}, {dst, "dst==0"}});
    return !qx::Report::failed();
}

// Texts of a start position's two range checks; the limit is 7 for bits, 1 for
// nibbles.
struct PosCheck {
    const char* below;
    const char* above;
    int limit;
};
constexpr PosCheck kBitStart{"startPos<0", "startPos>7", 7};
constexpr PosCheck kNibbleStart{"startPos<0", "startPos>1", 1};
constexpr PosCheck kBitSrc{"srcStartPos<0", "srcStartPos>7", 7};
constexpr PosCheck kNibbleSrc{"srcStartPos<0", "srcStartPos>1", 1};
constexpr PosCheck kBitDst{"dstStartPos<0", "dstStartPos>7", 7};
constexpr PosCheck kNibbleDst{"dstStartPos<0", "dstStartPos>1", 1};

void position_checks(const Report& r, const PosCheck& c, int pos) {
    r.check(pos < 0, c.below);
    r.check(pos > c.limit, c.above);
}

// Packed Zero, Set and Not: the pointer first, then the position, then n.
bool packed_dst_checks(const Report& r, const void* dst, const PosCheck& c, int pos, int n) {
    r.check(dst == nullptr, "dst==0");
    position_checks(r, c, pos);
    r.check(n <= 0, "n<=0");
    return !qx::Report::failed();
}

// Packed Copy and X2: positions, n, then the pointers.
bool packed_src_dst_checks(const Report& r, const PosCheck& s, int srcStartPos, const PosCheck& d, int dstStartPos,
                           int n, const void* src, const void* dst) {
    position_checks(r, s, srcStartPos);
    position_checks(r, d, dstStartPos);
    r.checks(n, {{src, "src==0"}, {dst, "dst==0"}});
    return !qx::Report::failed();
}

// Packed X3.
bool packed_two_src_checks(const Report& r, const PosCheck& s, int srcStartPos, const PosCheck& d, int dstStartPos,
                           int n, const void* srcA, const void* srcB, const void* dst) {
    position_checks(r, s, srcStartPos);
    position_checks(r, d, dstStartPos);
    r.checks(n, {{srcA, "srcA==0"}, {srcB, "srcB==0"}, {dst, "dst==0"}});
    return !qx::Report::failed();
}

// Nibble X2s: the position first, the pointer last.
bool nibble_scalar_checks(const Report& r, int dstStartPos, int n, const void* dst) {
    position_checks(r, kNibbleDst, dstStartPos);
    r.checks(n, {{dst, "dst==0"}});
    return !qx::Report::failed();
}

std::size_t count(int n, std::size_t width) { return static_cast<std::size_t>(n) * width; }

u8* bytes(void* p) { return static_cast<u8*>(p); }
const u8* bytes(const void* p) { return static_cast<const u8*>(p); }

}  // namespace

// And, Or and Xor: two-operand, three-operand and scalar forms of each width.
#define QX_LOG_BITWISE(Name)                                                                                         \
QX_API void QXbb##Name##2(const unsigned char* src, unsigned char* dst, int srcStartPos, int dstStartPos, int n) {   \
    constexpr qx::Report r{"QXbb" #Name "2"};                                                                        \
    if (packed_src_dst_checks(r, kBitSrc, srcStartPos, kBitDst, dstStartPos, n, src, dst))                           \
        pk::bits_apply<pk::Op##Name##2>(dst, dstStartPos, src, nullptr, srcStartPos, n);                             \
}                                                                                                                    \
                                                                                                                     \
QX_API void QXnb##Name##2(const unsigned char* src, unsigned char* dst, int srcStartPos, int dstStartPos, int n) {   \
    constexpr qx::Report r{"QXnb" #Name "2"};                                                                        \
    if (packed_src_dst_checks(r, kNibbleSrc, srcStartPos, kNibbleDst, dstStartPos, n, src, dst))                     \
        pk::nibbles_apply<pk::Op##Name##2>(dst, dstStartPos, src, nullptr, srcStartPos, n);                          \
}                                                                                                                    \
                                                                                                                     \
QX_API void QXyb##Name##2(const unsigned char* src, unsigned char* dst, int n) {                                     \
    constexpr qx::Report r{"QXyb" #Name "2"};                                                                        \
    if (src_dst_checks(r, n, src, dst))                                                                              \
        pk::block<pk::Op##Name##2>(dst, src, nullptr, count(n, 1));                                                  \
}                                                                                                                    \
                                                                                                                     \
QX_API void QXwb##Name##2(const short* src, short* dst, int n) {                                                     \
    constexpr qx::Report r{"QXwb" #Name "2"};                                                                        \
    if (src_dst_checks(r, n, src, dst))                                                                              \
        pk::block<pk::Op##Name##2>(bytes(dst), bytes(src), nullptr, count(n, sizeof(short)));                        \
}                                                                                                                    \
                                                                                                                     \
QX_API void QXbb##Name##3(const unsigned char* srcA, const unsigned char* srcB, unsigned char* dst, int srcStartPos, \
                            int dstStartPos, int n) {                                                                \
    constexpr qx::Report r{"QXbb" #Name "3"};                                                                        \
    if (packed_two_src_checks(r, kBitSrc, srcStartPos, kBitDst, dstStartPos, n, srcA, srcB, dst))                    \
        pk::bits_apply<pk::Op##Name##3>(dst, dstStartPos, srcA, srcB, srcStartPos, n);                               \
}                                                                                                                    \
                                                                                                                     \
QX_API void QXnb##Name##3(const unsigned char* srcA, const unsigned char* srcB, unsigned char* dst, int srcStartPos, \
                            int dstStartPos, int n) {                                                                \
    constexpr qx::Report r{"QXnb" #Name "3"};                                                                        \
    if (packed_two_src_checks(r, kNibbleSrc, srcStartPos, kNibbleDst, dstStartPos, n, srcA, srcB, dst))              \
        pk::nibbles_apply<pk::Op##Name##3>(dst, dstStartPos, srcA, srcB, srcStartPos, n);                            \
}                                                                                                                    \
                                                                                                                     \
QX_API void QXyb##Name##3(const unsigned char* srcA, const unsigned char* srcB, unsigned char* dst, int n) {         \
    constexpr qx::Report r{"QXyb" #Name "3"};                                                                        \
    if (two_src_checks(r, n, srcA, srcB, dst))                                                                       \
        pk::block<pk::Op##Name##3>(dst, srcA, srcB, count(n, 1));                                                    \
}                                                                                                                    \
                                                                                                                     \
QX_API void QXwb##Name##3(const short* srcA, const short* srcB, short* dst, int n) {                                 \
    constexpr qx::Report r{"QXwb" #Name "3"};                                                                        \
    if (two_src_checks(r, n, srcA, srcB, dst))                                                                       \
        pk::block<pk::Op##Name##3>(bytes(dst), bytes(srcA), bytes(srcB), count(n, sizeof(short)));                   \
}                                                                                                                    \
                                                                                                                     \
QX_API void QXnb##Name##2s(unsigned char val, unsigned char* dst, int dstStartPos, int n) {                          \
    constexpr qx::Report r{"QXnb" #Name "2s"};                                                                       \
    if (nibble_scalar_checks(r, dstStartPos, n, dst))                                                                \
        pk::nibbles_fill<pk::Op##Name##2>(dst, dstStartPos, n, val);                                                 \
}                                                                                                                    \
                                                                                                                     \
QX_API void QXyb##Name##2s(unsigned char val, unsigned char* dst, int n) {                                           \
    constexpr qx::Report r{"QXyb" #Name "2s"};                                                                       \
    if (dst_checks(r, n, dst))                                                                                       \
        pk::block_fill<pk::Op##Name##2>(dst, val, count(n, 1));                                                      \
}                                                                                                                    \
                                                                                                                     \
QX_API void QXwb##Name##2s(short val, short* dst, int n) {                                                           \
    constexpr qx::Report r{"QXwb" #Name "2s"};                                                                       \
    if (dst_checks(r, n, dst))                                                                                       \
        pk::elements_fill<pk::Op##Name##2>(reinterpret_cast<unsigned short*>(dst), static_cast<unsigned short>(val), \
                                          count(n, 1));                                                              \
}

extern "C" {

// ------------------------------------------------ Zero, Set, Copy: plain

QX_API void QXybZero(unsigned char* dst, int n) {
    constexpr qx::Report r{"QXybZero"};
    if (dst_checks(r, n, dst))
        pk::block_fill<pk::OpCopy>(dst, 0, count(n, 1));
}

QX_API void QXtbZero(signed char* dst, int n) {
    constexpr qx::Report r{"QXtbZero"};
    if (dst_checks(r, n, dst))
        pk::block_fill<pk::OpCopy>(reinterpret_cast<u8*>(dst), 0, count(n, 1));
}

QX_API void QXwbZero(short* dst, int n) {
    constexpr qx::Report r{"QXwbZero"};
    if (dst_checks(r, n, dst))
        pk::block_fill<pk::OpCopy>(reinterpret_cast<u8*>(dst), 0, count(n, sizeof(short)));
}

QX_API void QXsbZero(float* dst, int n) {
    constexpr qx::Report r{"QXsbZero"};
    if (dst_checks(r, n, dst))
        pk::block_fill<pk::OpCopy>(reinterpret_cast<u8*>(dst), 0, count(n, sizeof(float)));
}

QX_API void QXybSet(unsigned char val, unsigned char* dst, int n) {
    constexpr qx::Report r{"QXybSet"};
    if (dst_checks(r, n, dst))
        pk::block_fill<pk::OpCopy>(dst, val, count(n, 1));
}

QX_API void QXtbSet(signed char val, signed char* dst, int n) {
    constexpr qx::Report r{"QXtbSet"};
    if (dst_checks(r, n, dst))
        pk::block_fill<pk::OpCopy>(reinterpret_cast<u8*>(dst), static_cast<u8>(val), count(n, 1));
}

QX_API void QXwbSet(short val, short* dst, int n) {
    constexpr qx::Report r{"QXwbSet"};
    if (dst_checks(r, n, dst))
        pk::elements_fill<pk::OpCopy>(dst, val, count(n, 1));
}

QX_API void QXsbSet(float val, float* dst, int n) {
    constexpr qx::Report r{"QXsbSet"};
    if (dst_checks(r, n, dst))
        pk::elements_fill<pk::OpCopy>(dst, val, count(n, 1));
}

QX_API void QXybCopy(const unsigned char* src, unsigned char* dst, int n) {
    constexpr qx::Report r{"QXybCopy"};
    if (src_dst_checks(r, n, src, dst))
        pk::block<pk::OpCopy>(dst, src, nullptr, count(n, 1));
}

QX_API void QXtbCopy(const signed char* src, signed char* dst, int n) {
    constexpr qx::Report r{"QXtbCopy"};
    if (src_dst_checks(r, n, src, dst))
        pk::block<pk::OpCopy>(reinterpret_cast<u8*>(dst), reinterpret_cast<const u8*>(src), nullptr, count(n, 1));
}

QX_API void QXwbCopy(const short* src, short* dst, int n) {
    constexpr qx::Report r{"QXwbCopy"};
    if (src_dst_checks(r, n, src, dst))
        pk::block<pk::OpCopy>(reinterpret_cast<u8*>(dst), reinterpret_cast<const u8*>(src), nullptr,
                              count(n, sizeof(short)));
}

QX_API void QXsbCopy(const float* src, float* dst, int n) {
    constexpr qx::Report r{"QXsbCopy"};
    if (src_dst_checks(r, n, src, dst))
        pk::block<pk::OpCopy>(reinterpret_cast<u8*>(dst), reinterpret_cast<const u8*>(src), nullptr,
                              count(n, sizeof(float)));
}

// ------------------------------------------- Zero, Set, Copy, Not: packed

QX_API void QXbbZero(unsigned char* dst, int startPos, int n) {
    constexpr qx::Report r{"QXbbZero"};
    if (packed_dst_checks(r, dst, kBitStart, startPos, n))
        pk::bits_fill<pk::OpCopy>(dst, startPos, n, 0x00);
}

QX_API void QXnbZero(unsigned char* dst, int startPos, int n) {
    constexpr qx::Report r{"QXnbZero"};
    if (packed_dst_checks(r, dst, kNibbleStart, startPos, n))
        pk::nibbles_fill<pk::OpCopy>(dst, startPos, n, 0x0);
}

QX_API void QXbbSet(unsigned char val, unsigned char* dst, int startPos, int n) {
    constexpr qx::Report r{"QXbbSet"};
    if (packed_dst_checks(r, dst, kBitStart, startPos, n))
        pk::bits_fill<pk::OpCopy>(dst, startPos, n, (val & 1u) ? 0xFF : 0x00);
}

QX_API void QXnbSet(unsigned char val, unsigned char* dst, int startPos, int n) {
    constexpr qx::Report r{"QXnbSet"};
    if (packed_dst_checks(r, dst, kNibbleStart, startPos, n))
        pk::nibbles_fill<pk::OpCopy>(dst, startPos, n, val);
}

QX_API void QXbbCopy(const unsigned char* src, unsigned char* dst, int srcStartPos, int dstStartPos, int n) {
    constexpr qx::Report r{"QXbbCopy"};
    if (packed_src_dst_checks(r, kBitSrc, srcStartPos, kBitDst, dstStartPos, n, src, dst))
        pk::bits_apply<pk::OpCopy>(dst, dstStartPos, src, nullptr, srcStartPos, n);
}

QX_API void QXnbCopy(const unsigned char* src, unsigned char* dst, int srcStartPos, int dstStartPos, int n) {
    constexpr qx::Report r{"QXnbCopy"};
    if (packed_src_dst_checks(r, kNibbleSrc, srcStartPos, kNibbleDst, dstStartPos, n, src, dst))
        pk::nibbles_apply<pk::OpCopy>(dst, dstStartPos, src, nullptr, srcStartPos, n);
}

QX_API void QXbbNot(unsigned char* dst, int dstStartPos, int n) {
    constexpr qx::Report r{"QXbbNot"};
    if (packed_dst_checks(r, dst, kBitDst, dstStartPos, n))
        pk::bits_fill<pk::OpNot>(dst, dstStartPos, n, 0x00);
}

QX_API void QXnbNot(unsigned char* dst, int dstStartPos, int n) {
    constexpr qx::Report r{"QXnbNot"};
    if (packed_dst_checks(r, dst, kNibbleDst, dstStartPos, n))
        pk::nibbles_fill<pk::OpNot>(dst, dstStartPos, n, 0x0);
}

QX_API void QXybNot(unsigned char* dst, int n) {
    constexpr qx::Report r{"QXybNot"};
    if (dst_checks(r, n, dst))
        pk::block_fill<pk::OpNot>(dst, 0x00, count(n, 1));
}

QX_API void QXwbNot(short* dst, int n) {
    constexpr qx::Report r{"QXwbNot"};
    if (dst_checks(r, n, dst))
        pk::block_fill<pk::OpNot>(bytes(dst), 0x00, count(n, sizeof(short)));
}

// ------------------------------------------------------ And, Or, Xor

QX_LOG_BITWISE(And)
QX_LOG_BITWISE(Or)
QX_LOG_BITWISE(Xor)

}  // extern "C"
