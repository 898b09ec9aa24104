// The stored form of an HMM server's parameters: probability and cost bounds
// on the caller's values, the classification of a transition matrix (band,
// left-to-right or full) and the layouts the recurrences read (see qx_hmm.h).
// Nothing here reports.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "kvxpx.h"

namespace qx {

constexpr int kBand = QX_HMM_BAND;
constexpr int kLeftRight = QX_HMM_LEFT_RIGHT;
constexpr int kFloatImpossibleBits = 0x7149F2CA;   // 1.0e30f
constexpr int kShortImpossible = 32767;

inline std::uint32_t bits_of(float v) {
    std::uint32_t u;
    std::memcpy(&u, &v, sizeof u);
    return u;
}

// Probability bounds on the bit pattern: -0.0 and 0.0 .. 1.0 pass, any other
// negative pattern and every pattern above 1.0 (not-a-numbers too) fail.
inline bool below_zero(float v) { return bits_of(v) > 0x80000000u; }
inline bool above_one(float v) { return static_cast<std::int32_t>(bits_of(v)) > 0x3F800000; }
inline bool below_zero(short v) { return v < 0; }

inline bool impossible(float v, bool cost) {
    const auto b = static_cast<std::int32_t>(bits_of(v));
    return cost ? b >= kFloatImpossibleBits : b <= 0;
}
inline bool impossible(short v, bool cost) { return cost ? v >= kShortImpossible : v <= 0; }

template <class In>
int topology(In** a, int n, bool cost) {
    if (n <= 1)
        return 0;
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < i; ++j)
            if (!impossible(a[i][j], cost))
                return 0;
    if (n < 3)
        return kLeftRight;
    for (int i = 0; i < n; ++i)
        for (int j = i + 3; j < n; ++j)
            if (!impossible(a[i][j], cost))
                return kLeftRight;
    return kBand;
}

inline std::size_t transition_count(int topo, int n) {
    const auto N = static_cast<std::size_t>(n);
    if (topo == kBand)
        return 3 * N;
    if (topo == kLeftRight)
        return N * (N + 1) / 2;
    return N * N;
}

// Transition costs by target state (see qx_hmm.h).
template <class C, class In>
void store_transitions(C* t, In** a, int topo, int n) {
    if (topo == kBand) {
        for (int j = 0; j < n; ++j) {
            t[3 * j] = static_cast<C>(a[j][j]);
            t[3 * j + 1] = j >= 1 ? static_cast<C>(a[j - 1][j]) : C{};
            t[3 * j + 2] = j >= 2 ? static_cast<C>(a[j - 2][j]) : C{};
        }
    } else if (topo == kLeftRight) {
        std::size_t k = 0;
        for (int j = 0; j < n; ++j)
            for (int i = 0; i <= j; ++i)
                t[k++] = static_cast<C>(a[i][j]);
    } else {
        for (int j = 0; j < n; ++j)
            for (int i = 0; i < n; ++i)
                t[static_cast<std::size_t>(j) * n + i] = static_cast<C>(a[i][j]);
    }
}

// Mixture weights by state: one row of nSymbols per state feeds the dot product.
template <class In>
void store_weights(In* w, In* const* table, int n, int nSymbols) {
    for (int j = 0; j < n; ++j)
        for (int k = 0; k < nSymbols; ++k)
            w[static_cast<std::size_t>(j) * nSymbols + k] = table[j][k];
}

// Output costs by symbol: one vector of n states per frame.
template <class C, class In>
void store_output_costs(C* o, In* const* table, int n, int nSymbols) {
    for (int j = 0; j < n; ++j)
        for (int k = 0; k < nSymbols; ++k)
            o[static_cast<std::size_t>(k) * n + j] = static_cast<C>(table[j][k]);
}

}  // namespace qx
