#ifndef KEST_PRUNE_BALANCE_MASK_OUT_H_
#define KEST_PRUNE_BALANCE_MASK_OUT_H_

#include <kest/kernel_frame/export.h>
#include <kest/kernel_frame/status.h>
#include <kest/kernel_frame/views.h>

/// \file
/// Masks over two axes of a tensor, 1 where a pair of channels is kept and 0 where it is pruned. A mask is a dense
/// row-major array of rowNum * colNum values. Arrays are borrowed for the call; all work is parallel with OpenMP's
/// default team, and nothing happens for `length` below 1. T = float, double.

namespace KestTfOp {

/// How a mask lies over a tensor: element i has row (i / rowStride) mod rowNum and column (i / colStride) mod colNum.
/// For weights with the output channel last and the input channel before it, colStride is 1 and rowStride the number
/// of output channels.
struct KEST_EXPORT MaskParam {
    int length;     ///< of the tensor
    int rowStride;  ///< elements from one row to the next
    int colStride;  ///< elements from one column to the next
    int rowNum;     ///< number of rows
    int colNum;     ///< number of columns
};

/// Two copies of a mask.
template <typename T>
struct MaskGenParam {
    int rowNum;    ///< unread
    int colNum;    ///< number of columns
    int length;    ///< rowNum * colNum
    T* outMask;    ///< the mask handed to the graph
    T* savedMask;  ///< and the caller's own, kept between calls
};

template <typename Device, typename T>
struct KEST_EXPORT GenerateMask;
template <typename Device, typename T>
struct KEST_EXPORT IdentityMask;
template <typename Device, typename T>
struct KEST_EXPORT MaskOut;

/// Keeps entry i of both masks where rowMask[i / colNum] and colMask[i mod colNum] are not 0 (NaN is not). Returns 0,
/// or EMPTY_INPUT_ERROR without a message or a write for colNum below 1.
template <>
struct KEST_EXPORT GenerateMask<util::ThreadPoolDevice, float> {
    int operator()(const float* rowMask, const float* colMask, MaskGenParam<float> param) const;
};
/// The same for double.
template <>
struct KEST_EXPORT GenerateMask<util::ThreadPoolDevice, double> {
    int operator()(const double* rowMask, const double* colMask, MaskGenParam<double> param) const;
};

/// Hands out the saved mask again: outMask = savedMask. Always 0.
template <>
struct KEST_EXPORT IdentityMask<util::ThreadPoolDevice, float> {
    int operator()(MaskGenParam<float> param) const;
};
/// The same for double.
template <>
struct KEST_EXPORT IdentityMask<util::ThreadPoolDevice, double> {
    int operator()(MaskGenParam<double> param) const;
};

/// out[i] = mask entry of element i * data[i]; `out` may be `data`. Always 0. Strides and sizes below 1 count as 1.
/// May need memory for a copy of the mask, and for 65536 entries.
template <>
struct KEST_EXPORT MaskOut<util::ThreadPoolDevice, float> {
    int operator()(MaskParam param, const float* mask, const float* data, float* out) const;
};
/// The same for double.
template <>
struct KEST_EXPORT MaskOut<util::ThreadPoolDevice, double> {
    int operator()(MaskParam param, const double* mask, const double* data, double* out) const;
};

}  // namespace KestTfOp

#endif  // KEST_PRUNE_BALANCE_MASK_OUT_H_
