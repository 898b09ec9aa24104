// Packed bit and nibble vectors against an element-by-element reference over
// every pair of start positions and a spread of lengths, with guard bytes
// around the destination; the checks of every group.
#include <algorithm>
#include <random>
#include <vector>

#include "kvx_test.h"
#include "model_reference.h"
#include "qx_packed.h"

using kvxtest::LibTest;

namespace {

class PackedVectors : public LibTest {};

using Bytes = std::vector<unsigned char>;
using u8 = unsigned char;
using U = unsigned;

// Element k of a vector of w-bit elements (w = 1 or 4) at start position p:
// the first element sits at bit p of byte 0 for bits, in the high (p = 1) or
// low (p = 0) nibble for nibbles; the next ones follow towards bit 0 and on
// into the next bytes.
int first(int w, int p) { return 8 / w - 1 - p; }
unsigned get(int w, const u8* v, int p, int k) { return kvxtest::packed_get(w, v, first(w, p) + k); }
void put(int w, u8* v, int p, int k, unsigned x) { kvxtest::packed_set(w, v, first(w, p) + k, x); }
int bytes_for(int w, int p, int n) { return (w * (first(w, p) + n) + 7) / 8; }

// One exported function: element width, the reference for one element (d is
// the old destination element, a and b the source ones), and the call.
struct PackedOp {
    const char* name;
    int width;
    unsigned (*ref)(unsigned d, unsigned a, unsigned b);
    void (*call)(const u8* a, const u8* b, u8* d, int sp, int dp, int n);
};

// The operations bits (P = QXbb, w = 1) and nibbles (QXnb, 4) both have.
#define KVX_LOGICAL(P, w, Op, op)                                                                    \
    {#P #Op "2", w, [](U d, U a, U) { return d op a; },                                              \
     [](auto a, auto, auto d, int s, int p, int n) { P##Op##2(a, d, s, p, n); }},                    \
    {#P #Op "3", w, [](U, U a, U b) { return a op b; },                                              \
     [](auto a, auto b, auto d, int s, int p, int n) { P##Op##3(a, b, d, s, p, n); }}
#define KVX_SHARED(P, w)                                                                                                  \
    {#P "Copy", w, [](U, U a, U) { return a; }, [](auto a, auto, auto d, int s, int p, int n) { P##Copy(a, d, s, p, n); }}, \
    {#P "Zero", w, [](U, U, U) { return 0u; }, [](auto, auto, auto d, int, int p, int n) { P##Zero(d, p, n); }},           \
    {#P "Not", w, [](U d, U, U) { return ~d; }, [](auto, auto, auto d, int, int p, int n) { P##Not(d, p, n); }},           \
    KVX_LOGICAL(P, w, And, &), KVX_LOGICAL(P, w, Or, |), KVX_LOGICAL(P, w, Xor, ^)

const PackedOp kOps[] = {
    KVX_SHARED(QXbb, 1),
    KVX_SHARED(QXnb, 4),
    {"QXbbSet 1", 1, [](U, U, U) { return 1u; }, [](auto, auto, auto d, int, int p, int n) { QXbbSet(0x03, d, p, n); }},
    {"QXbbSet 0", 1, [](U, U, U) { return 0u; }, [](auto, auto, auto d, int, int p, int n) { QXbbSet(0xFE, d, p, n); }},
    {"QXnbSet", 4, [](U, U, U) { return 0xAu; }, [](auto, auto, auto d, int, int p, int n) { QXnbSet(0x5A, d, p, n); }},
    {"QXnbAnd2s", 4, [](U d, U, U) { return d & 0x6u; }, [](auto, auto, auto d, int, int p, int n) { QXnbAnd2s(0xF6, d, p, n); }},
    {"QXnbOr2s", 4, [](U d, U, U) { return d | 0x9u; }, [](auto, auto, auto d, int, int p, int n) { QXnbOr2s(0x39, d, p, n); }},
    {"QXnbXor2s", 4, [](U d, U, U) { return d ^ 0xCu; }, [](auto, auto, auto d, int, int p, int n) { QXnbXor2s(0x0C, d, p, n); }},
};

// Short runs that stay inside one or two bytes, runs around the 4-, 32- and
// 64-byte steps of the word and lane loops, and long runs.
constexpr int kLengths[] = {1, 2, 3, 5, 7, 8, 9, 12, 15, 16, 17, 23, 24, 25, 31, 32, 33, 40, 47, 63, 64, 65,
                            71, 72, 80, 95, 127, 128, 129, 130, 200, 257, 515, 1029, 2100, 4133};

}  // namespace

TEST_F(PackedVectors, EveryOperationMatchesTheReferenceAtEveryPairOfStartPositionsAndLaneWidth) {
    // The layout itself: bit start position 2 is bit 2 of byte 0, nibble start
    // position 0 the low nibble.
    u8 b[2] = {0xFF, 0xFF};
    QXbbZero(b, 2, 3);
    QXnbZero(b + 1, 0, 1);
    ASSERT_EQ(Bytes(b, b + 2), (Bytes{0xF8, 0xF0}));

    constexpr int kGuard = 5;
    std::mt19937 rng(12345);
    auto random = [&](int n) {
        Bytes v(static_cast<std::size_t>(n));
        std::generate(v.begin(), v.end(), [&] { return static_cast<u8>(rng()); });
        return v;
    };
    kvxtest::on_every_path([&](int limit) {
        for (const PackedOp& op : kOps)
            for (int w = op.width, sp = 0; sp < 8 / w; ++sp)
                for (int dp = 0; dp < 8 / w; ++dp)
                    for (int n : kLengths) {
                        // Sources sized exactly: the sanitizer sees reads beyond them.
                        Bytes a = random(bytes_for(w, sp, n)), c = random(static_cast<int>(a.size()));
                        Bytes dst = random(bytes_for(w, dp, n) + 2 * kGuard), want = dst;
                        u8* d = want.data() + kGuard;
                        for (int k = 0; k < n; ++k)
                            put(w, d, dp, k, op.ref(get(w, d, dp, k), get(w, a.data(), sp, k), get(w, c.data(), sp, k)));
                        op.call(a.data(), c.data(), dst.data() + kGuard, sp, dp, n);
                        ASSERT_EQ(dst, want) << op.name << " lanes " << limit << " srcStartPos " << sp
                                             << " dstStartPos " << dp << " n " << n;
                    }
    });
    EXPECT_TRUE(got().empty());
}

TEST_F(PackedVectors, ChecksReportEveryBadArgumentInOrderAndPendingErrorsStopTheWork) {
    u8 v[4] = {1, 2, 3, 4};
    QXbbZero(nullptr, -1, 0);
    QXnbSet(1, v, 2, -3);
    QXbbCopy(nullptr, nullptr, -1, 8, 0);
    QXnbCopy(v, v, 2, -1, 1);
    QXbbNot(nullptr, 8, 1);
    QXnbNot(v, -1, 0);
    QXbbAnd3(nullptr, nullptr, nullptr, 8, -1, 0);
    QXnbXor2(nullptr, v, 0, 2, 1);
    QXnbOr2s(3, nullptr, 2, 0);
    EXPECT_EQ(got(), ref::reps({{-5, "QXbbZero", {"dst==0", "startPos<0", "n<=0"}}, {-5, "QXnbSet", {"startPos>1", "n<=0"}},
                                {-5, "QXbbCopy", {"srcStartPos<0", "dstStartPos>7", "n<=0", "src==0", "dst==0"}},
                                {-5, "QXnbCopy", {"srcStartPos>1", "dstStartPos<0"}}, {-5, "QXbbNot", {"dst==0", "dstStartPos>7"}},
                                {-5, "QXnbNot", {"dstStartPos<0", "n<=0"}},
                                {-5, "QXbbAnd3", {"srcStartPos>7", "dstStartPos<0", "n<=0", "srcA==0", "srcB==0", "dst==0"}},
                                {-5, "QXnbXor2", {"dstStartPos>1", "src==0"}},
                                {-5, "QXnbOr2s", {"dstStartPos>1", "n<=0", "dst==0"}}}));
    EXPECT_TRUE(kvxtest::all_name_raising_lines());
    EXPECT_EQ(Bytes(v, v + 4), (Bytes{1, 2, 3, 4}));

    // With an error pending, valid calls of both the packed and the plain forms
    // leave their destinations alone; once it is cleared they work.
    QXnbCopy(v + 2, v, 1, 1, 2);
    QXybXor2s(0xFF, v, 4);
    EXPECT_EQ(Bytes(v, v + 4), (Bytes{1, 2, 3, 4}));
    QXSetStatus(0);
    QXbbSet(1, v, 7, 8);
    EXPECT_EQ(v[0], 0xFF);
}
