/*
 * read.cpp - a stored file read as a stream. Blocks of 4096 bytes come from
 * the disk with O_DIRECT into the slot's aligned buffer; what the caller
 * does not take of a block waits there for the next call. O_DIRECT is
 * dropped before the first read that would reach past the last whole block.
 *
 * An open read stream counts as activity from open to close. KovDskRead and
 * KovDskReadClose also serve the direct read streams, whose slots look the
 * same.
 */
#include "stream/stream.h"

#include "store/store.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// The work under the table lock: a free slot, the file, its descriptor and
// buffer. The slot's used stays 0 on every failure; what was written to it
// before (file, then name, kind and dir) stays in the free slot.
int KovDskReadOpenLocked(const char *name, unsigned kind, const char *areapath)
{
    int slot = KovDskFreeSlot(AccTbl->rd);
    if (slot < 0) {
        errno = ENFILE;
        return -1;
    }
    KovDskAccRdEnt &r = AccTbl->rd[slot];
    if (KovDskNameFind(areapath, kind, name, r.file, KOVDSK_MATCH_EXACT, KOVDSK_LINKS_TOO) == 0) {
        errno = ENOENT;
        return -1;
    }
    char path[KOVDSK_PATH_MAX];
    if (KovDskEntryPath(path, areapath, r.file) == -1)
        return -1;
    KovDskResolveInPlace(path);

    // Never a link here (the library's own were resolved), and nothing that
    // is no regular file: that is no stored file.
    struct stat st;
    int fd = KovDskOpenFile(path, O_RDONLY | O_DIRECT | O_NOFOLLOW, ENOENT, &st);
    if (fd < 0)
        return -1;
    strncpy(r.name, name, sizeof r.name);
    r.kind = static_cast<int>(kind);
    strcpy(r.dir, areapath);  // an area path is short
    if (KovDskReadSlotFill(r, fd, st) == -1)
        return -1;
    return slot;
}

} // namespace

int KovDskReadSlotFill(KovDskAccRdEnt &r, int fd, const struct stat &st)
{
    char *raw = KovDskBlockBuf(&r.buf);
    if (raw == nullptr) {
        KovDskErrnoKeeper keep;
        close(fd);
        return -1;
    }
    r.fd = fd;
    r.rawbuf = raw;
    r.fill = 0;
    r.pos = 0;
    r.remain = static_cast<uint64_t>(static_cast<int64_t>(st.st_size));
    r.used = 1;
    return 0;
}

int KovDskReadOpen(const char *name, unsigned int kind, unsigned int area, uint64_t id,
                   const char *user, uint64_t pass)
{
    char areapath[KOVDSK_PATH_MAX];
    if (KovDskAreaArg(KovDskNoText(name) || kind > KOVDSK_KIND_MAX, area, id, user, pass,
                      KOVDSK_AREAS_ALL, areapath) == -1)
        return -1;
    int slot;
    {
        KovDskTableLock lock;
        slot = KovDskReadOpenLocked(name, kind, areapath);
    }
    if (slot >= 0)
        KovDskAccUpdate(+1);  // until the close
    return slot;
}

int KovDskRead(int handle, void *buffer, unsigned int length)
{
    if (!KovDskAttached())
        return -1;
    if (buffer == nullptr || length == 0) {
        errno = EINVAL;
        return -1;
    }
    KovDskAccRdEnt *slot = KovDskReadSlot(handle, ENFILE);
    if (slot == nullptr)
        return -1;
    KovDskAccRdEnt &r = *slot;

    char *out = static_cast<char *>(buffer);
    uint32_t f = r.fill, p = r.pos, d = 0;
    if (f != 0) {  // first what the last block still holds
        uint32_t n = f < length ? f : length;
        memcpy(out, r.buf + p, n);
        p += n;
        if (p >= KOVDSK_BLOCK)
            p = 0;
        f -= n;
        d = n;
    }
    while (d < length) {
        uint32_t want = length - d < KOVDSK_BLOCK ? length - d : KOVDSK_BLOCK;
        if (r.remain < KOVDSK_BLOCK)
            KovDskSetDirect(r.fd, false);  // the last part is no whole block
        ssize_t n = read(r.fd, r.buf, KOVDSK_BLOCK);  // always a whole block
        if (n == 0)
            break;
        if (n == -1)
            return -1;  // fill and pos stay as they were
        uint32_t got = static_cast<uint32_t>(n);
        uint32_t give = got > want ? want : got;
        f = got - give;
        p = got > want ? want : 0;
        memcpy(out + d, r.buf, give);
        d += give;
        r.remain -= got;
    }
    r.pos = p;
    r.fill = f;
    return static_cast<int>(d);
}

int KovDskReadClose(int handle)
{
    if (!KovDskAttached())
        return -1;
    KovDskAccRdEnt *slot = KovDskReadSlot(handle, ENOENT);
    if (slot == nullptr)
        return -1;
    KovDskAccRdEnt &r = *slot;
    int fd = r.fd;
    {
        KovDskTableLock lock;
        free(r.rawbuf);
        memset(&r, 0, sizeof r);
        ++AccTbl->accessed;
    }
    KovDskAccUpdate(-1);
    return close(fd);
}
