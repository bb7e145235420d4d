#ifndef KEST_KERNEL_FRAME_AXIS_H_
#define KEST_KERNEL_FRAME_AXIS_H_

#include <kest/kernel_frame/isa.h>

#include <cstddef>

// Loops over tensors whose factors follow one axis, without a division an element.

namespace util {

/// Element i of a tensor has entry (i / stride) mod count of its factors. Both are at least 1.
struct Axis {
    std::size_t count;
    std::size_t stride;
};

/// A count or stride of a caller's, which is to be positive.
KEST_INLINE std::size_t AtLeastOne(int n) {
    return n < 1 ? 1 : static_cast<std::size_t>(n);
}

constexpr std::size_t kLongRun = 32;  // elements that are worth a loop of their own

/// Lays out the factors of n elements, from number `position` of a period of the axis on, one for each element. `out`
/// has room for kLongRun more than n; the stride is below kLongRun.
template <typename T>
KEST_INLINE void LayOut(Axis axis, const T* factors, std::size_t position, std::size_t n, T* out) {
    constexpr std::size_t kVector = 64 / sizeof(T);
    std::size_t entry = position / axis.stride;
    const std::size_t period = axis.count * axis.stride;
    const std::size_t onePeriod = n < period ? n : period;
    if (axis.stride == 1) {
        for (std::size_t i = 0; i < onePeriod; entry = 0)
            for (; entry < axis.count && i < onePeriod; ++entry, ++i) out[i] = factors[entry];
    } else {
        std::size_t run = axis.stride - position % axis.stride;
        for (std::size_t i = 0; i < onePeriod; i += run, run = axis.stride) {
            if (i > 0) entry = entry + 1 < axis.count ? entry + 1 : 0;
            // Whole vectors; the next run covers what is too much.
            for (std::size_t k = 0; k < axis.stride; k += kVector)
                for (std::size_t lane = 0; lane < kVector; ++lane) out[i + k + lane] = factors[entry];
        }
    }
    for (std::size_t i = onePeriod; i < n; ++i) out[i] = out[i - period];
}

/// Covers the elements [begin, end) with calls of one(first, n, entry), whose n elements share an entry, and of
/// each(first, n, columns), where columns[t][j] is the factor of element first + j in tables[t].
template <std::size_t kTables, typename T, typename One, typename Each>
KEST_INLINE void ForEachFactor(Axis axis, const T* const (&tables)[kTables], std::size_t begin, std::size_t end,
                               One one, Each each) {
    constexpr std::size_t kColumns = 2048 / kTables;  // whose factors share the first-level cache with the elements
    const std::size_t period = axis.count * axis.stride;
    const T* columns[kTables];
    if (axis.count == 1) {
        one(begin, end - begin, std::size_t{0});
        return;
    }
    if (axis.stride >= kLongRun) {
        std::size_t entry = begin / axis.stride % axis.count;
        std::size_t run = axis.stride - begin % axis.stride;
        for (std::size_t i = begin; i < end; i += run, run = axis.stride) {
            run = run < end - i ? run : end - i;
            one(i, run, entry);
            entry = entry + 1 < axis.count ? entry + 1 : 0;
        }
        return;
    }
    // Long tables are read where they are, and so are those that few periods follow.
    if (axis.stride == 1 && (period >= 512 || (period >= 32 && (end - begin) / 64 < period))) {
        std::size_t entry = begin % axis.count;
        for (std::size_t i = begin, n; i < end; i += n, entry = 0) {
            n = axis.count - entry < end - i ? axis.count - entry : end - i;
            for (std::size_t t = 0; t < kTables; ++t) columns[t] = tables[t] + entry;
            each(i, n, columns);
        }
        return;
    }
    // The factors of some periods, or of one stretch after the other.
    T buffer[kTables][kColumns + kLongRun];
    const std::size_t piece = period < kColumns ? kColumns / period * period : kColumns;
    for (std::size_t i = begin, n; i < end; i += n) {
        n = piece < end - i ? piece : end - i;
        for (std::size_t t = 0; t < kTables; ++t) {
            columns[t] = buffer[t];
            if (i == begin || period >= kColumns) LayOut(axis, tables[t], i % period, n, buffer[t]);
        }
        each(i, n, columns);
    }
}

}  // namespace util

#endif  // KEST_KERNEL_FRAME_AXIS_H_
