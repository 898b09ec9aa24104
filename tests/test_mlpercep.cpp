// Multilayer perceptron: both forms against a direct forward pass written
// here, the checks in order, and every memory failure.
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "kvx_test.h"

using namespace kvxtest;

namespace {

class Perceptron : public LibTest {};

// Per layer, per neuron: the double sum of weight * input in input order, then
// the logistic; `store` rounds each activation as the form under test keeps it.
template <class Store>
std::vector<double> forward(std::vector<double> x, const std::vector<int>& counts, const double* w, Store store) {
    for (int n : counts) {
        std::vector<double> y(n);
        for (double& yk : y) {
            double sum = 0;
            for (double xi : x)
                sum += *w++ * xi;
            yk = store(1.0 / (1.0 + std::exp(-sum)));
        }
        x = y;
    }
    return x;
}

}  // namespace

TEST_F(Perceptron, BothFormsMatchTheDirectForwardPass) {
    std::mt19937 rng(3);
    const long live = qx::testing::live_blocks();
    for (const auto& counts : std::vector<std::vector<int>>{{3}, {7, 6, 3}, {1, 9}, {13, 5, 8, 2}, {4, 4, 4, 4, 4}})
        for (int nIn : {1, 5, 11}) {
            // Random shorts: inputs under factor -10, then weights under -11. The
            // float form gets the same values; the weight list has no spare element.
            const int nl = static_cast<int>(counts.size()), last = counts.back();
            std::vector<short> s(nIn), so(last + 1, -7);  // one guard element
            for (int n = nIn; int c : counts)
                s.resize(s.size() + static_cast<std::size_t>(n * c)), n = c;
            std::vector<double> v(s.size());
            std::vector<float> f(s.size()), fo(last + 1, -7.0f);
            for (std::size_t i = 0; i < s.size(); ++i) {
                s[i] = static_cast<short>(static_cast<int>(rng() % 6001) - 3000);
                f[i] = static_cast<float>(v[i] = std::ldexp(s[i], i < static_cast<std::size_t>(nIn) ? -10 : -11));
            }
            const std::vector<double> x(v.begin(), v.begin() + nIn);
            const auto fwant = forward(x, counts, &v[nIn], [](double a) { return double(static_cast<float>(a)); });
            const auto swant = forward(x, counts, &v[nIn], [](double a) { return a; });
            QXsMLPerceptron(nIn, f.data(), nl, counts.data(), f.data() + nIn, fo.data());
            int sf = -14;  // doScale 1: v = trunc(a * 2^14)
            QXwMLPerceptron(nIn, -10, s.data(), nl, counts.data(), -11, s.data() + nIn, so.data(), 1, &sf);
            for (int k = 0; k <= last; ++k) {
                ASSERT_EQ(fo[k], k < last ? static_cast<float>(fwant[k]) : -7.0f) << k;
                ASSERT_EQ(so[k], k < last ? static_cast<short>(swant[k] * 16384.0) : -7) << k;
            }
            // doScale 2 chooses a factor that keeps every activation to within one step.
            sf = 3;
            QXwMLPerceptron(nIn, -10, s.data(), nl, counts.data(), -11, s.data() + nIn, so.data(), 2, &sf);
            EXPECT_LT(sf, 0);
            for (int k = 0; k < last; ++k)
                EXPECT_NEAR(std::ldexp(so[k], sf), swant[k], std::ldexp(1.0, sf)) << k;
        }
    // Huge sums either way saturate to exactly 0 and 1.
    const float five = 5, big[] = {-1e30f, 1e30f};
    std::vector<float> o2(2);
    QXsMLPerceptron(1, &five, 1, std::vector<int>{2}.data(), big, o2.data());
    EXPECT_EQ(o2, (std::vector<float>{0, 1}));
    EXPECT_TRUE(got().empty());
    EXPECT_EQ(qx::testing::live_blocks(), live);
}

TEST_F(Perceptron, ChecksInOrder) {
    const short in = 100, w = 100, two[] = {1, 2};
    const int one = 1, counts2[] = {2};
    short out = 1234, o2[2] = {9, 9};
    int sf = 65;
    QXsMLPerceptron(0, nullptr, 0, nullptr, nullptr, nullptr);
    QXwMLPerceptron(0, 0, nullptr, 0, nullptr, 0, nullptr, nullptr, -1, nullptr);
    QXwMLPerceptron(1, 0, &in, 1, &one, 0, &w, &out, 1, &sf);  // the factor's range matters for doScale 1 only
    QXwMLPerceptron(1, 0, &in, 1, &one, 0, &w, &out, 4, &sf);
    std::vector<Rep> want;
    for (const char* t : {"numberOfInputs<=0", "numberOfLayers<=0", "input==0", "layerNeuronCounts==0", "weights==0",
                          "output==0"})
        want.emplace_back(-5, "QXsMLPerceptron", t);
    for (const char* t : {"numberOfInputs<=0", "doScale<0", "scaleFactor==0", "numberOfLayers<=0", "input==0",
                          "layerNeuronCounts==0", "weights==0", "output==0", "*scaleFactor>64", "doScale>3"})
        want.emplace_back(-5, "QXwMLPerceptron", t);
    EXPECT_TRUE(kvxtest::all_name_raising_lines());
    // Bad conversion factors surface as the conversions' own reports: the
    // input block once, every weight once.
    QXSetStatus(0);
    QXwMLPerceptron(1, 65, &in, 1, &one, 0, &w, &out, 0, &sf);
    QXSetStatus(0);
    QXwMLPerceptron(1, 0, &in, 1, counts2, -70, two, o2, 0, &sf);
    want.emplace_back(-5, "QXwdbConvertUp", "scaleFactor<-64");
    want.insert(want.end(), 2, {-5, "QXwdConvertUp", "scaleFactor>64"});
    EXPECT_EQ(got(), want);
    // Nothing was written; a pending error stops both forms.
    float fo = 3;
    QXsMLPerceptron(1, &fo, 1, &one, &fo, &fo);
    QXwMLPerceptron(1, 0, &in, 1, &one, 0, &w, &out, 0, &sf);
    EXPECT_TRUE(out == 1234 && o2[0] == 9 && fo == 3);
    clear();
    QXwMLPerceptron(1, 0, &in, 1, &one, 0, &w, &out, 0, &sf);
    EXPECT_EQ(out, 1);  // activation 1.0 truncates to 1
    EXPECT_TRUE(got().empty());
}
