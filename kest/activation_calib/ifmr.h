#ifndef KEST_ACTIVATION_CALIB_IFMR_H_
#define KEST_ACTIVATION_CALIB_IFMR_H_

#include <kest/kernel_frame/export.h>
#include <kest/kernel_frame/status.h>
#include <kest/kernel_frame/views.h>

#include <cstdint>
#include <vector>

/// \file
/// IFMR: one scale and one offset for an activation tensor, from all values seen over several batches. Two percentiles
/// bound the values; of a grid of ratios of the bound, the clip range whose fake-quantised values have the smallest
/// mean squared error wins. (Minimising that error over clip ranges: Choukroun et al., "Low-bit Quantization of Neural
/// Networks for Efficient Inference", 2019.)
///
///     with offset     range [minimum, ratio * maximum], scale = range / (2^numBits - 1),
///                     offset = -round(minimum / scale) - 2^(numBits - 1)
///     without offset  range [-ratio * bound, ratio * bound], bound the larger of maximum and |minimum|, offset 0,
///                     scale = ratio * bound / (2^(numBits - 1) - 1) if the maximum is larger, / 2^(numBits - 1)
///                     otherwise
///
/// A scale below 2^-23 (2^-52 while searching double data) becomes 1: values that are all tiny end up with scale 1.

namespace KestCommon {

/// How an activation tensor is calibrated or fake-quantised.
struct KEST_EXPORT IfmrParam {
    unsigned int calibration;  ///< 0: calibrate; 1: fake-quantise with the given factors
    unsigned int numBits;      ///< 2 to 31 (1 with offset)
    bool withOffset;           ///< range [minimum, clip]; without: [-clip, clip]
    float startRatio;          ///< the grid of clip ratios: startRatio + k * step up to endRatio,
    float endRatio;            ///< (endRatio - startRatio) / step + 1 of them in single precision, truncated
    float step;                ///< from one ratio to the next
    float maxPercentile;       ///< the share of values at or below the upper bound, in (0, 1]; 1: the largest value
    float minPercentile;       ///< the share of values at or above the lower bound, in (0, 1]; 1: the smallest value
};

/// maxValue >= 0 and minValue <= 0: a range always contains zero.
template <typename T>
struct MaxMinValue {
    T maxValue;  ///< the upper bound
    T minValue;  ///< the lower bound
};

///@{
/// Calibrates (ifmrParam.calibration 0): reads data[0 .. length) and writes scale.data[0] and offset.data[0]. Or
/// fake-quantises (1): rewrites data[0 .. length) with scale.data[0] and offset.data[0] as x = (code - offset) * scale,
/// code = clamp(round(x / scale) + offset) on the signed grid of numBits bits; the rounded quotient saturates to 32
/// bits before the offset is added, and NaN counts as 0.
///
/// Ties between ratios go to the smaller one. A ratio is left out of the search if its scale is infinite or above 2^23
/// (2^52 for double data), which prints log lines although the calibration may succeed, or, with offset, negative. If
/// none remains the first one goes on to the final scale. Values beyond a percentile may be infinite: then all errors
/// are, and the first ratio wins. The final offset is computed in 64-bit integers and saturates.
///
/// Parallel over the ratios with OpenMP's default team; the result does not depend on the number of threads. Needs
/// memory for the ratios, and for up to eight times as many values as lie beyond a percentile.
///
/// Each failure has log lines that name the step. Nothing is written on a failure, but that a rejected final scale
/// stays in scale.data[0]. The checks, in order:
///
/// - STATUS_BAD_PARAM: `data` null; scale or offset not of length 1 (their arrays are trusted); calibration above 1;
///   numBits above 31.
///
/// Then, when calibrating:
///
/// - STATUS_BAD_PARAM: `length` 0; `step` not positive or not finite; `endRatio` below `startRatio` or either not
///   finite; more than 2^24 ratios.
/// - STATUS_SCALE_ERROR: a percentile above 1.
/// - STATUS_BAD_PARAM: NaN among the values.
/// - STATUS_GENERIC_ERROR: numBits 0, or 1 without offset and a maximum above |minimum|: a grid without a step.
/// - STATUS_SCALE_ERROR: a final scale that is infinite or above 2^23; numBits 1 without offset otherwise.
///
/// Or, when fake-quantising:
///
/// - STATUS_SCALE_ERROR: a scale below 2^-52, zero and negative ones included.
KEST_EXPORT int IfmrQuant(float* data, unsigned int length, const IfmrParam& ifmrParam, const util::FloatData& scale,
                          const util::IntData& offset);
KEST_EXPORT int IfmrQuant(double* data, unsigned int length, const IfmrParam& ifmrParam, const util::FloatData& scale,
                          const util::IntData& offset);
///@}

/// Bounds `data` (only read) by two percentiles. With the rank length - floor(length * percentile), 1 for a percentile
/// of exactly 1, maxValue is the value of that rank from the top, or 0 if it is negative, and minValue that from the
/// bottom, or 0 if it is positive. A percentile of 0 or below, or NaN, selects the opposite extreme.
///
/// STATUS_BAD_PARAM for null or empty data, then STATUS_SCALE_ERROR for a rank outside the data (a percentile above 1),
/// then STATUS_BAD_PARAM for NaN among the values. None writes `result`. Linear time; needs room for eight times as
/// many values as the larger rank, at most for a copy of the data. T = float, double.
template <typename T>
KEST_EXPORT int FindMaxAndMinValueWithPercentile(T* data, unsigned int length, MaxMinValue<T>& result,
                                                 float maxPercentile, float minPercentile);

}  // namespace KestCommon

