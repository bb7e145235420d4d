#ifndef KEST_BENCHMARKS_PLAIN_IFMR_H_
#define KEST_BENCHMARKS_PLAIN_IFMR_H_

#include <kest/activation_calib/ifmr.h>

#include <cmath>
#include <limits>
#include <type_traits>
#include <vector>

/// \file
/// The search of ifmr.h straight from its formulas, one pass and one buffer of terms a candidate: what the benchmarks
/// compare times with and the tests results.

namespace bench {

/// The ratio of the smallest loss, the first one of equal ones and where all are skipped.
template <typename T>
float PlainBestRatio(const T* x, std::size_t n, KestCommon::MaxMinValue<T> range, const KestCommon::IfmrParam& param) {
    const bool isPositive = range.maxValue > -range.minValue;
    const auto bound = static_cast<float>(isPositive ? range.maxValue : -range.minValue);
    const T half = std::ldexp(T{1}, static_cast<int>(param.numBits) - 1);
    const T levels = param.withOffset ? 2 * half - 1 : isPositive ? half - 1 : half;
    const auto numRatios = static_cast<int>((param.endRatio - param.startRatio) / param.step + 1.0f);
    std::vector<T> terms(n);
    float bestRatio = param.startRatio;
    float bestLoss = 0;
    bool isFirst = true;
    for (int k = 0; k < numRatios; ++k) {
        const float ratio = std::fma(static_cast<float>(k), param.step, param.startRatio);
        const T above = param.withOffset ? ratio * range.maxValue : static_cast<T>(ratio * bound);
        const T below = param.withOffset ? range.minValue : -above;
        T scale = (param.withOffset ? above - below : above) / levels;
        if (param.withOffset && scale < 0) continue;
        if (scale < std::numeric_limits<T>::epsilon()) scale = 1;
        if (scale > 1 / std::numeric_limits<T>::epsilon()) continue;
        for (std::size_t i = 0; i < n; ++i) {
            const T code = std::round((x[i] < below ? below : x[i] > above ? above : x[i]) / scale);
            const T error = std::is_same_v<T, float> ? code * scale - x[i] : std::fma(scale, code, -x[i]);
            terms[i] = error * error / static_cast<T>(n);
        }
        float loss = 0;
        for (const T term : terms) loss += static_cast<float>(term);
        if (isFirst || loss < bestLoss) {
            bestLoss = loss;
            bestRatio = ratio;
        }
        isFirst = false;
    }
    return bestRatio;
}

}  // namespace bench

#endif  // KEST_BENCHMARKS_PLAIN_IFMR_H_
