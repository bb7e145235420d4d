// Quantises a small convolutional network after training, from float weights to a tested result:
//
//   1. calibrate  IFMR finds a scale and an offset for the input of every layer from batches of training images
//   2. quantise   ARQ finds a scale for every output channel of every weight tensor
//   3. store      both go into a record file, a text that deployment tools and people read
//   4. read back  the factors, from that file alone, fake-quantise weights and activations of the network
//
// x ~ scale * (code - offset) throughout, with codes of --bits bits.

#include <kest/activation_calib/ifmr.h>
#include <kest/kernel_frame/views.h>
#include <kest/record/proto_simulator/record_data.h>
#include <kest/record/proto_simulator/record_proto.h>
#include <kest/record/record_update.h>
#include <kest/weight_quant/arq.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "console.h"
#include "network.h"

namespace digits {
namespace {

/// What the record file holds for a layer.
struct Factors {
    int numBits;
    float inputScale;
    int inputOffset;
    std::vector<float> weightScales;  // one for each output channel
    std::vector<int> weightOffsets;
};

/// A failing kernel prints a log line and returns a status other than 0; here that ends the program.
void Check(int status, const std::string& step) {
    if (status != 0) throw std::runtime_error(step + " failed with status " + std::to_string(status));
}

/// The settings that suit most activations: percentiles that leave one value in a million out of the range, then a
/// search over 0.7 to 1.3 of that range for the least squared error.
kest_tf::IfmrParam CalibrationParam(int numBits) {
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

/// The calibration of one activation tensor. All of it lives with the caller from the first batch to the last.
struct Calibration {
    int batchIndex = 0;  // the functor counts the batches
    KestTfOp::InputParam<float> input{};
    float scale = 0;  // published by the last batch
    int offset = 0;
    float calScale = 0;  // the functor's own
    int calOffset = 0;
};

/// Hands the next batch to the calibration; the last of `numBatches` finds scale and offset.
void CalibrateBatch(const std::string& layer, const std::vector<float>& batch, int numBits, int numBatches,
                    Calibration& calibration) {
    calibration.input.input = batch.data();
    calibration.input.length = static_cast<int64_t>(batch.size());
    const KestTfOp::DataQuantParam<float> results{&calibration.scale, &calibration.offset, &calibration.calScale,
                                                  &calibration.calOffset};
    const KestTfOp::QuantIfmrFunctor<util::ThreadPoolDevice, float> calibrate;
    Check(calibrate(CalibrationParam(numBits), calibration.batchIndex, numBatches, calibration.input, results),
          "QuantIfmrFunctor for " + layer);
}

/// Runs the float network on batches of training images and calibrates the input of each of its layers.
std::vector<Calibration> CalibrateInputs(const Network& network, const Images& training, const Options& options) {
    if (options.batches * kBatchSize > training.pixels.n) throw std::runtime_error("too few training images");
    std::vector<Calibration> calibrations(network.size());
    Progress progress;
    for (int batch = 0; batch < options.batches; ++batch) {
        Run(network, Slice(training.pixels, batch * kBatchSize, kBatchSize), [&](size_t layer, auto& input) {
            progress.Show("calibrating: batch " + std::to_string(batch + 1) + " of " + std::to_string(options.batches) +
                          ", input of " + network[layer].name);
            CalibrateBatch(network[layer].name, input, options.bits, options.batches, calibrations[layer]);
        });
    }
    return calibrations;
}

/// Finds the scales and offsets of a layer's weights, one for each output channel, which is innermost.
void QuantiseWeights(const Layer& layer, int numBits, std::vector<float>& scales, std::vector<int>& offsets) {
    scales.resize(layer.outChannels);
    offsets.resize(layer.outChannels);
    std::vector<float> weights = layer.weights;  // fake-quantised in place and dropped: only the factors count here
    const KestCommon::Input<float> input{weights.data(), static_cast<int>(weights.size()), layer.outChannels};
    const KestCommon::Output<float> output{weights.data(), scales.data(), offsets.data()};
    const KestTfOp::ArqQuantFunctor<util::ThreadPoolDevice, float> quantise;
    Check(quantise(input, output, numBits), "ArqQuantFunctor for " + layer.name);
}

/// A record update needs a file to update. It starts empty: a record of an earlier run would keep what is not updated.
void CreateRecordFile(const std::string& path) {
    if (!std::ofstream(path, std::ios::trunc)) throw std::runtime_error("cannot create the record file " + path);
}

/// Adds a layer's factors to the record file under the layer's name.
void StoreFactors(const std::string& layer, const Factors& factors, const std::string& path) {
    Check(KestTfOp::WriteDataToRecordFile(&factors.inputScale, &factors.inputOffset, layer, path,
                                          "INT" + std::to_string(factors.numBits)),
          "WriteDataToRecordFile for " + layer);
    Check(KestTfOp::WriteWeightToRecordFile(factors.weightScales.data(), factors.weightOffsets.data(),
                                            static_cast<int>(factors.weightScales.size()), layer, path),
          "WriteWeightToRecordFile for " + layer);
}

/// The child `name` of a block of the record tree, as the class that its kind of field has.
template <typename Node>
const Node& Child(const kest_tf::Data& block, const std::string& name) {
    for (const auto& [childName, child] : block.children) {
        const auto* node = childName == name ? dynamic_cast<const Node*>(child) : nullptr;
        if (node != nullptr && node->HasValue()) return *node;
    }
    throw std::runtime_error("the record file lacks a " + name);
}

/// A layer's factors, from its record.
Factors ReadFactors(const kest_tf::InnerData& root, const Layer& layer) {
    for (const kest_tf::RecordData* record : root.records) {
        if (Child<kest_tf::StringData>(*record, "key").scalar != layer.name) continue;
        const kest_tf::ValueData& value = *record->Value();
        Factors factors{};
        factors.inputScale = Child<kest_tf::FloatData>(value, "scale_d").scalar;
        factors.inputOffset = Child<kest_tf::IntData>(value, "offset_d").scalar;
        factors.weightScales = Child<kest_tf::FloatListData>(value, "scale_w").items;
        factors.weightOffsets = Child<kest_tf::IntListData>(value, "offset_w").items;
        const std::string& type = Child<kest_tf::StringData>(value, "dst_type").scalar;
        const size_t numScales = layer.outChannels;
        if (std::sscanf(type.c_str(), "INT%d", &factors.numBits) != 1 || factors.weightScales.size() != numScales ||
            factors.weightOffsets.size() != numScales) {
            throw std::runtime_error("the record of " + layer.name + " does not fit the layer");
        }
        return factors;
    }
    throw std::runtime_error("the record file lacks the layer " + layer.name);
}

/// The factors of every layer, in the network's order, from the file alone.
std::vector<Factors> ReadRecordFile(const Network& network, const std::string& path) {
    kest_tf::InnerData root("InnerScaleOffsetRecord", kest_tf::FIELD_MESSAGE, 0);
    Check(kest_tf::ParseRecordFile(path, root), "ParseRecordFile");
    std::vector<Factors> factors;
    for (const Layer& layer : network) factors.push_back(ReadFactors(root, layer));
    return factors;
}

/// The weights as the quantised network knows them. The factors come by value because kest's views are writable.
std::vector<float> FakeQuantiseWeights(const std::vector<float>& weights, Factors factors) {
    std::vector<float> quantised(weights.size());
    KestCommon::ArqClipAndQuantKhKwCiCo<float>(
        weights.data(), quantised.data(), static_cast<unsigned int>(weights.size()), factors.numBits,
        {static_cast<unsigned int>(factors.weightScales.size()), factors.weightScales.data()},
        {static_cast<unsigned int>(factors.weightOffsets.size()), factors.weightOffsets.data()});
    return quantised;
}

/// Makes of a layer's input, in place, what the quantised network knows of it.
void FakeQuantiseInput(std::vector<float>& input, Factors factors) {
    KestCommon::IfmrParam param{};
    param.calibration = 1;  // inference
    param.numBits = factors.numBits;
    Check(KestCommon::IfmrQuant(input.data(), static_cast<unsigned int>(input.size()), param, {1, &factors.inputScale},
                                {1, &factors.inputOffset}),
          "IfmrQuant");
}

/// The accuracy of the network with weights and layer inputs quantised.
double QuantisedAccuracy(Network network, const std::vector<Factors>& factors, const Images& images) {
    for (size_t layer = 0; layer < network.size(); ++layer) {
        network[layer].weights = FakeQuantiseWeights(network[layer].weights, factors[layer]);
    }
    return Accuracy(network, images, [&](size_t layer, auto& input) { FakeQuantiseInput(input, factors[layer]); });
}

/// Signal-to-noise ratio in dB; infinity for equal values.
double SnrDb(const std::vector<float>& exact, const std::vector<float>& quantised) {
    double signal = 0;
    double noise = 0;
    for (size_t i = 0; i < exact.size(); ++i) {
        const double error = static_cast<double>(quantised[i]) - exact[i];
        signal += static_cast<double>(exact[i]) * exact[i];
        noise += error * error;
    }
    return 10 * std::log10(signal / noise);
}

/// Percentage of values whose code would lie beyond the grid.
double ClippedPercent(const std::vector<float>& values, const Factors& factors) {
    const int half = 1 << (factors.numBits - 1);
    const auto clipped = std::count_if(values.begin(), values.end(), [&](float value) {
        const float code = std::round(value / factors.inputScale) + static_cast<float>(factors.inputOffset);
        return code < -half || code > half - 1;
    });
    return 100.0 * static_cast<double>(clipped) / static_cast<double>(values.size());
}

/// The shape of the weights as the table shows it: a dense layer without its kernel of 1x1.
std::string ShapeText(const Layer& layer) {
    const std::string channels = std::to_string(layer.inChannels) + "x" + std::to_string(layer.outChannels);
    if (layer.kernelHeight == 1 && layer.kernelWidth == 1) return channels;
    return std::to_string(layer.kernelHeight) + "x" + std::to_string(layer.kernelWidth) + "x" + channels;
}

/// How well the factors fit the calibration values and the weights of a layer.
LayerReport Judge(const Layer& layer, const std::vector<float>& values, const Factors& factors) {
    std::vector<float> quantised = values;
    FakeQuantiseInput(quantised, factors);
    const auto [smallest, largest] = std::minmax_element(factors.weightScales.begin(), factors.weightScales.end());
    return {layer.name,
            factors.inputScale,
            factors.inputOffset,
            ClippedPercent(values, factors),
            SnrDb(values, quantised),
            ShapeText(layer),
            *smallest,
            *largest,
            SnrDb(layer.weights, FakeQuantiseWeights(layer.weights, factors))};
}

void QuantiseAndCompare(const Options& options) {
    Stopwatch watch;
    const Network network = LoadNetwork(options.data + "/network.bin");
    const Dataset dataset = LoadDataset(options.data + "/images.bin");
    watch.Lap("load network and images");

    Report report{};
    report.numHeldOut = dataset.heldOut.pixels.n;
    report.floatAccuracy = Accuracy(network, dataset.heldOut, [](size_t, auto&) {});
    watch.Lap("run the float network");

    const std::vector<Calibration> calibrations = CalibrateInputs(network, dataset.training, options);
    watch.Lap("calibrate activations");

    std::vector<Factors> found(network.size());
    for (size_t layer = 0; layer < network.size(); ++layer) {
        found[layer].numBits = options.bits;
        found[layer].inputScale = calibrations[layer].scale;
        found[layer].inputOffset = calibrations[layer].offset;
        QuantiseWeights(network[layer], options.bits, found[layer].weightScales, found[layer].weightOffsets);
    }
    watch.Lap("quantise weights");

    CreateRecordFile(options.record);
    for (size_t layer = 0; layer < network.size(); ++layer) {
        StoreFactors(network[layer].name, found[layer], options.record);
    }
    watch.Lap("write the record file");

    const std::vector<Factors> factors = ReadRecordFile(network, options.record);
    report.quantisedAccuracy = QuantisedAccuracy(network, factors, dataset.heldOut);
    watch.Lap("run the quantised network");

    for (size_t layer = 0; layer < network.size(); ++layer) {
        report.layers.push_back(Judge(network[layer], calibrations[layer].input.accumulated, factors[layer]));
    }
    Print(report, options, watch);
    if (std::fflush(stdout) != 0) throw std::runtime_error("cannot write to standard output");
}

}  // namespace
}  // namespace digits

int main(int argc, char** argv) {
    const digits::Options options = digits::ParseOptions(argc, argv);
    try {
        digits::QuantiseAndCompare(options);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "digits: %s\n", failure.what());
        return 1;
    }
}
