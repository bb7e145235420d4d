#include <kest/kernel_frame/extremes.h>

#include <cfloat>

namespace util {

template <typename Isa, typename T>
bool ArrayLoops<Isa, T>::HasNan(const T* x, std::size_t n) {
    constexpr std::size_t kStride = 4096 / sizeof(T);  // an early end without a branch an element
    while (n > 0) {
        const std::size_t count = n < kStride ? n : kStride;
        int numNan = 0;
        for (std::size_t i = 0; i < count; ++i) numNan += x[i] != x[i];
        if (numNan > 0) return true;
        x += count;
        n -= count;
    }
    return false;
}

template <typename Isa, typename T>
Extremes<T> ArrayLoops<Isa, T>::FindExtremes(const T* x, std::size_t n) {
    typedef T Vector __attribute__((vector_size(64)));
    constexpr std::size_t kLanes = sizeof(Vector) / sizeof(T);
    constexpr std::size_t kVectors = 2;  // two chains hide the latency of a minimum
    Vector min[kVectors];
    Vector max[kVectors];
    for (std::size_t v = 0; v < kVectors; ++v) {
        min[v] = Vector{} + static_cast<T>(FLT_MAX);
        max[v] = Vector{} - static_cast<T>(FLT_MAX);
    }
    std::size_t i = 0;
    for (; i + kVectors * kLanes <= n; i += kVectors * kLanes) {
        for (std::size_t v = 0; v < kVectors; ++v) {
            Vector values;
            __builtin_memcpy(&values, x + i + v * kLanes, sizeof values);
            min[v] = values < min[v] ? values : min[v];
            max[v] = values > max[v] ? values : max[v];
        }
    }
    Extremes<T> found{static_cast<T>(FLT_MAX), static_cast<T>(-FLT_MAX)};
    for (std::size_t v = 0; v < kVectors; ++v) {
        for (std::size_t lane = 0; lane < kLanes; ++lane) {
            if (min[v][lane] < found.min) found.min = min[v][lane];
            if (max[v][lane] > found.max) found.max = max[v][lane];
        }
    }
    for (; i < n; ++i) {
        if (x[i] < found.min) found.min = x[i];
        if (x[i] > found.max) found.max = x[i];
    }
    return found;
}

template struct ArrayLoops<KEST_LOOPS_ISA, float>;
template struct ArrayLoops<KEST_LOOPS_ISA, double>;

}  // namespace util
