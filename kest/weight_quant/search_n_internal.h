#ifndef KEST_WEIGHT_QUANT_SEARCH_N_INTERNAL_H_
#define KEST_WEIGHT_QUANT_SEARCH_N_INTERNAL_H_

#include <algorithm>
#include <cstddef>
#include <vector>

// What both shift searches share.

namespace KestCommon {

/// Element i of a tensor belongs to channel (i / run) mod numChannels; to none if numChannels is 0.
struct ChannelRule {
    std::size_t numChannels;
    std::size_t run;

    /// How many of `length` elements belong to `channel`.
    std::size_t CountOf(std::size_t channel, std::size_t length) const {
        if (channel >= numChannels) return 0;
        const std::size_t period = numChannels * run;
        const std::size_t rest = length % period;
        return length / period * run + std::min(run, rest - std::min(rest, channel * run));
    }

    /// Rows are read in stretches: a run, or, with the channel innermost, as many values of each row as stay in the
    /// cache for all rows.
    static constexpr std::size_t kGathered = 128;
    std::size_t StretchLength() const { return run > 1 ? run : kGathered; }

    /// The values first to first + count of a channel, at most one stretch: where they lie in the tensor, or gathered
    /// in `buffer` (kGathered values).
    const float* Stretch(const float* data, std::size_t channel, std::size_t first, std::size_t count,
                         float* buffer) const {
        const float* x = data + (first / run * numChannels + channel) * run;
        if (run > 1) return x;
        for (std::size_t i = 0; i < count; ++i) buffer[i] = x[i * numChannels];
        return buffer;
    }
};

ChannelRule MakeChannelRule(const std::vector<int>& shape, bool channelWise, const char* dataFormat);

/// The number of values that every row is taken to hold.
template <typename T>
std::size_t ShortestRow(const std::vector<std::vector<T>>& rows) {
    std::size_t shortest = rows.empty() ? 0 : rows[0].size();
    for (const std::vector<T>& row : rows) shortest = std::min(shortest, row.size());
    return shortest;
}

/// The shift of the first smallest of `count` errors, which are those of the shifts from 1 on; 1 without any.
template <typename T>
int BestShift(const T* errors, std::size_t count) {
    return count == 0 ? 1 : 1 + static_cast<int>(std::min_element(errors, errors + count) - errors);
}

}  // namespace KestCommon

#endif  // KEST_WEIGHT_QUANT_SEARCH_N_INTERNAL_H_
