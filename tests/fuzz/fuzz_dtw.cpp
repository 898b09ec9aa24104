// Vector distances, the two pattern stores and dynamic time warping, on
// hostile lengths, counts, ids, options, thresholds, end-point ranges and
// scale factors.
#include "fuzz_common.h"

using namespace kvxfuzz;

namespace {

void distance(FuzzedDataProvider& in, Outcome& o) {
    const int which = in.ConsumeIntegralInRange<int>(0, 9);
    const int n = which % 5 == 4 ? small_or_any(in) : any_int(in);
    const int doSqrt = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(0, 1) : any_int(in);
    const int ds = do_scale(in);
    int sf = any_int(in);
    if (n > (which % 5 == 4 ? 128 : kCap)) return;
    const bool shorts = which >= 5;
    const long long elem = shorts ? 2 : 4;
    Buf a(in, count_of(n) * elem), b(in, count_of(n) * elem), v(in, count_of(n) * elem);
    std::vector<Buf> rows;
    std::vector<void*> ptrs;
    if (which % 5 == 4) {
        for (int i = 0; i < n; ++i) rows.emplace_back(in, (i + 1) * elem);
        for (Buf& r : rows) ptrs.push_back(r.body());
        ptrs.push_back(nullptr);
    }
    switch (which) {
    case 0: o.add(QXsDotP(a.as<float>(), b.as<float>(), n)); break;
    case 1: o.add(QXsL1Norm(a.as<float>(), b.as<float>(), n)); break;
    case 2: o.add(QXsL2Norm(a.as<float>(), b.as<float>(), n, doSqrt)); break;
    case 3: o.add(QXsMahalanobisD(a.as<float>(), b.as<float>(), v.as<float>(), n, doSqrt)); break;
    case 4: o.add(QXsMahalanobis(a.as<float>(), b.as<float>(), reinterpret_cast<float**>(ptrs.data()), n, doSqrt)); break;
    case 5: o.add(QXwDotP(a.as<short>(), b.as<short>(), n, ds, &sf)); break;
    case 6: o.add(QXwL1Norm(a.as<short>(), b.as<short>(), n, ds, &sf)); break;
    case 7: o.add(QXwL2Norm(a.as<short>(), b.as<short>(), n, doSqrt, ds, &sf)); break;
    case 8: o.add(QXwMahalanobisD(a.as<short>(), b.as<short>(), v.as<short>(), n, doSqrt, ds, &sf)); break;
    default: o.add(QXwMahalanobis(a.as<short>(), b.as<short>(), reinterpret_cast<short**>(ptrs.data()), n, doSqrt, ds, &sf)); break;
    }
    a.unchanged();
    b.unchanged();
    v.unchanged();
    for (const Buf& r : rows) r.unchanged();
    o.add(sf);
}

// Stores a few patterns, matches a test against a list of ids, reads one
// back, frees them.
void warp(FuzzedDataProvider& in, Outcome& o) {
    QXwPatternFreeAll();  // ids start from 1 on every path
    QXsPatternFreeAll();
    const bool shorts = in.ConsumeBool();
    const long long elem = shorts ? 2 : 4;
    std::vector<int> ids;
    const int nStored = in.ConsumeIntegralInRange<int>(0, 4);
    for (int k = 0; k < nStored; ++k) {
        const int nSeq = small_or_any(in), len = small_or_any(in), sf = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(-3, 3) : any_int(in);
        if (count_of(nSeq) * count_of(len) > kCap || nSeq > 64) continue;
        Rows p(in, nSeq, count_of(len) * elem);
        const int id = shorts ? QXwPatternIni(p.as<short>(), nSeq, len, sf) : QXsPatternIni(p.as<float>(), nSeq, len);
        p.unchanged();
        o.add(id);
        ids.push_back(id);
        QXSetStatus(0);
    }
    const int nPatterns = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(-1, 6) : any_int(in);
    const int testLen = small_or_any(in);
    const int vecLen = small_or_any(in);
    int options = in.ConsumeIntegralInRange<int>(0, 0x2FF);
    if (in.ConsumeIntegralInRange<int>(0, 9) == 0) options = any_int(in);
    const int endPointRange = small_or_any(in);
    const int testSf = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(-3, 3) : any_int(in);
    const int thresholdSf = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(-3, 3) : any_int(in);
    const int ithreshold = any_int(in);
    const double threshold = static_cast<double>(any_int(in)) / 4.0;
    const int ds = do_scale(in);
    int sf = any_int(in);
    if (nPatterns > 64 || testLen > 64 || vecLen > 256) return;
    std::vector<int> idList(static_cast<std::size_t>(count_of(nPatterns)));
    for (int& id : idList)
        id = !ids.empty() && in.ConsumeBool() ? ids[in.ConsumeIntegralInRange<std::size_t>(0, ids.size() - 1)] : small_or_any(in);
    Rows test(in, testLen, count_of(vecLen) * elem);
    Buf scores(in, count_of(nPatterns) * (shorts ? 4 : 8));
    const int best = shorts ? QXwEvalDTW(idList.data(), nPatterns, test.as<short>(), testLen, vecLen, testSf, options,
                                         ithreshold, thresholdSf, endPointRange, scores.as<int>(), ds, &sf)
                            : QXsEvalDTW(idList.data(), nPatterns, test.as<float>(), testLen, vecLen, options, threshold,
                                         endPointRange, scores.as<double>());
    test.unchanged();
    scores.guards();
    scores.into(o.bytes);
    o.add(best);
    o.add(sf);
    QXSetStatus(0);
    const int getId = !ids.empty() && in.ConsumeBool() ? ids[0] : any_int(in);
    int nSeq = -3, len = -3, gsf = -3;
    if (shorts) {
        short** rows = nullptr;
        o.add(QXwPatternGet(getId, &rows, &nSeq, &len, &gsf));
        if (rows != nullptr)
            for (int i = 0; i < nSeq; ++i)
                for (int j = 0; j < len; ++j) o.add(rows[i][j]);
    } else {
        float** rows = nullptr;
        o.add(QXsPatternGet(getId, &rows, &nSeq, &len));
        if (rows != nullptr)
            for (int i = 0; i < nSeq; ++i)
                for (int j = 0; j < len; ++j) o.add(rows[i][j]);
    }
    o.add(nSeq);
    o.add(len);
    o.add(gsf);
    QXSetStatus(0);
    o.add(shorts ? QXwPatternFree(any_int(in)) : QXsPatternFree(any_int(in)));
    o.add(shorts ? QXwPatternsNumber() : QXsPatternsNumber());
    QXSetStatus(0);
    QXwPatternFreeAll();
    QXsPatternFreeAll();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return on_both_paths(data, size, [](FuzzedDataProvider& in, Outcome& o) {
        if (in.ConsumeBool())
            distance(in, o);
        else
            warp(in, o);
    });
}
