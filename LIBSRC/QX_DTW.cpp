// Pattern stores and dynamic time warping: the exported calls and their
// reports. The list machinery of the stores is in qx_dtw_store.h, the warping
// core in qx_dtw_warp.h; neither reports.
//
// Two process-wide stores keep the reference patterns: one of 16-bit patterns
// (with a float copy of each) and one of float patterns.
#include <cmath>
#include <cstdint>
#include <cstring>

#include "kvxpx.h"
#include "qx_alloc.h"
#include "qx_dtw.h"
#include "qx_dtw_store.h"
#include "qx_dtw_warp.h"
#include "qx_report.h"

using qx::pattern::SRecord;
using qx::pattern::WRecord;
using qx::pattern::Store;
using qx::pattern::release_rows;
namespace dtw = qx::dtw;
using qx::dtw::Band;
using qx::dtw::Work;
using qx::dtw::kMark;

namespace {

Store<WRecord> wPatterns;
Store<SRecord> sPatterns;

// The names of one store's messages and the texts that differ between stores.
struct StoreTexts {
    qx::Report ini, ptrGet, free, ptrFree, freeAll;
    const char* noMem;     // Ini: the record cannot be allocated
    const char* empty;     // PtrGet: the store is empty
    const char* broken;    // PtrFree: the store holds nothing to release
    const char* noRecord;  // Free: the id names no record
    const char* failed;    // FreeAll: a record could not be released
};

constexpr StoreTexts wTexts{
    qx::Report{"QXwPatternIni"}, qx::Report{"QXwPatternPtrGet"}, qx::Report{"QXwPatternFree"},
    qx::Report{"QXwPatternPtrFree"}, qx::Report{"QXwPatternFreeAll"},
    "wPattern can not be allocated",
    "wPatterns have not been initialized.",
    "Error in internal structure. wPatterns have not be allocated.",
    "wPattern NULL ptr is met in internal structure. The wPattern can not be free.",
    "Error in internal structure. wPattern can not be free"};

constexpr StoreTexts sTexts{
    qx::Report{"QXsPatternIni"}, qx::Report{"QXsPatternPtrGet"}, qx::Report{"QXsPatternFree"},
    qx::Report{"QXsPatternPtrFree"}, qx::Report{"QXsPatternFreeAll"},
    "sPattern can not be allocated",
    "sPatterns have not been initialized.",
    "Error in internal structure. sPatterns have not be allocated.",
    "sPattern NULL ptr is met in internal structure. The sPattern can not be free.",
    "Error in internal structure. sPattern can not be free"};

template <class Record>
Record* ptr_get(const Store<Record>& st, const StoreTexts& x, int idPttrn) noexcept {
    if (idPttrn <= 0) {
        x.ptrGet.raise(QX_StsBadArg, "(idPttrn<=0)");
        return nullptr;
    }
    if (st.head == nullptr) {
        x.ptrGet.raise(QX_StsError, x.empty);
        return nullptr;
    }
    return find(st, idPttrn);
}

template <class Record>
int ptr_free(Store<Record>& st, const StoreTexts& x, Record* rec) noexcept {
    if (rec == nullptr)
        return -1;
    if (st.count == 0 || st.head == nullptr) {
        x.ptrFree.raise(QX_StsError, x.broken);
        return -1;
    }
    remove(st, rec);
    return 0;
}

template <class Record>
int free_one(Store<Record>& st, const StoreTexts& x, int idPttrn) noexcept {
    Record* rec = ptr_get(st, x, idPttrn);
    if (rec == nullptr) {
        x.free.raise(QX_StsError, x.noRecord);
        return -1;
    }
    return ptr_free(st, x, rec);
}

template <class Record>
int free_all(Store<Record>& st, const StoreTexts& x) noexcept {
    if (st.head == nullptr)
        return 0;
    int result = 0;
    for (auto* rec = st.head; rec != nullptr;) {
        auto* next = rec->next;
        if (ptr_free(st, x, rec) != 0) {
            x.freeAll.raise(QX_StsError, x.failed);
            result = -1;
        }
        rec = next;
    }
    return result;
}

// A 16-bit record of nSeq rows of len values, not yet entered: its row
// pointers, one block for the 8-byte aligned rows ((len + 16) x nSeq x 4
// bytes, more than the rows need) and the float copy, zeroed so that rows a
// failing conversion leaves unwritten read as zeros. Null when any part
// cannot be allocated (the parts that could are released).
WRecord* new_w_record(int nSeq, int len) noexcept {
    const auto rows = static_cast<std::size_t>(nSeq);
    const auto rowBytes = static_cast<std::size_t>(len) * sizeof(short);
    auto rec = static_cast<WRecord*>(qx::calloc(1, sizeof(WRecord)));
    auto rowPtrs = qx::alloc_n<short*>(rows);
    void* block = qx::calloc((static_cast<std::size_t>(len) + 16) * rows, 4);
    if (rowPtrs != nullptr && block != nullptr) {
        auto at = reinterpret_cast<std::uintptr_t>(block);
        for (std::size_t i = 0; i < rows; ++i) {
            at = (at + 7) & ~std::uintptr_t{7};
            rowPtrs[i] = reinterpret_cast<short*>(at);
            at += rowBytes;
        }
    }
    float** floatRows = QXsAlloc2(nSeq, len);
    if (rec == nullptr || rowPtrs == nullptr || block == nullptr || floatRows == nullptr) {
        release_rows(floatRows, nSeq);
        qx::free(block);
        qx::free(rowPtrs);
        qx::free(rec);
        return nullptr;
    }
    for (int i = 0; i < nSeq; ++i)
        std::memset(floatRows[i], 0, static_cast<std::size_t>(len) * sizeof(float));
    rec->pSeq = rowPtrs;
    rec->rowBlock = block;
    rec->floatRows = floatRows;
    rec->nSeq = nSeq;
    rec->len = len;
    return rec;
}

// A float record of nSeq rows of len values, not yet entered; null (with
// nothing left allocated) when it cannot be allocated.
SRecord* new_s_record(int nSeq, int len) noexcept {
    auto rec = static_cast<SRecord*>(qx::calloc(1, sizeof(SRecord)));
    float** rows = QXsAlloc2(nSeq, len);
    if (rec == nullptr || rows == nullptr) {
        release_rows(rows, nSeq);
        qx::free(rec);
        return nullptr;
    }
    rec->pSeq = rows;
    rec->nSeq = nSeq;
    rec->len = len;
    return rec;
}

// Both Ini functions: the checks, a new record from `make`, its id, its rows
// from `fill`, and its link at the tail. Returns the id, or -1. The row checks
// depart from the usual shape: they stop at the first null row.
template <class Record, class T, class Make, class Fill>
int ini(Store<Record>& st, const StoreTexts& x, T** pSeq, int nSeq, int len, Make make, Fill fill) noexcept {
    x.ini.check(nSeq <= 0, "nSeq<=0");
    x.ini.check(len <= 0, "len<=0");
    x.ini.check(pSeq == nullptr, "pSeq==0");
    if (qx::Report::failed())
        return -1;
    for (int i = 0; i < nSeq; ++i) {
        x.ini.check(pSeq[i] == nullptr, "pSeq[i]==0");
        if (qx::Report::failed())
            return -1;
    }
    Record* rec = make(nSeq, len);
    if (rec == nullptr) {
        x.ini.raise(QX_StsNoMem, x.noMem);
        return -1;
    }
    enter(st, rec);
    fill(rec);
    link(st, rec);
    return rec->id;
}

// -scaleFactor with two's-complement wrap-around (INT_MIN stays INT_MIN).
int negate(int v) noexcept { return static_cast<int>(0u - static_cast<unsigned>(v)); }

// The option checks of both evaluators; false when the call must end.
bool options_ok(const qx::Report& r, int options) noexcept {
    if ((options & (QX_DTW_L1 | QX_DTW_L2)) == 0) {
        r.raise(QX_StsBadArg, "Bad Distance Metric Options");
        return false;
    }
    if ((options & (QX_DTW_FIXED_END | QX_DTW_RELAXED_END)) == 0) {
        r.raise(QX_StsBadArg, "Bad End-Point Constraint Options");
        return false;
    }
    return true;
}

}  // namespace

