#include <kest/weight_quant/search_n_loops.h>

#include <kest/kernel_frame/grid.h>
#include <kest/kernel_frame/rounding.h>

#include <cstdint>

namespace KestCommon {
namespace {

constexpr std::size_t kBlock = 256;  // quotients that are computed at once
constexpr int kLow = -32768;         // what 16 bits hold
constexpr int kHigh = 32767;

/// What a shift makes of q, less q; `shifted` is q / factor.
template <typename T>
KEST_INLINE T ErrorOf(T q, T shifted, T factor) {
    return util::Fma(util::Clamp(util::Floor(shifted), T{kLow}, T{kHigh}), factor, -q);
}

template <typename T>
struct Factors {
    T factor[kNumShifts];
    T reciprocal[kNumShifts];  // a power of two: multiplying is dividing

    KEST_INLINE Factors() {
        for (int lane = 0; lane < kNumShifts; ++lane) {
            factor[lane] = static_cast<T>(2 << lane);
            reciprocal[lane] = 1 / factor[lane];
        }
    }
};

/// Adds the error of each quotient to the sums, add(sum, error) at a time. `Add` is inlined.
template <typename T, typename Add>
KEST_INLINE void AddErrorsOfQuotients(const T* x, std::size_t n, T scale, T* sums, Add add) {
    const Factors<T> factors;
    T sum[kNumShifts];
    for (int lane = 0; lane < kNumShifts; ++lane) sum[lane] = sums[lane];
    T quotients[kBlock];
    while (n > 0) {
        const std::size_t count = n < kBlock ? n : kBlock;
        for (std::size_t i = 0; i < count; ++i) quotients[i] = util::RoundHalfAway(x[i] / scale);
        for (std::size_t i = 0; i < count; ++i) {
            const T q = quotients[i];
            for (int lane = 0; lane < kNumShifts; ++lane)
                sum[lane] = add(sum[lane], ErrorOf(q, q * factors.reciprocal[lane], factors.factor[lane]));
        }
        x += count;
        n -= count;
    }
    for (int lane = 0; lane < kNumShifts; ++lane) sums[lane] = sum[lane];
}

}  // namespace

template <typename Isa, typename T>
void ShiftLoops<Isa, T>::AddErrors(const T* x, std::size_t n, T scale, T* sums) {
    AddErrorsOfQuotients(
        x, n, scale, sums, [](T sum, T error) __attribute__((always_inline)) { return sum + error * error; });
}

template <typename Isa>
void SearchNLoops<Isa>::AddErrors(const float* x, std::size_t n, float scale, float* sums) {
    AddErrorsOfQuotients(
        x, n, scale, sums,
        [](float sum, double error) __attribute__((always_inline)) { return static_cast<float>(sum + error * error); });
}

template <typename Isa>
void SearchNLoops<Isa>::AddErrors(const int* x, std::size_t n, double* sums) {
    constexpr int kLanes = 8;
    constexpr int kVectors = kNumShifts / kLanes;
    typedef int32_t Ints __attribute__((vector_size(kLanes * 4)));
    typedef double Doubles __attribute__((vector_size(kLanes * 8)));
    Doubles sum[kVectors];
    Ints shift[kVectors];
    __builtin_memcpy(sum, sums, sizeof sum);
    for (int lane = 0; lane < kNumShifts; ++lane) shift[lane / kLanes][lane % kLanes] = lane + 1;
    for (std::size_t i = 0; i < n; ++i) {
        const Ints value = Ints{} + x[i];
        const Ints sign = value >> 31;
        for (int v = 0; v < kVectors; ++v) {
            Ints quotient = (value + (sign & ((1 << shift[v]) - 1))) >> shift[v];  // toward zero
            quotient = quotient < kLow ? Ints{} + kLow : quotient;
            quotient = quotient > kHigh ? Ints{} + kHigh : quotient;
            const Doubles error = __builtin_convertvector((quotient << shift[v]) - value, Doubles);
            sum[v] += error * error;
        }
    }
    __builtin_memcpy(sums, sum, sizeof sum);
}

template <typename Isa>
void SearchNLoops<Isa>::Errors(const float* x, std::size_t n, double* errors, int factor) {
    const float floatFactor = static_cast<float>(factor);
    for (std::size_t i = 0; i < n; ++i) {
        const double error = ErrorOf(x[i], x[i] / floatFactor, floatFactor);
        errors[i] = error * error;
    }
}

template <typename Isa>
void SearchNLoops<Isa>::Errors(const int* x, std::size_t n, double* errors, int factor) {
    for (std::size_t i = 0; i < n; ++i) {
        const uint32_t shifted =
            static_cast<uint32_t>(util::Clamp(x[i] / factor, kLow, kHigh)) * static_cast<uint32_t>(factor);
        const double error = static_cast<int32_t>(shifted - static_cast<uint32_t>(x[i]));  // wraps beyond 65536
        errors[i] = error * error;
    }
}

template struct ShiftLoops<util::KEST_LOOPS_ISA, float>;
template struct ShiftLoops<util::KEST_LOOPS_ISA, double>;
template struct SearchNLoops<util::KEST_LOOPS_ISA>;

}  // namespace KestCommon
