// audio.h - reading sound files (anything libsndfile reads), mixing to mono
// and resampling (libsamplerate) for the kvx tool. Samples are floats on the
// 16-bit scale (full scale +-32768), the scale the front end expects.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kvx {

// A file that cannot be opened or decoded (an input error).
struct AudioError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Reads `path`, mixes to mono (the mean of the channels), resamples to `rate`
// Hz when the file's rate differs (libsamplerate, medium-quality sinc) and
// hands the samples to `sink` in blocks, so that long files need little
// memory. Throws AudioError naming the cause ("no such file", "unknown or
// unsupported sound format", ...).
void streamAudio(const std::string& path, int rate, const std::function<void(const float*, std::size_t)>& sink);

// The whole file at `rate` Hz.
std::vector<float> readAt(const std::string& path, int rate);

// Resampling of a whole signal from `from` Hz to `to` Hz.
std::vector<float> resample(const std::vector<float>& in, int from, int to);

// Writes 16-bit mono audio (FLAC for *.flac, else WAV).
void writeAudio(const std::string& path, const std::vector<float>& samples, int rate);

}  // namespace kvx
