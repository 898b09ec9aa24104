// One full front-end frame: pre-emphasis (0.97), Hamming window and mel
// cepstrum of 512 samples at 16 kHz, 24 bands over 0..8000 Hz, 13 coefficients.
//
// Peers doing the same job in this binary:
// - sphinxbase's front end (fe_process_frames): 512-sample window (-wlen 0.032)
//   and 512-point FFT, -alpha 0.97, -nfilt 24, -lowerf 0, -upperf 8000,
//   -ncep 13, -transform dct; dithering, DC removal, noise and silence removal
//   switched off. It takes the log after the band sums (ours is per bin), and
//   reads 16-bit samples, so it is set against both our float and short paths.
//   Frames advance by 160 samples (-frate 100); its per-frame work covers the
//   whole 512-sample window like ours.
// - aubio: pre-emphasis with its filter object (feed-forward 1, -0.97), the
//   Hamming window from new_aubio_window, aubio_fft_do, then aubio_mfcc_do with
//   24 mel bands over 0..8000 Hz and 13 coefficients.
// Each counts frames per second ("frames/s"); the ratios are read from the
// table (ours divided by a peer's, above 1 means we are faster).
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "kvxpx.h"

#ifdef KVX_HAVE_SPHINXBASE
#include <sphinxbase/err.h>
#include <sphinxbase/fe.h>
#endif
#ifdef KVX_HAVE_AUBIO
#include <aubio/aubio.h>
#endif

