#include <kest/weight_quant/nuq.h>

#include "bench.h"
#include "plain_kmeans.h"

#include <algorithm>
#include <cmath>
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
        PlainKmeans(grid, kNumClusters, Importance(n, scales));
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
