#ifndef KEST_PRUNE_BALANCE_CHANNEL_PRUNE_LOOPS_H_
#define KEST_PRUNE_BALANCE_CHANNEL_PRUNE_LOOPS_H_

#include <kest/kernel_frame/isa.h>

#include <cstddef>

namespace KestCommon {

/// The sums of squares of channels, one instance for each instruction set (isa.h). Each square is added in double
/// precision and the sum rounded to T.
template <typename Isa, typename T>
struct ChannelPruneLoops {
    /// sums[c] += x[row * stride + c]^2, row by row, for c below `width`.
    static void AddSquares(const T* x, std::size_t numRows, std::size_t stride, std::size_t width, T* sums);

    /// For each period, `period` elements apart, sums[c] += x[c * inner + i]^2 for i below `inner`, in order, and c
    /// below `numChannels`.
    static void AddSquaresOfRuns(const T* x, std::size_t numPeriods, std::size_t period, std::size_t inner,
                                 std::size_t numChannels, T* sums);
};

}  // namespace KestCommon

#endif  // KEST_PRUNE_BALANCE_CHANNEL_PRUNE_LOOPS_H_
