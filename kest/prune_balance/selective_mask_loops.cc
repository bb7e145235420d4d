#include <kest/prune_balance/selective_mask_loops.h>

#include <kest/kernel_frame/transpose.h>

#include <cstdint>
#include <limits>

namespace SelectiveMaskGenKernel {
namespace {

/// Magnitudes as integers: in the order of the numbers, all NaN equal and above.
template <typename T>
struct Magnitude;
template <>
struct Magnitude<float> {
    using Int = int32_t;
    static constexpr Int kAllButSign = std::numeric_limits<Int>::max();
    static constexpr Int kNan = 0x7F800001;
};
template <>
struct Magnitude<double> {
    using Int = int64_t;
    static constexpr Int kAllButSign = std::numeric_limits<Int>::max();
    static constexpr Int kNan = 0x7FF0000000000001;
};

/// SelectiveMaskLoops::Choose with vectors of kBytes, which hold at most `width` values.
template <std::size_t kBytes, typename T>
KEST_INLINE void ChooseInLanes(const T* values, std::size_t stride, std::size_t width, std::size_t groupSize,
                               std::size_t keepNum, std::size_t numOut, T* const* keep) {
    using Int = typename Magnitude<T>::Int;
    typedef T Values __attribute__((vector_size(kBytes)));
    typedef Int Ints __attribute__((vector_size(kBytes)));
    constexpr std::size_t kLanes = kBytes / sizeof(T);
    const Int limit = static_cast<Int>(keepNum < groupSize ? keepNum : groupSize);
    Ints magnitude[kMaxRanked];
    for (std::size_t t = 0; t < width; t += kLanes) {
        if (t + kLanes > width) t = width - kLanes;  // the tail, some of it for the second time
        for (std::size_t k = 0; k < groupSize; ++k) {
            Ints bits;
            __builtin_memcpy(&bits, values + k * stride + t, sizeof bits);
            bits &= Magnitude<T>::kAllButSign;
            magnitude[k] = bits > Magnitude<T>::kNan ? Ints{} + Magnitude<T>::kNan : bits;
        }
        for (std::size_t k = 0; k < numOut; ++k) {
            const Ints own = magnitude[k];
            Ints rank{};
            for (std::size_t other = 0; other < k; ++other) rank -= magnitude[other] >= own;
            for (std::size_t other = k + 1; other < groupSize; ++other) rank -= magnitude[other] > own;
            const Values kept = rank < limit ? Values{} + 1 : Values{};
            __builtin_memcpy(keep[k] + t, &kept, sizeof kept);
        }
    }
}

}  // namespace

template <typename Isa, typename T>
void SelectiveMaskLoops<Isa, T>::Choose(const T* values, std::size_t stride, std::size_t width, std::size_t groupSize,
                                        std::size_t keepNum, std::size_t numOut, T* const* keep) {
    constexpr std::size_t kHalf = KEST_VECTOR_BYTES > 32 ? 32 : 16;
    if (width * sizeof(T) >= KEST_VECTOR_BYTES) {
        ChooseInLanes<KEST_VECTOR_BYTES>(values, stride, width, groupSize, keepNum, numOut, keep);
    } else if (width * sizeof(T) >= kHalf) {
        ChooseInLanes<kHalf>(values, stride, width, groupSize, keepNum, numOut, keep);
    } else {
        ChooseInLanes<16>(values, stride, width, groupSize, keepNum, numOut, keep);
    }
}

template <typename Isa, typename T>
void SelectiveMaskLoops<Isa, T>::Transpose(const T* in, std::size_t inStride, std::size_t numRows,
                                           std::size_t numColumns, T* out, std::size_t outStride) {
    util::Transpose(in, inStride, numRows, numColumns, out, outStride);
}

template struct SelectiveMaskLoops<util::KEST_LOOPS_ISA, float>;
template struct SelectiveMaskLoops<util::KEST_LOOPS_ISA, double>;

}  // namespace SelectiveMaskGenKernel
