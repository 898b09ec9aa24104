// The Viterbi recurrence over one HMM server's costs, and the score area the
// evaluations share. Nothing here reports.
//
// The evaluations work on costs (negative logarithms): every path cost is a
// sum, and the best path is the cheapest. Each transition topology has its own
// step: a band (jumps of at most two states) and a left-to-right matrix update
// the scores in place, from the last state down; a full matrix writes a second
// vector and swaps.
#pragma once

#include <cfloat>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "kvxpx.h"
#include "qx_alloc.h"

namespace qx {

// Float costs add as floats; integer costs wrap around like the 32-bit sums
// they are (no saturation).
inline float cost_add(float a, float b) { return a + b; }
inline std::int32_t cost_add(std::int32_t a, std::int32_t b) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) + static_cast<std::uint32_t>(b));
}

// trans holds 3 costs per target state: a[j][j], a[j-1][j], a[j-2][j].
template <class C>
void band_step(int n, const C* trans, const C* B, C* score) {
    // In place, downward: the lower states still hold the last frame.
    for (int j = n - 1; j >= 2; --j) {
        const C* a = trans + 3 * j;
        C best = cost_add(score[j], a[0]);
        C c = cost_add(score[j - 1], a[1]);
        if (c < best)
            best = c;
        c = cost_add(score[j - 2], a[2]);
        if (c < best)
            best = c;
        score[j] = cost_add(B[j], best);
    }
    C best = cost_add(score[1], trans[3]);
    C c = cost_add(score[0], trans[4]);
    if (c < best)
        best = c;
    score[1] = cost_add(B[1], best);
    score[0] = cost_add(B[0], cost_add(score[0], trans[0]));
}

// trans holds j+1 costs per target state: a[0][j] .. a[j][j].
template <class C>
void left_right_step(int n, const C* trans, const C* B, C* score) {
    for (int j = n - 1; j >= 0; --j) {
        const C* a = trans + static_cast<std::size_t>(j) * (j + 1) / 2;
        C best = cost_add(score[j], a[j]);
        for (int i = j - 1; i >= 0; --i) {
            C c = cost_add(score[i], a[i]);
            if (c < best)
                best = c;
        }
        score[j] = cost_add(B[j], best);
    }
}

// trans holds n costs per target state: a[0][j] .. a[n-1][j]; writes `next`.
template <class C>
void full_step(int n, const C* trans, const C* B, const C* score, C* next) {
    for (int j = n - 1; j >= 0; --j) {
        const C* a = trans + static_cast<std::size_t>(j) * n;
        C best = cost_add(score[n - 1], a[n - 1]);
        for (int i = n - 2; i >= 0; --i) {
            C c = cost_add(score[i], a[i]);
            if (c < best)
                best = c;
        }
        next[j] = cost_add(B[j], best);
    }
}

// The cheapest final score (float: from FLT_MAX upward in state order;
// integer: from the last state down).
template <class C>
C cheapest(int n, const C* score) {
    if constexpr (std::is_same_v<C, float>) {
        float m = FLT_MAX;
        for (int j = 0; j < n; ++j)
            if (score[j] < m)
                m = score[j];
        return m;
    } else {
        C m = score[n - 1];
        for (int j = n - 2; j >= 0; --j)
            if (score[j] < m)
                m = score[j];
        return m;
    }
}

// The best path cost through one server. rows(t) gives the output costs of
// frame t by state, or null to abandon the run (then `ok` is false).
template <class C, class Rows>
C viterbi(int topo, int n, const C* trans, const C* pi, int nObserv, Rows&& rows, C* score, C* other, bool& ok) {
    ok = false;
    const C* B = rows(0);
    if (B == nullptr)
        return C{};
    for (int j = 0; j < n; ++j)
        score[j] = cost_add(pi[j], B[j]);
    for (int t = 1; t < nObserv; ++t) {
        B = rows(t);
        if (B == nullptr)
            return C{};
        if (topo == QX_HMM_BAND) {
            band_step(n, trans, B, score);
        } else if (topo == QX_HMM_LEFT_RIGHT) {
            left_right_step(n, trans, B, score);
        } else {
            full_step(n, trans, B, score, other);
            C* swap = score;
            score = other;
            other = swap;
        }
    }
    ok = true;
    return cheapest(n, score);
}

// The two cells before a 16-bit band score vector hold this large cost; the
// band step never reads below state 0, so they only keep the area's layout.
constexpr std::int32_t kBandGuardCost = 0x1FFFFFFF;

// The score area of one call: reused across the servers of a class, grown
// only when a server has more states than it holds, released on return.
class ScoreArea {
public:
    // cellsPerState * capacity + extraCells 32-bit cells.
    ScoreArea(int cellsPerState, int extraCells) : perState_(cellsPerState), extra_(extraCells) {}
    ~ScoreArea() { qx::free(area_); }
    ScoreArea(const ScoreArea&) = delete;
    ScoreArea& operator=(const ScoreArea&) = delete;

    bool reserve(int nStates) {
        if (area_ != nullptr && nStates <= capacity_)
            return true;
        qx::free(area_);
        capacity_ = nStates > 8 ? nStates : 8;
        const std::size_t cells =
            static_cast<std::size_t>(perState_) * static_cast<std::size_t>(capacity_) + static_cast<std::size_t>(extra_);
        area_ = calloc_n<std::int32_t>(cells);
        return area_ != nullptr;
    }

    // The first score vector for a server whose transitions are at `trans`:
    // moved 6 * capacity cells on when the two would share cache sets
    // (within 64 bytes of each other modulo 4 KB), after `lead` cells, and
    // rounded up to 8 bytes.
    std::int32_t* scores(const void* trans, int lead) const {
        auto base = reinterpret_cast<std::uintptr_t>(area_);
        std::intptr_t d = static_cast<std::intptr_t>((reinterpret_cast<std::uintptr_t>(trans) - base) & 0xFFF);
        if (d > 2048)
            d -= 4096;
        if (d < 65 && d > -65)
            base += static_cast<std::uintptr_t>(6) * static_cast<std::uintptr_t>(capacity_) * 4;
        base += static_cast<std::uintptr_t>(lead) * 4;
        base = (base + 7) & ~static_cast<std::uintptr_t>(7);
        return reinterpret_cast<std::int32_t*>(base);
    }

    int capacity() const { return capacity_; }

private:
    int perState_;
    int extra_;
    int capacity_ = 0;
    std::int32_t* area_ = nullptr;
};

}  // namespace qx
