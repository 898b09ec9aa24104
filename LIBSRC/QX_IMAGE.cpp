// Mirroring and rectangle copies of images of packed bits, packed nibbles and
// bytes. An image is an array of row pointers; each row is a packed vector of
// the image's type starting at the first element of its first byte.
//
// Whole rows and row pieces move with the block copy of the type (the exported
// QXbbCopy, QXnbCopy, QXybCopy and QXtbCopy, so a missing row is reported by
// the copy itself). A left-to-right flip writes every pixel of the output row
// and no other bit of it: whole output bytes are built from a byte-wide window
// of the input with its pixels reversed, and the last byte is merged.
#include <cstdint>

#include "kvxpx.h"
#include "qx_packed_mirror.h"
#include "qx_report.h"

namespace {

namespace pk = qx::packed;
using qx::Report;
using u8 = std::uint8_t;

bool mirror_checks(const Report& r, const void* image, const void* outImage, int nInRows, int nInCols, int orient) {
    r.check(image == nullptr, "image==0");
    r.check(outImage == nullptr, "outImage==0");
    r.check(nInRows <= 0, "nInRows<=0");
    r.check(nInCols <= 0, "nInCols<=0");
    r.check(orient < 0, "orient<0");
    r.check(orient > 1, "orient>1");
    return !qx::Report::failed();
}

bool copy_checks(const Report& r, const void* image, const void* outImage, const QXRegion* copyRgn, int orgRow,
                 int orgCol) {
    r.check(image == nullptr, "image==0");
    r.check(outImage == nullptr, "outImage==0");
    r.check(copyRgn == nullptr, "copyRgn==0");
    r.check(orgRow < 0, "orgRow < 0");
    r.check(orgCol < 0, "orgCol < 0");
    if (copyRgn != nullptr) {
        r.check(copyRgn->leftTopRow < 0, "copyRgn->leftTopRow < 0");
        r.check(copyRgn->leftTopCol < 0, "copyRgn->leftTopCol < 0");
        r.check(copyRgn->rightBotRow < copyRgn->leftTopRow, "copyRgn->rightBotRow < copyRgn->leftTopRow");
        r.check(copyRgn->rightBotCol < copyRgn->leftTopCol, "copyRgn->rightBotCol < copyRgn->leftTopCol");
    }
    return !qx::Report::failed();
}

// Pixel types: how a row piece starting at column c is addressed, its block
// copy, and the left-to-right flip of one row.
struct BitPixels {
    using T = unsigned char;
    static void copy(const T* srcRow, long srcCol, T* dstRow, long dstCol, int n) {
        QXbbCopy(srcRow + pk::bit_byte(srcCol), dstRow + pk::bit_byte(dstCol), pk::bit_start(srcCol),
                 pk::bit_start(dstCol), n);
    }
    static void flip(const T* in, T* out, int nCols) {
        pk::mirror_bits(in, out, nCols);
    }
};

struct NibblePixels {
    using T = unsigned char;
    static void copy(const T* srcRow, long srcCol, T* dstRow, long dstCol, int n) {
        QXnbCopy(srcRow + pk::nibble_byte(srcCol), dstRow + pk::nibble_byte(dstCol), pk::nibble_start(srcCol),
                 pk::nibble_start(dstCol), n);
    }
    static void flip(const T* in, T* out, int nCols) {
        pk::mirror_nibbles(in, out, nCols);
    }
};

template <class Byte, void (*Copy)(const Byte*, Byte*, int)>
struct BytePixels {
    using T = Byte;
    static void copy(const T* srcRow, long srcCol, T* dstRow, long dstCol, int n) {
        Copy(srcRow + srcCol, dstRow + dstCol, n);
    }
    static void flip(const T* in, T* out, int nCols) {
        pk::reverse_bytes(reinterpret_cast<u8*>(out), reinterpret_cast<const u8*>(in), static_cast<std::size_t>(nCols));
    }
};
using UBytePixels = BytePixels<unsigned char, QXybCopy>;
using SBytePixels = BytePixels<signed char, QXtbCopy>;

template <class P>
void mirror(typename P::T** image, typename P::T** outImage, int nInRows, int nInCols, int orient) {
    for (int r = 0; r < nInRows; ++r) {
        if (orient == 1)
            P::copy(image[r], 0, outImage[nInRows - 1 - r], 0, nInCols);
        else
            P::flip(image[r], outImage[r], nInCols);
    }
}

template <class P>
void copy_region(typename P::T** image, typename P::T** outImage, const QXRegion& rgn, int orgRow, int orgCol) {
    const std::int64_t rows = std::int64_t{rgn.rightBotRow} - rgn.leftTopRow + 1;
    const auto cols = static_cast<int>(std::int64_t{rgn.rightBotCol} - rgn.leftTopCol + 1);
    for (std::int64_t k = 0; k < rows; ++k)
        P::copy(image[rgn.leftTopRow + k], rgn.leftTopCol, outImage[orgRow + k], orgCol, cols);
}

}  // namespace

