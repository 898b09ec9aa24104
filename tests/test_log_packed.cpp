// Packed bit and nibble vectors: Zero, Set, Copy, Not and and/or/xor against a
// bit-by-bit reference, over every pair of start positions and many lengths,
// with guard bytes around the destination that must keep their values.
#include <cstdint>
#include <functional>
#include <random>
#include <vector>

#include "kvx_test.h"
#include "qx_packed.h"

using kvxtest::LibTest;
using kvxtest::Rep;

namespace {

class PackedVectors : public LibTest {};

using Bytes = std::vector<unsigned char>;

// Reference addressing, written from the layout: element k of a bit vector at
// start position p is bit (p - k) mod 8 of byte (7 - p + k) / 8; nibbles put
// the high nibble first, start position 1 being the high nibble.
unsigned ref_bit(const unsigned char* v, int p, int k) {
    int pos = 7 - p + k;
    return (v[pos / 8] >> (7 - pos % 8)) & 1u;
}
void ref_set_bit(unsigned char* v, int p, int k, unsigned bit) {
    int pos = 7 - p + k;
    unsigned char m = static_cast<unsigned char>(1u << (7 - pos % 8));
    v[pos / 8] = static_cast<unsigned char>(bit ? (v[pos / 8] | m) : (v[pos / 8] & ~m));
}
unsigned ref_nib(const unsigned char* v, int p, int k) {
    int pos = 1 - p + k;
    return pos % 2 ? v[pos / 2] & 0xFu : v[pos / 2] >> 4;
}
void ref_set_nib(unsigned char* v, int p, int k, unsigned x) {
    int pos = 1 - p + k;
    unsigned char& b = v[pos / 2];
    b = static_cast<unsigned char>(pos % 2 ? (b & 0xF0u) | (x & 0xFu) : (b & 0x0Fu) | ((x & 0xFu) << 4));
}

int bytes_of_bits(int p, int n) { return (7 - p + n + 7) / 8; }
int bytes_of_nibbles(int p, int n) { return (1 - p + n + 1) / 2; }

Bytes random_bytes(std::mt19937& rng, int n) {
    Bytes b(static_cast<std::size_t>(n));
    for (auto& x : b)
        x = static_cast<unsigned char>(rng());
    return b;
}

// A destination with guard bytes before and after its bytes.
struct Dest {
    static constexpr int kGuard = 5;
    Bytes all;
    Dest(std::mt19937& rng, int nBytes) : all(random_bytes(rng, nBytes + 2 * kGuard)) {}
    unsigned char* data() { return all.data() + kGuard; }
};

constexpr int kLengths[] = {1, 2, 3, 5, 7, 8, 9, 12, 15, 16, 17, 23, 24, 25, 31, 32, 33, 40, 47, 63, 64, 65,
                            71, 72, 80, 95, 127, 128, 129, 130, 200, 257, 515, 1029, 2100, 4133};

// Runs the AVX-512, AVX2 and baseline forms of the kernels in turn (those the
// processor has); puts the choice back afterwards.
struct BothPaths {
    ~BothPaths() { qx::packed::lane_limit() = 0; }
};

using BitOp = std::function<unsigned(unsigned d, unsigned a, unsigned b)>;

// Runs `call` on a destination and compares it with the element-by-element
// reference `op` over the whole buffer, guards included. Sources are sized
// exactly to their vectors (the sanitizer watches reads beyond them). Every
// width of the kernels runs.
void check_binary(bool nibbles, const char* what, const BitOp& op, bool twoSources,
                  const std::function<void(const unsigned char*, const unsigned char*, unsigned char*, int, int, int)>& call) {
    std::mt19937 rng(12345);
    const int maxPos = nibbles ? 1 : 7;
    BothPaths paths;
    for (int limit : {0, 1, 2}) {
        qx::packed::lane_limit() = limit;
        for (int sp = 0; sp <= maxPos; ++sp)
            for (int dp = 0; dp <= maxPos; ++dp)
                for (int n : kLengths) {
                    const int sBytes = nibbles ? bytes_of_nibbles(sp, n) : bytes_of_bits(sp, n);
                    const int dBytes = nibbles ? bytes_of_nibbles(dp, n) : bytes_of_bits(dp, n);
                    Bytes a = random_bytes(rng, sBytes), b = random_bytes(rng, sBytes);
                    Dest dst(rng, dBytes);
                    Bytes want = dst.all;
                    unsigned char* w = want.data() + Dest::kGuard;
                    for (int k = 0; k < n; ++k) {
                        if (nibbles)
                            ref_set_nib(w, dp, k, op(ref_nib(w, dp, k), ref_nib(a.data(), sp, k), ref_nib(b.data(), sp, k)));
                        else
                            ref_set_bit(w, dp, k, op(ref_bit(w, dp, k), ref_bit(a.data(), sp, k), ref_bit(b.data(), sp, k)));
                    }
                    call(a.data(), twoSources ? b.data() : nullptr, dst.data(), sp, dp, n);
                    ASSERT_EQ(dst.all, want) << what << " lanes " << limit << " srcStartPos " << sp
                                             << " dstStartPos " << dp << " n " << n;
                }
    }
}

// The same for operations on one vector (Zero, Set, Not, scalar forms).
void check_unary(bool nibbles, const char* what, const std::function<unsigned(unsigned)>& op,
                 const std::function<void(unsigned char*, int, int)>& call) {
    std::mt19937 rng(777);
    const int maxPos = nibbles ? 1 : 7;
    BothPaths paths;
    for (int limit : {0, 1, 2}) {
        qx::packed::lane_limit() = limit;
        for (int p = 0; p <= maxPos; ++p)
            for (int n : kLengths) {
                Dest dst(rng, nibbles ? bytes_of_nibbles(p, n) : bytes_of_bits(p, n));
                Bytes want = dst.all;
                unsigned char* w = want.data() + Dest::kGuard;
                for (int k = 0; k < n; ++k) {
                    if (nibbles)
                        ref_set_nib(w, p, k, op(ref_nib(w, p, k)) & 0xFu);
                    else
                        ref_set_bit(w, p, k, op(ref_bit(w, p, k)) & 1u);
                }
                call(dst.data(), p, n);
                ASSERT_EQ(dst.all, want) << what << " lanes " << limit << " startPos " << p << " n " << n;
            }
    }
}

}  // namespace

