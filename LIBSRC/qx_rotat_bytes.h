// Byte transposes of the quarter turns (see qx_rotat.h for the sides).
//
// The plain path turns 16x16 blocks in SSE2 registers. With AVX2 the image
// goes in units of up to 128 x 128 bytes cut where the rows' 64-byte lines
// start: every input line is read whole at once, every output line written
// whole at once, and a unit's lines lie at two columns so that they spread
// over more first-level cache sets (rows a power of two apart share few of
// them). While a unit is written, the next one's lines are fetched into the
// second-level cache. A ring of fewer than 16 rows or columns goes pixel by
// pixel.
#pragma once

#include <algorithm>
#include <cstdint>

#include "qx_cpu.h"
#include "qx_rotat.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#if defined(__x86_64__) && defined(__GNUC__)
#define QX_ROTATE_AVX2 1
#include <immintrin.h>
#endif
#endif

namespace qx::rotat {

// Rows [m0, m1) and columns [k0, k1) of the transpose, one byte at a time.
inline void transpose_byte_pixels(const Sides& s, i64 ic, i64 oc, i64 m0, i64 m1, i64 k0, i64 k1) {
    for (i64 m = m0; m < m1; ++m) {
        const std::uint8_t* src = s.in(m);
        for (i64 k = k0; k < k1; ++k)
            s.out(k)[oc + m] = src[ic + k];
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

constexpr i64 kTile = 128;  // output rows of a tile stay in the second-level cache

// Columns [0, Ws) of input rows [0, Hs), both multiples of Block::step and 16,
// through register transposes, a tile of output rows at a time. Block::run
// transposes the 16 rows src[i] + k into the step output rows d[j] + m.
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
#endif

// Any rectangle on the plain path: 16x16 register transposes, the ragged
// right and bottom edges pixel by pixel. Flattened, so that the scaffold and
// the block are inlined into it.
__attribute__((flatten)) inline void transpose_bytes_plain(const Sides& s, i64 ic, i64 oc, i64 H, i64 W) {
    i64 Hs = 0, Ws = 0;
#if defined(__SSE2__)
    Hs = H & ~i64{15};
    Ws = W & ~i64{15};
    tiled_transpose<Sse2Block>(s, ic, oc, Hs, Ws);
#endif
    transpose_byte_pixels(s, ic, oc, 0, Hs, Ws, W);
    transpose_byte_pixels(s, ic, oc, Hs, H, 0, W);
}

#if defined(QX_ROTATE_AVX2)
// A unit's input rows read straight from the caller's row-pointer array,
// whose entries run down (kDir 1) or up (-1) the transpose's rows: row i of
// the unit from its first column on. Copying a unit's pointers instead costs
// about 3% of the turn, and so does a step known only at run time.
template <int kDir>
struct InRows {
    Rows rows;  // from the entry of the unit's first row
    i64 col;
    InRows(const Sides& s, i64 ic, i64 m, i64 k)
        : rows{static_cast<const char*>(s.image.base) + (s.inFirst + s.inStep * m) * i64{sizeof(Row)}}, col(ic + k) {}
    const std::uint8_t* operator[](i64 i) const { return rows[kDir * i] + col; }
    InRows from(i64 i) const {
        InRows r = *this;
        r.rows.base = static_cast<const char*>(rows.base) + kDir * i * i64{sizeof(Row)};
        return r;
    }
};

// Eight rows src[i] + k, 32 bytes each (16 with `half`), turned part way: in
// each 128-bit half of t[j] (the high half 16 columns on) lie column 2j of the
// eight rows, then column 2j + 1. Three rounds interleave bytes, pairs, then
// quads of rows.
template <class In>
QX_TARGET_AVX2 inline void turn8(const In& src, i64 k, bool half, __m256i t[8]) {
    __m256i a[8], b[8];
    for (int i = 0; i < 8; ++i)
        a[i] = half ? _mm256_zextsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src[i] + k)))
                    : _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src[i] + k));
    for (int i = 0; i < 4; ++i) {  // b[2i], b[2i+1]: columns 0-7, 8-15 of rows 2i, 2i+1
        b[2 * i] = _mm256_unpacklo_epi8(a[2 * i], a[2 * i + 1]);
        b[2 * i + 1] = _mm256_unpackhi_epi8(a[2 * i], a[2 * i + 1]);
    }
    for (int p = 0; p < 2; ++p)  // a[4p + c]: columns 4c..4c+3 of rows 4p..4p+3
        for (int h = 0; h < 2; ++h) {
            a[4 * p + 2 * h] = _mm256_unpacklo_epi16(b[4 * p + h], b[4 * p + 2 + h]);
            a[4 * p + 2 * h + 1] = _mm256_unpackhi_epi16(b[4 * p + h], b[4 * p + 2 + h]);
        }
    for (int c = 0; c < 4; ++c) {
        t[2 * c] = _mm256_unpacklo_epi32(a[c], a[4 + c]);
        t[2 * c + 1] = _mm256_unpackhi_epi32(a[c], a[4 + c]);
    }
}

