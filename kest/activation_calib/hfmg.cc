#include <kest/activation_calib/hfmg.h>

#include <kest/activation_calib/hfmg_loops.h>
#include <kest/kernel_frame/extremes.h>
#include <kest/kernel_frame/isa.h>
#include <kest/kernel_frame/rounding.h>
#include <kest/kernel_frame/scale.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <utility>

namespace KestCommon {
namespace {

constexpr float kSmallestScale = static_cast<float>(DBL_EPSILON);
constexpr float kAll = std::numeric_limits<float>::infinity();
constexpr std::size_t kMaxBinsToStop = 1 << 16;  // up to which a candidate that exceeds the smallest loss has lost
constexpr float kMargin = 1.125f;                // and this much more keeps well away from any rounding
using BinRange = std::pair<unsigned int, unsigned int>;

/// The extremes of the numbers among the values; min > max if there are none.
template <typename T>
util::Extremes<T> ExtremesOf(const InputData<T>& input) {
    util::Extremes<T> found = util::FindExtremes(input.data, input.length);
    const T limit = static_cast<T>(FLT_MAX);
    if (limit > found.min && -limit < found.max) return found;
    // Its starting points show where no value was more extreme: start from infinity.
    found = {std::numeric_limits<T>::infinity(), -std::numeric_limits<T>::infinity()};
    for (std::size_t i = 0; i < input.length; ++i) {
        if (input.data[i] <= found.min) found.min = input.data[i];
        if (input.data[i] >= found.max) found.max = input.data[i];
    }
    return found;
}

/// The same with both at 0 if there are no numbers.
template <typename T>
util::Extremes<T> ExtremesOrZero(const InputData<T>& input) {
    const util::Extremes<T> found = ExtremesOf(input);
    return found.min > found.max ? util::Extremes<T>{0, 0} : found;
}

template <typename T>
int CheckBatch(int numBins, const InputData<T>& input) {
    if (input.data == nullptr) return RECORD_DATA_ERROR;
    return numBins < 1 || input.length == 0 ? EMPTY_INPUT_ERROR : STATUS_OK;
}

/// The width of a bin: that of the range over their number.
template <typename T>
T BinWidth(const std::vector<DataBin<T>>& bins) {
    return (bins.back().upperBound - bins.front().lowerBound) / static_cast<T>(bins.size());
}

/// The width of one of numLevels levels over a range of bins.
template <typename T>
T LevelWidth(const BinRange& range, T binWidth, unsigned int numLevels) {
    const T numBins = static_cast<T>(range.second - range.first + 1);
    return numBins * binWidth / static_cast<T>(numLevels);
}

/// Adds the loss of the histogram to each lane, or as much of it as exceeds `enough` in all of them; sets it to 0 where
/// a level is too narrow.
template <typename T>
void AddLosses(const std::vector<DataBin<T>>& bins, unsigned int numLevels, float enough, RangeLanes<T>& lanes) {
    bool narrow[kRangeLanes];
    for (int lane = 0; lane < kRangeLanes; ++lane) {
        narrow[lane] = lanes.levelWidth[lane] < static_cast<T>(FLT_EPSILON);
        if (narrow[lane]) lanes.levelWidth[lane] = 1;
    }
    util::DispatchIsa([&](auto isa) {
        HfmgLoops<decltype(isa), T>::AddLoss(bins.data(), bins.size(), BinWidth(bins), numLevels, enough, lanes);
    });
    for (int lane = 0; lane < kRangeLanes; ++lane)
        if (narrow[lane]) lanes.loss[lane] = 0;
}

/// Scale and offset of a clip range: with offset zero is inside, without it the larger bound counts with its sign.
template <typename T>
void CalRangeScaleOffset(T clipMin, T clipMax, float& scale, int& offset, const HfmgAlgoParam& param) {
    if (param.withOffset) {
        CalScaleOffset(clipMax > 0 ? clipMax : T{0}, clipMin < 0 ? clipMin : T{0}, scale, offset, param);
    } else {
        CalScaleOffset(std::fabs(clipMax) > std::fabs(clipMin) ? clipMax : clipMin, T{0}, scale, offset, param);
    }
}

}  // namespace

template <typename T>
int HfmgDistribute(int numBins, std::vector<DataBin<T>>& bins, const InputData<T>& input) {
    const int status = CheckBatch(numBins, input);
    if (status != STATUS_OK) return status;
    const util::Extremes<T> found = ExtremesOrZero(input);
    HfmgDistributeInter(numBins, found.min, (found.max - found.min) / static_cast<T>(numBins), bins, input);
    return STATUS_OK;
}

template <typename T>
void HfmgDistributeInter(int numBins, T minValue, T binWidth, std::vector<DataBin<T>>& bins,
                         const InputData<T>& input) {
    if (numBins < 1) return;
    const bool narrow = binWidth < static_cast<T>(FLT_EPSILON);
    std::vector<unsigned int> counts(narrow ? 0 : kBinCounts * (static_cast<std::size_t>(numBins) + kZeroBins));
    const std::size_t first = bins.size();
    bins.resize(first + static_cast<std::size_t>(numBins));
    const auto bound = [=](int64_t j) { return std::fma(static_cast<T>(j), binWidth, minValue); };
    T lower = bound(0);
    for (int j = 0; j < numBins; ++j) {
        const T upper = bound(j + int64_t{1});
        bins[first + j] = {0, lower, upper};
        lower = upper;
    }
    if (narrow) {
        bins[first + numBins / 2].count += input.length;
        return;
    }
    util::DispatchIsa([&](auto isa) {
        HfmgLoops<decltype(isa), T>::Count(input.data, input.length, minValue, binWidth, numBins, counts.data());
    });
    for (std::size_t j = 0; j < static_cast<std::size_t>(numBins); ++j)
        for (std::size_t k = 0; k < kBinCounts; ++k) bins[first + j].count += counts[kBinCounts * j + k];
}

template <typename T>
int HfmgMerge(int numBins, std::vector<DataBin<T>>& bins, const InputData<T>& input) {
    if (bins.empty()) return HfmgDistribute(numBins, bins, input);
    const int status = CheckBatch(numBins, input);
    if (status != STATUS_OK) return status;

    const T oldMin = bins.front().lowerBound;
    const T oldMax = bins.back().upperBound;
    const util::Extremes<T> found = ExtremesOf(input);
    const T newMin = found.min < oldMin ? found.min : oldMin;
    const T newMax = found.max > oldMax ? found.max : oldMax;
    const T binWidth = (newMax - newMin) / static_cast<T>(numBins);
    std::vector<DataBin<T>> fresh;
    HfmgDistributeInter(numBins, newMin, binWidth, fresh, input);
    const T epsilon = static_cast<T>(FLT_EPSILON);
    const bool sameRange = std::fabs(newMax - oldMax) < epsilon && std::fabs(newMin - oldMin) < epsilon;
    HfmgMergeInter(bins, fresh, sameRange, newMin, binWidth);
    bins.swap(fresh);
    return STATUS_OK;
}

template <typename T>
void HfmgMergeInter(std::vector<DataBin<T>>& oldBins, std::vector<DataBin<T>>& newBins, bool sameRange, T minValue,
                    T binWidth) {
    if (oldBins.empty() || newBins.empty()) return;
    const std::size_t last = std::min(oldBins.size(), newBins.size()) - 1;
    if (sameRange) {
        for (std::size_t i = 0; i < oldBins.size(); ++i)
            newBins[std::min(i, newBins.size() - 1)].count += oldBins[i].count;
        return;
    }
    const auto binOf = [&](T bound) {
        return std::min<std::size_t>(util::SaturateTo<unsigned int>(std::floor((bound - minValue) / binWidth)), last);
    };
    for (const DataBin<T>& old : oldBins) {
        const std::size_t high = binOf(old.upperBound);
        const std::size_t low = binOf(old.lowerBound);
        if (high == low) {
            newBins[high].count += old.count;
            continue;
        }
        const T fraction = (newBins[low].upperBound - old.lowerBound) / (old.upperBound - old.lowerBound);
        const float share = std::floor(static_cast<float>(fraction) * static_cast<float>(old.count));
        const unsigned int part = std::min(util::SaturateTo<unsigned int>(share), old.count);
        newBins[low].count += part;
        newBins[high].count += old.count - part;
    }
}

template <typename T>
void HfmgGetSearchRange(std::vector<DataBin<T>>& bins, std::vector<BinRange>& ranges) {
    if (bins.empty()) return;
    uint64_t total = 0;
    for (const DataBin<T>& bin : bins) total += bin.count;
    const float wanted = std::ceil(static_cast<float>(total) / 100000.0f);
    const uint64_t threshold = std::max<uint64_t>(1, static_cast<uint64_t>(wanted));  // at most 2^64 / 100000
    const auto numBins = static_cast<unsigned int>(bins.size());
    const auto minWidth = util::SaturateTo<unsigned int>(std::ceil(static_cast<float>(numBins) * 0.25f));

    unsigned int left = 0;
    unsigned int right = numBins - 1;
    if (right <= minWidth) return;
    while (true) {
        unsigned int above = left;  // the first bin above the lower tail
        for (uint64_t sum = 0; sum < threshold && above != right; ++above) sum += bins[above].count;
        unsigned int below = right;  // the first bin below the upper tail
        for (uint64_t sum = 0; sum < threshold && below != above; --below) sum += bins[below].count;
        if (right - below < above - left) {
            left = above;
        } else {
            right = below;
        }
        ranges.emplace_back(left, right);
        if (right - left <= minWidth) return;
    }
}

template <typename T>
int HfmgCalculateLoss(std::vector<DataBin<T>>& bins, unsigned int numLevels, unsigned int startBin, unsigned int endBin,
                      float& loss) {
    if (numLevels == 0 || bins.empty()) return EMPTY_INPUT_ERROR;
    RangeLanes<T> lanes;
    std::fill_n(lanes.firstBin, kRangeLanes, static_cast<int32_t>(startBin));
    std::fill_n(lanes.levelWidth, kRangeLanes, LevelWidth({startBin, endBin}, BinWidth(bins), numLevels));
    std::fill_n(lanes.loss, kRangeLanes, loss);
    AddLosses(bins, numLevels, kAll, lanes);
    loss = lanes.loss[0];
    return STATUS_OK;
}

template <typename T>
int HfmgCompute(std::vector<DataBin<T>>& bins, float& scale, int& offset, const HfmgAlgoParam& param) {
    if (bins.empty()) return EMPTY_CONTAINER_ERROR;
    std::vector<BinRange> ranges;
    HfmgGetSearchRange(bins, ranges);
    if (ranges.empty()) ranges.emplace_back(0, static_cast<unsigned int>(bins.size() - 1));

    const T binWidth = BinWidth(bins);
    const auto numLevels = util::SaturateTo<unsigned int>(util::PowerOfTwo(param.numBits));
    BinRange best = ranges[0];
    float smallest = 0;
    for (std::size_t first = 0; first < ranges.size(); first += kRangeLanes) {
        const std::size_t count = std::min<std::size_t>(kRangeLanes, ranges.size() - first);
        RangeLanes<T> lanes;
        for (std::size_t lane = 0; lane < kRangeLanes; ++lane) {
            const BinRange& range = ranges[first + std::min(lane, count - 1)];
            lanes.firstBin[lane] = static_cast<int32_t>(range.first);
            lanes.levelWidth[lane] = LevelWidth(range, binWidth, numLevels);
            lanes.loss[lane] = 0;
        }
        const bool mayStop = first > 0 && bins.size() <= kMaxBinsToStop;
        AddLosses(bins, numLevels, mayStop ? kMargin * smallest : kAll, lanes);
        for (std::size_t lane = 0; lane < count; ++lane) {
            if (first + lane != 0 && !(lanes.loss[lane] < smallest)) continue;
            best = ranges[first + lane];
            smallest = lanes.loss[lane];
        }
    }

    const T bottom = bins.front().lowerBound;
    const T clipMin = std::fma(static_cast<T>(best.first), binWidth, bottom);
    const T clipMax = std::fma(static_cast<T>(uint64_t{best.second} + 1), binWidth, bottom);
    CalRangeScaleOffset(clipMin, clipMax, scale, offset, param);
    return STATUS_OK;
}

template <typename T>
void CalScaleOffset(T maxValue, T minValue, float& scale, int& offset, const HfmgAlgoParam& param) {
    const int half = util::SaturateTo<int>(util::PowerOfTwo(int64_t{param.numBits} - 1));
    if (param.withOffset) {
        const double numSteps = util::PowerOfTwo(param.numBits) - 1;
        scale = static_cast<float>(static_cast<double>(maxValue - minValue) / numSteps);
        T shift = minValue;
        if (scale < kSmallestScale) {
            scale = 1;
        } else {
            shift /= static_cast<T>(scale);
        }
        offset = util::SaturateTo<int>(-static_cast<double>(half) - util::RoundHalfAway(shift));
    } else {
        const int64_t levels = maxValue > 0 ? int64_t{half} - 1 : half;
        scale =
            static_cast<float>(std::fabs(static_cast<double>(maxValue)) / (static_cast<double>(levels) + DBL_EPSILON));
        if (scale < kSmallestScale) scale = 1;
        offset = 0;
    }
}

template <typename T>
int ActArqCalibration(T minValue, T maxValue, const util::FloatData& scale, const util::IntData& offset,
                      const HfmgAlgoParam& param) {
    float foundScale = 0;
    int foundOffset = 0;
    if (param.withOffset) {
        CalRangeScaleOffset(minValue, maxValue, foundScale, foundOffset, param);
    } else {
        const T larger = std::max(std::fabs(maxValue), std::fabs(minValue));
        CalScaleOffset(larger, T{0}, foundScale, foundOffset, param);
    }
    const int status = util::ProcessScale(foundScale);
    if (status != STATUS_OK) return status;
    scale.data[0] = foundScale;
    offset.data[0] = foundOffset;
    return STATUS_OK;
}

#define INSTANTIATE(T)                                                                                             \
    template KEST_EXPORT int HfmgDistribute(int, std::vector<DataBin<T>>&, const InputData<T>&);                   \
    template KEST_EXPORT void HfmgDistributeInter(int, T, T, std::vector<DataBin<T>>&, const InputData<T>&);       \
    template KEST_EXPORT int HfmgMerge(int, std::vector<DataBin<T>>&, const InputData<T>&);                        \
    template KEST_EXPORT void HfmgMergeInter(std::vector<DataBin<T>>&, std::vector<DataBin<T>>&, bool, T, T);      \
    template KEST_EXPORT void HfmgGetSearchRange(std::vector<DataBin<T>>&, std::vector<BinRange>&);                \
    template KEST_EXPORT int HfmgCalculateLoss(std::vector<DataBin<T>>&, unsigned int, unsigned int, unsigned int, \
                                               float&);                                                            \
    template KEST_EXPORT int HfmgCompute(std::vector<DataBin<T>>&, float&, int&, const HfmgAlgoParam&);            \
    template KEST_EXPORT void CalScaleOffset(T, T, float&, int&, const HfmgAlgoParam&);                            \
    template KEST_EXPORT int ActArqCalibration(T, T, const util::FloatData&, const util::IntData&, const HfmgAlgoParam&)
INSTANTIATE(float);
INSTANTIATE(double);
#undef INSTANTIATE

}  // namespace KestCommon

