// Complex and real FFTs of orders 6..12 against FFTW (single precision,
// measured plans, one thread) and KissFFT (float). Every transform runs in
// place on a buffer refreshed from the same random signal before each call,
// so each timing includes the same copy.
#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

#include "kvxpx.h"
#include "side_by_side.h"

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

// The ratios in one run: kvxpx time over FFTW's (single precision, measured
// plan, one thread) and KissFFT's, forward transforms of orders 6, 8, 10, 12,
// each call on a buffer refreshed from the same signal.
#if defined(KVX_HAVE_FFTW3F) && defined(KVX_HAVE_KISSFFT_FLOAT)
void BM_FftRatios(benchmark::State& state) {
    const int order = static_cast<int>(state.range(0));
    const bool real = state.range(1) != 0;
    const int n = 1 << order;
    const std::size_t floats = real ? std::size_t(n) : 2 * std::size_t(n);
    const auto src = signal(floats);
    std::vector<float> x(floats);
    auto* f = static_cast<float*>(fftwf_malloc(sizeof(float) * (2 * n + 2)));
    fftwf_plan p = real ? fftwf_plan_dft_r2c_1d(n, f, reinterpret_cast<fftwf_complex*>(f), FFTW_MEASURE)
                        : fftwf_plan_dft_1d(n, reinterpret_cast<fftwf_complex*>(f), reinterpret_cast<fftwf_complex*>(f),
                                            FFTW_FORWARD, FFTW_MEASURE);
    std::vector<float> kin(floats);
    std::vector<kiss_fft_cpx> kout(n);
    kiss_fft_cfg kc = real ? nullptr : kiss_fft_alloc(n, 0, nullptr, nullptr);
    kiss_fftr_cfg kr = real ? kiss_fftr_alloc(n, 0, nullptr, nullptr) : nullptr;
    const std::size_t bytes = floats * sizeof(float);
    kvxbench::report_ratios(
        state, {"kvxpx", "fftw", "kiss"},
        {[&] {
             std::memcpy(x.data(), src.data(), bytes);
             if (real)
                 QXsRealFft(x.data(), order, QX_FORWARD);
             else
                 QXcFft(x.data(), order, QX_FORWARD);
             benchmark::DoNotOptimize(x.data());
             benchmark::ClobberMemory();
         },
         [&] {
             std::memcpy(f, src.data(), bytes);
             fftwf_execute(p);
             benchmark::DoNotOptimize(f);
             benchmark::ClobberMemory();
         },
         [&] {
             std::memcpy(kin.data(), src.data(), bytes);
             if (real)
                 kiss_fftr(kr, kin.data(), kout.data());
             else
                 kiss_fft(kc, reinterpret_cast<const kiss_fft_cpx*>(kin.data()), kout.data());
             benchmark::DoNotOptimize(kout.data());
             benchmark::ClobberMemory();
         }},
        std::max(1, (1 << 16) >> order));
    fftwf_destroy_plan(p);
    fftwf_free(f);
    kiss_fft_free(kc);
    kiss_fftr_free(kr);
}
BENCHMARK(BM_FftRatios)->ArgNames({"order", "real"})->ArgsProduct({{6, 8, 10, 12}, {0, 1}})->Iterations(1);
#endif

}  // namespace
