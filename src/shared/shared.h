/*
 * shared.h - what every part of the library builds on: the public header
 * with the API's visibility, the internal routines of the shared table, the
 * activity counter and the plain paths, and the scope guards that make every
 * exit path release what it took, in order.
 *
 * Read table.cpp next for the table and its two locks, activity.cpp for the
 * counters, paths.cpp and stamp.cpp for the operations on one path, and
 * child.cpp for the tools the library runs.
 */
#ifndef KOVDSK_SHARED_H
#define KOVDSK_SHARED_H

#include <cerrno>
#include <cstdint>
#include <sys/stat.h>

// The build hides every symbol by default; what the public header declares
// is the API and the only thing exported.
#pragma GCC visibility push(default)
#include <kovdsk.h>
#pragma GCC visibility pop

// ---- Table and locks (table.cpp) ----------------------------------------

// One semop on semaphore 0 of the set: -1 takes a lock, +1 releases it.
// No SEM_UNDO: a lock dies with no process.
int KovDskSemOp(int semid, int step);

// The IPC key for 'T' (table and table lock) or 'D' (access lock).
int KovDskKeyGet(char id);

// ---- Counters (activity.cpp) -----------------------------------------------

// The one way to move the activity counter; tells the device at 1 and 0.
// Keeps errno, so callers may use it on their way out of a failure.
int KovDskAccUpdate(int step);

// ---- Paths (paths.cpp, stamp.cpp, child.cpp) --------------------------------

// root + "/" + rel into a buffer of KOVDSK_PATH_MAX bytes.
// -1 with ENAMETOOLONG if it would not fit.
int KovDskFullPath(char *out, const char *rel);

// dir + "/" + name into a path buffer; false, with ENAMETOOLONG, if it would
// not fit. The one join of a directory walk.
bool KovDskJoin(char *out, const char *dir, const char *name);

// root + "/" + rel_dir + "/" + name; -1 with ENAMETOOLONG.
int KovDskEntryPath(char *out, const char *rel_dir, const char *name);

// Gives the file at a full path the date component's present time.
int KovDskStamp(const char *fullpath);

// Makes one directory below the root, mode 0666 whatever the umask.
int KovDskMkDir(const char *rel);

// Whether a relative path has a ".." component, which would climb out of
// where it is joined on, and with enough of them out of the root.
bool KovDskClimbs(const char *rel);

// The argument tests of an operation on one path, in the library's order
// (attached, then the text: not empty, no ".." component, at most max
// bytes), then the full path. -1 with EINIT, EINVAL or ENAMETOOLONG.
int KovDskPathArg(const char *rel, char *full, size_t max = SIZE_MAX);

// Whether every directory from the root down to rel that exists is one,
// and no link to one: a link there could lead a walk or a change out of the
// root. What does not exist ends the test, since it leads nowhere; with
// make, it is made instead (KovDskMkDir; one made meanwhile by another
// process will do). -1 with ENOTDIR, or with the errno of lstat or mkdir.
int KovDskRealDir(const char *rel, bool make = false);

// Opens a file that has to be a regular one, never waiting: with O_NONBLOCK
// a FIFO or a device cannot hold the caller (and the table lock) in open,
// and what is no regular file, or a link where O_NOFOLLOW is asked for, is
// refused with errno `other`. The file's status goes to *st. The
// descriptor; -1 if it could not be opened (or was refused); -2, with
// fstat's errno, if its status could not be had.
int KovDskOpenFile(const char *path, int flags, int other, struct stat *st);

// Runs a tool found through PATH with the argument vector argv (on the
// caller's stack) and waits for it: its exit code, or -1 if a signal ended
// it (errno as on entry) or there was no child to wait for (errno of fork
// or waitpid). A failed execvp exits with its -1, that is 255.
int KovDskRunTool(const char *const *argv);

inline bool KovDskNoText(const char *s) { return s == nullptr || *s == '\0'; }

// False, with errno EINIT, in a process that is not attached.
inline bool KovDskAttached()
{
    if (AccTbl != nullptr)
        return true;
    errno = EINIT;
    return false;
}

// A slot's 33-byte name field against a caller's name, as strcmp would see
// them: the field reads as a text of at most 33 bytes (its filler is zero).
bool KovDskSlotNameIs(const char *field, const char *name);

// ---- Scope guards -----------------------------------------------------------
// Destroyed in reverse order of construction, which is the release order the
// locking rules ask for: operation counter, then table lock, then activity.

// A guard is tied to its scope: never copied.
struct KovDskScoped {
    KovDskScoped() = default;
    KovDskScoped(const KovDskScoped &) = delete;
    KovDskScoped &operator=(const KovDskScoped &) = delete;
};

// Puts errno back at the end of a scope.
class KovDskErrnoKeeper : KovDskScoped {
public:
    KovDskErrnoKeeper() : saved_(errno) {}
    ~KovDskErrnoKeeper() { errno = saved_; }
private:
    int saved_;
};

// Holds the table lock for a scope. The release keeps errno. A take that
// fails (a signal in the wait) is not looked at and the work goes on, but
// a lock not taken is not released: that would raise it to 2 and let two
// processes in at once from then on.
class KovDskTableLock : KovDskScoped {
public:
    KovDskTableLock() : held_(KovDskSemOp(KovDskTblSem_id, -1) == 0) {}
    ~KovDskTableLock()
    {
        if (held_) {
            KovDskErrnoKeeper keep;
            KovDskSemOp(KovDskTblSem_id, +1);
        }
    }
private:
    bool held_;
};

// Raises the operation counter for a scope; lives inside a table lock.
class KovDskOpCount : KovDskScoped {
public:
    KovDskOpCount() { ++AccTbl->op_cnt; }
    ~KovDskOpCount() { --AccTbl->op_cnt; }
};

// Counts a scope as activity at the disk.
class KovDskActivity : KovDskScoped {
public:
    KovDskActivity() { KovDskAccUpdate(+1); }
    ~KovDskActivity() { KovDskAccUpdate(-1); }
};

// The frame of an operation on plain paths: table lock, then the operation
// counter raised right after it and lowered right before the release.
struct KovDskPathOp {
    KovDskTableLock lock;
    KovDskOpCount op;
};

#endif // KOVDSK_SHARED_H
