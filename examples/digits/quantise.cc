#include "quantise.h"

#include <kest/activation_calib/hfmg.h>
#include <kest/activation_calib/ifmr.h>
#include <kest/kernel_frame/views.h>
#include <kest/weight_quant/arq.h>
#include <kest/weight_quant/nuq.h>
#include <kest/weight_quant/ulq.h>

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <utility>

namespace digits {
namespace {

constexpr int kHistogramBins = 2048;
constexpr int kClusterBits = 8;    // of the grid on which clusters lie
constexpr int kClusterRounds = 2;  // refits; more gain tenths of a dB, and no accuracy on the training images

/// The calibration of one activation tensor. All of it lives with the caller from the first batch to the last.
struct TensorCalibration {
    int batchIndex = 0;  // the functor counts the batches
    float scale = 0;     // published by the last batch
    int offset = 0;
    float calScale = 0;  // the functor's own
    int calOffset = 0;
    KestTfOp::InputParam<float> values{};          // IFMR keeps every value,
    std::vector<KestCommon::DataBin<float>> bins;  // HFMG a histogram
};

/// The settings that suit most activations: percentiles that leave one value in a million out of the range, then a
/// search over 0.7 to 1.3 of that range for the least squared error.
kest_tf::IfmrParam IfmrSettings(int numBits) {
    kest_tf::IfmrParam param{};
    param.calibration = 0;  // calibrate
    param.numBits = numBits;
    param.withOffset = true;
    param.startRatio = 0.7f;
    param.endRatio = 1.3f;
    param.step = 0.01f;
    param.maxPercentile = 0.999999f;
    param.minPercentile = 0.999999f;
    return param;
}

/// Hands the next batch, which is only read, to IFMR; the last of `numBatches` finds scale and offset.
int AddBatchIfmr(std::vector<float>& batch, int numBits, int numBatches, TensorCalibration& tensor) {
    tensor.values.input = batch.data();
    tensor.values.length = static_cast<int64_t>(batch.size());
    const KestTfOp::DataQuantParam<float> results{&tensor.scale, &tensor.offset, &tensor.calScale, &tensor.calOffset};
    const KestTfOp::QuantIfmrFunctor<util::ThreadPoolDevice, float> calibrate;
    return calibrate(IfmrSettings(numBits), tensor.batchIndex, numBatches, tensor.values, results);
}

/// The same with HFMG.
int AddBatchHfmg(std::vector<float>& batch, int numBits, int numBatches, TensorCalibration& tensor) {
    KestTfOp::HfmgParam param{static_cast<unsigned int>(numBits), true, kHistogramBins};
    KestCommon::InputData<float> input{static_cast<unsigned int>(batch.size()), batch.data()};
    KestTfOp::HfmgDataQuantParam<float> results{&tensor.scale, &tensor.offset, &tensor.calScale, &tensor.calOffset};
    const KestTfOp::QuantHfmgFunctor<util::ThreadPoolDevice, float> calibrate;
    return calibrate(tensor.bins, param, tensor.batchIndex, numBatches, input, results);
}

/// NUQ's view of a layer's factors; scaleStore and offsetStore are what it publishes and fake-quantises with.
KestTfOp::WeightNuqQuantParam ClusteredView(Factors& factors) {
    KestTfOp::WeightNuqQuantParam param{};
    param.scaleStore = factors.weightScales.data();
    param.offsetStore = factors.weightOffsets.data();
    param.centers = factors.clusters.data();
    param.channelNum = static_cast<int>(factors.weightScales.size());
    param.numBits = kClusterBits;
    param.numClusters = static_cast<int>(factors.clusters.size());
    param.numIterations = kClusterRounds;
    param.withOffset = false;
    return param;
}

}  // namespace

void Check(int status, const std::string& step) {
    if (status != 0) throw std::runtime_error(step + " failed with status " + std::to_string(status));
}

std::vector<float> Transposed(std::vector<float> matrix, int rows) {
    const int length = static_cast<int>(matrix.size());
    std::vector<int> shape{rows, length / rows};
    KestCommon::TransposeAB(matrix.data(), length, shape);
    return matrix;
}

void CalibrateInputs(const Network& network, const Images& training, Calibration calibration, int numBits,
                     int numBatches, std::vector<Factors>& factors) {
    if (numBatches * kBatchSize > training.pixels.n) throw std::runtime_error("too few training images");
    std::vector<TensorCalibration> tensors(network.size());
    Progress progress;
    for (int batch = 0; batch < numBatches; ++batch) {
        Run(network, Slice(training.pixels, batch * kBatchSize, kBatchSize), [&](size_t layer, Tensor& input) {
            progress.Show("calibrating: batch " + std::to_string(batch + 1) + " of " + std::to_string(numBatches) +
                          ", input of " + network[layer].name);
            const auto addBatch = calibration == Calibration::kIfmr ? AddBatchIfmr : AddBatchHfmg;
            Check(addBatch(input.data, numBits, numBatches, tensors[layer]),
                  "calibrating the input of " + network[layer].name);
        });
    }
    for (size_t layer = 0; layer < network.size(); ++layer) {
        factors[layer].numBits = numBits;
        factors[layer].inputScale = tensors[layer].scale;
        factors[layer].inputOffset = tensors[layer].offset;
    }
}

void QuantiseUniform(const Layer& layer, Factors& factors) {
    factors.weightScales.resize(layer.outChannels);
    factors.weightOffsets.resize(layer.outChannels);
    std::vector<float> weights = layer.weights;  // fake-quantised in place and dropped: only the factors count here
    const KestCommon::Input<float> input{weights.data(), static_cast<int>(weights.size()), layer.outChannels};
    const KestCommon::Output<float> output{weights.data(), factors.weightScales.data(), factors.weightOffsets.data()};
    const KestTfOp::ArqQuantFunctor<util::ThreadPoolDevice, float> quantise;
    Check(quantise(input, output, factors.numBits), "ArqQuantFunctor for " + layer.name);
}

void QuantiseClustered(const Layer& layer, int numClusters, Factors& factors) {
    factors.weightScales.resize(layer.outChannels);
    factors.weightOffsets.resize(layer.outChannels);
    factors.clusters.resize(numClusters);
    const int length = static_cast<int>(layer.weights.size());
    std::vector<float> weights = Transposed(layer.weights, length / layer.outChannels);
    std::vector<float> scales(layer.outChannels);  // NUQ works in these and publishes a copy
    std::vector<int> offsets(layer.outChannels);
    KestTfOp::WeightNuqQuantParam param = ClusteredView(factors);
    param.scale = scales.data();
    param.offset = offsets.data();
    KestCommon::ThrustParam<float> accelerator;
    const KestTfOp::NuqFunctor<util::ThreadPoolDevice, float> quantise;
    Check(quantise(weights.data(), length, param, accelerator), "NuqFunctor for " + layer.name);
    // Fake-quantising goes to the first of equally good clusters: sorted, that does not depend on the clustering.
    std::sort(factors.clusters.begin(), factors.clusters.end());
}

std::vector<float> FakeQuantiseWeights(const Layer& layer, Factors factors) {
    std::vector<float> quantised(layer.weights.size());
    const int length = static_cast<int>(layer.weights.size());
    if (factors.clusters.empty()) {
        const auto numChannels = static_cast<unsigned int>(factors.weightScales.size());
        KestCommon::ArqClipAndQuantKhKwCiCo<float>(layer.weights.data(), quantised.data(), length, factors.numBits,
                                                   {numChannels, factors.weightScales.data()},
                                                   {numChannels, factors.weightOffsets.data()});
        return quantised;
    }
    const std::vector<float> weights = Transposed(layer.weights, length / layer.outChannels);
    const KestTfOp::FakeQuantWithNuq<util::ThreadPoolDevice, float> fakeQuantise;
    Check(fakeQuantise(ClusteredView(factors), weights.data(), quantised.data(), length),
          "FakeQuantWithNuq for " + layer.name);
    return Transposed(std::move(quantised), layer.outChannels);
}

void FakeQuantiseInput(std::vector<float>& input, Factors factors) {
    KestCommon::IfmrParam param{};
    param.calibration = 1;  // inference
    param.numBits = factors.numBits;
    Check(KestCommon::IfmrQuant(input.data(), static_cast<unsigned int>(input.size()), param, {1, &factors.inputScale},
                                {1, &factors.inputOffset}),
          "IfmrQuant");
}

Network FakeQuantise(Network network, const std::vector<Factors>& factors) {
    for (size_t layer = 0; layer < network.size(); ++layer) {
        network[layer].weights = FakeQuantiseWeights(network[layer], factors[layer]);
    }
    return network;
}

double QuantisedAccuracy(const Network& network, const std::vector<Factors>& factors, const Images& images) {
    return Accuracy(FakeQuantise(network, factors), images,
                    [&](size_t layer, Tensor& input) { FakeQuantiseInput(input.data, factors[layer]); });
}

}  // namespace digits
