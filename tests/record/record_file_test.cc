#include <fcntl.h>
#include <grp.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <tests/record/record_test_util.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <functional>
#include <new>

// The library calls the system and the allocator through these, so that a test can let the n-th call fail.

namespace {

struct Fault {
    std::string call;
    int error;
    int before;  // calls that succeed
    int times;   // calls that then fail
};
std::vector<Fault> faults;
bool writesPieces = false;          // no call writes more than half of what it is given
std::atomic<long> allocations{-1};  // before one fails; negative is never

bool Fails(const char* call) {
    for (Fault& fault : faults) {
        if (fault.call != call || fault.times == 0 || fault.before-- > 0) continue;
        --fault.times;
        errno = fault.error;
        return true;
    }
    return false;
}

void* Allocate(std::size_t size) {
    if (allocations >= 0 && allocations-- == 0) return nullptr;
    return std::malloc(size);
}

}  // namespace

extern "C" {
ssize_t write(int fd, const void* data, size_t size) {
    if (writesPieces && size > 1) size /= 2;
    return Fails("write") ? -1 : syscall(SYS_write, fd, data, size);
}
ssize_t read(int fd, void* data, size_t size) {
    return Fails("read") ? -1 : syscall(SYS_read, fd, data, size);
}
int fsync(int fd) {
    return Fails("fsync") ? -1 : static_cast<int>(syscall(SYS_fsync, fd));
}
int close(int fd) {
    const int result = static_cast<int>(syscall(SYS_close, fd));
    return Fails("close") ? -1 : result;
}
int fchmod(int fd, mode_t mode) noexcept {
    return Fails("fchmod") ? -1 : static_cast<int>(syscall(SYS_fchmod, fd, mode));
}
int renameat(int from, const char* old, int to, const char* name) noexcept {
    return Fails("renameat") ? -1 : static_cast<int>(syscall(SYS_renameat, from, old, to, name));
}
int openat(int directory, const char* name, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = va_arg(arguments, mode_t);
    va_end(arguments);
    if ((flags & O_CREAT) != 0 && Fails("create")) return -1;
    return static_cast<int>(syscall(SYS_openat, directory, name, flags, mode));
}
}

// Not inlined: the compiler would take free for the wrong way to delete what new gave.
#define KEST_NOINLINE __attribute__((noinline))
KEST_NOINLINE void* operator new(std::size_t size) {
    void* memory = Allocate(size);
    return memory != nullptr ? memory : throw std::bad_alloc();
}
KEST_NOINLINE void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return Allocate(size);
}
KEST_NOINLINE void operator delete(void* memory) noexcept {
    std::free(memory);
}
KEST_NOINLINE void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
KEST_NOINLINE void operator delete(void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}

