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
//     address is a multiple of 4, then words, then the remaining bytes;
//   - the realigning fetch, which builds the source byte that lines up with a
//     destination byte from two neighbouring source bytes, a word at a time in
//     the middle (read, put the first byte most significant, shift, bring in the
//     top bits of the next byte, put back).
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
    template <class W> static constexpr W word(W, W a, W) noexcept { return a; }
};
struct OpNot {    // dst = ~dst
    static constexpr std::uint8_t byte(std::uint8_t d, std::uint8_t, std::uint8_t) noexcept {
        return static_cast<std::uint8_t>(~d);
    }
    template <class W> static constexpr W word(W d, W, W) noexcept { return static_cast<W>(~d); }
};
struct OpAnd2 {   // dst = dst & a
    static constexpr std::uint8_t byte(std::uint8_t d, std::uint8_t a, std::uint8_t) noexcept {
        return static_cast<std::uint8_t>(d & a);
    }
    template <class W> static constexpr W word(W d, W a, W) noexcept { return static_cast<W>(d & a); }
};
struct OpOr2 {
    static constexpr std::uint8_t byte(std::uint8_t d, std::uint8_t a, std::uint8_t) noexcept {
        return static_cast<std::uint8_t>(d | a);
    }
    template <class W> static constexpr W word(W d, W a, W) noexcept { return static_cast<W>(d | a); }
};
struct OpXor2 {
    static constexpr std::uint8_t byte(std::uint8_t d, std::uint8_t a, std::uint8_t) noexcept {
        return static_cast<std::uint8_t>(d ^ a);
    }
    template <class W> static constexpr W word(W d, W a, W) noexcept { return static_cast<W>(d ^ a); }
};
struct OpAnd3 {   // dst = a & b
    static constexpr std::uint8_t byte(std::uint8_t, std::uint8_t a, std::uint8_t b) noexcept {
        return static_cast<std::uint8_t>(a & b);
    }
    template <class W> static constexpr W word(W, W a, W b) noexcept { return static_cast<W>(a & b); }
};
struct OpOr3 {
    static constexpr std::uint8_t byte(std::uint8_t, std::uint8_t a, std::uint8_t b) noexcept {
        return static_cast<std::uint8_t>(a | b);
    }
    template <class W> static constexpr W word(W, W a, W b) noexcept { return static_cast<W>(a | b); }
};
struct OpXor3 {
    static constexpr std::uint8_t byte(std::uint8_t, std::uint8_t a, std::uint8_t b) noexcept {
        return static_cast<std::uint8_t>(a ^ b);
    }
    template <class W> static constexpr W word(W, W a, W b) noexcept { return static_cast<W>(a ^ b); }
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

// ------------------------------------------------------- block routines

// dst[i] = Op(dst[i], a[i], b[i]) for nBytes whole bytes: single bytes until
// dst is 4-byte aligned, then 32-bit words, then the remaining bytes. A copy
// moves the bytes with memmove, which stores the same bytes.
template <class Op>
inline void block(std::uint8_t* dst, const std::uint8_t* a, const std::uint8_t* b, std::size_t nBytes) noexcept {
    if constexpr (std::is_same_v<Op, OpCopy>) {
        if (nBytes)
            std::memmove(dst, a, nBytes);
        return;
    } else {
        std::size_t i = 0;
        while (i < nBytes && (reinterpret_cast<std::uintptr_t>(dst + i) & 3u) != 0) {
            dst[i] = Op::byte(dst[i], a ? a[i] : 0, b ? b[i] : 0);
            ++i;
        }
        for (; i + sizeof(Word) <= nBytes; i += sizeof(Word)) {
            const Word wa = a ? load_word(a + i) : 0;
            const Word wb = b ? load_word(b + i) : 0;
            const Word wd = reads_dst<Op> ? load_word(dst + i) : 0;
            store_word(dst + i, Op::template word<Word>(wd, wa, wb));
        }
        for (; i < nBytes; ++i)
            dst[i] = Op::byte(dst[i], a ? a[i] : 0, b ? b[i] : 0);
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
        const Word wp = static_cast<Word>(pattern) * 0x01010101u;
        std::size_t i = 0;
        while (i < nBytes && (reinterpret_cast<std::uintptr_t>(dst + i) & 3u) != 0) {
            dst[i] = Op::byte(dst[i], pattern, pattern);
            ++i;
        }
        for (; i + sizeof(Word) <= nBytes; i += sizeof(Word))
            store_word(dst + i, Op::template word<Word>(load_word(dst + i), wp, wp));
        for (; i < nBytes; ++i)
            dst[i] = Op::byte(dst[i], pattern, pattern);
    }
}

// Elements of a wider type replicated into bytes: fills count elements of T
// with val (Zero and Set of bytes, shorts and floats).
template <class T>
inline void fill_elements(T* dst, T val, std::size_t count) noexcept {
    for (std::size_t i = 0; i < count; ++i)
        dst[i] = val;
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

// The source byte that lines up with destination byte j: bits q..q+7 of the
// source stream with q = 8j + delta (delta = source offset - destination
// offset). Bytes outside 0..srcLast are not read; their bits are zero here and
// always fall outside the destination's masks.
inline std::uint8_t fetch_edge(const std::uint8_t* src, std::int64_t srcLast, std::int64_t j, int delta) noexcept {
    const std::int64_t q = 8 * j + delta;
    const std::int64_t qb = q >> 3;  // floor: q may be negative for j == 0
    const unsigned sh = static_cast<unsigned>(q & 7);
    const unsigned hi = (qb >= 0 && qb <= srcLast) ? src[qb] : 0u;
    const unsigned lo = (sh != 0 && qb + 1 >= 0 && qb + 1 <= srcLast) ? src[qb + 1] : 0u;
    return static_cast<std::uint8_t>(((hi << sh) | (lo >> ((8 - sh) & 7))) & 0xFFu);
}

// Destination bytes 1..count of a realigned operation with 0 < sh < 8: each
// output byte is src[i] << sh with the top bits of src[i + 1]. Eight bytes a
// round: read a word with the first byte most significant, shift it, bring in
// the top bits of the next byte, store it back in memory order. All bytes read
// lie inside the source vector.
template <class Op>
inline void realigned_middle(std::uint8_t* dst, const std::uint8_t* a, const std::uint8_t* b, std::size_t count,
                             unsigned sh) noexcept {
    const unsigned back = 8 - sh;
    std::size_t i = 0;
    for (; i + 8 <= count; i += 8) {
        const std::uint64_t wa = a ? (load_be64(a + i) << sh) | (a[i + 8] >> back) : 0;
        const std::uint64_t wb = b ? (load_be64(b + i) << sh) | (b[i + 8] >> back) : 0;
        const std::uint64_t wd = reads_dst<Op> ? load_be64(dst + i) : 0;
        store_be64(dst + i, Op::template word<std::uint64_t>(wd, wa, wb));
    }
    for (; i < count; ++i) {
        const std::uint8_t ba = a ? static_cast<std::uint8_t>((a[i] << sh) | (a[i + 1] >> back)) : 0;
        const std::uint8_t bb = b ? static_cast<std::uint8_t>((b[i] << sh) | (b[i + 1] >> back)) : 0;
        dst[i] = Op::byte(dst[i], ba, bb);
    }
}

}  // namespace detail

// dst[k] = Op(dst[k], a[k], b[k]) for nBits bits: the destination starts at
// dstStartPos, both sources at srcStartPos (b may be null for one-source
// operations). The first and last destination bytes are merged under their
// masks; only bytes of the vectors are read or written.
template <class Op>
inline void bits_apply(std::uint8_t* dst, int dstStartPos, const std::uint8_t* a, const std::uint8_t* b,
                       int srcStartPos, std::int64_t nBits) noexcept {
    const Span s = span(dstStartPos, nBits);
    const int delta = dstStartPos - srcStartPos;  // source offset minus destination offset
    const std::int64_t srcLast = span(srcStartPos, nBits).last;

    auto edge = [&](std::int64_t j, std::uint8_t mask) {
        const std::uint8_t ba = a ? detail::fetch_edge(a, srcLast, j, delta) : 0;
        const std::uint8_t bb = b ? detail::fetch_edge(b, srcLast, j, delta) : 0;
        dst[j] = merge(dst[j], Op::byte(dst[j], ba, bb), mask);
    };

    edge(0, s.first);
    if (s.last == 0)
        return;
    const auto count = static_cast<std::size_t>(s.last - 1);
    if (count) {
        if (delta == 0) {
            block<Op>(dst + 1, a ? a + 1 : nullptr, b ? b + 1 : nullptr, count);
        } else {
            // Destination byte 1 starts at source bit 8 + delta.
            const std::int64_t q = 8 + delta;
            const std::int64_t qb = q >> 3;
            const unsigned sh = static_cast<unsigned>(q & 7);
            detail::realigned_middle<Op>(dst + 1, a ? a + qb : nullptr, b ? b + qb : nullptr, count, sh);
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
