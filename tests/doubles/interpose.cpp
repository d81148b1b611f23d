/*
 * interpose.cpp - the test executable's own definitions of the system and
 * allocator calls the library makes. Each passes on to the C library's
 * definition (found with dlsym RTLD_NEXT; the allocator through glibc's
 * __libc_ entry points, since dlsym itself allocates) unless a Fault is
 * armed on it. "/dev/KovDevDat" is answered here by the activity device
 * double, which records what the library tells it; requests on an image
 * file attached to the drive double go to that double (drive.cpp).
 *
 * Everything here must be safe to run in a forked child and must not
 * allocate: the hooks are plain static arrays.
 */
#include "doubles/interpose.h"

#include "doubles/drive.h"

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>
#include <utime.h>

// The allocator hooks. Normally they replace malloc and its kin for the
// whole process and pass on to the C library's allocator. Under the
// sanitizers, whose allocator must own every block and is not ready when
// the dynamic loader first allocates, the test executables are linked with
// --wrap instead: only the calls of the code linked into them come here,
// and go on to the sanitizer's allocator.
#if defined(KOVTEST_WRAP_ALLOC)
#define KOVTEST_ALLOC(name) __real_##name
#define KOVTEST_HOOK(name) __wrap_##name
#else
#define KOVTEST_ALLOC(name) __libc_##name
#define KOVTEST_HOOK(name) name
#endif
extern "C" void *KOVTEST_ALLOC(malloc)(size_t);
extern "C" void *KOVTEST_ALLOC(realloc)(void *, size_t);
extern "C" void *KOVTEST_ALLOC(calloc)(size_t, size_t);

namespace {

#define KOVTEST_HOOKS(X) \
    X(malloc) X(calloc) X(realloc) X(open) X(creat) X(close) X(read) X(write) X(stat) \
    X(lstat) X(fstat) X(mkdir) X(chmod) X(remove) X(rename) X(utime) X(sync) \
    X(semop) X(semget) X(semctl) X(shmget) X(shmat) X(ftok) X(ioctl) \
    X(opendir) X(symlink) X(readlink) X(fork) X(waitpid) X(fcntl) X(lseek) \
    X(explicit_bzero) X(usleep)

enum HookId {
#define X(n) H_##n,
    KOVTEST_HOOKS(X)
#undef X
    H_COUNT
};

const char *const kHookNames[H_COUNT] = {
#define X(n) #n,
    KOVTEST_HOOKS(X)
#undef X
};

struct Hook {
    long calls;
    int countdown;  // 0: disarmed; n: the nth call from now fails
    int times;      // failures still to give once triggered (-1: for ever)
    int err;
    bool failing;
    size_t only_size;  // 0: every call counts
};
Hook hooks[H_COUNT];
kovtest::Spy spy_fn;
int spy_hook = -1;

// FaultAny: one countdown over every hook at once, and what it hit.
struct AnyFault {
    bool armed;
    int countdown;
    int err;  // 0: the errno that suits the call
    long counted;
    bool fired;
    int hit;  // hook id
    int hit_err;
    char hit_path[256];
    int hit_fd;
    size_t hit_count;
};
AnyFault any;

// ShortWrite: the nth write of a length passes only `count` bytes on.
struct ShortAt {
    int countdown;  // 0: disarmed
    size_t count, length;
};
ShortAt short_at;

// CrashAt: the countdown of calls that change the file system.
int crash_at;
void Cut()
{
    if (crash_at > 0 && --crash_at == 0)
        _exit(kovtest::CrashAt::kExit);
}

// The errno a failure of each call most plausibly gives, chosen so that it
// takes the failure path itself rather than one that means "absent" or
// "exists" (ENOENT, EEXIST) or one the library answers by another route
// (ENOTTY, EINVAL from ioctl).
int SuitedErrno(int id)
{
    switch (id) {
    case H_malloc: case H_calloc: case H_realloc: case H_shmat:
        return ENOMEM;
    case H_close: case H_read: case H_write: case H_stat: case H_lstat: case H_fstat:
    case H_readlink: case H_ioctl:
        return EIO;
    case H_mkdir: case H_creat: case H_symlink: case H_shmget: case H_semget:
        return ENOSPC;
    case H_semop: case H_usleep:
        return EINTR;  // a signal during the wait
    case H_fork:
        return EAGAIN;
    case H_waitpid:
        return ECHILD;
    case H_fcntl: case H_lseek: case H_semctl:
        return EINVAL;
    default:  // open, chmod, remove, rename, utime, ftok, opendir
        return EACCES;
    }
}

int HookByName(const char *name)
{
    for (int i = 0; i < H_COUNT; i++)
        if (strcmp(kHookNames[i], name) == 0)
            return i;
    return -1;
}

// True when this call is to fail; errno is then set. A call that cannot
// fail (failable false) is no fault point for FaultAny.
bool Fail(HookId id, const char *path = nullptr, int fd = -1, const void *buf = nullptr,
          size_t count = 0, bool failable = true)
{
    Hook &h = hooks[id];
    h.calls++;
    if (spy_fn != nullptr && spy_hook == id)
        spy_fn(kovtest::CallInfo{kHookNames[id], path, fd, buf, count});
    if (any.armed && failable && !any.fired) {
        any.counted++;
        if (--any.countdown == 0) {
            any.fired = true;
            any.hit = id;
            any.hit_err = any.err != 0 ? any.err : SuitedErrno(id);
            snprintf(any.hit_path, sizeof any.hit_path, "%s", path != nullptr ? path : "");
            any.hit_fd = fd;
            any.hit_count = count;
            errno = any.hit_err;
            return true;
        }
    }
    if (h.only_size != 0 && count != h.only_size)
        return false;
    if (!h.failing && h.countdown > 0 && --h.countdown == 0)
        h.failing = true;
    if (!h.failing)
        return false;
    if (h.times > 0 && --h.times == 0)
        h.failing = false;
    errno = h.err;
    return true;
}

template <typename F>
F Real(const char *name)
{
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}
#define REAL(name) static auto real = Real<decltype(&::name)>(#name)

// ---- The system log -------------------------------------------------------
constexpr int kMaxLog = 64;
int logged;
int log_priority[kMaxLog];
char log_line[kMaxLog][256];

// ---- The activity device ------------------------------------------------
constexpr char kDevice[] = "/dev/KovDevDat";
constexpr int kMaxTold = 256;
bool dev_present;
int dev_fd = -1;
int told;
int told_state[kMaxTold];
unsigned long told_request[kMaxTold];

} // namespace

