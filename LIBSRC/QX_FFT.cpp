// FFT tables (bit reversal, complex and real-transform twiddles), their cache
// in the working context, and the float transforms: complex, real signal to
// packed spectrum, packed spectrum to real signal.
// Products and sums stay separate roundings on every processor: the vector
// and scalar paths must agree bit for bit.
#pragma GCC optimize("fp-contract=off")

#include <cmath>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <numbers>

#include "kvxpx.h"
#include "qx_alloc.h"
#include "qx_context.h"
#include "qx_cpu.h"
#include "qx_fft.h"
#include "qx_report.h"
#if QX_X86_PATHS
#define QX_FFT_X86 1
#include "qx_fft_avx2.h"
#else
#define QX_FFT_X86 0
#endif

namespace {

using qx::fft::calc_bit_reversal;
using qx::fft::FloatOps;
using qx::fft::points;

// e^(-2*pi*i*k/n): only the power-of-two fractions of the circle come from
// sine and cosine; the other first-octant entries are products of two table
// entries, the rest follow by symmetry.
void calc_twiddles(float* t, int order) noexcept {
    const std::size_t n = points(order);
    t[0] = 1.0f;
    t[1] = 0.0f;
    double a = -std::numbers::pi / 4;
    std::size_t s = n / 8, p = n / 4;
    while (s > 0) {
        t[2 * s] = static_cast<float>(std::cos(a));
        t[2 * s + 1] = static_cast<float>(std::sin(a));
        const double sr = t[2 * s], si = t[2 * s + 1];
        for (std::size_t e = p + s; e < n / 8; e += p) {
            const double mr = t[2 * (e - s)], mi = t[2 * (e - s) + 1];
            t[2 * e] = static_cast<float>(mr * sr - mi * si);
            t[2 * e + 1] = static_cast<float>(mr * si + mi * sr);
        }
        a /= 2;
        p = s;
        s /= 2;
    }
    for (std::size_t k = 1; k < n / 8; ++k) {
        t[2 * (n / 4 - k)] = -t[2 * k + 1];
        t[2 * (n / 4 - k) + 1] = -t[2 * k];
    }
    for (std::size_t k = 0; k < n / 4; ++k) {
        t[2 * (n / 4 + k)] = t[2 * k + 1];
        t[2 * (n / 4 + k) + 1] = -t[2 * k];
    }
    for (std::size_t k = 0; k < n / 2; ++k) {
        t[2 * (n / 2 + k)] = -t[2 * k];
        t[2 * (n / 2 + k) + 1] = -t[2 * k + 1];
    }
}

// Behind the float table of an order in [4, kStageOrderMax], its twiddles
// widened to double in the order the vector stages read them, stage by stage
// (q = n/4, n/16, ... >= 4 butterflies per group, twiddle stride t = n/(4q)):
// for the first stage, per block of four butterflies j .. j + 3 and
// m = 1, 2, 3, the real parts of W(m(j + l)) for l in the stage's lane order,
// then their imaginary parts; for the later stages, per butterfly j, the real
// and imaginary part of W(mjt) for m = 1, 2, 3. Widening is exact, so a stage
// reading them computes what it would from the floats.
constexpr int kStageOrderMax = 14;

bool widened(int order) noexcept { return QX_FFT_X86 && order >= 4 && order <= kStageOrderMax; }

std::size_t stage_doubles(int order) noexcept {
    std::size_t d = 0;
    if (widened(order))
        for (std::size_t q = points(order) / 4; q >= 4; q /= 4)
            d += 6 * q;
    return d;
}

void fill_stages([[maybe_unused]] double* e, [[maybe_unused]] const float* w, int order) noexcept {
    if (!widened(order))
        return;
#if QX_FFT_X86
    const std::size_t first = points(order) / 4;
    for (std::size_t j = 0; j < first; j += 4)
        for (std::size_t m = 1; m <= 3; ++m, e += 8)
            for (std::size_t l = 0; l < 4; ++l) {
                const std::size_t k = (j + qx::fft::avx2::kPairLane[l]) * m;
                e[l] = w[2 * k];
                e[4 + l] = w[2 * k + 1];
            }
    std::size_t t = 4;
    for (std::size_t q = first / 4; q >= 4; q /= 4, t *= 4)
        for (std::size_t j = 0; j < q; ++j)
            for (std::size_t m = 1; m <= 3; ++m, e += 2) {
                e[0] = w[2 * j * m * t];
                e[1] = w[2 * j * m * t + 1];
            }
#endif
}

// The widened copies behind a table from QXcGetFftTwdTbl, or null.
const double* stage_twiddles(const float* w, int order) noexcept {
    return widened(order) ? reinterpret_cast<const double*>(w + 2 * points(order)) : nullptr;
}

inline bool use_avx2() noexcept { return qx::cpu::at_least(qx::cpu::Path::avx2); }

constexpr int kStackOrder = 12;  // bit reversal through a stack copy up to 2^12 points

// Bit-reversed order: scattered into a stack copy (no data-dependent
// branches) and copied back, or swapped in place above 2^12 points.
void reorder(float* x, int order, const int* rev) noexcept {
    if (order < 3 || order > kStackOrder) {
        qx::fft::bit_reverse(x, order, rev);
        return;
    }
    const std::size_t n = points(order);
    std::uint64_t tmp[std::size_t{1} << kStackOrder];
    for (std::size_t i = 0; i < n; ++i)
        std::memcpy(&tmp[rev[i]], x + 2 * i, 8);
    std::memcpy(x, tmp, 8 * n);
}

// NaNs replaced by the one quiet NaN of the float transforms.
inline void settle_all(float* x, std::size_t count) noexcept {
    for (std::size_t i = 0; i < count; ++i) {
        std::uint32_t b;
        std::memcpy(&b, x + i, 4);
        b = qx::fft::settled(b);
        std::memcpy(x + i, &b, 4);
    }
}

#if QX_FFT_X86
// The AVX2 core of `order` (at least 4): the small orders' with every count
// known. With kWatch, true when a result is a NaN.
template <bool kWatch>
bool vector_core(float* x, int order, const float* w, const double* e, const int* rev) noexcept {
    using namespace qx::fft::avx2;
    if (order == 4)
        return small_core<4, kWatch>(x, e);
    if (order == 6)
        return small_core<6, kWatch>(x, e);
    return core<kWatch>(x, order, w, e, rev);
}
#endif

// Radix4<FloatOps>::run followed by the bit reversal, with the AVX2 stages
// where the processor has them; the last pass then writes bit-reversed, and
// with `settle` settles the NaNs of a forward transform. `w` comes from
// QXcGetFftTwdTbl (the widened copies may follow it). True when it settled.
// Inlined into each transform, and the vector cores called directly: the
// calls cost about 2% of a 64-point transform.
[[gnu::always_inline]] inline bool float_core(float* x, int order, const float* w, const int* rev, bool inverse,
                                              bool settle) noexcept {
    using Core = qx::fft::Radix4<FloatOps>;
    const std::size_t n = points(order);
    if (!use_avx2() || n <= 8) {
        Core::run(x, order, w, inverse);
        reorder(x, order, rev);
        return false;
    }
#if QX_FFT_X86
    if (inverse)
        FloatOps::conj(x, n);
    settle = settle && !inverse;  // the conjugation below would turn a settled NaN
    const double* e = stage_twiddles(w, order);
    // A NaN among the results (watched when settling).
    const bool nan = settle ? vector_core<true>(x, order, w, e, rev) : vector_core<false>(x, order, w, e, rev);
    if (inverse)  // conjugation commutes with the permutation
        FloatOps::conj(x, n);
    if (settle && nan)
        settle_all(x, 2 * n);
    return settle;
#else
    return false;
#endif
}

// The last pass of a float transform: NaNs settled (unless the vector kernels
// settled them), and with `scale` every value times f; a settled NaN stays
// one when scaled.
inline void finish_pass_body(float* x, std::size_t count, bool settle, bool scale, float f) noexcept {
    if (settle)
        settle_all(x, count);
    if (scale)
        for (std::size_t i = 0; i < count; ++i)
            x[i] *= f;
}
QX_AVX2_TWIN(finish_pass, (float* x, std::size_t count, bool settle, bool scale, float f), (x, count, settle, scale, f))

inline void finish(float* x, std::size_t count, bool settle, bool scale, float f) noexcept {
    if (settle || scale)
        finish_pass(x, count, settle, scale, f);
}

void complex_float(float* x, int order, const float* w, const int* rev, bool inverse, bool scale) noexcept {
    const bool settled = float_core(x, order, w, rev, inverse, true);
    finish(x, 2 * points(order), !settled, scale, 1.0f / static_cast<float>(points(order)));
}

void real_float(float* x, int order, const float* T, const float* wHalf, const int* revHalf, bool inverse,
                bool scale) noexcept {
    const std::size_t m = points(order - 1);
    if (order - 1 > 0) {
        float_core(x, order - 1, wHalf, revHalf, inverse, false);
    }
    std::size_t from = 1;
    bool settled = false;
#if QX_FFT_X86
    if (use_avx2()) {  // the vector split stores pairs below `from` settled
        from = qx::fft::avx2::real_split_avx2(x, m, T, !inverse);
        settled = true;
    }
#endif
    qx::fft::real_split<FloatOps>(x, m, T, !inverse, from);
    if (settled) {  // what the scalar split wrote: z[0], z[1] and the pairs from `from` on
        settle_all(x, 2);
        settle_all(x + 2 * from, 2 * m + 2 - 4 * from);
    }
    finish(x, 2 * m, !settled, scale, 1.0f / static_cast<float>(points(order)));
}

void packed_float(float* x, int order, const float* w, const float* wHalf, const int* revHalf, bool inverse,
                  bool scale) noexcept {
    const std::size_t m = points(order - 1);
    qx::fft::packed_unsplit<FloatOps>(x, m, w, !inverse);
    const bool settled = order - 1 > 0 && float_core(x, order - 1, wHalf, revHalf, inverse, true);
    finish(x, 2 * m, !settled, scale, 1.0f / static_cast<float>(points(order)));
}

// The cached table of `order` in `slots` when it is there, else get(order),
// which builds it or reports why not: a call on cached tables costs a load.
template <class T>
const T* table(void* const* slots, int order, T* (*get)(int)) {
    return slots[order] ? static_cast<const T*>(qx::align32(slots[order])) : get(order);
}

bool inverse_of(int flags) noexcept { return (flags & QX_INVERSE) != 0; }
bool scaled(int flags) noexcept { return (flags & QX_INVERSE) && !(flags & QX_NO_INVERSE_SCALING); }

}  // namespace

