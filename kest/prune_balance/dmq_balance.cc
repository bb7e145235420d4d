#include <kest/prune_balance/dmq_balance.h>

#include <kest/kernel_frame/extremes.h>
#include <kest/kernel_frame/log.h>
#include <kest/kernel_frame/numeric_helpers.h>
#include <kest/kernel_frame/rounding.h>

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

// std::pow is not the same everywhere: its last place depends on the C library, and in glibc on whether the processor
// fuses. These are steps that all machines round alike. Before it is rounded to float the factor is off by at most 1.5
// units of the last place of a double in 60,000 draws held against 200 bits, the quotient of two std::pow by 2.1. What
// the series leave out is below 2^-57 of their sum.
constexpr double kReciprocals[] = {0,        1.0,      1.0 / 2,  1.0 / 3,  1.0 / 4,  1.0 / 5,  1.0 / 6,  1.0 / 7,
                                   1.0 / 8,  1.0 / 9,  1.0 / 10, 1.0 / 11, 1.0 / 12, 1.0 / 13, 1.0 / 14, 1.0 / 15,
                                   1.0 / 16, 1.0 / 17, 1.0 / 18, 1.0 / 19, 1.0 / 20, 1.0 / 21};

/// log2 of a positive x less `exponent`: from -1/2 to 1/2.
double SplitLog2(double x, int& exponent) {
    constexpr double kOverLn2 = 1.4426950408889634;
    double fraction = std::frexp(x, &exponent);
    if (fraction < 0.7071067811865476) {
        fraction *= 2;
        --exponent;
    }
    // ln x = 2 artanh t = 2 (t + t^3 / 3 + t^5 / 5 + ...)
    const double t = (fraction - 1) / (fraction + 1);
    const double square = t * t;
    double sum = 0;
    for (int k = 21; k > 0; k -= 2) sum = sum * square + kReciprocals[k];
    return 2 * t * sum * kOverLn2;
}

/// 2 to the power of x, from -1/2 to 1/2.
double Exp2(double x) {
    constexpr double kLn2 = 0.6931471805599453;
    double sum = 1;  // 1 + x ln 2 / 1 * (1 + x ln 2 / 2 * (...))
    for (int k = 14; k > 0; --k) sum = 1 + sum * (x * kLn2 * kReciprocals[k]);
    return sum;
}

/// actMax^strength / wtsMax^rest.
float FactorOf(float actMax, float wtsMax, float strength, float rest) {
    int actExponent;
    int wtsExponent;
    const double actLog = SplitLog2(double{actMax}, actExponent);
    const double wtsLog = SplitLog2(double{wtsMax}, wtsExponent);
    // The products with the exponents and their difference are exact, and so is what is left behind the whole power.
    const double inExponents = double{strength} * actExponent - double{rest} * wtsExponent;
    const double inFractions = double{strength} * actLog - double{rest} * wtsLog;
    const double power = util::RoundHalfAway(inExponents + inFractions);
    return static_cast<float>(std::ldexp(Exp2(inExponents - power + inFractions), util::SaturateTo<int>(power)));
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
            balanceFactor[c] = FactorOf(actMax[c], wtsMax[c], migrationStrength, rest);
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
