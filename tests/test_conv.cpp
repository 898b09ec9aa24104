// Mask convolution against a per-pixel reference on random images, for every
// combination of image, mask and output type, output mode and region, through
// both the fast interior and the bounds-tested border.
#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "kvx_test.h"
#include "test_packed_image.h"

using namespace kvxtest;

namespace {

class Convolve : public LibTest {};

// A mask of type 0 (signed char) or 1 (short) rows, values from gen().
struct Mask {
    int type, rows, cols;
    std::vector<std::vector<short>> s;
    std::vector<std::vector<signed char>> b;
    std::vector<void*> ptrs;
    template <class Gen>
    Mask(int t, int r, int c, Gen gen) : type(t), rows(r), cols(c), s(r), b(r) {
        for (int i = 0; i < r; ++i) {
            for (int k = 0; k < c; ++k)
                b[i].push_back(static_cast<signed char>(s[i].emplace_back(t ? gen() : gen() % 128)));
            ptrs.push_back(t ? static_cast<void*>(s[i].data()) : b[i].data());
        }
    }
};

int convolve(PackedImage& in, Mask& m, PackedImage& out, const QXRegion* g, int doScale, int* sf) {
    return QXMaskConvolve(in.p(), m.ptrs.data(), out.p(), in.type, m.type, out.type, in.rows, in.cols, m.rows, m.cols,
                          g, doScale, sf);
}

// One pixel at a time: zero padding, anchor at floor(n/2), no flip; the sum's
// low 32 bits, then the output mode, then the low bits the output type holds.
void reference(const PackedImage& in, const Mask& m, PackedImage& out, const QXRegion& g, int doScale, int sf) {
    const int lo[4] = {-128, 0, 0, 0}, hi[4] = {127, 15, 255, 1};
    for (int r = g.leftTopRow; r <= g.rightBotRow; ++r)
        for (int c = g.leftTopCol; c <= g.rightBotCol; ++c) {
            std::int64_t sum = 0;
            for (int i = 0; i < m.rows; ++i)
                for (int k = 0; k < m.cols; ++k) {
                    const int rr = r - m.rows / 2 + i, cc = c - m.cols / 2 + k;
                    if (rr >= 0 && rr < in.rows && cc >= 0 && cc < in.cols)
                        sum += m.s[i][k] * in.get(rr, cc);
                }
            auto v = static_cast<std::int32_t>(static_cast<std::uint32_t>(sum));
            if (doScale == 1)
                v = sf >= 0 ? v >> (sf & 31) : static_cast<std::int32_t>(static_cast<std::uint32_t>(v) << (-sf & 31));
            if (doScale == 3)
                v = std::clamp(v, lo[out.type], hi[out.type]);
            out.set(r, c, static_cast<std::uint32_t>(v));
        }
}

}  // namespace

TEST_F(Convolve, EveryTypeCombinationMatchesThePixelReference) {
    std::mt19937 rng(11);
    // The whole image, or a region with border rows and columns on either side.
    auto check = [&](PackedImage& in, Mask& m, int ot, int doScale, int sf, bool whole) {
        PackedImage out(ot, in.rows, in.cols, rng), want(out);
        QXRegion g{1 + int(rng() % 3), int(rng() % 3), in.rows - 2, in.cols - 1 - int(rng() % 2)};
        reference(in, m, want, whole ? QXRegion{0, 0, in.rows - 1, in.cols - 1} : g, doScale, sf);
        int f = sf;
        ASSERT_EQ(convolve(in, m, out, whole ? nullptr : &g, doScale, &f), 0);
        ASSERT_EQ(out.data, want.data) << in.type << m.type << ot << doScale << " " << m.rows << "x" << m.cols;
        EXPECT_EQ(f, doScale == 1 ? sf : 0);  // doScale 2 chooses nothing; only doScale 1 reads the factor
    };
    // Masks larger than some images leave only the border; some rows need
    // several runs of the interior. Short masks reach past 2^24 and take the double sums.
    const int masks[][2] = {{1, 1}, {2, 2}, {3, 3}, {3, 4}, {5, 5}, {2, 5}, {7, 1}, {9, 7}};
    int n = 0;
    for (int it = 0; it < 4; ++it)
        for (int mt = 0; mt < 2; ++mt)
            for (int ot = 0; ot < 4; ++ot)
                for (int doScale : {0, 1, 2, 3}) {
                    PackedImage in(it, 6 + int(rng() % 12), n % 16 ? 5 + int(rng() % 40) : 1100, rng);
                    const auto& ms = masks[n++ % 8];
                    Mask m(mt, ms[0], ms[1], [&] { return mt ? int(rng() % 65536) - 32768 : int(rng() % 255) - 127; });
                    for (bool whole : {true, false})
                        check(in, m, ot, doScale, int(rng() % 80) - 40, whole);
                }
    // Sums of about -2.5e9 wrap in the low 32 bits.
    PackedImage full(UByte, 5, 310, rng);
    Mask most(1, 1, 300, [] { return -32767; });
    for (auto& row : full.data)
        std::fill(row.begin(), row.end(), 255);
    check(full, most, UByte, 0, 0, true);

    // By hand: an even mask anchors at (1, 1) and is not flipped.
    PackedImage in(UByte, 2, 2, rng), out(UByte, 2, 2, rng);
    int v = 1, sf = 0;
    Mask m(0, 2, 2, [&] { return (v *= 2) / 2; });  // {{1, 2}, {4, 8}}
    for (unsigned q = 0; q < 4; ++q)
        in.set(q / 2, q % 2, 1u << q);
    convolve(in, m, out, nullptr, 0, &sf);
    EXPECT_EQ(out.data, (std::vector<std::vector<std::uint8_t>>{{8, 20}, {34, 85}}));
}

