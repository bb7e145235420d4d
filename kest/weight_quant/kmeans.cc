#include <kest/weight_quant/kmeans.h>

#include <kest/kernel_frame/isa.h>
#include <kest/kernel_frame/rounding.h>
#include <kest/weight_quant/kmeans_loops.h>
#include <kest/weight_quant/nuq.h>

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <numeric>

namespace KestCommon {
namespace {

constexpr int kMaxUpdates = 200;

/// The greedy choice of the first centres.
template <typename T>
class Seeding {
public:
    explicit Seeding(const std::vector<T>& values)
        : values_(values),
          distances_(values.size(), std::numeric_limits<T>::infinity()),
          sums_((values.size() + kSeedBlock - 1) / kSeedBlock),
          laneSums_(sums_.size() * kSeedLanes) {}

    /// The candidate that leaves the smallest potential, the first of equal ones.
    T Best(const std::vector<T>& candidates) {
        T best = candidates[0];
        T smallest = std::numeric_limits<T>::infinity();
        for (std::size_t first = 0; first < candidates.size(); first += kSeedLanes) {
            const std::size_t count = std::min<std::size_t>(kSeedLanes, candidates.size() - first);
            T lanes[kSeedLanes];
            for (std::size_t lane = 0; lane < kSeedLanes; ++lane)
                lanes[lane] = candidates[first + std::min(lane, count - 1)];
            T potentials[kSeedLanes];
            util::DispatchIsa([&](auto isa) {
                KmeansLoops<decltype(isa), T>::ScoreSeeds(values_.data(), distances_.data(), values_.size(), lanes,
                                                          potentials, laneSums_.data());
            });
            for (std::size_t lane = 0; lane < count; ++lane) {
                const T potential = std::min(potentials[lane], static_cast<T>(INT_MAX));
                if (!(potential < smallest)) continue;
                smallest = potential;
                best = lanes[lane];
                for (std::size_t block = 0; block < sums_.size(); ++block)
                    sums_[block] = laneSums_[block * kSeedLanes + lane];
            }
        }
        return best;
    }

    /// Makes what Best has found a centre.
    void Take(T centre) {
        util::DispatchIsa([&](auto isa) {
            KmeansLoops<decltype(isa), T>::ShrinkDistances(values_.data(), values_.size(), centre, distances_.data());
        });
    }

    /// The sum of the squared distances to the nearest centre.
    T SumOfDistances() const { return sums_.back(); }

