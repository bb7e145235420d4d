#include <kest/op_kernels/fast_softmax_loops.h>

#include <kest/kernel_frame/rounding.h>

#include <cstdint>

namespace KestTfOp {
namespace {

/// The correctly rounded cube: the square of a float is exact in double precision.
KEST_INLINE double Cube(float d) {
    const double wide = static_cast<double>(d);
    return wide * wide * wide;
}

/// The rounding errors of the square and of the product go along.
KEST_INLINE double Cube(double d) {
    const double square = d * d;
    const double squareError = util::Fma(d, d, -square);
    const double product = square * d;
    const double cube = product + (util::Fma(square, d, -product) + squareError * d);
    return __builtin_fabs(product) <= __DBL_MAX__ ? cube : product;
}

template <typename T>
KEST_INLINE T ExpOne(T d, const SoftmaxPolynomial& polynomial) {
    const double wide = static_cast<double>(d);
    const double square = util::Fma(polynomial.square, wide * wide, static_cast<double>(d + 1));
    const T value = static_cast<T>(util::Fma(polynomial.cube, Cube(d), square));
    return d <= static_cast<T>(polynomial.threshold) ? 0 : value;
}

}  // namespace

template <typename Isa, typename T>
T FastSoftmaxLoops<Isa, T>::FindMax(const T* x, std::size_t width, T max) {
    constexpr std::size_t kLanes = 64 / sizeof(T);
    T lane[kLanes];
    for (std::size_t l = 0; l < kLanes; ++l) lane[l] = max;
    std::size_t i = 0;
    for (; i + kLanes <= width; i += kLanes)
        for (std::size_t l = 0; l < kLanes; ++l) lane[l] = x[i + l] > lane[l] ? x[i + l] : lane[l];
    for (; i < width; ++i) lane[0] = x[i] > lane[0] ? x[i] : lane[0];
    T found = max;
    for (std::size_t l = 0; l < kLanes; ++l) found = lane[l] > found ? lane[l] : found;
    if (found == 0 && max < 0) {  // the lanes do not tell which zero comes first
        for (i = 0; x[i] != 0;) ++i;
        found = x[i];
    }
    return found;
}

template <typename Isa, typename T>
void FastSoftmaxLoops<Isa, T>::Exp(const T* x, T* out, std::size_t width, T max, const SoftmaxPolynomial& polynomial) {
    const SoftmaxPolynomial local = polynomial;  // `out` cannot change it
    KEST_IVDEP
    for (std::size_t i = 0; i < width; ++i) out[i] = ExpOne(x[i] - max, local);
}

template <typename Isa, typename T>
void FastSoftmaxLoops<Isa, T>::AddRows(const T* x, std::size_t numRows, std::size_t width, T* sums) {
    constexpr std::size_t kRows = 8;  // chains of additions that advance together
    std::size_t row = 0;
    for (; row + kRows <= numRows; row += kRows) {
        const T* rows = x + row * width;
        T sum[kRows];
        for (std::size_t r = 0; r < kRows; ++r) sum[r] = sums[row + r];
        for (std::size_t i = 0; i < width; ++i)
            for (std::size_t r = 0; r < kRows; ++r) sum[r] += rows[r * width + i];
        for (std::size_t r = 0; r < kRows; ++r) sums[row + r] = sum[r];
    }
    for (; row < numRows; ++row) {
        T sum = sums[row];
        for (std::size_t i = 0; i < width; ++i) sum += x[row * width + i];
        sums[row] = sum;
    }
}

template <typename Isa, typename T>
void FastSoftmaxLoops<Isa, T>::Divide(T* x, std::size_t width, T sum) {
    for (std::size_t i = 0; i < width; ++i) x[i] /= sum;
}

template struct FastSoftmaxLoops<util::KEST_LOOPS_ISA, float>;
template struct FastSoftmaxLoops<util::KEST_LOOPS_ISA, double>;

}  // namespace KestTfOp
