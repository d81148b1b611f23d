/*
 * direct.cpp - streams on any file under the root by its plain path: no
 * stored name, no area. They use the slots and the block loop of the
 * stored-file streams, with three differences: the write descriptor stays
 * open from open to close, each call holds the table lock for its whole
 * work, and an append may start in the middle of a 4096-byte block. Such a
 * head is written once without O_DIRECT, after which the file's end lies
 * on the grid and blocks go out with O_DIRECT as usual.
 *
 * A direct stream counts as activity from its open to its close; a failed
 * write leaves that unit with the stream, which the close gives back.
 */
#include "stream/stream.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// A slot's file field holds 256 bytes with its terminator.
constexpr size_t kDirectPathMax = sizeof(KovDskAccWrEnt::file) - 1;

void KovDskStampSlotFile(const KovDskAccWrEnt *w)
{
    char full[KOVDSK_PATH_MAX];
    if (KovDskFullPath(full, w->file) == 0)
        KovDskStamp(full);
}

// The head phase: the bytes up to the file's next 4096 boundary go out at
// once without O_DIRECT. Returns how much of the data it took, or -1 with
// nothing changed in the slot, so that the same call can be made again.
long KovDskWriteHead(KovDskAccWrEnt *w, const char *data, uint32_t size)
{
    if (uint64_t{w->fill} + size < w->head) {
        memcpy(w->buf + w->fill, data, size);
        w->fill += size;
        return size;
    }
    uint32_t n = w->head - w->fill;
    memcpy(w->buf + w->fill, data, n);
    KovDskSetDirect(w->fd, false);
    if (write(w->fd, w->buf, w->head) == -1)
        return -1;  // O_DIRECT stays off until a head write succeeds
    KovDskSetDirect(w->fd, true);
    w->fill = 0;
    w->head = 0;
    return n;
}

// The work under the table lock. When the buffer cannot be had, *undo
// keeps the open descriptor for the caller to close once the lock is given
// back, and then, in mode 0, to remove the file it truncated.
int KovDskWriteOpenLocked(const char *path, uint32_t mode, const char *full, int *undo)
{
    int slot = KovDskFreeSlot(AccTbl->wr);
    if (slot < 0) {
        errno = ENFILE;
        return -1;
    }
    // A plain path may name anything: what is no regular file is refused
    // without waiting, like any open that fails.
    struct stat st;
    int fd = KovDskOpenFile(full, O_WRONLY | O_CREAT | O_DIRECT | (mode == KOVDSK_DIRECT_TRUNCATE ? O_TRUNC : O_APPEND),
                            ENFILE, &st);
    if (fd < 0) {
        errno = ENFILE;  // whatever the reason
        return -1;
    }
    chmod(full, 0666);
    // An append needs the bytes up to the next boundary first; a file on
    // the boundary, an empty one too, takes a whole block without O_DIRECT.
    uint32_t head = mode == KOVDSK_DIRECT_APPEND ? KOVDSK_BLOCK - static_cast<uint32_t>(st.st_size % KOVDSK_BLOCK) : 0;

    KovDskAccWrEnt &w = AccTbl->wr[slot];
    char *buf;
    char *raw = KovDskBlockBuf(&buf);
    if (raw == nullptr) {
        *undo = fd;
        errno = ENOSPC;
        return -1;
    }
    memset(&w, 0, sizeof w);  // a direct stream has no name, area or flag
    w.rawbuf = raw;
    w.buf = buf;
    w.fd = fd;
    w.kind = 0;
    w.fill = 0;
    w.head = head;
    memcpy(w.file, path, strlen(path) + 1);
    w.used = 1;
    KovDskStamp(full);
    return slot;
}

} // namespace

