#ifndef KEST_WEIGHT_QUANT_NUQ_LOOPS_H_
#define KEST_WEIGHT_QUANT_NUQ_LOOPS_H_

#include <kest/kernel_frame/isa.h>

#include <cstddef>

namespace KestCommon {

/// The element passes of NUQ over one channel, one instance for each instruction set (isa.h).
template <typename Isa, typename T>
struct NuqLoops {
    /// grid[i] = clamp(x[i] / scale + offset, -128, 127), a NaN quotient counting as 0.
    static void ToGrid(const T* x, std::size_t n, T scale, T offset, T* grid);

    /// out[i] = (offset + grid[i]) * scale.
    static void FromGrid(const T* grid, std::size_t n, T scale, T offset, T* out);

    /// The scale with the least squared error for the given codes.
    static T FitScale(const T* x, const T* grid, std::size_t n, T offset);

    /// The sum of x[i] / scale - grid[i], each term in double precision, rounded to T after each addition.
    static T SumOfOffsets(const T* x, const T* grid, std::size_t n, double scale);
};

/// A channel whose factors and centres are given.
struct NuqChannel {
    const int* centers;
    int numCenters;
    float low;  // the grid
    float high;
    bool divides;  // false: the weights are on the grid already
    float scale;
    float offset;
};

template <typename Isa>
struct NuqWeightLoops {
    /// out[i] = the low 8 bits of round(x[i] / scale) + offset.
    static void Quant(const double* x, std::size_t n, double scale, double offset, char* out);

    /// out[i] = (offset + centre) * scale, the first of the centres at the smallest truncated distance to x[i] on the
    /// grid; distances from 2^31 on are equal. Without centres out[i] itself is the centre. `out` may be `x`.
    static void FakeQuant(const float* x, float* out, std::size_t n, const NuqChannel& channel);
};

}  // namespace KestCommon

#endif  // KEST_WEIGHT_QUANT_NUQ_LOOPS_H_
