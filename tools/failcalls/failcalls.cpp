// Makes one call of a program fail: a library to preload (LD_PRELOAD) for fault campaigns. Counts
// the calls of each kind that the named program makes into the C library and lets the n-th one
// fail.
//
//   FAILCALLS_PROGRAM  the program's short name; its forked children count with it, others do
//   nothing FAILCALLS_TABLE    a file that holds a TableT (see below); made by the caller, shared
//   by all FAILCALLS_PLAN     "name:n:how" or "name:n:how:on" (that call and all of its kind after
//   it);
//                      how: an errno value, or "short" (a read or write of half of what was asked).
//                      Unset: calls are only counted.
//
// Any thread may call what is wrapped; nothing here allocates or takes a lock.
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <spawn.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

// One line a kind of call. scripts/torture.py reads this list: the order is the table's.
enum CallT {
    kOpen,
    kRead,
    kWrite,
    kClose,
    kSelect,
    kPoll,
    kIoctl,
    kTcgetattr,
    kTcsetattr,
    kTcdrain,
    kStat,
    kFstat,
    kLstat,
    kFopen,
    kFdopen,
    kFread,
    kFwrite,
    kFflush,
    kFclose,
    kMkfifo,
    kMkdir,
    kMkdtemp,
    kUnlink,
    kRename,
    kSymlink,
    kFsync,
    kFtruncate,
    kFork,
    kPosixSpawn,
    kPipe,
    kPosixOpenpt,
    kGrantpt,
    kUnlockpt,
    kPtsname,
    kFlock,
    kFcntl,
    kDup2,
    kSetsid,
    kPthreadCreate,
    kPthreadMutexInit,
    kPthreadCondInit,
    kClockGettime,
    kGettimeofday,
    kMalloc,
    kCalloc,
    kMmap,
    kSignalfd,
    kCalls
};

constexpr unsigned kSites = 8192;

// The caller's file, laid out for a little script: counts, then the failed call, then where each of
// the first kSites calls of a kind came from (return addresses of programs at fixed addresses).
struct TableT {
    std::atomic<std::uint32_t> counts[64];
    std::atomic<std::uint32_t> hits;
    std::uint32_t unused;
    std::uint64_t failed_site;
    std::uint64_t sites[64][kSites];
};
static_assert(kCalls <= 64);

struct PlanT {
    int call = -1;
    std::uint32_t nth = 0;
    int error = 0;
    bool is_short = false;
    bool stays = false;
};

std::atomic<TableT*> gTable{nullptr};
PlanT gPlan;

// The name of a kind as a plan writes it, in the order of CallT.
constexpr const char* kNames[kCalls] = {"open",
                                        "read",
                                        "write",
                                        "close",
                                        "select",
                                        "poll",
                                        "ioctl",
                                        "tcgetattr",
                                        "tcsetattr",
                                        "tcdrain",
                                        "stat",
                                        "fstat",
                                        "lstat",
                                        "fopen",
                                        "fdopen",
                                        "fread",
                                        "fwrite",
                                        "fflush",
                                        "fclose",
                                        "mkfifo",
                                        "mkdir",
                                        "mkdtemp",
                                        "unlink",
                                        "rename",
                                        "symlink",
                                        "fsync",
                                        "ftruncate",
                                        "fork",
                                        "posix_spawn",
                                        "pipe",
                                        "posix_openpt",
                                        "grantpt",
                                        "unlockpt",
                                        "ptsname",
                                        "flock",
                                        "fcntl",
                                        "dup2",
                                        "setsid",
                                        "pthread_create",
                                        "pthread_mutex_init",
                                        "pthread_cond_init",
                                        "clock_gettime",
                                        "gettimeofday",
                                        "malloc",
                                        "calloc",
                                        "mmap",
                                        "signalfd"};

// Counts a call; true when it is the one to fail. errno is then set.
bool Fails(CallT call, void* site) {
    TableT* table = gTable.load(std::memory_order_acquire);
    if (table == nullptr) {
        return false;
    }
    const std::uint32_t n = ++table->counts[call];
    const auto address = reinterpret_cast<std::uint64_t>(site);
    if (n <= kSites) {
        table->sites[call][n - 1] = address;
    }
    if (call != gPlan.call || n < gPlan.nth || (n > gPlan.nth && !gPlan.stays)) {
        return false;
    }
    if (table->hits++ == 0) {
        table->failed_site = address;
    }
    errno = gPlan.error;
    return true;
}

