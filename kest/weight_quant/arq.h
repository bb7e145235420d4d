#ifndef KEST_WEIGHT_QUANT_ARQ_H_
#define KEST_WEIGHT_QUANT_ARQ_H_

#include <kest/kernel_frame/export.h>
#include <kest/kernel_frame/status.h>
#include <kest/kernel_frame/views.h>

/// \file
/// ARQ: uniform min/max quantisation of weights, one scale and one offset per output channel.
///
///     x ~ scale * (code - offset),  code = clamp(round(x / scale) + offset, low, high)
///
/// where [low, high] is the signed grid of numBits bits ([-128, 127] for 8) and halves round away from zero.
/// Symmetric: the larger extreme of a channel lands on the end of the grid, offset 0. Asymmetric: the range from
/// min(0, minimum) to max(0, maximum) covers the grid, and zero is a code (up to 22 bits; beyond that the rounding of
/// scale and offset can push it one step off the grid). This is the affine scheme of Jacob et al., "Quantization and
/// Training of Neural Networks for Efficient Integer-Arithmetic-Only Inference" (2018).
///
/// A scale below 2^-23 becomes 1, so a channel whose values are all tiny (1e-6 at 8 bits) fake-quantises to 0.
///
/// Everything here runs on the caller's thread and allocates nothing; calls on different arrays may run at once.
/// Templates exist for T = float and double. K is scale.length, the number of channels.

namespace util {

/// Where the output channel of a weight tensor of L elements and K channels lies; any value but 0 means KH_KW_CI_CO.
/// (The names spell the axes: output and input channels, kernel height and width.)
enum WeightFormat : unsigned int {
    CO_CI_KH_KW = 0,  ///< channel c owns the L/K elements from c * (L/K) on
    KH_KW_CI_CO = 1   ///< element i belongs to channel i mod K
};

}  // namespace util

namespace KestCommon {

/// How weights are quantised.
struct KEST_EXPORT ArqParam {
    unsigned int numBits;  ///< width of the grid, 2 to 31; entries that check nothing saturate beyond that
    bool channelWise;      ///< one scale per channel; false demands exactly one scale. Checked, without another effect
    bool withOffset;       ///< asymmetric, with an offset per channel
};

///@{
/// Checks the arguments of a quantisation; writes nothing. In this order, each STATUS_BAD_PARAM with one log line:
/// `data` null; `length` 0; a NaN in the data (infinities pass); scale.length != offset.length; several scales
/// although channelWise is false; no scale; K does not divide `length`; numBits below 2; numBits above 31. The scale
/// and offset arrays themselves are trusted. Its log lines bear the name CheckArqParams.
KEST_EXPORT int CheckArqQuantParams(const float* data, unsigned int length, const ArqParam& arqParam,
                                    const util::FloatData& scale, const util::IntData& offset);
KEST_EXPORT int CheckArqQuantParams(const double* data, unsigned int length, const ArqParam& arqParam,
                                    const util::FloatData& scale, const util::IntData& offset);
///@}

/// Finds the K scales and offsets of `data` (`length` elements, laid out as `format` says).
///
/// Validates nothing: `data` must not be null, offset must be as long as scale, numBits 2 or more; in CO_CI_KH_KW the
/// last L mod K elements belong to no channel. NaN elements are passed over. STATUS_SCALE_ERROR for the first channel
/// whose scale is infinite or above 2^23: one with an infinite element, a positive extreme above 2^23 * high, a
/// negative one below 2^23 * low, asymmetric a range above 2^23 * (2^numBits - 1), and symmetric one without any
/// number. The factors of the channels before it stay written, its own scale slot holds the rejected value. Asymmetric,
/// a channel without any number gets scale 1 and the lowest code as offset. An offset beyond 32 bits (numBits above 31)
/// saturates.
template <typename T>
KEST_EXPORT int WtsArqCalibrationCpuKernel(const T* data, unsigned int length, const ArqParam& arqParam,
                                           const util::FloatData& scale, const util::IntData& offset,
                                           util::WeightFormat format);

/// Calibrates `data` (CO_CI_KH_KW, `length` elements) and fake-quantises it in place: every weight becomes
/// scale * (code - offset), the product rounded to single precision for double data too.
///
/// STATUS_BAD_PARAM from CheckArqQuantParams: nothing written. STATUS_SCALE_ERROR from the calibration: `data`
/// untouched, factors written as WtsArqCalibrationCpuKernel tells.
template <typename T>
KEST_EXPORT int ArqQuant(T* data, unsigned int length, const ArqParam& arqParam, const util::FloatData& scale,
                         const util::IntData& offset);

/// Quantises `data` (CO_CI_KH_KW, only read) with the given factors to `length` codes in `out`, one signed byte each:
/// the low 8 bits of the code, so exact for numBits up to 8. The offsets are added whatever withOffset is. An infinite
/// element gets the end of the grid.
///
/// A scale below 2^-23 counts as 1; the scale array is not changed. A NaN scale gives codes 0. STATUS_BAD_PARAM from
/// CheckArqQuantParams: nothing written. STATUS_SCALE_ERROR for an infinite scale or one above 2^23: the codes of the
/// channels before it stay written.
template <typename T>
KEST_EXPORT int ArqQuantRealKernel(T* data, unsigned int length, const ArqParam& arqParam, const util::FloatData& scale,
                                   const util::IntData& offset, char* out);

/// The same as ArqQuantRealKernel.
template <typename T>
KEST_EXPORT int ArqQuantReal(T* data, unsigned int length, const ArqParam& arqParam, const util::FloatData& scale,
                             const util::IntData& offset, char* out);

/// Fake-quantises `in` (KH_KW_CI_CO, `length` elements) with the given factors into `out`; `in` and `out` may be the
/// same array. The scales are used as they are. A quotient that is NaN (NaN data, 0 / 0) gets code 0, so the value
/// -offset * scale; one that is infinite gets the end of the grid. code - offset is exact and rounded once to float.
/// numBits is 2 or more; above 32 it counts as 32. Nothing happens for `length` 0 or without a scale.
template <typename T>
KEST_EXPORT void ArqClipAndQuantKhKwCiCo(const T* in, T* out, unsigned int length, int numBits,
                                         const util::FloatData& scale, const util::IntData& offset);

}  // namespace KestCommon

