#ifndef KEST_WEIGHT_QUANT_KMEANS_LOOPS_H_
#define KEST_WEIGHT_QUANT_KMEANS_LOOPS_H_

#include <kest/kernel_frame/isa.h>

#include <cstddef>
#include <cstdint>

namespace KestCommon {

constexpr int kSeedLanes = 8;            // candidates that are scored together
constexpr std::size_t kSeedBlock = 256;  // values between two recorded prefix sums
constexpr int kCenterLanes = 16;         // centres whose members are summed together

/// The passes of k-means, one instance for each instruction set (isa.h).
template <typename Isa, typename T>
struct KmeansLoops {
    /// Scores candidates for a centre. With d the smaller of distance[i] and (x[i] - candidate)^2, in element order:
    /// potential = trunc(potential + d), from 0; and the sums of d after each kSeedBlock values and at
    /// the end, kSeedLanes at a time.
    static void ScoreSeeds(const T* x, const T* distance, std::size_t n, const T (&candidates)[kSeedLanes],
                           T (&potentials)[kSeedLanes], T* sums);

    /// distance[i] = the smaller of distance[i] and (x[i] - centre)^2.
    static void ShrinkDistances(const T* x, std::size_t n, T centre, T* distance);

    /// nearest[i] = the first of the k centres with the smallest |x[i] - centre|.
    static void Assign(const T* x, std::size_t n, const T* centers, unsigned int k, int32_t* nearest);

    /// products[i] = x[i] * weight, in double precision, rounded to T.
    static void Weigh(const T* x, std::size_t n, double weight, T* products);

    /// sums[lane] += the elements of column `lane` of a matrix, in order.
    static void AddRows(const T* rows, std::size_t numRows, T* sums);
};

}  // namespace KestCommon

#endif  // KEST_WEIGHT_QUANT_KMEANS_LOOPS_H_
