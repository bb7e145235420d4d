#ifndef KEST_BENCHMARKS_PLAIN_KMEANS_H_
#define KEST_BENCHMARKS_PLAIN_KMEANS_H_

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <numeric>
#include <vector>

/// \file
/// The k-means of nuq.h straight from its formulas, in plain loops: what the benchmarks compare times with and the
/// tests results.

namespace bench {

template <typename T>
double SquaredDistance(T x, T y) {
    const double difference = x - y;
    return difference * difference;
}

template <typename T>
T PlainMedian(std::vector<T> values) {
    const auto less = [](T a, T b) { return a < b || (a == b && std::signbit(a) > std::signbit(b)); };
    const auto middle = values.begin() + values.size() / 2;
    std::nth_element(values.begin(), middle, values.end(), less);
    if (values.size() % 2 == 1) return *middle;
    return (*std::max_element(values.begin(), middle, less) + *middle) * static_cast<T>(0.5);
}

/// The sum of the distances in 32 bits: truncated after each step, saturated.
template <typename T>
T Potential(const std::vector<T>& distances) {
    int sum = 0;
    for (const T distance : distances) {
        const T next = static_cast<T>(sum) + distance;
        sum = next < T{0x1p31f} ? static_cast<int>(next) : INT32_MAX;
    }
    return static_cast<T>(sum);
}

template <typename T>
std::vector<T> PlainSeeds(const std::vector<T>& x, std::size_t numClusters) {
    const std::size_t n = x.size();
    const auto numCandidates = static_cast<std::size_t>(std::log(numClusters)) + 2;
    std::vector<T> centres{PlainMedian(x)}, candidates(numCandidates), distances(n), sums(n), nearer(n);
    for (std::size_t i = 0; i < n; ++i) distances[i] = static_cast<T>(SquaredDistance(x[i], centres[0]));
    while (centres.size() < numClusters) {
        std::partial_sum(distances.begin(), distances.end(), sums.begin());
        const T unit = static_cast<T>(sums.back() / (static_cast<double>(numCandidates) + 1.0));
        T best = 0, smallest = 0;
        for (std::size_t t = 0; t < numCandidates; ++t) {
            const T threshold = static_cast<T>(t + 1) * unit;
            const auto above = std::find_if(sums.begin(), sums.end(), [=](T sum) { return sum > threshold; });
            if (above != sums.end()) candidates[t] = x[above - sums.begin()];
            for (std::size_t i = 0; i < n; ++i)
                nearer[i] = static_cast<T>(std::min<double>(distances[i], SquaredDistance(x[i], candidates[t])));
            const T potential = Potential(nearer);
            if (t > 0 && potential >= smallest) continue;
            smallest = potential;
            best = candidates[t];
        }
        centres.push_back(best);
        for (std::size_t i = 0; i < n; ++i)
            distances[i] = static_cast<T>(std::min<double>(distances[i], SquaredDistance(x[i], best)));
    }
    return centres;
}

template <typename T>
std::size_t NearestTo(T x, const std::vector<T>& centres) {
    std::size_t nearest = 0;
    for (std::size_t k = 1; k < centres.size(); ++k)
        if (std::fabs(x - centres[k]) < std::fabs(x - centres[nearest])) nearest = k;
    return nearest;
}

/// Each value becomes its centre. Returns the centres.
template <typename T>
std::vector<T> PlainKmeans(std::vector<T>& x, std::size_t numClusters, const std::vector<double>& importance) {
    std::vector<T> centres = PlainSeeds(x, numClusters), previous(numClusters);
    std::vector<std::size_t> nearest(x.size());
    for (int update = 0; update < 200; ++update) {
        for (std::size_t i = 0; i < x.size(); ++i) nearest[i] = NearestTo(x[i], centres);
        T shift = 0;
        for (std::size_t k = 0; k < numClusters; ++k) shift += std::fabs(centres[k] - previous[k]);
        if (shift < 1e-6) break;
        previous = centres;
        std::vector<T> sums(numClusters), sumsOfImportance(numClusters);
        for (std::size_t i = 0; i < x.size(); ++i) {
            T& sum = sumsOfImportance[nearest[i]];
            sum = static_cast<T>(sum + importance[i]);
            sums[nearest[i]] += static_cast<T>(x[i] * importance[i]);
        }
        for (std::size_t k = 0; k < numClusters; ++k)
            centres[k] = sumsOfImportance[k] < FLT_EPSILON ? sums[k] : sums[k] / sumsOfImportance[k];
    }
    for (T& centre : centres) centre = std::round(centre);
    for (T& value : x) value = centres[NearestTo(value, centres)];
    return centres;
}

}  // namespace bench

#endif  // KEST_BENCHMARKS_PLAIN_KMEANS_H_
