// FFT tables and float transforms against a naive DFT in double; the reports
// and allocation failures of every FFT routine, short-data ones included.
#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>

#include "fft_reference.h"
#include "qx_cpu.h"
#include "qx_fft.h"

using namespace fftref;
using kvxtest::FailAllocation;
using kvxtest::Rep;
using Reps = std::vector<Rep>;

namespace {

bool aligned(const void* p) { return reinterpret_cast<std::uintptr_t>(p) % 32 == 0; }

// Float rounding through log2(n) stages of sums of magnitude about sqrt(n).
double tolerance(int order) { return 6e-7 * (order + 2) * std::sqrt(double(std::size_t{1} << order)); }

}  // namespace

TEST_F(FftTest, TablesHoldTheBitReversalAndTheRootsOfUnity) {
    for (int order = 0; order <= 14; ++order) {
        const std::size_t n = std::size_t{1} << order;
        std::vector<int> rev(n), reversed(n, 0);
        ASSERT_EQ(QXCalcBitRevTbl(rev.data(), order), int(n - 1));
        std::vector<float> v(2 * n);
        for (std::size_t i = 0; i < n; ++i) {
            reversed[i] = i ? (reversed[i / 2] >> 1) | int((i & 1) << (order - 1)) : 0;
            v[2 * i] = float(i), v[2 * i + 1] = -float(i);
        }
        ASSERT_EQ(rev, reversed) << order;
        const int* cachedRev = QXGetBitRevTbl(order);
        ASSERT_TRUE(cachedRev && std::equal(rev.begin(), rev.end(), cachedRev));
        ASSERT_EQ(QXcbBitRev1(v.data(), order), 0);
        for (std::size_t i = 0; i < n; ++i)
            ASSERT_TRUE(v[2 * i] == float(rev[i]) && v[2 * i + 1] == -float(rev[i])) << order << " " << i;
        // Twiddles against cos/sin (the half-turn symmetry exact), their cached copy, the fixed-point
        // table truncated from them and the real-transform table (halved, imaginary part shifted by 1/2).
        std::vector<float> t(2 * n);
        std::vector<short> tw(2 * n);
        QXcCalcFftTwdTbl(t.data(), order);
        QXwCalcFftTwdTbl(tw.data(), order);
        const float *c = QXcGetFftTwdTbl(order), *r = qx::fft::real_twiddles(order);
        const short* w = QXwGetFftTwdTbl(order);
        ASSERT_TRUE(c && w && r && aligned(c) && aligned(w) && aligned(r) && aligned(cachedRev));
        for (std::size_t k = 0; k < 2 * n; ++k) {
            const double a = -2.0 * std::numbers::pi * double(k / 2) / double(n);
            const double want = k % 2 ? std::sin(a) : std::cos(a);
            ASSERT_NEAR(t[k], want, 4e-7) << order << " " << k;
            ASSERT_TRUE(n < 2 || k >= n || t[k + n] == -t[k]) << order << " " << k;
            ASSERT_TRUE(c[k] == t[k] && tw[k] == w[k] && w[k] == short(std::trunc(t[k] * 16384.0))) << k;
            ASSERT_NEAR(r[k], 0.5 * want + (k % 2 ? 0.5 : 0.0), 3e-7) << order << " " << k;
        }
    }
    // With order 9 cached, every table of order 8 holds its even entries (equal to the computed
    // ones only within rounding).
    QXFreeFftTbls();
    const float *c9 = QXcGetFftTwdTbl(9), *r9 = qx::fft::real_twiddles(9);
    const short* w9 = QXwGetFftTwdTbl(9);
    const float *c8 = QXcGetFftTwdTbl(8), *r8 = qx::fft::real_twiddles(8);
    const short* w8 = QXwGetFftTwdTbl(8);
    float cd[512];
    short wd[512];
    QXcDecFftTwdTbl(cd, c9, 8);
    QXwDecFftTwdTbl(wd, w9, 8);
    for (int k = 0; k < 512; ++k) {
        const int e = 4 * (k / 2) + k % 2;
        ASSERT_TRUE(c8[k] == c9[e] && cd[k] == c9[e] && r8[k] == r9[e] && w8[k] == w9[e] && wd[k] == w9[e]) << k;
    }
    EXPECT_TRUE(got().empty());
}

