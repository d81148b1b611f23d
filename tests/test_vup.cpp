// KovDskVup001, the old-file migration: stored files of kinds 3 and 4 lying
// in "general" move into one user's pass area and get its two links; what a
// failure leaves behind in "usr" goes along with a later call.
#include "doubles/interpose.h"
#include "harness/store.h"

#include <cerrno>
#include <string>
#include <sys/stat.h>
#include <syslog.h>

using namespace kovtest;

namespace {

class Vup : public Store {};

} // namespace

TEST_F(Vup, OldFilesMoveIntoAPassArea)
{
    for (const char *f : {"t04tn41n.0", "t04tn42n.1", "t04tn43n.0", "t03tn44n.0", "t03tn45n.0",
                          "t01tn46n.0"})
        PutFile(std::string("general/") + f, f);
    log::Clear();
    ASSERT_EQ(KovDskVup001("abc", 1), 0);
    EXPECT_EQ(log::Count(), 0);
    const std::string pass = "usr/616263/0000000000000001/";
    EXPECT_EQ(Entries("usr/616263/0000000000000001"),
              "t03tn44n.0 t03tn45n.0 t04tn41n.0 t04tn42n.1 t04tn43n.0");
    for (const char *f : {"t04tn41n.0", "t03tn45n.0"}) {
        EXPECT_EQ(LinkText(std::string("general/") + f), Path(pass + f));
        EXPECT_EQ(LinkText(std::string("usr/616263/") + f), Path(pass + f));
        EXPECT_EQ(Content(pass + f), f);
    }
    EXPECT_EQ(Content("general/t01tn46n.0"), "t01tn46n.0");  // kind 1 stays, unlinked
    EXPECT_EQ(Entries("usr"), "616263");
    ExpectAllFree();

    // Again: only links in "general" now.
    EXPECT_EQ(KovDskVup001("abc", 1), -1);
    ASSERT_EQ(log::Count(), 1);
    EXPECT_STREQ(log::Line(0), " [KovDskVup001] No old files");
    EXPECT_EQ(log::Priority(0), LOG_INFO);
    // Nothing to move: no directory for a new user either.
    EXPECT_EQ(KovDskVup001("zed", 2), -1);
    EXPECT_FALSE(Exists("usr/7A6564"));
    ExpectAllFree();
}

TEST_F(Vup, MigrationFailuresLeaveFilesInUsr)
{
    PutFile("general/t04tn41n.0");
    ASSERT_EQ(mkdir(Path("usr/616263").c_str(), 0777), 0);  // the user exists already
    log::Clear();
    EXPECT_EQ(KovDskVup001("abc", 1), -1);
    EXPECT_EQ(errno, EEXIST);
    ASSERT_EQ(log::Count(), 1);
    EXPECT_STREQ(log::Line(0), " [KovDskVup001] User directory(usr/616263) make fail.");
    EXPECT_TRUE(Exists("usr/t04tn41n.0"));

    PutFile("general/t03tn42n.0");
    {
        Fault f("mkdir", ENOSPC, 2);
        EXPECT_EQ(KovDskVup001("def", 2), -1);
        EXPECT_EQ(errno, ENOSPC);
    }
    EXPECT_STREQ(log::Line(1), " [KovDskVup001] Passwd directory(usr/646566/0000000000000002) make fail.");
    EXPECT_TRUE(Exists("usr/646566"));

    // A later call that moves one more takes all of them along.
    PutFile("general/t04tn43n.0");
    ASSERT_EQ(KovDskVup001("ghi", 3), 0);
    EXPECT_EQ(Entries("usr/676869/0000000000000003"), "t03tn42n.0 t04tn41n.0 t04tn43n.0");

    // A rename that keeps failing does not keep the loop going.
    PutFile("general/t04tn44n.0");
    {
        Fault f("rename", EBUSY, 1, -1);
        EXPECT_EQ(KovDskVup001("jkl", 4), -1);
    }
    EXPECT_TRUE(Exists("general/t04tn44n.0"));
    ExpectAllFree();
    Detach();
    EXPECT_EQ(KovDskVup001("abc", 1), -1);
    EXPECT_EQ(errno, EINIT);
}
