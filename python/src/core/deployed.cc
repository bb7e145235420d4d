#include <kest/op_kernels/deployed_ops.h>

#include "core.h"

namespace core {
namespace {

using namespace nb::literals;
using util::ThreadPoolDevice;

void Quantise(const Input<float>& values, float scale, float offset, int numBits, const Output<float>& out) {
    Run("deployed.quantise", [&] {
        const KestTfOp::OrvaneQuantFunctor<ThreadPoolDevice, float> quantise;
        return quantise({static_cast<int>(values.size()), values.data(), scale, offset, numBits}, out.data());
    });
}

void Dequantise(const Input<float>& values, const Input<uint64_t>& words, int numChannels, int innerSize,
                int inputMultiplier, const Output<float>& out) {
    Run("deployed.dequantise", [&] {
        const KestTfOp::OrvaneDequantFunctor<ThreadPoolDevice, float> dequantise;
        return dequantise({inputMultiplier, static_cast<int>(values.size()), values.data(), words.data(), numChannels,
                           innerSize, true, true, ""},
                          out.data());
    });
}

void AntiQuantise(const Input<float>& values, float scale, const Output<float>& out) {
    Run("deployed.anti_quantise", [&] {
        const KestTfOp::OrvaneAntiQuantFunctor<ThreadPoolDevice, float> antiQuantise;
        return antiQuantise({static_cast<int>(values.size()), values.data(), scale}, out.data());
    });
}

void AntiQuantiseWeights(const Input<int8_t>& codes, const Input<int8_t>& offset, int numChannels, int innerSize,
                         const Output<float>& out) {
    Run("deployed.anti_quantise_weights", [&] {
        const KestTfOp::OrvaneWeightQuantFunctor<ThreadPoolDevice, float> antiQuantise;
        return antiQuantise(
            {static_cast<int>(codes.size()), codes.data(), offset.data(), innerSize, numChannels, true, true},
            out.data());
    });
}

}  // namespace

void BindDeployed(nb::module_& module) {
    module.def("deployed_quantise", Quantise, "values"_a.noconvert(), "scale"_a, "offset"_a, "num_bits"_a,
               "out"_a.noconvert());
    module.def("deployed_dequantise", Dequantise, "values"_a.noconvert(), "words"_a.noconvert(), "num_channels"_a,
               "inner_size"_a, "input_multiplier"_a, "out"_a.noconvert());
    module.def("deployed_anti_quantise", AntiQuantise, "values"_a.noconvert(), "scale"_a, "out"_a.noconvert());
    module.def("deployed_anti_quantise_weights", AntiQuantiseWeights, "codes"_a.noconvert(), "offset"_a.noconvert(),
               "num_channels"_a, "inner_size"_a, "out"_a.noconvert());
}

}  // namespace core
