// The perceptron and the Kohonen quantiser on hostile input counts, layer
// counts, neuron counts, ranks and scale factors.
#include "fuzz_common.h"

using namespace kvxfuzz;

namespace {

void perceptron(FuzzedDataProvider& in, Outcome& o) {
    const bool shorts = in.ConsumeBool();
    const int nInputs = small_or_any(in);
    const int nLayers = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(-1, 4) : any_int(in);
    const int inSf = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(-8, 8) : any_int(in);
    const int wSf = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(-8, 8) : any_int(in);
    const int ds = do_scale(in);
    int sf = any_int(in);
    if (nInputs > 64 || nLayers > 8) return;
    std::vector<int> counts(static_cast<std::size_t>(count_of(nLayers)) + 1, 0);
    long long nWeights = 0, inputs = count_of(nInputs), last = 0;
    for (int l = 0; l < nLayers; ++l) {
        counts[l] = small_or_any(in);
        if (counts[l] > 64) return;
        nWeights += inputs * count_of(counts[l]);
        inputs = last = count_of(counts[l]);
    }
    const long long elem = shorts ? 2 : 4;
    Buf input(in, count_of(nInputs) * elem), weights(in, nWeights * elem), output(in, last * elem);
    if (shorts)
        QXwMLPerceptron(nInputs, inSf, input.as<short>(), nLayers, counts.data(), wSf, weights.as<short>(),
                        output.as<short>(), ds, &sf);
    else
        QXsMLPerceptron(nInputs, input.as<float>(), nLayers, counts.data(), weights.as<float>(), output.as<float>());
    input.unchanged();
    weights.unchanged();
    output.guards();
    output.into(o.bytes);
    o.add(sf);
}

void quantiser(FuzzedDataProvider& in, Outcome& o) {
    const bool shorts = in.ConsumeBool();
    const int nInputs = small_or_any(in), nOutputs = small_or_any(in), nRanks = small_or_any(in);
    const int doSqrt = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(0, 1) : any_int(in);
    const int ds = do_scale(in);
    int sf = any_int(in);
    if (nInputs > 256 || nOutputs > 256) return;
    const long long elem = shorts ? 2 : 4;
    Buf input(in, count_of(nInputs) * elem), weights(in, count_of(nInputs) * count_of(nOutputs) * elem);
    Buf ranks(in, count_of(nOutputs) * 2), output(in, count_of(nOutputs) * 4);
    if (shorts)
        QXwVQKohonen(input.as<short>(), nInputs, nOutputs, weights.as<short>(), nRanks, ranks.as<short>(), doSqrt, ds, &sf,
                     output.as<int>());
    else
        QXsVQKohonen(input.as<float>(), nInputs, nOutputs, weights.as<float>(), nRanks, ranks.as<short>(), doSqrt,
                     output.as<float>());
    input.unchanged();
    weights.unchanged();
    ranks.guards();
    output.guards();
    ranks.into(o.bytes);
    output.into(o.bytes);
    o.add(sf);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return on_both_paths(data, size, [](FuzzedDataProvider& in, Outcome& o) {
        if (in.ConsumeBool())
            perceptron(in, o);
        else
            quantiser(in, o);
    });
}