int KovDskWriteOpenDirect(const char *path, uint32_t mode)
{
    if (!KovDskAttached())
        return -1;
    char full[KOVDSK_PATH_MAX];
    if (KovDskPathArg(path, full, kDirectPathMax) == -1)
        return -1;
    if (mode > KOVDSK_DIRECT_APPEND) {
        errno = EINVAL;
        return -1;
    }
    int slot;
    int undo = -1;
    {
        KovDskPathOp op;
        slot = KovDskWriteOpenLocked(path, mode, full, &undo);
    }
    if (undo != -1) {
        KovDskErrnoKeeper keep;
        close(undo);
        if (mode == KOVDSK_DIRECT_TRUNCATE)
            remove(full);  // truncated already; an appended file keeps its data
    }
    if (slot >= 0)
        KovDskAccUpdate(+1);  // until the close
    return slot;
}

int KovDskWriteDirect(uint32_t handle, const void *data, uint32_t size)
{
    if (!KovDskAttached())
        return -1;
    if (data == nullptr || size == 0) {
        errno = EINVAL;
        return -1;
    }
    KovDskAccWrEnt *w = KovDskWriteSlot(handle, true);  // tested before the lock
    if (w == nullptr)
        return -1;

    KovDskPathOp op;
    const char *bytes = static_cast<const char *>(data);
    uint32_t done = 0;
    if (w->head != 0) {
        long took = KovDskWriteHead(w, bytes, size);
        if (took == -1)
            return -1;
        if (w->head != 0)
            return static_cast<int>(size);  // still short of the boundary: nothing on disk
        done = static_cast<uint32_t>(took);
    }
    if (done < size && KovDskBlockLoop(w->fd, w->buf, &w->fill, bytes + done, size - done,
                                       KovDskShort::Count) == -1)
        return -1;
    KovDskStampSlotFile(w);
    return static_cast<int>(size);
}

int KovDskWriteCloseDirect(uint32_t handle)
{
    if (!KovDskAttached())
        return -1;
    KovDskAccWrEnt *w = KovDskWriteSlot(handle, true);
    if (w == nullptr)
        return -1;

    int fd = w->fd;
    int rc = 0;
    {
        KovDskPathOp op;
        if (w->fill != 0) {
            KovDskSetDirect(fd, false);  // a tail of any length
            if (write(fd, w->buf, w->fill) == -1)
                rc = -1;
        }
        if (rc == 0)
            KovDskStampSlotFile(w);
        KovDskErrnoKeeper keep;
        free(w->rawbuf);
        memset(w, 0, sizeof *w);
        if (rc == 0)
            ++AccTbl->accessed;
    }
    KovDskErrnoKeeper keep;
    close(fd);
    if (rc == 0)
        sync();
    KovDskAccUpdate(-1);  // the stream's unit, once, however it ends
    return rc;
}

int KovDskReadOpenDirect(const char *path)
{
    if (!KovDskAttached())
        return -1;
    char full[KOVDSK_PATH_MAX];
    if (KovDskPathArg(path, full) == -1)
        return -1;

    int slot;
    {
        KovDskPathOp op;
        slot = KovDskFreeSlot(AccTbl->rd);
        if (slot < 0) {
            errno = ENFILE;
            return -1;
        }
        struct stat st;
        int fd = KovDskOpenFile(full, O_RDONLY | O_DIRECT, ENFILE, &st);
        if (fd < 0) {
            if (fd == -1)
                errno = ENFILE;  // whatever the reason; a failed fstat says its own
            return -1;
        }
        // A direct stream protects no stored file: whatever a failed store
        // read open left in this free slot goes, name, dir and file first.
        KovDskAccRdEnt &r = AccTbl->rd[slot];
        memset(&r, 0, sizeof r);
        if (KovDskReadSlotFill(r, fd, st) == -1) {
            errno = ENOSPC;
            return -1;
        }
    }
    KovDskAccUpdate(+1);
    return slot;
}

// The read side of a direct stream is the stored-file read stream's.
int KovDskReadDirect(int handle, void *buffer, unsigned int length)
{
    return KovDskRead(handle, buffer, length);
}

int KovDskReadCloseDirect(int handle)
{
    return KovDskReadClose(handle);
}
