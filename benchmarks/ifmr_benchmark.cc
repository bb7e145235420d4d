#include <kest/activation_calib/ifmr.h>

#include "bench.h"
#include "plain_ifmr.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <vector>

namespace bench {
namespace {

using KestCommon::IfmrParam;

struct Result {
    float scale;
    int offset;
    bool operator==(const Result& other) const { return scale == other.scale && offset == other.offset; }
};

struct Bounds {
    float max;
    float min;
    bool operator==(const Bounds& other) const { return max == other.max && min == other.min; }
};

std::size_t RankOf(std::size_t n, float percentile) {
    return percentile == 1.0f ? 1 : n - static_cast<std::size_t>(std::floor(static_cast<float>(n) * percentile));
}

Result KestSearch(const float* x, std::size_t n, const IfmrParam& param) {
    Result result{};
    KestCommon::IfmrQuant(const_cast<float*>(x), static_cast<unsigned int>(n), param, {1, &result.scale},
                          {1, &result.offset});
    return result;
}

/// A partial sort for the bounds, then the search. 8 bits.
Result PlainSearch(const float* x, std::size_t n, const IfmrParam& param) {
    std::vector<float> copy(x, x + n);
    const auto rank = static_cast<std::ptrdiff_t>(RankOf(n, param.maxPercentile));
    std::partial_sort(copy.begin(), copy.begin() + rank, copy.end(), std::greater<float>());
    const float max = std::max(copy[rank - 1], 0.0f);
    copy.assign(x, x + n);
    std::partial_sort(copy.begin(), copy.begin() + rank, copy.end());
    const float min = std::min(copy[rank - 1], 0.0f);
    const float ratio = PlainBestRatio(x, n, {max, min}, param);
    if (!param.withOffset) return {ratio * std::max(max, -min) / (max > -min ? 127.0f : 128.0f), 0};
    const float scale = std::fma(max, ratio, -min) / 255.0f;
    return {scale, static_cast<int>(-std::round(min / scale)) - 128};
}

Bounds KestBounds(const float* x, std::size_t n, float percentile) {
    KestCommon::MaxMinValue<float> bounds{};
    KestCommon::FindMaxAndMinValueWithPercentile(const_cast<float*>(x), static_cast<unsigned int>(n), bounds,
                                                 percentile, percentile);
    return {bounds.maxValue, bounds.minValue};
}

/// Reorders x.
Bounds NthElementBounds(float* x, std::size_t n, float percentile) {
    const std::size_t rank = RankOf(n, percentile);
    std::nth_element(x, x + n - rank, x + n);
    const float max = x[n - rank];
    std::nth_element(x, x + rank - 1, x + n);
    return {std::max(max, 0.0f), std::min(x[rank - 1], 0.0f)};
}

void AddSearchRows(Size size, bool relu, const IfmrParam& param, int numRatios) {
    const std::string what = "ifmr" + std::string(param.withOffset ? " with offset" : "") +
                             (relu ? " relu data" : " normal data") + " x" + std::to_string(numRatios);
    const std::size_t n = size.n;
    const auto add = [=](const char* who, int numThreads, auto search) {
        const auto setUp = [=](auto&) {
            const float* x = relu ? ReluData(n) : NormalData(n);
            if (n == kSmall.n) RequireSame(search(x, n, param) == KestSearch(x, n, param), what.c_str());
            return [=](auto&) { benchmark::DoNotOptimize(search(x, n, param)); };
        };
        AddRow(what, size.name, who, double(n) * numRatios, 0, setUp, numThreads);
    };
    add("plain", 1, PlainSearch);
    add("kest", 1, KestSearch);
    add("kest", 2, KestSearch);
}

}  // namespace

void AddIfmrRows(Size size) {
    for (const bool relu : {false, true}) {
        for (const bool withOffset : {false, true}) {
            AddSearchRows(size, relu, {0, 8, withOffset, 0.7f, 1.3f, 0.01f, 0.9999f, 0.9999f}, 60);
            AddSearchRows(size, relu, {0, 8, withOffset, 0.5f, 1.5f, 0.01f, 0.9999f, 0.9999f}, 101);
        }
    }
}

void AddPercentileRows(Size size) {
    const std::size_t n = size.n;
    for (const float percentile : {0.9999f, 1.0f}) {
        const std::string what = percentile < 1 ? "percentile 0.9999" : "percentile 1";
        const auto add = [&](const char* who, auto setUp) {
            AddRow(what, size.name, who, double(n), double(n) * sizeof(float), setUp);
        };
        add("kest", [=](auto&) {
            return [=, x = NormalData(n)](auto&) { benchmark::DoNotOptimize(KestBounds(x, n, percentile)); };
        });
        add("nth_element", [=](auto&) {
            const Bounds expected = KestBounds(NormalData(n), n, percentile);
            RequireSame(NthElementBounds(WorkingCopy(n), n, percentile) == expected, what.c_str());
            return [=](benchmark::State& state) {
                state.PauseTiming();
                float* x = WorkingCopy(n);
                state.ResumeTiming();
                benchmark::DoNotOptimize(NthElementBounds(x, n, percentile));
            };
        });
        add("nth_element and copy", [=](auto&) {
            return [=](auto&) { benchmark::DoNotOptimize(NthElementBounds(WorkingCopy(n), n, percentile)); };
        });
    }
}

}  // namespace bench
