// Forward pass of a fully connected multilayer perceptron with logistic
// neurons and no bias: out[k] = 1 / (e^(-sum) + 1), sum = sum over the
// layer's inputs of weight * input, accumulated in double in input order.
//
// The weights form one flat array consumed layer by layer, neuron by neuron,
// input by input. Each neuron's sum runs strictly in its input order; four
// neurons are summed side by side (four independent chains) so that the
// additions of one do not wait for another. Only two layers' activations
// exist at a time: each intermediate block is released as soon as the next
// layer has consumed it.
#include <climits>
#include <cmath>
#include <cstddef>

#include "kvxpx.h"
#include "qx_alloc.h"
#include "qx_convert.h"
#include "qx_report.h"

namespace {

using std::size_t;

inline double logistic(double sum) { return 1.0 / (std::exp(-sum) + 1.0); }

// One layer: n neurons over nIn inputs, weights w[k * nIn + i] (already
// widened to double by `weight`). Writes out[k] as Out.
template <class In, class Out, class Weight>
void layer(const In* in, size_t nIn, const Weight& weight, size_t n, Out* out) {
    size_t k = 0;
    for (; k + 4 <= n; k += 4) {
        const size_t b0 = k * nIn, b1 = b0 + nIn, b2 = b1 + nIn, b3 = b2 + nIn;
        double s0 = 0.0, s1 = 0.0, s2 = 0.0, s3 = 0.0;
        for (size_t i = 0; i < nIn; ++i) {
            const double x = static_cast<double>(in[i]);
            s0 += weight(b0 + i) * x;
            s1 += weight(b1 + i) * x;
            s2 += weight(b2 + i) * x;
            s3 += weight(b3 + i) * x;
        }
        out[k] = static_cast<Out>(logistic(s0));
        out[k + 1] = static_cast<Out>(logistic(s1));
        out[k + 2] = static_cast<Out>(logistic(s2));
        out[k + 3] = static_cast<Out>(logistic(s3));
    }
    for (; k < n; ++k) {
        const size_t b = k * nIn;
        double s = 0.0;
        for (size_t i = 0; i < nIn; ++i)
            s += weight(b + i) * static_cast<double>(in[i]);
        out[k] = static_cast<Out>(logistic(s));
    }
}

// A layer's neuron count as a size; a negative count can never be allocated.
inline bool count_of(int n, size_t* out) {
    if (n < 0)
        return false;
    *out = static_cast<size_t>(n);
    return true;
}

// -f without overflow (the factor is range-checked by the conversions).
inline int negated(int f) { return static_cast<int>(0u - static_cast<unsigned>(f)); }

// The checks of both forms after the count of inputs (and the 16-bit form's
// scaling), in their order; true when the call must end.
bool net_checks(const qx::Report& r, int numberOfLayers, const void* input, const int* layerNeuronCounts,
                const void* weights, const void* output) noexcept {
    r.check(numberOfLayers <= 0, "numberOfLayers<=0");
    r.check(input == nullptr, "input==0");
    r.check(layerNeuronCounts == nullptr, "layerNeuronCounts==0");
    r.check(weights == nullptr, "weights==0");
    r.check(output == nullptr, "output==0");
    return qx::Report::failed();
}

}  // namespace

extern "C" {

QX_API void QXsMLPerceptron(int numberOfInputs, const float* input, int numberOfLayers, const int* layerNeuronCounts,
                            const float* weights, float* output) {
    constexpr qx::Report r{"QXsMLPerceptron"};
    r.check(numberOfInputs <= 0, "numberOfInputs<=0");
    if (net_checks(r, numberOfLayers, input, layerNeuronCounts, weights, output))
        return;

    const float* in = input;
    size_t nIn = static_cast<size_t>(numberOfInputs);
    const float* w = weights;
    for (int l = 0; l < numberOfLayers; ++l) {
        const bool last = l == numberOfLayers - 1;
        size_t n = 0;
        float* out = output;
        if (!last) {
            out = count_of(layerNeuronCounts[l], &n) ? qx::calloc_n<float>(n) : nullptr;
            if (out == nullptr) {
                if (l > 0)
                    qx::free(const_cast<float*>(in));
                // Reported under the 16-bit member's name, as it always was.
                constexpr qx::Report shortNet{"QXwMLPerceptron"};
                shortNet.raise(QX_StsNoMem, "insufficiency of memory for pointer  outputBlockPtr");
                return;
            }
        } else if (!count_of(layerNeuronCounts[l], &n)) {
            n = 0;  // a negative count computes nothing
        }
        layer(in, nIn, [w](size_t k) { return static_cast<double>(w[k]); }, n, out);
        w += n * nIn;
        if (l > 0)
            qx::free(const_cast<float*>(in));
        in = out;
        nIn = n;
    }
}

QX_API void QXwMLPerceptron(int numberOfInputs, int inputScaleFactor, const short* input, int numberOfLayers,
                            const int* layerNeuronCounts, int weightsScaleFactor, const short* weights, short* output,
                            int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXwMLPerceptron"};
    r.check(numberOfInputs <= 0, "numberOfInputs<=0");
    r.scaling(doScale, scaleFactor);
    if (net_checks(r, numberOfLayers, input, layerNeuronCounts, weights, output))
        return;

    double* in = qx::calloc_n<double>(static_cast<size_t>(numberOfInputs));
    if (in == nullptr) {
        r.raise(QX_StsNoMem, "insufficiency of memory for pointer  inputPtr");
        return;
    }
    QXwdbConvertUp(input, in, numberOfInputs, negated(inputScaleFactor));

    size_t nIn = static_cast<size_t>(numberOfInputs);
    int lastCount = 0;
    const short* w = weights;
    const int weightFactor = negated(weightsScaleFactor);
    for (int l = 0; l < numberOfLayers; ++l) {
        size_t n = 0;
        double* out = count_of(layerNeuronCounts[l], &n) ? qx::calloc_n<double>(n) : nullptr;
        if (out == nullptr) {
            qx::free(in);
            r.raise(QX_StsNoMem, "insufficiency of memory for pointer  outputPtr");
            return;
        }
        if (weightFactor >= -64 && weightFactor <= 64 && !qx::Report::failed()) {
            // What QXwdConvertUp gives for each weight, without a call per weight.
            const double mult = qx::scale_multiplier(weightFactor);
            layer(in, nIn, [w, mult](size_t k) { return static_cast<double>(w[k]) * mult; }, n, out);
        } else {
            // The conversion reports (or yields 0 under a pending error) once
            // per weight, in the order the weights are read.
            for (size_t k = 0; k < n; ++k) {
                double s = 0.0;
                for (size_t i = 0; i < nIn; ++i)
                    s += QXwdConvertUp(w[k * nIn + i], weightFactor) * in[i];
                out[k] = logistic(s);
            }
        }
        w += n * nIn;
        qx::free(in);
        in = out;
        nIn = n;
        lastCount = layerNeuronCounts[l];
    }
    QXdwbConvertDown(in, output, lastCount, doScale, scaleFactor);
    qx::free(in);
}

}  // extern "C"
