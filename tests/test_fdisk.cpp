// The partition table writer through the API. An image file stands for the
// disk; the drive double answers its block-device requests with the
// geometry each case needs. sfdisk reads the result back, and where a loop
// device can be set up, one run goes to a real block device.
#include "doubles/drive.h"
#include "doubles/interpose.h"
#include "harness/boot.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <linux/fs.h>
#include <linux/hdreg.h>
#include <sstream>
#include <unistd.h>
#include <vector>

using namespace kovtest;

namespace {

constexpr unsigned long kGetGeoBig = 0x330;

// The target kernel's answer to HDIO_GETGEO_BIG.
struct BigGeometry {
    unsigned char heads;
    unsigned char sectors;
    unsigned int cylinders;
    unsigned long start;
};

// Bytes 446 to 511 of the two worked examples, and of one head by 63
// sectors with a size1 of one cylinder, which leaves partition 1 nothing.
const std::string kExample1 =
    Hex("00 01 01 00 83 FE 3F 81 3F 00 00 00 C3 DD 1F 00 "
        "00 00 01 82 83 FE FF FF 02 DE 1F 00 BF 59 D9 0D") + Zeros(32) + Hex("55 AA");
const std::string kExample2 =
    Hex("00 01 01 00 83 FE 3F 62 3F 00 00 00 91 85 01 00 "
        "00 00 01 63 83 FE 7F 28 D0 85 01 00 A0 0B 03 00 "
        "00 00 41 29 83 FE FF E7 70 91 04 00 10 D0 0A 00") + Zeros(16) + Hex("55 AA");
const std::string kLengthZero =
    Hex("00 01 01 00 83 FE 3F 00 3F 00 00 00 00 00 00 00 "
        "00 00 01 01 83 FE FF E7 3F 00 00 00 D9 F5 00 00") + Zeros(32) + Hex("55 AA");


// "start size type" per partition, as sfdisk reads the table.
std::string SfdiskParts(const std::string &dev)
{
    std::istringstream dump(Output("sfdisk --dump '" + dev + "' 2>/dev/null"));
    std::string line, parts;
    while (std::getline(dump, line)) {
        size_t at = line.find("start=");
        unsigned start, size, type;
        if (at != std::string::npos &&
            sscanf(line.c_str() + at, "start=%u, size=%u, type=%x", &start, &size, &type) == 3)
            parts += std::to_string(start) + " " + std::to_string(size) + " " +
                     std::to_string(type) + "\n";
    }
    return parts;
}

// What each write of the library saw: its length, how many requests had
// been made by then, and the activity counter.
struct WriteSeen {
    size_t count;
    int requests;
    int activity;
};
std::vector<WriteSeen> writes;
void SpyWrite(const CallInfo &call)
{
    writes.push_back({call.count, drive::Count(), AccTbl->acc_cnt});
}

class FdiskApi : public Boot {
protected:
    void SetUp() override
    {
        Boot::SetUp();
        Create();
        disk_ = Path("disk.img");
        for (int i = 0; i < 512; i++)
            old_ += static_cast<char>(i * 13 + 5);
        PutFile("disk.img", old_);
        drive::Attach(disk_.c_str());
        device::Attach(true);
    }
    void TearDown() override
    {
        drive::Attach(nullptr);
        Boot::TearDown();
    }

