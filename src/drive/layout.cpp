/*
 * layout.cpp - the 66 bytes behind byte 446 of sector 0: up to four primary
 * partitions of type 0x83 in whole cylinders, then 55 AA.
 *
 * The first partition starts behind the first track and ends where one of
 * size1 sectors counted from sector 0 would end; each later one starts on
 * the cylinder where the one before ended; the last one asked for, or the
 * first that reaches the end, takes the rest. All arithmetic is unsigned
 * 32-bit, as on the target. The entries are stored byte by byte, so the
 * bytes are the same on any host.
 */
#include "drive/drive.h"

#include <cassert>
#include <cstring>

namespace {

constexpr int kEntrySize = 16;
constexpr unsigned char kLinux = 0x83;
constexpr unsigned char kEndHead = 0xFE;  // written whatever the drive reports
constexpr unsigned char kEndSector = 63;
constexpr uint32_t kChsCylinders = 1024;  // beyond these, CHS says FE FF FF

// Head, sector and cylinder into a field triple: the cylinder's bits 9 and
// 8 go into bits 7 and 6 of the sector byte.
void KovDskChsPut(unsigned char *p, unsigned char head, unsigned char sector, uint32_t cyl)
{
    if (cyl >= kChsCylinders) {
        p[0] = 0xFE;
        p[1] = 0xFF;
        p[2] = 0xFF;
        return;
    }
    p[0] = head;
    p[1] = static_cast<unsigned char>(sector | (cyl >> 8 & 3) << 6);
    p[2] = static_cast<unsigned char>(cyl & 0xFF);
}

void KovDskLe32Put(unsigned char *p, uint32_t v)
{
    for (int i = 0; i < 4; i++)
        p[i] = static_cast<unsigned char>(v >> (8 * i));
}

void KovDskEntryPut(unsigned char *e, int i, uint32_t start, uint32_t end, uint32_t cylinder)
{
    if (i == 0)
        KovDskChsPut(e + 1, 1, 1, 0);
    else
        KovDskChsPut(e + 1, 0, 1, start / cylinder);
    e[4] = kLinux;
    KovDskChsPut(e + 5, kEndHead, kEndSector, end / cylinder - 1);
    KovDskLe32Put(e + 8, start);
    KovDskLe32Put(e + 12, end - start);
}

} // namespace

int KovDskPartImage(const KovDskGeo &geo, int count, const uint32_t size[4], unsigned char *image)
{
    assert(count >= 1 && count <= 4);
    memset(image, 0, KOVDSK_TABLE_SIZE);
    image[64] = 0x55;
    image[65] = 0xAA;
    if (geo.heads == 0 || geo.sectors == 0) {
        errno = EINVAL;
        return -1;
    }
    const uint32_t cylinder = geo.heads * geo.sectors;
    const uint32_t disk = geo.cylinders * cylinder;  // the low 32 bits, as on the target

    uint32_t start = geo.sectors;  // the first track stays free
    for (int i = 0; i < count; i++) {
        bool last = size[i] >= disk - start || i == count - 1;
        // A size below one cylinder would make an entry of nothing and a next
        // partition at the same start: refused, where whole cylinders that
        // leave nothing behind give an entry of length 0, as laid out.
        if (!last && size[i] < cylinder) {
            errno = EINVAL;
            return -1;
        }
        uint32_t whole = size[i] / cylinder * cylinder;
        uint32_t end;
        if (last)
            end = disk / cylinder * cylinder;
        else if (i == 0)
            end = whole;  // counted from sector 0, first track included
        else
            end = start + whole;
        // Only the last can end before it starts: a disk without a whole
        // cylinder behind the first track.
        if (end < start) {
            errno = EINVAL;
            return -1;
        }
        KovDskEntryPut(image + kEntrySize * i, i, start, end, cylinder);
        if (last)
            break;
        start = end;
    }
    return 0;
}