#define SITE __builtin_return_address(0)

template <typename F>
F* Next(F*, const char* name) {
    return reinterpret_cast<F*>(dlsym(RTLD_NEXT, name));
}

// The function of the C library (or of a sanitizer) behind a wrapper, looked up once.
#define NEXT(name)                                       \
    ([] {                                                \
        static const auto next = Next(&(::name), #name); \
        return next;                                     \
    }())

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

bool TakeName(const char* text, std::size_t size) {
    for (int call = 0; call < kCalls; ++call) {
        if (std::strlen(kNames[call]) == size && std::strncmp(kNames[call], text, size) == 0) {
            gPlan.call = call;
            return true;
        }
    }
    return false;
}

// Reads "name:n:how[:on]". A plan that cannot be read ends the program: a campaign must not
// take a run without a fault for one that survived it.
void ReadPlan(const char* text) {
    const char* colon = std::strchr(text, ':');
    const char* how = colon != nullptr ? std::strchr(colon + 1, ':') : nullptr;
    if (how == nullptr || !TakeName(text, static_cast<std::size_t>(colon - text)) ||
        !IsDigit(colon[1])) {
        const char line[] = "failcalls: FAILCALLS_PLAN cannot be read\n";
        [[maybe_unused]] const ssize_t ignored = ::write(2, line, sizeof line - 1);
        _exit(99);
    }
    gPlan.nth = static_cast<std::uint32_t>(std::strtoul(colon + 1, nullptr, 10));
    ++how;
    gPlan.is_short = std::strncmp(how, "short", 5) == 0;
    gPlan.error = gPlan.is_short ? 0 : std::atoi(how);
    gPlan.stays = std::strstr(how, ":on") != nullptr;
}

__attribute__((constructor)) void Begin() {
    const char* program = getenv("FAILCALLS_PROGRAM");
    const char* path = getenv("FAILCALLS_TABLE");
    if (program == nullptr || path == nullptr ||
        std::strcmp(program, program_invocation_short_name) != 0) {
        return;
    }
    if (const char* plan = getenv("FAILCALLS_PLAN")) {
        ReadPlan(plan);
    }
    const int fd = NEXT(open)(path, O_RDWR | O_CLOEXEC);
    void* memory =
        fd < 0 ? MAP_FAILED
               : NEXT(mmap)(nullptr, sizeof(TableT), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) {
        _exit(99);
    }
    NEXT(close)(fd);
    gTable.store(static_cast<TableT*>(memory), std::memory_order_release);
}

// Memory for what the look-up of malloc itself asks for.
alignas(16) char gEarly[65536];
std::atomic<std::size_t> gEarlyUsed{0};
thread_local bool gLookingUp = false;

bool IsEarly(const void* block) {
    return block >= gEarly && block < gEarly + sizeof gEarly;
}

void* Early(std::size_t size) {
    const std::size_t at = gEarlyUsed.fetch_add((size + 31) & ~std::size_t{15});
    return at + size < sizeof gEarly ? gEarly + at : nullptr;
}

template <typename F>
F* NextAllocator(const char* name, std::atomic<F*>& kept) {
    F* next = kept.load(std::memory_order_acquire);
    if (next == nullptr) {
        gLookingUp = true;
        next = reinterpret_cast<F*>(dlsym(RTLD_NEXT, name));
        gLookingUp = false;
        kept.store(next, std::memory_order_release);
    }
    return next;
}

std::atomic<void* (*)(std::size_t)> gMalloc{nullptr};
std::atomic<void* (*)(std::size_t, std::size_t)> gCalloc{nullptr};
std::atomic<void (*)(void*)> gFree{nullptr};

}  // namespace

// Wrappers of calls that report through errno and a value.
#define WRAP(kind, result, name, parameters, arguments, failure) \
    result name parameters {                                     \
        if (Fails(kind, SITE)) {                                 \
            return failure;                                      \
        }                                                        \
        return NEXT(name) arguments;                             \
    }