namespace KestTfOp {

int QuantHfmgFunctor<util::ThreadPoolDevice, float>::operator()(std::vector<KestCommon::DataBin<float>>& bins,
                                                                HfmgParam& param, int& batchIndex, int& batchNum,
                                                                KestCommon::InputData<float>& input,
                                                                HfmgDataQuantParam<float>& quantParam) const {
    ++batchIndex;
    if (batchIndex > batchNum) return STATUS_OK;
    int status = KestCommon::HfmgMerge(static_cast<int>(param.numBins), bins, input);
    if (status != STATUS_OK) return status;
    if (batchIndex != batchNum) return STATUS_OK;

    const KestCommon::HfmgAlgoParam algoParam{param.numBits, param.withOffset, param.numBins};
    status = KestCommon::HfmgCompute(bins, *quantParam.calScale, *quantParam.calOffset, algoParam);
    if (status != STATUS_OK) return status;
    *quantParam.scale = *quantParam.calScale;
    *quantParam.offset = *quantParam.calOffset;
    return STATUS_OK;
}

int ActArqFunctor<util::ThreadPoolDevice, float>::operator()(KestCommon::InputData<float>& input, HfmgParam& param,
                                                             HfmgDataQuantParam<float>& quantParam) const {
    const int status = KestCommon::CheckBatch(1, input);
    if (status != STATUS_OK) return status;
    const util::Extremes<float> found = KestCommon::ExtremesOrZero(input);
    const KestCommon::HfmgAlgoParam algoParam{param.numBits, param.withOffset, param.numBins};
    KestCommon::CalRangeScaleOffset(found.min, found.max, *quantParam.scale, *quantParam.offset, algoParam);
    return STATUS_OK;
}

}  // namespace KestTfOp
