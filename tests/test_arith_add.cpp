// Addition and subtraction of nibble, byte, short and float vectors.
#include <cstdint>
#include <vector>

#include "test_arith_reference.h"

using arithref::Op;
using kvxtest::LibTest;
using kvxtest::Rep;

namespace {

class AddSub : public LibTest {};

const arithref::Forms<unsigned char> kYAdd{"QXybAdd2", QXybAdd2, "QXybAdd3", QXybAdd3, "QXybAdd2s", QXybAdd2s};
const arithref::Forms<signed char> kTAdd{"QXtbAdd2", QXtbAdd2, "QXtbAdd3", QXtbAdd3, "QXtbAdd2s", QXtbAdd2s};
const arithref::Forms<short> kWAdd{"QXwbAdd2", QXwbAdd2, "QXwbAdd3", QXwbAdd3, "QXwbAdd2s", QXwbAdd2s};
const arithref::Forms<unsigned char> kYSub{"QXybSub2", QXybSub2, "QXybSub3", QXybSub3, "QXybSub2s", QXybSub2s};
const arithref::Forms<signed char> kTSub{"QXtbSub2", QXtbSub2, "QXtbSub3", QXtbSub3, "QXtbSub2s", QXtbSub2s};
const arithref::Forms<short> kWSub{"QXwbSub2", QXwbSub2, "QXwbSub3", QXwbSub3, "QXwbSub2s", QXwbSub2s};

}  // namespace

TEST_F(AddSub, BytesAndShortsMatchTheReferenceInEveryMode) {
    arithref::checkAgainstReference(Op::add, arithref::kU8, kYAdd, 1);
    arithref::checkAgainstReference(Op::add, arithref::kS8, kTAdd, 2);
    arithref::checkAgainstReference(Op::add, arithref::kS16, kWAdd, 3);
    arithref::checkAgainstReference(Op::sub, arithref::kU8, kYSub, 4);
    arithref::checkAgainstReference(Op::sub, arithref::kS8, kTSub, 5);
    arithref::checkAgainstReference(Op::sub, arithref::kS16, kWSub, 6);
}

TEST_F(AddSub, NibblesMatchTheReferenceAndKeepTheirNeighbours) {
    arithref::checkNibbles(Op::add, {"QXnbAdd2", QXnbAdd2, "QXnbAdd3", QXnbAdd3, "QXnbAdd2s", QXnbAdd2s}, 11);
    arithref::checkNibbles(Op::sub, {"QXnbSub2", QXnbSub2, "QXnbSub3", QXnbSub3, "QXnbSub2s", QXnbSub2s}, 12);
}

TEST_F(AddSub, DocumentedAdditionCases) {
    int sf = 7;
    unsigned char y[3] = {200, 10, 11}, ys[3] = {100, 20, 1};
    EXPECT_EQ(QXybAdd2(ys, y, 1, 0, &sf), -20);
    EXPECT_EQ(y[0], 44);
    EXPECT_EQ(sf, 0);
    EXPECT_EQ(got(), (std::vector<Rep>{{-20, "QXybAdd2", ""}}));
    for (const auto& r : kvxtest::reports()) EXPECT_TRUE(kvxtest::names_raising_line(r));
    clear();
    y[0] = 200;
    QXybAdd2(ys, y, 1, 3, &sf);
    EXPECT_EQ(y[0], 255);
    y[0] = 200;
    sf = 5;
    QXybAdd2(ys, y, 3, 2, &sf);  // 300 halves everything: 150, 15, 6
    EXPECT_EQ(y[0], 150);
    EXPECT_EQ(y[1], 15);
    EXPECT_EQ(y[2], 6);
    EXPECT_EQ(sf, 1);

    signed char t[1] = {-100}, ts[1] = {-100};
    EXPECT_EQ(QXtbAdd2(ts, t, 1, 0, &sf), -21);
    EXPECT_EQ(t[0], 56);
    EXPECT_EQ(got(), (std::vector<Rep>{{-21, "QXtbAdd2", ""}}));
    clear();
    t[0] = -100;
    QXtbAdd2(ts, t, 1, 3, &sf);
    EXPECT_EQ(t[0], -128);

    // Overflow and underflow in one call: -20 first.
    short w[2] = {30000, -30000}, ws[2] = {30000, -30000};
    QXwbAdd2(ws, w, 2, 0, &sf);
    EXPECT_EQ(got(), (std::vector<Rep>{{-20, "QXwbAdd2", ""}, {-21, "QXwbAdd2", ""}}));
    clear();

    unsigned char a[2] = {7, 200}, b[2] = {9, 100}, d[2];
    sf = 2;
    QXybAdd3(a, b, d, 1, 1, &sf);
    EXPECT_EQ(d[0], 4);
    EXPECT_EQ(sf, 2);  // unchanged in fixed-shift mode
    sf = -1;
    QXybAdd3(a + 1, b + 1, d, 1, 1, &sf);
    EXPECT_EQ(d[0], 88);
    sf = 33;  // counts modulo 32: a shift by one
    QXybAdd3(a, b, d, 1, 1, &sf);
    EXPECT_EQ(d[0], 8);
    EXPECT_TRUE(got().empty());
}

