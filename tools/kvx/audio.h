// audio.h - reading sound files (anything libsndfile reads), mixing to mono
// and resampling (libsamplerate) for the kvx tool. Samples are floats on the
// 16-bit scale (full scale +-32768), the scale the front end expects.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace kvx {

// A file that cannot be opened or decoded (an input error).
struct AudioError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Audio {
    std::vector<float> samples;  // mono
    int rate = 0;                // Hz
    int channels = 0;            // in the file, before mixing
};

// Reads and mixes to mono (the mean of the channels). Throws AudioError
// naming the cause ("no such file", "unknown or unsupported format", ...).
Audio readAudio(const std::string& path);

// Band-limited resampling from `from` Hz to `to` Hz (libsamplerate, medium
// quality sinc); returns the input unchanged when the rates are equal.
std::vector<float> resample(const std::vector<float>& in, int from, int to);

// Reads a file and brings it to `rate` Hz.
std::vector<float> readAt(const std::string& path, int rate);

// Writes 16-bit mono audio (format from the extension: .wav, .flac, ...).
void writeAudio(const std::string& path, const std::vector<float>& samples, int rate);

}  // namespace kvx
