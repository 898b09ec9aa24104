// Row-pointer arrays ("Alloc2": one heap block per row) and tables
// ("AllocTable": the rows are slices of one block), and the library's heap.
#include <cstdlib>

#include "kvxpx.h"
#include "qx_alloc.h"
#include "qx_report.h"

namespace {

long g_allocations = 0;   // successful allocations
long g_attempts = 0;      // calls, failed ones included
long g_live = 0;          // allocated, not yet released
long g_failAt = 0;        // allocation number that fails (0: none)
bool g_failSticky = false;
void* g_last = nullptr;    // most recent successful allocation
const void* g_failedSite = nullptr;  // return address of the last injected failure

bool injected_failure() noexcept {
    const long attempt = ++g_attempts;
    if (g_failAt == 0)
        return false;
    return g_failSticky ? attempt >= g_failAt : attempt == g_failAt;
}

}  // namespace

namespace qx {

void* alloc(std::size_t bytes) noexcept {
    if (injected_failure()) {
        g_failedSite = __builtin_return_address(0);
        return nullptr;
    }
    void* p = std::malloc(bytes ? bytes : 1);
    if (p) {
        ++g_allocations;
        ++g_live;
        g_last = p;
    }
    return p;
}

void* calloc(std::size_t count, std::size_t size) noexcept {
    if (injected_failure()) {
        g_failedSite = __builtin_return_address(0);
        return nullptr;
    }
    void* p = (count && size) ? std::calloc(count, size) : std::calloc(1, 1);
    if (p) {
        ++g_allocations;
        ++g_live;
        g_last = p;
    }
    return p;
}

void free(void* p) noexcept {
    if (p) {
        --g_live;
        std::free(p);
    }
}

void* alloc_aligned32(std::size_t bytes, void** raw) noexcept {
    const void* site = g_failedSite;
    *raw = alloc(bytes + 32);
    if (g_failedSite != site)
        g_failedSite = __builtin_return_address(0);
    return align32(*raw);
}

namespace testing {
void fail_allocation(long nth, bool sticky) noexcept {
    g_failAt = nth > 0 ? g_attempts + nth : 0;
    g_failSticky = sticky;
}
long allocations() noexcept { return g_allocations; }
long live_blocks() noexcept { return g_live; }
void* last_allocation() noexcept { return g_last; }
const void* failed_site() noexcept { return g_failedSite; }
}  // namespace testing

}  // namespace qx

namespace {

// Bytes of one row of nCols elements of each type letter.
enum class Kind { Bit, Nibble, Byte, Short, Word };

std::size_t row_bytes(Kind kind, int nCols) noexcept {
    const auto c = static_cast<std::size_t>(nCols);
    switch (kind) {
    case Kind::Bit: return c / 8 + (c % 8 ? 1 : 0);
    case Kind::Nibble: return c / 2 + (c % 2 ? 1 : 0);
    case Kind::Byte: return c;
    case Kind::Short: return 2 * c;
    case Kind::Word: return 4 * c;
    }
    return c;
}

// The shape check and the array of row pointers, common to both layouts.
void** row_pointers(const qx::Report& r, int nRows, int nCols) noexcept {
    if (nRows < 1 || nCols < 1) {
        r.raise(QX_StsBadArg, "((nRows<=0)||(nCols<=0))");
        return nullptr;
    }
    auto rows = qx::alloc_n<void*>(static_cast<std::size_t>(nRows));
    if (rows == nullptr)
        r.raise(QX_StsNoMem, "The pointers vector can not be allocated");
    return rows;
}

void** alloc2(const qx::Report& r, Kind kind, int nRows, int nCols, const char* rowFailure) noexcept {
    void** rows = row_pointers(r, nRows, nCols);
    if (rows == nullptr)
        return nullptr;
    const std::size_t bytes = row_bytes(kind, nCols);
    for (int k = 0; k < nRows; ++k) {
        rows[k] = qx::alloc(bytes);
        if (rows[k] == nullptr) {
            for (int j = k - 1; j >= 0; --j)
                qx::free(rows[j]);
            qx::free(rows);
            r.raise(QX_StsNoMem, rowFailure);
            return nullptr;
        }
    }
    return rows;
}

// `blockName` reports the failed data block; QXyAllocTable passes another
// member's name there and keeps its own for the other two reports.
void** alloc_table(const qx::Report& r, Kind kind, int nRows, int nCols, const qx::Report& blockName) noexcept {
    void** rows = row_pointers(r, nRows, nCols);
    if (rows == nullptr)
        return nullptr;
    const std::size_t bytes = row_bytes(kind, nCols);
    auto block = static_cast<unsigned char*>(qx::alloc(bytes * static_cast<std::size_t>(nRows)));
    if (block == nullptr) {
        // The pointer array stays allocated on this path; callers cannot reach
        // it either. This is the documented behaviour of the table allocators.
        blockName.raise(QX_StsNoMem, "2D array vector can not be allocated");
        return nullptr;
    }
    for (int k = 0; k < nRows; ++k)
        rows[k] = block + bytes * static_cast<std::size_t>(k);
    return rows;
}

}  // namespace

