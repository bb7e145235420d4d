#ifndef KEST_RECORD_DIRECT_WRITER_H_
#define KEST_RECORD_DIRECT_WRITER_H_

#include <kest/kernel_frame/export.h>
#include <kest/kernel_frame/status.h>
#include <kest/kernel_frame/views.h>

#include <string>
#include <vector>

/// \file
/// Writing factors into a record file without parsing it: new lines are put at the start of a layer's value block.
///
/// The layer is found by the text that opens its record in the form that the serializer writes (record_writer.h):
///
///     key: "<layer>"
///       value {
///
/// to the byte, its first occurrence before a NUL. The record must be there. Nothing is removed: older lines of the
/// same field stay below the new ones, and a reader takes the last of a scalar and all of a list. Only where the block
/// begins with "tensor_balance_factor" and RecordRepeatData writes that field, all its old lines give way to the new
/// ones.
///
/// A file is replaced whole (file_io.h): after any failure it holds its old bytes. Files of 2 GiB and more, the new
/// lines included, are refused. The writer by path holds the directory's lock (record_lock.h) but not the semaphore:
/// where there is no such lock, a caller keeps it and the updates off the same file.
///
/// A failure prints one log line where it happens and, once the file has been read, one of the writer's at the end;
/// success prints one [INFO] line.
///
///     STATUS_FILE_ERROR     the path is longer than 4096 bytes or leads nowhere; open, stat, read or close failed; an
///                           empty file (scale and offset only); a file that is too large
///     STATUS_RUNTIME_ERROR  no such layer; an allocation or a write failed, which includes making the new file, its
///                           sync and putting it in the old one's place

namespace util {

/// What to write.
template <typename T>
struct QuantizeFactor {
    float scale;            ///< for scale and offset
    int offset;             ///< for scale and offset
    std::vector<T> values;  ///< for a repeated field
    std::string name;       ///< "data" or "weight" for scale and offset, else the field of `values`
    int dataType;           ///< ONNX element type for an "op_data_type" line, 0 for none

    ~QuantizeFactor() {}  // instantiated for int as a name that callers link to
};

/// Writes "scale_d" and "offset_d" for the name "data", "scale_w" and "offset_w" for any other; then, with a dataType,
/// an "op_data_type" line of OnnxTypeToString, which ParseRecordFile does not accept. The scale has ten significant
/// digits. T = int.
template <typename T>
KEST_EXPORT int RecordScaleOffsetKernel(const std::string& recordFile, const std::string& layerName,
                                        const QuantizeFactor<T>& factor);

/// Writes one line "<name>: <value>" for each value: an int as it is, a float with six significant digits, filled with
/// blanks to 16 characters from the left. T = int, float.
template <typename T>
KEST_EXPORT int RecordRepeatData(std::string recordFile, std::string layerName, const std::vector<T>& values,
                                 std::string name);

///@{
/// The edits of the two, in place in an open file: `content` are the `size` bytes it holds, followed by a NUL. What
/// follows the insertion is read from the file, and moved before the gap is filled. When a write fails, the old bytes
/// and the old length are put back, if the file takes them. No lock is taken. A file that is only appended to counts as
/// one that cannot be written. STATUS_RUNTIME_ERROR as above and where the file cannot be positioned or read;
/// STATUS_FILE_ERROR for 2 GiB and more.
template <typename T>
KEST_EXPORT int RecordScaleOffsetData(int fd, unsigned char* content, unsigned long size, const char* layerName,
                                      const QuantizeFactor<T>& factor);

template <typename T>
KEST_EXPORT int RecordRepeatDataKernel(int fd, const unsigned char* content, unsigned long size, const char* layerName,
                                       const QuantizeFactor<T>& factor);
///@}

}  // namespace util

// For scripting layers. Of each view the first element is read, whatever its length. A string is read through its
// character pointer alone: in its place goes the address of a pointer to NUL-terminated text, null for none.

/// Writes "scale_d" and "offset_d" of a layer, and with a dataType other than 0 an "op_data_type" line.
extern "C" KEST_EXPORT int RecordScaleOffset(const std::string& recordFile, const std::string& layerName,
                                             const util::FloatData& scale, const util::IntData& offset, int dataType);

/// Writes "scale_w" and "offset_w" of a layer. The lines printed speak of scale_d and offset_d here too.
extern "C" KEST_EXPORT int RecordScaleOffsetWeight(const std::string& recordFile, const std::string& layerName,
                                                   const util::FloatData& scale, const util::IntData& offset);

#endif  // KEST_RECORD_DIRECT_WRITER_H_
