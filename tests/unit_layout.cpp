// The 66-byte partition table image, laid out straight from a geometry:
// which partition is the last, the cylinder addresses around cylinder 1024,
// the fixed end address, 32-bit sizes, and what holds nothing.
#include "drive/drive.h"

#include "harness/boot.h"

#include <gtest/gtest.h>
#include <string>

using kovtest::Hex;
using kovtest::Zeros;

namespace {

// The image as bytes; "refused" when the layout refuses with EINVAL.
std::string Image(KovDskGeo geo, int count, uint32_t s1 = 0, uint32_t s2 = 0, uint32_t s3 = 0)
{
    const uint32_t size[4] = {s1, s2, s3, 0};
    unsigned char image[KOVDSK_TABLE_SIZE];
    errno = 0;
    if (KovDskPartImage(geo, count, size, image) != 0)
        return errno == EINVAL ? "refused" : "failed otherwise";
    return std::string(reinterpret_cast<char *>(image), sizeof image);
}

std::string Entry(int i, const std::string &image) { return image.substr(16 * i, 16); }

const KovDskGeo k16x63{16, 63, 1000};  // cylinder 1008, disk 1008000
const std::string kSig = Hex("55 AA");

} // namespace

TEST(Layout, LastIsTheOneAskedForOrTheFirstToReachTheEnd)
{
    // count 1: behind the first track to the end; no size looked at.
    EXPECT_EQ(Image(k16x63, 1),
              Hex("00 01 01 00 83 FE FF E7 3F 00 00 00 41 61 0F 00") + Zeros(48) + kSig);

    // size2 reaches the end: partition 2 takes the rest, 3 and 4 stay zero.
    std::string two = Hex("00 01 01 00 83 FE 3F 62 3F 00 00 00 91 85 01 00 "
                          "00 00 01 63 83 FE FF E7 D0 85 01 00 B0 DB 0D 00") +
                      Zeros(32) + kSig;
    EXPECT_EQ(Image(k16x63, 4, 100000, 1008000 - 99792, 100000), two);
    EXPECT_EQ(Image(k16x63, 4, 100000, 2000000000, 100000), two);

    // size1 equal to what lies behind the first track counts as reaching the
    // end; one sector less ends partition 1 on the last boundary below it.
    EXPECT_EQ(Image(k16x63, 2, 1008000 - 63, 5000), Image(k16x63, 1));
    std::string short1 = Image(k16x63, 2, 1008000 - 64, 5000);
    EXPECT_EQ(Entry(0, short1), Hex("00 01 01 00 83 FE FF E6 3F 00 00 00 51 5D 0F 00"));
    EXPECT_EQ(Entry(1, short1), Hex("00 00 C1 E7 83 FE FF E7 90 5D 0F 00 F0 03 00 00"));
    EXPECT_EQ(Entry(2, short1), Zeros(16));
}

TEST(Layout, CylinderAddressesPastCylinder1023)
{
    const KovDskGeo g{255, 63, 2000};  // cylinder 16065
    // Partition 1 ends at boundary 1023 (end cylinder 1022); partition 2,
    // one cylinder from 1023, ends at boundary 1024 (end cylinder 1023,
    // whose bytes are those of "too far"); partition 3 starts at 1024.
    std::string image = Image(g, 3, 1023 * 16065, 16065);
    EXPECT_EQ(Entry(0, image).substr(0, 8), Hex("00 01 01 00 83 FE FF FE"));
    EXPECT_EQ(Entry(1, image).substr(0, 8), Hex("00 00 C1 FF 83 FE FF FF"));
    EXPECT_EQ(Entry(2, image).substr(0, 8), Hex("00 FE FF FF 83 FE FF FF"));
    // The LBA fields go on counting where CHS gave up.
    EXPECT_EQ(Entry(2, image).substr(8), Hex("00 04 FB 00 D0 3F EF 00"));
}

TEST(Layout, EndAddressIsFixedWhateverTheGeometry)
{
    // 16 heads by 32 sectors: the end still says head 254, sector 63;
    // only the LBA fields follow the geometry.
    std::string image = Image(KovDskGeo{16, 32, 100}, 2, 10 * 512);
    EXPECT_EQ(Entry(0, image), Hex("00 01 01 00 83 FE 3F 09 20 00 00 00 E0 13 00 00"));
    EXPECT_EQ(Entry(1, image), Hex("00 00 01 0A 83 FE 3F 63 00 14 00 00 00 B4 00 00"));
}

TEST(Layout, SizesAreThirtyTwoBit)
{
    // 300000 cylinders of 16065 make 4819500000 sectors; the target keeps
    // the low 32 bits, 524532704, and the last whole cylinder below them.
    std::string image = Image(KovDskGeo{255, 63, 300000}, 1);
    EXPECT_EQ(Entry(0, image).substr(8), Hex("3F 00 00 00 CB 92 43 1F"));
}

TEST(Layout, WholeCylindersThatLeaveNothingGiveEntriesOfLengthZero)
{
    // One head: a cylinder is one track, so a size1 of one cylinder (or of
    // anything short of two) ends partition 1 where it starts.
    const KovDskGeo one{1, 63, 1000};
    std::string image = Image(one, 2, 63);
    EXPECT_EQ(Entry(0, image), Hex("00 01 01 00 83 FE 3F 00 3F 00 00 00 00 00 00 00"));
    EXPECT_EQ(Entry(1, image), Hex("00 00 01 01 83 FE FF E7 3F 00 00 00 D9 F5 00 00"));
    EXPECT_EQ(Image(one, 2, 125), image);

    // The 32-bit disk of 300000 cylinders keeps 32650 of them; a size1 of
    // all 32650 leaves the last partition nothing.
    image = Image(KovDskGeo{255, 63, 300000}, 2, 32650u * 16065);
    EXPECT_EQ(Entry(0, image).substr(8), Hex("3F 00 00 00 CB 92 43 1F"));
    EXPECT_EQ(Entry(1, image), Hex("00 FE FF FF 83 FE FF FF 0A 93 43 1F 00 00 00 00"));
}

TEST(Layout, RefusesWhatHasNoMeaning)
{
    EXPECT_EQ(Image(KovDskGeo{0, 63, 1000}, 1), "refused");
    EXPECT_EQ(Image(KovDskGeo{16, 0, 1000}, 1), "refused");
    EXPECT_EQ(Image(KovDskGeo{16, 63, 0}, 1), "refused");           // no cylinder at all
    EXPECT_EQ(Image(k16x63, 2, 1007), "refused");                   // size1 below a cylinder
    EXPECT_EQ(Image(k16x63, 3, 100000, 1007), "refused");           // size2 below a cylinder
    EXPECT_EQ(Image(k16x63, 4, 100000, 100000, 1007), "refused");   // size3 below a cylinder
    // A disk that ends before the partition in front of the last.
    EXPECT_EQ(Image(KovDskGeo{16, 63, 0}, 2, 5000), "refused");

    // Exactly one cylinder is enough.
    EXPECT_EQ(Entry(0, Image(k16x63, 2, 1008)).substr(8), Hex("3F 00 00 00 B1 03 00 00"));
    EXPECT_EQ(Entry(1, Image(k16x63, 3, 100000, 1008)).substr(12), Hex("F0 03 00 00"));
}
