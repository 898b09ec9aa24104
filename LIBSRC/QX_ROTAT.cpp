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
// bytes go through 16x16 register transposes, bits through 8x8 bit-matrix
// transposes, nibbles (and all ragged edges) pixel by pixel. With AVX2, bytes
// go in strips of 128 columns down the whole image, 64x64 blocks written as
// whole output lines, the strip's next rows fetched ahead.
//
// These functions stop at the first failed check and return the handler's
// result, and they never look at the status word.
#include <cstdint>
#include <cstring>

#include "kvxpx.h"
#include "qx_packed.h"
#include "qx_report.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {

using Row = std::uint8_t*;
using i64 = long long;

enum class Pix { Bit, Nibble, Byte };

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
    else if constexpr (P == Pix::Nibble)
        return qx::packed::get_nibble(row, 1, c);
    else
        return row[c];
}

template <Pix P>
inline void put(std::uint8_t* row, i64 c, unsigned v) {
    if constexpr (P == Pix::Bit)
        qx::packed::set_bit(row, 7, c, v);
    else if constexpr (P == Pix::Nibble)
        qx::packed::set_nibble(row, 1, c, v);
    else
        row[c] = static_cast<std::uint8_t>(v);
}

// ---------------------------------------------------------------- quarter turns
//
// A quarter turn is a transpose: out[k][oc + m] = in[m][ic + k] for m < H,
// k < W, where in[m] and out[k] are the row pointers already put in the
// order the angle needs (one of the two sides runs backwards).

// Input row m of the transpose, output row k of the transpose.
struct Sides {
    Rows image;
    Rows outImage;
    i64 inFirst, inStep;    // input row of m = inFirst + inStep * m
    i64 outFirst, outStep;  // output row of k = outFirst + outStep * k
    Row in(i64 m) const { return image[inFirst + inStep * m]; }
    Row out(i64 k) const { return outImage[outFirst + outStep * k]; }
};

template <Pix P>
void transpose_pixels(const Sides& s, i64 ic, i64 oc, i64 m0, i64 m1, i64 k0, i64 k1) {
    for (i64 m = m0; m < m1; ++m) {
        const std::uint8_t* src = s.in(m);
        for (i64 k = k0; k < k1; ++k)
            put<P>(s.out(k), oc + m, get<P>(src, ic + k));
    }
}

#if defined(__SSE2__)
// 16x16 byte transpose in registers: four rounds of interleaving row i with
// row i+8 rotate the 8-bit (row, lane) index by one bit each, so after four
// rounds row and lane have swapped.
inline void transpose16(__m128i x[16]) {
    for (int round = 0; round < 4; ++round) {
        __m128i y[16];
        for (int i = 0; i < 8; ++i) {
            y[2 * i] = _mm_unpacklo_epi8(x[i], x[i + 8]);
            y[2 * i + 1] = _mm_unpackhi_epi8(x[i], x[i + 8]);
        }
        for (int i = 0; i < 16; ++i)
            x[i] = y[i];
    }
}
#endif

#if defined(__SSE2__)
constexpr i64 kTile = 128;  // output rows of a tile stay in the second-level cache

// Columns [0, Ws) of input rows [0, Hs), both multiples of Block::step and 16,
// through register transposes, a tile of output rows at a time. Block::run
// transposes the 16 rows src[i] + k into the step output rows d[j] + m. Each
// caller is flattened, so that the scaffold and its instruction set's block
// are inlined into it.
template <class Block>
inline void tiled_transpose(const Sides& s, i64 ic, i64 oc, i64 Hs, i64 Ws) {
    std::uint8_t* dst[kTile];
    for (i64 kt = 0; kt < Ws; kt += kTile) {
        const i64 kEnd = kt + kTile < Ws ? kt + kTile : Ws;
        for (i64 k = kt; k < kEnd; ++k)
            dst[k - kt] = s.out(k) + oc;
        for (i64 m = 0; m < Hs; m += 16) {
            const std::uint8_t* src[16];
            for (int i = 0; i < 16; ++i)
                src[i] = s.in(m + i) + ic;
            for (i64 k = kt; k < kEnd; k += Block::step)
                Block::run(src, k, dst + (k - kt), m);
        }
    }
}

// 16 columns per step: one 16x16 transpose.
struct Sse2Block {
    static constexpr i64 step = 16;
    static void run(const std::uint8_t* const* src, i64 k, std::uint8_t* const* d, i64 m) {
        __m128i x[16];
        for (int i = 0; i < 16; ++i)
            x[i] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src[i] + k));
        transpose16(x);
        for (int i = 0; i < 16; ++i)
            _mm_storeu_si128(reinterpret_cast<__m128i*>(d[i] + m), x[i]);
    }
};

