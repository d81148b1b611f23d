/*
 * fdisk.cpp - a fresh partition table on a whole-disk device, written
 * straight into sector 0 through the buffer cache, and read again by the
 * kernel.
 *
 * The order is fixed: 8 zero bytes at the start of the sector before the
 * driver is asked anything, then the three requests (geometry.cpp), the
 * image (layout.cpp), its write at byte 446, sync, BLKRRPART. There is no rollback: a failure after the
 * priming write leaves those 8 bytes zero and the old table in place.
 *
 * No table lock: the caller may hold it, having made sure with
 * KovDskOpenTblCheck that no stream is open. The activity counter brackets
 * the call, and the descriptor is closed before it comes down.
 */
#include "drive/drive.h"

#include <linux/fs.h>
#include <sys/ioctl.h>

int KovDskFdisk(const char *path, int32_t count, uint32_t size1, uint32_t size2,
                uint32_t size3, uint32_t size4)
{
    if (!KovDskAttached())  // the activity counter lies in the table
        return -1;
    const uint32_t size[4] = {size1, size2, size3, size4};
    if (path == nullptr || count < 1 || count > 4) {
        errno = EINVAL;
        return -1;
    }
    // The last partition takes the rest, so its size is never looked at.
    for (int i = 0; i < count - 1; i++) {
        if (size[i] == 0) {
            errno = EINVAL;
            return -1;
        }
    }

    KovDskActivity busy;
    sync();
    KovDskDevice dev(path);
    if (dev.fd() == -1)
        return -1;
    static const unsigned char kPriming[8] = {};
    if (write(dev.fd(), kPriming, sizeof kPriming) == -1)
        return -1;

    KovDskGeo geo;
    unsigned char image[KOVDSK_TABLE_SIZE];
    if (KovDskGeoGet(dev.fd(), &geo) == -1 || KovDskPartImage(geo, count, size, image) == -1)
        return -1;
    // A short count is not looked at: the device either takes 66 bytes or fails.
    if (lseek(dev.fd(), KOVDSK_TABLE_AT, SEEK_SET) == -1 ||
        write(dev.fd(), image, sizeof image) == -1)
        return -1;
    sync();
    if (ioctl(dev.fd(), BLKRRPART, nullptr) == -1)
        return -1;  // the new table is on the disk; the kernel keeps the old one
    return 0;
}
