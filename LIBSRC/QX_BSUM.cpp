// Sums of vectors with the scaling modes of the integer arithmetic, applied
// to the 32-bit sum:
//   0 checked      the sum; -20 when it is above 2147483647 (and -21 when a
//                  signed sum is below -2147483648); *scaleFactor = 0
//   1 fixed shift  the sum shifted right by *scaleFactor, or left by
//                  -*scaleFactor (count modulo 32); *scaleFactor unchanged
//   2 automatic    halved until it fits an int; *scaleFactor counts halvings
//   3 saturating   clamped to the int range; *scaleFactor = 0
// Bits, nibbles and unsigned bytes add into an unsigned 32-bit accumulator;
// signed bytes and shorts are summed exactly (64 bits), so that a sum below
// zero is not taken for an overflow.
// The sum functions report under their names with a trailing blank.
#include <bit>
#include <climits>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "kvxpx.h"
#include "qx_packed.h"
#include "qx_report.h"
#include "qx_scale_x86.h"

namespace {

std::uint32_t sum_bytes(const std::uint8_t* v, long n) noexcept {
    std::uint32_t s = 0;
    for (long k = 0; k < n; ++k)
        s += v[k];
    return s;
}

// Blocks small enough that their sum fits an int32 (2^15 shorts of at most
// 2^15 in magnitude), so the inner loop vectorises on 32-bit lanes.
template <class T>
std::int64_t sum_signed(const T* v, long n) noexcept {
#if QX_SCALE_X86
    if constexpr (sizeof(T) == 2) {
        if (qx::x86::has_avx512())
            return qx::x86::sum16_512(v, n);
        if (qx::x86::has_avx2())
            return qx::x86::sum16(v, n);
    }
#endif
    constexpr long block = 1L << 15;
    std::int64_t total = 0;
    for (long b = 0; b < n; b += block) {
        long e = n - b > block ? b + block : n;
        std::int32_t s = 0;
        for (long k = b; k < e; ++k)
            s += v[k];
        total += s;
    }
    return total;
}

// Set bits of a packed bit vector: the partial first byte, whole bytes eight
// at a time, and the leading bits of the last byte.
std::uint32_t count_bits(const std::uint8_t* v, int startPos, long n) noexcept {
    long used = n < startPos + 1 ? n : startPos + 1;   // bits taken from the first byte
    unsigned first = (v[0] & ((1u << (startPos + 1)) - 1u)) >> (startPos + 1 - used);
    std::uint32_t s = static_cast<std::uint32_t>(std::popcount(first));
    long rest = n - used;
    const std::uint8_t* p = v + 1;
    long whole = rest >> 3;
    long k = 0;
    for (; k + 8 <= whole; k += 8) {
        std::uint64_t w;
        std::memcpy(&w, p + k, 8);
        s += static_cast<std::uint32_t>(std::popcount(w));
    }
    for (; k < whole; ++k)
        s += static_cast<std::uint32_t>(std::popcount(static_cast<unsigned>(p[k])));
    long tail = rest & 7;
    if (tail)
        s += static_cast<std::uint32_t>(std::popcount(static_cast<unsigned>(p[whole] >> (8 - tail))));
    return s;
}

std::uint32_t sum_nibbles(const std::uint8_t* v, int startPos, long n) noexcept {
    long i = 1 - startPos;
    long end = i + n;
    std::uint32_t s = 0;
    if (i & 1) {
        s += v[0] & 0x0Fu;
        ++i;
    }
    for (; i + 2 <= end; i += 2)
        s += (v[i >> 1] >> 4) + (v[i >> 1] & 0x0Fu);
    if (i < end)
        s += v[i >> 1] >> 4;
    return s;
}

// The result of a sum and what the checked mode saw.
struct Scaled {
    int value;
    bool over = false, under = false;
};

// The scaling modes on an exact sum (an unsigned 32-bit sum widens to it
// unchanged: then only the above-int checks can fire).
Scaled scale_sum(std::int64_t sum, int doScale, int* scaleFactor) noexcept {
    switch (doScale) {
    case 0:
        *scaleFactor = 0;
        return {static_cast<int>(static_cast<std::uint32_t>(sum)), sum > INT_MAX, sum < INT_MIN};
    case 1: {
        int f = *scaleFactor;
        std::uint64_t v = f >= 0 ? static_cast<std::uint64_t>(sum >> (static_cast<unsigned>(f) & 31u))
                                 : static_cast<std::uint64_t>(sum) << (static_cast<unsigned>(-f) & 31u);
        return {static_cast<int>(static_cast<std::uint32_t>(v))};
    }
    case 2: {
        int count = 0;
        while (sum > INT_MAX || sum < INT_MIN) {
            sum >>= 1;
            ++count;
        }
        *scaleFactor = count;
        return {static_cast<int>(sum)};
    }
    default:
        *scaleFactor = 0;
        return {static_cast<int>(sum > INT_MAX ? INT_MAX : sum < INT_MIN ? INT_MIN : sum)};
    }
}

// The checks of the whole-element forms, reported on the caller's line, then
// the sum, its scaling and its range reports.
template <class T>
int checked_sum(const qx::Report& r, const T* src, int n, int doScale, int* scaleFactor,
                qx::where loc = qx::where::current()) noexcept {
    r.scaling(doScale, scaleFactor, loc);
    r.checks(n, {{src, "dst==0"}}, loc);
    if (qx::Report::failed())
        return 0;
    Scaled s{};
    if constexpr (std::is_same_v<T, unsigned char>)
        s = scale_sum(sum_bytes(src, n), doScale, scaleFactor);
    else
        s = scale_sum(sum_signed(src, n), doScale, scaleFactor);
    r.range(s.over, s.under, 0, loc);
    return s.value;
}

}  // namespace

extern "C" {

QX_API int QXbSum(const unsigned char* src, int startPos, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXbSum "};
    r.scaling(doScale, scaleFactor);
    r.check(src == nullptr, "dst==0");
    r.check(startPos < 0, "startPos<0");
    r.check(startPos > 7, "startPos>7");
    r.check(n <= 0, "n<=0");
    if (qx::Report::failed())
        return 0;
    Scaled s = scale_sum(count_bits(src, startPos, n), doScale, scaleFactor);
    r.range(s.over, s.under);
    return s.value;
}

QX_API int QXnSum(const unsigned char* src, int startPos, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXnSum "};
    r.scaling(doScale, scaleFactor);
    r.check(src == nullptr, "dst==0");
    r.check(startPos < 0, "startPos<0");
    r.check(startPos > 1, "startPos>1");
    r.check(n <= 0, "n<=0");
    if (qx::Report::failed())
        return 0;
    Scaled s = scale_sum(sum_nibbles(src, startPos, n), doScale, scaleFactor);
    r.range(s.over, s.under);
    return s.value;
}

QX_API int QXySum(const unsigned char* src, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXySum "};
    return checked_sum(r, src, n, doScale, scaleFactor);
}

QX_API int QXtSum(const signed char* src, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXtSum "};
    return checked_sum(r, src, n, doScale, scaleFactor);
}

QX_API int QXwSum(const short* src, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXwSum "};
    return checked_sum(r, src, n, doScale, scaleFactor);
}

QX_API float QXsSum(const float* src, int n) {
    constexpr qx::Report r{"QXsSum "};
    r.checks(n, {{src, "dst==0"}});
    if (qx::Report::failed())
        return 0;
    float s = 0;
    for (long k = 0; k < n; ++k)
        s += src[k];
    return s;
}

}  // extern "C"
