#ifndef KEST_WEIGHT_QUANT_SEARCH_N_H_
#define KEST_WEIGHT_QUANT_SEARCH_N_H_

#include <kest/kernel_frame/export.h>
#include <kest/kernel_frame/status.h>
#include <kest/kernel_frame/views.h>

#include <vector>

/// \file
/// Shift-bit search: by how many bits N, 1 to 16, a deployed layer shifts its 32-bit accumulators right so that they
/// fit 16 bits. For integers q = round(accumulator / scale) the error of a shift is
///
///     sum of (clamp(floor(q / 2^N), -32768, 32767) * 2^N - q)^2
///
/// and the N with the smallest one wins, the smallest of equal ones. NaN errors never win over the first. Small values
/// get 1. (The search over integer data truncates toward zero instead of flooring.)
///
/// This is the search for a power-of-two requantisation step by least squared error. No function here can fail. The
/// results do not depend on the number of threads.

namespace KestCommon {

/// errors[i] = the squared error of values[i], i < n, shifted by log2(factor) bits; factor 1 to 65536. float values are
/// floored, in single precision; int values truncated toward zero. Parallel with OpenMP's default team.
template <typename T>
KEST_EXPORT void EvaluateShiftNErrorCpu(int n, const T* values, double* errors, int factor);

/// Appends one shift for each row of channelData to shiftBits, in order; an empty row gets 1. Errors are summed in
/// double precision, in the order of the row. Parallel over the rows. Always STATUS_OK.
KEST_EXPORT int SearchShiftBits(const std::vector<std::vector<int>>& channelData, std::vector<int>& shiftBits);

/// The same as SearchShiftBits.
KEST_EXPORT int SearchShiftBitsInternal(const std::vector<std::vector<int>>& channelData, std::vector<int>& shiftBits);

/// 2^0 to 2^16.
KEST_EXPORT std::vector<int> GetShiftFactor();

}  // namespace KestCommon

namespace KestTfOp {

/// How the values of a tensor belong to channels: "NCHW" and "NCDHW" have channel (i / area) mod shape[1], the area the
/// product of the last two or three dimensions; "NHWC" and "NDHWC" i mod the last dimension, i mod shape[1] below rank
/// 4. Values belong to no channel under another name, with a shape too short for the name, or with a dimension below 1
/// among those that are read.
struct KEST_EXPORT Param {
    std::vector<int> shape;  ///< dimensions of the tensor, outermost first
    bool channelWise;        ///< false: all values are of channel 0
    const char* dataFormat;  ///< zero-terminated
};

/// The values of one batch and all values so far, owned by the caller. The caller makes the rows, one a channel.
template <typename T>
struct SearchnInputParam {
    std::vector<std::vector<T>> channelData;  ///< a row of all values so far for each channel
    int length;                               ///< values in this batch
    T* data;                                  ///< this batch, only read
};

/// Where the results go, and the scales; one entry a channel. The scratch arrays are not used.
template <typename T>
struct SearchnQuantParam {
    bool perTensor;         ///< one shift for all values together
    int* shiftBits;         ///< the shifts found
    T* quantBuffer;         ///< scratch
    double* errorBuffer;    ///< scratch
    void* reserved;         ///< not read
    float* scale;           ///< accumulator units in one integer
    float* shiftBitsFloat;  ///< the shifts found, as floats
};

/// Writes a shift for each row of channelData to shiftBits, or for all rows together, in order, to shiftBits[0] only
/// (quant.perTensor). Every row is taken to hold as many values as the shortest. q is rounded half away from zero, in
/// single precision; each error is added in double precision and the sum rounded to float. Parallel over the rows, but
/// for perTensor. Nothing is written without a row. Always STATUS_OK. T = float.
template <typename T>
KEST_EXPORT int SearchNInternelCpu(std::vector<std::vector<T>>& channelData, int* shiftBits,
                                   SearchnQuantParam<T>& quant);

template <typename Device, typename T>
struct KEST_EXPORT SearchNFunctor;

/// Searches over batchNum batches, one a call: increments batchCounter, appends each value to the row of its channel
/// (a value without a row is dropped) and, on the call that makes them equal, runs SearchNInternelCpu on all rows; then
/// shiftBitsFloat[i] = shiftBits[i] for every row. Later calls only count. Always STATUS_OK. After a std::bad_alloc the
/// batch is counted and some rows may have grown by zeros. Rows and counter belong to the caller, are never reset here,
/// and are used by one call at a time.
template <>
struct KEST_EXPORT SearchNFunctor<util::ThreadPoolDevice, float> {
    int operator()(Param& param, int& batchCounter, int& batchNum, SearchnInputParam<float>& input,
                   SearchnQuantParam<float>& quant) const;
};

}  // namespace KestTfOp

#endif  // KEST_WEIGHT_QUANT_SEARCH_N_H_
