#include "balance.h"

#include <kest/kernel_frame/views.h>
#include <kest/prune_balance/dmq_balance.h>

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "console.h"

namespace digits {
namespace {

constexpr float kMigrationStrength = 0.5f;  // ranges meet in the middle

/// A layer's weights, [inChannels][kernelHeight][kernelWidth][outChannels].
std::vector<float> ByInputChannel(const Layer& layer) {
    const size_t numIn = layer.inChannels;
    const size_t numOut = layer.outChannels;
    std::vector<float> weights;
    for (size_t i = 0; i < numIn; ++i) {
        for (size_t row = i * numOut; row < layer.weights.size(); row += numIn * numOut)
            weights.insert(weights.end(), &layer.weights[row], &layer.weights[row] + numOut);
    }
    return weights;
}

}  // namespace

void FindBalance(const Network& network, const Images& training, int numBatches, std::vector<Factors>& factors) {
    Run(network, Slice(training.pixels, 0, numBatches * kBatchSize), [&](size_t layer, Tensor& input) {
        const int length = static_cast<int>(input.data.size());
        const std::vector<float> activations = Transposed(input.data, length / input.c);
        const std::vector<float> weights = ByInputChannel(network[layer]);
        std::vector<float> found(input.c);  // the operator's output, of which the graph's owner gets a copy
        factors[layer].balance.resize(input.c);
        DMQBalancerKernel::DMQBalancerParam param{
            kMigrationStrength, static_cast<unsigned int>(input.c), static_cast<unsigned int>(activations.size()),
            static_cast<unsigned int>(weights.size()), factors[layer].balance.data()};
        const DMQBalancerKernel::DMQBalancer<util::ThreadPoolDevice, float> balance;
        Check(balance(activations.data(), weights.data(), param, found.data()),
              "DMQBalancer for " + network[layer].name);
    });
}

Network Balanced(Network network, const std::vector<Factors>& factors) {
    for (size_t layer = 0; layer < network.size(); ++layer) {
        const std::vector<float>& balance = factors[layer].balance;
        if (balance.empty()) continue;
        std::vector<float>& weights = network[layer].weights;
        for (size_t i = 0; i < weights.size(); ++i)
            weights[i] *= balance[i / network[layer].outChannels % balance.size()];
        network[layer].inputDivisors = balance;
    }
    return network;
}

double ScoreDifference(const Network& network, const Network& other, const Images& images) {
    const auto asItIs = [](size_t, Tensor&) {};
    const std::vector<float> scores = Run(network, images.pixels, asItIs).data;
    const std::vector<float> others = Run(other, images.pixels, asItIs).data;
    double largest = 0;
    double difference = 0;
    for (size_t i = 0; i < scores.size(); ++i) {
        largest = std::max(largest, std::abs(static_cast<double>(scores[i])));
        difference = std::max(difference, std::abs(static_cast<double>(scores[i]) - others[i]));
    }
    return difference / largest;
}

}  // namespace digits
