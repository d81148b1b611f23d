// IDENTIFY DEVICE data taken apart for kovdsk drive identify.
#include <gtest/gtest.h>

#include "../tools/kovdsk/identify.h"

#include <cstring>

namespace {

void PutWord(unsigned char *d, int w, unsigned v)
{
    d[2 * w] = v & 0xFF;
    d[2 * w + 1] = v >> 8;
}

// A text field the way a drive holds it: two characters a word, the first
// in the high byte, blank-padded.
void PutText(unsigned char *d, int first, int words, const char *text)
{
    std::string t(text);
    t.resize(2 * words, ' ');
    for (int i = 0; i < words; i++)
        PutWord(d, first + i, static_cast<unsigned char>(t[2 * i]) << 8 | static_cast<unsigned char>(t[2 * i + 1]));
}

} // namespace

TEST(Identify, TextsCapacityAndSecurity)
{
    unsigned char d[512] = {};
    PutText(d, 10, 10, "  SN12345");
    PutText(d, 23, 4, "FW1.0");
    PutText(d, 27, 20, "APPLIANCE DISK 500");
    PutWord(d, 60, 0xFFFF);  // 28-bit count saturated
    PutWord(d, 61, 0x0FFF);
    PutWord(d, 83, 1u << 10);  // 48-bit addresses
    PutWord(d, 100, 0x6030);
    PutWord(d, 101, 0x3A38);  // 976773168 sectors
    PutWord(d, 128, 1 | 2 | 4 | 16 | 256);
    kovcli::IdentifyInfo i = kovcli::DecodeIdentify(d);
    EXPECT_EQ(i.serial, "SN12345");
    EXPECT_EQ(i.firmware, "FW1.0");
    EXPECT_EQ(i.model, "APPLIANCE DISK 500");
    EXPECT_EQ(i.sectors, 976773168u);
    EXPECT_TRUE(i.security_supported);
    EXPECT_TRUE(i.security_enabled);
    EXPECT_TRUE(i.locked);
    EXPECT_FALSE(i.frozen);
    EXPECT_TRUE(i.count_expired);
    EXPECT_TRUE(i.master_maximum);

    // No 48-bit feature: the 28-bit count stands.
    PutWord(d, 83, 0);
    PutWord(d, 128, 8);
    i = kovcli::DecodeIdentify(d);
    EXPECT_EQ(i.sectors, 0x0FFFFFFFu);
    EXPECT_FALSE(i.security_supported);
    EXPECT_TRUE(i.frozen);
}
