#ifndef KEST_WEIGHT_QUANT_KMEANS_H_
#define KEST_WEIGHT_QUANT_KMEANS_H_

#include <cstddef>
#include <vector>

namespace KestCommon {

/// Kmeans of nuq.h for values whose weights are constant over runs: value i has weights[i / runLength].
template <typename T>
void ClusterRuns(std::vector<T>& values, unsigned int k, const std::vector<double>& weights, std::size_t runLength,
                 std::vector<T>& centers);

}  // namespace KestCommon

#endif  // KEST_WEIGHT_QUANT_KMEANS_H_