namespace kovtest {

Fault::Fault(const char *name, int err, int nth, int times, size_t only_size)
    : hook_(HookByName(name))
{
    if (hook_ < 0)
        return;
    Hook &h = hooks[hook_];
    h.countdown = nth;
    h.times = times;
    h.err = err;
    h.failing = false;
    h.only_size = only_size;
}

Fault::~Fault()
{
    if (hook_ < 0)
        return;
    hooks[hook_].countdown = 0;
    hooks[hook_].failing = false;
}

ShortWrite::ShortWrite(int nth, size_t count, size_t length)
{
    short_at = ShortAt{nth, count, length};
}

ShortWrite::~ShortWrite() { short_at.countdown = 0; }

CrashAt::CrashAt(int nth) { crash_at = nth; }

CrashAt::~CrashAt() { crash_at = 0; }

FaultAny::FaultAny(int nth, int err)
{
    any = AnyFault{};
    any.countdown = nth;
    any.err = err;
    any.hit = -1;
    any.armed = nth > 0;
}

FaultAny::~FaultAny() { any.armed = false; }

bool FaultAny::Fired() const { return any.fired; }

long FaultAny::Counted() const { return any.counted; }

FaultHit FaultAny::Hit() const
{
    if (!any.fired)
        return FaultHit{nullptr, 0, "", -1, 0};
    return FaultHit{kHookNames[any.hit], any.hit_err, any.hit_path, any.hit_fd, any.hit_count};
}

int SuitedErrno(const char *name)
{
    int id = HookByName(name);
    return id < 0 ? 0 : ::SuitedErrno(id);
}

long Calls(const char *name)
{
    int id = HookByName(name);
    return id < 0 ? -1 : hooks[id].calls;
}

OnCall::OnCall(const char *name, Spy spy)
{
    spy_hook = HookByName(name);
    spy_fn = spy;
}

OnCall::~OnCall()
{
    spy_fn = nullptr;
    spy_hook = -1;
}

namespace log {
void Clear() { logged = 0; }
int Count() { return logged; }
int Priority(int i) { return i < logged ? log_priority[i] : -1; }
const char *Line(int i) { return i < logged ? log_line[i] : ""; }
} // namespace log

namespace device {
void Attach(bool present) { dev_present = present; }
void Clear() { told = 0; }
int Told() { return told; }
int State(int i) { return i < told ? told_state[i] : -1; }
unsigned long Request(int i) { return i < told ? told_request[i] : 0; }
} // namespace device

} // namespace kovtest

