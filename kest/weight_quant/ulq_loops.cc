#include <kest/weight_quant/ulq_loops.h>

#include <kest/kernel_frame/grid.h>
#include <kest/kernel_frame/rounding.h>

namespace KestCommon {
namespace {

/// By how much rounding moves r, in units of the range.
KEST_INLINE float RoundingError(float r) {
    return static_cast<float>((double{util::RoundHalfAway(r)} - double{r}) * double{1.0f / 255.0f});
}
KEST_INLINE double RoundingError(double r) {
    return (util::RoundHalfAway(r) - r) * (1.0 / 255.0);
}

KEST_INLINE float Fma(float a, float b, float c) {
    return __builtin_fmaf(a, b, c);
}
KEST_INLINE double Fma(double a, double b, double c) {
    return __builtin_fma(a, b, c);
}

}  // namespace

template <typename Isa, typename T>
void UlqLoops<Isa, T>::FakeQuant(const T* x, T* out, std::size_t n, T lower, T upper, T scale) {
    KEST_IVDEP
    for (std::size_t i = 0; i < n; ++i) {
        T value = x[i];
        value = value < lower ? lower : (value > upper ? upper : value);
        out[i] = util::RoundHalfAway(value / scale) * scale;
    }
}

template <typename Isa, typename T>
void UlqLoops<Isa, T>::AddGradients(const T* x, const T* grad, std::size_t n, UlqGradient<T>& gradient) {
    constexpr std::size_t kBlock = 256;
    T maxFactor[kBlock];  // what the gradient of an element counts in each of the sums
    T minFactor[kBlock];
    const T upper = gradient.upper;
    const T lower = gradient.lower;
    const T range = gradient.range;
    const T clippedError = RoundingError(gradient.clipMin * 255 / range);
    T max = gradient.max;
    T min = gradient.min;
    while (n > 0) {
        const std::size_t count = n < kBlock ? n : kBlock;
        for (std::size_t i = 0; i < count; ++i) {
            const bool above = x[i] > upper;
            const bool below = !above && x[i] < lower;
            const T error = above || below ? clippedError : RoundingError(x[i] * 255 / range);
            maxFactor[i] = above ? 1 + error : error;
            minFactor[i] = below ? 1 - error : -error;
        }
        for (std::size_t i = 0; i < count; ++i) {
            max = Fma(maxFactor[i], grad[i], max);
            min = Fma(minFactor[i], grad[i], min);
        }
        x += count;
        grad += count;
        n -= count;
    }
    gradient.max = max;
    gradient.min = min;
}

template <typename Isa>
void UlqWeightLoops<Isa>::FakeQuantColumns(const float* x, float* out, std::size_t n, const float* step, float low,
                                           float high) {
    KEST_IVDEP
    for (std::size_t i = 0; i < n; ++i) out[i] = util::Clamp(util::RoundHalfAway(x[i] / step[i]), low, high) * step[i];
}

template struct UlqLoops<util::KEST_LOOPS_ISA, float>;
template struct UlqLoops<util::KEST_LOOPS_ISA, double>;
template struct UlqWeightLoops<util::KEST_LOOPS_ISA>;

}  // namespace KestCommon
