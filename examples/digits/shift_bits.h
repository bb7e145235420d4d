#ifndef KEST_EXAMPLES_DIGITS_SHIFT_BITS_H_
#define KEST_EXAMPLES_DIGITS_SHIFT_BITS_H_

#include <vector>

#include "network.h"
#include "quantise.h"

// By how many bits a deployed layer shifts its 32-bit accumulators right so that they fit 16 bits.

namespace digits {

/// The shift of each output channel of a layer, as two searches find it.
struct ShiftBits {
    std::vector<int> kept;      // from the values of all batches, kept until the last
    std::vector<int> streamed;  // from sixteen sums of errors, whatever the number of batches
};

/// The shifts of every layer of the quantised network, from its accumulators over the first batches of `images`.
std::vector<ShiftBits> FindShiftBits(const Network& network, const std::vector<Factors>& factors, const Images& images,
                                     int numBatches);

}  // namespace digits

#endif  // KEST_EXAMPLES_DIGITS_SHIFT_BITS_H_
