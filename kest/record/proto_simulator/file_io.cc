#include <kest/kernel_frame/status.h>
#include <kest/record/proto_simulator/file_io.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace kest_tf {

File::File(int directory, const char* name, int flags, mode_t mode) {
    do {
        fd_ = openat(directory, name, flags | O_CLOEXEC | O_NOCTTY, mode);
    } while (fd_ < 0 && errno == EINTR);
}

File::~File() {
    if (fd_ >= 0) close(fd_);
}

bool File::Close() {
    return close(std::exchange(fd_, -1)) == 0 || errno == EINTR;
}

DirectoryLock::DirectoryLock(const char* path) : process_(getpid()) {
    if (realpath(path, path_) == nullptr) {
        status_ = RECORD_PATH_ERROR;
        return;
    }
    char& nameBegin = std::strrchr(path_, '/')[1];
    const char first = std::exchange(nameBegin, '\0');
    directory_.emplace(AT_FDCWD, path_, O_RDONLY | O_DIRECTORY);  // to be locked, it must be readable
    nameBegin = first;
    if (!directory_->IsOpen()) {
        if (errno != EACCES) status_ = RECORD_OPEN_ERROR;
        return;
    }
    while (flock(directory_->Get(), LOCK_EX) != 0 && errno == EINTR) {
    }
}

DirectoryLock::~DirectoryLock() {
    // A child forked meanwhile may keep the descriptor, and leave this scope too.
    if (directory_.has_value() && directory_->IsOpen() && getpid() == process_) flock(directory_->Get(), LOCK_UN);
}

bool WriteAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = write(fd, bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        bytes.remove_prefix(static_cast<size_t>(count));
    }
    return true;
}

bool Truncate(int fd, std::size_t size) {
    while (ftruncate(fd, static_cast<off_t>(size)) != 0) {
        if (errno != EINTR) return false;
    }
    return true;
}

