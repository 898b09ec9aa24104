// Record layouts of the library's home data model (32-bit x86: 4-byte
// pointers and ints, x87 long double): callers and files built against the
// DLL rely on these sizes and offsets. On 64-bit builds only the layouts that
// do not depend on the pointer size are checked.
#include <cfloat>
#include <cstddef>
#include <cstdint>

#include "kvx_test.h"
#include "qx_context.h"
#include "qx_dtw.h"
#include "qx_gauss.h"
#include "qx_hmm.h"

namespace {

struct Field {
    const char* name;
    std::size_t actual;
    std::size_t expected;
};

#define KVX_AT(type, member, at) Field{#type "." #member, offsetof(type, member), at}
#define KVX_SIZE(type, size) Field{"sizeof " #type, sizeof(type), size}

void expect_layout(std::initializer_list<Field> fields) {
    for (const Field& f : fields)
        EXPECT_EQ(f.actual, f.expected) << f.name;
}

}  // namespace

TEST(Layout, FilterBankPointIsFortyBytesOnEveryBuild) {
    expect_layout({
        KVX_SIZE(QXMFCCPoint, 40), KVX_AT(QXMFCCPoint, count, 0), KVX_AT(QXMFCCPoint, entry[0].band, 8),
        KVX_AT(QXMFCCPoint, entry[0].weight, 16), KVX_AT(QXMFCCPoint, entry[1].band, 24),
        KVX_AT(QXMFCCPoint, entry[1].weight, 32),
        KVX_SIZE(QXLibraryInfo, 12),
        KVX_AT(QXProcessorInfo, text, 12),
        KVX_SIZE(QXRegion, 16),
    });
}

// The layouts that hold on the 32-bit data model only.
TEST(Layout, ThirtyTwoBitRecords) {
    if (sizeof(void*) != 4)
        GTEST_SKIP() << "64-bit build: pointers are 8 bytes";
    EXPECT_EQ(sizeof(int), 4u);
    EXPECT_EQ(sizeof(long), 4u);
#if defined(__i386__) || defined(_M_IX86)
    EXPECT_EQ(LDBL_MANT_DIG, 64) << "long double is the x87 extended format";
    EXPECT_EQ(sizeof(long double), 12u);
#endif
    expect_layout({
        KVX_SIZE(QXMFCCFilters, 28), KVX_AT(QXMFCCFilters, id, 0), KVX_AT(QXMFCCFilters, order, 4),
        KVX_AT(QXMFCCFilters, n, 8), KVX_AT(QXMFCCFilters, nBandPass, 12), KVX_AT(QXMFCCFilters, firstPoint, 16),
        KVX_AT(QXMFCCFilters, lastPoint, 20), KVX_AT(QXMFCCFilters, fftSpec, 24),
    });
    // The working context keeps its word order. A window block: buffer (2
    // words), two caches of 2 + 16 + 16 words, 64 spare words.
    constexpr std::size_t block = (2 + 2 * 34 + 64) * 4;
    constexpr std::size_t tables = 8 + 4 * block;  // after the pre-emphasis buffer and the windows
    constexpr std::size_t set = 33 * 4;           // 32 per-order slots and a spare
    using qx::Context;
    using qx::WinBlock;
    expect_layout({
        KVX_AT(Context, preemphCap, 0), KVX_AT(Context, preemphBuf, 4), KVX_AT(Context, win, 8),
        KVX_SIZE(WinBlock, block), KVX_AT(WinBlock, buff, 4), KVX_AT(WinBlock, sCache, 8),
        KVX_AT(WinBlock, sCache.lengths, 16), KVX_AT(WinBlock, sCache.tables, 80), KVX_AT(WinBlock, wCache, 144),
        KVX_AT(WinBlock, unused, 280),
        KVX_AT(Context, wTwd, tables), KVX_AT(Context, second, tables + set), KVX_AT(Context, cTwd, tables + 2 * set),
        KVX_AT(Context, bitRev, tables + 3 * set), KVX_AT(Context, rTwd, tables + 4 * set),
        KVX_AT(Context, Fft.iBuffer, tables + 5 * set), KVX_AT(Context, Fft.sBuffer, tables + 5 * set + 4),
        KVX_AT(Context, Fft.iBufferCap, tables + 5 * set + 8), KVX_AT(Context, Fft.sBufferCap, tables + 5 * set + 12),
        KVX_AT(Context, Dct.sstoredDctFactor, tables + 5 * set + 16),
    });
    // Model and pattern records.
    using qx::HMMServer;
    using qx::HMMClassBlock;
    using WRecord = qx::pattern::WRecord;
    using SRecord = qx::pattern::SRecord;
    expect_layout({
        KVX_SIZE(HMMServer, 56), KVX_AT(HMMServer, HMMId, 0), KVX_AT(HMMServer, word, 4), KVX_AT(HMMServer, nStates, 8),
        KVX_AT(HMMServer, nSymbols, 12), KVX_AT(HMMServer, tprob, 16), KVX_AT(HMMServer, oprob, 20),
        KVX_AT(HMMServer, iprob, 24), KVX_AT(HMMServer, next, 28), KVX_AT(HMMServer, prev, 32),
        KVX_AT(HMMServer, status, 36), KVX_AT(HMMServer, extra, 40), KVX_AT(HMMServer, outPdfs, 44),
        KVX_AT(HMMServer, nQuant, 48), KVX_AT(HMMServer, costScaleFactor, 52),
        KVX_SIZE(HMMClassBlock, 16 + 64 * 8), KVX_AT(HMMClassBlock, entries, 16),
        KVX_SIZE(WRecord, 40), KVX_AT(WRecord, isHead, 8), KVX_AT(WRecord, id, 12), KVX_AT(WRecord, pSeq, 16),
        KVX_AT(WRecord, rowBlock, 20), KVX_AT(WRecord, floatRows, 24), KVX_AT(WRecord, nSeq, 28),
        KVX_AT(WRecord, len, 32), KVX_AT(WRecord, scaleFactor, 36),
        KVX_SIZE(SRecord, 28), KVX_AT(SRecord, pSeq, 16), KVX_AT(SRecord, nSeq, 20), KVX_AT(SRecord, len, 24),
        KVX_SIZE(QXsGaussMixServer, 28), KVX_AT(QXsGaussMixServer, n, 16), KVX_AT(QXsGaussMixServer, useExpTable, 24),
        KVX_SIZE(QXwGaussMixServer, 32), KVX_AT(QXwGaussMixServer, scaleExp, 28),
    });
}
