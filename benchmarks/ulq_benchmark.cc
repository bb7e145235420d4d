#include <kest/weight_quant/ulq.h>

#include "bench.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

// 8 bits, out of place.

namespace bench {
namespace {

constexpr int kNumBits = 8;
constexpr int kNumChannels = 64;

struct Factors {
    float scale;
    int offset;
    bool operator==(const Factors& other) const { return scale == other.scale && offset == other.offset; }
};

Factors KestFakeQuant(const float* x, float* out, std::size_t n) {
    Factors factors{};
    float bounds[] = {2.5f, -2.0f};
    KestTfOp::UlqFunctor<util::ThreadPoolDevice, float>()(
        {x, static_cast<int>(n), &bounds[0], &bounds[1]},
        {out, &factors.scale, &factors.offset, &bounds[0], &bounds[1]}, kNumBits);
    return factors;
}

Factors PlainFakeQuant(const float* x, float* out, std::size_t n) {
    const float scale = (2.5f - -2.0f) / 255.0f + 1e-6f;
    const auto level = static_cast<int>(std::round(-2.0f / scale));
    const auto upper = static_cast<float>((level + 255.0) * scale);
    const float lower = static_cast<float>(level) * scale;
    for (std::size_t i = 0; i < n; ++i) {
        const float value = x[i] < lower ? lower : (x[i] > upper ? upper : x[i]);
        out[i] = static_cast<float>(double{std::round(value / scale)} * scale);
    }
    return {scale, -128 - level};
}

/// Learned steps, one of which is too small.
std::vector<float> Steps() {
    std::vector<float> steps;
    for (int c = 0; c < kNumChannels; ++c) steps.push_back(0.001f * static_cast<float>(c));
    return steps;
}

bool KestWeights(const float* x, float* out, std::size_t n) {
    static const std::vector<float> steps = Steps();
    const KestCommon::Input<float> input{const_cast<float*>(x), static_cast<int>(n), kNumChannels};
    return KestCommon::WtsFakeQuant(input, out, steps.data(), kNumBits, false) == STATUS_OK;
}

bool PlainWeights(const float* x, float* out, std::size_t n) {
    static const std::vector<float> steps = Steps();
    for (std::size_t i = 0; i < n; ++i) {
        const float learned = steps[i % kNumChannels];
        const float step = learned < 1e-6f ? learned + 1e-6f : learned;
        out[i] = std::clamp(std::round(x[i] / step), -128.0f, 127.0f) * step;
    }
    return true;
}

using Gradients = std::vector<float>;

Gradients KestGradients(const float* x, float* grad, std::size_t n) {
    return KestCommon::UlqDiff(x, grad, static_cast<int>(n), {2.5f, -2.0f, 2.5f, -2.0f});
}

Gradients PlainGradients(const float* x, float* grad, std::size_t n) {
    const float range = 2.5f - -2.0f;
    const auto errorOf = [=](float value) {
        const float r = value * 255 / range;
        return static_cast<float>((double{std::round(r)} - double{r}) * 0.003921568859368563);
    };
    float max = 0;
    float min = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const bool above = x[i] > 2.5f;
        const bool below = x[i] < -2.0f;
        const float error = errorOf(above || below ? -2.0f : x[i]);
        max = std::fma(above ? 1 + error : error, grad[i], max);
        min = std::fma(below ? 1 - error : -error, grad[i], min);
    }
    return {max, min};
}

#ifdef __x86_64__
__attribute__((target_clones("default", "fma")))
#endif
float LimitFmaChain(const float* x, const float* y, std::size_t n) {
    float sum = 0;
    for (std::size_t i = 0; i < n; ++i) sum = __builtin_fmaf(x[i], y[i], sum);  // each step waits for the one before it
    return sum;
}

}  // namespace

void AddUlqRows(Size size) {
    const std::size_t n = size.n;
    const auto add = [=](const std::string& what, const char* who, auto run, auto kest, int numThreads = 1) {
        const auto setUp = [=](auto&) {
            const float* x = NormalData(n);
            float* y = WorkingCopy(n);
            if (n == kSmall.n) {
                std::vector<float> out(y, y + n);
                std::vector<float> expected = out;
                const bool same = run(x, out.data(), n) == kest(x, expected.data(), n);
                RequireSame(same && out == expected, what.c_str());
            }
            return [=](auto&) { benchmark::DoNotOptimize(run(x, y, n)); };
        };
        AddRow(what, size.name, who, double(n), 2.0 * sizeof(float) * double(n), setUp, numThreads);
    };
    add("ulq", "plain", PlainFakeQuant, KestFakeQuant);
    add("ulq", "kest", KestFakeQuant, KestFakeQuant);
    if (n > kSmall.n) add("ulq", "kest", KestFakeQuant, KestFakeQuant, 2);
    add("ulq weights", "plain", PlainWeights, KestWeights);
    add("ulq weights", "kest", KestWeights, KestWeights);
    add("ulq gradients", "plain", PlainGradients, KestGradients);
    add("ulq gradients", "kest", KestGradients, KestGradients);
    add("fma chain", "limit", LimitFmaChain, LimitFmaChain);
}

}  // namespace bench