TEST_F(PackedVectors, BitCopyAndLogicMatchTheReferenceAtEveryPairOfStartPositions) {
    auto copy = [](unsigned, unsigned a, unsigned) { return a; };
    check_binary(false, "QXbbCopy", copy, false, [](auto a, auto, auto d, int sp, int dp, int n) { QXbbCopy(a, d, sp, dp, n); });
    check_binary(false, "QXbbAnd2", [](unsigned d, unsigned a, unsigned) { return d & a; }, false,
                 [](auto a, auto, auto d, int sp, int dp, int n) { QXbbAnd2(a, d, sp, dp, n); });
    check_binary(false, "QXbbOr2", [](unsigned d, unsigned a, unsigned) { return d | a; }, false,
                 [](auto a, auto, auto d, int sp, int dp, int n) { QXbbOr2(a, d, sp, dp, n); });
    check_binary(false, "QXbbXor2", [](unsigned d, unsigned a, unsigned) { return d ^ a; }, false,
                 [](auto a, auto, auto d, int sp, int dp, int n) { QXbbXor2(a, d, sp, dp, n); });
    check_binary(false, "QXbbAnd3", [](unsigned, unsigned a, unsigned b) { return a & b; }, true,
                 [](auto a, auto b, auto d, int sp, int dp, int n) { QXbbAnd3(a, b, d, sp, dp, n); });
    check_binary(false, "QXbbOr3", [](unsigned, unsigned a, unsigned b) { return a | b; }, true,
                 [](auto a, auto b, auto d, int sp, int dp, int n) { QXbbOr3(a, b, d, sp, dp, n); });
    check_binary(false, "QXbbXor3", [](unsigned, unsigned a, unsigned b) { return a ^ b; }, true,
                 [](auto a, auto b, auto d, int sp, int dp, int n) { QXbbXor3(a, b, d, sp, dp, n); });
    EXPECT_TRUE(got().empty());
}

