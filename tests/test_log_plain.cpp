// Zero, Set, Copy and the logic of byte, short and float vectors.
#include <cstdint>
#include <cstring>
#include <vector>

#include "kvx_test.h"
#include "qx_packed.h"

using kvxtest::LibTest;
using kvxtest::Rep;

namespace {

class PlainVectors : public LibTest {};

// A buffer with guard bytes around the n elements handed to the library.
template <class T>
struct Guarded {
    static constexpr int kGuard = 8;
    std::vector<T> all;
    explicit Guarded(int n, T guard) : all(static_cast<std::size_t>(n) + 2 * kGuard, guard) {}
    T* data() { return all.data() + kGuard; }
    bool guards_are(T guard) const {
        for (int i = 0; i < kGuard; ++i)
            if (std::memcmp(&all[i], &guard, sizeof(T)) != 0 ||
                std::memcmp(&all[all.size() - 1 - i], &guard, sizeof(T)) != 0)
                return false;
        return true;
    }
};

}  // namespace

TEST_F(PlainVectors, ZeroSetCopyWriteExactlyNElementsAtEveryAlignment) {
    for (int off = 0; off < 4; ++off) {
        for (int n : {1, 3, 4, 5, 17, 64, 67}) {
            Guarded<unsigned char> y(n + off, 0xA5);
            QXybZero(y.data() + off, n);
            for (int i = 0; i < n + off; ++i)
                EXPECT_EQ(y.data()[i], i < off ? 0xA5 : 0);
            EXPECT_TRUE(y.guards_are(0xA5));
            QXybSet(0x3C, y.data() + off, n);
            for (int i = off; i < n + off; ++i)
                EXPECT_EQ(y.data()[i], 0x3C);

            Guarded<signed char> t(n, 7);
            QXtbSet(-3, t.data(), n);
            for (int i = 0; i < n; ++i)
                EXPECT_EQ(t.data()[i], -3);
            QXtbZero(t.data(), n);
            for (int i = 0; i < n; ++i)
                EXPECT_EQ(t.data()[i], 0);
            EXPECT_TRUE(t.guards_are(7));

            Guarded<short> w(n, 0x1234);
            QXwbSet(-2, w.data(), n);
            for (int i = 0; i < n; ++i)
                EXPECT_EQ(w.data()[i], -2);
            QXwbZero(w.data(), n);
            for (int i = 0; i < n; ++i)
                EXPECT_EQ(w.data()[i], 0);
            EXPECT_TRUE(w.guards_are(0x1234));

            Guarded<float> s(n, 9.5f);
            QXsbSet(-1.25f, s.data(), n);
            for (int i = 0; i < n; ++i)
                EXPECT_EQ(s.data()[i], -1.25f);
            QXsbZero(s.data(), n);
            for (int i = 0; i < n; ++i)
                EXPECT_EQ(s.data()[i], 0.0f);
            EXPECT_TRUE(s.guards_are(9.5f));

            std::vector<unsigned char> srcY(static_cast<std::size_t>(n) + off);
            std::vector<short> srcW(static_cast<std::size_t>(n));
            std::vector<float> srcS(static_cast<std::size_t>(n));
            for (int i = 0; i < n; ++i) {
                srcW[i] = static_cast<short>(i * 997 - 30000);
                srcS[i] = static_cast<float>(i) * 0.5f - 3.0f;
            }
            for (int i = 0; i < n + off; ++i)
                srcY[i] = static_cast<unsigned char>(i * 37 + 1);
            QXybCopy(srcY.data() + off, y.data(), n);
            QXtbCopy(reinterpret_cast<const signed char*>(srcY.data()), t.data(), n);
            QXwbCopy(srcW.data(), w.data(), n);
            QXsbCopy(srcS.data(), s.data(), n);
            for (int i = 0; i < n; ++i) {
                EXPECT_EQ(y.data()[i], srcY[i + off]);
                EXPECT_EQ(static_cast<unsigned char>(t.data()[i]), srcY[i]);
                EXPECT_EQ(w.data()[i], srcW[i]);
                EXPECT_EQ(s.data()[i], srcS[i]);
            }
            EXPECT_TRUE(y.guards_are(0xA5));
            EXPECT_TRUE(t.guards_are(7));
            EXPECT_TRUE(w.guards_are(0x1234));
            EXPECT_TRUE(s.guards_are(9.5f));
        }
    }
    EXPECT_TRUE(got().empty());
}

TEST_F(PlainVectors, ChecksRunInOrderAndStopTheWork) {
    unsigned char y[2] = {1, 2};
    float s[2] = {1, 2};
    QXybZero(nullptr, 0);
    QXsbSet(3.0f, nullptr, -1);
    QXsbCopy(nullptr, nullptr, 0);
    QXwbCopy(nullptr, reinterpret_cast<short*>(y), 1);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXybZero", "n<=0"},
                                      {-5, "QXybZero", "dst==0"},
                                      {-5, "QXsbSet", "n<=0"},
                                      {-5, "QXsbSet", "dst==0"},
                                      {-5, "QXsbCopy", "n<=0"},
                                      {-5, "QXsbCopy", "src==0"},
                                      {-5, "QXsbCopy", "dst==0"},
                                      {-5, "QXwbCopy", "src==0"}}));
    for (auto& r : kvxtest::reports())
        EXPECT_TRUE(kvxtest::names_raising_line(r));
    // A pending error stops valid calls.
    QXybSet(9, y, 2);
    QXsbZero(s, 2);
    EXPECT_EQ(y[0], 1);
    EXPECT_EQ(s[1], 2.0f);
    QXSetStatus(0);
    QXybSet(9, y, 2);
    EXPECT_EQ(y[1], 9);
}

