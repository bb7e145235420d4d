#include <kest/activation_calib/hfmg_loops.h>

#include <kest/kernel_frame/division.h>
#include <kest/kernel_frame/grid.h>
#include <kest/kernel_frame/rounding.h>

#include <cstdint>

namespace KestCommon {
namespace {

constexpr std::size_t kBlock = 512;  // values whose bins are computed at once
constexpr std::size_t kStep = 16;
constexpr float kNever = __builtin_inff();

/// The bins of n values. A quotient below 1 may be inexact: its bin is 0 either way. One of an infinite or a huge
/// distance may be NaN: its bin is the last. Zeros take turns in the kZeroBins bins behind that.
template <typename Quotient, typename T>
KEST_INLINE void FindBins(const T* x, std::size_t n, T minValue, Quotient quotient, int numBins, uint32_t* bins) {
    const T last = static_cast<T>(numBins - 1);
    for (std::size_t i = 0; i < n; ++i) {
        const T distance = x[i] - minValue;
        const T bin = quotient(distance > 0 ? distance : 0);  // NaN counts as 0
        const auto found = static_cast<uint32_t>(static_cast<int32_t>(bin < last ? bin : last));
        const auto zeroBin = static_cast<uint32_t>(numBins) + static_cast<uint32_t>(i % kZeroBins);
        bins[i] = x[i] == 0 ? zeroBin : found;
    }
}

/// The same for any width and any number of bins.
template <typename T>
KEST_INLINE std::size_t PlainBinOf(T x, T minValue, T width, int numBins) {
    const auto last = static_cast<unsigned int>(numBins - 1);
    const unsigned int bin = util::SaturateTo<unsigned int>((x - minValue) / width);
    return bin < last ? bin : last;
}

/// Neighbours are often equal: with several counts for each bin no addition waits for the one before it.
KEST_INLINE void CountBins(const uint32_t* bins, std::size_t n, unsigned int* counts) {
    for (std::size_t i = 0; i < n; i += kBinCounts)
        for (std::size_t k = 0; k < kBinCounts; ++k) ++counts[kBinCounts * bins[i + k] + k];
}

KEST_INLINE double Cube(double x) {
    return x * x * x;
}

/// Division as the compiler has it.
struct AnyRange {
    template <typename T>
    struct Divider {
        T divisor;
        KEST_INLINE Divider(T d, T /*reciprocal*/) : divisor(d) {}
        KEST_INLINE T operator()(T x) const { return x / divisor; }
    };
    static KEST_INLINE float Third(double x) { return static_cast<float>(x / 3); }
};

/// Division without the divider, for finite floats: level widths from 2^-23 to 2^23 (a quotient below 1/4 may be
/// inexact: its level is 0 either way) and cubes that stay finite.
struct OrdinaryRange {
    template <typename T>
    using Divider = util::Divider<T>;

