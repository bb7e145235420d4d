#ifndef KEST_KERNEL_FRAME_HALF_LOOPS_H_
#define KEST_KERNEL_FRAME_HALF_LOOPS_H_

#include <kest/kernel_frame/isa.h>

#include <cstddef>
#include <cstdint>

namespace util {

/// numeric_helpers.h tells what the conversions do. Written as choices between integers, so that loops over them
/// vectorise; the conversion of a subnormal half is a product, exact like any other of its kind.
KEST_INLINE float HalfToFloat(uint16_t half) {
    const uint32_t sign = uint32_t{half & 0x8000u} << 16;
    const uint32_t rest = half & 0x7FFFu;
    const float scaled = static_cast<float>(static_cast<int32_t>(rest)) * 0x1p-24f;
    uint32_t subnormal;
    __builtin_memcpy(&subnormal, &scaled, sizeof subnormal);
    const uint32_t rebias = rest < 0x7C00u ? 112u << 23 : 224u << 23;  // infinity and NaN: to the last exponent
    const uint32_t bits = sign | (rest < 0x0400u ? subnormal : (rest << 13) + rebias);
    float value;
    __builtin_memcpy(&value, &bits, sizeof value);
    return value;
}

/// All ones if `condition`, else 0. A choice by masks: GCC 12 makes branches of nested conditions.
KEST_INLINE uint32_t MaskIf(bool condition) {
    return -uint32_t{condition};
}

KEST_INLINE uint16_t FloatToHalf(float value) {
    uint32_t bits;
    __builtin_memcpy(&bits, &value, sizeof bits);
    const uint32_t rest = bits & 0x7FFFFFFFu;
    constexpr uint32_t kInfinity = 0x7F800000u;
    constexpr uint32_t kLargest = 0x477FE000u;  // 65504
    const uint32_t finite = ((rest < kLargest ? rest : kLargest) >> 13) - (112u << 10);
    const uint32_t ordinary = finite & MaskIf(rest >= 0x38800000u);                         // from 2^-14 on
    const uint32_t payload = (0x0200u | (rest >> 13 & 0x3FFu)) & MaskIf(rest > kInfinity);  // quiet
    const uint32_t special = MaskIf(rest >= kInfinity);
    const uint32_t half = (ordinary & ~special) | ((0x7C00u | payload) & special);
    return static_cast<uint16_t>((bits >> 16 & 0x8000u) | half);
}

template <typename Isa>
struct HalfLoops {
    static void ToFloat(const uint16_t* in, float* out, std::size_t n);
    static void ToHalf(const float* in, uint16_t* out, std::size_t n);
};

}  // namespace util

#endif  // KEST_KERNEL_FRAME_HALF_LOOPS_H_
