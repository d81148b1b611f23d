/*
 * passthru.cpp - an ATA command with one block of data, sent to the drive
 * through the SCSI layer: SG_IO carrying ATA PASS-THROUGH (16). This is how
 * the security commands reach a drive on a stock kernel, where the
 * appliance driver's requests do not exist (ata.cpp).
 *
 * The drive's failure (a wrong password aborts the command) comes back as a
 * SCSI status, not as a failed ioctl; it is reported as EIO, which is what
 * a driver request that fails at the drive gives.
 */
#include "drive/drive.h"

#include <cstring>
#include <scsi/sg.h>
#include <sys/ioctl.h>

namespace {

constexpr unsigned char kAtaPassThru16 = 0x85;
constexpr unsigned char kPioDataOut = 5;        // protocol field, bits 4-1 of byte 1
// Byte 2: to the device (T_DIR 0), counted in blocks (BYTE_BLOCK 1), the
// count in the sector count field (T_LENGTH 2); no check condition asked
// for, so a command that succeeds answers GOOD.
constexpr unsigned char kTransfer = 1 << 2 | 2;
constexpr unsigned kTimeoutMs = 30000;          // a command the drive aborts comes back at once

} // namespace

int KovDskAtaPassThru(int fd, unsigned char command, unsigned char *block)
{
    unsigned char cdb[16] = {};
    cdb[0] = kAtaPassThru16;
    cdb[1] = kPioDataOut << 1;
    cdb[2] = kTransfer;
    cdb[6] = 1;  // sector count: one block; features, LBA and device stay 0
    cdb[14] = command;
    unsigned char sense[32] = {};

    sg_io_hdr_t io;
    memset(&io, 0, sizeof io);
    io.interface_id = 'S';
    io.dxfer_direction = SG_DXFER_TO_DEV;
    io.cmd_len = sizeof cdb;
    io.mx_sb_len = sizeof sense;
    io.dxfer_len = KOVDSK_ATA_BLOCK;
    io.dxferp = block;
    io.cmdp = cdb;
    io.sbp = sense;
    io.timeout = kTimeoutMs;
    if (ioctl(fd, SG_IO, &io) == -1)
        return -1;
    if (io.status != 0 || io.host_status != 0 || io.driver_status != 0) {
        errno = EIO;
        return -1;
    }
    return 0;
}
