#include <kest/op_kernels/fast_softmax.h>

#include "core.h"

namespace core {
namespace {

using namespace nb::literals;

template <typename T>
void Rows(const Input<T>& values, int width, float square, float cube, float threshold, const Output<T>& out) {
    Run("softmax.rows", [&] {
        KestTfOp::SoftmaxParam param{square, cube, threshold, 0, static_cast<int>(values.size()), {width}};
        const KestTfOp::FastSoftmaxFunctor<util::ThreadPoolDevice, T> softmax;
        return softmax(values.data(), out.data(), param);
    });
}

template <typename T>
void Bind(nb::module_& module) {
    module.def("softmax_rows", Rows<T>, "values"_a.noconvert(), "width"_a, "square"_a, "cube"_a, "threshold"_a,
               "out"_a.noconvert());
}

}  // namespace

void BindSoftmax(nb::module_& module) {
    Bind<float>(module);
    Bind<double>(module);
}

}  // namespace core
