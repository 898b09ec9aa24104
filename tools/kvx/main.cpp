// main.cpp - the kvx command line: features, enroll, recognize, plot, demo.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <map>
#include <set>

#include "kvxpx.h"
#include "output.h"
#include "tool.h"

#ifndef KVX_DATA_DIR
#define KVX_DATA_DIR "data/digits"
#endif
#ifndef KVX_DATA_INSTALL
#define KVX_DATA_INSTALL KVX_DATA_DIR
#endif

namespace kvx {

bool g_quiet = false;

void complain(const std::string& message) { std::fprintf(stderr, "kvx: %s\n", message.c_str()); }

Progress::Progress(std::size_t total, const char* what)
    : total_(total), what_(what), on_(!g_quiet && total > 3 && isatty(2)) {}

Progress::~Progress() {
    if (on_) std::fprintf(stderr, "\r\033[K");
}

void Progress::step(const std::string& item) {
    ++done_;
    if (!on_) return;
    const int width = 30;
    int filled = static_cast<int>(width * done_ / std::max<std::size_t>(total_, 1));
    std::string bar(filled, '#');
    bar.append(width - filled, '.');
    std::string name = item.size() > 40 ? "..." + item.substr(item.size() - 37) : item;
    std::fprintf(stderr, "\r\033[K%s [%s] %zu/%zu %s", what_, bar.c_str(), done_, total_, name.c_str());
    std::fflush(stderr);
}

Features featuresOf(FrontEnd& fe, const std::string& path) {
    fe.begin();
    streamAudio(path, fe.options().rate, [&](const float* p, std::size_t n) { fe.feed(p, n); });
    try {
        return fe.end();
    } catch (const TooShort& e) {
        throw UsageError(path + ": " + e.what());
    }
}

}  // namespace kvx

using namespace kvx;

namespace {

// Library reports outside the places that collect them are shown as the
// tool's own messages.
int toolHandler(int code, const char* function, const char* condition, const char*, int) {
    if (code == QX_StsBackTrace || code == QX_StsAutoTrace) return code;
    complain(std::string("library: ") + (function ? function : "?") + ": " + (condition ? condition : "") + " (" +
             QXErrorStr(code) + ")");
    QXSetStatus(code);
    return code;
}

// "32ms", "0.032s", or a plain number of samples.
bool parseDuration(const std::string& text, double& ms, int& samples) {
    try {
        std::size_t used = 0;
        double v = std::stod(text, &used);
        std::string unit = text.substr(used);
        if (!std::isfinite(v) || v <= 0) return false;
        if (unit.empty()) {
            if (v != std::floor(v) || v > 1e6) return false;
            samples = static_cast<int>(v);
            return true;
        }
        if (unit == "ms") ms = v;
        else if (unit == "s") ms = v * 1000;
        else return false;
        samples = 0;
        return ms <= 1e6;
    } catch (...) {
        return false;
    }
}

// The feature options on a subcommand, and which of them were given.
struct FeatureFlags {
    FeatureOptions o;
    std::string frame = "32ms", hop = "10ms", window = "hamming";
    std::vector<CLI::Option*> given;

