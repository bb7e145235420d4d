#ifndef KEST_OP_KERNELS_TENSOR_DUMP_H_
#define KEST_OP_KERNELS_TENSOR_DUMP_H_

#include <kest/kernel_frame/export.h>
#include <kest/kernel_frame/status.h>
#include <kest/kernel_frame/views.h>

#include <string>
#include <vector>

/// \file
/// Tensors written to files, one for each tensor and batch, in native byte order without padding:
///
///     float    element type: 0 float, 1 double, 2 int, 3 unsigned short (the bits of a half)
///     float[]  the shape, as many entries as shapeLength says
///     T[]      the elements
///
/// The file does not tell how many dimensions there are. A file that is there is replaced from its start. Only a failed
/// open is reported, by a log line; what is not written then, or when the disk is full, is missing from the file. The
/// directory must exist. Everything runs on the caller's thread.
/// T = float, double, int, unsigned short.

namespace KestCommon {

/// The parts of a dump file before its elements.
struct KEST_EXPORT DumpParam {
    std::string fileName;      ///< path of the file
    std::vector<float> shape;  ///< dimensions of the tensor
    unsigned int shapeLength;  ///< entries to write; those that `shape` lacks are not
};

/// "<dumpDir>/<tensorName>_batch<batchNum>.bin"
KEST_EXPORT std::string ConcatName(const std::string& dumpDir, const std::string& tensorName,
                                   const unsigned int& batchNum);

///@{
/// DumpData with the code of the element type put before the shape.
KEST_EXPORT void DumpDataWithType(const float* data, int length, DumpParam param);
KEST_EXPORT void DumpDataWithType(const double* data, int length, DumpParam param);
KEST_EXPORT void DumpDataWithType(const int* data, int length, DumpParam param);
KEST_EXPORT void DumpDataWithType(const unsigned short* data, int length, DumpParam param);
///@}

/// Writes the first shapeLength entries of the shape and `length` elements, none for a `length` below 1.
template <typename T>
KEST_EXPORT void DumpData(const T* data, int length, DumpParam param);

}  // namespace KestCommon

namespace kest_tf {

/// Where a tensor is dumped, and its shape.
struct KEST_EXPORT DumpParam {
    std::string dumpDir;       ///< without a separator at its end
    std::string tensorName;    ///< first part of the file's name
    unsigned int batchNum;     ///< second part of the file's name
    std::vector<float> shape;  ///< dimensions of the tensor
    unsigned int shapeLength;  ///< entries to write; those that `shape` lacks are not
};

template <typename Device, typename T>
struct KEST_EXPORT DumpFunctor;
template <typename Device, typename T>
struct KEST_EXPORT CopyDataFunctor;

/// DumpDataWithType to the file that ConcatName names, of any number of elements. Always 0.
template <>
struct KEST_EXPORT DumpFunctor<util::ThreadPoolDevice, float> {
    int operator()(const float* data, unsigned int length, DumpParam param) const;
};
/// The same for double.
template <>
struct KEST_EXPORT DumpFunctor<util::ThreadPoolDevice, double> {
    int operator()(const double* data, unsigned int length, DumpParam param) const;
};
/// The same for int.
template <>
struct KEST_EXPORT DumpFunctor<util::ThreadPoolDevice, int> {
    int operator()(const int* data, unsigned int length, DumpParam param) const;
};
/// The same for unsigned short.
template <>
struct KEST_EXPORT DumpFunctor<util::ThreadPoolDevice, unsigned short> {
    int operator()(const unsigned short* data, unsigned int length, DumpParam param) const;
};

/// Copies `length` elements between arrays that do not overlap. Always 0.
template <>
struct KEST_EXPORT CopyDataFunctor<util::ThreadPoolDevice, float> {
    int operator()(const float* in, unsigned int length, float* out) const;
};
/// The same for double.
template <>
struct KEST_EXPORT CopyDataFunctor<util::ThreadPoolDevice, double> {
    int operator()(const double* in, unsigned int length, double* out) const;
};
/// The same for int.
template <>
struct KEST_EXPORT CopyDataFunctor<util::ThreadPoolDevice, int> {
    int operator()(const int* in, unsigned int length, int* out) const;
};
/// The same for unsigned short.
template <>
struct KEST_EXPORT CopyDataFunctor<util::ThreadPoolDevice, unsigned short> {
    int operator()(const unsigned short* in, unsigned int length, unsigned short* out) const;
};

}  // namespace kest_tf

#endif  // KEST_OP_KERNELS_TENSOR_DUMP_H_