    // A disk of this shape; the image file grows (sparse) to its size.
    void Disk(unsigned heads, unsigned sectors, unsigned cylinders, unsigned long size)
    {
        drive::Attach(disk_.c_str());
        int sector_size = 512;
        drive::Answer(BLKSSZGET, &sector_size, sizeof sector_size);
        drive::Answer(BLKGETSIZE, &size, sizeof size);
        BigGeometry g = {static_cast<unsigned char>(heads), static_cast<unsigned char>(sectors),
                         cylinders, 0};
        drive::Answer(kGetGeoBig, &g, sizeof g);
        drive::Answer(BLKRRPART);
        ASSERT_EQ(truncate64(disk_.c_str(), static_cast<off64_t>(size) * 512), 0);
    }
    // Sector 0 with the old table back in place.
    void Restore()
    {
        int fd = open(disk_.c_str(), O_WRONLY);
        ASSERT_EQ(pwrite(fd, old_.data(), old_.size(), 0), 512);
        close(fd);
    }
    std::string Sector0() const
    {
        std::string s(512, '\0');
        int fd = open(disk_.c_str(), O_RDONLY);
        EXPECT_EQ(pread(fd, s.data(), 512, 0), 512);
        close(fd);
        return s;
    }
    // The state every way out leaves: device closed, counter back, the
    // activity device told busy and then idle.
    void ExpectClosedAndIdle()
    {
        EXPECT_EQ(drive::Open(), 0);
        EXPECT_EQ(AccTbl->acc_cnt, 0);
        EXPECT_EQ(device::Told(), 2);
        EXPECT_EQ(device::State(0), 1);
        EXPECT_EQ(device::State(1), 0);
        device::Clear();
    }

    std::string disk_;
    std::string old_;  // sector 0 before the call
};

} // namespace

TEST_F(FdiskApi, WorkedExamplesByteForByte)
{
    struct Example {
        unsigned heads, sectors, cylinders;
        int count;
        uint32_t size1, size2;
        const std::string &table;
    } examples[] = {
        {255, 63, 14593, 2, 2097152, 0, kExample1},
        {16, 63, 1000, 3, 100000, 200000, kExample2},
        {1, 63, 1000, 2, 63, 0, kLengthZero},
    };
    OnCall spy("write", SpyWrite);
    for (const Example &e : examples) {
        SCOPED_TRACE(e.heads);
        Restore();
        Disk(e.heads, e.sectors, e.cylinders, e.cylinders * e.heads * e.sectors);
        writes.clear();
        long syncs = Calls("sync");
        ASSERT_EQ(KovDskFdisk(disk_.c_str(), e.count, e.size1, e.size2, 7, 9), 0);

        std::string s = Sector0();
        EXPECT_EQ(s.substr(0, 8), Zeros(8));
        EXPECT_EQ(s.substr(8, 438), old_.substr(8, 438));
        EXPECT_EQ(s.substr(446), e.table);

        // The priming write comes before any request, the table after the three.
        ASSERT_EQ(writes.size(), 2u);
        EXPECT_EQ(writes[0].count, 8u);
        EXPECT_EQ(writes[0].requests, 0);
        EXPECT_EQ(writes[0].activity, 1);
        EXPECT_EQ(writes[1].count, 66u);
        EXPECT_EQ(writes[1].requests, 3);
        ASSERT_EQ(drive::Count(), 4);
        EXPECT_EQ(drive::Request(0), static_cast<unsigned long>(BLKSSZGET));
        EXPECT_EQ(drive::Request(1), static_cast<unsigned long>(BLKGETSIZE));
        EXPECT_EQ(drive::Request(2), kGetGeoBig);
        EXPECT_EQ(drive::Request(3), static_cast<unsigned long>(BLKRRPART));
        EXPECT_EQ(Calls("sync"), syncs + 2);
        ExpectClosedAndIdle();
    }
}

TEST_F(FdiskApi, SfdiskReadsTheTableBack)
{
    if (!Have("sfdisk"))
        GTEST_SKIP() << "sfdisk is not installed (util-linux's fdisk package)";
    Disk(255, 63, 14593, 234436545);
    ASSERT_EQ(KovDskFdisk(disk_.c_str(), 2, 2097152, 0, 0, 0), 0);
    EXPECT_EQ(SfdiskParts(disk_), "63 2088387 131\n2088450 232348095 131\n");

    Restore();
    Disk(16, 63, 1000, 1008000);
    ASSERT_EQ(KovDskFdisk(disk_.c_str(), 3, 100000, 200000, 0, 0), 0);
    EXPECT_EQ(SfdiskParts(disk_), "63 99729 131\n99792 199584 131\n299376 708624 131\n");
}

