// Quantises a small convolutional network after training, from float weights to a tested result:
//
//   1. calibrate  IFMR or HFMG finds a scale and an offset for the input of every layer from batches of training images
//   2. quantise   ARQ finds a scale for every output channel of every weight tensor; or NUQ, with clusters of weights
//   3. store      both go into a record file, a text that deployment tools and people read
//   4. read back  the factors, from that file alone, fake-quantise weights and activations of the network
//   5. shift      two searches find by how many bits deployed layers shift their accumulators; the record file has them
//   6. deploy     from the record file, the network in the integers of a device
//   7. retrain    for fewer bits than calibration alone can serve, a few epochs of training with ULQ
//
// quantise.h has 1, 2 and the arithmetic of 4, shift_bits.h 5, deploy.h 6, retrain.h 7. Before all that, options prune
// the float network or make it sparse (sparsify.h) and balance it (balance.h).

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
#include <limits>
#include <numeric>
#include <stdexcept>
#include <string>
#include <vector>

#include "balance.h"
#include "console.h"
#include "deploy.h"
#include "network.h"
#include "quantise.h"
#include "retrain.h"
#include "shift_bits.h"
#include "sparsify.h"

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
    if (factors.balance.empty()) return;
    Check(KestTfOp::WriteTensorBalanceFactorToRecordFile(factors.balance.data(),
                                                         static_cast<int>(factors.balance.size()), layer, path),
          "WriteTensorBalanceFactorToRecordFile for " + layer);
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

/// The items of a list, none if it is not there.
template <typename Node>
auto Items(const kest_tf::Data& block, const std::string& name) {
    const Node* list = FindChild<Node>(block, name);
    return list == nullptr ? decltype(list->items)() : list->items;
}

template <typename Node>
const Node& Child(const kest_tf::Data& block, const std::string& name) {
    const Node* child = FindChild<Node>(block, name);
    if (child == nullptr) throw std::runtime_error("the record file lacks a " + name);
    return *child;
}

template <typename T>
bool NoneOr(const std::vector<T>& list, size_t size) {
    return list.empty() || list.size() == size;
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
        factors.clusters = Items<kest_tf::IntListData>(value, "cluster");
        factors.balance = Items<kest_tf::FloatListData>(value, "tensor_balance_factor");
        for (const unsigned long shift : Items<kest_tf::UnsignedIntListData>(value, "shift_bit"))
            factors.shifts.push_back(static_cast<int>(shift));
        const std::string& type = Child<kest_tf::StringData>(value, "dst_type").scalar;
        const size_t numScales = layer.outChannels;
        if (std::sscanf(type.c_str(), "INT%d", &factors.numBits) != 1 || factors.weightScales.size() != numScales ||
            factors.weightOffsets.size() != numScales || !NoneOr(factors.balance, layer.inChannels) ||
            !NoneOr(factors.shifts, numScales)) {
            throw std::runtime_error("the record of " + layer.name + " does not fit the layer");
        }
        return factors;
    }
    throw std::runtime_error("the record file lacks the layer " + layer.name);
}

/// The factors of every layer, in the network's order, from the file alone. Without shifts before these are stored.
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

