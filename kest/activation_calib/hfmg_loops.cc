#include <kest/activation_calib/hfmg_loops.h>

#include <kest/kernel_frame/division.h>
#include <kest/kernel_frame/grid.h>
#include <kest/kernel_frame/rounding.h>

#include <cstdint>

namespace KestCommon {
namespace {

constexpr std::size_t kBlock = 512;  // values whose bins are computed at once
constexpr std::size_t kStep = 16;

/// The bins of n values. A quotient below 1 may be inexact: its bin is 0 either way.
template <typename Quotient, typename T>
KEST_INLINE void FindBins(const T* x, std::size_t n, T minValue, Quotient quotient, int numBins, uint32_t* bins) {
    constexpr T kHuge = static_cast<T>(0x1p100f);  // far beyond the last bin, and its quotient is finite
    const T last = static_cast<T>(numBins - 1);
    for (std::size_t i = 0; i < n; ++i) {
        T distance = x[i] - minValue;
        distance = distance > 0 ? distance : 0;  // NaN too
        distance = distance < kHuge ? distance : kHuge;
        const T bin = quotient(distance);
        bins[i] = static_cast<uint32_t>(static_cast<int32_t>(bin < last ? bin : last));
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

KEST_INLINE float Floor(float x) {
    return __builtin_floorf(x);
}
KEST_INLINE double Floor(double x) {
    return __builtin_floor(x);
}

KEST_INLINE float Fma(float a, float b, float c) {
    return __builtin_fmaf(a, b, c);
}

KEST_INLINE double Cube(double x) {
    return x * x * x;
}

KEST_INLINE float Third(double difference) {
    return static_cast<float>(difference / 3);
}

/// `Level` holds level numbers exactly.
template <typename Level, typename T>
KEST_INLINE void AddLossOfBins(const DataBin<T>* bins, std::size_t numBins, T width, unsigned int numLevels,
                               RangeLanes<T>& lanes) {
    const Level lastLevel = static_cast<Level>(numLevels - 1);
    T half[kRangeLanes];
    double halfCube[kRangeLanes];
    float across[kRangeLanes];  // a level that the bin covers whole
    float loss[kRangeLanes];
    for (int lane = 0; lane < kRangeLanes; ++lane) {
        half[lane] = lanes.levelWidth[lane] / 2;
        halfCube[lane] = Cube(half[lane]);
        across[lane] = Third(halfCube[lane] + halfCube[lane]);
        loss[lane] = lanes.loss[lane];
    }
    for (std::size_t i = 0; i < numBins; ++i) {
        const float density = static_cast<float>(static_cast<T>(bins[i].count) / width);
        for (int lane = 0; lane < kRangeLanes; ++lane) {
            const T levelWidth = lanes.levelWidth[lane];
            const T begin = static_cast<T>(static_cast<int32_t>(i) - lanes.firstBin[lane]) * width;
            const T end = begin + width;
            const Level low = util::Clamp<Level>(Floor(begin / levelWidth), 0, lastLevel);
            const Level high = util::Clamp<Level>(Floor(end / levelWidth), 0, lastLevel);
            const bool within = low == high;  // one level
            const double left = Cube(begin - (static_cast<T>(low) * levelWidth + half[lane]));
            const double right = Cube(end - (static_cast<T>(high) * levelWidth + half[lane]));
            const float lower = Fma(density, Third((within ? right : halfCube[lane]) - left), loss[lane]);
            const float middle = Fma(static_cast<float>(high - low - 1) * density, across[lane], lower);
            const float upper = Fma(density, Third(right + halfCube[lane]), middle);
            loss[lane] = within ? lower : upper;
        }
    }
    for (int lane = 0; lane < kRangeLanes; ++lane) lanes.loss[lane] = loss[lane];
}

}  // namespace

template <typename Isa, typename T>
void HfmgLoops<Isa, T>::Count(const T* x, std::size_t n, T minValue, T width, int numBins, unsigned int* counts) {
    const util::Divider<T> quotient(width);
    if (!(width <= static_cast<T>(0x1p23f)) || numBins > 1 << 24) {
        for (std::size_t i = 0; i < n; ++i) ++counts[kBinCounts * PlainBinOf(x[i], minValue, width, numBins)];
        return;
    }
    // While the bins of one block are counted, those of the next are computed: neither waits for the other.
    uint32_t bins[kBlock];
    if (n >= kBlock) FindBins(x, kBlock, minValue, quotient, numBins, bins);
    for (; n >= 2 * kBlock; n -= kBlock, x += kBlock) {
        for (std::size_t i = 0; i < kBlock; i += kStep) {
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
}

template <typename Isa, typename T>
void HfmgLoops<Isa, T>::AddLoss(const DataBin<T>* bins, std::size_t numBins, T width, unsigned int numLevels,
                                RangeLanes<T>& lanes) {
    if (numLevels <= 1u << 24) {
        AddLossOfBins<T>(bins, numBins, width, numLevels, lanes);
    } else {
        AddLossOfBins<double>(bins, numBins, width, numLevels, lanes);
    }
}

template struct HfmgLoops<util::KEST_LOOPS_ISA, float>;
template struct HfmgLoops<util::KEST_LOOPS_ISA, double>;

}  // namespace KestCommon
