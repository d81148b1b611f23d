/*
 * ata.cpp - the drive's own commands: set, unlock and disable an ATA
 * security password, reset, and IDENTIFY DEVICE. Each call opens the device
 * the caller names, makes one driver request and closes it again; none
 * touches the table, so all work in a process that never attached.
 *
 * The password requests 0x350-0x352 belong to the appliance's ATA driver.
 * A stock kernel answers them with ENOTTY or EINVAL; the same block then
 * goes to the drive through SG_IO (passthru.cpp). Every other failure is the
 * drive's answer and is returned as it came.
 */
#include "drive/drive.h"

#include <cstdio>
#include <cstring>
#include <linux/hdreg.h>
#include <sys/ioctl.h>

namespace {

constexpr unsigned long kSetPasswdRequest = 0x350;
constexpr unsigned long kUnlockRequest = 0x351;
constexpr unsigned long kDisableRequest = 0x352;

constexpr size_t kPasswordAt = 2;
constexpr size_t kPasswordField = 32;

constexpr int kIdentifyAttempts = 3;
constexpr unsigned kIdentifyPause = 100;  // microseconds
constexpr size_t kCmdHeader = 4;          // HDIO_DRIVE_CMD's command bytes

// The security data block. It holds a password, so it lives only here and
// is wiped on every way out; explicit_bzero, because a plain memset of a
// buffer about to die is a store the compiler may drop.
struct KovDskSecBlock : KovDskScoped {
    unsigned char b[KOVDSK_ATA_BLOCK];
    KovDskSecBlock() { memset(b, 0, sizeof b); }
    ~KovDskSecBlock() { explicit_bzero(b, sizeof b); }
};

int KovDskSecurity(const char *path, const char *password, unsigned char which,
                   unsigned long request, unsigned char command)
{
    if (KovDskNoText(path) || KovDskNoText(password) || which > KOVDSK_PASSWD_MASTER) {
        errno = EINVAL;
        return -1;
    }
    KovDskSecBlock block;
    block.b[0] = which;  // word 0, little endian: the high byte stays 0
    // Cut at 32 bytes, padded with the zeros already there, never swapped;
    // 32 bytes or more leave no terminator.
    memcpy(block.b + kPasswordAt, password, strnlen(password, kPasswordField));

    KovDskDevice dev(path);
    if (dev.fd() == -1)
        return -1;
    int rc = ioctl(dev.fd(), request, block.b);
    if (rc == -1 && (errno == ENOTTY || errno == EINVAL))
        rc = KovDskAtaPassThru(dev.fd(), command, block.b);
    return rc;
}

} // namespace

int KovDskSetPasswd(const char *path, const char *password, unsigned char which)
{
    return KovDskSecurity(path, password, which, kSetPasswdRequest, WIN_SECURITY_SET_PASS);
}

int KovDskUnlockPasswd(const char *path, const char *password, unsigned char which)
{
    return KovDskSecurity(path, password, which, kUnlockRequest, WIN_SECURITY_UNLOCK);
}

int KovDskDisablePasswd(const char *path, const char *password, unsigned char which)
{
    return KovDskSecurity(path, password, which, kDisableRequest, WIN_SECURITY_DISABLE);
}

int KovDskReset(const char *path)
{
    if (KovDskNoText(path)) {
        errno = EINVAL;
        return -1;
    }
    KovDskDevice dev(path);
    if (dev.fd() == -1)
        return -1;
    return ioctl(dev.fd(), HDIO_DRIVE_RESET, nullptr);
}

int KovDskGetIdentify(const char *path, void *buffer)
{
    if (KovDskNoText(path) || buffer == nullptr) {
        errno = EINVAL;
        return -1;
    }
    memset(buffer, 0, KOVDSK_ATA_BLOCK);  // what every failure leaves
    KovDskDevice dev(path);
    if (dev.fd() == -1)
        return -1;

    // Built once: a later attempt sends whatever the driver left in the
    // header after a failed one.
    unsigned char cmd[kCmdHeader + KOVDSK_ATA_BLOCK] = {WIN_IDENTIFY, 0, 0, 1};
    for (int attempt = 1; attempt <= kIdentifyAttempts; attempt++) {
        if (ioctl(dev.fd(), HDIO_DRIVE_CMD, cmd) == 0) {
            memcpy(buffer, cmd + kCmdHeader, KOVDSK_ATA_BLOCK);
            return 0;
        }
        if (attempt < kIdentifyAttempts)
            usleep(kIdentifyPause);
    }
    KovDskErrnoKeeper keep;  // the last request's errno, not that of puts
    puts("identify get failed!!");
    return -1;
}
