// Worked cases of addition, subtraction and multiplication: the documented
// edge cases in every scaling mode, and vectors that overlap.
#include <cstdint>
#include <functional>
#include <random>
#include <vector>

#include "test_arith_reference.h"

using namespace arithref;

namespace {

class Cases : public kvxtest::LibTest {};

struct Edge {
    const Forms& f;
    int form;  // 0: "2", 1: "3", 2: "2s"
    std::vector<int> a, b, d;
    int doScale, sf;
    std::vector<int> out;
    int sfOut;
    std::vector<int> codes;  // reported by the function, in order; the last is returned
};

}  // namespace

TEST_F(Cases, DocumentedEdgeCases) {
    const std::vector<Edge> table{
        {kYAdd, 0, {100}, {}, {200}, 0, 7, {44}, 0, {-20}},                          // wraps, factor cleared
        {kYAdd, 0, {100}, {}, {200}, 3, 7, {255}, 0, {}},                            // saturates
        {kYAdd, 0, {100, 20, 1}, {}, {200, 10, 11}, 2, 5, {150, 15, 6}, 1, {}},      // 300 halves all
        {kTAdd, 0, {-100}, {}, {-100}, 0, 0, {56}, 0, {-21}},
        {kTAdd, 0, {-100}, {}, {-100}, 3, 0, {-128}, 0, {}},
        {kWAdd, 0, {30000, -30000}, {}, {30000, -30000}, 0, 0, {-5536, 5536}, 0, {-20, -21}},
        {kYAdd, 1, {7}, {9}, {0}, 1, 2, {4}, 2, {}},                                 // factor kept
        {kYAdd, 1, {200}, {100}, {0}, 1, -1, {88}, -1, {}},                         // wraps, then doubles
        {kYAdd, 1, {7}, {9}, {0}, 1, 33, {8}, 33, {}},                               // counts modulo 32
        {kYSub, 0, {5}, {}, {3}, 2, 9, {0}, 0, {}},                                  // unsigned: clamps at 0
        {kYSub, 0, {5}, {}, {3}, 0, 9, {254}, 0, {-21}},
        {kTSub, 0, {100, 2, 0}, {}, {-100, 40, -7}, 2, 9, {-100, 19, -4}, 1, {}},   // arithmetic halving
        {kYSub, 1, {10}, {30}, {0}, 0, 0, {20}, 0, {}},                              // srcB - srcA
        {kWSub, 2, {1}, {}, {-32768, 5}, 3, 0, {-32768, 4}, 0, {}},
        {kYSub, 2, {7}, {}, {3}, 1, 1, {254}, 1, {}},                                // (3 - 7) >> 1 = -2
        {kNSub, 2, {5}, {}, {3}, 0, 0, {14}, 0, {-21}},
        {kYMpy, 0, {20, 3}, {}, {20, 2}, 2, 0, {200, 3}, 1, {}},
        {kYMpy, 0, {3, 255, 1}, {}, {2, 255, 100}, 2, 0, {0, 254, 0}, 8, {}},
        {kTMpy, 0, {127, 1, 1}, {}, {-128, 1, 100}, 2, 0, {-127, 0, 0}, 7, {}},     // the smaller product wins
        {kWMpy, 0, {181, 181}, {}, {181, -181}, 2, 5, {32761, -32761}, 0, {}},      // nothing out of range
        {kWMpy, 0, {-32768, 1}, {}, {-32768, 3}, 2, 0, {16384, 0}, 16, {}},         // 2^30 needs 16
        {kTMpy, 0, {-128}, {}, {-128}, 3, 4, {127}, 0, {}},
        {kYMpy, 0, {20}, {}, {20}, 1, 0, {144}, 0, {}},                              // the wrapped product
        {kTMpy, 2, {2}, {}, {-128}, 0, 0, {0}, 0, {-21}},
        {kTMpy, 2, {2}, {}, {100}, 0, 0, {-56}, 0, {-20}},
        {kWMpy, 2, {300}, {}, {300}, 1, -2, {32320}, -2, {}},                        // wraps, then times 4
    };
    for (const Edge& c : table) {
        const std::string name = c.f.name + kSuffix[c.form];
        SCOPED_TRACE(testing::Message() << name << " doScale " << c.doScale << " factor " << c.sf);
        std::vector<int> d = c.d, b = c.b.empty() ? c.d : c.b;
        int sf = c.sf;
        EXPECT_EQ(c.f.f[c.form](c.a, b, d, c.doScale, &sf, 1, 1), c.codes.empty() ? 0 : c.codes.back());
        EXPECT_EQ(d, c.out);
        EXPECT_EQ(sf, c.sfOut);
        std::vector<kvxtest::Rep> want;
        for (int code : c.codes) want.emplace_back(code, name, "");
        EXPECT_TRUE(kvxtest::all_name_raising_lines());
        EXPECT_EQ(takeReports(), want);
    }
}

