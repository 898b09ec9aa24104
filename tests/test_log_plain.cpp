// Zero, Set, Copy, Not and and/or/xor of byte, signed byte, short and float
// vectors against an element-by-element reference at several alignments, and
// the checks of the plain forms.
#include <algorithm>
#include <random>
#include <type_traits>
#include <vector>

#include "kvx_test.h"
#include "model_reference.h"
#include "qx_packed.h"

using kvxtest::LibTest;

namespace {

class PlainVectors : public LibTest {};

using Y = unsigned char;
using T = signed char;
using W = short;
using S = float;

// One exported function: its call on sources a, b and destination d, and the
// reference for one element (d the old destination element).
template <class E>
struct PlainOp {
    const char* name;
    void (*call)(const E* a, const E* b, E* d, int n);
    E (*ref)(E d, E a, E b);
};

// The operations of prefix P (QXyb: QXybZero, ...) on elements E; K is the
// value of Set and of the "2s" forms. Every type has Zero, Set and Copy; bytes
// and shorts have Not and the three logical operations in their three forms.
#define KVX_BASIC(P, E, K)                                                                        \
    {#P "Zero", [](const E*, const E*, E* d, int n) { P##Zero(d, n); }, [](E, E, E) { return E{0}; }}, \
    {#P "Set", [](const E*, const E*, E* d, int n) { P##Set(K, d, n); }, [](E, E, E) { return E(K); }}, \
    {#P "Copy", [](const E* a, const E*, E* d, int n) { P##Copy(a, d, n); }, [](E, E a, E) { return a; }}
#define KVX_LOGICAL(P, E, K, Op, op)                                                                          \
    {#P #Op "2", [](const E* a, const E*, E* d, int n) { P##Op##2(a, d, n); }, [](E d, E a, E) { return E(d op a); }}, \
    {#P #Op "3", [](const E* a, const E* b, E* d, int n) { P##Op##3(a, b, d, n); },                          \
     [](E, E a, E b) { return E(a op b); }},                                                                  \
    {#P #Op "2s", [](const E*, const E*, E* d, int n) { P##Op##2s(K, d, n); }, [](E d, E, E) { return E(d op K); }}
#define KVX_ALL(P, E, K)                                                                      \
    KVX_BASIC(P, E, K), {#P "Not", [](const E*, const E*, E* d, int n) { P##Not(d, n); }, [](E d, E, E) { return E(~d); }}, \
        KVX_LOGICAL(P, E, K, And, &), KVX_LOGICAL(P, E, K, Or, |), KVX_LOGICAL(P, E, K, Xor, ^)

const PlainOp<Y> kY[] = {KVX_ALL(QXyb, Y, 0xA5)};
const PlainOp<T> kT[] = {KVX_BASIC(QXtb, T, -3)};
const PlainOp<W> kW[] = {KVX_ALL(QXwb, W, -0x5A3D)};  // 0xA5C3: its two bytes differ
const PlainOp<S> kS[] = {KVX_BASIC(QXsb, S, -1.25f)};

// Every operation of one element type, at every lane width, with the
// destination and the two sources at different offsets from an aligned start,
// guard elements around the destination.
template <class E, std::size_t N>
void sweep(const PlainOp<E> (&ops)[N]) {
    constexpr int kGuard = 8;
    std::mt19937 rng(2024);
    auto random = [&](int n) {
        std::vector<E> v(static_cast<std::size_t>(n));  // whole bit patterns; floats finite
        std::generate(v.begin(), v.end(), [&] { return std::is_floating_point_v<E> ? E(int(rng() % 20001) - 10000) / 8 : E(rng()); });
        return v;
    };
    kvxtest::on_every_path([&](int limit) {
        for (const PlainOp<E>& op : ops)
            for (int off = 0; off < 4; ++off)
                for (int n : {1, 3, 4, 5, 17, 33, 64, 67, 300, 517}) {
                    // Sources end with the vectors: the sanitizer sees reads beyond them.
                    const std::vector<E> a = random(n + off), b = random(n + 3 - off);
                    std::vector<E> dst = random(n + off + 2 * kGuard), want = dst;
                    for (int i = 0; i < n; ++i)
                        want[kGuard + off + i] = op.ref(want[kGuard + off + i], a[off + i], b[3 - off + i]);
                    op.call(a.data() + off, b.data() + 3 - off, dst.data() + kGuard + off, n);
                    ASSERT_EQ(dst, want) << op.name << " lanes " << limit << " offset " << off << " n " << n;
                }
    });
}

}  // namespace

TEST_F(PlainVectors, EveryOperationMatchesTheElementwiseReferenceAtSeveralAlignments) {
    sweep(kY);
    sweep(kT);
    sweep(kW);
    sweep(kS);
    EXPECT_TRUE(got().empty());
}

TEST_F(PlainVectors, ChecksReportEveryBadArgumentInOrderAndDoNothing) {
    short w[1] = {5};
    QXybZero(nullptr, 0);
    QXsbCopy(nullptr, nullptr, 0);
    QXybAnd3(nullptr, nullptr, nullptr, 0);
    QXwbXor2(nullptr, w, -2);
    QXwbOr2s(1, nullptr, 0);
    QXwbNot(w, 0);
    EXPECT_EQ(got(), ref::reps({{-5, "QXybZero", {"n<=0", "dst==0"}}, {-5, "QXsbCopy", {"n<=0", "src==0", "dst==0"}},
                                {-5, "QXybAnd3", {"n<=0", "srcA==0", "srcB==0", "dst==0"}}, {-5, "QXwbXor2", {"n<=0", "src==0"}},
                                {-5, "QXwbOr2s", {"n<=0", "dst==0"}}, {-5, "QXwbNot", {"n<=0"}}}));
    EXPECT_TRUE(kvxtest::all_name_raising_lines());
    EXPECT_EQ(w[0], 5);
}