namespace {

// Element-wise reference for the byte and short logic.
template <class T>
struct LogicCase {
    const char* name;
    void (*x2)(const T*, T*, int);
    void (*x3)(const T*, const T*, T*, int);
    void (*x2s)(T, T*, int);
    int (*op)(int, int);
};

template <class T>
void check_logic(const LogicCase<T>& c, T guard) {
    for (int off = 0; off < 4; ++off)
        for (int n : {1, 2, 3, 5, 8, 13, 33, 70, 300, 517}) {
            std::vector<T> a(static_cast<std::size_t>(n) + off), b(a.size());
            for (std::size_t i = 0; i < a.size(); ++i) {
                a[i] = static_cast<T>(i * 0x9E37u + 0x1234u);
                b[i] = static_cast<T>(i * 0x7F4Au ^ 0xC3A5u);
            }
            Guarded<T> d(n + off, guard);
            for (int i = 0; i < n + off; ++i)
                d.data()[i] = b[i];
            c.x2(a.data() + off, d.data() + off, n);
            for (int i = 0; i < n; ++i)
                EXPECT_EQ(d.data()[i + off], static_cast<T>(c.op(b[i + off], a[i + off]))) << c.name << " X2 " << n;
            c.x3(a.data(), b.data() + off, d.data() + off, n);
            for (int i = 0; i < n; ++i)
                EXPECT_EQ(d.data()[i + off], static_cast<T>(c.op(a[i], b[i + off]))) << c.name << " X3 " << n;
            const T val = static_cast<T>(0xA55A);
            c.x2s(val, d.data() + off, n);
            for (int i = 0; i < n; ++i)
                EXPECT_EQ(d.data()[i + off], static_cast<T>(c.op(c.op(a[i], b[i + off]), val))) << c.name << " X2s " << n;
            for (int i = 0; i < off; ++i)
                EXPECT_EQ(d.data()[i], b[i]);
            EXPECT_TRUE(d.guards_are(guard));
        }
}

}  // namespace

TEST_F(PlainVectors, ByteAndShortLogicMatchTheElementwiseReference) {
    for (int limit : {0, 1, 2}) {
        qx::packed::lane_limit() = limit;  // every width of the kernels
        check_logic<unsigned char>({"and", QXybAnd2, QXybAnd3, QXybAnd2s, [](int x, int y) { return x & y; }}, 0x66);
        check_logic<unsigned char>({"or", QXybOr2, QXybOr3, QXybOr2s, [](int x, int y) { return x | y; }}, 0x66);
        check_logic<unsigned char>({"xor", QXybXor2, QXybXor3, QXybXor2s, [](int x, int y) { return x ^ y; }}, 0x66);
        check_logic<short>({"and", QXwbAnd2, QXwbAnd3, QXwbAnd2s, [](int x, int y) { return x & y; }}, 0x6666);
        check_logic<short>({"or", QXwbOr2, QXwbOr3, QXwbOr2s, [](int x, int y) { return x | y; }}, 0x6666);
        check_logic<short>({"xor", QXwbXor2, QXwbXor3, QXwbXor2s, [](int x, int y) { return x ^ y; }}, 0x6666);

        for (int n : {1, 6, 37}) {
            Guarded<unsigned char> y(n, 0x11);
            Guarded<short> w(n, 0x2222);
            for (int i = 0; i < n; ++i) {
                y.data()[i] = static_cast<unsigned char>(i * 29);
                w.data()[i] = static_cast<short>(i * 2999 - 7000);
            }
            QXybNot(y.data(), n);
            QXwbNot(w.data(), n);
            for (int i = 0; i < n; ++i) {
                EXPECT_EQ(y.data()[i], static_cast<unsigned char>(~(i * 29)));
                EXPECT_EQ(w.data()[i], static_cast<short>(~(i * 2999 - 7000)));
            }
            EXPECT_TRUE(y.guards_are(0x11));
            EXPECT_TRUE(w.guards_are(0x2222));
        }
    }
    qx::packed::lane_limit() = 0;
    EXPECT_TRUE(got().empty());
}

TEST_F(PlainVectors, LogicChecksInOrder) {
    short w[1] = {5};
    QXybAnd3(nullptr, nullptr, nullptr, 0);
    QXwbXor2(nullptr, nullptr, -2);
    QXwbOr2s(1, nullptr, 0);
    QXybNot(nullptr, 0);
    QXwbNot(w, 0);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXybAnd3", "n<=0"},
                                      {-5, "QXybAnd3", "srcA==0"},
                                      {-5, "QXybAnd3", "srcB==0"},
                                      {-5, "QXybAnd3", "dst==0"},
                                      {-5, "QXwbXor2", "n<=0"},
                                      {-5, "QXwbXor2", "src==0"},
                                      {-5, "QXwbXor2", "dst==0"},
                                      {-5, "QXwbOr2s", "n<=0"},
                                      {-5, "QXwbOr2s", "dst==0"},
                                      {-5, "QXybNot", "n<=0"},
                                      {-5, "QXybNot", "dst==0"},
                                      {-5, "QXwbNot", "n<=0"}}));
    for (auto& r : kvxtest::reports())
        EXPECT_TRUE(kvxtest::names_raising_line(r));
    EXPECT_EQ(w[0], 5);
}
