#include <kest/prune_balance/selective_mask.h>

#include <kest/kernel_frame/isa.h>
#include <kest/kernel_frame/log.h>
#include <kest/kernel_frame/parallel.h>
#include <kest/prune_balance/selective_mask_loops.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>

namespace SelectiveMaskGenKernel {
namespace {

constexpr std::size_t kWorthwhile = 1 << 15;  // elements below which the choice stays on one thread

/// A choice in progress. Groups are numbered through all outer indices; a slot is the place of a selected channel, or
/// of a channel of zeros behind them, within its outer index.
template <typename T>
struct Choice {
    const T* data;
    T* gathered;
    T* mask;
    std::vector<unsigned int> selected;  // channels
    std::size_t inner;
    std::size_t outerStride;
    std::size_t groupSize;
    std::size_t keepNum;
    std::size_t groupsPerOuter;
    bool isDense;  // the workspace is laid out as the tensor

    std::size_t NumReal(std::size_t slot, std::size_t numSlots) const {
        return slot < selected.size() ? std::min(numSlots, selected.size() - slot) : 0;
    }

    /// Calls copy(place in the tensor, place among the slots, elements) for the selected channels of `numSlots` slots.
    template <typename Copy>
    void ForEachStretch(std::size_t outer, std::size_t slot, std::size_t numSlots, Copy copy) const {
        const std::size_t base = outer * outerStride;
        const std::size_t numReal = NumReal(slot, numSlots);
        if (numReal > 0 && selected[slot + numReal - 1] - selected[slot] == numReal - 1) {
            copy(base + selected[slot] * inner, std::size_t{0}, numReal * inner);
        } else {
            for (std::size_t k = 0; k < numReal; ++k) copy(base + selected[slot + k] * inner, k * inner, inner);
        }
    }

    /// Calls work(outer, slot, numSlots, place in the workspace) for the groups [first, last).
    template <typename Work>
    void ForEachOuter(std::size_t first, std::size_t last, Work work) const {
        std::size_t outer = first / groupsPerOuter;
        std::size_t group = first % groupsPerOuter;
        for (std::size_t next; first < last; first = next, ++outer, group = 0) {
            next = std::min(last, first + groupsPerOuter - group);
            work(outer, group * groupSize, (next - first) * groupSize, first * groupSize * inner);
        }
    }

    void Gather(std::size_t first, std::size_t last) const {
        ForEachOuter(first, last, [&](std::size_t outer, std::size_t slot, std::size_t numSlots, std::size_t place) {
            T* out = gathered + place;
            ForEachStretch(outer, slot, numSlots, [&](std::size_t from, std::size_t to, std::size_t n) {
                std::copy_n(data + from, n, out + to);
            });
            std::fill(out + NumReal(slot, numSlots) * inner, out + numSlots * inner, T{0});
        });
    }

