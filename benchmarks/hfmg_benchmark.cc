#include <kest/activation_calib/hfmg.h>

#include "bench.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <string>
#include <utility>
#include <vector>

namespace bench {
namespace {

using KestCommon::HfmgAlgoParam;
using Bins = std::vector<KestCommon::DataBin<float>>;

constexpr int kNumCountingBins = 2048;
constexpr float kCountingWidth = 5.5f / kNumCountingBins;  // of rectified values; a few of millions are beyond
constexpr HfmgAlgoParam kParam{8, true, 0};

struct Result {
    float scale;
    int offset;
    bool operator==(const Result& other) const { return scale == other.scale && offset == other.offset; }
};

bool Same(const Bins& a, const Bins& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const auto& left, const auto& right) {
        return left.count == right.count && left.lowerBound == right.lowerBound && left.upperBound == right.upperBound;
    });
}

Bins KestCount(const float* x, std::size_t n) {
    Bins bins;
    KestCommon::HfmgDistributeInter<float>(kNumCountingBins, 0, kCountingWidth, bins,
                                           {static_cast<unsigned int>(n), const_cast<float*>(x)});
    return bins;
}

Bins PlainCount(const float* x, std::size_t n) {
    Bins bins;
    for (int j = 0; j < kNumCountingBins; ++j) {
        bins.push_back({0, std::fma(static_cast<float>(j), kCountingWidth, 0.0f),
                        std::fma(static_cast<float>(j + 1), kCountingWidth, 0.0f)});
    }
    for (std::size_t i = 0; i < n; ++i) {
        const auto j = static_cast<unsigned int>(std::floor((x[i] - 0.0f) / kCountingWidth));
        ++(j < kNumCountingBins ? bins[j] : bins.back()).count;
    }
    return bins;
}

Result KestChoose(Bins& bins) {
    Result result{};
    KestCommon::HfmgCompute(bins, result.scale, result.offset, kParam);
    return result;
}

float Third(double difference) {
    return static_cast<float>(difference / 3);
}

/// The squared error of all bins on 256 levels over the bins first to last.
float PlainLoss(const Bins& bins, unsigned int first, unsigned int last) {
    const auto cube = [](double x) { return x * x * x; };
    const float width = (bins.back().upperBound - bins.front().lowerBound) / static_cast<float>(bins.size());
    const float levelWidth = static_cast<float>(last - first + 1) * width / 256;
    if (levelWidth < FLT_EPSILON) return 0;
    const float half = levelWidth / 2;
    float loss = 0;
    for (std::size_t i = 0; i < bins.size(); ++i) {
        const float begin = static_cast<float>(static_cast<int>(i) - static_cast<int>(first)) * width;
        const float end = begin + width;
        const float density = static_cast<float>(bins[i].count) / width;
        const float low = std::clamp(std::floor(begin / levelWidth), 0.0f, 255.0f);
        const float high = std::clamp(std::floor(end / levelWidth), 0.0f, 255.0f);
        const float lowCentre = low * levelWidth + half;
        if (low == high) {
            loss = std::fma(density, Third(cube(end - lowCentre) - cube(begin - lowCentre)), loss);
            continue;
        }
        loss = std::fma(density, Third(cube(half) - cube(begin - lowCentre)), loss);
        loss = std::fma((high - low - 1) * density, Third(cube(half) - cube(-half)), loss);
        loss = std::fma(density, Third(cube(end - (high * levelWidth + half)) - cube(-half)), loss);
    }
    return loss;
}

/// The candidates, and the factors of the best one, come from the library: they take no time to speak of.
Result PlainChoose(Bins& bins) {
    std::vector<std::pair<unsigned int, unsigned int>> ranges;
    KestCommon::HfmgGetSearchRange(bins, ranges);
    std::vector<float> losses;
    for (const auto& [first, last] : ranges) losses.push_back(PlainLoss(bins, first, last));
    const auto& [first, last] = ranges[std::min_element(losses.begin(), losses.end()) - losses.begin()];

    const float bottom = bins.front().lowerBound;
    const float width = (bins.back().upperBound - bottom) / static_cast<float>(bins.size());
    const float min = std::fma(static_cast<float>(first), width, bottom);
    const float max = std::fma(static_cast<float>(last + 1), width, bottom);
    Result result{};
    KestCommon::CalScaleOffset(std::max(max, 0.0f), std::min(min, 0.0f), result.scale, result.offset, kParam);
    return result;
}

void AddChoiceRows(Size size, int numBins) {
    const std::string what = "hfmg choose of " + std::to_string(numBins) + " bins";
    const auto add = [=](const char* who, auto choose) {
        AddRow(what, size.name, who, numBins, 0, [=](auto&) {
            Bins bins;
            KestCommon::HfmgDistribute<float>(
                numBins, bins, {static_cast<unsigned int>(size.n), const_cast<float*>(NormalData(size.n))});
            if (size.n == kSmall.n) {
                float loss = 0;
                KestCommon::HfmgCalculateLoss(bins, 256, 100, 400, loss);
                RequireSame(loss == PlainLoss(bins, 100, 400), "loss of a range of bins");
                RequireSame(choose(bins) == KestChoose(bins), what.c_str());
            }
            return [=](auto&) mutable { benchmark::DoNotOptimize(choose(bins)); };
        });
    };
    add("plain", PlainChoose);
    add("kest", KestChoose);
}

}  // namespace

void AddHfmgRows(Size size) {
    const std::size_t n = size.n;
    const auto add = [=](const char* who, auto count) {
        AddRow("hfmg count", size.name, who, double(n), double(n) * sizeof(float), [=](auto&) {
            const float* x = ReluData(n);
            if (n == kSmall.n) RequireSame(Same(count(x, n), KestCount(x, n)), "hfmg count");
            return [=](auto&) { benchmark::DoNotOptimize(count(x, n).data()); };
        });
    };
    add("plain", PlainCount);
    add("kest", KestCount);
    if (n == kSmall.n) AddChoiceRows(size, 512);
    if (n == kMedium.n) AddChoiceRows(size, 8192);
}

}  // namespace bench
