#ifndef KEST_WEIGHT_QUANT_SEARCH_N_LOOPS_H_
#define KEST_WEIGHT_QUANT_SEARCH_N_LOOPS_H_

#include <kest/kernel_frame/isa.h>

#include <cstddef>

namespace KestCommon {

constexpr int kNumShifts = 16;  // 1 to 16

/// The element passes of the shift searches, one instance for each instruction set (isa.h). All sixteen shifts advance
/// together, a lane each, so that the data are read once and each sum has its terms in order.
template <typename Isa, typename T>
struct ShiftLoops {
    /// sums[N - 1] += the squared error of the shift N, for n values divided by `scale` and rounded; in T throughout.
    static void AddErrors(const T* x, std::size_t n, T scale, T* sums);
};

template <typename Isa>
struct SearchNLoops {
    /// The same with each error squared and added in double precision, the sum then rounded to float.
    static void AddErrors(const float* x, std::size_t n, float scale, float* sums);

    /// The same for integers, which truncate; the sums in double precision.
    static void AddErrors(const int* x, std::size_t n, double* sums);

    /// errors[i] = the squared error of x[i] with one factor.
    static void Errors(const float* x, std::size_t n, double* errors, int factor);
    static void Errors(const int* x, std::size_t n, double* errors, int factor);
};

}  // namespace KestCommon

#endif  // KEST_WEIGHT_QUANT_SEARCH_N_LOOPS_H_