extern "C" {

QX_API int QX_Free2(void* ptr, int nRows) {
    constexpr qx::Report r{"QX_Free2"};
    r.check(nRows < 1, "nRows<=0");
    r.check(ptr == nullptr, "ptr==0");
    if (qx::Report::failed())
        return -1;
    auto rows = static_cast<void**>(ptr);
    for (int k = nRows - 1; k >= 0; --k)
        qx::free(rows[k]);
    qx::free(rows);
    return 0;
}

QX_API int QX_FreeTable(void* ptr) {
    constexpr qx::Report r{"QX_FreeTable"};
    if (ptr == nullptr) {
        r.raise(QX_StsBadArg, "ptr==((void *)0)");
        return -1;
    }
    auto rows = static_cast<void**>(ptr);
    qx::free(rows[0]);
    qx::free(rows);
    return 0;
}

#define QX_ALLOC_FAMILY(L, T, KIND, ROWFAIL, TABLENAME)                          \
    QX_API T** QX##L##Alloc2(int nRows, int nCols) {                             \
        constexpr qx::Report r{"QX" #L "Alloc2"};                                \
        return reinterpret_cast<T**>(alloc2(r, KIND, nRows, nCols, ROWFAIL));    \
    }                                                                            \
    QX_API T** QX##L##AllocTable(int nRows, int nCols) {                         \
        constexpr qx::Report r{"QX" #L "AllocTable"};                            \
        constexpr qx::Report block{TABLENAME};                                   \
        return reinterpret_cast<T**>(alloc_table(r, KIND, nRows, nCols, block)); \
    }                                                                            \
    QX_API int QX##L##Free2(T** ptr, int nRows) { return QX_Free2(ptr, nRows); } \
    QX_API int QX##L##FreeTable(T** ptr) { return QX_FreeTable(ptr); }

QX_ALLOC_FAMILY(b, unsigned char, Kind::Bit, "Current float vector can not be allocated", "QXbAllocTable")
QX_ALLOC_FAMILY(n, unsigned char, Kind::Nibble, "Current vector can not be allocated", "QXnAllocTable")
QX_ALLOC_FAMILY(y, unsigned char, Kind::Byte, "Current vector can not be allocated", "QXnAllocTable")
QX_ALLOC_FAMILY(t, signed char, Kind::Byte, "Current vector can not be allocated", "QXtAllocTable")
QX_ALLOC_FAMILY(w, short, Kind::Short, "Current vector can not be allocated", "QXwAllocTable")
QX_ALLOC_FAMILY(i, int, Kind::Word, "Current vector can not be allocated", "QXiAllocTable")
QX_ALLOC_FAMILY(s, float, Kind::Word, "Current vector can not be allocated", "QXsAllocTable")

#undef QX_ALLOC_FAMILY

}  // extern "C"
