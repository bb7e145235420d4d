#ifndef KEST_OP_KERNELS_DEPLOYED_OPS_H_
#define KEST_OP_KERNELS_DEPLOYED_OPS_H_

#include <kest/kernel_frame/export.h>
#include <kest/kernel_frame/status.h>
#include <kest/kernel_frame/views.h>

#include <cstdint>
#include <string>

/// \file
/// The four operators between the integer and the floating-point stages of a deployed model, simulated on the host:
/// quantise, dequantise, anti-quantise and weight anti-quantise. Each maps `length` elements to as many floats in
/// single precision, parallel with OpenMP's default team, and returns 0. Arrays are borrowed for the call and hold
/// `length` elements; nothing happens for `length` below 1. Float inputs may be the output array.
///
/// Dequantise and weight anti-quantise have factors for each channel. Element i takes those of channel
///
///     0                                                     without channelWise
///     i mod channelNum                                      channelWise: the channel is the last axis
///     (i mod (channelNum * innerSize)) / innerSize          channelWise and channelFirst: innerSize elements follow it
///
/// channelNum and innerSize below 1 count as 1 there.

namespace KestTfOp {

/// What quantise reads.
template <typename T>
struct QuantInputParam {
    int length;      ///< number of elements
    const T* input;  ///< the values
    T scale;         ///< what a value is multiplied by, 1 / step
    T offset;        ///< zero point, in codes
    int numBits;     ///< at least 1; above 32 as 32
};

/// What dequantise reads.
template <typename T>
struct DequantInputParam {
    int inputMultiplier;       ///< k below, not 0
    int length;                ///< number of elements
    const T* input;            ///< integers
    const uint64_t* deqScale;  ///< channelNum words, one without channelWise: bits 0-31 the scale, a float; bits 32-39
                               ///< the shift; the rest unread
    int channelNum;            ///< number of channels
    int innerSize;             ///< elements behind the channel axis, for channelFirst
    bool channelWise;          ///< factors for each channel
    bool channelFirst;         ///< the channel is not the last axis
    std::string label;         ///< unread
};

/// What anti-quantise reads.
template <typename T>
struct AntiQuantInputParam {
    int length;      ///< number of elements
    const T* input;  ///< the values
    T scale;         ///< what they are multiplied by
};

/// What weight anti-quantise reads.
template <typename T>
struct WeightQuantInputParam {
    int length;                 ///< number of elements
    const signed char* weight;  ///< the codes
    const signed char* offset;  ///< channelNum entries, one without channelWise
    int innerSize;              ///< elements behind the channel axis, for channelFirst
    int channelNum;             ///< number of channels
    bool channelWise;           ///< an offset for each channel
    bool channelFirst;          ///< the channel is not the last axis
};

template <typename Device, typename T>
struct KEST_EXPORT OrvaneQuantFunctor;
template <typename Device, typename T>
struct KEST_EXPORT OrvaneDequantFunctor;
template <typename Device, typename T>
struct KEST_EXPORT OrvaneAntiQuantFunctor;
template <typename Device, typename T>
struct KEST_EXPORT OrvaneWeightQuantFunctor;

/// out[i] = clamp(round(input[i] * scale) + offset, -m, m - 1) - offset with m = 2^(numBits - 1): codes without their
/// zero point. Halves round away from zero, NaN stays.
template <>
struct KEST_EXPORT OrvaneQuantFunctor<util::ThreadPoolDevice, float> {
    int operator()(QuantInputParam<float> param, float* out) const;
};

/// y = k * input[i]. With a shift N other than 0, y = floor(y / 2^N), clamped to [-32768, 32767]. Then
/// out[i] = y * (2^N * scale) / k. N and scale are of the element's channel, both 0 for channelNum below 1. 2^N from
/// N = 128 on is infinite. NaN stays. Needs memory for two floats a channel, or 512 KiB if that is more.
template <typename T>
KEST_EXPORT int OrvaneDequantInternelCpu(DequantInputParam<T> param, T* out);

/// OrvaneDequantInternelCpu.
template <>
struct KEST_EXPORT OrvaneDequantFunctor<util::ThreadPoolDevice, float> {
    int operator()(DequantInputParam<float> param, float* out) const;
};

/// out[i] = input[i] * scale.
template <>
struct KEST_EXPORT OrvaneAntiQuantFunctor<util::ThreadPoolDevice, float> {
    int operator()(AntiQuantInputParam<float> param, float* out) const;
};

/// out[i] = weight[i] - offset of the element's channel. Needs memory for one float a channel, or 256 KiB if that
/// is more.
template <>
struct KEST_EXPORT OrvaneWeightQuantFunctor<util::ThreadPoolDevice, float> {
    int operator()(WeightQuantInputParam<float> param, float* out) const;
};

}  // namespace KestTfOp

#endif  // KEST_OP_KERNELS_DEPLOYED_OPS_H_
