// Image rotation: every pixel type and angle against a per-pixel reference of
// the centring and cropping rules, margins and neighbour bits untouched; the
// checks stop at the first failure and never look at the status word.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

#include "kvx_test.h"
#include "test_packed_image.h"

using namespace kvxtest;

namespace {

class Rotate : public LibTest {};

using Rotator = int (*)(unsigned char**, unsigned char**, int, int, int, int, int);
int rotate_signed(unsigned char** in, unsigned char** out, int angle, int iR, int iC, int oR, int oC) {
    using S = signed char**;
    return QXtRotateImage(reinterpret_cast<S>(in), reinterpret_cast<S>(out), angle, iR, iC, oR, oC);
}
const Rotator kRotate[4] = {rotate_signed, QXnRotateImage, QXyRotateImage, QXbRotateImage};

// The centring rule written out per pixel: the overlap of input and output
// (as turned) sits centred in both, halves rounded down.
template <class In, class Out>
void reference(const In& in, Out& out, int angle) {
    const bool half = angle == 180;
    // The output's extent along the input's rows and columns.
    const int tR = half ? out.rows : out.cols, tC = half ? out.cols : out.rows;
    const int H = std::min(in.rows, tR), W = std::min(in.cols, tC);
    const int R0 = std::max(in.rows - tR, 0) / 2, C0 = std::max(in.cols - tC, 0) / 2;  // first used in input
    const int oR0 = std::max(tR - in.rows, 0) / 2, oC0 = std::max(tC - in.cols, 0) / 2;  // and in the output
    for (int m = 0; m < H; ++m)
        for (int k = 0; k < W; ++k) {
            const unsigned v = static_cast<unsigned>(in.get(R0 + m, C0 + k));
            if (half)
                out.set(oR0 + H - 1 - m, oC0 + W - 1 - k, v);
            else if (angle == 90)
                out.set(oC0 + W - 1 - k, oR0 + m, v);
            else
                out.set(oC0 + k, oR0 + H - 1 - m, v);
        }
}

// A byte image in one buffer with guard bytes on both sides: rows `pitch`
// apart from `offset` bytes after a 64-byte boundary, so that the rows' lines
// start where the test wants them (everywhere alike for a multiple of 64,
// differently from row to row otherwise).
struct Raster {
    int rows, cols;
    std::vector<std::uint8_t> buf;
    std::vector<std::uint8_t*> ptrs;
    Raster(int r, int c, int pitch, int offset, std::mt19937& rng)
        : rows(r), cols(c), buf(static_cast<std::size_t>(r) * pitch + 256) {
        for (auto& b : buf)
            b = static_cast<std::uint8_t>(rng());
        const auto at = reinterpret_cast<std::uintptr_t>(buf.data());
        std::uint8_t* first = buf.data() + ((64 - at % 64) % 64) + 64 + offset;
        ptrs.reserve(static_cast<std::size_t>(r));  // exactly: a read past the last row pointer is caught
        for (int i = 0; i < r; ++i)
            ptrs.push_back(first + static_cast<std::ptrdiff_t>(i) * pitch);
    }
    Raster(const Raster& o) : rows(o.rows), cols(o.cols), buf(o.buf) {
        for (auto* p : o.ptrs)
            ptrs.push_back(buf.data() + (p - o.buf.data()));
    }
    Raster& operator=(const Raster&) = delete;
    int get(int r, int c) const { return ptrs[r][c]; }
    void set(int r, int c, unsigned v) { ptrs[r][c] = static_cast<std::uint8_t>(v); }
    unsigned char** p() { return ptrs.data(); }
};

}  // namespace

TEST_F(Rotate, EveryTypeAndAngleMatchesThePixelReference) {
    std::mt19937 rng(7);
    // The turning direction, by hand: 90 is counter-clockwise.
    PackedImage small(UByte, 2, 3, rng), turned(UByte, 3, 2, rng);
    for (int c = 0; c < 3; ++c)
        small.set(0, c, 1 + c), small.set(1, c, 4 + c);
    QXyRotateImage(small.p(), turned.p(), 90, 2, 3, 3, 2);
    EXPECT_EQ(turned.data, (std::vector<std::vector<std::uint8_t>>{{3, 6}, {2, 5}, {1, 4}}));
    QXyRotateImage(small.p(), turned.p(), -90, 2, 3, 3, 2);
    EXPECT_EQ(turned.data, (std::vector<std::vector<std::uint8_t>>{{4, 1}, {5, 2}, {6, 3}}));

    // (input rows, cols, output rows, cols): equal, larger and smaller by odd
    // and even amounts, empty, and ragged edges after whole transpose tiles.
    const int shapes[][4] = {{1, 1, 1, 1}, {2, 2, 4, 4}, {4, 4, 2, 2}, {5, 7, 9, 8}, {9, 8, 5, 7}, {16, 16, 16, 16},
                             {17, 33, 40, 18}, {37, 70, 50, 41}, {70, 37, 30, 90}, {3, 90, 100, 2}, {100, 3, 2, 100},
                             {0, 5, 5, 5}, {5, 5, 0, 3}, {200, 136, 72, 72}, {131, 150, 141, 131},
                             // whole-line units, partial ones, bands of 16 to 48, and ragged rings
                             {300, 370, 390, 310}, {256, 256, 256, 256}, {129, 200, 210, 130}};
    for (int t : {SByte, Nibble, UByte, Bit})
        for (int angle : {90, -90, 180})
            for (const auto& s : shapes)
                on_every_path([&](int path) {
                    PackedImage in(t, s[0], s[1], rng), out(t, s[2], s[3], rng), want(out);
                    reference(in, want, angle);
                    ASSERT_EQ(kRotate[t](in.p(), out.p(), angle, s[0], s[1], s[2], s[3]), 0);
                    ASSERT_EQ(out.data, want.data)
                        << "type " << t << " angle " << angle << " shape " << &s - shapes << " path " << path;
                });
    EXPECT_TRUE(got().empty());
}

