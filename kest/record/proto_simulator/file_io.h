#ifndef KEST_RECORD_PROTO_SIMULATOR_FILE_IO_H_
#define KEST_RECORD_PROTO_SIMULATOR_FILE_IO_H_

#include <string>

// Reading a file whole, and replacing one so that it holds its old bytes or its new ones at any moment.

namespace kest_tf {

/// Reads the file at `path` into `text`. RECORD_PATH_ERROR if the path cannot be resolved, RECORD_OPEN_ERROR if what
/// it leads to cannot be opened or read.
int ReadFile(const std::string& path, std::string& text);

/// Makes `text` the content of the file at `path`, which is created if need be. RECORD_OPEN_ERROR on any failure.
/// The rules are those of WriteToRecordFile.
int ReplaceFile(const std::string& path, const std::string& text);

}  // namespace kest_tf

#endif  // KEST_RECORD_PROTO_SIMULATOR_FILE_IO_H_
