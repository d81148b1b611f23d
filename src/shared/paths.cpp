/*
 * paths.cpp - plain operations on one path below the root: make a directory,
 * ask for a file or directory, remove, rename, stamp, size.
 *
 * Paths come relative to the root and are taken as they are: nothing is
 * normalised and "/" keeps its ordinary meaning, but a ".." component, which
 * could step out of the root, is refused. Each exported operation holds the
 * table lock, and raises the operation counter inside it, for the whole of
 * its work (KovDskPathOp); errno survives both.
 *
 * Also here: the checks that keep the store's walks and opens inside the
 * root and out of anything that could block (KovDskRealDir, KovDskOpenFile).
 */
#include "shared/shared.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
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

bool KovDskClimbs(const char *rel)
{
    for (const char *p = rel; (p = strstr(p, "..")) != nullptr; p += 2)
        if ((p == rel || p[-1] == '/') && (p[2] == '\0' || p[2] == '/'))
            return true;
    return false;
}

int KovDskPathArg(const char *rel, char *full, size_t max)
{
    if (!KovDskAttached())
        return -1;
    if (KovDskNoText(rel) || KovDskClimbs(rel) || strlen(rel) > max) {
        errno = EINVAL;
        return -1;
    }
    return KovDskFullPath(full, rel);
}

int KovDskRealDir(const char *rel, bool make)
{
    char prefix[KOVDSK_PATH_MAX];
    size_t len = strlen(rel);
    for (size_t end = 0; end <= len; end++) {
        if (rel[end] != '/' && rel[end] != '\0')
            continue;
        memcpy(prefix, rel, end);
        prefix[end] = '\0';
        char full[KOVDSK_PATH_MAX];
        struct stat st;
        if (KovDskFullPath(full, prefix) == -1)
            return -1;
        if (lstat(full, &st) == -1) {
            if (errno != ENOENT)
                return -1;
            if (!make)
                return 0;
            if (KovDskMkDir(prefix) == -1 && errno != EEXIST)
                return -1;
            continue;
        }
        if (!S_ISDIR(st.st_mode)) {
            errno = ENOTDIR;
            return -1;
        }
    }
    return 0;
}

int KovDskOpenFile(const char *path, int flags, int other, struct stat *st)
{
    // Looked at first, as O_DIRECT would make open refuse anything but a
    // file with EINVAL; the fstat behind the open makes sure of what was
    // opened.
    int looked = (flags & O_NOFOLLOW) != 0 ? lstat(path, st) : stat(path, st);
    if (looked == 0 && !S_ISREG(st->st_mode)) {
        errno = other;
        return -1;
    }
    int fd = open(path, flags | O_NONBLOCK, 0666);
    if (fd == -1) {
        // A link under O_NOFOLLOW, or a FIFO with no reader for a writer.
        if (errno == ELOOP || errno == ENXIO)
            errno = other;
        return -1;
    }
    if (fstat(fd, st) == -1) {
        KovDskErrnoKeeper keep;
        close(fd);
        return -2;
    }
    if (!S_ISREG(st->st_mode)) {
        close(fd);
        errno = other;
        return -1;
    }
    return fd;
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
    if (type > KOVDSK_CHK_DIR) {
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
        bool match = type == KOVDSK_CHK_FILE ? S_ISREG(st.st_mode) : S_ISDIR(st.st_mode);
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
    if (path == nullptr || KovDskClimbs(path)) {
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
