// Packed bit and nibble vectors, and the block routines over whole bytes.
//
// Bits run from the most significant bit of a byte down; a vector starting at
// position p has element 0 at bit p of its first byte, element k at overall
// bit offset (7 - p) + k counted from bit 7 of the first byte. Nibbles put the
// high nibble first; start position 1 is the high nibble, 0 the low one, and
// element k sits at nibble offset (1 - p) + k. Writes change only the bits of
// the element.
//
// Everything that writes a packed vector goes through three pieces:
//   - the span of the vector over its destination bytes (first byte, whole
//     bytes, last byte) and the masks of the first and last byte;
//   - the block routines over whole bytes: single bytes until the destination
//     address is a multiple of 4, then words (32-bit words, then wider lanes
//     of 32 or 64 bytes), then the remaining bytes;
//   - the realigning fetch, which builds the source byte that lines up with a
//     destination byte from two neighbouring source bytes, many at a time in
//     the middle (lanes; then 64-bit words: read, put the first byte most
//     significant, shift, bring in the top bits of the next byte, put back).
// Every form computes, for every byte, what the single-byte form computes.
// A nibble vector is the bit vector of 4n bits that starts at bit 4p + 3, so
// nibble operations are bit operations at those positions.
//
// Operations are small structs with a byte form and a word form; both must
// compute the same bits. `d` is the destination's old value, `a` and `b` the
// realigned sources (or a repeated scalar pattern).
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "qx_cpu.h"

// The byte-lane vectors below live only inside inlined code and are never
// passed between functions compiled for different processors, so the note
// about their calling convention does not apply. Templates are instantiated at
// the end of the including file, hence no pop.
#pragma GCC diagnostic ignored "-Wpsabi"

