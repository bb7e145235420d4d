#ifndef KEST_KERNEL_FRAME_TRANSPOSE_H_
#define KEST_KERNEL_FRAME_TRANSPOSE_H_

#include <kest/kernel_frame/isa.h>

#include <cstddef>

namespace util {

/// Transposes 8 rows of 4 values: out[c * outStride + r] = in[r * inStride + c]. With rows 0 to 3 in the
/// lower half of a vector and rows 4 to 7 in the upper half, the shuffles are those that cost least.
template <typename T>
KEST_INLINE void Transpose8x4(const T* in, std::size_t inStride, T* out, std::size_t outStride) {
    typedef T Half __attribute__((vector_size(4 * sizeof(T))));
    typedef T Row __attribute__((vector_size(8 * sizeof(T))));
    Row rows[4];
    for (std::size_t r = 0; r < 4; ++r) {
        Half lower;
        Half upper;
        __builtin_memcpy(&lower, in + r * inStride, sizeof lower);
        __builtin_memcpy(&upper, in + (r + 4) * inStride, sizeof upper);
        rows[r] = __builtin_shufflevector(lower, upper, 0, 1, 2, 3, 4, 5, 6, 7);
    }
    const Row low01 = __builtin_shufflevector(rows[0], rows[1], 0, 8, 1, 9, 4, 12, 5, 13);
    const Row high01 = __builtin_shufflevector(rows[0], rows[1], 2, 10, 3, 11, 6, 14, 7, 15);
    const Row low23 = __builtin_shufflevector(rows[2], rows[3], 0, 8, 1, 9, 4, 12, 5, 13);
    const Row high23 = __builtin_shufflevector(rows[2], rows[3], 2, 10, 3, 11, 6, 14, 7, 15);
    const Row columns[4] = {__builtin_shufflevector(low01, low23, 0, 1, 8, 9, 4, 5, 12, 13),
                            __builtin_shufflevector(low01, low23, 2, 3, 10, 11, 6, 7, 14, 15),
                            __builtin_shufflevector(high01, high23, 0, 1, 8, 9, 4, 5, 12, 13),
                            __builtin_shufflevector(high01, high23, 2, 3, 10, 11, 6, 7, 14, 15)};
    for (std::size_t c = 0; c < 4; ++c) __builtin_memcpy(out + c * outStride, &columns[c], sizeof(Row));
}

template <typename T>
KEST_INLINE void Transpose4x4(const T* in, std::size_t inStride, T* out, std::size_t outStride) {
    typedef T Row __attribute__((vector_size(4 * sizeof(T))));
    Row rows[4];
    for (std::size_t r = 0; r < 4; ++r) __builtin_memcpy(&rows[r], in + r * inStride, sizeof(Row));
    const Row low01 = __builtin_shufflevector(rows[0], rows[1], 0, 4, 1, 5);
    const Row high01 = __builtin_shufflevector(rows[0], rows[1], 2, 6, 3, 7);
    const Row low23 = __builtin_shufflevector(rows[2], rows[3], 0, 4, 1, 5);
    const Row high23 = __builtin_shufflevector(rows[2], rows[3], 2, 6, 3, 7);
    const Row columns[4] = {
        __builtin_shufflevector(low01, low23, 0, 1, 4, 5), __builtin_shufflevector(low01, low23, 2, 3, 6, 7),
        __builtin_shufflevector(high01, high23, 0, 1, 4, 5), __builtin_shufflevector(high01, high23, 2, 3, 6, 7)};
    for (std::size_t c = 0; c < 4; ++c) __builtin_memcpy(out + c * outStride, &columns[c], sizeof(Row));
}

/// Transposes numRows x numColumns values likewise.
template <typename T>
KEST_INLINE void Transpose(const T* in, std::size_t inStride, std::size_t numRows, std::size_t numColumns, T* out,
                           std::size_t outStride) {
    std::size_t r = 0;
    for (std::size_t step; numColumns >= 4 && r + 4 <= numRows; r += step) {
        step = r + 8 <= numRows ? 8 : 4;
        for (std::size_t c = 0; c < numColumns; c += 4) {
            c = c + 4 <= numColumns ? c : numColumns - 4;  // the last columns, some of them for the second time
            const T* from = in + r * inStride + c;
            T* to = out + c * outStride + r;
            if (step == 8) {
                Transpose8x4(from, inStride, to, outStride);
            } else {
                Transpose4x4(from, inStride, to, outStride);
            }
        }
    }
    for (; r < numRows; ++r)
        for (std::size_t c = 0; c < numColumns; ++c) out[c * outStride + r] = in[r * inStride + c];
}

}  // namespace util

#endif  // KEST_KERNEL_FRAME_TRANSPOSE_H_
