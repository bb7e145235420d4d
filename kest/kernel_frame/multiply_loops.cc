#include <kest/kernel_frame/multiply.h>

namespace util {

template <typename Isa, typename T>
void MultiplyLoops<Isa, T>::AlongAxis(const T* x, T* out, std::size_t begin, std::size_t end, Axis axis,
                                      const T* factors) {
    const auto one = [=](std::size_t first, std::size_t n, std::size_t entry) __attribute__((always_inline)) {
        const T factor = factors[entry];
        KEST_IVDEP
        for (std::size_t i = first; i < first + n; ++i) out[i] = x[i] * factor;
    };
    const auto each = [=](std::size_t first, std::size_t n, const T* const* columns) __attribute__((always_inline)) {
        KEST_IVDEP
        for (std::size_t i = 0; i < n; ++i) out[first + i] = x[first + i] * columns[0][i];
    };
    const T* const tables[] = {factors};
    ForEachFactor(axis, tables, begin, end, one, each);
}

template struct MultiplyLoops<KEST_LOOPS_ISA, float>;
template struct MultiplyLoops<KEST_LOOPS_ISA, double>;

}  // namespace util