    /// The first value at which that sum exceeds `threshold`; nullptr if there is none.
    const T* Quantile(T threshold) const {
        const auto above = std::find_if(sums_.begin(), sums_.end(), [=](T sum) { return sum > threshold; });
        if (above == sums_.end()) return nullptr;
        T sum = above == sums_.begin() ? 0 : above[-1];
        std::size_t i = static_cast<std::size_t>(above - sums_.begin()) * kSeedBlock;
        while (!((sum += distances_[i]) > threshold)) ++i;
        return &values_[i];
    }

private:
    const std::vector<T>& values_;
    std::vector<T> distances_;  // squared, to the nearest centre
    std::vector<T> sums_;       // of distances_, up to the end of each block of kSeedBlock
    std::vector<T> laneSums_;   // the same for the candidates being scored
};

template <typename T>
void SeedCenters(const std::vector<T>& values, T median, std::vector<T>& centers) {
    const std::size_t numCandidates = static_cast<std::size_t>(std::log(static_cast<double>(centers.size()))) + 2;
    Seeding<T> seeding(values);
    centers[0] = seeding.Best({median});  // for the sums: all distances are infinite before it
    std::vector<T> candidates(numCandidates, 0);
    for (std::size_t k = 1; k < centers.size(); ++k) {
        seeding.Take(centers[k - 1]);
        const T unit = static_cast<T>(seeding.SumOfDistances() / (static_cast<double>(numCandidates) + 1.0));
        for (std::size_t t = 0; t < numCandidates; ++t) {
            const T* quantile = seeding.Quantile(static_cast<T>(t + 1) * unit);
            if (quantile != nullptr) candidates[t] = *quantile;
        }
        centers[k] = seeding.Best(candidates);
    }
}

float AddOnce(float sum, double weight) {
    return static_cast<float>(sum + weight);
}
double AddOnce(double sum, double weight) {
    return sum + weight;
}

/// The power of two at or below a positive normal value.
float PowerBelow(float x) {
    uint32_t bits;
    std::memcpy(&bits, &x, sizeof bits);
    bits &= 0x7F800000u;
    std::memcpy(&x, &bits, sizeof bits);
    return x;
}
double PowerBelow(double x) {
    uint64_t bits;
    std::memcpy(&bits, &x, sizeof bits);
    bits &= uint64_t{0x7FF} << 52;
    std::memcpy(&x, &bits, sizeof bits);
    return x;
}

/// Adds a weight to a sum `times` times, rounding each time.
///
/// Between two powers of two the sum moves by one and the same multiple of its last place, unless the weight falls
/// half-way between two of them: these steps are taken at once.
template <typename T>
T AddRepeatedly(T sum, double weight, unsigned int times) {
    while (times > 0) {
        const T next = AddOnce(sum, weight);
        --times;
        if (next == sum) return sum;
        const T step = next - sum;
        const T end = 2 * PowerBelow(sum);
        const T halfPlace = end * std::numeric_limits<T>::epsilon() / 4;
        const bool uniform = sum >= std::numeric_limits<T>::min() && next < end &&
                             std::fabs(weight - static_cast<double>(step)) < 0.999 * static_cast<double>(halfPlace);
        sum = next;
        const T left = (end - next) / step - 1;  // one to spare: the quotient is rounded
        if (!uniform || !(left >= 1)) continue;
        const unsigned int steps = left < static_cast<T>(times) ? static_cast<unsigned int>(left) : times;
        sum = static_cast<T>(std::fma(static_cast<double>(steps), static_cast<double>(step), static_cast<double>(sum)));
        times -= steps;
    }
    return sum;
}

/// A value's bits as an unsigned integer with the same order: -0 before 0, NaN at the ends, by its sign.
uint32_t OrderedBits(float x) {
    uint32_t bits;
    std::memcpy(&bits, &x, sizeof bits);
    return bits >> 31 != 0 ? ~bits : bits | uint32_t{1} << 31;
}
uint64_t OrderedBits(double x) {
    uint64_t bits;
    std::memcpy(&bits, &x, sizeof bits);
    return bits >> 63 != 0 ? ~bits : bits | uint64_t{1} << 63;
}

/// The indices of the values in ascending order of these: a radix sort.
template <typename T>
std::vector<uint32_t> SortedOrder(const std::vector<T>& values) {
    using Key = decltype(OrderedBits(T{}));
    constexpr int kDigit = 11;  // bits
    struct Entry {
        Key key;
        uint32_t index;
    };
    std::vector<Entry> entries(values.size());
    for (std::size_t i = 0; i < values.size(); ++i) entries[i] = {OrderedBits(values[i]), static_cast<uint32_t>(i)};
    std::vector<Entry> sorted(values.size());
    for (int shift = 0; shift < std::numeric_limits<Key>::digits; shift += kDigit) {
        std::size_t begins[(1 << kDigit) + 1] = {};
        const auto digitOf = [=](const Entry& entry) { return (entry.key >> shift) & ((1 << kDigit) - 1); };
        for (const Entry& entry : entries) ++begins[digitOf(entry) + 1];
        for (int digit = 1; digit < 1 << kDigit; ++digit) begins[digit] += begins[digit - 1];
        for (const Entry& entry : entries) sorted[begins[digitOf(entry)]++] = entry;
        entries.swap(sorted);
    }
    std::vector<uint32_t> order(values.size());
    for (std::size_t i = 0; i < values.size(); ++i) order[i] = entries[i].index;
    return order;
}

/// Which value is a member of which centre, and the weighted sums of the members.
///
/// Sorted by value, the members of a centre are one range, so an update of the centres moves only the values between an
/// old and a new border. The sums run over the members in the order of the values; blocks of values lie as matrices
/// with a column for each centre, filled up with zeros, which add nothing: so all sums advance together, and a block is
/// laid out again only when one of its values has moved.
template <typename T>
class Members {
public:
    /// `values` must outlive the object. Value i has weights[i / runLength].
    Members(const std::vector<T>& values, const std::vector<double>& weights, std::size_t runLength,
            std::size_t numCenters)
        : values_(values),
          weights_(weights),
          runLength_(runLength),
          numCenters_(numCenters),
          numGroups_((numCenters + kCenterLanes - 1) / kCenterLanes),
          blockLength_(std::max<std::size_t>(128, 8 * numCenters)),
          order_(SortedOrder(values)),
          sorted_(values.size()),
          products_(values.size()),
          nearest_(values.size()),
          blocks_((values.size() + blockLength_ - 1) / blockLength_) {
        for (std::size_t i = 0; i < values.size(); ++i) sorted_[i] = values[order_[i]];
        for (std::size_t first = 0; first < values.size(); first += runLength) {
            const std::size_t count = std::min(runLength, values.size() - first);
            util::DispatchIsa([&](auto isa) {
                KmeansLoops<decltype(isa), T>::Weigh(&values[first], count, weights[first / runLength],
                                                     &products_[first]);
            });
        }
        if (CountsRuns()) counts_.resize((values.size() + runLength - 1) / runLength * numCenters);
    }

