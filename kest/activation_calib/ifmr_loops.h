#ifndef KEST_ACTIVATION_CALIB_IFMR_LOOPS_H_
#define KEST_ACTIVATION_CALIB_IFMR_LOOPS_H_

#include <cstddef>

namespace KestCommon {

constexpr int kLaneGroup = 8;  // candidates advance in multiples of this many lanes

/// Clip ranges side by side, one a lane.
template <typename T>
struct ClipLanes {
    const T* above;  // a lane clips to [-below, above]
    const T* below;
    const T* scale;
    float* loss;  // the sum of its squared errors / count, added in element order in single precision
};

/// The element passes of IFMR, one instance for each instruction set (isa.h).
template <typename Isa, typename T>
struct IfmrLoops {
    /// Adds the terms of x[0 .. n) to the losses of `numLanes` lanes, a multiple of kLaneGroup. `count` is the number
    /// of elements over all calls, which divides each term. `zeroInside`: every lane has above >= 0, below >= 0 and a
    /// scale in [2^-23, 2^23].
    static void AddLoss(const T* x, std::size_t n, T count, ClipLanes<T> lanes, int numLanes, bool zeroInside);
};

}  // namespace KestCommon

#endif  // KEST_ACTIVATION_CALIB_IFMR_LOOPS_H_
