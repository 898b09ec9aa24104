// FFT tables and transforms (float and short data, in place and not) on
// hostile orders, flags and scale factors.
#include "fuzz_common.h"

using namespace kvxfuzz;

namespace {

// 2^order elements when the order names a length we can provide, else 0.
long long points(int order) { return order >= 0 && order <= 14 ? 1LL << order : 0; }

void tables(FuzzedDataProvider& in, Outcome& o) {
    const int which = in.ConsumeIntegralInRange<int>(0, 8);
    const int order = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(-2, 16) : any_int(in);
    if (order >= 15 && order <= 31) return;  // larger than we provide
    const long long n = points(order);
    Buf a(in, 2 * n * 4), b(in, 4 * n * 4);
    switch (which) {
    case 0: o.add(QXGetBitRevTbl(order) != nullptr); break;
    case 1: o.add(QXCalcBitRevTbl(a.as<int>(), order)); a.only(32, 0, n); break;
    case 2: o.add(QXcbBitRev1(a.as<float>(), order)); a.guards(); break;
    case 3: QXcCalcFftTwdTbl(a.as<float>(), order); a.only(32, 0, 2 * n); break;
    case 4: QXcDecFftTwdTbl(a.as<float>(), b.as<float>(), order); a.only(32, 0, 2 * n); b.unchanged(); break;
    case 5: o.add(QXcGetFftTwdTbl(order) != nullptr); break;
    case 6: QXwCalcFftTwdTbl(a.as<short>(), order); a.only(16, 0, 2 * n); break;
    case 7: QXwDecFftTwdTbl(a.as<short>(), b.as<short>(), order); a.only(16, 0, 2 * n); b.unchanged(); break;
    default: o.add(QXwGetFftTwdTbl(order) != nullptr); break;
    }
    a.into(o.bytes);
}

void transform(FuzzedDataProvider& in, Outcome& o) {
    const int which = in.ConsumeIntegralInRange<int>(0, 11);
    const int order = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(-2, 13) : any_int(in);
    int flags = in.ConsumeIntegralInRange<int>(0, 3);
    if (in.ConsumeBool()) flags |= QX_NO_INVERSE_SCALING;
    if (in.ConsumeIntegralInRange<int>(0, 9) == 0) flags = any_int(in);
    const int ds = do_scale(in);
    int sf = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(-20, 20) : any_int(in);
    if (order >= 15 && order <= 31) return;
    const bool complexData = which % 3 == 0;
    const bool shorts = which >= 6;
    const long long count = (complexData ? 2 : 1) * points(order);
    const long long elem = shorts ? 2 : 4;
    Buf a(in, count * elem), b(in, count * elem);
    int r = 0;
    switch (which) {
    case 0: QXcFft(a.as<float>(), order, flags); break;
    case 1: QXsRealFft(a.as<float>(), order, flags); break;
    case 2: QXsCcsFft(a.as<float>(), order, flags); break;
    case 3: r = QXcFftNip(b.as<float>(), a.as<float>(), order, flags); break;
    case 4: r = QXsRealFftNip(b.as<float>(), a.as<float>(), order, flags); break;
    case 5: r = QXsCcsFftNip(b.as<float>(), a.as<float>(), order, flags); break;
    case 6: QXvFft(a.as<short>(), order, flags, ds, &sf); break;
    case 7: QXwRealFft(a.as<short>(), order, flags, ds, &sf); break;
    case 8: QXwCcsFft(a.as<short>(), order, flags, ds, &sf); break;
    case 9: r = QXvFftNip(b.as<short>(), a.as<short>(), order, flags, ds, &sf); break;
    case 10: r = QXwRealFftNip(b.as<short>(), a.as<short>(), order, flags, ds, &sf); break;
    default: r = QXwCcsFftNip(b.as<short>(), a.as<short>(), order, flags, ds, &sf); break;
    }
    b.unchanged();
    a.guards();
    a.into(o.bytes);  // exact bytes: every NaN a float transform returns is the same one
    o.add(r);
    o.add(sf);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return on_both_paths(data, size, [](FuzzedDataProvider& in, Outcome& o) {
        if (in.ConsumeIntegralInRange<int>(0, 3) == 0)
            tables(in, o);
        else
            transform(in, o);
        if (in.ConsumeIntegralInRange<int>(0, 63) == 0) QXFreeFftTbls();
    });
}
