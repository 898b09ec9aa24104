// Vector arithmetic against memcpy of the same number of bytes. Every
// benchmark reports the bytes of one vector per call as bytes per second, so
// the ratio to BM_ArithMemcpy is the fraction of copy speed reached.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "kvxpx.h"

namespace {

constexpr int64_t kSmall = 4 << 10;
constexpr int64_t kLarge = 1 << 20;

template <class T>
std::vector<T> randomVec(size_t n, int lo, int hi, unsigned seed) {
    std::mt19937 g(seed);
    std::uniform_int_distribution<int> d(lo, hi);
    std::vector<T> v(n);
    for (auto& x : v) x = T(d(g));
    return v;
}

void BM_ArithMemcpy(benchmark::State& state) {
    size_t bytes = size_t(state.range(0));
    std::vector<uint8_t> a(bytes, 1), b(bytes);
    for (auto _ : state) {
        std::memcpy(b.data(), a.data(), bytes);
        benchmark::DoNotOptimize(b.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes));
}
BENCHMARK(BM_ArithMemcpy)->Arg(kSmall)->Arg(kLarge);

// QXybAdd3; range(1) is doScale. Saturating mode gets the full range, checked
// mode sums that never overflow.
void BM_QXybAdd3(benchmark::State& state) {
    int n = int(state.range(0));
    int top = state.range(1) == 0 ? 127 : 255;
    auto a = randomVec<unsigned char>(n, 0, top, 1), b = randomVec<unsigned char>(n, 0, top, 2);
    std::vector<unsigned char> d(n);
    int doScale = int(state.range(1));
    for (auto _ : state) {
        int sf = 0;
        QXybAdd3(a.data(), b.data(), d.data(), n, doScale, &sf);
        benchmark::DoNotOptimize(d.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * n);
}
BENCHMARK(BM_QXybAdd3)->Args({kSmall, 3})->Args({kLarge, 3})->Args({kSmall, 0})->Args({kLarge, 0});

// QXwbAdd2 saturating (3) and checked (0); small values so that the checked
// mode finds no overflow and the in-place data stays bounded (src is 0 or 1
// in saturating mode, and alternates sign in checked mode).
void BM_QXwbAdd2(benchmark::State& state) {
    int n = int(state.range(0)) / 2;
    int doScale = int(state.range(1));
    auto src = randomVec<short>(n, -100, 100, 3);
    auto sd = randomVec<short>(n, -1000, 1000, 4);
    auto neg = src;
    for (auto& x : neg) x = short(-x);
    bool flip = false;
    for (auto _ : state) {
        int sf = 0;
        QXwbAdd2(flip ? neg.data() : src.data(), sd.data(), n, doScale, &sf);
        flip = !flip;
        benchmark::DoNotOptimize(sd.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * n * 2);
}
BENCHMARK(BM_QXwbAdd2)->Args({kSmall, 3})->Args({kLarge, 3})->Args({kSmall, 0})->Args({kLarge, 0});

// QXwbMpy2 with the automatic shift. range(1) 0: no product leaves the range
// (src is 1); 1: from the middle on the products need a shift by one (src is
// 2, the second half of srcDst at least 16384). Either way srcDst keeps its
// values from call to call.
void BM_QXwbMpy2Auto(benchmark::State& state) {
    int n = int(state.range(0)) / 2;
    bool shifted = state.range(1) != 0;
    std::vector<short> src(n, shifted ? 2 : 1);
    auto sd = randomVec<short>(n, -16383, 16383, 5);
    if (shifted) {
        auto high = randomVec<short>(n, 16384, 32767, 6);
        for (int k = n / 2; k < n; ++k) sd[k] = high[k];
    }
    for (auto _ : state) {
        int sf = 0;
        QXwbMpy2(src.data(), sd.data(), n, 2, &sf);
        benchmark::DoNotOptimize(sf);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * n * 2);
}
BENCHMARK(BM_QXwbMpy2Auto)->Args({kSmall, 0})->Args({kLarge, 0})->Args({kSmall, 1})->Args({kLarge, 1});

void BM_QXwSum(benchmark::State& state) {
    int n = int(state.range(0)) / 2;
    auto v = randomVec<short>(n, -32768, 32767, 7);
    for (auto _ : state) {
        int sf = 0;
        int s = QXwSum(v.data(), n, 0, &sf);
        benchmark::DoNotOptimize(s);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * n * 2);
}
BENCHMARK(BM_QXwSum)->Arg(kSmall)->Arg(kLarge);

}  // namespace
