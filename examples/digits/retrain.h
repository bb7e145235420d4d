#ifndef KEST_EXAMPLES_DIGITS_RETRAIN_H_
#define KEST_EXAMPLES_DIGITS_RETRAIN_H_

#include <vector>

#include "network.h"
#include "quantise.h"

// Quantisation-aware retraining: a network that loses too much in few bits learns to live with them.

namespace digits {

struct Retrained {
    Network network;  // float weights that have learned; quantise them with
    std::vector<Factors> factors;
};

/// Trains weights, weight scales and input ranges of the network for its quantised form, by plain stochastic gradient
/// descent from the factors that calibration found (those of the weights start anew). Deterministic.
Retrained Retrain(const Network& network, const std::vector<Factors>& calibrated, const Images& training,
                  int numEpochs);

}  // namespace digits

#endif  // KEST_EXAMPLES_DIGITS_RETRAIN_H_