TEST_F(Cases, OverlappingVectorsFollowTheElementOrder) {
    using B = unsigned char*;
    auto t = [](B b) { return reinterpret_cast<signed char*>(b); };
    const struct { std::function<void(B, int*)> call; std::vector<int> in, out; int sfOut; } cases[] = {
        // srcDst one element before src, saturating: the last element first, each
        // reads its neighbour's new value. 20 - 10, 30 - 10, 40 - 20, 50 - 20.
        {[](B b, int* sf) { QXybSub2(b + 1, b, 4, 3, sf); }, {50, 40, 30, 20, 10}, {30, 20, 20, 10, 10}, 0},
        {[](B b, int* sf) { QXybMpy2(b + 1, b, 3, 3, sf); }, {2, 3, 4, 5}, {120, 60, 20, 5}, 0},   // 4 x 5, 3 x 20, 2 x 60
        {[&](B b, int* sf) { QXtbMpy2(t(b) + 1, t(b), 2, 1, sf); }, {2, 3, 4}, {24, 12, 4}, 0},
        // srcDst one element after src, automatic: 20 + 10 = 30, 30 + 30 = 60,
        // 200 + 60 leaves the range: 200 stays, 30 and 60 halve, then
        // (30 + 200) / 2 = 115, (115 + 40) / 2 = 77, (77 + 50) / 2 = 63.
        {[](B b, int* sf) { QXybAdd2(b, b + 1, 5, 2, sf); }, {10, 20, 30, 200, 40, 50}, {10, 15, 30, 115, 77, 63}, 1},
        // Nibbles 1 2 3 F, the source one nibble behind: 3, 6, then F + 6 leaves
        // the range: F stays, 3 and 6 become 1 and 3, then (3 + F) / 2 = 9.
        {[](B b, int* sf) { QXnbAdd2(b, b, 1, 0, 3, 2, sf); }, {0x12, 0x3F}, {0x11, 0x39}, 1},
        // 3 x 2 = 6, then 50 x 6 leaves the range; the products from there on, as
        // memory holds them, are 300 and 350: one count. 6 becomes 3, then 75 and
        // 75 x 7 / 2 = 262, which wraps to 6.
        {[](B b, int* sf) { QXybMpy2(b, b + 1, 3, 2, sf); }, {2, 3, 50, 7}, {2, 3, 75, 6}, 1},
    };
    for (const auto& c : cases) {
        std::vector<unsigned char> v(c.in.begin(), c.in.end());
        int sf = 0;
        c.call(v.data(), &sf);
        EXPECT_EQ(std::vector<int>(v.begin(), v.end()), c.out);
        EXPECT_EQ(sf, c.sfOut);
    }
}

TEST_F(Cases, DestinationMayBeOneOfTheSources) {
    std::mt19937 g(31);
    auto a = elems<short>(randomVec(g, kS16, 1000, -32768, 32767));
    auto b = elems<short>(randomVec(g, kS16, 1000, -32768, 32767));
    allPaths([&] {
        for (int doScale = 0; doScale <= 3; ++doScale) {
            std::vector<short> sep(1000), same = a, both = a, sepBoth(1000);
            int sf[4] = {1, 1, 1, 1};
            QXwbSub3(a.data(), b.data(), sep.data(), 1000, doScale, &sf[0]);
            clear();  // checked mode overflows: each call starts from a clear status
            QXwbSub3(same.data(), b.data(), same.data(), 1000, doScale, &sf[1]);
            clear();
            QXwbMpy3(a.data(), a.data(), sepBoth.data(), 1000, doScale, &sf[2]);
            clear();
            QXwbMpy3(both.data(), both.data(), both.data(), 1000, doScale, &sf[3]);
            clear();
            EXPECT_EQ(same, sep) << doScale;
            EXPECT_EQ(both, sepBoth) << doScale;
            EXPECT_EQ(sf[1], sf[0]);
            EXPECT_EQ(sf[3], sf[2]);
        }
    });
}

TEST_F(Cases, CheckedModeReportsBothDirectionsFoundInOneLanePosition) {
    // An overflow and an underflow at element positions one vector width apart.
    allPaths([&] {
        std::vector<short> src(64, 0), dst(64, 0);
        src[0] = -1, dst[0] = 32767, src[32] = 1, dst[32] = -32768;
        int sf = 5;
        clear();
        EXPECT_EQ(QXwbSub2(src.data(), dst.data(), 64, 0, &sf), -21);
        EXPECT_EQ(got(), (std::vector<kvxtest::Rep>{{-20, "QXwbSub2", ""}, {-21, "QXwbSub2", ""}}));
        std::vector<signed char> a(128, 0), b(128, 0);
        a[0] = b[0] = 100, a[64] = b[64] = -100;
        clear();
        EXPECT_EQ(QXtbAdd2(a.data(), b.data(), 128, 0, &sf), -21);
        EXPECT_EQ(got(), (std::vector<kvxtest::Rep>{{-20, "QXtbAdd2", ""}, {-21, "QXtbAdd2", ""}}));
    });
}