    /// The same steps in double precision: 1 / 3 is rounded to nearest, and the quotient at most one place off.
    static KEST_INLINE float Third(double x) {
#if defined(__FMA__) || defined(__ARM_FEATURE_FMA)
        constexpr double kThird = 1.0 / 3;
        const double quotient = x * kThird;
        return static_cast<float>(util::Fma(util::Fma(-3.0, quotient, x), kThird, quotient));
#else
        return AnyRange::Third(x);
#endif
    }
};

/// `Level` holds level numbers exactly.
template <typename Level, typename Range, typename T>
KEST_INLINE void AddLossOfBins(const DataBin<T>* bins, std::size_t numBins, T width, unsigned int numLevels,
                               float enough, RangeLanes<T>& lanes) {
    constexpr std::size_t kCheck = 64;  // bins
    const Level lastLevel = static_cast<Level>(numLevels - 1);
    T reciprocal[kRangeLanes];
    T half[kRangeLanes];
    double halfCube[kRangeLanes];
    float across[kRangeLanes];  // a level that the bin covers whole
    float loss[kRangeLanes];
    for (int lane = 0; lane < kRangeLanes; ++lane) {
        reciprocal[lane] = 1 / lanes.levelWidth[lane];
        half[lane] = lanes.levelWidth[lane] / 2;
        halfCube[lane] = Cube(half[lane]);
        across[lane] = Range::Third(halfCube[lane] + halfCube[lane]);
        loss[lane] = lanes.loss[lane];
    }
    for (std::size_t i = 0; i < numBins; ++i) {
        if (i % kCheck == 0) {
            bool lost = true;
            for (int lane = 0; lane < kRangeLanes; ++lane) lost &= loss[lane] > enough;
            if (lost) break;
        }
        const float density = static_cast<float>(static_cast<T>(bins[i].count) / width);
        for (int lane = 0; lane < kRangeLanes; ++lane) {
            const T levelWidth = lanes.levelWidth[lane];
            const typename Range::template Divider<T> levelOf(levelWidth, reciprocal[lane]);
            const T begin = static_cast<T>(static_cast<int32_t>(i) - lanes.firstBin[lane]) * width;
            const T end = begin + width;
            const Level low = util::Clamp<Level>(util::Floor(levelOf(begin)), 0, lastLevel);
            const Level high = util::Clamp<Level>(util::Floor(levelOf(end)), 0, lastLevel);
            const bool within = low == high;  // one level
            const double left = Cube(begin - (static_cast<T>(low) * levelWidth + half[lane]));
            const double right = Cube(end - (static_cast<T>(high) * levelWidth + half[lane]));
            const float lower = util::Fma(density, Range::Third((within ? right : halfCube[lane]) - left), loss[lane]);
            const float middle = util::Fma(static_cast<float>(high - low - 1) * density, across[lane], lower);
            const float upper = util::Fma(density, Range::Third(right + halfCube[lane]), middle);
            loss[lane] = within ? lower : upper;
        }
    }
    for (int lane = 0; lane < kRangeLanes; ++lane) lanes.loss[lane] = loss[lane];
}

/// Whether all that OrdinaryRange asks for holds.
KEST_INLINE bool IsOrdinary(std::size_t numBins, float width, unsigned int numLevels, const RangeLanes<float>& lanes) {
    bool ordinary = numLevels <= 1u << 24 && width * static_cast<float>(numBins) <= 0x1p100f;
    for (int lane = 0; lane < kRangeLanes; ++lane)
        ordinary &= lanes.levelWidth[lane] >= 0x1p-23f && lanes.levelWidth[lane] <= 0x1p23f;
    return ordinary;
}
KEST_INLINE bool IsOrdinary(std::size_t, double, unsigned int, const RangeLanes<double>&) {
    return false;
}

}  // namespace

template <typename Isa, typename T>
void HfmgLoops<Isa, T>::Count(const T* x, std::size_t n, T minValue, T width, int numBins, unsigned int* counts) {
    const util::Divider<T> quotient(width);
    if (!(width <= static_cast<T>(0x1p23f)) || numBins > 1 << 24) {
        for (std::size_t i = 0; i < n; ++i) ++counts[kBinCounts * PlainBinOf(x[i], minValue, width, numBins)];
        return;
    }
    // Half of a rectified activation is zeros: in one bin each addition would wait for the one before it.
    // While the bins of one block are counted, those of the next are computed: neither waits for the other.
    uint32_t bins[kBlock];
    if (n >= kBlock) FindBins(x, kBlock, minValue, quotient, numBins, bins);
    for (; n >= 2 * kBlock; n -= kBlock, x += kBlock) {
        for (std::size_t i = 0; i < kBlock; i += kStep) {
            __builtin_prefetch(x + 4 * kBlock + i);
            CountBins(bins + i, kStep, counts);
            FindBins(x + kBlock + i, kStep, minValue, quotient, numBins, bins + i);
        }
    }
    if (n >= kBlock) {
        CountBins(bins, kBlock, counts);
        n -= kBlock;
        x += kBlock;
    }
    FindBins(x, n, minValue, quotient, numBins, bins);
    for (std::size_t i = 0; i < n; ++i) ++counts[kBinCounts * bins[i]];

    unsigned int& zeros = counts[kBinCounts * PlainBinOf(T{0}, minValue, width, numBins)];
    for (std::size_t k = 0; k < kBinCounts * kZeroBins; ++k) {
        unsigned int& count = counts[kBinCounts * static_cast<std::size_t>(numBins) + k];
        zeros += count;
        count = 0;
    }
}

template <typename Isa, typename T>
void HfmgLoops<Isa, T>::AddLoss(const DataBin<T>* bins, std::size_t numBins, T width, unsigned int numLevels,
                                float enough, RangeLanes<T>& lanes) {
    if (IsOrdinary(numBins, width, numLevels, lanes)) {
        AddLossOfBins<T, OrdinaryRange>(bins, numBins, width, numLevels, enough, lanes);
    } else {
        AddLossOfBins<double, AnyRange>(bins, numBins, width, numLevels, kNever, lanes);
    }
}

template struct HfmgLoops<util::KEST_LOOPS_ISA, float>;
template struct HfmgLoops<util::KEST_LOOPS_ISA, double>;

}  // namespace KestCommon
