// Absolute value of signed vectors, in place (Abs) and into a second vector
// (Abs2). There is no saturation: the most negative integer stays as it is,
// since its negation wraps to itself. Floats below zero are negated, so a
// negative zero stays negative zero.
#include <cstdint>
#include <type_traits>

#include "kvxpx.h"
#include "qx_report.h"
#include "qx_scale.h"

namespace {

template <class T>
T magnitude(T x) noexcept {
    if constexpr (std::is_floating_point_v<T>) {
        return x < 0 ? -x : x;
    } else {
        std::int32_t v = x;
        return static_cast<T>(static_cast<std::uint32_t>(v < 0 ? -v : v));
    }
}

// The in-place form runs from the last element to the first.
template <class T>
void abs_in_place(T* v, long n) noexcept {
    for (long k = n; k-- > 0;)
        v[k] = magnitude(v[k]);
}

template <class T>
void abs_copy(const T* src, T* dst, long n) noexcept {
    for (long k = 0; k < n; ++k)
        dst[k] = magnitude(src[k]);
}

// The checks, reported on the caller's line ("src==0" only for the copying
// form), then the work.
template <bool Copy, class T>
int checked_abs(const qx::Report& r, const T* src, T* dst, int n, qx::where loc = qx::where::current()) noexcept {
    if constexpr (Copy)
        r.checks(n, {{src, "src==0"}, {dst, "dst==0"}}, loc);
    else
        r.checks(n, {{dst, "dst==0"}}, loc);
    if (qx::Report::failed())
        return QXGetStatus();
    if constexpr (Copy)
        abs_copy(src, dst, n);
    else
        abs_in_place(dst, n);
    return 0;
}

}  // namespace

extern "C" {

QX_API int QXtbAbs(signed char* srcDst, int n) {
    constexpr qx::Report r{"QXtbAbs"};
    return checked_abs<false>(r, srcDst, srcDst, n);
}

QX_API int QXwbAbs(short* srcDst, int n) {
    constexpr qx::Report r{"QXwbAbs"};
    return checked_abs<false>(r, srcDst, srcDst, n);
}

QX_API int QXsbAbs(float* srcDst, int n) {
    constexpr qx::Report r{"QXsbAbs"};
    return checked_abs<false>(r, srcDst, srcDst, n);
}

QX_API int QXtbAbs2(const signed char* src, signed char* dst, int n) {
    constexpr qx::Report r{"QXtbAbs2"};
    return checked_abs<true>(r, src, dst, n);
}

QX_API int QXwbAbs2(const short* src, short* dst, int n) {
    constexpr qx::Report r{"QXwbAbs2"};
    return checked_abs<true>(r, src, dst, n);
}

QX_API int QXsbAbs2(const float* src, float* dst, int n) {
    constexpr qx::Report r{"QXsbAbs2"};
    return checked_abs<true>(r, src, dst, n);
}

}  // extern "C"
