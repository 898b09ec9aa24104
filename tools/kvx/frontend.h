// frontend.h - the feature extraction shared by the kvx tool and the Python
// binding: framing, pre-emphasis, window and mel cepstrum through kvxpx's
// public interface, with the handling of frames that have no energy, cepstral
// mean removal and the energy floor.
//
// It does no audio input or output and no resampling: callers hand it mono
// samples at the analysis rate (FeatureOptions::rate), on the 16-bit scale
// (full scale is +-32768, whether the samples come as float or short).
//
// Per frame (frame length L samples, FFT length N = the smallest power of two
// >= L; frame k starts at sample k * hop; only whole frames are used):
//   1. copy L samples, zero-pad to N;
//   2. pre-emphasis of the L samples (y[0] = x[0], y[i] = x[i] - a x[i-1]),
//      skipped when the coefficient is 0;
//   3. window of length L (hamming, hanning, bartlett, blackman, or rect);
//   4. mel cepstrum of the N samples: `ceps` coefficients c0..c(ceps-1).
// Float path (default): QXsPreemphasize, QXsWin*, QXsCepstralMFCC. The values
// equal those calls on the same frame, bit for bit.
// Fixed-point path (fixedPoint): the frame is rounded to 16-bit and goes
// through QXwPreemphasize, QXwWin* and QXwCepstralMFCC, each choosing its own
// scale factor (doScale 2). The written values are real cepstra: the
// coefficients times 2^factor, plus the shift of the log spectrum that the
// pre-emphasis and window factors caused (s * log10(2) times the cepstrum of
// a flat unit log spectrum), so both paths agree to 16-bit precision.
//
// Frames with no energy: a bin of power 0 has the logarithm -infinity, and an
// all-zero frame makes every coefficient non-finite (the 16-bit path reports
// "Unscalable range ..." or a failed scale search for it). Such frames are
// never passed on as NaN or infinity: their log spectrum is recomputed with
// each bin's log10 magnitude raised to at least `zeroFloor` (default 0, that
// is magnitude 1, below one quantisation step of 16-bit audio) and the
// cepstrum taken from that. They are counted in FeatureStats::zeroEnergy, and
// the 16-bit path's reports on them in FeatureStats::unscalable; library
// reports on them are not shown.
//
// After all frames: frames whose energy (sum of squares of the raw frame) is
// more than energyFloorDb below the loudest frame are dropped (0 keeps all);
// then, with cmn, each coefficient's mean over the kept frames is removed.
//
// The kvxpx library keeps process-wide state: use one FrontEnd at a time
// from one thread.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

struct QXMFCCFilters;

namespace kvx {

enum class Window { Hamming, Hanning, Bartlett, Blackman, Rect };

// Name <-> window ("hamming", "hanning", "bartlett", "blackman", "rect").
const char* windowName(Window w);
bool parseWindow(const std::string& name, Window& w);

struct FeatureOptions {
    int rate = 16000;          // analysis rate, Hz
    double frameMs = 32.0;     // frame length in milliseconds ...
    int frameSamples = 0;      // ... or in samples when > 0 (wins)
    double hopMs = 10.0;       // frame advance in milliseconds ...
    int hopSamples = 0;        // ... or in samples when > 0 (wins)
    double preemph = 0.97;     // pre-emphasis coefficient, 0 = none
    Window window = Window::Hamming;
    int bands = 24;            // filter-bank bands
    int low = 133;             // lowest band edge, Hz
    int high = 8000;           // highest band edge, Hz (at most rate / 2)
    int linear = 0;            // number of linearly spaced bands at the bottom (0 = all mel)
    int linearEnd = 1000;      // upper edge of the linear part, Hz
    int ceps = 13;             // coefficients per frame, c0 first
    bool fixedPoint = false;   // the 16-bit path
    bool cmn = false;          // remove each coefficient's mean over the file
    double energyFloorDb = 0;  // drop frames this far below the loudest (0 = keep all)
    float zeroFloor = 0.0f;    // log10 magnitude floor for bins of zero-energy frames

    int frameLength() const;   // in samples
    int hopLength() const;     // in samples
    int fftOrder() const;      // log2 of the FFT length
};

// Empty when the options are usable, else one line naming the bad option.
std::string checkOptions(const FeatureOptions& o);

struct FeatureStats {
    long frames = 0;       // whole frames analysed
    long zeroEnergy = 0;   // frames whose log spectrum had to be floored
    long unscalable = 0;   // 16-bit path: scaling reports on such frames
    long dropped = 0;      // frames removed by the energy floor
};

struct Features {
    int rows = 0;                 // frames kept
    int cols = 0;                 // coefficients per frame
    std::vector<float> values;    // rows x cols, row-major
    std::vector<long> frameIndex; // original frame number of each row
    FeatureStats stats;
    const float* row(int r) const { return values.data() + static_cast<std::size_t>(r) * cols; }
};

// A library report caught while the front end (or a caller) works.
struct LibraryReport {
    int code;
    std::string function;
    std::string condition;
};

// Installs a handler of its own for kvxpx's error reports for its lifetime
// (and restores the previous one): reports are collected instead of printed,
// and the status word is set as the library's own handlers do.
class ReportCollector {
public:
    ReportCollector();
    ~ReportCollector();
    ReportCollector(const ReportCollector&) = delete;
    ReportCollector& operator=(const ReportCollector&) = delete;
    // Errors since the last take (trace records excluded); clears the list
    // and the status word.
    std::vector<LibraryReport> take();
    // "function: condition (code text)" of the first error, or "".
    static std::string describe(const std::vector<LibraryReport>& reports);

private:
    void* previous_;
};

// Thrown for unusable options (std::invalid_argument), too little audio
// (TooShort) or a library failure (std::runtime_error).
struct TooShort : std::invalid_argument {
    using std::invalid_argument::invalid_argument;
};

class FrontEnd {
public:
    explicit FrontEnd(const FeatureOptions& options);  // throws std::invalid_argument
    ~FrontEnd();
    FrontEnd(const FrontEnd&) = delete;
    FrontEnd& operator=(const FrontEnd&) = delete;

    const FeatureOptions& options() const { return opt_; }
    // Features of n samples at options().rate (16-bit scale).
    Features compute(const float* samples, std::size_t n);
    Features compute(const short* samples, std::size_t n);
    // The same in pieces: begin(), feed() the signal in blocks of any size,
    // end() (which throws TooShort when no whole frame came in).
    void begin();
    void feed(const float* samples, std::size_t n);
    Features end();

private:
    void oneFrame(const float* src);
    void frameFloat(const float* src, float* out);
    void frameFixed(const short* src, float* out);
    void floored(const float* windowed, float* out);
    void finish(Features& f, const std::vector<double>& energy) const;

    FeatureOptions opt_;
    int frameLen_, hop_, order_, fftLen_;
    QXMFCCFilters* bank_ = nullptr;
    std::vector<float> buf_, fftOut_, logSpec_, unit_, floorCeps_;
    std::vector<short> wbuf_, shortFrame_;
    Features acc_;                 // frames so far
    std::vector<double> energy_;   // their energies
    std::vector<float> pending_;   // samples not yet in a whole frame
    std::size_t skip_ = 0, seen_ = 0;
    std::vector<short> wceps_;
    long zero_ = 0, unscalable_ = 0;
};

}  // namespace kvx
