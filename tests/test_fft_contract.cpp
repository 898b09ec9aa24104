// The FFT kernels keep separate roundings for products and sums even in code
// built for processors with fused multiply-add and told to contract: the
// shared kernels, compiled here for AVX2 and FMA with contraction on, give the
// library's bytes, while a product-plus-sum written here does contract.
#include <cstring>

#include "fft_reference.h"

#if defined(__GNUC__) && !defined(__clang__) && (defined(__x86_64__) || defined(__i386__))
#define KVX_CONTRACT_TEST 1
#pragma GCC push_options
#pragma GCC target("avx2,fma")
#pragma GCC optimize("fp-contract=fast")
#include "qx_fft.h"

namespace {

// a * b + c: one rounding when contracted, two otherwise.
double product_plus(double a, double b, double c) { return a * b + c; }

void scalar_core(float* x, int order) {
    qx::fft::Radix4<qx::fft::FloatOps>::run(x, order, QXcGetFftTwdTbl(order), false);
    qx::fft::bit_reverse(x, order, order >= 3 ? QXGetBitRevTbl(order) : nullptr);
}

}  // namespace
#pragma GCC pop_options
#endif

using fftref::FftTest;

TEST_F(FftTest, KernelsDoNotContractWhereTheCompilerWould) {
#if KVX_CONTRACT_TEST
    if (!__builtin_cpu_supports("avx2") || !__builtin_cpu_supports("fma"))
        GTEST_SKIP() << "no FMA";
    volatile double a = 1.0 + 0x1p-30, b = 1.0 - 0x1p-30, c = -1.0;
    ASSERT_NE(product_plus(a, b, c), 0.0) << "this file should contract; the test below would prove nothing";
    for (int order : {3, 6, 9, 10, 13}) {
        const std::size_t n = std::size_t{1} << order;
        const auto in = fftref::noise<float>(2 * n, 1.0, 70 + unsigned(order));
        std::vector<float> here = in, lib(2 * n);
        scalar_core(here.data(), order);
        kvxtest::on_every_path([&](int) {
            ASSERT_EQ(QXcFftNip(in.data(), lib.data(), order, QX_FORWARD), 0);
            ASSERT_EQ(std::memcmp(here.data(), lib.data(), 8 * n), 0) << order;
        });
    }
#else
    GTEST_SKIP() << "GCC on x86 only";
#endif
}
