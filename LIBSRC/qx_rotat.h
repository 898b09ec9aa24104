// The two sides of a quarter turn, shared by the rotation's pixel kinds.
//
// A quarter turn is a transpose: out[k][oc + m] = in[m][ic + k] for m < H,
// k < W, where in[m] and out[k] are the row pointers already put in the order
// the angle needs (one of the two sides runs backwards).
#pragma once

#include <cstdint>
#include <cstring>

namespace qx::rotat {

using Row = std::uint8_t*;
using i64 = long long;

// A row-pointer array of any byte-sized pixel type (unsigned or signed). The
// row pointers are read through their object representation, so one code
// serves both kinds of array.
struct Rows {
    const void* base;
    Row operator[](i64 i) const {
        Row p;
        std::memcpy(&p, static_cast<const char*>(base) + i * static_cast<i64>(sizeof(Row)), sizeof p);
        return p;
    }
};

// Input row m of the transpose, output row k of the transpose.
struct Sides {
    Rows image;
    Rows outImage;
    i64 inFirst, inStep;    // input row of m = inFirst + inStep * m
    i64 outFirst, outStep;  // output row of k = outFirst + outStep * k
    Row in(i64 m) const { return image[inFirst + inStep * m]; }
    Row out(i64 k) const { return outImage[outFirst + outStep * k]; }
};

}  // namespace qx::rotat