// Forward, inverse, unscaled inverse against the DFT; the forward result
// taken back by the matching inverse returns the input.
TEST_F(FftTest, FloatTransformsMatchTheDftAndInvert) {
    for (int order = 0; order <= 14; ++order) {
        const std::size_t n = std::size_t{1} << order;
        for (auto [shape, fn, back] : {std::tuple{Shape::Complex, &QXcFftNip, &QXcFft},
                                       {Shape::Real, QXsRealFftNip, QXsCcsFft},
                                       {Shape::Packed, QXsCcsFftNip, QXsRealFft}}) {
            const std::size_t count = shape == Shape::Complex ? 2 * n : n;
            const auto in = noise<float>(count, 1.0, 10 * order + unsigned(shape));
            std::vector<float> out(count);  // holds the forward result after the loop
            for (int flags : {QX_FORWARD | QX_NO_INVERSE_SCALING, QX_INVERSE, QX_INVERSE | QX_NO_INVERSE_SCALING,
                              QX_FORWARD}) {
                ASSERT_EQ(fn(in.data(), out.data(), order, flags), 0);
                Dft X(shape, in, flags & QX_INVERSE ? 1 : -1);
                const double div = flags == QX_INVERSE ? double(n) : 1.0;
                for (std::size_t i = 0; i < count; i += count > 2048 ? 997 : 1)  // a spread sample above 2048
                    ASSERT_NEAR(out[i], X.at(i) / div, tolerance(order) / div)
                        << int(shape) << " " << order << " " << flags << " " << i;
            }
            back(out.data(), order, QX_INVERSE);
            for (std::size_t i = 0; i < count; ++i)
                ASSERT_NEAR(out[i], in[i], 1e-6 * (order + 1)) << int(shape) << " " << order << " " << i;
        }
    }
    EXPECT_TRUE(got().empty());
}

// Every kernel path gives the plain path's bytes, NaNs included: all three
// float transforms (the in-place forms through the Nip ones), every direction
// and scaling, odd and even orders, on random data, subnormals, values near
// the float limit, signed zeros, and infinities and NaNs of both signs and
// several payloads; cached tables built on one path serve the others.
TEST_F(FftTest, EveryKernelPathGivesThePlainBytes) {
    using Fn = int (*)(const float*, float*, int, int);
    const std::pair<Fn, bool> transforms[] = {{QXcFftNip, true}, {QXsRealFftNip, false}, {QXsCcsFftNip, false}};
    const int flagSets[] = {QX_FORWARD, QX_INVERSE, QX_INVERSE | QX_NO_INVERSE_SCALING};
    auto bits = [](std::uint32_t u) { return std::bit_cast<float>(u); };
    const float special[] = {INFINITY, -INFINITY, bits(0x7fc00000), bits(0xffc00000), bits(0x7fc01234),
                             bits(0xffd00001), bits(0x7f800001) /* signalling */, 0.0f, -0.0f};
    auto inputs = [&](std::size_t count, unsigned seed) {
        std::vector<std::vector<float>> v;
        // Several random sets: a butterfly handled apart (the eighth turn of
        // a small stage) may round alike on one set by chance.
        for (unsigned k = 0; k < 4; ++k)
            v.push_back(noise<float>(count, 1.0, seed + 1000 * k));
        auto tiny = noise<float>(count, 1.0, seed + 1);
        for (float& f : tiny)
            f *= 1e-39f;  // subnormal
        v.push_back(tiny);
        auto huge = noise<float>(count, 3e38, seed + 2);  // sums overflow to infinity, then NaN
        v.push_back(huge);
        auto zeros = noise<float>(count, 1.0, seed + 3);
        for (std::size_t i = 0; i < count; ++i)
            zeros[i] = i % 3 == 0 ? 0.0f : i % 3 == 1 ? -0.0f : (i % 2 ? zeros[i] : -zeros[i]);
        v.push_back(zeros);
        for (std::size_t every : {1, 3, 7}) {  // dense to sparse specials among random values
            auto odd = noise<float>(count, 1.0, seed + 4 + unsigned(every));
            for (std::size_t i = 0; i < count; i += every)
                odd[i] = special[(i / every + seed) % std::size(special)];
            v.push_back(odd);
        }
        return v;
    };
    // Order 15 is past the widened twiddle tables: its vector stages gather them.
    for (int order : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}) {
        const std::size_t n = std::size_t{1} << order;
        for (const auto& [fn, complex] : transforms) {
            const std::size_t count = complex ? 2 * n : n;
            for (const auto& in : inputs(count, 40 + unsigned(order)))
                for (int flags : flagSets) {
                    std::vector<float> by[3];  // the result of each path the processor has
                    kvxtest::on_every_path([&](int path) {
                        by[path].resize(count);
                        ASSERT_EQ(fn(in.data(), by[path].data(), order, flags), 0);
                    });
                    for (int path : {1, 2})
                        ASSERT_TRUE(by[path].empty() || std::memcmp(by[path].data(), by[0].data(), 4 * count) == 0)
                            << "path " << path << " order " << order << " flags " << flags
                            << (fn == QXcFftNip ? " complex" : fn == QXsRealFftNip ? " real" : " packed");
                }
        }
    }
    EXPECT_TRUE(got().empty());
}

