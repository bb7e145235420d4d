#ifndef KEST_WEIGHT_QUANT_COLUMNS_H_
#define KEST_WEIGHT_QUANT_COLUMNS_H_

#include <kest/kernel_frame/isa.h>
#include <kest/weight_quant/arq_loops.h>

#include <algorithm>
#include <cfloat>
#include <cstddef>

// Tensors whose channel is innermost, as matrices with a column for each channel.

namespace KestCommon {

constexpr std::size_t kMaxColumns = 4096;  // worked on at once, their state on the stack

/// Calls use(first, count, min, max) for runs of channels in order, with the extremes of each as
/// ArrayLoops::FindExtremes tells, until one does not return STATUS_OK, and returns what the last call did. One pass
/// over the data with the extremes of all columns (of up to kMaxColumns at once). Few channels are repeated side by
/// side: in the cache short rows with a small state are best, from memory long rows, which are fetched ahead.
template <typename T, typename Use>
int ForEachInnermostChannel(const T* data, std::size_t length, std::size_t numChannels, Use use) {
    if (numChannels == 0) return STATUS_OK;
    constexpr std::size_t kMinRows = 8;  // of a small tensor, so that setting up and folding cost less than the pass
    T min[kMaxColumns];
    T max[kMaxColumns];
    constexpr std::size_t kCached = std::size_t{16} << 20;  // bytes
    const std::size_t goodColumns = length * sizeof(T) <= kCached ? 512 : 2048;
    const std::size_t wanted = std::min(goodColumns, length / kMinRows) / numChannels;
    const std::size_t repeats = std::max<std::size_t>(1, wanted);
    const std::size_t stride = numChannels * repeats;
    const std::size_t numRows = length / stride;
    const std::size_t tailLength = length % stride;
    for (std::size_t first = 0; first < stride; first += kMaxColumns) {
        const std::size_t width = std::min(kMaxColumns, stride - first);
        const std::size_t tail = std::min(width, tailLength - std::min(first, tailLength));
        const std::size_t channels = width / repeats;
        std::fill_n(min, width, static_cast<T>(FLT_MAX));
        std::fill_n(max, width, static_cast<T>(-FLT_MAX));
        util::DispatchIsa([&](auto isa) {
            using Loops = ArqLoops<decltype(isa), T>;
            Loops::FindColumnExtremes(data + first, numRows, stride, width, min, max);
            Loops::FindColumnExtremes(data + numRows * stride + first, 1, stride, tail, min, max);
            Loops::FoldColumnExtremes(repeats, channels, min, max);
        });
        const int status = use(first, channels, min, max);
        if (status != STATUS_OK) return status;
    }
    return STATUS_OK;
}

/// Splits a tensor into runs of elements whose factors fit arrays of kMaxColumns, laid out as the elements are: whole
/// periods of the channels, or part of one. For each such layout calls setColumn(column, channel) for its columns, then
/// work(first, count) for the runs of elements, the first of each in column 0.
template <typename SetColumn, typename Work>
void ForEachColumnRun(std::size_t length, std::size_t numChannels, SetColumn setColumn, Work work) {
    constexpr std::size_t kMinRuns = 8;  // of a small tensor, so that a layout costs less than the work
    const std::size_t wanted = std::min(kMaxColumns / 2, length / kMinRuns) / numChannels;
    const std::size_t stride = numChannels * std::max<std::size_t>(1, wanted);
    for (std::size_t first = 0; first < stride; first += kMaxColumns) {
        const std::size_t width = std::min(kMaxColumns, stride - first);
        std::size_t channel = first % numChannels;
        for (std::size_t column = 0; column < width; ++column) {
            setColumn(column, channel);
            channel = channel + 1 < numChannels ? channel + 1 : 0;
        }
        for (std::size_t i = first; i < length; i += stride) work(i, std::min(width, length - i));
    }
}

}  // namespace KestCommon

#endif  // KEST_WEIGHT_QUANT_COLUMNS_H_
