// Mel-frequency cepstrum: filter banks of triangular bands on the mel scale
// (optionally led by linearly spaced bands), the log-magnitude band sums of a
// frame and the cosine transform into cepstral coefficients.
//
// A filter bank is a table with one 40-byte entry per spectrum point j of
// n = 2^order points: up to two (band, weight) pairs for the triangles that
// cover the frequency j * samplingFreq / (2 (n - 1)). The frame's spectrum is
// reduced to m = n/2 + 1 log-magnitude bins; points j >= m read bin n - j.
//
// Scratch buffers live in the working context and follow the bank used last
// (float and short buffers separately); the cosine factors follow the last
// (n, nCoefficients, c0, c1).
#include "qx_ceps.h"

#include <cmath>
#include <cstdint>

#include "kvxpx.h"
#include "qx_alloc.h"
#include "qx_context.h"
#include "qx_cpu.h"
#include "qx_report.h"

namespace {

constexpr double kInv700 = 1.0 / 700.0;
constexpr double kInv2595 = 1.0 / 2595.0;

int g_nextId = 0;          // identifier of the next filter bank
int g_floatId = -1;        // bank the float scratch (filterOutput, fftOut) is sized for
int g_shortId = -1;        // bank the short scratch (tempVect, tempCeps) is sized for
int g_tempCepsCap = 0;     // tempCeps capacity in floats (grows with nCeps)

// Band edges in hertz, three per band: left, centre, right.
struct Edges {
    double left, centre, right;
};

// Mel bands b = first..nBand-1 with bottom `melLow` and the given step; band
// first sits at melLow.
void mel_bands(Edges* e, int first, int nBand, double melLow, double step) noexcept {
    for (int b = first; b < nBand; ++b) {
        const double x = melLow + static_cast<double>(b - first) * step / 2;
        e[b].left = qx::mel_to_hz(x);
        e[b].centre = qx::mel_to_hz(x + step / 2);
        e[b].right = qx::mel_to_hz(x + step);
    }
}

void band_edges(Edges* e, int nBand, int startFreq, int endFreq, int linear, int nLinear, int linearEnd) noexcept {
    if (linear == 0 || nLinear < 1 || linearEnd <= startFreq) {
        const double m0 = qx::mel(startFreq);
        const double step = (qx::mel(endFreq) - m0) / (nBand * 0.5 + 0.5);
        mel_bands(e, 0, nBand, m0, step);
        return;
    }
    // Linear bands of width w overlapping by half up to linearEnd, then mel
    // bands from mel(linearEnd); the junction band joins the two.
    const int L = nLinear;
    const double w = 2.0 * (linearEnd - startFreq) / L;
    double x = startFreq;
    for (int b = 0; b < L - 1 && b < nBand; ++b) {
        e[b] = Edges{x, x + w / 2, x + w};
        x += w / 2;
    }
    const double mE = qx::mel(linearEnd);
    const double step = (qx::mel(endFreq) - mE) / ((nBand - L) * 0.5 + 0.5);
    if (L - 1 < nBand) {
        Edges& j = e[L - 1];
        j.left = x;
        j.right = qx::mel_to_hz(qx::mel(x + w / 2) + step / 2);
        j.centre = (j.left + j.right) / 2;
    }
    if (L < nBand)
        mel_bands(e, L, nBand, mE, step);
}

// Assigns each spectrum point to the bands that contain its frequency. A point
// keeps at most two pairs, the first two bands in band order. A third band can
// only reach a point that lies on the right edge of band b and the left edge of
// band b+2 at once; there both of those weights are zero, and band b+1 (the one
// with a real weight) is always among the first two.
void assign_points(QXMFCCFilters* f, const Edges* e, int samplingFreq) noexcept {
    const int n = f->n;
    const double span = 2.0 * (n - 1);
    f->firstPoint = -1;
    f->lastPoint = -1;
    for (int j = 0; j < n; ++j) {
        const double freq = static_cast<double>(j) * samplingFreq / span;
        QXMFCCPoint& p = f->fftSpec[j];
        for (int b = 0; b < f->nBandPass; ++b) {
            if (freq < e[b].left || freq > e[b].right)
                continue;
            if (p.count < 2) {
                const double weight = freq > e[b].centre ? (freq - e[b].right) / (e[b].centre - e[b].right)
                                                         : (freq - e[b].left) / (e[b].centre - e[b].left);
                p.entry[p.count].band = static_cast<unsigned char>(b & 0xFF);
                p.entry[p.count].weight = weight;
                ++p.count;
            }
            if (f->firstPoint < 0)
                f->firstPoint = j;
            f->lastPoint = j;
        }
    }
}

// The log-magnitude spectrum of a real frame: the packed transform in `bins`
// (n floats, room for n + 2) becomes m = n/2 + 1 values 0.5 log10(re^2 + im^2)
// at bins[0..m-1]. Bins go in blocks of 64: a block's powers are all read
// before its results are written over the lower part of the buffer, and later
// blocks read only above that. Zero, subnormal, infinite or NaN powers take
// the library log10. The AVX2 twin runs the same operations four lanes wide;
// FMA is deliberately left out so that both twins round exactly alike.
[[gnu::always_inline]] inline void log_magnitude_body(float* bins, int n) noexcept {
    constexpr int kBlock = 64;
    const int m = n / 2 + 1;
    bins[2 * (m - 1)] = bins[1];
    bins[2 * (m - 1) + 1] = 0.0f;
    bins[1] = 0.0f;
    for (int k0 = 0; k0 < m; k0 += kBlock) {
        const int len = m - k0 < kBlock ? m - k0 : kBlock;
        const float* in = bins + 2 * k0;
        double p[kBlock];
        float out[kBlock];
        for (int i = 0; i < len; ++i) {
            const double re = in[2 * i], im = in[2 * i + 1];
            p[i] = re * re + im * im;
        }
        for (int i = 0; i < len; ++i)
            out[i] = static_cast<float>(qx::half_log10_normal(p[i]));
        std::uint64_t special = 0;
        for (int i = 0; i < len; ++i)
            special |= (std::bit_cast<std::uint64_t>(p[i]) >> 52) - 1u >= 2046u;
        if (special) [[unlikely]]
            for (int i = 0; i < len; ++i)
                if (!qx::is_normal_positive(p[i]))
                    out[i] = static_cast<float>(0.5 * std::log10(p[i]));
        for (int i = 0; i < len; ++i)
            bins[k0 + i] = out[i];
    }
}

// The loop above, compiled plainly and for AVX2 (chosen at run time).
QX_AVX2_TWIN(log_magnitude, (float* bins, int n), (bins, n))

// Band sums of the log spectrum s (m bins, mirrored beyond n/2): for each
// point in order and each of its pairs, out[band] += weight * s. A point's
// bands are neighbours, so one even and one odd band are being summed at any
// time; each is kept in a register. A band that leaves its register is written
// back and, if met again, continues from memory, so every band still adds its
// terms one at a time in point order.
struct RunningSum {
    int band = -1;
    double sum = 0.0;
    void add(int b, double t, double* out) noexcept {
        if (b != band) [[unlikely]] {
            if (band >= 0)
                out[band] = sum;
            band = b;
            sum = out[b];
        }
        sum += t;
    }
    void flush(double* out) const noexcept {
        if (band >= 0)
            out[band] = sum;
    }
};

void add_point(const QXMFCCPoint& p, double v, RunningSum& even, RunningSum& odd, double* out) noexcept {
    for (int e = 0; e < p.count; ++e) {
        const int b = p.entry[e].band;
        const double t = p.entry[e].weight * v;
        if (b & 1)
            odd.add(b, t, out);
        else
            even.add(b, t, out);
    }
}

void band_sums(const QXMFCCFilters* f, const float* s, double* out) noexcept {
    for (int b = 0; b < f->nBandPass; ++b)
        out[b] = 0.0;
    if (f->firstPoint < 0)
        return;
    const int n = f->n, m = n / 2 + 1;
    RunningSum even, odd;
    const int last = f->lastPoint;
    int j = f->firstPoint;
    for (; j <= last && j < m; ++j)
        add_point(f->fftSpec[j], s[j], even, odd, out);
    for (; j <= last; ++j)  // mirrored bins
        add_point(f->fftSpec[j], s[n - j], even, odd, out);
    even.flush(out);
    odd.flush(out);
}

void release_float_scratch(qx::Context* ctx) noexcept {
    qx::free(ctx->Ceps.filterOutput);
    qx::free(ctx->Ceps.fftOut);
    ctx->Ceps.filterOutput = nullptr;
    ctx->Ceps.fftOut = nullptr;
    g_floatId = -1;
}

void release_short_scratch(qx::Context* ctx) noexcept {
    qx::free(ctx->Ceps.tempVect);
    qx::free(ctx->Ceps.tempCeps);
    ctx->Ceps.tempVect = nullptr;
    ctx->Ceps.tempCeps = nullptr;
    g_tempCepsCap = 0;
    g_shortId = -1;
}

void release_dct(qx::Context* ctx) noexcept {
    if (ctx->Dct.n > 0 || ctx->Dct.sstoredDctFactor != nullptr) {
        qx::free(ctx->Dct.sstoredDctFactor);
        ctx->Dct.sstoredDctFactor = nullptr;
        ctx->Dct.n = 0;
    }
}

// Cosine factors F[k][i] = c1 cos(k (i + 1/2) a) for k >= 1, by angle addition:
// the row's start angle k a/2 and step k a advance with k, the columns with the
// step.
void fill_dct(double* t, int n, int nCoef, double c0, double c1) noexcept {
    const double a = 3.14159265 / n;
    const double ca = std::cos(a), sa = std::sin(a);
    const double ch = std::cos(a / 2), sh = std::sin(a / 2);
    for (int i = 0; i < n; ++i)
        t[i] = c0;
    double cStep = 1.0, sStep = 0.0;    // cos, sin of k a
    double cStart = 1.0, sStart = 0.0;  // cos, sin of k a / 2
    for (int k = 1; k < nCoef; ++k) {
        const double cs = cStep * ca - sStep * sa;
        sStep = sStep * ca + cStep * sa;
        cStep = cs;
        const double c2 = cStart * ch - sStart * sh;
        sStart = sStart * ch + cStart * sh;
        cStart = c2;
        double c = cStart, s = sStart;
        double* row = t + static_cast<std::size_t>(k) * n;
        for (int i = 0; i < n; ++i) {
            row[i] = c1 * c;
            const double cn = c * cStep - s * sStep;
            s = s * cStep + c * sStep;
            c = cn;
        }
    }
}

// The checks of both Init forms, in their order; true when the call must end.
bool init_checks(const qx::Report& r, int order, int nBandPass, int startFreq, int endFreq, int samplingFreq) noexcept {
    r.check(order <= 0, "order<=0");
    r.check(nBandPass <= 0, "nBandPass<=0");
    r.check(startFreq < 0, "startFreq < 0");
    r.check(endFreq <= 0, "endFreq<=0");
    r.check(startFreq >= endFreq, "startFreq >= endFreq");
    r.check(samplingFreq <= 0, "samplingFreq<=0");
    return qx::Report::failed();
}

// The checks of both transforms after the scaling, in their order; true when
// the call must end.
bool transform_checks(const qx::Report& r, int nCeps, const void* vect, const void* ceps,
                      const QXMFCCFilters* filters) noexcept {
    r.check(nCeps <= 0, "nCeps<=0");
    r.check(vect == nullptr, "vect==0");
    r.check(ceps == nullptr, "ceps==0");
    r.check(filters == nullptr, "filters==0");
    return qx::Report::failed();
}

}  // namespace