namespace kest_tf {

/// KestCommon::IfmrParam as framework operators pass it.
struct KEST_EXPORT IfmrParam {
    unsigned int calibration;  ///< 0: calibrate; 1: fake-quantise with the given factors
    unsigned int numBits;      ///< width of the grid
    bool withOffset;           ///< asymmetric
    float startRatio;          ///< first clip ratio
    float endRatio;            ///< last clip ratio
    float step;                ///< from one ratio to the next
    float maxPercentile;       ///< of the upper bound
    float minPercentile;       ///< of the lower bound
};

}  // namespace kest_tf

namespace KestTfOp {

/// The values of one batch and all values so far. Owned by the caller, alive from the first batch to the last.
template <typename T>
struct InputParam {
    std::vector<T> accumulated;  ///< every value of every batch so far, in order
    std::int64_t length;         ///< values in this batch
    const T* input;              ///< this batch
};

/// Where the results go: one value each.
template <typename T>
struct DataQuantParam {
    float* scale;     ///< published on success only
    int* offset;      ///< published on success only
    float* calScale;  ///< written by the calibration
    int* calOffset;   ///< written by the calibration
};

template <typename Device, typename T>
struct KEST_EXPORT QuantIfmrFunctor;

/// Calibrates over `batchNum` batches, one a call: increments `batchIndex`, appends the batch to input.accumulated and,
/// on the call that makes them equal, runs KestCommon::IfmrQuant on all values (calibration 1 rewrites them). On
/// success calScale and calOffset are copied to scale and offset; on a failure its status is returned and these two
/// stay as they are. STATUS_OK on the calls before; later calls only count. More than 2^32 - 1 values in all:
/// STATUS_BAD_PARAM.
///
/// The first call reserves room for batchNum batches of its length, and throws std::bad_alloc, nothing appended, where
/// there is none (the call is counted). Neither the counter nor `accumulated` is ever reset here. Calls that share them
/// must not overlap.
template <>
struct KEST_EXPORT QuantIfmrFunctor<util::ThreadPoolDevice, float> {
    int operator()(kest_tf::IfmrParam ifmrParam, int& batchIndex, int& batchNum, InputParam<float>& input,
                   DataQuantParam<float> quantParam) const;
};

}  // namespace KestTfOp

#endif  // KEST_ACTIVATION_CALIB_IFMR_H_
