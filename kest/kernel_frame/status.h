#ifndef KEST_KERNEL_FRAME_STATUS_H_
#define KEST_KERNEL_FRAME_STATUS_H_

/// \file
/// Every operation that can fail returns one of these as a signed 32-bit int; 0 is success. Callers test for
/// non-zero and pass the code upward unchanged. docs/statuses.md tells when each one is returned.

constexpr int STATUS_OK = 0;  ///< success

// Kernels: negative, the upper 16 bits all ones.
constexpr int STATUS_GENERIC_ERROR = -65536;  ///< 0xFFFF0000: a calibration step cannot produce a result
constexpr int STATUS_BAD_PARAM = -65530;      ///< 0xFFFF0006: invalid arguments
constexpr int STATUS_FILE_ERROR = -65529;  ///< 0xFFFF0007: a path or file that cannot be worked on, empty or too large
constexpr int STATUS_RUNTIME_ERROR = -65528;  ///< 0xFFFF0008: allocation, read or write failure, key not found
constexpr int STATUS_SCALE_ERROR = -65519;    ///< 0xFFFF0011: an illegal scale

// Record files and value checks: small and positive.
constexpr int DEQ_SCALE_ERROR = 2;         ///< a dequantisation scale that is zero, subnormal or infinite
constexpr int RECORD_PATH_ERROR = 5;       ///< the record file's path cannot be resolved
constexpr int RECORD_OPEN_ERROR = 6;       ///< the record file cannot be opened, read or written
constexpr int EMPTY_INPUT_ERROR = 8;       ///< no elements, or no bins to count them in
constexpr int WEIGHT_SCALE_ERROR = 9;      ///< a fused weight scale that is zero, subnormal or infinite
constexpr int DATA_SCALE_ERROR = 10;       ///< a data scale that is
constexpr int RECORD_DATA_ERROR = 13;      ///< null, missing or mistyped data in the value tree, or a failed allocation
constexpr int RECORD_UNKNOWN_FIELD = 14;   ///< a field name that the schema does not know
constexpr int EMPTY_CONTAINER_ERROR = 15;  ///< no channels, no histogram
constexpr int VALUE_RANGE_ERROR = 17;      ///< a balance factor outside its range

#endif  // KEST_KERNEL_FRAME_STATUS_H_
