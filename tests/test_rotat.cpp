// Image rotation: every pixel type and angle against a per-pixel reference of
// the centring and cropping rules, with untouched margins and neighbour bits.
#include <cstdint>
#include <random>
#include <vector>

#include "kvx_test.h"

using kvxtest::LibTest;
using kvxtest::Rep;

namespace {

class Rotate : public LibTest {};

enum Type { Bit, Nibble, Byte, SByte };

// An image of packed rows, each its own exactly sized block (ASan watches the ends).
struct Image {
    Type type;
    int rows, cols;
    std::vector<std::vector<std::uint8_t>> data;
    std::vector<std::uint8_t*> ptrs;

    Image(Type t, int r, int c, std::mt19937& rng) : type(t), rows(r), cols(c), data(r), ptrs(r) {
        const int bytes = t == Bit ? (c + 7) / 8 : t == Nibble ? (c + 1) / 2 : c;
        for (int i = 0; i < r; ++i) {
            data[i].resize(bytes);
            for (auto& b : data[i])
                b = static_cast<std::uint8_t>(rng());
            ptrs[i] = data[i].data();
        }
    }
    unsigned get(int r, int c) const {
        const auto& row = data[r];
        switch (type) {
        case Bit: return (row[c / 8] >> (7 - c % 8)) & 1;
        case Nibble: return c % 2 == 0 ? row[c / 2] >> 4 : row[c / 2] & 15;
        default: return row[c];
        }
    }
    void set(int r, int c, unsigned v) {
        auto& row = data[r];
        switch (type) {
        case Bit: row[c / 8] = static_cast<std::uint8_t>((row[c / 8] & ~(0x80 >> c % 8)) | (v << (7 - c % 8))); break;
        case Nibble:
            row[c / 2] = static_cast<std::uint8_t>(c % 2 == 0 ? (row[c / 2] & 0x0F) | (v << 4) : (row[c / 2] & 0xF0) | v);
            break;
        default: row[c] = static_cast<std::uint8_t>(v);
        }
    }
    unsigned char** p() { return ptrs.data(); }
};

int call(Type t, Image& in, Image& out, int angle, int inR, int inC, int outR, int outC) {
    switch (t) {
    case Bit: return QXbRotateImage(in.p(), out.p(), angle, inR, inC, outR, outC);
    case Nibble: return QXnRotateImage(in.p(), out.p(), angle, inR, inC, outR, outC);
    case Byte: return QXyRotateImage(in.p(), out.p(), angle, inR, inC, outR, outC);
    default:
        return QXtRotateImage(reinterpret_cast<signed char**>(in.p()), reinterpret_cast<signed char**>(out.p()), angle,
                              inR, inC, outR, outC);
    }
}

// The reference: the centring rule written out per pixel.
void reference(const Image& in, Image& out, int angle) {
    const int iR = in.rows, iC = in.cols, oR = out.rows, oC = out.cols;
    if (angle == 180) {
        const int H = std::min(iR, oR), W = std::min(iC, oC);
        const int OR0 = iR <= oR ? (oR - iR) / 2 : 0, R0 = iR <= oR ? 0 : (iR - oR) / 2;
        const int OC0 = oC >= iC ? (oC - iC) / 2 : 0, C0 = oC >= iC ? 0 : (iC - oC) / 2;
        for (int m = 0; m < H; ++m)
            for (int k = 0; k < W; ++k)
                out.set(OR0 + H - 1 - m, OC0 + k, in.get(R0 + m, C0 + W - 1 - k));
        return;
    }
    const int H = std::min(iR, oC), W = std::min(iC, oR);
    const int OC0 = iR <= oC ? (oC - iR) / 2 : 0, R0 = iR > oC ? (iR - oC) / 2 : 0;
    const int OR0 = oR >= iC ? (oR - iC) / 2 : 0, C0 = oR < iC ? (iC - oR) / 2 : 0;
    for (int m = 0; m < H; ++m)
        for (int k = 0; k < W; ++k) {
            if (angle == 90)
                out.set(OR0 + W - 1 - k, OC0 + m, in.get(R0 + m, C0 + k));
            else
                out.set(OR0 + k, OC0 + m, in.get(R0 + H - 1 - m, C0 + k));
        }
}

}  // namespace

TEST_F(Rotate, SmallByteExamples) {
    std::mt19937 rng(1);
    Image in(Byte, 2, 3, rng);
    for (int c = 0; c < 3; ++c) {
        in.set(0, c, 1 + c);
        in.set(1, c, 4 + c);
    }
    Image out(Byte, 3, 2, rng);
    EXPECT_EQ(QXyRotateImage(in.p(), out.p(), 90, 2, 3, 3, 2), 0);
    EXPECT_EQ(out.data, (std::vector<std::vector<std::uint8_t>>{{3, 6}, {2, 5}, {1, 4}}));
    EXPECT_EQ(QXyRotateImage(in.p(), out.p(), -90, 2, 3, 3, 2), 0);
    EXPECT_EQ(out.data, (std::vector<std::vector<std::uint8_t>>{{4, 1}, {5, 2}, {6, 3}}));
    Image half(Byte, 2, 3, rng);
    QXyRotateImage(in.p(), half.p(), 180, 2, 3, 2, 3);
    EXPECT_EQ(half.data, (std::vector<std::vector<std::uint8_t>>{{6, 5, 4}, {3, 2, 1}}));

    // 2x2 into 4x4 lands in rows and columns 1..2; the twelve others keep their values.
    Image big(Byte, 4, 4, rng);
    const auto before = big.data;
    QXyRotateImage(in.p(), big.p(), 180, 2, 2, 4, 4);
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) {
            const bool inside = r >= 1 && r <= 2 && c >= 1 && c <= 2;
            if (!inside) {
                EXPECT_EQ(big.data[r][c], before[r][c]);
            }
        }
    EXPECT_EQ(big.data[1][1], 5);
    EXPECT_EQ(big.data[2][2], 1);

    // 4x4 into 2x2 takes input rows and columns 1..2.
    Image src(Byte, 4, 4, rng), small(Byte, 2, 2, rng);
    QXyRotateImage(src.p(), small.p(), 180, 4, 4, 2, 2);
    EXPECT_EQ(small.data[0][0], src.data[2][2]);
    EXPECT_EQ(small.data[1][1], src.data[1][1]);
    EXPECT_EQ(small.data[0][1], src.data[2][1]);
    EXPECT_TRUE(got().empty());
}

