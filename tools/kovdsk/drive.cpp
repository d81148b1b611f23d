/*
 * drive.cpp - the drive's commands: IDENTIFY data for humans, the partition
 * table, the file system's format and check. None of them needs the table
 * but for the activity counter of fdisk, format and check.
 */
#include "cli.h"
#include "identify.h"

#include <iostream>

namespace kovcli {
namespace {

void Identify(const std::string &dev, bool json)
{
    unsigned char data[512] = {};
    if (KovDskGetIdentify(dev.c_str(), data) != 0)
        Fail("KovDskGetIdentify " + dev, errno);
    IdentifyInfo d = DecodeIdentify(data);
    nlohmann::json j = {
        {"model", d.model}, {"serial", d.serial}, {"firmware", d.firmware},
        {"sectors", d.sectors}, {"bytes", d.sectors * 512},
        {"security", {{"supported", d.security_supported}, {"enabled", d.security_enabled},
                      {"locked", d.locked}, {"frozen", d.frozen},
                      {"count_expired", d.count_expired}, {"enhanced_erase", d.enhanced_erase},
                      {"master_password", d.master_maximum ? "maximum" : "high"}}}};
    if (json) {
        std::cout << j.dump(2) << "\n";
        return;
    }
    std::cout << "model      " << d.model << "\n"
              << "serial     " << d.serial << "\n"
              << "firmware   " << d.firmware << "\n"
              << "capacity   " << d.sectors << " sectors, " << HumanSize(d.sectors * 512) << "\n"
              << "security   "
              << (!d.security_supported ? "not supported"
                  : !d.security_enabled ? "supported, no password set"
                  : d.locked            ? "password set, LOCKED"
                                        : "password set, unlocked")
              << (d.frozen ? ", frozen" : "") << (d.count_expired ? ", unlock count expired" : "")
              << "\n";
}

struct FdiskArgs {
    std::string dev;
    int count = 1;
    std::vector<uint32_t> sizes;
};

void Fdisk(const FdiskArgs &a)
{
    Attach();
    uint32_t s[4] = {};
    for (size_t i = 0; i < a.sizes.size() && i < 4; i++)
        s[i] = a.sizes[i];
    if (KovDskFdisk(a.dev.c_str(), a.count, s[0], s[1], s[2], s[3]) != 0)
        Fail("KovDskFdisk " + a.dev, errno);
    std::cout << a.count << " partition(s) written to " << a.dev << "\n";
}

// The tools' own exit codes are passed on as they are.
void Tool(const char *what, int rc)
{
    if (rc < 0)
        Fail(what, errno);
    std::cout << what << ": exit code " << rc << "\n";
    if (rc != 0)
        throw Failed{rc};
}

} // namespace

void AddDriveCommands(CLI::App &app)
{
    auto *drive = app.add_subcommand("drive", "the drive: identify, partition table, format, check");
    drive->require_subcommand(1);

    static std::string dev;
    static bool json = false;
    auto *id = drive->add_subcommand("identify", "model, serial, firmware, capacity, security");
    id->add_option("device", dev, "the drive's device node")->required();
    id->add_flag("--json", json, "as JSON");
    id->callback([] { Identify(dev, json); });

    static FdiskArgs fd;
    auto *f = drive->add_subcommand("fdisk", "write a new partition table (1 to 4 partitions)");
    f->add_option("device", fd.dev, "the disk's block device")->required();
    f->add_option("-n,--count", fd.count, "partitions, 1 to 4")->check(CLI::Range(1, 4));
    f->add_option("-s,--sizes", fd.sizes, "sizes of all but the last, in sectors; the first counts from sector 0");
    f->callback([] { Fdisk(fd); });

    static int block_size = 0, block_count = 0;
    auto *fmt = drive->add_subcommand("format", "make an ext2 file system; clears every slot");
    fmt->add_option("device", dev, "the partition")->required();
    fmt->add_option("-b,--block-size", block_size, "block size (with --block-count)");
    fmt->add_option("-c,--block-count", block_count, "size in blocks (with --block-size)");
    fmt->callback([] {
        Attach();
        Tool("KovDskFormat", KovDskFormat(dev.c_str(), block_size, block_count));
    });

    auto *chk = drive->add_subcommand("check", "check and repair the file system");
    chk->add_option("device", dev, "the partition")->required();
    chk->callback([] {
        Attach();
        Tool("KovDskChk", KovDskChk(dev.c_str()));
    });
}

} // namespace kovcli