// Forcing a path the processor lacks (AVX-512 here, perhaps AVX2) selects the
// best one it has, which gives the plain bytes.
TEST_F(FftTest, AMissingPathFallsBackToOneWithThePlainBytes) {
    using qx::cpu::Path;
    const Path was = qx::cpu::path();
    const auto in = noise<float>(2 * 1024, 1.0, 9);
    std::vector<float> plain(in.size()), out(in.size());
    qx::cpu::force(Path::plain);
    ASSERT_EQ(QXcFftNip(in.data(), plain.data(), 10, QX_FORWARD), 0);
    for (Path p : {Path::avx2, Path::avx512}) {
        qx::cpu::force(p);
        EXPECT_EQ(qx::cpu::path(), std::min(p, qx::cpu::supported()));
        ASSERT_EQ(QXcFftNip(in.data(), out.data(), 10, QX_FORWARD), 0);
        EXPECT_EQ(std::memcmp(out.data(), plain.data(), 4 * in.size()), 0) << int(p);
    }
    qx::cpu::force(was);
}

TEST_F(FftTest, ChecksFlagMessagesAndTraces) {
    Reps all, want;
    auto collect = [&all](const std::function<void()>& call) {
        clear();
        call();
        for (auto& r : kvxtest::reports())
            EXPECT_TRUE(kvxtest::names_raising_line(r)) << r.function << " " << r.condition;
        auto g = got();
        all.insert(all.end(), g.begin(), g.end());
    };
    auto checks = [&](const char* name, std::vector<const char*> conditions, const std::function<void()>& call) {
        collect(call);
        for (const char* text : conditions)
            want.push_back({-5, name, text});
    };
    const auto fin = noise<float>(32, 1.0, 1);
    const auto sin = noise<short>(32, 1000.0, 2);
    std::vector<float> f = fin, fo(32);
    std::vector<short> s = sin, so(32);
    int sf = 0;
    checks("QXCalcBitRevTbl", {"order<0", "tbl==0"}, [] { EXPECT_EQ(QXCalcBitRevTbl(nullptr, -1), -5); });
    checks("QXGetBitRevTbl", {"order>31"}, [] { EXPECT_EQ(QXGetBitRevTbl(32), nullptr); });
    checks("QXcGetFftTwdTbl", {"order<0"}, [] { EXPECT_EQ(QXcGetFftTwdTbl(-1), nullptr); });
    checks("QXcGetFftTwdTbl", {"order>31"}, [] { EXPECT_EQ(qx::fft::real_twiddles(32), nullptr); });
    checks("QXwGetFftTwdTbl", {"order>31"}, [] { EXPECT_EQ(QXwGetFftTwdTbl(32), nullptr); });
    checks("QXcbBitRev1", {"order>31", "vec==0"}, [] { EXPECT_EQ(QXcbBitRev1(nullptr, 32), -5); });
    checks("QXcCalcFftTwdTbl", {"order>31", "tbl==0"}, [] { QXcCalcFftTwdTbl(nullptr, 40); });
    checks("QXcDecFftTwdTbl", {"order<0", "tbl1==0", "tbl2==0"}, [] { QXcDecFftTwdTbl(nullptr, nullptr, -2); });
    checks("QXwCalcFftTwdTbl", {"tbl==0"}, [] { QXwCalcFftTwdTbl(nullptr, 3); });
    checks("QXwDecFftTwdTbl", {"tbl1==0", "tbl2==0"}, [] { QXwDecFftTwdTbl(nullptr, nullptr, 3); });
    checks("QXcFft", {"order<0", "samps==0"}, [] { QXcFft(nullptr, -1, 3); });
    checks("QXsRealFft", {"order>31", "samps==0"}, [] { QXsRealFft(nullptr, 32, 1); });
    checks("QXsCcsFft", {"order>31"}, [&] { QXsCcsFft(f.data(), 99, 1); });
    checks("QXcFftNip", {"order<0", "inSamps==0", "outSamps==0"}, [] { QXcFftNip(nullptr, nullptr, -1, 1); });
    checks("QXsRealFftNip", {"order>31", "outSamps==0"}, [&] { QXsRealFftNip(f.data(), nullptr, 32, 1); });
    checks("QXsCcsFftNip", {"inSamps==0"}, [&] { QXsCcsFftNip(nullptr, f.data(), 1, 1); });
    checks("QXvFft", {"order<0", "samps==0"}, [&] { QXvFft(nullptr, -1, 3, 0, &sf); });
    checks("QXwRealFft", {"order>31"}, [&] { QXwRealFft(s.data(), 32, 1, 0, &sf); });
    checks("QXwCcsFft", {"samps==0"}, [&] { QXwCcsFft(nullptr, 4, 1, 0, &sf); });
    checks("QXvFftNip", {"order>31", "inSamps==0", "outSamps==0"}, [&] { QXvFftNip(nullptr, nullptr, 40, 1, 0, &sf); });
    checks("QXwRealFftNip", {"order<0", "outSamps==0"}, [&] { QXwRealFftNip(s.data(), nullptr, -1, 1, 0, &sf); });
    checks("QXwCcsFftNip", {"inSamps==0"}, [&] { QXwCcsFftNip(nullptr, s.data(), 3, 1, 0, &sf); });
    EXPECT_EQ(all, want);
    // Flags with both directions or neither (8 alone is neither) are rejected by the in-place routine,
    // which leaves the copy untouched, and traced by the Nip form. Order 0 checks no flags and copies.
    using Call = std::function<int(int, int)>;  // (order, flags)
    auto floats = [&](int (*fn)(const float*, float*, int, int)) -> Call {
        return [&, fn](int o, int g) { return fn(fin.data(), fo.data(), o, g); };
    };
    auto shorts = [&](int (*fn)(const short*, short*, int, int, int, int*)) -> Call {
        return [&, fn](int o, int g) { return fn(sin.data(), so.data(), o, g, 0, &sf); };
    };
    const std::tuple<const char*, const char*, const char*, Call> nips[] = {
        {"QXcFft", "QXcFftNip", "out QXcFft", floats(QXcFftNip)},
        {"QXsRealFft", "QXsRealFftNip", "out QXsRealFftl", floats(QXsRealFftNip)},
        {"QXsCcsFft", "QXsCcsFftNip", "out QXsCcsFft", floats(QXsCcsFftNip)},
        {"QXvFft", "QXvFftNip", "out QXvFft", shorts(QXvFftNip)},
        {"QXwRealFft", "QXwRealFftNip", "out QXwRealFftl", shorts(QXwRealFftNip)},
        {"QXwCcsFft", "QXwCcsFftNip", "out QXwCcsFft", shorts(QXwCcsFftNip)}};
    all.clear(), want.clear();
    for (const auto& [inner, name, trace, callRef] : nips) {
        const Call& call = callRef;  // a plain reference the lambdas below can capture
        fo.assign(32, 0.0f), so.assign(32, 0);
        collect([&] { EXPECT_EQ(call(0, 0), 0); });
        EXPECT_TRUE(fo[0] == fin[0] || so[0] == sin[0]) << name;
        for (int flags : {QX_FORWARD | QX_INVERSE, 0, QX_NO_INVERSE_SCALING, QX_FORWARD | QX_INVERSE | 8}) {
            collect([&] { EXPECT_EQ(call(3, flags), -5); });
            EXPECT_TRUE(std::equal(fin.begin(), fin.begin() + 8, fo.begin()) ||
                        std::equal(sin.begin(), sin.begin() + 8, so.begin())) << name;
            const char* text = flags & 3 ? qx::fft::kBothDirections : qx::fft::kNoDirection;
            want.insert(want.end(), {{-5, inner, text}, {-1, name, trace}});
        }
    }
    EXPECT_EQ(all, want);
    // A pending error stops everything, table getters included, without a report.
    clear();
    QXSetStatus(-5);
    QXcFft(f.data(), 3, QX_FORWARD);
    QXwRealFft(s.data(), 3, QX_FORWARD, 0, &sf);
    EXPECT_TRUE(f == fin && s == sin && QXGetBitRevTbl(3) == nullptr && got().empty());
}

