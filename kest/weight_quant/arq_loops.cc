#include <kest/weight_quant/arq_loops.h>

namespace KestCommon {
namespace {

/// The code of a rounded quotient, for any offset: the sum in double precision; a NaN quotient has code 0.
template <typename T>
KEST_INLINE int64_t CodeOf(T quotient, int offset, util::Grid grid) {
    return util::ClampCode(util::SaturateTo<int>(double{quotient} + offset), grid);
}

/// code - offset of a rounded quotient as a T, for an offset that leaves the moved bounds small.
template <typename T>
KEST_INLINE T MovedCodeOf(T quotient, T offset, util::Grid grid) {
    const T moved = quotient == quotient ? quotient : -offset;
    return util::Clamp(moved, static_cast<T>(grid.low) - offset, static_cast<T>(grid.high) - offset);
}

}  // namespace

template <typename Isa, typename T>
void ArqLoops<Isa, T>::FindColumnExtremes(const T* x, std::size_t rows, std::size_t stride, std::size_t width,
                                          T* __restrict min, T* __restrict max) {
    constexpr std::size_t kRows = 4;  // streams that the processor fetches ahead
    for (; rows >= kRows; rows -= kRows, x += kRows * stride) {
        for (std::size_t c = 0; c < width; ++c) {
            T low = min[c];
            T high = max[c];
            for (std::size_t row = 0; row < kRows; ++row) {
                const T value = x[row * stride + c];
                low = value < low ? value : low;
                high = value > high ? value : high;
            }
            min[c] = low;
            max[c] = high;
        }
    }
    for (; rows > 0; --rows, x += stride) {
        for (std::size_t c = 0; c < width; ++c) {
            min[c] = x[c] < min[c] ? x[c] : min[c];
            max[c] = x[c] > max[c] ? x[c] : max[c];
        }
    }
}

template <typename Isa, typename T>
void ArqLoops<Isa, T>::FoldColumnExtremes(std::size_t numGroups, std::size_t width, T* min, T* max) {
    for (std::size_t first = width; first < numGroups * width; first += width) {
        KEST_IVDEP
        for (std::size_t c = 0; c < width; ++c) {
            min[c] = min[first + c] < min[c] ? min[first + c] : min[c];
            max[c] = max[first + c] > max[c] ? max[first + c] : max[c];
        }
    }
}

template <typename Isa, typename T>
void ArqLoops<Isa, T>::FakeQuantColumns(const T* x, T* out, std::size_t n, const float* scale, const int* offset,
                                        util::Grid grid, bool small) {
    if (small) {
        KEST_IVDEP
        for (std::size_t i = 0; i < n; ++i) {
            const T moved = MovedCodeOf(util::RoundHalfAway(x[i] / scale[i]), static_cast<T>(offset[i]), grid);
            out[i] = (static_cast<float>(moved) + 0.0f) * scale[i];  // + 0: the integer zero has no sign
        }
    } else {
        for (std::size_t i = 0; i < n; ++i) {
            const int64_t code = CodeOf(util::RoundHalfAway(x[i] / scale[i]), offset[i], grid);
            out[i] = static_cast<float>(code - offset[i]) * scale[i];
        }
    }
}

template <typename Isa, typename T>
void ArqLoops<Isa, T>::Quant(const T* x, char* __restrict out, std::size_t n, float scale, int offset,
                             util::Grid grid) {
    if (util::MovedBoundsAreSmall(grid, offset)) {
        const T zero = static_cast<T>(offset);
        for (std::size_t i = 0; i < n; ++i) {
            const T moved = MovedCodeOf(util::RoundHalfAway(x[i] / scale), zero, grid);
            out[i] = static_cast<char>(static_cast<int>(moved + zero));  // a code: within the 32-bit grid
        }
    } else {
        for (std::size_t i = 0; i < n; ++i)
            out[i] = static_cast<char>(CodeOf(util::RoundHalfAway(x[i] / scale), offset, grid));
    }
}

template struct ArqLoops<util::KEST_LOOPS_ISA, float>;
template struct ArqLoops<util::KEST_LOOPS_ISA, double>;

}  // namespace KestCommon
