#ifndef KEST_KERNEL_FRAME_NUMERIC_HELPERS_H_
#define KEST_KERNEL_FRAME_NUMERIC_HELPERS_H_

#include <kest/kernel_frame/export.h>
#include <kest/kernel_frame/status.h>
#include <kest/kernel_frame/views.h>

#include <string>
#include <vector>

/// \file
/// Half precision, shapes and balance factors. A half is the bit pattern of an IEEE 754 binary16 value: a sign bit,
/// five exponent bits with bias 15, ten fraction bits. Everything runs on the caller's thread.

namespace util {

/// The same value in single precision, exact. NaN keeps its sign and payload, at the top of the fraction.
KEST_EXPORT float Fp16ToFp32(unsigned short half);

/// The value rounded toward zero to a half. Magnitudes below 2^-14, which would be subnormal, become a zero of their
/// sign; finite ones from 65536 on become 65504; infinity stays, and NaN stays NaN, quiet, with the top of its payload.
KEST_EXPORT unsigned short Fp32ToFp16(float value);

template <typename Device, typename T>
struct KEST_EXPORT DataCastToFloat32Functor;
template <typename Device, typename T>
struct KEST_EXPORT DataCastToFloat16Functor;

/// Fp16ToFp32 of n values. Nothing happens for n below 1; `in` and `out` must not overlap.
template <>
struct KEST_EXPORT DataCastToFloat32Functor<ThreadPoolDevice, unsigned short> {
    void operator()(const unsigned short* in, float* out, int n) const;
};

/// Fp32ToFp16 of n values. Nothing happens for n below 1; `in` and `out` must not overlap.
template <>
struct KEST_EXPORT DataCastToFloat16Functor<ThreadPoolDevice, float> {
    void operator()(const float* in, unsigned short* out, int n) const;
};

/// "FLOAT16" for element type 10, as ONNX numbers them, "FLOAT32" for any other.
KEST_EXPORT std::string OnnxTypeToString(int type);

/// The number of elements of a shape; 0 without dimensions. STATUS_BAD_PARAM with one log line for a dimension below 1,
/// and for a product above 2^63 - 1: `length` is then the product of the dimensions before it, 1 if there are none.
KEST_EXPORT int GetLengthByDim(std::vector<int> dims, long& length);

/// VALUE_RANGE_ERROR with one log line for the first of n factors that lies outside [2^-23, 2^23]; NaN passes.
KEST_EXPORT int CheckBalanceFactor(const float* factors, unsigned int n);

}  // namespace util

#endif  // KEST_KERNEL_FRAME_NUMERIC_HELPERS_H_
