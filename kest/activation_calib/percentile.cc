#include <kest/activation_calib/percentile.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

// One pass counts the values by their leading bits, which order them coarsely; the wanted one is then selected among
// those that share its bucket. A tail percentile leaves few of them.

namespace KestCommon {
namespace {

constexpr int kLeadingBits = 12;  // sign, exponent and, for float, three bits of the fraction
constexpr std::size_t kNumBuckets = std::size_t{1} << kLeadingBits;
constexpr std::size_t kNumTables = 4;  // in turn, so that equal neighbours do not wait for each other's count

/// The leading bits, increasing with the value.
template <typename T>
std::size_t BucketOf(T value) {
    using Bits = std::conditional_t<sizeof(T) == 4, uint32_t, uint64_t>;
    constexpr Bits kSign = Bits{1} << (8 * sizeof(Bits) - 1);
    Bits bits;
    std::memcpy(&bits, &value, sizeof bits);
    bits ^= (bits & kSign) != 0 ? ~Bits{0} : kSign;
    return static_cast<std::size_t>(bits >> (8 * sizeof(Bits) - kLeadingBits));
}

template <typename T>
std::vector<uint32_t> CountBuckets(const T* data, std::size_t n) {
    std::vector<std::array<uint32_t, kNumBuckets>> tables(kNumTables);
    std::size_t i = 0;
    for (; i + kNumTables <= n; i += kNumTables)
        for (std::size_t table = 0; table < kNumTables; ++table) ++tables[table][BucketOf(data[i + table])];
    for (; i < n; ++i) ++tables[0][BucketOf(data[i])];
    std::vector<uint32_t> counts(kNumBuckets);
    for (const auto& table : tables)
        for (std::size_t bucket = 0; bucket < kNumBuckets; ++bucket) counts[bucket] += table[bucket];
    return counts;
}

/// The value at `index` in increasing order.
template <typename T>
T Select(const T* data, std::size_t n, const std::vector<uint32_t>& counts, std::size_t index) {
    std::size_t bucket = 0;
    for (; index >= counts[bucket]; ++bucket) index -= counts[bucket];
    std::vector<T> values;
    values.reserve(counts[bucket]);
    for (std::size_t i = 0; i < n; ++i)
        if (BucketOf(data[i]) == bucket) values.push_back(data[i]);
    const auto wanted = values.begin() + static_cast<std::ptrdiff_t>(index);
    std::nth_element(values.begin(), wanted, values.end());
    return *wanted;
}

}  // namespace

template <typename T>
util::Extremes<T> BoundsOfRanks(const T* data, std::size_t n, std::size_t maxRank, std::size_t minRank) {
    util::Extremes<T> bounds = util::FindExtremes(data, n);
    if (maxRank > 1 || minRank > 1) {
        const std::vector<uint32_t> counts = CountBuckets(data, n);
        if (maxRank > 1) bounds.max = Select(data, n, counts, n - maxRank);
        if (minRank > 1) bounds.min = Select(data, n, counts, minRank - 1);
    }
    return {bounds.min >= 0 ? T{0} : bounds.min, bounds.max <= 0 ? T{0} : bounds.max};
}

template util::Extremes<float> BoundsOfRanks(const float*, std::size_t, std::size_t, std::size_t);
template util::Extremes<double> BoundsOfRanks(const double*, std::size_t, std::size_t, std::size_t);

}  // namespace KestCommon
