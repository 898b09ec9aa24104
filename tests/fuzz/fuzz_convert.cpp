// Scaled conversions: block and single-value ConvertDown and ConvertUp, the
// complex conversions and the powers of two, on hostile lengths, factors,
// doScale values and flags.
#include "fuzz_common.h"

using namespace kvxfuzz;

namespace {

template <class Real, class Int>
void down_block(FuzzedDataProvider& in, Outcome& o, void (*fn)(const Real*, Int*, int, int, int*)) {
    const int n = any_int(in);
    const int ds = do_scale(in);
    int sf = any_int(in);
    if (n > kCap) return;
    Buf src(in, count_of(n) * static_cast<long long>(sizeof(Real))), dst(in, count_of(n) * static_cast<long long>(sizeof(Int)));
    fn(src.as<Real>(), dst.as<Int>(), n, ds, in.ConsumeIntegralInRange<int>(0, 15) ? &sf : nullptr);
    src.unchanged();
    dst.guards();
    dst.into(o.bytes);
    o.add(sf);
}

template <class Real, class Int>
void down_one(FuzzedDataProvider& in, Outcome& o, Int (*fn)(Real, int, int*)) {
    Real v;
    const std::vector<std::uint8_t> b = in.ConsumeBytes<std::uint8_t>(sizeof v);
    std::memset(&v, 0, sizeof v);
    if (!b.empty()) std::memcpy(&v, b.data(), b.size());
    const int ds = do_scale(in);
    int sf = any_int(in);
    o.add(fn(v, ds, &sf));
    o.add(sf);
}

template <class Int, class Real>
void up_block(FuzzedDataProvider& in, Outcome& o, void (*fn)(const Int*, Real*, int, int)) {
    const int n = any_int(in);
    const int sf = any_int(in);
    if (n > kCap) return;
    Buf src(in, count_of(n) * static_cast<long long>(sizeof(Int))), dst(in, count_of(n) * static_cast<long long>(sizeof(Real)));
    fn(src.as<Int>(), dst.as<Real>(), n, sf);
    src.unchanged();
    dst.guards();
    dst.into(o.bytes);
}

template <class Int, class Real>
void up_one(FuzzedDataProvider& in, Outcome& o, Real (*fn)(Int, int)) {
    const Int v = in.ConsumeIntegral<Int>();
    o.add(fn(v, any_int(in)));
}

void complex(FuzzedDataProvider& in, Outcome& o, bool shorts) {
    const int n = any_int(in);
    const int flags = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(0, 7) : any_int(in);
    const int ds = do_scale(in);
    int sf = any_int(in);
    if (n > kCap) return;
    const long long elem = shorts ? 2 : 4;
    Buf src(in, 2 * count_of(n) * elem), dst(in, count_of(n) * elem);
    if (shorts)
        QXvwbConvert(src.as<short>(), dst.as<short>(), n, flags, ds, &sf);
    else
        QXcsbConvert(src.as<float>(), dst.as<float>(), n, flags);
    src.unchanged();
    dst.guards();
    dst.into(o.bytes);
    o.add(sf);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return on_both_paths(data, size, [](FuzzedDataProvider& in, Outcome& o) {
        switch (in.ConsumeIntegralInRange<int>(0, 18)) {
        case 0: down_block(in, o, QXswbConvertDown); break;
        case 1: down_block(in, o, QXdwbConvertDown); break;
        case 2: down_block(in, o, QXsibConvertDown); break;
        case 3: down_block(in, o, QXdibConvertDown); break;
        case 4: down_one(in, o, QXswConvertDown); break;
        case 5: down_one(in, o, QXdwConvertDown); break;
        case 6: down_one(in, o, QXsiConvertDown); break;
        case 7: down_one(in, o, QXdiConvertDown); break;
        case 8: up_block(in, o, QXwsbConvertUp); break;
        case 9: up_block(in, o, QXwdbConvertUp); break;
        case 10: up_block(in, o, QXidbConvertUp); break;
        case 11: up_block(in, o, QXisbConvertUp); break;
        case 12: up_one(in, o, QXwsConvertUp); break;
        case 13: up_one(in, o, QXwdConvertUp); break;
        case 14: up_one(in, o, QXidConvertUp); break;
        case 15: up_one(in, o, QXisConvertUp); break;
        case 16: complex(in, o, false); break;
        case 17: complex(in, o, true); break;
        default: o.add(QXPower2(any_int(in))); break;
        }
    });
}
