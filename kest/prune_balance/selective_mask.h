#ifndef KEST_PRUNE_BALANCE_SELECTIVE_MASK_H_
#define KEST_PRUNE_BALANCE_SELECTIVE_MASK_H_

#include <kest/kernel_frame/export.h>
#include <kest/kernel_frame/status.h>
#include <kest/kernel_frame/views.h>

#include <vector>

/// \file
/// N-of-M masks along one axis of a weight tensor (Mishra et al., "Accelerating Sparse Deep Neural Networks", 2021): of
/// every M consecutive selected channels, at each position of the other axes, the N of largest magnitude are kept.
/// Equal magnitudes keep the lower index; NaN counts as larger than every number, so that it is kept and seen.
/// T = float, double.

/// N-of-M masks, as framework operators call them.
namespace SelectiveMaskGenKernel {

/// How many weights are kept, and along which axis.
struct KEST_EXPORT SelectivePruneParam {
    unsigned int axis;                ///< of the channels, in `shape`
    unsigned int groupSize;           ///< M
    unsigned int keepNum;             ///< N; M and more keep all
    std::vector<unsigned int> shape;  ///< outermost first
};

/// shape[from] * ... * shape[to - 1] modulo 2^32; 1 for from >= to. `to` is at most the number of dimensions.
KEST_EXPORT unsigned int ComputeProduct(std::vector<unsigned int>& shape, unsigned int from, unsigned int to);

/// Orders the indices by decreasing magnitude of values[index] and keeps the first n.
template <typename T>
KEST_EXPORT void GetNOutOfM(unsigned int n, std::vector<unsigned int>& indices, const T* values);

template <typename Device, typename T>
struct KEST_EXPORT ComputeMask;
template <typename Device, typename T>
struct KEST_EXPORT IdentityMask;

/// The mask of a dense tensor `data`, in its layout: 1 where kept, 0 where pruned. Channel c is selected if
/// channelSelect[c], one value a channel, is at least 1 in magnitude. Positions of other channels are not written.
///
/// `gathered` is a workspace of the caller's: for each outer index the selected channels side by side, then channels of
/// 0 up to the next multiple of M; outer * ceil(selected / M) * M * inner elements, all written. Those zeros take part
/// in the choice, behind equal magnitudes. The number of groups is formed in single precision, exact up to 2^24
/// selected channels.
///
/// 0; EMPTY_INPUT_ERROR with a log line, nothing written, for a shape without dimensions, whose product modulo 2^32 is
/// 0, or without the axis. Nothing happens for M = 0. Parallel with OpenMP's default team for M up to 64; needs memory
/// for the list of selected channels and for M indices.
template <>
struct KEST_EXPORT ComputeMask<util::ThreadPoolDevice, float> {
    int operator()(const float* data, const float* channelSelect, float* gathered, SelectivePruneParam param,
                   float* mask) const;
};
/// The same for double.
template <>
struct KEST_EXPORT ComputeMask<util::ThreadPoolDevice, double> {
    int operator()(const double* data, const double* channelSelect, double* gathered, SelectivePruneParam param,
                   double* mask) const;
};

/// Hands out a mask made before: copies n values. Always 0.
template <>
struct KEST_EXPORT IdentityMask<util::ThreadPoolDevice, float> {
    int operator()(unsigned int n, const float* in, float* out) const;
};
/// The same for double.
template <>
struct KEST_EXPORT IdentityMask<util::ThreadPoolDevice, double> {
    int operator()(unsigned int n, const double* in, double* out) const;
};

}  // namespace SelectiveMaskGenKernel

#endif  // KEST_PRUNE_BALANCE_SELECTIVE_MASK_H_
