// Row-pointer arrays and tables (their allocation failures: test_oom.cpp).
#include <cstdint>

#include "kvx_test.h"

using kvxtest::LibTest;
using kvxtest::Rep;

namespace {

class Alloc : public LibTest {};

std::ptrdiff_t gap(const void* a, const void* b) {
    return static_cast<const char*>(b) - static_cast<const char*>(a);
}

}  // namespace

TEST_F(Alloc, TableRowsAreSlicesOfOneBlockWithExactRowSizes) {
    const struct {
        kvxtest::MakeRows make;
        int nCols;
        std::ptrdiff_t row;
    } cases[] = {{kvxtest::make_rows<QXbAllocTable>, 9, 2}, {kvxtest::make_rows<QXbAllocTable>, 8, 1},
                 {kvxtest::make_rows<QXnAllocTable>, 3, 2}, {kvxtest::make_rows<QXnAllocTable>, 4, 2},
                 {kvxtest::make_rows<QXyAllocTable>, 5, 5}, {kvxtest::make_rows<QXtAllocTable>, 5, 5},
                 {kvxtest::make_rows<QXwAllocTable>, 5, 10}, {kvxtest::make_rows<QXiAllocTable>, 5, 20},
                 {kvxtest::make_rows<QXsAllocTable>, 5, 20}};
    for (const auto& c : cases) {
        long live = qx::testing::live_blocks();
        void** t = c.make(3, c.nCols);
        ASSERT_NE(t, nullptr);
        EXPECT_EQ(gap(t[0], t[1]), c.row);
        EXPECT_EQ(gap(t[1], t[2]), c.row);
        EXPECT_EQ(qx::testing::live_blocks(), live + 2);
        EXPECT_EQ(QX_FreeTable(t), 0);  // exactly the two blocks
        EXPECT_EQ(qx::testing::live_blocks(), live);
    }
    EXPECT_TRUE(got().empty());
}

TEST_F(Alloc, Alloc2RowsAreSeparateBlocksReleasedByFree2) {
    long live = qx::testing::live_blocks();
    short** a = QXwAlloc2(4, 3);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(qx::testing::live_blocks(), live + 5);
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 3; ++c)
            a[r][c] = static_cast<short>(r * 3 + c);  // rows of 6 bytes are writable (ASan watches)
    EXPECT_EQ(QXwFree2(a, 4), 0);
    EXPECT_EQ(qx::testing::live_blocks(), live);
    unsigned char** b = QXbAlloc2(2, 9);
    b[0][1] = b[1][1] = 0xFF;  // 9 bits take 2 bytes
    EXPECT_EQ(QXbFree2(b, 2), 0);
    float** s = QXsAlloc2(1, 1);
    EXPECT_EQ(QXsFree2(s, 1), 0);
    EXPECT_EQ(QXnFree2(QXnAlloc2(1, 3), 1), 0);
    EXPECT_EQ(QXyFree2(QXyAlloc2(2, 2), 2), 0);
    EXPECT_EQ(QXtFree2(QXtAlloc2(2, 2), 2), 0);
    EXPECT_EQ(QXiFree2(QXiAlloc2(2, 2), 2), 0);
    EXPECT_EQ(qx::testing::live_blocks(), live);
}

TEST_F(Alloc, BadSizesAndBadReleases) {
    EXPECT_EQ(QXbAlloc2(0, 5), nullptr);
    EXPECT_EQ(QXsAllocTable(2, -1), nullptr);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXbAlloc2", "((nRows<=0)||(nCols<=0))"},
                                      {-5, "QXsAllocTable", "((nRows<=0)||(nCols<=0))"}}));
    EXPECT_TRUE(kvxtest::all_name_raising_lines());
    clear();

    float** s = QXsAlloc2(1, 2);
    EXPECT_EQ(QX_Free2(s, 0), -1);  // nothing released
    EXPECT_EQ(QX_Free2(nullptr, -1), -1);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QX_Free2", "nRows<=0"}, {-5, "QX_Free2", "nRows<=0"},
                                      {-5, "QX_Free2", "ptr==0"}}));
    clear();
    EXPECT_EQ(QXsFree2(s, 1), 0);

    QXSetErrMode(QX_ErrorModeSilent);
    QXSetStatus(-5);  // the table release ignores the status word
    EXPECT_EQ(QX_FreeTable(nullptr), -1);
    EXPECT_EQ(QXyFreeTable(QXyAllocTable(1, 1)), 0);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QX_FreeTable", "ptr==((void *)0)"}}));
}
