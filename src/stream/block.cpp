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

int KovDskBlockLoop(int fd, char *buf, uint32_t *fill, const char *data, uint32_t length)
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
        if (n != KOVDSK_BLOCK) {
            // A short block leaves the file off the 4096-byte grid that
            // O_DIRECT needs: the disk is full, and the stream cannot go on.
            errno = ENOSPC;
            return -1;
        }
        consumed += static_cast<uint32_t>(n) - f;
        f = 0;
        *fill = 0;
        if (consumed >= length)
            return 0;
    }
}
