// Multilayer perceptron: float and 16-bit forms against a direct forward pass
// written here, checks in order, and every memory failure.
#include <cmath>
#include <random>
#include <vector>

#include "kvx_test.h"

using kvxtest::FailAllocation;
using kvxtest::LibTest;
using kvxtest::Rep;

namespace {

class Perceptron : public LibTest {};

// The forward pass as the network is defined: per layer, per neuron, the
// double sum of weight * input in input order, then the logistic. `store`
// rounds each activation to the storage type of the form under test.
template <class Store>
std::vector<double> forward(std::vector<double> x, const std::vector<int>& counts, const std::vector<double>& w,
                            Store store) {
    std::size_t next = 0;
    for (int n : counts) {
        std::vector<double> y(n);
        for (int k = 0; k < n; ++k) {
            double sum = 0;
            for (double xi : x)
                sum += w[next++] * xi;
            y[k] = store(1.0 / (1.0 + std::exp(-sum)));
        }
        x = y;
    }
    EXPECT_EQ(next, w.size());  // the network uses every weight exactly once
    return x;
}

std::size_t weight_count(int nIn, const std::vector<int>& counts) {
    std::size_t total = 0;
    for (int n : counts) {
        total += static_cast<std::size_t>(nIn) * n;
        nIn = n;
    }
    return total;
}

}  // namespace

TEST_F(Perceptron, FloatExamplesAndSaturation) {
    const float zero = 0, five = 5;
    const int one = 1;
    float out = -1;
    QXsMLPerceptron(1, &zero, 1, &one, &five, &out);
    EXPECT_EQ(out, 0.5f);

    const float in[] = {1, 2}, w[] = {1, 1, -1, 0.5f};
    const int two = 2;
    float o2[2];
    QXsMLPerceptron(2, in, 1, &two, w, o2);
    EXPECT_FLOAT_EQ(o2[0], 0.95257413f);
    EXPECT_EQ(o2[1], 0.5f);

    // Very negative and very positive sums give exactly 0 and 1.
    const float big[] = {-1e30f, 1e30f};
    QXsMLPerceptron(1, &five, 1, &two, big, o2);
    EXPECT_EQ(o2[0], 0.0f);
    EXPECT_EQ(o2[1], 1.0f);
    EXPECT_TRUE(got().empty());
}

TEST_F(Perceptron, FloatNetworksMatchTheDirectForwardPass) {
    std::mt19937 rng(3);
    std::normal_distribution<float> d(0.0f, 0.7f);
    const std::vector<std::vector<int>> shapes = {{3}, {7, 6, 3}, {1, 9}, {13, 5, 8, 2}, {4, 4, 4, 4, 4}};
    for (const auto& counts : shapes)
        for (int nIn : {1, 5, 11}) {
            std::vector<float> in(nIn), w(weight_count(nIn, counts));
            for (auto& v : in) v = d(rng) * 3;
            for (auto& v : w) v = d(rng);
            std::vector<float> out(counts.back() + 1, -7.0f);  // one guard element
            const long live = qx::testing::live_blocks();
            QXsMLPerceptron(nIn, in.data(), static_cast<int>(counts.size()), counts.data(), w.data(), out.data());
            EXPECT_EQ(qx::testing::live_blocks(), live);
            const auto want = forward(std::vector<double>(in.begin(), in.end()), counts,
                                      std::vector<double>(w.begin(), w.end()),
                                      [](double a) { return static_cast<double>(static_cast<float>(a)); });
            for (int k = 0; k < counts.back(); ++k)
                ASSERT_EQ(out[k], static_cast<float>(want[k])) << k;
            EXPECT_EQ(out.back(), -7.0f);
        }
    EXPECT_TRUE(got().empty());
}