constexpr double kOneThird = 1.0 / 3.0;  // the double nearest 1/3

// The upper bound is the slope-2 line from the start, relaxed by delta, until
// it meets the slope-1/2 line into the last cell; the lower bound the slope-1/2
// line from the start until it meets the slope-2 line into the last cell. The
// divisions by 3 are multiplications by the double nearest 1/3.
void qx::dtw::band_bounds(int n, int m, int delta, Band* band) noexcept {
    const std::int64_t N = n, M = m, D = delta;
    auto a = static_cast<std::int64_t>(std::floor(static_cast<double>(2 * M - 2 * D - N - 1) * kOneThird));
    if (a < 0)
        a = -1;
    auto b = static_cast<std::int64_t>(std::ceil(static_cast<double>(4 * N - 2 * M + 2 * D - 2) * kOneThird));
    if (b > N - 1)
        b = N;
    for (std::int64_t i = 0; i < N; ++i) {
        band[i].hi = static_cast<int>(i <= a ? 2 * i + D : M - 1 - (N - 1 - i) / 2);
        band[i].lo = static_cast<int>(i < b ? i / 2 : M - 1 - D - 2 * (N - 1 - i));
    }
}

// ---------------------------------------------------------------------------
// Internal lookups and releases
// ---------------------------------------------------------------------------

