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
    typedef T Vector __attribute__((vector_size(KEST_VECTOR_BYTES)));
    constexpr std::size_t kLanes = sizeof(Vector) / sizeof(T);
    Extremes<T> found{static_cast<T>(FLT_MAX), static_cast<T>(-FLT_MAX)};
    if (n < kLanes) {
        for (std::size_t i = 0; i < n; ++i) {
            if (x[i] < found.min) found.min = x[i];
            if (x[i] > found.max) found.max = x[i];
        }
        return found;
    }

    constexpr std::size_t kVectors = 2;  // two chains hide the latency of a minimum
    Vector min[kVectors];
    Vector max[kVectors];
    for (std::size_t v = 0; v < kVectors; ++v) {
        min[v] = Vector{} + found.min;
        max[v] = Vector{} + found.max;
    }
    const auto take = [&](std::size_t v, std::size_t first) __attribute__((always_inline)) {
        Vector values;
        __builtin_memcpy(&values, x + first, sizeof values);
        min[v] = values < min[v] ? values : min[v];
        max[v] = values > max[v] ? values : max[v];
    };
    std::size_t i = 0;
    for (; i + kVectors * kLanes <= n; i += kVectors * kLanes)
        for (std::size_t v = 0; v < kVectors; ++v) take(v, i + v * kLanes);
    if (i + kLanes <= n) take(0, i);
    take(1, n - kLanes);  // the tail; an extreme does not mind elements seen twice

    T low[kLanes];
    T high[kLanes];
    min[0] = min[1] < min[0] ? min[1] : min[0];
    max[0] = max[1] > max[0] ? max[1] : max[0];
    __builtin_memcpy(low, &min[0], sizeof low);
    __builtin_memcpy(high, &max[0], sizeof high);
    for (std::size_t half = kLanes / 2; half > 0; half /= 2) {
        for (std::size_t lane = 0; lane < half; ++lane) {
            low[lane] = low[lane + half] < low[lane] ? low[lane + half] : low[lane];
            high[lane] = high[lane + half] > high[lane] ? high[lane + half] : high[lane];
        }
    }
    return {low[0], high[0]};
}

template struct ArrayLoops<KEST_LOOPS_ISA, float>;
template struct ArrayLoops<KEST_LOOPS_ISA, double>;

}  // namespace util
