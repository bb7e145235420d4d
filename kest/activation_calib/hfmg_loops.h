#ifndef KEST_ACTIVATION_CALIB_HFMG_LOOPS_H_
#define KEST_ACTIVATION_CALIB_HFMG_LOOPS_H_

#include <kest/activation_calib/hfmg.h>
#include <kest/kernel_frame/isa.h>

#include <cstddef>
#include <cstdint>

namespace KestCommon {

constexpr std::size_t kBinCounts = 4;  // counts for each bin, to be added up
constexpr std::size_t kZeroBins = 16;  // room behind the last bin

/// Candidate clip ranges that are evaluated together, a lane each.
constexpr int kRangeLanes = 16;
template <typename T>
struct RangeLanes {
    int32_t firstBin[kRangeLanes];
    T levelWidth[kRangeLanes];
    float loss[kRangeLanes];
};

/// The passes of HFMG, one instance for each instruction set (isa.h).
template <typename Isa, typename T>
struct HfmgLoops {
    /// Adds 1, for each of n values, to one of the kBinCounts counts of its bin j, from counts[kBinCounts * j] on:
    /// j = floor((x - minValue) / width), 0 for NaN and negative quotients, numBins - 1 beyond. width >= 2^-23, numBins
    /// 1 to 2^31 - 1. The counts of kZeroBins more bins are 0 before and after.
    static void Count(const T* x, std::size_t n, T minValue, T width, int numBins, unsigned int* counts);

    /// Adds the loss of all bins, `width` wide, to each lane; may stop once every lane's loss exceeds `enough`.
    ///
    /// A lane's loss does not fall from one bin to the next: of a bin that is split between levels either part can come
    /// out slightly negative, by rounding, but the other one outweighs it, by a factor of some 2^19 / numBins in single
    /// precision.
    static void AddLoss(const DataBin<T>* bins, std::size_t numBins, T width, unsigned int numLevels, float enough,
                        RangeLanes<T>& lanes);
};

}  // namespace KestCommon

#endif  // KEST_ACTIVATION_CALIB_HFMG_LOOPS_H_
