// Gaussian mixtures and Viterbi scoring: mixture evaluations per second (with
// and without the exponential tables, against a plain loop of the same
// formula), and state-frames per second of the three Viterbi recurrences.
#include <benchmark/benchmark.h>

#include <cmath>
#include <random>
#include <vector>

#include "kvxpx.h"

namespace {

constexpr int kDim = 39;
constexpr int kGauss = 16;

// A diagonal mixture with its row pointers, plus test vectors near its means.
struct DiagMixture {
    std::vector<float> w;
    std::vector<std::vector<float>> mean, icov;
    std::vector<float*> meanRows, icovRows;
    std::vector<std::vector<float>> inputs;

    DiagMixture(int n, int g, unsigned seed) : w(g), mean(g, std::vector<float>(n)), icov(g, std::vector<float>(n)) {
        std::mt19937 r(seed);
        std::uniform_real_distribution<float> u(-1.0f, 1.0f), pos(0.5f, 2.0f);
        for (int k = 0; k < g; ++k) {
            w[k] = pos(r) / g;
            for (int i = 0; i < n; ++i) {
                mean[k][i] = u(r);
                icov[k][i] = pos(r);
            }
        }
        for (auto& v : mean) meanRows.push_back(v.data());
        for (auto& v : icov) icovRows.push_back(v.data());
        for (int s = 0; s < 64; ++s) {
            std::vector<float> x(n);
            for (int i = 0; i < n; ++i)
                x[i] = mean[s % g][i] + 0.3f * u(r);
            inputs.push_back(x);
        }
    }
};

void BM_GaussMixDiag(benchmark::State& state) {
    static DiagMixture m(kDim, kGauss, 1);
    QXsGaussMixServer* s = QXsInitGaussMixServer(m.w.data(), m.meanRows.data(), nullptr, m.icovRows.data(), kDim,
                                                 kGauss, static_cast<int>(state.range(0)));
    std::size_t k = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(QXsEvalGaussMix(s, m.inputs[k & 63].data(), kDim));
        ++k;
    }
    state.SetItemsProcessed(state.iterations());
    state.SetLabel(state.range(0) ? "tables" : "exp");
    QXsFreeGaussMixServer(s);
}
BENCHMARK(BM_GaussMixDiag)->Arg(0)->Arg(1);

// The same formula as a plain loop with the standard exponential.
void BM_GaussMixDiagPlainLoop(benchmark::State& state) {
    static DiagMixture m(kDim, kGauss, 1);
    std::size_t k = 0;
    for (auto _ : state) {
        const float* x = m.inputs[k & 63].data();
        double sum = 0.0;
        for (int g = 0; g < kGauss; ++g) {
            const float* mu = m.mean[g].data();
            const float* ic = m.icov[g].data();
            double q = 0.0;
            for (int i = 0; i < kDim; ++i) {
                double d = static_cast<double>(x[i]) - mu[i];
                q += d * (ic[i] * d);
            }
            sum += m.w[g] * std::exp(-0.5 * q);
        }
        benchmark::DoNotOptimize(sum);
        ++k;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_GaussMixDiagPlainLoop);

enum Shape { kBandShape, kLeftRightShape, kFullShape };

// Cost matrices of one shape; impossible entries are 1.0e30.
int make_discrete(int n, int nSymbols, Shape shape, unsigned seed) {
    std::mt19937 r(seed);
    std::uniform_real_distribution<float> u(0.1f, 3.0f);
    std::vector<std::vector<float>> a(n, std::vector<float>(n)), b(n, std::vector<float>(nSymbols));
    std::vector<float> pi(n);
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < n; ++j) {
            bool ok = shape == kFullShape || (j >= i && (shape == kLeftRightShape || j < i + 3));
            a[i][j] = ok ? u(r) : 1.0e30f;
        }
        for (auto& x : b[i]) x = u(r);
        pi[i] = i == 0 ? 0.0f : u(r);
    }
    std::vector<float*> ar, br;
    for (auto& v : a) ar.push_back(v.data());
    for (auto& v : b) br.push_back(v.data());
    return QXsInitHMMServer(ar.data(), br.data(), pi.data(), n, nSymbols, 1);
}

void BM_ViterbiDiscrete(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    const Shape shape = static_cast<Shape>(state.range(1));
    constexpr int kFrames = 1000, kSymbols = 32;
    QXHMMFreeAll();
    const int id = make_discrete(n, kSymbols, shape, 3);
    std::mt19937 r(5);
    std::vector<int> o(kFrames);
    for (int& x : o) x = static_cast<int>(r() % kSymbols);
    int best = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(QXsEvalHMMViterbi(id, o.data(), kFrames, &best));
    state.SetItemsProcessed(state.iterations() * kFrames * n);   // state-frames
    state.SetLabel(shape == kBandShape ? "band" : shape == kLeftRightShape ? "left-to-right" : "full");
    QXHMMFreeAll();
}
BENCHMARK(BM_ViterbiDiscrete)->Args({3, kBandShape})->Args({10, kLeftRightShape})->Args({10, kFullShape});

// A class of 10 band models of 5 states, 8-component mixtures, 300 frames of 39.
void BM_ViterbiContinuousClass(benchmark::State& state) {
    constexpr int kModels = 10, kStates = 5, kMix = 8, kFrames = 300;
    QXHMMFreeAll();
    std::vector<DiagMixture*> mixtures;
    std::vector<QXsGaussMixServer*> servers;
    const int c = QXCreateHMMClass();
    for (int m = 0; m < kModels; ++m) {
        std::vector<QXsGaussMixServer*> pdfs;
        for (int j = 0; j < kStates; ++j) {
            auto* mix = new DiagMixture(kDim, kMix, 100 + m * kStates + j);
            mixtures.push_back(mix);
            pdfs.push_back(QXsInitGaussMixServer(mix->w.data(), mix->meanRows.data(), nullptr,
                                                 mix->icovRows.data(), kDim, kMix, static_cast<int>(state.range(0))));
            servers.push_back(pdfs.back());
        }
        std::vector<std::vector<float>> a(kStates, std::vector<float>(kStates, 1.0e30f));
        std::vector<float> pi(kStates, 1.0e30f);
        pi[0] = 0.0f;
        for (int i = 0; i < kStates; ++i) {
            a[i][i] = 0.3f;
            if (i + 1 < kStates) a[i][i + 1] = 0.5f;
            if (i + 2 < kStates) a[i][i + 2] = 1.2f;
        }
        std::vector<float*> ar;
        for (auto& v : a) ar.push_back(v.data());
        QXAddHMMToClass(c, QXsInitContHMMServer(ar.data(), pi.data(), pdfs.data(), kStates, kDim, 1));
    }
    std::vector<std::vector<float>> frames;
    std::vector<float*> rows;
    for (int t = 0; t < kFrames; ++t)
        frames.push_back(mixtures[(t / 30) % mixtures.size()]->inputs[t % 64]);
    for (auto& f : frames) rows.push_back(f.data());
    int best = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(QXsEvalContHMMViterbi(-c, rows.data(), kFrames, &best));
    state.SetItemsProcessed(state.iterations() * kFrames * kModels * kStates);   // state-frames
    state.SetLabel(state.range(0) ? "tables" : "exp");
    QXHMMFreeAll();
    for (auto* s : servers) QXsFreeGaussMixServer(s);
    for (auto* m : mixtures) delete m;
}
BENCHMARK(BM_ViterbiContinuousClass)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace
