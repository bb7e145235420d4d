#ifndef KEST_WEIGHT_QUANT_NUQ_H_
#define KEST_WEIGHT_QUANT_NUQ_H_

#include <kest/kernel_frame/export.h>
#include <kest/kernel_frame/status.h>
#include <kest/kernel_frame/views.h>

#include <vector>

/// \file
/// NUQ: non-uniform quantisation of weights. A weight is stored as one of K integers shared by the whole tensor:
///
///     x ~ scale * (centre + offset)
///
/// with a scale and an offset for each channel. The 8-bit ARQ calibration (arq.h) maps the weights to its grid,
/// [-128, 127], unrounded; weighted k-means over these values finds the centres (Lloyd 1982; a channel weighs by the
/// square of its scale), seeded greedily as k-means++ does (Arthur and Vassilvitskii, 2007) but at fixed quantiles, so
/// that nothing is random. Rounds of a least-squares refit of scale and offset and a new clustering follow. (Clustered
/// weights: Han et al., "Deep Compression", 2016.)
///
/// The grid is x / scale + offset, ARQ's code, and the result scale * (centre + offset): with offset they agree only as
/// far as the refits bring the offset near 0.
///
/// Weights lie as CO_CI_KH_KW of arq.h: channel c owns the L/C elements from c * (L/C) on, C = scale.length. Everything
/// runs on the caller's thread. Memory that runs out leaves as std::bad_alloc. Templates exist for T = float and
/// double.

namespace KestCommon {

/// How weights are clustered.
struct KEST_EXPORT NuqParam {
    unsigned int numClusters;  ///< K, 1 or more
    bool withOffset;           ///< asymmetric
    int numIterations;         ///< refit rounds; 0 or less: ARQ's factors and the first clustering are the result
};

/// What a framework's accelerators need; nothing here.
template <typename T>
struct ThrustParam {};

/// Finds the C scales and offsets of `data` (`length` elements) and the centres. gridValues, a copy of `data` on entry,
/// holds each element's centre afterwards; the first K entries of `centers` the centres, integers, in no order.
///
/// STATUS_BAD_PARAM, nothing written, in this order: `data` null; `length` 0; NaN or infinity in the data; no scale; a
/// length that C does not divide; scale.length != offset.length; K of 0; gridValues not of `length` elements, or
/// `centers` shorter than K. STATUS_SCALE_ERROR from ARQ (a scale above 2^23), factors written as told there; or for a
/// refitted scale that is infinite or above 2^23: the scales behind it stay unchecked, the others are as refitted, one
/// below 2^-23 is 1.
///
/// On the way to the grid a quotient that is NaN (0 / 0, by a refitted scale of 0) counts as 0 before the offset is
/// added. A refitted offset saturates at 32 bits; NaN gives 0. A channel of zeros whose nearest centre is not 0 is
/// refitted to scale 0: in a round that is not the last this leaves the channels without finite weights, and so the
/// centres NaN.
template <typename T>
KEST_EXPORT int NuqCalibrationCpuKernel(const T* data, std::vector<T>& gridValues, std::vector<T>& centers,
                                        unsigned int length, const NuqParam& nuqParam, const util::FloatData& scale,
                                        const util::IntData& offset);

/// Calibrates `data` and replaces each weight by scale * (centre + offset). Statuses of NuqCalibrationCpuKernel (no
/// scale is reported first), with `data` unchanged.
template <typename T>
KEST_EXPORT int NuqKernel(T* data, unsigned int length, const NuqParam& nuqParam, const util::FloatData& scale,
                          const util::IntData& offset);

/// NuqKernel for float weights.
KEST_EXPORT int NuqQuant(float* data, unsigned int length, const NuqParam& nuqParam, const util::FloatData& scale,
                         const util::IntData& offset);

/// Quantises `data` (only read) with the given factors: out[i] = the low 8 bits of round(x / scale) + offset, saturated
/// to 32 bits first; NaN (0 / 0) gives 0. STATUS_BAD_PARAM as NuqCalibrationCpuKernel up to the lengths of scale and
/// offset, nothing written.
KEST_EXPORT int NuqReal(double* data, unsigned int length, const util::FloatData& scale, const util::IntData& offset,
                        char* out);

/// Weighted k-means in one dimension, seeded by KmeansInit, at most 200 steps. Replaces each value by its centre, the
/// nearest of the k centres rounded half away from zero (the first of equally near ones), and writes these to the first
/// k entries of `centers`. A centre that loses all its values becomes 0;
/// seeds that are all 0 are the result. `weights` has an entry for each value; a
/// centre's sums are in T in the order of the values. Nothing happens without values or for k = 0.
template <typename T>
KEST_EXPORT void Kmeans(std::vector<T>& values, unsigned int k, std::vector<double>& weights, std::vector<T>& centers);

/// Seeds all of `centers`: the median first, then, one at a time, that of ln(k) + 2 values at fixed quantiles of the
/// squared distance to the nearest centre so far that leaves the smallest sum of it. That sum is truncated to 32-bit
/// integers at each step, and saturates. Nothing happens without values or centres.
template <typename T>
KEST_EXPORT void KmeansInit(std::vector<T>& values, std::vector<T>& centers);

/// The middle value, the mean of the two middle ones for an even count; 0 without values. -0 comes before 0.
template <typename T>
KEST_EXPORT T Median(std::vector<T> values);

/// The weight of each of `length` values in the clustering: that of channel i / step (of channel 0 if step is 0),
/// proportional to the square of its scale over the smallest scale; the weights of the channels sum to 1. Channels that
/// do not exist count as the last one. Empty without a scale.
KEST_EXPORT std::vector<double> Weight(unsigned int length, const util::FloatData& scale, unsigned int step);

}  // namespace KestCommon

