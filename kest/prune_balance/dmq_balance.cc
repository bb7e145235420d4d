#include <kest/prune_balance/dmq_balance.h>

#include <kest/kernel_frame/extremes.h>
#include <kest/kernel_frame/log.h>
#include <kest/kernel_frame/numeric_helpers.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstddef>

namespace KestCommon {
namespace {

bool IsZero(float magnitude) {
    return magnitude < FLT_EPSILON;
}

/// The largest magnitude of a channel; NaN elements are passed over.
int FindMaxValue(const util::FloatData& values, unsigned int channel, unsigned int channelNum, float& max) {
    const std::size_t length = values.length / channelNum;
    const util::Extremes<float> found = util::FindExtremes(values.data + channel * length, length);
    max = std::max({0.0f, found.max, -found.min});
    if (max > FLT_MAX) {
        LOG_ERROR("channel[%u] max value is illegal!\n", channel);
        return STATUS_BAD_PARAM;
    }
    return STATUS_OK;
}

}  // namespace

int CheckDMQBParam(const util::FloatData& act, const util::FloatData& wts, float migrationStrength,
                   unsigned int channelNum, const float* balanceFactor) {
    if (act.data == nullptr || act.length == 0) {
        LOG_ERROR("act pointer is null or length is 0!\n");
        return STATUS_BAD_PARAM;
    }
    if (wts.data == nullptr || wts.length == 0) {
        LOG_ERROR("wts pointer is null or length is 0!\n");
        return STATUS_BAD_PARAM;
    }
    if (migrationStrength < 0.2f || migrationStrength > 0.8f) {
        LOG_ERROR("migrationStrength: %f not support, should be in [0.2, 0.8]!\n",
                  static_cast<double>(migrationStrength));
        return STATUS_BAD_PARAM;
    }
    if (channelNum == 0) {
        LOG_ERROR("channelNum is 0!\n");
        return STATUS_BAD_PARAM;
    }
    if (act.length % channelNum != 0 || wts.length % channelNum != 0) {
        LOG_ERROR("act.length: %u or wts.length: %u cannot be divisible by channelNum: %u!\n", act.length, wts.length,
                  channelNum);
        return STATUS_BAD_PARAM;
    }
    if (balanceFactor == nullptr) {
        LOG_ERROR("balanceFactor is null!\n");
        return STATUS_BAD_PARAM;
    }
    return STATUS_OK;
}

int DMQBalance(const util::FloatData& act, const util::FloatData& wts, float migrationStrength, unsigned int channelNum,
               float* balanceFactor) {
    int status = CheckDMQBParam(act, wts, migrationStrength, channelNum, balanceFactor);
    if (status != STATUS_OK) return status;
    std::vector<float> actMax(channelNum);
    std::vector<float> wtsMax(channelNum);
    for (unsigned int c = 0; c < channelNum; ++c) {
        status = FindMaxValue(act, c, channelNum, actMax[c]);
        if (status != STATUS_OK) {
            LOG_ERROR("find act max value fail.\n");
            return status;
        }
        status = FindMaxValue(wts, c, channelNum, wtsMax[c]);
        if (status != STATUS_OK) {
            LOG_ERROR("find wts max value fail.\n");
            return status;
        }
    }
    if (std::all_of(actMax.begin(), actMax.end(), IsZero) || std::all_of(wtsMax.begin(), wtsMax.end(), IsZero)) {
        std::fill_n(balanceFactor, channelNum, 1.0f);
        return STATUS_OK;
    }

    const float rest = 1 - migrationStrength;
    bool anyZero = false;
    for (unsigned int c = 0; c < channelNum; ++c) {
        if (IsZero(actMax[c]) || IsZero(wtsMax[c])) {
            balanceFactor[c] = 0;
            anyZero = true;
        } else {
            const double actShare = std::pow(double{actMax[c]}, double{migrationStrength});
            balanceFactor[c] = static_cast<float>(actShare / std::pow(double{wtsMax[c]}, double{rest}));
        }
    }
    if (anyZero) ProcessZeroChannel(actMax, wtsMax, balanceFactor);
    return STATUS_OK;
}

void ProcessZeroChannel(std::vector<float>& actMax, std::vector<float>& wtsMax, float* balanceFactor) {
    float maxRatio = 0;  // the largest scaled activation and weight of a healthy channel
    float maxProd = 0;
    for (std::size_t c = 0; c < actMax.size(); ++c) {
        if (IsZero(balanceFactor[c])) continue;
        maxRatio = std::max(actMax[c] / balanceFactor[c], maxRatio);
        maxProd = std::max(balanceFactor[c] * wtsMax[c], maxProd);
    }
    if (IsZero(maxRatio) || IsZero(maxProd)) {
        std::fill_n(balanceFactor, actMax.size(), 1.0f);
        return;
    }
    for (std::size_t c = 0; c < actMax.size(); ++c) {
        if (IsZero(actMax[c]) && IsZero(wtsMax[c])) {
            balanceFactor[c] = 1;
        } else if (IsZero(actMax[c])) {
            balanceFactor[c] = maxProd / wtsMax[c];
        } else if (IsZero(wtsMax[c])) {
            balanceFactor[c] = actMax[c] / maxRatio;
        }
    }
}

}  // namespace KestCommon

namespace DMQBalancerKernel {

int DMQBalancer<util::ThreadPoolDevice, float>::operator()(const float* act, const float* wts, DMQBalancerParam& param,
                                                           float* balanceFactor) const {
    // The views are writable, the balancing only reads.
    const util::FloatData actView{param.actLength, const_cast<float*>(act)};
    const util::FloatData wtsView{param.wtsLength, const_cast<float*>(wts)};
    const int status =
        KestCommon::DMQBalance(actView, wtsView, param.migrationStrength, param.channelNum, balanceFactor);
    if (status != STATUS_OK) return status;
    std::copy_n(balanceFactor, param.channelNum, param.balanceFactorCopy);
    return util::CheckBalanceFactor(param.balanceFactorCopy, param.channelNum);
}

}  // namespace DMQBalancerKernel
