/*
 * identify.cpp - IDENTIFY DEVICE data. The data is 256 little-endian words;
 * text fields hold two characters a word, the first in the high byte, and
 * are padded with blanks.
 */
#include "identify.h"

namespace kovcli {
namespace {

unsigned Word(const unsigned char *data, int w)
{
    return data[2 * w] | data[2 * w + 1] << 8;
}

std::string Text(const unsigned char *data, int first, int words)
{
    std::string s;
    for (int w = first; w < first + words; w++) {
        unsigned v = Word(data, w);
        s += static_cast<char>(v >> 8);
        s += static_cast<char>(v & 0xFF);
    }
    size_t end = s.find_last_not_of(" \0", std::string::npos, 2);
    size_t begin = s.find_first_not_of(' ');
    return end == std::string::npos ? "" : s.substr(begin, end - begin + 1);
}

} // namespace

IdentifyInfo DecodeIdentify(const unsigned char *data)
{
    IdentifyInfo d;
    d.serial = Text(data, 10, 10);
    d.firmware = Text(data, 23, 4);
    d.model = Text(data, 27, 20);
    d.sectors = Word(data, 60) | static_cast<uint64_t>(Word(data, 61)) << 16;
    if (Word(data, 83) & (1u << 10)) {  // 48-bit addresses
        uint64_t lba48 = 0;
        for (int w = 103; w >= 100; w--)
            lba48 = lba48 << 16 | Word(data, w);
        if (lba48 != 0)
            d.sectors = lba48;
    }
    unsigned sec = Word(data, 128);
    d.security_supported = sec & 1u;
    d.security_enabled = sec & 2u;
    d.locked = sec & 4u;
    d.frozen = sec & 8u;
    d.count_expired = sec & 16u;
    d.enhanced_erase = sec & 32u;
    d.master_maximum = sec & 256u;
    return d;
}

} // namespace kovcli
