#ifndef KEST_RECORD_PROTO_SIMULATOR_RECORD_WRITER_H_
#define KEST_RECORD_PROTO_SIMULATOR_RECORD_WRITER_H_

#include <kest/kernel_frame/export.h>
#include <kest/record/proto_simulator/record_data.h>

#include <string>

/// \file
/// Data::Dump, in all classes, gives the canonical form of the record file:
///
///     record {
///       key: "conv1"
///       value {
///         scale_d: 0.0392156877
///         offset_d: -128
///         scale_w: 0.00249999994
///         scale_w: 0.100000001
///       }
///     }
///     prune_record {raw text}
///
/// Two spaces a level, one line a value, a line feed at the end of each; the fields of a value block in their fixed
/// order; all records before all prune records. What has no value is left out: a number or bool by its flag, a string
/// when it is empty (its flag does not count), a block when neither its own flag nor one below it is set (the parser
/// sets the flag of each value block, so an empty one is written back as such). Floats have nine significant digits,
/// printf's %.9g (%f in a plain ListData<float>), which identify each finite one; inf, -inf and nan (of either sign)
/// read back as 0. The locale of the process has no influence. Read back, the text gives the same values, as long as no
/// string holds whitespace or a double quote.

namespace kest_tf {

/// Writes root.Dump() to `path`, replacing what is there.
///
/// STATUS_OK, or RECORD_OPEN_ERROR for whatever goes wrong: the file then holds its old bytes, or does not exist if it
/// did not. The text goes to a temporary file beside the target, which takes over the target's mode (and owner where
/// allowed), is synced and renamed over it; nothing is left behind, unless the file system refuses to remove it. A
/// symbolic link stays and its target is replaced. A file that may not be written is refused. In a directory that takes
/// no new file the file is overwritten in place, and its old bytes are put back on a failure, where that is possible.
/// What is no regular file (a pipe, a device) is written to directly. No lock is taken: KestTfOp::RecordLock is one.
/// May throw std::bad_alloc, with the file as it was.
KEST_EXPORT int WriteToRecordFile(InnerData& root, const std::string& path);

}  // namespace kest_tf

#endif  // KEST_RECORD_PROTO_SIMULATOR_RECORD_WRITER_H_
