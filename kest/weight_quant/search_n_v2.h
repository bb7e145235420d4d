#ifndef KEST_WEIGHT_QUANT_SEARCH_N_V2_H_
#define KEST_WEIGHT_QUANT_SEARCH_N_V2_H_

#include <kest/kernel_frame/export.h>
#include <kest/kernel_frame/status.h>
#include <kest/kernel_frame/views.h>

#include <vector>

/// \file
/// The shift-bit search of search_n.h for any number of batches: instead of the values it keeps, for each channel, the
/// sixteen errors so far. The same measure, each batch's errors summed in T and then added to the table. Everything
/// runs on the caller's thread. T = float and double.

namespace KestCommon {

/// One batch, only read, and the errors so far, owned by the caller: row c has the sixteen of channel c, entry b for
/// the shift b + 1.
template <typename T>
struct SearchnV2InputParam {
    std::vector<std::vector<T>> errorTable;  ///< the errors so far
    int length;                              ///< values in this batch
    T* data;                                 ///< this batch
};

/// Adds the errors of the rows of channelData to the rows of errorTable, or of all rows, in order, to row 0
/// (`perTensor`). scale.data has an entry a row. Every row is taken to hold as many values as the shortest. What the
/// table lacks, rows or entries, is not added; rows of the table without a row of data stay as they are.
///
/// EMPTY_CONTAINER_ERROR without a row of data, nothing added.
template <typename T>
KEST_EXPORT int SearchNV2AccumulateError(std::vector<std::vector<T>>& channelData,
                                         std::vector<std::vector<T>>& errorTable, const util::FloatData& scale,
                                         bool perTensor);

/// shiftBits.data[i] = the shift with the smallest error in row i of the table, in row 0 for all (`perTensor`); 1 for a
/// row that is empty or missing. Always STATUS_OK.
template <typename T>
KEST_EXPORT int SearchNV2FindBestNCpu(std::vector<std::vector<T>>& errorTable, util::IntData& shiftBits,
                                      bool perTensor);

}  // namespace KestCommon

namespace KestTfOp {

/// How the values of a tensor belong to channels, as in Param of search_n.h, and a place for the result.
struct KEST_EXPORT DataParam {
    std::vector<int> shape;  ///< dimensions of the tensor, outermost first
    bool channelWise;        ///< false: all values are of channel 0
    const char* dataFormat;  ///< zero-terminated
    float* shiftBitsFloat;   ///< an entry a channel
};

/// Where the results go, and the scales; channelNum entries each.
template <typename T>
struct SearchnV2QuantParam {
    bool perTensor;  ///< one shift for all values together
    int* shiftBits;  ///< the shifts found
    float* scale;    ///< accumulator units in one integer
    int channelNum;  ///< number of channels
};

template <typename Device, typename T>
struct KEST_EXPORT SearchNV2Functor;

/// Searches over batchNum batches, one a call: increments batchCounter, sizes the table to channelNum rows of sixteen
/// on the first call (what it holds stays, so that a new calibration needs it zeroed), adds the batch's errors and, on
/// the call that makes counter and batchNum equal, writes shiftBits, and shiftBitsFloat for every row of the table.
/// Later calls only count. Without channelWise all values are one row, and channelNum is 1 unless perTensor.
///
/// Here too every row of a batch is taken to hold as many values as the shortest: a batch adds nothing if it has no
/// values for one of the channelNum channels. Without any errors all shifts are 1.
///
/// EMPTY_CONTAINER_ERROR, nothing added or written but the table emptied by the first call, when channelWise and
/// channelNum is below 1. Table and counter
/// belong to the caller and are used by one call at a time. Needs memory for sixteen errors a channel.
template <>
struct KEST_EXPORT SearchNV2Functor<util::ThreadPoolDevice, float> {
    int operator()(DataParam& param, int& batchCounter, int& batchNum, KestCommon::SearchnV2InputParam<float>& input,
                   SearchnV2QuantParam<float>& quant) const;
};

}  // namespace KestTfOp

#endif  // KEST_WEIGHT_QUANT_SEARCH_N_V2_H_
