// signal.cpp - conversions, FFTs, pre-emphasis, windows, mel filter banks
// and the feature extraction of `kvx features`.
#include <pybind11/stl.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <tuple>

#include "binding.h"
#include "frontend.h"
#include "kvxpx.h"

namespace kvxpy {

namespace {

using Complex = std::complex<float>;

// ---------------------------------------------------------------------------
// Conversions. In Python a pair (values, scale_factor) always stands for
// values * 2^scale_factor.

template <class Real, class Int>
py::tuple convertDown(Array<Real> x, const py::object& scaling, int scaleFactor,
                      void (*down)(const Real*, Int*, int, int, int*)) {
    const int n = intLength(x.size(), "the input");
    const int mode = scaleMode(scaling);
    auto out = py::array_t<Int>(x.request().shape);
    const Real* in = x.data();
    Int* dst = out.mutable_data();
    int sf = scaleFactor;
    guarded([&] { down(in, dst, n, mode, &sf); });
    return py::make_tuple(out, sf);
}

template <class Int, class Real>
Array<Real> convertUp(Array<Int> q, int scaleFactor, void (*up)(const Int*, Real*, int, int)) {
    const int n = intLength(q.size(), "the input");
    auto out = Array<Real>(q.request().shape);
    const Int* in = q.data();
    Real* dst = out.mutable_data();
    // The library multiplies by 2^-factor when converting up.
    guarded([&] { up(in, dst, n, -scaleFactor); });
    return out;
}

// The float and double forms of one conversion, chosen by the input's type.
template <class Int>
auto toInt(void (*fromFloat)(const float*, Int*, int, int, int*), void (*fromDouble)(const double*, Int*, int, int, int*)) {
    return [=](const py::array& x, const py::object& scaling, int sf) -> py::tuple {
        if (x.dtype().is(py::dtype::of<double>())) return convertDown<double, Int>(Array<double>::ensure(x), scaling, sf, fromDouble);
        return convertDown<float, Int>(Array<float>::ensure(x), scaling, sf, fromFloat);
    };
}

template <class Int>
auto fromInt(void (*toFloat)(const Int*, float*, int, int), void (*toDouble)(const Int*, double*, int, int)) {
    return [=](Array<Int> q, int sf, const std::string& dtype) -> py::object {
        if (dtype == "float64") return convertUp<Int, double>(q, sf, toDouble);
        if (dtype != "float32") throw py::value_error("dtype must be 'float32' or 'float64'");
        return convertUp<Int, float>(q, sf, toFloat);
    };
}

// ---------------------------------------------------------------------------
// FFTs

int fftOrder(py::ssize_t n, const char* what) {
    if (n < 1 || (n & (n - 1)) != 0)
        throw py::value_error(std::string(what) + " must have a power-of-two length (got " + std::to_string(n) + ")");
    int order = 0;
    while ((py::ssize_t(1) << order) < n) ++order;
    return order;
}

int direction(bool inverse, bool scaled) {
    return inverse ? QX_INVERSE | (scaled ? 0 : QX_NO_INVERSE_SCALING) : QX_FORWARD;
}

// A 16-bit transform into a new array of the input's shape: (y, scale_factor).
using ShortNip = int (*)(const short*, short*, int, int, int, int*);

py::tuple shortTransform(const Array<short>& in, int order, int flags, ShortNip nip, const py::object& scaling,
                         int scaleFactor) {
    auto out = Array<short>(in.request().shape);
    const short* src = in.data();
    short* dst = out.mutable_data();
    const int mode = scaleMode(scaling);
    int sf = scaleFactor;
    guarded([&] { nip(src, dst, order, flags, mode, &sf); });
    return py::make_tuple(out, sf);
}

py::object fft(const py::array& x, bool inverse, bool scaled, const py::object& scaling, int scaleFactor) {
    const int flags = direction(inverse, scaled);
    if (isInt16(x)) {
        auto in = Array<short>::ensure(x);
        if (in.ndim() != 2 || in.shape(1) != 2)
            throw py::value_error("16-bit complex data must have shape (n, 2): (re, im) rows");
        return shortTransform(in, fftOrder(in.shape(0), "the signal"), flags, QXvFftNip, scaling, scaleFactor);
    }
    auto in = Array<Complex>::ensure(x);
    if (!in || in.ndim() != 1) throw py::value_error("the signal must be a 1-D complex array");
    const int order = fftOrder(in.shape(0), "the signal");
    auto out = empty<Complex>({in.shape(0)});
    auto src = reinterpret_cast<const float*>(in.data());
    auto dst = reinterpret_cast<float*>(out.mutable_data());
    guarded([&] { QXcFftNip(src, dst, order, flags); });
    return out;
}

// Packed spectrum (the library's layout) <-> n/2 + 1 complex bins.
Array<Complex> unpack(const float* p, py::ssize_t n) {
    auto out = empty<Complex>({n / 2 + 1});
    Complex* b = out.mutable_data();
    if (n == 1) {
        b[0] = Complex(p[0], 0.0f);
        return out;
    }
    b[0] = Complex(p[0], 0.0f);
    b[n / 2] = Complex(p[1], 0.0f);
    for (py::ssize_t k = 1; k < n / 2; ++k) b[k] = Complex(p[2 * k], p[2 * k + 1]);
    return out;
}

py::object rfft(const py::array& x, bool packed, const py::object& scaling, int scaleFactor) {
    if (isInt16(x)) {
        auto in = Array<short>::ensure(x);
        const int order = fftOrder(in.ndim() == 1 ? in.shape(0) : 0, "the signal");
        return shortTransform(in, order, QX_FORWARD, QXwRealFftNip, scaling, scaleFactor);
    }
    auto in = Array<float>::ensure(x);
    if (!in || in.ndim() != 1) throw py::value_error("the signal must be a 1-D real array");
    const int order = fftOrder(in.shape(0), "the signal");
    auto spectrum = empty<float>({in.shape(0)});
    const float* src = in.data();
    float* dst = spectrum.mutable_data();
    guarded([&] { QXsRealFftNip(src, dst, order, QX_FORWARD); });
    if (packed) return spectrum;
    return unpack(spectrum.data(), in.shape(0));
}

py::object irfft(const py::array& spectrum, py::ssize_t n, bool packed, bool scaled, const py::object& scaling,
                 int scaleFactor) {
    const int flags = direction(true, scaled);
    if (isInt16(spectrum)) {
        auto in = Array<short>::ensure(spectrum);
        const int order = fftOrder(in.ndim() == 1 ? in.shape(0) : 0, "the packed spectrum");
        return shortTransform(in, order, flags, QXwCcsFftNip, scaling, scaleFactor);
    }
    std::vector<float> p;
    if (packed) {
        auto in = Array<float>::ensure(spectrum);
        if (!in || in.ndim() != 1) throw py::value_error("the packed spectrum must be a 1-D real array");
        p.assign(in.data(), in.data() + in.shape(0));
    } else {
        auto in = Array<Complex>::ensure(spectrum);
        if (!in || in.ndim() != 1) throw py::value_error("the spectrum must be a 1-D complex array of n/2 + 1 bins");
        const py::ssize_t bins = in.shape(0);
        if (n <= 0) n = 2 * (bins - 1);
        if (n < 2 || n / 2 + 1 != bins)
            throw py::value_error("n/2 + 1 must equal the number of bins (" + std::to_string(bins) + ")");
        p.assign(static_cast<std::size_t>(n), 0.0f);
        const Complex* b = in.data();
        p[0] = b[0].real();
        p[1] = b[n / 2].real();
        for (py::ssize_t k = 1; k < n / 2; ++k) {
            p[2 * k] = b[k].real();
            p[2 * k + 1] = b[k].imag();
        }
    }
    const int order = fftOrder(static_cast<py::ssize_t>(p.size()), "the signal");
    auto out = empty<float>({static_cast<py::ssize_t>(p.size())});
    float* dst = out.mutable_data();
    guarded([&] { QXsCcsFftNip(p.data(), dst, order, flags); });
    return out;
}

// ---------------------------------------------------------------------------
// Pre-emphasis and windows

struct WindowForms {
    const char* name;
    void (*fs)(float*, int);
    void (*fw)(short*, int, int, int*);
};

const WindowForms kWindows[] = {
    {"hamming", QXsWinHamming, QXwWinHamming},
    {"hanning", QXsWinHanning, QXwWinHanning},
    {"bartlett", QXsWinBartlett, QXwWinBartlett},
    {"blackman", QXsWinBlackman, QXwWinBlackman},
};

const WindowForms& windowForms(const std::string& kind) {
    for (const auto& w : kWindows)
        if (kind == w.name) return w;
    throw py::value_error("window must be 'hamming', 'hanning', 'bartlett' or 'blackman', not '" + kind + "'");
}

// Runs an in-place float form or 16-bit form on a copy of x.
template <class FS, class FW>
py::object inPlaceOnCopy(const py::array& x, const py::object& scaling, int scaleFactor, FS floatForm, FW shortForm) {
    if (isInt16(x)) {
        auto out = Array<short>::ensure(x);
        out = Array<short>(py::array(out).attr("copy")());
        const int n = intLength(out.size(), "the vector");
        short* v = out.mutable_data();
        const int mode = scaleMode(scaling);
        int sf = scaleFactor;
        guarded([&] { shortForm(v, n, mode, &sf); });
        return py::make_tuple(out, sf);
    }
    auto in = Array<float>::ensure(x);
    if (!in) throw py::value_error("the vector must be numeric");
    auto out = Array<float>(in.request().shape);
    std::memcpy(out.mutable_data(), in.data(), sizeof(float) * static_cast<std::size_t>(in.size()));
    const int n = intLength(out.size(), "the vector");
    float* v = out.mutable_data();
    guarded([&] { floatForm(v, n); });
    return out;
}

py::object preemphasize(const py::array& x, float coefficient, const py::object& scaling, int scaleFactor) {
    return inPlaceOnCopy(
        x, scaling, scaleFactor, [&](float* v, int n) { QXsPreemphasize(v, coefficient, n); },
        [&](short* v, int n, int mode, int* sf) { QXwPreemphasize(v, coefficient, n, mode, sf); });
}

py::object window(const py::array& x, const std::string& kind, const py::object& scaling, int scaleFactor) {
    const WindowForms& w = windowForms(kind);
    return inPlaceOnCopy(x, scaling, scaleFactor, w.fs, w.fw);
}

// ---------------------------------------------------------------------------
// Mel filter banks

class MelFilterBank {
public:
    MelFilterBank(int order, int bands, int low, int high, int rate, int linear, int linearEnd, bool fixedPoint)
        : fixed_(fixedPoint) {
        const int useLinear = linear > 0 ? 1 : 0;
        auto init = fixedPoint ? QXwMFCCInit : QXsMFCCInit;
        bank_ = guarded([&] { return init(order, bands, low, high, rate, useLinear, linear, useLinear ? linearEnd : 0); });
        if (!bank_) throw std::runtime_error("the library returned no filter bank");
    }
    ~MelFilterBank() { close(); }