namespace {

bool ReadAll(int fd, std::string& text) {
    constexpr size_t kFirstRead = 4096;
    constexpr size_t kDeviceLimit = 1 << 20;  // some devices never end
    struct stat status;
    if (fstat(fd, &status) != 0) return false;
    if (static_cast<size_t>(status.st_size) >= text.max_size()) return false;  // a sparse one
    // One byte more than the file has, so that its end shows without a larger buffer.
    text.resize(S_ISREG(status.st_mode) ? static_cast<size_t>(status.st_size) + 1 : kFirstRead);
    size_t length = 0;
    for (;;) {
        const ssize_t count = read(fd, &text[length], text.size() - length);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return false;
        if (count == 0) break;
        length += static_cast<size_t>(count);
        if (S_ISCHR(status.st_mode) && length >= kDeviceLimit) return false;
        if (length == text.size()) text.resize(2 * length);
    }
    text.resize(length);
    return true;
}

bool Sync(int fd) {
    while (fsync(fd) != 0) {
        if (errno != EINTR) return false;
    }
    return true;
}

/// The path at the end of the chain of symbolic links that starts at `path`; nothing needs to be there. Empty for a
/// chain without end, or if a link cannot be read.
std::string FollowLinks(std::string path) {
    constexpr int kMaxLinks = 40;  // the kernel's own limit
    char link[PATH_MAX];
    for (int i = 0; i < kMaxLinks; ++i) {
        const ssize_t length = readlink(path.c_str(), link, sizeof(link));
        if (length < 0) return errno == EINVAL || errno == ENOENT ? path : std::string();  // no link; nothing there
        const bool isAbsolute = length > 0 && link[0] == '/';
        path.resize(isAbsolute ? 0 : path.rfind('/') + 1);  // npos + 1 is 0
        path.append(link, static_cast<size_t>(length));
    }
    return {};
}

bool WriteDirectly(const char* path, const std::string& text) {
    File file(AT_FDCWD, path, O_WRONLY);
    return file.IsOpen() && WriteAll(file.Get(), text) && file.Close();
}

bool Overwrite(int fd, const std::string& text) {
    return lseek(fd, 0, SEEK_SET) == 0 && WriteAll(fd, text) && Truncate(fd, text.size()) && Sync(fd);
}

/// For a file whose directory takes no new one.
bool RewriteInPlace(int directory, const char* name, const std::string& text) {
    File file(directory, name, O_RDWR | O_NOFOLLOW);
    std::string old;
    if (!file.IsOpen() || !ReadAll(file.Get(), old)) return false;
    if (Overwrite(file.Get(), text)) return true;  // synced: closing can lose nothing
    Overwrite(file.Get(), old);
    return false;
}

/// The owner first, since a change of owner clears mode bits. Who may not give a file away may still keep its group;
/// where neither is allowed, the file becomes the updater's.
bool KeepOwnerAndMode(int fd, const struct stat& old) {
    constexpr uid_t kSameOwner = static_cast<uid_t>(-1);
    for (const uid_t owner : {old.st_uid, kSameOwner}) {
        if (fchown(fd, owner, old.st_gid) == 0) break;
        if (errno != EPERM && errno != EINVAL) return false;  // EINVAL: an owner from outside a user namespace
    }
    return fchmod(fd, old.st_mode & 07777) == 0;
}

enum class Outcome { kDone, kFailed, kDirectoryRefuses };

/// A directory refuses a new file for lack of permission, in a read-only file system or, once it is to take the old
/// one's place, by the sticky bit or because the old file is a mount point.
Outcome Refusal(int error) {
    const bool refuses = error == EACCES || error == EPERM || error == EROFS || error == EBUSY;
    return refuses ? Outcome::kDirectoryRefuses : Outcome::kFailed;
}

/// Writes `text` to a new file beside `name`, which then takes its place. `old` is null if there is nothing yet.
Outcome ReplaceByRename(int directory, const char* name, const struct stat* old, const std::string& text) {
    static std::atomic<unsigned> counter{0};
    constexpr int kMaxAttempts = 1 << 20;  // processes killed in here, of our id, may have left that many files
    char temporary[64];
    for (int attempt = 0; attempt < kMaxAttempts; ++attempt) {
        std::snprintf(temporary, sizeof(temporary), ".kest-%ld-%u.tmp", static_cast<long>(getpid()), counter++);
        File file(directory, temporary, O_WRONLY | O_CREAT | O_EXCL, old != nullptr ? 0600 : 0666);
        if (!file.IsOpen() && errno == EEXIST) continue;
        if (!file.IsOpen()) return Refusal(errno);

        bool ok = old == nullptr || KeepOwnerAndMode(file.Get(), *old);
        ok = ok && WriteAll(file.Get(), text) && Sync(file.Get());
        ok = file.Close() && ok;
        if (ok && renameat(directory, temporary, directory, name) == 0) return Outcome::kDone;
        const Outcome outcome = ok ? Refusal(errno) : Outcome::kFailed;
        unlinkat(directory, temporary, 0);
        return outcome;
    }
    return Outcome::kFailed;
}

bool ReplaceRegular(const std::string& path, const struct stat* old, const std::string& text) {
    const std::string target = FollowLinks(path);
    const size_t nameBegin = target.rfind('/') + 1;  // npos + 1 is 0
    const std::string name = target.substr(nameBegin);
    if (name.empty()) return false;
    // Held open, so that all steps meet the same directory; it need not be readable, and no path grows too long.
    const File directory(AT_FDCWD, nameBegin == 0 ? "." : target.substr(0, nameBegin).c_str(), O_PATH | O_DIRECTORY);
    if (!directory.IsOpen()) return false;
    if (old != nullptr && faccessat(directory.Get(), name.c_str(), W_OK, AT_EACCESS) != 0) return false;

    const Outcome outcome = ReplaceByRename(directory.Get(), name.c_str(), old, text);
    if (outcome == Outcome::kDirectoryRefuses && old != nullptr) {
        return RewriteInPlace(directory.Get(), name.c_str(), text);
    }
    return outcome == Outcome::kDone;
}

}  // namespace

int ReadFile(const std::string& path, std::string& text) {
    char resolved[PATH_MAX];
    if (realpath(path.c_str(), resolved) == nullptr) return RECORD_PATH_ERROR;
    const File file(AT_FDCWD, resolved, O_RDONLY);
    return file.IsOpen() && ReadAll(file.Get(), text) ? STATUS_OK : RECORD_OPEN_ERROR;
}

int ReplaceFile(const std::string& path, const std::string& text) {
    struct stat old;
    const bool exists = stat(path.c_str(), &old) == 0;
    bool done = false;
    if (exists && !S_ISREG(old.st_mode)) {
        done = WriteDirectly(path.c_str(), text);
    } else if (exists || errno == ENOENT) {
        done = ReplaceRegular(path, exists ? &old : nullptr, text);
    }
    return done ? STATUS_OK : RECORD_OPEN_ERROR;
}

}  // namespace kest_tf
