#include <kest/activation_calib/ifmr.h>

#include <kest/activation_calib/ifmr_loops.h>
#include <kest/activation_calib/percentile.h>
#include <kest/kernel_frame/extremes.h>
#include <kest/kernel_frame/fake_quant.h>
#include <kest/kernel_frame/grid.h>
#include <kest/kernel_frame/log.h>
#include <kest/kernel_frame/parallel.h>
#include <kest/kernel_frame/rounding.h>
#include <kest/kernel_frame/scale.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstddef>
#include <vector>

namespace KestCommon {
namespace {

constexpr unsigned int kMaxNumRatios = 1u << 24;  // beyond, k is no float and neighbours share a ratio
constexpr double kWorthwhile = 1 << 17;  // terms below which the search stays on one thread, some 20 microseconds

/// The larger of the two bounds by magnitude, with its sign; the negative one on a tie.
template <typename T>
T LargerBound(const MaxMinValue<T>& range) {
    return std::fabs(range.maxValue) > std::fabs(range.minValue) ? range.maxValue : range.minValue;
}

unsigned int LevelsWithOffset(unsigned int numBits) {
    return util::SaturateTo<unsigned int>(util::PowerOfTwo(numBits) - 1);
}

/// Codes on the side of zero where the bound lies: the negative side has one more.
unsigned int LevelsWithoutOffset(unsigned int numBits, bool positive) {
    const double half = util::PowerOfTwo(int64_t{numBits} - 1);
    return util::SaturateTo<unsigned int>(positive ? half - 1 : half);
}

float RatioOf(const IfmrParam& ifmrParam, unsigned int k) {
    return std::fma(static_cast<float>(k), ifmrParam.step, ifmrParam.startRatio);
}

unsigned int CountRatios(const IfmrParam& ifmrParam) {
    return util::SaturateTo<unsigned int>((ifmrParam.endRatio - ifmrParam.startRatio) / ifmrParam.step + 1.0f);
}

/// Which of the K ratios are still in the search, and their clip ranges in the lanes. A ratio left out keeps a lane
/// with a harmless range.
template <typename T>
class Candidates {
public:
    explicit Candidates(unsigned int numRatios)
        : numLanes_((std::size_t{numRatios} + kLaneGroup - 1) / kLaneGroup * kLaneGroup),
          numRatios_(numRatios),
          above_(numLanes_, T{0}),
          below_(numLanes_, T{0}),
          scale_(numLanes_, T{1}),
          loss_(numLanes_, 0.0f),
          taken_(numRatios, false) {}

    void Take(unsigned int k, T above, T below, T scale) {
        above_[k] = above;
        below_[k] = below;
        scale_[k] = scale;
        taken_[k] = true;
        // What is in [DBL_EPSILON, 2^52] but not in [FLT_EPSILON, 2^23] concerns double data only, which ignore it.
        zeroInside_ = zeroInside_ && above >= 0 && below >= 0;
    }

    /// Sums the loss of every candidate over the data.
    void Evaluate(const T* data, std::size_t length) {
        const int numGroups = static_cast<int>(numLanes_ / kLaneGroup);
        const bool worthwhile = static_cast<double>(length) * static_cast<double>(numLanes_) > kWorthwhile;
        util::ParallelFor(numGroups, worthwhile, [&](util::Block block) {
            const int lane = block.begin * kLaneGroup;
            const int numLanes = (block.end - block.begin) * kLaneGroup;
            const ClipLanes<T> lanes{&above_[lane], &below_[lane], &scale_[lane], &loss_[lane]};
            util::DispatchIsa([&](auto isa) {
                IfmrLoops<decltype(isa), T>::AddLoss(data, length, static_cast<T>(length), lanes, numLanes,
                                                     zeroInside_);
            });
        });
    }

