#ifndef KEST_ACTIVATION_CALIB_PERCENTILE_H_
#define KEST_ACTIVATION_CALIB_PERCENTILE_H_

#include <kest/kernel_frame/extremes.h>

#include <cstddef>

namespace KestCommon {

/// max: the value of rank `maxRank` from the top of data[0 .. n) (1: the largest), or 0 if that is not positive; min:
/// the value of rank `minRank` from the bottom, or 0 if that is not negative. Ranks lie in 1 .. n, n in 1 .. 2^32 - 1,
/// no value is NaN. Linear time.
template <typename T>
util::Extremes<T> BoundsOfRanks(const T* data, std::size_t n, std::size_t maxRank, std::size_t minRank);

}  // namespace KestCommon

#endif  // KEST_ACTIVATION_CALIB_PERCENTILE_H_
