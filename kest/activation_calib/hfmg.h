#ifndef KEST_ACTIVATION_CALIB_HFMG_H_
#define KEST_ACTIVATION_CALIB_HFMG_H_

#include <kest/kernel_frame/export.h>
#include <kest/kernel_frame/status.h>
#include <kest/kernel_frame/views.h>

#include <utility>
#include <vector>

/// \file
/// HFMG: one scale and one offset for an activation tensor from a histogram, so that any number of batches can be seen
/// without keeping them. Each batch is counted into bins of one width; a batch that widens the range has the bins so
/// far counted anew into the wider ones. After the last batch the sparse tails are trimmed bin by bin into a row of
/// candidate clip ranges, and the one with the smallest squared error wins, values taken as spread evenly inside their
/// bin. (Clip ranges by least squared error: Choukroun et al., "Low-bit Quantization of Neural Networks for Efficient
/// Inference", 2019.) Activation ARQ is the same scale and offset from a minimum and a maximum.
///
///     with offset     range [min(0, minimum), max(0, maximum)], scale = range / (2^numBits - 1),
///                     offset = -2^(numBits - 1) - round(minimum / scale)
///     without offset  bound the larger of maximum and minimum by magnitude, offset 0,
///                     scale = |bound| / (2^(numBits - 1) - 1) if bound > 0, / 2^(numBits - 1) otherwise
///
/// A scale below 2^-52 becomes 1. Offsets saturate at 32 bits; NaN gives 0. numBits is 2 to 31 for a useful result;
/// others are defined: with 0 or 1 the scale may be 1, infinite, NaN or |bound| * 2^52.
///
/// NaN values are passed over in the search for minimum and maximum; a batch without any number has both at 0, or,
/// added to a histogram, leaves its range alone. NaN counts in bin 0, and with an infinite value in the batch, or a
/// range beyond the largest T, all values do, for then no bin can be computed: the bounds become infinite or NaN, and
/// the histogram is of no further use. The total count is the number of values whatever they are.
///
/// Counts are 32-bit and wrap: a bin holds at most 2^32 - 1 values over all batches.
///
/// Everything runs on the caller's thread and prints nothing (but for ProcessScale's line in ActArqCalibration).
/// Templates exist for T = float and double. n is the number of bins of a histogram.

namespace KestCommon {

/// The values in [lowerBound, upperBound).
template <typename T>
struct DataBin {
    unsigned int count;  ///< number of values counted
    T lowerBound;        ///< belongs to the bin
    T upperBound;        ///< belongs to the next bin
};

/// One batch, only read.
template <typename T>
struct InputData {
    unsigned int length;  ///< number of values
    T* data;              ///< the values
};

/// How an activation tensor is calibrated.
struct KEST_EXPORT HfmgAlgoParam {
    unsigned int numBits;  ///< width of the grid
    bool withOffset;       ///< asymmetric
    unsigned int numBins;  ///< not read here
};

/// Appends `numBins` bins that span the batch, and counts it into them.
///
/// RECORD_DATA_ERROR for null data, EMPTY_INPUT_ERROR for `numBins` below 1 and for an empty batch; `bins` is unchanged
/// then.
template <typename T>
KEST_EXPORT int HfmgDistribute(int numBins, std::vector<DataBin<T>>& bins, const InputData<T>& input);

/// Appends `numBins` bins from minValue on, binWidth wide, and counts the batch into them: value x in bin
/// floor((x - minValue) / binWidth), below the first in the first, beyond the last in the last. With a width below
/// 2^-23 all values count in bin numBins / 2. Nothing happens for `numBins` below 1.
template <typename T>
KEST_EXPORT void HfmgDistributeInter(int numBins, T minValue, T binWidth, std::vector<DataBin<T>>& bins,
                                     const InputData<T>& input);

/// Counts a batch into a histogram: makes it, if `bins` is empty, as HfmgDistribute does; else replaces it by one that
/// also spans the batch. Statuses as HfmgDistribute; `bins` is unchanged on a failure and after a std::bad_alloc.
template <typename T>
KEST_EXPORT int HfmgMerge(int numBins, std::vector<DataBin<T>>& bins, const InputData<T>& input);

/// Adds the counts of oldBins to newBins, which start at minValue and are binWidth wide. `sameRange`: bin by bin. Else
/// a bin that straddles two new ones is split in proportion, one of no width counts whole, and an old bin beyond bin
/// oldBins.size() - 1 counts there. The total is conserved; what lies beyond the last new bin counts in it. Nothing
/// happens without a new bin.
template <typename T>
KEST_EXPORT void HfmgMergeInter(std::vector<DataBin<T>>& oldBins, std::vector<DataBin<T>>& newBins, bool sameRange,
                                T minValue, T binWidth);

/// Appends candidate clip ranges (first bin, last bin), each the one before it less a tail: the tail that takes more
/// bins to hold a 100,000th of all values (at least one), the upper one on a tie. Ends at a quarter of the bins. None
/// for fewer than three bins.
template <typename T>
KEST_EXPORT void HfmgGetSearchRange(std::vector<DataBin<T>>& bins,
                                    std::vector<std::pair<unsigned int, unsigned int>>& ranges);

/// Adds to `loss` the squared error of all bins quantised to numLevels levels over the bins startBin to endBin: the
/// integral of (x - centre of its level)^2, bin by bin, densities and sums in single precision. A level narrower than
/// 2^-23 sets it to 0.
///
/// EMPTY_INPUT_ERROR for numLevels 0 or no bins, `loss` unchanged. startBin <= endBin < n.
template <typename T>
KEST_EXPORT int HfmgCalculateLoss(std::vector<DataBin<T>>& bins, unsigned int numLevels, unsigned int startBin,
                                  unsigned int endBin, float& loss);

/// The scale and offset of the candidate with the smallest loss, the first of equal ones; the full range if there are
/// no candidates (n below 3). EMPTY_CONTAINER_ERROR for no bins, nothing written.
template <typename T>
KEST_EXPORT int HfmgCompute(std::vector<DataBin<T>>& bins, float& scale, int& offset, const HfmgAlgoParam& param);

/// The scale and offset of a range; without offset of the bound `maxValue`, minValue is not read.
template <typename T>
KEST_EXPORT void CalScaleOffset(T maxValue, T minValue, float& scale, int& offset, const HfmgAlgoParam& param);

/// Activation ARQ: scale.data[0] and offset.data[0] of the range from min(0, minValue) to max(0, maxValue); without
/// offset of the larger magnitude, taken as positive. The lengths of the views are not read.
///
/// STATUS_SCALE_ERROR, nothing written, for a scale that is infinite or above 2^23; one below 2^-23 becomes 1.
template <typename T>
KEST_EXPORT int ActArqCalibration(T minValue, T maxValue, const util::FloatData& scale, const util::IntData& offset,
                                  const HfmgAlgoParam& param);

}  // namespace KestCommon

