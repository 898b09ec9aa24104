// Smallest and largest element of a vector and the index of its first
// occurrence: the scan starts with element 0 and takes a new candidate only
// when an element is strictly smaller (Min) or strictly larger (Max).
// Comparisons are unsigned for nibbles and unsigned bytes, signed otherwise.
#include <algorithm>
#include <cstdint>
#include <type_traits>

#include "kvxpx.h"
#include "qx_packed.h"
#include "qx_report.h"

namespace {

// The strict scan: element 0 first, then a new candidate only when an
// element is strictly smaller (or larger). get(k) reads element k.
template <bool Largest, class Get>
auto strict_scan(long n, int* position, Get get) noexcept {
    auto best = get(0);
    long at = 0;
    for (long k = 1; k < n; ++k) {
        auto x = get(k);
        if (Largest ? x > best : x < best) {
            best = x;
            at = k;
        }
    }
    *position = static_cast<int>(at);
    return best;
}

// Integers: the extreme value first (a reduction the compiler vectorises),
// then the first index that holds it; the same answer as the strict scan.
template <bool Largest, class T>
T extreme(const T* v, long n, int* position) noexcept {
    if constexpr (std::is_floating_point_v<T>) {
        return strict_scan<Largest>(n, position, [v](long k) { return v[k]; });
    } else {
        T best = v[0];
        for (long k = 1; k < n; ++k)
            best = Largest ? std::max(best, v[k]) : std::min(best, v[k]);
        long at = 0;
        while (v[at] != best)
            ++at;
        *position = static_cast<int>(at);
        return best;
    }
}

template <bool Largest>
unsigned char extreme_nibble(const std::uint8_t* v, int startPos, long n, int* position) noexcept {
    const unsigned best = strict_scan<Largest>(
        n, position, [v, startPos](long k) -> unsigned { return qx::packed::get_nibble(v, startPos, k); });
    return static_cast<unsigned char>(best);
}

// The checks of the whole-element forms, reported on the caller's line, then
// the scan; 0 when a check failed or an error was pending.
template <bool Largest, class T>
T checked_extreme(const qx::Report& r, const T* src, int n, int* position,
                  qx::where loc = qx::where::current()) noexcept {
    r.checks(n, {{src, "src==0"}, {position, "position==0"}}, loc);
    if (qx::Report::failed())
        return 0;
    return extreme<Largest>(src, n, position);
}

}  // namespace

extern "C" {

QX_API unsigned char QXnMin(const unsigned char* src, int startPos, int n, int* position) {
    constexpr qx::Report r{"QXnMin"};
    r.check(src == nullptr, "src==0");
    r.check(position == nullptr, "position==0");
    r.check(startPos < 0, "startPos<0");
    r.check(startPos > 1, "startPos>1");
    r.check(n <= 0, "n<=0");
    if (qx::Report::failed())
        return 0;
    return extreme_nibble<false>(src, startPos, n, position);
}

QX_API unsigned char QXnMax(const unsigned char* src, int startPos, int n, int* position) {
    constexpr qx::Report r{"QXnMax"};
    r.check(src == nullptr, "src==0");
    r.check(position == nullptr, "position==0");
    r.check(startPos < 0, "startPos<0");
    r.check(startPos > 1, "startPos>1");
    r.check(n <= 0, "n<=0");
    if (qx::Report::failed())
        return 0;
    return extreme_nibble<true>(src, startPos, n, position);
}

QX_API unsigned char QXyMin(const unsigned char* src, int n, int* position) {
    constexpr qx::Report r{"QXyMin"};
    return checked_extreme<false>(r, src, n, position);
}

QX_API unsigned char QXyMax(const unsigned char* src, int n, int* position) {
    constexpr qx::Report r{"QXyMax"};
    return checked_extreme<true>(r, src, n, position);
}

QX_API signed char QXtMin(const signed char* src, int n, int* position) {
    constexpr qx::Report r{"QXtMin"};
    return checked_extreme<false>(r, src, n, position);
}

QX_API signed char QXtMax(const signed char* src, int n, int* position) {
    constexpr qx::Report r{"QXtMax"};
    return checked_extreme<true>(r, src, n, position);
}

QX_API short QXwMin(const short* src, int n, int* position) {
    constexpr qx::Report r{"QXwMin"};
    return checked_extreme<false>(r, src, n, position);
}

QX_API short QXwMax(const short* src, int n, int* position) {
    constexpr qx::Report r{"QXwMax"};
    return checked_extreme<true>(r, src, n, position);
}

QX_API float QXsMin(const float* src, int n, int* position) {
    constexpr qx::Report r{"QXsMin"};
    return checked_extreme<false>(r, src, n, position);
}

QX_API float QXsMax(const float* src, int n, int* position) {
    constexpr qx::Report r{"QXsMax"};
    return checked_extreme<true>(r, src, n, position);
}

}  // extern "C"
