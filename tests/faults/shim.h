#ifndef KEST_TESTS_FAULTS_SHIM_H_
#define KEST_TESTS_FAULTS_SHIM_H_

#include <dlfcn.h>
#include <fcntl.h>
#include <malloc.h>
#include <semaphore.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <new>

/// \file
/// To be included by one file of a program.
/// The calls of the C library and the operator new of a program and of its libraries, which fail when told to.
///
/// Calls go by the names of the C library, but for "create", an openat that makes a file, "close written", which closes
/// one that is open for writing only, and "new", any allocation. fsync does nothing else.

/// Not an errno: the call succeeds and moves half of what it is asked to.
constexpr int kShort = -1;

struct Fault {
    const char* call;  // null for none
    int error;         // what errno becomes, or kShort
    long times;        // calls that fail
    long before = 0;   // calls that succeed before them
    long fired = 0;    // calls that have failed
};

/// The faults at work at once, to be changed while no other thread runs. A test walks the first over the calls while
/// the others stay.
Fault faults[4] = {};

/// Bytes of the heap that are in use, its own included, and the most that were.
std::atomic<std::size_t> liveBytes{0}, peakBytes{0};
bool isUnsynced = false;  // something was written after the last fsync

namespace {

/// What becomes of a call: 0 for success; else an errno, which is set, or kShort.
int Outcome(const char* call) {
    for (Fault& fault : faults) {
        if (fault.call == nullptr || std::strcmp(fault.call, call) != 0 || fault.before-- > 0) continue;
        if (fault.fired == fault.times) continue;
        ++fault.fired;
        if (fault.error != kShort) errno = fault.error;
        return fault.error;
    }
    return 0;
}

bool Fails(const char* call) {
    return Outcome(call) != 0;
}

}  // namespace

#define NEXT(name) static auto* const next = reinterpret_cast<decltype(&name)>(dlsym(RTLD_NEXT, #name))

#define MAY_FAIL(name, result, failure, parameters, ...)     \
    result name parameters {                                 \
        NEXT(name);                                          \
        return Fails(#name) ? (failure) : next(__VA_ARGS__); \
    }

#define MAY_BE_SHORT(name, data)                                                        \
    ssize_t name(int fd, data bytes, size_t size) {                                     \
        NEXT(name);                                                                     \
        const int outcome = Outcome(#name);                                             \
        isUnsynced |= std::strcmp(#name, "write") == 0;                                 \
        return outcome > 0 ? -1 : next(fd, bytes, outcome < 0 ? (size + 1) / 2 : size); \
    }

extern "C" {

MAY_BE_SHORT(read, void*)
MAY_BE_SHORT(write, const void*)
MAY_FAIL(faccessat, int, -1, (int at, const char* name, int mode, int flags) noexcept, at, name, mode, flags)
MAY_FAIL(fchmod, int, -1, (int fd, mode_t mode) noexcept, fd, mode)
MAY_FAIL(fchown, int, -1, (int fd, uid_t user, gid_t group) noexcept, fd, user, group)
MAY_FAIL(flock, int, -1, (int fd, int operation) noexcept, fd, operation)
MAY_FAIL(fstat, int, -1, (int fd, struct stat* status) noexcept, fd, status)
MAY_FAIL(ftruncate, int, -1, (int fd, off_t size) noexcept, fd, size)
MAY_FAIL(lseek, off_t, -1, (int fd, off_t offset, int from) noexcept, fd, offset, from)
MAY_FAIL(readlink, ssize_t, -1, (const char* path, char* link, size_t size) noexcept, path, link, size)
MAY_FAIL(realpath, char*, nullptr, (const char* path, char* resolved) noexcept, path, resolved)
MAY_FAIL(renameat, int, -1, (int from, const char* old, int to, const char* name) noexcept, from, old, to, name)
MAY_FAIL(sem_wait, int, -1, (sem_t * semaphore), semaphore)
MAY_FAIL(stat, int, -1, (const char* path, struct stat* status) noexcept, path, status)
MAY_FAIL(unlinkat, int, -1, (int at, const char* name, int flags) noexcept, at, name, flags)

int close(int fd) {
    NEXT(close);
    const bool isWritten = (fcntl(fd, F_GETFL) & O_ACCMODE) == O_WRONLY;
    const int result = next(fd);  // a descriptor is gone even when this fails
    return Fails(isWritten ? "close written" : "close") ? -1 : result;
}

int fsync(int) {
    return Fails("fsync") ? -1 : (isUnsynced = false);
}

// What a library calls that is built with _FORTIFY_SOURCE.
ssize_t __read_chk(int fd, void* bytes, size_t size, size_t) {
    return read(fd, bytes, size);
}
ssize_t __readlink_chk(const char* path, char* link, size_t size, size_t) {
    return readlink(path, link, size);
}
char* __realpath_chk(const char* path, char* resolved, size_t) {
    return realpath(path, resolved);
}

int openat(int directory, const char* name, int flags, ...) {
    NEXT(openat);
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = va_arg(arguments, mode_t);
    va_end(arguments);
    if ((flags & O_CLOEXEC) == 0) std::abort();  // an exec would keep it, and a lock with it
    return Fails((flags & O_CREAT) != 0 ? "create" : "openat") ? -1 : next(directory, name, flags, mode);
}

}  // extern "C"

// Not inlined: the compiler would take free for the wrong way to delete what new gave.
__attribute__((noinline)) static void* Allocate(size_t size) {
    void* const memory = Fails("new") ? nullptr : std::malloc(size);
    if (memory == nullptr) return nullptr;
    liveBytes += malloc_usable_size(memory) + sizeof(size_t);
    if (liveBytes > peakBytes) peakBytes = liveBytes.load();
    return memory;
}
__attribute__((noinline)) static void Free(void* memory) {
    if (memory != nullptr) liveBytes -= malloc_usable_size(memory) + sizeof(size_t);
    std::free(memory);
}
void* operator new(size_t size) {
    void* memory = Allocate(size);
    return memory != nullptr ? memory : throw std::bad_alloc();
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return Allocate(size);
}
void operator delete(void* memory) noexcept {
    Free(memory);
}
void operator delete(void* memory, size_t) noexcept {
    Free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {  // after a constructor that throws
    Free(memory);
}

#endif  // KEST_TESTS_FAULTS_SHIM_H_
