// `kvx features` on one hour of 16 kHz speech (the shipped digit recordings
// repeated), side by side with Debian's sphinx_fe on the same WAV file.
//
// Settings, as close as the two allow: 32 ms frames (512 samples, 512-point
// FFT), 10 ms hop, pre-emphasis 0.97, Hamming window, 24 mel bands over
// 133..8000 Hz, 13 cepstra, binary output (kvx: HTK file; sphinx_fe: its own
// feature file). sphinx_fe runs with dithering, DC removal, noise and silence
// removal switched off. Both are run as programs, file in, file out.
//
// Counters: xRealTime = seconds of audio per second of wall time, and
// cpu_xRealTime = per second of the child's CPU time (user + system), the
// figure for one core on a machine shared with other work. At the end the
// ratio kvx / sphinx_fe of the CPU figure is printed.
// The in-process rows time kvx's feature component alone (no file I/O).
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>

#include "audio.h"
#include "frontend.h"

namespace fs = std::filesystem;

namespace {

constexpr double kSeconds = 3600;
std::map<std::string, double> g_cpuRtf;

const fs::path& workDir() {
    static const fs::path d = [] {
        fs::path p = fs::temp_directory_path() / "kvx-bench-features";
        fs::create_directories(p);
        return p;
    }();
    return d;
}

const std::vector<float>& hour() {
    static const std::vector<float> h = [] {
        std::vector<std::string> files;
        for (const auto& e : fs::recursive_directory_iterator(KVX_DATA))
            if (e.path().extension() == ".flac") files.push_back(e.path().string());
        std::sort(files.begin(), files.end());
        std::vector<float> all;
        for (const auto& f : files) {
            auto x = kvx::readAt(f, 16000);
            all.insert(all.end(), x.begin(), x.end());
        }
        std::vector<float> out;
        const std::size_t n = static_cast<std::size_t>(kSeconds * 16000);
        out.reserve(n);
        while (out.size() < n) out.insert(out.end(), all.begin(), all.begin() + std::min(all.size(), n - out.size()));
        return out;
    }();
    return h;
}

const std::string& hourWav() {
    static const std::string p = [] {
        std::string f = (workDir() / "hour.wav").string();
        kvx::writeAudio(f, hour(), 16000);
        return f;
    }();
    return p;
}

double childCpu() {
    rusage u{};
    getrusage(RUSAGE_CHILDREN, &u);
    return u.ru_utime.tv_sec + u.ru_utime.tv_usec * 1e-6 + u.ru_stime.tv_sec + u.ru_stime.tv_usec * 1e-6;
}

void runProgram(benchmark::State& state, const std::string& name, const std::string& cmd) {
    hourWav();
    double cpu = 0;
    for (auto _ : state) {
        double c0 = childCpu();
        int rc = std::system(cmd.c_str());
        cpu += childCpu() - c0;
        if (!WIFEXITED(rc) || WEXITSTATUS(rc) != 0) {
            state.SkipWithError(("failed: " + cmd).c_str());
            return;
        }
    }
    state.counters["xRealTime"] = benchmark::Counter(kSeconds, benchmark::Counter::kIsIterationInvariantRate);
    state.counters["cpu_xRealTime"] = benchmark::Counter(kSeconds * state.iterations() / cpu);
    g_cpuRtf[name] = kSeconds * state.iterations() / cpu;
}

void KvxFeatures(benchmark::State& state) {
    const std::string out = (workDir() / "kvx").string();
    fs::create_directories(out);
    runProgram(state, "kvx", "'" KVX_EXE "' -q features --format htk -o '" + out + "' '" + hourWav() + "'");
}

void KvxFeaturesFixedPoint(benchmark::State& state) {
    const std::string out = (workDir() / "kvx").string();
    fs::create_directories(out);
    runProgram(state, "kvx --fixed-point",
               "'" KVX_EXE "' -q features --fixed-point --format htk -o '" + out + "' '" + hourWav() + "'");
}

void SphinxFe(benchmark::State& state) {
    if (std::system("command -v sphinx_fe >/dev/null 2>&1") != 0) {
        state.SkipWithError("sphinx_fe not installed (Debian package sphinxbase-utils)");
        return;
    }
    runProgram(state, "sphinx_fe",
               "sphinx_fe -i '" + hourWav() + "' -o '" + (workDir() / "hour.mfc").string() +
                   "' -mswav yes -samprate 16000 -wlen 0.032 -nfft 512 -frate 100 -alpha 0.97 -nfilt 24"
                   " -lowerf 133.33334 -upperf 8000 -ncep 13 -transform dct -dither no -remove_dc no"
                   " -remove_noise no -remove_silence no >/dev/null 2>&1");
}

void FrontEndInProcess(benchmark::State& state) {
    const auto& x = hour();
    kvx::FeatureOptions o;
    o.fixedPoint = state.range(0) != 0;
    kvx::FrontEnd fe(o);
    for (auto _ : state) benchmark::DoNotOptimize(fe.compute(x.data(), x.size()));
    state.counters["xRealTime"] = benchmark::Counter(kSeconds, benchmark::Counter::kIsIterationInvariantRate);
    state.SetLabel(o.fixedPoint ? "16-bit path" : "float path");
}

BENCHMARK(KvxFeatures)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(SphinxFe)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(KvxFeaturesFixedPoint)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(FrontEndInProcess)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    if (g_cpuRtf.count("kvx") && g_cpuRtf.count("sphinx_fe"))
        std::printf("\nkvx features: %.0fx real time per CPU second, sphinx_fe: %.0fx; kvx / sphinx_fe = %.2f\n",
                    g_cpuRtf["kvx"], g_cpuRtf["sphinx_fe"], g_cpuRtf["kvx"] / g_cpuRtf["sphinx_fe"]);
    fs::remove_all(workDir());
    return 0;
}
