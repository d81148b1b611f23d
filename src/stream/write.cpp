/*
 * write.cpp - a store write stream after its open: KovDskWrite appends whole
 * blocks with O_DIRECT and keeps the rest in the slot's buffer, the close
 * writes that tail without O_DIRECT. The slot keeps no descriptor: each call
 * opens the file with O_APPEND for itself. A stream of kind 6 has no buffer
 * and its bytes go to the file as they come.
 *
 * Neither call holds the table lock while data moves; the close takes it
 * only to clear the slot, which other processes' scans read.
 */
#include "stream/stream.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// The stream's file opened for appending. Each call opens it anew, so what
// stands there may be anything by now: a link, on the way or in its place,
// or anything but a regular file is no stored file.
int KovDskStoredFile(const KovDskAccWrEnt *w, const char *path, int direct)
{
    struct stat st;
    if (KovDskRealDir(w->dir) == -1) {
        if (errno == ENOTDIR)
            errno = ENOENT;
        return -1;
    }
    return KovDskOpenFile(path, O_WRONLY | O_APPEND | O_NOFOLLOW | direct, ENOENT, &st);
}

// Appends one write's data with the stream's descriptor open on the file.
int KovDskAppend(KovDskAccWrEnt *w, int fd, const void *data, unsigned length)
{
    if (w->kind != static_cast<int>(KOVDSK_KIND_UNBUFFERED))
        return KovDskBlockLoop(fd, w->buf, &w->fill, static_cast<const char *>(data), length,
                               KovDskShort::Refuse);
    if (write(fd, data, length) == -1)
        return -1;
    __atomic_add_fetch(&AccTbl->accessed, 1, __ATOMIC_RELAXED);  // no lock here
    return 0;
}

// The tail of a block stream, written without O_DIRECT since it is no
// whole block.
int KovDskFlushTail(KovDskAccWrEnt *w)
{
    char path[KOVDSK_PATH_MAX];
    if (KovDskEntryPath(path, w->dir, w->file) == -1)
        return -1;
    KovDskActivity busy;
    int fd = KovDskStoredFile(w, path, 0);
    if (fd < 0)
        return -1;
    if (write(fd, w->buf, w->fill) == -1) {
        KovDskErrnoKeeper keep;
        close(fd);
        return -1;
    }
    close(fd);
    KovDskStamp(path);
    sync();
    return 0;
}

} // namespace

int KovDskWrite(int handle, const void *data, unsigned int length)
{
    if (!KovDskAttached())
        return -1;
    if (data == nullptr || length == 0) {
        errno = EINVAL;
        return -1;
    }
    KovDskAccWrEnt *w = KovDskWriteSlot(static_cast<uint32_t>(handle), false);
    if (w == nullptr)
        return -1;
    char path[KOVDSK_PATH_MAX];
    if (KovDskEntryPath(path, w->dir, w->file) == -1)
        return -1;

    KovDskActivity busy;
    int fd = KovDskStoredFile(w, path, w->kind == static_cast<int>(KOVDSK_KIND_UNBUFFERED) ? 0 : O_DIRECT);
    if (fd < 0)
        return -1;
    if (KovDskAppend(w, fd, data, length) == -1) {
        KovDskErrnoKeeper keep;
        close(fd);
        return -1;  // no stamp, no sync; blocks written so far stay
    }
    close(fd);
    KovDskStamp(path);
    sync();
    return static_cast<int>(length);
}

int KovDskWriteClose(int handle)
{
    if (!KovDskAttached())
        return -1;
    KovDskAccWrEnt *w = KovDskWriteSlot(static_cast<uint32_t>(handle), false);
    if (w == nullptr)
        return -1;

    int rc = 0;
    if (w->kind != static_cast<int>(KOVDSK_KIND_UNBUFFERED)) {
        if (w->fill != 0)
            rc = KovDskFlushTail(w);
        KovDskErrnoKeeper keep;
        free(w->rawbuf);
    }
    // The stream is over either way: a failed tail is lost.
    KovDskTableLock lock;
    memset(w, 0, sizeof *w);
    if (rc == 0)
        ++AccTbl->accessed;
    return rc;
}
