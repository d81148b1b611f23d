// The drive's own commands through the API, on an image file whose driver
// requests the drive double answers: the blocks the library hands the
// driver, the route through SG_IO where the appliance's driver is missing,
// the wiping of the password block, and the identify retries.
#include "doubles/drive.h"
#include "doubles/interpose.h"
#include "harness/boot.h"

#include <cstdio>
#include <cstring>
#include <functional>
#include <linux/hdreg.h>
#include <unistd.h>
#include <vector>

using namespace kovtest;

namespace {

using PasswdCall = int (*)(const char *, const char *, unsigned char);
struct PasswdOp {
    const char *name;
    PasswdCall call;
    unsigned long request;  // the appliance driver's
    char command;           // the ATA command of the SG_IO route
};
const PasswdOp kPasswdOps[] = {
    {"set", KovDskSetPasswd, 0x350, '\xF1'},
    {"unlock", KovDskUnlockPasswd, 0x351, '\xF2'},
    {"disable", KovDskDisablePasswd, 0x352, '\xF6'},
};

const char kPw32[] = "0123456789abcdefghijklmnopqrstuv";

// What fn printed on standard output.
std::string Printed(const std::function<void()> &fn)
{
    fflush(stdout);
    int p[2];
    if (pipe(p) != 0)
        return "pipe failed";
    int saved = dup(STDOUT_FILENO);
    dup2(p[1], STDOUT_FILENO);
    close(p[1]);
    fn();
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    std::string out;
    char buf[256];
    ssize_t n;
    while ((n = read(p[0], buf, sizeof buf)) > 0)
        out.append(buf, static_cast<size_t>(n));
    close(p[0]);
    return out;
}

// What the wipe saw: where, how much, and whether the password was still
// there when it began.
struct Wipe {
    int calls;
    const void *buf;
    size_t count;
    bool held_password;
} wipe;

void SpyWipe(const CallInfo &call)
{
    wipe.calls++;
    wipe.buf = call.buf;
    wipe.count = call.count;
    wipe.held_password = memcmp(static_cast<const char *>(call.buf) + 2, "pw-secret", 9) == 0;
}

std::vector<size_t> pauses;
void SpyPause(const CallInfo &call) { pauses.push_back(call.count); }

class AtaApi : public Boot {
protected:
    void SetUp() override
    {
        Boot::SetUp();
        disk_ = Path("disk");
        PutFile("disk", Zeros(4096));
        drive::Attach(disk_.c_str());
    }
    void TearDown() override
    {
        drive::Attach(nullptr);
        Boot::TearDown();
    }
    // A fresh drive: empty table and log.
    void Fresh() { drive::Attach(disk_.c_str()); }

    std::string disk_;
};

} // namespace

TEST_F(AtaApi, ArgumentsAreRefusedBeforeTheDeviceOpens)
{
    const char *d = disk_.c_str();
    long opens = Calls("open");
    auto refused = [](int rc) { return rc == -1 && errno == EINVAL; };
    for (const PasswdOp &op : kPasswdOps) {
        SCOPED_TRACE(op.name);
        EXPECT_TRUE(refused(op.call(nullptr, "pw", 0)));
        EXPECT_TRUE(refused(op.call("", "pw", 0)));
        EXPECT_TRUE(refused(op.call(d, nullptr, 0)));
        EXPECT_TRUE(refused(op.call(d, "", 1)));
        EXPECT_TRUE(refused(op.call(d, "pw", 2)));
        EXPECT_TRUE(refused(op.call(d, "pw", 255)));
    }
    EXPECT_TRUE(refused(KovDskReset(nullptr)));
    EXPECT_TRUE(refused(KovDskReset("")));

    unsigned char buf[512];
    memset(buf, 0xA5, sizeof buf);
    EXPECT_TRUE(refused(KovDskGetIdentify(nullptr, buf)));
    EXPECT_TRUE(refused(KovDskGetIdentify("", buf)));
    EXPECT_TRUE(refused(KovDskGetIdentify(d, nullptr)));
    EXPECT_EQ(std::string(reinterpret_cast<char *>(buf), 512), std::string(512, '\xA5'));

    EXPECT_EQ(Calls("open"), opens);
    EXPECT_EQ(drive::Count(), 0);
}