namespace qx {

double mel(double hz) noexcept { return 2595.0 * std::log10(1.0 + hz * kInv700); }
double mel_to_hz(double m) noexcept { return 700.0 * (std::pow(10.0, m * kInv2595) - 1.0); }

int owns_dct(const double* inVect, int n, float* outVect, int nCoefficients, double c0, double c1) noexcept {
    constexpr qx::Report r{"OwnsDct"};
    r.check(n <= 0, "n<=0");
    r.check(nCoefficients <= 0, "nCoefficients<=0");
    r.check(inVect == nullptr, "inVect==0");
    r.check(outVect == nullptr, "outVect==0");
    if (qx::Report::failed())
        return QXGetStatus();

    Context* ctx = context();
    auto& dct = ctx->Dct;
    if (dct.sstoredDctFactor == nullptr || dct.n != n || dct.nCoefficients != nCoefficients || dct.c0 != c0 ||
        dct.c1 != c1) {
        release_dct(ctx);
        dct.nCoefficients = nCoefficients;
        dct.c0 = c0;
        dct.c1 = c1;
        dct.sstoredDctFactor =
            alloc_n<double>(static_cast<std::size_t>(nCoefficients) * static_cast<std::size_t>(n));
        if (dct.sstoredDctFactor == nullptr)
            return r.raise(QX_StsNoMem, "insufficiency of memory for pointer  pQXcontext->Dct.sstoredDctFactor");
        dct.n = n;
        fill_dct(dct.sstoredDctFactor, n, nCoefficients, c0, c1);
    }
    const double* row = dct.sstoredDctFactor;
    for (int k = 0; k < nCoefficients; ++k, row += n) {
        double sum = 0.0;
        for (int i = 0; i < n; ++i)
            sum += row[i] * inVect[i];
        outVect[k] = static_cast<float>(sum);
    }
    return QXGetStatus();
}

}  // namespace qx