namespace KestTfOp {

/// Working factors, a stored copy of them, channelNum entries each, and numClusters published centres; all owned by the
/// caller.
struct KEST_EXPORT WeightNuqQuantParam {
    float* scale;       ///< working scales
    int* offset;        ///< working offsets
    void* reserved;     ///< not read
    float* scaleStore;  ///< stored copy of the scales
    int* offsetStore;   ///< stored copy of the offsets
    int* centers;       ///< published centres
    int channelNum;     ///< number of channels
    int numBits;        ///< width of the grid
    int numClusters;    ///< K
    int numIterations;  ///< refit rounds, as in NuqParam
    bool withOffset;    ///< asymmetric
};

template <typename Device, typename T>
struct KEST_EXPORT NuqFunctor;
template <typename Device, typename T>
struct KEST_EXPORT FakeQuantWithNuq;
template <typename Device, typename T>
struct KEST_EXPORT IdentityWeightNuq;
template <typename Device, typename T>
struct KEST_EXPORT IdentityScaleOffsetNuq;

/// KestCommon::NuqKernel, and publishes the centres and stores the factors (a scale below 1e-6 as 1, in the working
/// array too). Statuses of NuqCalibrationCpuKernel; weights, centres and stored copy are unchanged then.
template <>
struct KEST_EXPORT NuqFunctor<util::ThreadPoolDevice, float> {
    int operator()(float* data, int length, WeightNuqQuantParam param, KestCommon::ThrustParam<float>& thrust) const;
};

/// Fake-quantises `in` with the stored factors and the published centres: the weight x becomes (offset + centre) *
/// scale, with the first centre whose distance to t = clamp(x / scale - offset) is smallest when truncated to an
/// integer; a NaN difference counts as 0, and all from 2^31 on are equal. clamp is to the grid of numBits bits, also to
/// one beyond 32 bits; a scale below 2^-52 leaves t = clamp(x). The `length` mod channelNum elements behind the last
/// channel become their centre, unclamped and unscaled. Without centres what `out` holds is taken for them. `in` and
/// `out` may be the same array. STATUS_BAD_PARAM, nothing written, for channelNum below 1.
template <>
struct KEST_EXPORT FakeQuantWithNuq<util::ThreadPoolDevice, float> {
    int operator()(WeightNuqQuantParam param, const float* in, float* out, int length) const;
};

/// Copies the weights. Always STATUS_OK.
template <>
struct KEST_EXPORT IdentityWeightNuq<util::ThreadPoolDevice, float> {
    int operator()(const float* in, float* out, int length) const;
};

/// Restores the factors from the stored copy. Always STATUS_OK.
template <>
struct KEST_EXPORT IdentityScaleOffsetNuq<util::ThreadPoolDevice, float> {
    int operator()(WeightNuqQuantParam param) const;
};

}  // namespace KestTfOp

// Plain entries, called through a foreign-function interface with the structures by value.
extern "C" {

/// KestCommon::NuqKernel for double weights.
KEST_EXPORT int NuqQuantPython(double* data, unsigned int length, KestCommon::NuqParam nuqParam, util::FloatData scale,
                               util::IntData offset);

/// KestCommon::NuqReal.
KEST_EXPORT int NuqQuantRealPython(double* data, unsigned int length, util::FloatData scale, util::IntData offset,
                                   char* out);
}

#endif  // KEST_WEIGHT_QUANT_NUQ_H_
