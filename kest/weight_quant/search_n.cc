#include <kest/weight_quant/search_n.h>

#include <kest/kernel_frame/isa.h>
#include <kest/kernel_frame/parallel.h>
#include <kest/weight_quant/search_n_internal.h>
#include <kest/weight_quant/search_n_loops.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <string_view>

namespace KestCommon {
namespace {

constexpr std::size_t kWorthwhile = 1 << 13;  // values below which a search stays on one thread, some 20 microseconds
constexpr int kWorthwhileErrors = 1 << 16;    // the same for the errors of one shift

/// The product of the last `count` dimensions, at most INT_MAX, beyond which no element lies; 0 if one is below 1.
std::size_t AreaOf(const std::vector<int>& shape, std::size_t count) {
    std::size_t area = 1;
    for (std::size_t i = shape.size() - count; i < shape.size(); ++i) {
        if (shape[i] < 1) return 0;
        area = std::min<std::size_t>(area * static_cast<std::size_t>(shape[i]), INT_MAX);
    }
    return area;
}

}  // namespace

ChannelRule MakeChannelRule(const std::vector<int>& shape, bool channelWise, const char* dataFormat) {
    constexpr ChannelRule kNone{0, 1};
    if (!channelWise) return {1, 1};
    const std::size_t rank = shape.size();
    const std::string_view format = dataFormat == nullptr ? "" : dataFormat;
    std::size_t numSpatial = 0;  // dimensions behind the channel
    if (format == "NCHW") {
        numSpatial = 2;
    } else if (format == "NCDHW") {
        numSpatial = 3;
    } else if (format != "NHWC" && format != "NDHWC") {
        return kNone;
    }
    if (rank < 2 || rank < numSpatial) return kNone;
    const int numChannels = numSpatial == 0 && rank >= 4 ? shape[rank - 1] : shape[1];
    const std::size_t area = AreaOf(shape, numSpatial);
    if (numChannels < 1 || area == 0) return kNone;
    return {static_cast<std::size_t>(numChannels), area};
}

template <typename T>
void EvaluateShiftNErrorCpu(int n, const T* values, double* errors, int factor) {
    util::ParallelFor(n, n > kWorthwhileErrors, [&](util::Block block) {
        const auto count = static_cast<std::size_t>(block.end - block.begin);
        util::DispatchIsa([&](auto isa) {
            SearchNLoops<decltype(isa)>::Errors(values + block.begin, count, errors + block.begin, factor);
        });
    });
}

template KEST_EXPORT void EvaluateShiftNErrorCpu(int, const float*, double*, int);
template KEST_EXPORT void EvaluateShiftNErrorCpu(int, const int*, double*, int);

std::vector<int> GetShiftFactor() {
    std::vector<int> factors;
    for (int shift = 0; shift <= kNumShifts; ++shift) factors.push_back(1 << shift);
    return factors;
}

int SearchShiftBitsInternal(const std::vector<std::vector<int>>& channelData, std::vector<int>& shiftBits) {
    const std::size_t first = shiftBits.size();
    shiftBits.resize(first + channelData.size());
    std::size_t total = 0;
    for (const std::vector<int>& row : channelData) total += row.size();
    util::ParallelFor(static_cast<int>(channelData.size()), total > kWorthwhile, [&](util::Block block) {
        for (int c = block.begin; c < block.end; ++c) {
            double errors[kNumShifts] = {};
            const std::vector<int>& row = channelData[c];
            util::DispatchIsa(
                [&](auto isa) { SearchNLoops<decltype(isa)>::AddErrors(row.data(), row.size(), errors); });
            shiftBits[first + c] = BestShift(errors, kNumShifts);
        }
    });
    return STATUS_OK;
}

int SearchShiftBits(const std::vector<std::vector<int>>& channelData, std::vector<int>& shiftBits) {
    return SearchShiftBitsInternal(channelData, shiftBits);
}

}  // namespace KestCommon

namespace KestTfOp {
namespace {

using KestCommon::kNumShifts;

/// Appends each value to the row of its channel.
void Append(const float* data, std::size_t length, const KestCommon::ChannelRule& rule,
            std::vector<std::vector<float>>& rows) {
    const std::size_t numRows = std::min(rule.numChannels, rows.size());
    std::vector<std::size_t> oldSizes(numRows);
    for (std::size_t c = 0; c < numRows; ++c) {
        oldSizes[c] = rows[c].size();
        rows[c].resize(oldSizes[c] + rule.CountOf(c, length));
    }
    const std::size_t longest = numRows > 0 ? rule.CountOf(0, length) : 0;
    float buffer[KestCommon::ChannelRule::kGathered];
    for (std::size_t first = 0; first < longest; first += rule.StretchLength()) {
        for (std::size_t c = 0; c < numRows; ++c) {
            const std::size_t begin = std::min(oldSizes[c] + first, rows[c].size());
            const std::size_t count = std::min(rule.StretchLength(), rows[c].size() - begin);
            if (count == 0) break;  // nor do the rows behind it go on
            std::copy_n(rule.Stretch(data, c, first, count, buffer), count, rows[c].data() + begin);
        }
    }
}

}  // namespace

template <typename T>
int SearchNInternelCpu(std::vector<std::vector<T>>& channelData, int* shiftBits, SearchnQuantParam<T>& quant) {
    const auto addErrors = [length = KestCommon::ShortestRow(channelData)](const std::vector<T>& row, float scale,
                                                                           float* errors) {
        util::DispatchIsa(
            [&](auto isa) { KestCommon::SearchNLoops<decltype(isa)>::AddErrors(row.data(), length, scale, errors); });
    };
    const std::size_t numRows = channelData.size();
    if (quant.perTensor && numRows > 0) {
        float errors[kNumShifts] = {};
        for (std::size_t c = 0; c < numRows; ++c) addErrors(channelData[c], quant.scale[c], errors);
        shiftBits[0] = KestCommon::BestShift(errors, kNumShifts);
    } else {
        const bool worthwhile = numRows * KestCommon::ShortestRow(channelData) > KestCommon::kWorthwhile;
        util::ParallelFor(static_cast<int>(numRows), worthwhile, [&](util::Block block) {
            for (int c = block.begin; c < block.end; ++c) {
                float errors[kNumShifts] = {};
                addErrors(channelData[c], quant.scale[c], errors);
                shiftBits[c] = KestCommon::BestShift(errors, kNumShifts);
            }
        });
    }
    return STATUS_OK;
}

template KEST_EXPORT int SearchNInternelCpu(std::vector<std::vector<float>>&, int*, SearchnQuantParam<float>&);

int SearchNFunctor<util::ThreadPoolDevice, float>::operator()(Param& param, int& batchCounter, int& batchNum,
                                                              SearchnInputParam<float>& input,
                                                              SearchnQuantParam<float>& quant) const {
    ++batchCounter;
    if (batchCounter > batchNum) return STATUS_OK;
    const auto rule = KestCommon::MakeChannelRule(param.shape, param.channelWise, param.dataFormat);
    Append(input.data, static_cast<std::size_t>(std::max(input.length, 0)), rule, input.channelData);
    if (batchCounter != batchNum) return STATUS_OK;

    const int status = SearchNInternelCpu(input.channelData, quant.shiftBits, quant);
    if (status != STATUS_OK) return status;
    for (std::size_t c = 0; c < input.channelData.size(); ++c)
        quant.shiftBitsFloat[c] = static_cast<float>(quant.shiftBits[c]);
    return STATUS_OK;
}

}  // namespace KestTfOp
