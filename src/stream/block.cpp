/*
 * block.cpp - the block logic of every write stream: data gathers in the
 * slot's aligned buffer, and each time it holds 4096 bytes they go to the
 * file as one block, past the system's cache. The file's length therefore
 * stays a multiple of 4096 until the close writes the tail.
 */
#include "stream/stream.h"

#include <cstring>
#include <unistd.h>

char *KovDskAlignBlock(char *raw)
{
    uintptr_t at = reinterpret_cast<uintptr_t>(raw);
    if (at % KOVDSK_BLOCK == 0)
        return raw;
    return raw + (KOVDSK_BLOCK - at % KOVDSK_BLOCK);
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
