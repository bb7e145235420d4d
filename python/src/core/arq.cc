#include <kest/weight_quant/arq.h>

#include "core.h"

namespace core {
namespace {

using namespace nb::literals;

KestCommon::ArqParam Param(unsigned int numBits, const Output<float>& scale, bool withOffset) {
    return {numBits, scale.size() > 1, withOffset};
}

template <typename T>
void Calibrate(const Input<T>& weights, unsigned int numBits, bool withOffset, bool channelLast,
               const Output<float>& scale, const Output<int>& offset) {
    Run("arq.calibrate", [&] {
        const KestCommon::ArqParam param = Param(numBits, scale, withOffset);
        const int status =
            KestCommon::CheckArqQuantParams(weights.data(), Length(weights), param, View(scale), View(offset));
        if (status != 0) return status;
        return KestCommon::WtsArqCalibrationCpuKernel(weights.data(), Length(weights), param, View(scale), View(offset),
                                                      channelLast ? util::KH_KW_CI_CO : util::CO_CI_KH_KW);
    });
}

template <typename T>
void FakeQuantiseFirst(const Output<T>& weights, unsigned int numBits, bool withOffset, const Output<float>& scale,
                       const Output<int>& offset) {
    Run("arq.fake_quantise", [&] {
        return KestCommon::ArqQuant(weights.data(), Length(weights), Param(numBits, scale, withOffset), View(scale),
                                    View(offset));
    });
}

template <typename T>
void FakeQuantiseLast(const Output<T>& weights, unsigned int numBits, const Output<float>& scale,
                      const Output<int>& offset) {
    Run("arq.fake_quantise", [&] {
        KestCommon::ArqClipAndQuantKhKwCiCo(weights.data(), weights.data(), Length(weights), static_cast<int>(numBits),
                                            View(scale), View(offset));
        return 0;
    });
}

template <typename T>
void Codes(const Input<T>& weights, unsigned int numBits, const Input<float>& scale, const Input<int>& offset,
           const Output<int8_t>& codes) {
    Run("arq.codes", [&] {
        // It takes pointers to what may change, but only reads weights and factors.
        return KestCommon::ArqQuantReal(
            const_cast<T*>(weights.data()), Length(weights), {numBits, scale.size() > 1, true},
            {Length(scale), const_cast<float*>(scale.data())}, {Length(offset), const_cast<int*>(offset.data())},
            reinterpret_cast<char*>(codes.data()));
    });
}

template <typename T>
void Bind(nb::module_& module) {
    module.def("arq_calibrate", Calibrate<T>, "weights"_a.noconvert(), "num_bits"_a, "with_offset"_a, "channel_last"_a,
               "scale"_a.noconvert(), "offset"_a.noconvert());
    module.def("arq_fake_quantise_first", FakeQuantiseFirst<T>, "weights"_a.noconvert(), "num_bits"_a, "with_offset"_a,
               "scale"_a.noconvert(), "offset"_a.noconvert());
    module.def("arq_fake_quantise_last", FakeQuantiseLast<T>, "weights"_a.noconvert(), "num_bits"_a,
               "scale"_a.noconvert(), "offset"_a.noconvert());
    module.def("arq_codes", Codes<T>, "weights"_a.noconvert(), "num_bits"_a, "scale"_a.noconvert(),
               "offset"_a.noconvert(), "codes"_a.noconvert());
}

}  // namespace

void BindArq(nb::module_& module) {
    Bind<float>(module);
    Bind<double>(module);
}

}  // namespace core
