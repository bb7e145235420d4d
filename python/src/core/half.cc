#include <kest/kernel_frame/numeric_helpers.h>

#include "core.h"

namespace core {
namespace {

using namespace nb::literals;
using util::ThreadPoolDevice;

void ToFloat16(const Input<float>& values, const Output<uint16_t>& out) {
    const nb::gil_scoped_release release;
    util::DataCastToFloat16Functor<ThreadPoolDevice, float>{}(values.data(), out.data(),
                                                              static_cast<int>(values.size()));
}

void ToFloat32(const Input<uint16_t>& values, const Output<float>& out) {
    const nb::gil_scoped_release release;
    util::DataCastToFloat32Functor<ThreadPoolDevice, unsigned short>{}(values.data(), out.data(),
                                                                       static_cast<int>(values.size()));
}

}  // namespace

void BindHalf(nb::module_& module) {
    module.def("half_to_float16", ToFloat16, "values"_a.noconvert(), "out"_a.noconvert());
    module.def("half_to_float32", ToFloat32, "values"_a.noconvert(), "out"_a.noconvert());
}

}  // namespace core
