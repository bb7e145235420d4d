#include "deploy.h"

#include <kest/kernel_frame/views.h>
#include <kest/op_kernels/deployed_ops.h>
#include <kest/op_kernels/fast_softmax.h>
#include <kest/op_kernels/tensor_dump.h>
#include <kest/weight_quant/arq.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace digits {
namespace {

using util::ThreadPoolDevice;

constexpr unsigned int kWeightBits = 8;        // a code is a signed byte, whatever grid it is from
constexpr float kExactIntegers = 16777216.0f;  // 2^24: floats hold every integer up to here

// 1 + d + d^2 / 2 + d^3 / 6 rises everywhere and is negative below -1.596. Cut off there, no probability is negative
// and their order is that of the scores; a lower threshold turns sums negative, and with them the order.
constexpr float kSoftmaxThreshold = -1.596f;

/// The codes of a layer's weights, output channel by output channel. Fake-quantised weights are whole multiples of
/// their scale, so that a cluster comes out as its integer.
std::vector<signed char> WeightCodes(const Layer& layer, Factors factors) {
    std::vector<float> weights = FakeQuantiseWeights(layer, factors);
    const int numRows = static_cast<int>(weights.size()) / layer.outChannels;
    weights = Transposed(std::move(weights), numRows);
    std::vector<signed char> codes(weights.size());
    const auto numChannels = static_cast<unsigned int>(layer.outChannels);
    Check(KestCommon::ArqQuantReal(weights.data(), static_cast<unsigned int>(weights.size()),
                                   {kWeightBits, true, false}, {numChannels, factors.weightScales.data()},
                                   {numChannels, factors.weightOffsets.data()}, reinterpret_cast<char*>(codes.data())),
          "ArqQuantReal for " + layer.name);
    return codes;
}

/// Throws if a sum of the layer could leave the integers that floats hold exactly.
void CheckExact(const Layer& integers, const Factors& factors) {
    const int half = 1 << (factors.numBits - 1);
    const int largestCode = std::max(std::abs(half - 1 - factors.inputOffset), std::abs(-half - factors.inputOffset));
    for (int o = 0; o < integers.outChannels; ++o) {
        double largestSum = std::abs(integers.bias[o]);
        for (size_t i = o; i < integers.weights.size(); i += integers.outChannels)
            largestSum += static_cast<double>(largestCode) * std::abs(integers.weights[i]);
        if (!(largestSum <= kExactIntegers))
            throw std::runtime_error("the sums of " + integers.name + " are too large");
    }
}

/// A channel's word for the dequantise operator: the scale's bits, the shift above them.
uint64_t ScaleWord(float scale, int shift) {
    uint32_t bits;
    std::memcpy(&bits, &scale, sizeof bits);
    return static_cast<uint64_t>(shift) << 32 | bits;
}

void Dequantise(Tensor& sums, const std::vector<uint64_t>& scaleWords) {
    KestTfOp::DequantInputParam<float> param{};
    param.inputMultiplier = 1;
    param.length = static_cast<int>(sums.data.size());
    param.input = sums.data.data();
    param.deqScale = scaleWords.data();
    param.channelNum = sums.c;
    param.channelWise = true;  // the last axis
    Check(KestTfOp::OrvaneDequantFunctor<ThreadPoolDevice, float>()(param, sums.data.data()), "OrvaneDequantFunctor");
}

/// The scores. `onInput` sees what enters each layer, before it is quantised.
Tensor RunDeployed(const Deployed& deployed, const Tensor& images, const InputHook& onInput) {
    const auto quantise = [&](size_t layer, Tensor& input) {
        onInput(layer, input);
        ToCodes(input.data, deployed.factors[layer]);
    };
    const auto dequantise = [&](size_t layer, Tensor& sums) { Dequantise(sums, deployed.scaleWords[layer]); };
    return Run(deployed.integers, images, quantise, nullptr, dequantise);
}

void Softmax(Tensor& scores) {
    KestTfOp::SoftmaxParam param{};
    param.coeffSquare = 1.0f / 2;
    param.coeffCube = 1.0f / 6;
    param.threshold = kSoftmaxThreshold;
    param.axis = 3;
    param.length = static_cast<int>(scores.data.size());
    param.dims = {scores.n, scores.h, scores.w, scores.c};
    const KestTfOp::FastSoftmaxFunctor<ThreadPoolDevice, float> softmax;
    Check(softmax(scores.data.data(), scores.data.data(), param), "FastSoftmaxFunctor");
}

/// Writes one tensor. The operator reports nothing, so the file's size tells whether it is there: an element type, the
/// shape and the elements, four bytes each.
void Dump(const std::vector<float>& values, const std::vector<int>& shape, const std::string& directory,
          const std::string& name) {
    kest_tf::DumpParam param{directory, name, 0, {shape.begin(), shape.end()}, static_cast<unsigned int>(shape.size())};
    const kest_tf::DumpFunctor<ThreadPoolDevice, float> dump;
    Check(dump(values.data(), static_cast<unsigned int>(values.size()), param), "DumpFunctor for " + name);
    const std::string path = KestCommon::ConcatName(directory, name, 0);
    std::error_code error;
    if (std::filesystem::file_size(path, error) != sizeof(float) * (1 + shape.size() + values.size()) || error)
        throw std::runtime_error("cannot write " + path);
}

}  // namespace