namespace KestTfOp {

/// How an activation tensor is calibrated, as framework operators pass it.
struct KEST_EXPORT HfmgParam {
    unsigned int numBits;  ///< width of the grid
    bool withOffset;       ///< asymmetric
    unsigned int numBins;  ///< of every histogram
};

/// Where the results go: one value each.
template <typename T>
struct HfmgDataQuantParam {
    float* scale;     ///< published on success only
    int* offset;      ///< published on success only
    float* calScale;  ///< written by KestCommon::HfmgCompute
    int* calOffset;   ///< written by KestCommon::HfmgCompute
};

template <typename Device, typename T>
struct KEST_EXPORT QuantHfmgFunctor;
template <typename Device, typename T>
struct KEST_EXPORT ActArqFunctor;

/// Calibrates over `batchNum` batches, one a call: increments batchIndex, merges the batch into `bins` and, on the call
/// that makes them equal, computes calScale and calOffset and copies both to scale and offset. Later calls only count.
/// Statuses of HfmgMerge and HfmgCompute; a failing batch is counted and leaves `bins` alone. More than 2^31 - 1 bins
/// are as bad as none. Histogram and counter belong to the caller, are never reset here, and are used by one call at a
/// time.
template <>
struct KEST_EXPORT QuantHfmgFunctor<util::ThreadPoolDevice, float> {
    int operator()(std::vector<KestCommon::DataBin<float>>& bins, HfmgParam& param, int& batchIndex, int& batchNum,
                   KestCommon::InputData<float>& input, HfmgDataQuantParam<float>& quantParam) const;
};

/// Activation ARQ of one batch: *scale and *offset from its minimum and maximum. Without offset the larger one by
/// magnitude counts with its sign (the minimum on a tie), so a negative one has a level more than in
/// KestCommon::ActArqCalibration; the scale is not checked.
///
/// STATUS_OK; RECORD_DATA_ERROR for null data, EMPTY_INPUT_ERROR for an empty batch, nothing written.
template <>
struct KEST_EXPORT ActArqFunctor<util::ThreadPoolDevice, float> {
    int operator()(KestCommon::InputData<float>& input, HfmgParam& param, HfmgDataQuantParam<float>& quantParam) const;
};

}  // namespace KestTfOp

#endif  // KEST_ACTIVATION_CALIB_HFMG_H_
