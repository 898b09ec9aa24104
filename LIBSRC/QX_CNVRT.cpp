// Scaled conversion between real and integer data, complex-to-real
// conversion, and powers of two.
#include <bit>
#include <climits>
#include <cmath>
#include <cstdint>

#include "kvxpx.h"
#include "qx_alloc.h"
#include "qx_convert.h"
#include "qx_report.h"

namespace qx {

namespace {

constexpr double power2(int k) {
    double v = 1.0;
    if (k >= 0)
        for (int i = 0; i < k; ++i) v *= 2.0;
    else
        for (int i = 0; i < -k; ++i) v /= 2.0;
    return v;
}

// 2^(sign * k) for k = 0..64, built exactly at compile time.
constexpr std::array<double, 65> powers_of_two(int sign) {
    std::array<double, 65> t{};
    for (int k = 0; k <= 64; ++k) t[static_cast<std::size_t>(k)] = power2(sign * k);
    return t;
}

}  // namespace

constexpr std::array<double, 65> kShrink = powers_of_two(-1);
constexpr std::array<double, 65> kEnlarge = powers_of_two(1);

double scale_multiplier(int factor) noexcept {
    if (factor >= 0 && factor <= 64) return kShrink[factor];
    if (factor < 0 && factor >= -64) return kEnlarge[-factor];
    return std::ldexp(1.0, factor == INT_MIN ? INT_MAX : -factor);  // both give +inf
}

namespace {

// The integer range of each result type. Lpos and Lneg are the positive limit
// and the magnitude of the negative one; `largest` is the largest magnitude
// that a factor of 64 can still bring into range (Lpos * 2^64, to 13 digits).
template <class Int> struct Range;
template <> struct Range<short> {
    static constexpr double Lpos = 32767.0, Lneg = 32768.0, largest = 6.044444630632e23;
    static constexpr float posBoundF = 32767.0f;       // above it: saturate
    static constexpr double posBound = 32767.0;
};
template <> struct Range<int> {
    static constexpr double Lpos = 2147483647.0, Lneg = 2147483648.0, largest = 3.961408123869e28;
    // The float nearest the limit is 2^31; it is still truncated (and wraps).
    static constexpr float posBoundF = 2147483648.0f;
    static constexpr double posBound = 2147483648.0;
};

// Saturating conversion. Float data are compared through their bit patterns
// (so infinities and NaNs saturate by their sign), double data as numbers.
template <class Int>
Int saturate(float x) noexcept {
    const std::uint32_t bits = std::bit_cast<std::uint32_t>(x);
    constexpr std::uint32_t negLimit = std::bit_cast<std::uint32_t>(static_cast<float>(-Range<Int>::Lneg));
    constexpr std::uint32_t posBound = std::bit_cast<std::uint32_t>(Range<Int>::posBoundF);
    if (bits & 0x80000000u) {
        if (bits > negLimit) return std::numeric_limits<Int>::min();
    } else if (bits > posBound) {
        return std::numeric_limits<Int>::max();
    }
    return trunc_to<Int>(x);
}

template <class Int>
Int saturate(double x) noexcept {
    if (x < -Range<Int>::Lneg) return std::numeric_limits<Int>::min();
    if (x > Range<Int>::posBound) return std::numeric_limits<Int>::max();
    return trunc_to<Int>(x);
}

// The factor search: a bisection over table indices with at most seven
// probes. Shrinking finds the smallest k with m * 2^-k < L, enlarging the
// largest k with m * 2^k < L. A probe succeeds when its product fits and the
// product one step further does not.
bool search_factor(double m, double L, bool shrink, int* k) noexcept {
    const double* table = shrink ? kShrink.data() : kEnlarge.data();
    int lo = 0, hi = 64, mid = 32;
    for (int probe = 0; probe < 7; ++probe) {
        const double p = table[mid] * m;
        const int next = shrink ? mid - 1 : mid + 1;
        // One step beyond index 0 of the shrinking table is 2^1.
        const double q = next < 0 ? 2.0 * m : table[next] * m;
        const bool fits = p < L;
        if (fits && q >= L) {
            *k = mid;
            return true;
        }
        if (fits == shrink) {
            hi = mid;
            mid = (lo + mid) / 2;
        } else {
            lo = mid;
            mid = (hi + mid) / 2;
        }
    }
    return false;
}

template <class Real, class Int>
void scale_block(const Real* in, Int* out, int n, double multiplier) noexcept {
    if (multiplier == 1.0)
        for (int k = 0; k < n; ++k) out[k] = trunc_to<Int>(static_cast<double>(in[k]));
    else
        for (int k = 0; k < n; ++k) out[k] = trunc_to<Int>(static_cast<double>(in[k]) * multiplier);
}

template <class Real, class Int>
void automatic(const Report& r, const Real* in, Int* out, int n, int* scaleFactor) noexcept {
    using R = Range<Int>;
    double mn = in[0], mx = in[0];
    for (int k = 1; k < n; ++k) {
        const double x = in[k];
        if (x > mx) mx = x;
        if (x < mn) mn = x;
    }
    double m, L;
    bool shrink;
    if (mn >= -R::Lneg && mx <= R::Lpos) {
        // The block fits already: at most enlarge it.
        if (mx == R::Lpos || mn == -R::Lneg || (mx == mn && mx == 0.0)) {
            scale_block(in, out, n, 1.0);
            *scaleFactor = 0;
            return;
        }
        // The side whose extreme lies at least as close to its bound governs.
        if (mn + R::Lneg >= R::Lpos - mx) {
            if (mx == 0.0) m = -mn, L = R::Lneg;
            else m = mx, L = R::Lpos;
        } else {
            if (mn == 0.0) m = mx, L = R::Lpos;
            else m = -mn, L = R::Lneg;
        }
        shrink = false;
    } else {
        if (std::fabs(mn) <= mx) m = mx, L = R::Lpos;
        else m = -mn, L = R::Lneg;
        if (m > R::largest) {
            r.raisef(QX_StsNoConv, where::current(), "Unscalable range [%16.8e %16.8e] too large in input vector", mn,
                     mx);
            return;
        }
        shrink = true;
    }
    int k = 0;
    if (!search_factor(m, L, shrink, &k)) {
        r.raise(QX_StsNoConv, "Internal Error, Binary Search could not find a scaling factor");
        return;
    }
    scale_block(in, out, n, shrink ? kShrink[k] : kEnlarge[k]);
    *scaleFactor = shrink ? k : -k;
}

template <class Real, class Int>
void convert_down_t(const Report& r, const Real* in, Int* out, int n, int doScale, int* scaleFactor) noexcept {
    switch (doScale) {
    case 0:
        scale_block(in, out, n, 1.0);
        *scaleFactor = 0;
        return;
    case 1:
        scale_block(in, out, n, scale_multiplier(*scaleFactor));
        return;
    case 2:
        automatic(r, in, out, n, scaleFactor);
        return;
    case 3:
        for (int k = 0; k < n; ++k) out[k] = saturate<Int>(in[k]);
        *scaleFactor = 0;
        return;
    default:
        r.raisef(QX_StsBadArg, where::current(), "Unknown value %3d for doScale", doScale);
        return;
    }
}

template <class Real, class Int>
void checked_down(const Report& r, const Real* in, Int* out, int n, int doScale, int* scaleFactor,
                  where loc = where::current()) noexcept {
    r.scaling(doScale, scaleFactor, loc);
    r.checks(n, {{in, "inVect==0"}, {out, "outVect==0"}}, loc);
    if (qx::Report::failed() || n <= 0 || in == nullptr || out == nullptr || scaleFactor == nullptr)
        return;
    convert_down_t(r, in, out, n, doScale, scaleFactor);
}

// One value: the block rules with the block reduced to that value. The
// single-value down conversions depart from the usual shape: they make only
// the scaling checks and do not test the status word, so a pending error does
// not stop them.
template <class Real, class Int>
Int convert_one(const Report& r, const Report& odd, Real value, int doScale, int* scaleFactor, const char* searchFailed,
                where loc = where::current()) noexcept {
    using R = Range<Int>;
    r.scaling(doScale, scaleFactor, loc);
    if (scaleFactor == nullptr)
        return 0;
    const double v = value;
    switch (doScale) {
    case 0:
        *scaleFactor = 0;
        return trunc_to<Int>(v);
    case 1:
        return trunc_to<Int>(*scaleFactor == 0 ? v : v * scale_multiplier(*scaleFactor));
    case 3:
        *scaleFactor = 0;
        return saturate<Int>(value);
    case 2: {
        if (v == 0.0 || v == R::Lpos || v == -R::Lneg) {
            *scaleFactor = 0;
            return trunc_to<Int>(v);
        }
        const bool negative = v < 0.0;
        const double m = negative ? -v : v;
        const double L = negative ? R::Lneg : R::Lpos;
        const bool shrink = v > R::Lpos || v < -R::Lneg;
        if (shrink && m > R::largest) {
            r.raisef(QX_StsNoConv, where::current(), "Unscalable value %16.8e, magnitude too large", v);
            return 0;
        }
        int k = 0;
        if (!search_factor(m, L, shrink, &k)) {
            r.raise(QX_StsNoConv, searchFailed);
            return 0;
        }
        *scaleFactor = shrink ? k : -k;
        return trunc_to<Int>(k == 0 ? v : v * (shrink ? kShrink[k] : kEnlarge[k]));
    }
    default:
        odd.raisef(QX_StsBadArg, where::current(), "Unknown value %3d for doScale", doScale);
        return 0;
    }
}

constexpr const char* kSearchFailed = "Internal Error, Binary Search could not find a scaling factor";

template <class In, class Out>
void up_block(const In* in, Out* out, int n, int scaleFactor) noexcept {
    if (scaleFactor == 0) {
        for (int k = 0; k < n; ++k) out[k] = static_cast<Out>(static_cast<double>(in[k]));
        return;
    }
    const double m = scale_multiplier(scaleFactor);
    for (int k = 0; k < n; ++k) out[k] = static_cast<Out>(static_cast<double>(in[k]) * m);
}

template <class In, class Out>
void checked_up(const Report& r, const In* in, Out* out, int n, int scaleFactor, where loc = where::current()) noexcept {
    r.check(scaleFactor < -64, "scaleFactor<-64", loc);
    r.check(scaleFactor > 64, "scaleFactor>64", loc);
    r.checks(n, {{in, "inVect==0"}, {out, "outVect==0"}}, loc);
    if (qx::Report::failed() || n <= 0 || in == nullptr || out == nullptr)
        return;
    up_block(in, out, n, scaleFactor);
}

template <class Out, class In>
Out up_one(const Report& r, In value, int scaleFactor, where loc = where::current()) noexcept {
    r.check(scaleFactor < -64, "scaleFactor<-64", loc);
    r.check(scaleFactor > 64, "scaleFactor>64", loc);
    if (qx::Report::failed())
        return 0;
    const double v = value;
    return static_cast<Out>(scaleFactor == 0 ? v : v * scale_multiplier(scaleFactor));
}

}  // namespace

void convert_down(const Report& r, const float* in, short* out, int n, int doScale, int* sf) noexcept {
    convert_down_t(r, in, out, n, doScale, sf);
}
void convert_down(const Report& r, const double* in, short* out, int n, int doScale, int* sf) noexcept {
    convert_down_t(r, in, out, n, doScale, sf);
}
void convert_down(const Report& r, const float* in, int* out, int n, int doScale, int* sf) noexcept {
    convert_down_t(r, in, out, n, doScale, sf);
}
void convert_down(const Report& r, const double* in, int* out, int n, int doScale, int* sf) noexcept {
    convert_down_t(r, in, out, n, doScale, sf);
}
void convert_up(const short* in, float* out, int n, int sf) noexcept { up_block(in, out, n, sf); }
void convert_up(const short* in, double* out, int n, int sf) noexcept { up_block(in, out, n, sf); }
void convert_up(const int* in, double* out, int n, int sf) noexcept { up_block(in, out, n, sf); }
void convert_up(const int* in, float* out, int n, int sf) noexcept { up_block(in, out, n, sf); }

}  // namespace qx


