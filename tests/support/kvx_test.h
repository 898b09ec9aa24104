// Test support: a fixture that captures every report the library makes and
// starts each test with a clean status word, report mode and no injected
// allocation failures.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kvxpx.h"
#include "qx_alloc.h"
#include "qx_cpu.h"

namespace kvxtest {

struct Reported {
    int code;
    std::string function;
    std::string condition;   // "<null>" when the library passed NULL
    std::string file;
    int line;
};

// Everything reported since the last clear, in order.
std::vector<Reported>& reports();

// The capturing handler: records the call, keeps the status word like the
// console handler in report mode (codes -1 and -8 are not recorded), prints nothing.
int capture(int code, const char* functionName, const char* conditionText, const char* sourceFile, int line);

// Fixture: capturing handler, status 0, mode 1, no allocation failures.
class LibTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // (code, function, condition) of every report so far.
    static std::vector<std::tuple<int, std::string, std::string>> got();
    // Reset status and captured reports (e.g. between the cases of one test).
    static void clear();
};

// Makes the nth allocation from now fail while in scope.
class FailAllocation {
public:
    explicit FailAllocation(long nth, bool sticky = false) { qx::testing::fail_allocation(nth, sticky); }
    ~FailAllocation() { qx::testing::fail_allocation(0); }
    FailAllocation(const FailAllocation&) = delete;
    FailAllocation& operator=(const FailAllocation&) = delete;
};

using Rep = std::tuple<int, std::string, std::string>;

// A row-array allocator of any element type as one of void rows, called through its own type.
using MakeRows = void** (*)(int, int);
template <auto F>
void** make_rows(int rows, int cols) {
    return reinterpret_cast<void**>(F(rows, cols));
}

// Element k of a packed row of w-bit elements (w = 1, 4 or 8): the first in the
// most significant bits of byte 0, the next ones towards bit 0 and on.
inline unsigned packed_get(int w, const unsigned char* row, long k) {
    return (row[k * w / 8] >> (8 - w - k * w % 8)) & ((1u << w) - 1);
}
inline void packed_set(int w, unsigned char* row, long k, unsigned v) {
    const int sh = static_cast<int>(8 - w - k * w % 8);
    const unsigned mask = ((1u << w) - 1) << sh;
    row[k * w / 8] = static_cast<unsigned char>((row[k * w / 8] & ~mask) | ((v << sh) & mask));
}

// Runs body(path) (0 plain, 1 AVX2, 2 AVX-512) on every kernel path the processor has, widest first, then
// returns to the path that was in force.
template <class F>
void on_every_path(F body) {
    const qx::cpu::Path was = qx::cpu::path();
    for (qx::cpu::Path p : {qx::cpu::Path::avx512, qx::cpu::Path::avx2, qx::cpu::Path::plain}) {
        if (p > qx::cpu::supported())
            continue;
        qx::cpu::force(p);
        SCOPED_TRACE(::testing::Message() << "kernel path " << static_cast<int>(p));
        body(static_cast<int>(p));
    }
    qx::cpu::force(was);
}

}  // namespace kvxtest

namespace kvxtest {
// True when the report's file is "..\LIBSRC\<name>" of a library source and its
// line holds the raising statement (the condition text, or a call into the
// reporting helper), or the table line that generates the
// reported function).
::testing::AssertionResult names_raising_line(const Reported& r);
// names_raising_line for every report so far.
::testing::AssertionResult all_name_raising_lines();
}  // namespace kvxtest
