// audio.cpp - see audio.h.
#include "audio.h"

#include <samplerate.h>
#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <memory>

namespace kvx {

namespace {

constexpr std::size_t kBlock = 1 << 16;

// Streaming sample-rate conversion on the 16-bit scale.
class Resampler {
public:
    Resampler(int from, int to) : ratio_(static_cast<double>(to) / from) {
        int err = 0;
        state_ = src_new(SRC_SINC_MEDIUM_QUALITY, 1, &err);
        if (!state_) throw std::runtime_error(std::string("resampler: ") + src_strerror(err));
    }
    ~Resampler() { src_delete(state_); }
    Resampler(const Resampler&) = delete;
    Resampler& operator=(const Resampler&) = delete;

    // Converts n samples (the last block with last = true) and hands the
    // output to sink.
    template <class Sink>
    void process(const float* in, std::size_t n, bool last, Sink&& sink) {
        in_.resize(n);
        for (std::size_t i = 0; i < n; ++i) in_[i] = in[i] * (1.0f / 32768.0f);
        out_.resize(static_cast<std::size_t>(n * ratio_) + 1024);
        SRC_DATA d{};
        d.data_in = in_.data();
        d.input_frames = static_cast<long>(n);
        d.src_ratio = ratio_;
        d.end_of_input = last ? 1 : 0;
        for (;;) {
            d.data_out = out_.data();
            d.output_frames = static_cast<long>(out_.size());
            int err = src_process(state_, &d);
            if (err) throw std::runtime_error(std::string("resampling failed: ") + src_strerror(err));
            for (long i = 0; i < d.output_frames_gen; ++i) out_[i] *= 32768.0f;
            if (d.output_frames_gen > 0) sink(out_.data(), static_cast<std::size_t>(d.output_frames_gen));
            d.data_in += d.input_frames_used;
            d.input_frames -= d.input_frames_used;
            if (d.input_frames == 0 && (!last || d.output_frames_gen == 0)) break;
        }
    }

private:
    SRC_STATE* state_ = nullptr;
    double ratio_;
    std::vector<float> in_, out_;
};

}  // namespace

void streamAudio(const std::string& path, int rate, const std::function<void(const float*, std::size_t)>& sink) {
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
    std::unique_ptr<SNDFILE, int (*)(SNDFILE*)> closer(f, sf_close);
    if (info.channels < 1 || info.samplerate < 1) throw AudioError(path + ": no audio channels");
    sf_command(f, SFC_SET_NORM_FLOAT, nullptr, SF_TRUE);
    const int ch = info.channels;
    std::vector<float> block(kBlock * ch), mono(kBlock);
    std::unique_ptr<Resampler> rs;
    if (info.samplerate != rate) rs = std::make_unique<Resampler>(info.samplerate, rate);
    const float scale = 32768.0f / static_cast<float>(ch);
    for (;;) {
        const sf_count_t got = sf_readf_float(f, block.data(), static_cast<sf_count_t>(kBlock));
        const std::size_t n = got > 0 ? static_cast<std::size_t>(got) : 0;
        if (ch == 1) {
            for (std::size_t i = 0; i < n; ++i) mono[i] = block[i] * scale;
        } else {
            for (std::size_t i = 0; i < n; ++i) {
                float s = 0;
                for (int c = 0; c < ch; ++c) s += block[i * ch + c];
                mono[i] = s * scale;
            }
        }
        for (std::size_t i = 0; i < n; ++i)
            if (!std::isfinite(mono[i])) mono[i] = 0;  // float files may hold anything
        const bool last = n < kBlock;
        if (rs) rs->process(mono.data(), n, last, sink);
        else if (n) sink(mono.data(), n);
        if (last) break;
    }
    if (sf_error(f) != SF_ERR_NO_ERROR) throw AudioError(path + ": " + sf_strerror(f));
}

std::vector<float> readAt(const std::string& path, int rate) {
    std::vector<float> all;
    streamAudio(path, rate, [&](const float* p, std::size_t n) { all.insert(all.end(), p, p + n); });
    return all;
}

std::vector<float> resample(const std::vector<float>& in, int from, int to) {
    if (from == to || in.empty()) return in;
    std::vector<float> out;
    Resampler r(from, to);
    r.process(in.data(), in.size(), true, [&](const float* p, std::size_t n) { out.insert(out.end(), p, p + n); });
    return out;
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