namespace KestTfOp {

/// The factors of a weight tensor and a stored copy of them, K = channelNum entries each, all owned by the caller.
struct KEST_EXPORT WeightQuantParam {
    float* scale;       ///< working scales
    int* offset;        ///< working offsets
    float* scaleStore;  ///< stored copy of the scales
    int* offsetStore;   ///< stored copy of the offsets
    int channelNum;     ///< K
    int numBits;        ///< width of the grid
};

template <typename Device, typename T>
struct KEST_EXPORT ArqQuantFunctor;
template <typename Device, typename T>
struct KEST_EXPORT FindMaxMin;
template <typename Device, typename T>
struct KEST_EXPORT IdentityScaleOffset;

/// Calibrates symmetrically, per channel, and fake-quantises input.data (KH_KW_CI_CO) into output.data; output.scale
/// and output.offset receive the factors. Trusts its arguments (lengths not negative), as WtsArqCalibrationCpuKernel
/// does, and returns its status; on a failure output.data is untouched, the factors written as told there.
template <>
struct KEST_EXPORT ArqQuantFunctor<util::ThreadPoolDevice, float> {
    int operator()(KestCommon::Input<float> input, KestCommon::Output<float> output, int numBits) const;
};

/// Calibrates symmetrically, per channel (KH_KW_CI_CO), into param.scale and param.offset, then copies both to the
/// stored copy. On a failure returns the calibration's status, copies nothing and leaves the working arrays as
/// WtsArqCalibrationCpuKernel tells.
template <>
struct KEST_EXPORT FindMaxMin<util::ThreadPoolDevice, float> {
    int operator()(int length, const float* data, WeightQuantParam param) const;
};

/// Restores the factors from the stored copy; nothing for a channelNum below 1. Always STATUS_OK.
template <>
struct KEST_EXPORT IdentityScaleOffset<util::ThreadPoolDevice, float> {
    int operator()(WeightQuantParam param) const;
};

}  // namespace KestTfOp

// Plain entries, called through a foreign-function interface with the structures by value.
extern "C" {

/// KestCommon::ArqQuant for float data.
KEST_EXPORT int ArqQuantFloatPython(float* data, unsigned int length, KestCommon::ArqParam arqParam,
                                    util::FloatData scale, util::IntData offset);

/// KestCommon::ArqQuant for double data.
KEST_EXPORT int ArqQuantDoublePython(double* data, unsigned int length, KestCommon::ArqParam arqParam,
                                     util::FloatData scale, util::IntData offset);

/// KestCommon::ArqQuantRealKernel for double data, per channel when there are several scales; the offsets are added.
KEST_EXPORT int QuantRealDoublePython(double* data, unsigned int length, util::FloatData scale, util::IntData offset,
                                      unsigned int numBits, char* out);
}

#endif  // KEST_WEIGHT_QUANT_ARQ_H_