TEST_F(Perceptron, ShortNetworksScaleInputsWeightsAndOutputs) {
    std::mt19937 rng(8);
    std::uniform_int_distribution<int> d(-3000, 3000);
    const std::vector<int> counts = {6, 5, 4};
    const int nIn = 7, isf = -10, wsf = -11;
    std::vector<short> in(nIn), w(weight_count(nIn, counts));
    for (auto& v : in) v = static_cast<short>(d(rng));
    for (auto& v : w) v = static_cast<short>(d(rng));
    std::vector<double> x(nIn), wd(w.size());
    for (int i = 0; i < nIn; ++i) x[i] = std::ldexp(in[i], isf);
    for (std::size_t i = 0; i < w.size(); ++i) wd[i] = std::ldexp(w[i], wsf);
    const auto want = forward(x, counts, wd, [](double a) { return a; });

    // doScale 1 with factor -14: v = trunc(a * 2^14).
    std::vector<short> out(4);
    int sf = -14;
    const long live = qx::testing::live_blocks();
    QXwMLPerceptron(nIn, isf, in.data(), 3, counts.data(), wsf, w.data(), out.data(), 1, &sf);
    EXPECT_EQ(qx::testing::live_blocks(), live);
    for (int k = 0; k < 4; ++k)
        EXPECT_EQ(out[k], static_cast<short>(want[k] * 16384.0)) << k;
    EXPECT_EQ(sf, -14);

    // doScale 0: activations below 1 truncate to 0.
    QXwMLPerceptron(nIn, isf, in.data(), 3, counts.data(), wsf, w.data(), out.data(), 0, &sf);
    EXPECT_EQ(out, std::vector<short>(4, 0));
    EXPECT_EQ(sf, 0);

    // doScale 2 chooses a factor that keeps every activation to within one step.
    QXwMLPerceptron(nIn, isf, in.data(), 3, counts.data(), wsf, w.data(), out.data(), 2, &sf);
    EXPECT_LT(sf, 0);
    for (int k = 0; k < 4; ++k)
        EXPECT_NEAR(std::ldexp(out[k], sf), want[k], std::ldexp(1.0, sf)) << k;

    // 0.5 becomes 8192 under factor -14.
    const short zero = 0, wt = 77;
    const int one = 1;
    short half = 0;
    sf = -14;
    QXwMLPerceptron(1, 0, &zero, 1, &one, 0, &wt, &half, 1, &sf);
    EXPECT_EQ(half, 8192);
    EXPECT_TRUE(got().empty());
}

