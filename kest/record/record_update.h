#ifndef KEST_RECORD_RECORD_UPDATE_H_
#define KEST_RECORD_RECORD_UPDATE_H_

#include <kest/kernel_frame/export.h>
#include <kest/kernel_frame/status.h>
#include <kest/record/proto_simulator/record_data.h>

#include <semaphore.h>

#include <string>

/// \file
/// Storing calibration results in a record file, one layer at a time.
///
/// Each update reads the whole file, changes the first record whose key is `layerName`, or appends one, and writes the
/// file back in canonical form (record_writer.h); all other fields keep their values. The file must exist and may be
/// empty. Lists are replaced whole: a length of 0 or less leaves none. Arrays are borrowed and must have the stated
/// lengths; nothing is checked. A text that could not be read back fails the update: a layer name or dstType with white
/// space or an odd number of double quotes, and what the parser accepts in other layers but the writer cannot put into
/// canonical form (`key { a b }`). An empty layer name appends a record without a key, which no update finds again; it
/// matches `key: ""` alone, and that key is not written back. Infinite and NaN values are stored as inf and nan, which
/// read back as 0.
///
/// Updates may be called from any thread. They exclude each other and the direct writer, in this process and in others,
/// and wait for each other as long as it takes; record_lock.h tells where they cannot.
///
/// STATUS_OK; RECORD_PATH_ERROR (no such file), RECORD_OPEN_ERROR (it cannot be read, locked or written),
/// RECORD_UNKNOWN_FIELD and RECORD_DATA_ERROR (it holds what the parser rejects, or would hold it then; or an
/// allocation failed). The file is unchanged after each of them, and after a std::bad_alloc. Nothing is printed.

namespace KestTfOp {

/// The semaphore behind the updates, one a process: its accessor and instance are shared by all modules that include
/// this header. Its count is 1 while no update runs and 0 while one does; it is never destroyed.
class KEST_EXPORT Initializer {
public:
    /// The one of the process.
    // Out of line in every module, this library included, so that all of them can share one.
    __attribute__((noinline)) KEST_EXPORT static Initializer& GetInstance() {
        static Initializer instance;
        return instance;
    }
    Initializer(const Initializer&) = delete;
    Initializer& operator=(const Initializer&) = delete;

    sem_t semaphore;        ///< counts 1 or 0
    bool reserved = false;  ///< part of the layout; nothing reads it

private:
    // The guard of `instance` lets nobody wait before the count is set.
    __attribute__((visibility("hidden"))) Initializer() { sem_init(&semaphore, 0, 1); }
};

/// Sets "scale_d" and "offset_d" to *scaleD and *offsetD; in a new record also "dst_type", unless `dstType` is "hide".
KEST_EXPORT int WriteDataToRecordFile(const float* scaleD, const int* offsetD, const std::string& layerName,
                                      const std::string& recordFile, std::string dstType);

/// Sets "scale_w" and "offset_w", `length` entries each.
KEST_EXPORT int WriteWeightToRecordFile(const float* scaleW, const int* offsetW, int length,
                                        const std::string& layerName, const std::string& recordFile);

/// Sets "scale_w" and "offset_w", `scaleLength` entries each, and "cluster", `clusterLength` entries.
KEST_EXPORT int WriteNuqRecordToFile(const float* scaleW, const int* offsetW, const int* cluster, int scaleLength,
                                     int clusterLength, const std::string& layerName, const std::string& recordFile);

/// Sets "shift_bit". Each entry is sign-extended to 64 bits: -1 is stored as 2^64 - 1.
KEST_EXPORT int WriteShiftNToRecordFile(const int* shiftBits, int length, const std::string& layerName,
                                        const std::string& recordFile);

/// Sets "tensor_balance_factor".
KEST_EXPORT int WriteTensorBalanceFactorToRecordFile(const float* balanceFactor, int length,
                                                     const std::string& layerName, const std::string& recordFile);

/// Replaces "scale_w", "offset_w" (`scaleLength` entries each) and "cluster" of one value block, through the virtual
/// functions of its children; one that is missing or of another class is passed over.
KEST_EXPORT void AddScaleOffsetCluster(const kest_tf::ValueData& value, const float* scaleW, const int* offsetW,
                                       const int* cluster, int scaleLength, int clusterLength);

/// Replaces each `from` in `name` by `to`, from left to right; what was inserted is not searched again. An empty `from`
/// occurs nowhere.
KEST_EXPORT void ConvertLayerName(std::string& name, const std::string& from, const std::string& to);

/// False for zero, subnormal and infinite values. NaN passes.
KEST_EXPORT bool ValueCheck(float value);

/// deqScale[i] = scaleD * scaleW[i], T = float.
///
/// For a caller that holds the record semaphore. STATUS_OK: the semaphore stays held. DEQ_SCALE_ERROR at the first
/// product that fails ValueCheck: that one is still stored, those behind it are not, and the semaphore has been
/// posted on the caller's behalf. STATUS_OK for a `length` below 1.
template <typename T>
KEST_EXPORT int ComputeDeqScale(T* deqScale, const T* scaleW, T scaleD, int length);

}  // namespace KestTfOp

#endif  // KEST_RECORD_RECORD_UPDATE_H_