    /// `keep` is laid out as the workspace, from group `first` on.
    void Scatter(std::size_t first, std::size_t last, const T* keep) const {
        ForEachOuter(first, last, [&](std::size_t outer, std::size_t slot, std::size_t numSlots, std::size_t place) {
            const T* in = keep + (place - first * groupSize * inner);
            ForEachStretch(outer, slot, numSlots, [&](std::size_t to, std::size_t from, std::size_t n) {
                std::copy_n(in + from, n, mask + to);
            });
        });
    }
};

constexpr std::size_t kCopied = 1 << 18;  // bytes gathered at once, in the second-level cache: long copies are fast

/// Few positions a group: those of several groups side by side in the lanes. Small steps, and where the workspace is
/// laid out as the tensor the lines of a later step fetched on the way: the work then hides most of the wait for
/// memory.
template <typename Loops, typename T>
void ChooseNarrow(const Choice<T>& choice, std::size_t first, std::size_t last) {
    const std::size_t groupSize = choice.groupSize;
    const std::size_t inner = choice.inner;
    constexpr std::size_t kStep = 256;  // elements
    constexpr std::size_t kAhead = 4;   // steps
    constexpr std::size_t kSize = kMaxRanked * Loops::kLanes;
    T values[kSize];  // [slot of a group][position]
    T kept[kSize];
    T keep[kSize];  // as the workspace; stored by copies, since short stores wait for memory one by one
    T* rows[kMaxRanked];
    const std::size_t step = std::max<std::size_t>(1, kStep / groupSize / inner);
    for (; first < last; first += step) {
        const std::size_t numGroups = std::min(step, last - first);
        choice.Gather(first, first + numGroups);
        const std::size_t place = first * groupSize * inner;
        if (choice.isDense && first + (kAhead + 1) * step <= last) {
            const std::size_t later = place + kAhead * step * groupSize * inner;
            for (std::size_t i = later; i < later + step * groupSize * inner; i += 64 / sizeof(T)) {
                __builtin_prefetch(choice.data + i);
                __builtin_prefetch(choice.gathered + i, 1);
                __builtin_prefetch(choice.mask + i, 1);
            }
        }
        const T* gathered = choice.gathered + place;
        const std::size_t width = numGroups * inner;
        const std::size_t stride = std::max(width, Loops::kLanes);
        for (std::size_t k = 0; k < groupSize; ++k) {
            rows[k] = kept + k * stride;
            std::fill(values + k * stride + width, values + (k + 1) * stride, T{0});
        }
        if (inner == 1) {
            Loops::Transpose(gathered, groupSize, numGroups, groupSize, values, stride);
        } else {
            for (std::size_t g = 0; g < numGroups; ++g)
                for (std::size_t k = 0; k < groupSize; ++k)
                    std::copy_n(gathered + (g * groupSize + k) * inner, inner, values + k * stride + g * inner);
        }
        Loops::Choose(values, stride, stride, groupSize, choice.keepNum, groupSize, rows);
        if (inner == 1) {
            Loops::Transpose(kept, stride, groupSize, numGroups, keep, groupSize);
        } else {
            for (std::size_t g = 0; g < numGroups; ++g)
                for (std::size_t k = 0; k < groupSize; ++k)
                    std::copy_n(rows[k] + g * inner, inner, keep + (g * groupSize + k) * inner);
        }
        choice.Scatter(first, first + numGroups, keep);
    }
}

/// Many positions a group: the lanes are positions, read and written where they are.
template <typename Loops, typename T>
void ChooseWide(const Choice<T>& choice, std::size_t first, std::size_t last) {
    const std::size_t groupSize = choice.groupSize;
    T* rows[kMaxRanked];
    const std::size_t step = std::max(kCopied / sizeof(T) / groupSize / Loops::kLanes, std::size_t{1}) * Loops::kLanes;
    const auto chooseGroup = [&](std::size_t outer, std::size_t slot, std::size_t place) {
        const std::size_t numReal = choice.NumReal(slot, groupSize);
        for (std::size_t t = 0; t < choice.inner; t += step) {
            // The tail, some of it for the second time.
            if (choice.inner - t < Loops::kMinLanes) t = choice.inner - Loops::kMinLanes;
            const std::size_t width = std::min(step, choice.inner - t);
            for (std::size_t k = 0; k < groupSize; ++k) {
                T* out = choice.gathered + place + k * choice.inner + t;
                if (k >= numReal) {
                    std::fill_n(out, width, T{0});
                    continue;
                }
                const std::size_t at = outer * choice.outerStride + choice.selected[slot + k] * choice.inner + t;
                std::copy_n(choice.data + at, width, out);
                rows[k] = choice.mask + at;
            }
            Loops::Choose(choice.gathered + place + t, choice.inner, width, groupSize, choice.keepNum, numReal, rows);
        }
    };
    for (; first < last; ++first) {
        choice.ForEachOuter(first, first + 1, [&](std::size_t outer, std::size_t slot, std::size_t, std::size_t place) {
            chooseGroup(outer, slot, place);
        });
    }
}

/// Large groups, sorted one position after the other.
template <typename T>
void ChooseSorted(const Choice<T>& choice, std::size_t numGroups) {
    const std::size_t inner = choice.inner;
    std::vector<unsigned int> indices;
    const auto chooseGroup = [&](std::size_t outer, std::size_t slot, std::size_t place) {
        const auto channelMask = [&](std::size_t k) {
            return choice.mask + outer * choice.outerStride + choice.selected[slot + k] * inner;
        };
        const std::size_t numReal = choice.NumReal(slot, choice.groupSize);
        for (std::size_t k = 0; k < numReal; ++k) std::fill_n(channelMask(k), inner, T{0});
        for (std::size_t t = 0; t < inner; ++t) {
            indices.resize(choice.groupSize);
            for (std::size_t k = 0; k < indices.size(); ++k) indices[k] = static_cast<unsigned int>(k * inner + t);
            GetNOutOfM(static_cast<unsigned int>(choice.keepNum), indices, choice.gathered + place);
            for (const unsigned int index : indices)
                if (index / inner < numReal) channelMask(index / inner)[t] = 1;
        }
    };
    choice.Gather(0, numGroups);
    for (std::size_t group = 0; group < numGroups; ++group) {
        choice.ForEachOuter(group, group + 1, [&](std::size_t outer, std::size_t slot, std::size_t, std::size_t place) {
            chooseGroup(outer, slot, place);
        });
    }
}

template <typename T>
void MakeMask(const T* data, const T* channelSelect, T* gathered, SelectivePruneParam& param, T* mask) {
    std::vector<unsigned int>& shape = param.shape;
    const auto rank = static_cast<unsigned int>(shape.size());
    const unsigned int numChannels = shape[param.axis];
    Choice<T> choice{};
    choice.data = data;
    choice.gathered = gathered;
    choice.mask = mask;
    choice.groupSize = param.groupSize;
    choice.keepNum = param.keepNum;
    choice.inner = ComputeProduct(shape, param.axis + 1, rank);
    choice.outerStride = choice.inner * numChannels;
    for (unsigned int c = 0; c < numChannels; ++c)
        if (std::fabs(channelSelect[c]) >= 1) choice.selected.push_back(c);
    const auto numSelected = static_cast<float>(choice.selected.size());
    choice.groupsPerOuter = static_cast<std::size_t>(std::ceil(numSelected / static_cast<float>(param.groupSize)));
    choice.isDense = choice.selected.size() == numChannels && choice.groupsPerOuter * choice.groupSize == numChannels;
    const std::size_t numGroups = ComputeProduct(shape, 0, param.axis) * choice.groupsPerOuter;
    if (numGroups == 0) return;

    if (choice.groupSize > kMaxRanked) {  // needs memory, which a thread of a region must not run out of
        ChooseSorted(choice, numGroups);
        return;
    }
    // There may be more groups than an int counts.
    const std::size_t portion = 1 + numGroups / std::numeric_limits<int>::max();
    const std::size_t numPortions = (numGroups + portion - 1) / portion;
    const bool worthwhile = numGroups * choice.groupSize * choice.inner >= kWorthwhile;
    util::ParallelFor(static_cast<int>(numPortions), worthwhile, [&](util::Block block) {
        const std::size_t first = block.begin * portion;
        const std::size_t last = std::min(numGroups, block.end * portion);
        util::DispatchIsa([&](auto isa) {
            using Loops = SelectiveMaskLoops<decltype(isa), T>;
            if (choice.inner >= Loops::kMinLanes) {
                ChooseWide<Loops>(choice, first, last);
            } else {
                ChooseNarrow<Loops>(choice, first, last);
            }
        });
    });
}

}  // namespace

unsigned int ComputeProduct(std::vector<unsigned int>& shape, unsigned int from, unsigned int to) {
    unsigned int product = 1;
    for (unsigned int i = from; i < to; ++i) product *= shape[i];
    return product;
}

template <typename T>
void GetNOutOfM(unsigned int n, std::vector<unsigned int>& indices, const T* values) {
    std::sort(indices.begin(), indices.end(), [values](unsigned int a, unsigned int b) {
        const T x = std::fabs(values[a]);
        const T y = std::fabs(values[b]);
        if (std::isnan(x) != std::isnan(y)) return std::isnan(x);
        return x == y || std::isnan(x) ? a < b : x > y;
    });
    if (n < indices.size()) indices.resize(n);
}

template KEST_EXPORT void GetNOutOfM(unsigned int, std::vector<unsigned int>&, const float*);
template KEST_EXPORT void GetNOutOfM(unsigned int, std::vector<unsigned int>&, const double*);

using util::ThreadPoolDevice;

#define DEFINE(T)                                                                                        \
    int ComputeMask<ThreadPoolDevice, T>::operator()(const T* data, const T* channelSelect, T* gathered, \
                                                     SelectivePruneParam param, T* mask) const {         \
        const auto rank = static_cast<unsigned int>(param.shape.size());                                 \
        if (param.axis >= rank || ComputeProduct(param.shape, 0, rank) == 0) {                           \
            LOG_ERROR("selective_mask_gen op: input tensor shape is 0.");                                \
            return EMPTY_INPUT_ERROR;                                                                    \
        }                                                                                                \
        if (param.groupSize > 0) MakeMask(data, channelSelect, gathered, param, mask);                   \
        return STATUS_OK;                                                                                \
    }                                                                                                    \
    int IdentityMask<ThreadPoolDevice, T>::operator()(unsigned int n, const T* in, T* out) const {       \
        std::copy_n(in, n, out);                                                                         \
        return STATUS_OK;                                                                                \
    }
DEFINE(float)
DEFINE(double)
#undef DEFINE

}  // namespace SelectiveMaskGenKernel
