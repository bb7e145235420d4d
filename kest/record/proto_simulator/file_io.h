#ifndef KEST_RECORD_PROTO_SIMULATOR_FILE_IO_H_
#define KEST_RECORD_PROTO_SIMULATOR_FILE_IO_H_

#include <sys/types.h>

#include <climits>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

// Reading a file whole, and replacing one so that it holds its old bytes or its new ones at any moment.

namespace kest_tf {

/// An open file; closed when it goes.
class File {
public:
    /// As openat; the descriptor does not outlive an exec.
    File(int directory, const char* name, int flags, mode_t mode = 0);
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    ~File();

    bool IsOpen() const { return fd_ >= 0; }
    int Get() const { return fd_; }
    /// False if the system tells of a lost write. The file is closed even then, and when a signal interrupts.
    bool Close();

private:
    int fd_;
};

/// Keeps other processes and threads off the files of a directory for a scope, as far as they take this lock, which
/// KestTfOp::RecordLock describes. Waits for it.
class DirectoryLock {
public:
    /// `path` is that of a file in the directory.
    explicit DirectoryLock(const char* path);
    DirectoryLock(const DirectoryLock&) = delete;
    DirectoryLock& operator=(const DirectoryLock&) = delete;
    ~DirectoryLock();

    /// As RecordLock::Status.
    int Status() const { return status_; }
    /// The path without links, unless the status is RECORD_PATH_ERROR.
    const char* Path() const { return path_; }

private:
    char path_[PATH_MAX];
    std::optional<File> directory_;
    int status_ = 0;
    const pid_t process_;
};

/// False if not all bytes can be written.
bool WriteAll(int fd, std::string_view bytes);

/// Gives a file the length `size`; false if that cannot be done.
bool Truncate(int fd, std::size_t size);

/// Reads the file at `path` into `text`. RECORD_PATH_ERROR if the path cannot be resolved, RECORD_OPEN_ERROR if what
/// it leads to cannot be opened or read.
int ReadFile(const std::string& path, std::string& text);

/// Makes `text` the content of the file at `path`, which is created if need be. RECORD_OPEN_ERROR on any failure.
/// The rules are those of WriteToRecordFile.
int ReplaceFile(const std::string& path, const std::string& text);

}  // namespace kest_tf

#endif  // KEST_RECORD_PROTO_SIMULATOR_FILE_IO_H_
