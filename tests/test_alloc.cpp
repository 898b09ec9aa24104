// Row-pointer arrays and tables (their allocation failures: test_oom.cpp).
#include <cstdint>
#include <cstring>

#include "kvx_test.h"

using kvxtest::LibTest;
using kvxtest::Rep;

namespace {

class Alloc : public LibTest {};

std::ptrdiff_t gap(const void* a, const void* b) {
    return static_cast<const char*>(b) - static_cast<const char*>(a);
}

// Separate rows: one block each and the pointer array, every byte of a row
// writable (ASan watches), all released by the type's own release.
template <auto Alloc2, auto Free2>
void check_alloc2(int nCols, std::ptrdiff_t rowBytes) {
    const long live = qx::testing::live_blocks();
    auto a = Alloc2(3, nCols);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(qx::testing::live_blocks(), live + 4);
    for (int r = 0; r < 3; ++r)
        std::memset(a[r], 0xFF, static_cast<std::size_t>(rowBytes));
    EXPECT_EQ(Free2(a, 3), 0);
    EXPECT_EQ(qx::testing::live_blocks(), live);
}

}  // namespace

// Tables: rows are slices of one block with exact row sizes, released with
// the pointer array by one call.
TEST_F(Alloc, RowSizesOfTablesAndSeparateRows) {
    using kvxtest::make_rows;
    const struct {
        kvxtest::MakeRows table;
        void (*alloc2)(int, std::ptrdiff_t);
        int nCols;
        std::ptrdiff_t row;
    } cases[] = {{make_rows<QXbAllocTable>, check_alloc2<QXbAlloc2, QXbFree2>, 9, 2},
                 {make_rows<QXbAllocTable>, check_alloc2<QXbAlloc2, QXbFree2>, 8, 1},
                 {make_rows<QXnAllocTable>, check_alloc2<QXnAlloc2, QXnFree2>, 3, 2},
                 {make_rows<QXnAllocTable>, check_alloc2<QXnAlloc2, QXnFree2>, 4, 2},
                 {make_rows<QXyAllocTable>, check_alloc2<QXyAlloc2, QXyFree2>, 5, 5},
                 {make_rows<QXtAllocTable>, check_alloc2<QXtAlloc2, QXtFree2>, 5, 5},
                 {make_rows<QXwAllocTable>, check_alloc2<QXwAlloc2, QXwFree2>, 5, 10},
                 {make_rows<QXiAllocTable>, check_alloc2<QXiAlloc2, QXiFree2>, 5, 20},
                 {make_rows<QXsAllocTable>, check_alloc2<QXsAlloc2, QXsFree2>, 5, 20}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << &c - cases);
        long live = qx::testing::live_blocks();
        void** t = c.table(3, c.nCols);
        ASSERT_NE(t, nullptr);
        EXPECT_EQ(gap(t[0], t[1]), c.row);
        EXPECT_EQ(gap(t[1], t[2]), c.row);
        EXPECT_EQ(qx::testing::live_blocks(), live + 2);
        EXPECT_EQ(QX_FreeTable(t), 0);  // exactly the two blocks
        EXPECT_EQ(qx::testing::live_blocks(), live);
        c.alloc2(c.nCols, c.row);
    }
    EXPECT_TRUE(got().empty());
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
