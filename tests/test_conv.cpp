// Mask convolution against a straightforward per-pixel reference, for every
// combination of image, mask and output type, scaling mode and region.
#include <cstdint>
#include <random>
#include <vector>

#include "kvx_test.h"

using kvxtest::FailAllocation;
using kvxtest::LibTest;
using kvxtest::Rep;

namespace {

class Convolve : public LibTest {};

enum Type { SByte = 0, Nibble = 1, UByte = 2, Bit = 3 };

// A packed image whose rows are exactly sized blocks of their own.
struct Image {
    int type, rows, cols;
    std::vector<std::vector<std::uint8_t>> data;
    std::vector<void*> ptrs;

    Image(int t, int r, int c, std::mt19937& rng) : type(t), rows(r), cols(c), data(r), ptrs(r) {
        const int bytes = t == Bit ? (c + 7) / 8 : t == Nibble ? (c + 1) / 2 : c;
        for (int i = 0; i < r; ++i) {
            data[i].resize(bytes);
            for (auto& b : data[i])
                b = static_cast<std::uint8_t>(rng());
            ptrs[i] = data[i].data();
        }
    }
    int get(int r, int c) const {
        const auto& row = data[r];
        switch (type) {
        case SByte: return static_cast<signed char>(row[c]);
        case Nibble: return c % 2 == 0 ? row[c / 2] >> 4 : row[c / 2] & 15;
        case UByte: return row[c];
        default: return (row[c / 8] >> (7 - c % 8)) & 1;
        }
    }
    void set(int r, int c, std::uint32_t v) {
        auto& row = data[r];
        switch (type) {
        case Nibble:
            v &= 15;
            row[c / 2] = static_cast<std::uint8_t>(c % 2 == 0 ? (row[c / 2] & 0x0F) | (v << 4) : (row[c / 2] & 0xF0) | v);
            break;
        case Bit:
            v &= 1;
            row[c / 8] = static_cast<std::uint8_t>((row[c / 8] & ~(0x80 >> c % 8)) | (v << (7 - c % 8)));
            break;
        default: row[c] = static_cast<std::uint8_t>(v);
        }
    }
    void* p() { return ptrs.data(); }
};

struct Mask {
    int type, rows, cols;
    std::vector<std::vector<short>> s;
    std::vector<std::vector<signed char>> b;
    std::vector<void*> ptrs;

    Mask(int t, int r, int c, std::mt19937& rng, int range) : type(t), rows(r), cols(c), s(r), b(r), ptrs(r) {
        std::uniform_int_distribution<int> d(-range, range);
        for (int i = 0; i < r; ++i) {
            s[i].resize(c);
            b[i].resize(c);
            for (int k = 0; k < c; ++k) {
                s[i][k] = static_cast<short>(d(rng));
                b[i][k] = static_cast<signed char>(d(rng));
            }
            ptrs[i] = t == 0 ? static_cast<void*>(b[i].data()) : static_cast<void*>(s[i].data());
        }
    }
    double at(int i, int k) const { return type == 0 ? b[i][k] : s[i][k]; }
    void fill(int v) {
        for (int i = 0; i < rows; ++i)
            for (int k = 0; k < cols; ++k)
                s[i][k] = static_cast<short>(v), b[i][k] = static_cast<signed char>(v);
    }
    void* p() { return ptrs.data(); }
};

// The reference: one pixel at a time, zero padding, anchor at floor(n/2).
void reference(const Image& in, const Mask& m, Image& out, const QXRegion& g, int doScale, int sf) {
    const int lo[4] = {-128, 0, 0, 0}, hi[4] = {127, 15, 255, 1};
    for (int r = g.leftTopRow; r <= g.rightBotRow; ++r)
        for (int c = g.leftTopCol; c <= g.rightBotCol; ++c) {
            double sum = 0;
            for (int i = 0; i < m.rows; ++i)
                for (int k = 0; k < m.cols; ++k) {
                    const int rr = r - m.rows / 2 + i, cc = c - m.cols / 2 + k;
                    if (rr >= 0 && rr < in.rows && cc >= 0 && cc < in.cols)
                        sum += m.at(i, k) * in.get(rr, cc);
                }
            auto v = static_cast<std::int32_t>(static_cast<std::uint32_t>(static_cast<std::int64_t>(sum)));
            if (doScale == 1)
                v = sf >= 0 ? v >> (sf & 31) : static_cast<std::int32_t>(static_cast<std::uint32_t>(v) << (-sf & 31));
            if (doScale == 3)
                v = std::min(std::max(v, lo[out.type]), hi[out.type]);
            out.set(r, c, static_cast<std::uint32_t>(v));
        }
}

}  // namespace