    T Median() const {
        const std::size_t middle = sorted_.size() / 2;
        return sorted_.size() % 2 == 1 ? sorted_[middle] : (sorted_[middle - 1] + sorted_[middle]) * T{0.5};
    }

    /// The centre of each value, as of the last Assign.
    const std::vector<int32_t>& Nearest() const { return nearest_; }

    /// Makes each value a member of the centre with the smallest |value - centre|, the first of equal ones.
    void Assign(const std::vector<T>& centers) {
        std::vector<Range> ranges;
        if (!FindRanges(centers, ranges)) {
            util::DispatchIsa([&](auto isa) {
                KmeansLoops<decltype(isa), T>::Assign(values_.data(), values_.size(), centers.data(),
                                                      static_cast<unsigned int>(numCenters_), nearest_.data());
            });
            CountAgain();
        } else if (ranges_.empty()) {
            ForEachRange(ranges, [&](std::size_t begin, std::size_t end, int32_t centre) {
                for (std::size_t i = begin; i < end; ++i) nearest_[order_[i]] = centre;
            });
            CountAgain();
        } else {
            std::size_t old = 0;
            ForEachRange(ranges, [&](std::size_t begin, std::size_t end, int32_t centre) {
                while (begin < end) {
                    while (old + 1 < ranges_.size() && ranges_[old + 1].begin <= begin) ++old;
                    const std::size_t oldEnd = old + 1 < ranges_.size() ? ranges_[old + 1].begin : values_.size();
                    const std::size_t stop = std::min(end, oldEnd);
                    if (ranges_[old].centre != centre)
                        for (std::size_t i = begin; i < stop; ++i) Move(order_[i], centre);
                    begin = stop;
                }
            });
        }
        ranges_.swap(ranges);
    }

    /// sums[k] = the sum of value * weight over the members of centre k, sumsOfWeights[k] that of the weights.
    void Sum(std::vector<T>& sums, std::vector<T>& sumsOfWeights) {
        std::vector<T> lanes(numGroups_ * kCenterLanes, 0);
        for (std::size_t b = 0; b < blocks_.size(); ++b) {
            Block& block = blocks_[b];
            if (block.moved) LayOut(b);
            const T* rows = block.rows.data();
            for (std::size_t group = 0; group < numGroups_; ++group) {
                util::DispatchIsa([&](auto isa) {
                    KmeansLoops<decltype(isa), T>::AddRows(rows, block.numRows[group], &lanes[group * kCenterLanes]);
                });
                rows += block.numRows[group] * kCenterLanes;
            }
        }
        std::copy_n(lanes.begin(), numCenters_, sums.begin());

        std::fill(sumsOfWeights.begin(), sumsOfWeights.end(), T{0});
        if (!CountsRuns()) {
            for (std::size_t i = 0; i < values_.size(); ++i) {
                T& sum = sumsOfWeights[nearest_[i]];
                sum = AddOnce(sum, weights_[i / runLength_]);
            }
            return;
        }
        const unsigned int* counts = counts_.data();
        for (std::size_t run = 0; run * runLength_ < values_.size(); ++run, counts += numCenters_) {
            for (std::size_t k = 0; k < numCenters_; ++k)
                sumsOfWeights[k] = AddRepeatedly(sumsOfWeights[k], weights_[run], counts[k]);
        }
    }

private:
    /// Sorted values from `begin` on, up to the next range.
    struct Range {
        std::size_t begin;
        int32_t centre;
    };
    struct Block {
        std::vector<T> rows;  // group by group of kCenterLanes centres
        std::vector<std::size_t> numRows;
        bool moved = true;  // rows are out of date
    };
    struct Column {
        T* top;  // kCenterLanes from row to row
        std::size_t numRows;
    };

    /// Whether a count for each run and centre takes less memory than the values.
    bool CountsRuns() const { return runLength_ >= numCenters_; }