/// How well the factors fit the calibration values and the weights of a layer.
LayerReport Judge(const Layer& layer, const std::vector<float>& values, const Factors& factors) {
    std::vector<float> quantised = values;
    FakeQuantiseInput(quantised, factors);
    const auto [smallest, largest] = std::minmax_element(factors.weightScales.begin(), factors.weightScales.end());
    const auto [smallestShift, largestShift] = std::minmax_element(factors.shifts.begin(), factors.shifts.end());
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

double FloatAccuracy(const Network& network, const Images& images) {
    return Accuracy(network, images, [](size_t, Tensor&) {});
}

/// Takes channels and weights out of the float network, as the options say, and tells what that costs.
void Thin(const Options& options, const Images& heldOut, Network& network, Report& report) {
    if (options.prune > 0) {
        const std::vector<int> numPruned = Prune(network, options.prune);
        std::string channels;
        for (size_t layer = 0; layer + 1 < network.size(); ++layer) {
            channels += (layer == 0 ? "" : ", ") + network[layer].name + " " + std::to_string(numPruned[layer]) +
                        " of " + std::to_string(network[layer].outChannels);
        }
        report.changes.push_back({"pruned", FloatAccuracy(network, heldOut), "channels: " + channels});
    }
    if (options.sparseGroup > 0) {
        const std::string pattern = std::to_string(options.sparseKept) + ":" + std::to_string(options.sparseGroup);
        const std::vector<bool> masked = MakeSparse(network, options.sparseKept, options.sparseGroup);
        std::string left;
        for (size_t layer = 0; layer < network.size(); ++layer) {
            if (!masked[layer]) left += (left.empty() ? "" : ", ") + network[layer].name;
        }
        report.changes.push_back(
            {"sparse " + pattern, FloatAccuracy(network, heldOut), "left out for too few channels: " + left});
    }
}

/// Tells that the balanced network computes what the float one does, or that it does not.
void ReportBalance(const Network& network, const Network& balanced, const Images& heldOut, Report& report) {
    const double difference = ScoreDifference(network, balanced, heldOut);
    if (!(difference < 1e-5)) throw std::runtime_error("balancing has changed what the float network computes");
    float smallest = std::numeric_limits<float>::max();
    float largest = 0;
    for (const Layer& layer : balanced) {
        const auto [low, high] = std::minmax_element(layer.inputDivisors.begin(), layer.inputDivisors.end());
        smallest = std::min(smallest, *low);
        largest = std::max(largest, *high);
    }
    char text[100];
    std::snprintf(text, sizeof text, "factors %.3g to %.3g; scores move by %.0e of the largest", smallest, largest,
                  difference);
    report.changes.push_back({"balanced", FloatAccuracy(balanced, heldOut), text});
}

void QuantiseAndCompare(const Options& options) {
    Stopwatch watch;
    Network network = LoadNetwork(options.data + "/network.bin");
    const Dataset dataset = LoadDataset(options.data + "/images.bin");
    const size_t numLayers = network.size();
    watch.Lap("load network and images");

    Report report{};
    report.numHeldOut = dataset.heldOut.pixels.n;
    report.changes.push_back({"as trained", FloatAccuracy(network, dataset.heldOut), "all channels and weights"});
    Thin(options, dataset.heldOut, network, report);
    report.floatAccuracy = report.changes.back().accuracy;
    watch.Lap("run the float network");

    std::vector<Factors> found(numLayers);
    if (options.balance) {
        FindBalance(network, dataset.training, options.batches, found);
        ReportBalance(network, Balanced(network, found), dataset.heldOut, report);
        watch.Lap("balance");
    }
    const Network balanced = Balanced(network, found);

    CalibrateInputs(balanced, dataset.training, options.calibration, options.bits, options.batches, found);
    watch.Lap("calibrate activations");

    for (size_t layer = 0; layer < numLayers; ++layer) {
        if (options.weights == WeightMethod::kArq) {
            QuantiseUniform(balanced[layer], found[layer]);
        } else {
            QuantiseClustered(balanced[layer], options.clusters, found[layer]);
        }
    }
    watch.Lap("quantise weights");

    CreateRecordFile(options.record);
    for (size_t layer = 0; layer < numLayers; ++layer) StoreFactors(network[layer].name, found[layer], options.record);
    watch.Lap("write the record file");

    const std::vector<Factors> factors = ReadRecordFile(network, options.record);
    report.quantisedAccuracy = QuantisedAccuracy(Balanced(network, factors), factors, dataset.heldOut);
    watch.Lap("run the quantised network");

    const std::vector<ShiftBits> shifts = FindShiftBits(balanced, factors, dataset.training, options.batches);
    for (size_t layer = 0; layer < numLayers; ++layer) {
        StoreShifts(network[layer].name, shifts[layer], options.record);
        report.numShifts += network[layer].outChannels;
        report.numEqualShifts += CountEqual(shifts[layer].kept, shifts[layer].streamed);
    }
    watch.Lap("search and store shift bits");

    const std::vector<Factors> complete = ReadRecordFile(network, options.record);  // the shifts, too
    const Deployed deployed = Deploy(Balanced(network, complete), complete);
    report.deployedAccuracy = DeployedAccuracy(deployed, dataset.heldOut);
    watch.Lap("run the deployed network");
    if (!options.dump.empty()) {
        DumpBatch(deployed, Slice(dataset.heldOut.pixels, 0, kBatchSize), options.dump);
        watch.Lap("dump a batch");
    }

    std::vector<Factors> fewBits(numLayers);
    CalibrateInputs(balanced, dataset.training, options.calibration, options.retrainBits, options.batches, fewBits);
    for (size_t layer = 0; layer < numLayers; ++layer) QuantiseUniform(balanced[layer], fewBits[layer]);
    report.beforeRetraining = QuantisedAccuracy(balanced, fewBits, dataset.heldOut);
    const Retrained retrained = Retrain(balanced, fewBits, dataset.training, options.epochs);
    report.retrainedAccuracy = QuantisedAccuracy(retrained.network, retrained.factors, dataset.heldOut);
    watch.Lap("retrain at " + std::to_string(options.retrainBits) + " bits");

    Run(balanced, Slice(dataset.training.pixels, 0, options.batches * kBatchSize), [&](size_t layer, Tensor& input) {
        report.layers.push_back(Judge(balanced[layer], input.data, complete[layer]));
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
