#include <kest/op_kernels/deployed_ops.h>

#include "bench.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

// 64 channels; 8 bits.

namespace bench {
namespace {

constexpr int kNumChannels = 64;

struct Layout {
    const char* name;
    bool channelWise;
    bool channelFirst;
    int innerSize;
};
constexpr Layout kLayouts[] = {{"per tensor", false, false, 1},
                               {"channel last", true, false, 1},
                               {"channel first, 9 inner", true, true, 9},
                               {"channel first, 49 inner", true, true, 49}};

/// n integers with this standard deviation, alive until the next call for more.
template <typename T>
const T* Integers(int n, float deviation, float lower, float upper) {
    static AlignedVector<T> values;
    const auto size = static_cast<std::size_t>(n);
    if (values.size() < size) {
        values.resize(size);
        std::transform(NormalData(size), NormalData(size) + n, values.begin(),
                       [=](float x) { return static_cast<T>(std::clamp(std::round(x * deviation), lower, upper)); });
    }
    return values.data();
}

/// What accumulates in 32 bits; a shift by one leaves some for the clamp.
const float* Accumulated(int n) {
    return Integers<float>(n, 20000, -1e9f, 1e9f);
}

template <typename Param>
int ChannelOf(const Param& param, int i) {
    if (!param.channelWise) return 0;
    return param.channelFirst ? i % (param.channelNum * param.innerSize) / param.innerSize : i % param.channelNum;
}

using KestTfOp::QuantInputParam;
void PlainQuantise(const QuantInputParam<float>& param, float* out) {
    const float lower = -std::exp2(static_cast<float>(param.numBits - 1));
    const float upper = -lower - 1;
    for (int i = 0; i < param.length; ++i) {
        const auto code = static_cast<float>(double{std::round(param.input[i] * param.scale)} + double{param.offset});
        out[i] = std::clamp(code, lower, upper) - param.offset;
    }
}

using KestTfOp::DequantInputParam;
void PlainDequantise(const DequantInputParam<float>& param, float* out) {
    std::vector<float> steps;
    std::vector<float> rescale;
    for (int c = 0; c < param.channelNum; ++c) {
        const auto bits = static_cast<uint32_t>(param.deqScale[c]);
        float scale;
        std::memcpy(&scale, &bits, sizeof scale);
        steps.push_back(std::exp2(static_cast<float>(param.deqScale[c] >> 32 & 0xFF)));
        rescale.push_back(steps.back() * scale);
    }
    const auto multiplier = static_cast<float>(param.inputMultiplier);
    for (int i = 0; i < param.length; ++i) {
        const int c = ChannelOf(param, i);
        float y = multiplier * param.input[i];
        if (steps[c] != 1) y = std::clamp(std::floor(y / steps[c]), -32768.0f, 32767.0f);
        out[i] = y * rescale[c] / multiplier;
    }
}

using KestTfOp::AntiQuantInputParam;
void PlainAntiQuantise(const AntiQuantInputParam<float>& param, float* out) {
    for (int i = 0; i < param.length; ++i) out[i] = param.input[i] * param.scale;
}

using KestTfOp::WeightQuantInputParam;
void PlainWeights(const WeightQuantInputParam<float>& param, float* out) {
    for (int i = 0; i < param.length; ++i)
        out[i] = static_cast<float>(param.weight[i]) - static_cast<float>(param.offset[ChannelOf(param, i)]);
}

/// Adds the rows of a functor and of its plain loop, both called with paramOf(n).
template <typename ParamOf, typename Plain, typename Functor>
void AddPair(const std::string& what, Size size, double itemBytes, ParamOf paramOf, Plain plain, Functor functor) {
    AddAgainstPlain(
        "deployed " + what, size, itemBytes, true, [=](float* out, int n) { plain(paramOf(n), out); },
        [=](float* out, int n) { functor(paramOf(n), out); });
}

void AddDequantiseRows(Size size, Layout layout, int multiplier) {
    static const std::vector<uint64_t> words = [] {
        std::vector<uint64_t> made;
        for (int c = 0; c < kNumChannels; ++c) {
            const float scale = 0.001f * static_cast<float>(c + 1);
            uint32_t bits;
            std::memcpy(&bits, &scale, sizeof bits);
            made.push_back(static_cast<uint64_t>((c + 1) % 5) << 32 | bits);  // shifts of 0 to 4
        }
        return made;
    }();
    const auto paramOf = [=](int n) {
        return DequantInputParam<float>{
            multiplier,          n, Accumulated(n), words.data(), kNumChannels, layout.innerSize, layout.channelWise,
            layout.channelFirst, {}};
    };
    const std::string factor = multiplier == 1 ? "" : " times " + std::to_string(multiplier);
    AddPair(std::string("dequantise ") + layout.name + factor, size, 8, paramOf, PlainDequantise,
            KestTfOp::OrvaneDequantFunctor<util::ThreadPoolDevice, float>());
}

void AddWeightRows(Size size, Layout layout) {
    static const std::vector<signed char> offsets(Integers<signed char>(kNumChannels, 40, -128, 127),
                                                  Integers<signed char>(kNumChannels, 40, -128, 127) + kNumChannels);
    const auto paramOf = [=](int n) {
        return WeightQuantInputParam<float>{n,
                                            Integers<signed char>(n, 40, -128, 127),
                                            offsets.data(),
                                            layout.innerSize,
                                            kNumChannels,
                                            layout.channelWise,
                                            layout.channelFirst};
    };
    AddPair(std::string("weights ") + layout.name, size, 5, paramOf, PlainWeights,
            KestTfOp::OrvaneWeightQuantFunctor<util::ThreadPoolDevice, float>());
}

}  // namespace

void AddDeployedRows(Size size) {
    AddPair(
        "quantise", size, 8,
        [](int n) {
            return QuantInputParam<float>{n, Accumulated(n), 0.004f, -10, 8};
        },
        PlainQuantise, KestTfOp::OrvaneQuantFunctor<util::ThreadPoolDevice, float>());
    for (const Layout& layout : kLayouts) AddDequantiseRows(size, layout, 1);
    AddDequantiseRows(size, kLayouts[0], 3);
    AddPair(
        "anti-quantise", size, 8,
        [](int n) {
            return AntiQuantInputParam<float>{n, Accumulated(n), 0.004f};
        },
        PlainAntiQuantise, KestTfOp::OrvaneAntiQuantFunctor<util::ThreadPoolDevice, float>());
    for (const Layout& layout : kLayouts) AddWeightRows(size, layout);
}

}  // namespace bench
