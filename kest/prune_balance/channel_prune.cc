#include <kest/prune_balance/channel_prune.h>

#include <kest/kernel_frame/isa.h>
#include <kest/kernel_frame/log.h>
#include <kest/kernel_frame/parallel.h>
#include <kest/kernel_frame/rounding.h>
#include <kest/prune_balance/channel_prune_loops.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <numeric>

namespace KestCommon {
namespace {

constexpr std::size_t kWorthwhile = 1 << 16;  // elements below which a pass stays on one thread

constexpr std::size_t kShortRow = 16384;    // bytes
constexpr std::size_t kMaxChannels = 4096;  // summed at once by a thread

/// Adds the squares of the channels [begin, end) of K, each with `inner` elements side by side. At most kMaxChannels.
template <typename T>
void AddSquares(const T* data, std::size_t length, std::size_t inner, std::size_t numChannels, std::size_t begin,
                std::size_t end, T* channelSums) {
    T sums[kMaxChannels];  // threads would take the cache line from each other where their channels meet
    std::copy(channelSums + begin, channelSums + end, sums);
    util::DispatchIsa([&](auto isa) {
        using Loops = ChannelPruneLoops<decltype(isa), T>;
        const std::size_t period = inner * numChannels;
        const std::size_t numWhole = length / period;
        if (inner == 1) {
            Loops::AddSquares(data + begin, numWhole, numChannels, end - begin, sums);
        } else {
            Loops::AddSquaresOfRuns(data + begin * inner, numWhole, period, inner, end - begin, sums);
        }
        // What is left may end within a channel.
        const T* rest = data + numWhole * period;
        const std::size_t restLength = length - numWhole * period;
        for (std::size_t c = begin; c < end && c * inner < restLength; ++c)
            Loops::AddSquares(rest + c * inner, std::min(inner, restLength - c * inner), 1, 1, sums + c - begin);
    });
    std::copy(sums, sums + (end - begin), channelSums + begin);
}

template <typename T>
int ComputeMasks(const std::vector<const T*>& inputs, const std::vector<int>& lengths,
                 const std::vector<int>& innerJumps, PruneParam& param, const std::vector<T*>& masks) {
    const auto numChannels = static_cast<std::size_t>(std::max(param.numChannels, 0));
    std::vector<T> accNorms(numChannels);
    std::vector<T> channelNorms(numChannels);
    std::vector<int> groupOfChannel;
    for (int g = 0; g < param.numGroups; ++g) groupOfChannel.insert(groupOfChannel.end(), param.groupChannels[g], g);
    for (std::size_t t = 0; t < lengths.size(); ++t) {
        const int status =
            ComputeSumNorm(innerJumps[t], param, lengths[t], inputs[t], channelNorms, accNorms, groupOfChannel);
        if (status != STATUS_OK) return status;
        std::fill(channelNorms.begin(), channelNorms.end(), T{0});
    }
    std::size_t offset = 0;
    for (int g = 0; g < param.numGroups; ++g) {
        const std::vector<int> order = SortNorms(g, param, groupOfChannel, accNorms);
        for (std::size_t rank = 0; rank < order.size(); ++rank) masks[g][order[rank]] = rank >= param.groupPruneNum[g];
        if (param.numGroups > 1) std::copy_n(masks[g], order.size(), masks.back() + offset);
        offset += order.size();
    }
    return STATUS_OK;
}

template <typename T>
void CopyMasks(const PruneParam& param, const std::vector<T*>& inputs, const std::vector<T*>& outputs) {
    for (int g = 0; g < param.numGroups; ++g) std::copy_n(inputs[g], param.groupChannels[g], outputs[g]);
    if (param.numGroups > 1) std::copy_n(inputs.back(), std::max(param.numChannels, 0), outputs.back());
}

}  // namespace

int CalPruneNum(int numChannels, int numGroups, float pruneRatio, bool alignTo16) {
    const auto all = static_cast<float>(numChannels);
    float keep = all - util::RoundHalfAway(all * pruneRatio);
    if (alignTo16) {
        keep = std::min(all, std::ceil(keep * 0.0625f) * 16);
        if (util::SaturateTo<int>(keep) == 0) keep = std::min(all, 16.0f);
    }
    if (numGroups > 1) {
        const auto groups = static_cast<float>(numGroups);
        keep = std::min(all, groups * std::floor(keep / groups));
    }
    int numKept = util::SaturateTo<int>(keep);
    if (numKept == 0) numKept = numGroups;
    const int64_t numPruned = int64_t{numChannels} - numKept;
    return static_cast<int>(
        std::clamp<int64_t>(numPruned, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

template <typename T>
int ComputeSumNorm(int innerJump, PruneParam param, int length, const T* data, std::vector<T>& channelNorms,
                   std::vector<T>& accNorms, std::vector<int> groupOfChannel) {
    const int numChannels = param.numChannels;
    if (innerJump < 1 || numChannels < 1) {
        LOG_ERROR("bcp algorithm: innerJump or pruneParam.numChannels is 0.");
        return EMPTY_INPUT_ERROR;
    }
    const auto numElements = static_cast<std::size_t>(std::max(length, 0));
    // Threads that read part of each short row are slower than one that reads them all.
    const bool isShort = innerJump == 1 && numChannels * sizeof(T) < kShortRow;
    util::ParallelFor(numChannels, numElements >= kWorthwhile && !isShort, [&](util::Block block) {
        const auto end = static_cast<std::size_t>(block.end);
        for (std::size_t begin = block.begin, next; begin < end; begin = next) {
            next = std::min(end, begin + kMaxChannels);
            AddSquares(data, numElements, innerJump, numChannels, begin, next, channelNorms.data());
        }
    });

    const auto numGroups = static_cast<std::size_t>(std::max(param.numGroups, 0));
    std::vector<T> groupMax(numGroups, -std::numeric_limits<T>::infinity());
    std::vector<T> groupMin(numGroups, std::numeric_limits<T>::infinity());
    const auto elementsPerChannel = static_cast<unsigned int>(numElements / numChannels);
    const int numScored = std::min(numChannels, static_cast<int>(groupOfChannel.size()));
    for (int k = 0; k < numScored; ++k) {
        const int g = groupOfChannel[k];
        const double divisor = elementsPerChannel * param.groupChannels[g];
        const T norm = static_cast<T>(std::sqrt(static_cast<double>(channelNorms[k])) / divisor);
        channelNorms[k] = norm;
        if (!(norm < groupMax[g])) groupMax[g] = norm;
        if (!(norm > groupMin[g])) groupMin[g] = norm;
    }
    for (int k = 0; k < numScored; ++k) {
        const int g = groupOfChannel[k];
        if (groupMax[g] == groupMin[g]) {
            channelNorms[k] = 0;
        } else {
            channelNorms[k] = (channelNorms[k] - groupMin[g]) / (groupMax[g] - groupMin[g]);
            accNorms[k] += channelNorms[k];
        }
    }
    return STATUS_OK;
}

template <typename T>
std::vector<int> SortNorms(int group, PruneParam& param, std::vector<int>& groupOfChannel, std::vector<T>& accNorms) {
    const auto first = std::find(groupOfChannel.begin(), groupOfChannel.end(), group) - groupOfChannel.begin();
    const T* scores = accNorms.data() + first;
    std::vector<int> order(param.groupChannels[group]);
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(), [scores](int a, int b) {
        return scores[a] < scores[b] || (std::isnan(scores[b]) && !std::isnan(scores[a]));
    });
    return order;
}

#define INSTANTIATE(T)                                                                                        \
    template KEST_EXPORT int ComputeSumNorm(int, PruneParam, int, const T*, std::vector<T>&, std::vector<T>&, \
                                            std::vector<int>);                                                \
    template KEST_EXPORT std::vector<int> SortNorms(int, PruneParam&, std::vector<int>&, std::vector<T>&)
INSTANTIATE(float);
INSTANTIATE(double);
#undef INSTANTIATE

using util::ThreadPoolDevice;

#define DEFINE(T)                                                                                                 \
    int ComputeRemainOut<ThreadPoolDevice, T>::operator()(std::vector<const T*> inputs, std::vector<int> lengths, \
                                                          std::vector<int> innerJumps, PruneParam param,          \
                                                          std::vector<T*> masks) const {                          \
        if (masks.empty()) {                                                                                      \
            LOG_ERROR("out channel container is empty.");                                                         \
            return EMPTY_CONTAINER_ERROR;                                                                         \
        }                                                                                                         \
        const int status = ComputeMasks(inputs, lengths, innerJumps, param, masks);                               \
        if (status != STATUS_OK) LOG_ERROR("bcp algorithm: ComputeRemainOut failed.");                            \
        return status;                                                                                            \
    }                                                                                                             \
    int IdentityOutChannel<ThreadPoolDevice, T>::operator()(PruneParam& param, std::vector<T*>& inputs,           \
                                                            std::vector<T*>& outputs) const {                     \
        if (inputs.empty() || outputs.empty()) {                                                                  \
            LOG_ERROR("out channel container is empty.");                                                         \
            return EMPTY_CONTAINER_ERROR;                                                                         \
        }                                                                                                         \
        CopyMasks(param, inputs, outputs);                                                                        \
        return STATUS_OK;                                                                                         \
    }
DEFINE(float)
DEFINE(double)
#undef DEFINE

}  // namespace KestCommon
