#ifndef KEST_KERNEL_FRAME_FAKE_QUANT_H_
#define KEST_KERNEL_FRAME_FAKE_QUANT_H_

#include <kest/kernel_frame/grid.h>
#include <kest/kernel_frame/isa.h>

#include <cstddef>

namespace util {

template <typename Isa, typename T>
struct FakeQuantLoops {
    static void FakeQuant(T* x, std::size_t n, float scale, int offset, Grid grid);
};

/// Fake-quantises n elements in place with one scale and offset: x / scale in the precision of T, rounded to a 32-bit
/// integer (saturating, NaN gives 0), plus the offset, clamped to the grid; x = float(code - offset) * scale in single
/// precision. Any values and any scale.
template <typename T>
void FakeQuant(T* x, std::size_t n, float scale, int offset, Grid grid) {
    DispatchIsa([&](auto isa) { FakeQuantLoops<decltype(isa), T>::FakeQuant(x, n, scale, offset, grid); });
}

}  // namespace util

#endif  // KEST_KERNEL_FRAME_FAKE_QUANT_H_
