#ifndef KEST_OP_KERNELS_FAST_SOFTMAX_H_
#define KEST_OP_KERNELS_FAST_SOFTMAX_H_

#include <kest/kernel_frame/export.h>
#include <kest/kernel_frame/status.h>
#include <kest/kernel_frame/views.h>

#include <vector>

/// \file
/// Softmax over rows of D = dims[axis] consecutive elements with a polynomial in place of the exponential:
///
///     p(d) = b * d^3 + (a * d^2 + (d + 1))    d = x - the row's maximum, 0 for d <= threshold
///     out = p / the row's sum of p
///
/// a = 1/2 and b = 1/6 are the Taylor series of exp; p is then negative below d = -1.596, so that a lower threshold can
/// turn the order of the outputs around. For float, d and d + 1 are in single precision
/// and the rest is in double, rounded once; both outer steps are fused multiply-adds, and d^3 is the correctly rounded
/// cube. Sums are in T, in index order. NaN makes its row NaN.
///
/// The elements after the last whole row are left alone, and nothing happens where `axis` is outside `dims` or D is
/// below 1. With a threshold of 0 or more every p may be 0, and the row NaN. T = float, double.

namespace KestTfOp {

/// The polynomial and the rows.
struct KEST_EXPORT SoftmaxParam {
    float coeffSquare;      ///< a
    float coeffCube;        ///< b
    float threshold;        ///< negative
    int axis;               ///< whose dimension is D
    int length;             ///< elements, a multiple of D
    std::vector<int> dims;  ///< dimensions of the tensor
};

template <typename Device, typename T>
struct KEST_EXPORT FastSoftmaxFunctor;

/// The softmax of `length` elements; `in` and `out` may be the same array. Parallel over the rows with OpenMP's default
/// team. Always 0.
template <>
struct KEST_EXPORT FastSoftmaxFunctor<util::ThreadPoolDevice, float> {
    int operator()(const float* in, float* out, SoftmaxParam& param) const;
};
/// The same for double.
template <>
struct KEST_EXPORT FastSoftmaxFunctor<util::ThreadPoolDevice, double> {
    int operator()(const double* in, double* out, SoftmaxParam& param) const;
};

// Its steps. rowMax has an entry for each row; rows that it has no entry for are left alone.

/// Raises rowMax to the maxima of the rows: in index order, each element that is greater replaces the entry. NaN never
/// does. Start from -FLT_MAX, for double too.
template <typename T>
KEST_EXPORT void FindMaxAlongAxis(const T* in, std::vector<T>& rowMax, SoftmaxParam& param);

/// out[i] = p(in[i] - rowMax of its row). `in` and `out` may be the same array. Parallel.
template <typename T>
KEST_EXPORT void ApproximateExp(const T* in, std::vector<T>& rowMax, T* out, SoftmaxParam& param);

/// Adds the elements of each row to rowMax, zeros to begin with, and divides them by the sum. Parallel.
template <typename T>
KEST_EXPORT void ApproximateSoftmax(T* out, std::vector<T>& rowMax, SoftmaxParam& param);

}  // namespace KestTfOp

#endif  // KEST_OP_KERNELS_FAST_SOFTMAX_H_
