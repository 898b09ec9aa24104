// Complex and real FFTs of orders 6..12 against FFTW (single precision,
// measured plans, one thread) and KissFFT (float). Every transform runs in
// place on a buffer refreshed from the same random signal before each call,
// so each timing includes the same copy.
#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

#include "kvxpx.h"

#if defined(KVX_HAVE_FFTW3F)
#include <fftw3.h>
#endif
#if defined(KVX_HAVE_KISSFFT_FLOAT)
#include <kissfft/kiss_fft.h>
#include <kissfft/kiss_fftr.h>
#endif

namespace {

std::vector<float> signal(std::size_t count) {
    std::mt19937 gen(7);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    std::vector<float> v(count);
    for (float& f : v)
        f = u(gen);
    return v;
}

void BM_QXcFft(benchmark::State& state) {
    const int order = static_cast<int>(state.range(0));
    const std::size_t n = std::size_t{1} << order;
    const auto src = signal(2 * n);
    std::vector<float> x(2 * n);
    QXcFft(x.data(), order, QX_FORWARD);  // tables built outside the loop
    for (auto _ : state) {
        std::memcpy(x.data(), src.data(), 2 * n * sizeof(float));
        QXcFft(x.data(), order, QX_FORWARD);
        benchmark::DoNotOptimize(x.data());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_QXcFft)->DenseRange(6, 12);

void BM_QXsRealFft(benchmark::State& state) {
    const int order = static_cast<int>(state.range(0));
    const std::size_t n = std::size_t{1} << order;
    const auto src = signal(n);
    std::vector<float> x(n);
    QXsRealFft(x.data(), order, QX_FORWARD);
    for (auto _ : state) {
        std::memcpy(x.data(), src.data(), n * sizeof(float));
        QXsRealFft(x.data(), order, QX_FORWARD);
        benchmark::DoNotOptimize(x.data());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_QXsRealFft)->DenseRange(6, 12);

#if defined(KVX_HAVE_FFTW3F)
void BM_fftwf_complex(benchmark::State& state) {
    const int order = static_cast<int>(state.range(0));
    const int n = 1 << order;
    const auto src = signal(2 * std::size_t(n));
    auto* x = static_cast<fftwf_complex*>(fftwf_malloc(sizeof(fftwf_complex) * n));
    fftwf_plan p = fftwf_plan_dft_1d(n, x, x, FFTW_FORWARD, FFTW_MEASURE);
    for (auto _ : state) {
        std::memcpy(x, src.data(), 2 * std::size_t(n) * sizeof(float));
        fftwf_execute(p);
        benchmark::DoNotOptimize(x);
        benchmark::ClobberMemory();
    }
    fftwf_destroy_plan(p);
    fftwf_free(x);
}
BENCHMARK(BM_fftwf_complex)->DenseRange(6, 12);

void BM_fftwf_real(benchmark::State& state) {
    const int order = static_cast<int>(state.range(0));
    const int n = 1 << order;
    const auto src = signal(std::size_t(n));
    // In place: n reals in, n/2 + 1 complex out in the same (padded) buffer.
    auto* x = static_cast<float*>(fftwf_malloc(sizeof(float) * (n + 2)));
    fftwf_plan p = fftwf_plan_dft_r2c_1d(n, x, reinterpret_cast<fftwf_complex*>(x), FFTW_MEASURE);
    for (auto _ : state) {
        std::memcpy(x, src.data(), std::size_t(n) * sizeof(float));
        fftwf_execute(p);
        benchmark::DoNotOptimize(x);
        benchmark::ClobberMemory();
    }
    fftwf_destroy_plan(p);
    fftwf_free(x);
}
BENCHMARK(BM_fftwf_real)->DenseRange(6, 12);
#endif

#if defined(KVX_HAVE_KISSFFT_FLOAT)
void BM_kiss_fft(benchmark::State& state) {
    const int order = static_cast<int>(state.range(0));
    const int n = 1 << order;
    const auto src = signal(2 * std::size_t(n));
    std::vector<kiss_fft_cpx> in(n), out(n);
    kiss_fft_cfg cfg = kiss_fft_alloc(n, 0, nullptr, nullptr);
    for (auto _ : state) {
        std::memcpy(in.data(), src.data(), 2 * std::size_t(n) * sizeof(float));
        kiss_fft(cfg, in.data(), out.data());
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    kiss_fft_free(cfg);
}
BENCHMARK(BM_kiss_fft)->DenseRange(6, 12);

void BM_kiss_fftr(benchmark::State& state) {
    const int order = static_cast<int>(state.range(0));
    const int n = 1 << order;
    const auto src = signal(std::size_t(n));
    std::vector<float> in(n);
    std::vector<kiss_fft_cpx> out(n / 2 + 1);
    kiss_fftr_cfg cfg = kiss_fftr_alloc(n, 0, nullptr, nullptr);
    for (auto _ : state) {
        std::memcpy(in.data(), src.data(), std::size_t(n) * sizeof(float));
        kiss_fftr(cfg, in.data(), out.data());
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    kiss_fftr_free(cfg);
}
BENCHMARK(BM_kiss_fftr)->DenseRange(6, 12);
#endif

}  // namespace