    /// The first candidate whose loss is smaller than every one before it; 0 if none was taken.
    unsigned int Best() const {
        unsigned int best = 0;
        while (best < numRatios_ && !taken_[best]) ++best;
        if (best == numRatios_) return 0;
        for (unsigned int k = best + 1; k < numRatios_; ++k)
            if (taken_[k] && loss_[k] < loss_[best]) best = k;
        return best;
    }

private:
    std::size_t numLanes_;
    unsigned int numRatios_;
    std::vector<T> above_;
    std::vector<T> below_;
    std::vector<T> scale_;
    std::vector<float> loss_;
    std::vector<bool> taken_;
    bool zeroInside_ = true;
};

template <typename T>
int IfmrQuantWithOffset(const T* data, std::size_t length, const IfmrParam& ifmrParam, const MaxMinValue<T>& range,
                        unsigned int& best) {
    const unsigned int levels = LevelsWithOffset(ifmrParam.numBits);
    if (levels == 0) {
        LOG_ERROR("[%s]maxLimit should not be zero.\n", __func__);
        return STATUS_GENERIC_ERROR;
    }
    const unsigned int numRatios = CountRatios(ifmrParam);
    Candidates<T> candidates(numRatios);
    for (unsigned int k = 0; k < numRatios; ++k) {
        const T clip = RatioOf(ifmrParam, k) * range.maxValue;
        T scale = (clip - range.minValue) / static_cast<T>(levels);
        if (scale < 0 || util::ProcessScale(scale) != STATUS_OK) continue;
        candidates.Take(k, clip, -range.minValue, scale);
    }
    candidates.Evaluate(data, length);
    best = candidates.Best();
    return STATUS_OK;
}

template <typename T>
int IfmrQuantWithoutOffset(const T* data, std::size_t length, const IfmrParam& ifmrParam, const MaxMinValue<T>& range,
                           unsigned int& best) {
    const T larger = LargerBound(range);
    const unsigned int levels = LevelsWithoutOffset(ifmrParam.numBits, larger > 0);
    if (levels == 0) {
        LOG_ERROR("[%s]maxLimit should not be zero.\n", __func__);
        return STATUS_GENERIC_ERROR;
    }
    const float bound = static_cast<float>(std::fabs(larger));
    const unsigned int numRatios = CountRatios(ifmrParam);
    Candidates<T> candidates(numRatios);
    for (unsigned int k = 0; k < numRatios; ++k) {
        const T clip = RatioOf(ifmrParam, k) * bound;  // single precision for double data too
        T scale = clip / static_cast<T>(levels);
        if (util::ProcessScale(scale) != STATUS_OK) {
            LOG_ERROR("[%s]scale is illegal.\n", __func__);
            continue;
        }
        candidates.Take(k, clip, clip, scale);
    }
    candidates.Evaluate(data, length);
    best = candidates.Best();
    return STATUS_OK;
}

float RangeWithOffset(float ratio, const MaxMinValue<float>& range) {
    return std::fma(range.maxValue, ratio, -range.minValue);
}
double RangeWithOffset(float ratio, const MaxMinValue<double>& range) {
    return static_cast<double>(static_cast<float>(ratio * range.maxValue)) - range.minValue;
}

template <typename T>
int CalScaleWithOffset(const IfmrParam& ifmrParam, float ratio, const MaxMinValue<T>& range,
                       const util::FloatData& scale, const util::IntData& offset) {
    const unsigned int levels = LevelsWithOffset(ifmrParam.numBits);  // not 0: the search has seen it
    scale.data[0] = static_cast<float>(RangeWithOffset(ratio, range) / static_cast<T>(levels));
    const int status = util::ProcessScale(scale.data[0]);
    if (status != STATUS_OK) {
        LOG_ERROR("[%s]scale failed.\n", __func__);
        return status;
    }
    const T shift = util::RoundHalfAway(range.minValue / static_cast<T>(scale.data[0]));
    const int64_t half = util::SaturateTo<int>(util::PowerOfTwo(int64_t{ifmrParam.numBits} - 1));
    offset.data[0] = util::SaturateTo<int>(static_cast<double>(-int64_t{util::SaturateTo<int>(shift)} - half));
    return STATUS_OK;
}

template <typename T>
int CalScaleWithoutOffset(const IfmrParam& ifmrParam, float ratio, const MaxMinValue<T>& range,
                          const util::FloatData& scale, const util::IntData& offset) {
    const unsigned int negativeLevels = LevelsWithoutOffset(ifmrParam.numBits, false);
    const unsigned int positiveLevels = LevelsWithoutOffset(ifmrParam.numBits, true);
    if (negativeLevels == 0 || positiveLevels == 0) {
        LOG_ERROR("[%s]min or max should not be zero.\n", __func__);
        return STATUS_SCALE_ERROR;
    }
    const T larger = LargerBound(range);
    const float bound = static_cast<float>(std::fabs(larger));
    const float clip = static_cast<float>(static_cast<double>(ratio) * bound);
    scale.data[0] = clip / static_cast<float>(larger > 0 ? positiveLevels : negativeLevels);
    const int status = util::ProcessScale(scale.data[0]);
    if (status != STATUS_OK) {
        LOG_ERROR("[%s]scale failed.\n", __func__);
        return status;
    }
    offset.data[0] = 0;
    return STATUS_OK;
}

int CheckIfmrQuantParams(const void* data, const util::FloatData& scale, const util::IntData& offset) {
    if (data == nullptr) {
        LOG_ERROR("Empty pointer, all input tensor is empty\n");
        return STATUS_BAD_PARAM;
    }
    if (scale.length != 1 || offset.length != 1) {
        LOG_ERROR("scale.length = %u and offset.length = %u should be 1.\n", scale.length, offset.length);
        return STATUS_BAD_PARAM;
    }
    return STATUS_OK;
}

int CheckSearchGrid(unsigned int length, const IfmrParam& ifmrParam) {
    if (length == 0) {
        LOG_ERROR("input data length = 0.\n");
        return STATUS_BAD_PARAM;
    }
    if (!(ifmrParam.step > 0 && ifmrParam.step <= FLT_MAX)) {
        LOG_ERROR("ifmrParam.step = %f, it should be greater than 0 and finite.\n", ifmrParam.step);
        return STATUS_BAD_PARAM;
    }
    if (!(ifmrParam.startRatio >= -FLT_MAX && ifmrParam.startRatio <= ifmrParam.endRatio &&
          ifmrParam.endRatio <= FLT_MAX)) {
        LOG_ERROR("ifmrParam.startRatio = %f, ifmrParam.endRatio = %f, it should not be less, both finite.\n",
                  ifmrParam.startRatio, ifmrParam.endRatio);
        return STATUS_BAD_PARAM;
    }
    const unsigned int numRatios = CountRatios(ifmrParam);
    if (numRatios == 0 || numRatios > kMaxNumRatios) {
        LOG_ERROR("%u clip ratios from %f to %f, it should be 1 to %u.\n", numRatios, ifmrParam.startRatio,
                  ifmrParam.endRatio, kMaxNumRatios);
        return STATUS_BAD_PARAM;
    }
    return STATUS_OK;
}

template <typename T>
int IfmrQuantCalibration(T* data, unsigned int length, const IfmrParam& ifmrParam, const util::FloatData& scale,
                         const util::IntData& offset) {
    int status = CheckSearchGrid(length, ifmrParam);
    if (status != STATUS_OK) {
        LOG_ERROR("CheckSearchGrid failed.\n");
        return status;
    }
    MaxMinValue<T> range{};
    status = FindMaxAndMinValueWithPercentile(data, length, range, ifmrParam.maxPercentile, ifmrParam.minPercentile);
    if (status != STATUS_OK) {
        LOG_ERROR("FindMaxAndMinValueWithPercentile failed.\n");
        return status;
    }
    unsigned int best = 0;
    status = ifmrParam.withOffset ? IfmrQuantWithOffset(data, length, ifmrParam, range, best)
                                  : IfmrQuantWithoutOffset(data, length, ifmrParam, range, best);
    if (status != STATUS_OK) {
        LOG_ERROR("%s failed.\n", ifmrParam.withOffset ? "IfmrQuantWithOffset" : "IfmrQuantWithoutOffset");
        return status;
    }
    const float ratio = RatioOf(ifmrParam, best);
    status = ifmrParam.withOffset ? CalScaleWithOffset(ifmrParam, ratio, range, scale, offset)
                                  : CalScaleWithoutOffset(ifmrParam, ratio, range, scale, offset);
    if (status != STATUS_OK) {
        LOG_ERROR("%s failed.\n", ifmrParam.withOffset ? "CalScaleWithOffset" : "CalScaleWithoutOffset");
    }
    return status;
}

template <typename T>
int ClipAndQuant(T* data, unsigned int length, unsigned int numBits, float scale, int offset) {
    if (scale < static_cast<float>(DBL_EPSILON)) {
        LOG_ERROR("scale value should not be less than zero!\n");
        return STATUS_SCALE_ERROR;
    }
    util::FakeQuant(data, length, scale, offset, util::SignedGrid(numBits));
    return STATUS_OK;
}

template <typename T>
int IfmrQuantInference(T* data, unsigned int length, const IfmrParam& ifmrParam, const util::FloatData& scale,
                       const util::IntData& offset) {
    const int status = ClipAndQuant(data, length, ifmrParam.numBits, scale.data[0], offset.data[0]);
    if (status != STATUS_OK) LOG_ERROR("ClipAndQuant failed.\n");
    return status;
}

template <typename T>
int IfmrQuantInternel(T* data, unsigned int length, const IfmrParam& ifmrParam, const util::FloatData& scale,
                      const util::IntData& offset) {
    const int status = CheckIfmrQuantParams(data, scale, offset);
    if (status != STATUS_OK) {
        LOG_ERROR("CheckIfmrQuantParams failed.");
        return status;
    }
    if (ifmrParam.calibration > 1) {
        LOG_ERROR("ifmrParam.calibration = %u.\n", ifmrParam.calibration);
        return STATUS_BAD_PARAM;
    }
    if (ifmrParam.numBits > util::kMaxNumBits) {
        LOG_ERROR("ifmrParam.numBits = %u, it should not be greater than %u.\n", ifmrParam.numBits, util::kMaxNumBits);
        return STATUS_BAD_PARAM;
    }
    return ifmrParam.calibration == 1 ? IfmrQuantInference(data, length, ifmrParam, scale, offset)
                                      : IfmrQuantCalibration(data, length, ifmrParam, scale, offset);
}

/// The rank of a percentile among `length` values, 1 for the extreme itself; 0 if it falls outside.
unsigned int RankOf(unsigned int length, float percentile) {
    if (std::fabs(percentile - 1.0f) < static_cast<float>(DBL_EPSILON)) return 1;
    const unsigned int beyond = util::SaturateTo<unsigned int>(std::floor(static_cast<float>(length) * percentile));
    return beyond < length ? length - beyond : 0;
}

}  // namespace

template <typename T>
int FindMaxAndMinValueWithPercentile(T* data, unsigned int length, MaxMinValue<T>& result, float maxPercentile,
                                     float minPercentile) {
    if (data == nullptr || length == 0) {
        LOG_ERROR("no data to find a percentile of.\n");
        return STATUS_BAD_PARAM;
    }
    const unsigned int maxRank = RankOf(length, maxPercentile);
    const unsigned int minRank = RankOf(length, minPercentile);
    if (maxRank == 0 || minRank == 0) {
        LOG_ERROR("maxSize > length may rise array bound error!\n");
        return STATUS_SCALE_ERROR;
    }
    if (util::HasNan(data, length)) {
        LOG_ERROR("Exist NaN in input data, cannot find a percentile of it.\n");
        return STATUS_BAD_PARAM;
    }
    const util::Extremes<T> bounds = BoundsOfRanks(data, length, maxRank, minRank);
    result = {bounds.max, bounds.min};
    return STATUS_OK;
}

template KEST_EXPORT int FindMaxAndMinValueWithPercentile(float*, unsigned int, MaxMinValue<float>&, float, float);
template KEST_EXPORT int FindMaxAndMinValueWithPercentile(double*, unsigned int, MaxMinValue<double>&, float, float);

int IfmrQuant(float* data, unsigned int length, const IfmrParam& ifmrParam, const util::FloatData& scale,
              const util::IntData& offset) {
    return IfmrQuantInternel(data, length, ifmrParam, scale, offset);
}

int IfmrQuant(double* data, unsigned int length, const IfmrParam& ifmrParam, const util::FloatData& scale,
              const util::IntData& offset) {
    return IfmrQuantInternel(data, length, ifmrParam, scale, offset);
}

}  // namespace KestCommon

