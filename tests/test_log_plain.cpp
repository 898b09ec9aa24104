// Zero, Set, Copy and the logic of byte, short and float vectors.
#include <cstdint>
#include <cstring>
#include <vector>

#include "kvx_test.h"

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
