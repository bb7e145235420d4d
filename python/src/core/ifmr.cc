#include <kest/activation_calib/ifmr.h>

#include "core.h"

namespace core {
namespace {

using namespace nb::literals;

template <typename T>
void Calibrate(const Input<T>& values, unsigned int numBits, bool withOffset, float startRatio, float endRatio,
               float step, float maxPercentile, float minPercentile, const Output<float>& scale,
               const Output<int>& offset) {
    Run("ifmr.Calibrator", [&] {
        const KestCommon::IfmrParam param{0,        numBits, withOffset,    startRatio,
                                          endRatio, step,    maxPercentile, minPercentile};
        // It takes a pointer to values that may change, but only reads them when it calibrates.
        return KestCommon::IfmrQuant(const_cast<T*>(values.data()), Length(values), param, View(scale), View(offset));
    });
}

template <typename T>
void FakeQuantise(const Output<T>& values, unsigned int numBits, const Output<float>& scale,
                  const Output<int>& offset) {
    Run("ifmr.fake_quantise", [&] {
        KestCommon::IfmrParam param{};
        param.calibration = 1;
        param.numBits = numBits;
        return KestCommon::IfmrQuant(values.data(), Length(values), param, View(scale), View(offset));
    });
}

template <typename T>
void PercentileBounds(const Input<T>& values, float maxPercentile, float minPercentile, const Output<T>& bounds) {
    Run("ifmr.percentile_bounds", [&] {
        KestCommon::MaxMinValue<T> found{};
        const int status = KestCommon::FindMaxAndMinValueWithPercentile(const_cast<T*>(values.data()), Length(values),
                                                                        found, maxPercentile, minPercentile);
        bounds.data()[0] = found.minValue;
        bounds.data()[1] = found.maxValue;
        return status;
    });
}

template <typename T>
void Bind(nb::module_& module) {
    module.def("ifmr_calibrate", Calibrate<T>, "values"_a.noconvert(), "num_bits"_a, "with_offset"_a, "start_ratio"_a,
               "end_ratio"_a, "step"_a, "max_percentile"_a, "min_percentile"_a, "scale"_a.noconvert(),
               "offset"_a.noconvert());
    module.def("ifmr_fake_quantise", FakeQuantise<T>, "values"_a.noconvert(), "num_bits"_a, "scale"_a.noconvert(),
               "offset"_a.noconvert());
    module.def("ifmr_percentile_bounds", PercentileBounds<T>, "values"_a.noconvert(), "max_percentile"_a,
               "min_percentile"_a, "bounds"_a.noconvert());
}

}  // namespace

void BindIfmr(nb::module_& module) {
    Bind<float>(module);
    Bind<double>(module);
}

}  // namespace core
