/*
 * interpose.h - what the test executable puts between the library and the
 * system: a fault-injection seam and the activity device.
 *
 * The test executable defines open, write, stat, semop, malloc and the rest
 * itself (interpose.cpp). The dynamic linker binds the library's calls to
 * these definitions, which pass on to the C library unless a test asked for
 * a failure. The library itself is never changed for a test.
 */
#ifndef KOVTEST_INTERPOSE_H
#define KOVTEST_INTERPOSE_H

#include <cstddef>

namespace kovtest {

// Makes the nth call of a system or allocator function (counted from the
// moment of construction) fail with err, for `times` calls in a row
// (-1: every call from then on). Disarmed when it goes out of scope.
// With `only_size`, only calls of that size (malloc, calloc, realloc) or length
// (read, write) count: the C library allocates inside opendir and the like,
// which a test may want to pass by.
// Names: malloc calloc realloc open creat close read write stat lstat fstat mkdir
// chmod remove rename utime sync semop semget semctl shmget shmat ftok ioctl
// opendir symlink readlink fork waitpid fcntl lseek usleep; explicit_bzero
// cannot fail, but is counted and spied on.
class Fault {
public:
    Fault(const char *name, int err, int nth = 1, int times = 1, size_t only_size = 0);
    ~Fault();
    Fault(const Fault &) = delete;
    Fault &operator=(const Fault &) = delete;
private:
    int hook_;
};

// Makes the nth write from now (counting only writes of `length` bytes, if
// given) pass just `count` bytes on, as a disk that fills up does; the call
// returns that count. O_DIRECT is set aside for it, so any count goes.
class ShortWrite {
public:
    ShortWrite(int nth, size_t count, size_t length = 0);
    ~ShortWrite();
    ShortWrite(const ShortWrite &) = delete;
    ShortWrite &operator=(const ShortWrite &) = delete;
};

// A power cut: the nth call from now that changes the file system (mkdir,
// open with O_CREAT or O_TRUNC, write, symlink, rename, remove, utime) is
// never made, and the process ends at once with exit code kExit, running
// nothing more; every call before it has been made. For a child process.
class CrashAt {
public:
    static constexpr int kExit = 86;
    explicit CrashAt(int nth);
    ~CrashAt();
    CrashAt(const CrashAt &) = delete;
    CrashAt &operator=(const CrashAt &) = delete;
};

// What FaultAny made fail: the call's name, the errno it gave, and the
// path, descriptor and size or length it was given (as CallInfo has them).
struct FaultHit {
    const char *name;  // nullptr while nothing failed
    int err;
    const char *path;  // "" for a call without one; valid until the next FaultAny
    int fd;
    size_t count;
};

// Makes the nth call from now of any hooked function fail once, whatever
// its name: with err, or with err 0 with the errno that suits the call
// (SuitedErrno). A loop that raises nth until nothing fails reaches every
// call an operation makes. Calls that cannot fail are no fault points and
// are not counted: sync, explicit_bzero, and a semop that releases a lock
// (it never waits, so no signal interrupts it; it fails only once the set
// is removed, and then no lock is left to keep). A failed close still
// releases the descriptor, as Linux does. One at a time; disarmed when it
// goes out of scope.
class FaultAny {
public:
    explicit FaultAny(int nth, int err = 0);
    ~FaultAny();
    FaultAny(const FaultAny &) = delete;
    FaultAny &operator=(const FaultAny &) = delete;
    bool Fired() const;
    FaultHit Hit() const;
    long Counted() const;  // fault points passed so far, the failed one included
};

// ENOMEM for the allocators and shmat, EIO for read, write, close, the stats,
// readlink and ioctl, ENOSPC for mkdir, creat, symlink, shmget and semget,
// EINTR for semop and usleep, EAGAIN for fork, ECHILD for waitpid, EINVAL
// for fcntl, lseek and semctl, EACCES for the rest; 0 for an unknown name.
int SuitedErrno(const char *name);

// How often a function has been called since the executable started.
long Calls(const char *name);

// What a spy is told of a call that is about to be made.
struct CallInfo {
    const char *name;
    const char *path;  // the path argument, where the call has one
    int fd;            // the descriptor argument of read, write and lseek, else -1
    const void *buf;   // their buffer; explicit_bzero's too
    size_t count;      // their length; explicit_bzero's; usleep's microseconds
};

// Runs spy each time the named function is about to be called. One spy at
// a time.
using Spy = void (*)(const CallInfo &call);
class OnCall {
public:
    OnCall(const char *name, Spy spy);
    ~OnCall();
    OnCall(const OnCall &) = delete;
    OnCall &operator=(const OnCall &) = delete;
};

// The system log: what the library sends to syslog is recorded here (and
// not passed on, so tests leave the machine's log alone).
namespace log {
void Clear();
int Count();
int Priority(int i);
const char *Line(int i);  // the formatted message
}

// The activity device /dev/KovDevDat. Absent unless a test attaches it.
namespace device {
void Attach(bool present);           // the node is there (or not)
void Clear();                         // forget what it was told
int Told();                           // how many records it received
int State(int i);                     // the state word of record i
unsigned long Request(int i);         // the ioctl request of record i
}

} // namespace kovtest

#endif
