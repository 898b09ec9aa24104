// Image rotation and mask convolution against plain references of the same
// work (memcpy of the same bytes; a per-pixel convolution loop), and the
// perceptron's evaluations per second.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "kvxpx.h"
#include "side_by_side.h"

namespace {

// A contiguous image with a row-pointer array over it.
struct Image {
    std::vector<std::uint8_t> bytes;
    std::vector<std::uint8_t*> rows;
    Image(int nRows, int rowBytes, unsigned seed) : bytes(static_cast<std::size_t>(nRows) * rowBytes), rows(nRows) {
        std::mt19937 rng(seed);
        for (auto& b : bytes)
            b = static_cast<std::uint8_t>(rng());
        for (int r = 0; r < nRows; ++r)
            rows[r] = bytes.data() + static_cast<std::size_t>(r) * rowBytes;
    }
};

constexpr int kSide = 2048;

void set_counters(benchmark::State& state, std::int64_t pixels, std::int64_t bytes) {
    state.SetItemsProcessed(state.iterations() * pixels);
    state.SetBytesProcessed(state.iterations() * bytes);
}

void BM_MemcpyByteImage2048(benchmark::State& state) {
    Image in(kSide, kSide, 1), out(kSide, kSide, 2);
    for (auto _ : state) {
        std::memcpy(out.bytes.data(), in.bytes.data(), in.bytes.size());
        benchmark::ClobberMemory();
    }
    set_counters(state, std::int64_t{kSide} * kSide, std::int64_t{kSide} * kSide);
}
BENCHMARK(BM_MemcpyByteImage2048);

void BM_QXyRotateImage90_2048(benchmark::State& state) {
    Image in(kSide, kSide, 1), out(kSide, kSide, 2);
    for (auto _ : state) {
        QXyRotateImage(in.rows.data(), out.rows.data(), 90, kSide, kSide, kSide, kSide);
        benchmark::ClobberMemory();
    }
    set_counters(state, std::int64_t{kSide} * kSide, std::int64_t{kSide} * kSide);
}
BENCHMARK(BM_QXyRotateImage90_2048);

// The quarter turns' share of memcpy's bytes per second on the same image, in
// one run (over_memcpy is the time ratio, its inverse the share); the signed
// byte form shares the unsigned one's code.
void BM_RotateRatio2048(benchmark::State& state) {
    const int angle = static_cast<int>(state.range(0));
    const bool isSigned = state.range(1) != 0;
    Image in(kSide, kSide, 1), out(kSide, kSide, 2);
    auto* sin = reinterpret_cast<signed char**>(in.rows.data());
    auto* sout = reinterpret_cast<signed char**>(out.rows.data());
    kvxbench::report_ratios(state, {"rotate", "memcpy"},
                            {[&] {
                                 if (isSigned)
                                     QXtRotateImage(sin, sout, angle, kSide, kSide, kSide, kSide);
                                 else
                                     QXyRotateImage(in.rows.data(), out.rows.data(), angle, kSide, kSide, kSide, kSide);
                                 benchmark::ClobberMemory();
                             },
                             [&] {
                                 std::memcpy(out.bytes.data(), in.bytes.data(), in.bytes.size());
                                 benchmark::ClobberMemory();
                             }},
                            4);
    state.counters["share_of_memcpy"] = 1.0 / state.counters["over_memcpy"];
}
BENCHMARK(BM_RotateRatio2048)
    ->ArgNames({"angle", "signed"})
    ->Args({90, 0})
    ->Args({-90, 0})
    ->Args({90, 1})
    ->Args({-90, 1})
    ->Iterations(1);

void BM_MemcpyBitImage2048(benchmark::State& state) {
    Image in(kSide, kSide / 8, 1), out(kSide, kSide / 8, 2);
    for (auto _ : state) {
        std::memcpy(out.bytes.data(), in.bytes.data(), in.bytes.size());
        benchmark::ClobberMemory();
    }
    set_counters(state, std::int64_t{kSide} * kSide, std::int64_t{kSide} * kSide / 8);
}
BENCHMARK(BM_MemcpyBitImage2048);

void BM_QXbRotateImage90_2048(benchmark::State& state) {
    Image in(kSide, kSide / 8, 1), out(kSide, kSide / 8, 2);
    for (auto _ : state) {
        QXbRotateImage(in.rows.data(), out.rows.data(), 90, kSide, kSide, kSide, kSide);
        benchmark::ClobberMemory();
    }
    set_counters(state, std::int64_t{kSide} * kSide, std::int64_t{kSide} * kSide / 8);
}
BENCHMARK(BM_QXbRotateImage90_2048);

// ---------------------------------------------------------------- convolution

constexpr int kConvSide = 1024;

std::vector<std::vector<signed char>> byte_mask(int n) {
    std::mt19937 rng(9);
    std::vector<std::vector<signed char>> m(n, std::vector<signed char>(n));
    for (auto& row : m)
        for (auto& v : row)
            v = static_cast<signed char>(static_cast<int>(rng() % 15) - 7);
    return m;
}

// The plain loop: one pixel at a time, bounds-tested zero padding, the same
// double sums and saturation to unsigned bytes.
void plain_convolve(std::uint8_t* const* in, std::uint8_t* const* out, int rows, int cols,
                    const std::vector<std::vector<signed char>>& m) {
    const int n = static_cast<int>(m.size()), h = n / 2;
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) {
            double sum = 0;
            for (int i = 0; i < n; ++i)
                for (int j = 0; j < n; ++j) {
                    const int rr = r - h + i, cc = c - h + j;
                    if (rr >= 0 && rr < rows && cc >= 0 && cc < cols)
                        sum += static_cast<double>(m[i][j]) * in[rr][cc];
                }
            const int v = static_cast<int>(sum);
            out[r][c] = static_cast<std::uint8_t>(v < 0 ? 0 : v > 255 ? 255 : v);
        }
}