TEST_F(Convolve, SmallExamples) {
    std::mt19937 rng(1);
    Image in(UByte, 1, 2, rng), out(UByte, 1, 2, rng);
    in.data[0] = {200, 60};
    Mask two(0, 1, 1, rng, 0);
    two.fill(2);
    int sf = 9;
    EXPECT_EQ(QXMaskConvolve(in.p(), two.p(), out.p(), UByte, 0, UByte, 1, 2, 1, 1, nullptr, 0, &sf), 0);
    EXPECT_EQ(out.data[0], (std::vector<std::uint8_t>{144, 120}));
    EXPECT_EQ(sf, 0);
    QXMaskConvolve(in.p(), two.p(), out.p(), UByte, 0, UByte, 1, 2, 1, 1, nullptr, 3, &sf);
    EXPECT_EQ(out.data[0], (std::vector<std::uint8_t>{255, 120}));

    // Ones on tens: zero padding makes corners 40 and edges 60.
    Image tens(UByte, 3, 3, rng), o3(UByte, 3, 3, rng);
    for (auto& row : tens.data)
        row = {10, 10, 10};
    Mask ones(1, 3, 3, rng, 0);
    ones.fill(1);
    sf = 5;
    QXMaskConvolve(tens.p(), ones.p(), o3.p(), UByte, 1, UByte, 3, 3, 3, 3, nullptr, 2, &sf);
    EXPECT_EQ(o3.data, (std::vector<std::vector<std::uint8_t>>{{40, 60, 40}, {60, 90, 60}, {40, 60, 40}}));
    EXPECT_EQ(sf, 0);  // doScale 2 chooses nothing here

    // A 2x2 mask anchors at (1, 1): out(r, c) sums rows r-1..r, columns c-1..c.
    Image seq(UByte, 2, 2, rng), o2(UByte, 2, 2, rng);
    seq.data = {{1, 2}, {4, 8}};
    Mask quad(0, 2, 2, rng, 0);
    quad.fill(1);
    QXMaskConvolve(seq.p(), quad.p(), o2.p(), UByte, 0, UByte, 2, 2, 2, 2, nullptr, 0, &sf);
    EXPECT_EQ(o2.data, (std::vector<std::vector<std::uint8_t>>{{1, 3}, {5, 15}}));

    // Bit output keeps the parity unless saturated.
    Image bits(UByte, 1, 2, rng), ob(Bit, 1, 2, rng);
    bits.data[0] = {3, 2};
    Mask one(0, 1, 1, rng, 0);
    one.fill(1);
    QXMaskConvolve(bits.p(), one.p(), ob.p(), UByte, 0, Bit, 1, 2, 1, 1, nullptr, 0, &sf);
    EXPECT_EQ(ob.data[0][0] >> 6, 0b10);
    QXMaskConvolve(bits.p(), one.p(), ob.p(), UByte, 0, Bit, 1, 2, 1, 1, nullptr, 3, &sf);
    EXPECT_EQ(ob.data[0][0] >> 6, 0b11);

    // doScale 1 shifts arithmetically and keeps the factor: -7 >> 2 = -2.
    Image neg(SByte, 1, 1, rng), on(SByte, 1, 1, rng);
    neg.data[0] = {static_cast<std::uint8_t>(-7)};
    sf = 2;
    QXMaskConvolve(neg.p(), one.p(), on.p(), SByte, 0, SByte, 1, 1, 1, 1, nullptr, 1, &sf);
    EXPECT_EQ(static_cast<signed char>(on.data[0][0]), -2);
    EXPECT_EQ(sf, 2);
    EXPECT_TRUE(got().empty());
}