TEST_F(FdiskApi, GeometryFallsBackOnAStockKernel)
{
    // No HDIO_GETGEO_BIG: heads and sectors from HDIO_GETGEO, whose
    // cylinders are not used; cylinders from the size, whole ones only.
    for (int missing : {ENOTTY, EINVAL}) {
        SCOPED_TRACE(missing);
        Restore();
        Disk(0, 0, 0, 1008000 + 1007);
        drive::Refuse(kGetGeoBig, missing);
        struct hd_geometry hd = {16, 63, 7, 0};
        drive::Answer(HDIO_GETGEO, &hd, sizeof hd);
        ASSERT_EQ(KovDskFdisk(disk_.c_str(), 3, 100000, 200000, 0, 0), 0);
        EXPECT_EQ(Sector0().substr(446), kExample2);
        ASSERT_EQ(drive::Count(), 5);
        EXPECT_EQ(drive::Request(3), static_cast<unsigned long>(HDIO_GETGEO));
        ExpectClosedAndIdle();
    }
    // Neither geometry request: 255 heads by 63 sectors.
    for (int missing : {ENOTTY, EINVAL}) {
        SCOPED_TRACE(missing);
        Restore();
        Disk(0, 0, 0, 234436545 + 16064);
        drive::Refuse(kGetGeoBig, missing);
        drive::Refuse(HDIO_GETGEO, missing);
        ASSERT_EQ(KovDskFdisk(disk_.c_str(), 2, 2097152, 0, 0, 0), 0);
        EXPECT_EQ(Sector0().substr(446), kExample1);
        ExpectClosedAndIdle();
    }
    // Any other failure of a geometry request is the call's failure.
    Restore();
    Disk(16, 63, 1000, 1008000);
    drive::Refuse(kGetGeoBig, EIO);
    errno = 0;
    EXPECT_EQ(KovDskFdisk(disk_.c_str(), 1, 0, 0, 0, 0), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(drive::Count(), 3);  // HDIO_GETGEO not asked
    EXPECT_EQ(Sector0().substr(0, 8), Zeros(8));
    EXPECT_EQ(Sector0().substr(8), old_.substr(8));
    ExpectClosedAndIdle();

    Disk(16, 63, 1000, 1008000);
    drive::Refuse(kGetGeoBig, ENOTTY);
    drive::Refuse(HDIO_GETGEO, EIO);
    errno = 0;
    EXPECT_EQ(KovDskFdisk(disk_.c_str(), 1, 0, 0, 0, 0), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(Sector0().substr(446), old_.substr(446));
    ExpectClosedAndIdle();
}

TEST_F(FdiskApi, RefusesWhatItCannotLayOut)
{
    Disk(16, 63, 1000, 1008000);
    long opens = Calls("open");
    struct Args {
        const char *path;
        int count;
        uint32_t s1, s2, s3;
    } bad[] = {
        {nullptr, 1, 0, 0, 0},
        {disk_.c_str(), 0, 1, 1, 1},
        {disk_.c_str(), 5, 100000, 100000, 100000},
        {disk_.c_str(), -1, 1, 1, 1},
        {disk_.c_str(), 2, 0, 100000, 100000},
        {disk_.c_str(), 3, 100000, 0, 100000},
        {disk_.c_str(), 4, 100000, 100000, 0},
    };
    for (const Args &a : bad) {
        SCOPED_TRACE(a.count);
        errno = 0;
        EXPECT_EQ(KovDskFdisk(a.path, a.count, a.s1, a.s2, a.s3, 100000), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(Calls("open"), opens);
    EXPECT_EQ(device::Told(), 0);  // the counter never moved
    EXPECT_EQ(Sector0(), old_);

    // The last size is never looked at, and count 1 looks at none.
    EXPECT_EQ(KovDskFdisk(disk_.c_str(), 4, 100000, 100000, 100000, 0), 0);
    EXPECT_EQ(KovDskFdisk(disk_.c_str(), 3, 100000, 100000, 0, 0), 0);
    EXPECT_EQ(KovDskFdisk(disk_.c_str(), 1, 0, 0, 0, 0), 0);
    EXPECT_EQ(Sector0().substr(446), Hex("00 01 01 00 83 FE FF E7 3F 00 00 00 41 61 0F 00") +
                                         Zeros(48) + Hex("55 AA"));
    device::Clear();

    // Known only once the geometry is: zero heads or sectors, a size below
    // one cylinder, a disk without a cylinder past the first track. The
    // priming write has happened; the old table stays.
    struct Shape {
        const char *why;
        unsigned heads, sectors;
        unsigned long size;
        int count;
        uint32_t s1, s2;
    } shapes[] = {
        {"zero heads", 0, 63, 1008000, 1, 0, 0},
        {"zero sectors", 16, 0, 1008000, 1, 0, 0},
        {"size1 below a cylinder", 16, 63, 1008000, 2, 1007, 0},
        {"size2 below a cylinder", 16, 63, 1008000, 3, 100000, 1007},
        {"disk of no cylinder", 16, 63, 1007, 1, 0, 0},
    };
    for (const Shape &s : shapes) {
        SCOPED_TRACE(s.why);
        Restore();
        Disk(s.heads, s.sectors, static_cast<unsigned>(s.size / 1008), s.size);
        errno = 0;
        EXPECT_EQ(KovDskFdisk(disk_.c_str(), s.count, s.s1, s.s2, 0, 0), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(drive::Count(), 3);  // no BLKRRPART
        EXPECT_EQ(Sector0().substr(8), old_.substr(8));
        ExpectClosedAndIdle();
    }
}

TEST_F(FdiskApi, FailuresCloseTheDeviceAndLowerTheCounter)
{
    const std::string table = Hex("00 01 01 00 83 FE FF E7 3F 00 00 00 41 61 0F 00") +
                              Zeros(48) + Hex("55 AA");
    struct Case {
        const char *name;
        int err;
        bool primed;      // bytes 0 to 7 zero afterwards
        bool table_kept;  // the old table still in place
    };
    auto check = [&](const Case &c, int rc) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(rc, -1);
        EXPECT_EQ(errno, c.err);
        std::string s = Sector0();
        EXPECT_EQ(s.substr(0, 8), c.primed ? Zeros(8) : old_.substr(0, 8));
        EXPECT_EQ(s.substr(446), c.table_kept ? old_.substr(446) : table);
        ExpectClosedAndIdle();
        Restore();
        Disk(16, 63, 1000, 1008000);
    };
    const char *d = disk_.c_str();
    Disk(16, 63, 1000, 1008000);

    check({"no device", ENOENT, false, true}, KovDskFdisk(Path("absent").c_str(), 1, 0, 0, 0, 0));
    {
        Fault f("open", EACCES);
        check({"open refused", EACCES, false, true}, KovDskFdisk(d, 1, 0, 0, 0, 0));
    }
    {
        Fault f("write", ENOSPC, 1, 1, 8);
        int rc = KovDskFdisk(d, 1, 0, 0, 0, 0);
        EXPECT_EQ(drive::Count(), 0);
        check({"priming write", ENOSPC, false, true}, rc);
    }
    drive::Refuse(BLKSSZGET, EIO);
    check({"BLKSSZGET", EIO, true, true}, KovDskFdisk(d, 1, 0, 0, 0, 0));
    drive::Refuse(BLKGETSIZE, EFBIG);
    check({"BLKGETSIZE", EFBIG, true, true}, KovDskFdisk(d, 1, 0, 0, 0, 0));
    {
        Fault f("lseek", ESPIPE);
        check({"lseek", ESPIPE, true, true}, KovDskFdisk(d, 1, 0, 0, 0, 0));
    }
    {
        Fault f("write", EIO, 1, 1, 66);
        check({"table write", EIO, true, true}, KovDskFdisk(d, 1, 0, 0, 0, 0));
    }
    // The kernel keeps its old table, but the new one is on the disk.
    drive::Refuse(BLKRRPART, EBUSY);
    long syncs = Calls("sync");
    int rc = KovDskFdisk(d, 1, 0, 0, 0, 0);
    EXPECT_EQ(Calls("sync"), syncs + 2);
    check({"BLKRRPART", EBUSY, true, false}, rc);

    // The activity counter lies in the table.
    Detach();
    long opens = Calls("open");
    errno = 0;
    EXPECT_EQ(KovDskFdisk(d, 1, 0, 0, 0, 0), -1);
    EXPECT_EQ(errno, EINIT);
    EXPECT_EQ(Calls("open"), opens);
}

// A loop device over a 64 MiB image, detached again at the end of the test.
// A loop device has neither geometry request: 255 by 63, 8 cylinders.
class FdiskLoop : public FdiskApi {
protected:
    void SetUp() override
    {
        FdiskApi::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        if (getenv("KOVTEST_EMULATED") != nullptr)
            GTEST_SKIP() << "block-device requests do not pass user-mode emulation";
        if (geteuid() != 0 || !Have("losetup") || !Have("sfdisk"))
            GTEST_SKIP() << "needs root, losetup and sfdisk";
        drive::Attach(nullptr);
        ASSERT_EQ(truncate(disk_.c_str(), 64 << 20), 0);
        loop_ = Output("losetup -f --show -P '" + disk_ + "' 2>/dev/null");
        if (!loop_.empty() && loop_.back() == '\n')
            loop_.pop_back();
        if (loop_.rfind("/dev/loop", 0) != 0) {
            loop_.clear();
            GTEST_SKIP() << "no loop device could be set up";
        }
    }
    void TearDown() override
    {
        if (!loop_.empty() && system(("losetup -d " + loop_).c_str()) != 0)
            ADD_FAILURE() << "losetup -d " << loop_;
        FdiskApi::TearDown();
    }
    std::string loop_;
};

TEST_F(FdiskLoop, TableReachesARealBlockDevice)
{
    ASSERT_EQ(KovDskFdisk(loop_.c_str(), 2, 3 * 16065, 0, 0, 0), 0) << strerror(errno);
    EXPECT_EQ(SfdiskParts(loop_), "63 48132 131\n48195 80325 131\n");
    EXPECT_EQ(AccTbl->acc_cnt, 0);
}

TEST_F(FdiskLoop, KernelReadsTheNewTable)
{
    // A kernel built without DOS partition tables takes BLKRRPART and
    // finds nothing.
    if (Output("zcat /proc/config.gz 2>/dev/null").find("# CONFIG_MSDOS_PARTITION is not set") !=
        std::string::npos)
        GTEST_SKIP() << "this kernel does not read DOS partition tables";
    ASSERT_EQ(KovDskFdisk(loop_.c_str(), 2, 3 * 16065, 0, 0, 0), 0) << strerror(errno);
    std::string name = loop_.substr(5);
    auto sys = [&](const char *part, const char *what) {
        std::ifstream in("/sys/block/" + name + "/" + name + part + "/" + what);
        long v = -1;
        in >> v;
        return v;
    };
    EXPECT_EQ(sys("p1", "start"), 63);
    EXPECT_EQ(sys("p1", "size"), 48132);
    EXPECT_EQ(sys("p2", "start"), 48195);
    EXPECT_EQ(sys("p2", "size"), 80325);
}