namespace qx::fft {

float* real_twiddles(int order) {
    constexpr qx::Report r{"QXcGetFftTwdTbl"};
    qx::fft::bad_order(r, order);
    if (qx::Report::failed())
        return nullptr;
    return qx::fft::cached_table<float>(r, qx::context()->rTwd, order, 8 * points(order), [order](float* t, const float* finer) {
        if (finer) {
            qx::fft::decimate(t, finer, order);
            return true;
        }
        calc_twiddles(t, order);
        for (std::size_t k = 0; k < points(order); ++k) {
            t[2 * k] = 0.5f * t[2 * k];
            t[2 * k + 1] = 0.5f * t[2 * k + 1] + 0.5f;
        }
        return true;
    });
}

}  // namespace qx::fft

extern "C" {

QX_API int QXCalcBitRevTbl(int* tbl, int order) {
    constexpr qx::Report r{"QXCalcBitRevTbl"};
    qx::fft::bad_order(r, order);
    r.check(tbl == nullptr, "tbl==0");
    if (qx::Report::failed())
        return QXGetStatus();
    calc_bit_reversal(tbl, order);
    return static_cast<int>(points(order) - 1);
}

QX_API int* QXGetBitRevTbl(int order) {
    constexpr qx::Report r{"QXGetBitRevTbl"};
    qx::fft::bad_order(r, order);
    if (qx::Report::failed())
        return nullptr;
    return qx::fft::cached_table<int>(r, qx::context()->bitRev, order, 4 * points(order), [order](int* t, const int*) {
        calc_bit_reversal(t, order);
        return true;
    });
}

QX_API int QXcbBitRev1(float* vec, int order) {
    constexpr qx::Report r{"QXcbBitRev1"};
    qx::fft::bad_order(r, order);
    r.check(vec == nullptr, "vec==0");
    if (qx::Report::failed())
        return QXGetStatus();
    const int* rev = order >= 3 ? QXGetBitRevTbl(order) : nullptr;
    if (qx::Report::failed())
        return QXGetStatus();
    reorder(vec, order, rev);
    return 0;
}

QX_API void QXcCalcFftTwdTbl(float* tbl, int order) {
    constexpr qx::Report r{"QXcCalcFftTwdTbl"};
    qx::fft::bad_order(r, order);
    r.check(tbl == nullptr, "tbl==0");
    if (qx::Report::failed())
        return;
    calc_twiddles(tbl, order);
}

QX_API void QXcDecFftTwdTbl(float* tbl1, const float* tbl2, int order) {
    constexpr qx::Report r{"QXcDecFftTwdTbl"};
    qx::fft::bad_order(r, order);
    r.check(tbl1 == nullptr, "tbl1==0");
    r.check(tbl2 == nullptr, "tbl2==0");
    if (qx::Report::failed())
        return;
    qx::fft::decimate(tbl1, tbl2, order);
}

QX_API float* QXcGetFftTwdTbl(int order) {
    constexpr qx::Report r{"QXcGetFftTwdTbl"};
    qx::fft::bad_order(r, order);
    if (qx::Report::failed())
        return nullptr;
    const std::size_t bytes = 8 * points(order) + 8 * stage_doubles(order);
    return qx::fft::cached_table<float>(r, qx::context()->cTwd, order, bytes, [order](float* t, const float* finer) {
        if (finer)
            qx::fft::decimate(t, finer, order);
        else
            calc_twiddles(t, order);
        fill_stages(reinterpret_cast<double*>(t + 2 * points(order)), t, order);
        return true;
    });
}

QX_API void QXFreeFftTbls(void) {
    qx::Context& c = *qx::context();
    for (void** set : {c.bitRev, c.cTwd, c.rTwd, c.wTwd, c.second})
        for (int k = 0; k < 32; ++k) {
            qx::free(set[k]);
            set[k] = nullptr;
        }
    c.Fft.iBufferCap = 0;
    c.Fft.sBufferCap = 0;
    qx::free(c.Fft.iBuffer);
    qx::free(c.Fft.sBuffer);
    c.Fft.iBuffer = nullptr;
    c.Fft.sBuffer = nullptr;
}

QX_API void QXcFft(float* samps, int order, int flags) {
    constexpr qx::Report r{"QXcFft"};
    qx::fft::bad_order(r, order);
    r.check(samps == nullptr, "samps==0");
    if (qx::Report::failed() || order == 0)
        return;
    const qx::Context& c = *qx::context();
    const float* w = table(c.cTwd, order, QXcGetFftTwdTbl);
    const int* rev = order >= 3 ? table(c.bitRev, order, QXGetBitRevTbl) : nullptr;
    if (w == nullptr || (order >= 3 && rev == nullptr)) {  // a getter reported why
        r.raise(QX_StsBackTrace, "Bad Ptr");
        return;
    }
    if (qx::fft::bad_direction(r, flags))
        return;
    complex_float(samps, order, w, rev, inverse_of(flags), scaled(flags));
}

QX_API int QXcFftNip(const float* inSamps, float* outSamps, int order, int flags) {
    constexpr qx::Report r{"QXcFftNip"};
    return qx::fft::not_in_place<true>(r, inSamps, outSamps, order, 2, "out QXcFft",
                                       [&](float* out) { QXcFft(out, order, flags); });
}

QX_API void QXsRealFft(float* samps, int order, int flags) {
    constexpr qx::Report r{"QXsRealFft"};
    qx::fft::bad_order(r, order);
    r.check(samps == nullptr, "samps==0");
    if (qx::Report::failed() || order == 0)
        return;
    const qx::Context& c = *qx::context();
    const float* T = table(c.rTwd, order, qx::fft::real_twiddles);
    const float* wHalf = table(c.cTwd, order - 1, QXcGetFftTwdTbl);
    const int* revHalf = order - 1 >= 3 ? table(c.bitRev, order - 1, QXGetBitRevTbl) : nullptr;
    if (T == nullptr || wHalf == nullptr || (order - 1 >= 3 && revHalf == nullptr)) {  // a getter reported why
        r.raise(QX_StsBackTrace, "Bad Ptr");
        return;
    }
    if (qx::fft::bad_direction(r, flags))
        return;
    real_float(samps, order, T, wHalf, revHalf, inverse_of(flags), scaled(flags));
}

QX_API int QXsRealFftNip(const float* inSamps, float* outSamps, int order, int flags) {
    constexpr qx::Report r{"QXsRealFftNip"};
    return qx::fft::not_in_place<false>(r, inSamps, outSamps, order, 1, "out QXsRealFftl",
                                       [&](float* out) { QXsRealFft(out, order, flags); });
}

QX_API void QXsCcsFft(float* samps, int order, int flags) {
    constexpr qx::Report r{"QXsCcsFft"};
    qx::fft::bad_order(r, order);
    r.check(samps == nullptr, "samps==0");
    if (qx::Report::failed() || order == 0)
        return;
    const qx::Context& c = *qx::context();
    const float* w = table(c.cTwd, order, QXcGetFftTwdTbl);
    const float* wHalf = table(c.cTwd, order - 1, QXcGetFftTwdTbl);
    const int* revHalf = order - 1 >= 3 ? table(c.bitRev, order - 1, QXGetBitRevTbl) : nullptr;
    if (w == nullptr || wHalf == nullptr || (order - 1 >= 3 && revHalf == nullptr)) {  // a getter reported why
        r.raise(QX_StsBackTrace, "Bad Ptr");
        return;
    }
    if (qx::fft::bad_direction(r, flags))
        return;
    packed_float(samps, order, w, wHalf, revHalf, inverse_of(flags), scaled(flags));
}

QX_API int QXsCcsFftNip(const float* inSamps, float* outSamps, int order, int flags) {
    constexpr qx::Report r{"QXsCcsFftNip"};
    return qx::fft::not_in_place<false>(r, inSamps, outSamps, order, 1, "out QXsCcsFft",
                                       [&](float* out) { QXsCcsFft(out, order, flags); });
}

}  // extern "C"