extern "C" {

QX_API void QXswbConvertDown(const float* inVect, short* outVect, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXswbConvertDown"};
    qx::checked_down(r, inVect, outVect, n, doScale, scaleFactor);
}
QX_API void QXdwbConvertDown(const double* inVect, short* outVect, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXdwbConvertDown"};
    qx::checked_down(r, inVect, outVect, n, doScale, scaleFactor);
}
QX_API void QXsibConvertDown(const float* inVect, int* outVect, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXsibConvertDown"};
    qx::checked_down(r, inVect, outVect, n, doScale, scaleFactor);
}
QX_API void QXdibConvertDown(const double* inVect, int* outVect, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXdibConvertDown"};
    qx::checked_down(r, inVect, outVect, n, doScale, scaleFactor);
}

// The single-value forms report an unknown doScale under older names.
QX_API short QXswConvertDown(float value, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXswConvertDown"}, odd{"QX_swConvertDown"};
    return qx::convert_one<float, short>(r, odd, value, doScale, scaleFactor, qx::kSearchFailed);
}
QX_API short QXdwConvertDown(double value, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXdwConvertDown"}, odd{"QX_dwConvertDown"};
    return qx::convert_one<double, short>(r, odd, value, doScale, scaleFactor, qx::kSearchFailed);
}
QX_API int QXsiConvertDown(float value, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXsiConvertDown"}, odd{"QX_siConvert"};
    return qx::convert_one<float, int>(
        r, odd, value, doScale, scaleFactor,
        "Internal Error,                                     Binary Search could not find a scaling factor");
}
QX_API int QXdiConvertDown(double value, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXdiConvertDown"}, odd{"QX_diConvert"};
    return qx::convert_one<double, int>(r, odd, value, doScale, scaleFactor, qx::kSearchFailed);
}

QX_API void QXwsbConvertUp(const short* inVect, float* outVect, int n, int scaleFactor) {
    constexpr qx::Report r{"QXwsbConvertUp"};
    qx::checked_up(r, inVect, outVect, n, scaleFactor);
}
QX_API void QXwdbConvertUp(const short* inVect, double* outVect, int n, int scaleFactor) {
    constexpr qx::Report r{"QXwdbConvertUp"};
    qx::checked_up(r, inVect, outVect, n, scaleFactor);
}
QX_API void QXidbConvertUp(const int* inVect, double* outVect, int n, int scaleFactor) {
    constexpr qx::Report r{"QXidbConvertUp"};
    qx::checked_up(r, inVect, outVect, n, scaleFactor);
}
QX_API void QXisbConvertUp(const int* inVect, float* outVect, int n, int scaleFactor) {
    constexpr qx::Report r{"QXisbConvert"};
    qx::checked_up(r, inVect, outVect, n, scaleFactor);
}
QX_API float QXwsConvertUp(short value, int scaleFactor) {
    constexpr qx::Report r{"QXwsConvertUp"};
    return qx::up_one<float>(r, value, scaleFactor);
}
QX_API double QXwdConvertUp(short value, int scaleFactor) {
    constexpr qx::Report r{"QXwdConvertUp"};
    return qx::up_one<double>(r, value, scaleFactor);
}
QX_API double QXidConvertUp(int value, int scaleFactor) {
    constexpr qx::Report r{"QXidConvertUp"};
    return qx::up_one<double>(r, value, scaleFactor);
}
QX_API float QXisConvertUp(int value, int scaleFactor) {
    constexpr qx::Report r{"QXisConvert"};
    return qx::up_one<float>(r, value, scaleFactor);
}

QX_API void QXcsbConvert(const float* inVect, float* outVect, int n, int flags) {
    constexpr qx::Report r{"QXcsbConvert"};
    if (qx::Report::failed() || inVect == nullptr || outVect == nullptr)
        return;
    const bool logarithm = (flags & 4) != 0;
    if (flags & 1) {
        for (int k = 0; k < n; ++k) {
            const double re = inVect[2 * k], im = inVect[2 * k + 1];
            const double power = re * re + im * im;
            outVect[k] = static_cast<float>(logarithm ? 0.5 * std::log10(power) : std::sqrt(power));
        }
    } else if (flags & 2) {
        for (int k = 0; k < n; ++k) {
            const double re = inVect[2 * k], im = inVect[2 * k + 1];
            const double power = re * re + im * im;
            outVect[k] = static_cast<float>(logarithm ? std::log10(power) : power);
        }
    } else if ((flags & 3) == 3) {
        // Kept from the first version of the flag test: it can never be true
        // here, so flags without bit 1 or bit 2 write and report nothing.
        r.raise(QX_StsBadArg, "Bad flags");
    }
}

// Departs from the usual shape: no checks and no status test of its own; the
// work buffers come first, then the three conversions check and report under
// their own names.
QX_API void QXvwbConvert(const short* inVect, short* outVect, int n, int flags, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXvwbConvert"};
    const std::size_t count = n > 0 ? static_cast<std::size_t>(n) : 0;
    // 2n floats in, n floats out; a count whose 2n does not fit an int is
    // refused as memory that cannot be had.
    auto tmpin = n <= 0x3FFFFFFF ? static_cast<float*>(qx::alloc(count * 8)) : nullptr;
    if (tmpin == nullptr) {
        r.raise(QX_StsNoMem, "insufficiency of memory for pointer  tmpin");
        return;
    }
    auto tmpout = static_cast<float*>(qx::alloc(count * 4));
    if (tmpout == nullptr) {
        // tmpin is not given back on this path.
        r.raise(QX_StsNoMem, "insufficiency of memory for pointer  tmpout");
        return;
    }
    // 2n shorts; a length so negative that 2n leaves the int range is still
    // refused as a length of zero or less.
    QXwsbConvertUp(inVect, tmpin, n >= INT_MIN / 2 ? 2 * n : INT_MIN, 0);
    QXcsbConvert(tmpin, tmpout, n, flags);
    QXswbConvertDown(tmpout, outVect, n, doScale, scaleFactor);
    qx::free(tmpin);
    qx::free(tmpout);
}

QX_API double QXPower2(int k) {
    if (k >= 0 && k <= 64) return qx::kEnlarge[k];
    if (k < 0 && k >= -64) return qx::kShrink[-k];
    return std::pow(2.0, k);
}

}  // extern "C"
