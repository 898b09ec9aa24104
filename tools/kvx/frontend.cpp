// frontend.cpp - see frontend.h.
#include "frontend.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>

#include "kvxpx.h"

namespace kvx {

namespace {

struct WindowEntry {
    Window w;
    const char* name;
    void (*fs)(float*, int);
    void (*fw)(short*, int, int, int*);
};

const WindowEntry kWindows[] = {
    {Window::Hamming, "hamming", QXsWinHamming, QXwWinHamming},
    {Window::Hanning, "hanning", QXsWinHanning, QXwWinHanning},
    {Window::Bartlett, "bartlett", QXsWinBartlett, QXwWinBartlett},
    {Window::Blackman, "blackman", QXsWinBlackman, QXwWinBlackman},
    {Window::Rect, "rect", nullptr, nullptr},
};

const WindowEntry& entry(Window w) {
    for (const auto& e : kWindows)
        if (e.w == w) return e;
    return kWindows[0];
}

// The collected reports of the live ReportCollector.
std::vector<LibraryReport>* g_reports = nullptr;

int collect(int code, const char* function, const char* condition, const char*, int) {
    if (code == QX_StsBackTrace || code == QX_StsAutoTrace) return code;  // trace records
    if (g_reports)
        g_reports->push_back({code, function ? function : "", condition ? condition : ""});
    QXSetStatus(code);
    return code;
}

constexpr double kLog10Of2 = 0.30102999566398119521;

}  // namespace

const char* windowName(Window w) { return entry(w).name; }

bool parseWindow(const std::string& name, Window& w) {
    for (const auto& e : kWindows)
        if (name == e.name) {
            w = e.w;
            return true;
        }
    if (name == "hann") {
        w = Window::Hanning;
        return true;
    }
    if (name == "none" || name == "rectangular") {
        w = Window::Rect;
        return true;
    }
    return false;
}

int FeatureOptions::frameLength() const {
    if (frameSamples > 0) return frameSamples;
    double v = std::round(frameMs * rate / 1000.0);
    return v >= 1 && v <= 1 << 20 ? static_cast<int>(v) : 0;
}

int FeatureOptions::hopLength() const {
    if (hopSamples > 0) return hopSamples;
    double v = std::round(hopMs * rate / 1000.0);
    return v >= 1 && v <= 1 << 20 ? static_cast<int>(v) : 0;
}

int FeatureOptions::fftOrder() const {
    int order = 1;
    while (order < 30 && (1 << order) < frameLength()) ++order;
    return order;
}

std::string checkOptions(const FeatureOptions& o) {
    auto s = [](auto v) { return std::to_string(v); };
    if (o.rate < 1000 || o.rate > 384000) return "--rate must be 1000..384000 Hz (got " + s(o.rate) + ")";
    int L = o.frameLength();
    if (L < 2 || L > 65536) return "--frame must be 2..65536 samples at the analysis rate";
    if (o.hopLength() < 1 || o.hopLength() > 65536) return "--hop must be 1..65536 samples at the analysis rate";
    if (!(o.preemph >= 0.0 && o.preemph < 1.0)) return "--preemph must be in [0, 1)";
    if (o.bands < 1 || o.bands > 255) return "--bands must be 1..255 (got " + s(o.bands) + ")";
    if (o.low < 0) return "--low must not be negative";
    if (o.high <= o.low) return "--high must be above --low";
    if (o.high > o.rate / 2) return "--high must not exceed half the rate (" + s(o.rate / 2) + " Hz)";
    if (o.linear < 0 || o.linear >= o.bands) return "--linear must be 0..bands-1 (got " + s(o.linear) + ")";
    if (o.linear > 0 && (o.linearEnd <= o.low || o.linearEnd >= o.high))
        return "--linear-end must lie between --low and --high";
    if (o.ceps < 1 || o.ceps > 255) return "--ceps must be 1..255 (got " + s(o.ceps) + ")";
    if (!(o.energyFloorDb >= 0.0 && o.energyFloorDb <= 1000.0)) return "--energy-floor must be 0..1000 dB";
    if (!std::isfinite(o.zeroFloor)) return "the zero-energy floor must be finite";
    return "";
}

// ---------------------------------------------------------------------------

ReportCollector::ReportCollector() : previous_(nullptr) {
    g_reports = new std::vector<LibraryReport>();
    previous_ = reinterpret_cast<void*>(QXRedirectError(collect));
}

ReportCollector::~ReportCollector() {
    auto prev = reinterpret_cast<QXErrorCallback>(previous_);
    QXRedirectError(prev == collect ? nullptr : prev);
    delete g_reports;
    g_reports = nullptr;
}

std::vector<LibraryReport> ReportCollector::take() {
    std::vector<LibraryReport> out;
    if (g_reports) out.swap(*g_reports);
    QXSetStatus(0);
    return out;
}

std::string ReportCollector::describe(const std::vector<LibraryReport>& reports) {
    if (reports.empty()) return "";
    const auto& r = reports.front();
    return r.function + ": " + r.condition + " (" + QXErrorStr(r.code) + ")";
}

// ---------------------------------------------------------------------------

FrontEnd::FrontEnd(const FeatureOptions& options) : opt_(options) {
    std::string bad = checkOptions(opt_);
    if (!bad.empty()) throw std::invalid_argument(bad);
    frameLen_ = opt_.frameLength();
    hop_ = opt_.hopLength();
    order_ = opt_.fftOrder();
    fftLen_ = 1 << order_;
    ReportCollector rc;
    bank_ = QXsMFCCInit(order_, opt_.bands, opt_.low, opt_.high, opt_.rate, opt_.linear > 0 ? 1 : 0, opt_.linear,
                        opt_.linear > 0 ? opt_.linearEnd : 0);
    auto reports = rc.take();
    if (!bank_) throw std::runtime_error("filter bank: " + ReportCollector::describe(reports));
    buf_.assign(fftLen_, 0.0f);
    fftOut_.assign(fftLen_, 0.0f);
    logSpec_.assign(fftLen_ / 2 + 1, 0.0f);
    wbuf_.assign(fftLen_, 0);
    shortFrame_.assign(frameLen_, 0);
    wceps_.assign(opt_.ceps, 0);
    // Cepstrum of a flat unit log spectrum: the cepstrum is linear in the
    // log spectrum, so a shift of the log magnitudes by d moves it by d * unit_.
    std::vector<float> ones(fftLen_ / 2 + 1, 1.0f);
    unit_.assign(opt_.ceps, 0.0f);
    QXsCepstralMFCC(0, ones.data(), bank_, unit_.data(), opt_.ceps);
    std::vector<float> flat(fftLen_ / 2 + 1, opt_.zeroFloor);
    floorCeps_.assign(opt_.ceps, 0.0f);
    QXsCepstralMFCC(0, flat.data(), bank_, floorCeps_.data(), opt_.ceps);
    reports = rc.take();
    if (!reports.empty()) {
        QXsFreeMFCCFilters(bank_);
        throw std::runtime_error("cepstrum: " + ReportCollector::describe(reports));
    }
    begin();
}

FrontEnd::~FrontEnd() {
    ReportCollector rc;
    if (bank_) (opt_.fixedPoint ? QXwFreeMFCCFilters : QXsFreeMFCCFilters)(bank_);
}

// The cepstrum of the windowed frame in buf_-layout `windowed` (N reals),
// with every bin's log10 magnitude at least zeroFloor.
void FrontEnd::floored(const float* windowed, float* out) {
    QXsRealFftNip(windowed, fftOut_.data(), order_, QX_FORWARD);
    const int half = fftLen_ / 2;
    auto logmag = [&](double re, double im) {
        double p = re * re + im * im;
        double v = p > 0 ? 0.5 * std::log10(p) : -std::numeric_limits<double>::infinity();
        return static_cast<float>(std::max(v, static_cast<double>(opt_.zeroFloor)));
    };
    logSpec_[0] = logmag(fftOut_[0], 0.0);
    logSpec_[half] = logmag(fftOut_[1], 0.0);
    for (int k = 1; k < half; ++k) logSpec_[k] = logmag(fftOut_[2 * k], fftOut_[2 * k + 1]);
    QXsCepstralMFCC(0, logSpec_.data(), bank_, out, opt_.ceps);
}

static bool allFinite(const float* v, int n) {
    for (int i = 0; i < n; ++i)
        if (!std::isfinite(v[i])) return false;
    return true;
}

void FrontEnd::frameFloat(const float* src, float* out) {
    std::memcpy(buf_.data(), src, sizeof(float) * frameLen_);
    if (opt_.preemph != 0.0) QXsPreemphasize(buf_.data(), static_cast<float>(opt_.preemph), frameLen_);
    if (auto f = entry(opt_.window).fs) f(buf_.data(), frameLen_);
    QXsCepstralMFCC(1, buf_.data(), bank_, out, opt_.ceps);
    if (QXGetStatus() < 0 || !allFinite(out, opt_.ceps)) {
        ++zero_;
        QXSetStatus(0);
        floored(buf_.data(), out);
    }
}

void FrontEnd::frameFixed(const short* src, float* out) {
    std::memcpy(wbuf_.data(), src, sizeof(short) * frameLen_);
    int sfP = 0, sfW = 0, sfC = 0;
    if (opt_.preemph != 0.0) QXwPreemphasize(wbuf_.data(), static_cast<float>(opt_.preemph), frameLen_, 2, &sfP);
    if (auto f = entry(opt_.window).fw) f(wbuf_.data(), frameLen_, 2, &sfW);
    const int shift = sfP + sfW;  // real sample = stored * 2^shift
    if (QXGetStatus() < 0) throw std::runtime_error("16-bit frame conditioning failed");
    QXwCepstralMFCC(1, wbuf_.data(), bank_, wceps_.data(), opt_.ceps, 2, &sfC);
    if (QXGetStatus() < 0) {
        // Only a frame with a bin of no energy makes the cepstrum unscalable.
        ++unscalable_;
        ++zero_;
        QXSetStatus(0);
        for (int i = 0; i < fftLen_; ++i) buf_[i] = static_cast<float>(std::ldexp(double(wbuf_[i]), shift));
        floored(buf_.data(), out);
        return;
    }
    const double c = std::ldexp(1.0, sfC), d = shift * kLog10Of2;
    for (int k = 0; k < opt_.ceps; ++k) out[k] = static_cast<float>(wceps_[k] * c + d * unit_[k]);
}

// Sum of squares (four partial sums, so that the loop vectorises); 0 exactly
// when every sample is 0.
static double energyOf(const float* x, int n) {
    double a[4] = {0, 0, 0, 0};
    int i = 0;
    for (; i + 4 <= n; i += 4)
        for (int j = 0; j < 4; ++j) a[j] += double(x[i + j]) * double(x[i + j]);
    for (; i < n; ++i) a[0] += double(x[i]) * double(x[i]);
    return (a[0] + a[1]) + (a[2] + a[3]);
}

void FrontEnd::begin() {
    acc_ = Features{};
    acc_.cols = opt_.ceps;
    energy_.clear();
    pending_.clear();
    skip_ = 0;
    seen_ = 0;
    zero_ = unscalable_ = 0;
}

void FrontEnd::oneFrame(const float* src) {
    const std::size_t at = acc_.values.size();
    acc_.values.resize(at + acc_.cols);
    float* out = acc_.values.data() + at;
    const double e = energyOf(src, frameLen_);
    energy_.push_back(e);
    ++acc_.rows;
    if (e == 0) {
        // Digital silence: every bin is floored, so the cepstrum is that of
        // the flat floor spectrum (the 16-bit path would report it unscalable).
        std::copy(floorCeps_.begin(), floorCeps_.end(), out);
        ++zero_;
        if (opt_.fixedPoint) ++unscalable_;
        return;
    }
    if (!opt_.fixedPoint) {
        frameFloat(src, out);
        return;
    }
    for (int i = 0; i < frameLen_; ++i)
        shortFrame_[i] = static_cast<short>(std::clamp(std::nearbyint(double(src[i])), -32768.0, 32767.0));
    frameFixed(shortFrame_.data(), out);
}

void FrontEnd::feed(const float* x, std::size_t n) {
    seen_ += n;
    const std::size_t d = std::min(skip_, n);  // samples a hop longer than the frame passes over
    x += d;
    n -= d;
    skip_ -= d;
    if (n == 0) return;
    const bool direct = pending_.empty();
    if (!direct) pending_.insert(pending_.end(), x, x + n);
    const float* base = direct ? x : pending_.data();
    const std::size_t avail = direct ? n : pending_.size();
    ReportCollector rc;
    QXSetStatus(0);
    std::size_t pos = 0;
    for (; pos + static_cast<std::size_t>(frameLen_) <= avail; pos += hop_) oneFrame(base + pos);
    rc.take();
    if (pos >= avail) {
        skip_ = pos - avail;
        pending_.clear();
    } else if (direct) {
        pending_.assign(base + pos, base + avail);
    } else {
        pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(pos));
    }
}