__attribute__((flatten)) void transpose_bytes_sse2(const Sides& s, i64 ic, i64 oc, i64 Hs, i64 Ws) {
    tiled_transpose<Sse2Block>(s, ic, oc, Hs, Ws);
}

#if defined(__x86_64__) && defined(__GNUC__)
#define QX_ROTATE_AVX2 1
#include <immintrin.h>

// The 16 rows src[i] + k: column k + i in the low half of x[i], k + 16 + i in the high one.
QX_TARGET_AVX2 inline void rows16(const std::uint8_t* const* src, i64 k, __m256i x[16]) {
    for (int i = 0; i < 16; ++i)
        x[i] = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src[i] + k));
    for (int round = 0; round < 4; ++round) {
        __m256i y[16];
        for (int i = 0; i < 8; ++i) {
            y[2 * i] = _mm256_unpacklo_epi8(x[i], x[i + 8]);
            y[2 * i + 1] = _mm256_unpackhi_epi8(x[i], x[i + 8]);
        }
        for (int i = 0; i < 16; ++i)
            x[i] = y[i];
    }
}

// 32 columns per step: the two 128-bit halves of each register transpose two
// 16x16 blocks side by side (unpacking never crosses halves).
struct Avx2Block {
    static constexpr i64 step = 32;
    QX_TARGET_AVX2 static void run(const std::uint8_t* const* src, i64 k, std::uint8_t* const* d, i64 m) {
        __m256i x[16];
        rows16(src, k, x);
        for (int i = 0; i < 16; ++i) {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(d[i] + m), _mm256_castsi256_si128(x[i]));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(d[16 + i] + m), _mm256_extracti128_si256(x[i], 1));
        }
    }
};

// 64x64 bytes as whole 64-byte output lines, so that no output line is
// written in parts (output rows lie a row pitch apart and few of them share
// the first-level cache). Each 32x32 quarter is two 16x32 register transposes
// whose halves are joined across lanes; the upper rows' quarter waits in a
// buffer of whole vectors (written and read at the same size, so the reads
// are forwarded from the writes).
struct Avx2Block64 {
    QX_TARGET_AVX2 static void run(const std::uint8_t* const* src, i64 k, std::uint8_t* const* d, i64 m) {
        __m256i upper[64];  // column j of rows 0..31
        for (int h = 0; h < 2; ++h)
            for (int kh = 0; kh < 2; ++kh) {
                __m256i a[16], b[16];
                rows16(src + 32 * h, k + 32 * kh, a);
                rows16(src + 32 * h + 16, k + 32 * kh, b);
                for (int i = 0; i < 16; ++i) {
                    const __m256i lo = _mm256_permute2x128_si256(a[i], b[i], 0x20);  // column 32 kh + i
                    const __m256i hi = _mm256_permute2x128_si256(a[i], b[i], 0x31);  // column 32 kh + 16 + i
                    const int j = 32 * kh + i;
                    if (h == 0) {
                        upper[j] = lo;
                        upper[j + 16] = hi;
                    } else {
                        _mm256_storeu_si256(reinterpret_cast<__m256i*>(d[j] + m), upper[j]);
                        _mm256_storeu_si256(reinterpret_cast<__m256i*>(d[j] + m + 32), lo);
                        _mm256_storeu_si256(reinterpret_cast<__m256i*>(d[j + 16] + m), upper[j + 16]);
                        _mm256_storeu_si256(reinterpret_cast<__m256i*>(d[j + 16] + m + 32), hi);
                    }
                }
            }
    }
};

constexpr i64 kStrip = 128;  // input columns (output rows) of one strip

// Columns [0, Ws) of input rows [0, Hs), both multiples of 64, a strip of
// columns at a time down the whole image; the next 64 input rows of the strip
// are fetched ahead while a block is turned.
QX_TARGET_AVX2 void strip_transpose_avx2(const Sides& s, i64 ic, i64 oc, i64 Hs, i64 Ws) {
    if (Hs == 0 || Ws == 0)
        return;
    std::uint8_t* dst[kStrip];
    const std::uint8_t* src[64];
    for (i64 kt = 0; kt < Ws; kt += kStrip) {
        const i64 kEnd = kt + kStrip < Ws ? kt + kStrip : Ws;
        for (i64 k = kt; k < kEnd; ++k)
            dst[k - kt] = s.out(k) + oc;
        for (int i = 0; i < 64; ++i)
            src[i] = s.in(i) + ic;
        for (i64 m = 0; m < Hs; m += 64) {
            const std::uint8_t* next[64];
            const bool more = m + 64 < Hs;
            for (int i = 0; i < 64 && more; ++i) {
                next[i] = s.in(m + 64 + i) + ic;
                for (i64 k = kt; k < kEnd; k += 64)
                    _mm_prefetch(reinterpret_cast<const char*>(next[i] + k), _MM_HINT_T1);
            }
            for (i64 k = kt; k < kEnd; k += 64)
                Avx2Block64::run(src, k, dst + (k - kt), m);
            if (more)
                std::memcpy(src, next, sizeof src);
        }
    }
}

