// Side-by-side timing in one run: the candidates take turns, round after
// round, so that a busy machine slows them alike; each gets the median of its
// rounds. Used for the ratio benchmarks (kvxpx time over a peer's time).
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <vector>

namespace kvxbench {

// Median seconds per call of each candidate over `rounds` alternating rounds
// of `calls` calls each.
inline std::vector<double> alternating_medians(const std::vector<std::function<void()>>& candidates, int rounds,
                                               int calls) {
    using clock = std::chrono::steady_clock;
    std::vector<std::vector<double>> times(candidates.size());
    for (auto& c : candidates)  // warm caches and tables
        for (int i = 0; i < calls; ++i)
            c();
    for (int r = 0; r < rounds; ++r)
        for (std::size_t k = 0; k < candidates.size(); ++k) {
            const auto t0 = clock::now();
            for (int i = 0; i < calls; ++i)
                candidates[k]();
            times[k].push_back(std::chrono::duration<double>(clock::now() - t0).count() / calls);
        }
    std::vector<double> medians;
    for (auto& t : times) {
        std::nth_element(t.begin(), t.begin() + t.size() / 2, t.end());
        medians.push_back(t[t.size() / 2]);
    }
    return medians;
}

// Runs the rounds once per benchmark iteration and reports, as counters, each
// candidate's nanoseconds per call and the first one's time over each other's.
inline void report_ratios(benchmark::State& state, const std::vector<const char*>& names,
                          const std::vector<std::function<void()>>& candidates, int calls) {
    std::vector<double> m;
    for (auto _ : state)
        m = alternating_medians(candidates, 31, calls);
    for (std::size_t k = 0; k < names.size(); ++k)
        state.counters[std::string(names[k]) + "_ns"] = m[k] * 1e9;
    for (std::size_t k = 1; k < names.size(); ++k)
        state.counters[std::string("over_") + names[k]] = m[0] / m[k];
}

}  // namespace kvxbench