TEST_F(Rotate, StopsAtTheFirstFailedCheckAndIgnoresTheStatus) {
    std::mt19937 rng(3);
    PackedImage in(UByte, 4, 4, rng), out(UByte, 4, 4, rng);
    const auto before = out.data;
    unsigned char** const none = nullptr;
    // Negative sizes show only through the derived counts; null rows are
    // looked for among the used ones, the input's first. A null array has no rows.
    EXPECT_EQ(QXyRotateImage(none, none, 45, -1, -1, -1, -1), -5);
    EXPECT_EQ(QXbRotateImage(in.p(), out.p(), 90, -1, -1, 4, 4), -5);
    QXnRotateImage(in.p(), out.p(), -90, -1, 4, 4, 4);
    rotate_signed(in.p(), out.p(), 180, 4, -2, 4, 4);
    in.ptrs[0] = out.ptrs[0] = nullptr;
    QXyRotateImage(in.p(), out.p(), 180, 4, 4, 4, 4);
    QXnRotateImage(none, out.p(), 90, 4, 4, 4, 4);
    in.ptrs[0] = in.data[0].data();
    QXyRotateImage(in.p(), out.p(), 90, 4, 4, 4, 4);
    QXnRotateImage(in.p(), none, -90, 4, 4, 4, 4);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXyRotateImage", "((angle != 90) && (angle != -90) && (angle != 180))"},
                                      {-5, "QXbRotateImage", "nOutR<0"}, {-5, "QXnRotateImage", "nOutC<0"},
                                      {-5, "QXtRotateImage", "nOutC<0"}, {-5, "QXyRotateImage", "image[i]==0"},
                                      {-5, "QXnRotateImage", "image[i]==0"}, {-5, "QXyRotateImage", "outImage[j]==0"},
                                      {-5, "QXnRotateImage", "outImage[j]==0"}}));
    for (auto& r : kvxtest::reports())
        EXPECT_TRUE(kvxtest::names_raising_line(r));
    EXPECT_EQ(out.data, before);
    clear();

    // Under a pending error: rows the cropping leaves out may be null, and
    // arrays with no rows to use are never read.
    QXSetStatus(QX_StsBadArg);
    PackedImage tall(UByte, 8, 2, rng), box(UByte, 4, 2, rng), want(box);
    tall.ptrs[1] = tall.ptrs[6] = nullptr;
    reference(tall, want, 180);
    EXPECT_EQ(QXyRotateImage(tall.p(), box.p(), 180, 8, 2, 4, 2), 0);
    EXPECT_EQ(box.data, want.data);
    EXPECT_EQ(QXyRotateImage(none, none, 180, 0, 0, 3, 3), 0);
    EXPECT_TRUE(got().empty());
    EXPECT_EQ(QXGetStatus(), QX_StsBadArg);
}

// The byte quarter turns go in whole-line units cut where the rows' lines
// start; rows starting anywhere in a line, alike or differing from row to
// row, and sizes with every kind of unit and ring give the pixel reference's
// bytes, guard bytes and margins untouched.
TEST_F(Rotate, BytesMatchThePixelReferenceWhereverTheRowsStart) {
    std::mt19937 rng(11);
    const int shapes[][4] = {{300, 290, 290, 300}, {131, 77, 70, 140}, {64, 64, 64, 64}, {17, 200, 201, 18},
                             {200, 150, 140, 210}, {420, 300, 300, 420}};
    for (int pitch : {512, 517})
        for (int offset : {0, 5, 16, 48})
            for (const auto& sh : shapes)
                for (int angle : {90, -90})
                    for (int t : {SByte, UByte})
                        on_every_path([&](int path) {
                            Raster in(sh[0], sh[1], pitch, (3 * offset) % 64, rng);
                            Raster out(sh[2], sh[3], pitch, offset, rng), want(out);
                            reference(in, want, angle);
                            ASSERT_EQ(kRotate[t](in.p(), out.p(), angle, sh[0], sh[1], sh[2], sh[3]), 0);
                            ASSERT_EQ(out.buf, want.buf) << "pitch " << pitch << " offset " << offset << " shape "
                                                         << &sh - shapes << " angle " << angle << " path " << path;
                        });
    EXPECT_TRUE(got().empty());
}

// From about 2 MiB a side each unit fetches the next one's lines while it is
// written; the rows, a power of two apart and starting 16 bytes into a line,
// give units cut at every kind of line start.
TEST_F(Rotate, LargeBytesMatchThePixelReference) {
    std::mt19937 rng(12);
    for (int angle : {90, -90})
        on_every_path([&](int path) {
            Raster in(1504, 1480, 2048, 16, rng);
            Raster out(1480, 1504, 2048, 16, rng), want(out);
            reference(in, want, angle);
            ASSERT_EQ(QXyRotateImage(in.p(), out.p(), angle, 1504, 1480, 1480, 1504), 0);
            ASSERT_EQ(out.buf, want.buf) << "angle " << angle << " path " << path;
        });
    EXPECT_TRUE(got().empty());
}
