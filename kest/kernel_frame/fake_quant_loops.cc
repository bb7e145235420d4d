#include <kest/kernel_frame/division.h>
#include <kest/kernel_frame/fake_quant.h>

namespace util {

template <typename Isa, typename T>
void FakeQuantLoops<Isa, T>::FakeQuant(T* x, std::size_t n, float scale, int offset, Grid grid) {
    if (MovedBoundsAreSmall(grid, offset) && scale >= 0x1p-23f && scale <= 0x1p23f) {
        // Clamping x to what the bounds stand for is clamping the quotient to the bounds, and keeps it finite.
        const Divider<T> quotient(scale);
        const T low = static_cast<T>(grid.low - offset) * scale;
        const T high = static_cast<T>(grid.high - offset) * scale;
        for (std::size_t i = 0; i < n; ++i) {
            const T value = x[i] == x[i] ? x[i] : T{0};
            const T moved = RoundHalfAway(quotient(Clamp(value, low, high)));
            // + 0: an integer zero has no sign. Through an int it keeps one: GCC 12 makes a truncation of that.
            x[i] = (static_cast<float>(moved) + 0.0f) * scale;
        }
    } else {
        for (std::size_t i = 0; i < n; ++i) {
            const int64_t code = int64_t{SaturateTo<int>(RoundHalfAway(x[i] / scale))} + offset;
            x[i] = static_cast<float>(ClampCode(code, grid) - offset) * scale;
        }
    }
}

template struct FakeQuantLoops<KEST_LOOPS_ISA, float>;
template struct FakeQuantLoops<KEST_LOOPS_ISA, double>;

}  // namespace util
