/*
 * stream.h - what the stored-file streams and the direct streams share:
 * the aligned block buffer of a slot and the block loop that writes whole
 * 4096-byte blocks with O_DIRECT.
 *
 * write_open.cpp brings a file into the store and claims a write slot,
 * write.cpp carries and closes the stream, read.cpp reads a stored file.
 */
#ifndef KOVDSK_STREAM_H
#define KOVDSK_STREAM_H

#include "shared/shared.h"

#include <cstdint>

constexpr unsigned KOVDSK_RAWBUF = 2 * KOVDSK_BLOCK;  // room for one aligned block

// The 4096-aligned block inside an 8192-byte heap block: raw itself when
// aligned, else raw rounded down to a multiple of 4096, plus 4096.
char *KovDskAlignBlock(char *raw);

// The lowest free slot of a slot array, or -1.
template <typename Slot>
int KovDskFreeSlot(const Slot (&slots)[KOVDSK_SLOTS])
{
    for (int i = 0; i < KOVDSK_SLOTS; i++)
        if (slots[i].used == 0)
            return i;
    return -1;
}

// What a block write that returns fewer than 4096 bytes means to a stream.
// A store stream reopens its file with O_DIRECT in every call, so its file
// must stay on the 4096-byte grid: it refuses the short block (ENOSPC). A
// direct stream holds its descriptor: it takes the count as it comes and
// offers the rest again.
enum class KovDskShort { Refuse, Count };

// Gathers length bytes of data behind the *fill bytes waiting in buf, and
// writes every block that fills up to fd, whole and from buf. 0, or -1 with
// write's errno (ENOSPC for a refused short block); *fill then holds the
// bytes carried into the failing block.
int KovDskBlockLoop(int fd, char *buf, uint32_t *fill, const char *data, uint32_t length,
                    KovDskShort shorts);

#endif // KOVDSK_STREAM_H
