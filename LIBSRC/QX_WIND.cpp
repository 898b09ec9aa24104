// Frame conditioning before spectral analysis: first-order pre-emphasis and the
// four tapering windows (Hamming, Hanning, Bartlett, Blackman) for float and
// short frames.
//
// Each window kind keeps, in the working context, a cache of up to 16
// coefficient tables (one per frame length). The slot used last (the cursor)
// is tried before any search; a seventeenth distinct length empties the whole
// cache of that kind and starts again at slot 0. Short frames go through the
// float window via a per-kind conversion buffer `buff` that only grows.
#include <cmath>
#include <cstdint>

#include "kvxpx.h"
#include "qx_alloc.h"
#include "qx_context.h"
#include "qx_cpu.h"
#include "qx_report.h"

namespace {

using qx::WinCache;
using qx::WinKind;

constexpr qx::Report kFloatName[4] = {qx::Report{"QXsWinHamming"}, qx::Report{"QXsWinHanning"},
                                      qx::Report{"QXsWinBartlett"}, qx::Report{"QXsWinBlackman"}};
constexpr qx::Report kShortName[4] = {qx::Report{"QXwWinHamming"}, qx::Report{"QXwWinHanning"},
                                      qx::Report{"QXwWinBartlett"}, qx::Report{"QXwWinBlackman"}};

// The coefficient formulas. They run in extended precision with the decimal
// constants as written (6.2831853 is that literal, not a closer 2*pi), and the
// result is rounded once to float.
void fill_coefficients(WinKind kind, float* c, int n) noexcept {
    using ld = long double;
    const ld twoPi = static_cast<ld>(6.2831853);
    switch (kind) {
    case qx::kHamming: {
        const ld a = twoPi / static_cast<ld>(n - 1);
        for (int i = 0; i < n; ++i)
            c[i] = static_cast<float>(static_cast<ld>(0.54) - static_cast<ld>(0.46) * std::cos(i * a));
        break;
    }
    case qx::kHanning: {
        // n+1 in the denominator and i+1 in the argument: neither end is zero.
        const ld a = twoPi / static_cast<ld>(n + 1);
        for (int i = 0; i < n; ++i)
            c[i] = static_cast<float>(static_cast<ld>(0.5) - static_cast<ld>(0.5) * std::cos((i + 1) * a));
        break;
    }
    case qx::kBartlett: {
        // Rising then falling ramp of float products; the peak index is the
        // integer half of n-1.
        const float d = 2.0f / static_cast<float>(n - 1);
        const int h = (n - 1) / 2;
        for (int i = 0; i < n; ++i) {
            const float p = static_cast<float>(i) * d;
            c[i] = i <= h ? p : 2.0f - p;
        }
        break;
    }
    case qx::kBlackman: {
        const ld a = twoPi / static_cast<ld>(n - 1);
        for (int i = 0; i < n; ++i)
            c[i] = static_cast<float>(static_cast<ld>(0.42) - static_cast<ld>(0.5) * std::cos(i * a) +
                                      static_cast<ld>(0.08) * std::cos(2.0L * i * a));
        break;
    }
    }
}

void release_cache(WinCache& cache) noexcept {
    for (int k = 0; k < cache.count && k < 16; ++k) {
        qx::free(cache.tables[k]);
        cache.tables[k] = nullptr;
        cache.lengths[k] = 0;
    }
    cache.count = 0;
    cache.cursor = 0;
}

// The float window of one kind, reported under that kind's float name.
void float_window(WinKind kind, float* vect, int n) noexcept {
    const qx::Report& r = kFloatName[kind];
    r.checks(n, {{vect, "vect==0"}});
    if (qx::Report::failed())
        return;

    WinCache& cache = qx::context()->win[kind].sCache;
    const float* table = nullptr;
    if (cache.lengths[cache.cursor] == n && cache.tables[cache.cursor] != nullptr) {
        table = static_cast<const float*>(cache.tables[cache.cursor]);
    } else {
        if (n < 2)
            return;  // a one-sample window is the identity; nothing is cached
        for (int k = 0; k < cache.count; ++k) {
            if (cache.lengths[k] == n) {
                cache.cursor = k;
                table = static_cast<const float*>(cache.tables[k]);
                break;
            }
        }
        if (table == nullptr) {
            if (cache.count >= 16)
                release_cache(cache);
            float* fresh = qx::alloc_n<float>(static_cast<std::size_t>(n));
            if (fresh == nullptr) {
                r.raise(QX_StsNoMem, "insufficiency of memory for pointer  sCoeff");
                return;
            }
            const int slot = cache.count;
            cache.lengths[slot] = n;
            cache.tables[slot] = fresh;
            cache.cursor = slot;
            cache.count = slot + 1;
            fill_coefficients(kind, fresh, n);
            table = fresh;
        }
    }
    QXsbMpy2(table, vect, n);
}

// The short window: shorts up into `buff`, the float window, then down with the
// caller's scaling.
void short_window(WinKind kind, short* vect, int n, int doScale, int* scaleFactor) noexcept {
    const qx::Report& r = kShortName[kind];
    r.scaling(doScale, scaleFactor);
    r.checks(n, {{vect, "vect==0"}});
    if (qx::Report::failed())
        return;

    qx::WinBlock& block = qx::context()->win[kind];
    if (block.buffCap < n) {
        qx::free(block.buff);
        block.buff = nullptr;
        block.buffCap = 0;
        block.buff = qx::alloc_n<float>(static_cast<std::size_t>(n));
        if (block.buff == nullptr) {
            r.raise(QX_StsNoMem, "insufficiency of memory for pointer  buff");
            return;
        }
        block.buffCap = n;
    }
    QXwsbConvertUp(vect, block.buff, n, 0);
    float_window(kind, block.buff, n);
    if (qx::Report::failed())
        return;
    QXswbConvertDown(block.buff, vect, n, doScale, scaleFactor);
}

void release_short(WinKind kind) noexcept {
    qx::WinBlock& block = qx::context()->win[kind];
    release_cache(block.wCache);
    if (block.buff != nullptr) {
        qx::free(block.buff);
        block.buff = nullptr;
    }
    block.buffCap = 0;
    release_cache(block.sCache);
}

// x - coefficient * previous in double, truncated toward zero to 64 bits and
// kept to its low 16 bits. Values outside the 64-bit range (and NaN) give the
// processor's "integer indefinite" pattern, whose low 16 bits are 0.
short truncate_low16(double d) noexcept {
    std::int64_t v = 0;
    if (d > -9223372036854775808.0 && d < 9223372036854775808.0)
        v = static_cast<std::int64_t>(d);
    return static_cast<short>(static_cast<std::uint16_t>(static_cast<std::uint64_t>(v) & 0xFFFFu));
}

// y[i] = x[i] - c x[i-1] in double, rounded to float, in place. Blocks of 64
// inputs are copied out, behind the last input of the block before, so that
// the block's products run as one vector loop and every x[i-1] is read before
// it is overwritten.
[[gnu::always_inline]] inline void preemphasize_float_body(float* vect, double c, int n) noexcept {
    constexpr int kBlock = 64;
    float x[kBlock + 1];
    x[kBlock] = vect[0];
    for (int i = 1; i < n; i += kBlock) {
        const int len = n - i < kBlock ? n - i : kBlock;
        x[0] = x[kBlock];  // the previous input
        for (int t = 0; t < len; ++t)
            x[t + 1] = vect[i + t];
        for (int t = 0; t < len; ++t)
            vect[i + t] = static_cast<float>(static_cast<double>(x[t + 1]) - c * static_cast<double>(x[t]));
        x[kBlock] = x[len];
    }
}

// The loop above, compiled plainly and for AVX2 (chosen at run time).
QX_AVX2_TWIN(preemphasize_float, (float* vect, double c, int n), (vect, c, n))

}  // namespace