namespace {

const std::string kOld = "record {\n  key: \"conv1\"\n  value {\n    offset_d: 1\n  }\n}\n";
const std::string kNew = "record {\n  key: \"conv1\"\n  value {\n    scale_d: 0.5\n    offset_d: 3\n  }\n}\n";
const std::string kLong = kOld + std::string(500, '\n');  // longer than what is written over it

int Update(const std::string& file) {
    const float scale = 0.5f;
    const int offset = 3;
    return KestTfOp::WriteDataToRecordFile(&scale, &offset, "conv1", file, "hide");
}

int OpenFiles() {
    return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

TEST(RecordFile, FailureLeavesOldBytesOrNew) {
    const Fault inPlace = {"create", EACCES, 0, 1};
    const struct {
        const char* why;
        std::vector<Fault> faults;
        int status;
    } rows[] = {
        {"nothing fails", {}, STATUS_OK},
        {"cannot read", {{"read", EIO, 0, 1}}, RECORD_OPEN_ERROR},
        {"read interrupted", {{"read", EINTR, 0, 2}}, STATUS_OK},
        {"no room for a new file", {{"create", ENOSPC, 0, 1}}, RECORD_OPEN_ERROR},
        {"temporary name taken", {{"create", EEXIST, 0, 2}}, STATUS_OK},
        {"cannot keep the mode", {{"fchmod", EIO, 0, 1}}, RECORD_OPEN_ERROR},
        {"disk full", {{"write", ENOSPC, 1, 1}}, RECORD_OPEN_ERROR},
        {"write interrupted", {{"write", EINTR, 1, 3}}, STATUS_OK},
        {"cannot sync", {{"fsync", EIO, 0, 1}}, RECORD_OPEN_ERROR},
        {"sync interrupted", {{"fsync", EINTR, 0, 2}}, STATUS_OK},
        {"cannot close", {{"close", EIO, 1, 1}}, RECORD_OPEN_ERROR},  // the first one closes what was read
        {"close interrupted", {{"close", EINTR, 1, 1}}, STATUS_OK},
        {"cannot rename", {{"renameat", EIO, 0, 1}}, RECORD_OPEN_ERROR},
        {"directory takes no file", {inPlace}, STATUS_OK},
        {"read-only file system around the file", {{"create", EROFS, 0, 1}}, STATUS_OK},
        {"sticky directory", {{"renameat", EPERM, 0, 1}}, STATUS_OK},
        {"file is a mount point", {{"renameat", EBUSY, 0, 1}}, STATUS_OK},
        {"in place: the old bytes cannot be saved", {inPlace, {"read", EIO, 2, 1}}, RECORD_OPEN_ERROR},
        {"in place: disk full", {inPlace, {"write", ENOSPC, 1, 1}}, RECORD_OPEN_ERROR},
        {"in place: cannot sync", {inPlace, {"fsync", EIO, 0, 1}}, RECORD_OPEN_ERROR},
    };
    TempDir directory;
    const std::string file = directory / "record.txt";
    const int numOpen = OpenFiles();
    for (const auto& row : rows) {
        for (const std::string& old : {kOld, kLong}) {
            SCOPED_TRACE(row.why);
            WriteText(file, old);
            faults = row.faults;
            writesPieces = true;
            const int status = Update(file);
            writesPieces = false;
            for (const Fault& fault : faults) EXPECT_EQ(0, fault.times) << fault.call << " never came to fail";
            faults.clear();
            EXPECT_EQ(row.status, status);
            EXPECT_EQ(status == STATUS_OK ? kNew : old, ReadText(file));
            EXPECT_EQ(1, directory.NumFiles()) << "a temporary file stayed";
            EXPECT_EQ(numOpen, OpenFiles());
            EXPECT_EQ(1, SemaphoreCount());
        }
    }
}

/// Each allocation of an update fails once: as a status or as std::bad_alloc, with all as it was before.
TEST(RecordFile, FailingAllocations) {
    TempDir directory;
    const std::string file = directory / "record.txt";
    const std::string rest =
        "record {\n  key: \"a_key_too_long_to_be_stored_without_allocating\"\n  value {\n    scale_w: 1\n  }\n}\n"
        "prune_record { x }\n";
    const std::string old = "record {\n  value {\n    scale_d: +1.5\n  }\n}\n" + rest;
    WriteText(file, old);
    const int numOpen = OpenFiles();
    int numThrown = 0, numFailed = 0;
    for (long n = 0;; ++n) {
        int status = STATUS_OK;
        allocations = n;
        try {
            status = Update(file);
        } catch (const std::bad_alloc&) {
            status = -1;
            ++numThrown;
        }
        const bool allSucceeded = allocations.exchange(-1) >= 0;
        ASSERT_EQ(1, SemaphoreCount()) << n;
        ASSERT_EQ(1, directory.NumFiles()) << n;
        ASSERT_EQ(numOpen, OpenFiles()) << n;
        if (status == STATUS_OK) {
            EXPECT_TRUE(allSucceeded) << "allocation " << n << " failed and nobody noticed";
            EXPECT_NE(old, ReadText(file));
            break;
        }
        if (status != -1) ++numFailed;
        ASSERT_EQ(old, ReadText(file)) << n;
        ASSERT_TRUE(status == -1 || status == RECORD_DATA_ERROR) << status << " at " << n;
    }
    EXPECT_GT(numThrown, 50);
    EXPECT_GT(numFailed, 50);
}

/// The result of `body` in a child process without root's rights.
int AsOrdinaryUser(const std::function<int()>& body) {
    const pid_t child = fork();
    if (child == 0) {
        const uid_t nobody = 65534;
        const bool drops = geteuid() == 0;
        const bool dropped = !drops || (setgroups(0, nullptr) == 0 && setresgid(nobody, nobody, nobody) == 0 &&
                                        setresuid(nobody, nobody, nobody) == 0);
        _exit(dropped ? body() : 99);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(RecordFile, Permissions) {
    const struct {
        const char* why;
        mode_t file, directory;
        int status;
    } rows[] = {{"all allowed", 0666, 0777, STATUS_OK},
                {"unreadable file", 0222, 0777, RECORD_OPEN_ERROR},
                {"read-only file in a writable directory", 0444, 0777, RECORD_OPEN_ERROR},
                {"directory takes no new file: in place", 0666, 0555, STATUS_OK},
                {"directory that cannot be listed", 0666, 0333, STATUS_OK},
                {"directory that cannot be searched", 0666, 0666, RECORD_PATH_ERROR}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        TempDir directory;
        const std::string file = directory / "record.txt";
        WriteText(file, kLong);
        chmod(file.c_str(), row.file);
        chmod(directory.Path().c_str(), row.directory);
        const int status = AsOrdinaryUser([&] { return Update(file); });
        chmod(directory.Path().c_str(), 0777);
        chmod(file.c_str(), 0666);
        EXPECT_EQ(row.status, status);
        EXPECT_EQ(status == STATUS_OK ? kNew : kLong, ReadText(file));
        EXPECT_EQ(1, directory.NumFiles());
    }
    TempDir directory;
    WriteText(directory / "record.txt", kOld);
    chmod((directory / "record.txt").c_str(), 0666);
    EXPECT_EQ(RECORD_OPEN_ERROR, AsOrdinaryUser([&] {
                  std::signal(SIGXFSZ, SIG_IGN);
                  const rlimit limit = {kOld.size(), kOld.size()};
                  return setrlimit(RLIMIT_FSIZE, &limit) == 0 ? Update(directory / "record.txt") : 99;
              }));
    EXPECT_EQ(kOld, ReadText(directory / "record.txt"));
    EXPECT_EQ(STATUS_OK,
              AsOrdinaryUser([&] { return chdir(directory.Path().c_str()) == 0 ? Update("record.txt") : 99; }));
    EXPECT_EQ(kNew, ReadText(directory / "record.txt"));
    chmod(directory.Path().c_str(), 0555);
    EXPECT_EQ(RECORD_OPEN_ERROR, AsOrdinaryUser([&] {
                  Root root;
                  return WriteToRecordFile(root, directory / "new.txt");
              }));
    chmod(directory.Path().c_str(), 0777);
    EXPECT_EQ(1, directory.NumFiles());
}

TEST(RecordFile, LinksModeAndOwnerStay) {
    TempDir directory;
    const std::string file = directory / "record.txt", link = directory / "link", dangling = directory / "dangling";
    WriteText(file, kOld);
    chmod(file.c_str(), 0640);
    const bool isRoot = chown(file.c_str(), 1234, 2345) == 0;
    symlink("record.txt", link.c_str());
    symlink(link.c_str(), (directory / "link2").c_str());
    EXPECT_EQ(STATUS_OK, Update(directory / "link2"));
    EXPECT_EQ(kNew, ReadText(file));
    EXPECT_TRUE(std::filesystem::is_symlink(link) && std::filesystem::is_symlink(directory / "link2"));
    struct stat status = {};
    ASSERT_EQ(0, stat(file.c_str(), &status));
    EXPECT_EQ(0640u, status.st_mode & 07777);
    EXPECT_TRUE(!isRoot || (status.st_uid == 1234 && status.st_gid == 2345));

    Root root;
    symlink("new.txt", dangling.c_str());
    const mode_t mask = umask(027);
    EXPECT_EQ(STATUS_OK, WriteToRecordFile(root, dangling));
    umask(mask);
    ASSERT_EQ(0, stat((directory / "new.txt").c_str(), &status));
    EXPECT_EQ(0640u, status.st_mode & 07777) << "0666 but the mask";
    EXPECT_EQ(0, status.st_size) << "a root without entries is an empty file";
    EXPECT_TRUE(std::filesystem::is_symlink(dangling));

    symlink("loop", (directory / "loop").c_str());
    EXPECT_EQ(RECORD_OPEN_ERROR, WriteToRecordFile(root, directory / "loop"));
    EXPECT_EQ(RECORD_PATH_ERROR, Update(directory / "loop"));
}

TEST(RecordFile, OddPaths) {
    TempDir directory;
    Root root;
    root.AddRecord()->SetKey("a");
    const std::string longName = directory / std::string(255, 'n');
    EXPECT_EQ(STATUS_OK, WriteToRecordFile(root, longName));
    EXPECT_EQ(root.Dump(), ReadText(longName));
    for (const std::string& path :
         {std::string(), directory.Path(), directory / "", directory / "none/x", longName + "n", longName + "/x",
          std::string(5000, 'x'), std::string("/dev/full")}) {
        EXPECT_EQ(RECORD_OPEN_ERROR, WriteToRecordFile(root, path)) << path;
        Root parsed;
        const int status = kest_tf::ParseRecordFile(path, parsed);
        EXPECT_TRUE(status == RECORD_PATH_ERROR || status == RECORD_OPEN_ERROR) << path << status;
    }
    EXPECT_EQ(STATUS_OK, Update("/dev/null"));
    EXPECT_EQ(1, directory.NumFiles());

    const std::string pipe = directory / "pipe";
    ASSERT_EQ(0, mkfifo(pipe.c_str(), 0600));
    const int reader = open(pipe.c_str(), O_RDWR);
    EXPECT_EQ(STATUS_OK, WriteToRecordFile(root, pipe));
    std::string text(1000, ' ');
    text.resize(static_cast<std::size_t>(read(reader, text.data(), text.size())));
    EXPECT_EQ(root.Dump(), text);
    close(reader);
}

}  // namespace