Layer IntegerLayer(const Layer& layer, const Factors& factors) {
    const std::vector<signed char> codes = WeightCodes(layer, factors);
    const std::vector<signed char> offsets(factors.weightOffsets.begin(), factors.weightOffsets.end());
    KestTfOp::WeightQuantInputParam<float> param{};
    param.length = static_cast<int>(codes.size());
    param.weight = codes.data();
    param.offset = offsets.data();
    param.channelNum = layer.outChannels;
    param.innerSize = param.length / layer.outChannels;
    param.channelWise = true;
    param.channelFirst = true;
    Layer integers = layer;
    const KestTfOp::OrvaneWeightQuantFunctor<ThreadPoolDevice, float> antiQuantise;
    Check(antiQuantise(param, integers.weights.data()), "OrvaneWeightQuantFunctor for " + layer.name);
    integers.weights = Transposed(std::move(integers.weights), layer.outChannels);
    for (int o = 0; o < layer.outChannels; ++o)
        integers.bias[o] = std::round(layer.bias[o] / (factors.inputScale * factors.weightScales[o]));
    CheckExact(integers, factors);
    return integers;
}

void ToCodes(std::vector<float>& input, const Factors& factors) {
    KestTfOp::QuantInputParam<float> param{};
    param.length = static_cast<int>(input.size());
    param.input = input.data();
    param.scale = 1 / factors.inputScale;
    param.offset = static_cast<float>(factors.inputOffset);
    param.numBits = factors.numBits;
    Check(KestTfOp::OrvaneQuantFunctor<ThreadPoolDevice, float>()(param, input.data()), "OrvaneQuantFunctor");
}

Deployed Deploy(const Network& network, const std::vector<Factors>& factors) {
    Deployed deployed{{}, {}, factors};
    for (size_t layer = 0; layer < network.size(); ++layer) {
        const Factors& of = factors[layer];
        deployed.integers.push_back(IntegerLayer(network[layer], of));
        std::vector<uint64_t> words;
        for (size_t o = 0; o < of.weightScales.size(); ++o)
            words.push_back(ScaleWord(of.inputScale * of.weightScales[o], of.shifts.at(o)));
        deployed.scaleWords.push_back(std::move(words));
    }
    return deployed;
}

double DeployedAccuracy(const Deployed& deployed, const Images& images) {
    Tensor scores = RunDeployed(deployed, images.pixels, [](size_t, Tensor&) {});
    Softmax(scores);
    return PercentRight(scores, images.labels);
}

void DumpBatch(const Deployed& deployed, const Tensor& images, const std::string& directory) {
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (error) throw std::runtime_error("cannot make the directory " + directory + ": " + error.message());
    for (const Layer& layer : deployed.integers) {
        Dump(layer.weights, {layer.kernelHeight, layer.kernelWidth, layer.inChannels, layer.outChannels}, directory,
             layer.name + "_weights");
    }
    const Tensor scores = RunDeployed(deployed, images, [&](size_t layer, const Tensor& input) {
        Dump(input.data, {input.n, input.h, input.w, input.c}, directory, deployed.integers[layer].name + "_input");
    });
    Dump(scores.data, {scores.n, scores.h, scores.w, scores.c}, directory, "scores");
}

}  // namespace digits
