/*
 * paths.cpp - plain operations on one path below the root: make a directory,
 * ask for a file or directory, remove, rename, stamp, size.
 *
 * Paths come relative to the root and are taken as they are: nothing is
 * normalised, "/" and ".." keep their ordinary meaning. Each exported
 * operation holds the table lock, and raises the operation counter inside
 * it, for the whole of its work (KovDskPathOp); errno survives both.
 */
#include "shared/shared.h"

#include <cstdio>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

int KovDskFullPath(char *out, const char *rel)
{
    int n = snprintf(out, KOVDSK_PATH_MAX, "%s/%s", AccTbl->root, rel);
    if (n < 0 || n >= KOVDSK_PATH_MAX) {
        errno = ENAMETOOLONG;
        return -1;
    }
    return 0;
}

bool KovDskJoin(char *out, const char *dir, const char *name)
{
    int n = snprintf(out, KOVDSK_PATH_MAX, "%s/%s", dir, name);
    if (n < 0 || n >= KOVDSK_PATH_MAX) {
        errno = ENAMETOOLONG;
        return false;
    }
    return true;
}

int KovDskEntryPath(char *out, const char *rel_dir, const char *name)
{
    int n = snprintf(out, KOVDSK_PATH_MAX, "%s/%s/%s", AccTbl->root, rel_dir, name);
    if (n < 0 || n >= KOVDSK_PATH_MAX) {
        errno = ENAMETOOLONG;
        return -1;
    }
    return 0;
}

int KovDskPathArg(const char *rel, char *full)
{
    if (!KovDskAttached())
        return -1;
    if (KovDskNoText(rel)) {
        errno = EINVAL;
        return -1;
    }
    return KovDskFullPath(full, rel);
}

int KovDskWaitChild(int child, int *status)
{
    pid_t got;
    do
        got = waitpid(child, status, 0);
    while (got == -1 && errno == EINTR);
    return got == -1 ? -1 : 0;
}

int KovDskMkDir(const char *rel)
{
    char full[KOVDSK_PATH_MAX];
    if (KovDskPathArg(rel, full) == -1)
        return -1;
    if (mkdir(full, 0666) == -1)
        return -1;
    chmod(full, 0666);  // the umask does not count
    KovDskStamp(full);
    sync();
    return 0;
}

int KovDskDirMake(const char *path)
{
    char full[KOVDSK_PATH_MAX];
    if (KovDskPathArg(path, full) == -1)
        return -1;
    KovDskPathOp op;
    return KovDskMkDir(path);
}

int KovDskFileChk(const char *path, int type)
{
    char full[KOVDSK_PATH_MAX];
    if (KovDskPathArg(path, full) == -1)
        return -1;
    if (type >= 2) {
        errno = EINVAL;
        return -1;
    }

    struct stat st;
    int rc;
    {
        KovDskPathOp op;
        rc = stat(full, &st);
    }
    if (rc == 0) {
        bool match = type == 0 ? S_ISREG(st.st_mode) : S_ISDIR(st.st_mode);
        return match ? 0 : 1;
    }
    // Absent, or a parent that is no directory: "not of that type".
    if (errno == ENOENT || errno == EFAULT || errno == ENOTDIR)
        return 1;
    return -1;
}

int KovDskFileRemove(const char *path)
{
    char full[KOVDSK_PATH_MAX];
    if (KovDskPathArg(path, full) == -1)
        return -1;

    // Activity outside the table lock: +1 before it is taken, -1 after.
    KovDskActivity busy;
    KovDskPathOp op;
    int rc = remove(full);
    if (rc == 0)
        sync();
    return rc;
}

int KovDskFileRename(const char *oldpath, const char *newpath)
{
    char from[KOVDSK_PATH_MAX];
    char to[KOVDSK_PATH_MAX];
    if (KovDskPathArg(oldpath, from) == -1 || KovDskPathArg(newpath, to) == -1)
        return -1;

    KovDskPathOp op;
    return rename(from, to);  // no stamp: the file keeps its time
}

int KovDskChgTimeStamp(const char *path)
{
    // An empty path stamps the root itself.
    if (!KovDskAttached())
        return -1;
    if (path == nullptr) {
        errno = EINVAL;
        return -1;
    }
    char full[KOVDSK_PATH_MAX];
    if (KovDskFullPath(full, path) == -1)
        return -1;

    KovDskPathOp op;
    return KovDskStamp(full);
}

int KovDskFileSize(const char *path)
{
    char full[KOVDSK_PATH_MAX];
    if (KovDskPathArg(path, full) == -1)
        return -1;

    struct stat st;
    int rc;
    {
        KovDskPathOp op;
        rc = stat(full, &st);
    }
    // File sizes are those of the target's 32-bit off_t.
    return rc == -1 ? -1 : static_cast<int>(st.st_size);
}
