#include <kest/kernel_frame/scale.h>
#include <kest/weight_quant/ulq.h>
#include <nanobind/stl/tuple.h>

#include <tuple>
#include <vector>

#include "core.h"

namespace core {
namespace {

using namespace nb::literals;

/// The fake-quantised values go to `out`; returns scale and offset.
std::tuple<float, int> FakeQuantise(const Input<float>& activations, float clipMax, float clipMin, int numBits,
                                    const Output<float>& out) {
    float scale = 0;
    int offset = 0;
    Run("ulq.fake_quantise", [&] {
        float clipMaxOut;
        float clipMinOut;
        return KestTfOp::UlqFunctor<util::ThreadPoolDevice, float>()(
            {activations.data(), static_cast<int>(activations.size()), &clipMax, &clipMin},
            {out.data(), &scale, &offset, &clipMaxOut, &clipMinOut}, numBits);
    });
    return {scale, offset};
}

std::tuple<float, float> GridBounds(float scale, int offset, int numBits) {
    float clipMax = 0;
    float clipMin = 0;
    Run("ulq.grid_bounds", [&] {
        return KestTfOp::ClipCalculate<util::ThreadPoolDevice, float>()(&scale, &offset, &clipMax, &clipMin, numBits);
    });
    return {clipMax, clipMin};
}

template <typename T>
std::tuple<T, T> Gradients(const Input<T>& activations, const Input<T>& upstream, T upper, T lower, T clipMax,
                           T clipMin) {
    std::vector<T> sums;
    Run("ulq.gradients", [&] {
        sums = KestCommon::UlqDiff(activations.data(), upstream.data(), static_cast<int>(activations.size()),
                                   {upper, lower, clipMax, clipMin});
        return 0;
    });
    return {sums[0], sums[1]};
}

/// The bounds, the record, and whether both bounds were restored.
std::tuple<double, double, double, double, bool> ClipCheck(double clipMax, double clipMin, double clipMaxRecord,
                                                           double clipMinRecord) {
    const bool restored = KestCommon::ClipCheck(clipMax, clipMin, clipMaxRecord, clipMinRecord);
    return {clipMax, clipMin, clipMaxRecord, clipMinRecord, restored};
}

void InitialSteps(const Input<float>& weights, int numBits, bool reciprocal, const Output<float>& highest,
                  const Output<float>& lowest, const Output<float>& steps) {
    Run("ulq.initial_steps", [&] {
        return KestCommon::ScaleArqInit(static_cast<int>(weights.size()), weights.data(), highest.data(), lowest.data(),
                                        {steps.data(), static_cast<int>(steps.size()), numBits, reciprocal});
    });
}

void FakeQuantiseWeights(const Input<float>& weights, const Input<float>& steps, int numBits, bool reciprocal,
                         const Output<float>& out) {
    Run("ulq.fake_quantise_weights", [&] {
        const KestCommon::Input<float> input{const_cast<float*>(weights.data()),  // only read
                                             static_cast<int>(weights.size()), static_cast<int>(steps.size())};
        return KestCommon::WtsFakeQuant(input, out.data(), steps.data(), numBits, reciprocal);
    });
}

void WeightFactors(const Input<float>& learned, bool reciprocal, const Output<float>& scale,
                   const Output<int>& offset) {
    const nb::gil_scoped_release release;
    KestCommon::ProcessScale(learned.data(), scale.data(), offset.data(), static_cast<int>(learned.size()), reciprocal);
}

template <typename T>
void BindGradients(nb::module_& module) {
    module.def("ulq_gradients", Gradients<T>, "activations"_a.noconvert(), "upstream"_a.noconvert(), "upper"_a,
               "lower"_a, "clip_max"_a, "clip_min"_a);
}

}  // namespace

void BindUlq(nb::module_& module) {
    module.def("ulq_fake_quantise", FakeQuantise, "activations"_a.noconvert(), "clip_max"_a, "clip_min"_a, "num_bits"_a,
               "out"_a.noconvert());
    module.def("ulq_grid_bounds", GridBounds, "scale"_a, "offset"_a, "num_bits"_a);
    BindGradients<float>(module);
    BindGradients<double>(module);
    module.def("ulq_clip_check", ClipCheck, "clip_max"_a, "clip_min"_a, "clip_max_record"_a, "clip_min_record"_a);
    module.def("ulq_initial_steps", InitialSteps, "weights"_a.noconvert(), "num_bits"_a, "reciprocal"_a,
               "highest"_a.noconvert(), "lowest"_a.noconvert(), "steps"_a.noconvert());
    module.def("ulq_fake_quantise_weights", FakeQuantiseWeights, "weights"_a.noconvert(), "steps"_a.noconvert(),
               "num_bits"_a, "reciprocal"_a, "out"_a.noconvert());
    module.def("ulq_weight_factors", WeightFactors, "learned"_a.noconvert(), "reciprocal"_a, "scale"_a.noconvert(),
               "offset"_a.noconvert());
}

}  // namespace core
