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

constexpr std::size_t kBlock = 256;

/// What the gradients of a block of elements count in each of the two sums.
template <typename T, std::size_t kSize>
struct UlqFactors {
    T max[kSize];
    T min[kSize];

    /// The factors of n elements, from number `first` of the block on.
    KEST_INLINE void Set(const T* x, std::size_t n, std::size_t first, T clippedError, const UlqGradient<T>& gradient) {
        for (std::size_t i = 0; i < n; ++i) {
            const bool above = x[i] > gradient.upper;
            const bool below = !above && x[i] < gradient.lower;
            const T error = above || below ? clippedError : RoundingError(x[i] * 255 / gradient.range);
            max[first + i] = above ? 1 + error : error;
            min[first + i] = below ? 1 - error : -error;
        }
    }

    KEST_INLINE void Add(const T* grad, std::size_t n, std::size_t first, UlqGradient<T>& gradient) const {
        for (std::size_t i = 0; i < n; ++i) {
            gradient.max = util::Fma(max[first + i], grad[i], gradient.max);
            gradient.min = util::Fma(min[first + i], grad[i], gradient.min);
        }
    }
};

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
    constexpr std::size_t kStep = 16;
    UlqFactors<T, kBlock> factors;
    UlqGradient<T> local = gradient;  // in registers
    const T clippedError = RoundingError(gradient.clipMin * 255 / gradient.range);
    // The sums wait for one fused step after the other; meanwhile the factors of the next block are computed.
    const std::size_t numBlocks = n / kBlock;
    if (numBlocks > 0) factors.Set(x, kBlock, 0, clippedError, local);
    for (std::size_t block = 0; block < numBlocks; ++block, x += kBlock, grad += kBlock) {
        const bool isLast = block + 1 == numBlocks;
        for (std::size_t i = 0; i < kBlock; i += kStep) {
            factors.Add(grad + i, kStep, i, local);
            if (!isLast) factors.Set(x + kBlock + i, kStep, i, clippedError, local);
        }
    }
    factors.Set(x, n % kBlock, 0, clippedError, local);
    factors.Add(grad, n % kBlock, 0, local);
    gradient = local;
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
