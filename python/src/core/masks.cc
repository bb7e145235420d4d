#include <kest/prune_balance/mask_out.h>
#include <kest/prune_balance/selective_mask.h>
#include <nanobind/stl/array.h>

#include <array>

#include "core.h"

namespace core {
namespace {

using namespace nb::literals;
using util::ThreadPoolDevice;

/// `shape` is that of the tensor with the axes before and behind the channels' taken together.
template <typename T>
void NOfM(const Input<T>& values, const Input<T>& selected, const Output<T>& workspace,
          const std::array<unsigned int, 3>& shape, unsigned int keep, unsigned int groupSize, const Output<T>& mask) {
    Run("masks.n_of_m", [&] {
        const SelectiveMaskGenKernel::ComputeMask<ThreadPoolDevice, T> compute;
        return compute(values.data(), selected.data(), workspace.data(),
                       {1, groupSize, keep, {shape.begin(), shape.end()}}, mask.data());
    });
}

template <typename T>
void FromRowsAndColumns(const Input<T>& rows, const Input<T>& columns, const Output<T>& mask,
                        const Output<T>& workspace) {
    Run("masks.from_rows_and_columns", [&] {
        const KestTfOp::GenerateMask<ThreadPoolDevice, T> generate;
        return generate(rows.data(), columns.data(),
                        {static_cast<int>(rows.size()), static_cast<int>(columns.size()), static_cast<int>(mask.size()),
                         mask.data(), workspace.data()});
    });
}

template <typename T>
void Apply(const Input<T>& mask, const Input<T>& values, int rowStride, int columnStride, const Output<T>& out) {
    Run("masks.apply", [&] {
        const KestTfOp::MaskOut<ThreadPoolDevice, T> apply;
        return apply({static_cast<int>(values.size()), rowStride, columnStride, static_cast<int>(mask.shape(0)),
                      static_cast<int>(mask.shape(1))},
                     mask.data(), values.data(), out.data());
    });
}

template <typename T>
void Bind(nb::module_& module) {
    module.def("masks_n_of_m", NOfM<T>, "values"_a.noconvert(), "selected"_a.noconvert(), "workspace"_a.noconvert(),
               "shape"_a, "keep"_a, "group_size"_a, "mask"_a.noconvert());
    module.def("masks_from_rows_and_columns", FromRowsAndColumns<T>, "rows"_a.noconvert(), "columns"_a.noconvert(),
               "mask"_a.noconvert(), "workspace"_a.noconvert());
    module.def("masks_apply", Apply<T>, "mask"_a.noconvert(), "values"_a.noconvert(), "row_stride"_a, "column_stride"_a,
               "out"_a.noconvert());
}

}  // namespace

void BindMasks(nb::module_& module) {
    Bind<float>(module);
    Bind<double>(module);
}

}  // namespace core
