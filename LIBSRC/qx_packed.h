// Packed bit and nibble vectors: addressing of single elements.
//
// Bits run from the most significant bit of a byte down; a vector starting at
// position p has element 0 at bit p of its first byte, element k at overall
// bit offset (7 - p) + k counted from bit 7 of the first byte. Nibbles put the
// high nibble first; start position 1 is the high nibble, 0 the low one, and
// element k sits at nibble offset (1 - p) + k. Writes change only the bits of
// the element.
#pragma once

#include <cstdint>

namespace qx::packed {

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

}  // namespace qx::packed
