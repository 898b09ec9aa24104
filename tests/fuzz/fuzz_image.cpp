// Row-pointer arrays and tables, image mirror, copy and rotation, and mask
// convolution, on hostile sizes, regions, origins, angles, data types and
// scale factors. Only the pixels a call may write change.
#include "fuzz_common.h"

using namespace kvxfuzz;

namespace {

using u8 = unsigned char;
using s8 = signed char;

// Bytes of a row of `cols` pixels of `bits` bits.
long long row_bytes(int bits, int cols) { return (count_of(cols) * bits + 7) / 8; }

constexpr int kMaxSide = 80;

// An allocator of rows of any element type, called through its own type.
template <auto F>
void** as_alloc(int rows, int cols) {
    return reinterpret_cast<void**>(F(rows, cols));
}

void arrays(FuzzedDataProvider& in, Outcome& o) {
    const int type = in.ConsumeIntegralInRange<int>(0, 6);
    const int rows = any_int(in), cols = any_int(in);
    const bool table = in.ConsumeBool();
    if (count_of(rows) * count_of(cols) > kCap * 16) return;
    using Alloc = void** (*)(int, int);
    static const Alloc allocs2[] = {as_alloc<QXbAlloc2>, as_alloc<QXnAlloc2>, as_alloc<QXyAlloc2>, as_alloc<QXtAlloc2>,
                                    as_alloc<QXwAlloc2>, as_alloc<QXiAlloc2>, as_alloc<QXsAlloc2>};
    static const Alloc tables[] = {as_alloc<QXbAllocTable>, as_alloc<QXnAllocTable>, as_alloc<QXyAllocTable>,
                                   as_alloc<QXtAllocTable>, as_alloc<QXwAllocTable>, as_alloc<QXiAllocTable>,
                                   as_alloc<QXsAllocTable>};
    static constexpr int bits[] = {1, 4, 8, 8, 16, 32, 32};
    void** p = (table ? tables : allocs2)[type](rows, cols);
    o.add(p != nullptr);
    if (p == nullptr) return;
    // Every row is writable over its full width.
    for (int r = 0; r < rows; ++r) std::memset(p[r], r & 0xFF, static_cast<std::size_t>(row_bytes(bits[type], cols)));
    o.add(table ? QX_FreeTable(p) : QX_Free2(p, rows));
}

int bits_of(int type) {  // 0 b, 1 n, 2 y, 3 t
    static constexpr int b[] = {1, 4, 8, 8};
    return b[type];
}

void geometry(FuzzedDataProvider& in, Outcome& o) {
    const int op = in.ConsumeIntegralInRange<int>(0, 2);  // mirror, copy, rotate
    const int type = in.ConsumeIntegralInRange<int>(0, 3);
    const int inRows = small_or_any(in), inCols = small_or_any(in);
    int outRows = small_or_any(in), outCols = small_or_any(in);
    const int orient = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(-1, 2) : any_int(in);
    static constexpr int angles[] = {90, -90, 180, 0, 270};
    const int angle = in.ConsumeBool() ? in.PickValueInArray(angles) : any_int(in);
    QXRegion rgn{small_or_any(in), small_or_any(in), small_or_any(in), small_or_any(in)};
    const int orgRow = small_or_any(in), orgCol = small_or_any(in);
    int inR = inRows, inC = inCols;
    if (op == 0) outRows = inRows, outCols = inCols;
    if (op == 1) {
        // The caller keeps the region inside both images: size them from it
        // when the checks would let the copy run.
        const bool runs = rgn.leftTopRow >= 0 && rgn.leftTopCol >= 0 && rgn.rightBotRow >= rgn.leftTopRow &&
                          rgn.rightBotCol >= rgn.leftTopCol && orgRow >= 0 && orgCol >= 0;
        if (runs) {
            const long long h = 1LL + rgn.rightBotRow - rgn.leftTopRow, w = 1LL + rgn.rightBotCol - rgn.leftTopCol;
            if (rgn.rightBotRow >= kMaxSide || rgn.rightBotCol >= kMaxSide || orgRow + h > kMaxSide || orgCol + w > kMaxSide)
                return;
            inR = rgn.rightBotRow + 1, inC = rgn.rightBotCol + 1;
            outRows = static_cast<int>(orgRow + h), outCols = static_cast<int>(orgCol + w);
        } else {
            inR = inC = outRows = outCols = 2;
        }
    }
    if (inR > kMaxSide || inC > kMaxSide || outRows > kMaxSide || outCols > kMaxSide) return;
    const int bits = bits_of(type);
    Rows image(in, inR, row_bytes(bits, inC)), out(in, outRows, row_bytes(bits, outCols));
    int r = 0;
    switch (op) {
    case 0:
        if (type == 0) QXbMirrorImage(image.as<u8>(), out.as<u8>(), inRows, inCols, orient);
        if (type == 1) QXnMirrorImage(image.as<u8>(), out.as<u8>(), inRows, inCols, orient);
        if (type == 2) r = QXyMirrorImage(image.as<u8>(), out.as<u8>(), inRows, inCols, orient);
        if (type == 3) r = QXtMirrorImage(image.as<s8>(), out.as<s8>(), inRows, inCols, orient);
        break;
    case 1: {
        const QXRegion* g = in.ConsumeIntegralInRange<int>(0, 15) ? &rgn : nullptr;
        if (type == 0) QXbCopyImage(image.as<u8>(), out.as<u8>(), g, orgRow, orgCol);
        if (type == 1) QXnCopyImage(image.as<u8>(), out.as<u8>(), g, orgRow, orgCol);
        if (type == 2) r = QXyCopyImage(image.as<u8>(), out.as<u8>(), g, orgRow, orgCol);
        if (type == 3) r = QXtCopyImage(image.as<s8>(), out.as<s8>(), g, orgRow, orgCol);
        break;
    }
    default:
        if (type == 0) r = QXbRotateImage(image.as<u8>(), out.as<u8>(), angle, inRows, inCols, outRows, outCols);
        if (type == 1) r = QXnRotateImage(image.as<u8>(), out.as<u8>(), angle, inRows, inCols, outRows, outCols);
        if (type == 2) r = QXyRotateImage(image.as<u8>(), out.as<u8>(), angle, inRows, inCols, outRows, outCols);
        if (type == 3) r = QXtRotateImage(image.as<s8>(), out.as<s8>(), angle, inRows, inCols, outRows, outCols);
        break;
    }
    image.unchanged();
    // Copies write only columns the caller's image holds; every row keeps
    // the pixels past its last column.
    for (Buf& row : out.rows()) row.only(bits, 0, count_of(outCols));
    out.into(o.bytes);
    o.add(r);
}

void convolve(FuzzedDataProvider& in, Outcome& o) {
    const int imageType = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(0, 3) : any_int(in);
    const int maskType = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(0, 1) : any_int(in);
    const int outType = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(0, 3) : any_int(in);
    const int rows = small_or_any(in), cols = small_or_any(in);
    const int mRows = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(-1, 5) : any_int(in);
    const int mCols = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(-1, 5) : any_int(in);
    QXRegion rgn{small_or_any(in), small_or_any(in), small_or_any(in), small_or_any(in)};
    const bool useRgn = in.ConsumeBool();
    const int ds = do_scale(in);
    int sf = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(-40, 40) : any_int(in);
    if (rows > kMaxSide || cols > kMaxSide || mRows > 16 || mCols > 16) return;
    const int ib = imageType >= 0 && imageType <= 3 ? (imageType == 0 ? 8 : imageType == 1 ? 4 : imageType == 2 ? 8 : 1) : 8;
    const int ob = outType >= 0 && outType <= 3 ? (outType == 0 ? 8 : outType == 1 ? 4 : outType == 2 ? 8 : 1) : 8;
    const int mb = maskType == 1 ? 16 : 8;
    Rows image(in, rows, row_bytes(ib, cols)), mask(in, mRows, row_bytes(mb, mCols)), out(in, rows, row_bytes(ob, cols));
    o.add(QXMaskConvolve(image.as<void>(), mask.as<void>(), out.as<void>(), imageType, maskType, outType, rows, cols,
                         mRows, mCols, useRgn ? &rgn : nullptr, ds, &sf));
    image.unchanged();
    mask.unchanged();
    for (Buf& row : out.rows()) row.only(ob, 0, count_of(cols));
    out.into(o.bytes);
    o.add(sf);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return on_both_paths(data, size, [](FuzzedDataProvider& in, Outcome& o) {
        switch (in.ConsumeIntegralInRange<int>(0, 3)) {
        case 0: arrays(in, o); break;
        case 1: convolve(in, o); break;
        default: geometry(in, o); break;
        }
    });
}
