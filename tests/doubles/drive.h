/*
 * drive.h - the drive double: an image file that answers the block-device
 * and drive requests the library makes, so that partitioning and the ATA
 * commands can be tested without a disk.
 *
 * Once a path is attached, every ioctl on a descriptor opened on it through
 * the interposed open is answered here instead of by the kernel: from the
 * table a test fills, otherwise with ENOTTY, as a plain file answers. Reads
 * and writes go to the file as usual. Every request is logged with what its
 * argument held when it came in: the 512-byte block of 0x350-0x352, the
 * 516-byte command block of HDIO_DRIVE_CMD, and for SG_IO the header, the
 * command bytes and the data block.
 *
 * Like the rest of the seam it keeps plain static arrays: nothing here
 * allocates inside a hooked call.
 */
#ifndef KOVTEST_DRIVE_H
#define KOVTEST_DRIVE_H

#include <cstddef>
#include <scsi/sg.h>
#include <string>

namespace kovtest::drive {

// Answers requests on descriptors of `path` opened from now on; nullptr
// detaches. Either way the table and the log start empty.
void Attach(const char *path);

// The request succeeds with `result`, after copying `size` bytes of `data`
// into its argument at byte `at`.
void Answer(unsigned long request, const void *data = nullptr, size_t size = 0,
            size_t at = 0, int result = 0);
// The request fails with err for the next `times` calls (-1: every call),
// before its Answer, if any, applies.
void Refuse(unsigned long request, int err, int times = -1);
// What an answered SG_IO reports of the command: SCSI status, host and
// driver status. All 0 (the default) is a command the drive carried out.
void SgStatus(unsigned char status, unsigned short host = 0, unsigned short driver = 0);

// The request log.
int Count();
unsigned long Request(int i);
const void *Arg(int i);          // the argument pointer as passed
std::string Bytes(int i);        // the argument's bytes; SG_IO: the command bytes
std::string Data(int i);         // SG_IO: the data block
sg_io_hdr_t SgHeader(int i);     // SG_IO: the header as it came in
// Descriptors on the attached path that are open now.
int Open();

// ---- The seam's side (interpose.cpp) ----
void Opened(const char *path, int fd);
void Closed(int fd);
bool Owns(int fd);
int Ioctl(unsigned long request, void *arg);

} // namespace kovtest::drive

#endif
