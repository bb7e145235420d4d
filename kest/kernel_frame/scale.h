#ifndef KEST_KERNEL_FRAME_SCALE_H_
#define KEST_KERNEL_FRAME_SCALE_H_

/// \file
/// Scales and offsets made fit for use.

#include <kest/kernel_frame/export.h>
#include <kest/kernel_frame/status.h>
#include <kest/kernel_frame/views.h>

namespace util {

/// Makes one calibrated scale fit to divide by, in place.
///
/// A scale below FLT_EPSILON (zero and all negative values included) becomes 1 and is STATUS_OK. +infinity, and a
/// scale above 2^23 = 1 / FLT_EPSILON, are STATUS_SCALE_ERROR with one log line, the scale unchanged. All else is
/// STATUS_OK, the scale unchanged; so is NaN.
KEST_EXPORT int ProcessScale(float& scale);

/// The same in double precision: DBL_EPSILON, 2^52.
KEST_EXPORT int ProcessScale(double& scale);

}  // namespace util

namespace KestCommon {

/// Turns `n` raw retrain clip values into scales and zero offsets: |in| (plus 1e-6 where it is below 1e-6), or its
/// reciprocal. `in` and `scaleOut` may be the same array. Nothing happens for n <= 0.
KEST_EXPORT void ProcessScale(const float* in, float* scaleOut, int* offsetOut, int n, bool reciprocal);

/// Clamps `value` to [low, high] in place, T = int or float; the bounds are converted to T first. NaN stays. If low
/// exceeds high, a value below low becomes low and any other becomes high.
template <typename T>
KEST_EXPORT void Clip(T& value, int low, int high);

}  // namespace KestCommon

/// What framework operators call: functors over the algorithms, and updates of the record file.
namespace KestTfOp {

template <typename Device, typename T>
struct KEST_EXPORT ProcessScale;

/// KestCommon::ProcessScale for framework operators.
template <>
struct KEST_EXPORT ProcessScale<util::ThreadPoolDevice, float> {
    void operator()(const float* in, float* scaleOut, int* offsetOut, int n, bool reciprocal) const;
};

}  // namespace KestTfOp

#endif  // KEST_KERNEL_FRAME_SCALE_H_