// ---- The interposed calls ---------------------------------------------------

extern "C" {

void *KOVTEST_HOOK(malloc)(size_t size)
{
    if (Fail(H_malloc, nullptr, -1, nullptr, size))
        return nullptr;
    return KOVTEST_ALLOC(malloc)(size);
}

void *KOVTEST_HOOK(calloc)(size_t n, size_t size)
{
    if (Fail(H_calloc, nullptr, -1, nullptr, n * size))
        return nullptr;
    return KOVTEST_ALLOC(calloc)(n, size);
}

void *KOVTEST_HOOK(realloc)(void *ptr, size_t size)
{
    if (Fail(H_realloc, nullptr, -1, nullptr, size))
        return nullptr;
    return KOVTEST_ALLOC(realloc)(ptr, size);
}

int open(const char *path, int flags, ...)
{
    REAL(open);
    mode_t mode = 0;
    if (flags & (O_CREAT | O_TMPFILE)) {
        va_list ap;
        va_start(ap, flags);
        mode = static_cast<mode_t>(va_arg(ap, int));
        va_end(ap);
    }
    if (path != nullptr && strcmp(path, kDevice) == 0) {
        if (!dev_present) {
            errno = ENOENT;
            return -1;
        }
        dev_fd = real("/dev/null", O_RDWR);
        return dev_fd;
    }
    if ((flags & (O_CREAT | O_TRUNC)) != 0)
        Cut();
    if (Fail(H_open, path))
        return -1;
    int fd = real(path, flags, mode);
    if (fd != -1)
        kovtest::drive::Opened(path, fd);
    return fd;
}

int creat(const char *path, mode_t mode)
{
    REAL(creat);
    return Fail(H_creat, path) ? -1 : real(path, mode);
}

int close(int fd)
{
    REAL(close);
    if (fd == dev_fd && fd != -1) {
        dev_fd = -1;
    } else if (Fail(H_close)) {
        // As Linux does: the descriptor is gone even when close reports an
        // error, so a failed close leaks nothing.
        int err = errno;
        kovtest::drive::Closed(fd);
        real(fd);
        errno = err;
        return -1;
    }
    kovtest::drive::Closed(fd);
    return real(fd);
}

ssize_t read(int fd, void *buf, size_t n)
{
    REAL(read);
    return Fail(H_read, nullptr, fd, buf, n) ? -1 : real(fd, buf, n);
}

ssize_t write(int fd, const void *buf, size_t n)
{
    REAL(write);
    Cut();
    if (Fail(H_write, nullptr, fd, buf, n))
        return -1;
    if (short_at.countdown > 0 && (short_at.length == 0 || n == short_at.length) &&
        --short_at.countdown == 0 && short_at.count < n) {
        static auto real_fcntl = Real<int (*)(int, int, ...)>("fcntl");
        int flags = real_fcntl(fd, F_GETFL);
        if (flags != -1 && (flags & O_DIRECT) != 0)
            real_fcntl(fd, F_SETFL, flags & ~O_DIRECT);
        ssize_t got = real(fd, buf, short_at.count);
        if (flags != -1 && (flags & O_DIRECT) != 0)
            real_fcntl(fd, F_SETFL, flags);
        return got;
    }
    return real(fd, buf, n);
}

int stat(const char *path, struct stat *st)
{
    REAL(stat);
    return Fail(H_stat, path) ? -1 : real(path, st);
}

int lstat(const char *path, struct stat *st)
{
    REAL(lstat);
    return Fail(H_lstat, path) ? -1 : real(path, st);
}

int fstat(int fd, struct stat *st)
{
    REAL(fstat);
    return Fail(H_fstat) ? -1 : real(fd, st);
}

int mkdir(const char *path, mode_t mode)
{
    REAL(mkdir);
    Cut();
    return Fail(H_mkdir, path) ? -1 : real(path, mode);
}

int chmod(const char *path, mode_t mode)
{
    REAL(chmod);
    return Fail(H_chmod, path) ? -1 : real(path, mode);
}

int remove(const char *path)
{
    REAL(remove);
    Cut();
    return Fail(H_remove, path) ? -1 : real(path);
}

int rename(const char *from, const char *to)
{
    REAL(rename);
    Cut();
    return Fail(H_rename, from) ? -1 : real(from, to);
}

int utime(const char *path, const struct utimbuf *times)
{
    REAL(utime);
    Cut();
    return Fail(H_utime, path) ? -1 : real(path, times);
}

void sync(void)
{
    REAL(sync);
    Fail(H_sync, nullptr, -1, nullptr, 0, false);  // cannot fail; counted
    real();
}

int semop(int semid, struct sembuf *ops, size_t n)
{
    REAL(semop);
    // A release never waits, so it is never interrupted: no fault point.
    bool takes = n > 0 && ops != nullptr && ops[0].sem_op < 0;
    return Fail(H_semop, nullptr, -1, nullptr, 0, takes) ? -1 : real(semid, ops, n);
}

int semget(key_t key, int n, int flags)
{
    REAL(semget);
    return Fail(H_semget) ? -1 : real(key, n, flags);
}

int semctl(int semid, int num, int cmd, ...)
{
    REAL(semctl);
    va_list ap;
    va_start(ap, cmd);
    void *arg = va_arg(ap, void *);  // the union semun, passed as one word
    va_end(ap);
    return Fail(H_semctl) ? -1 : real(semid, num, cmd, arg);
}

int shmget(key_t key, size_t size, int flags)
{
    REAL(shmget);
    return Fail(H_shmget) ? -1 : real(key, size, flags);
}

void *shmat(int shmid, const void *addr, int flags)
{
    REAL(shmat);
    return Fail(H_shmat) ? reinterpret_cast<void *>(-1) : real(shmid, addr, flags);
}

key_t ftok(const char *path, int id)
{
    REAL(ftok);
    return Fail(H_ftok, path) ? -1 : real(path, id);
}

int ioctl(int fd, unsigned long request, ...)
{
    REAL(ioctl);
    va_list ap;
    va_start(ap, request);
    void *arg = va_arg(ap, void *);
    va_end(ap);
    if (fd == dev_fd && fd != -1) {
        if (told < kMaxTold) {
            int32_t state;
            memcpy(&state, static_cast<const char *>(arg) + 20, sizeof state);
            told_state[told] = state;
            told_request[told] = request;
            told++;
        }
        return 0;
    }
    if (Fail(H_ioctl))
        return -1;
    if (kovtest::drive::Owns(fd))
        return kovtest::drive::Ioctl(request, arg);
    return real(fd, request, arg);
}

DIR *opendir(const char *path)
{
    REAL(opendir);
    return Fail(H_opendir, path) ? nullptr : real(path);
}

int symlink(const char *target, const char *path)
{
    REAL(symlink);
    Cut();
    return Fail(H_symlink, path) ? -1 : real(target, path);
}

ssize_t readlink(const char *path, char *buf, size_t n)
{
    REAL(readlink);
    return Fail(H_readlink, path) ? -1 : real(path, buf, n);
}

pid_t fork(void)
{
    REAL(fork);
    return Fail(H_fork) ? -1 : real();
}

pid_t waitpid(pid_t pid, int *status, int options)
{
    REAL(waitpid);
    return Fail(H_waitpid) ? -1 : real(pid, status, options);
}

int fcntl(int fd, int cmd, ...)
{
    REAL(fcntl);
    va_list ap;
    va_start(ap, cmd);
    void *arg = va_arg(ap, void *);
    va_end(ap);
    return Fail(H_fcntl) ? -1 : real(fd, cmd, arg);
}

off_t lseek(int fd, off_t offset, int whence)
{
    REAL(lseek);
    return Fail(H_lseek, nullptr, fd) ? -1 : real(fd, offset, whence);
}

// A spy sees the bytes before they are wiped.
void explicit_bzero(void *buf, size_t n)
{
    REAL(explicit_bzero);
    Fail(H_explicit_bzero, nullptr, -1, buf, n, false);  // cannot fail; counted
    real(buf, n);
}

// A spy is told the pause, in microseconds, as the call's length.
int usleep(useconds_t usec)
{
    REAL(usleep);
    return Fail(H_usleep, nullptr, -1, nullptr, usec) ? -1 : real(usec);
}

void syslog(int priority, const char *format, ...)
{
    if (logged >= kMaxLog)
        return;
    va_list ap;
    va_start(ap, format);
    vsnprintf(log_line[logged], sizeof log_line[logged], format, ap);
    va_end(ap);
    log_priority[logged++] = priority;
}

} // extern "C"