TEST_F(PackedVectors, NibbleCopyAndLogicMatchTheReferenceAtEveryPairOfStartPositions) {
    check_binary(true, "QXnbCopy", [](unsigned, unsigned a, unsigned) { return a; }, false,
                 [](auto a, auto, auto d, int sp, int dp, int n) { QXnbCopy(a, d, sp, dp, n); });
    check_binary(true, "QXnbAnd2", [](unsigned d, unsigned a, unsigned) { return d & a; }, false,
                 [](auto a, auto, auto d, int sp, int dp, int n) { QXnbAnd2(a, d, sp, dp, n); });
    check_binary(true, "QXnbOr2", [](unsigned d, unsigned a, unsigned) { return d | a; }, false,
                 [](auto a, auto, auto d, int sp, int dp, int n) { QXnbOr2(a, d, sp, dp, n); });
    check_binary(true, "QXnbXor2", [](unsigned d, unsigned a, unsigned) { return d ^ a; }, false,
                 [](auto a, auto, auto d, int sp, int dp, int n) { QXnbXor2(a, d, sp, dp, n); });
    check_binary(true, "QXnbAnd3", [](unsigned, unsigned a, unsigned b) { return a & b; }, true,
                 [](auto a, auto b, auto d, int sp, int dp, int n) { QXnbAnd3(a, b, d, sp, dp, n); });
    check_binary(true, "QXnbOr3", [](unsigned, unsigned a, unsigned b) { return a | b; }, true,
                 [](auto a, auto b, auto d, int sp, int dp, int n) { QXnbOr3(a, b, d, sp, dp, n); });
    check_binary(true, "QXnbXor3", [](unsigned, unsigned a, unsigned b) { return a ^ b; }, true,
                 [](auto a, auto b, auto d, int sp, int dp, int n) { QXnbXor3(a, b, d, sp, dp, n); });
    EXPECT_TRUE(got().empty());
}

TEST_F(PackedVectors, ZeroSetNotAndScalarLogicMatchTheReference) {
    check_unary(false, "QXbbZero", [](unsigned) { return 0u; }, [](auto d, int p, int n) { QXbbZero(d, p, n); });
    check_unary(false, "QXbbSet 1", [](unsigned) { return 1u; }, [](auto d, int p, int n) { QXbbSet(0x03, d, p, n); });
    check_unary(false, "QXbbSet 0", [](unsigned) { return 0u; }, [](auto d, int p, int n) { QXbbSet(0xFE, d, p, n); });
    check_unary(false, "QXbbNot", [](unsigned x) { return ~x; }, [](auto d, int p, int n) { QXbbNot(d, p, n); });
    check_unary(true, "QXnbZero", [](unsigned) { return 0u; }, [](auto d, int p, int n) { QXnbZero(d, p, n); });
    check_unary(true, "QXnbSet", [](unsigned) { return 0xAu; }, [](auto d, int p, int n) { QXnbSet(0x5A, d, p, n); });
    check_unary(true, "QXnbNot", [](unsigned x) { return ~x; }, [](auto d, int p, int n) { QXnbNot(d, p, n); });
    check_unary(true, "QXnbAnd2s", [](unsigned x) { return x & 0x6u; }, [](auto d, int p, int n) { QXnbAnd2s(0xF6, d, p, n); });
    check_unary(true, "QXnbOr2s", [](unsigned x) { return x | 0x9u; }, [](auto d, int p, int n) { QXnbOr2s(0x39, d, p, n); });
    check_unary(true, "QXnbXor2s", [](unsigned x) { return x ^ 0xCu; }, [](auto d, int p, int n) { QXnbXor2s(0x0C, d, p, n); });
    EXPECT_TRUE(got().empty());
}

