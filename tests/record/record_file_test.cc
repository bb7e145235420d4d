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

template <typename... Args>
long Call(const char* name, long number, Args... args) {
    return Fails(name) ? -1 : syscall(number, args...);
}

// Not inlined: the compiler would take free for the wrong way to delete what new gave.
__attribute__((noinline)) void* Allocate(std::size_t size) {
    return allocations >= 0 && allocations-- == 0 ? nullptr : std::malloc(size);
}
__attribute__((noinline)) void Free(void* memory) {
    std::free(memory);
}

}  // namespace

extern "C" {
ssize_t write(int fd, const void* data, size_t size) {
    return Call("write", SYS_write, fd, data, writesPieces && size > 1 ? size / 2 : size);
}
ssize_t read(int fd, void* data, size_t size) {
    return Call("read", SYS_read, fd, data, size);
}
int fsync(int fd) {
    return static_cast<int>(Call("fsync", SYS_fsync, fd));
}
int close(int fd) {
    const long result = syscall(SYS_close, fd);
    return Fails("close") ? -1 : static_cast<int>(result);
}
int fchmod(int fd, mode_t mode) noexcept {
    return static_cast<int>(Call("fchmod", SYS_fchmod, fd, mode));
}
int renameat(int from, const char* old, int to, const char* name) noexcept {
    return static_cast<int>(Call("renameat", SYS_renameat, from, old, to, name));
}
int openat(int directory, const char* name, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = va_arg(arguments, mode_t);
    va_end(arguments);
    return static_cast<int>(Call((flags & O_CREAT) != 0 ? "create" : "open", SYS_openat, directory, name, flags, mode));
}
}

void* operator new(std::size_t size) {
    void* memory = Allocate(size);
    return memory != nullptr ? memory : throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return Allocate(size);
}
void operator delete(void* memory) noexcept {
    Free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    Free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
    Free(memory);
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
    const std::string old =
        "record { value { scale_d: +1.5 } } record { key: too_long_to_be_stored_without_an_allocation "
        "value { scale_w: 1 } } prune_record { x }";
    WriteText(file, old);
    const int numOpen = OpenFiles();
    int status = -1, numThrown = 0, numFailed = 0;
    for (long n = 0; status != STATUS_OK; ++n) {
        SCOPED_TRACE(n);
        allocations = n;
        try {
            status = Update(file);
            ++numFailed;
        } catch (const std::bad_alloc&) {
            status = RECORD_DATA_ERROR;
            ++numThrown;
        }
        const bool allSucceeded = allocations.exchange(-1) >= 0;
        ASSERT_EQ(allSucceeded ? STATUS_OK : RECORD_DATA_ERROR, status) << "a failed allocation went unnoticed";
        ASSERT_EQ(allSucceeded, ReadText(file) != old);
        ASSERT_EQ(1, SemaphoreCount());
        ASSERT_EQ(1, directory.NumFiles());
        ASSERT_EQ(numOpen, OpenFiles());
    }
    EXPECT_GT(numThrown, 50);
    EXPECT_GT(numFailed, 50);
}