TEST_F(Convolve, ChecksAndQuirks) {
    EXPECT_EQ(QXMaskConvolve(nullptr, nullptr, nullptr, -1, -1, -1, 0, 0, 0, 0, nullptr, -1, nullptr), -5);
    std::mt19937 rng(2);
    PackedImage in(UByte, 6, 6, rng), out(UByte, 6, 6, rng);
    Mask m(0, 3, 3, [&] { return int(rng() % 19) - 9; });
    const auto before = out.data;
    int sf = 65;
    const QXRegion negative{-1, -1, -2, -2}, beyond{7, 7, 6, 6};
    QXMaskConvolve(in.p(), m.ptrs.data(), out.p(), 4, 2, 4, 6, 6, 3, 3, &negative, 1, &sf);
    sf = -65;
    convolve(in, m, out, &beyond, 1, &sf);
    const std::string g = "convolveRegion->";
    const std::string x[] = {g + "leftTopRow > " + g + "rightBotRow", g + "leftTopCol > " + g + "rightBotCol"};
    const std::string texts[] = {"image==0", "mask==0", "outImage==0", "imageDataType<0", "maskDataType<0",
        "outDataType<0", "nImageRows<=0", "nImageCols<=0", "nMaskRows<=0", "nMaskCols<=0", "doScale<0",
        "scaleFactor==0", "imageDataType>3", "maskDataType>1", "outDataType>3", "*scaleFactor>64", g + "leftTopRow < 0",
        g + "leftTopCol < 0", x[0], x[1], "*scaleFactor<-64", g + "rightBotRow >= nImageRows",
        g + "rightBotCol >= nImageCols", x[0], x[1]};
    std::vector<Rep> want;
    for (const auto& t : texts)
        want.emplace_back(-5, "QXMaskConvolve", t);
    EXPECT_EQ(got(), want);
    EXPECT_TRUE(kvxtest::all_name_raising_lines());
    // A pending error is returned and nothing is written.
    EXPECT_EQ(convolve(in, m, out, nullptr, 0, &sf), -5);
    EXPECT_EQ(out.data, before);
    clear();

    // One pixel times a 1x1 mask: {image type, pixel, mask, output type, doScale, factor, output}. The
    // factor's range matters for doScale 1 only; bit outputs keep the parity unless saturated.
    const int cases[][7] = {{UByte, 200, 2, UByte, 2, 99, 144}, {UByte, 200, 2, UByte, 3, 99, 255},
                            {UByte, 2, 1, Bit, 0, 0, 0},        {UByte, 2, 1, Bit, 3, 0, 1},
                            {SByte, -7, 1, SByte, 1, 30, -1},   {Nibble, 9, -3, SByte, 3, 0, -27}};
    for (const auto& c : cases) {
        PackedImage in1(c[0], 1, 1, rng), out1(c[3], 1, 1, rng);
        in1.set(0, 0, static_cast<std::uint32_t>(c[1]));
        Mask m1(0, 1, 1, [&] { return c[2]; });
        sf = c[5];
        EXPECT_EQ(convolve(in1, m1, out1, nullptr, c[4], &sf), 0);
        EXPECT_EQ(out1.get(0, 0), c[6]) << c[1] << " " << c[4];
    }
    EXPECT_TRUE(got().empty());

}