    /// Where the centres' ranges lie. False, no ranges, if two different centres are so close, or anything is so large,
    /// that rounded distances could be equal: then the nearest centre need not be a neighbour.
    bool FindRanges(const std::vector<T>& centers, std::vector<Range>& ranges) const {
        T magnitude = std::fabs(sorted_.front()) + std::fabs(sorted_.back());
        for (const T centre : centers) magnitude += std::fabs(centre);
        if (!(magnitude < std::numeric_limits<T>::max())) return false;
        std::vector<int32_t> ascending(numCenters_);
        std::iota(ascending.begin(), ascending.end(), 0);
        std::stable_sort(ascending.begin(), ascending.end(),
                         [&](int32_t a, int32_t b) { return centers[a] < centers[b]; });
        const T enough = 4 * std::numeric_limits<T>::epsilon() * magnitude;
        ranges.push_back({0, ascending[0]});
        for (std::size_t k = 1; k < numCenters_; ++k) {
            const int32_t below = ranges.back().centre;
            const int32_t above = ascending[k];
            if (centers[above] == centers[below]) continue;  // the first of equal centres has the members
            if (!(centers[above] - centers[below] > enough)) {
                ranges.clear();
                return false;
            }
            const auto border = std::partition_point(sorted_.begin(), sorted_.end(), [&](T value) {
                const T toBelow = std::fabs(value - centers[below]);
                const T toAbove = std::fabs(value - centers[above]);
                return above < below ? toBelow < toAbove : toBelow <= toAbove;
            });
            ranges.push_back({static_cast<std::size_t>(border - sorted_.begin()), above});
        }
        return true;
    }

    template <typename Use>
    void ForEachRange(const std::vector<Range>& ranges, Use use) const {
        for (std::size_t r = 0; r < ranges.size(); ++r)
            use(ranges[r].begin, r + 1 < ranges.size() ? ranges[r + 1].begin : values_.size(), ranges[r].centre);
    }

    void Move(std::size_t i, int32_t centre) {
        Block& block = blocks_[i / blockLength_];
        block.moved = block.moved || !MoveInRows(block, i, centre);
        if (CountsRuns()) {
            unsigned int* counts = &counts_[i / runLength_ * numCenters_];
            --counts[nearest_[i]];
            ++counts[centre];
        }
        nearest_[i] = centre;
    }

    /// Takes a value out of its column, and puts it into another one. False if that one is full.
    bool MoveInRows(Block& block, std::size_t i, int32_t centre) {
        const auto first = nearest_.begin() + static_cast<std::ptrdiff_t>(i / blockLength_ * blockLength_);
        const auto at = nearest_.begin() + static_cast<std::ptrdiff_t>(i);
        const auto end = nearest_.begin() +
                         static_cast<std::ptrdiff_t>(std::min((i / blockLength_ + 1) * blockLength_, values_.size()));
        const Column from = ColumnOf(block, nearest_[i]);
        for (auto row = static_cast<std::size_t>(std::count(first, at, *at)); row + 1 < from.numRows; ++row)
            from.top[row * kCenterLanes] = from.top[(row + 1) * kCenterLanes];
        from.top[(from.numRows - 1) * kCenterLanes] = 0;

        const Column to = ColumnOf(block, centre);
        const auto before = static_cast<std::size_t>(std::count(first, at, centre));
        auto row = before + static_cast<std::size_t>(std::count(at, end, centre));
        if (row == to.numRows) return false;
        for (; row > before; --row) to.top[row * kCenterLanes] = to.top[(row - 1) * kCenterLanes];
        to.top[before * kCenterLanes] = products_[i];
        return true;
    }

    Column ColumnOf(Block& block, int32_t centre) {
        const std::size_t group = static_cast<std::size_t>(centre) / kCenterLanes;
        T* rows = block.rows.data();
        for (std::size_t g = 0; g < group; ++g) rows += block.numRows[g] * kCenterLanes;
        return {rows + static_cast<std::size_t>(centre) % kCenterLanes, block.numRows[group]};
    }

    void CountAgain() {
        for (Block& block : blocks_) block.moved = true;
        if (!CountsRuns()) return;
        std::fill(counts_.begin(), counts_.end(), 0);
        for (std::size_t i = 0; i < values_.size(); ++i) ++counts_[i / runLength_ * numCenters_ + nearest_[i]];
    }