// The lookups, releases, Get, Free and FreeAll depart from the usual shape:
// they make no status test, so they report and work while an error is pending.

WRecord* QXwPatternPtrGet(int idPttrn) { return ptr_get(wPatterns, wTexts, idPttrn); }
SRecord* QXsPatternPtrGet(int idPttrn) { return ptr_get(sPatterns, sTexts, idPttrn); }
int QXwPatternPtrFree(WRecord* record) { return ptr_free(wPatterns, wTexts, record); }
int QXsPatternPtrFree(SRecord* record) { return ptr_free(sPatterns, sTexts, record); }

// ---------------------------------------------------------------------------
// Exported functions
// ---------------------------------------------------------------------------

extern "C" {

QX_API int QXwPatternIni(short** pSeq, int nSeq, int len, int scaleFactor) {
    return ini(wPatterns, wTexts, pSeq, nSeq, len, new_w_record, [&](WRecord* rec) {
        rec->scaleFactor = scaleFactor;
        for (int i = 0; i < nSeq; ++i) {
            QXwsbConvertUp(pSeq[i], rec->floatRows[i], len, negate(scaleFactor));
            QXwbCopy(pSeq[i], rec->pSeq[i], len);
        }
    });
}

QX_API int QXsPatternIni(float** pSeq, int nSeq, int len) {
    return ini(sPatterns, sTexts, pSeq, nSeq, len, new_s_record, [&](SRecord* rec) {
        for (int i = 0; i < nSeq; ++i)
            QXsbCopy(pSeq[i], rec->pSeq[i], len);
    });
}

QX_API int QXwPatternGet(int idPttrn, short*** pSeq, int* nSeq, int* len, int* scaleFactor) {
    const WRecord* rec = QXwPatternPtrGet(idPttrn);
    if (rec == nullptr)
        return 0;
    if (pSeq) *pSeq = rec->pSeq;
    if (nSeq) *nSeq = rec->nSeq;
    if (len) *len = rec->len;
    if (scaleFactor) *scaleFactor = rec->scaleFactor;
    return rec->id;
}

QX_API int QXsPatternGet(int idPttrn, float*** pSeq, int* nSeq, int* len) {
    const SRecord* rec = QXsPatternPtrGet(idPttrn);
    if (rec == nullptr)
        return 0;
    if (pSeq) *pSeq = rec->pSeq;
    if (nSeq) *nSeq = rec->nSeq;
    if (len) *len = rec->len;
    return rec->id;
}

QX_API int QXwPatternFree(int idPttrn) { return free_one(wPatterns, wTexts, idPttrn); }
QX_API int QXsPatternFree(int idPttrn) { return free_one(sPatterns, sTexts, idPttrn); }
QX_API int QXwPatternFreeAll(void) { return free_all(wPatterns, wTexts); }
QX_API int QXsPatternFreeAll(void) { return free_all(sPatterns, sTexts); }
QX_API int QXwPatternsNumber(void) { return wPatterns.count; }
QX_API int QXsPatternsNumber(void) { return sPatterns.count; }

// The evaluators depart from the usual shape (checks, then the status test):
// they check only the options, stop at the first failed one, and never read the
// status word; while an error is pending the distances are 0, so every eligible
// pattern scores 0 (or the threshold when it is 0 or less). A null idList (or,
// in the float form, a null scores) with nPatterns > 0 returns -1 unreported.
QX_API int QXsEvalDTW(const int* idList, int nPatterns, float** testSeq, int testLen, int vecLen, int options,
                      double threshold, int endPointRange, double* scores) {
    constexpr qx::Report r{"QXsEvalDTW"};
    if (!options_ok(r, options))
        return -1;
    if (nPatterns > 0 && (idList == nullptr || scores == nullptr))
        return -1;
    const std::int64_t delta = dtw::slack(options, endPointRange);
    const double best = static_cast<double>(3.4e38f);
    const double t = (options & QX_DTW_THRESHOLD) ? threshold : kMark;
    const bool l1 = (options & QX_DTW_L1) != 0;

    Work w;
    if (!dtw::alloc_work(w, delta + 2 * std::int64_t{testLen} - 1, 2, testLen, nPatterns)) {
        w.release();
        r.raise(QX_StsNoMem, "No memory for work arrays allocation");
        return -1;
    }
    for (int k = 0; k < nPatterns; ++k)
        w.recs[k] = QXsPatternPtrGet(idList[k]);
    const int position = dtw::score_all<SRecord>(w, nPatterns, testSeq, testLen, vecLen, l1, t, delta, best, scores);
    w.release();
    return position;
}

QX_API int QXwEvalDTW(const int* idList, int nPatterns, short** testSeq, int testLen, int vecLen, int testScaleFactor,
                      int options, int threshold, int thresholdScaleFactor, int endPointRange, int* scores,
                      int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXwEvalDTW"};
    if (!options_ok(r, options))
        return -1;
    if (nPatterns > 0 && idList == nullptr)
        return -1;
    const std::int64_t delta = dtw::slack(options, endPointRange);
    const double best = 3.4e38;
    const double t = (options & QX_DTW_THRESHOLD) ? QXidConvertUp(threshold, negate(thresholdScaleFactor)) : kMark;
    const bool l1 = (options & QX_DTW_L1) != 0;

    Work w;
    const bool ok = dtw::alloc_work(w, delta + 2 * std::int64_t{testLen} - 1, 0, testLen, nPatterns);
    float** test = QXsAlloc2(testLen, vecLen);
    auto dscores = static_cast<double*>(dtw::alloc_count(nPatterns, sizeof(double)));
    if (!ok || test == nullptr || dscores == nullptr) {
        w.release();
        release_rows(test, testLen);
        qx::free(dscores);
        r.raise(QX_StsNoMem, "No memory for work arrays allocation");
        return -1;
    }
    for (int k = 0; k < nPatterns; ++k)
        w.recs[k] = QXwPatternPtrGet(idList[k]);
    for (int i = 0; i < testLen; ++i)  // rows a failing conversion leaves unwritten read as zeros
        std::memset(test[i], 0, static_cast<std::size_t>(vecLen) * sizeof(float));
    for (int i = 0; i < testLen; ++i)
        QXwsbConvertUp(testSeq == nullptr ? nullptr : testSeq[i], test[i], vecLen, negate(testScaleFactor));
    const int position = dtw::score_all<WRecord>(w, nPatterns, test, testLen, vecLen, l1, t, delta, best, dscores);
    QXdibConvertDown(dscores, scores, nPatterns, doScale, scaleFactor);
    w.release();
    release_rows(test, testLen);
    qx::free(dscores);
    return position;
}

}  // extern "C"
