#include <kest/activation_calib/percentile.h>

#include <algorithm>
#include <functional>
#include <vector>

// The k-th value from an end, for the k of a tail: a buffer collects the values beyond a threshold; when it is full,
// all but the k outermost are dropped and the innermost of these is the new threshold. Soon few values pass it, and the
// rest of the data are read at the speed of a comparison.

namespace KestCommon {
namespace {

/// The value of `rank` in the order of `beyond` among those beyond 0; 0 if there are fewer.
template <typename T, typename Beyond>
T SelectBeyondZero(const T* data, std::size_t n, std::size_t rank, Beyond beyond) {
    constexpr std::size_t kBlock = 64;
    constexpr std::size_t kSpare = 8;  // a buffer of that many ranks is emptied seldom, also by increasing data
    const std::size_t capacity = std::min(n, kSpare * std::max(rank, kBlock)) + kBlock;
    std::vector<T> buffer(capacity);
    std::size_t count = 0;
    T threshold = 0;
    const auto keepOutermost = [&] {
        std::nth_element(buffer.begin(), buffer.begin() + (rank - 1), buffer.begin() + count, beyond);
        threshold = buffer[rank - 1];
        count = rank;
    };
    for (std::size_t first = 0; first < n; first += kBlock) {
        const std::size_t size = std::min(kBlock, n - first);
        const T* block = data + first;
        int numBeyond = 0;
        for (std::size_t i = 0; i < size; ++i) numBeyond += beyond(block[i], threshold);
        if (numBeyond == 0) continue;
        for (std::size_t i = 0; i < size; ++i) {
            buffer[count] = block[i];
            count += beyond(block[i], threshold);
        }
        if (count + kBlock > capacity) keepOutermost();
    }
    if (count < rank) return 0;
    keepOutermost();
    return threshold;
}

}  // namespace

template <typename T>
util::Extremes<T> BoundsOfRanks(const T* data, std::size_t n, std::size_t maxRank, std::size_t minRank) {
    const util::Extremes<T> extremes = util::FindExtremes(data, n);
    const T max = maxRank == 1 ? extremes.max : SelectBeyondZero(data, n, maxRank, std::greater<T>());
    const T min = minRank == 1 ? extremes.min : SelectBeyondZero(data, n, minRank, std::less<T>());
    return {min >= 0 ? T{0} : min, max <= 0 ? T{0} : max};
}

template util::Extremes<float> BoundsOfRanks(const float*, std::size_t, std::size_t, std::size_t);
template util::Extremes<double> BoundsOfRanks(const double*, std::size_t, std::size_t, std::size_t);

}  // namespace KestCommon
