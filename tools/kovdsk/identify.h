/*
 * identify.h - the 512 bytes of IDENTIFY DEVICE data taken apart for a
 * human: the texts, the capacity and the security state.
 */
#ifndef KOVDSK_IDENTIFY_H
#define KOVDSK_IDENTIFY_H

#include <cstdint>
#include <string>

namespace kovcli {

struct IdentifyInfo {
    std::string model, serial, firmware;
    uint64_t sectors = 0;  // user-addressable, 48-bit where the drive has it
    bool security_supported = false, security_enabled = false, locked = false,
         frozen = false, count_expired = false, enhanced_erase = false;
    bool master_maximum = false;  // master password capability: maximum, else high
};

IdentifyInfo DecodeIdentify(const unsigned char *data);

} // namespace kovcli

#endif
