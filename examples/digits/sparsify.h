#ifndef KEST_EXAMPLES_DIGITS_SPARSIFY_H_
#define KEST_EXAMPLES_DIGITS_SPARSIFY_H_

#include <vector>

#include "network.h"

// Zeros in the weights of the float network, before anything is quantised: whole channels, or N of every M weights.

namespace digits {

/// Prunes the weakest output channels of every layer but the last: the weights and biases that make them and the
/// weights of the next layer that read them become 0. Returns how many of each layer.
std::vector<int> Prune(Network& network, float ratio);

/// Keeps the numKept largest of every groupSize weights along the input channels, the axis over which a device sums.
/// Channels without a weight other than 0 form no groups. Returns for each layer whether it has been masked: those with
/// fewer than groupSize channels are left as they are.
std::vector<bool> MakeSparse(Network& network, int numKept, int groupSize);

}  // namespace digits

#endif  // KEST_EXAMPLES_DIGITS_SPARSIFY_H_
