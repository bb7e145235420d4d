#include <kest/prune_balance/channel_prune_loops.h>

#include <kest/kernel_frame/transpose.h>

#include <cstdint>

namespace KestCommon {
namespace {

/// The square of a float is exact in double precision: a fused step, where there is one, changes nothing.
KEST_INLINE float AddSquare(float sum, float x) {
    const double wide = static_cast<double>(x);
#if defined(__FMA__) || defined(__ARM_FEATURE_FMA)
    return static_cast<float>(__builtin_fma(wide, wide, static_cast<double>(sum)));
#else
    return static_cast<float>(wide * wide + static_cast<double>(sum));
#endif
}
KEST_INLINE double AddSquare(double sum, double x) {
    return sum + x * x;
}

/// sums[c] += x[c]^2
template <typename T>
KEST_INLINE void AddRow(const T* x, std::size_t width, T* sums) {
    constexpr std::size_t kBlock = 64;  // chains of additions that advance together
    std::size_t c = 0;
    for (; c + kBlock <= width; c += kBlock) {
        T sum[kBlock];
        for (std::size_t lane = 0; lane < kBlock; ++lane) sum[lane] = AddSquare(sums[c + lane], x[c + lane]);
        for (std::size_t lane = 0; lane < kBlock; ++lane) sums[c + lane] = sum[lane];
    }
    for (; c < width; ++c) sums[c] = AddSquare(sums[c], x[c]);
}

/// Brings n elements from x + offset on nearer; they may lie behind the array.
template <typename T>
KEST_INLINE void Fetch(const T* x, std::size_t offset, std::size_t n) {
    const auto address = reinterpret_cast<uintptr_t>(x) + offset * sizeof(T);
    for (std::size_t i = 0; i < n * sizeof(T); i += 64) __builtin_prefetch(reinterpret_cast<const void*>(address + i));
}

}  // namespace

template <typename Isa, typename T>
void ChannelPruneLoops<Isa, T>::AddSquares(const T* x, std::size_t numRows, std::size_t stride, std::size_t width,
                                           T* sums) {
    for (std::size_t row = 0; row < numRows; ++row, x += stride) {
        if (row + 1 < numRows && width < stride) Fetch(x, stride, width);  // parts of rows make no stream
        AddRow(x, width, sums);
    }
}

template <typename Isa, typename T>
void ChannelPruneLoops<Isa, T>::AddSquaresOfRuns(const T* x, std::size_t numPeriods, std::size_t period,
                                                 std::size_t inner, std::size_t numChannels, T* sums) {
    constexpr std::size_t kChannels = 64;  // side by side, as AddRow likes them
    constexpr std::size_t kLength = 64;
    T columns[kLength * kChannels];
    for (std::size_t p = 0; p < numPeriods; ++p, x += period) {
        for (std::size_t c = 0; c < numChannels; c += kChannels) {
            const std::size_t width = numChannels - c < kChannels ? numChannels - c : kChannels;
            for (std::size_t i = 0; i < inner; i += kLength) {
                const std::size_t length = inner - i < kLength ? inner - i : kLength;
                util::Transpose(x + c * inner + i, inner, width, length, columns, kChannels);
                // What comes next, in as many parts as there are rows to add: more of these runs, the start of the next
                // channels' runs, or of the next period.
                const bool isLast = c + width == numChannels;
                std::size_t next = isLast ? period : (c + width) * inner;
                std::size_t nextStride = width;
                if (i + length < inner) {
                    next = c * inner + i + length;
                    nextStride = inner;
                } else if (isLast && p + 1 == numPeriods) {
                    nextStride = 0;
                }
                for (std::size_t r = 0; r < length; ++r) {
                    if (nextStride > 0) Fetch(x, next + r * nextStride, kChannels);
                    AddRow(columns + r * kChannels, width, sums + c);
                }
            }
        }
    }
}

template struct ChannelPruneLoops<util::KEST_LOOPS_ISA, float>;
template struct ChannelPruneLoops<util::KEST_LOOPS_ISA, double>;

}  // namespace KestCommon