namespace {

constexpr int kOrder = 9;
constexpr int kFrame = 1 << kOrder;
constexpr int kRate = 16000;
constexpr int kBands = 24;
constexpr int kCeps = 13;
constexpr int kShift = 160;
constexpr int kFramesPerBlock = 100;
constexpr int kBlock = kShift * (kFramesPerBlock - 1) + kFrame;  // exactly 100 frames

const std::vector<short>& speechlike() {
    static const std::vector<short> s = [] {
        std::vector<short> v(kBlock);
        std::uint32_t seed = 12345;
        for (int i = 0; i < kBlock; ++i) {
            seed = seed * 1664525u + 1013904223u;
            double noise = static_cast<double>(seed >> 8) / 16777216.0 - 0.5;
            double x = 6000 * std::sin(0.05 * i) * (1 + 0.5 * std::sin(0.001 * i)) + 2500 * std::sin(0.61 * i) +
                       900 * std::sin(1.9 * i) + 400 * noise;
            v[i] = static_cast<short>(x);
        }
        return v;
    }();
    return s;
}

void count_frames(benchmark::State& state, std::int64_t frames) {
    state.SetItemsProcessed(frames);
    state.counters["frames/s"] = benchmark::Counter(static_cast<double>(frames), benchmark::Counter::kIsRate);
}

void BM_FrontEnd_kvxpx_float(benchmark::State& state) {
    const auto& speech = speechlike();
    std::vector<float> samples(speech.begin(), speech.end());
    QXMFCCFilters* bank = QXsMFCCInit(kOrder, kBands, 0, kRate / 2, kRate, 0, 0, 0);
    std::vector<float> frame(kFrame), ceps(kCeps);
    std::int64_t frames = 0;
    for (auto _ : state) {
        for (int f = 0; f < kFramesPerBlock; ++f) {
            std::memcpy(frame.data(), samples.data() + f * kShift, sizeof(float) * kFrame);
            QXsPreemphasize(frame.data(), 0.97f, kFrame);
            QXsWinHamming(frame.data(), kFrame);
            QXsCepstralMFCC(1, frame.data(), bank, ceps.data(), kCeps);
            benchmark::DoNotOptimize(ceps.data());
        }
        frames += kFramesPerBlock;
    }
    if (QXGetStatus() < 0)
        state.SkipWithError("library reported an error");
    QXsFreeMFCCFilters(bank);
    count_frames(state, frames);
}
BENCHMARK(BM_FrontEnd_kvxpx_float);

void BM_FrontEnd_kvxpx_short(benchmark::State& state) {
    const auto& speech = speechlike();
    QXMFCCFilters* bank = QXwMFCCInit(kOrder, kBands, 0, kRate / 2, kRate, 0, 0, 0);
    std::vector<short> frame(kFrame), ceps(kCeps);
    std::int64_t frames = 0;
    int sf = 0;
    for (auto _ : state) {
        for (int f = 0; f < kFramesPerBlock; ++f) {
            std::memcpy(frame.data(), speech.data() + f * kShift, sizeof(short) * kFrame);
            sf = 0;
            QXwPreemphasize(frame.data(), 0.97f, kFrame, 3, &sf);
            QXwWinHamming(frame.data(), kFrame, 3, &sf);
            QXwCepstralMFCC(1, frame.data(), bank, ceps.data(), kCeps, 2, &sf);
            benchmark::DoNotOptimize(ceps.data());
        }
        frames += kFramesPerBlock;
    }
    if (QXGetStatus() < 0)
        state.SkipWithError("library reported an error");
    QXwFreeMFCCFilters(bank);
    count_frames(state, frames);
}
BENCHMARK(BM_FrontEnd_kvxpx_short);

#ifdef KVX_HAVE_SPHINXBASE
void BM_FrontEnd_sphinxbase(benchmark::State& state) {
    err_set_logfp(nullptr);
    cmd_ln_t* config = cmd_ln_init(nullptr, fe_get_args(), TRUE, "-samprate", "16000", "-frate", "100", "-wlen",
                                   "0.032", "-nfft", "512", "-nfilt", "24", "-lowerf", "0", "-upperf", "8000",
                                   "-ncep", "13", "-alpha", "0.97", "-transform", "dct", "-dither", "no",
                                   "-remove_dc", "no", "-remove_noise", "no", "-remove_silence", "no", nullptr);
    fe_t* fe = config ? fe_init_auto_r(config) : nullptr;
    if (fe == nullptr) {
        state.SkipWithError("sphinxbase front end not available");
        return;
    }
    const auto& speech = speechlike();
    std::vector<mfcc_t> store(static_cast<std::size_t>(kFramesPerBlock + 2) * kCeps);
    std::vector<mfcc_t*> rows(kFramesPerBlock + 2);
    for (std::size_t i = 0; i < rows.size(); ++i)
        rows[i] = store.data() + i * kCeps;
    std::int64_t frames = 0;
    for (auto _ : state) {
        fe_start_utt(fe);
        const int16* p = speech.data();
        std::size_t left = speech.size();
        int32 n = static_cast<int32>(rows.size());
        fe_process_frames(fe, &p, &left, rows.data(), &n, nullptr);
        frames += n;
        int32 tail = 0;
        fe_end_utt(fe, rows[0], &tail);  // no partial frame is left over
        benchmark::DoNotOptimize(store.data());
    }
    fe_free(fe);
    cmd_ln_free_r(config);
    count_frames(state, frames);
}
BENCHMARK(BM_FrontEnd_sphinxbase);
#endif

#ifdef KVX_HAVE_AUBIO
void BM_FrontEnd_aubio(benchmark::State& state) {
    const auto& speech = speechlike();
    std::vector<float> samples(speech.begin(), speech.end());
    aubio_filter_t* pre = new_aubio_filter(2);
    lvec_t* ff = aubio_filter_get_feedforward(pre);
    lvec_t* fb = aubio_filter_get_feedback(pre);
    ff->data[0] = 1.0;
    ff->data[1] = -0.97;
    fb->data[0] = 1.0;
    fb->data[1] = 0.0;
    fvec_t* window = new_aubio_window(const_cast<char_t*>("hamming"), kFrame);
    aubio_fft_t* fft = new_aubio_fft(kFrame);
    aubio_mfcc_t* mfcc = new_aubio_mfcc(kFrame, kBands, kCeps, kRate);
    aubio_mfcc_set_mel_coeffs(mfcc, 0, kRate / 2);
    fvec_t* frame = new_fvec(kFrame);
    cvec_t* spectrum = new_cvec(kFrame);
    fvec_t* ceps = new_fvec(kCeps);
    std::int64_t frames = 0;
    for (auto _ : state) {
        for (int f = 0; f < kFramesPerBlock; ++f) {
            std::memcpy(frame->data, samples.data() + f * kShift, sizeof(float) * kFrame);
            aubio_filter_do_reset(pre);
            aubio_filter_do(pre, frame);
            fvec_weight(frame, window);
            aubio_fft_do(fft, frame, spectrum);
            aubio_mfcc_do(mfcc, spectrum, ceps);
            benchmark::DoNotOptimize(ceps->data);
        }
        frames += kFramesPerBlock;
    }
    del_fvec(ceps);
    del_cvec(spectrum);
    del_fvec(frame);
    del_aubio_mfcc(mfcc);
    del_aubio_fft(fft);
    del_fvec(window);
    del_aubio_filter(pre);
    count_frames(state, frames);
}
BENCHMARK(BM_FrontEnd_aubio);
#endif

}  // namespace
