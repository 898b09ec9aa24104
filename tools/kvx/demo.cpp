// demo.cpp - `kvx demo`: enroll one voice of the shipped digit recordings,
// recognise the other voices as recorded and in changed copies made here
// (tempo, noise), print accuracy, a confusion table and timings, write a plot.
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>

#include "tool.h"

namespace kvx {

namespace fs = std::filesystem;

std::vector<float> changeTempo(const std::vector<float>& in, int rate, double tempo) {
    const int n = std::max(16, static_cast<int>(0.02 * rate));  // 20 ms frames
    const int hs = n / 2;                                        // output hop
    const int tol = std::max(1, static_cast<int>(0.005 * rate));  // +-5 ms search
    const double ha = hs * tempo;                                 // input hop
    if (in.size() < static_cast<std::size_t>(n + 2 * tol + hs) || !(tempo > 0)) return in;
    std::vector<float> w(n);
    for (int i = 0; i < n; ++i) w[i] = static_cast<float>(0.5 - 0.5 * std::cos(2 * M_PI * i / n));
    std::vector<float> out(static_cast<std::size_t>(in.size() / tempo) + 2 * n, 0.0f);
    long prev = 0;
    std::size_t written = 0;
    for (long k = 0;; ++k) {
        long nominal = std::lround(k * ha);
        long pos = nominal;
        if (k > 0) {
            // The shift whose segment looks most like the natural continuation
            // of the previous one.
            const long natural = prev + hs;
            double bestCorr = -1e300;
            for (long d = -tol; d <= tol; ++d) {
                long p = nominal + d;
                if (p < 0 || p + n > static_cast<long>(in.size())) continue;
                double c = 0;
                for (int i = 0; i < n; i += 2) c += double(in[p + i]) * in[natural + i];
                if (c > bestCorr) bestCorr = c, pos = p;
            }
        }
        if (pos + n > static_cast<long>(in.size()) || k * hs + n > static_cast<long>(out.size())) break;
        for (int i = 0; i < n; ++i) out[k * hs + i] += w[i] * in[pos + i];
        written = k * hs + n;
        prev = pos;
        if (pos + hs + n > static_cast<long>(in.size())) break;  // no continuation left
    }
    out.resize(written);
    return out;
}

namespace {

const char* const kWords[] = {"zero", "one", "two", "three", "four", "five", "six", "seven", "eight", "nine"};
constexpr int kWordCount = 10;

std::string findRecording(const fs::path& dir, const std::string& word) {
    for (const char* ext : {".flac", ".wav", ".ogg"}) {
        fs::path p = dir / (word + ext);
        std::error_code ec;
        if (fs::exists(p, ec)) return p.string();
    }
    throw UsageError((dir / word).string() + ".flac: no such recording");
}

// White noise at `snrDb` below the signal's mean power (fixed seed).
std::vector<float> addNoise(const std::vector<float>& x, double snrDb, std::uint32_t seed) {
    double p = 0;
    for (float v : x) p += double(v) * v;
    p /= std::max<std::size_t>(x.size(), 1);
    const double sd = std::sqrt(p / std::pow(10.0, snrDb / 10));
    std::vector<float> y(x.size());
    for (std::size_t i = 0; i < x.size(); ++i) {
        double u = 0;  // sum of 4 uniforms: nearly Gaussian, variance 1/3
        for (int k = 0; k < 4; ++k) {
            seed = seed * 1664525u + 1013904223u;
            u += (seed >> 8) / 16777216.0 - 0.5;
        }
        y[i] = static_cast<float>(x[i] + sd * u * std::sqrt(3.0));
    }
    return y;
}

struct Condition {
    const char* name;
    std::function<std::vector<float>(const std::vector<float>&, int, std::uint32_t)> apply;
};

}  // namespace

double runDemo(const DemoOptions& o) {
    using clock = std::chrono::steady_clock;
    const fs::path root(o.data);
    std::error_code ec;
    if (!fs::is_directory(root, ec)) throw UsageError(o.data + ": no such data folder");
    std::vector<std::string> voices;
    for (const auto& e : fs::directory_iterator(root, ec))
        if (e.is_directory()) voices.push_back(e.path().filename().string());
    std::sort(voices.begin(), voices.end());
    if (std::find(voices.begin(), voices.end(), o.enroll) == voices.end())
        throw UsageError(o.data + ": no voice \"" + o.enroll + "\"");
    std::vector<std::string> tests;
    for (const auto& v : voices)
        if (v != o.enroll) tests.push_back(v);
    if (tests.empty()) throw UsageError(o.data + ": no voice to test besides \"" + o.enroll + "\"");

    const int rate = o.features.rate;
    FrontEnd fe(o.features);
    Store store;
    store.features = o.features;
    for (const char* w : kWords) {
        std::string path = findRecording(root / o.enroll, w);
        Features f = featuresOf(fe, path);
        store.templates.push_back({w, path, f.rows, f.cols, std::move(f.values)});
    }
    Matcher matcher(store);

    const std::string noiseName = "noise " + std::to_string(static_cast<int>(std::lround(o.snr))) + " dB";
    const double snr = o.snr;
    const Condition conditions[] = {
        {"as recorded", [](const std::vector<float>& x, int, std::uint32_t) { return x; }},
        {"tempo 0.8", [](const std::vector<float>& x, int r, std::uint32_t) { return changeTempo(x, r, 0.8); }},
        {"tempo 1.25", [](const std::vector<float>& x, int r, std::uint32_t) { return changeTempo(x, r, 1.25); }},
        {"pitch +2 st",
         [](const std::vector<float>& x, int r, std::uint32_t) {
             // Played 12 % faster by resampling, then brought back to its length.
             const double f = std::pow(2.0, 2 / 12.0);
             return changeTempo(resample(x, r, static_cast<int>(std::lround(r / f))), r, 1 / f);
         }},
        {"gain -12 dB",
         [](const std::vector<float>& x, int, std::uint32_t) {
             std::vector<float> y(x);
             for (float& v : y) v *= 0.25f;
             return y;
         }},
        {noiseName.c_str(), [snr](const std::vector<float>& x, int, std::uint32_t s) { return addNoise(x, snr, s); }},
    };
    const int nCond = static_cast<int>(std::size(conditions));
    std::vector<std::vector<int>> confusion(kWordCount, std::vector<int>(kWordCount + 1, 0));
    std::vector<int> correct(nCond, 0), total(nCond, 0);
    double featSeconds = 0, matchSeconds = 0, audioSeconds = 0;
    std::vector<std::string> errors;
    std::vector<float> plotAudio;
    std::string plotName;
    Progress bar(static_cast<std::size_t>(nCond) * tests.size() * kWordCount, "demo");
    for (int c = 0; c < nCond; ++c)
        for (std::size_t v = 0; v < tests.size(); ++v)
            for (int w = 0; w < kWordCount; ++w) {
                std::string path = findRecording(root / tests[v], kWords[w]);
                bar.step(path);
                std::vector<float> x = conditions[c].apply(readAt(path, rate), rate, 1234567u + 1000u * v + w);
                auto t0 = clock::now();
                Features f = fe.compute(x.data(), x.size());
                auto t1 = clock::now();
                Match m = matcher.match(f, o.dtw);
                auto t2 = clock::now();
                featSeconds += std::chrono::duration<double>(t1 - t0).count();
                matchSeconds += std::chrono::duration<double>(t2 - t1).count();
                audioSeconds += static_cast<double>(x.size()) / rate;
                int got = kWordCount;
                for (int k = 0; k < kWordCount; ++k)
                    if (m.matched && m.best == kWords[k]) got = k;
                ++confusion[w][got];
                ++total[c];
                if (got == w) ++correct[c];
                else
                    errors.push_back(std::string(conditions[c].name) + ": " + tests[v] + "/" + kWords[w] + " -> " +
                                     (m.matched ? m.best : "(no match)"));
                if (plotAudio.empty() && c == 0 && w == 7) plotAudio = x, plotName = tests[v] + "/" + kWords[w];
            }
    int allCorrect = 0, all = 0;
    for (int c = 0; c < nCond; ++c) allCorrect += correct[c], all += total[c];
    const double accuracy = all ? static_cast<double>(allCorrect) / all : 0;
    const double msPer = all ? 1000 * (featSeconds + matchSeconds) / all : 0;

    // The plot: one test utterance against its own label.
    std::string plotNote;
    if (!o.plot.empty() && !plotAudio.empty()) {
        Features f = fe.compute(plotAudio.data(), plotAudio.size());
        const Template* t = &store.templates[7];
        writePlot(o.plot, plotName + " against \"seven\" (" + o.enroll + ")", plotAudio, o.features, &f, t, &o.dtw);
        plotNote = o.plot;
    }

    if (o.json) {
        nlohmann::json j;
        j["enrolled"] = o.enroll;
        j["tested"] = tests;
        j["accuracy"] = accuracy;
        j["correct"] = allCorrect;
        j["total"] = all;
        for (int c = 0; c < nCond; ++c)
            j["conditions"].push_back({{"name", conditions[c].name}, {"correct", correct[c]}, {"total", total[c]}});
        j["confusion"] = confusion;
        j["errors"] = errors;
        j["ms_per_utterance"] = msPer;
        j["plot"] = plotNote;
        std::printf("%s\n", j.dump(2).c_str());
        return accuracy;
    }
    std::printf("kvx demo: spoken digits, templates from voice %s, %d test utterances from", o.enroll.c_str(), all);
    for (const auto& t : tests) std::printf(" %s", t.c_str());
    std::printf("\n\n%-14s %9s %9s\n", "condition", "correct", "accuracy");
    for (int c = 0; c < nCond; ++c)
        std::printf("%-14s %5d/%-3d %8.1f%%\n", conditions[c].name, correct[c], total[c],
                    total[c] ? 100.0 * correct[c] / total[c] : 0.0);
    std::printf("%-14s %5d/%-3d %8.1f%%\n\n", "all", allCorrect, all, 100 * accuracy);
    std::printf("confusion (rows: spoken, columns: recognised)\n%-6s", "");
    for (int k = 0; k < kWordCount; ++k) std::printf("%6s", kWords[k]);
    std::printf("\n");
    for (int w = 0; w < kWordCount; ++w) {
        std::printf("%-6s", kWords[w]);
        for (int k = 0; k < kWordCount; ++k) {
            if (confusion[w][k]) std::printf("%6d", confusion[w][k]);
            else std::printf("%6s", ".");
        }
        if (confusion[w][kWordCount]) std::printf("  (%d unmatched)", confusion[w][kWordCount]);
        std::printf("\n");
    }
    if (!errors.empty()) {
        std::printf("\nerrors:\n");
        for (const auto& e : errors) std::printf("  %s\n", e.c_str());
    }
    std::printf("\ntime per utterance: %.3f ms (features %.3f ms, matching %.3f ms) for %.2f s of audio on average\n",
                msPer, all ? 1000 * featSeconds / all : 0.0, all ? 1000 * matchSeconds / all : 0.0,
                all ? audioSeconds / all : 0.0);
    if (!plotNote.empty()) std::printf("plot: %s (%s against the template \"seven\")\n", plotNote.c_str(), plotName.c_str());
    return accuracy;
}

}  // namespace kvx