TEST_F(Convolve, EveryTypeCombinationMatchesThePixelReference) {
    std::mt19937 rng(11);
    const int masks[][2] = {{1, 1}, {2, 2}, {3, 3}, {3, 4}, {5, 5}, {2, 5}, {7, 1}};
    int cases = 0;
    for (int it = 0; it < 4; ++it)
        for (int mt = 0; mt < 2; ++mt)
            for (int ot = 0; ot < 4; ++ot)
                for (int doScale : {0, 1, 2, 3}) {
                    const auto& ms = masks[cases++ % 7];
                    const int rows = 6 + static_cast<int>(rng() % 12), cols = 5 + static_cast<int>(rng() % 40);
                    Image in(it, rows, cols, rng), out(ot, rows, cols, rng);
                    // Short masks reach past 2^24 and take the double sums.
                    Mask m(mt, ms[0], ms[1], rng, mt == 0 ? 127 : 32767);
                    int sf = doScale == 1 ? static_cast<int>(rng() % 20) - 6 : 0;
                    for (bool whole : {true, false}) {
                        QXRegion g{0, 0, rows - 1, cols - 1};
                        if (!whole)
                            g = {1 + static_cast<int>(rng() % 3), static_cast<int>(rng() % 3), rows - 2,
                                 cols - 1 - static_cast<int>(rng() % 2)};
                        Image want = out;
                        reference(in, m, want, g, doScale, sf);
                        int f = sf;
                        ASSERT_EQ(QXMaskConvolve(in.p(), m.p(), out.p(), it, mt, ot, rows, cols, ms[0], ms[1],
                                                 whole ? nullptr : &g, doScale, &f),
                                  0);
                        ASSERT_EQ(out.data, want.data) << "image " << it << " mask " << mt << " out " << ot
                                                       << " doScale " << doScale << " mask " << ms[0] << "x" << ms[1];
                        EXPECT_EQ(f, doScale == 1 ? sf : 0);
                    }
                }
    EXPECT_TRUE(got().empty());
}

TEST_F(Convolve, InteriorAndBorderAgreeOnLargeImagesAndHugeSums) {
    std::mt19937 rng(5);
    // Wide rows run the interior in several pieces; a mask larger than the
    // image leaves only the border path.
    struct Case { int rows, cols, mr, mc, range; };
    for (const Case c : {Case{9, 1200, 3, 3, 127}, Case{40, 40, 5, 5, 127}, Case{4, 3, 9, 7, 127},
                         Case{5, 310, 1, 300, 32767}}) {
        Image in(UByte, c.rows, c.cols, rng), out(UByte, c.rows, c.cols, rng);
        Mask m(1, c.mr, c.mc, rng, c.range);
        if (c.mc == 300) {
            m.fill(-32768);  // sums of about -2.5e9 wrap in the low 32 bits
            for (auto& row : in.data)
                std::fill(row.begin(), row.end(), 255);
        }
        Image want = out;
        reference(in, m, want, QXRegion{0, 0, c.rows - 1, c.cols - 1}, 0, 0);
        int sf = 0;
        ASSERT_EQ(QXMaskConvolve(in.p(), m.p(), out.p(), UByte, 1, UByte, c.rows, c.cols, c.mr, c.mc, nullptr, 0, &sf), 0);
        EXPECT_EQ(out.data, want.data) << c.rows << "x" << c.cols;
    }
}

