/*
 * drive.h - drive administration: the drive's own commands (ata.cpp, with
 * the route for a stock kernel in passthru.cpp), the partition table
 * (geometry.cpp asks the disk for its shape, layout.cpp lays out the 66
 * bytes, fdisk.cpp writes them), and the file-system tools (format.cpp).
 *
 * Nothing here takes the table lock: a caller that wants the disk to itself
 * holds it around these calls. The ATA commands touch no table at all and
 * work before anything is attached. Read fdisk.cpp first to see how the
 * pieces meet.
 */
#ifndef KOVDSK_DRIVE_H
#define KOVDSK_DRIVE_H

#include "shared/shared.h"

#include <cstdint>
#include <fcntl.h>
#include <unistd.h>

constexpr int KOVDSK_ATA_BLOCK = 512;   // the security data block, one sector
constexpr int KOVDSK_TABLE_AT = 446;    // where the table image lies in sector 0
constexpr int KOVDSK_TABLE_SIZE = 66;   // four 16-byte entries and 55 AA

// The disk's shape as the layout counts it. Heads and sectors are 8-bit
// values of the driver; cylinder size and disk size are their 32-bit
// products.
struct KovDskGeo {
    uint32_t heads;
    uint32_t sectors;
    uint32_t cylinders;
};

// The device of a drive command, opened O_RDWR and closed on every way out
// of the scope; the close keeps errno.
class KovDskDevice : KovDskScoped {
public:
    explicit KovDskDevice(const char *path) : fd_(open(path, O_RDWR)) {}
    ~KovDskDevice()
    {
        if (fd_ != -1) {
            KovDskErrnoKeeper keep;
            close(fd_);
        }
    }

    int fd() const { return fd_; }

private:
    int fd_;
};

// ---- ATA (passthru.cpp) ----------------------------------------------------

// One ATA command with one 512-byte block to the drive, through SG_IO and
// ATA PASS-THROUGH (16), PIO data-out. -1 with the errno of ioctl if the
// request fails; -1 with EIO if the transport or the drive reports failure.
int KovDskAtaPassThru(int fd, unsigned char command, unsigned char *block);

// ---- Partition table (geometry.cpp, layout.cpp) -------------------------------

// BLKSSZGET, BLKGETSIZE and the geometry, in this order; where the kernel
// lacks HDIO_GETGEO_BIG, HDIO_GETGEO or 255 heads by 63 sectors, with
// cylinders from the size. -1 with the errno of the request that failed.
int KovDskGeoGet(int fd, KovDskGeo *geo);

// Lays out `count` partitions (1 to 4) of the given sizes into the 66-byte
// image. Whole cylinders that leave nothing for a partition give it an
// entry of length 0. -1 with EINVAL for zero heads or sectors, a size below
// one cylinder, or a disk without a whole cylinder behind the first track.
int KovDskPartImage(const KovDskGeo &geo, int count, const uint32_t size[4],
                    unsigned char *image);

#endif // KOVDSK_DRIVE_H
