#ifndef KEST_RECORD_RECORD_LOCK_H_
#define KEST_RECORD_RECORD_LOCK_H_

#include <kest/kernel_frame/export.h>

#include <memory>
#include <string>

/// \file
/// The lock under which a record file is read, changed and written.
///
/// The updates of record_update.h hold it while they run: the semaphore of the process (KestTfOp::Initializer), then an
/// advisory lock (flock) on the directory that the file is in, symbolic links followed, which the writers of
/// direct_writer.h take too. So threads and processes wait for each other and none loses a change; files of one
/// directory wait for each other as well. The directory's lock leaves nothing behind, outlasts no process, and stays
/// where it is when the file is replaced.
///
/// It is not there, and nothing is waited for, where the file does not exist, where the directory may not be read, and
/// on a file system without locks; of a network file system it may cover the processes of one host alone. The threads
/// of a process exclude each other even then, but for the direct writer.

namespace KestTfOp {

/// Holds the lock for a scope, for those who parse, change and write a tree themselves:
///
///     const KestTfOp::RecordLock lock(file);
///     int status = lock.Status();
///     if (status == STATUS_OK) status = kest_tf::ParseRecordFile(file, root);
///     ...
///     if (status == STATUS_OK) status = kest_tf::WriteToRecordFile(root, file);
///
/// Waits for as long as it takes; may throw std::bad_alloc before. An update, a direct write by path or a second lock
/// in the scope would wait for ever. A child forked in the scope does not hold the lock.
class KEST_EXPORT RecordLock {
public:
    explicit RecordLock(const std::string& recordFile);  ///< `recordFile` is the path that is read and written
    RecordLock(const RecordLock&) = delete;
    RecordLock& operator=(const RecordLock&) = delete;
    ~RecordLock();  ///< releases it

    /// STATUS_OK; RECORD_PATH_ERROR if the path cannot be resolved, so that there is nothing to lock yet;
    /// RECORD_OPEN_ERROR if no descriptor or memory is left to take the lock with, so that others may be at work.
    int Status() const;

private:
    struct Held;
    std::unique_ptr<Held> held_;
};

}  // namespace KestTfOp

#endif  // KEST_RECORD_RECORD_LOCK_H_
