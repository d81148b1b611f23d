/*
 * block.cpp - what every stream shares: the slot's aligned block buffer,
 * the O_DIRECT switch, and the block logic of the write streams. Data
 * gathers in the buffer, and each time it holds 4096 bytes they go to the
 * file as one block, past the system's cache; the close writes the tail.
 */
#include "stream/stream.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

char *KovDskBlockBuf(char **buf)
{
    char *raw = static_cast<char *>(malloc(KOVDSK_RAWBUF));
    if (raw == nullptr)
        return nullptr;
    uintptr_t at = reinterpret_cast<uintptr_t>(raw);
    *buf = at % KOVDSK_BLOCK == 0 ? raw : raw + (KOVDSK_BLOCK - at % KOVDSK_BLOCK);
    memset(raw, 0, KOVDSK_RAWBUF);
    return raw;
}

KovDskAccWrEnt *KovDskWriteSlot(uint32_t handle, bool direct)
{
    if (handle >= KOVDSK_SLOTS) {
        errno = EINVAL;
        return nullptr;
    }
    KovDskAccWrEnt *w = &AccTbl->wr[handle];
    if (w->used != 1) {
        errno = ENOENT;
        return nullptr;
    }
    if ((w->dir[0] == '\0') != direct) {
        errno = EINVAL;
        return nullptr;
    }
    return w;
}

KovDskAccRdEnt *KovDskReadSlot(int handle, int not_open)
{
    if (static_cast<unsigned>(handle) >= KOVDSK_SLOTS) {
        errno = EINVAL;
        return nullptr;
    }
    KovDskAccRdEnt *r = &AccTbl->rd[handle];
    if (r->used != 1) {
        errno = not_open;
        return nullptr;
    }
    return r;
}

void KovDskSetDirect(int fd, bool on)
{
    int flags = fcntl(fd, F_GETFL);
    if (flags != -1)
        fcntl(fd, F_SETFL, on ? flags | O_DIRECT : flags & ~O_DIRECT);
}

int KovDskBlockLoop(int fd, char *buf, uint32_t *fill, const char *data, uint32_t length,
                    KovDskShort shorts)
{
    uint32_t consumed = 0;
    uint32_t f = *fill;
    while (true) {
        uint64_t e = uint64_t{f} + (length - consumed);
        if (e > KOVDSK_BLOCK)
            e = KOVDSK_BLOCK;
        memcpy(buf + f, data + consumed, static_cast<size_t>(e) - f);
        if (e != KOVDSK_BLOCK) {
            *fill = static_cast<uint32_t>(e);
            return 0;
        }
        ssize_t n = write(fd, buf, KOVDSK_BLOCK);
        if (n == -1)
            return -1;
        uint32_t wrote = static_cast<uint32_t>(n);
        if (wrote != KOVDSK_BLOCK && shorts == KovDskShort::Refuse) {
            // A short block leaves the file off the 4096-byte grid that the
            // next call's O_DIRECT open needs: the disk is full.
            errno = ENOSPC;
            return -1;
        }
        // The position moves on by what went out less the carried bytes, so
        // the rest is offered again in the next block. A count below the
        // carried bytes consumes no new data; their unwritten part stays
        // carried, at the front of the block.
        if (wrote >= f) {
            consumed += wrote - f;
            f = 0;
        } else {
            memmove(buf, buf + wrote, f - wrote);
            f -= wrote;
        }
        *fill = f;
        if (consumed >= length)
            return 0;
    }
}
