#ifndef KEST_KERNEL_FRAME_EXTREMES_H_
#define KEST_KERNEL_FRAME_EXTREMES_H_

#include <kest/kernel_frame/isa.h>

#include <cstddef>

namespace util {

template <typename T>
struct Extremes {
    T min;
    T max;
};

/// Whole-array reductions at the speed of memory, on the calling thread.
template <typename Isa, typename T>
struct ArrayLoops {
    static bool HasNan(const T* x, std::size_t n);

    /// The extremes of x[0 .. n), starting from +-FLT_MAX for double too: min = x if x < min, max = x if x > max, so
    /// NaN is passed over. Which of two equal zeros stays is not settled.
    static Extremes<T> FindExtremes(const T* x, std::size_t n);
};

template <typename T>
bool HasNan(const T* x, std::size_t n) {
    bool found = false;
    DispatchIsa([&](auto isa) { found = ArrayLoops<decltype(isa), T>::HasNan(x, n); });
    return found;
}

template <typename T>
Extremes<T> FindExtremes(const T* x, std::size_t n) {
    Extremes<T> found{};
    DispatchIsa([&](auto isa) { found = ArrayLoops<decltype(isa), T>::FindExtremes(x, n); });
    return found;
}

}  // namespace util

#endif  // KEST_KERNEL_FRAME_EXTREMES_H_
