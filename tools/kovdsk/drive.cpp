/*
 * drive.cpp - the drive's commands: IDENTIFY data for humans, the partition
 * table, the file system's format and check. None of them needs the table
 * but for the activity counter of fdisk, format and check.
 *
 * fdisk and format destroy what the disk holds, so they ask first. fdisk
 * also lays the table out beforehand with the library's own routines
 * (geometry.cpp and layout.cpp are compiled in), because the library
 * zeroes the start of sector 0 before it finds out that a layout cannot
 * be made.
 */
#include "cli.h"
#include "identify.h"

#include "drive/drive.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace kovcli {
namespace {

void Identify(const std::string &dev, bool json)
{
    unsigned char data[512] = {};
    if (KovDskGetIdentify(dev.c_str(), data) != 0)
        Fail("KovDskGetIdentify " + dev, errno);
    IdentifyInfo d = DecodeIdentify(data);
    nlohmann::json j = {
        {"sectors", d.sectors}, {"bytes", d.sectors * 512},
        {"security", {{"supported", d.security_supported}, {"enabled", d.security_enabled},
                      {"locked", d.locked}, {"frozen", d.frozen},
                      {"count_expired", d.count_expired}, {"enhanced_erase", d.enhanced_erase},
                      {"master_password", d.master_maximum ? "maximum" : "high"}}}};
    PutText(j, "model", d.model);
    PutText(j, "serial", d.serial);
    PutText(j, "firmware", d.firmware);
    if (json) {
        Out() << Dump(j) << "\n";
        return;
    }
    Out() << "model      " << Escape(d.model) << "\n"
          << "serial     " << Escape(d.serial) << "\n"
          << "firmware   " << Escape(d.firmware) << "\n"
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
    bool yes = false;
};

uint32_t Le32(const unsigned char *p) { return p[0] | p[1] << 8 | p[2] << 16 | uint32_t{p[3]} << 24; }

// The partitions the library would write, as "start, length" lines, from
// the geometry the disk reports; a layout it would refuse is refused here.
std::string Plan(const FdiskArgs &a, const uint32_t size[4])
{
    int fd = open(a.dev.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        Fail("open " + a.dev, errno);
    KovDskGeo geo;
    int rc = KovDskGeoGet(fd, &geo);
    int err = errno;
    close(fd);
    if (rc != 0)
        Refuse("drive fdisk: " + Escape(a.dev) + ": the geometry requests fail: " + Explain("", err) +
               "; the whole disk's block device is needed");
    unsigned char image[KOVDSK_TABLE_SIZE];
    if (KovDskPartImage(geo, a.count, size, image) != 0)
        Refuse("drive fdisk: " + Escape(a.dev) + ": the library would refuse this layout (EINVAL): " +
               "the disk has " + std::to_string(geo.cylinders) + " cylinders of " + std::to_string(geo.heads) +
               " heads by " + std::to_string(geo.sectors) + " sectors; each size must be at least one " +
               "cylinder (" + std::to_string(geo.heads * geo.sectors) + " sectors), and the first must " +
               "reach past the first track");
    std::string plan;
    for (int i = 0; i < 4; i++) {
        const unsigned char *e = image + 16 * i;
        if (e[4] != 0)
            plan += "  partition " + std::to_string(i + 1) + ": from sector " + std::to_string(Le32(e + 8)) +
                    ", " + std::to_string(Le32(e + 12)) + " sectors\n";
    }
    return plan;
}

void Fdisk(const FdiskArgs &a)
{
    if (a.sizes.size() != static_cast<size_t>(a.count - 1))
        Usage("drive fdisk: -n " + std::to_string(a.count) + " takes " + std::to_string(a.count - 1) +
              " size(s) with -s, one for each partition but the last, which takes the rest");
    uint32_t size[4] = {};
    for (size_t i = 0; i < a.sizes.size(); i++) {
        if (a.sizes[i] == 0)
            Usage("drive fdisk: a size of 0 sectors");
        size[i] = a.sizes[i];
    }
    std::string plan = Plan(a, size);
    Confirm("drive fdisk",
            "Write a new partition table to " + Escape(a.dev) + ", losing what it holds?\n" + plan, a.yes);
    Attach();
    if (KovDskFdisk(a.dev.c_str(), a.count, size[0], size[1], size[2], size[3]) != 0)
        Fail("KovDskFdisk " + a.dev, errno);
    Out() << "partition table written to " << Escape(a.dev) << ":\n" << plan;
}

// The tools' exit codes are shown; any but 0 makes the command fail.
void Tool(const char *operation, const char *tool, int rc)
{
    if (rc < 0)
        Refuse(std::string(operation) + ": " + tool + " did not finish: ended by a signal, or not started");
    Out() << tool << " exited with code " << rc << "\n";
    if (rc != 0)
        throw Ended{kExitFailure};
}

struct FormatArgs {
    std::string dev;
    int block_size = 0, block_count = 0;
    bool yes = false;
};

void Format(const FormatArgs &a)
{
    if ((a.block_size == 0) != (a.block_count == 0) || a.block_size < 0 || a.block_count < 0)
        Usage("drive format: --block-size and --block-count go together, both above 0");
    Confirm("drive format", "Make a new file system on " + Escape(a.dev) +
                                ", losing what it holds? Every slot of the table is cleared.",
            a.yes);
    Attach();
    Tool("KovDskFormat", "mke2fs", KovDskFormat(a.dev.c_str(), a.block_size, a.block_count));
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
    f->add_option("-s,--sizes", fd.sizes,
                  "sizes of all but the last, in sectors; the first counts from sector 0");
    f->add_flag("-y,--yes", fd.yes, "do not ask first");
    f->callback([] { Fdisk(fd); });

    static FormatArgs fmt;
    auto *m = drive->add_subcommand("format", "make an ext2 file system; clears every slot");
    m->add_option("device", fmt.dev, "the partition")->required();
    m->add_option("-b,--block-size", fmt.block_size, "block size (with --block-count)");
    m->add_option("-c,--block-count", fmt.block_count, "size in blocks (with --block-size)");
    m->add_flag("-y,--yes", fmt.yes, "do not ask first");
    m->callback([] { Format(fmt); });

    auto *chk = drive->add_subcommand("check", "check and repair the file system");
    chk->add_option("device", dev, "the partition")->required();
    chk->callback([] {
        Attach();
        Tool("KovDskChk", "e2fsck", KovDskChk(dev.c_str()));
    });
}

} // namespace kovcli
