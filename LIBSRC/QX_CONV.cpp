// Mask convolution of packed raster images: a correlation with the mask's
// centre floor(n/2) as anchor, zero padding outside the image, no flip.
//
// Every output pixel is the sum over mask rows i (outer) and columns j (inner)
// of mask[i][j] * pixel(r - hr + i, c - hc + j), each product formed in double
// and accumulated from 0. Pixels whose whole neighbourhood lies inside the
// image go through the fast path: the image rows under the mask are converted
// once into a sliding window of float rows and a whole run of output pixels is
// summed tap by tap without bounds tests. The border pixels take the
// bounds-tested path. Both add the same products in the same order.
//
// When every partial sum is an integer below 2^24 in magnitude (the sum of
// |mask| times the largest pixel says so), the fast path accumulates in float:
// all products and partial sums are then exact in float and in double alike,
// so the results are the same bits and twice as many pixels fit a register.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "kvxpx.h"
#include "qx_convert.h"
#include "qx_packed.h"
#include "qx_report.h"

namespace {

using i64 = long long;

// Pixel type codes of the image and the output.
enum PixType { SByte = 0, Nibble = 1, UByte = 2, Bit = 3 };

// ---------------------------------------------------------------- pixel readers

template <int T>
inline int read_pixel(const void* row, i64 c) {
    if constexpr (T == SByte)
        return static_cast<const signed char*>(row)[c];
    else if constexpr (T == Nibble)
        return static_cast<int>(qx::packed::get_nibble(static_cast<const std::uint8_t*>(row), 1, c));
    else if constexpr (T == UByte)
        return static_cast<const std::uint8_t*>(row)[c];
    else
        return static_cast<int>(qx::packed::get_bit(static_cast<const std::uint8_t*>(row), 7, c));
}

using PixelReader = int (*)(const void*, i64);
constexpr PixelReader kReaders[4] = {read_pixel<SByte>, read_pixel<Nibble>, read_pixel<UByte>, read_pixel<Bit>};

// The largest pixel magnitude of each type.
constexpr double kMaxPixel[4] = {128.0, 15.0, 255.0, 1.0};

// Row loaders: columns c0 .. c0+n-1 of an image row into dst[c0 ..].
template <int T>
void load_row(const void* row, i64 c0, i64 n, float* dst) {
    if constexpr (T == SByte || T == UByte) {
        using E = std::conditional_t<T == SByte, signed char, std::uint8_t>;
        const E* src = static_cast<const E*>(row);
        for (i64 c = c0; c < c0 + n; ++c)
            dst[c] = static_cast<float>(src[c]);
    } else {
        for (i64 c = c0; c < c0 + n; ++c)
            dst[c] = static_cast<float>(read_pixel<T>(row, c));
    }
}

using RowLoader = void (*)(const void*, i64, i64, float*);
constexpr RowLoader kLoaders[4] = {load_row<SByte>, load_row<Nibble>, load_row<UByte>, load_row<Bit>};

// ---------------------------------------------------------------- output conversion

struct OutMode {
    int doScale;
    int shift;  // *scaleFactor for doScale 1
    int lo, hi; // the output type's range, for doScale 3
};

constexpr int kLo[4] = {-128, 0, 0, 0};
constexpr int kHi[4] = {127, 15, 255, 1};

inline std::int32_t convert_out(std::int32_t v, const OutMode& m) {
    if (m.doScale == 1) {
        if (m.shift >= 0)
            return v >> (m.shift & 31);  // arithmetic, as the processor's shift masks its count
        return static_cast<std::int32_t>(static_cast<std::uint32_t>(v) << ((-m.shift) & 31));
    }
    if (m.doScale == 3)
        return v < m.lo ? m.lo : v > m.hi ? m.hi : v;
    return v;  // 0 and 2: no change
}

// Pixel writers: the low bits of v.
template <int T>
inline void write_pixel(void* row, i64 c, std::int32_t v) {
    const auto low = static_cast<std::uint32_t>(v);
    if constexpr (T == SByte || T == UByte)
        static_cast<std::uint8_t*>(row)[c] = static_cast<std::uint8_t>(low);
    else if constexpr (T == Nibble)
        qx::packed::set_nibble(static_cast<std::uint8_t*>(row), 1, c, low & 15u);
    else
        qx::packed::set_bit(static_cast<std::uint8_t*>(row), 7, c, low & 1u);
}

using PixelWriter = void (*)(void*, i64, std::int32_t);
constexpr PixelWriter kWriters[4] = {write_pixel<SByte>, write_pixel<Nibble>, write_pixel<UByte>, write_pixel<Bit>};

// A run of sums to output columns c0 .. c0+n-1. Float sums come from the
// exact path and lie well inside the int range.
template <class Acc, int T>
void write_run(void* row, i64 c0, i64 n, const Acc* sums, const OutMode& m) {
    for (i64 x = 0; x < n; ++x) {
        std::int32_t v;
        if constexpr (sizeof(Acc) == sizeof(float))
            v = static_cast<std::int32_t>(sums[x]);
        else
            v = qx::trunc_to<std::int32_t>(sums[x]);
        write_pixel<T>(row, c0 + x, convert_out(v, m));
    }
}

template <class Acc>
using RunWriter = void (*)(void*, i64, i64, const Acc*, const OutMode&);
template <class Acc>
constexpr RunWriter<Acc> kRunWriters[4] = {write_run<Acc, SByte>, write_run<Acc, Nibble>, write_run<Acc, UByte>,
                                           write_run<Acc, Bit>};

// ---------------------------------------------------------------- the two paths

// A row-pointer array of any pixel type; the row pointers are read through
// their object representation, so one code serves every type of array.
struct Rows {
    const void* base;
    void* operator[](i64 i) const {
        void* p;
        std::memcpy(&p, static_cast<const char*>(base) + i * static_cast<i64>(sizeof(void*)), sizeof p);
        return p;
    }
};

struct Job {
    Rows image;
    Rows out;
    float* const* mask;  // nMaskRows x nMaskCols floats
    i64 nRows, nCols, mRows, mCols, hr, hc;
    int outType;
    PixelReader read;
    PixelWriter write;
    OutMode mode;
};

// Bounds-tested path for the pixels (r, c0..c1) of one row.
void border_run(const Job& j, i64 r, i64 c0, i64 c1) {
    for (i64 c = c0; c <= c1; ++c) {
        double sum = 0.0;
        for (i64 i = 0; i < j.mRows; ++i) {
            const i64 rr = r - j.hr + i;
            if (rr < 0 || rr >= j.nRows)
                continue;
            const void* row = j.image[rr];
            for (i64 k = 0; k < j.mCols; ++k) {
                const i64 cc = c - j.hc + k;
                if (cc < 0 || cc >= j.nCols)
                    continue;
                sum += static_cast<double>(j.mask[i][k]) * static_cast<double>(j.read(row, cc));
            }
        }
        j.write(j.out[r], c, convert_out(qx::trunc_to<std::int32_t>(sum), j.mode));
    }
}

// Fast path for the output pixels (r, c0..c1) of one row from the window rows
// win[i] = image row r - hr + i as floats: a run of sums at a time, tap by tap.
template <class Acc>
void fast_run(const Job& j, float* const* win, RunWriter<Acc> writeRun, i64 r, i64 c0, i64 c1) {
    constexpr i64 kRun = 512;
    Acc acc[kRun];
    for (i64 x0 = c0; x0 <= c1; x0 += kRun) {
        const i64 n = c1 - x0 + 1 < kRun ? c1 - x0 + 1 : kRun;
        for (i64 x = 0; x < n; ++x)
            acc[x] = 0;
        for (i64 i = 0; i < j.mRows; ++i) {
            const float* base = win[i] + (x0 - j.hc);
            for (i64 k = 0; k < j.mCols; ++k) {
                const Acc m = static_cast<Acc>(j.mask[i][k]);
                const float* src = base + k;
                for (i64 x = 0; x < n; ++x)
                    acc[x] += m * static_cast<Acc>(src[x]);
            }
        }
        writeRun(j.out[r], x0, n, acc, j.mode);
    }
}

// The middle rows ir0..ir1 of the region (columns lc..rc): columns ic0..ic1
// through the window, the rest of each row bounds-tested. The window's
// pointer array turns by one row per output row, so each image row is
// converted once.
template <class Acc>
void middle_rows(const Job& j, float** win, RowLoader load, i64 ir0, i64 ir1, i64 ic0, i64 ic1, i64 lc, i64 rc) {
    const RunWriter<Acc> writeRun = kRunWriters<Acc>[j.outType];
    const i64 first = ic0 - j.hc;                          // columns under the mask
    const i64 count = ic1 + (j.mCols - 1 - j.hc) - first + 1;
    for (i64 i = 0; i < j.mRows - 1; ++i)
        load(j.image[ir0 - j.hr + i], first, count, win[i + 1]);
    for (i64 r = ir0; r <= ir1; ++r) {
        float* recycled = win[0];
        for (i64 i = 0; i + 1 < j.mRows; ++i)
            win[i] = win[i + 1];
        win[j.mRows - 1] = recycled;
        load(j.image[r - j.hr + j.mRows - 1], first, count, recycled);
        border_run(j, r, lc, ic0 - 1);
        fast_run<Acc>(j, win, writeRun, r, ic0, ic1);
        border_run(j, r, ic1 + 1, rc);
    }
}

// The region's checks, in their order; no region means the whole image.
void check_region(const qx::Report& r, const QXRegion* g, int nImageRows, int nImageCols) {
    if (g == nullptr)
        return;
    r.check(g->leftTopRow < 0, "convolveRegion->leftTopRow < 0");
    r.check(g->leftTopCol < 0, "convolveRegion->leftTopCol < 0");
    r.check(g->rightBotRow >= nImageRows, "convolveRegion->rightBotRow >= nImageRows");
    r.check(g->rightBotCol >= nImageCols, "convolveRegion->rightBotCol >= nImageCols");
    r.check(g->leftTopRow > g->rightBotRow, "convolveRegion->leftTopRow > convolveRegion->rightBotRow");
    r.check(g->leftTopCol > g->rightBotCol, "convolveRegion->leftTopCol > convolveRegion->rightBotCol");
}

// The mask (signed bytes for type 0, shorts for type 1) as floats into maskf;
// returns the sum of the magnitudes.
double load_mask(const void* mask, int maskDataType, float* const* maskf, int nRows, int nCols) {
    double absSum = 0.0;
    for (int i = 0; i < nRows; ++i)
        for (int k = 0; k < nCols; ++k) {
            const float m = maskDataType == 0 ? static_cast<float>(static_cast<signed char* const*>(mask)[i][k])
                                              : static_cast<float>(static_cast<short* const*>(mask)[i][k]);
            maskf[i][k] = m;
            absSum += std::fabs(static_cast<double>(m));
        }
    return absSum;
}

// Convolves region g: the rows above and below the interior (the pixels whose
// whole mask neighbourhood lies inside the image) and the columns beside it
// bounds-tested, the interior through the window. The sums are float when
// absSum says they stay exact integers. False, with nothing written, when the
// window cannot be allocated.
bool convolve_region(const Job& job, const QXRegion& g, int imageDataType, double absSum) {
    const i64 rt = g.leftTopRow, rb = g.rightBotRow, lc = g.leftTopCol, rc = g.rightBotCol;
    const i64 ir0 = rt > job.hr ? rt : job.hr;
    const i64 lastRow = job.nRows - 1 - (job.mRows - 1 - job.hr);
    const i64 ir1 = rb < lastRow ? rb : lastRow;
    const i64 ic0 = lc > job.hc ? lc : job.hc;
    const i64 lastCol = job.nCols - 1 - (job.mCols - 1 - job.hc);
    const i64 ic1 = rc < lastCol ? rc : lastCol;
    if (ir0 > ir1 || ic0 > ic1) {
        for (i64 row = rt; row <= rb; ++row)
            border_run(job, row, lc, rc);
        return true;
    }
    const int winRows = static_cast<int>(job.mRows);
    float** win = QXsAlloc2(winRows, static_cast<int>(job.nCols));
    if (win == nullptr || qx::Report::failed())
        return false;
    for (i64 row = rt; row < ir0; ++row)
        border_run(job, row, lc, rc);
    for (i64 row = ir1 + 1; row <= rb; ++row)
        border_run(job, row, lc, rc);
    const RowLoader load = kLoaders[imageDataType];
    // Integer sums below 2^24 are exact in float as in double.
    if (absSum * kMaxPixel[imageDataType] < 16777216.0)
        middle_rows<float>(job, win, load, ir0, ir1, ic0, ic1, lc, rc);
    else
        middle_rows<double>(job, win, load, ir0, ir1, ic0, ic1, lc, rc);
    QXsFree2(win, winRows);
    return true;
}

}  // namespace