    void close() {
        if (!bank_) return;
        quietly([&] { (fixed_ ? QXwFreeMFCCFilters : QXsFreeMFCCFilters)(bank_); });
        bank_ = nullptr;
    }

    QXMFCCFilters* bank() const {
        if (!bank_) throw py::value_error("the filter bank is closed");
        return bank_;
    }

    py::object cepstrum(const py::array& frame, int ceps, bool transform, const py::object& scaling, int scaleFactor) {
        QXMFCCFilters* b = bank();
        const py::ssize_t want = transform ? b->n : b->n / 2 + 1;
        if (frame.ndim() != 1 || frame.shape(0) != want)
            throw py::value_error(std::string(transform ? "the frame must hold " : "the log spectrum must hold ") +
                                  std::to_string(want) + " values");
        if (ceps < 1) ceps = 0;  // the library reports "nCeps<=0"
        const int doT = transform ? 1 : 0;
        if (isInt16(frame)) {
            auto in = Array<short>::ensure(frame);
            auto out = empty<short>({std::max(ceps, 1)});
            const short* src = in.data();
            short* dst = out.mutable_data();
            const int mode = scaleMode(scaling);
            int sf = scaleFactor;
            guarded([&] { QXwCepstralMFCC(doT, src, b, dst, ceps, mode, &sf); });
            return py::make_tuple(out, sf);
        }
        auto in = Array<float>::ensure(frame);
        auto out = empty<float>({std::max(ceps, 1)});
        const float* src = in.data();
        float* dst = out.mutable_data();
        guarded([&] { QXsCepstralMFCC(doT, src, b, dst, ceps); });
        return out;
    }

private:
    QXMFCCFilters* bank_ = nullptr;
    bool fixed_;
};

// ---------------------------------------------------------------------------
// Feature extraction: the options and code of `kvx features`.

bool sameOptions(const kvx::FeatureOptions& a, const kvx::FeatureOptions& b) {
    auto key = [](const kvx::FeatureOptions& o) {
        return std::make_tuple(o.rate, o.frameMs, o.frameSamples, o.hopMs, o.hopSamples, o.preemph, o.window, o.bands,
                               o.low, o.high, o.linear, o.linearEnd, o.ceps, o.fixedPoint, o.cmn, o.energyFloorDb,
                               o.zeroFloor);
    };
    return key(a) == key(b);
}

// The front end of the last call, kept for the next one with equal options
// (its filter bank costs more than a short signal). Guarded by the lock.
std::unique_ptr<kvx::FrontEnd> g_front;

kvx::FrontEnd& frontEnd(const kvx::FeatureOptions& o) {
    if (!g_front || !sameOptions(g_front->options(), o)) {
        g_front.reset();
        g_front = std::make_unique<kvx::FrontEnd>(o);
    }
    return *g_front;
}

py::object mfcc(const py::array& signal, int rate, double frameMs, double hopMs, int frameSamples, int hopSamples,
                double preemph, const std::string& windowName, int bands, int low, int high, int linear, int linearEnd,
                int ceps, bool fixedPoint, bool cmn, double energyFloor, double fullScale, bool returnScale,
                bool returnIndex) {
    kvx::Window window;
    if (!kvx::parseWindow(windowName, window))
        throw py::value_error("window must be hamming, hanning, bartlett, blackman or rect (got '" + windowName + "')");
    const kvx::FeatureOptions o{.rate = rate, .frameMs = frameMs, .frameSamples = frameSamples, .hopMs = hopMs,
                                .hopSamples = hopSamples, .preemph = preemph, .window = window, .bands = bands,
                                .low = low, .high = high, .linear = linear, .linearEnd = linearEnd, .ceps = ceps,
                                .fixedPoint = fixedPoint, .cmn = cmn, .energyFloorDb = energyFloor};
    if (signal.ndim() != 1) throw py::value_error("the signal must be 1-D (mono)");
    kvx::Features f;
    if (isInt16(signal)) {
        auto in = Array<short>::ensure(signal);
        const short* s = in.data();
        const std::size_t n = static_cast<std::size_t>(in.size());
        f = guarded([&] { return frontEnd(o).compute(s, n); });
    } else {
        if (!(fullScale > 0) || !std::isfinite(fullScale)) throw py::value_error("full_scale must be positive");
        // Samples on the 16-bit scale, as the tool reads audio files.
        auto scaled = Array<float>::ensure(signal);
        if (!scaled) throw py::value_error("the signal must be numeric");
        const float factor = static_cast<float>(32768.0 / fullScale);
        if (factor != 1.0f) {
            auto mult = Array<float>(scaled.request().shape);
            float* d = mult.mutable_data();
            const float* s = scaled.data();
            for (py::ssize_t i = 0; i < scaled.size(); ++i) d[i] = s[i] * factor;
            scaled = mult;
        }
        const float* s = scaled.data();
        const std::size_t n = static_cast<std::size_t>(scaled.size());
        f = guarded([&] { return frontEnd(o).compute(s, n); });
    }
    auto values = empty<float>({f.rows, f.cols});
    std::memcpy(values.mutable_data(), f.values.data(), sizeof(float) * f.values.size());
    py::object result = values;
    if (returnScale) {
        // The library's 16-bit form of each frame: value = q * 2^e.
        auto q = empty<short>({f.rows, f.cols});
        auto e = empty<int>({f.rows});
        short* qd = q.mutable_data();
        int* ed = e.mutable_data();
        const float* v = f.values.data();
        const int rows = f.rows, cols = f.cols;
        guarded([&] {
            for (int r = 0; r < rows; ++r) {
                int sf = 0;
                QXswbConvertDown(v + std::size_t(r) * cols, qd + std::size_t(r) * cols, cols, 2, &sf);
                ed[r] = sf;
            }
        });
        result = py::make_tuple(q, e);
    }
    if (returnIndex) {
        auto idx = empty<long>({f.rows});
        std::copy(f.frameIndex.begin(), f.frameIndex.end(), idx.mutable_data());
        return py::make_tuple(result, idx);
    }
    return result;
}

}  // namespace

void bindSignal(py::module_& m) {
    const auto scaling = py::arg("scaling") = "auto";
    const auto sfArg = py::arg("scale_factor") = 0;

    m.def("to_int16", toInt<short>(QXswbConvertDown, QXdwbConvertDown), py::arg("x"), scaling, sfArg,
          "Real values to 16-bit: (q, scale_factor) with x ~ q * 2**scale_factor (QXswbConvertDown / "
          "QXdwbConvertDown).");
    m.def("to_int32", toInt<int>(QXsibConvertDown, QXdibConvertDown), py::arg("x"), scaling, sfArg,
          "Real values to 32-bit: (q, scale_factor) with x ~ q * 2**scale_factor (QXsibConvertDown / "
          "QXdibConvertDown).");
    m.def("from_int16", fromInt<short>(QXwsbConvertUp, QXwdbConvertUp), py::arg("q"), py::arg("scale_factor") = 0,
          py::arg("dtype") = "float32", "q * 2**scale_factor as floats (QXwsbConvertUp / QXwdbConvertUp with -scale_factor).");
    m.def("from_int32", fromInt<int>(QXisbConvertUp, QXidbConvertUp), py::arg("q"), py::arg("scale_factor") = 0,
          py::arg("dtype") = "float32", "q * 2**scale_factor as floats (QXisbConvertUp / QXidbConvertUp with -scale_factor).");

    m.def("fft", &fft, py::arg("x"), py::arg("inverse") = false, py::arg("scaled") = true, scaling, sfArg,
          "Complex FFT of a power-of-two length: complex64 in and out (QXcFftNip), or 16-bit (n, 2) data in and "
          "(y, scale_factor) out (QXvFftNip). The inverse divides by n unless scaled=False.");
    m.def("rfft", &rfft, py::arg("x"), py::arg("packed") = false, scaling, sfArg,
          "Real FFT: n/2 + 1 complex64 bins, or the library's packed spectrum with packed=True (QXsRealFftNip); "
          "16-bit input gives (packed int16 spectrum, scale_factor) (QXwRealFftNip).");
    m.def("irfft", &irfft, py::arg("spectrum"), py::arg("n") = 0, py::arg("packed") = false, py::arg("scaled") = true,
          scaling, sfArg,
          "Inverse of rfft: n real float32 samples from n/2 + 1 bins or a packed spectrum (QXsCcsFftNip); a packed "
          "int16 spectrum gives (int16 samples, scale_factor) (QXwCcsFftNip).");
    m.def("preemphasize", &preemphasize, py::arg("x"), py::arg("coefficient") = 0.97f, scaling, sfArg,
          "y[0] = x[0], y[i] = x[i] - coefficient * x[i-1] on a copy (QXsPreemphasize; int16: QXwPreemphasize, "
          "returns (y, scale_factor)).");
    m.def("window", &window, py::arg("x"), py::arg("kind") = "hamming", scaling, sfArg,
          "x times a window of its length: hamming, hanning, bartlett or blackman (QXsWin*; int16: QXwWin*, "
          "returns (y, scale_factor)).");

    py::class_<MelFilterBank>(m, "MelFilterBank",
                              "A bank of triangular mel bands for frames of 2**order samples (QXsMFCCInit / "
                              "QXwMFCCInit); freed by close(), at the end of a with block or when collected.")
        .def(py::init<int, int, int, int, int, int, int, bool>(), py::arg("order"), py::arg("bands") = 24,
             py::arg("low") = 133, py::arg("high") = 8000, py::arg("rate") = 16000, py::arg("linear") = 0,
             py::arg("linear_end") = 1000, py::arg("fixed_point") = false)
        .def("cepstrum", &MelFilterBank::cepstrum, py::arg("frame"), py::arg("ceps") = 13,
             py::arg("transform") = true, scaling, sfArg,
             "Mel cepstrum of one frame of n samples (transform=True) or of n/2 + 1 log magnitudes: float32 "
             "(QXsCepstralMFCC) or, for int16 frames, (int16 coefficients, scale_factor) (QXwCepstralMFCC).")
        .def_property_readonly("n", [](const MelFilterBank& b) { return b.bank()->n; })
        .def_property_readonly("bands", [](const MelFilterBank& b) { return b.bank()->nBandPass; })
        .def_property_readonly("closed", [](const MelFilterBank& b) {
            try { b.bank(); return false; } catch (const py::value_error&) { return true; } })
        .def("close", &MelFilterBank::close)
        .def("__enter__", [](py::object self) { return self; })
        .def("__exit__", [](MelFilterBank& b, py::args) { b.close(); });

    m.def("mfcc", &mfcc, py::arg("signal"), py::arg("rate") = 16000, py::kw_only(), py::arg("frame_ms") = 32.0,
          py::arg("hop_ms") = 10.0, py::arg("frame_samples") = 0, py::arg("hop_samples") = 0,
          py::arg("preemph") = 0.97, py::arg("window") = "hamming", py::arg("bands") = 24, py::arg("low") = 133,
          py::arg("high") = 8000, py::arg("linear") = 0, py::arg("linear_end") = 1000, py::arg("ceps") = 13,
          py::arg("fixed_point") = false, py::arg("cmn") = false, py::arg("energy_floor") = 0.0,
          py::arg("full_scale") = 1.0, py::arg("return_scale") = false, py::arg("return_index") = false,
          "Mel cepstra of a mono signal at `rate` Hz, frames x ceps float32, with the options and defaults of "
          "`kvx features`. See docs/python.md.");
}

}  // namespace kvxpy
