// Mirroring of packed rows: bytes reversed (in lanes where the processor has
// them), bit and nibble rows reversed a byte-wide window at a time. The
// element layout and the span masks are those of qx_packed.h.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qx_packed.h"

namespace qx::packed {

namespace detail {

[[gnu::always_inline]] inline void reverse_lanes(std::uint8_t* out, const std::uint8_t* in, std::size_t n) noexcept {
    std::size_t i = 0;
    for (; i + kLanes <= n; i += kLanes) {
        const ByteLanes v = load_lanes<ByteLanes>(in + i);
#if defined(__clang__)
        const ByteLanes r = __builtin_shufflevector(v, v, 31, 30, 29, 28, 27, 26, 25, 24, 23, 22, 21, 20, 19, 18, 17, 16,
                                                15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
#else
        const ByteLanes r = __builtin_shuffle(v, ByteLanes{31, 30, 29, 28, 27, 26, 25, 24, 23, 22, 21, 20, 19, 18, 17, 16, 15,
                                                   14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0});
#endif
        store_lanes(out + (n - i - kLanes), r);
    }
    for (; i < n; ++i)
        out[n - 1 - i] = in[i];
}

#if QX_PACKED_DISPATCH
QX_PACKED_AVX2 inline void reverse_avx2(std::uint8_t* out, const std::uint8_t* in, std::size_t n) noexcept {
    reverse_lanes(out, in, n);
}
#endif
inline void reverse_base(std::uint8_t* out, const std::uint8_t* in, std::size_t n) noexcept {
    reverse_lanes(out, in, n);
}

constexpr std::uint8_t reverse_bits(std::uint8_t b) noexcept {
    unsigned x = b;
    x = ((x & 0xF0u) >> 4) | ((x & 0x0Fu) << 4);
    x = ((x & 0xCCu) >> 2) | ((x & 0x33u) << 2);
    x = ((x & 0xAAu) >> 1) | ((x & 0x55u) << 1);
    return static_cast<std::uint8_t>(x);
}
constexpr std::uint8_t swap_nibbles(std::uint8_t b) noexcept {
    return static_cast<std::uint8_t>((b >> 4) | ((b & 0x0Fu) << 4));
}

// Output byte k holds pixels k*per .. k*per+per-1, which come from the input
// pixels n-1-k*per down to n-per-k*per: one byte-wide window of the input,
// reversed pixel by pixel. The last output byte is merged under its mask.
template <int Bits>
inline void mirror_packed(const std::uint8_t* in, std::uint8_t* out, std::int64_t nPixels) noexcept {
    constexpr int per = 8 / Bits;
    const std::int64_t nBits = nPixels * Bits;
    const Span s = span(7, nBits);
    for (std::int64_t k = 0; k <= s.last; ++k) {
        const std::uint8_t w = window(in, s.last, (nPixels - per - k * per) * Bits);
        const std::uint8_t r = Bits == 1 ? reverse_bits(w) : swap_nibbles(w);
        out[k] = k == s.last ? merge(out[k], r, s.last == 0 ? s.first : s.tail) : r;
    }
}

}  // namespace detail

// out[n-1-i] = in[i] for n bytes (in and out apart).
inline void reverse_bytes(std::uint8_t* out, const std::uint8_t* in, std::size_t n) noexcept {
#if QX_PACKED_DISPATCH
    if (use_avx2())
        return detail::reverse_avx2(out, in, n);
#endif
    detail::reverse_base(out, in, n);
}

// Pixel c of the byte-aligned packed row `in` goes to pixel n-1-c of `out`;
// bits of `out` after the row keep their values. Rows must not overlap.
inline void mirror_bits(const std::uint8_t* in, std::uint8_t* out, std::int64_t n) noexcept {
    detail::mirror_packed<1>(in, out, n);
}
inline void mirror_nibbles(const std::uint8_t* in, std::uint8_t* out, std::int64_t n) noexcept {
    detail::mirror_packed<4>(in, out, n);
}

}  // namespace qx::packed
