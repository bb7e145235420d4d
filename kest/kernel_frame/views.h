#ifndef KEST_KERNEL_FRAME_VIEWS_H_
#define KEST_KERNEL_FRAME_VIEWS_H_

#include <kest/kernel_frame/export.h>

/// \file
/// The arrays of a call. All of them are borrowed for the call: nothing here allocates, copies or frees. The order of
/// the fields is part of the binary interface.

/// The parts that all kernels share.
namespace util {

/// `length` single-precision scales. Scales are float whatever the element type of the data.
struct KEST_EXPORT FloatData {
    unsigned int length;  ///< number of scales
    float* data;          ///< the scales
};

/// `length` offsets, in codes.
struct KEST_EXPORT IntData {
    unsigned int length;  ///< number of offsets
    int* data;            ///< the offsets
};

/// Device tag of every functor template: the work runs on the host.
struct KEST_EXPORT ThreadPoolDevice {};

}  // namespace util

/// The algorithms, over raw pointers.
namespace KestCommon {

/// A weight tensor of `length` elements with `channelNum` per-channel scales.
template <typename T>
struct Input {
    T* data;         ///< the weights
    int length;      ///< number of elements
    int channelNum;  ///< number of channels
};

/// Where a weight kernel puts its results.
template <typename T>
struct Output {
    T* data;       ///< fake-quantised weights, as many as the input has
    float* scale;  ///< channelNum scales
    int* offset;   ///< channelNum offsets
};

}  // namespace KestCommon

#endif  // KEST_KERNEL_FRAME_VIEWS_H_
