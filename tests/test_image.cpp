// Image mirror and rectangle copy for bit, nibble, byte and signed byte pixels
// against per-pixel references, with guard bytes around every row; the checks.
#include <algorithm>
#include <random>
#include <vector>

#include "kvx_test.h"
#include "qx_packed.h"

using kvxtest::LibTest;
using kvxtest::Rep;

namespace {

class Images : public LibTest {};

using Bytes = std::vector<unsigned char>;
using u8 = unsigned char;
using t8 = signed char;
t8** sgn(u8** rows) { return reinterpret_cast<t8**>(rows); }

using kvxtest::packed_get;
using kvxtest::packed_set;

// Rows in separate buffers with guard bytes on both sides; random contents.
struct Image {
    static constexpr int kGuard = 3;
    std::vector<Bytes> rows;
    std::vector<u8*> ptrs;
    Image(std::mt19937& rng, int nRows, int w, int nCols) : rows(static_cast<std::size_t>(nRows)) {
        for (auto& r : rows) {
            r.resize(static_cast<std::size_t>((nCols * w + 7) / 8 + 2 * kGuard));
            std::generate(r.begin(), r.end(), [&] { return static_cast<u8>(rng()); });
            ptrs.push_back(r.data() + kGuard);
        }
    }
};

// One pixel type: its width and its two functions (returning 0 for the forms
// that return nothing).
struct PixelType {
    int width;
    int (*mirror)(u8** in, u8** out, int nRows, int nCols, int orient);
    int (*copy)(u8** in, u8** out, const QXRegion* rgn, int orgRow, int orgCol);
};
const PixelType kTypes[] = {
    {1, [](u8** i, u8** o, int r, int c, int s) { return QXbMirrorImage(i, o, r, c, s), 0; },
     [](u8** i, u8** o, const QXRegion* g, int r, int c) { return QXbCopyImage(i, o, g, r, c), 0; }},
    {4, [](u8** i, u8** o, int r, int c, int s) { return QXnMirrorImage(i, o, r, c, s), 0; },
     [](u8** i, u8** o, const QXRegion* g, int r, int c) { return QXnCopyImage(i, o, g, r, c), 0; }},
    {8, [](u8** i, u8** o, int r, int c, int s) { return QXyMirrorImage(i, o, r, c, s); },
     [](u8** i, u8** o, const QXRegion* g, int r, int c) { return QXyCopyImage(i, o, g, r, c); }},
    {8, [](u8** i, u8** o, int r, int c, int s) { return QXtMirrorImage(sgn(i), sgn(o), r, c, s); },
     [](u8** i, u8** o, const QXRegion* g, int r, int c) { return QXtCopyImage(sgn(i), sgn(o), g, r, c); }},
};

}  // namespace

TEST_F(Images, MirrorMatchesThePerPixelReferenceAtEveryLaneWidth) {
    std::mt19937 rng(4242);
    kvxtest::on_every_path([&](int limit) {
        for (const PixelType& t : kTypes)
            for (int nRows : {1, 2, 5})
                for (int nCols : {1, 2, 3, 7, 8, 9, 10, 15, 16, 17, 31, 33, 64, 67, 100})
                    for (int orient : {0, 1}) {
                        Image in(rng, nRows, t.width, nCols), out(rng, nRows, t.width, nCols);
                        const auto inBefore = in.rows;
                        auto want = out.rows;
                        for (int r = 0; r < nRows; ++r)
                            for (int c = 0; c < nCols; ++c)
                                packed_set(t.width, want[orient ? nRows - 1 - r : r].data() + Image::kGuard, orient ? c : nCols - 1 - c,
                                          packed_get(t.width, in.ptrs[r], c));
                        ASSERT_EQ(t.mirror(in.ptrs.data(), out.ptrs.data(), nRows, nCols, orient), 0);
                        ASSERT_EQ(out.rows, want) << "width " << t.width << " lanes " << limit << " " << nRows << "x"
                                                  << nCols << " orient " << orient;
                        ASSERT_EQ(in.rows, inBefore);
                    }
    });
    EXPECT_TRUE(got().empty());
}

