// Time stamps come from the date component: the 2038 clamp, a failing
// component, and the stamp of a driver package's directory.
#include "doubles/interpose.h"
#include "harness/boot.h"

#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

using namespace kovtest;

namespace {
class Stamp : public Boot {
protected:
    void SetUp() override
    {
        Boot::SetUp();
        Create();
    }
    // Sets a file's times to a known old value and reads them back.
    void Age(const std::string &rel)
    {
        struct utimbuf t = {123456, 123456};
        ASSERT_EQ(utime(Path(rel).c_str(), &t), 0);
    }
    std::pair<long, long> Times(const std::string &rel)
    {
        struct stat st;
        if (stat(Path(rel).c_str(), &st) != 0)
            return {-1, -1};
        return {(long)st.st_atime, (long)st.st_mtime};
    }
};
} // namespace

TEST_F(Stamp, YearsFrom2038OnAreClampedToItsFirstSecond)
{
    PutFile("f");
    SetNow("2037-12-31 23:59:58");
    ASSERT_EQ(KovDskChgTimeStamp("f"), 0);
    long t2037 = Utc(2037, 12, 31, 23, 59, 58);
    EXPECT_EQ(Times("f"), std::make_pair(t2037, t2037));

    long t2038 = Utc(2038, 1, 1, 0, 0, 0);
    for (const char *when : {"2038-01-01 00:00:01", "2038-06-15 12:34:56", "2106-11-30 23:59:59"}) {
        Age("f");
        SetNow(when);
        ASSERT_EQ(KovDskChgTimeStamp("f"), 0);
        EXPECT_EQ(Times("f"), std::make_pair(t2038, t2038)) << when;
    }
}

TEST_F(Stamp, FailingDateComponentStampsNothing)
{
    PutFile("f");
    Age("f");
    FailDate("utc");
    errno = EXDEV;
    EXPECT_EQ(KovDskChgTimeStamp("f"), 0);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(Times("f"), std::make_pair(123456L, 123456L));

    // A directory made meanwhile keeps the time the system gave it.
    long before = time(nullptr);
    ASSERT_EQ(KovDskDirMake("d"), 0);
    EXPECT_GE(Times("d").second, before);
}

TEST_F(Stamp, MissingOrUntouchableFilesAreNoError)
{
    SetNow("2030-01-01 00:00:00");
    errno = EXDEV;
    EXPECT_EQ(KovDskChgTimeStamp("absent"), 0);
    EXPECT_EQ(errno, EXDEV);
    PutFile("f");
    {
        Fault f("utime", EPERM);
        EXPECT_EQ(KovDskChgTimeStamp("f"), 0);
        EXPECT_EQ(errno, EXDEV);
    }
    // An empty path stamps the root itself.
    ASSERT_EQ(KovDskChgTimeStamp(""), 0);
    struct stat st;
    ASSERT_EQ(stat(root_.c_str(), &st), 0);
    EXPECT_EQ(st.st_mtime, Utc(2030, 1, 1, 0, 0, 0));
}

TEST_F(Stamp, FileOfADriverPackageStampsItsDirectory)
{
    ASSERT_EQ(mkdir(Path("drivers").c_str(), 0777), 0);
    ASSERT_EQ(mkdir(Path("drivers/net").c_str(), 0777), 0);
    PutFile("drivers/top.ko");
    PutFile("drivers/net/eth.ko");
    for (const char *p : {"drivers", "drivers/net", "drivers/top.ko", "drivers/net/eth.ko"})
        Age(p);

    SetNow("2031-02-03 04:05:06");
    long now = Utc(2031, 2, 3, 4, 5, 6);
    ASSERT_EQ(KovDskChgTimeStamp("drivers/net/eth.ko"), 0);
    EXPECT_EQ(Times("drivers/net/eth.ko").second, now);
    EXPECT_EQ(Times("drivers/net").second, now);
    EXPECT_EQ(Times("drivers").second, 123456);

    // Directly in "drivers": nothing but the file.
    ASSERT_EQ(KovDskChgTimeStamp("drivers/top.ko"), 0);
    EXPECT_EQ(Times("drivers/top.ko").second, now);
    EXPECT_EQ(Times("drivers").second, 123456);
}
