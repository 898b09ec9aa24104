// The speech front end: pre-emphasis, the four windows (float and short) and
// the mel cepstrum (filter banks and cepstra), on hostile lengths, band
// counts, frequencies and scale factors.
#include "fuzz_common.h"

using namespace kvxfuzz;

namespace {

void preemphasis(FuzzedDataProvider& in, Outcome& o) {
    const bool shorts = in.ConsumeBool();
    const int n = any_int(in);
    const float coefficient = static_cast<float>(in.ConsumeIntegralInRange<int>(-300, 300)) / 128.0f;
    const int ds = do_scale(in);
    int sf = any_int(in);
    if (n > kCap) return;
    Buf v(in, count_of(n) * (shorts ? 2 : 4));
    o.add(shorts ? QXwPreemphasize(v.as<short>(), coefficient, n, ds, &sf) : QXsPreemphasize(v.as<float>(), coefficient, n));
    v.guards();
    v.into(o.bytes);
    o.add(sf);
    if (in.ConsumeIntegralInRange<int>(0, 15) == 0) QXFreePreemphasizeTbls();
}

void window(FuzzedDataProvider& in, Outcome& o) {
    const int kind = in.ConsumeIntegralInRange<int>(0, 7);
    const int n = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(-2, 40) : any_int(in);
    const int ds = do_scale(in);
    int sf = any_int(in);
    if (n > kCap) return;
    const bool shorts = kind >= 4;
    Buf v(in, count_of(n) * (shorts ? 2 : 4));
    static void (*const floats[])(float*, int) = {QXsWinHamming, QXsWinHanning, QXsWinBartlett, QXsWinBlackman};
    static void (*const shortForms[])(short*, int, int, int*) = {QXwWinHamming, QXwWinHanning, QXwWinBartlett,
                                                                 QXwWinBlackman};
    static void (*const frees[])() = {QXsFreeWinHammingTbls, QXsFreeWinHanningTbls, QXsFreeWinBartlettTbls,
                                      QXsFreeWinBlackmanTbls, QXwFreeWinHammingTbls, QXwFreeWinHanningTbls,
                                      QXwFreeWinBartlettTbls, QXwFreeWinBlackmanTbls};
    if (shorts)
        shortForms[kind - 4](v.as<short>(), n, ds, &sf);
    else
        floats[kind](v.as<float>(), n);
    v.guards();
    v.into(o.bytes);
    o.add(sf);
    if (in.ConsumeIntegralInRange<int>(0, 15) == 0) frees[kind]();
}

void cepstrum(FuzzedDataProvider& in, Outcome& o) {
    const bool shorts = in.ConsumeBool();
    const int order = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(-1, 10) : any_int(in);
    const int nBandPass = small_or_any(in);
    const int startFreq = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(0, 4000) : any_int(in);
    const int endFreq = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(0, 8000) : any_int(in);
    const int samplingFreq = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(0, 16000) : any_int(in);
    const int linear = in.ConsumeIntegralInRange<int>(0, 1);
    const int nLinear = small_or_any(in);
    const int linearEnd = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(0, 4000) : any_int(in);
    const int nCeps = small_or_any(in);
    const int doTransform = in.ConsumeIntegralInRange<int>(0, 1);
    const int ds = do_scale(in);
    int sf = any_int(in);
    if (order > 14 && order <= 30) return;     // larger than we provide
    if (nBandPass > kCap || nCeps > kCap) return;
    QXMFCCFilters* f = (shorts ? QXwMFCCInit : QXsMFCCInit)(order, nBandPass, startFreq, endFreq, samplingFreq, linear,
                                                            nLinear, linearEnd);
    o.add(f != nullptr);
    if (f == nullptr) return;
    o.add(f->firstPoint);
    o.add(f->lastPoint);
    for (int j = 0; j < f->n; ++j) o.add(f->fftSpec[j].count);
    const long long n = 1LL << order;
    // The short form converts n values whatever it then does with them.
    const long long vectLen = doTransform || shorts ? n : n / 2 + 1;
    Buf v(in, vectLen * (shorts ? 2 : 4)), c(in, count_of(nCeps) * (shorts ? 2 : 4));
    if (shorts)
        QXwCepstralMFCC(doTransform, v.as<short>(), f, c.as<short>(), nCeps, ds, &sf);
    else
        QXsCepstralMFCC(doTransform, v.as<float>(), f, c.as<float>(), nCeps);
    v.unchanged();
    c.guards();
    if (shorts)
        c.into(o.bytes);
    else
        c.floats_into(o.bytes);
    o.add(sf);
    QXSetStatus(0);
    (shorts ? QXwFreeMFCCFilters : QXsFreeMFCCFilters)(f);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return on_both_paths(data, size, [](FuzzedDataProvider& in, Outcome& o) {
        switch (in.ConsumeIntegralInRange<int>(0, 2)) {
        case 0: preemphasis(in, o); break;
        case 1: window(in, o); break;
        default: cepstrum(in, o); break;
        }
    });
}
