/*
 * stream.h - what the stored-file streams and the direct streams share:
 * the aligned block buffer of a slot and the block loop that writes whole
 * 4096-byte blocks with O_DIRECT.
 *
 * write_open.cpp brings a file into the store and claims a write slot,
 * write.cpp carries and closes the stream, read.cpp reads a stored file;
 * block.cpp holds what they share with the direct streams.
 */
#ifndef KOVDSK_STREAM_H
#define KOVDSK_STREAM_H

#include "shared/shared.h"

#include <cstdint>

constexpr unsigned KOVDSK_RAWBUF = 2 * KOVDSK_BLOCK;  // room for one aligned block

// A stream's block buffer: 8192 bytes from the heap, cleared, and in *buf
// the 4096-aligned block inside them (the heap block itself when aligned,
// else rounded down to a multiple of 4096, plus 4096). The heap block, or
// nullptr with malloc's errno.
char *KovDskBlockBuf(char **buf);

// Turns O_DIRECT on or off on an open descriptor; failures are not looked
// at (the next read or write tells).
void KovDskSetDirect(int fd, bool on);

// Completes read slot r for the descriptor fd of a regular file of status
// st: its block buffer, and remain from the size, then used. If the buffer
// cannot be had, fd is closed and -1 returned with malloc's errno; the
// slot's used stays 0.
int KovDskReadSlotFill(KovDskAccRdEnt &r, int fd, const struct stat &st);

// The write slot of a stream's handle: of a store stream, or with direct of
// a direct one. nullptr with EINVAL for a handle out of range or one of the
// other sort of stream (a store stream keeps no descriptor, a direct one
// no area), ENOENT for a slot with no stream.
KovDskAccWrEnt *KovDskWriteSlot(uint32_t handle, bool direct);

// The read slot of a stream's handle: nullptr with EINVAL for a handle out
// of range, or with errno not_open for a slot with no stream.
KovDskAccRdEnt *KovDskReadSlot(int handle, int not_open);

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