TEST_F(Perceptron, ChecksInOrder) {
    QXsMLPerceptron(0, nullptr, 0, nullptr, nullptr, nullptr);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsMLPerceptron", "numberOfInputs<=0"},
                                      {-5, "QXsMLPerceptron", "numberOfLayers<=0"},
                                      {-5, "QXsMLPerceptron", "input==0"},
                                      {-5, "QXsMLPerceptron", "layerNeuronCounts==0"},
                                      {-5, "QXsMLPerceptron", "weights==0"},
                                      {-5, "QXsMLPerceptron", "output==0"}}));
    for (auto& r : kvxtest::reports())
        EXPECT_TRUE(kvxtest::names_raising_line(r));
    clear();

    QXwMLPerceptron(0, 0, nullptr, 0, nullptr, 0, nullptr, nullptr, -1, nullptr);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXwMLPerceptron", "numberOfInputs<=0"},
                                      {-5, "QXwMLPerceptron", "doScale<0"},
                                      {-5, "QXwMLPerceptron", "scaleFactor==0"},
                                      {-5, "QXwMLPerceptron", "numberOfLayers<=0"},
                                      {-5, "QXwMLPerceptron", "input==0"},
                                      {-5, "QXwMLPerceptron", "layerNeuronCounts==0"},
                                      {-5, "QXwMLPerceptron", "weights==0"},
                                      {-5, "QXwMLPerceptron", "output==0"}}));
    for (auto& r : kvxtest::reports())
        EXPECT_TRUE(kvxtest::names_raising_line(r));
    clear();

    // The factor's range is checked for doScale 1 only; nothing is written.
    const short in = 100, w = 100;
    const int one = 1;
    short out = 1234;
    int sf = 65;
    QXwMLPerceptron(1, 0, &in, 1, &one, 0, &w, &out, 1, &sf);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXwMLPerceptron", "*scaleFactor>64"}}));
    EXPECT_EQ(out, 1234);
    clear();
    sf = -65;
    QXwMLPerceptron(1, 0, &in, 1, &one, 0, &w, &out, 4, &sf);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXwMLPerceptron", "doScale>3"}}));
    clear();
    QXwMLPerceptron(1, 0, &in, 1, &one, 0, &w, &out, 0, &sf);
    EXPECT_TRUE(got().empty());
    EXPECT_EQ(out, 1);  // activation 1.0 truncates to 1

    // Bad conversion factors surface as the conversions' own reports and the
    // output stays untouched: the input block once, every weight once.
    out = 1234;
    const short two[] = {1, 2};
    QXwMLPerceptron(1, 65, &in, 1, &one, 0, &w, &out, 0, &sf);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXwdbConvertUp", "scaleFactor<-64"}}));
    EXPECT_EQ(out, 1234);
    clear();
    const int counts[] = {2};
    short o2[2] = {9, 9};
    QXwMLPerceptron(1, 0, &in, 1, counts, -70, two, o2, 0, &sf);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXwdConvertUp", "scaleFactor>64"}, {-5, "QXwdConvertUp", "scaleFactor>64"}}));
    EXPECT_EQ(o2[0], 9);
    clear();

    // A pending error stops both forms.
    QXSetStatus(-3);
    float fo = 3;
    const float fi = 1;
    QXsMLPerceptron(1, &fi, 1, &one, &fi, &fo);
    EXPECT_EQ(fo, 3);
}

TEST_F(Perceptron, MemoryFailuresReleaseWhatWasTaken) {
    const int counts[] = {3, 2, 1};
    std::vector<float> fw(weight_count(2, {3, 2, 1}), 0.25f);
    const float fin[] = {1, -1};
    float fout = 5;
    // Blocks of the first and second hidden layers; the last writes output.
    for (long nth : {1, 2}) {
        const long live = qx::testing::live_blocks();
        {
            FailAllocation fail(nth);
            QXsMLPerceptron(2, fin, 3, counts, fw.data(), &fout);
        }
        EXPECT_EQ(got(), (std::vector<Rep>{{-4, "QXwMLPerceptron", "insufficiency of memory for pointer  outputBlockPtr"}}));
        EXPECT_TRUE(kvxtest::names_raising_line(kvxtest::reports().back()));
        EXPECT_EQ(qx::testing::live_blocks(), live);
        EXPECT_EQ(fout, 5);
        clear();
    }

    std::vector<short> sw(fw.size(), 100);
    const short sin[] = {1, -1};
    short sout = 5;
    int sf = 0;
    const std::vector<Rep> expect[] = {
        {{-4, "QXwMLPerceptron", "insufficiency of memory for pointer  inputPtr"}},
        {{-4, "QXwMLPerceptron", "insufficiency of memory for pointer  outputPtr"}},
        {{-4, "QXwMLPerceptron", "insufficiency of memory for pointer  outputPtr"}},
        {{-4, "QXwMLPerceptron", "insufficiency of memory for pointer  outputPtr"}},
    };
    for (long nth = 1; nth <= 4; ++nth) {
        const long live = qx::testing::live_blocks();
        {
            FailAllocation fail(nth);
            QXwMLPerceptron(2, 0, sin, 3, counts, -8, sw.data(), &sout, 0, &sf);
        }
        EXPECT_EQ(got(), expect[nth - 1]) << nth;
        EXPECT_EQ(qx::testing::live_blocks(), live);
        EXPECT_EQ(sout, 5);
        clear();
    }
}