TEST_F(Rotate, EveryTypeAndAngleMatchesThePixelReference) {
    std::mt19937 rng(7);
    // (input rows, cols, output rows, cols): equal, larger, smaller, mixed, odd
    // and even differences, and sizes that leave ragged edges after whole tiles.
    const int shapes[][4] = {{1, 1, 1, 1},   {2, 3, 3, 2},   {5, 7, 9, 8},     {9, 8, 5, 7},   {16, 16, 16, 16},
                             {17, 33, 40, 18}, {37, 70, 50, 41}, {70, 37, 30, 90}, {64, 64, 80, 80}, {3, 90, 100, 2},
                             {100, 3, 2, 100}, {40, 24, 24, 40}, {0, 5, 5, 5},     {5, 5, 0, 3},
                             {130, 140, 150, 130}, {200, 136, 72, 72}, {131, 150, 141, 131}};
    for (Type t : {Bit, Nibble, Byte, SByte})
        for (int angle : {90, -90, 180})
            for (const auto& s : shapes) {
                Image in(t, s[0], s[1], rng), out(t, s[2], s[3], rng);
                Image want = out;
                reference(in, want, angle);
                ASSERT_EQ(call(t, in, out, angle, s[0], s[1], s[2], s[3]), 0);
                ASSERT_EQ(out.data, want.data) << "type " << t << " angle " << angle << " shape " << s[0] << "x"
                                               << s[1] << " -> " << s[2] << "x" << s[3];
            }
    EXPECT_TRUE(got().empty());
}

TEST_F(Rotate, StopsAtTheFirstFailedCheckAndReturnsTheHandlerResult) {
    std::mt19937 rng(3);
    Image in(Byte, 4, 4, rng), out(Byte, 4, 4, rng);
    const auto before = out.data;

    EXPECT_EQ(QXyRotateImage(in.p(), out.p(), 45, 4, 4, 4, 4), -5);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXyRotateImage", "((angle != 90) && (angle != -90) && (angle != 180))"}}));
    clear();

    // Negative sizes show only through the derived counts, first failure only.
    EXPECT_EQ(QXbRotateImage(in.p(), out.p(), 90, -1, -1, 4, 4), -5);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXbRotateImage", "nOutR<0"}}));
    clear();
    QXnRotateImage(in.p(), out.p(), -90, -1, 4, 4, 4);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXnRotateImage", "nOutC<0"}}));
    clear();
    QXtRotateImage(reinterpret_cast<signed char**>(in.p()), reinterpret_cast<signed char**>(out.p()), 180, 4, -2, 4, 4);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXtRotateImage", "nOutC<0"}}));
    clear();

    // Null rows among the used ones: the input's first, then the output's.
    in.ptrs[1] = nullptr;
    out.ptrs[2] = nullptr;
    EXPECT_EQ(QXyRotateImage(in.p(), out.p(), 180, 4, 4, 4, 4), -5);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXyRotateImage", "image[i]==0"}}));
    clear();
    in.ptrs[1] = in.data[1].data();
    EXPECT_EQ(QXyRotateImage(in.p(), out.p(), 90, 4, 4, 4, 4), -5);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXyRotateImage", "outImage[j]==0"}}));
    for (auto& r : kvxtest::reports())
        EXPECT_TRUE(kvxtest::names_raising_line(r));
    out.ptrs[2] = out.data[2].data();
    EXPECT_EQ(out.data, before);  // nothing written by any failed call
    clear();

    // Rows that the cropping leaves out may be null.
    Image tall(Byte, 8, 2, rng), box(Byte, 4, 2, rng);
    tall.ptrs[0] = tall.ptrs[7] = nullptr;
    EXPECT_EQ(QXyRotateImage(tall.p(), box.p(), 180, 8, 2, 4, 2), 0);
    EXPECT_TRUE(got().empty());
}

TEST_F(Rotate, WorksWhileAnErrorIsPending) {
    std::mt19937 rng(5);
    Image in(Byte, 3, 5, rng), out(Byte, 5, 3, rng);
    Image want = out;
    reference(in, want, -90);
    QXSetStatus(QX_StsBadArg);
    EXPECT_EQ(QXyRotateImage(in.p(), out.p(), -90, 3, 5, 5, 3), 0);
    EXPECT_EQ(out.data, want.data);
    EXPECT_EQ(QXGetStatus(), QX_StsBadArg);
}