    void LayOut(std::size_t b) {
        Block& block = blocks_[b];
        const std::size_t first = b * blockLength_;
        const std::size_t end = std::min(first + blockLength_, values_.size());
        std::vector<std::size_t>& next = next_;  // where the next member of each centre goes
        next.assign(numGroups_ * kCenterLanes, 0);
        for (std::size_t i = first; i < end; ++i) ++next[nearest_[i]];
        block.numRows.resize(numGroups_);
        std::size_t numRows = 0;
        for (std::size_t group = 0; group < numGroups_; ++group) {
            std::size_t* lanes = &next[group * kCenterLanes];
            block.numRows[group] = *std::max_element(lanes, lanes + kCenterLanes);
            for (std::size_t lane = 0; lane < kCenterLanes; ++lane) lanes[lane] = numRows * kCenterLanes + lane;
            numRows += block.numRows[group];
        }
        block.rows.assign(numRows * kCenterLanes, 0);
        for (std::size_t i = first; i < end; ++i) {
            std::size_t& at = next[nearest_[i]];
            block.rows[at] = products_[i];
            at += kCenterLanes;
        }
        block.moved = false;
    }

    const std::vector<T>& values_;
    const std::vector<double>& weights_;
    std::size_t runLength_;
    std::size_t numCenters_;
    std::size_t numGroups_;  // of kCenterLanes centres
    std::size_t blockLength_;
    std::vector<uint32_t> order_;  // ascending
    std::vector<T> sorted_;        // the values in that order
    std::vector<T> products_;      // value * weight
    std::vector<int32_t> nearest_;
    std::vector<unsigned int> counts_;  // members of each centre in each run, if CountsRuns
    std::vector<Range> ranges_;         // of the last Assign; empty if it did without
    std::vector<Block> blocks_;
    std::vector<std::size_t> next_;  // working memory of LayOut
};

template <typename T>
T Distance(const std::vector<T>& a, const std::vector<T>& b) {
    T distance = 0;
    for (std::size_t k = 0; k < a.size(); ++k) distance += std::fabs(a[k] - b[k]);
    return distance;
}

}  // namespace

template <typename T>
T Median(std::vector<T> values) {
    if (values.empty()) return 0;
    const auto less = [](T a, T b) { return OrderedBits(a) < OrderedBits(b); };
    const auto upper = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), upper, values.end(), less);
    if (values.size() % 2 == 1) return *upper;
    return (*std::max_element(values.begin(), upper, less) + *upper) * T{0.5};
}

template <typename T>
void KmeansInit(std::vector<T>& values, std::vector<T>& centers) {
    if (!values.empty() && !centers.empty()) SeedCenters(values, Median(values), centers);
}

template <typename T>
void ClusterRuns(std::vector<T>& values, unsigned int k, const std::vector<double>& weights, std::size_t runLength,
                 std::vector<T>& centers) {
    if (values.empty() || k == 0) return;
    Members<T> members(values, weights, runLength, k);
    std::vector<T> working(k, 0);
    std::vector<T> previous(k, 0);
    SeedCenters(values, members.Median(), working);

    std::vector<T> sums(k);
    std::vector<T> sumsOfWeights(k);
    for (int update = 0; update < kMaxUpdates; ++update) {
        if (static_cast<double>(Distance(working, previous)) < 1e-6) break;
        previous = working;
        members.Assign(working);
        members.Sum(sums, sumsOfWeights);
        for (std::size_t c = 0; c < k; ++c)
            working[c] = sumsOfWeights[c] < static_cast<T>(FLT_EPSILON) ? sums[c] : sums[c] / sumsOfWeights[c];
    }

    for (T& centre : working) centre = util::RoundHalfAway(centre);
    members.Assign(working);
    for (std::size_t i = 0; i < values.size(); ++i) values[i] = working[members.Nearest()[i]];
    std::copy(working.begin(), working.end(), centers.begin());
}

template <typename T>
void Kmeans(std::vector<T>& values, unsigned int k, std::vector<double>& weights, std::vector<T>& centers) {
    ClusterRuns(values, k, weights, 1, centers);
}

#define INSTANTIATE(T)                                                                                \
    template void ClusterRuns(std::vector<T>&, unsigned int, const std::vector<double>&, std::size_t, \
                              std::vector<T>&);                                                       \
    template KEST_EXPORT T Median(std::vector<T>);                                                    \
    template KEST_EXPORT void KmeansInit(std::vector<T>&, std::vector<T>&);                           \
    template KEST_EXPORT void Kmeans(std::vector<T>&, unsigned int, std::vector<double>&, std::vector<T>&)
INSTANTIATE(float);
INSTANTIATE(double);
#undef INSTANTIATE

}  // namespace KestCommon
