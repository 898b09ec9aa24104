// audio.cpp - see audio.h.
#include "audio.h"

#include <samplerate.h>
#include <sndfile.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>

namespace kvx {

Audio readAudio(const std::string& path) {
    std::error_code ec;
    if (!std::filesystem::exists(path, ec)) throw AudioError(path + ": no such file");
    if (std::filesystem::is_directory(path, ec)) throw AudioError(path + ": is a directory, not a sound file");
    SF_INFO info{};
    SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
    if (!f) {
        std::string why = sf_strerror(nullptr);
        if (why.find("ormat") != std::string::npos || why.find("nrecognised") != std::string::npos)
            why = "unknown or unsupported sound format (" + why + ")";
        throw AudioError(path + ": " + why);
    }
    struct Closer {
        SNDFILE* f;
        ~Closer() { sf_close(f); }
    } closer{f};
    if (info.channels < 1 || info.samplerate < 1) throw AudioError(path + ": no audio channels");
    Audio a;
    a.rate = info.samplerate;
    a.channels = info.channels;
    sf_command(f, SFC_SET_NORM_FLOAT, nullptr, SF_TRUE);
    constexpr sf_count_t kBlock = 1 << 16;
    std::vector<float> block(static_cast<std::size_t>(kBlock) * info.channels);
    if (info.frames > 0 && info.frames < (sf_count_t(1) << 34)) a.samples.reserve(static_cast<std::size_t>(info.frames));
    const float scale = 32768.0f / static_cast<float>(info.channels);
    for (;;) {
        sf_count_t got = sf_readf_float(f, block.data(), kBlock);
        if (got <= 0) break;
        const std::size_t at = a.samples.size();
        a.samples.resize(at + static_cast<std::size_t>(got));
        float* out = a.samples.data() + at;
        for (sf_count_t i = 0; i < got; ++i) {
            float s = 0;
            for (int c = 0; c < info.channels; ++c) s += block[static_cast<std::size_t>(i) * info.channels + c];
            out[i] = s * scale;
        }
    }
    if (sf_error(f) != SF_ERR_NO_ERROR) throw AudioError(path + ": " + sf_strerror(f));
    for (float& s : a.samples)
        if (!std::isfinite(s)) s = 0;  // float files may hold anything
    return a;
}

std::vector<float> resample(const std::vector<float>& in, int from, int to) {
    if (from == to || in.empty()) return in;
    const double ratio = static_cast<double>(to) / from;
    std::vector<float> src(in.size());
    for (std::size_t i = 0; i < in.size(); ++i) src[i] = in[i] / 32768.0f;
    std::vector<float> out(static_cast<std::size_t>(std::ceil(in.size() * ratio)) + 16);
    SRC_DATA d{};
    d.data_in = src.data();
    d.input_frames = static_cast<long>(src.size());
    d.data_out = out.data();
    d.output_frames = static_cast<long>(out.size());
    d.src_ratio = ratio;
    int err = src_simple(&d, SRC_SINC_MEDIUM_QUALITY, 1);
    if (err) throw std::runtime_error(std::string("resampling failed: ") + src_strerror(err));
    out.resize(static_cast<std::size_t>(d.output_frames_gen));
    for (float& s : out) s *= 32768.0f;
    return out;
}

std::vector<float> readAt(const std::string& path, int rate) {
    Audio a = readAudio(path);
    return resample(a.samples, a.rate, rate);
}

void writeAudio(const std::string& path, const std::vector<float>& samples, int rate) {
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = 1;
    std::string ext = std::filesystem::path(path).extension().string();
    info.format = (ext == ".flac" ? SF_FORMAT_FLAC : SF_FORMAT_WAV) | SF_FORMAT_PCM_16;
    SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
    if (!f) throw std::runtime_error(path + ": " + sf_strerror(nullptr));
    std::vector<short> s(samples.size());
    for (std::size_t i = 0; i < s.size(); ++i)
        s[i] = static_cast<short>(std::clamp(std::nearbyint(double(samples[i])), -32768.0, 32767.0));
    sf_count_t put = sf_write_short(f, s.data(), static_cast<sf_count_t>(s.size()));
    sf_close(f);
    if (put != static_cast<sf_count_t>(s.size())) throw std::runtime_error(path + ": write failed");
}

}  // namespace kvx
