#ifndef KEST_EXAMPLES_DIGITS_DEPLOY_H_
#define KEST_EXAMPLES_DIGITS_DEPLOY_H_

#include <cstdint>
#include <string>
#include <vector>

#include "network.h"
#include "quantise.h"

// The network as a device runs it. A layer multiplies and adds integers; kest's deployed operators stand around it:
//
//   quantise     codes of the layer's input, without their zero point: padding is 0
//   accumulate   integers, from the bias on
//   dequantise   accumulators, shifted to 16 bits, times input scale * weight scale
//
// The integers are carried by floats, in which every sum below 2^24 is exact, whatever the order.

namespace digits {

struct Deployed {
    Network integers;                               // as IntegerLayer makes them
    std::vector<std::vector<uint64_t>> scaleWords;  // of each layer, one for each output channel
    std::vector<Factors> factors;
};

/// The layer in integers: weights as codes, signed bytes less their offsets; biases in units of the accumulators, which
/// a device sets to them before it adds products, so that shift and saturation see the whole sum. A layer whose sums
/// could leave the exact integers is a std::runtime_error.
Layer IntegerLayer(const Layer& layer, const Factors& factors);

/// Makes of a layer's input, in place, codes without their zero point.
void ToCodes(std::vector<float>& input, const Factors& factors);

/// The network in integers, from its factors with the shifts.
Deployed Deploy(const Network& network, const std::vector<Factors>& factors);

/// The accuracy of its probabilities, the softmax of the scores with a polynomial for the exponential.
double DeployedAccuracy(const Deployed& deployed, const Images& images);

/// Writes the tensors of one batch to a directory, which is made if need be: what enters each layer, before it is
/// quantised, as "<layer>_input", the codes of its weights as "<layer>_weights", and the "scores".
void DumpBatch(const Deployed& deployed, const Tensor& images, const std::string& directory);

}  // namespace digits

#endif  // KEST_EXAMPLES_DIGITS_DEPLOY_H_
