#ifndef KEST_EXAMPLES_DIGITS_QUANTISE_H_
#define KEST_EXAMPLES_DIGITS_QUANTISE_H_

#include <string>
#include <vector>

#include "console.h"
#include "network.h"

// Quantisation after training: the factors of a network, found with kest's kernels, and what they make of its values.
//
//   activations        x ~ scale * (code - offset), codes of numBits bits
//   weights, uniform   the same, a scale for each output channel, offset 0
//   weights, clustered x ~ scale * (cluster + offset), clusters on an 8-bit grid, shared by the channels of a layer

namespace digits {

/// What the record file holds for a layer.
struct Factors {
    int numBits = 0;
    float inputScale = 0;
    int inputOffset = 0;
    std::vector<float> weightScales;  // one for each output channel
    std::vector<int> weightOffsets;
    std::vector<int> clusters;   // none: the weights are uniform
    std::vector<float> balance;  // one for each input channel; none: the layer is not balanced
    std::vector<int> shifts;     // one for each output channel, once they are found
};

/// A failing kernel prints a log line and returns a status other than 0; here that ends the program.
void Check(int status, const std::string& step);

/// A matrix of `rows` rows with rows and columns swapped. The network has its channels innermost, most kernels that
/// work channel by channel have them outermost.
std::vector<float> Transposed(std::vector<float> matrix, int rows);

/// Runs the float network on the first batches of the training images and finds the input scale and offset of each of
/// its layers.
void CalibrateInputs(const Network& network, const Images& training, Calibration calibration, int numBits,
                     int numBatches, std::vector<Factors>& factors);

/// Finds the scales and offsets of a layer's weights on a uniform grid of factors.numBits bits (ARQ).
void QuantiseUniform(const Layer& layer, Factors& factors);

/// Finds the scales and offsets of a layer's weights and the integers that stand for them (NUQ).
void QuantiseClustered(const Layer& layer, int numClusters, Factors& factors);

/// A layer's weights as the quantised network knows them. The factors come by value because kest's views are writable.
std::vector<float> FakeQuantiseWeights(const Layer& layer, Factors factors);

/// Makes of a layer's input, in place, what the quantised network knows of it.
void FakeQuantiseInput(std::vector<float>& input, Factors factors);

/// The network with all weights fake-quantised.
Network FakeQuantise(Network network, const std::vector<Factors>& factors);

/// The accuracy of the network with weights and layer inputs quantised.
double QuantisedAccuracy(const Network& network, const std::vector<Factors>& factors, const Images& images);

}  // namespace digits

#endif  // KEST_EXAMPLES_DIGITS_QUANTISE_H_