TEST_F(AtaApi, SecurityBlockCarriesIdentifierAndPassword)
{
    ASSERT_EQ(AccTbl, nullptr);  // none of this needs the table
    for (const PasswdOp &op : kPasswdOps) {
        SCOPED_TRACE(op.name);
        // The block the driver was handed by one call.
        auto sent = [&](const char *pw, unsigned char which) {
            Fresh();
            drive::Answer(op.request);
            EXPECT_EQ(op.call(disk_.c_str(), pw, which), 0);
            EXPECT_EQ(drive::Count(), 1);
            EXPECT_EQ(drive::Request(0), op.request);
            EXPECT_EQ(drive::Open(), 0);
            return drive::Bytes(0);
        };
        EXPECT_EQ(sent("s3cret", 0), std::string("\0\0s3cret", 8) + Zeros(504));
        EXPECT_EQ(sent("x", 1), std::string("\1\0x", 3) + Zeros(509));
        // 32 bytes fill the field with no terminator; a 33rd is cut off.
        EXPECT_EQ(sent(kPw32, 1), std::string("\1\0", 2) + kPw32 + Zeros(478));
        EXPECT_EQ(sent((std::string(kPw32) + "W").c_str(), 1),
                  std::string("\1\0", 2) + kPw32 + Zeros(478));

        // Whatever the driver returns is the result.
        Fresh();
        drive::Answer(op.request, nullptr, 0, 0, 7);
        EXPECT_EQ(op.call(disk_.c_str(), "pw", 0), 7);
    }
}

TEST_F(AtaApi, DriveFailuresAreReturnedAtOnce)
{
    for (const PasswdOp &op : kPasswdOps) {
        SCOPED_TRACE(op.name);
        for (int err : {EIO, EACCES}) {
            Fresh();
            drive::Refuse(op.request, err);
            drive::Answer(SG_IO);
            errno = 0;
            EXPECT_EQ(op.call(disk_.c_str(), "pw", 0), -1);
            EXPECT_EQ(errno, err);
            EXPECT_EQ(drive::Count(), 1);  // no second attempt, no SG_IO
            EXPECT_EQ(drive::Open(), 0);
        }
        errno = 0;
        EXPECT_EQ(op.call(Path("absent").c_str(), "pw", 0), -1);
        EXPECT_EQ(errno, ENOENT);
        Fault f("open", EBUSY);
        EXPECT_EQ(op.call(disk_.c_str(), "pw", 0), -1);
        EXPECT_EQ(errno, EBUSY);
    }
}