void BM_PlainConvolveBytes1024(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    Image in(kConvSide, kConvSide, 3), out(kConvSide, kConvSide, 4);
    const auto m = byte_mask(n);
    for (auto _ : state) {
        plain_convolve(in.rows.data(), out.rows.data(), kConvSide, kConvSide, m);
        benchmark::ClobberMemory();
    }
    set_counters(state, std::int64_t{kConvSide} * kConvSide, std::int64_t{kConvSide} * kConvSide);
}
BENCHMARK(BM_PlainConvolveBytes1024)->Arg(3)->Arg(5);

void BM_QXMaskConvolveBytes1024(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    Image in(kConvSide, kConvSide, 3), out(kConvSide, kConvSide, 4);
    auto m = byte_mask(n);
    std::vector<signed char*> mrows;
    for (auto& row : m)
        mrows.push_back(row.data());
    int sf = 0;
    for (auto _ : state) {
        QXMaskConvolve(in.rows.data(), mrows.data(), out.rows.data(), 2, 0, 2, kConvSide, kConvSide, n, n, nullptr, 3,
                       &sf);
        benchmark::ClobberMemory();
    }
    set_counters(state, std::int64_t{kConvSide} * kConvSide, std::int64_t{kConvSide} * kConvSide);
}
BENCHMARK(BM_QXMaskConvolveBytes1024)->Arg(3)->Arg(5);

// ---------------------------------------------------------------- perceptron

void BM_QXsMLPerceptron_39_256_256_10(benchmark::State& state) {
    const int counts[] = {256, 256, 10};
    const int nIn = 39;
    std::mt19937 rng(5);
    std::normal_distribution<float> d(0.0f, 0.1f);
    std::vector<float> in(nIn), w(39 * 256 + 256 * 256 + 256 * 10), out(10);
    for (auto& v : in)
        v = d(rng);
    for (auto& v : w)
        v = d(rng);
    for (auto _ : state) {
        QXsMLPerceptron(nIn, in.data(), 3, counts, w.data(), out.data());
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_QXsMLPerceptron_39_256_256_10);

}  // namespace