namespace KestTfOp {

int QuantIfmrFunctor<util::ThreadPoolDevice, float>::operator()(kest_tf::IfmrParam ifmrParam, int& batchIndex,
                                                                int& batchNum, InputParam<float>& input,
                                                                DataQuantParam<float> quantParam) const {
    ++batchIndex;
    if (batchIndex > batchNum) return STATUS_OK;
    std::vector<float>& all = input.accumulated;
    if (input.length > 0) {
        const std::size_t length = static_cast<std::size_t>(input.length);
        const std::size_t numBatches = static_cast<std::size_t>(batchNum);
        if (batchIndex == 1 && length <= all.max_size() / numBatches) all.reserve(numBatches * length);
        all.insert(all.end(), input.input, input.input + length);
    }
    if (batchIndex < batchNum) return STATUS_OK;

    if (all.size() > UINT_MAX) {
        LOG_ERROR("%zu values, it should not be more than %u.\n", all.size(), UINT_MAX);
        return STATUS_BAD_PARAM;
    }
    const KestCommon::IfmrParam param{ifmrParam.calibration,   ifmrParam.numBits,      ifmrParam.withOffset,
                                      ifmrParam.startRatio,    ifmrParam.endRatio,     ifmrParam.step,
                                      ifmrParam.maxPercentile, ifmrParam.minPercentile};
    const util::FloatData scale{1, quantParam.calScale};
    const util::IntData offset{1, quantParam.calOffset};
    const int status = KestCommon::IfmrQuant(all.data(), static_cast<unsigned int>(all.size()), param, scale, offset);
    if (status != STATUS_OK) return status;
    *quantParam.scale = *quantParam.calScale;
    *quantParam.offset = *quantParam.calOffset;
    return STATUS_OK;
}

}  // namespace KestTfOp
