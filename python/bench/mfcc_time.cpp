// mfcc_time - the C++ side of bench_mfcc.py: times the front end of
// `kvx features` (kvx_frontend, default options) on raw 16-bit samples, with
// no Python anywhere, so the script can tell the binding's own cost.
// Usage: kvx_mfcc_time <raw int16 file> <rounds> [chunk samples]
// Prints one line per round: seconds and frames.
#include <chrono>
#include <cstdio>
#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <vector>

#include "frontend.h"

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s <raw int16 file> <rounds> [chunk samples]\n", argv[0]);
        return 2;
    }
    std::ifstream in(argv[1], std::ios::binary | std::ios::ate);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", argv[1]);
        return 1;
    }
    std::vector<short> samples(static_cast<std::size_t>(in.tellg()) / sizeof(short));
    in.seekg(0);
    in.read(reinterpret_cast<char*>(samples.data()), static_cast<std::streamsize>(samples.size() * sizeof(short)));
    const int rounds = std::atoi(argv[2]);
    const std::size_t chunk = argc > 3 ? std::strtoul(argv[3], nullptr, 10) : samples.size();
    kvx::FrontEnd fe{kvx::FeatureOptions{}};
    // Warm up as the Python side is (tables built, pages touched) before timing.
    fe.compute(samples.data(), std::min(samples.size(), chunk));
    for (int r = 0; r < rounds; ++r) {
        long frames = 0;
        auto t0 = std::chrono::steady_clock::now();
        for (std::size_t at = 0; at + chunk <= samples.size(); at += chunk) frames += fe.compute(samples.data() + at, chunk).rows;
        double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        std::printf("%.6f %ld\n", s, frames);
    }
    return 0;
}
