#ifndef KEST_KERNEL_FRAME_ROUNDING_H_
#define KEST_KERNEL_FRAME_ROUNDING_H_

#include <kest/kernel_frame/isa.h>

#include <cstdint>
#include <limits>

namespace util {

// One name for both precisions; instructions, and calls of the C library only where the machine lacks them.
KEST_INLINE float Trunc(float x) {
    return __builtin_truncf(x);
}
KEST_INLINE double Trunc(double x) {
    return __builtin_trunc(x);
}
KEST_INLINE float Floor(float x) {
    return __builtin_floorf(x);
}
KEST_INLINE double Floor(double x) {
    return __builtin_floor(x);
}
KEST_INLINE float Fma(float a, float b, float c) {
    return __builtin_fmaf(a, b, c);
}
KEST_INLINE double Fma(double a, double b, double c) {
    return __builtin_fma(a, b, c);
}

/// Nearest integer, halves away from zero. Same bits as std::round for every value but a signalling NaN, which comes
/// back quiet. Unlike std::round it vectorises.
KEST_INLINE float RoundHalfAway(float x) {
    return Trunc(x + __builtin_copysignf(0.49999997f, x));  // the largest float below one half
}
KEST_INLINE double RoundHalfAway(double x) {
    return Trunc(x + __builtin_copysign(0.49999999999999994, x));
}

/// Truncates toward zero; what Int cannot hold becomes its nearest limit, NaN becomes 0.
template <typename Int, typename T>
KEST_INLINE Int SaturateTo(T x) {
    constexpr Int kMin = std::numeric_limits<Int>::min();
    constexpr Int kMax = std::numeric_limits<Int>::max();
    // Both bounds as T: the lower one is exact, the upper one is exact or rounds to the first value too large.
    constexpr T kLow = static_cast<T>(kMin);
    constexpr T kHigh = static_cast<T>(kMax);
    if (x >= kHigh) return kMax;
    if (x <= kLow) return kMin;
    return x == x ? static_cast<Int>(x) : 0;
}

/// 2 to the power of `exponent` in double precision; infinity above 1023, 0 below -1074. An unsigned `numBits - 1` that
/// wrapped around is such a case.
KEST_INLINE double PowerOfTwo(int64_t exponent) {
    if (exponent > 1023) return std::numeric_limits<double>::infinity();
    return exponent < -1074 ? 0.0 : __builtin_ldexp(1.0, static_cast<int>(exponent));
}

}  // namespace util

#endif  // KEST_KERNEL_FRAME_ROUNDING_H_
