#include <kest/op_kernels/deployed_ops.h>

#include <kest/kernel_frame/axis.h>
#include <kest/kernel_frame/isa.h>
#include <kest/kernel_frame/multiply.h>
#include <kest/kernel_frame/parallel.h>
#include <kest/kernel_frame/rounding.h>
#include <kest/op_kernels/deployed_ops_loops.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <initializer_list>
#include <utility>
#include <vector>

namespace KestTfOp {
namespace {

constexpr int kWorthwhile = 1 << 17;  // elements below which a pass stays on one thread, some 20 microseconds

/// Calls work(isa, begin, end) for the elements of each thread.
template <typename Work>
void ForEachBlock(int length, Work work) {
    util::ParallelFor(length, length >= kWorthwhile, [&](util::Block block) {
        const auto begin = static_cast<std::size_t>(block.begin);
        const auto end = static_cast<std::size_t>(block.end);
        util::DispatchIsa([&](auto isa) { work(isa, begin, end); });
    });
}

template <typename Param>
util::Axis ChannelAxis(const Param& param) {
    if (!param.channelWise) return {1, 1};
    return {util::AtLeastOne(param.channelNum), param.channelFirst ? util::AtLeastOne(param.innerSize) : 1};
}

/// Where a channel has few elements side by side: the factor of each element of a period, so that the loops read them
/// where they are. For short periods, of which the tensor has enough to pay for it.
void SpreadShortRuns(util::Axis& axis, int length, std::initializer_list<std::vector<float>*> tables) {
    constexpr std::size_t kMaxPeriod = 65536;
    constexpr std::size_t kMinPeriods = 8;
    const bool isShort = axis.stride > 1 && axis.stride < util::kLongRun;
    const std::size_t period = axis.count * axis.stride;
    if (!isShort || period > std::min(kMaxPeriod, length / kMinPeriods)) return;
    for (std::vector<float>* factors : tables) {
        std::vector<float> spread;
        spread.reserve(period);
        for (const float factor : *factors) spread.insert(spread.end(), axis.stride, factor);
        *factors = std::move(spread);
    }
    axis = {period, 1};
}

}  // namespace

int OrvaneQuantFunctor<util::ThreadPoolDevice, float>::operator()(QuantInputParam<float> param, float* out) const {
    const int half = util::SaturateTo<int>(util::PowerOfTwo(int64_t{param.numBits} - 1));
    const auto lower = static_cast<float>(-half);
    const auto upper = static_cast<float>(half - 1);
    ForEachBlock(param.length, [&](auto isa, std::size_t begin, std::size_t end) {
        DeployedOpsLoops<decltype(isa)>::Quantise(param.input, out, begin, end, param.scale, param.offset, lower,
                                                  upper);
    });
    return STATUS_OK;
}

template <typename T>
int OrvaneDequantInternelCpu(DequantInputParam<T> param, T* out) {
    if (param.length < 1) return STATUS_OK;  // then there need be no word
    util::Axis channels = ChannelAxis(param);
    std::vector<float> inverse(channels.count);
    std::vector<float> rescale(channels.count);
    for (std::size_t c = 0; c < channels.count && param.channelNum > 0; ++c) {
        const auto bits = static_cast<uint32_t>(param.deqScale[c]);
        float scale;
        std::memcpy(&scale, &bits, sizeof scale);
        const auto power = static_cast<float>(util::PowerOfTwo(param.deqScale[c] >> 32 & 0xFF));
        inverse[c] = 1.0f / power;
        rescale[c] = power * scale;
    }
    SpreadShortRuns(channels, param.length, {&inverse, &rescale});
    const auto multiplier = static_cast<float>(param.inputMultiplier);
    ForEachBlock(param.length, [&](auto isa, std::size_t begin, std::size_t end) {
        DeployedOpsLoops<decltype(isa)>::Dequantise(param.input, out, begin, end, multiplier, channels, inverse.data(),
                                                    rescale.data());
    });
    return STATUS_OK;
}

template KEST_EXPORT int OrvaneDequantInternelCpu(DequantInputParam<float>, float*);

int OrvaneDequantFunctor<util::ThreadPoolDevice, float>::operator()(DequantInputParam<float> param, float* out) const {
    return OrvaneDequantInternelCpu(param, out);
}

int OrvaneAntiQuantFunctor<util::ThreadPoolDevice, float>::operator()(AntiQuantInputParam<float> param,
                                                                      float* out) const {
    ForEachBlock(param.length, [&](auto isa, std::size_t begin, std::size_t end) {
        util::MultiplyLoops<decltype(isa), float>::AlongAxis(param.input, out, begin, end, {1, 1}, &param.scale);
    });
    return STATUS_OK;
}

int OrvaneWeightQuantFunctor<util::ThreadPoolDevice, float>::operator()(WeightQuantInputParam<float> param,
                                                                        float* out) const {
    if (param.length < 1) return STATUS_OK;  // then there need be no offset
    util::Axis channels = ChannelAxis(param);
    std::vector<float> offset(param.offset, param.offset + channels.count);
    SpreadShortRuns(channels, param.length, {&offset});
    ForEachBlock(param.length, [&](auto isa, std::size_t begin, std::size_t end) {
        DeployedOpsLoops<decltype(isa)>::AntiQuantiseWeights(param.weight, out, begin, end, channels, offset.data());
    });
    return STATUS_OK;
}

}  // namespace KestTfOp