// Wrappers of calls that return their error.
#define WRAP_CODE(kind, name, parameters, arguments) \
    int name parameters {                            \
        if (Fails(kind, SITE)) {                     \
            return gPlan.error;                      \
        }                                            \
        return NEXT(name) arguments;                 \
    }

extern "C" {

int open(const char* path, int flags, ...) {
    va_list list;
    va_start(list, flags);
    const auto mode = static_cast<mode_t>((flags & O_CREAT) != 0 ? va_arg(list, int) : 0);
    va_end(list);
    return Fails(kOpen, SITE) ? -1 : NEXT(open)(path, flags, mode);
}

ssize_t read(int fd, void* data, size_t size) {
    if (Fails(kRead, SITE)) {
        if (!gPlan.is_short) {
            return -1;
        }
        size = size > 1 ? size / 2 : size;
    }
    return NEXT(read)(fd, data, size);
}

ssize_t write(int fd, const void* data, size_t size) {
    if (Fails(kWrite, SITE)) {
        if (!gPlan.is_short) {
            return -1;
        }
        size = size > 1 ? size / 2 : size;
    }
    return NEXT(write)(fd, data, size);
}

// A close that fails has let go of the descriptor all the same.
int close(int fd) {
    const bool fails = Fails(kClose, SITE);
    const int result = NEXT(close)(fd);
    if (fails) {
        errno = gPlan.error;
        return -1;
    }
    return result;
}

int fclose(FILE* file) {
    const bool fails = Fails(kFclose, SITE);
    const int result = NEXT(fclose)(file);
    if (fails) {
        errno = gPlan.error;
        return EOF;
    }
    return result;
}

size_t fread(void* data, size_t size, size_t count, FILE* file) {
    if (Fails(kFread, SITE)) {
        if (!gPlan.is_short) {
            return 0;
        }
        count = count > 1 ? count / 2 : count;
    }
    return NEXT(fread)(data, size, count, file);
}

size_t fwrite(const void* data, size_t size, size_t count, FILE* file) {
    if (Fails(kFwrite, SITE)) {
        if (!gPlan.is_short) {
            return 0;
        }
        count = count > 1 ? count / 2 : count;
    }
    return NEXT(fwrite)(data, size, count, file);
}

int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list list;
    va_start(list, request);
    void* argument = va_arg(list, void*);
    va_end(list);
    return Fails(kIoctl, SITE) ? -1 : NEXT(ioctl)(fd, request, argument);
}

int fcntl(int fd, int command, ...) {
    va_list list;
    va_start(list, command);
    void* argument = va_arg(list, void*);
    va_end(list);
    return Fails(kFcntl, SITE) ? -1 : NEXT(fcntl)(fd, command, argument);
}

void* malloc(size_t size) noexcept {
    if (gLookingUp) {
        return Early(size);
    }
    return Fails(kMalloc, SITE) ? nullptr : NextAllocator("malloc", gMalloc)(size);
}

void* calloc(size_t count, size_t size) noexcept {
    if (gLookingUp) {
        return Early(count * size);
    }
    return Fails(kCalloc, SITE) ? nullptr : NextAllocator("calloc", gCalloc)(count, size);
}

void free(void* block) noexcept {
    if (block != nullptr && !IsEarly(block)) {
        NextAllocator("free", gFree)(block);
    }
}

WRAP(kSelect, int, select,
     (int n, fd_set* reads, fd_set* writes, fd_set* excepts, struct timeval* timeout),
     (n, reads, writes, excepts, timeout), -1)
WRAP(kPoll, int, poll, (struct pollfd * fds, nfds_t n, int timeout), (fds, n, timeout), -1)
WRAP(kPoll, int, ppoll,
     (struct pollfd * fds, nfds_t n, const struct timespec* timeout, const sigset_t* mask),
     (fds, n, timeout, mask), -1)
WRAP(kTcgetattr, int, tcgetattr, (int fd, struct termios* settings) noexcept, (fd, settings), -1)
WRAP(kTcsetattr, int, tcsetattr, (int fd, int when, const struct termios* settings) noexcept,
     (fd, when, settings), -1)
