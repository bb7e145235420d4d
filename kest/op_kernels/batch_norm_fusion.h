#ifndef KEST_OP_KERNELS_BATCH_NORM_FUSION_H_
#define KEST_OP_KERNELS_BATCH_NORM_FUSION_H_

#include <kest/kernel_frame/export.h>
#include <kest/kernel_frame/status.h>
#include <kest/kernel_frame/views.h>

/// \file
/// Handing the factors of quantisation-aware retraining to the host. Where a layer is followed by a batch normalisation
/// that deployment folds into its weights w, the weight scales become those of w * gamma / sqrt(variance + epsilon), so
/// that the folded weights have the codes of the unfolded ones (Jacob et al., "Quantization and Training of Neural
/// Networks for Efficient Integer-Arithmetic-Only Inference", 2018).
///
/// A scale is good if KestTfOp::ValueCheck (record_update.h) says so: not zero, subnormal or infinite. What a failing
/// call has written stays written. Pointers are borrowed and must not be null; nothing is printed.

namespace KestTfOp {

/// One data scale and offset, and where the host wants them.
struct KEST_EXPORT DataQuantFactors {
    const float* scaleD;  ///< the scale
    const int* offsetD;   ///< the offset
    float* hostScaleD;    ///< where the scale goes
    int* hostOffsetD;     ///< where the offset goes
};

/// The same fields, for a layer whose weight scales are fused along with it.
struct KEST_EXPORT RetrainDataQuantParam {
    const float* scaleD;  ///< the scale
    const int* offsetD;   ///< the offset
    float* hostScaleD;    ///< where the scale goes
    int* hostOffsetD;     ///< where the offset goes
};

/// channelNum entries in each array.
struct KEST_EXPORT RetrainWeightQuantParam {
    const float* scaleW;  ///< the scales
    const int* offsetW;   ///< the offsets
    float* hostScaleW;    ///< the fused scales
    int* hostOffsetW;     ///< where the offsets go
    int channelNum;       ///< number of channels
};

/// A batch normalisation, and a factor; how many values each array holds.
struct KEST_EXPORT BnParam {
    const float* gamma;       ///< channelNum
    const float* variance;    ///< channelNum
    const float* epsilon;     ///< one
    const float* multiplier;  ///< one: of every fused scale
};

/// For each channel in order s = |scaleW * gamma / sqrt(|variance + epsilon|) * multiplier|, 1 if below 1e-6, to
/// weightScaleOut and hostScaleW, and the offset to hostOffsetW. The product and the sum are in single precision, the
/// rest in double. WEIGHT_SCALE_ERROR behind the first channel whose scale is not good: those after it stay unwritten.
/// NaN passes. Nothing happens for channelNum below 1.
KEST_EXPORT int FuseScaleWCpu(RetrainWeightQuantParam weights, BnParam batchNorm, float* weightScaleOut);

template <typename Device, typename T>
struct KEST_EXPORT CopyDataToHost;

/// The same for float.
template <>
struct KEST_EXPORT CopyDataToHost<util::ThreadPoolDevice, float> {
    /// Copies scale and offset to the host. DATA_SCALE_ERROR if the scale is not good; both are copied all the same.
    int operator()(DataQuantFactors factors) const;

    /// The same, the scale to *dataScaleOut too; then, the scale being good, FuseScaleWCpu and its status.
    int operator()(RetrainDataQuantParam data, RetrainWeightQuantParam weights, BnParam batchNorm, float* dataScaleOut,
                   float* weightScaleOut) const;
};

template <typename Device, typename T>
struct KEST_EXPORT FetchScaleFunctor;

/// Copies n scales, parallel with OpenMP's default team. Always 0; nothing happens for n below 1.
template <>
struct KEST_EXPORT FetchScaleFunctor<util::ThreadPoolDevice, float> {
    int operator()(float* dst, const float* src, int n) const;
};

}  // namespace KestTfOp

#endif  // KEST_OP_KERNELS_BATCH_NORM_FUSION_H_
