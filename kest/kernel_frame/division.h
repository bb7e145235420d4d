#ifndef KEST_KERNEL_FRAME_DIVISION_H_
#define KEST_KERNEL_FRAME_DIVISION_H_

#include <kest/kernel_frame/isa.h>

namespace util {

/// Divides many values by one divisor: the correctly rounded quotient without the divider.
///
/// q0 = x * (1 / d) is at most 1.5 ulp off; r = x - q0 * d takes one fused step, and q0 + r * (1 / d) rounds to x / d
/// (Markstein 1990). That holds for all significands, proven by trying every quotient close enough to a rounding
/// boundary (the test), as long as q0 is finite and normal and r does not underflow: |x| >= 2^-94 with 1 <= d < 2^33,
/// or |x / d| >= 2^-2 with 2^-23 <= d <= 2^23. Zero divides exactly. Without a fused instruction, and in double
/// precision, it is a division.
template <typename T>
struct Divider {
    T divisor;

    KEST_INLINE explicit Divider(T d) : divisor(d) {}
    KEST_INLINE Divider(T d, T /*reciprocal*/) : divisor(d) {}
    KEST_INLINE T operator()(T x) const { return x / divisor; }
};

#if defined(__FMA__) || defined(__ARM_FEATURE_FMA)
template <>
struct Divider<float> {
    float divisor;
    float reciprocal;

    KEST_INLINE explicit Divider(float d) : Divider(d, 1.0f / d) {}
    KEST_INLINE Divider(float d, float oneOverD) : divisor(d), reciprocal(oneOverD) {}
    KEST_INLINE float operator()(float x) const {
        const float q0 = x * reciprocal;
        return __builtin_fmaf(__builtin_fmaf(-q0, divisor, x), reciprocal, q0);
    }
};
#endif

}  // namespace util

#endif  // KEST_KERNEL_FRAME_DIVISION_H_
