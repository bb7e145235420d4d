#ifndef KEST_WEIGHT_QUANT_ULQ_LOOPS_H_
#define KEST_WEIGHT_QUANT_ULQ_LOOPS_H_

#include <kest/kernel_frame/isa.h>

#include <cstddef>

namespace KestCommon {

/// The bounds of a forward pass and the two sums of gradients.
template <typename T>
struct UlqGradient {
    T upper;  // thresholds beyond which a value is clipped
    T lower;
    T clipMin;
    T range;
    T max;  // the sums
    T min;
};

/// The element passes of ULQ, one instance for each instruction set (isa.h).
template <typename Isa, typename T>
struct UlqLoops {
    /// out[i] = round(x / scale) * scale, x clamped. NaN stays; `out` may be `x`.
    static void FakeQuant(const T* x, T* out, std::size_t n, T lower, T upper, T scale);

    /// Adds n elements to the sums.
    static void AddGradients(const T* x, const T* grad, std::size_t n, UlqGradient<T>& gradient);
};

template <typename Isa>
struct UlqWeightLoops {
    /// out[i] = clamp(round(x[i] / step[i]), low, high) * step[i]. NaN stays; `out` may be `x`.
    static void FakeQuantColumns(const float* x, float* out, std::size_t n, const float* step, float low, float high);
};

}  // namespace KestCommon

#endif  // KEST_WEIGHT_QUANT_ULQ_LOOPS_H_