extern "C" {

QX_API int QXsPreemphasize(float* vect, float coefficient, int n) {
    constexpr qx::Report r{"QXsPreemphasize"};
    r.checks(n, {{vect, "vect==0"}});
    if (qx::Report::failed() || n == 1)
        return QXGetStatus();
    preemphasize_float(vect, static_cast<double>(coefficient), n);
    return QXGetStatus();
}

QX_API int QXwPreemphasize(short* vect, float coefficient, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXwPreemphasize"};
    r.scaling(doScale, scaleFactor);
    r.checks(n, {{vect, "vect==0"}});
    if (qx::Report::failed())
        return QXGetStatus();

    if (doScale == 0) {
        const double c = coefficient;
        for (int i = n - 1; i >= 1; --i)
            vect[i] = truncate_low16(static_cast<double>(vect[i]) - c * static_cast<double>(vect[i - 1]));
        *scaleFactor = 0;
        return QXGetStatus();
    }

    qx::Context* ctx = qx::context();
    if (ctx->preemphCap < n) {
        qx::free(ctx->preemphBuf);
        ctx->preemphBuf = nullptr;
        ctx->preemphCap = 0;
        ctx->preemphBuf = qx::alloc_n<float>(static_cast<std::size_t>(n));
        if (ctx->preemphBuf == nullptr)
            return r.raise(QX_StsNoMem, "insufficiency of memory for pointer  buff");
        ctx->preemphCap = n;
    }
    QXwsbConvertUp(vect, ctx->preemphBuf, n, 0);
    QXsPreemphasize(ctx->preemphBuf, coefficient, n);
    QXswbConvertDown(ctx->preemphBuf, vect, n, doScale, scaleFactor);
    return QXGetStatus();
}

QX_API void QXFreePreemphasizeTbls(void) {
    qx::Context* ctx = qx::context();
    if (ctx->preemphBuf != nullptr) {
        qx::free(ctx->preemphBuf);
        ctx->preemphBuf = nullptr;
        ctx->preemphCap = 0;
    }
}

QX_API void QXsWinHamming(float* vect, int n) { float_window(qx::kHamming, vect, n); }
QX_API void QXsWinHanning(float* vect, int n) { float_window(qx::kHanning, vect, n); }
QX_API void QXsWinBartlett(float* vect, int n) { float_window(qx::kBartlett, vect, n); }
QX_API void QXsWinBlackman(float* vect, int n) { float_window(qx::kBlackman, vect, n); }

QX_API void QXwWinHamming(short* vect, int n, int doScale, int* scaleFactor) {
    short_window(qx::kHamming, vect, n, doScale, scaleFactor);
}
QX_API void QXwWinHanning(short* vect, int n, int doScale, int* scaleFactor) {
    short_window(qx::kHanning, vect, n, doScale, scaleFactor);
}
QX_API void QXwWinBartlett(short* vect, int n, int doScale, int* scaleFactor) {
    short_window(qx::kBartlett, vect, n, doScale, scaleFactor);
}
QX_API void QXwWinBlackman(short* vect, int n, int doScale, int* scaleFactor) {
    short_window(qx::kBlackman, vect, n, doScale, scaleFactor);
}

QX_API void QXsFreeWinHammingTbls(void) { release_cache(qx::context()->win[qx::kHamming].sCache); }
QX_API void QXsFreeWinHanningTbls(void) { release_cache(qx::context()->win[qx::kHanning].sCache); }
QX_API void QXsFreeWinBartlettTbls(void) { release_cache(qx::context()->win[qx::kBartlett].sCache); }
QX_API void QXsFreeWinBlackmanTbls(void) { release_cache(qx::context()->win[qx::kBlackman].sCache); }

QX_API void QXwFreeWinHammingTbls(void) { release_short(qx::kHamming); }
QX_API void QXwFreeWinHanningTbls(void) { release_short(qx::kHanning); }
QX_API void QXwFreeWinBartlettTbls(void) { release_short(qx::kBartlett); }
QX_API void QXwFreeWinBlackmanTbls(void) { release_short(qx::kBlackman); }

}  // extern "C"
