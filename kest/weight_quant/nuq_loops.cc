#include <kest/weight_quant/nuq_loops.h>

#include <kest/kernel_frame/grid.h>
#include <kest/kernel_frame/rounding.h>

#include <cstdint>

namespace KestCommon {
namespace {

/// Adds an element to the sums of a least-squares fit.
KEST_INLINE void AddToFit(float x, float code, float& product, float& square) {
    product = util::Fma(x, code, product);
    square += code * code;
}
KEST_INLINE void AddToFit(double x, double code, double& product, double& square) {
    product = util::Fma(x, code, product);
    square = util::Fma(code, code, square);
}

}  // namespace

template <typename Isa, typename T>
void NuqLoops<Isa, T>::ToGrid(const T* x, std::size_t n, T scale, T offset, T* grid) {
    for (std::size_t i = 0; i < n; ++i) {
        const T quotient = x[i] / scale;
        const T value = (quotient == quotient ? quotient : 0) + offset;
        grid[i] = util::Clamp(value, T{-128}, T{127});
    }
}

template <typename Isa, typename T>
void NuqLoops<Isa, T>::FromGrid(const T* grid, std::size_t n, T scale, T offset, T* out) {
    for (std::size_t i = 0; i < n; ++i) out[i] = (offset + grid[i]) * scale;
}

template <typename Isa, typename T>
T NuqLoops<Isa, T>::FitScale(const T* x, const T* grid, std::size_t n, T offset) {
    T product = 0;
    T square = 0;
    for (std::size_t i = 0; i < n; ++i) AddToFit(x[i], offset + grid[i], product, square);
    return product / square;
}

template <typename Isa, typename T>
T NuqLoops<Isa, T>::SumOfOffsets(const T* x, const T* grid, std::size_t n, double scale) {
    T sum = 0;
    for (std::size_t i = 0; i < n; ++i) sum = static_cast<T>(sum + (x[i] / scale - grid[i]));
    return sum;
}

template <typename Isa>
void NuqWeightLoops<Isa>::Quant(const double* x, std::size_t n, double scale, double offset, char* out) {
    for (std::size_t i = 0; i < n; ++i)
        out[i] = static_cast<char>(util::SaturateTo<int>(offset + util::RoundHalfAway(x[i] / scale)));
}

template <typename Isa>
void NuqWeightLoops<Isa>::FakeQuant(const float* x, float* out, std::size_t n, const NuqChannel& channel) {
    constexpr std::size_t kBlock = 64;
    for (std::size_t first = 0; first < n; first += kBlock) {
        const std::size_t count = n - first < kBlock ? n - first : kBlock;
        float value[kBlock];
        float smallest[kBlock];
        float nearest[kBlock];
        for (std::size_t i = 0; i < count; ++i) {
            const float code = channel.divides ? x[first + i] / channel.scale - channel.offset : x[first + i];
            value[i] = util::Clamp(code, channel.low, channel.high);
            smallest[i] = 0x1p31f;
            nearest[i] = channel.numCenters > 0 ? static_cast<float>(channel.centers[0]) : out[first + i];
        }
        for (int k = 0; k < channel.numCenters; ++k) {
            const float centre = static_cast<float>(channel.centers[k]);
            for (std::size_t i = 0; i < count; ++i) {
                // An integer, compared as the float that it is; NaN counts as 0.
                const float difference = value[i] - centre;
                const float distance = difference == difference ? __builtin_fabsf(util::Trunc(difference)) : 0;
                const bool closer = distance < smallest[i];
                smallest[i] = closer ? distance : smallest[i];
                nearest[i] = closer ? centre : nearest[i];
            }
        }
        for (std::size_t i = 0; i < count; ++i) out[first + i] = (channel.offset + nearest[i]) * channel.scale;
    }
}

template struct NuqLoops<util::KEST_LOOPS_ISA, float>;
template struct NuqLoops<util::KEST_LOOPS_ISA, double>;
template struct NuqWeightLoops<util::KEST_LOOPS_ISA>;

}  // namespace KestCommon