TEST_F(AtaApi, StockKernelReachesTheDriveThroughSgIo)
{
    for (const PasswdOp &op : kPasswdOps) {
        for (int missing : {ENOTTY, EINVAL}) {
            SCOPED_TRACE(std::string(op.name) + " " + strerror(missing));
            Fresh();
            drive::Refuse(op.request, missing);
            drive::Answer(SG_IO);
            EXPECT_EQ(op.call(disk_.c_str(), "pw", 1), 0);
            ASSERT_EQ(drive::Count(), 2);
            EXPECT_EQ(drive::Request(1), static_cast<unsigned long>(SG_IO));
            sg_io_hdr_t io = drive::SgHeader(1);
            EXPECT_EQ(io.interface_id, 'S');
            EXPECT_EQ(io.dxfer_direction, SG_DXFER_TO_DEV);
            EXPECT_EQ(io.cmd_len, 16);
            EXPECT_EQ(io.dxfer_len, 512u);
            EXPECT_EQ(io.dxferp, drive::Arg(0));  // the very block of the first request
            EXPECT_GT(io.timeout, 0u);
            EXPECT_GE(io.mx_sb_len, 18);
            // ATA PASS-THROUGH (16): PIO data-out, one 512-byte block counted
            // in the sector count field, the command in byte 14.
            EXPECT_EQ(drive::Bytes(1), std::string("\x85\x0A\x06\0\0\0\x01\0\0\0\0\0\0\0", 14) +
                                           op.command + std::string(1, '\0'));
            EXPECT_EQ(drive::Data(1), std::string("\1\0pw", 4) + Zeros(508));
            EXPECT_EQ(drive::Open(), 0);
        }

        // The drive's refusal comes back as SCSI status, and is EIO.
        struct { unsigned char status; unsigned short host, driver; } failed[] = {
            {0x02, 0, 0x08},  // CHECK CONDITION with sense: the command aborted
            {0, 0x07, 0},     // the host adapter gave up
            {0, 0, 0x06},     // the driver timed out
        };
        for (const auto &f : failed) {
            Fresh();
            drive::Refuse(op.request, ENOTTY);
            drive::Answer(SG_IO);
            drive::SgStatus(f.status, f.host, f.driver);
            errno = 0;
            EXPECT_EQ(op.call(disk_.c_str(), "pw", 0), -1);
            EXPECT_EQ(errno, EIO);
            EXPECT_EQ(drive::Open(), 0);
        }
        // A device that takes no SG_IO either: its answer is the result.
        Fresh();
        drive::Refuse(op.request, ENOTTY);
        drive::Refuse(SG_IO, EINVAL);
        errno = 0;
        EXPECT_EQ(op.call(disk_.c_str(), "pw", 0), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(drive::Count(), 2);
    }
}

TEST_F(AtaApi, PasswordBlockIsWipedOnEveryWayOut)
{
    OnCall spy("explicit_bzero", SpyWipe);
    struct Case {
        const char *name;
        std::function<void()> arrange;
        int result;
    } cases[] = {
        {"driver takes it", [] { drive::Answer(0x350); }, 0},
        {"drive refuses", [] { drive::Refuse(0x350, EIO); }, -1},
        {"through SG_IO", [] { drive::Refuse(0x350, ENOTTY); drive::Answer(SG_IO); }, 0},
        {"SG_IO refused", [] { drive::Refuse(0x350, EINVAL); drive::Refuse(SG_IO, EIO); }, -1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Fresh();
        c.arrange();
        wipe = {};
        EXPECT_EQ(KovDskSetPasswd(disk_.c_str(), "pw-secret", 0), c.result);
        EXPECT_EQ(wipe.calls, 1);
        EXPECT_EQ(wipe.buf, drive::Arg(0));
        EXPECT_EQ(wipe.count, 512u);
        EXPECT_TRUE(wipe.held_password);  // wiped after use, not before
    }
    // Built before the open, so wiped after a failed open too.
    wipe = {};
    EXPECT_EQ(KovDskUnlockPasswd(Path("absent").c_str(), "pw-secret", 0), -1);
    EXPECT_EQ(wipe.calls, 1);
    EXPECT_EQ(wipe.count, 512u);
    EXPECT_TRUE(wipe.held_password);
}

TEST_F(AtaApi, ResetAsksTheDriverOnce)
{
    drive::Answer(HDIO_DRIVE_RESET);
    EXPECT_EQ(KovDskReset(disk_.c_str()), 0);
    ASSERT_EQ(drive::Count(), 1);
    EXPECT_EQ(drive::Request(0), static_cast<unsigned long>(HDIO_DRIVE_RESET));
    EXPECT_EQ(drive::Open(), 0);

    Fresh();
    drive::Refuse(HDIO_DRIVE_RESET, EIO);
    errno = 0;
    EXPECT_EQ(KovDskReset(disk_.c_str()), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(drive::Count(), 1);
    EXPECT_EQ(drive::Open(), 0);

    EXPECT_EQ(KovDskReset(Path("absent").c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(AtaApi, IdentifyDeliversTheDataBehindTheHeader)
{
    unsigned char data[512];
    for (int i = 0; i < 512; i++)
        data[i] = static_cast<unsigned char>(i * 7 + 3);
    drive::Answer(HDIO_DRIVE_CMD, data, sizeof data, 4);
    long pauses_before = Calls("usleep");

    unsigned char area[514];
    memset(area, 0xA5, sizeof area);
    int rc = -2;
    std::string out = Printed([&] { rc = KovDskGetIdentify(disk_.c_str(), area + 1); });
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(memcmp(area + 1, data, 512), 0);  // an odd address takes the same bytes
    EXPECT_EQ(area[0], 0xA5);
    EXPECT_EQ(area[513], 0xA5);
    ASSERT_EQ(drive::Count(), 1);
    EXPECT_EQ(drive::Request(0), static_cast<unsigned long>(HDIO_DRIVE_CMD));
    EXPECT_EQ(drive::Bytes(0), std::string("\xEC\0\0\x01", 4) + Zeros(512));
    EXPECT_EQ(out, "");
    EXPECT_EQ(Calls("usleep"), pauses_before);
    EXPECT_EQ(drive::Open(), 0);
}

TEST_F(AtaApi, IdentifyTriesThreeTimesWithPausesBetween)
{
    OnCall spy("usleep", SpyPause);
    unsigned char data[512];
    memset(data, 0x3C, sizeof data);
    unsigned char buf[512];
    int rc = -2;

    // Two failures, then the data: nothing printed.
    drive::Refuse(HDIO_DRIVE_CMD, EIO, 2);
    drive::Answer(HDIO_DRIVE_CMD, data, sizeof data, 4);
    pauses.clear();
    std::string out = Printed([&] { rc = KovDskGetIdentify(disk_.c_str(), buf); });
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(drive::Count(), 3);
    EXPECT_EQ(pauses, (std::vector<size_t>{100, 100}));
    EXPECT_EQ(out, "");
    EXPECT_EQ(memcmp(buf, data, 512), 0);

    // Three failures: no pause after the last, the message, a zero buffer.
    Fresh();
    drive::Refuse(HDIO_DRIVE_CMD, EIO);
    pauses.clear();
    memset(buf, 0xA5, sizeof buf);
    out = Printed([&] { rc = KovDskGetIdentify(disk_.c_str(), buf); });
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(drive::Count(), 3);
    EXPECT_EQ(pauses, (std::vector<size_t>{100, 100}));
    EXPECT_EQ(out, "identify get failed!!\n");
    EXPECT_EQ(std::string(reinterpret_cast<char *>(buf), 512), Zeros(512));
    EXPECT_EQ(drive::Open(), 0);

    // No device: a zero buffer, and no attempt at all.
    Fresh();
    memset(buf, 0xA5, sizeof buf);
    int err = 0;
    out = Printed([&] {
        rc = KovDskGetIdentify(Path("absent").c_str(), buf);
        err = errno;
    });
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(err, ENOENT);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(buf), 512), Zeros(512));
    EXPECT_EQ(out, "");
    EXPECT_EQ(drive::Count(), 0);
}