    void add(CLI::App* app) {
        const char* g = "Feature options";
        given = {
            app->add_option("--rate", o.rate, "Analysis rate in Hz; files at other rates are resampled")
                ->capture_default_str()->group(g),
            app->add_option("--frame", frame, "Frame length: 32ms, 0.032s or 512 (samples); FFT is the next power of 2")
                ->capture_default_str()->group(g),
            app->add_option("--hop", hop, "Frame advance: 10ms, 0.01s or 160 (samples)")->capture_default_str()->group(g),
            app->add_option("--preemph", o.preemph, "Pre-emphasis coefficient (0 = none)")->capture_default_str()->group(g),
            app->add_option("--window", window, "Window: hamming, hanning, bartlett, blackman or rect")
                ->capture_default_str()->group(g),
            app->add_option("--bands", o.bands, "Filter-bank bands")->capture_default_str()->group(g),
            app->add_option("--low", o.low, "Lowest band edge in Hz")->capture_default_str()->group(g),
            app->add_option("--high", o.high, "Highest band edge in Hz (at most half the rate)")
                ->capture_default_str()->group(g),
            app->add_option("--linear", o.linear, "Linearly spaced bands at the bottom of the bank (0 = all mel)")
                ->capture_default_str()->group(g),
            app->add_option("--linear-end", o.linearEnd, "Upper edge of the linear bands in Hz")
                ->capture_default_str()->group(g),
            app->add_option("--ceps", o.ceps, "Cepstral coefficients per frame, c0 first")->capture_default_str()->group(g),
            app->add_flag("--fixed-point", o.fixedPoint,
                          "Use the 16-bit path (each stage picks its scale factor; values are written unscaled)")
                ->group(g),
            app->add_flag("--cmn", o.cmn, "Remove each coefficient's mean over the file")->group(g),
            app->add_option("--energy-floor", o.energyFloorDb,
                            "Drop frames more than this many dB below the loudest frame (0 = keep all)")
                ->capture_default_str()->group(g),
        };
    }
    bool any() const {
        return std::any_of(given.begin(), given.end(), [](CLI::Option* p) { return p->count() > 0; });
    }
    // The options as given on the command line over `base`.
    FeatureOptions resolve(const FeatureOptions& base) const {
        FeatureOptions r = base;
        auto set = [&](int i) { return given[i]->count() > 0; };
        if (set(0)) r.rate = o.rate;
        if (set(1) && !parseDuration(frame, r.frameMs, r.frameSamples))
            throw UsageError("--frame: \"" + frame + "\" is not a duration (use 32ms, 0.032s or 512)");
        if (set(2) && !parseDuration(hop, r.hopMs, r.hopSamples))
            throw UsageError("--hop: \"" + hop + "\" is not a duration (use 10ms, 0.01s or 160)");
        if (set(3)) r.preemph = o.preemph;
        if (set(4) && !parseWindow(window, r.window))
            throw UsageError("--window: unknown window \"" + window + "\" (hamming, hanning, bartlett, blackman, rect)");
        if (set(5)) r.bands = o.bands;
        if (set(6)) r.low = o.low;
        if (set(7)) r.high = o.high;
        if (set(8)) r.linear = o.linear;
        if (set(9)) r.linearEnd = o.linearEnd;
        if (set(10)) r.ceps = o.ceps;
        if (set(11)) r.fixedPoint = o.fixedPoint;
        if (set(12)) r.cmn = o.cmn;
        if (set(13)) r.energyFloorDb = o.energyFloorDb;
        std::string bad = checkOptions(r);
        if (!bad.empty()) throw UsageError(bad);
        return r;
    }
};

struct DtwFlags {
    std::string metric = "cityblock", ends = "relaxed";
    DtwOptions o;
    void add(CLI::App* app) {
        const char* g = "Matching options";
        app->add_option("--metric", metric, "Local distance: cityblock (L1) or euclidean (L2)")
            ->capture_default_str()->group(g);
        app->add_option("--ends", ends, "End points: fixed, or relaxed (the path may start and end --range frames in)")
            ->capture_default_str()->group(g);
        app->add_option("--range", o.range, "Slack in frames at each end with --ends relaxed")
            ->capture_default_str()->group(g);
        app->add_option("--prune", o.prune,
                        "Pruning threshold per test frame: a template whose running score passes it is dropped "
                        "(0 = no pruning)")
            ->capture_default_str()->group(g);
    }
    DtwOptions resolve() const {
        DtwOptions r = o;
        if (metric == "cityblock" || metric == "l1") r.euclidean = false;
        else if (metric == "euclidean" || metric == "l2") r.euclidean = true;
        else throw UsageError("--metric: unknown metric \"" + metric + "\" (cityblock or euclidean)");
        if (ends == "fixed") r.relaxed = false;
        else if (ends == "relaxed") r.relaxed = true;
        else throw UsageError("--ends: \"" + ends + "\" is neither fixed nor relaxed");
        if (r.range < 0 || r.range > 1000) throw UsageError("--range must be 0..1000 frames");
        if (!(r.prune >= 0) || !std::isfinite(r.prune)) throw UsageError("--prune must be 0 or more");
        return r;
    }
};

// ---------------------------------------------------------------------------

int cmdFeatures(const std::vector<std::string>& files, const std::string& outArg, const std::string& formatName,
                const FeatureOptions& fo) {
    FeatureFormat fmt;
    if (!parseFormat(formatName, fmt)) throw UsageError("--format: unknown format \"" + formatName + "\" (csv, npy, htk)");
    const bool toStdout = outArg == "-";
    if (toStdout && files.size() > 1 && fmt != FeatureFormat::Csv)
        throw UsageError("-o - writes one binary file only; give one input or use --format csv");
    std::error_code ec;
    if (!toStdout && !std::filesystem::is_directory(outArg, ec))
        throw UsageError(outArg + ": no such output directory");
    // Output names, checked before any work.
    std::vector<std::string> outs;
    std::map<std::string, std::string> seen;
    for (const auto& f : files) {
        std::string out = toStdout ? "-"
                                   : (std::filesystem::path(outArg) /
                                      (std::filesystem::path(f).stem().string() + formatExtension(fmt)))
                                         .string();
        if (!toStdout) {
            auto [it, fresh] = seen.emplace(out, f);
            if (!fresh) throw UsageError(f + " and " + it->second + " would both be written to " + out);
        }
        outs.push_back(out);
    }
    FrontEnd fe(fo);
    int status = 0;
    long frames = 0, zero = 0, dropped = 0, written = 0;
    Progress bar(files.size(), "features");
    for (std::size_t i = 0; i < files.size(); ++i) {
        bar.step(files[i]);
        try {
            Features f = featuresOf(fe, files[i]);
            if (toStdout && files.size() > 1) std::printf("# %s\n", files[i].c_str());
            AtomicFile out(outs[i]);
            writeFeatures(out, f, fmt, fo);
            out.commit();
            frames += f.rows;
            zero += f.stats.zeroEnergy;
            dropped += f.stats.dropped;
            ++written;
        } catch (const UsageError& e) {
            complain(e.what());
            status = std::max(status, kExitInput);
        } catch (const AudioError& e) {
            complain(e.what());
            status = std::max(status, kExitInput);
        } catch (const std::exception& e) {
            complain(files[i] + ": " + e.what());
            status = std::max(status, kExitProcessing);
        }
    }
    if (!g_quiet && !toStdout)
        std::fprintf(stderr, "kvx: %ld of %zu files, %ld frames written (%ld with no energy floored, %ld dropped)\n",
                     written, files.size(), frames, zero, dropped);
    return status;
}

std::pair<std::string, std::string> splitPair(const std::string& arg) {
    auto eq = arg.find('=');
    if (eq == std::string::npos || eq == 0)
        throw UsageError("\"" + arg + "\": expected LABEL=AUDIO");
    std::string label = arg.substr(0, eq), audio = arg.substr(eq + 1);
    if (audio.empty()) throw UsageError("label \"" + label + "\" has no audio (expected LABEL=AUDIO)");
    return {label, audio};
}

int cmdEnroll(const std::string& storePath, const std::vector<std::string>& pairs, const FeatureFlags& ff) {
    std::vector<std::pair<std::string, std::string>> items;
    for (const auto& p : pairs) items.push_back(splitPair(p));
    Store store;
    std::error_code ec;
    const bool exists = std::filesystem::exists(storePath, ec);
    if (exists) {
        store = loadStore(storePath);
        FeatureOptions asked = ff.resolve(store.features);
        nlohmann::json a = optionsToJson(asked), s = optionsToJson(store.features);
        for (auto it = s.begin(); it != s.end(); ++it)
            if (a[it.key()] != it.value())
                throw UsageError(storePath + ": the store was made with other feature settings (" + it.key() + " " +
                                 it.value().dump() + ", asked " + a[it.key()].dump() + ")");
    } else {
        store.features = ff.resolve(FeatureOptions{});
    }
    FrontEnd fe(store.features);
    Progress bar(items.size(), "enroll");
    for (const auto& [label, audio] : items) {
        bar.step(audio);
        Features f = featuresOf(fe, audio);  // any failure leaves the store as it was
        if (f.rows == 0) throw UsageError(audio + ": no frames left after the energy floor");
        Template t;
        t.label = label;
        t.source = audio;
        t.rows = f.rows;
        t.cols = f.cols;
        t.values = std::move(f.values);
        store.templates.push_back(std::move(t));
    }
    saveStore(storePath, store);
    if (!g_quiet)
        std::fprintf(stderr, "kvx: %s: %zu templates of %zu labels\n", storePath.c_str(), store.templates.size(),
                     store.labels().size());
    return 0;
}

int cmdRecognize(const std::string& storePath, const std::vector<std::string>& files, const DtwOptions& dtw,
                 bool json) {
    Store store = loadStore(storePath);
    if (store.templates.empty()) throw UsageError(storePath + ": the store holds no templates");
    FrontEnd fe(store.features);
    Matcher matcher(store);
    int status = 0;
    nlohmann::json rows = nlohmann::json::array();
    std::size_t width = 4;
    for (const auto& f : files) width = std::max(width, f.size());
    if (!json)
        std::printf("%-*s  %-10s %10s  %-10s %10s %9s\n", static_cast<int>(width), "file", "best", "score",
                    "runner-up", "score", "margin");
    Progress bar(files.size(), "recognize");
    for (const auto& file : files) {
        bar.step(file);
        try {
            Features t = featuresOf(fe, file);
            Match m = matcher.match(t, dtw);
            if (json) {
                nlohmann::json r{{"file", file}, {"frames", t.rows}};
                if (m.matched) {
                    r["best"] = m.best;
                    r["score"] = m.bestScore;
                    if (!m.second.empty()) {
                        r["runner_up"] = m.second;
                        r["runner_up_score"] = m.secondScore;
                        r["margin"] = m.margin();
                    }
                } else {
                    r["best"] = nullptr;
                }
                rows.push_back(r);
            } else if (!m.matched) {
                std::printf("%-*s  %-10s\n", static_cast<int>(width), file.c_str(), "(no match)");
            } else if (m.second.empty()) {
                std::printf("%-*s  %-10s %10.3f\n", static_cast<int>(width), file.c_str(), m.best.c_str(), m.bestScore);
            } else {
                std::printf("%-*s  %-10s %10.3f  %-10s %10.3f %9.3f\n", static_cast<int>(width), file.c_str(),
                            m.best.c_str(), m.bestScore, m.second.c_str(), m.secondScore, m.margin());
            }
        } catch (const UsageError& e) {
            complain(e.what());
            status = std::max(status, kExitInput);
            if (json) rows.push_back({{"file", file}, {"error", e.what()}});
        } catch (const AudioError& e) {
            complain(e.what());
            status = std::max(status, kExitInput);
            if (json) rows.push_back({{"file", file}, {"error", e.what()}});
        }
    }
    if (json) std::printf("%s\n", rows.dump(2).c_str());
    return status;
}

int cmdPlot(const std::string& audio, const std::string& out, const std::string& against, const std::string& storePath,
            const FeatureFlags& ff, const DtwOptions& dtw) {
    if (!against.empty() && storePath.empty()) throw UsageError("--against needs --store");
    if (std::filesystem::path(out).extension() != ".png") throw UsageError(out + ": the plot is a PNG; name it *.png");
    if (against.empty()) {
        FeatureOptions fo = ff.resolve(FeatureOptions{});
        std::vector<float> x = readAt(audio, fo.rate);
        writePlot(out, std::filesystem::path(audio).filename().string(), x, fo);
        return 0;
    }
    if (ff.any()) throw UsageError("with --store the feature settings come from the store; drop the feature options");
    Store store = loadStore(storePath);
    FrontEnd fe(store.features);
    std::vector<float> x = readAt(audio, store.features.rate);
    Features t = fe.compute(x.data(), x.size());
    // The label's template that matches best.
    const Template* best = nullptr;
    double bestScore = 0;
    for (const auto& tp : store.templates) {
        if (tp.label != against) continue;
        double s;
        if (warpPath(t, tp, dtw, &s).empty()) continue;
        if (!best || s < bestScore) best = &tp, bestScore = s;
    }
    if (!best) {
        auto labels = store.labels();
        if (std::find(labels.begin(), labels.end(), against) == labels.end())
            throw UsageError(storePath + ": no label \"" + against + "\"");
        throw UsageError(audio + ": too long or too short for every template of \"" + against + "\"");
    }
    writePlot(out, std::filesystem::path(audio).filename().string() + " against \"" + against + "\"", x,
              store.features, &t, best, &dtw);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    QXRedirectError(toolHandler);
    CLI::App app{
        "kvx - speech features and isolated-word recognition with the kvxpx library.\n"
        "Exit status: 0 success, 1 processing error, 2 bad usage or input (missing, unreadable or too short audio,\n"
        "bad store). Outputs are written under a temporary name and renamed, so a failed run leaves no partial file."};
    app.set_help_all_flag("--help-all", "Help for every subcommand");
    app.require_subcommand(1);
    app.add_flag("-q,--quiet", g_quiet, "No progress bar and no summaries on standard error");
    app.fallthrough();

    // features
    auto* feat = app.add_subcommand("features", "Audio files to cepstral feature files (CSV, NumPy .npy or HTK)");
    std::vector<std::string> featFiles;
    std::string featOut = ".", featFormat = "csv";
    FeatureFlags featFlags;
    feat->add_option("files", featFiles, "Audio files (WAV, FLAC, Ogg, ... anything libsndfile reads)")->required();
    feat->add_option("-o,--output", featOut, "Output directory, or - for standard output")->capture_default_str();
    feat->add_option("--format", featFormat, "csv, npy or htk (HTK kind MFCC_0: c1..cN then c0)")
        ->capture_default_str();
    featFlags.add(feat);
    feat->footer(
        "Audio is mixed to mono and resampled to --rate. Each frame is pre-emphasised, windowed and turned into\n"
        "--ceps mel cepstra (c0 first). A frame with no energy (digital silence) would give log(0): its bins are\n"
        "floored at magnitude 1 (one 16-bit step) before the cepstrum, so no NaN or infinity is ever written; with\n"
        "--fixed-point the library's \"Unscalable range\" reports on such frames are absorbed the same way. The\n"
        "count of such frames is in the summary. Output: one file per input, <stem>.csv|.npy|.htk in the output\n"
        "directory.");

    // enroll
    auto* enr = app.add_subcommand("enroll", "Add templates LABEL=AUDIO to a template store (made if absent)");
    std::string enrStore;
    std::vector<std::string> enrPairs;
    FeatureFlags enrFlags;
    enr->add_option("--store", enrStore, "Store file (JSON); re-enrolling a label adds a template")->required();
    enr->add_option("pairs", enrPairs, "LABEL=AUDIO pairs")->required();
    enrFlags.add(enr);
    enr->footer(
        "A new store keeps the feature options given here; enrolling into an existing store takes its settings\n"
        "and refuses options that differ from them. The store is replaced only when every file was enrolled.");

    // recognize
    auto* rec = app.add_subcommand("recognize", "Best label per audio file, with score, runner-up and margin");
    std::string recStore;
    std::vector<std::string> recFiles;
    bool recJson = false;
    DtwFlags recDtw;
    rec->add_option("--store", recStore, "Store file made by kvx enroll")->required();
    rec->add_option("files", recFiles, "Audio files")->required();
    rec->add_flag("--json", recJson, "Print JSON instead of a table");
    recDtw.add(rec);
    rec->footer(
        "Features are computed with the store's settings. Each file is matched against every template by dynamic\n"
        "time warping; a label scores as its best template. Scores are summed local distances per test frame\n"
        "(lower is better); margin = runner-up score - best score.");

    // plot
    auto* plt = app.add_subcommand("plot", "PNG of waveform and spectrogram; with a template also the DTW grid");
    std::string pltAudio, pltOut, pltAgainst, pltStore;
    FeatureFlags pltFlags;
    DtwFlags pltDtw;
    plt->add_option("audio", pltAudio, "Audio file")->required();
    plt->add_option("-o,--output", pltOut, "PNG file to write")->required();
    plt->add_option("--against", pltAgainst, "Label whose best template is matched (needs --store)");
    plt->add_option("--store", pltStore, "Store file");
    pltFlags.add(plt);
    pltDtw.add(plt);

    // demo
    auto* dem = app.add_subcommand("demo", "Enroll one voice of the shipped digits, recognise the rest, print accuracy");
    DemoOptions demo;
    std::error_code ec;
    demo.data = std::filesystem::is_directory(KVX_DATA_DIR, ec) ? KVX_DATA_DIR : KVX_DATA_INSTALL;
    demo.enroll = "en-us";
    demo.plot = "kvx-demo.png";
    DtwFlags demDtw;
    FeatureFlags demFlags;
    dem->add_option("--data", demo.data, "Folder with one subfolder of zero..nine recordings per voice")
        ->capture_default_str();
    dem->add_option("--enroll", demo.enroll, "Voice (subfolder) to enroll")->capture_default_str();
    dem->add_option("--plot", demo.plot, "PNG to write at the end")->capture_default_str();
    dem->add_flag("--json", demo.json, "Print the results as JSON");
    demo.snr = 30;
    dem->add_option("--snr", demo.snr, "Signal-to-noise ratio of the noisy copies in dB")->capture_default_str();
    demDtw.add(dem);
    demFlags.add(dem);
    dem->footer(
        "Tests: the other voices as recorded, slowed to 0.8 and sped to 1.25 of their tempo (pitch kept), two\n"
        "semitones higher (length kept), 12 dB quieter, and with white noise (--snr). Feature defaults here:\n"
        "--cmn --energy-floor 30 --high 5000 (the synthetic voices carry little above 5 kHz, where white noise\n"
        "would dominate); matching: city-block, relaxed ends, range 3.");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        int rc = app.exit(e);
        return rc == 0 ? 0 : kExitInput;
    }

    try {
        if (*feat) return cmdFeatures(featFiles, featOut, featFormat, featFlags.resolve(FeatureOptions{}));
        if (*enr) return cmdEnroll(enrStore, enrPairs, enrFlags);
        if (*rec) return cmdRecognize(recStore, recFiles, recDtw.resolve(), recJson);
        if (*plt) return cmdPlot(pltAudio, pltOut, pltAgainst, pltStore, pltFlags, pltDtw.resolve());
        if (*dem) {
            demo.dtw = demDtw.resolve();
            FeatureOptions base;
            base.cmn = true;
            base.energyFloorDb = 30;
            base.high = 5000;
            demo.features = demFlags.resolve(base);
            runDemo(demo);
            return 0;
        }
    } catch (const UsageError& e) {
        complain(e.what());
        return kExitInput;
    } catch (const AudioError& e) {
        complain(e.what());
        return kExitInput;
    } catch (const StoreError& e) {
        complain(e.what());
        return kExitInput;
    } catch (const std::invalid_argument& e) {
        complain(e.what());
        return kExitInput;
    } catch (const std::exception& e) {
        complain(e.what());
        return kExitProcessing;
    }
    return 0;
}