TEST_F(Images, CopyMatchesThePerPixelReferenceForRandomRegions) {
    std::mt19937 rng(99);
    constexpr int kInRows = 6, kInCols = 75, kOutRows = 7, kOutCols = 83;
    for (const PixelType& t : kTypes)
        for (int trial = 0; trial < 300; ++trial) {
            auto pick = [&](int lo, int hi) { return lo + static_cast<int>(rng() % static_cast<unsigned>(hi - lo + 1)); };
            const int r0 = pick(0, kInRows - 1), r1 = pick(r0, kInRows - 1), c0 = pick(0, kInCols - 1), c1 = pick(c0, kInCols - 1);
            const QXRegion g{r0, c0, r1, c1};
            const int h = r1 - r0 + 1, w = c1 - c0 + 1, orgRow = pick(0, kOutRows - h), orgCol = pick(0, kOutCols - w);
            Image in(rng, kInRows, t.width, kInCols), out(rng, kOutRows, t.width, kOutCols);
            auto want = out.rows;
            for (int k = 0; k < h; ++k)
                for (int c = 0; c < w; ++c)
                    packed_set(t.width, want[orgRow + k].data() + Image::kGuard, orgCol + c,
                              packed_get(t.width, in.ptrs[r0 + k], c0 + c));
            ASSERT_EQ(t.copy(in.ptrs.data(), out.ptrs.data(), &g, orgRow, orgCol), 0);
            ASSERT_EQ(out.rows, want) << "width " << t.width << " rows " << r0 << ".." << r1 << " cols " << c0 << ".." << c1
                                      << " to " << orgRow << "," << orgCol;
        }
    EXPECT_TRUE(got().empty());
}

TEST_F(Images, ChecksInOrderWithTheirOwnSpellingsAndTheByteFormsReturnTheStatus) {
    u8 row[4] = {1, 2, 3, 4};
    u8* img[1] = {row};
    QXbMirrorImage(nullptr, nullptr, 0, 0, 2);
    EXPECT_EQ(QXtMirrorImage(sgn(img), sgn(img), -1, 3, -1), -5);
    QXbCopyImage(nullptr, nullptr, nullptr, -1, -2);
    QXRegion bad{-1, -2, -3, -4};
    EXPECT_EQ(QXyCopyImage(img, img, &bad, 0, 0), -5);
    // The range texts of the copies have blanks around the operator, the others none.
    EXPECT_EQ(got(), (std::vector<Rep>{
                         {-5, "QXbMirrorImage", "image==0"}, {-5, "QXbMirrorImage", "outImage==0"},
                         {-5, "QXbMirrorImage", "nInRows<=0"}, {-5, "QXbMirrorImage", "nInCols<=0"}, {-5, "QXbMirrorImage", "orient>1"},
                         {-5, "QXtMirrorImage", "nInRows<=0"}, {-5, "QXtMirrorImage", "orient<0"},
                         {-5, "QXbCopyImage", "image==0"}, {-5, "QXbCopyImage", "outImage==0"}, {-5, "QXbCopyImage", "copyRgn==0"},
                         {-5, "QXbCopyImage", "orgRow < 0"}, {-5, "QXbCopyImage", "orgCol < 0"},
                         {-5, "QXyCopyImage", "copyRgn->leftTopRow < 0"}, {-5, "QXyCopyImage", "copyRgn->leftTopCol < 0"},
                         {-5, "QXyCopyImage", "copyRgn->rightBotRow < copyRgn->leftTopRow"},
                         {-5, "QXyCopyImage", "copyRgn->rightBotCol < copyRgn->leftTopCol"},
                     }));
    EXPECT_TRUE(kvxtest::all_name_raising_lines());
    EXPECT_EQ(Bytes(row, row + 4), (Bytes{1, 2, 3, 4}));
}
