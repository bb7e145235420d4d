#ifndef KEST_KERNEL_FRAME_GRID_H_
#define KEST_KERNEL_FRAME_GRID_H_

#include <kest/kernel_frame/isa.h>
#include <kest/kernel_frame/rounding.h>

#include <cstdint>

// The signed integer grid [low, high] of a bit width, and the way from a quotient r = round(x / scale) to a weight:
//
//   code = clamp(r + offset, low, high),  x ~ float(code - offset) * scale
//
// With both bounds moved by the offset, code - offset = clamp(r, low - offset, high - offset) needs no integers. Where
// the moved bounds are small enough to be floats the clamped quotient is the exact float of that integer.

namespace util {

constexpr unsigned int kMaxNumBits = 31;  // the widest grid whose bounds fit 32-bit integers

/// The signed integer grid [low, high] of `numBits` bits: 8 bits give [-128, 127]. Widths above 31 saturate.
struct Grid {
    int low;
    int high;
};
KEST_INLINE Grid SignedGrid(int64_t numBits) {
    const double half = PowerOfTwo(numBits - 1);
    return {SaturateTo<int>(-half), SaturateTo<int>(half - 1.0)};
}

KEST_INLINE int64_t ClampCode(int64_t code, Grid grid) {
    if (code < grid.low) return grid.low;
    return code > grid.high ? grid.high : code;
}

/// Whether both moved bounds lie within +-2^20: exact in either precision, and the quotient of a bound times the scale
/// rounds back to the bound.
KEST_INLINE bool MovedBoundsAreSmall(Grid grid, int offset) {
    constexpr int64_t kSmall = int64_t{1} << 20;
    return int64_t{grid.low} - offset >= -kSmall && int64_t{grid.high} - offset <= kSmall;
}

template <typename T>
KEST_INLINE T Clamp(T x, T low, T high) {
    x = x < low ? low : x;
    return x > high ? high : x;
}

}  // namespace util

#endif  // KEST_KERNEL_FRAME_GRID_H_