TEST_F(PackedVectors, DocumentedSmallCases) {
    unsigned char b[2] = {0xFF, 0x00};
    QXbbZero(b, 2, 3);
    EXPECT_EQ(b[0], 0xF8);

    b[0] = b[1] = 0;
    QXbbSet(1, b, 0, 2);
    EXPECT_EQ(b[0], 0x01);
    EXPECT_EQ(b[1], 0x80);

    b[0] = b[1] = 0;
    QXnbSet(0xA, b, 0, 2);
    EXPECT_EQ(b[0], 0x0A);
    EXPECT_EQ(b[1], 0xA0);

    // 9 bits from position 3 to position 6: bit 7 of the first destination byte
    // and the low bits of the last one stay.
    const unsigned char src[2] = {0x0F, 0xF8};  // bits 3..0 and 7..3: nine ones
    unsigned char d[3] = {0x80, 0x3F, 0xAA};
    QXbbCopy(src, d, 3, 6, 9);
    EXPECT_EQ(d[0], 0xFF);
    EXPECT_EQ(d[1], 0xFF);
    EXPECT_EQ(d[2], 0xAA);
    unsigned char z[2] = {0x80, 0x3F};
    const unsigned char zeros[2] = {0, 0};
    QXbbCopy(zeros, z, 3, 6, 9);
    EXPECT_EQ(z[0], 0x80);
    EXPECT_EQ(z[1], 0x3F);

    unsigned char nb = 0x5A;
    QXnbNot(&nb, 0, 1);
    EXPECT_EQ(nb, 0x55);

    nb = 0xFF;
    QXnbAnd2s(0x3, &nb, 0, 1);
    EXPECT_EQ(nb, 0xF3);

    const unsigned char f0 = 0xF0;
    unsigned char x[2] = {0x5A, 0x77};
    QXbbXor2(&f0, x, 7, 3, 4);
    EXPECT_EQ(x[0], 0x55);
    EXPECT_EQ(x[1], 0x77);

    short w = 0x1000;
    QXwbOr2s(0x0101, &w, 1);
    EXPECT_EQ(w, 0x1101);
    EXPECT_TRUE(got().empty());
}

TEST_F(PackedVectors, ChecksReportEveryBadArgumentInOrderAndDoNothing) {
    unsigned char v[4] = {1, 2, 3, 4};
    QXbbZero(nullptr, -1, 0);
    QXnbSet(1, v, 2, -3);
    QXbbCopy(nullptr, nullptr, -1, 8, 0);
    QXnbCopy(v, v, 2, -1, 1);
    QXbbNot(nullptr, 8, 1);
    QXnbNot(v, -1, 0);
    QXbbAnd3(nullptr, v, nullptr, 8, -1, 0);
    QXnbXor2(nullptr, v, 0, 2, 1);
    QXnbOr2s(3, nullptr, 2, 0);
    EXPECT_EQ(got(), (std::vector<Rep>{
                         {-5, "QXbbZero", "dst==0"},
                         {-5, "QXbbZero", "startPos<0"},
                         {-5, "QXbbZero", "n<=0"},
                         {-5, "QXnbSet", "startPos>1"},
                         {-5, "QXnbSet", "n<=0"},
                         {-5, "QXbbCopy", "srcStartPos<0"},
                         {-5, "QXbbCopy", "dstStartPos>7"},
                         {-5, "QXbbCopy", "n<=0"},
                         {-5, "QXbbCopy", "src==0"},
                         {-5, "QXbbCopy", "dst==0"},
                         {-5, "QXnbCopy", "srcStartPos>1"},
                         {-5, "QXnbCopy", "dstStartPos<0"},
                         {-5, "QXbbNot", "dst==0"},
                         {-5, "QXbbNot", "dstStartPos>7"},
                         {-5, "QXnbNot", "dstStartPos<0"},
                         {-5, "QXnbNot", "n<=0"},
                         {-5, "QXbbAnd3", "srcStartPos>7"},
                         {-5, "QXbbAnd3", "dstStartPos<0"},
                         {-5, "QXbbAnd3", "n<=0"},
                         {-5, "QXbbAnd3", "srcA==0"},
                         {-5, "QXbbAnd3", "dst==0"},
                         {-5, "QXnbXor2", "dstStartPos>1"},
                         {-5, "QXnbXor2", "src==0"},
                         {-5, "QXnbOr2s", "dstStartPos>1"},
                         {-5, "QXnbOr2s", "n<=0"},
                         {-5, "QXnbOr2s", "dst==0"},
                     }));
    for (auto& r : kvxtest::reports())
        EXPECT_TRUE(kvxtest::names_raising_line(r));
    EXPECT_EQ(v[0], 1);
    EXPECT_EQ(v[1], 2);

    // With an error pending, valid calls leave their destinations alone.
    QXbbSet(1, v, 7, 32);
    QXnbCopy(v + 2, v, 1, 1, 2);
    QXbbXor3(v, v, v, 7, 7, 8);
    EXPECT_EQ(v[0], 1);
    EXPECT_EQ(v[1], 2);
    QXSetStatus(0);
    QXbbSet(1, v, 7, 8);
    EXPECT_EQ(v[0], 0xFF);
}