Features FrontEnd::end() {
    if (acc_.rows == 0)
        throw TooShort("audio shorter than one frame (" + std::to_string(seen_) + " samples, a frame is " +
                       std::to_string(frameLen_) + ")");
    Features f = std::move(acc_);
    f.stats.frames = f.rows;
    f.stats.zeroEnergy = zero_;
    f.stats.unscalable = unscalable_;
    finish(f, energy_);
    begin();
    return f;
}

void FrontEnd::finish(Features& f, const std::vector<double>& energy) const {
    f.frameIndex.resize(f.rows);
    for (int r = 0; r < f.rows; ++r) f.frameIndex[r] = r;
    if (opt_.energyFloorDb > 0) {
        const double loudest = *std::max_element(energy.begin(), energy.end());
        const double limit = loudest * std::pow(10.0, -opt_.energyFloorDb / 10.0);
        int kept = 0;
        for (int r = 0; r < f.rows; ++r) {
            if (!(energy[r] >= limit) || energy[r] <= 0) continue;
            if (kept != r)
                std::memmove(f.values.data() + std::size_t(kept) * f.cols, f.values.data() + std::size_t(r) * f.cols,
                             sizeof(float) * f.cols);
            f.frameIndex[kept++] = r;
        }
        f.stats.dropped = f.rows - kept;
        f.rows = kept;
        f.values.resize(std::size_t(kept) * f.cols);
        f.frameIndex.resize(kept);
    }
    if (opt_.cmn && f.rows > 0) {
        std::vector<double> mean(f.cols, 0.0);
        for (int r = 0; r < f.rows; ++r)
            for (int c = 0; c < f.cols; ++c) mean[c] += f.values[std::size_t(r) * f.cols + c];
        for (auto& m : mean) m /= f.rows;
        for (int r = 0; r < f.rows; ++r)
            for (int c = 0; c < f.cols; ++c)
                f.values[std::size_t(r) * f.cols + c] = static_cast<float>(f.values[std::size_t(r) * f.cols + c] - mean[c]);
    }
}

Features FrontEnd::compute(const float* samples, std::size_t n) {
    begin();
    feed(samples, n);
    return end();
}

Features FrontEnd::compute(const short* samples, std::size_t n) {
    begin();
    std::vector<float> block;
    for (std::size_t at = 0; at < n; at += 1 << 16) {
        const std::size_t m = std::min<std::size_t>(n - at, 1 << 16);
        block.assign(samples + at, samples + at + m);
        feed(block.data(), m);
    }
    return end();
}

}  // namespace kvx
