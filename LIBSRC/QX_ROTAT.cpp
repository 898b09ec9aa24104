// Rotation of packed raster images by a quarter or half turn, centred in an
// output of the caller's size (margins untouched, overhang cropped).
//
// Every pixel type uses the same mapping. With R0/C0 the first input row and
// column used, OR0/OC0 the first output row and column written, H used input
// rows and W used input columns:
//   90:  out[OR0 + W-1-k][OC0 + m] = in[R0 + m][C0 + k]
//  -90:  out[OR0 + k][OC0 + m]     = in[R0 + H-1-m][C0 + k]
//  180:  out[OR0 + H-1-m][OC0 + k] = in[R0 + m][C0 + W-1-k]
// The quarter turns are transposes with the row order of one side reversed;
// bytes go through register transposes (qx_rotat_bytes.h), bits through 8x8
// and 64x64 bit-matrix transposes, nibbles (and the bits' ragged edges) pixel
// by pixel.
//
// These functions stop at the first failed check and return the handler's
// result, and they never look at the status word.
#include <cstdint>
#include <cstring>

#include "kvxpx.h"
#include "qx_packed_mirror.h"
#include "qx_report.h"
#include "qx_rotat.h"
#include "qx_rotat_bytes.h"

namespace {

using qx::rotat::i64;
using qx::rotat::Rows;
using qx::rotat::Sides;

enum class Pix { Bit, Nibble, Byte };  // bytes go by the byte routines

// The derived quantities of one call, widened so that no sum can overflow.
struct Plan {
    i64 R0 = 0, C0 = 0;    // first input row / column used
    i64 OR0 = 0, OC0 = 0;  // first output row / column written
    i64 H = 0, W = 0;      // used input rows / columns
    i64 outRows = 0;       // output rows produced ("nOutR")
    i64 outCols = 0;       // output columns produced ("nOutC")
};

i64 half(i64 v) { return v >> 1; }  // floors, as an arithmetic shift does

Plan plan_quarter(i64 inRows, i64 inCols, i64 outRows, i64 outCols) {
    Plan p;
    p.H = inRows < outCols ? inRows : outCols;
    p.OC0 = inRows <= outCols ? half(outCols - inRows) : 0;
    p.R0 = inRows > outCols ? half(inRows - outCols) : 0;
    p.W = inCols < outRows ? inCols : outRows;
    p.OR0 = outRows >= inCols ? half(outRows - inCols) : 0;
    p.C0 = outRows < inCols ? half(inCols - outRows) : 0;
    p.outRows = p.W;
    p.outCols = p.H;
    return p;
}

Plan plan_half(i64 inRows, i64 inCols, i64 outRows, i64 outCols) {
    Plan p;
    p.H = inRows < outRows ? inRows : outRows;
    p.OR0 = inRows <= outRows ? half(outRows - inRows) : 0;
    p.R0 = inRows <= outRows ? 0 : half(inRows - outRows);
    p.W = inCols < outCols ? inCols : outCols;
    p.OC0 = outCols >= inCols ? half(outCols - inCols) : 0;
    p.C0 = outCols >= inCols ? 0 : half(inCols - outCols);
    p.outRows = p.H;
    p.outCols = p.W;
    return p;
}

// ---------------------------------------------------------------- pixels

template <Pix P>
inline unsigned get(const std::uint8_t* row, i64 c) {
    if constexpr (P == Pix::Bit)
        return qx::packed::get_bit(row, 7, c);
    else
        return qx::packed::get_nibble(row, 1, c);
}

template <Pix P>
inline void put(std::uint8_t* row, i64 c, unsigned v) {
    if constexpr (P == Pix::Bit)
        qx::packed::set_bit(row, 7, c, v);
    else
        qx::packed::set_nibble(row, 1, c, v);
}

// ---------------------------------------------------------------- quarter turns
//
// Bits and nibbles on the sides of qx_rotat.h; bytes in qx_rotat_bytes.h.

template <Pix P>
void transpose_pixels(const Sides& s, i64 ic, i64 oc, i64 m0, i64 m1, i64 k0, i64 k1) {
    for (i64 m = m0; m < m1; ++m) {
        const std::uint8_t* src = s.in(m);
        for (i64 k = k0; k < k1; ++k)
            put<P>(s.out(k), oc + m, get<P>(src, ic + k));
    }
}

// Eight packed bits of a row starting at bit column c (the row holds them).
inline unsigned bits8(const std::uint8_t* row, i64 c) {
    const i64 b = c >> 3;
    const unsigned sh = static_cast<unsigned>(c & 7);
    unsigned v = static_cast<unsigned>(row[b]) << 8;
    if (sh != 0)
        v |= row[b + 1];
    return (v >> (8 - sh)) & 0xFFu;
}

// Writes eight bits at bit column c, keeping the neighbouring bits.
inline void put_bits8(std::uint8_t* row, i64 c, unsigned v) {
    const i64 b = c >> 3;
    const unsigned sh = static_cast<unsigned>(c & 7);
    if (sh == 0) {
        row[b] = static_cast<std::uint8_t>(v);
        return;
    }
    const unsigned keepHi = 0xFFu << (8 - sh) & 0xFFu;
    row[b] = static_cast<std::uint8_t>((row[b] & keepHi) | (v >> sh));
    row[b + 1] = static_cast<std::uint8_t>((row[b + 1] & (0xFFu >> sh)) | ((v << (8 - sh)) & 0xFFu));
}

// 8x8 bit-matrix transpose: row i is byte 7-i of x (row 0 on top), column j
// is bit 7-j of that byte.
inline std::uint64_t transpose8x8(std::uint64_t x) {
    std::uint64_t t;
    t = (x ^ (x >> 7)) & 0x00AA00AA00AA00AAull;
    x = x ^ t ^ (t << 7);
    t = (x ^ (x >> 14)) & 0x0000CCCC0000CCCCull;
    x = x ^ t ^ (t << 14);
    t = (x ^ (x >> 28)) & 0x00000000F0F0F0F0ull;
    x = x ^ t ^ (t << 28);
    return x;
}

// Rows m0..m1-1 and columns k0..k1-1 of the transpose in 8x8 blocks, the
// ragged edges pixel by pixel.
void transpose_bits8(const Sides& s, i64 ic, i64 oc, i64 m0, i64 m1, i64 k0, i64 k1) {
    const i64 Hs = m0 + ((m1 - m0) & ~i64{7});
    const i64 Ws = k0 + ((k1 - k0) & ~i64{7});
    for (i64 m = m0; m < Hs; m += 8) {
        const std::uint8_t* src[8];
        for (int i = 0; i < 8; ++i)
            src[i] = s.in(m + i);
        for (i64 k = k0; k < Ws; k += 8) {
            std::uint64_t x = 0;
            for (int i = 0; i < 8; ++i)
                x = (x << 8) | bits8(src[i], ic + k);
            x = transpose8x8(x);
            for (int i = 0; i < 8; ++i)
                put_bits8(s.out(k + i), oc + m, static_cast<unsigned>(x >> (56 - 8 * i)) & 0xFFu);
        }
    }
    transpose_pixels<Pix::Bit>(s, ic, oc, m0, Hs, Ws, k1);
    transpose_pixels<Pix::Bit>(s, ic, oc, Hs, m1, k0, k1);
}

// 64x64 bit-matrix transpose of rows a[0..63] (column 0 in the top bit):
// six rounds exchange ever smaller off-diagonal blocks.
inline void transpose64(std::uint64_t a[64]) {
    std::uint64_t mask = 0x00000000FFFFFFFFull;
    for (int j = 32; j != 0; j >>= 1, mask ^= (mask << j)) {
        for (int k = 0; k < 64; k = ((k | j) + 1) & ~j) {
            const std::uint64_t t = (a[k] ^ (a[k | j] >> j)) & mask;
            a[k] ^= t;
            a[k | j] ^= t << j;
        }
    }
}

void transpose_bits(const Sides& s, i64 ic, i64 oc, i64 H, i64 W) {
    if ((ic & 7) != 0 || (oc & 7) != 0) {
        transpose_bits8(s, ic, oc, 0, H, 0, W);
        return;
    }
    // Both sides start on byte boundaries: whole 64x64 blocks move as words.
    const i64 H64 = H & ~i64{63}, W64 = W & ~i64{63};
    for (i64 m = 0; m < H64; m += 64) {
        const std::uint8_t* src[64];
        for (int i = 0; i < 64; ++i)
            src[i] = s.in(m + i) + (ic >> 3);
        for (i64 k = 0; k < W64; k += 64) {
            std::uint64_t a[64];
            for (int i = 0; i < 64; ++i)
                a[i] = qx::packed::load_be64(src[i] + (k >> 3));
            transpose64(a);
            for (int i = 0; i < 64; ++i)
                qx::packed::store_be64(s.out(k + i) + ((oc + m) >> 3), a[i]);
        }
    }
    transpose_bits8(s, ic, oc, 0, H64, W64, W);
    transpose_bits8(s, ic, oc, H64, H, 0, W);
}

template <Pix P>
void quarter_turn(Rows image, Rows outImage, int angle, const Plan& p) {
    if (p.H <= 0 || p.W <= 0)
        return;
    Sides s{image, outImage, 0, 1, 0, 1};
    if (angle == 90) {
        s.inFirst = p.R0;                // m runs down the input
        s.outFirst = p.OR0 + p.W - 1;    // k runs up the output
        s.outStep = -1;
    } else {
        s.inFirst = p.R0 + p.H - 1;      // m runs up the input
        s.inStep = -1;
        s.outFirst = p.OR0;
    }
    if constexpr (P == Pix::Byte)
        qx::rotat::transpose_bytes(s, p.C0, p.OC0, p.H, p.W);
    else if constexpr (P == Pix::Bit)
        transpose_bits(s, p.C0, p.OC0, p.H, p.W);
    else
        transpose_pixels<P>(s, p.C0, p.OC0, 0, p.H, 0, p.W);
}

// ---------------------------------------------------------------- half turn

template <Pix P>
void half_turn(Rows image, Rows outImage, const Plan& p) {
    for (i64 m = 0; m < p.H; ++m) {
        const std::uint8_t* src = image[p.R0 + m];
        std::uint8_t* dst = outImage[p.OR0 + p.H - 1 - m];
        if constexpr (P == Pix::Byte) {
            qx::packed::reverse_bytes(dst + p.OC0, src + p.C0, static_cast<std::size_t>(p.W));
        } else {
            for (i64 k = 0; k < p.W; ++k)
                put<P>(dst, p.OC0 + k, get<P>(src, p.C0 + p.W - 1 - k));
        }
    }
}

// ---------------------------------------------------------------- the checks

// Unlike the library's usual shape (every check, then the status test), the
// rotation returns at its first failed check with the handler's result and
// turns the image whatever the status word holds.
template <Pix P>
int rotate(const qx::Report& r, Rows image, Rows outImage, int angle, int nInRows, int nInCols, int nOutRows,
           int nOutCols) {
    if ((angle != 90) && (angle != -90) && (angle != 180))
        return r.raise(QX_StsBadArg, "((angle != 90) && (angle != -90) && (angle != 180))");
    const Plan p = angle == 180 ? plan_half(nInRows, nInCols, nOutRows, nOutCols)
                                : plan_quarter(nInRows, nInCols, nOutRows, nOutCols);
    if (p.outRows < 0)
        return r.raise(QX_StsBadArg, "nOutR<0");
    if (p.outCols < 0)
        return r.raise(QX_StsBadArg, "nOutC<0");
    i64 i = p.R0 + p.H;
    if (i < 0)
        return r.raise(QX_StsBadArg, "i<0");
    if (p.R0 < 0)
        return r.raise(QX_StsBadArg, "leftInY<0");
    // A null array has no usable rows at all.
    for (i = p.R0 + p.H - 1; i >= p.R0; --i)
        if (image.base == nullptr || image[i] == nullptr)
            return r.raise(QX_StsBadArg, "image[i]==0");
    i64 j = p.OR0 + p.outRows;
    if (j < 0)
        return r.raise(QX_StsBadArg, "j<0");
    if (p.OR0 < 0)
        return r.raise(QX_StsBadArg, "leftOutY<0");
    for (j = p.OR0 + p.outRows - 1; j >= p.OR0; --j)
        if (outImage.base == nullptr || outImage[j] == nullptr)
            return r.raise(QX_StsBadArg, "outImage[j]==0");

    if (angle == 180)
        half_turn<P>(image, outImage, p);
    else
        quarter_turn<P>(image, outImage, angle, p);
    return 0;
}

constexpr qx::Report kBit{"QXbRotateImage"};
constexpr qx::Report kNibble{"QXnRotateImage"};
constexpr qx::Report kByte{"QXyRotateImage"};
constexpr qx::Report kSByte{"QXtRotateImage"};

}  // namespace

