#ifndef KEST_WEIGHT_QUANT_ARQ_LOOPS_H_
#define KEST_WEIGHT_QUANT_ARQ_LOOPS_H_

#include <kest/kernel_frame/grid.h>

#include <cstddef>

namespace KestCommon {

/// The element passes of ARQ, one instance for each instruction set (isa.h).
template <typename Isa, typename T>
struct ArqLoops {
    /// util::FindExtremes for each of `width` columns of a matrix of `rows` rows, `stride` elements apart, starting
    /// from the extremes that `min` and `max` hold.
    static void FindColumnExtremes(const T* x, std::size_t rows, std::size_t stride, std::size_t width, T* min, T* max);

    /// Folds the extremes of numGroups groups of `width` columns, side by side, into those of the first.
    static void FoldColumnExtremes(std::size_t numGroups, std::size_t width, T* min, T* max);

    /// Fake-quantises n elements of a channel-innermost tensor, each with its own scale and offset. Any values, a NaN
    /// quotient has code 0; `out` may be `x`. `small`: MovedBoundsAreSmall holds for each offset.
    static void FakeQuantColumns(const T* x, T* out, std::size_t n, const float* scale, const int* offset,
                                 util::Grid grid, bool small);

    /// Codes of one channel, one signed byte each. Any values, a NaN quotient has code 0.
    static void Quant(const T* x, char* out, std::size_t n, float scale, int offset, util::Grid grid);
};

}  // namespace KestCommon

#endif  // KEST_WEIGHT_QUANT_ARQ_LOOPS_H_
