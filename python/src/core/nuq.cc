#include <kest/kernel_frame/rounding.h>
#include <kest/weight_quant/nuq.h>

#include <algorithm>
#include <vector>

#include "core.h"

namespace core {
namespace {

using namespace nb::literals;

template <typename T>
void Calibrate(const Input<T>& weights, int numIterations, bool withOffset, const Output<T>& gridValues,
               const Output<float>& scale, const Output<int>& offset, const Output<int>& clusters) {
    Run("nuq.quantise", [&] {
        std::vector<T> values(weights.data(), weights.data() + weights.size());
        std::vector<T> centres(clusters.size());
        const int status = KestCommon::NuqCalibrationCpuKernel(weights.data(), values, centres, Length(weights),
                                                               {Length(clusters), withOffset, numIterations},
                                                               View(scale), View(offset));
        if (status != 0) return status;
        std::copy(values.begin(), values.end(), gridValues.data());
        std::transform(centres.begin(), centres.end(), clusters.data(), util::SaturateTo<int, T>);
        return 0;
    });
}

void FakeQuantise(const Input<float>& weights, int numBits, const Input<float>& scale, const Input<int>& offset,
                  const Input<int>& clusters, const Output<float>& out) {
    Run("nuq.fake_quantise", [&] {
        // It takes pointers to factors that may change, but only reads them.
        KestTfOp::WeightNuqQuantParam param{};
        param.scaleStore = const_cast<float*>(scale.data());
        param.offsetStore = const_cast<int*>(offset.data());
        param.centers = const_cast<int*>(clusters.data());
        param.channelNum = static_cast<int>(scale.size());
        param.numBits = numBits;
        param.numClusters = static_cast<int>(clusters.size());
        return KestTfOp::FakeQuantWithNuq<util::ThreadPoolDevice, float>()(param, weights.data(), out.data(),
                                                                           static_cast<int>(weights.size()));
    });
}

void Codes(const Input<double>& weights, const Input<float>& scale, const Input<int>& offset,
           const Output<int8_t>& codes) {
    Run("nuq.codes", [&] {
        // Weights and factors are only read.
        return KestCommon::NuqReal(
            const_cast<double*>(weights.data()), Length(weights), {Length(scale), const_cast<float*>(scale.data())},
            {Length(offset), const_cast<int*>(offset.data())}, reinterpret_cast<char*>(codes.data()));
    });
}

template <typename T>
void BindCalibrate(nb::module_& module) {
    module.def("nuq_calibrate", Calibrate<T>, "weights"_a.noconvert(), "num_iterations"_a, "with_offset"_a,
               "grid_values"_a.noconvert(), "scale"_a.noconvert(), "offset"_a.noconvert(), "clusters"_a.noconvert());
}

}  // namespace

void BindNuq(nb::module_& module) {
    BindCalibrate<float>(module);
    BindCalibrate<double>(module);
    module.def("nuq_fake_quantise", FakeQuantise, "weights"_a.noconvert(), "num_bits"_a, "scale"_a.noconvert(),
               "offset"_a.noconvert(), "clusters"_a.noconvert(), "out"_a.noconvert());
    module.def("nuq_codes", Codes, "weights"_a.noconvert(), "scale"_a.noconvert(), "offset"_a.noconvert(),
               "codes"_a.noconvert());
}

}  // namespace core
