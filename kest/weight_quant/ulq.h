#ifndef KEST_WEIGHT_QUANT_ULQ_H_
#define KEST_WEIGHT_QUANT_ULQ_H_

#include <kest/kernel_frame/export.h>
#include <kest/kernel_frame/status.h>
#include <kest/kernel_frame/views.h>

#include <vector>

/// \file
/// ULQ: the forward kernels and gradients of quantisation-aware retraining. Activations are fake-quantised between a
/// learnable maximum and minimum (trained quantisation thresholds: Jain et al., 2020; learned step sizes: Esser et al.,
/// 2020), weights with a learnable step for each output channel, the innermost axis: element i has channel i mod K.
///
/// Nothing here returns a failure: degenerate bounds and steps are replaced as told below. Values may be NaN or
/// infinite; conversions to integers saturate, NaN gives 0. Everything but Ulq runs on the caller's thread.

namespace KestCommon {

/// Fake-quantises `in` with the scale s and the level z of the lower bound: out[i] = round(x / s) * s, x = in[i]
/// clamped to [z * s, (z + 2^numBits - 1) * s]. NaN stays. `in` and `out` may be the same array. Parallel with OpenMP's
/// default team. Nothing happens for `length` below 1. T = float, double.
template <typename T>
KEST_EXPORT void Ulq(const T* in, T* out, int length, const util::FloatData& scale, const util::IntData& offset,
                     int numBits);

/// The gradients {clipMax, clipMin} of the loss with respect to the bounds, from the gradients `grad` with respect to
/// the fake-quantised values of `in`. `bounds` = {upper, lower, clipMax, clipMin}: the thresholds beyond which the
/// forward pass clips, and the learnable bounds. With the rounding error f of a value in units of the range (of clipMin
/// for one that is clipped), on a grid of 255 steps whatever the forward pass used:
///
///     above the upper threshold   clipMax += (1 + f) * g   clipMin += -f * g
///     below the lower threshold   clipMax += f * g         clipMin += (1 - f) * g
///     else                        clipMax += f * g         clipMin += -f * g
///
/// Sums are in T, in index order, each step a fused multiply-add. {0, 0} for `length` below 1 or fewer than four
/// bounds. T = float, double.
template <typename T>
KEST_EXPORT std::vector<T> UlqDiff(const T* in, const T* grad, int length, std::vector<T> bounds);

/// Repairs a pair of bounds from the last good one. clipMax <= clipMin: both are restored, true. Else false, and
/// clipMax < 0: clipMax is restored, clipMin saved; otherwise clipMax is saved, and clipMin restored if it is above 0,
/// saved if not. T = float, double.
template <typename T>
KEST_EXPORT bool ClipCheck(T& clipMax, T& clipMin, T& clipMaxRecord, T& clipMinRecord);

/// The steps of a weight tensor and how they are learned.
struct KEST_EXPORT WeightUlqParam {
    float* scale;     ///< channelNum steps
    int channelNum;   ///< K
    int numBits;      ///< width of the grid
    bool reciprocal;  ///< what is learned is 1 / step
};

/// The extremes of each channel, 0 included, to maxOut and minOut, and the steps with which they just fit the grid to
/// param.scale: 1 for a step below 1e-6. NaN is passed over. numBits below 2: the steps stay unwritten. Nothing happens
/// for channelNum below 1. Always STATUS_OK. T = float.
template <typename T>
KEST_EXPORT int ScaleArqInit(int length, const T* data, T* maxOut, T* minOut, WeightUlqParam param);

/// Fake-quantises weights with learned steps, one for each of input.channelNum channels: out[i] = clamp(round(x / s),
/// -2^(numBits - 1), 2^(numBits - 1) - 1) * s. A learned value below 1e-6, negative ones included, counts 1e-6 more.
/// NaN stays. input.data and `out` may be the same array. Nothing happens for a length or channelNum below 1. Always
/// STATUS_OK. T = float.
template <typename T>
KEST_EXPORT int WtsFakeQuant(const Input<T>& input, T* out, const float* scale, int numBits, bool reciprocal);

/// Swaps the first two axes of a row-major tensor in place, and the first two entries of `shape`. Fewer than two
/// dimensions, a negative one, or a product that differs from `length`: one log line, nothing changed. Needs memory for
/// a copy. T = float, double.
template <typename T>
KEST_EXPORT void TransposeAB(T* data, int length, std::vector<int>& shape);

}  // namespace KestCommon

