#ifndef KEST_EXAMPLES_DIGITS_BALANCE_H_
#define KEST_EXAMPLES_DIGITS_BALANCE_H_

#include <vector>

#include "network.h"
#include "quantise.h"

// Balancing before calibration: each input channel of a layer is divided by a factor and its weights are multiplied by
// it, so that channels of very different ranges share one scale with less loss. What the layer computes stays.

namespace digits {

/// Finds factors[layer].balance of every layer (DMQ) from its weights and its inputs over the first batches of the
/// training images.
void FindBalance(const Network& network, const Images& training, int numBatches, std::vector<Factors>& factors);

/// The network with these factors applied.
Network Balanced(Network network, const std::vector<Factors>& factors);

/// The largest difference between the scores of two networks, as a part of the largest score.
double ScoreDifference(const Network& network, const Network& other, const Images& images);

}  // namespace digits

#endif  // KEST_EXAMPLES_DIGITS_BALANCE_H_
