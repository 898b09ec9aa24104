// Packed raster images for the image tests: random contents, every row an
// exactly sized block of its own (ASan watches the ends), pixels read and
// written one at a time straight from the packing rules (high bit / high
// nibble first). Type codes: 0 signed byte, 1 nibble, 2 byte, 3 bit.
#pragma once

#include <cstdint>
#include <random>
#include <vector>

#include "kvx_test.h"

namespace kvxtest {

enum PixType { SByte = 0, Nibble = 1, UByte = 2, Bit = 3 };

struct PackedImage {
    int type, rows, cols;
    std::vector<std::vector<std::uint8_t>> data;
    std::vector<std::uint8_t*> ptrs;

    PackedImage(int t, int r, int c, std::mt19937& rng) : type(t), rows(r), cols(c), data(r) {
        for (auto& row : data) {
            row.resize((c * bits() + 7) / 8);
            for (auto& b : row) b = static_cast<std::uint8_t>(rng());
        }
        for (auto& row : data) ptrs.push_back(row.data());
    }
    // A copy gets row pointers of its own.
    PackedImage(const PackedImage& o) : type(o.type), rows(o.rows), cols(o.cols), data(o.data) {
        for (auto& row : data) ptrs.push_back(row.data());
    }
    PackedImage& operator=(const PackedImage&) = delete;

    // Pixel c of a row: `bits` wide, at byte c*bits/8, the first pixel in the high bits.
    int bits() const { return type == Bit ? 1 : type == Nibble ? 4 : 8; }
    int get(int r, int c) const {
        const int v = static_cast<int>(packed_get(bits(), data[r].data(), c));
        return type == SByte ? static_cast<signed char>(v) : v;
    }
    // Stores the low bits of v.
    void set(int r, int c, std::uint32_t v) { packed_set(bits(), data[r].data(), c, v); }
    unsigned char** p() { return ptrs.data(); }
};

}  // namespace kvxtest
