// Quantises a small convolutional network after training, from float weights to a tested result:
//
//   1. calibrate  IFMR or HFMG finds a scale and an offset for the input of every layer from batches of training images
//   2. quantise   ARQ finds a scale for every output channel of every weight tensor; or NUQ, with clusters of weights
//   3. store      both go into a record file, a text that deployment tools and people read
//   4. read back  the factors, from that file alone, fake-quantise weights and activations of the network
//   5. shift      two searches find by how many bits deployed layers shift their accumulators; the record file has them
//   6. retrain    for fewer bits than calibration alone can serve, a few epochs of training with ULQ
//
// quantise.h has 1, 2 and the arithmetic of 4, shift_bits.h 5, retrain.h 6.

#include <kest/record/proto_simulator/record_data.h>
#include <kest/record/proto_simulator/record_proto.h>
#include <kest/record/record_update.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <exception>
#include <fstream>
#include <functional>
#include <numeric>
#include <stdexcept>
#include <string>
#include <vector>

#include "console.h"
#include "network.h"
#include "quantise.h"
#include "retrain.h"
#include "shift_bits.h"

namespace digits {
namespace {

/// A record update needs a file to update. It starts empty: a record of an earlier run would keep what is not updated.
void CreateRecordFile(const std::string& path) {
    if (!std::ofstream(path, std::ios::trunc)) throw std::runtime_error("cannot create the record file " + path);
}

/// Adds a layer's factors to the record file under the layer's name.
void StoreFactors(const std::string& layer, const Factors& factors, const std::string& path) {
    Check(KestTfOp::WriteDataToRecordFile(&factors.inputScale, &factors.inputOffset, layer, path,
                                          "INT" + std::to_string(factors.numBits)),
          "WriteDataToRecordFile for " + layer);
    const int numScales = static_cast<int>(factors.weightScales.size());
    const int numClusters = static_cast<int>(factors.clusters.size());
    if (numClusters == 0) {
        Check(KestTfOp::WriteWeightToRecordFile(factors.weightScales.data(), factors.weightOffsets.data(), numScales,
                                                layer, path),
              "WriteWeightToRecordFile for " + layer);
    } else {
        Check(KestTfOp::WriteNuqRecordToFile(factors.weightScales.data(), factors.weightOffsets.data(),
                                             factors.clusters.data(), numScales, numClusters, layer, path),
              "WriteNuqRecordToFile for " + layer);
    }
}

/// Adds a layer's shifts to its record.
void StoreShifts(const std::string& layer, const ShiftBits& shifts, const std::string& path) {
    Check(KestTfOp::WriteShiftNToRecordFile(shifts.kept.data(), static_cast<int>(shifts.kept.size()), layer, path),
          "WriteShiftNToRecordFile for " + layer);
}

/// The child `name` of a block of the record tree, as the class that its kind of field has; null if it has no value.
template <typename Node>
const Node* FindChild(const kest_tf::Data& block, const std::string& name) {
    for (const auto& [childName, child] : block.children) {
        const auto* node = childName == name ? dynamic_cast<const Node*>(child) : nullptr;
        if (node != nullptr && node->HasValue()) return node;
    }
    return nullptr;
}

template <typename Node>
const Node& Child(const kest_tf::Data& block, const std::string& name) {
    const Node* child = FindChild<Node>(block, name);
    if (child == nullptr) throw std::runtime_error("the record file lacks a " + name);
    return *child;
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
        const auto* clusters = FindChild<kest_tf::IntListData>(value, "cluster");
        if (clusters != nullptr) factors.clusters = clusters->items;
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

/// How well the factors and shifts fit the calibration values and the weights of a layer.
LayerReport Judge(const Layer& layer, const std::vector<float>& values, const Factors& factors,
                  const ShiftBits& shifts) {
    std::vector<float> quantised = values;
    FakeQuantiseInput(quantised, factors);
    const auto [smallest, largest] = std::minmax_element(factors.weightScales.begin(), factors.weightScales.end());
    const auto [smallestShift, largestShift] = std::minmax_element(shifts.kept.begin(), shifts.kept.end());
    return {layer.name,
            factors.inputScale,
            factors.inputOffset,
            ClippedPercent(values, factors),
            SnrDb(values, quantised),
            ShapeText(layer),
            *smallest,
            *largest,
            SnrDb(layer.weights, FakeQuantiseWeights(layer, factors)),
            *smallestShift,
            *largestShift};
}

int CountEqual(const std::vector<int>& a, const std::vector<int>& b) {
    return std::inner_product(a.begin(), a.end(), b.begin(), 0, std::plus<>(), std::equal_to<>());
}

void QuantiseAndCompare(const Options& options) {
    Stopwatch watch;
    const Network network = LoadNetwork(options.data + "/network.bin");
    const Dataset dataset = LoadDataset(options.data + "/images.bin");
    const size_t numLayers = network.size();
    watch.Lap("load network and images");

    Report report{};
    report.numHeldOut = dataset.heldOut.pixels.n;
    report.floatAccuracy = Accuracy(network, dataset.heldOut, [](size_t, Tensor&) {});
    watch.Lap("run the float network");

    std::vector<Factors> found =
        CalibrateInputs(network, dataset.training, options.calibration, options.bits, options.batches);
    watch.Lap("calibrate activations");

    for (size_t layer = 0; layer < numLayers; ++layer) {
        if (options.weights == WeightMethod::kArq) {
            QuantiseUniform(network[layer], found[layer]);
        } else {
            QuantiseClustered(network[layer], options.clusters, found[layer]);
        }
    }
    watch.Lap("quantise weights");

    CreateRecordFile(options.record);
    for (size_t layer = 0; layer < numLayers; ++layer) StoreFactors(network[layer].name, found[layer], options.record);
    watch.Lap("write the record file");

    const std::vector<Factors> factors = ReadRecordFile(network, options.record);
    report.quantisedAccuracy = QuantisedAccuracy(network, factors, dataset.heldOut);
    watch.Lap("run the quantised network");

    const std::vector<ShiftBits> shifts = FindShiftBits(network, factors, dataset.training, options.batches);
    for (size_t layer = 0; layer < numLayers; ++layer) {
        StoreShifts(network[layer].name, shifts[layer], options.record);
        report.numShifts += network[layer].outChannels;
        report.numEqualShifts += CountEqual(shifts[layer].kept, shifts[layer].streamed);
    }
    watch.Lap("search and store shift bits");

    std::vector<Factors> fewBits =
        CalibrateInputs(network, dataset.training, options.calibration, options.retrainBits, options.batches);
    for (size_t layer = 0; layer < numLayers; ++layer) QuantiseUniform(network[layer], fewBits[layer]);
    report.beforeRetraining = QuantisedAccuracy(network, fewBits, dataset.heldOut);
    const Retrained retrained = Retrain(network, fewBits, dataset.training, options.epochs);
    report.retrainedAccuracy = QuantisedAccuracy(retrained.network, retrained.factors, dataset.heldOut);
    watch.Lap("retrain at " + std::to_string(options.retrainBits) + " bits");

    Run(network, Slice(dataset.training.pixels, 0, options.batches * kBatchSize), [&](size_t layer, Tensor& input) {
        report.layers.push_back(Judge(network[layer], input.data, factors[layer], shifts[layer]));
    });
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
