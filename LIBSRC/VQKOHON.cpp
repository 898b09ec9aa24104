// The competitive layer of a Kohonen network as a vector quantiser: squared
// Euclidean distances from the input to every codebook vector (or their roots)
// and a ranking of the nearest ones.
//
// The ranking is a partial selection sort over rankList itself: for p < m and
// q > p, entries p and q are exchanged when output[rankList[p]] is strictly
// greater than output[rankList[q]]. The exchanges do not keep equal distances
// in their first order. Afterwards the first m entries become 1-based neuron
// numbers; the rest stay 0-based, in whatever order the exchanges left them.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>

#include "kvxpx.h"
#include "qx_convert.h"
#include "qx_report.h"

namespace {

using std::size_t;

// Sum of squared differences of one codebook vector, in double.
template <class T>
double distance2(const T* x, const T* w, size_t n) {
    double sum = 0.0;
    for (size_t i = 0; i < n; ++i) {
        double d;
        if constexpr (sizeof(T) == sizeof(short))
            d = static_cast<double>(static_cast<int>(x[i]) - static_cast<int>(w[i]));
        else
            d = static_cast<double>(x[i]) - static_cast<double>(w[i]);
        sum += d * d;
    }
    return sum;
}

// A double distance as a float, rounding to nearest: beyond the largest float
// (from half an ulp above it on) the result is infinity.
inline float to_float(double d) {
    if (d >= 0x1.ffffffp+127)
        return std::numeric_limits<float>::infinity();
    return static_cast<float>(d);
}

// Entries are neuron numbers; read as unsigned 16-bit they always index a
// neuron that exists (a codebook of more than 65536 neurons wraps them).
inline size_t neuron(short entry) { return static_cast<std::uint16_t>(entry); }

template <class Out>
void rank(const Out* output, int numberOfOutputs, int numberOfRanks, short* rankList) {
    if (numberOfRanks < 1)
        return;
    const int m = numberOfRanks < numberOfOutputs ? numberOfRanks : numberOfOutputs;
    for (int k = 0; k < numberOfOutputs; ++k)
        rankList[k] = static_cast<short>(k);
    for (int p = 0; p < m; ++p)
        for (int q = p + 1; q < numberOfOutputs; ++q)
            if (output[neuron(rankList[p])] > output[neuron(rankList[q])]) {
                const short t = rankList[p];
                rankList[p] = rankList[q];
                rankList[q] = t;
            }
    for (int p = 0; p < m; ++p)
        rankList[p] = static_cast<short>(rankList[p] + 1);
}

// The distance (or its root) of the input to every codebook vector, stored
// through `store`, then the ranking.
template <auto store, class T, class Out>
void quantise(const T* input, int numberOfInputs, int numberOfOutputs, const T* weights, int numberOfRanks,
              short* rankList, int doSqrt, Out* output) {
    const size_t n = static_cast<size_t>(numberOfInputs);
    for (int k = 0; k < numberOfOutputs; ++k) {
        const double d = distance2(input, weights + static_cast<size_t>(k) * n, n);
        output[k] = store(doSqrt ? std::sqrt(d) : d);
    }
    rank(output, numberOfOutputs, numberOfRanks, rankList);
}

// The checks of both forms after the count of outputs (and the 16-bit form's
// scaling), in their order; true when the call must end.
bool vector_checks(const qx::Report& r, int numberOfInputs, const void* input, const void* weights,
                   const short* rankList, const void* output) noexcept {
    r.check(numberOfInputs <= 0, "numberOfInputs<=0");
    r.check(input == nullptr, "input==0");
    r.check(weights == nullptr, "weights==0");
    r.check(rankList == nullptr, "rankList==0");
    r.check(output == nullptr, "output==0");
    return qx::Report::failed();
}

}  // namespace

extern "C" {

QX_API void QXsVQKohonen(const float* input, int numberOfInputs, int numberOfOutputs, const float* weights,
                         int numberOfRanks, short* rankList, int doSqrt, float* output) {
    constexpr qx::Report r{"QXsVQKohonen"};
    r.check(numberOfOutputs <= 0, "numberOfOutputs<=0");
    if (vector_checks(r, numberOfInputs, input, weights, rankList, output))
        return;
    quantise<to_float>(input, numberOfInputs, numberOfOutputs, weights, numberOfRanks, rankList, doSqrt, output);
}

QX_API void QXwVQKohonen(const short* input, int numberOfInputs, int numberOfOutputs, const short* weights,
                         int numberOfRanks, short* rankList, int doSqrt, int doScale, int* scaleFactor, int* output) {
    constexpr qx::Report r{"QXwVQKohonen"};
    r.check(numberOfOutputs <= 0, "numberOfOutputs<=0");
    r.scaling(doScale, scaleFactor);  // checked, never used: the distances are not scaled
    if (vector_checks(r, numberOfInputs, input, weights, rankList, output))
        return;
    quantise<qx::trunc_to<int>>(input, numberOfInputs, numberOfOutputs, weights, numberOfRanks, rankList, doSqrt,
                                output);
}

}  // extern "C"
