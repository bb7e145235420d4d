#ifndef KEST_PRUNE_BALANCE_SELECTIVE_MASK_LOOPS_H_
#define KEST_PRUNE_BALANCE_SELECTIVE_MASK_LOOPS_H_

#include <kest/kernel_frame/isa.h>

#include <cstddef>

namespace SelectiveMaskGenKernel {

constexpr std::size_t kMaxRanked = 64;  // M up to which ranks are counted, M steps an element

/// The choice of selective_mask.h, one instance for each instruction set (isa.h).
template <typename Isa, typename T>
struct SelectiveMaskLoops {
    static constexpr std::size_t kLanes = 64 / sizeof(T);  // positions at once
    static constexpr std::size_t kMinLanes = 16 / sizeof(T);

    /// Among the groupSize values values[k * stride + t] at each position t < width, the keepNum greatest magnitudes
    /// are kept: keep[k][t] = 1 or 0 for k below numOut. `width` is at least kMinLanes, groupSize at most
    /// kMaxRanked.
    static void Choose(const T* values, std::size_t stride, std::size_t width, std::size_t groupSize,
                       std::size_t keepNum, std::size_t numOut, T* const* keep);

    /// out[c * outStride + r] = in[r * inStride + c]
    static void Transpose(const T* in, std::size_t inStride, std::size_t numRows, std::size_t numColumns, T* out,
                          std::size_t outStride);
};

}  // namespace SelectiveMaskGenKernel

#endif  // KEST_PRUNE_BALANCE_SELECTIVE_MASK_LOOPS_H_
