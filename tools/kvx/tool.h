// tool.h - pieces shared by the kvx subcommands.
#pragma once

#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "audio.h"
#include "frontend.h"
#include "match.h"
#include "store.h"

namespace kvx {

// Exit statuses.
inline constexpr int kExitProcessing = 1;  // the work itself failed
inline constexpr int kExitInput = 2;       // bad usage or bad input

// A bad command line or input (exit status 2).
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Set by --quiet: no progress bar, no summaries.
extern bool g_quiet;

// Prints "kvx: <message>" on standard error.
void complain(const std::string& message);

// A progress bar on standard error, drawn only when it is a terminal, the
// work has more than a few items and --quiet is not given.
class Progress {
public:
    Progress(std::size_t total, const char* what);
    ~Progress();
    void step(const std::string& item);

private:
    std::size_t total_, done_ = 0;
    const char* what_;
    bool on_;
};

// Features of one audio file with a front end (reads, resamples).
Features featuresOf(FrontEnd& fe, const std::string& path);

// `kvx plot` and the demo's plot: waveform and spectrogram of `audio`; with a
// template, the local-distance matrix and the warping path as well.
void writePlot(const std::string& png, const std::string& title, const std::vector<float>& audio,
               const FeatureOptions& fo, const Features* test = nullptr, const Template* tmpl = nullptr,
               const DtwOptions* dtw = nullptr);

struct DemoOptions {
    std::string data;      // folder with one subfolder of digit recordings per voice
    std::string enroll;    // the voice enrolled
    std::string plot;      // PNG written at the end
    DtwOptions dtw;
    FeatureOptions features;
    bool json = false;
    double snr = 20;       // of the noisy copies, dB
};
// Runs the demo; returns the accuracy over all test utterances (0..1).
double runDemo(const DemoOptions& o);

// Time-scale change without pitch change (waveform-similarity overlap-add):
// tempo 1.25 plays 25 % faster. Used by the demo for its changed copies.
std::vector<float> changeTempo(const std::vector<float>& in, int rate, double tempo);

}  // namespace kvx