TEST_F(AddSub, DocumentedSubtractionCases) {
    int sf = 9;
    unsigned char y[1] = {3}, ys[1] = {5};
    QXybSub2(ys, y, 1, 2, &sf);
    EXPECT_EQ(y[0], 0);
    EXPECT_EQ(sf, 0);
    y[0] = 3;
    EXPECT_EQ(QXybSub2(ys, y, 1, 0, &sf), -21);
    EXPECT_EQ(y[0], 254);
    EXPECT_EQ(got(), (std::vector<Rep>{{-21, "QXybSub2", ""}}));
    clear();

    signed char t[3] = {-100, 40, -7}, ts[3] = {100, 2, 0};
    QXtbSub2(ts, t, 3, 2, &sf);
    EXPECT_EQ(t[0], -100);
    EXPECT_EQ(t[1], 19);
    EXPECT_EQ(t[2], -4);  // arithmetic halving
    EXPECT_EQ(sf, 1);

    unsigned char a[1] = {10}, b[1] = {30}, d[1];
    QXybSub3(a, b, d, 1, 0, &sf);
    EXPECT_EQ(d[0], 20);

    short w[2] = {-32768, 5};
    QXwbSub2s(1, w, 2, 3, &sf);
    EXPECT_EQ(w[0], -32768);
    EXPECT_EQ(w[1], 4);

    // Unsigned fixed shift: the negative difference is shifted arithmetically.
    unsigned char u[1] = {3};
    sf = 1;
    QXybSub2s(7, u, 1, 1, &sf);  // (3 - 7) >> 1 = -2, stored as 254
    EXPECT_EQ(u[0], 254);
    unsigned char nb[1] = {0x35};
    sf = 0;
    EXPECT_EQ(QXnbSub2s(5, nb, 1, 1, 0, &sf), -21);  // 3 - 5 wraps to 14; low nibble kept
    EXPECT_EQ(nb[0], 0xE5);
    clear();
}

TEST_F(AddSub, UnsignedSubtractionRunsBackwardOverOverlappingVectors) {
    // srcDst[k] -= src[k] with src one element ahead of srcDst: run from the
    // last element down, every element reads its neighbour's new value.
    unsigned char v[5] = {50, 40, 30, 20, 10};
    int sf = 0;
    QXybSub2(v + 1, v, 4, 3, &sf);
    // k = 3: 20 - 10 = 10; k = 2: 30 - 10 = 20; k = 1: 40 - 20 = 20; k = 0: 50 - 20 = 30.
    EXPECT_EQ(std::vector<int>(v, v + 5), (std::vector<int>{30, 20, 20, 10, 10}));
}

