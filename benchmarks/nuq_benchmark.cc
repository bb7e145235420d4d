#include <kest/weight_quant/nuq.h>

#include "bench.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

// Symmetric NUQ of 16 clusters, whole.

namespace bench {
namespace {

using Floats = std::vector<float>;

constexpr unsigned int kNumClusters = 16;

/// Normal weights, each channel with a standard deviation of its own.
Floats Weights(std::size_t n, std::size_t numChannels) {
    Floats weights(NormalData(n), NormalData(n) + n);
    for (std::size_t i = 0; i < n; ++i) weights[i] *= 0.05f * std::exp(0.5f * NormalData(n)[i / (n / numChannels)]);
    return weights;
}

void KestNuq(Floats& weights, Floats& scales, int numRounds) {
    std::vector<int> offsets(scales.size());
    const auto numChannels = static_cast<unsigned int>(scales.size());
    KestCommon::NuqQuant(weights.data(), static_cast<unsigned int>(weights.size()), {kNumClusters, false, numRounds},
                         {numChannels, scales.data()}, {numChannels, offsets.data()});
}

// The plain rival, straight from the formulas in nuq.h and arq.h.

double SquaredDistance(float x, float y) {
    const double difference = x - y;
    return difference * difference;
}

float PlainMedian(Floats values) {
    const std::size_t middle = values.size() / 2;
    std::nth_element(values.begin(), values.begin() + middle, values.end());
    if (values.size() % 2 == 1) return values[middle];
    return (*std::max_element(values.begin(), values.begin() + middle) + values[middle]) * 0.5f;
}

/// The sum of the distances in 32 bits: truncated after each step, saturated.
float Potential(const Floats& distances) {
    int sum = 0;
    for (const float distance : distances) {
        const float next = static_cast<float>(sum) + distance;
        sum = next < 0x1p31f ? static_cast<int>(next) : INT32_MAX;
    }
    return static_cast<float>(sum);
}

Floats PlainSeeds(const Floats& x) {
    const std::size_t n = x.size();
    const auto numCandidates = static_cast<int>(std::log(kNumClusters)) + 2;
    Floats centres{PlainMedian(x)};
    Floats candidates(numCandidates);
    Floats distances(n);
    Floats sums(n);
    Floats nearer(n);
    for (std::size_t i = 0; i < n; ++i) distances[i] = static_cast<float>(SquaredDistance(x[i], centres[0]));
    while (centres.size() < kNumClusters) {
        std::partial_sum(distances.begin(), distances.end(), sums.begin());
        const auto unit = static_cast<float>(sums.back() / (numCandidates + 1.0));
        float best = 0;
        float smallest = 0;
        for (int t = 0; t < numCandidates; ++t) {
            const float threshold = static_cast<float>(t + 1) * unit;
            const auto above = std::find_if(sums.begin(), sums.end(), [=](float sum) { return sum > threshold; });
            if (above != sums.end()) candidates[t] = x[above - sums.begin()];
            for (std::size_t i = 0; i < n; ++i)
                nearer[i] = static_cast<float>(std::min<double>(distances[i], SquaredDistance(x[i], candidates[t])));
            const float potential = Potential(nearer);
            if (t > 0 && potential >= smallest) continue;
            smallest = potential;
            best = candidates[t];
        }
        centres.push_back(best);
        for (std::size_t i = 0; i < n; ++i)
            distances[i] = static_cast<float>(std::min<double>(distances[i], SquaredDistance(x[i], best)));
    }
    return centres;
}

std::size_t NearestTo(float x, const Floats& centres) {
    std::size_t nearest = 0;
    for (std::size_t k = 1; k < centres.size(); ++k)
        if (std::fabs(x - centres[k]) < std::fabs(x - centres[nearest])) nearest = k;
    return nearest;
}

void PlainKmeans(Floats& x, const std::vector<double>& importance) {
    Floats centres = PlainSeeds(x);
    Floats previous(kNumClusters);
    std::vector<std::size_t> nearest(x.size());
    for (int update = 0; update < 200; ++update) {
        for (std::size_t i = 0; i < x.size(); ++i) nearest[i] = NearestTo(x[i], centres);
        float shift = 0;
        for (std::size_t k = 0; k < kNumClusters; ++k) shift += std::fabs(centres[k] - previous[k]);
        if (shift < 1e-6) break;
        previous = centres;
        Floats sums(kNumClusters);
        Floats sumsOfImportance(kNumClusters);
        for (std::size_t i = 0; i < x.size(); ++i) {
            float& sum = sumsOfImportance[nearest[i]];
            sum = static_cast<float>(sum + importance[i]);
            sums[nearest[i]] += static_cast<float>(x[i] * importance[i]);
        }
        for (std::size_t k = 0; k < kNumClusters; ++k)
            centres[k] = sumsOfImportance[k] < FLT_EPSILON ? sums[k] : sums[k] / sumsOfImportance[k];
    }
    for (float& centre : centres) centre = std::round(centre);
    for (float& value : x) value = centres[NearestTo(value, centres)];
}

std::vector<double> Importance(std::size_t n, const Floats& scales) {
    const double smallest = *std::min_element(scales.begin(), scales.end());
    std::vector<double> channels;
    for (const float scale : scales) channels.push_back(scale / smallest * (scale / smallest));
    const double sum = std::accumulate(channels.begin(), channels.end(), 0.0);
    for (double& channel : channels) channel /= sum;
    std::vector<double> importance(n);
    for (std::size_t i = 0; i < n; ++i) importance[i] = channels[i / (n / scales.size())];
    return importance;
}

void PlainNuq(Floats& weights, Floats& scales, int numRounds) {
    const std::size_t n = weights.size();
    const std::size_t length = n / scales.size();
    if (!std::all_of(weights.begin(), weights.end(), [](float x) { return std::isfinite(x); })) return;
    for (std::size_t c = 0; c < scales.size(); ++c) {
        const auto first = weights.begin() + c * length;
        const float min = *std::min_element(first, first + length);
        const float max = *std::max_element(first, first + length);
        const float extreme = std::fabs(max) > std::fabs(min) ? max : min;
        scales[c] = extreme > 0 ? extreme / 127.0f : extreme / -128.0f;
    }
    Floats grid(n);
    for (int round = 0; round < numRounds; ++round) {
        for (std::size_t i = 0; i < n; ++i) grid[i] = std::clamp(weights[i] / scales[i / length], -128.0f, 127.0f);
        PlainKmeans(grid, Importance(n, scales));
        for (std::size_t c = 0; c < scales.size(); ++c) {
            float product = 0;
            float square = 0;
            for (std::size_t i = c * length; i < (c + 1) * length; ++i) {
                product = std::fma(weights[i], grid[i], product);
                square += grid[i] * grid[i];
            }
            scales[c] = product / square;
        }
    }
    for (std::size_t i = 0; i < n; ++i) weights[i] = grid[i] * scales[i / length];
}

}  // namespace

void AddNuqRows(Size size, std::size_t numChannels) {
    for (const int numRounds : {1, 3}) {
        const std::string what = "nuq of " + std::to_string(numRounds) + " round" + (numRounds > 1 ? "s" : "");
        const auto add = [=](const char* who, auto nuq) {
            AddRow(what, size.name, who, double(size.n), 0, [=](auto&) {
                const Floats weights = Weights(size.n, numChannels);
                const auto run = [=](auto quantise) {
                    std::pair<Floats, Floats> result{weights, Floats(numChannels)};
                    quantise(result.first, result.second, numRounds);
                    return result;
                };
                if (size.n == kSmall.n) RequireSame(run(nuq) == run(KestNuq), what.c_str());
                return [=](auto&) { benchmark::DoNotOptimize(run(nuq).first.data()); };
            });
        };
        add("plain", PlainNuq);
        add("kest", KestNuq);
    }
}

}  // namespace bench