extern "C" {

QX_API void QXbMirrorImage(unsigned char** image, unsigned char** outImage, int nInRows, int nInCols, int orient) {
    constexpr qx::Report r{"QXbMirrorImage"};
    if (mirror_checks(r, image, outImage, nInRows, nInCols, orient))
        mirror<BitPixels>(image, outImage, nInRows, nInCols, orient);
}

QX_API void QXnMirrorImage(unsigned char** image, unsigned char** outImage, int nInRows, int nInCols, int orient) {
    constexpr qx::Report r{"QXnMirrorImage"};
    if (mirror_checks(r, image, outImage, nInRows, nInCols, orient))
        mirror<NibblePixels>(image, outImage, nInRows, nInCols, orient);
}

QX_API int QXyMirrorImage(unsigned char** image, unsigned char** outImage, int nInRows, int nInCols, int orient) {
    constexpr qx::Report r{"QXyMirrorImage"};
    if (!mirror_checks(r, image, outImage, nInRows, nInCols, orient))
        return QXGetStatus();
    mirror<UBytePixels>(image, outImage, nInRows, nInCols, orient);
    return QXGetStatus();
}

QX_API int QXtMirrorImage(signed char** image, signed char** outImage, int nInRows, int nInCols, int orient) {
    constexpr qx::Report r{"QXtMirrorImage"};
    if (!mirror_checks(r, image, outImage, nInRows, nInCols, orient))
        return QXGetStatus();
    mirror<SBytePixels>(image, outImage, nInRows, nInCols, orient);
    return QXGetStatus();
}

QX_API void QXbCopyImage(unsigned char** image, unsigned char** outImage, const QXRegion* copyRgn, int orgRow,
                         int orgCol) {
    constexpr qx::Report r{"QXbCopyImage"};
    if (copy_checks(r, image, outImage, copyRgn, orgRow, orgCol))
        copy_region<BitPixels>(image, outImage, *copyRgn, orgRow, orgCol);
}

QX_API void QXnCopyImage(unsigned char** image, unsigned char** outImage, const QXRegion* copyRgn, int orgRow,
                         int orgCol) {
    constexpr qx::Report r{"QXnCopyImage"};
    if (copy_checks(r, image, outImage, copyRgn, orgRow, orgCol))
        copy_region<NibblePixels>(image, outImage, *copyRgn, orgRow, orgCol);
}

QX_API int QXyCopyImage(unsigned char** image, unsigned char** outImage, const QXRegion* copyRgn, int orgRow,
                        int orgCol) {
    constexpr qx::Report r{"QXyCopyImage"};
    if (!copy_checks(r, image, outImage, copyRgn, orgRow, orgCol))
        return QXGetStatus();
    copy_region<UBytePixels>(image, outImage, *copyRgn, orgRow, orgCol);
    return QXGetStatus();
}

QX_API int QXtCopyImage(signed char** image, signed char** outImage, const QXRegion* copyRgn, int orgRow, int orgCol) {
    constexpr qx::Report r{"QXtCopyImage"};
    if (!copy_checks(r, image, outImage, copyRgn, orgRow, orgCol))
        return QXGetStatus();
    copy_region<SBytePixels>(image, outImage, *copyRgn, orgRow, orgCol);
    return QXGetStatus();
}

}  // extern "C"
