/*
 * geometry.cpp - the disk's shape for the partition table: the three
 * requests of the target's kernel, and what stands in for the third where a
 * stock kernel lacks it.
 *
 * HDIO_GETGEO_BIG exists only in the target's kernel (every current kernel
 * answers ENOTTY or EINVAL). Without it, heads and sectors come from
 * HDIO_GETGEO, whose 16-bit cylinder count is too small for today's disks,
 * or, where that is missing too, are the 255 by 63 that partitioning tools
 * assume; cylinders then follow from the BLKGETSIZE size. Any other failure
 * of a geometry request fails the call like a failed request.
 */
#include "drive/drive.h"

#include <linux/fs.h>
#include <linux/hdreg.h>
#include <sys/ioctl.h>

namespace {

// The target kernel's request and record, gone from stock headers.
constexpr unsigned long kGetGeoBig = 0x330;
struct KovDskBigGeometry {
    unsigned char heads;
    unsigned char sectors;
    unsigned int cylinders;
    unsigned long start;
};

constexpr uint32_t kToolHeads = 255;
constexpr uint32_t kToolSectors = 63;

// The kernel does not know the request, as opposed to the drive failing it.
bool KovDskNoSuchRequest() { return errno == ENOTTY || errno == EINVAL; }

} // namespace

int KovDskGeoGet(int fd, KovDskGeo *geo)
{
    int sector_size;        // asked for, as the target's driver expects; unused
    unsigned long sectors;  // the disk's size in 512-byte sectors
    if (ioctl(fd, BLKSSZGET, &sector_size) != 0 || ioctl(fd, BLKGETSIZE, &sectors) != 0)
        return -1;

    KovDskBigGeometry big = {};
    if (ioctl(fd, kGetGeoBig, &big) == 0) {
        geo->heads = big.heads;
        geo->sectors = big.sectors;
        geo->cylinders = big.cylinders;
        return 0;
    }
    if (!KovDskNoSuchRequest())
        return -1;

    struct hd_geometry hd = {};
    if (ioctl(fd, HDIO_GETGEO, &hd) == 0) {
        geo->heads = hd.heads;
        geo->sectors = hd.sectors;
    } else if (KovDskNoSuchRequest()) {
        geo->heads = kToolHeads;
        geo->sectors = kToolSectors;
    } else {
        return -1;
    }
    uint32_t cylinder = geo->heads * geo->sectors;
    // Zero heads or sectors: the layout refuses them.
    geo->cylinders = cylinder == 0 ? 0 : static_cast<uint32_t>(sectors / cylinder);
    return 0;
}