constexpr int kRows = 128;  // most input rows of a unit: two output lines
constexpr int kCols = 128;  // most input columns of a unit: two input lines
using Turned = __m256i[kCols / 32][8];    // one turned group: 32-column quarter, column pair

// Output columns 2j, 2j + 1, 2j + 16, 2j + 17 of the 32 rows in the turned
// groups g[0..3] (32-byte pieces).
QX_TARGET_AVX2 inline void columns32(const Turned* g, int q, int j, __m256i c[4]) {
    const __m256i lo01 = _mm256_unpacklo_epi64(g[0][q][j], g[1][q][j]);
    const __m256i hi01 = _mm256_unpackhi_epi64(g[0][q][j], g[1][q][j]);
    const __m256i lo23 = _mm256_unpacklo_epi64(g[2][q][j], g[3][q][j]);
    const __m256i hi23 = _mm256_unpackhi_epi64(g[2][q][j], g[3][q][j]);
    c[0] = _mm256_permute2x128_si256(lo01, lo23, 0x20);
    c[1] = _mm256_permute2x128_si256(hi01, hi23, 0x20);
    c[2] = _mm256_permute2x128_si256(lo01, lo23, 0x31);
    c[3] = _mm256_permute2x128_si256(hi01, hi23, 0x31);
}

// The same columns of the 16 rows in g[0..1] (16-byte pieces).
QX_TARGET_AVX2 inline void columns16(const Turned* g, int q, int j, __m128i c[4]) {
    const __m256i lo01 = _mm256_unpacklo_epi64(g[0][q][j], g[1][q][j]);
    const __m256i hi01 = _mm256_unpackhi_epi64(g[0][q][j], g[1][q][j]);
    c[0] = _mm256_castsi256_si128(lo01);
    c[1] = _mm256_castsi256_si128(hi01);
    c[2] = _mm256_extracti128_si256(lo01, 1);
    c[3] = _mm256_extracti128_si256(hi01, 1);
}

// The first nCols of output columns 2j, 2j + 1, 2j + 16, 2j + 17 of the R
// rows in t, written at p[i]: 64 rows at a time, each column's two 32-byte
// pieces stored one after the other, so that the halves of an output line go
// out back to back (5-7% of the turn against storing the columns in turn);
// then 32 rows, then 16.
QX_TARGET_AVX2 inline void put_columns(const Turned* t, int q, int j, int R, std::uint8_t* const p[4], int nCols) {
    int r = 0;
    for (; r + 64 <= R; r += 64) {
        __m256i a[4], b[4];
        columns32(t + r / 8, q, j, a);
        columns32(t + r / 8 + 4, q, j, b);
        for (int i = 0; i < nCols; ++i) {
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(p[i] + r), a[i]);
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(p[i] + r + 32), b[i]);
        }
    }
    for (; r + 32 <= R; r += 32) {
        __m256i a[4];
        columns32(t + r / 8, q, j, a);
        for (int i = 0; i < nCols; ++i)
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(p[i] + r), a[i]);
    }
    if (r < R) {
        __m128i h[4];
        columns16(t + r / 8, q, j, h);
        for (int i = 0; i < nCols; ++i)
            _mm_storeu_si128(reinterpret_cast<__m128i*>(p[i] + r), h[i]);
    }
}

// The unit to be turned after the current one: its input rows in[i] (from
// its first column), R of them, and its output rows out[j] + m, C of them.
template <class In>
struct Ahead {
    In in;
    int R;
    std::uint8_t* const* out;
    i64 m;
    int C;
};