namespace qx::packed {

// ---------------------------------------------------------------- elements

inline unsigned get_bit(const std::uint8_t* v, int startPos, long k) noexcept {
    long pos = (7 - startPos) + k;
    return (v[pos >> 3] >> (7 - (pos & 7))) & 1u;
}

inline void set_bit(std::uint8_t* v, int startPos, long k, unsigned bit) noexcept {
    long pos = (7 - startPos) + k;
    std::uint8_t mask = static_cast<std::uint8_t>(0x80u >> (pos & 7));
    std::uint8_t& b = v[pos >> 3];
    b = static_cast<std::uint8_t>((b & ~mask) | ((bit & 1u) ? mask : 0u));
}

inline unsigned get_nibble(const std::uint8_t* v, int startPos, long k) noexcept {
    long pos = (1 - startPos) + k;
    std::uint8_t b = v[pos >> 1];
    return (pos & 1) ? (b & 0x0Fu) : (b >> 4);
}

inline void set_nibble(std::uint8_t* v, int startPos, long k, unsigned nib) noexcept {
    long pos = (1 - startPos) + k;
    std::uint8_t& b = v[pos >> 1];
    if (pos & 1)
        b = static_cast<std::uint8_t>((b & 0xF0u) | (nib & 0x0Fu));
    else
        b = static_cast<std::uint8_t>((b & 0x0Fu) | ((nib & 0x0Fu) << 4));
}

// ------------------------------------------------------------- positions

// Start position of column c of a packed row, and the byte it lies in.
constexpr int bit_start(long c) noexcept { return 7 - static_cast<int>(c & 7); }
constexpr long bit_byte(long c) noexcept { return c >> 3; }
constexpr int nibble_start(long c) noexcept { return 1 - static_cast<int>(c & 1); }
constexpr long nibble_byte(long c) noexcept { return c >> 1; }

// The bit vector that holds the nibble vector starting at nibble position p.
constexpr int nibble_bit_start(int p) noexcept { return 4 * p + 3; }

// Where a vector of nBits bits starting at startPos lies in its bytes:
// byte 0 holds bits startPos..0 (or fewer), bytes 1..last-1 are whole, byte
// `last` holds the leading bits. With last == 0 the vector sits in one byte.
struct Span {
    std::int64_t last;   // index of the last byte touched
    std::uint8_t first;  // mask of the vector's bits in byte 0
    std::uint8_t tail;   // mask of the vector's bits in byte `last` (last > 0)
};

constexpr Span span(int startPos, std::int64_t nBits) noexcept {
    const std::int64_t off = 7 - startPos;       // bits of byte 0 before the vector
    const std::int64_t end = off + nBits;        // one past the last bit
    Span s{};
    s.last = (end - 1) >> 3;
    const unsigned used = static_cast<unsigned>(((end - 1) & 7) + 1);  // leading bits of the last byte
    const unsigned tailMask = (0xFF00u >> used) & 0xFFu;
    s.first = static_cast<std::uint8_t>(0xFFu >> off);
    if (s.last == 0)
        s.first = static_cast<std::uint8_t>(s.first & tailMask);
    s.tail = static_cast<std::uint8_t>(tailMask);
    return s;
}

// Keeps the bits of `old` outside `mask`, takes those of `now` inside.
constexpr std::uint8_t merge(std::uint8_t old, std::uint8_t now, std::uint8_t mask) noexcept {
    return static_cast<std::uint8_t>((old & ~mask) | (now & mask));
}

// ------------------------------------------------------------- operations

struct OpCopy {   // dst = a
    static constexpr std::uint8_t byte(std::uint8_t, std::uint8_t a, std::uint8_t) noexcept { return a; }
    template <class W> [[gnu::always_inline]] static constexpr W word(W, W a, W) noexcept { return a; }
};
struct OpNot {    // dst = ~dst
    static constexpr std::uint8_t byte(std::uint8_t d, std::uint8_t, std::uint8_t) noexcept {
        return static_cast<std::uint8_t>(~d);
    }
    template <class W> [[gnu::always_inline]] static constexpr W word(W d, W, W) noexcept { return static_cast<W>(~d); }
};
struct OpAnd2 {   // dst = dst & a
    static constexpr std::uint8_t byte(std::uint8_t d, std::uint8_t a, std::uint8_t) noexcept {
        return static_cast<std::uint8_t>(d & a);
    }
    template <class W> [[gnu::always_inline]] static constexpr W word(W d, W a, W) noexcept { return static_cast<W>(d & a); }
};
struct OpOr2 {
    static constexpr std::uint8_t byte(std::uint8_t d, std::uint8_t a, std::uint8_t) noexcept {
        return static_cast<std::uint8_t>(d | a);
    }
    template <class W> [[gnu::always_inline]] static constexpr W word(W d, W a, W) noexcept { return static_cast<W>(d | a); }
};
struct OpXor2 {
    static constexpr std::uint8_t byte(std::uint8_t d, std::uint8_t a, std::uint8_t) noexcept {
        return static_cast<std::uint8_t>(d ^ a);
    }
    template <class W> [[gnu::always_inline]] static constexpr W word(W d, W a, W) noexcept { return static_cast<W>(d ^ a); }
};
struct OpAnd3 {   // dst = a & b
    static constexpr std::uint8_t byte(std::uint8_t, std::uint8_t a, std::uint8_t b) noexcept {
        return static_cast<std::uint8_t>(a & b);
    }
    template <class W> [[gnu::always_inline]] static constexpr W word(W, W a, W b) noexcept { return static_cast<W>(a & b); }
};
struct OpOr3 {
    static constexpr std::uint8_t byte(std::uint8_t, std::uint8_t a, std::uint8_t b) noexcept {
        return static_cast<std::uint8_t>(a | b);
    }
    template <class W> [[gnu::always_inline]] static constexpr W word(W, W a, W b) noexcept { return static_cast<W>(a | b); }
};
struct OpXor3 {
    static constexpr std::uint8_t byte(std::uint8_t, std::uint8_t a, std::uint8_t b) noexcept {
        return static_cast<std::uint8_t>(a ^ b);
    }
    template <class W> [[gnu::always_inline]] static constexpr W word(W, W a, W b) noexcept { return static_cast<W>(a ^ b); }
};

// Whether an operation reads the destination, and how many sources it has.
template <class Op> constexpr bool reads_dst = !(std::is_same_v<Op, OpCopy> || std::is_same_v<Op, OpAnd3> ||
                                                 std::is_same_v<Op, OpOr3> || std::is_same_v<Op, OpXor3>);
template <class Op> constexpr bool two_sources =
    std::is_same_v<Op, OpAnd3> || std::is_same_v<Op, OpOr3> || std::is_same_v<Op, OpXor3>;

// ---------------------------------------------------------- word access

using Word = std::uint32_t;

inline Word load_word(const std::uint8_t* p) noexcept {
    Word w;
    std::memcpy(&w, p, sizeof w);
    return w;
}
inline void store_word(std::uint8_t* p, Word w) noexcept { std::memcpy(p, &w, sizeof w); }

// The word at p with its first byte most significant, and back.
inline std::uint64_t load_be64(const std::uint8_t* p) noexcept {
    std::uint64_t w;
    std::memcpy(&w, p, sizeof w);
    if constexpr (std::endian::native == std::endian::little)
        w = __builtin_bswap64(w);
    return w;
}
inline void store_be64(std::uint8_t* p, std::uint64_t w) noexcept {
    if constexpr (std::endian::native == std::endian::little)
        w = __builtin_bswap64(w);
    std::memcpy(p, &w, sizeof w);
}

// Wider words: 32 or 64 bytes at a time. The logic is bitwise, so the lanes may be
// of any width; the realigning shift works on 16-bit lanes and masks off the
// bits that cross from one byte into the next, so every byte gets exactly what
// the byte form computes. A routine gives the same bytes whether it runs on
// lanes, words or single bytes. On x86 the lane loops are compiled twice, for
// AVX-512, for AVX2 and for the baseline, and chosen once at run time.
typedef std::uint16_t Lanes __attribute__((vector_size(32)));
typedef std::uint16_t WideLanes __attribute__((vector_size(64)));  // AVX-512
typedef std::uint8_t ByteLanes __attribute__((vector_size(32)));
constexpr std::size_t kLanes = sizeof(Lanes);

template <class V = Lanes>
[[gnu::always_inline]] inline V load_lanes(const std::uint8_t* p) noexcept {
    V v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
template <class V>
[[gnu::always_inline]] inline void store_lanes(std::uint8_t* p, V v) noexcept {
    std::memcpy(p, &v, sizeof v);
}

// Every byte of the lanes set to `byte`.
template <class V>
[[gnu::always_inline]] inline V splat(std::uint8_t byte) noexcept {
    V v;
    std::memset(&v, byte, sizeof v);
    return v;
}

#if QX_X86_PATHS
#define QX_PACKED_DISPATCH 1
#define QX_PACKED_AVX2 QX_TARGET_AVX2
#define QX_PACKED_AVX512 QX_TARGET_AVX512
inline bool use_avx2() noexcept { return cpu::at_least(cpu::Path::avx2); }
inline bool use_avx512() noexcept { return cpu::at_least(cpu::Path::avx512); }
#else
#define QX_PACKED_DISPATCH 0
#endif

// The one-byte form of a two-source step (b read only by two-source operations).
template <class Op>
inline std::uint8_t step(std::uint8_t d, std::uint8_t a, const std::uint8_t* b, std::size_t i) noexcept {
    return Op::byte(d, a, two_sources<Op> ? b[i] : std::uint8_t{0});
}

// ------------------------------------------------------- block routines

namespace detail {

template <class Op, class V>
[[gnu::always_inline]] inline void block_lanes(std::uint8_t* dst, const std::uint8_t* a, const std::uint8_t* b,
                                               std::size_t nBytes) noexcept {
    auto misaligned = [&](std::size_t i, std::size_t to) {
        return (reinterpret_cast<std::uintptr_t>(dst + i) & (to - 1)) != 0;
    };
    auto word = [&](std::size_t i) {
        const Word wb = two_sources<Op> ? load_word(b + i) : 0;
        const Word wd = reads_dst<Op> ? load_word(dst + i) : 0;
        store_word(dst + i, Op::template word<Word>(wd, load_word(a + i), wb));
    };
    // Single bytes until the destination is 4-byte aligned, then words until
    // it is aligned to a whole lane.
    std::size_t i = 0;
    while (i < nBytes && misaligned(i, 4)) {
        dst[i] = step<Op>(dst[i], a[i], b, i);
        ++i;
    }
    for (; i + sizeof(Word) <= nBytes && misaligned(i, sizeof(V)); i += sizeof(Word))
        word(i);
    for (; i + 2 * sizeof(V) <= nBytes; i += 2 * sizeof(V)) {
        const V vb0 = two_sources<Op> ? load_lanes<V>(b + i) : V{};
        const V vb1 = two_sources<Op> ? load_lanes<V>(b + i + sizeof(V)) : V{};
        const V vd0 = reads_dst<Op> ? load_lanes<V>(dst + i) : V{};
        const V vd1 = reads_dst<Op> ? load_lanes<V>(dst + i + sizeof(V)) : V{};
        store_lanes(dst + i, Op::template word<V>(vd0, load_lanes<V>(a + i), vb0));
        store_lanes(dst + i + sizeof(V), Op::template word<V>(vd1, load_lanes<V>(a + i + sizeof(V)), vb1));
    }
    for (; i + sizeof(V) <= nBytes; i += sizeof(V)) {
        const V vb = two_sources<Op> ? load_lanes<V>(b + i) : V{};
        const V vd = reads_dst<Op> ? load_lanes<V>(dst + i) : V{};
        store_lanes(dst + i, Op::template word<V>(vd, load_lanes<V>(a + i), vb));
    }
    for (; i + sizeof(Word) <= nBytes; i += sizeof(Word))
        word(i);
    for (; i < nBytes; ++i)
        dst[i] = step<Op>(dst[i], a[i], b, i);
}

template <class Op, class V>
[[gnu::always_inline]] inline void fill_lanes(std::uint8_t* dst, std::uint8_t pattern, std::size_t nBytes) noexcept {
    const Word wp = static_cast<Word>(pattern) * 0x01010101u;
    const V vp = splat<V>(pattern);
    std::size_t i = 0;
    while (i < nBytes && (reinterpret_cast<std::uintptr_t>(dst + i) & 3u) != 0) {
        dst[i] = Op::byte(dst[i], pattern, pattern);
        ++i;
    }
    for (; i + sizeof(Word) <= nBytes && (reinterpret_cast<std::uintptr_t>(dst + i) & (sizeof(V) - 1)) != 0;
         i += sizeof(Word))
        store_word(dst + i, Op::template word<Word>(load_word(dst + i), wp, wp));
    for (; i + sizeof(V) <= nBytes; i += sizeof(V))
        store_lanes(dst + i, Op::template word<V>(load_lanes<V>(dst + i), vp, vp));
    for (; i + sizeof(Word) <= nBytes; i += sizeof(Word))
        store_word(dst + i, Op::template word<Word>(load_word(dst + i), wp, wp));
    for (; i < nBytes; ++i)
        dst[i] = Op::byte(dst[i], pattern, pattern);
}

// Bytes p[0..sizeof(V)-1] each shifted left by Sh with the top bits of the
// next byte: the shift runs on 16-bit lanes, and the mask keeps in every byte
// its own shifted bits and takes the rest from the next byte. Sh is a
// constant so that the shifts take an immediate count.
template <class V, unsigned Sh>
[[gnu::always_inline]] inline V realigned(const std::uint8_t* p, V keepHigh) noexcept {
    const V own = load_lanes<V>(p) << Sh;
    const V next = load_lanes<V>(p + 1) >> (8 - Sh);
    return (own & keepHigh) | (next & ~keepHigh);
}

// The lane part of a realigned operation from byte i on; returns where it
// stopped.
template <class Op, class V, unsigned Sh>
[[gnu::always_inline]] inline std::size_t realign_run(std::uint8_t* dst, const std::uint8_t* a, const std::uint8_t* b,
                                                      std::size_t i, std::size_t count) noexcept {
    const V keepHigh = splat<V>(static_cast<std::uint8_t>(0xFFu << Sh));  // bits a byte keeps of itself
    for (; i + sizeof(V) <= count; i += sizeof(V)) {
        const V va = realigned<V, Sh>(a + i, keepHigh);
        const V vb = two_sources<Op> ? realigned<V, Sh>(b + i, keepHigh) : V{};
        const V vd = reads_dst<Op> ? load_lanes<V>(dst + i) : V{};
        store_lanes(dst + i, Op::template word<V>(vd, va, vb));
    }
    return i;
}

// Destination bytes 0..count-1 of a realigned operation with 0 < sh < 8: each
// output byte is a[i] << sh with the top bits of a[i + 1] brought in (b alike).
// The lanes do 32 or 64 bytes a round; then eight bytes a round: read a word
// with the first byte most significant, shift it, bring in the top bits of the next
// byte, store it back in memory order; then single bytes. Bytes a[0..count]
// are read, all inside the source vector.
template <class Op, class V>
[[gnu::always_inline]] inline void realign_lanes(std::uint8_t* dst, const std::uint8_t* a, const std::uint8_t* b,
                                                 std::size_t count, unsigned sh) noexcept {
    const unsigned back = 8 - sh;
    auto one = [&](std::size_t i) {
        const auto ba = static_cast<std::uint8_t>((a[i] << sh) | (a[i + 1] >> back));
        const auto bb = two_sources<Op> ? static_cast<std::uint8_t>((b[i] << sh) | (b[i + 1] >> back)) : 0;
        dst[i] = Op::byte(dst[i], ba, bb);
    };
    auto eight = [&](std::size_t i) {
        const std::uint64_t wa = (load_be64(a + i) << sh) | (a[i + 8] >> back);
        const std::uint64_t wb = two_sources<Op> ? (load_be64(b + i) << sh) | (b[i + 8] >> back) : 0;
        const std::uint64_t wd = reads_dst<Op> ? load_be64(dst + i) : 0;
        store_be64(dst + i, Op::template word<std::uint64_t>(wd, wa, wb));
    };
    auto misaligned = [&](std::size_t i, std::size_t to) {
        return (reinterpret_cast<std::uintptr_t>(dst + i) & (to - 1)) != 0;
    };
    std::size_t i = 0;
    if (count >= 4 * sizeof(V)) {  // long runs: align the stores first
        while (misaligned(i, 8))
            one(i++);
        for (; misaligned(i, sizeof(V)); i += 8)
            eight(i);
    }
    switch (sh) {
    case 1: i = realign_run<Op, V, 1>(dst, a, b, i, count); break;
    case 2: i = realign_run<Op, V, 2>(dst, a, b, i, count); break;
    case 3: i = realign_run<Op, V, 3>(dst, a, b, i, count); break;
    case 4: i = realign_run<Op, V, 4>(dst, a, b, i, count); break;
    case 5: i = realign_run<Op, V, 5>(dst, a, b, i, count); break;
    case 6: i = realign_run<Op, V, 6>(dst, a, b, i, count); break;
    default: i = realign_run<Op, V, 7>(dst, a, b, i, count); break;
    }
    for (; i + 8 <= count; i += 8)
        eight(i);
    for (; i < count; ++i)
        one(i);
}

#if QX_PACKED_DISPATCH
template <class Op>
QX_PACKED_AVX512 void block_avx512(std::uint8_t* dst, const std::uint8_t* a, const std::uint8_t* b, std::size_t n) noexcept {
    block_lanes<Op, WideLanes>(dst, a, b, n);
}
template <class Op>
QX_PACKED_AVX512 void fill_avx512(std::uint8_t* dst, std::uint8_t pattern, std::size_t n) noexcept {
    fill_lanes<Op, WideLanes>(dst, pattern, n);
}
template <class Op>
QX_PACKED_AVX512 void realign_avx512(std::uint8_t* dst, const std::uint8_t* a, const std::uint8_t* b, std::size_t n,
                                     unsigned sh) noexcept {
    realign_lanes<Op, WideLanes>(dst, a, b, n, sh);
}
template <class Op>
QX_PACKED_AVX2 void block_avx2(std::uint8_t* dst, const std::uint8_t* a, const std::uint8_t* b, std::size_t n) noexcept {
    block_lanes<Op, Lanes>(dst, a, b, n);
}
template <class Op>
QX_PACKED_AVX2 void fill_avx2(std::uint8_t* dst, std::uint8_t pattern, std::size_t n) noexcept {
    fill_lanes<Op, Lanes>(dst, pattern, n);
}
template <class Op>
QX_PACKED_AVX2 void realign_avx2(std::uint8_t* dst, const std::uint8_t* a, const std::uint8_t* b, std::size_t n,
                                 unsigned sh) noexcept {
    realign_lanes<Op, Lanes>(dst, a, b, n, sh);
}
#endif

template <class Op>
void block_base(std::uint8_t* dst, const std::uint8_t* a, const std::uint8_t* b, std::size_t n) noexcept {
    block_lanes<Op, Lanes>(dst, a, b, n);
}
template <class Op>
void fill_base(std::uint8_t* dst, std::uint8_t pattern, std::size_t n) noexcept {
    fill_lanes<Op, Lanes>(dst, pattern, n);
}
template <class Op>
void realign_base(std::uint8_t* dst, const std::uint8_t* a, const std::uint8_t* b, std::size_t n, unsigned sh) noexcept {
    realign_lanes<Op, Lanes>(dst, a, b, n, sh);
}

}  // namespace detail

// dst[i] = Op(dst[i], a[i], b[i]) for nBytes whole bytes (b is read only by
// two-source operations): single bytes until dst is 4-byte aligned, then
// words, then the remaining bytes. A copy moves the bytes with memmove, which
// stores the same bytes.
template <class Op>
inline void block(std::uint8_t* dst, const std::uint8_t* a, const std::uint8_t* b, std::size_t nBytes) noexcept {
    if constexpr (std::is_same_v<Op, OpCopy>) {
        if (nBytes)
            std::memmove(dst, a, nBytes);
    } else {
#if QX_PACKED_DISPATCH
        if (use_avx512())
            return detail::block_avx512<Op>(dst, a, b, nBytes);
        if (use_avx2())
            return detail::block_avx2<Op>(dst, a, b, nBytes);
#endif
        detail::block_base<Op>(dst, a, b, nBytes);
    }
}

// dst[i] = Op(dst[i], pattern) over nBytes whole bytes, the pattern byte
// repeated into words.
template <class Op>
inline void block_fill(std::uint8_t* dst, std::uint8_t pattern, std::size_t nBytes) noexcept {
    if constexpr (std::is_same_v<Op, OpCopy>) {
        if (nBytes)
            std::memset(dst, pattern, nBytes);
    } else {
#if QX_PACKED_DISPATCH
        if (use_avx512())
            return detail::fill_avx512<Op>(dst, pattern, nBytes);
        if (use_avx2())
            return detail::fill_avx2<Op>(dst, pattern, nBytes);
#endif
        detail::fill_base<Op>(dst, pattern, nBytes);
    }
}

// dst[i] = Op(dst[i], val) over count elements of an unsigned type T (the
// scalar forms of shorts, and Set of shorts and floats through OpCopy).
template <class Op, class T>
inline void elements_fill(T* dst, T val, std::size_t count) noexcept {
    for (std::size_t i = 0; i < count; ++i)
        dst[i] = Op::template word<T>(dst[i], val, val);
}

// ----------------------------------------------------- packed operations

// Applies Op(dst, pattern) to nBits bits of dst starting at startPos; the
// pattern byte must repeat with the period of the elements (0x00/0xFF for
// bits, the nibble doubled for nibbles). Bits outside the vector are kept.
template <class Op>
inline void bits_fill(std::uint8_t* dst, int startPos, std::int64_t nBits, std::uint8_t pattern) noexcept {
    const Span s = span(startPos, nBits);
    dst[0] = merge(dst[0], Op::byte(dst[0], pattern, pattern), s.first);
    if (s.last == 0)
        return;
    block_fill<Op>(dst + 1, pattern, static_cast<std::size_t>(s.last - 1));
    dst[s.last] = merge(dst[s.last], Op::byte(dst[s.last], pattern, pattern), s.tail);
}

namespace detail {

// Bits [q, q + 8) of a vector starting at bit 7 of byte 0 whose bytes run to
// `last`; bytes outside 0..last are not read, their bits read as zero.
inline std::uint8_t window(const std::uint8_t* v, std::int64_t last, std::int64_t q) noexcept {
    const std::int64_t qb = q >> 3;  // floor: q may be negative
    const unsigned sh = static_cast<unsigned>(q & 7);
    const unsigned hi = (qb >= 0 && qb <= last) ? v[qb] : 0u;
    const unsigned lo = (sh != 0 && qb + 1 >= 0 && qb + 1 <= last) ? v[qb + 1] : 0u;
    return static_cast<std::uint8_t>(((hi << sh) | (lo >> ((8 - sh) & 7))) & 0xFFu);
}

// The source byte that lines up with destination byte j: bits q..q+7 of the
// source stream with q = 8j + delta (delta = source offset - destination
// offset). The bits of bytes outside 0..srcLast always fall outside the
// destination's masks.
inline std::uint8_t fetch_edge(const std::uint8_t* src, std::int64_t srcLast, std::int64_t j, int delta) noexcept {
    return window(src, srcLast, 8 * j + delta);
}

}  // namespace detail

// dst[k] = Op(dst[k], a[k], b[k]) for nBits bits: the destination starts at
// dstStartPos, both sources at srcStartPos (b may be null for one-source
// operations, never read by the others). The first and last destination bytes are merged under their
// masks; only bytes of the vectors are read or written.
template <class Op>
inline void bits_apply(std::uint8_t* dst, int dstStartPos, const std::uint8_t* a, const std::uint8_t* b,
                       int srcStartPos, std::int64_t nBits) noexcept {
    const Span s = span(dstStartPos, nBits);
    const int delta = dstStartPos - srcStartPos;  // source offset minus destination offset
    const std::int64_t srcLast = span(srcStartPos, nBits).last;

    auto edge = [&](std::int64_t j, std::uint8_t mask) {
        const std::uint8_t ba = detail::fetch_edge(a, srcLast, j, delta);
        const std::uint8_t bb = two_sources<Op> ? detail::fetch_edge(b, srcLast, j, delta) : 0;
        dst[j] = merge(dst[j], Op::byte(dst[j], ba, bb), mask);
    };

    edge(0, s.first);
    if (s.last == 0)
        return;
    const auto count = static_cast<std::size_t>(s.last - 1);
    if (count) {
        if (delta == 0) {
            block<Op>(dst + 1, a + 1, two_sources<Op> ? b + 1 : nullptr, count);
        } else {
            // Destination byte 1 starts at source bit 8 + delta.
            const std::int64_t q = 8 + delta;
            const std::int64_t qb = q >> 3;
            const unsigned sh = static_cast<unsigned>(q & 7);
            const std::uint8_t* ra = a + qb;
            const std::uint8_t* rb = two_sources<Op> ? b + qb : nullptr;
#if QX_PACKED_DISPATCH
            if (use_avx512())
                detail::realign_avx512<Op>(dst + 1, ra, rb, count, sh);
            else if (use_avx2())
                detail::realign_avx2<Op>(dst + 1, ra, rb, count, sh);
            else
#endif
                detail::realign_base<Op>(dst + 1, ra, rb, count, sh);
        }
    }
    edge(s.last, s.tail);
}

// Nibble forms: the same operations on the bit vectors that hold the nibbles.
template <class Op>
inline void nibbles_fill(std::uint8_t* dst, int startPos, std::int64_t n, unsigned val) noexcept {
    const auto pattern = static_cast<std::uint8_t>((val & 0x0Fu) * 0x11u);
    bits_fill<Op>(dst, nibble_bit_start(startPos), 4 * n, pattern);
}

template <class Op>
inline void nibbles_apply(std::uint8_t* dst, int dstStartPos, const std::uint8_t* a, const std::uint8_t* b,
                          int srcStartPos, std::int64_t n) noexcept {
    bits_apply<Op>(dst, nibble_bit_start(dstStartPos), a, b, nibble_bit_start(srcStartPos), 4 * n);
}

}  // namespace qx::packed
