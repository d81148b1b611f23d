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

namespace kovtest {

// Makes the nth call of a system or allocator function (counted from the
// moment of construction) fail with err, for `times` calls in a row
// (-1: every call from then on). Disarmed when it goes out of scope.
// Names: malloc realloc open creat close read write stat lstat fstat mkdir
// chmod remove rename utime sync semop semget semctl shmget shmat ftok ioctl
// opendir symlink readlink fork waitpid fcntl.
class Fault {
public:
    Fault(const char *name, int err, int nth = 1, int times = 1);
    ~Fault();
    Fault(const Fault &) = delete;
    Fault &operator=(const Fault &) = delete;
private:
    int hook_;
};

// How often a function has been called since the executable started.
long Calls(const char *name);

// Runs spy (with the call's first argument as text, where it has one) each
// time the named function is about to be called. One spy at a time.
using Spy = void (*)(const char *name, const char *path);
class OnCall {
public:
    OnCall(const char *name, Spy spy);
    ~OnCall();
    OnCall(const OnCall &) = delete;
    OnCall &operator=(const OnCall &) = delete;
};

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
