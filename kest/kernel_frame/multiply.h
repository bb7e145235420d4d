#ifndef KEST_KERNEL_FRAME_MULTIPLY_H_
#define KEST_KERNEL_FRAME_MULTIPLY_H_

#include <kest/kernel_frame/axis.h>
#include <kest/kernel_frame/isa.h>

#include <cstddef>

namespace util {

template <typename Isa, typename T>
struct MultiplyLoops {
    /// out[i] = x[i] * the factor of element i, for i from begin to end - 1; `out` may be `x`.
    static void AlongAxis(const T* x, T* out, std::size_t begin, std::size_t end, Axis axis, const T* factors);
};

}  // namespace util

#endif  // KEST_KERNEL_FRAME_MULTIPLY_H_
