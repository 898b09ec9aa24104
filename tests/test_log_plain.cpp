// Zero, Set, Copy, Not and and/or/xor of byte, signed byte, short and float
// vectors against an element-by-element reference at several alignments, and
// the checks of the plain forms.
#include <algorithm>
#include <random>
#include <type_traits>
#include <vector>

#include "kvx_test.h"
#include "qx_packed.h"

using kvxtest::LibTest;
using kvxtest::Rep;

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

const PlainOp<Y> kY[] = {
    {"QXybZero", [](const Y*, const Y*, Y* d, int n) { QXybZero(d, n); }, [](Y, Y, Y) { return Y{0}; }},
    {"QXybSet", [](const Y*, const Y*, Y* d, int n) { QXybSet(0x3C, d, n); }, [](Y, Y, Y) { return Y{0x3C}; }},
    {"QXybCopy", [](const Y* a, const Y*, Y* d, int n) { QXybCopy(a, d, n); }, [](Y, Y a, Y) { return a; }},
    {"QXybNot", [](const Y*, const Y*, Y* d, int n) { QXybNot(d, n); }, [](Y d, Y, Y) { return Y(~d); }},
    {"QXybAnd2", [](const Y* a, const Y*, Y* d, int n) { QXybAnd2(a, d, n); }, [](Y d, Y a, Y) { return Y(d & a); }},
    {"QXybOr2", [](const Y* a, const Y*, Y* d, int n) { QXybOr2(a, d, n); }, [](Y d, Y a, Y) { return Y(d | a); }},
    {"QXybXor2", [](const Y* a, const Y*, Y* d, int n) { QXybXor2(a, d, n); }, [](Y d, Y a, Y) { return Y(d ^ a); }},
    {"QXybAnd3", [](const Y* a, const Y* b, Y* d, int n) { QXybAnd3(a, b, d, n); }, [](Y, Y a, Y b) { return Y(a & b); }},
    {"QXybOr3", [](const Y* a, const Y* b, Y* d, int n) { QXybOr3(a, b, d, n); }, [](Y, Y a, Y b) { return Y(a | b); }},
    {"QXybXor3", [](const Y* a, const Y* b, Y* d, int n) { QXybXor3(a, b, d, n); }, [](Y, Y a, Y b) { return Y(a ^ b); }},
    {"QXybAnd2s", [](const Y*, const Y*, Y* d, int n) { QXybAnd2s(0xA5, d, n); }, [](Y d, Y, Y) { return Y(d & 0xA5); }},
    {"QXybOr2s", [](const Y*, const Y*, Y* d, int n) { QXybOr2s(0xA5, d, n); }, [](Y d, Y, Y) { return Y(d | 0xA5); }},
    {"QXybXor2s", [](const Y*, const Y*, Y* d, int n) { QXybXor2s(0xA5, d, n); }, [](Y d, Y, Y) { return Y(d ^ 0xA5); }},
};
const PlainOp<T> kT[] = {
    {"QXtbZero", [](const T*, const T*, T* d, int n) { QXtbZero(d, n); }, [](T, T, T) { return T{0}; }},
    {"QXtbSet", [](const T*, const T*, T* d, int n) { QXtbSet(-3, d, n); }, [](T, T, T) { return T{-3}; }},
    {"QXtbCopy", [](const T* a, const T*, T* d, int n) { QXtbCopy(a, d, n); }, [](T, T a, T) { return a; }},
};
const PlainOp<W> kW[] = {
    {"QXwbZero", [](const W*, const W*, W* d, int n) { QXwbZero(d, n); }, [](W, W, W) { return W{0}; }},
    {"QXwbSet", [](const W*, const W*, W* d, int n) { QXwbSet(-2, d, n); }, [](W, W, W) { return W{-2}; }},
    {"QXwbCopy", [](const W* a, const W*, W* d, int n) { QXwbCopy(a, d, n); }, [](W, W a, W) { return a; }},
    {"QXwbNot", [](const W*, const W*, W* d, int n) { QXwbNot(d, n); }, [](W d, W, W) { return W(~d); }},
    {"QXwbAnd2", [](const W* a, const W*, W* d, int n) { QXwbAnd2(a, d, n); }, [](W d, W a, W) { return W(d & a); }},
    {"QXwbOr2", [](const W* a, const W*, W* d, int n) { QXwbOr2(a, d, n); }, [](W d, W a, W) { return W(d | a); }},
    {"QXwbXor2", [](const W* a, const W*, W* d, int n) { QXwbXor2(a, d, n); }, [](W d, W a, W) { return W(d ^ a); }},
    {"QXwbAnd3", [](const W* a, const W* b, W* d, int n) { QXwbAnd3(a, b, d, n); }, [](W, W a, W b) { return W(a & b); }},
    {"QXwbOr3", [](const W* a, const W* b, W* d, int n) { QXwbOr3(a, b, d, n); }, [](W, W a, W b) { return W(a | b); }},
    {"QXwbXor3", [](const W* a, const W* b, W* d, int n) { QXwbXor3(a, b, d, n); }, [](W, W a, W b) { return W(a ^ b); }},
    {"QXwbAnd2s", [](const W*, const W*, W* d, int n) { QXwbAnd2s(-0x5A5B, d, n); }, [](W d, W, W) { return W(d & -0x5A5B); }},
    {"QXwbOr2s", [](const W*, const W*, W* d, int n) { QXwbOr2s(0x0101, d, n); }, [](W d, W, W) { return W(d | 0x0101); }},
    {"QXwbXor2s", [](const W*, const W*, W* d, int n) { QXwbXor2s(-0x5A5B, d, n); }, [](W d, W, W) { return W(d ^ -0x5A5B); }},
};
const PlainOp<S> kS[] = {
    {"QXsbZero", [](const S*, const S*, S* d, int n) { QXsbZero(d, n); }, [](S, S, S) { return 0.0f; }},
    {"QXsbSet", [](const S*, const S*, S* d, int n) { QXsbSet(-1.25f, d, n); }, [](S, S, S) { return -1.25f; }},
    {"QXsbCopy", [](const S* a, const S*, S* d, int n) { QXsbCopy(a, d, n); }, [](S, S a, S) { return a; }},
};

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
    EXPECT_EQ(got(), (std::vector<Rep>{
                         {-5, "QXybZero", "n<=0"}, {-5, "QXybZero", "dst==0"},
                         {-5, "QXsbCopy", "n<=0"}, {-5, "QXsbCopy", "src==0"}, {-5, "QXsbCopy", "dst==0"},
                         {-5, "QXybAnd3", "n<=0"}, {-5, "QXybAnd3", "srcA==0"}, {-5, "QXybAnd3", "srcB==0"},
                         {-5, "QXybAnd3", "dst==0"},
                         {-5, "QXwbXor2", "n<=0"}, {-5, "QXwbXor2", "src==0"}, {-5, "QXwbOr2s", "n<=0"},
                         {-5, "QXwbOr2s", "dst==0"}, {-5, "QXwbNot", "n<=0"},
                     }));
    EXPECT_TRUE(kvxtest::all_name_raising_lines());
    EXPECT_EQ(w[0], 5);
}