namespace KestTfOp {

/// A tensor and its learnable bounds, one value each.
template <typename T>
struct Input {
    const T* data;  ///< the tensor, only read
    int length;     ///< number of elements
    T* clipMax;     ///< upper bound
    T* clipMin;     ///< lower bound
};

/// Where the fake-quantised tensor goes, and one value each of what it was made with.
template <typename T>
struct Output {
    T* data;        ///< as many as the input has
    float* scale;   ///< step of the grid
    int* offset;    ///< offset of the codes
    T* clipMaxOut;  ///< upper bound
    T* clipMinOut;  ///< lower bound
};

template <typename Device, typename T>
struct KEST_EXPORT UlqFunctor;
template <typename Device, typename T>
struct KEST_EXPORT ClipCalculate;
template <typename Device, typename T>
struct KEST_EXPORT ClipCheckFunctor;
template <typename Device, typename T>
struct KEST_EXPORT ClipRecord;
template <typename Device, typename T>
struct KEST_EXPORT GetBatchNum;
template <typename Device, typename T>
struct KEST_EXPORT UpdateBatchNum;
template <typename Device, typename T>
struct KEST_EXPORT ScaleArqInit;
template <typename Device, typename T>
struct KEST_EXPORT WtsFakeQuantFunctor;

/// Fake-quantises the tensor between its bounds, with scale = (clipMax - clipMin) / (2^numBits - 1) + 1e-6, and
/// publishes scale, bounds, and the offset for code = round(x / scale) + offset on the signed grid. Always STATUS_OK.
template <>
struct KEST_EXPORT UlqFunctor<util::ThreadPoolDevice, float> {
    int operator()(Input<float> input, Output<float> output, int numBits) const;
};

/// The bounds of a scale and an offset: scale * (code - offset) of the first and the last code. Always STATUS_OK.
template <>
struct KEST_EXPORT ClipCalculate<util::ThreadPoolDevice, float> {
    int operator()(const float* scale, const int* offset, float* clipMax, float* clipMin, int numBits) const;
};

/// KestCommon::ClipCheck, after *clipMin = 0 if resetMin. Always STATUS_OK.
template <>
struct KEST_EXPORT ClipCheckFunctor<util::ThreadPoolDevice, float> {
    int operator()(float* clipMax, float* clipMin, float& clipMaxRecord, float& clipMinRecord, bool resetMin) const;
};

/// Saves a pair of bounds as the last good one. Always STATUS_OK.
template <>
struct KEST_EXPORT ClipRecord<util::ThreadPoolDevice, float> {
    int operator()(float* clipMax, float* clipMin, float& clipMaxRecord, float& clipMinRecord) const;
};

/// Reads a batch counter that a variable of the framework holds, truncated. Always STATUS_OK.
template <>
struct KEST_EXPORT GetBatchNum<util::ThreadPoolDevice, float> {
    int operator()(const float& counter, int& batchNum) const;
};
/// The same for double.
template <>
struct KEST_EXPORT GetBatchNum<util::ThreadPoolDevice, double> {
    int operator()(const double& counter, int& batchNum) const;
};

/// Adds 1 to a batch counter. Always STATUS_OK.
template <>
struct KEST_EXPORT UpdateBatchNum<util::ThreadPoolDevice, float> {
    int operator()(float& counter) const;
};
/// The same for double.
template <>
struct KEST_EXPORT UpdateBatchNum<util::ThreadPoolDevice, double> {
    int operator()(double& counter) const;
};

/// KestCommon::ScaleArqInit.
template <>
struct KEST_EXPORT ScaleArqInit<util::ThreadPoolDevice, float> {
    int operator()(int length, const float* data, float* maxOut, float* minOut, KestCommon::WeightUlqParam param) const;
};

/// KestCommon::WtsFakeQuant.
template <>
struct KEST_EXPORT WtsFakeQuantFunctor<util::ThreadPoolDevice, float> {
    int operator()(KestCommon::Input<float> input, float* out, const float* scale, int numBits, bool reciprocal) const;
};

}  // namespace KestTfOp

#endif  // KEST_WEIGHT_QUANT_ULQ_H_
