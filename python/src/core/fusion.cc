#include <kest/op_kernels/batch_norm_fusion.h>

#include "core.h"

namespace core {
namespace {

using namespace nb::literals;

/// `offset` is copied onto itself: fusing leaves offsets as they are.
void FuseWeightScales(const Input<float>& scale, const Input<float>& gamma, const Input<float>& variance, float epsilon,
                      float multiplier, const Output<int>& offset, const Output<float>& fused) {
    Run("fusion.fuse_weight_scales", [&] {
        return KestTfOp::FuseScaleWCpu(
            {scale.data(), offset.data(), fused.data(), offset.data(), static_cast<int>(scale.size())},
            {gamma.data(), variance.data(), &epsilon, &multiplier}, fused.data());
    });
}

}  // namespace

void BindFusion(nb::module_& module) {
    module.def("fusion_fuse_weight_scales", FuseWeightScales, "scale"_a.noconvert(), "gamma"_a.noconvert(),
               "variance"_a.noconvert(), "epsilon"_a, "multiplier"_a, "offset"_a.noconvert(), "fused"_a.noconvert());
}

}  // namespace core