extern "C" {

QX_API int QXbRotateImage(unsigned char** image, unsigned char** outImage, int angle, int nInRows, int nInCols,
                          int nOutRows, int nOutCols) {
    return rotate<Pix::Bit>(kBit, Rows{image}, Rows{outImage}, angle, nInRows, nInCols, nOutRows, nOutCols);
}

QX_API int QXnRotateImage(unsigned char** image, unsigned char** outImage, int angle, int nInRows, int nInCols,
                          int nOutRows, int nOutCols) {
    return rotate<Pix::Nibble>(kNibble, Rows{image}, Rows{outImage}, angle, nInRows, nInCols, nOutRows, nOutCols);
}

QX_API int QXyRotateImage(unsigned char** image, unsigned char** outImage, int angle, int nInRows, int nInCols,
                          int nOutRows, int nOutCols) {
    return rotate<Pix::Byte>(kByte, Rows{image}, Rows{outImage}, angle, nInRows, nInCols, nOutRows, nOutCols);
}

QX_API int QXtRotateImage(signed char** image, signed char** outImage, int angle, int nInRows, int nInCols,
                          int nOutRows, int nOutCols) {
    return rotate<Pix::Byte>(kSByte, Rows{image}, Rows{outImage}, angle, nInRows, nInCols, nOutRows, nOutCols);
}

}  // extern "C"
