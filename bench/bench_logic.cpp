// Packed copy and logic, and image mirror, against memcpy of the same bytes in
// the same run. Rates are bytes (and pixels) per second; compare the ratios.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "kvxpx.h"

namespace {

std::vector<unsigned char> pattern(std::size_t n) {
    std::vector<unsigned char> v(n);
    for (std::size_t i = 0; i < n; ++i)
        v[i] = static_cast<unsigned char>(i * 131 + 7);
    return v;
}

// memcpy of the bytes a packed vector of range(0) bytes occupies.
void BM_Memcpy(benchmark::State& state) {
    const auto bytes = static_cast<std::size_t>(state.range(0));
    auto src = pattern(bytes), dst = pattern(bytes);
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), bytes);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(bytes));
}

// Bits of a vector that fills range(0) destination bytes from srcPos/dstPos.
int bits_for(std::size_t bytes) { return static_cast<int>(bytes * 8 - 8); }

void BM_QXbbCopy(benchmark::State& state) {
    const auto bytes = static_cast<std::size_t>(state.range(0));
    const int srcPos = static_cast<int>(state.range(1)), dstPos = static_cast<int>(state.range(2));
    auto src = pattern(bytes), dst = pattern(bytes);
    for (auto _ : state) {
        QXbbCopy(src.data(), dst.data(), srcPos, dstPos, bits_for(bytes));
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(bytes));
}

void BM_QXbbXor2(benchmark::State& state) {
    const auto bytes = static_cast<std::size_t>(state.range(0));
    const int srcPos = static_cast<int>(state.range(1)), dstPos = static_cast<int>(state.range(2));
    auto src = pattern(bytes), dst = pattern(bytes);
    for (auto _ : state) {
        QXbbXor2(src.data(), dst.data(), srcPos, dstPos, bits_for(bytes));
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(bytes));
}

void BM_QXybXor2(benchmark::State& state) {
    const auto bytes = static_cast<std::size_t>(state.range(0));
    auto src = pattern(bytes), dst = pattern(bytes);
    for (auto _ : state) {
        QXybXor2(src.data(), dst.data(), static_cast<int>(bytes));
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(bytes));
}

constexpr int kSide = 2048;

// A 2048 x 2048 byte image as row pointers into one block.
struct ByteImage {
    std::vector<unsigned char> block;
    std::vector<unsigned char*> rows;
    ByteImage() : block(pattern(std::size_t{kSide} * kSide)) {
        for (int r = 0; r < kSide; ++r)
            rows.push_back(block.data() + std::size_t{kSide} * static_cast<std::size_t>(r));
    }
};

void BM_QXyMirrorImage(benchmark::State& state) {
    const int orient = static_cast<int>(state.range(0));
    ByteImage in, out;
    for (auto _ : state) {
        QXyMirrorImage(in.rows.data(), out.rows.data(), kSide, kSide, orient);
        benchmark::DoNotOptimize(out.block.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kSide * kSide);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kSide * kSide);
}

void BM_MemcpyImage(benchmark::State& state) {
    ByteImage in, out;
    for (auto _ : state) {
        std::memcpy(out.block.data(), in.block.data(), in.block.size());
        benchmark::DoNotOptimize(out.block.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kSide * kSide);
}

}  // namespace

BENCHMARK(BM_Memcpy)->Arg(4096)->Arg(1 << 20);
BENCHMARK(BM_QXbbCopy)->Args({4096, 5, 2})->Args({1 << 20, 5, 2})->Args({4096, 2, 5})->Args({1 << 20, 2, 5});
BENCHMARK(BM_QXbbXor2)->Args({4096, 5, 2})->Args({1 << 20, 5, 2})->Args({4096, 3, 3})->Args({1 << 20, 3, 3});
BENCHMARK(BM_QXybXor2)->Arg(4096)->Arg(1 << 20);
BENCHMARK(BM_MemcpyImage);
BENCHMARK(BM_QXyMirrorImage)->Arg(0)->Arg(1);