// The two 64-byte lines from p on (a unit's row spans at most two lines).
[[gnu::always_inline]] inline void fetch_row(const std::uint8_t* p) {
    const char* c = reinterpret_cast<const char*>(p);
    _mm_prefetch(c, _MM_HINT_T1);
    _mm_prefetch(reinterpret_cast<const char*>(reinterpret_cast<std::uintptr_t>(c) + 64), _MM_HINT_T1);
}

// Into the second-level cache: the lines of the next unit's input rows
// [step * nIn, (step + 1) * nIn) and output rows [step * nOut, (step + 1) *
// nOut), so that its rows, a power of two apart, need not wait on memory one
// by one when its turn comes.
template <class In>
[[gnu::always_inline]] inline void fetch_ahead(const Ahead<In>& a, int step, int nIn, int nOut) {
    for (int i = step * nIn; i < std::min(a.R, (step + 1) * nIn); ++i)
        fetch_row(a.in[i]);
    for (int j = step * nOut; j < std::min(a.C, (step + 1) * nOut); ++j)
        fetch_row(a.out[j] + a.m);
}

// A unit of R input rows src[i] (from the unit's first column) and C columns,
// multiples of 16 up to kRows and kCols, into output rows d[j] + m. All input
// lines are read first, each whole at once, into part-turned groups (held in
// the first-level cache); then the output lines are written, each whole at
// once, the unit's line columns taking turns, while the next unit's lines
// are fetched. A Full unit has kRows rows and kCols columns, its loops
// unrolled.
template <bool Full, class In>
[[gnu::always_inline]] QX_TARGET_AVX2 inline void turn_unit(const In& src, std::uint8_t* const* d, i64 m, int rows,
                                                            int cols, const Ahead<In>* next) {
    const int R = Full ? kRows : rows, C = Full ? kCols : cols;
    Turned t[kRows / 8];
    const int Q = (C + 31) / 32;
    for (int g = 0; g < R / 8; ++g)
        for (int q = 0; q < Q; ++q)
            turn8(src.from(8 * g), 32 * q, C - 32 * q == 16, t[g][q]);
    const int steps = Q * 8;  // the next unit's rows are fetched in as many shares
    const int nIn = next ? (next->R + steps - 1) / steps : 0, nOut = next ? (next->C + steps - 1) / steps : 0;
    for (int q = 0; q < Q; ++q) {
        const int nCols = C - 32 * q == 16 ? 2 : 4;
        for (int j = 0; j < 8; ++j) {
            const int col[4] = {32 * q + 2 * j, 32 * q + 2 * j + 1, 32 * q + 2 * j + 16, 32 * q + 2 * j + 17};
            std::uint8_t* p[4] = {};
            for (int i = 0; i < nCols; ++i)
                p[i] = d[col[i]] + m;
            put_columns(t, q, j, R, p, nCols);
            if (next)
                fetch_ahead(*next, q * 8 + j, nIn, nOut);
        }
    }
}

// Bytes from p to the next 64-byte boundary.
inline i64 line_gap(const std::uint8_t* p) { return static_cast<i64>(-reinterpret_cast<std::uintptr_t>(p) & 63u); }

// The end of the unit starting at `pos` along a side whose units span
// [.., e) and whose lines start at g (mod 64): the rest when it fits in a
// unit of at most `size`, else up to g, then `size` at a time up to the last
// line start.
inline i64 unit_end(i64 pos, i64 g, i64 e, i64 size) {
    if (e - pos <= size)
        return e;
    if (pos < g)
        return g;
    return std::min(pos + size, g + ((e - g) & ~i64{63}));
}

// The units along one side, [p0, e) with lines starting at g (mod 64), cut by
// unit_end: the last one first, then from p0 on, so that a line shared by the
// end of one row and the start of the next is met by two units in a row.
struct Walk {
    i64 p0, e, g, size, last;
    Walk(i64 p0_, i64 e_, i64 g_, i64 size_) : p0(p0_), e(e_), g(g_), size(size_), last(p0_) {
        while (unit_end(last, g, e, size) < e)
            last = unit_end(last, g, e, size);
    }
    // The unit after [p, pe): false after the walk's end.
    bool after(i64 p, i64 pe, i64& np, i64& npe) const {
        if (p == last && last > p0)
            np = p0;
        else if (pe < last)
            np = pe;
        else
            return false;
        npe = np == last ? e : unit_end(np, g, e, size);
        return true;
    }
};

