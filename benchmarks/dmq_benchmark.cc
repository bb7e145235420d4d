#include <kest/prune_balance/dmq_balance.h>

#include "bench.h"

#include <algorithm>
#include <cmath>

// 512 channels; half of the elements are activations, half weights.

namespace bench {
namespace {

constexpr unsigned int kNumChannels = 512;

float PlainMax(const util::FloatData& values, unsigned int channel) {
    const std::size_t length = values.length / kNumChannels;
    float max = 0;
    for (std::size_t i = channel * length; i < (channel + 1) * length; ++i)
        if (std::fabs(values.data[i]) > max) max = std::fabs(values.data[i]);
    return max;
}

void PlainBalance(const util::FloatData& act, const util::FloatData& wts, float strength, unsigned int numChannels,
                  float* factors) {
    const float rest = 1 - strength;
    for (unsigned int c = 0; c < numChannels; ++c) {
        const double actShare = std::pow(double{PlainMax(act, c)}, double{strength});
        factors[c] = static_cast<float>(actShare / std::pow(double{PlainMax(wts, c)}, double{rest}));
    }
}

}  // namespace

void AddDmqRows(Size size) {
    const auto runWith = [](auto balance) {
        return [=](float* factors, int n) {
            float* x = const_cast<float*>(NormalData(n));  // the views are writable, the balancing only reads
            const auto half = static_cast<unsigned int>(n / 2);
            balance({half, x}, {half, x + half}, 0.3f, kNumChannels, factors);
        };
    };
    AddAgainstPlain("dmq", size, 4, false, runWith(PlainBalance), runWith(KestCommon::DMQBalance));
}

}  // namespace bench