QX_TARGET_AVX2 __attribute__((flatten)) void transpose_bytes_avx2(const Sides& s, i64 ic, i64 oc, i64 Hs, i64 Ws) {
    const i64 H64 = Hs & ~i64{63}, W64 = Ws & ~i64{63};
    strip_transpose_avx2(s, ic, oc, H64, W64);
    // The rows below the last 64 and the columns right of it, 32 and 16 at a time.
    Sides below = s;
    below.inFirst += below.inStep * H64;
    tiled_transpose<Avx2Block>(below, ic, oc + H64, Hs - H64, W64);
    const i64 W32 = Ws & ~i64{31};
    Sides right = s;
    right.outFirst += right.outStep * W64;
    tiled_transpose<Avx2Block>(right, ic + W64, oc, Hs, W32 - W64);
    // A last block of 16 columns.
    if (W32 < Ws) {
        Sides rest = s;
        rest.outFirst += rest.outStep * W32;
        transpose_bytes_sse2(rest, ic + W32, oc, Hs, Ws - W32);
    }
}
#endif
#endif

void transpose_bytes(const Sides& s, i64 ic, i64 oc, i64 H, i64 W) {
    i64 Hs = 0, Ws = 0;
#if defined(__SSE2__)
    Hs = H & ~i64{15};
    Ws = W & ~i64{15};
#if defined(QX_ROTATE_AVX2)
    if (qx::cpu::at_least(qx::cpu::Path::avx2))
        transpose_bytes_avx2(s, ic, oc, Hs, Ws);
    else
#endif
        transpose_bytes_sse2(s, ic, oc, Hs, Ws);
#endif
    // The ragged right and bottom strips.
    transpose_pixels<Pix::Byte>(s, ic, oc, 0, Hs, Ws, W);
    transpose_pixels<Pix::Byte>(s, ic, oc, Hs, H, 0, W);
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

// 64 packed bits from byte b on, the first pixel in the top bit.
inline std::uint64_t load64(const std::uint8_t* p) {
    std::uint64_t v = 0;
    for (int i = 0; i < 8; ++i)
        v = (v << 8) | p[i];
    return v;
}
inline void store64(std::uint8_t* p, std::uint64_t v) {
    for (int i = 7; i >= 0; --i, v >>= 8)
        p[i] = static_cast<std::uint8_t>(v);
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
                a[i] = load64(src[i] + (k >> 3));
            transpose64(a);
            for (int i = 0; i < 64; ++i)
                store64(s.out(k + i) + ((oc + m) >> 3), a[i]);
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
        transpose_bytes(s, p.C0, p.OC0, p.H, p.W);
    else if constexpr (P == Pix::Bit)
        transpose_bits(s, p.C0, p.OC0, p.H, p.W);
    else
        transpose_pixels<P>(s, p.C0, p.OC0, 0, p.H, 0, p.W);
}

// ---------------------------------------------------------------- half turn

// dst[k] = src[n-1-k] for bytes.
void reverse_bytes(const std::uint8_t* src, std::uint8_t* dst, i64 n) {
    i64 k = 0;
#if defined(__SSE2__)
    for (; k + 16 <= n; k += 16) {
        __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + n - 16 - k));
        v = _mm_shuffle_epi32(v, _MM_SHUFFLE(0, 1, 2, 3));
        v = _mm_shufflelo_epi16(v, _MM_SHUFFLE(2, 3, 0, 1));
        v = _mm_shufflehi_epi16(v, _MM_SHUFFLE(2, 3, 0, 1));
        v = _mm_or_si128(_mm_slli_epi16(v, 8), _mm_srli_epi16(v, 8));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + k), v);
    }
#endif
    for (; k < n; ++k)
        dst[k] = src[n - 1 - k];
}

template <Pix P>
void half_turn(Rows image, Rows outImage, const Plan& p) {
    for (i64 m = 0; m < p.H; ++m) {
        const std::uint8_t* src = image[p.R0 + m];
        std::uint8_t* dst = outImage[p.OR0 + p.H - 1 - m];
        if constexpr (P == Pix::Byte) {
            reverse_bytes(src + p.C0, dst + p.OC0, p.W);
        } else {
            for (i64 k = 0; k < p.W; ++k)
                put<P>(dst, p.OC0 + k, get<P>(src, p.C0 + p.W - 1 - k));
        }
    }
}

// ---------------------------------------------------------------- the checks

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