// Rows [m0, m1) and columns [k0, k1) of the transpose, whose output and input
// lines start at gm and gk, in units cut at the line starts, a strip of
// columns at a time down the rows, both in the order of Walk (output lines
// shared by two rows' ends, and input lines likewise, are met twice in a
// row). On large images each unit fetches the next one's lines.
template <class In>
QX_TARGET_AVX2 inline void turn_units(const Sides& s, i64 ic, i64 oc, i64 m0, i64 m1, i64 gm, i64 k0, i64 k1, i64 gk) {
    if (k0 >= k1 || m0 >= m1)
        return;
    const Walk down(m0, m1, gm, kRows), across(k0, k1, gk, kCols);
    // Fetching ahead pays only on large images (from about 2 MiB a side, as
    // measured on a 1 MiB second-level cache); on smaller ones the caches keep
    // up and the fetches are overhead.
    const bool fetch = (m1 - m0) * (k1 - k0) >= (i64{1} << 21);
    std::uint8_t* outRows[2][kCols];
    const auto strip = [&](i64 k, i64 ke, std::uint8_t** d) {
        for (i64 j = 0; j < ke - k; ++j)
            d[j] = s.out(k + j) + oc;
    };
    i64 k = across.last, ke = k1, m = down.last, me = m1;
    int co = 0;  // the half of outRows in use
    strip(k, ke, outRows[co]);
    for (;;) {
        i64 nk = k, nke = ke, nm = 0, nme = 0;
        int no = co;
        bool more = down.after(m, me, nm, nme);
        if (!more && across.after(k, ke, nk, nke)) {
            more = true;
            nm = down.last;
            nme = m1;
            no = 1 - co;
            strip(nk, nke, outRows[no]);
        }
        const Ahead<In> ahead{In(s, ic, nm, nk), static_cast<int>(nme - nm), outRows[no], nm, static_cast<int>(nke - nk)};
        const Ahead<In>* next = more && fetch ? &ahead : nullptr;
        const int R = static_cast<int>(me - m), C = static_cast<int>(ke - k);
        if (R == kRows && C == kCols)
            turn_unit<true>(In(s, ic, m, k), outRows[co], m, R, C, next);
        else
            turn_unit<false>(In(s, ic, m, k), outRows[co], m, R, C, next);
        if (!more)
            return;
        k = nk, ke = nke, m = nm, me = nme, co = no;
    }
}

// Whole-line units between the first rows and columns of 16 that the lines
// of the first output row and the first input row allow (rows whose lines
// start elsewhere are still turned right, only slower); the ring of fewer
// than 16 rows or columns around them pixel by pixel.
QX_TARGET_AVX2 inline void transpose_bytes_avx2(const Sides& s, i64 ic, i64 oc, i64 H, i64 W) {
    const i64 gm = line_gap(s.out(0) + oc), gk = line_gap(s.in(0) + ic);
    const i64 m0 = std::min(H, gm % 16), k0 = std::min(W, gk % 16);
    const i64 m1 = m0 + ((H - m0) & ~i64{15}), k1 = k0 + ((W - k0) & ~i64{15});
    if (s.inStep > 0)
        turn_units<InRows<1>>(s, ic, oc, m0, m1, gm, k0, k1, gk);
    else
        turn_units<InRows<-1>>(s, ic, oc, m0, m1, gm, k0, k1, gk);
    transpose_byte_pixels(s, ic, oc, 0, m0, 0, W);
    transpose_byte_pixels(s, ic, oc, m1, H, 0, W);
    transpose_byte_pixels(s, ic, oc, m0, m1, 0, k0);
    transpose_byte_pixels(s, ic, oc, m0, m1, k1, W);
}
#endif

// out(k)[oc + m] = in(m)[ic + k] for m < H, k < W (both positive).
inline void transpose_bytes(const Sides& s, i64 ic, i64 oc, i64 H, i64 W) {
#if defined(QX_ROTATE_AVX2)
    if (qx::cpu::at_least(qx::cpu::Path::avx2))
        return transpose_bytes_avx2(s, ic, oc, H, W);
#endif
    transpose_bytes_plain(s, ic, oc, H, W);
}

}  // namespace qx::rotat
