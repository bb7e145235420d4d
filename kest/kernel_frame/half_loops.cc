#include <kest/kernel_frame/half_loops.h>

namespace util {

template <typename Isa>
void HalfLoops<Isa>::ToFloat(const uint16_t* __restrict in, float* __restrict out, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) out[i] = HalfToFloat(in[i]);
}

template <typename Isa>
void HalfLoops<Isa>::ToHalf(const float* __restrict in, uint16_t* __restrict out, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) out[i] = FloatToHalf(in[i]);
}

template struct HalfLoops<KEST_LOOPS_ISA>;

}  // namespace util