TEST_F(AddSub, FloatForms) {
    float a[5] = {1.5f, -2, 3, 4, 5}, b[5] = {10, 20, 30, 40, 50}, d[6] = {0, 0, 0, 0, 0, -1};
    QXsbAdd3(a, b, d, 5);
    for (int k = 0; k < 5; ++k) EXPECT_EQ(d[k], a[k] + b[k]);
    QXsbSub3(a, b, d, 5);
    for (int k = 0; k < 5; ++k) EXPECT_EQ(d[k], b[k] - a[k]);
    EXPECT_EQ(d[5], -1);
    float c[5];
    std::copy(b, b + 5, c);
    QXsbSub2(a, c, 5);
    for (int k = 0; k < 5; ++k) EXPECT_EQ(c[k], b[k] - a[k]);
    QXsbAdd2(a, c, 5);
    for (int k = 0; k < 5; ++k) EXPECT_EQ(c[k], b[k] - a[k] + a[k]);
    QXsbAdd2s(0.25f, c, 5);
    QXsbSub2s(1.0f, c, 5);
    for (int k = 0; k < 5; ++k) EXPECT_EQ(c[k], b[k] - a[k] + a[k] + 0.25f - 1.0f);
    EXPECT_TRUE(got().empty());
}

TEST_F(AddSub, ChecksRunInOrderAndStopTheWork) {
    int sf = 65;
    unsigned char v[2] = {1, 2};
    EXPECT_EQ(QXybAdd2(nullptr, nullptr, 0, 1, &sf), -5);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXybAdd2", "*scaleFactor>64"}, {-5, "QXybAdd2", "n<=0"},
                                       {-5, "QXybAdd2", "src==0"}, {-5, "QXybAdd2", "dst==0"}}));
    clear();
    sf = -65;
    QXtbSub3(nullptr, nullptr, nullptr, -1, 1, &sf);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXtbSub3", "*scaleFactor<-64"}, {-5, "QXtbSub3", "n<=0"},
                                       {-5, "QXtbSub3", "srcA==0"}, {-5, "QXtbSub3", "srcB==0"},
                                       {-5, "QXtbSub3", "dst==0"}}));
    clear();
    QXwbAdd2s(1, nullptr, 0, 4, nullptr);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXwbAdd2s", "doScale>3"}, {-5, "QXwbAdd2s", "scaleFactor==0"},
                                       {-5, "QXwbAdd2s", "n<=0"}, {-5, "QXwbAdd2s", "dst==0"}}));
    clear();
    sf = 99;  // not checked outside fixed-shift mode
    QXybSub2s(1, nullptr, 3, -1, &sf);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXybSub2s", "doScale<0"}, {-5, "QXybSub2s", "dst==0"}}));
    clear();
    QXnbAdd3(nullptr, v, v, -1, 2, 0, 0, &sf);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXnbAdd3", "srcStartPos<0"}, {-5, "QXnbAdd3", "dstStartPos>1"},
                                       {-5, "QXnbAdd3", "n<=0"}, {-5, "QXnbAdd3", "srcA==0"}}));
    clear();
    QXnbSub2(v, nullptr, 2, -1, 1, 0, nullptr);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXnbSub2", "srcStartPos>1"}, {-5, "QXnbSub2", "dstStartPos<0"},
                                       {-5, "QXnbSub2", "scaleFactor==0"}, {-5, "QXnbSub2", "dst==0"}}));
    clear();
    QXnbAdd2s(1, v, 2, 1, 0, nullptr);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXnbAdd2s", "dstStartPos>1"}, {-5, "QXnbAdd2s", "scaleFactor==0"}}));
    clear();
    float fv[1] = {0};
    QXsbSub3(nullptr, fv, nullptr, 0);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsbSub3", "n<=0"}, {-5, "QXsbSub3", "srcA==0"},
                                       {-5, "QXsbSub3", "dst==0"}}));
    for (const auto& r : kvxtest::reports()) EXPECT_TRUE(kvxtest::names_raising_line(r));
    clear();

    // n = 0 writes nothing; a pending error stops a valid call too.
    sf = 0;
    QXybAdd2s(1, v, 0, 0, &sf);
    EXPECT_EQ(v[0], 1);
    clear();
    QXSetStatus(-4);
    EXPECT_EQ(QXybAdd2s(1, v, 2, 0, &sf), -4);
    EXPECT_EQ(v[0], 1);
    EXPECT_EQ(v[1], 2);
}
