// Areas of the store: the area path rule, searches, path splitting, links.
#include "doubles/interpose.h"
#include "harness/boot.h"

#include "store/store.h"

#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

using namespace kovtest;

namespace {

class Area : public Boot {
protected:
    void SetUp() override
    {
        Boot::SetUp();
        Create();
        for (const char *d : {"general", "uid", "usr", ".trash"})
            ASSERT_EQ(mkdir(Path(d).c_str(), 0777), 0);
    }
    std::string Link(const std::string &rel)
    {
        char text[4096] = {};
        return readlink(Path(rel).c_str(), text, sizeof text - 1) < 0 ? "" : text;
    }
    int Find(const char *area, unsigned kind, const char *name, int mode, int link, std::string *out = nullptr)
    {
        char buf[256];
        memset(buf, 'X', sizeof buf);
        int n = KovDskNameFind(area, kind, name, buf, mode, link);
        if (out != nullptr && n > 0)
            *out = buf;
        return n;
    }
};

} // namespace

TEST_F(Area, AreaPathRule)
{
    char out[4096];
    ASSERT_EQ(KovDskAreaPath(out, 0, 9, nullptr, 9, KOVDSK_AREAS_ALL), 0);
    EXPECT_STREQ(out, "general");
    ASSERT_EQ(KovDskAreaPath(out, 1, 4660, nullptr, 0, KOVDSK_AREAS_ALL), 0);
    EXPECT_STREQ(out, "uid/0000000000001234");
    ASSERT_EQ(KovDskAreaPath(out, 2, 0, "abc", 0, KOVDSK_AREAS_ALL), 0);
    EXPECT_STREQ(out, "usr/616263");
    ASSERT_EQ(KovDskAreaPath(out, 3, 0, "abc", 0xFEDCBA9876543210ull, KOVDSK_AREAS_ALL), 0);
    EXPECT_STREQ(out, "usr/616263/FEDCBA9876543210");

    EXPECT_EQ(KovDskAreaPath(out, 2, 0, "abc", 0, KOVDSK_AREAS_WRITE), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(KovDskAreaPath(out, 4, 0, "abc", 0, KOVDSK_AREAS_ALL), -1);
    EXPECT_EQ(KovDskAreaPath(out, 3, 0, nullptr, 0, KOVDSK_AREAS_ALL), -1);

    // Users count by their first 63 bytes.
    std::string u70(70, 'u'), u63(63, 'u');
    char a[4096], b[4096];
    ASSERT_EQ(KovDskAreaPath(a, 2, 0, u70.c_str(), 0, KOVDSK_AREAS_ALL), 0);
    ASSERT_EQ(KovDskAreaPath(b, 2, 0, u63.c_str(), 0, KOVDSK_AREAS_ALL), 0);
    EXPECT_STREQ(a, b);
    EXPECT_EQ(strlen(a), 4u + 126u);
}

TEST_F(Area, SearchModesAndEntryTypes)
{
    PutFile("general/t01tn41n.0");
    PutFile("general/t01tn41n.1");
    PutFile("general/t04tn4142n.0");
    PutFile("general/t00tn4142n.0");
    PutFile("general/not-a-stored-name-t");  // an opening "t" with no closing one
    ASSERT_EQ(mkdir(Path("general/t04tn41n.0").c_str(), 0777), 0);  // a directory
    ASSERT_EQ(mkfifo(Path("general/t04tn4143n.0").c_str(), 0666), 0);
    // A dangling link of the library's own shape, and one of another shape.
    ASSERT_EQ(symlink(Path("usr/4142/0000000000000001/t04tn4144n.0").c_str(),
                      Path("general/t04tn4144n.0").c_str()), 0);
    ASSERT_EQ(symlink("/nowhere", Path("general/t04tn4145n.0").c_str()), 0);

    std::string out;
    EXPECT_EQ(Find("general", 1, "A", 1, 0, &out), 2);  // differ in the flag only
    EXPECT_TRUE(out == "t01tn41n.0" || out == "t01tn41n.1") << out;
    EXPECT_EQ(Find("general", 0, "AB", 1, 0, &out), 1);  // kind 0 means kind 0
    EXPECT_EQ(out, "t00tn4142n.0");
    EXPECT_EQ(Find("general", 0, "A", 2, 0), 4);          // kind 0: all kinds
    EXPECT_EQ(Find("general", 4, "", 2, 0), 1);
    EXPECT_EQ(Find("general", 4, "", 2, 1), 2);           // the dangling own link counts
    EXPECT_EQ(Find("general", 0, "", 9, 1), 5);           // every file and link that parses
    EXPECT_EQ(Find("missing", 0, "", 9, 1), 0);

    // A name of over 32 bytes is never found: a stored name holds 32.
    std::string n40(40, 'a');
    char stored[256];
    ASSERT_EQ(KovDskNameBuild(1, n40.c_str(), nullptr, nullptr, nullptr, 0, stored), 0);
    PutFile(std::string("general/") + stored);
    EXPECT_EQ(Find("general", 1, n40.c_str(), 1, 0), 0);
    EXPECT_EQ(Find("general", 1, n40.c_str(), 2, 0), 0);
    EXPECT_EQ(Find("general", 1, n40.substr(0, 32).c_str(), 1, 0), 1);

    // With no match the output is untouched.
    char buf[256];
    memset(buf, 'X', sizeof buf);
    EXPECT_EQ(KovDskNameFind("general", 7, "zz", buf, 1, 1), 0);
    EXPECT_EQ(buf[0], 'X');
}

TEST_F(Area, PathSplitTakesTheFirstUsrDirectory)
{
    char user[136], pass[40], file[256];
    ASSERT_EQ(KovDskPathSplit("/mnt/store/usr/616263/0000000000000001/t01tn41n.0", user, pass, file), 0);
    EXPECT_STREQ(user, "616263");
    EXPECT_STREQ(pass, "0000000000000001");
    EXPECT_STREQ(file, "t01tn41n.0");
    ASSERT_EQ(KovDskPathSplit("/r/usr/u/p/", user, pass, file), 0);
    EXPECT_STREQ(file, "");
    EXPECT_EQ(KovDskPathSplit("/mnt/store/general/t01tn41n.0", user, pass, file), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(KovDskPathSplit("/mnt/store/usr/616263/0000000000000001", user, pass, file), -1);
    // Pieces longer than the callers' buffers are refused.
    std::string longuser = "/r/usr/" + std::string(136, 'A') + "/p/f";
    std::string longpass = "/r/usr/u/" + std::string(40, '0') + "/f";
    std::string longfile = "/r/usr/u/p/" + std::string(256, 'f');
    for (const std::string &p : {longuser, longpass, longfile})
        EXPECT_EQ(KovDskPathSplit(p.c_str(), user, pass, file), -1);
}

TEST_F(Area, LinksHoldTheFullPathAndResolveUnderTheCurrentRoot)
{
    ASSERT_EQ(mkdir(Path("usr/616263").c_str(), 0777), 0);
    ASSERT_EQ(mkdir(Path("usr/616263/0000000000000001").c_str(), 0777), 0);
    std::string real = Path("usr/616263/0000000000000001/t2atn616263n.0");
    PutFile("usr/616263/0000000000000001/t2atn616263n.0");
    ASSERT_EQ(KovDskLinkMake(real.c_str()), 0);
    EXPECT_EQ(Link("general/t2atn616263n.0"), real);
    EXPECT_EQ(Link("usr/616263/t2atn616263n.0"), real);

    char out[4096];
    ASSERT_EQ(KovDskLinkResolve(Path("general/t2atn616263n.0").c_str(), out), 0);
    EXPECT_EQ(std::string(out), real);

    // A link made under an older root resolves under the current one.
    ASSERT_EQ(symlink("/old/root/usr/616263/0000000000000001/t2atn616263n.0",
                      Path("general/old").c_str()), 0);
    ASSERT_EQ(KovDskLinkResolve(Path("general/old").c_str(), out), 0);
    EXPECT_EQ(std::string(out), real);

    // Failures leave the output untouched.
    memset(out, 'X', sizeof out);
    EXPECT_EQ(KovDskLinkResolve(real.c_str(), out), -1);  // no link
    EXPECT_EQ(errno, EINVAL);
    ASSERT_EQ(symlink("/r/general/x", Path("general/outside").c_str()), 0);
    EXPECT_EQ(KovDskLinkResolve(Path("general/outside").c_str(), out), -1);
    EXPECT_EQ(errno, EINVAL);
    std::string longtext = "/r/usr/" + std::string(200, 'A') + "/p/f";
    ASSERT_EQ(symlink(longtext.c_str(), Path("general/long").c_str()), 0);
    EXPECT_EQ(KovDskLinkResolve(Path("general/long").c_str(), out), -1);
    {
        Fault f("readlink", EIO);
        EXPECT_EQ(KovDskLinkResolve(Path("general/old").c_str(), out), -1);
        EXPECT_EQ(errno, EIO);
    }
    EXPECT_EQ(out[0], 'X');

    // A second link in "general" fails, and there is no rollback.
    EXPECT_EQ(KovDskLinkMake(real.c_str()), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(KovDskLinkMake(Path("general/x").c_str()), -1);
    EXPECT_EQ(errno, EINVAL);
    ASSERT_EQ(unlink(Path("general/t2atn616263n.0").c_str()), 0);
    {
        Fault f("symlink", EDQUOT, 2);
        EXPECT_EQ(KovDskLinkMake(real.c_str()), -1);
        EXPECT_EQ(errno, EDQUOT);
    }
    EXPECT_EQ(Link("general/t2atn616263n.0"), real);
}

// A link's text may be anything: one whose pieces hold a ".." component
// would resolve to a path that climbs out of its pass area, and out of the
// root with enough of them (found by fuzz/link_resolve.cpp). It is refused,
// the output untouched; dots that climb nowhere still resolve.
TEST_F(Area, LinksThatWouldClimbOutAreRefused)
{
    char out[4096];
    const char *climbing[] = {
        "/r/usr/../../x",            // user and pass ".."
        "/r/usr/u/../x",             // pass ".."
        "/r/usr/u/p/../../../../x",  // in the file part
        "/r/usr/u/p/a/..",
        "/r/us/r/usr/./.././../",
        "/r/usr/u/p/a/b",            // no file of the pass area itself
    };
    int i = 0;
    for (const char *text : climbing) {
        std::string link = "general/climb" + std::to_string(i++);
        ASSERT_EQ(symlink(text, Path(link).c_str()), 0);
        memset(out, 'X', sizeof out);
        errno = 0;
        EXPECT_EQ(KovDskLinkResolve(Path(link).c_str(), out), -1) << text;
        EXPECT_EQ(errno, EINVAL) << text;
        EXPECT_EQ(out[0], 'X') << text;
    }
    ASSERT_EQ(symlink("/r/usr/..x/p/a..", Path("general/dots").c_str()), 0);
    ASSERT_EQ(KovDskLinkResolve(Path("general/dots").c_str(), out), 0);
    EXPECT_EQ(std::string(out), Path("usr/..x/p/a.."));
}
