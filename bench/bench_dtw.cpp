// Distances and dynamic time warping.
//
// The distances are measured next to plain loops that keep the same order of
// accumulation (one double, element order), so any gap is overhead of the
// library's checks. The warping is measured next to a straightforward
// full-grid warping with the same local path rules (steps of 0, 1 or 2 in the
// pattern index, never 0 twice in a row, Euclidean local distance): a 100-frame
// test against 100 stored patterns of 100 frames of 13 elements.
#include <benchmark/benchmark.h>

#include <cmath>
#include <random>
#include <vector>

#include "kvxpx.h"

namespace {

std::vector<float> random_floats(std::size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(-4.0f, 4.0f);
    std::vector<float> v(n);
    for (auto& x : v)
        x = u(rng);
    return v;
}

__attribute__((noinline)) double plain_l2(const float* a, const float* b, int n) {
    double acc = 0.0;
    for (int i = 0; i < n; ++i) {
        const double d = double(a[i]) - double(b[i]);
        acc += d * d;
    }
    return acc;
}

__attribute__((noinline)) double plain_mahalanobis_diag(const float* a, const float* b, const float* w, int n) {
    double acc = 0.0;
    for (int i = 0; i < n; ++i) {
        const double d = double(a[i]) - double(b[i]);
        acc += d * (double(w[i]) * d);
    }
    return acc;
}

void BM_QXsL2Norm(benchmark::State& state) {
    const int n = int(state.range(0));
    auto a = random_floats(n, 1), b = random_floats(n, 2);
    for (auto _ : state) {
        benchmark::DoNotOptimize(a.data());
        benchmark::DoNotOptimize(QXsL2Norm(a.data(), b.data(), n, 0));
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_QXsL2Norm)->Arg(13)->Arg(39)->Arg(1024);

void BM_PlainL2(benchmark::State& state) {
    const int n = int(state.range(0));
    auto a = random_floats(n, 1), b = random_floats(n, 2);
    for (auto _ : state) {
        benchmark::DoNotOptimize(a.data());
        benchmark::DoNotOptimize(plain_l2(a.data(), b.data(), n));
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_PlainL2)->Arg(13)->Arg(39)->Arg(1024);

void BM_QXsMahalanobisD(benchmark::State& state) {
    const int n = int(state.range(0));
    auto a = random_floats(n, 1), b = random_floats(n, 2), w = random_floats(n, 3);
    for (auto _ : state) {
        benchmark::DoNotOptimize(a.data());
        benchmark::DoNotOptimize(QXsMahalanobisD(a.data(), b.data(), w.data(), n, 0));
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_QXsMahalanobisD)->Arg(13)->Arg(39)->Arg(1024);

void BM_PlainMahalanobisD(benchmark::State& state) {
    const int n = int(state.range(0));
    auto a = random_floats(n, 1), b = random_floats(n, 2), w = random_floats(n, 3);
    for (auto _ : state) {
        benchmark::DoNotOptimize(a.data());
        benchmark::DoNotOptimize(plain_mahalanobis_diag(a.data(), b.data(), w.data(), n));
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_PlainMahalanobisD)->Arg(13)->Arg(39)->Arg(1024);

// ----- Warping ---------------------------------------------------------------

constexpr int kFrames = 100;
constexpr int kPatterns = 100;
constexpr int kVecLen = 13;

struct Sequence {
    std::vector<float> data;
    std::vector<float*> rows;
    explicit Sequence(unsigned seed) : data(random_floats(std::size_t(kFrames) * kVecLen, seed)) {
        for (int i = 0; i < kFrames; ++i)
            rows.push_back(data.data() + std::size_t(i) * kVecLen);
    }
};

// The straightforward form: every cell of the frames x pattern grid, its
// local distance and the three predecessors of the previous frame.
double full_grid_dtw(float* const* t, int n, float* const* p, int m, int len) {
    const double inf = 3.4e38;
    std::vector<double> g(std::size_t(n) * m, inf);
    std::vector<char> flat(std::size_t(n) * m, 0);
    auto at = [&](int i, int j) { return j < 0 ? inf : g[std::size_t(i) * m + j]; };
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < m; ++j) {
            double acc = 0.0;
            for (int k = 0; k < len; ++k) {
                const double d = double(t[i][k]) - double(p[j][k]);
                acc += d * d;
            }
            const double local = std::sqrt(acc);
            if (i == 0) {
                g[j] = j == 0 ? local : inf;
                continue;
            }
            double c = inf;
            char f = 0;
            if (!flat[std::size_t(i - 1) * m + j]) {
                c = at(i - 1, j);
                f = 1;
            }
            if (at(i - 1, j - 1) <= c) {
                c = at(i - 1, j - 1);
                f = 0;
            }
            if (at(i - 1, j - 2) < c) {
                c = at(i - 1, j - 2);
                f = 0;
            }
            flat[std::size_t(i) * m + j] = f;
            g[std::size_t(i) * m + j] = c < inf ? c + local : inf;
        }
    return g[std::size_t(n) * m - 1];
}

void BM_QXsEvalDTW(benchmark::State& state) {
    Sequence test(100);
    std::vector<Sequence> patterns;
    std::vector<int> ids;
    for (int k = 0; k < kPatterns; ++k) {
        patterns.emplace_back(1000 + k);
        ids.push_back(QXsPatternIni(patterns.back().rows.data(), kFrames, kVecLen));
    }
    std::vector<double> scores(kPatterns);
    for (auto _ : state)
        benchmark::DoNotOptimize(QXsEvalDTW(ids.data(), kPatterns, test.rows.data(), kFrames, kVecLen,
                                            QX_DTW_FIXED_END | QX_DTW_L2, 0.0, 0, scores.data()));
    state.SetItemsProcessed(state.iterations() * kPatterns);  // patterns per second
    QXsPatternFreeAll();
}
BENCHMARK(BM_QXsEvalDTW)->Unit(benchmark::kMillisecond);

void BM_FullGridDTW(benchmark::State& state) {
    Sequence test(100);
    std::vector<Sequence> patterns;
    for (int k = 0; k < kPatterns; ++k)
        patterns.emplace_back(1000 + k);
    for (auto _ : state)
        for (auto& p : patterns)
            benchmark::DoNotOptimize(full_grid_dtw(test.rows.data(), kFrames, p.rows.data(), kFrames, kVecLen));
    state.SetItemsProcessed(state.iterations() * kPatterns);
}
BENCHMARK(BM_FullGridDTW)->Unit(benchmark::kMillisecond);

}  // namespace