WRAP(kTcdrain, int, tcdrain, (int fd), (fd), -1)
WRAP(kStat, int, stat, (const char* path, struct stat* status) noexcept, (path, status), -1)
WRAP(kFstat, int, fstat, (int fd, struct stat* status) noexcept, (fd, status), -1)
WRAP(kLstat, int, lstat, (const char* path, struct stat* status) noexcept, (path, status), -1)
WRAP(kFopen, FILE*, fopen, (const char* path, const char* mode), (path, mode), nullptr)
WRAP(kFdopen, FILE*, fdopen, (int fd, const char* mode) noexcept, (fd, mode), nullptr)
WRAP(kFflush, int, fflush, (FILE * file), (file), EOF)
WRAP(kMkfifo, int, mkfifo, (const char* path, mode_t mode) noexcept, (path, mode), -1)
WRAP(kMkdir, int, mkdir, (const char* path, mode_t mode) noexcept, (path, mode), -1)
WRAP(kMkdtemp, char*, mkdtemp, (char* path) noexcept, (path), nullptr)
WRAP(kUnlink, int, unlink, (const char* path) noexcept, (path), -1)
WRAP(kRename, int, rename, (const char* from, const char* to) noexcept, (from, to), -1)
WRAP(kSymlink, int, symlink, (const char* to, const char* path) noexcept, (to, path), -1)
WRAP(kFsync, int, fsync, (int fd), (fd), -1)
WRAP(kFtruncate, int, ftruncate, (int fd, off_t size) noexcept, (fd, size), -1)
WRAP(kFork, pid_t, fork, () noexcept, (), -1)
WRAP(kPipe, int, pipe, (int fds[2]) noexcept, (fds), -1)
WRAP(kPipe, int, pipe2, (int fds[2], int flags) noexcept, (fds, flags), -1)
WRAP(kPosixOpenpt, int, posix_openpt, (int flags), (flags), -1)
WRAP(kGrantpt, int, grantpt, (int fd) noexcept, (fd), -1)
WRAP(kUnlockpt, int, unlockpt, (int fd) noexcept, (fd), -1)
WRAP(kFlock, int, flock, (int fd, int operation) noexcept, (fd, operation), -1)
WRAP(kDup2, int, dup2, (int from, int to) noexcept, (from, to), -1)
WRAP(kSetsid, pid_t, setsid, () noexcept, (), -1)
WRAP(kClockGettime, int, clock_gettime, (clockid_t clock, struct timespec* now) noexcept,
     (clock, now), -1)
WRAP(kGettimeofday, int, gettimeofday, (struct timeval * now, void* zone) noexcept, (now, zone), -1)
WRAP(kMmap, void*, mmap,
     (void* address, size_t size, int protection, int flags, int fd, off_t offset) noexcept,
     (address, size, protection, flags, fd, offset), MAP_FAILED)
WRAP(kSignalfd, int, signalfd, (int fd, const sigset_t* mask, int flags) noexcept,
     (fd, mask, flags), -1)

WRAP_CODE(kPtsname, ptsname_r, (int fd, char* name, size_t size) noexcept, (fd, name, size))
WRAP_CODE(kPosixSpawn, posix_spawn,
          (pid_t * pid, const char* path, const posix_spawn_file_actions_t* actions,
           const posix_spawnattr_t* attributes, char* const arguments[], char* const environment[]),
          (pid, path, actions, attributes, arguments, environment))
WRAP_CODE(kPthreadCreate, pthread_create,
          (pthread_t * thread, const pthread_attr_t* attributes, void* (*start)(void*),
           void* argument) noexcept,
          (thread, attributes, start, argument))
WRAP_CODE(kPthreadMutexInit, pthread_mutex_init,
          (pthread_mutex_t * mutex, const pthread_mutexattr_t* attributes) noexcept,
          (mutex, attributes))
WRAP_CODE(kPthreadCondInit, pthread_cond_init,
          (pthread_cond_t * condition, const pthread_condattr_t* attributes) noexcept,
          (condition, attributes))

}  // extern "C"
