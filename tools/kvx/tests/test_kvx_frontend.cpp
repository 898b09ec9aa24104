// The feature-extraction component against the library's own calls on the
// same frames, its 16-bit path against its float path, and its handling of
// silence, mean removal and the energy floor.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>

#include "audio.h"
#include "frontend.h"
#include "kvxpx.h"

namespace {

std::vector<float> recording(const char* voice, const char* word) {
    return kvx::readAt(std::string(KVX_DATA) + "/" + voice + "/" + word + ".flac", 16000);
}

TEST(Frontend, FloatPathEqualsLibraryCallsOnEachFrame) {
    const auto x = recording("en-gb_f3", "seven");
    for (kvx::Window w : {kvx::Window::Hamming, kvx::Window::Blackman}) {
        kvx::FeatureOptions o;
        o.window = w;
        kvx::FrontEnd fe(o);
        kvx::Features f = fe.compute(x.data(), x.size());
        ASSERT_EQ(f.rows, (static_cast<long>(x.size()) - 512) / 160 + 1);
        QXMFCCFilters* bank = QXsMFCCInit(9, 24, 133, 8000, 16000, 0, 0, 0);
        std::vector<float> frame(512), ceps(13);
        int compared = 0;
        for (int k = 0; k < f.rows; ++k) {
            std::memcpy(frame.data(), x.data() + k * 160, 512 * sizeof(float));
            QXsPreemphasize(frame.data(), 0.97f, 512);
            (w == kvx::Window::Hamming ? QXsWinHamming : QXsWinBlackman)(frame.data(), 512);
            QXsCepstralMFCC(1, frame.data(), bank, ceps.data(), 13);
            if (!std::all_of(ceps.begin(), ceps.end(), [](float v) { return std::isfinite(v); }))
                continue;  // silence: floored, counted below
            ASSERT_EQ(0, std::memcmp(ceps.data(), f.row(k), 13 * sizeof(float))) << "frame " << k;
            ++compared;
        }
        QXSetStatus(0);
        QXsFreeMFCCFilters(bank);
        EXPECT_EQ(compared + f.stats.zeroEnergy, f.rows);
        EXPECT_GT(compared, 40);
    }
}

TEST(Frontend, FixedPointPathAppliesItsScaleFactors) {
    // Same frames through the 16-bit stages: after undoing each stage's scale
    // factor the cepstra must match the float path to 16-bit precision (c0 is
    // about 2500 on speech frames; a forgotten factor moves it by hundreds). The
    // digital silence at both ends gives unscalable frames, floored, never NaN.
    const auto x = recording("en-us", "three");
    kvx::FeatureOptions o;
    kvx::FrontEnd ff(o);
    o.fixedPoint = true;
    kvx::FrontEnd fw(o);
    kvx::Features a = ff.compute(x.data(), x.size()), b = fw.compute(x.data(), x.size());
    ASSERT_EQ(a.rows, b.rows);
    EXPECT_EQ(a.stats.zeroEnergy, b.stats.zeroEnergy);
    EXPECT_EQ(b.stats.unscalable, b.stats.zeroEnergy);
    EXPECT_GT(b.stats.unscalable, 0);
    for (int r = 0; r < a.rows; ++r)
        for (int c = 0; c < a.cols; ++c) ASSERT_LT(std::fabs(double(a.row(r)[c]) - b.row(r)[c]), 2.0) << r << " c" << c;
}

TEST(Frontend, SilenceIsFlooredAndCountedNeverNaN) {
    // Digital silence; a constant, unfiltered and unwindowed: all its energy is
    // at 0 Hz, below every band, so every band holds none (unscalable on the
    // 16-bit path). Both give the flat floor: log magnitude 0 everywhere.
    for (short level : {0, 1000})
        for (bool fixed : {false, true}) {
            const std::vector<short> x(16000, level);
            kvx::FeatureOptions o;
            o.fixedPoint = fixed;
            if (level) o.preemph = 0, o.window = kvx::Window::Rect;
            kvx::FrontEnd fe(o);
            kvx::Features f = fe.compute(x.data(), x.size());
            EXPECT_EQ(f.stats.zeroEnergy, f.rows) << level;
            EXPECT_EQ(f.stats.unscalable, fixed ? f.rows : 0) << level;
            for (float v : f.values) ASSERT_EQ(v, 0.0f) << level << " " << fixed;
            EXPECT_EQ(QXGetStatus(), 0);
        }
}

TEST(Frontend, MeanRemovalAndEnergyFloor) {
    const auto x = recording("en-us", "six");  // 0.1 s of digital silence at each end
    kvx::FeatureOptions o;
    o.cmn = true;
    o.energyFloorDb = 40;
    kvx::FrontEnd fe(o);
    kvx::Features f = fe.compute(x.data(), x.size());
    EXPECT_GE(f.stats.dropped, f.stats.zeroEnergy);
    EXPECT_GE(f.stats.dropped, 10);
    EXPECT_EQ(f.rows + f.stats.dropped, f.stats.frames);
    for (int c = 0; c < f.cols; ++c) {
        double m = 0;
        for (int r = 0; r < f.rows; ++r) m += f.row(r)[c];
        EXPECT_NEAR(m / f.rows, 0.0, 1e-3) << "c" << c;
    }
    // Kept rows are the loud frames, in order.
    for (int r = 1; r < f.rows; ++r) ASSERT_LT(f.frameIndex[r - 1], f.frameIndex[r]);
}

TEST(Frontend, BadOptionsAreNamed) {
    struct Case {
        void (*set)(kvx::FeatureOptions&);
        const char* option;
    } cases[] = {
        {[](kvx::FeatureOptions& o) { o.rate = 0; }, "--rate"},
        {[](kvx::FeatureOptions& o) { o.frameSamples = 1; }, "--frame"},
        {[](kvx::FeatureOptions& o) { o.hopMs = 0.001; }, "--hop"},
        {[](kvx::FeatureOptions& o) { o.preemph = 1.0; }, "--preemph"},
        {[](kvx::FeatureOptions& o) { o.bands = 256; }, "--bands"},
        {[](kvx::FeatureOptions& o) { o.high = 8001; }, "--high"},
        {[](kvx::FeatureOptions& o) { o.low = 8000; }, "--high"},
        {[](kvx::FeatureOptions& o) { o.linear = 24; }, "--linear"},
        {[](kvx::FeatureOptions& o) { o.linear = 4, o.linearEnd = 100; }, "--linear-end"},
        {[](kvx::FeatureOptions& o) { o.ceps = 0; }, "--ceps"},
    };
    for (const auto& c : cases) {
        kvx::FeatureOptions o;
        c.set(o);
        try {
            kvx::FrontEnd fe(o);
            ADD_FAILURE() << c.option << " accepted";
        } catch (const std::invalid_argument& e) {
            EXPECT_EQ(std::string(e.what()).rfind(c.option, 0), 0u) << e.what();
        }
    }
    kvx::FrontEnd fe(kvx::FeatureOptions{});
    std::vector<float> shortAudio(511, 1.0f);
    EXPECT_THROW(fe.compute(shortAudio.data(), shortAudio.size()), kvx::TooShort);
}

TEST(Frontend, FeedingInBlocksGivesTheSameFrames) {
    // Block edges that cut frames anywhere; a hop longer than the frame
    // (samples between frames are passed over across block edges too); a 25 ms
    // frame (400 samples) zero-padded to a 512-point transform, with linear bands.
    const auto x = recording("en-gb-scotland_m3", "eight");
    for (int variant : {0, 1, 2}) {
        kvx::FeatureOptions o;
        if (variant == 1) o.hopSamples = 700;
        if (variant == 2) o.frameMs = 25, o.linear = 8, o.window = kvx::Window::Rect;
        kvx::FrontEnd fe(o);
        const kvx::Features whole = fe.compute(x.data(), x.size());
        EXPECT_EQ(whole.rows, (static_cast<long>(x.size()) - (variant == 2 ? 400 : 512)) / (variant == 1 ? 700 : 160) + 1);
        for (float v : whole.values) ASSERT_TRUE(std::isfinite(v));
        for (std::size_t block : {1u, 97u, 512u, 4099u}) {
            fe.begin();
            for (std::size_t at = 0; at < x.size(); at += block) fe.feed(x.data() + at, std::min(block, x.size() - at));
            const kvx::Features parts = fe.end();
            ASSERT_EQ(parts.rows, whole.rows) << variant << " " << block;
            ASSERT_EQ(parts.values, whole.values) << variant << " " << block;
        }
    }
}

}  // namespace
