#include <kest/weight_quant/search_n_v2.h>

#include <kest/kernel_frame/isa.h>
#include <kest/weight_quant/search_n_internal.h>
#include <kest/weight_quant/search_n_loops.h>

#include <algorithm>
#include <array>
#include <cstddef>

namespace KestCommon {
namespace {

/// The errors of one batch, for each shift.
template <typename T>
using Errors = std::array<T, kNumShifts>;

template <typename T>
void AddErrors(const T* x, std::size_t n, float scale, Errors<T>& errors) {
    util::DispatchIsa([&](auto isa) { ShiftLoops<decltype(isa), T>::AddErrors(x, n, scale, errors.data()); });
}

/// Adds the errors of each row, or of all rows (`perTensor`: one entry), to the table.
template <typename T>
void AddToTable(const std::vector<Errors<T>>& errors, std::vector<std::vector<T>>& errorTable) {
    for (std::size_t c = 0; c < std::min(errors.size(), errorTable.size()); ++c) {
        std::vector<T>& row = errorTable[c];
        for (std::size_t i = 0; i < std::min(errors[c].size(), row.size()); ++i) row[i] += errors[c][i];
    }
}

}  // namespace

template <typename T>
int SearchNV2AccumulateError(std::vector<std::vector<T>>& channelData, std::vector<std::vector<T>>& errorTable,
                             const util::FloatData& scale, bool perTensor) {
    if (channelData.empty()) return EMPTY_CONTAINER_ERROR;
    const std::size_t length = ShortestRow(channelData);
    std::vector<Errors<T>> errors(perTensor ? 1 : channelData.size(), Errors<T>{});
    for (std::size_t c = 0; c < channelData.size(); ++c)
        AddErrors(channelData[c].data(), length, scale.data[c], errors[perTensor ? 0 : c]);
    AddToTable(errors, errorTable);
    return STATUS_OK;
}

template <typename T>
int SearchNV2FindBestNCpu(std::vector<std::vector<T>>& errorTable, util::IntData& shiftBits, bool perTensor) {
    for (std::size_t i = 0; i < shiftBits.length; ++i) {
        const std::size_t row = perTensor ? 0 : i;
        shiftBits.data[i] = row < errorTable.size() ? BestShift(errorTable[row].data(), errorTable[row].size()) : 1;
    }
    return STATUS_OK;
}

#define INSTANTIATE(T)                                                                                            \
    template KEST_EXPORT int SearchNV2AccumulateError(std::vector<std::vector<T>>&, std::vector<std::vector<T>>&, \
                                                      const util::FloatData&, bool);                              \
    template KEST_EXPORT int SearchNV2FindBestNCpu(std::vector<std::vector<T>>&, util::IntData&, bool)
INSTANTIATE(float);
INSTANTIATE(double);
#undef INSTANTIATE

}  // namespace KestCommon

namespace KestTfOp {
namespace {

/// SearchNV2AccumulateError for the rows that the values of a batch make, read where they lie.
int AccumulateBatch(const KestCommon::ChannelRule& rule, std::size_t numRows, bool perTensor,
                    const KestCommon::SearchnV2InputParam<float>& batch, const float* scale,
                    std::vector<std::vector<float>>& errorTable) {
    if (numRows == 0) return EMPTY_CONTAINER_ERROR;
    const auto length = static_cast<std::size_t>(std::max(batch.length, 0));
    std::size_t rowLength = length;
    for (std::size_t c = 0; c < numRows; ++c) rowLength = std::min(rowLength, rule.CountOf(c, length));

    std::vector<KestCommon::Errors<float>> errors(perTensor ? 1 : numRows, KestCommon::Errors<float>{});
    const std::size_t stretch = rule.StretchLength();
    const auto addStretch = [&](std::size_t c, std::size_t first) {
        float buffer[KestCommon::ChannelRule::kGathered];
        const std::size_t count = std::min(stretch, rowLength - first);
        const float* x = rule.Stretch(batch.data, c, first, count, buffer);
        KestCommon::AddErrors(x, count, scale[c], errors[perTensor ? 0 : c]);
    };
    if (perTensor) {  // the sum runs over whole rows
        for (std::size_t c = 0; c < numRows; ++c)
            for (std::size_t first = 0; first < rowLength; first += stretch) addStretch(c, first);
    } else {
        for (std::size_t first = 0; first < rowLength; first += stretch)
            for (std::size_t c = 0; c < numRows; ++c) addStretch(c, first);
    }
    KestCommon::AddToTable(errors, errorTable);
    return STATUS_OK;
}

}  // namespace

int SearchNV2Functor<util::ThreadPoolDevice, float>::operator()(DataParam& param, int& batchCounter, int& batchNum,
                                                                KestCommon::SearchnV2InputParam<float>& input,
                                                                SearchnV2QuantParam<float>& quant) const {
    const auto numChannels = static_cast<unsigned int>(std::max(quant.channelNum, 0));
    ++batchCounter;
    if (batchCounter == 1) {
        input.errorTable.resize(numChannels);
        for (std::vector<float>& row : input.errorTable) row.resize(KestCommon::kNumShifts);
    }
    if (batchCounter > batchNum) return STATUS_OK;

    const auto rule = KestCommon::MakeChannelRule(param.shape, param.channelWise, param.dataFormat);
    const std::size_t numRows = param.channelWise ? numChannels : 1;
    int status = AccumulateBatch(rule, numRows, quant.perTensor, input, quant.scale, input.errorTable);
    if (status != STATUS_OK) return status;
    if (batchCounter != batchNum) return STATUS_OK;

    util::IntData shiftBits{numChannels, quant.shiftBits};
    status = KestCommon::SearchNV2FindBestNCpu(input.errorTable, shiftBits, quant.perTensor);
    if (status != STATUS_OK) return status;
    const std::size_t numResults = std::min<std::size_t>(input.errorTable.size(), numChannels);
    for (std::size_t c = 0; c < numResults; ++c) param.shiftBitsFloat[c] = static_cast<float>(quant.shiftBits[c]);
    return STATUS_OK;
}

}  // namespace KestTfOp
