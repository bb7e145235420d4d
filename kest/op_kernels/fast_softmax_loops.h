#ifndef KEST_OP_KERNELS_FAST_SOFTMAX_LOOPS_H_
#define KEST_OP_KERNELS_FAST_SOFTMAX_LOOPS_H_

#include <kest/kernel_frame/isa.h>

#include <cstddef>

namespace KestTfOp {

/// The polynomial of fast_softmax.h.
struct SoftmaxPolynomial {
    double square;
    double cube;
    float threshold;
};

/// The passes over rows of `width` elements, one instance for each instruction set (isa.h).
template <typename Isa, typename T>
struct FastSoftmaxLoops {
    /// The greatest element of a row above `max`, the first of equal ones, else `max`.
    static T FindMax(const T* x, std::size_t width, T max);

    /// The polynomial of a row's differences to its maximum; `out` may be `x`.
    static void Exp(const T* x, T* out, std::size_t width, T max, const SoftmaxPolynomial& polynomial);

    /// Adds the elements of each row to its sum, in index order.
    static void AddRows(const T* x, std::size_t numRows, std::size_t width, T* sums);

    static void Divide(T* x, std::size_t width, T sum);
};

}  // namespace KestTfOp

#endif  // KEST_OP_KERNELS_FAST_SOFTMAX_LOOPS_H_
