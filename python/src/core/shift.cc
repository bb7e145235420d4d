#include <kest/weight_quant/search_n.h>
#include <kest/weight_quant/search_n_v2.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <vector>

#include "core.h"

namespace core {
namespace {

using namespace nb::literals;

/// The channel in the middle of a tensor of three axes, the shape (outer, channels, inner), as kest has it.
struct Layout {
    std::vector<int> shape;
    static constexpr const char* kFormat = "NCHW";

    Layout(std::size_t length, std::size_t numChannels, int inner)
        : shape{static_cast<int>(length / numChannels / static_cast<std::size_t>(inner)), static_cast<int>(numChannels),
                inner, 1} {}
};

void Search(const Input<float>& values, int inner, bool perTensor, const Output<float>& scale,
            const Output<int>& shiftBits, const Output<float>& shiftBitsFloat) {
    Run("shift.search", [&] {
        Layout layout(values.size(), scale.size(), inner);
        KestTfOp::Param param{layout.shape, true, Layout::kFormat};
        KestTfOp::SearchnInputParam<float> input{std::vector<std::vector<float>>(scale.size()),
                                                 static_cast<int>(values.size()),
                                                 const_cast<float*>(values.data())};  // only read
        KestTfOp::SearchnQuantParam<float> quant{perTensor,    shiftBits.data(),     nullptr, nullptr, nullptr,
                                                 scale.data(), shiftBitsFloat.data()};
        int batchCounter = 0;
        int batchNum = 1;
        return KestTfOp::SearchNFunctor<util::ThreadPoolDevice, float>()(param, batchCounter, batchNum, input, quant);
    });
}

void SearchIntegers(const Input<int>& values, const Output<int>& shiftBits) {
    Run("shift.search_integers", [&] {
        const std::size_t length = values.size() / shiftBits.size();
        std::vector<std::vector<int>> rows;
        for (const int* row = values.data(); rows.size() < shiftBits.size(); row += length)
            rows.emplace_back(row, row + length);
        std::vector<int> found;
        const int status = KestCommon::SearchShiftBits(rows, found);
        std::copy(found.begin(), found.end(), shiftBits.data());
        return status;
    });
}

using ErrorTable = std::vector<std::vector<float>>;

ErrorTable Rows(const Output<float>& errors) {
    ErrorTable rows;
    for (float* row = errors.data(); rows.size() < errors.shape(0); row += errors.shape(1))
        rows.emplace_back(row, row + errors.shape(1));
    return rows;
}

/// Adds to `errors`, a row of all shifts for each channel.
void AddErrors(const Input<float>& values, int inner, bool perTensor, const Output<float>& scale,
               const Output<float>& errors) {
    Run("shift.Searcher.feed", [&] {
        Layout layout(values.size(), scale.size(), inner);
        KestTfOp::DataParam param{layout.shape, true, Layout::kFormat, nullptr};
        KestTfOp::SearchnV2QuantParam<float> quant{perTensor, nullptr, scale.data(), static_cast<int>(scale.size())};
        KestCommon::SearchnV2InputParam<float> sums{Rows(errors), static_cast<int>(values.size()),
                                                    const_cast<float*>(values.data())};  // only read
        int batchCounter = 0;
        int batchNum = INT_MAX;  // never the last one
        const int status =
            KestTfOp::SearchNV2Functor<util::ThreadPoolDevice, float>()(param, batchCounter, batchNum, sums, quant);
        float* out = errors.data();
        for (const std::vector<float>& row : sums.errorTable) out = std::copy(row.begin(), row.end(), out);
        return status;
    });
}

/// Those of as many rows as there are entries; the errors of all channels together are row 0.
void FindBest(const Output<float>& errors, const Output<int>& shiftBits) {
    Run("shift.Searcher.shift_bits", [&] {
        ErrorTable rows = Rows(errors);
        util::IntData view = View(shiftBits);
        return KestCommon::SearchNV2FindBestNCpu(rows, view, false);
    });
}

}  // namespace

void BindShift(nb::module_& module) {
    module.def("shift_search", Search, "values"_a.noconvert(), "inner"_a, "per_tensor"_a, "scale"_a.noconvert(),
               "shift_bits"_a.noconvert(), "shift_bits_float"_a.noconvert());
    module.def("shift_search_integers", SearchIntegers, "values"_a.noconvert(), "shift_bits"_a.noconvert());
    module.def("shift_add_errors", AddErrors, "values"_a.noconvert(), "inner"_a, "per_tensor"_a, "scale"_a.noconvert(),
               "errors"_a.noconvert());
    module.def("shift_find_best", FindBest, "errors"_a.noconvert(), "shift_bits"_a.noconvert());
}

}  // namespace core