TEST_F(Convolve, ChecksInOrder) {
    int sf = 0;
    EXPECT_EQ(QXMaskConvolve(nullptr, nullptr, nullptr, -1, -1, -1, 0, 0, 0, 0, nullptr, -1, nullptr), -5);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXMaskConvolve", "image==0"},
                                      {-5, "QXMaskConvolve", "mask==0"},
                                      {-5, "QXMaskConvolve", "outImage==0"},
                                      {-5, "QXMaskConvolve", "imageDataType<0"},
                                      {-5, "QXMaskConvolve", "maskDataType<0"},
                                      {-5, "QXMaskConvolve", "outDataType<0"},
                                      {-5, "QXMaskConvolve", "nImageRows<=0"},
                                      {-5, "QXMaskConvolve", "nImageCols<=0"},
                                      {-5, "QXMaskConvolve", "nMaskRows<=0"},
                                      {-5, "QXMaskConvolve", "nMaskCols<=0"},
                                      {-5, "QXMaskConvolve", "doScale<0"},
                                      {-5, "QXMaskConvolve", "scaleFactor==0"}}));
    for (auto& r : kvxtest::reports())
        EXPECT_TRUE(kvxtest::names_raising_line(r));
    clear();

    std::mt19937 rng(2);
    Image in(UByte, 4, 4, rng), out(UByte, 4, 4, rng);
    Mask m(0, 3, 3, rng, 5);
    const auto before = out.data;
    sf = 65;
    QXRegion bad{-1, -1, 4, 4};
    EXPECT_EQ(QXMaskConvolve(in.p(), m.p(), out.p(), 4, 2, 4, 4, 4, 3, 3, &bad, 1, &sf), -5);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXMaskConvolve", "imageDataType>3"},
                                      {-5, "QXMaskConvolve", "maskDataType>1"},
                                      {-5, "QXMaskConvolve", "outDataType>3"},
                                      {-5, "QXMaskConvolve", "*scaleFactor>64"},
                                      {-5, "QXMaskConvolve", "convolveRegion->leftTopRow < 0"},
                                      {-5, "QXMaskConvolve", "convolveRegion->leftTopCol < 0"},
                                      {-5, "QXMaskConvolve", "convolveRegion->rightBotRow >= nImageRows"},
                                      {-5, "QXMaskConvolve", "convolveRegion->rightBotCol >= nImageCols"}}));
    clear();
    sf = -65;
    QXRegion crossed{2, 3, 1, 2};
    QXMaskConvolve(in.p(), m.p(), out.p(), UByte, 0, UByte, 4, 4, 3, 3, &crossed, 1, &sf);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXMaskConvolve", "*scaleFactor<-64"},
                                      {-5, "QXMaskConvolve", "convolveRegion->leftTopRow > convolveRegion->rightBotRow"},
                                      {-5, "QXMaskConvolve", "convolveRegion->leftTopCol > convolveRegion->rightBotCol"}}));
    for (auto& r : kvxtest::reports())
        EXPECT_TRUE(kvxtest::names_raising_line(r));
    clear();

    // The factor's range matters only for doScale 1; a pending error stops the call.
    sf = 99;
    EXPECT_EQ(QXMaskConvolve(in.p(), m.p(), out.p(), UByte, 0, UByte, 4, 4, 3, 3, nullptr, 3, &sf), 0);
    EXPECT_TRUE(got().empty());
    const auto done = out.data;
    out.data = before;
    QXSetStatus(-4);
    EXPECT_EQ(QXMaskConvolve(in.p(), m.p(), out.p(), UByte, 0, UByte, 4, 4, 3, 3, nullptr, 0, &sf), -4);
    EXPECT_EQ(out.data, before);
    EXPECT_NE(done, before);
}

TEST_F(Convolve, MemoryFailuresRaiseATraceRecord) {
    std::mt19937 rng(4);
    Image in(UByte, 6, 6, rng), out(UByte, 6, 6, rng);
    Mask m(0, 3, 3, rng, 9);
    const auto before = out.data;
    struct Case {
        long nth;
        Rep first;
        bool leaksPointerArray;
    };
    const Case cases[] = {
        {1, {-4, "QXsAllocTable", "The pointers vector can not be allocated"}, false},
        {2, {-4, "QXsAllocTable", "2D array vector can not be allocated"}, true},
        {3, {-4, "QXsAlloc2", "The pointers vector can not be allocated"}, false},
        {5, {-4, "QXsAlloc2", "Current vector can not be allocated"}, false},
    };
    for (const Case& c : cases) {
        const long live = qx::testing::live_blocks();
        void* leaked = nullptr;
        int sf = 0;
        {
            FailAllocation fail(c.nth);
            EXPECT_EQ(QXMaskConvolve(in.p(), m.p(), out.p(), UByte, 0, UByte, 6, 6, 3, 3, nullptr, 0, &sf), -1);
            if (c.leaksPointerArray)
                leaked = qx::testing::last_allocation();
        }
        EXPECT_EQ(got(), (std::vector<Rep>{c.first, {-1, "QXMaskConvolve", ""}})) << c.nth;
        EXPECT_TRUE(kvxtest::names_raising_line(kvxtest::reports().back()));
        qx::free(leaked);  // the table allocator's documented leak
        EXPECT_EQ(qx::testing::live_blocks(), live);
        EXPECT_EQ(out.data, before);
        clear();
    }
}
