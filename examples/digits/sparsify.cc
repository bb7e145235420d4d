#include "sparsify.h"

#include <kest/kernel_frame/views.h>
#include <kest/prune_balance/channel_prune.h>
#include <kest/prune_balance/mask_out.h>
#include <kest/prune_balance/selective_mask.h>

#include <algorithm>
#include <cstddef>

#include "quantise.h"

namespace digits {
namespace {

using util::ThreadPoolDevice;

/// The keep mask of the output channels of a layer, and how many are pruned. All tensors that have the channel score it
/// together: the weights and biases that make it and the weights of the next layer that read it.
std::vector<float> KeptChannels(const Layer& layer, const Layer& next, float ratio, int& numPruned) {
    const int numChannels = layer.outChannels;
    // Counts are not aligned to 16, as a device might like: no layer has more channels than that.
    numPruned = KestCommon::CalPruneNum(numChannels, 1, ratio, false);
    const KestCommon::PruneParam param{
        numChannels, {}, 1, {static_cast<unsigned int>(numChannels)}, {static_cast<unsigned int>(numPruned)}};
    std::vector<const float*> tensors;
    std::vector<int> lengths;
    for (const std::vector<float>* tensor : {&layer.weights, &layer.bias, &next.weights}) {
        tensors.push_back(tensor->data());
        lengths.push_back(static_cast<int>(tensor->size()));
    }
    // The channel is the last axis, in the next layer's weights the last but one: it comes around once for each place
    // of a kernel, and once for each pixel that a dense layer reads.
    std::vector<float> kept(numChannels);
    const KestCommon::ComputeRemainOut<ThreadPoolDevice, float> computeKept;
    Check(computeKept(tensors, lengths, {1, 1, next.outChannels}, param, {kept.data()}),
          "ComputeRemainOut for " + layer.name);
    return kept;
}

void ApplyMask(std::vector<float>& values, const std::vector<float>& mask, KestTfOp::MaskParam param) {
    param.length = static_cast<int>(values.size());
    Check(KestTfOp::MaskOut<ThreadPoolDevice, float>()(param, mask.data(), values.data(), values.data()), "MaskOut");
}

/// 1 for each input channel with a weight other than 0.
std::vector<float> ChannelsInUse(const Layer& layer) {
    std::vector<float> used(layer.inChannels);
    for (size_t i = 0; i < layer.weights.size(); ++i) {
        if (layer.weights[i] != 0) used[i / layer.outChannels % layer.inChannels] = 1;
    }
    return used;
}

}  // namespace

std::vector<int> Prune(Network& network, float ratio) {
    std::vector<int> numPruned(network.size());
    std::vector<std::vector<float>> kept;  // all are chosen before any is applied
    for (size_t layer = 0; layer + 1 < network.size(); ++layer)
        kept.push_back(KeptChannels(network[layer], network[layer + 1], ratio, numPruned[layer]));
    kept.emplace_back(network.back().outChannels, 1.0f);

    std::vector<float> inputs(network.front().inChannels, 1.0f);
    for (size_t layer = 0; layer < network.size(); ++layer) {
        const int numIn = static_cast<int>(inputs.size());
        const int numOut = network[layer].outChannels;
        std::vector<float> mask(inputs.size() * numOut);
        std::vector<float> saved(mask.size());
        const KestTfOp::MaskGenParam<float> param{numIn, numOut, numIn * numOut, mask.data(), saved.data()};
        Check(KestTfOp::GenerateMask<ThreadPoolDevice, float>()(inputs.data(), kept[layer].data(), param),
              "GenerateMask for " + network[layer].name);
        ApplyMask(network[layer].weights, mask, {0, numOut, 1, numIn, numOut});
        ApplyMask(network[layer].bias, kept[layer], {0, numOut, 1, 1, numOut});
        inputs = kept[layer];
    }
    return numPruned;
}

std::vector<bool> MakeSparse(Network& network, int numKept, int groupSize) {
    std::vector<bool> masked;
    for (Layer& layer : network) {
        const std::vector<float> used = ChannelsInUse(layer);
        const auto numUsed = std::count(used.begin(), used.end(), 1.0f);
        masked.push_back(numUsed >= groupSize);
        if (!masked.back()) continue;
        const SelectiveMaskGenKernel::SelectivePruneParam param{
            2,
            static_cast<unsigned int>(groupSize),
            static_cast<unsigned int>(numKept),
            {static_cast<unsigned int>(layer.kernelHeight), static_cast<unsigned int>(layer.kernelWidth),
             static_cast<unsigned int>(layer.inChannels), static_cast<unsigned int>(layer.outChannels)}};
        const int length = static_cast<int>(layer.weights.size());
        // The workspace has room for a last group that channels of 0 fill up.
        std::vector<float> gathered(layer.weights.size() / layer.inChannels * (layer.inChannels + groupSize));
        std::vector<float> mask(layer.weights.size());
        const SelectiveMaskGenKernel::ComputeMask<ThreadPoolDevice, float> computeMask;
        Check(computeMask(layer.weights.data(), used.data(), gathered.data(), param, mask.data()),
              "ComputeMask for " + layer.name);
        ApplyMask(layer.weights, mask, {length, length, 1, 1, length});
    }
    return masked;
}

}  // namespace digits