/// The result of `body` in a child process without root's rights.
int AsOrdinaryUser(const std::function<int()>& body) {
    const pid_t child = fork();
    if (child == 0) {
        const bool isReady = geteuid() != 0 || (setgroups(0, nullptr) == 0 && setgid(65534) == 0 && setuid(65534) == 0);
        _exit(isReady ? body() : 99);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(RecordFile, Permissions) {
    const struct {
        const char* why;
        mode_t file, directory;
        rlim_t maxSize;
        int status;
    } rows[] = {{"all allowed", 0666, 0777, RLIM_INFINITY, STATUS_OK},
                {"unreadable file", 0222, 0777, RLIM_INFINITY, RECORD_OPEN_ERROR},
                {"read-only file in a writable directory", 0444, 0777, RLIM_INFINITY, RECORD_OPEN_ERROR},
                {"directory takes no new file: in place", 0666, 0555, RLIM_INFINITY, STATUS_OK},
                {"directory that cannot be listed", 0666, 0333, RLIM_INFINITY, STATUS_OK},
                {"directory that cannot be searched", 0666, 0666, RLIM_INFINITY, RECORD_PATH_ERROR},
                {"limit of the file size", 0666, 0777, kOld.size(), RECORD_OPEN_ERROR},
                {"limit of the file size, in place", 0666, 0555, kOld.size(), RECORD_OPEN_ERROR}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        TempDir directory;
        const std::string file = directory / "record.txt";
        WriteText(file, kOld);
        chmod(file.c_str(), row.file);
        chmod(directory.Path().c_str(), row.directory);
        const int status = AsOrdinaryUser([&] {
            const rlimit limit = {row.maxSize, row.maxSize};
            std::signal(SIGXFSZ, SIG_IGN);
            return setrlimit(RLIMIT_FSIZE, &limit) == 0 ? Update(file) : 98;
        });
        chmod(directory.Path().c_str(), 0777);
        chmod(file.c_str(), 0666);
        EXPECT_EQ(row.status, status);
        EXPECT_EQ(status == STATUS_OK ? kNew : kOld, ReadText(file));
        EXPECT_EQ(1, directory.NumFiles());
    }
}

TEST(RecordFile, LinksModeAndOwnerStay) {
    TempDir directory;
    const std::string file = directory / "record.txt", link = directory / "link", link2 = directory / "link2";
    WriteText(file, kOld);
    chmod(file.c_str(), 0640);
    const bool isRoot = chown(file.c_str(), 1234, 2345) == 0;
    std::filesystem::create_symlink("record.txt", link);
    std::filesystem::create_symlink(link, link2);
    EXPECT_EQ(STATUS_OK, Update(link2));
    EXPECT_EQ(kNew, ReadText(file));
    EXPECT_TRUE(std::filesystem::is_symlink(link) && std::filesystem::is_symlink(link2));
    struct stat status = {};
    ASSERT_EQ(0, stat(file.c_str(), &status));
    EXPECT_EQ(0640u, status.st_mode & 07777);
    EXPECT_TRUE(!isRoot || (status.st_uid == 1234 && status.st_gid == 2345));

    Root root;
    std::filesystem::create_symlink("new.txt", directory / "dangling");
    const mode_t mask = umask(027);
    EXPECT_EQ(STATUS_OK, WriteToRecordFile(root, directory / "dangling"));
    umask(mask);
    ASSERT_EQ(0, stat((directory / "new.txt").c_str(), &status));
    EXPECT_EQ(0640u, status.st_mode & 07777) << "0666 but the mask";
    EXPECT_EQ(0, status.st_size) << "a root without entries is an empty file";
    EXPECT_TRUE(std::filesystem::is_symlink(directory / "dangling"));
    std::filesystem::create_symlink("loop", directory / "loop");
    EXPECT_EQ(RECORD_OPEN_ERROR, WriteToRecordFile(root, directory / "loop"));
}

TEST(RecordFile, OddPaths) {
    TempDir directory;
    Root root, parsed;
    root.AddRecord()->SetKey("a");
    const std::string longName = directory / std::string(255, 'n');
    EXPECT_EQ(STATUS_OK, WriteToRecordFile(root, longName));
    EXPECT_EQ(root.Dump(), ReadText(longName));
    const std::pair<std::string, int> rows[] = {// and what reading gives
                                                {"", RECORD_PATH_ERROR},
                                                {directory / "", RECORD_OPEN_ERROR},
                                                {directory / "none/x", RECORD_PATH_ERROR},
                                                {longName + "n", RECORD_PATH_ERROR},
                                                {longName + "/x", RECORD_PATH_ERROR},
                                                {std::string(5000, 'x'), RECORD_PATH_ERROR},
                                                {"/dev/full", RECORD_OPEN_ERROR}};
    for (const auto& [path, status] : rows) {
        EXPECT_EQ(RECORD_OPEN_ERROR, WriteToRecordFile(root, path)) << path;
        EXPECT_EQ(status, kest_tf::ParseRecordFile(path, parsed)) << path;
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