extern "C" {

QX_API int QXMaskConvolve(void* image, void* mask, void* outImage, int imageDataType, int maskDataType, int outDataType,
                          int nImageRows, int nImageCols, int nMaskRows, int nMaskCols, const QXRegion* convolveRegion,
                          int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXMaskConvolve"};
    r.check(image == nullptr, "image==0");
    r.check(mask == nullptr, "mask==0");
    r.check(outImage == nullptr, "outImage==0");
    r.check(imageDataType < 0, "imageDataType<0");
    r.check(imageDataType > 3, "imageDataType>3");
    r.check(maskDataType < 0, "maskDataType<0");
    r.check(maskDataType > 1, "maskDataType>1");
    r.check(outDataType < 0, "outDataType<0");
    r.check(outDataType > 3, "outDataType>3");
    r.check(nImageRows <= 0, "nImageRows<=0");
    r.check(nImageCols <= 0, "nImageCols<=0");
    r.check(nMaskRows <= 0, "nMaskRows<=0");
    r.check(nMaskCols <= 0, "nMaskCols<=0");
    r.scaling(doScale, scaleFactor);
    check_region(r, convolveRegion, nImageRows, nImageCols);
    if (qx::Report::failed())
        return QXGetStatus();

    float** maskf = QXsAllocTable(nMaskRows, nMaskCols);
    if (maskf == nullptr || qx::Report::failed())
        return r.raise(QX_StsBackTrace, "");
    const double absSum = load_mask(mask, maskDataType, maskf, nMaskRows, nMaskCols);
    const OutMode mode{doScale, doScale == 1 ? *scaleFactor : 0, kLo[outDataType], kHi[outDataType]};
    const Job job{Rows{image}, Rows{outImage}, maskf, nImageRows, nImageCols, nMaskRows, nMaskCols,
                  nMaskRows / 2, nMaskCols / 2, outDataType, kReaders[imageDataType], kWriters[outDataType], mode};
    const QXRegion region = convolveRegion ? *convolveRegion : QXRegion{0, 0, nImageRows - 1, nImageCols - 1};
    if (!convolve_region(job, region, imageDataType, absSum)) {
        QXsFreeTable(maskf);
        return r.raise(QX_StsBackTrace, "");
    }
    if (doScale != 1)
        *scaleFactor = 0;
    QXsFreeTable(maskf);
    return 0;
}

}  // extern "C"
