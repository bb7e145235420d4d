#include <kest/activation_calib/ifmr_loops.h>

#include <kest/kernel_frame/division.h>
#include <kest/kernel_frame/isa.h>
#include <kest/kernel_frame/rounding.h>

#include <cstdint>

// The loss of a clip range [-b, a] with scale s over N elements, summed in element order:
//
//   y = clamp(x, -b, a),  e = round(y / s) * s - x,  loss += e * e / N
//
// A serial sum per candidate, so the candidates lie in the lanes: each element is loaded once and all lanes add their
// own term for it.
//
// While zero lies inside every range, clamp, quotient and error are odd in x, so the loops work on |x| clipped to a
// (or to b if x is negative). Then for single precision three sizes of |x| are told apart:
//   below 2^-24          s is at least 2^-23: the quotient rounds to 0 and the term is x * x / N in every lane
//   2^-24 up to 2^62     both divisions are products with a reciprocal (Divider): e is 0 or at least 2^-47, for x is a
//                        multiple of 2^-47 and round(y / s) * s is 0 or a multiple of 2^-46; so e * e is 0 or lies in
//                        [2^-94, 2^126]
//   the rest, infinity   divided in earnest

namespace KestCommon {
namespace {

KEST_INLINE float ErrorOf(float quotient, float scale, float x) {
    return quotient * scale - x;
}
KEST_INLINE double ErrorOf(double quotient, double scale, double x) {
    return util::Fma(scale, quotient, -x);
}

/// Any ranges, any values.
template <int kLanes, typename T>
KEST_INLINE void AddPlainTerms(T x, T count, ClipLanes<T> lanes) {
    for (int lane = 0; lane < kLanes; ++lane) {
        const T low = -lanes.below[lane];
        const T high = lanes.above[lane];
        const T y = x < low ? low : (x > high ? high : x);
        const T error = ErrorOf(util::RoundHalfAway(y / lanes.scale[lane]), lanes.scale[lane], x);
        lanes.loss[lane] += static_cast<float>(error * error / count);
    }
}

template <int kLanes, typename T>
KEST_INLINE void AddPlainLosses(const T* x, std::size_t n, T count, ClipLanes<T> lanes) {
    for (std::size_t i = 0; i < n; ++i) AddPlainTerms<kLanes>(x[i], count, lanes);
}

/// Ranges with zero inside.
template <int kLanes>
KEST_INLINE void AddLosses(const float* x, std::size_t n, float count, ClipLanes<float> lanes) {
    float clips[2][kLanes];  // by the sign of x: an index is no branch to mispredict
    float reciprocal[kLanes];
    float loss[kLanes];
    for (int lane = 0; lane < kLanes; ++lane) {
        clips[0][lane] = lanes.above[lane];
        clips[1][lane] = lanes.below[lane];
        reciprocal[lane] = 1.0f / lanes.scale[lane];
        loss[lane] = lanes.loss[lane];
    }
    const util::Divider<float> mean(count);

    for (std::size_t i = 0; i < n; ++i) {
        const float size = __builtin_fabsf(x[i]);
        if (size >= 0x1p-24f && size < 0x1p62f) {
            const float* clip = clips[__builtin_signbit(x[i]) != 0];
            for (int lane = 0; lane < kLanes; ++lane) {
                const util::Divider<float> quotient(lanes.scale[lane], reciprocal[lane]);
                const float y = size > clip[lane] ? clip[lane] : size;
                // Not negative: the half needs no sign.
                const float rounded = util::Trunc(quotient(y) + 0.49999997f);
                const float error = rounded * lanes.scale[lane] - size;
                loss[lane] += mean(error * error);
            }
        } else if (size < 0x1p-24f) {
            const float term = size * size / count;
            for (int lane = 0; lane < kLanes; ++lane) loss[lane] += term;
        } else {
            AddPlainTerms<kLanes>(x[i], count, {lanes.above, lanes.below, lanes.scale, loss});
        }
    }
    for (int lane = 0; lane < kLanes; ++lane) lanes.loss[lane] = loss[lane];
}

template <int kLanes>
KEST_INLINE void AddLosses(const double* x, std::size_t n, double count, ClipLanes<double> lanes) {
    AddPlainLosses<kLanes>(x, n, count, lanes);
}

/// Adds to numLanes lanes, a multiple of kLaneGroup up to kLanes, in one pass over the elements.
template <int kLanes, typename T>
KEST_INLINE void AddInOnePass(const T* x, std::size_t n, T count, ClipLanes<T> lanes, int numLanes, bool zeroInside) {
    if constexpr (kLanes > 0) {
        if (numLanes < kLanes) {
            AddInOnePass<kLanes - kLaneGroup>(x, n, count, lanes, numLanes, zeroInside);
        } else if (zeroInside) {
            AddLosses<kLanes>(x, n, count, lanes);
        } else {
            AddPlainLosses<kLanes>(x, n, count, lanes);
        }
    }
}

/// Copies the elements that are not zero to `kept` and returns their number.
template <typename T>
KEST_INLINE std::size_t KeepNonZero(const T* x, std::size_t n, T* kept) {
    std::size_t numKept = 0;
    for (std::size_t i = 0; i < n; ++i) {
        kept[numKept] = x[i];
        numKept += x[i] != 0;
    }
    return numKept;
}

}  // namespace

template <typename Isa, typename T>
void IfmrLoops<Isa, T>::AddLoss(const T* x, std::size_t n, T count, ClipLanes<T> lanes, int numLanes, bool zeroInside) {
    constexpr std::size_t kBlock = 2048;  // elements that stay in the first-level cache while all lanes pass over them
    constexpr int kMaxLanes = 64;         // a pass: more would not fit the registers
    const int numPasses = (numLanes + kMaxLanes - 1) / kMaxLanes;
    const int64_t numGroups = numLanes / kLaneGroup;
    T notZero[kBlock];
    for (std::size_t first = 0; first < n; first += kBlock) {
        const T* block = x + first;
        std::size_t size = n - first < kBlock ? n - first : kBlock;
        int numZeros = 0;
        for (std::size_t i = 0; i < size; ++i) numZeros += block[i] == 0;
        if (zeroInside && numZeros > 0) {
            // A zero adds a zero: half of a rectified activation is dropped, and no branch guesses which.
            size = KeepNonZero(block, size, notZero);
            block = notZero;
        }
        for (int pass = 0; pass < numPasses; ++pass) {
            const int begin = static_cast<int>(numGroups * pass / numPasses) * kLaneGroup;
            const int end = static_cast<int>(numGroups * (pass + 1) / numPasses) * kLaneGroup;
            AddInOnePass<kMaxLanes>(block, size, count,
                                    {lanes.above + begin, lanes.below + begin, lanes.scale + begin, lanes.loss + begin},
                                    end - begin, zeroInside);
        }
    }
}

template struct IfmrLoops<util::KEST_LOOPS_ISA, float>;
template struct IfmrLoops<util::KEST_LOOPS_ISA, double>;

}  // namespace KestCommon