extern "C" {

QX_API QXMFCCFilters* QXsMFCCInit(int order, int nBandPass, int startFreq, int endFreq, int samplingFreq, int linear,
                                  int nLinearBands, int linearEndFreq) {
    constexpr qx::Report r{"QXsMFCCInit"};
    if (init_checks(r, order, nBandPass, startFreq, endFreq, samplingFreq))
        return nullptr;

    auto* filters = qx::calloc_n<QXMFCCFilters>(1);
    if (filters == nullptr) {
        r.raise(QX_StsNoMem, "insufficiency of memory for pointer  filters");
        return nullptr;
    }
    filters->id = g_nextId;
    g_nextId = g_nextId == INT32_MAX ? 0 : g_nextId + 1;
    auto* edges = qx::alloc_n<Edges>(static_cast<std::size_t>(nBandPass));
    if (edges == nullptr) {
        qx::free(filters);
        r.raise(QX_StsNoMem, "insufficiency of memory for pointer  tempFilter");
        return nullptr;
    }
    // A table of 2^31 or more points cannot be addressed by the record.
    filters->fftSpec = order <= 30 ? qx::calloc_n<QXMFCCPoint>(std::size_t{1} << order) : nullptr;
    if (filters->fftSpec == nullptr) {
        qx::free(edges);
        qx::free(filters);
        r.raise(QX_StsNoMem, "insufficiency of memory for pointer  filters->fftSpec");
        return nullptr;
    }
    filters->order = order;
    filters->n = 1 << order;
    filters->nBandPass = nBandPass;
    band_edges(edges, nBandPass, startFreq, endFreq, linear, nLinearBands, linearEndFreq);
    assign_points(filters, edges, samplingFreq);
    qx::free(edges);
    return filters;
}

QX_API QXMFCCFilters* QXwMFCCInit(int order, int nBandPass, int startFreq, int endFreq, int samplingFreq, int linear,
                                  int nLinearBands, int linearEndFreq) {
    constexpr qx::Report r{"QXwMFCCInit"};
    if (init_checks(r, order, nBandPass, startFreq, endFreq, samplingFreq))
        return nullptr;
    return QXsMFCCInit(order, nBandPass, startFreq, endFreq, samplingFreq, linear, nLinearBands, linearEndFreq);
}

QX_API void QXsCepstralMFCC(int doTransform, const float* vect, QXMFCCFilters* filters, float* ceps, int nCeps) {
    constexpr qx::Report r{"QXsCepstralMFCC"};
    if (transform_checks(r, nCeps, vect, ceps, filters))
        return;

    qx::Context* ctx = qx::context();
    const int n = filters->n, m = n / 2 + 1;
    if (filters->id != g_floatId) {
        release_float_scratch(ctx);
        ctx->Ceps.filterOutput = qx::alloc_n<double>(static_cast<std::size_t>(filters->nBandPass));
        if (ctx->Ceps.filterOutput == nullptr) {
            r.raise(QX_StsNoMem, "insufficiency of memory for pointer  pQXcontext->Ceps.filterOutput");
            return;
        }
        ctx->Ceps.fftOut = qx::alloc_n<float>(2 * static_cast<std::size_t>(m));
        if (ctx->Ceps.fftOut == nullptr) {
            release_float_scratch(ctx);
            r.raise(QX_StsNoMem, "insufficiency of memory for pointer  pQXcontext->Ceps.fftOut");
            return;
        }
        g_floatId = filters->id;
    }

    const float* spectrum = vect;
    if (doTransform) {
        QXsRealFftNip(vect, ctx->Ceps.fftOut, filters->order, QX_FORWARD);
        if (qx::Report::failed()) {
            r.raise(QX_StsBackTrace, qx::current_message());
            return;
        }
        log_magnitude(ctx->Ceps.fftOut, n);
        spectrum = ctx->Ceps.fftOut;
    }
    band_sums(filters, spectrum, ctx->Ceps.filterOutput);
    qx::owns_dct(ctx->Ceps.filterOutput, filters->nBandPass, ceps, nCeps, 2.0, 2.0);
    if (qx::Report::failed())
        r.raise(QX_StsBackTrace, qx::current_message());
}

QX_API void QXwCepstralMFCC(int doTransform, const short* vect, QXMFCCFilters* filters, short* ceps, int nCeps,
                            int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXwCepstralMFCC"};
    r.scaling(doScale, scaleFactor);
    if (transform_checks(r, nCeps, vect, ceps, filters))
        return;

    qx::Context* ctx = qx::context();
    const int n = filters->n;
    // tempCeps also grows when a later call asks for more coefficients of the
    // same bank, so that it always holds nCeps floats.
    if (filters->id != g_shortId || nCeps > g_tempCepsCap) {
        release_short_scratch(ctx);
        ctx->Ceps.tempVect = qx::alloc_n<float>(static_cast<std::size_t>(n));
        if (ctx->Ceps.tempVect == nullptr) {
            r.raise(QX_StsNoMem, "insufficiency of memory for pointer  pQXcontext->Ceps.tempVect");
            return;
        }
        ctx->Ceps.tempCeps = qx::alloc_n<float>(static_cast<std::size_t>(nCeps));
        if (ctx->Ceps.tempCeps == nullptr) {
            release_short_scratch(ctx);
            r.raise(QX_StsNoMem, "insufficiency of memory for pointer  pQXcontext->Ceps.tempCeps");
            return;
        }
        g_tempCepsCap = nCeps;
        g_shortId = filters->id;
    }
    QXwsbConvertUp(vect, ctx->Ceps.tempVect, n, 0);
    QXsCepstralMFCC(doTransform, ctx->Ceps.tempVect, filters, ctx->Ceps.tempCeps, nCeps);
    if (qx::Report::failed())
        return;
    QXswbConvertDown(ctx->Ceps.tempCeps, ceps, nCeps, doScale, scaleFactor);
}

QX_API void QXsFreeMFCCFilters(QXMFCCFilters* filters) {
    constexpr qx::Report r{"QXsFreeMFCCFilters"};
    r.check(filters == nullptr, "filters==0");
    if (qx::Report::failed())
        return;
    qx::Context* ctx = qx::context();
    release_dct(ctx);
    if (filters->id == g_floatId)
        release_float_scratch(ctx);
    qx::free(filters->fftSpec);
    qx::free(filters);
}

QX_API void QXwFreeMFCCFilters(QXMFCCFilters* filters) {
    constexpr qx::Report r{"QXwFreeMFCCFilters"};
    r.check(filters == nullptr, "filters==0");
    if (!qx::Report::failed() && filters->id == g_shortId)
        release_short_scratch(qx::context());
    QXsFreeMFCCFilters(filters);
}

}  // extern "C"
