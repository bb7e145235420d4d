#ifndef KEST_PRUNE_BALANCE_DMQ_BALANCE_H_
#define KEST_PRUNE_BALANCE_DMQ_BALANCE_H_

#include <kest/kernel_frame/export.h>
#include <kest/kernel_frame/status.h>
#include <kest/kernel_frame/views.h>

#include <vector>

/// \file
/// DMQ balancing: a factor for each input channel of a layer, by which its activations are divided and its weights are
/// multiplied. The product stays, and the two quantisers share the difficulty of the channel's range:
///
///     factor = actMax^strength / wtsMax^(1 - strength)
///
/// with the largest magnitudes of the channel's activations and weights, and a migration strength from 0.2 to 0.8 (Xiao
/// et al., "Accurate and Efficient Post-Training Quantization for Large Language Models", 2023). The factors are
/// computed here, not applied.
///
/// Activations and weights lie channel by channel: with K channels, channel c owns the length / K elements from
/// c * (length / K) on. Everything runs on the caller's thread.

namespace KestCommon {

/// Writes the K = channelNum factors. NaN among the values is passed over; a NaN strength makes NaN factors.
///
/// A magnitude below 2^-23 counts as zero. If all activations or all weights do, every factor is 1; channels of zeros
/// on one side are repaired by ProcessZeroChannel.
///
/// STATUS_BAD_PARAM, nothing written: CheckDMQBParam; or an infinite value, the first channel's with activations before
/// weights. Needs memory for 2 K floats.
KEST_EXPORT int DMQBalance(const util::FloatData& act, const util::FloatData& wts, float migrationStrength,
                           unsigned int channelNum, float* balanceFactor);

/// Checks the arguments of DMQBalance. In this order, each STATUS_BAD_PARAM with one log line: activations null or
/// empty; weights null or empty; a strength outside [0.2, 0.8] (NaN passes); no channel; K does not divide one of the
/// lengths; `balanceFactor` null.
KEST_EXPORT int CheckDMQBParam(const util::FloatData& act, const util::FloatData& wts, float migrationStrength,
                               unsigned int channelNum, const float* balanceFactor);

/// Gives the channels that are zero on one side a factor that takes the other side to the largest scaled range of the
/// healthy channels, those with a factor of at least 2^-23; 1 to channels zero on both. Other channels keep their
/// factor. A range that overflows makes such a factor infinite or 0. If that range is below 2^-23 on one
/// side, every factor becomes 1. wtsMax is as long as actMax.
KEST_EXPORT void ProcessZeroChannel(std::vector<float>& actMax, std::vector<float>& wtsMax, float* balanceFactor);

}  // namespace KestCommon

/// DMQ balancing, as framework operators call it.
namespace DMQBalancerKernel {

/// What a layer is balanced with.
struct KEST_EXPORT DMQBalancerParam {
    float migrationStrength;   ///< 0.2 to 0.8
    unsigned int channelNum;   ///< K
    unsigned int actLength;    ///< number of activations
    unsigned int wtsLength;    ///< number of weights
    float* balanceFactorCopy;  ///< channelNum factors, owned by the caller
};

template <typename Device, typename T>
struct KEST_EXPORT DMQBalancer;

/// KestCommon::DMQBalance, then a copy of the factors to balanceFactorCopy and util::CheckBalanceFactor of these
/// (VALUE_RANGE_ERROR, both arrays written). On a failure of the former its status, both arrays as they were.
template <>
struct KEST_EXPORT DMQBalancer<util::ThreadPoolDevice, float> {
    int operator()(const float* act, const float* wts, DMQBalancerParam& param, float* balanceFactor) const;
};

}  // namespace DMQBalancerKernel

#endif  // KEST_PRUNE_BALANCE_DMQ_BALANCE_H_
