#ifndef KEST_TENSORFLOW_CHANNELS_FIRST_H_
#define KEST_TENSORFLOW_CHANNELS_FIRST_H_

#include <cstddef>
#include <vector>

#include "kest_ops.h"

namespace kest_ops {

/// A copy of weights with the channels of their last axis first, for the kernels that want them there.
struct ChannelsFirst {
    Status Set(const Tensor& weights) {
        int length = 0;
        Channels channels;
        TF_RETURN_IF_ERROR(CountOf(weights, length));
        TF_RETURN_IF_ERROR(ChannelsOf(weights, -1, channels));
        if (length == 0) return errors::InvalidArgument("there are no weights");
        numChannels = channels.count;
        data.resize(length);
        const float* from = weights.flat<float>().data();
        const std::size_t numRows = data.size() / numChannels;
        for (std::size_t row = 0; row < numRows; ++row) {
            for (int c = 0; c < numChannels; ++c) data[c * numRows + row] = *from++;
        }
        return OkStatus();
    }

    /// Copies as many elements, channels first, to where they have them last.
    template <typename From, typename To>
    void CopyToLast(const From* from, To* to) const {
        const std::size_t numRows = data.size() / numChannels;
        for (std::size_t row = 0; row < numRows; ++row) {
            for (int c = 0; c < numChannels; ++c) *to++ = static_cast<To>(from[c * numRows + row]);
        }
    }

    int numChannels = 0;
    std::vector<float> data;
};

}  // namespace kest_ops

#endif  // KEST_TENSORFLOW_CHANNELS_FIRST_H_
