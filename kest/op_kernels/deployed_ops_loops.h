#ifndef KEST_OP_KERNELS_DEPLOYED_OPS_LOOPS_H_
#define KEST_OP_KERNELS_DEPLOYED_OPS_LOOPS_H_

#include <kest/kernel_frame/axis.h>
#include <kest/kernel_frame/isa.h>

#include <cstddef>
#include <cstdint>

namespace KestTfOp {

/// The element passes of deployed_ops.h for the elements from begin to end - 1, one instance for each instruction set
/// (isa.h). Float inputs may be `out`.
template <typename Isa>
struct DeployedOpsLoops {
    static void Quantise(const float* x, float* out, std::size_t begin, std::size_t end, float scale, float offset,
                         float lower, float upper);

    /// Of each channel `inverse` is 1 / 2^shift, which is 1 for no shift only, and `rescale` 2^shift * scale.
    static void Dequantise(const float* x, float* out, std::size_t begin, std::size_t end, float multiplier,
                           util::Axis channels, const float* inverse, const float* rescale);

    static void AntiQuantiseWeights(const int8_t* weights, float* out, std::size_t begin, std::size_t end,
                                    util::Axis channels, const float* offsets);
};

}  // namespace KestTfOp

#endif  // KEST_OP_KERNELS_DEPLOYED_OPS_LOOPS_H_