// Allocation n = 1, 2, ... of a cold call fails until the call needs fewer:
// each failure reports -4 once, traces, leaves the data alone and leaks nothing;
// once all is cached a call allocates nothing.
TEST_F(FftTest, EveryFailedAllocationReportsAndLeavesNothingBehind) {
    const long live = qx::testing::live_blocks();
    const auto fin = noise<float>(64, 1.0, 3);
    const auto sin = noise<short>(4096, 1000.0, 4);
    std::vector<float> f;
    std::vector<short> s;
    int sf = 0;
    auto floats = [&](void (*fn)(float*, int, int)) {
        return [&f, &fin, fn] { f = fin, fn(f.data(), 5, QX_FORWARD); return f == fin; };
    };
    // -4 "NULL Pointer" from a table getter, then the "Bad Ptr" traces of the callers.
    auto miss = [](const char* getter, std::vector<const char*> callers = {}) {
        Reps r{{-4, getter, "NULL Pointer"}};
        for (const char* c : callers)
            r.push_back({-1, c, "Bad Ptr"});
        return r;
    };
    const char *C = "QXcGetFftTwdTbl", *W = "QXwGetFftTwdTbl", *B = "QXGetBitRevTbl", *I = "Fft_Core_Short_As_Int";
    const char* iBuf = "insufficiency of memory for pointer  pQXContext->Fft.iBuffer";
    const char* sBuf = "insufficiency of memory for pointer  pQXContext->Fft.sBuffer";
    // A call that says whether nothing was produced; the reports when allocation 1, 2, ... fails.
    using Case = std::pair<std::function<bool()>, std::vector<Reps>>;
    const Case cases[] = {
        {[] { return QXGetBitRevTbl(4) == nullptr; }, {miss(B)}},
        {[] { return QXcGetFftTwdTbl(4) == nullptr; }, {miss(C)}},
        {[] { return qx::fft::real_twiddles(4) == nullptr; }, {miss(C)}},
        {[] { return QXwGetFftTwdTbl(4) == nullptr; }, {miss(W), miss(C)}},
        {floats(QXcFft), {miss(C, {"QXcFft"}), miss(B, {"QXcFft"})}},
        {floats(QXsRealFft), {miss(C, {"QXsRealFft"}), miss(C, {"QXsRealFft"}), miss(B, {"QXsRealFft"})}},
        {floats(QXsCcsFft), {miss(C, {"QXsCcsFft"}), miss(C, {"QXsCcsFft"}), miss(B, {"QXsCcsFft"})}},
        {[&] { s = sin, QXwRealFft(s.data(), 5, QX_FORWARD, 0, &sf); return s == sin; },
         {miss(W, {I, "QXwRealFft"}), miss(C, {I, "QXwRealFft"}), miss(W, {I, "QXwRealFft"}),
          miss(B, {I, "QXwRealFft"}), {{-4, I, iBuf}, {-1, "QXwRealFft", iBuf}}}},
        {[&] { s = sin, QXvFft(s.data(), 11, QX_FORWARD, 2, &sf); return s == sin; },
         {{{-4, "Fft_Core_Short_As_Float", sBuf}, {-1, "QXvFft", sBuf}}, miss(C, {"QXcFft", "QXvFft"}),
          miss(B, {"QXcFft", "QXvFft"})}},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        const auto& [call, want] = cases[i];
        for (std::size_t nth = 1; nth <= want.size() + 1; ++nth) {
            QXFreeFftTbls();
            EXPECT_EQ(qx::testing::live_blocks(), live) << i << " " << nth;
            clear();
            FailAllocation fail{long(nth)};
            const bool nothing = call(), fails = nth <= want.size();
            EXPECT_EQ(nothing, fails) << i << " " << nth;
            EXPECT_EQ(got(), fails ? want[nth - 1] : Reps{}) << i << " " << nth;
            for (auto& r : kvxtest::reports())
                EXPECT_TRUE(kvxtest::names_raising_line(r)) << r.function << " " << r.condition;
        }
        const long before = qx::testing::allocations();
        call();
        EXPECT_EQ(qx::testing::allocations(), before) << i;
    }
}
